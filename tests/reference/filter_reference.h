// Plain 3-D convolution in exact integers: the sum wraps modulo 2^32 in unsigned arithmetic,
// and every divisor mode comes down to the exact quotient rounded half to even, saturated.
#pragma once

#include <algorithm>
#include <cstdint>

namespace vlkr::reference {

// The wrapped sum at voxel (x, y, z) of a kernel of size k[0] x k[1] x k[2] mirrored around
// anchor; read(x, y, z) gives a source voxel.
template <class Read>
std::int32_t filterSum(const Read& read, const int* kernel, const int k[3], const int anchor[3],
                       int x, int y, int z)
{
    std::uint32_t sum = 0;
    for (int kk = 0; kk < k[2]; ++kk)
        for (int j = 0; j < k[1]; ++j)
            for (int i = 0; i < k[0]; ++i)
                sum += std::uint32_t(kernel[i + k[0] * (j + k[1] * kk)]) *
                       std::uint32_t(std::int32_t(
                           read(x + anchor[0] - i, y + anchor[1] - j, z + anchor[2] - kk)));
    return std::int32_t(sum);
}

// sum / divisor rounded to nearest, ties to even, then saturated to 16 bits signed.
inline int filterDivide(std::int32_t sum, int divisor)
{
    std::int64_t n = sum, d = divisor;
    if (d < 0) n = -n, d = -d;
    std::int64_t q = n / d, r = n % d;
    if (r < 0) q -= 1, r += d;  // floor, so 0 <= r < d
    if (2 * r > d || (2 * r == d && (q & 1))) ++q;
    return int(std::clamp<std::int64_t>(q, -32768, 32767));
}

}  // namespace vlkr::reference
