// Double-precision real spherical harmonics by the associated Legendre recurrence: the oracle
// for both evaluation methods.
#pragma once

#include <cmath>
#include <vector>

namespace vlkr::reference {

// All (L + 1)^2 values Y(l, m) at index l*l + l + m for the direction (x, y, z), taken as
// given (callers pass unit vectors). Condon-Shortley sign, sine type for m < 0.
inline std::vector<double> realHarmonics(double x, double y, double z, int L)
{
    std::vector<double> out((L + 1) * (L + 1));
    const double sinTheta = std::sqrt(std::max(0.0, 1.0 - z * z));
    const double phi = std::atan2(y, x);
    for (int m = 0; m <= L; ++m) {
        // P(m, m) = (2m - 1)!! sin^m, then the three-term recurrence upwards in l.
        double pmm = 1.0;
        for (int k = 1; k <= m; ++k) pmm *= (2 * k - 1) * sinTheta;
        double prev = 0.0, cur = pmm;
        for (int l = m; l <= L; ++l) {
            if (l > m) {
                const double next = l == m + 1 ? z * (2 * m + 1) * pmm
                                               : ((2 * l - 1) * z * cur - (l + m - 1) * prev) / (l - m);
                prev = cur;
                cur = next;
            }
            double ratio = 1.0;  // (l - m)! / (l + m)!
            for (int k = l - m + 1; k <= l + m; ++k) ratio /= k;
            const double k = std::sqrt((2 * l + 1) / (4 * M_PI) * ratio);
            if (m == 0) {
                out[l * l + l] = k * cur;
            } else {
                const double sign = m % 2 ? -1.0 : 1.0;
                out[l * l + l + m] = sign * std::sqrt(2.0) * k * cur * std::cos(m * phi);
                out[l * l + l - m] = sign * std::sqrt(2.0) * k * cur * std::sin(m * phi);
            }
        }
    }
    return out;
}

}  // namespace vlkr::reference
