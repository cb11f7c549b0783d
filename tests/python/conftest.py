import numpy as np
import pytest

import vorn


@pytest.fixture(params=["cpu", "gpu"])
def device(request):
    return request.param


@pytest.fixture
def rng():
    return np.random.default_rng(1)


@pytest.fixture
def tensor(device):
    """Makes a tensor on the device with the values of an array of one of its element types."""

    def make(values, dtype=np.float32):
        host = vorn.from_numpy(np.array(values, dtype))
        return type(host)(host, device)

    return make
