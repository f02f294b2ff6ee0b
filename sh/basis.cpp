// Spherical-harmonic basis: the state block with its recurrence tables, the single-precision
// recurrence, and the closed-form (direct) evaluation generated per band.
#include "basis.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include <xmmintrin.h>

namespace vlkr::sh {

#include "direct_bands.inc"

namespace {

constexpr std::uint32_t kY00Bits = 0x3E906EBBu;  // 1 / (2 sqrt(pi))
constexpr std::uint32_t kY1Bits = 0x3EFA2A1Du;   // sqrt(3 / (4 pi))

float floatFromBits(std::uint32_t u)
{
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

std::size_t rowStart(std::size_t l) { return l * (l + 1) / 2; }

std::uintptr_t alignUp16(std::uintptr_t a) { return (a + 15) & ~std::uintptr_t(15); }

// 32-bit integer arithmetic that wraps like the integers the tables are defined with.
std::int32_t mul32(std::int64_t a, std::int64_t b)
{
    return std::int32_t(std::uint32_t(std::uint64_t(a) * std::uint64_t(b)));
}

/*
 * Recurrence tables. Rows 0 and 1 of coefA hold the values of bands 0 and 1; for l >= 2, row
 * l holds the factors that lift band l - 1 to band l (coefA) and bring in band l - 2 (coefB):
 * Y(l, m) = a[m] z Y(l - 1, m) + b[m] Y(l - 2, m) for |m| < l - 1, the sectoral pair from the
 * complex product with (x + i y), and Y(l, +-(l - 1)) = a[l - 1] z Y(l - 1, +-(l - 1)).
 * Each entry is computed in the precision it is defined with, so the tables are exact.
 */
void fillTables(float* a, float* b, int maxL)
{
    a[0] = floatFromBits(kY00Bits);
    a[1] = floatFromBits(kY1Bits);
    a[2] = -floatFromBits(kY1Bits);
    for (int l = 2; l <= maxL; ++l) {
        float* ar = a + rowStart(std::size_t(l));
        float* br = b + rowStart(std::size_t(l));
        const std::int32_t fourL2 = mul32(4 * std::int64_t(l), l);
        ar[0] = float(std::sqrt(double(fourL2 - 1)) / l);
        for (int m = 1; m <= l - 2; ++m) {
            const float num = float(fourL2 - 1);
            const float den = float(mul32(l, l) - mul32(m, m));
            ar[m] = std::sqrt(num / den);
        }
        ar[l - 1] = float(std::sqrt(double(2 * l + 1)));
        ar[l] = float(-std::sqrt(double(2 * l + 1) / double(2 * l)));

        const float ratio = float(2 * l + 1) / float(2 * l - 3);
        br[0] = float((1.0 / l - 1.0) * std::sqrt(double(ratio)));
        const std::int32_t numBase = mul32(2 * l + 1, mul32(l - 1, l - 1));
        const std::int32_t denBase = mul32(2 * l - 3, mul32(l, l));
        for (int m = 1; m <= l - 2; ++m) {
            const std::int32_t num = numBase - mul32(2 * l + 1, mul32(m, m));
            const std::int32_t den = denBase - mul32(2 * l - 3, mul32(m, m));
            br[m] = float(-std::sqrt(double(float(num) / float(den))));
        }
    }
}

// Bands 0..L of one direction by the recurrence, in single precision with the operand order
// of the definition; each band is built from the two before it in `out` itself.
void recurrence(float x, float y, float z, float* out, int L, const float* coefA,
                const float* coefB)
{
    out[0] = coefA[0];
    if (L == 0) return;
    out[1] = coefA[2] * y;
    out[2] = coefA[1] * z;
    out[3] = coefA[2] * x;
    for (int l = 2; l <= L; ++l) {
        const float* a = coefA + rowStart(std::size_t(l));
        const float* b = coefB + rowStart(std::size_t(l));
        const float* P = out + (l - 1) * (l - 1) + (l - 1);  // band l - 1, centred on m = 0
        const float* Q = out + (l - 2) * (l - 2) + (l - 2);  // band l - 2
        float* R = out + l * l + l;                            // band l
        const float C = P[l - 1], S = P[-(l - 1)];
        R[l] = (x * C - y * S) * a[l];
        R[-l] = (y * C + x * S) * a[l];
        R[l - 1] = a[l - 1] * z * C;
        R[-(l - 1)] = a[l - 1] * z * S;
        R[0] = a[0] * z * P[0] + b[0] * Q[0];
        for (int k = 1; k <= l - 2; ++k) {
            R[k] = a[k] * z * P[k] + b[k] * Q[k];
            R[-k] = a[k] * z * P[-k] + b[k] * Q[-k];
        }
    }
}

// The same recurrence for four directions in SSE2 lanes, built in a local four-lane copy of
// the bands and then transposed out, each lane doing exactly the scalar operations.
void recurrence4(const float* x, const float* y, const float* z, float* dst, int L,
                 const float* coefA, const float* coefB)
{
    const int count = (L + 1) * (L + 1);
    __m128 band[kMaxCoefficients];
    const __m128 xv = _mm_loadu_ps(x), yv = _mm_loadu_ps(y), zv = _mm_loadu_ps(z);
    band[0] = _mm_set1_ps(coefA[0]);
    if (L > 0) {
        band[1] = _mm_mul_ps(_mm_set1_ps(coefA[2]), yv);
        band[2] = _mm_mul_ps(_mm_set1_ps(coefA[1]), zv);
        band[3] = _mm_mul_ps(_mm_set1_ps(coefA[2]), xv);
    }
    for (int l = 2; l <= L; ++l) {
        const float* a = coefA + rowStart(std::size_t(l));
        const float* b = coefB + rowStart(std::size_t(l));
        const __m128* P = band + (l - 1) * (l - 1) + (l - 1);
        const __m128* Q = band + (l - 2) * (l - 2) + (l - 2);
        __m128* R = band + l * l + l;
        const __m128 C = P[l - 1], S = P[-(l - 1)];
        const __m128 al = _mm_set1_ps(a[l]), al1 = _mm_set1_ps(a[l - 1]);
        R[l] = _mm_mul_ps(_mm_sub_ps(_mm_mul_ps(xv, C), _mm_mul_ps(yv, S)), al);
        R[-l] = _mm_mul_ps(_mm_add_ps(_mm_mul_ps(yv, C), _mm_mul_ps(xv, S)), al);
        const __m128 az1 = _mm_mul_ps(al1, zv);
        R[l - 1] = _mm_mul_ps(az1, C);
        R[-(l - 1)] = _mm_mul_ps(az1, S);
        for (int k = 0; k <= l - 2; ++k) {
            const __m128 az = _mm_mul_ps(_mm_set1_ps(a[k]), zv);
            const __m128 bk = _mm_set1_ps(b[k]);
            R[k] = _mm_add_ps(_mm_mul_ps(az, P[k]), _mm_mul_ps(bk, Q[k]));
            if (k > 0) R[-k] = _mm_add_ps(_mm_mul_ps(az, P[-k]), _mm_mul_ps(bk, Q[-k]));
        }
    }
    int k = 0;
    for (; k + 4 <= count; k += 4) {
        __m128 r0 = band[k], r1 = band[k + 1], r2 = band[k + 2], r3 = band[k + 3];
        _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
        _mm_storeu_ps(dst + k, r0);
        _mm_storeu_ps(dst + count + k, r1);
        _mm_storeu_ps(dst + 2 * count + k, r2);
        _mm_storeu_ps(dst + 3 * count + k, r3);
    }
    for (; k < count; ++k) {
        alignas(16) float lanes[4];
        _mm_store_ps(lanes, band[k]);
        for (int j = 0; j < 4; ++j) dst[j * count + k] = lanes[j];
    }
}

// Bands 0..L of one direction in increasing order. Instantiated per L so that the band
// routines inline into one body and share the powers of (x + i y) they all form.
template <int... kBands>
void directBands(float x, float y, float z, float* out, std::integer_sequence<int, kBands...>)
{
    (kDirectBands[kBands](x, y, z, out + kBands * kBands), ...);
}

template <int kL>
void directUpTo(float x, float y, float z, float* out) noexcept
{
    directBands(x, y, z, out, std::make_integer_sequence<int, kL + 1>());
}

template <int... kLs>
constexpr std::array<DirectBandFn, sizeof...(kLs)> directUpToTable(std::integer_sequence<int, kLs...>)
{
    return {directUpTo<kLs>...};
}

constexpr auto kDirectUpTo = directUpToTable(std::make_integer_sequence<int, kMaxBand + 1>());

}  // namespace

long long stateSize(int maxL, int shType) noexcept
{
    if (shType == SHTypeDirect) return 16;
    // Negative orders and blocks beyond an int are refused rather than wrapped.
    if (maxL < 0) return -1;
    const long long n = (static_cast<long long>(maxL) + 1) * (maxL + 2) / 2;
    const long long size = ((8 * n + 30) & ~31LL) + 32;
    return size > 0x7FFFFFFF ? -1 : size;
}

void initState(SHContext* state, int maxL, int shType) noexcept
{
    // A direct block is 16 bytes: the two ints and eight zero bytes, no coefB.
    std::memset(static_cast<void*>(state), 0, std::size_t(stateSize(maxL, shType)));
    state->maxOrder = maxL;
    state->shType = shType;
    if (shType != SHTypeRecurrence) return;
    const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(state);
    const std::uintptr_t a = alignUp16(base + sizeof(SHContext));
    const std::size_t n = rowStart(std::size_t(maxL) + 1);
    const std::uintptr_t b = alignUp16(a + 4 * n);
    state->coefA = reinterpret_cast<float*>(a);
    state->coefB = reinterpret_cast<float*>(b);
    fillTables(state->coefA, state->coefB, maxL);
}

void evaluate(const float* x, const float* y, const float* z, std::size_t n, float* dst,
              int L, const SHContext& state) noexcept
{
    const std::size_t count = std::size_t(L + 1) * std::size_t(L + 1);
    if (state.shType == SHTypeRecurrence) {
        std::size_t i = 0;
        for (; i + 4 <= n; i += 4)
            recurrence4(x + i, y + i, z + i, dst + i * count, L, state.coefA, state.coefB);
        for (; i < n; ++i)
            recurrence(x[i], y[i], z[i], dst + i * count, L, state.coefA, state.coefB);
        return;
    }
    const DirectBandFn upTo = kDirectUpTo[L];
    for (std::size_t i = 0; i < n; ++i) upTo(x[i], y[i], z[i], dst + i * count);
}

void evaluateBand(const float* x, const float* y, const float* z, std::size_t n, float* dst,
                  int L) noexcept
{
    const DirectBandFn band = kDirectBands[L];
    const std::size_t width = std::size_t(2 * L + 1);
    for (std::size_t i = 0; i < n; ++i) band(x[i], y[i], z[i], dst + i * width);
}

}  // namespace vlkr::sh
