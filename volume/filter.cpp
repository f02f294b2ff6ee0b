// Volume filter: true 3-D convolution (the kernel applied mirrored around its anchor) of
// 16-bit voxels with 32-bit weights. Sums wrap modulo 2^32 like the 32-bit accumulator they
// model, so they are the same in any order: the 3 x 3 x 3 and width-5 paths, which sum four
// voxels' taps in registers, and the generic path, which sums one row in the work buffer
// plane by plane, give the same results bit for bit.
#include "filter.h"

#include <emmintrin.h>

#include <algorithm>
#include <cstring>

#include "frame/unaligned.h"

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

// The three ways from four sums to four voxels, chosen once per call. Each returns 32-bit
// lanes that the final pack saturates to [-32768, 32767].
struct DivideByOne {
    __m128i operator()(__m128i sums) const { return sums; }
};

// A positive power of two 2^s: shift, then add one when the remainder passes the half, or
// equals it and the quotient is odd.
struct DivideByShift {
    int s;
    __m128i operator()(__m128i sums) const
    {
        const __m128i count = _mm_cvtsi32_si128(s);
        const __m128i q = _mm_sra_epi32(sums, count);
        const __m128i r = _mm_and_si128(sums, _mm_set1_epi32((1 << s) - 1));
        const __m128i odd = _mm_and_si128(q, _mm_set1_epi32(1));
        const __m128i up = _mm_add_epi32(_mm_add_epi32(r, _mm_set1_epi32((1 << (s - 1)) - 1)), odd);
        return _mm_add_epi32(q, _mm_srl_epi32(up, count));
    }
};

// Any other divisor: the quotient in double, saturated, then rounded to nearest with ties
// to even without the floating-point rounding mode: truncation is exact, and the rest
// q - trunc(q) is compared with one half.
struct DivideInDouble {
    double divisor;
    __m128i half(__m128i sums) const  // the low two lanes
    {
        const __m128d q =
            _mm_min_pd(_mm_max_pd(_mm_div_pd(_mm_cvtepi32_pd(sums), _mm_set1_pd(divisor)),
                                  _mm_set1_pd(-32768.0)),
                       _mm_set1_pd(32767.0));
        const __m128i t = _mm_cvttpd_epi32(q);
        const __m128d whole = _mm_cvtepi32_pd(t), rest = _mm_sub_pd(q, whole);
        const __m128d one = _mm_set1_pd(1.0), halfOne = _mm_set1_pd(0.5);
        const __m128d odd = _mm_cmpeq_pd(_mm_cvtepi32_pd(_mm_and_si128(t, _mm_set1_epi32(1))), one);
        const __m128d up =
            _mm_or_pd(_mm_cmpgt_pd(rest, halfOne), _mm_and_pd(_mm_cmpeq_pd(rest, halfOne), odd));
        const __m128d minusHalf = _mm_set1_pd(-0.5);
        const __m128d down = _mm_or_pd(_mm_cmplt_pd(rest, minusHalf),
                                       _mm_and_pd(_mm_cmpeq_pd(rest, minusHalf), odd));
        const __m128d nearest =
            _mm_sub_pd(_mm_add_pd(whole, _mm_and_pd(up, one)), _mm_and_pd(down, one));
        return _mm_cvttpd_epi32(nearest);  // a whole number: exact
    }
    __m128i operator()(__m128i sums) const
    {
        return _mm_unpacklo_epi64(half(sums),
                                  half(_mm_shuffle_epi32(sums, _MM_SHUFFLE(1, 0, 3, 2))));
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
        sum = _mm_add_epi32(sum, multiplyLow(loadVoxels(row - i, count),
                                             _mm_set1_epi32(loadUnaligned(weights + i))));
    return sum;
}

// Four sums divided, saturated and stored, `count` of them.
template <class Divide>
inline void storeVoxels(__m128i sums, int count, const Divide& divide, std::int16_t* out)
{
    const __m128i r = divide(sums);
    alignas(16) std::int16_t lanes[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), _mm_packs_epi32(r, r));
    std::memcpy(out, lanes, sizeof(std::int16_t) * count);
}

// Eight voxels row[0..count) as 16-bit lanes (the rest 0), never reading past them.
inline __m128i loadEight(const std::int16_t* row, int count)
{
    std::int16_t lanes[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    const std::int16_t* from = row;
    if (count < 8) {
        std::memcpy(lanes, row, sizeof(std::int16_t) * count);
        from = lanes;
    }
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

// Kernel row (j, k) added to eight voxels' sums when every weight fits in 16 bits: taps i
// and i + 1 share one pmaddwd of interleaved voxel pairs, a last odd tap pairs with zero.
// The products and their pairwise sums are the same 32-bit values as one tap at a time.
template <int kWidth>
inline void addKernelRowPairs(__m128i& lo, __m128i& hi, const FilterJob& job,
                              const std::int16_t* row, const std::int32_t* weights, int count)
{
    const int width = kWidth > 0 ? kWidth : job.kernelSize[0];
    auto pairOf = [](std::int32_t first, std::int32_t second) {
        return _mm_set1_epi32(
            std::int32_t(std::uint32_t(second) << 16 | (std::uint32_t(first) & 0xFFFF)));
    };
    int i = 0;
    for (; i + 1 < width; i += 2) {
        const __m128i a = loadEight(row - i, count), b = loadEight(row - i - 1, count);
        const __m128i w = pairOf(loadUnaligned(weights + i), loadUnaligned(weights + i + 1));
        lo = _mm_add_epi32(lo, _mm_madd_epi16(_mm_unpacklo_epi16(a, b), w));
        hi = _mm_add_epi32(hi, _mm_madd_epi16(_mm_unpackhi_epi16(a, b), w));
    }
    if (i < width) {
        const __m128i a = loadEight(row - i, count), zero = _mm_setzero_si128();
        const __m128i w = pairOf(loadUnaligned(weights + i), 0);
        lo = _mm_add_epi32(lo, _mm_madd_epi16(_mm_unpacklo_epi16(a, zero), w));
        hi = _mm_add_epi32(hi, _mm_madd_epi16(_mm_unpackhi_epi16(a, zero), w));
    }
}

// Eight voxels at a time with 16-bit weights, in registers.
template <int kWidth, class Divide>
void filterInPairs(const FilterJob& job, const Divide& divide)
{
    const int width = job.kernelSize[0], height = job.kernelSize[1];
    for (int z = 0; z < job.size[2]; ++z)
        for (int y = 0; y < job.size[1]; ++y) {
            std::int16_t* out = job.dst[z] + std::ptrdiff_t(y) * job.dstStep;
            for (int x = 0; x < job.size[0]; x += 8) {
                const int count = std::min(8, job.size[0] - x);
                __m128i lo = _mm_setzero_si128(), hi = _mm_setzero_si128();
                for (int k = 0; k < job.kernelSize[2]; ++k)
                    for (int j = 0; j < height; ++j)
                        addKernelRowPairs<kWidth>(
                            lo, hi, job, sourceRow(job, x, y, z, 0, j, k),
                            job.kernel + std::ptrdiff_t(width) * (j + height * k), count);
                storeVoxels(lo, std::min(count, 4), divide, out + x);
                if (count > 4) storeVoxels(hi, count - 4, divide, out + x + 4);
            }
        }
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
            for (int x = 0; x < width; x += 4) {
                const int count = std::min(4, width - x);
                alignas(16) std::int32_t lanes[4] = {0, 0, 0, 0};
                std::memcpy(lanes, sums + x, sizeof(std::int32_t) * count);
                storeVoxels(_mm_load_si128(reinterpret_cast<const __m128i*>(lanes)), count, divide,
                            out + x);
            }
        }
}

template <class Divide>
void filterWith(const FilterJob& job, const Divide& divide)
{
    const int* k = job.kernelSize;
    const std::ptrdiff_t taps = std::ptrdiff_t(k[0]) * k[1] * k[2];
    bool narrow = true;  // every weight fits in 16 bits
    for (std::ptrdiff_t i = 0; i < taps && narrow; ++i) {
        const std::int32_t w = loadUnaligned(job.kernel + i);
        narrow = w == std::int16_t(w);
    }
    if (k[0] == 3 && k[1] == 3 && k[2] == 3)
        narrow ? filterInPairs<3>(job, divide) : filterInRegisters<3>(job, divide);
    else if (k[0] == 5)
        narrow ? filterInPairs<5>(job, divide) : filterInRegisters<5>(job, divide);
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
