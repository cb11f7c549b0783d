"""The interpreter's lock, contexts and the random generators."""

import threading
import time

import numpy as np

import vorn


def test_other_threads_run_while_a_call_computes():
    a = vorn.from_numpy(np.ones((900, 900), np.float32))
    out = vorn.Tensor((900, 900))
    counted = 0
    done = threading.Event()

    def count():
        nonlocal counted
        while not done.is_set():
            counted += 1
            time.sleep(1e-4)

    thread = threading.Thread(target=count)
    thread.start()
    time.sleep(0.02)
    before = counted
    start = time.monotonic()
    while time.monotonic() - start < 0.1:
        out.mul(a, a)
    during = counted - before
    done.set()
    thread.join()
    assert during > 5


def test_each_thread_computes_in_its_own_context():
    failures = []

    def work(seed):
        try:
            x = np.full((8, 16), seed, np.float32)
            for device in ("cpu", "gpu"):
                t = vorn.Tensor(vorn.from_numpy(x), device)
                for _ in range(20):
                    t.add(1)
                vorn.synchronize()
                assert t.sum() == x.size * (seed + 20)
                vorn.seed(seed)
                t.random()
                first = np.array(t.cpu())
                vorn.seed(seed)
                t.random()
                np.testing.assert_array_equal(first, np.asarray(t.cpu()))
        except BaseException as failure:
            failures.append(failure)

    for _ in range(3):  # contexts go back with their threads
        threads = [threading.Thread(target=work, args=(seed,)) for seed in range(6)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    assert not failures


def test_a_tensor_goes_on_when_its_thread_has_ended():
    made = []
    thread = threading.Thread(target=lambda: made.append(vorn.Tensor((4, 4), "gpu")))
    thread.start()
    thread.join()
    made[0].add(2)
    assert made[0].sum() == 32
    made.clear()


def test_seed_fixes_all_generators(device):
    def draw():
        vorn.seed(7)
        values = []
        for fill in ("random", "gauss_random"):
            t = vorn.Tensor((3, 5), device)
            getattr(t, fill)()
            values.append(np.array(t.cpu()))
        t = vorn.Tensor((3, 5), device)
        t.zero_random(0.5)
        return np.concatenate([*values, np.array(t.cpu())])

    np.testing.assert_array_equal(draw(), draw())


def test_gpu_count():
    assert vorn.gpu_count() >= 1
