"""The vlkr Python calls beside their scipy.ndimage counterparts on the same volumes.

Prints the best of a few runs of each and the scipy/vlkr time ratio (above 1: vlkr is faster).
Both run on one thread; only operations whose results agree are paired.

    PYTHONPATH=build-tests/python /usr/bin/python3 bench/python_scipy_bench.py [--size 256]
"""

import argparse
import platform
import time

import numpy as np
import scipy
import scipy.ndimage as ndi

import vlkr


def best_of(fn, repeats):
    best = float("inf")
    for _ in range(repeats):
        start = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - start)
    return best


def rotation(size):
    """A small rotation about the volume centre, as scipy's output-to-input matrix and offset."""
    a = np.deg2rad(10)
    m = np.array([[1, 0, 0], [0, np.cos(a), -np.sin(a)], [0, np.sin(a), np.cos(a)]])
    centre = np.full(3, (size - 1) / 2)
    return m, centre - m @ centre


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--size", type=int, default=256, help="edge of the cubic volume")
    parser.add_argument("--repeats", type=int, default=3)
    args = parser.parse_args()
    n = args.size
    rng = np.random.default_rng(12111)
    f32 = rng.random((n, n, n), dtype=np.float32)
    u8 = (f32 * 255).astype(np.uint8)
    s16 = rng.integers(-2000, 2000, (n, n, n)).astype(np.int16)
    kernel = rng.integers(-3, 4, (3, 3, 3))
    matrix, offset = rotation(n)
    m = n // 2
    coords = (rng.random((3, m, m, m)) * (n - 1)).astype(np.float32)

    cases = [
        ("resize f32 x0.5 linear",
         lambda: vlkr.resize(f32, 0.5, order="linear"),
         lambda: ndi.zoom(f32, 0.5, order=1, grid_mode=True, mode="nearest")),
        ("resize f32 x1.25 linear",
         lambda: vlkr.resize(f32, 1.25, order="linear"),
         lambda: ndi.zoom(f32, 1.25, order=1, grid_mode=True, mode="nearest")),
        ("resize u8 x1.25 nearest",
         lambda: vlkr.resize(u8, 1.25, order="nearest"),
         lambda: ndi.zoom(u8, 1.25, order=0, grid_mode=True, mode="nearest")),
        ("affine f32 linear",
         lambda: vlkr.affine_transform(f32, matrix, offset, order="linear"),
         lambda: ndi.affine_transform(f32, matrix, offset, order=1)),
        (f"map_coordinates f32 {m}^3 linear",
         lambda: vlkr.map_coordinates(f32, coords, order="linear"),
         lambda: ndi.map_coordinates(f32, coords, order=1)),
        ("convolve s16 3x3x3",
         lambda: vlkr.convolve(s16, kernel, mode="reflect"),
         lambda: ndi.convolve(s16, kernel.astype(np.int16), mode="reflect")),
    ]
    print(f"volume {n}^3, best of {args.repeats}; {platform.processor() or platform.machine()}, "
          f"Python {platform.python_version()}, numpy {np.__version__}, scipy {scipy.__version__}, "
          f"libvlkr {vlkr.library_version}")
    print(f"{'case':32s} {'vlkr s':>9s} {'scipy s':>9s} {'ratio':>7s}")
    for name, ours, theirs in cases:
        t_ours = best_of(ours, args.repeats)
        t_theirs = best_of(theirs, args.repeats)
        print(f"{name:32s} {t_ours:9.3f} {t_theirs:9.3f} {t_theirs / t_ours:7.2f}")


if __name__ == "__main__":
    main()
