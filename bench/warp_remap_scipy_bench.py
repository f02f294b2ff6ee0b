"""Output voxels per second of scipy.ndimage.affine_transform and map_coordinates on a 256^3
volume, for comparison with vlkr's affine warp and remap. Usage:
warp_remap_scipy_bench.py [OP TYPE ORDER]...  with OP warp or remap and TYPE one of 8u, 16u, 32f;
without arguments both operations in 8u and 32f at orders 1 and 3. Prints one line per case:
OP TYPE ORDER VOXELS_PER_SECOND."""
import sys
import time

import numpy as np
from scipy import ndimage

SIZE = 256
CENTRE = (SIZE - 1) / 2.0
TYPES = {"8u": (np.uint8, 255.0), "16u": (np.uint16, 65535.0), "32f": (np.float32, 1.0)}
# Displacement of the source x, y and z: two plane waves each, (kx, ky, kz, phase), 1.5 voxels
# high; the same table as the C++ side, so that both sample the same coordinates.
WAVES = (((0.061, 0.037, 0.023, 0.4), (0.019, 0.052, 0.071, 2.1)),
         ((0.043, 0.066, 0.017, 1.3), (0.058, 0.021, 0.049, 4.0)),
         ((0.027, 0.048, 0.063, 5.2), (0.069, 0.031, 0.036, 3.1)))
AMPLITUDE = 1.5


def volume(name):
    """Sinusoids along each axis plus a little noise, scaled to the type's range, as in the C++."""
    dtype, scale = TYPES[name]
    g = np.arange(SIZE, dtype=np.float32)
    v = 0.5 + 0.1 * (np.sin(g * 0.05 + 1.0)[None, None, :] + np.sin(g * 0.07 + 2.0)[None, :, None]
                     + np.sin(g * 0.09 + 3.0)[:, None, None])
    v += np.random.default_rng(7).uniform(-0.05, 0.05, v.shape).astype(np.float32)
    return (v * scale + (0.5 if np.issubdtype(dtype, np.integer) else 0.0)).astype(dtype)


def warp_transform():
    """Output-to-input matrix and offset in (z, y, x) order for the C++ side's source-to-destination
    map x' = C x + t in (x, y, z), C = 1.1 times a 30-degree turn about z, t fixing the centre."""
    a = np.radians(30.0)
    c = 1.1 * np.array([[np.cos(a), -np.sin(a), 0.0], [np.sin(a), np.cos(a), 0.0], [0.0, 0.0, 1.0]])
    t = CENTRE - c @ np.full(3, CENTRE)
    inv = np.linalg.inv(c)
    return inv[::-1, ::-1].copy(), (-inv @ t)[::-1].copy()


def coordinates():
    """Source (z, y, x) of every destination voxel: its own position plus a smooth displacement."""
    g = np.arange(SIZE, dtype=np.float64)
    x, y, z = g[None, None, :], g[None, :, None], g[:, None, None]
    coords = np.empty((3, SIZE, SIZE, SIZE), dtype=np.float32)
    for axis, position in enumerate((x, y, z)):
        d = np.broadcast_to(position, (SIZE, SIZE, SIZE)).copy()
        for kx, ky, kz, phase in WAVES[axis]:
            d += AMPLITUDE * np.sin(kx * x + ky * y + kz * z + phase)
        coords[2 - axis] = d
    return coords


def rate(run, out, order):
    # Pages are touched beforehand so that neither side pays first-touch faults in the timing.
    out.fill(0)
    best = float("inf")
    for _ in range(2 if order < 3 else 1):  # order 3 takes several seconds a call
        # CPU time, as the C++ side reports, so that a busy shared machine slows neither alone.
        start = time.process_time()
        run()
        best = min(best, time.process_time() - start)
    return out.size / best


def main():
    args = sys.argv[1:]
    if args:
        cases = [(args[i], args[i + 1], int(args[i + 2])) for i in range(0, len(args) - 2, 3)]
    else:
        cases = [(op, t, o) for op in ("warp", "remap") for t in ("8u", "32f") for o in (1, 3)]
    matrix, offset = warp_transform()
    coords = coordinates() if any(op == "remap" for op, _, _ in cases) else None
    volumes = {}
    for op, name, order in cases:
        if name not in volumes:
            volumes = {name: volume(name)}  # one source alive at a time
        vol = volumes[name]
        out = np.empty((SIZE, SIZE, SIZE), dtype=vol.dtype)
        if op == "warp":
            run = lambda: ndimage.affine_transform(vol, matrix, offset, output=out, order=order,
                                                   mode="constant", cval=0.0, prefilter=False)
        else:
            run = lambda: ndimage.map_coordinates(vol, coords, output=out, order=order,
                                                  mode="constant", cval=0.0, prefilter=False)
        print(f"{op} {name} {order} {rate(run, out, order):.6g}", flush=True)


if __name__ == "__main__":
    main()
