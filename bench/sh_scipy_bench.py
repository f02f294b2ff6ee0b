"""Directions per second of the real spherical-harmonic basis through scipy.special, for
comparison with vlkr's evaluation. Usage: sh_scipy_bench.py L  (prints one number)."""
import sys
import time

import numpy as np
from scipy import special


def real_basis(x, y, z, L):
    """All (L + 1)^2 real orthonormal harmonics, index l*l + l + m, from the complex ones."""
    theta = np.arccos(np.clip(z, -1.0, 1.0))
    phi = np.arctan2(y, x)
    out = np.empty((x.size, (L + 1) ** 2))
    for l in range(L + 1):
        for m in range(0, l + 1):
            if hasattr(special, "sph_harm_y"):
                c = special.sph_harm_y(l, m, theta, phi)
            else:
                c = special.sph_harm(m, l, phi, theta)
            if m == 0:
                out[:, l * l + l] = c.real
            else:
                # scipy includes the Condon-Shortley phase in the complex harmonics.
                out[:, l * l + l + m] = np.sqrt(2.0) * c.real
                out[:, l * l + l - m] = np.sqrt(2.0) * c.imag
    return out


def main():
    L = int(sys.argv[1])
    n = 20000
    rng = np.random.default_rng(1)
    v = rng.normal(size=(n, 3))
    v /= np.linalg.norm(v, axis=1)[:, None]
    start = time.perf_counter()
    real_basis(v[:, 0], v[:, 1], v[:, 2], L)
    print(n / (time.perf_counter() - start))


if __name__ == "__main__":
    main()
