"""Tensor operators for training and running speech and vision networks, on the host and on a GPU.

A tensor is shaped by its caller; an operator is a member of its output::

    import numpy as np
    import vorn

    x = vorn.from_numpy(np.ones((64, 320), np.float32))  # the same memory
    w = vorn.Tensor((320, 1280), "cpu")
    y = vorn.Tensor((64, 1280), "cpu")
    y.mul(x, w)
    y.tanh()
    np.asarray(y)  # the same memory

`Tensor` has elements of float32 and every member; `IntTensor`, `UnsignedLongTensor`,
`UnsignedCharTensor` and `ShortTensor` those of them that the library has. Devices are "cpu", "gpu"
and "cpu_pinned". A failed check raises `CheckError`.
"""

from vorn._core import *  # noqa: F403
from vorn.errors import CheckError

__version__ = "0.1.0"
