"""Operators from Python against NumPy: a member or more of each family, on both devices."""

import numpy as np
import pytest

import vorn


def values_of(t):
    return np.array(t.cpu())


def close(t, expected, tolerance=1e-5):
    np.testing.assert_allclose(values_of(t), expected, rtol=tolerance, atol=tolerance)


def test_operators_in_place(tensor, rng):
    a, b = rng.normal(size=(2, 3, 4)).astype(np.float32)
    t, u = tensor(a), tensor(b)
    same = t
    t += u
    t -= 2
    t *= u
    t /= 4
    t **= 2
    t -= u
    t /= u
    t *= 3
    t += 1
    assert t is same
    close(t, ((((a + b - 2) * b / 4) ** 2 - b) / b) * 3 + 1, 1e-3)
    with pytest.raises(TypeError):
        t += "one"
    with pytest.raises(TypeError):
        t + u  # which would allocate


def test_products_and_folds(tensor, rng):
    a = rng.normal(size=(3, 4)).astype(np.float32)
    b = rng.normal(size=(5, 4)).astype(np.float32)
    c = tensor(np.ones((3, 5)))
    c.mul(tensor(a), False, tensor(b), True, alpha=2, beta=3)
    close(c, 2 * a @ b.T + 3)
    row = tensor(np.zeros(5))
    row.col_sum(a=c)
    close(row, values_of(c).sum(0))
    assert c.max() == values_of(c).max() and c.min() == values_of(c).min()
    assert c.norm2() == pytest.approx(np.linalg.norm(values_of(c)), rel=1e-5)
    transposed = tensor(np.zeros((5, 3)))
    transposed.transpose(c)
    close(transposed, values_of(c).T)
    integers = tensor([[1, 2], [3, 4]], np.int32)
    integers.mul(3)
    assert integers.sum() == 30 and integers.cpu()[1, 0] == 9


def test_least_squares(tensor, rng, device):
    matrix = rng.normal(size=(2, 5, 3)).astype(np.float32)
    y = rng.normal(size=(2, 5)).astype(np.float32)
    out = tensor(y)
    out.sgels(tensor(matrix), vorn.UnsignedLongTensor(device), vorn.UnsignedLongTensor("cpu"))
    expected = [np.linalg.lstsq(m, v, rcond=None)[0] for m, v in zip(matrix, y)]
    np.testing.assert_allclose(values_of(out)[:, :3], expected, rtol=1e-3, atol=1e-4)


def test_singular_matrix_says_that_it_wrote():
    out = vorn.Tensor((1, 3))
    singular = vorn.from_numpy(np.array([[[1, 0], [1, 0], [1, 0]]], np.float32))
    with pytest.raises(vorn.CheckError, match="full rank") as caught:
        out.sgels(singular, vorn.UnsignedLongTensor(), vorn.UnsignedLongTensor())
    assert caught.value.may_have_written


def test_softmax_and_cross_entropy(tensor, rng):
    logits = rng.normal(size=(4, 6)).astype(np.float32)
    out = tensor(np.zeros((4, 6)))
    out.softmax(in_=tensor(logits))
    expected = np.exp(logits) / np.exp(logits).sum(1, keepdims=True)
    close(out, expected)
    labels = np.array([3, 0, 5, 2])
    mask = np.array([1, 1, 0, 1])
    error = tensor(np.zeros((4, 6)))
    error.cross_entropy_bp(out, tensor(labels), tensor(mask, np.int32), alpha=-1)
    close(error, (expected - np.eye(6)[labels]) * mask[:, None])


def test_counts_are_results(tensor):
    scores = tensor([[0.1, 0.9], [0.8, 0.2], [0.3, 0.7]])
    labels, mask = tensor([1, 1, 1]), tensor([1, 1, 1], np.int32)
    best, score = tensor([0, 0, 0], np.int32), tensor([0, 0, 0])
    assert score.cal_classify_acu_target(scores, labels, mask, best, ignore_label_val=-1) == 2
    assert values_of(best).tolist() == [1, 0, 1]
    assert labels.count_valid_label(mask, ignore_label_val=0) == 3
    frames = tensor([0, 0], np.int32)
    frames.count_valid_label(tensor([1, 1, 1, 0], np.int32), batch_size=2, sub_frame_len=2)
    assert values_of(frames).tolist() == [2, 1]


def test_lstm_step(tensor, rng):
    rows, cells = 3, 5
    x = rng.normal(size=(rows, 4 * cells)).astype(np.float32)
    peep = rng.normal(size=(3, cells)).astype(np.float32)
    c_pre = rng.normal(size=(rows, cells)).astype(np.float32)
    c, i, f, g, o, hc, m = (tensor(np.zeros((rows, cells))) for _ in range(7))
    wc_i, wc_f, wc_o = map(tensor, peep)
    m.lstm_op(tensor(x), wc_i, wc_f, wc_o, tensor(c_pre), c, i, f, g, o, hc, max=50, min=-50)
    logistic = lambda v: 1 / (1 + np.exp(-v))
    xi, xf, xo, xc = np.split(x, 4, axis=1)
    cell = logistic(peep[1] * c_pre + xf) * c_pre + logistic(peep[0] * c_pre + xi) * np.tanh(xc)
    close(c, cell)
    close(m, logistic(peep[2] * cell + xo) * np.tanh(cell))


def test_convolution_and_pooling(tensor, rng, device):
    image = rng.normal(size=(2, 3, 6, 6)).astype(np.float32)
    filters = rng.normal(size=(4, 3, 3, 3)).astype(np.float32)
    desc = vorn.ConvDesc(padding_height=1, padding_width=1)
    if device == "gpu":
        desc.algo = vorn.ConvAlgo.CONV_ALGO_IMPLICIT_GEMM
    x, w, y = tensor(image), tensor(filters), tensor(np.zeros((2, 4, 6, 6)))
    size = y.conv_get_fwd_work_space_size(desc, x, w, y, desc.algo)
    y.conv_fwd(desc, x, w, vorn.UnsignedCharTensor(size, device) if size else None, size)
    padded = np.pad(image, ((0, 0), (0, 0), (1, 1), (1, 1)))
    windows = np.lib.stride_tricks.sliding_window_view(padded, (3, 3), axis=(2, 3))
    expected = np.einsum("nchwij,kcij->nkhw", windows, filters)
    close(y, expected, 1e-4)
    pooled = tensor(np.zeros((2, 4, 3, 3)))
    pooled.pool_fwd(vorn.PoolingDesc(2, 2, 2, 2), y)
    close(pooled, expected.reshape(2, 4, 3, 2, 3, 2).max((3, 5)), 1e-4)
    perf = y.conv_get_fwd_algo_perf(desc, x, w, y)[0]
    assert perf.status == vorn.CONV_PERF_OK and perf.memory >= 0


def test_lists_of_tensors(tensor, device):
    sources = [tensor(np.full((2, c, 2, 2), c)) for c in (1, 2)]
    out, ptr = tensor(np.zeros((2, 3, 2, 2))), vorn.UnsignedLongTensor(device)
    out.channel_append(sources, ptr)
    assert values_of(out)[1, :, 0, 0].tolist() == [1, 2, 2]
    out *= 2
    out.channel_append_bp(sources, [True, False], ptr)
    assert values_of(sources[0]).max() == 2 and values_of(sources[1]).max() == 2
    with pytest.raises(ValueError, match="length"):
        out.channel_append_bp(sources, [True], ptr)
    with pytest.raises(TypeError, match="None"):
        out.channel_append([sources[0], None], ptr)


def test_copies_with_host_arrays(tensor):
    t = tensor(np.arange(6).reshape(2, 3))
    t.copy_from(np.array([7, 8], np.float32), 1, 2)
    part = np.zeros(3, np.float32)
    t.copy_to(part, (0, 1), 3)
    assert part.tolist() == [7, 8, 3]
    for bad in [(part, 4, 3), (part, 0, 4), (part, (2, 0), 1), (part, (0,), 1), (part, 2**63, 1)]:
        with pytest.raises(ValueError):
            t.copy_to(*bad)
        with pytest.raises(ValueError):
            t.copy_from(*bad)
    with pytest.raises(TypeError):
        t.copy_to(np.zeros(3), 0, 3)  # never by way of a converted copy
    frozen = np.zeros(3, np.float32)
    frozen.flags.writeable = False
    t.copy_from(frozen, 0, 3)
    with pytest.raises(TypeError):
        t.copy_to(frozen, 0, 3)
