"""Memory shared with NumPy and by DLPack, without a copy and with its lifetime."""

import ctypes
import gc
import weakref

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

import vorn

try:
    import tvm_ffi
except ImportError:
    tvm_ffi = None

DTYPES = [np.float32, np.int32, np.uint64, np.uint8, np.int16]


def address(array):
    return array.__array_interface__["data"][0]


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("exchange", [(vorn.from_numpy, np.asarray), (vorn.from_dlpack, np.from_dlpack)])
def test_memory_is_shared_both_ways(dtype, exchange):
    to_tensor, to_array = exchange
    array = np.arange(24).astype(dtype).reshape(2, 3, 4)
    tensor = to_tensor(array)
    assert tensor.get_ptr() == address(array)
    assert tensor.dtype == dtype and tensor.shape == (2, 3, 4)
    assert tensor.strides == array.strides
    back = to_array(tensor)
    assert address(back) == address(array) and back.dtype == dtype
    back[1, 2, 3] = 7
    assert array[1, 2, 3] == 7
    tensor.set_element(5)
    assert (array == 5).all()


def test_pitched_views_go_over_and_come_back():
    array = np.arange(20, dtype=np.float32).reshape(4, 5)
    tensor = vorn.from_numpy(array[1:, 1:3])
    assert tensor.ld() == 5 and not tensor.is_contiguous()
    tensor.mul(2)
    expected = np.arange(20, dtype=np.float32).reshape(4, 5)
    expected[1:, 1:3] *= 2
    np.testing.assert_array_equal(array, expected)
    for back in (np.asarray(tensor), np.from_dlpack(tensor)):
        assert back.strides == (20, 4)
        np.testing.assert_array_equal(back, expected[1:, 1:3])
        back[:] = -1
        assert array[1, 1] == -1 and array[1, 0] == 5
        array[:] = expected


@pytest.mark.parametrize("exchange", [vorn.from_numpy, vorn.from_dlpack])
def test_the_array_lives_as_long_as_the_last_view(exchange):
    class Array(np.ndarray):
        pass

    array = np.ones((6, 4), np.float32).view(Array)
    alive = weakref.ref(array)
    view = exchange(array)[2:4][:, 1:3]
    del array
    gc.collect()
    assert alive() is not None
    assert view.sum() == 4
    del view
    gc.collect()
    assert alive() is None


@pytest.mark.parametrize("exchange", [np.asarray, np.from_dlpack])
def test_the_tensor_lives_as_long_as_the_array(exchange):
    tensor = vorn.Tensor((1000, 1000), "cpu")
    tensor.set_element(3)
    array = exchange(tensor)
    tensor.resize((2000, 1000))  # moves the tensor, but not the memory of the array
    del tensor
    gc.collect()
    other = vorn.Tensor((1000, 1000), "cpu")
    other.set_element(4)
    assert (array == 3).all()


def test_array_of_another_type_is_a_copy_that_was_asked_for():
    tensor = vorn.from_numpy(np.ones(3, np.float32))
    assert np.asarray(tensor, np.float64).dtype == np.float64
    assert address(np.array(tensor)) != tensor.get_ptr()
    if int(np.__version__[0]) >= 2:
        with pytest.raises(ValueError):
            np.asarray(tensor, np.float64, copy=False)
        assert address(np.asarray(tensor, copy=False)) == tensor.get_ptr()


@pytest.mark.parametrize("exchange", [vorn.from_numpy, vorn.from_dlpack])
@pytest.mark.parametrize(
    "array, error, text",
    [
        (np.ones((2, 3)), TypeError, "float32"),
        (np.ones((2, 3), np.float16), TypeError, "float32"),
        (np.ones((2, 3), np.int64), TypeError, "float32"),
        (np.ones((2, 3), bool), TypeError, "float32"),
        (np.ones((2, 3), np.float32).T, ValueError, "last axis"),
        (np.ones((2, 6), np.float32)[:, ::2], ValueError, "last axis"),
        (np.ones((2, 6), np.float32)[:, ::-1], ValueError, "last axis"),
        (np.ones((4, 3), np.float32)[::-1], ValueError, "rows"),
        (np.broadcast_to(np.ones((1, 3), np.float32), (2, 3)), ValueError, "read-only|rows"),
        (np.ones((4, 3, 2), np.float32)[:, :2], ValueError, "outer axes"),
        (np.ones((1,) * 6, np.float32), ValueError, "one to five"),
        (np.ones((), np.float32), ValueError, "one to five"),
    ],
)
def test_what_cannot_be_shared_is_refused(exchange, array, error, text):
    with pytest.raises(error, match=text):
        exchange(array)


def test_other_refusals():
    with pytest.raises(TypeError, match="NumPy array"):
        vorn.from_numpy([1.0, 2.0])
    with pytest.raises(TypeError, match="__dlpack__"):
        vorn.from_dlpack([1.0, 2.0])
    with pytest.raises(TypeError):
        vorn.from_numpy(np.ones(3, ">f4"))
    frozen = np.ones(3, np.float32)
    frozen.flags.writeable = False
    for exchange in (vorn.from_numpy, vorn.from_dlpack):
        with pytest.raises((ValueError, BufferError), match="read-?only"):
            exchange(frozen)
    unaligned = np.frombuffer(bytearray(13), np.uint8)[1:].view(np.float32)
    with pytest.raises(ValueError, match="aligned"):
        vorn.from_numpy(unaligned)
    with pytest.raises(ValueError, match="2\\^31"):
        vorn.from_numpy(np.lib.stride_tricks.as_strided(np.zeros(1, np.uint8), (2**31,), (1,)))


def test_gpu_memory_of_the_simulation_is_refused_and_copied():
    tensor = vorn.from_numpy(np.arange(6, dtype=np.float32).reshape(2, 3)).gpu()
    for share in (np.asarray, np.from_dlpack, lambda t: t.__dlpack_device__()):
        with pytest.raises(TypeError, match=r"t\.cpu\(\)"):
            share(tensor)
    np.testing.assert_array_equal(np.asarray(tensor.cpu()), np.arange(6).reshape(2, 3))


def test_dlpack_protocol():
    tensor = vorn.Tensor((2, 3), "cpu")
    assert tensor.__dlpack_device__() == (1, 0)
    pinned = vorn.Tensor((2, 3), "cpu_pinned")
    assert pinned.__dlpack_device__() == (3, 0)
    assert vorn.from_dlpack(pinned).device == "cpu_pinned"
    assert '"dltensor"' in repr(tensor.__dlpack__())
    assert '"dltensor"' in repr(tensor.__dlpack__(max_version=(0, 8)))
    assert '"dltensor_versioned"' in repr(tensor.__dlpack__(max_version=(1, 3)))
    with pytest.raises(ValueError, match="own device"):
        tensor.__dlpack__(dl_device=(2, 0))
    with pytest.raises(ValueError, match="no stream"):
        tensor.__dlpack__(stream=1)
    copied = np.from_dlpack(CopyingProducer(tensor))
    assert address(copied) != tensor.get_ptr()


class CopyingProducer:
    def __init__(self, tensor):
        self.tensor = tensor

    def __dlpack__(self, **kwargs):
        return self.tensor.__dlpack__(**{**kwargs, "copy": True})

    def __dlpack_device__(self):
        return self.tensor.__dlpack_device__()


def test_unused_and_used_capsules_leave_nothing(capsules=1000):
    tensor = vorn.Tensor((250, 1000), "cpu")  # a MB each, if one stayed
    buffer = weakref.ref(np.asarray(tensor))
    assert buffer() is None
    for _ in range(capsules):
        copy = vorn.Tensor(tensor, "cpu")
        copy.__dlpack__()
        np.from_dlpack(copy)
    gc.collect()
    assert resident_megabytes() < 900


def resident_megabytes():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * 4096 / 1e6


@pytest.mark.skipif(tvm_ffi is None, reason="apache-tvm-ffi is not installed")
def test_another_framework_shares_the_memory():
    tensor = vorn.from_numpy(np.arange(6, dtype=np.float32).reshape(2, 3))
    theirs = tvm_ffi.from_dlpack(tensor)
    assert tuple(theirs.shape) == (2, 3)
    ours = vorn.from_dlpack(theirs)
    assert ours.get_ptr() == tensor.get_ptr()
    del tensor, theirs
    gc.collect()
    assert ours.sum() == 15


def test_memory_that_ctypes_owns():
    memory = (ctypes.c_float * 6)(*range(6))
    tensor = vorn.from_numpy(memory)
    tensor.mul(2)
    assert list(memory) == [0, 2, 4, 6, 8, 10]


slices = st.slices(9) | st.integers(-12, 12) | st.just(slice(None)) | st.just(Ellipsis)


@given(
    shape=st.lists(st.integers(1, 4), min_size=1, max_size=4),
    pitched=st.booleans(),
    key=st.lists(slices, min_size=1, max_size=4).map(tuple) | slices,
    value=st.floats(-5, 5, width=32),
)
def test_indices_are_numpys_or_refused(shape, pitched, key, value):
    array = np.arange(np.prod(shape) * 2, dtype=np.float32).reshape(*shape[:-1], -1)
    array = array[..., : shape[-1]] if pitched else np.ascontiguousarray(array[..., : shape[-1]])
    tensor = vorn.from_numpy(array)
    try:
        found = tensor[key]
    except (TypeError, IndexError) as error:
        # NumPy has an index for all that is not out of range.
        if isinstance(error, IndexError):
            with pytest.raises(IndexError):
                array[key]
        return
    expected = array[key]
    np.testing.assert_array_equal(np.asarray(found), expected)
    tensor[key] = value
    assert np.all(array[key] == np.float32(value))
    if np.ndim(expected) > 0:
        assert np.shares_memory(np.asarray(found), array)
        tensor[key] = vorn.from_numpy(np.full(expected.shape, value + 1, np.float32))
        assert np.all(array[key] == np.float32(value + 1))


@given(
    shape=st.lists(st.integers(1, 3), min_size=1, max_size=6),
    order=st.permutations(range(6)),
    steps=st.lists(st.sampled_from([1, 1, 1, 2, -1]), min_size=6, max_size=6),
    ends=st.lists(st.integers(1, 3), min_size=6, max_size=6),
)
def test_arrays_are_shared_as_they_lie_or_refused(shape, order, steps, ends):
    axes = [axis for axis in order if axis < len(shape)]
    array = np.arange(np.prod(shape), dtype=np.float32).reshape(shape).transpose(axes)
    array = array[tuple(slice(None, e, s) for e, s in zip(ends, steps))[: len(shape)]]
    for exchange in (vorn.from_numpy, vorn.from_dlpack):
        try:
            tensor = exchange(array)
        except ValueError:
            assert len(shape) > 5 or not array.flags.c_contiguous
            continue
        before = array.copy()
        np.testing.assert_array_equal(np.asarray(tensor), before)
        tensor.add(1)
        np.testing.assert_array_equal(array, before + 1)
        tensor.add(-1)


def test_refused_indices():
    tensor = vorn.Tensor((4, 3, 5), "cpu")
    for key in (
        slice(None, None, 2),
        slice(2, 2),
        (slice(None), slice(0, 2)),
        (0, 0),
        (slice(None), slice(None), 1),
        "a",
        None,
        1.5,
        [0, 1],
    ):
        with pytest.raises(TypeError):
            tensor[key]
    with pytest.raises(IndexError):
        tensor[4]
    with pytest.raises(IndexError):
        tensor[0, 0, 0, 0]
    with pytest.raises(TypeError, match="float32"):
        vorn.IntTensor((4, 3))[1:3]
    assert vorn.IntTensor((4, 3))[1, 2] == 0
    with pytest.raises(TypeError):
        vorn.ShortTensor((4, 3))[1, 2]


def test_element_and_slice_on_a_gpu(tensor, device):
    t = tensor(np.arange(12).reshape(3, 4))
    assert t[1, 2] == 6 and t[-1, -1] == 11
    t[1, 2] = 50
    t[:, 1:3] += 1
    t[0] *= 2
    expected = np.arange(12, dtype=np.float32).reshape(3, 4)
    expected[1, 2] = 50
    expected[:, 1:3] += 1
    expected[0] *= 2
    np.testing.assert_array_equal(np.asarray(t.cpu()), expected)
    assert repr(t) == (
        f"vorn.Tensor(shape=(3, 4), device='{device}', values=[0, 4, 6, 6, 4, 6, 51, 7, ...])"
    )


def test_constructors():
    assert vorn.Tensor().shape == () and vorn.Tensor().device == "cpu"
    assert vorn.Tensor("gpu").device == "gpu"
    assert vorn.Tensor(size=3).shape == (3,)
    assert len(vorn.Tensor((3, 4))) == 3
    buffer = vorn.Buffer(64, "cpu")
    block = vorn.Tensor(buffer, (2, 3), 5, buffer.ptr() + 4)
    assert block.strides == (20, 4)
    for bad in [((4, 5),), ((2, 3), 2), ((4, 3), 5), ((2, 3), 5, buffer.ptr() - 4)]:
        with pytest.raises(ValueError):
            vorn.Tensor(buffer, *bad)
    with pytest.raises(ValueError):
        vorn.Tensor((-1, -1))
    for bad in [((1,) * 6,), ("tpu",), ((2.5,),), (None,), ((2**40,),)]:
        with pytest.raises(TypeError):
            vorn.Tensor(*bad)
