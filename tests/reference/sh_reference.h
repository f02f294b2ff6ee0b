// Double-precision real spherical harmonics by the associated Legendre recurrence: the oracle
// for both evaluation methods.
#pragma once

#include <cmath>
#include <vector>

namespace vlkr::reference {

// All (L + 1)^2 values Y(l, m) at index l*l + l + m for the direction (x, y, z), taken as
// given, without normalising, as the polynomials the library evaluates: P(l, m) / sin^m as a
// polynomial in z, times the real and imaginary parts of (x + iy)^m for sin^m cos(m phi) and
// sin^m sin(m phi). Condon-Shortley sign, sine type for m < 0.
inline std::vector<double> realHarmonics(double x, double y, double z, int L)
{
    std::vector<double> out((L + 1) * (L + 1));
    double re = 1.0, im = 0.0, pmm = 1.0;  // (x + iy)^m and (2m - 1)!!
    for (int m = 0; m <= L; ++m) {
        if (m > 0) {
            const double r = re * x - im * y;
            im = re * y + im * x, re = r, pmm *= 2 * m - 1;
        }
        // P(m, m) / sin^m = (2m - 1)!!, then the three-term recurrence upwards in l.
        double prev = 0.0, cur = pmm;
        for (int l = m; l <= L; ++l) {
            if (l > m) {
                const double next = ((2 * l - 1) * z * cur - (l + m - 1) * prev) / (l - m);
                prev = cur, cur = next;
            }
            double ratio = 1.0;  // (l - m)! / (l + m)!
            for (int k = l - m + 1; k <= l + m; ++k) ratio /= k;
            const double k = std::sqrt((2 * l + 1) / (4 * M_PI) * ratio);
            const double scale = m == 0 ? k : (m % 2 ? -1.0 : 1.0) * std::sqrt(2.0) * k;
            out[l * l + l + m] = scale * cur * re;
            if (m > 0) out[l * l + l - m] = scale * cur * im;
        }
    }
    return out;
}

}  // namespace vlkr::reference
