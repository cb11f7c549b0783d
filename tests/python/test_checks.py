"""A failed check is an exception with its exact text, and leaves the tensors as they were."""

import gc
import os
import pathlib
import subprocess
import sys
import threading

import numpy as np
import pytest

import vorn

# name: (call on a function that makes float tensors of ones, exact text). `m` makes a tensor on the
# device of the test, `o` one on the other, and `i` one of int.
CASES = {
    "axis": (lambda m, o, i: m(2).get_w() and m(2).get_h(), "Check failed: axis_idx >= -num_axis && axis_idx < num_axis error axis index."),
    "size": (lambda m, o, i: vorn.Tensor((2**16, 2**15)), "Check failed: ret <= static_cast<index_t>(std::numeric_limits<int>::max()) Dim size error Dim [65536, 32768] product_long 2147483648"),
    "shape": (lambda m, o, i: m(2, 3).get_with_shape((4,)), "Check failed: product(_size) == product(dim) memory size not match Dim [2, 3] vs Dim [4]"),
    "reshape": (lambda m, o, i: m(2, 3).reshape((4,)), "Check failed: product(_size) == product(size) memory size not match Dim [2, 3] vs Dim [4]"),
    "pitched": (lambda m, o, i: m(2, 3)[:, 1:2].reshape((2,)), "Check failed: is_contiguous() memory not contiguous"),
    "block": (lambda m, o, i: m(4, 3)[0:2].resize((9,)), "Check failed: !_is_block block tensor can not resize"),
    "both cut": (lambda m, o, i: m(4, 3).get_block((0, 0), (2, 2)), "Check failed: sub_dim == 0 || size[0] == _size[0] slice invalid"),
    "slice": (lambda m, o, i: m(4, 3).slice(2, 2), "Check failed: end > start end 2 start 2"),
    "long slice": (lambda m, o, i: m(4, 3).slice(2, 5), "Check failed: end <= _size[0] invalid param, end = 5 Dim [4, 3]"),
    "range_row": (lambda m, o, i: m(4).range_row(0, 1), "Check failed: (2) == (get_dim()) Tensor::range_row just support 2-D matrix."),
    "device": (lambda m, o, i: m(4).set_device("gpu"), "Check failed: nullptr == _ptr tensor inited before"),
    "element": (lambda m, o, i: m(2, 3).get_element((2, 0)), "Check failed: is_valid_index(coor) invalid index dim."),
    "row": (lambda m, o, i: m(2).get_row(0), "Check failed: 2 == get_dim() "),
    "count": (lambda m, o, i: m(2, 3).count(2, 1), "Check failed: start_axis <= end_axis "),
    "copy": (lambda m, o, i: m(2, 3).copy_from(o(3, 2)), "Check failed: (src.get_size()) == (dst.get_size()) "),
    "copy range": (lambda m, o, i: m(2, 3)[:, 0:1].copy_from(np.ones(1, np.float32), 0, 1), "Not Implemented Yet"),
    "copy row": (lambda m, o, i: m(2, 3).copy_row(vorn.Tensor((2, 4)), 0, 0), "Check failed: get_w() >= src.get_w() "),
    "fill": (lambda m, o, i: m(2, 3)[:, 0:2].random(), "Check failed: out.is_contiguous() "),
    "unary size": (lambda m, o, i: m(2, 3).tanh(m(3, 2)), "Check failed: (in1.get_size()) == (out.get_size()) "),
    "unary device": (lambda m, o, i: m(2, 3).relu(o(2, 3)), "Check failed: is_same_devices((in1).get_device(), (out).get_device()) "),
    "rule size": (lambda m, o, i: m(2, 3).log(m(3, 2)), "Check failed: (in.get_size()) == (out.get_size()) "),
    "rule device": (lambda m, o, i: m(2, 3).sqrt(o(2, 3)), "Check failed: is_same_devices((in).get_device(), (out).get_device()) "),
    "binary size": (lambda m, o, i: m(2, 3).elem_mul(m(2, 3), m(6)), "Check failed: (in2.get_size()) == (out.get_size()) "),
    "zero": (lambda m, o, i: m(2).div(0), "Check failed: fabs(val - 0) > FLT_EPSILON "),
    "gemm": (lambda m, o, i: m(2, 2).mul(m(2, 3), m(2, 3)), "Check failed: (a_col) == (b_row) "),
    "gemm rows": (lambda m, o, i: m(2, 2).mul(m(3, 3), m(3, 2)), "Check failed: (a_row) == (c_row) "),
    "gemm columns": (lambda m, o, i: m(2, 2).mul(m(2, 3), True, m(2, 2), False), "Check failed: (a_row) == (c_row) "),
    "gemm axes": (lambda m, o, i: m(2, 2).mul(m(4), m(2, 2)), "Check failed: (a).get_dim() == (2) "),
    "gemm device": (lambda m, o, i: m(2, 2).mul(m(2, 2), o(2, 2)), "Check failed: is_same_devices((b).get_device(), (c).get_device()) "),
    "batch": (lambda m, o, i: m(2, 2).batch_mul(m(4, 2), False, 4, m(4, 2), False, 4, 4, 2), "Check failed: static_cast<size_t>(batch * c_stride) == c.get_element_count() "),
    "transpose": (lambda m, o, i: m(2, 3).transpose(m(2, 2)), "Check failed: (in.get_element_count()) == (out.get_element_count()) "),
    "norm": (lambda m, o, i: m(2, 3)[:, 0:2].norm2(), "Check failed: in.is_contiguous() "),
    "sgels": (lambda m, o, i: m(2, 3).sgels(m(2, 3), vorn.UnsignedLongTensor("gpu"), vorn.UnsignedLongTensor()), "Check failed: in.get_size().get_axis() == 3 "),
    "softmax": (lambda m, o, i: m(2, 3).softmax(m(2, 3), 6, 1, 1), "Check failed: channel != 1 softmax failed. outer = 6 channel = 1 inner = 1"),
    "softmax blend": (lambda m, o, i: m(2, 3).softmax(m(2, 3), alpha=2), "Check failed: alpha == 1.0f && beta == 0.0f softmax need alpha == 1.0f && beta == 0.0f vs alpha = 2 beta = 0"),
    "cross entropy": (lambda m, o, i: m(2).cross_entropy(m(2, 3), m(3), i(2)), "Check failed: (label.get_size()) == (out.get_size()) "),
    "cross entropy axes": (lambda m, o, i: m(2).cross_entropy(m(6), m(2), i(2)), "Check failed: output.get_dim() == 2 "),
    "label": (lambda m, o, i: m(4).count_valid_label(i(3), 0), "Check failed: mask.get_element_count() == num mask, label size not match"),
    "accuracy": (lambda m, o, i: m(4).cal_classify_acu_target(m(2, 3), m(2), i(2), i(2), -1), "Check failed: in.get_size(0) == out.get_element_count() "),
    "shrink": (lambda m, o, i: m(1, 3).shrink(m(2, 3), 0, 2), "Check failed: in.get_size(dim) > index "),
    "conv device": (lambda m, o, i: m(1, 1, 2, 2).conv_fwd(vorn.ConvDesc(), o(1, 1, 2, 2), m(1, 1, 1, 1), None, 0), "Check failed: is_same_devices((x).get_device(), (out).get_device()) "),
    "transpose_channel_height": (lambda m, o, i: m(2, 3).transpose_channel_height(m(2, 3)), "Check failed: in.get_dim() == 4u transpose_channel_height just support 4D"),
    "pooling device": (lambda m, o, i: m(1, 1, 2, 2).pool_fwd(vorn.PoolingDesc(), o(1, 1, 2, 2)), "Check failed: is_same_devices((in).get_device(), (out).get_device()) "),
    "psroi": (lambda m, o, i: m(1, 1, 1, 1).psroi_pool_fwd(vorn.PSROIPoolingDesc(), m(1, 1, 2, 2), m(1, 5, 1, 1), i(1, 1, 1, 1), 2), "Check failed: alpha == 1.0f && beta == 0.0f "),
    "row sum": (lambda m, o, i: m(2).row_sum(m(8)), "Check failed: (in.get_dim()) == (2) "),
    "row vector": (lambda m, o, i: m(2, 3).row_mul_vec(m(2, 3), m(2)), "Check failed: b.get_dim() <= 2 && b.get_w() == a.get_w() "),
    "diagonal": (lambda m, o, i: m(2, 3).diag_add_vec(m(2, 3), m(2)), "Check failed: mat.get_h() == mat.get_w() "),
    "prior": (lambda m, o, i: m(2, 3).log_sub_prior(m(3, 3)), "Check failed: prior.get_dim() == 1 || (prior.get_dim() == 2 && prior.get_h() == 1) "),
    "conv bias": (lambda m, o, i: m(4, 3).audio_conv_batch_bias(m(2, 3), 3), "Check failed: bias.get_h() == static_cast<index_t>(batch) "),
    "elem_mul_add": (lambda m, o, i: m(2, 3).elem_mul_add(*[m(2, 6)[:, 0:3]] * 4), "Check failed: a.is_contiguous() "),
    "mask_reverse": (lambda m, o, i: m(4, 3).mask_reverse(m(4, 3), i(3), 2, 2), "Check failed: batch_seq_len.get_element_count() == static_cast<index_t>(batch_size) "),
    "mask count": (lambda m, o, i: i(2).count_valid_label(i(5), 2, 3), "Check failed: mask.get_element_count() == static_cast<index_t>(batch_size * sub_frame_len) "),
    "row max": (lambda m, o, i: m(2, 3).find_row_max_id(i(2, 1)), "Check failed: max_id_vec.get_dim() == 1 || (max_id_vec.get_dim() == 2 && max_id_vec.get_h() == 1) "),
    "vec_mask": (lambda m, o, i: m(2, 3).vec_mask(m(2, 3), i(3)), "Check failed: mask.get_w() == out.get_h() "),
    "compare": (lambda m, o, i: m(2, 3).check(m(2, 2)), "Check failed: (in1.get_element_count()) == (in2.get_element_count()) "),
    "no file": (lambda m, o, i: m(2).read("/nowhere/file"), "Check notnull: f "),
    "unwritable": (lambda m, o, i: m(2).write("/nowhere/file"), "Check failed: nullptr != fp "),
}
ON_HOST = {
    "too large": (lambda m, o, i: vorn.Buffer(2**60, "cpu"), "Check failed: 0 == (ret) out of memory allocating 1152921504606846976 bytes on device 101"),
    "conv grad": (lambda m, o, i: m(1, 1, 1, 1).conv_grad(vorn.ConvDesc(), m(1, 1, 2, 2), m(1, 1, 2, 2), None, 0, 2), "Check failed: alpha == 1.0f "),
    "ctc": (lambda m, o, i: m(4, 3).compute_ctc_alpha(m(4, 3), 0, i(2, 3), i(2), i(2)), "Not Implemented Yet"),
    "image norm": (lambda m, o, i: m(1, 1, 2, 2).image_bat_norm_forward_inf(vorn.NORM_1C11, 1, 0, *[m(1, 1, 2, 2)] * 5, 0.1), "Not Implemented Yet"),
    "roi": (lambda m, o, i: m(1, 1, 1, 1).roi_pool_fwd(vorn.ROIPoolingDesc(), m(1, 1, 2, 2), m(1, 5, 1, 1), i(1, 1, 1, 1)), "Check failed: (roi_batch_ind) < (batch_size) "),
}
ON_GPU = {
    "too large": (lambda m, o, i: vorn.Buffer(2**60, "gpu"), "Check failed: 0 == (ret) out of memory allocating 1152921504606846976 bytes on device 102"),
    "channels": (lambda m, o, i: m(1, 2, 2, 3).channel_append([m(1, 2, 2, 6)[..., 0:3]], vorn.UnsignedLongTensor("gpu")), "Check failed: both_continue channel_append(gpu) just support contiguous tensor"),
    "norm axes": (lambda m, o, i: m(8).image_bat_norm_forward_train(vorn.NORM_1C11, 1, 0, m(8), m(8), m(8), 1, m(8), m(8), 0.1, m(8), m(8)), "Check failed: dim == 2 || dim == 4 BN: only support 2D or 4D input"),
}
OF_PLATFORM = "Check failed: 0 == ("
WRITING_EARLY = [CASES[name][0] for name in ("sgels", "no file", "unwritable")]


def makers(device):
    other = "gpu" if device == "cpu" else "cpu"

    def make(cls, device):
        def ones(*shape):
            tensor = cls(shape, device)
            tensor.ones()
            return tensor

        return ones

    return make(vorn.Tensor, device), make(vorn.Tensor, other), make(vorn.IntTensor, device)


def cases():
    for device, its in (("cpu", {**CASES, **ON_HOST}), ("gpu", {**CASES, **ON_GPU})):
        for name, case in its.items():
            yield pytest.param(device, *case, id=f"{device}-{name}")


@pytest.mark.parametrize("device, call, text", list(cases()))
def test_text_is_exact(device, call, text):
    with pytest.raises(vorn.CheckError) as caught:
        call(*makers(device))
    assert str(caught.value) == text
    if text.startswith(OF_PLATFORM) or call in WRITING_EARLY:
        assert caught.value.may_have_written and "partly written" in caught.value.__notes__[0]
    else:
        assert not caught.value.may_have_written
    assert caught.value.line > 0 and caught.value.file
    assert caught.value.trace.startswith("Stack trace returned ")


def test_outputs_are_as_they_were(tensor):
    out, other = tensor(np.arange(6).reshape(2, 3)), tensor(np.ones((3, 2)))
    for fail in (
        lambda: out.elem_mul(out, other),
        lambda: out.mul(other, other),
        lambda: out.softmax(other),
        lambda: out.row_mul_vec(out, other),
    ):
        with pytest.raises(vorn.CheckError) as caught:
            fail()
        assert not caught.value.may_have_written
        np.testing.assert_array_equal(np.asarray(out.cpu()), np.arange(6).reshape(2, 3))
    out.tanh()  # the device is as good as before


def resident_kilobytes():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * 4


@pytest.mark.skipif("asan" in os.environ.get("LD_PRELOAD", ""), reason="it keeps what is freed")
def test_thousands_of_failures_leak_nothing():
    table = [
        (device, *case)
        for device, its in (("cpu", {**CASES, **ON_HOST}), ("gpu", {**CASES, **ON_GPU}))
        for case in its.values()
    ]
    made = {device: makers(device) for device in ("cpu", "gpu")}

    def fail_all(rounds):
        for _ in range(rounds):
            for device, call, _ in table:
                try:
                    call(*made[device])
                except vorn.CheckError:
                    continue
                raise AssertionError("the check holds")
        gc.collect()

    fail_all(5)
    before = resident_kilobytes()
    fail_all(40)  # some 5000 failures
    # A leak of a hundred bytes a failure would be 500 KB.
    assert resident_kilobytes() - before < 2000


def test_sums_of_unlike_operands_are_refused(tensor):
    a, b = tensor(np.ones((2, 3))), tensor(np.ones((100, 3)))
    for add in (a.add, a.elem_add):
        with pytest.raises(ValueError, match="shape"):
            add(a, b)
    with pytest.raises(ValueError, match="device"):
        a.elem_add(a, a.cpu() if a.device == "gpu" else a.gpu())


def test_negative_labels_are_refused_where_the_library_asserts():
    labels = vorn.from_numpy(np.array([0, -1], np.float32))
    mask = vorn.IntTensor(2)
    for member in (vorn.Tensor(2).cross_entropy, vorn.Tensor((2, 3)).cross_entropy_bp):
        with pytest.raises(ValueError, match="below 0"):
            member(vorn.Tensor((2, 3)), labels, mask)


def test_checks_on_other_threads_are_raised_there():
    caught = []

    def fail():
        try:
            vorn.Tensor((2, 3)).tanh(vorn.Tensor((3, 2)))
        except vorn.CheckError as error:
            caught.append(error)

    threads = [threading.Thread(target=fail) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(caught) == 4


def test_gpu_work_space_is_tested_before_it_is_used():
    x, w, y = vorn.Tensor((1, 1, 4, 4)), vorn.Tensor((1, 1, 3, 3)), vorn.Tensor((1, 1, 2, 2))
    desc = vorn.ConvDesc()
    size = y.conv_get_fwd_work_space_size(desc, x, w, y, vorn.CONV_ALGO_AUTO)
    with pytest.raises(ValueError, match="no work space"):
        y.conv_fwd(desc, x, w, None, size)
    with pytest.raises(ValueError, match="fewer"):
        y.conv_fwd(desc, x, w, vorn.UnsignedCharTensor(size - 1), size)
    with pytest.raises(ValueError, match="device"):
        y.conv_fwd(desc, x, w, vorn.UnsignedCharTensor(size, "gpu"), size)
    y.conv_fwd(desc, x, w, vorn.UnsignedCharTensor(size), size)


def test_a_program_ends_cleanly_with_tensors_alive():
    code = """
import numpy as np, threading, vorn
array = np.ones((4, 5), np.float32)
kept = [vorn.from_numpy(array), vorn.from_dlpack(array), vorn.Tensor((3,), "gpu")]
threading.Thread(target=lambda: kept.append(vorn.Tensor((3,), "gpu"))).start()
views = [kept[0][1:3], np.asarray(vorn.Tensor((3, 4)))]
"""
    directory = pathlib.Path(vorn.__file__).parents[1]
    done = subprocess.run(
        [sys.executable, "-c", code], capture_output=True, cwd=directory, text=True
    )
    assert done.returncode == 0, done.stderr
    assert done.stderr == ""
