"""Output voxels per second of scipy.ndimage.zoom on a 256^3 volume, for comparison with vlkr's
volume resize. Usage: resize_scipy_bench.py [TYPE FACTOR ORDER]...  with TYPE one of 8u, 16u,
32f; without arguments every type at factors 2 and 0.5 and orders 0, 1 and 3. Prints one line
per case: TYPE FACTOR ORDER VOXELS_PER_SECOND."""
import sys
import time

import numpy as np
from scipy import ndimage

SIZE = 256
TYPES = {"8u": (np.uint8, 255.0), "16u": (np.uint16, 65535.0), "32f": (np.float32, 1.0)}


def volume(name):
    """Sinusoids along each axis plus a little noise, scaled to the type's range, like the C++ side."""
    dtype, scale = TYPES[name]
    rng = np.random.default_rng(7)
    t = np.arange(SIZE, dtype=np.float32)
    axes = []
    for _ in range(3):
        a, b = rng.uniform(0.0, 6.283, 2)
        axes.append(0.5 * np.sin(t * 0.05 + a) + 0.5 * np.sin(t * 0.13 + b))
    v = 0.5 + 0.15 * (axes[2][:, None, None] + axes[1][None, :, None] + axes[0][None, None, :])
    v += rng.uniform(-0.05, 0.05, v.shape).astype(np.float32)
    return (np.clip(v, 0.0, 1.0) * scale).astype(dtype)


def rate(vol, factor, order):
    n = int(round(SIZE * factor))
    # Pages are touched beforehand so that neither side pays first-touch faults in the timing.
    out = np.empty((n, n, n), dtype=vol.dtype)
    out.fill(0)
    best = float("inf")
    for _ in range(1 if factor > 1 else 3):  # upsampling at order 3 takes over half a minute
        start = time.perf_counter()
        ndimage.zoom(vol, factor, output=out, order=order, prefilter=False, grid_mode=True,
                     mode="nearest")
        best = min(best, time.perf_counter() - start)
    return out.size / best


def main():
    args = sys.argv[1:]
    if args:
        cases = [(args[i], float(args[i + 1]), int(args[i + 2])) for i in range(0, len(args) - 2, 3)]
    else:
        cases = [(t, f, o) for t in TYPES for f in (2.0, 0.5) for o in (0, 1, 3)]
    volumes = {}
    for name, factor, order in cases:
        if name not in volumes:
            volumes = {name: volume(name)}  # one source alive at a time
        print(f"{name} {factor:g} {order} {rate(volumes[name], factor, order):.6g}", flush=True)


if __name__ == "__main__":
    main()
