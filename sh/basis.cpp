// Spherical-harmonic basis: the state block with its recurrence tables, the single-precision
// recurrence, and the closed-form (direct) evaluation generated per band.
#include "basis.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include <xmmintrin.h>

#include "frame/lanes.h"

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

// Bands 0..L by the recurrence, for one direction or four in lanes, in single precision with
// the operand order of the definition; each band is built from the two before it.
template <class V>
void recurrence(V x, V y, V z, V* out, int L, const float* coefA, const float* coefB)
{
    out[0] = V(coefA[0]);
    if (L == 0) return;
    out[1] = V(coefA[2]) * y;
    out[2] = V(coefA[1]) * z;
    out[3] = V(coefA[2]) * x;
    for (int l = 2; l <= L; ++l) {
        const float* a = coefA + rowStart(std::size_t(l));
        const float* b = coefB + rowStart(std::size_t(l));
        const V* P = out + (l - 1) * (l - 1) + (l - 1);  // band l - 1, centred on m = 0
        const V* Q = out + (l - 2) * (l - 2) + (l - 2);  // band l - 2
        V* R = out + l * l + l;                          // band l
        const V C = P[l - 1], S = P[-(l - 1)];
        R[l] = (x * C - y * S) * V(a[l]);
        R[-l] = (y * C + x * S) * V(a[l]);
        const V az1 = V(a[l - 1]) * z;
        R[l - 1] = az1 * C;
        R[-(l - 1)] = az1 * S;
        for (int k = 0; k <= l - 2; ++k) {
            const V az = V(a[k]) * z, bk = V(b[k]);
            R[k] = az * P[k] + bk * Q[k];
            if (k > 0) R[-k] = az * P[-k] + bk * Q[-k];
        }
    }
}

// Writes `count` values per lane to consecutive directions of dst.
void storeDirections(const lanes::Float1* band, int count, float* dst)
{
    for (int k = 0; k < count; ++k) band[k].store(dst + k);
}

void storeDirections(const lanes::Float4* band, int count, float* dst)
{
    int k = 0;
    for (; k + 4 <= count; k += 4) {
        __m128 r0 = band[k].v, r1 = band[k + 1].v, r2 = band[k + 2].v, r3 = band[k + 3].v;
        _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
        _mm_storeu_ps(dst + k, r0);
        _mm_storeu_ps(dst + count + k, r1);
        _mm_storeu_ps(dst + 2 * count + k, r2);
        _mm_storeu_ps(dst + 3 * count + k, r3);
    }
    for (; k < count; ++k) {
        alignas(16) float lane[4];
        band[k].store(lane);
        for (int j = 0; j < 4; ++j) storeUnaligned(dst + j * count + k, lane[j]);
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
constexpr std::array<DirectBandFn, sizeof...(kLs)> directUpToTable(
    std::integer_sequence<int, kLs...>)
{
    return {directUpTo<kLs>...};
}

constexpr auto kDirectUpTo = directUpToTable(std::make_integer_sequence<int, kMaxBand + 1>());

// Runs fn on each direction in turn, writing `width` values a direction. The band routines
// store floats, so a destination off a 4-byte boundary gets each row through a local copy.
void forEachDirection(const float* x, const float* y, const float* z, std::size_t n, float* dst,
                      std::size_t width, DirectBandFn fn) noexcept
{
    const bool floatAligned = reinterpret_cast<std::uintptr_t>(dst) % alignof(float) == 0;
    alignas(16) float row[kMaxCoefficients];
    for (std::size_t i = 0; i < n; ++i) {
        float* out = dst + i * width;
        fn(loadUnaligned(x + i), loadUnaligned(y + i), loadUnaligned(z + i),
           floatAligned ? out : row);
        if (!floatAligned) std::memcpy(out, row, sizeof(float) * width);
    }
}

}  // namespace

long long stateSize(int maxL, int shType) noexcept
{
    if (shType == SHTypeDirect) return 16;
    // Negative orders and blocks beyond an int are refused rather than wrapped.
    if (maxL < 0) return -1;
    // 8 n bytes hold the two tables of n floats; the rounding and the further 32 bytes make
    // room for the 24-byte header and each table's step up to a 16-byte boundary (enough for
    // any 4-byte-aligned block, every order).
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

void evaluate(const float* x, const float* y, const float* z, std::size_t n, float* dst, int L,
              const SHContext& state) noexcept
{
    const std::size_t count = std::size_t(L + 1) * std::size_t(L + 1);
    if (state.shType == SHTypeRecurrence) {
        auto directions = [&](auto lane, std::size_t i) {
            using V = decltype(lane);
            V band[kMaxCoefficients];
            recurrence(V::load(x + i), V::load(y + i), V::load(z + i), band, L, state.coefA,
                       state.coefB);
            storeDirections(band, int(count), dst + i * count);
        };
        std::size_t i = 0;
        for (; i + 4 <= n; i += 4) directions(lanes::Float4{}, i);
        for (; i < n; ++i) directions(lanes::Float1{}, i);
        return;
    }
    const DirectBandFn upTo = kDirectUpTo[L];
    forEachDirection(x, y, z, n, dst, count, upTo);
}

void evaluateBand(const float* x, const float* y, const float* z, std::size_t n, float* dst,
                  int L) noexcept
{
    forEachDirection(x, y, z, n, dst, std::size_t(2 * L + 1), kDirectBands[L]);
}

}  // namespace vlkr::sh
