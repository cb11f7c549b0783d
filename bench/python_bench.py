#!/usr/bin/env python3
"""What a call from Python costs, beside NumPy's and, where it is installed, torch's.

Small tensors show the price of the call, which holds the interpreter, the library's checks and the
sum of ten floats; large ones that nothing else is added. Turns alternate, and each figure is the
least of all turns. Run it on a machine with nothing else to do:
PYTHONPATH=build/python/release/site build/python/venv/bin/python bench/python_bench.py
"""
import argparse
import timeit

import numpy as np

import vorn

try:
    import torch
except ImportError:
    torch = None


def contenders(count):
    a, b, out = (np.ones(count, np.float32) for _ in range(3))
    x, y, t = (vorn.from_numpy(array) for array in (a, b, out))
    calls = {
        "vorn t.add(a, b)": lambda: t.add(x, y),
        "numpy np.add(a, b, out)": lambda: np.add(a, b, out),
    }
    if torch is not None:
        p, q, r = (torch.from_numpy(array) for array in (a, b, out))
        calls["torch torch.add(a, b, out=)"] = lambda: torch.add(p, q, out=r)
    return calls


def best(calls, repeats, turns):
    least = dict.fromkeys(calls, float("inf"))
    for _ in range(turns):
        for name, call in calls.items():
            least[name] = min(least[name], timeit.timeit(call, number=repeats) / repeats)
    return least


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--turns", type=int, default=20)
    turns = parser.parse_args().turns
    empty = best({"": lambda: None}, 100_000, turns)[""]
    for count, repeats in ((10, 20_000), (10_000_000, 3)):
        times = best(contenders(count), repeats, turns)
        peer = times["numpy np.add(a, b, out)"]
        for name, seconds in times.items():
            own = seconds - empty
            print(f"{count:>9} floats  {name:<28} {own * 1e9:>12.0f} ns  {own / peer:6.2f} of NumPy's")
    t = vorn.Tensor(10)
    for name, call in {
        "t.ld()": t.ld,
        "t.range_row(0, 1, 2) of a matrix": lambda m=vorn.Tensor((4, 5)): m.range_row(0, 1, 2),
        "t[1:3]": lambda: t[1:3],
        "vorn.from_numpy(a)": lambda a=np.ones(10, np.float32): vorn.from_numpy(a),
        "np.asarray(t)": lambda: np.asarray(t),
        "vorn.from_dlpack(a)": lambda a=np.ones(10, np.float32): vorn.from_dlpack(a),
        "np.from_dlpack(t)": lambda: np.from_dlpack(t),
    }.items():
        print(f"{name:<47} {best({'': call}, 20_000, turns)[''] * 1e9:>10.0f} ns")


if __name__ == "__main__":
    main()
