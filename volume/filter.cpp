// Volume filter: true 3-D convolution (the kernel applied mirrored around its anchor) of
// 16-bit voxels with 32-bit weights. Sums wrap modulo 2^32 like the 32-bit accumulator they
// model, so they are the same in any order: the 3 x 3 x 3 and width-5 paths, which sum four
// voxels' taps in registers, and the generic path, which sums one row in the work buffer
// plane by plane, give the same results bit for bit.
#include "filter.h"

#include <emmintrin.h>

#include <algorithm>
#include <cstring>

#include "voxel.h"

namespace vlkr::volume {
namespace {

// Four voxels as 32-bit lanes: the first `count` of row[0..3], the rest 0.
inline __m128i loadVoxels(const std::int16_t* row, int count)
{
    std::int16_t lanes[4] = {0, 0, 0, 0};
    std::memcpy(lanes, row, sizeof(std::int16_t) * count);
    const __m128i h = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(lanes));
    return _mm_srai_epi32(_mm_unpacklo_epi16(h, h), 16);  // sign-extend
}

// Low 32 bits of four 32 x 32-bit products (SSE2 multiplies two lanes at a time).
inline __m128i multiplyLow(__m128i a, __m128i b)
{
    const __m128i even = _mm_mul_epu32(a, b);
    const __m128i odd = _mm_mul_epu32(_mm_srli_epi64(a, 32), _mm_srli_epi64(b, 32));
    return _mm_unpacklo_epi32(_mm_shuffle_epi32(even, _MM_SHUFFLE(0, 0, 2, 0)),
                              _mm_shuffle_epi32(odd, _MM_SHUFFLE(0, 0, 2, 0)));
}

// Nearest integer to q, ties to even, without the floating-point rounding mode: truncation
// is exact, and the remainder q - trunc(q) is compared with one half.
inline int roundHalfEven(double q)
{
    const int t = int(q);
    const double rest = q - t;
    const bool odd = t & 1;
    if (rest > 0.5 || (rest == 0.5 && odd)) return t + 1;
    if (rest < -0.5 || (rest == -0.5 && odd)) return t - 1;
    return t;
}

inline std::int16_t saturate(std::int32_t v)
{
    return std::int16_t(std::min(std::max(v, std::int32_t(-32768)), std::int32_t(32767)));
}

// The three ways from a sum to a voxel, chosen once per call.
struct DivideByOne {
    std::int16_t operator()(std::int32_t sum) const { return saturate(sum); }
};

// A positive power of two 2^s: shift, then add one when the remainder passes the half, or
// equals it and the quotient is odd.
struct DivideByShift {
    int s;
    std::int16_t operator()(std::int32_t sum) const
    {
        const std::int32_t q = sum >> s, r = sum & ((std::int32_t(1) << s) - 1);
        const std::int32_t half = std::int32_t(1) << (s - 1);
        return saturate(q + ((r + half - 1 + (q & 1)) >> s));
    }
};

// Any other divisor: the quotient in double, saturated, then rounded half to even.
struct DivideInDouble {
    double divisor;
    std::int16_t operator()(std::int32_t sum) const
    {
        const double q = std::min(std::max(double(sum) / divisor, -32768.0), 32767.0);
        return std::int16_t(roundHalfEven(q));
    }
};

const std::int16_t* sourceRow(const FilterJob& job, int x, int y, int z, int i, int j, int k)
{
    const std::int16_t* plane = job.src[z + job.anchor[2] - k];
    return plane + std::ptrdiff_t(y + job.anchor[1] - j) * job.srcStep + (x + job.anchor[0] - i);
}

// Adds the taps of kernel plane k, row j to four voxels' sums; kWidth > 0 fixes the kernel
// width at compile time.
template <int kWidth>
inline __m128i addKernelRow(__m128i sum, const FilterJob& job, int x, int y, int z, int j, int k,
                            int count)
{
    const int width = kWidth > 0 ? kWidth : job.kernelSize[0];
    const std::int32_t* weights = job.kernel + std::ptrdiff_t(width) * (j + job.kernelSize[1] * k);
    const std::int16_t* row = sourceRow(job, x, y, z, 0, j, k);
    for (int i = 0; i < width; ++i)
        sum =
            _mm_add_epi32(sum, multiplyLow(loadVoxels(row - i, count), _mm_set1_epi32(weights[i])));
    return sum;
}

template <class Divide>
inline void storeVoxels(__m128i sums, int count, const Divide& divide, std::int16_t* out)
{
    alignas(16) std::int32_t lanes[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), sums);
    for (int l = 0; l < count; ++l) storeVoxel(out + l, divide(lanes[l]));
}

// Every tap of four voxels at a time, in registers: the dedicated kernel sizes, and any
// size when there is no work buffer.
template <int kWidth, class Divide>
void filterInRegisters(const FilterJob& job, const Divide& divide)
{
    for (int z = 0; z < job.size[2]; ++z)
        for (int y = 0; y < job.size[1]; ++y) {
            std::int16_t* out = job.dst[z] + std::ptrdiff_t(y) * job.dstStep;
            for (int x = 0; x < job.size[0]; x += 4) {
                const int count = std::min(4, job.size[0] - x);
                __m128i sum = _mm_setzero_si128();
                for (int k = 0; k < job.kernelSize[2]; ++k)
                    for (int j = 0; j < job.kernelSize[1]; ++j)
                        sum = addKernelRow<kWidth>(sum, job, x, y, z, j, k, count);
                storeVoxels(sum, count, divide, out + x);
            }
        }
}

// One row of sums in the work buffer, built kernel row by kernel row.
template <class Divide>
void filterWithRowBuffer(const FilterJob& job, const Divide& divide)
{
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(job.buffer);
    auto* sums = reinterpret_cast<std::int32_t*>(job.buffer + (16 - start % 16) % 16);
    const int width = job.size[0];
    for (int z = 0; z < job.size[2]; ++z)
        for (int y = 0; y < job.size[1]; ++y) {
            std::fill(sums, sums + width, 0);
            for (int k = 0; k < job.kernelSize[2]; ++k)
                for (int j = 0; j < job.kernelSize[1]; ++j)
                    for (int x = 0; x < width; x += 4) {
                        // The buffer holds width sums: the last run goes through a block.
                        const int count = std::min(4, width - x);
                        alignas(16) std::int32_t lanes[4] = {0, 0, 0, 0};
                        std::int32_t* at = count == 4 ? sums + x : lanes;
                        if (count < 4) std::memcpy(lanes, sums + x, sizeof(std::int32_t) * count);
                        __m128i sum = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
                        sum = addKernelRow<0>(sum, job, x, y, z, j, k, count);
                        _mm_storeu_si128(reinterpret_cast<__m128i*>(at), sum);
                        if (count < 4) std::memcpy(sums + x, lanes, sizeof(std::int32_t) * count);
                    }
            std::int16_t* out = job.dst[z] + std::ptrdiff_t(y) * job.dstStep;
            for (int x = 0; x < width; ++x) storeVoxel(out + x, divide(sums[x]));
        }
}

template <class Divide>
void filterWith(const FilterJob& job, const Divide& divide)
{
    const int* k = job.kernelSize;
    if (k[0] == 3 && k[1] == 3 && k[2] == 3)
        filterInRegisters<3>(job, divide);
    else if (k[0] == 5)
        filterInRegisters<5>(job, divide);
    else if (job.buffer)
        filterWithRowBuffer(job, divide);
    else  // no buffer: the register path serves any size, with the same results
        filterInRegisters<0>(job, divide);
}

}  // namespace

void runFilter(const FilterJob& job) noexcept
{
    const int d = job.divisor;
    if (d == 1) return filterWith(job, DivideByOne{});
    // Only a positive divisor counts as a power of two.
    if (d > 1 && (d & (d - 1)) == 0) {
        int s = 0;
        while ((1 << s) != d) ++s;
        return filterWith(job, DivideByShift{s});
    }
    filterWith(job, DivideInDouble{double(d)});
}

}  // namespace vlkr::volume
