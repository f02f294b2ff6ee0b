"""Output voxels per second of scipy.ndimage.convolve on the int16 source of vlkr's volume filter
benchmark, followed by the same division and rounding in numpy. Usage:
filter_scipy_bench.py [SIZE DIVISOR]...  with SIZE 3 or 5 for a SIZE^3 kernel; without arguments
both sizes with divisors 1, 8 and 27. Prints one line per case: NxNxN 16s DIVISOR VOXELS_PER_SECOND."""
import sys
import time

import numpy as np
from scipy import ndimage

SIZE = 256


def volume(n):
    """The 256^3 region with an n // 2 margin on every side, in (z, y, x) order, from the same
    integer formula as the C++ side, so that both filter identical voxels."""
    g = np.arange(SIZE + n - 1, dtype=np.uint32) + np.uint32(8 - n // 2)
    u, v, w = g[None, None, :], g[None, :, None], g[:, None, None]
    h = (u * np.uint32(73856093)) ^ (v * np.uint32(19349663)) ^ (w * np.uint32(83492791))
    h ^= h >> np.uint32(15)
    h *= np.uint32(0x2C1B3C6D)
    h ^= h >> np.uint32(12)
    ramp = ((u * 3 + v * 5 + w * 7) % 400).astype(np.int32) - 200
    return (2 * ramp + (h >> np.uint32(24)).astype(np.int32) - 128).astype(np.int16)


def kernel(n):
    """K[k, j, i] = 1 + (i + 2j + 4k) mod 3, as in the C++ side."""
    k, j, i = np.indices((n, n, n))
    return 1 + (i + 2 * j + 4 * k) % 3


def rate(n, divisor):
    vol, weights = volume(n), kernel(n)
    sums = np.empty(vol.shape, dtype=np.int32)
    quotient = np.empty(vol.shape, dtype=np.float64)
    out = np.empty(vol.shape, dtype=np.int16)
    # Pages are touched beforehand so that neither side pays first-touch faults in the timing.
    for a in (sums, quotient, out):
        a.fill(0)

    def run():
        # Sums are exact in scipy's double accumulator and fit int32 for these weights.
        ndimage.convolve(vol, weights, output=sums, mode="reflect")
        if divisor == 1:
            np.clip(sums, -32768, 32767, out=sums)
            np.copyto(out, sums, casting="unsafe")
        else:
            np.divide(sums, divisor, out=quotient)
            np.rint(quotient, out=quotient)  # ties to even, as the filter rounds
            np.clip(quotient, -32768, 32767, out=quotient)
            np.copyto(out, quotient, casting="unsafe")

    best = float("inf")
    for _ in range(2):
        # CPU time, as the C++ side reports, so that a busy shared machine slows neither alone.
        start = time.process_time()
        run()
        best = min(best, time.process_time() - start)
    return out.size / best


def main():
    args = [int(a) for a in sys.argv[1:]]
    if args:
        cases = [(args[i], args[i + 1]) for i in range(0, len(args) - 1, 2)]
    else:
        cases = [(n, d) for n in (3, 5) for d in (1, 8, 27)]
    for n, divisor in cases:
        print(f"{n}x{n}x{n} 16s {divisor} {rate(n, divisor):.6g}", flush=True)


if __name__ == "__main__":
    main()
