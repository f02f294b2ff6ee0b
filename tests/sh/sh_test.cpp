// Spherical harmonics: state block layout and tables, both evaluation methods against a
// double-precision oracle, band slices, check order, and the transforms.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "reference/sh_reference.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace {

using vlkr::test::bitsOf;

const float kV[2] = {0.0f, 1.0f};  // a direction, sample or coefficient list that is never null

// Hands out the pointer arguments of one call, making the one numbered `hole` null; `slot` ends
// as the number of pointers the call took.
struct Holes {
    int hole, slot = 0;
    template <class T>
    T* operator()(T* p)
    {
        return slot++ == hole ? nullptr : p;
    }
    // An array of three: the array itself is a slot and so is each entry, copied to `copy`.
    template <class T>
    T* const* three(T* const* p, T** copy)
    {
        for (int c = 0; c < 3; ++c) copy[c] = (*this)(p[c]);
        return (*this)(copy);
    }
};

// A state block in 16-byte-aligned storage filled with 0xAB, sized by the library.
struct State {
    alignas(16) unsigned char storage[2048];  // the largest block is 1888 bytes
    SHContext* ctx = reinterpret_cast<SHContext*>(storage);
    int size = 0;
    State(int maxL, int type)
    {
        std::memset(storage, 0xAB, sizeof storage);
        EXPECT_EQ(vlkrSHGetSize_32f(maxL, type, &size), vlkStatusOk);
        EXPECT_EQ(vlkrSHInit_32f(ctx, maxL, type), vlkStatusOk);
    }
};

struct Directions {
    std::vector<float> x, y, z;
    int size() const { return int(x.size()); }
    void add(double a, double b, double c)
    {
        x.push_back(float(a)), y.push_back(float(b)), z.push_back(float(c));
    }
};

// Random unit directions plus the poles, the axes and a few diagonals.
Directions directions(int count, unsigned seed)
{
    Directions d;
    const float fixed[][3] = {{0, 0, 1}, {0, 0, -1}, {1, 0, 0}, {-1, 0, 0}, {0, 1, 0},
                              {0, -1, 0}, {0.6f, 0.8f, 0}, {0, 0.6f, -0.8f}};
    for (const auto& f : fixed) d.add(f[0], f[1], f[2]);
    std::mt19937 rng(seed);
    std::normal_distribution<double> g;
    while (d.size() < count) {
        const double v[3] = {g(rng), g(rng), g(rng)};
        const double n = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        d.add(v[0] / n, v[1] / n, v[2] / n);
    }
    return d;
}

std::vector<float> evaluate(const Directions& d, int L, const SHContext* ctx)
{
    std::vector<float> out(d.size() * (L + 1) * (L + 1));
    EXPECT_EQ(vlkrSH_32f(d.x.data(), d.y.data(), d.z.data(), d.size(), out.data(), L, ctx),
              vlkStatusOk);
    return out;
}

// ------------------------------------------------------------------ state block

TEST(SHState, SizesOfBothKindsAndTheDirectBlock)
{
    int size = -1;
    const struct {
        int maxL, type, want;
        vlkStatus status;
    } rows[] = {{15, 0, 16, vlkStatusOk},
                {0, 0, 16, vlkStatusOk},
                {15, 1, 1120, vlkStatusOk},
                {0, 1, 64, vlkStatusOk},
                {1, 1, 64, vlkStatusOk},
                {20, 1, 1888, vlkStatusOk},
                {16, 0, -1, vlkStatusSize},
                {-1, 0, -1, vlkStatusSize},
                {-1, 1, -1, vlkStatusSize},
                {3, 2, -1, vlkStatusAlgType},
                {3, -1, -1, vlkStatusAlgType},
                // The largest recurrence block that an int can size, and the first too large.
                {23168, 1, 2147302976, vlkStatusOk},
                {23169, 1, -1, vlkStatusSize}};
    for (const auto& r : rows) {
        size = -1;
        EXPECT_EQ(vlkrSHGetSize_32f(r.maxL, r.type, &size), r.status) << r.maxL << " " << r.type;
        EXPECT_EQ(size, r.want) << r.maxL << " " << r.type;
        // Init makes the same checks in the same order.
        State scratch(0, SHTypeDirect);
        if (r.want <= int(sizeof scratch.storage)) {
            EXPECT_EQ(vlkrSHInit_32f(scratch.ctx, r.maxL, r.type), r.status) << r.maxL;
        }
    }
    EXPECT_EQ(vlkrSHGetSize_32f(3, 1, nullptr), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSHInit_32f(nullptr, 3, 1), vlkStatusNullPtr);

    std::uint64_t block[4] = {~0ull, ~0ull, ~0ull, ~0ull};
    auto* ctx = reinterpret_cast<SHContext*>(block);
    ASSERT_EQ(vlkrSHInit_32f(ctx, 9, SHTypeDirect), vlkStatusOk);
    EXPECT_EQ(ctx->maxOrder, 9);
    EXPECT_EQ(ctx->shType, 0);
    EXPECT_EQ(block[1], 0u);
    EXPECT_EQ(block[2], ~0ull) << "a direct block holds no coefB";
    EXPECT_EQ(vlkrSHInit_32f(ctx, 16, SHTypeDirect), vlkStatusSize);
    EXPECT_EQ(vlkrSHInit_32f(ctx, 3, 7), vlkStatusAlgType);
}

// Orders whose block would not fit an int are refused, up to the largest int, where the
// band count and the table bytes once overflowed on the way.
TEST(SHState, OrdersBeyondAnIntSizedBlockAreRefused)
{
    for (int maxL : {23169, 46340, 65535, 2147483646, 2147483647}) {
        int size = -1;
        EXPECT_EQ(vlkrSHGetSize_32f(maxL, SHTypeRecurrence, &size), vlkStatusSize) << maxL;
        EXPECT_EQ(size, -1) << maxL;
        std::uint64_t block[4] = {~0ull, ~0ull, ~0ull, ~0ull};
        EXPECT_EQ(vlkrSHInit_32f(reinterpret_cast<SHContext*>(block), maxL, SHTypeRecurrence),
                  vlkStatusSize)
            << maxL;
        EXPECT_EQ(block[0], ~0ull) << maxL;
    }
    int size = -1;
    EXPECT_EQ(vlkrSHGetSize_32f(23168, SHTypeRecurrence, &size), vlkStatusOk);
    EXPECT_EQ(size, 2147302976);  // n = 268,412,865 floats a table
}

TEST(SHState, RecurrenceTablesAreAlignedZeroFilledAndExact)
{
    for (int maxL : {0, 1, 2, 7, 15, 20}) {
        State s(maxL, SHTypeRecurrence);
        const float *A = s.ctx->coefA, *B = s.ctx->coefB;
        const std::size_t n = std::size_t(maxL + 1) * (maxL + 2) / 2;
        const auto base = reinterpret_cast<std::uintptr_t>(s.ctx);
        const auto a = reinterpret_cast<std::uintptr_t>(A), b = reinterpret_cast<std::uintptr_t>(B);
        EXPECT_EQ(a, (base + 24 + 15) & ~std::uintptr_t(15));
        EXPECT_EQ(b, (a + 4 * n + 15) & ~std::uintptr_t(15));
        EXPECT_LE(b + 4 * n, base + s.size);
        EXPECT_EQ(bitsOf(A[0]), 0x3E906EBBu);
        EXPECT_EQ(bitsOf(A[1]), 0x3EFA2A1Du);
        EXPECT_EQ(bitsOf(A[2]), 0xBEFA2A1Du);
        // Padding between and after the tables reads as zero.
        for (auto p = a + 4 * std::max<std::size_t>(n, 3); p < b; p += 4)
            EXPECT_EQ(*reinterpret_cast<const std::uint32_t*>(p), 0u);
        for (int i = 0; i < 3 && std::size_t(i) < n; ++i) EXPECT_EQ(bitsOf(B[i]), 0u);
        for (int l = 2; l <= maxL; ++l) {
            const float *ar = A + l * (l + 1) / 2, *br = B + l * (l + 1) / 2;
            EXPECT_EQ(ar[0], float(std::sqrt(double(4 * l * l - 1)) / l)) << l;
            EXPECT_EQ(ar[l - 1], float(std::sqrt(double(2 * l + 1))));
            EXPECT_EQ(ar[l], float(-std::sqrt((2.0 * l + 1) / (2.0 * l))));
            const double b0 = std::sqrt(double(float(2 * l + 1) / float(2 * l - 3)));
            EXPECT_EQ(br[0], float((1.0 / l - 1.0) * b0));
            for (int m = 1; m <= l - 2; ++m) {
                EXPECT_EQ(ar[m], std::sqrt(float(4 * l * l - 1) / float(l * l - m * m))) << l;
                const float q = float((2 * l + 1) * ((l - 1) * (l - 1) - m * m)) /
                                float((2 * l - 3) * (l * l - m * m));
                EXPECT_EQ(br[m], float(-std::sqrt(double(q)))) << l << " " << m;
            }
            EXPECT_EQ(bitsOf(br[l - 1]), 0u);
            EXPECT_EQ(bitsOf(br[l]), 0u);
        }
    }
}

// ------------------------------------------------------------------ evaluation

// The recurrence with the block's own tables, written out in the defining operand order.
void recurrenceByHand(float x, float y, float z, int L, const SHContext& s, float* out)
{
    const float *A = s.coefA, *B = s.coefB;
    out[0] = A[0];
    if (L == 0) return;
    out[1] = A[2] * y, out[2] = A[1] * z, out[3] = A[2] * x;
    for (int l = 2; l <= L; ++l) {
        const float *a = A + l * (l + 1) / 2, *b = B + l * (l + 1) / 2;
        auto P = [&](int m) { return out[(l - 1) * (l - 1) + (l - 1) + m]; };
        auto Q = [&](int m) { return out[(l - 2) * (l - 2) + (l - 2) + m]; };
        auto R = [&](int m) -> float& { return out[l * l + l + m]; };
        const float C = P(l - 1), S = P(-(l - 1));
        R(l) = (x * C - y * S) * a[l];
        R(-l) = (y * C + x * S) * a[l];
        R(l - 1) = a[l - 1] * z * C;
        R(-(l - 1)) = a[l - 1] * z * S;
        for (int m = 2 - l; m <= l - 2; ++m)
            R(m) = a[std::abs(m)] * z * P(m) + b[std::abs(m)] * Q(m);
    }
}

TEST(SHBasis, OracleOperandOrderAndBandSlices)
{
    // Both methods against the oracle: the direct one to float rounding, the recurrence, whose
    // rounding grows from band to band, to 2e-7 per band. The recurrence follows its operand
    // order bit for bit at every order, and each band alone is bit for bit its slice of the
    // direct method.
    const Directions d = directions(401, 7);  // not a multiple of four
    State direct(15, SHTypeDirect), rec(15, SHTypeRecurrence);
    const std::vector<float> got[2] = {evaluate(d, 15, direct.ctx), evaluate(d, 15, rec.ctx)};
    for (int i = 0; i < d.size(); ++i) {
        const auto want = vlkr::reference::realHarmonics(d.x[i], d.y[i], d.z[i], 15);
        for (int k = 0; k < 256; ++k) {
            ASSERT_NEAR(got[0][i * 256 + k], want[k], 1.2e-7) << "direct, " << i << ", " << k;
            ASSERT_NEAR(got[1][i * 256 + k], want[k], (int(std::sqrt(k)) + 1) * 2e-7)
                << "recurrence, direction " << i << ", " << k;
        }
    }
    for (int L = 0; L <= 15; ++L) {
        const auto out = evaluate(d, L, rec.ctx);
        const int count = (L + 1) * (L + 1);
        std::vector<float> want(count), band(d.size() * (2 * L + 1));
        ASSERT_EQ(vlkrSHBand_32f(d.x.data(), d.y.data(), d.z.data(), d.size(), band.data(), L),
                  vlkStatusOk);
        for (int i = 0; i < d.size(); ++i) {
            recurrenceByHand(d.x[i], d.y[i], d.z[i], L, *rec.ctx, want.data());
            for (int k = 0; k < count; ++k)
                ASSERT_EQ(bitsOf(out[i * count + k]), bitsOf(want[k])) << L << " " << i << " " << k;
            for (int m = 0; m <= 2 * L; ++m)
                ASSERT_EQ(bitsOf(band[i * (2 * L + 1) + m]), bitsOf(got[0][i * 256 + L * L + m]));
        }
    }
}

TEST(SHChecks, OrderOfChecksAndNothingWritten)
{
    State rec(20, SHTypeRecurrence), small(3, SHTypeRecurrence), direct(3, SHTypeDirect);
    const float v[2] = {0, 1};
    float out[300];
    std::fill(out, out + 300, 7.0f);
    EXPECT_EQ(vlkrSH_32f(nullptr, v, v, 1, out, 1, rec.ctx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSH_32f(v, v, v, 1, out, 1, nullptr), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSH_32f(v, v, v, 0, out, 99, rec.ctx), vlkStatusSize) << "count before order";
    EXPECT_EQ(vlkrSH_32f(v, v, v, 1, out, 16, rec.ctx), vlkStatusAlgType);
    EXPECT_EQ(vlkrSH_32f(v, v, v, 1, out, 4, direct.ctx), vlkStatusAlgType);
    EXPECT_EQ(vlkrSH_32f(v, v, v, 1, out, -1, rec.ctx), vlkStatusAlgType) << "unsigned order";
    EXPECT_EQ(vlkrSH_32f(v, v, v, -1, out, 3, rec.ctx), vlkStatusOk);
    EXPECT_EQ(vlkrSH_32f(v, v, v, -1, out, 99, rec.ctx), vlkStatusOk) << "a negative count first";
    EXPECT_EQ(vlkrSHBand_32f(v, v, v, 0, out, 16), vlkStatusAlgType) << "band before count";
    EXPECT_EQ(vlkrSHBand_32f(v, v, v, 0, out, 15), vlkStatusSize);
    EXPECT_EQ(vlkrSHBand_32f(v, v, v, -3, out, 15), vlkStatusOk);
    EXPECT_EQ(vlkrSHBand_32f(v, nullptr, v, 1, out, 15), vlkStatusNullPtr);

    // The transforms: a null channel anywhere, then count, then order.
    float c0[16], c1[16], c2[16];
    std::fill(c0, c0 + 16, 7.0f);
    float* coeffs[3] = {c0, c1, nullptr};
    const float* in[3] = {c0, c1, c2};
    float* dst[3] = {out, out + 2, nullptr};
    EXPECT_EQ(vlkrSHTFwd_32f_C3P3I(v, v, v, v, 2, coeffs, 3, small.ctx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSHTFwd_32f_P3I(v, v, v, in, 2, coeffs, 3, small.ctx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSHTInv_32f_P3(in, 3, v, v, v, dst, 2, small.ctx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSHTFwd_32f_C1I(v, v, v, v, 0, c0, 99, small.ctx), vlkStatusSize);
    EXPECT_EQ(vlkrSHTFwd_32f_C1I(v, v, v, v, -1, c0, 4, small.ctx), vlkStatusAlgType);
    EXPECT_EQ(vlkrSHTFwd_32f_C1I(v, v, v, v, -1, c0, 3, small.ctx), vlkStatusOk);
    EXPECT_EQ(vlkrSHTInv_32f_C1(c0, 3, v, v, v, out, -1, small.ctx), vlkStatusOk);
    EXPECT_EQ(vlkrSHTInv_32f_C1(c0, 16, v, v, v, out, 1, rec.ctx), vlkStatusAlgType)
        << "band 15 at most";
    for (float f : c0) EXPECT_EQ(f, 7.0f);
    for (float f : out) ASSERT_EQ(f, 7.0f);

    // Every pointer, the arrays of three and each of their entries, is checked before the
    // count and the order: with any one of them null the call is refused although N is 0 and L
    // is 99. With none null, the count (the band for vlkrSHBand_32f) decides.
    using Call = vlkStatus (*)(Holes&, int n, int L, const SHContext*);
    const std::pair<Call, vlkStatus> calls[] = {
        {[](Holes& h, int n, int L, const SHContext* ctx) {
             float o[1];
             return vlkrSH_32f(h(kV), h(kV), h(kV), n, h(o), L, h(ctx));
         },
         vlkStatusSize},
        {[](Holes& h, int n, int L, const SHContext*) {
             float o[1];
             return vlkrSHBand_32f(h(kV), h(kV), h(kV), n, h(o), L);
         },
         vlkStatusAlgType},
        {[](Holes& h, int n, int L, const SHContext* ctx) {
             float c[1];
             return vlkrSHTFwd_32f_C1I(h(kV), h(kV), h(kV), h(kV), n, h(c), L, h(ctx));
         },
         vlkStatusSize},
        {[](Holes& h, int n, int L, const SHContext* ctx) {
             float c[3][1], *p[3] = {c[0], c[1], c[2]}, *q[3];
             return vlkrSHTFwd_32f_C3P3I(h(kV), h(kV), h(kV), h(kV), n, h.three(p, q), L, h(ctx));
         },
         vlkStatusSize},
        {[](Holes& h, int n, int L, const SHContext* ctx) {
             float c[3][1], *p[3] = {c[0], c[1], c[2]}, *q[3];
             const float *s[3] = {kV, kV, kV}, *t[3];
             return vlkrSHTFwd_32f_P3I(h(kV), h(kV), h(kV), h.three(s, t), n, h.three(p, q), L,
                                       h(ctx));
         },
         vlkStatusSize},
        {[](Holes& h, int n, int L, const SHContext* ctx) {
             float o[1];
             return vlkrSHTInv_32f_C1(h(kV), L, h(kV), h(kV), h(kV), h(o), n, h(ctx));
         },
         vlkStatusSize},
        {[](Holes& h, int n, int L, const SHContext* ctx) {
             float o[3][1], *p[3] = {o[0], o[1], o[2]}, *q[3];
             const float *s[3] = {kV, kV, kV}, *t[3];
             return vlkrSHTInv_32f_P3(h.three(s, t), L, h(kV), h(kV), h(kV), h.three(p, q), n,
                                      h(ctx));
         },
         vlkStatusSize},
        {[](Holes& h, int n, int L, const SHContext* ctx) {
             float o[3];
             const float *s[3] = {kV, kV, kV}, *t[3];
             return vlkrSHTInv_32f_P3C3(h.three(s, t), L, h(kV), h(kV), h(kV), h(o), n, h(ctx));
         },
         vlkStatusSize},
    };
    for (std::size_t k = 0; k < std::size(calls); ++k) {
        for (int hole = 0;; ++hole) {
            Holes h{hole};
            const vlkStatus got = calls[k].first(h, 0, 99, small.ctx);
            if (hole == h.slot) {
                EXPECT_EQ(got, calls[k].second) << "operation " << k << ", no null";
                break;
            }
            EXPECT_EQ(got, vlkStatusNullPtr) << "operation " << k << ", pointer " << hole;
        }
        if (k < 2) continue;
        // The transforms: the order before a negative count, which is nothing to do.
        Holes none{-1};
        EXPECT_EQ(calls[k].first(none, -1, 4, small.ctx), vlkStatusAlgType) << k;
        EXPECT_EQ(calls[k].first(none, -1, 3, small.ctx), vlkStatusOk) << k;
    }

    // A block of neither kind is refused by the evaluation.
    State odd(3, SHTypeDirect);
    odd.ctx->shType = 2;
    EXPECT_EQ(vlkrSH_32f(v, v, v, 1, out, 1, odd.ctx), vlkStatusAlgType);
    for (float f : out) ASSERT_EQ(f, 7.0f);

    EXPECT_EQ(vlkrSH_32f(v, v, v, 1, out, 0, rec.ctx), vlkStatusOk);
    EXPECT_EQ(bitsOf(out[0]), 0x3E906EBBu);
    EXPECT_EQ(out[1], 7.0f) << "band 0 writes one float";
    EXPECT_EQ(vlkrSH_32f(v, v, v, 1, out, 15, rec.ctx), vlkStatusOk);
    const float zeros[16] = {};
    EXPECT_EQ(vlkrSHTInv_32f_C1(zeros, 3, v, v, v, out, 2, small.ctx), vlkStatusOk);
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_EQ(out[1], 0.0f);
}

// ------------------------------------------------------------------ transforms

TEST(SHTransform, EveryFormAgainstTheBasisInItsStatedOrder)
{
    // Forward: each sample in order adds basis * value into the coefficients. Inverse: eight
    // interleaved partial sums combined pairwise. The three-channel forms give each channel
    // what the one-channel form gives it. Both counts leave a tail of several coefficients.
    const Directions d = directions(77, 11);
    const float *x = d.x.data(), *y = d.y.data(), *z = d.z.data();
    const int n = d.size();
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> val(-2, 2);
    for (const auto& [type, L] : {std::pair{SHTypeRecurrence, 5}, {SHTypeDirect, 9}}) {
        const State s(L, type);
        const int count = (L + 1) * (L + 1);
        const std::vector<float> basis = evaluate(d, L, s.ctx);
        std::vector<float> planes[3], single[3], viaC3[3], viaP3[3], back[3], interleaved(3 * n);
        float *c3[3], *p3[3], *dst[3];
        const float *src[3], *coeffs[3];
        for (int c = 0; c < 3; ++c) {
            planes[c].resize(n), back[c].resize(n);
            for (int i = 0; i < n; ++i) interleaved[3 * i + c] = planes[c][i] = val(rng);
            single[c].assign(count, 0.5f), viaC3[c] = viaP3[c] = single[c];
            std::vector<float> want = single[c];
            for (int i = 0; i < n; ++i)
                for (int k = 0; k < count; ++k) want[k] = want[k] + basis[i * count + k] * planes[c][i];
            ASSERT_EQ(vlkrSHTFwd_32f_C1I(x, y, z, planes[c].data(), n, single[c].data(), L, s.ctx),
                      vlkStatusOk);
            for (int k = 0; k < count; ++k) ASSERT_EQ(bitsOf(single[c][k]), bitsOf(want[k])) << k;
            c3[c] = viaC3[c].data(), p3[c] = viaP3[c].data(), dst[c] = back[c].data();
            src[c] = planes[c].data(), coeffs[c] = single[c].data();
        }
        ASSERT_EQ(vlkrSHTFwd_32f_C3P3I(x, y, z, interleaved.data(), n, c3, L, s.ctx), vlkStatusOk);
        ASSERT_EQ(vlkrSHTFwd_32f_P3I(x, y, z, src, n, p3, L, s.ctx), vlkStatusOk);
        ASSERT_EQ(vlkrSHTInv_32f_P3(coeffs, L, x, y, z, dst, n, s.ctx), vlkStatusOk);
        ASSERT_EQ(vlkrSHTInv_32f_P3C3(coeffs, L, x, y, z, interleaved.data(), n, s.ctx), vlkStatusOk);
        std::vector<float> one(n);
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(viaC3[c], single[c]);
            EXPECT_EQ(viaP3[c], single[c]);
            ASSERT_EQ(vlkrSHTInv_32f_C1(coeffs[c], L, x, y, z, one.data(), n, s.ctx), vlkStatusOk);
            for (int i = 0; i < n; ++i) {
                float part[8] = {};
                for (int k = 0; k < count; ++k)
                    part[k % 8] = part[k % 8] + basis[i * count + k] * coeffs[c][k];
                const float want = ((part[0] + part[4]) + (part[1] + part[5])) +
                                   ((part[2] + part[6]) + (part[3] + part[7]));
                EXPECT_EQ(bitsOf(one[i]), bitsOf(want)) << L << " " << i;
                EXPECT_EQ(bitsOf(back[c][i]), bitsOf(one[i]));
                EXPECT_EQ(bitsOf(interleaved[3 * i + c]), bitsOf(one[i]));
            }
        }
    }
}

TEST(SHTransform, ValuesOfExactlyZeroAndOneAreNoMultiplication)
{
    // A direction with NaN or an infinite component has a NaN basis. A sample value of exactly
    // 0 adds zeros for it, so the coefficients stay as they were; exactly 1 adds the basis as
    // it is. Every forward form, both kinds of state.
    const float x[] = {NAN, INFINITY, 0.6f}, y[] = {0.0f, 0.0f, 0.0f}, z[] = {1.0f, 0.0f, 0.8f};
    for (const auto& [type, L] : {std::pair{SHTypeRecurrence, 3}, {SHTypeDirect, 3}}) {
        const State s(L, type);
        const int count = (L + 1) * (L + 1);
        const float zeros[3] = {0.0f, 0.0f, 0.0f}, interleaved[9] = {};
        std::vector<float> planes[3];
        float* out[3];
        for (auto& p : planes) p.assign(count, 0.25f);
        for (int c = 0; c < 3; ++c) out[c] = planes[c].data();
        const float* src[3] = {zeros, zeros, zeros};
        ASSERT_EQ(vlkrSHTFwd_32f_C1I(x, y, z, zeros, 2, out[0], L, s.ctx), vlkStatusOk);
        ASSERT_EQ(vlkrSHTFwd_32f_C3P3I(x, y, z, interleaved, 2, out, L, s.ctx), vlkStatusOk);
        ASSERT_EQ(vlkrSHTFwd_32f_P3I(x, y, z, src, 2, out, L, s.ctx), vlkStatusOk);
        for (int c = 0; c < 3; ++c)
            for (int k = 0; k < count; ++k) ASSERT_EQ(planes[c][k], 0.25f) << type << " " << k;

        // Exactly 1 on the finite direction adds its basis bit for bit.
        const float one[1] = {1.0f};
        std::vector<float> basis(count), coeffs(count, -0.0f);  // -0 + b is b, bit for bit
        ASSERT_EQ(vlkrSH_32f(x + 2, y + 2, z + 2, 1, basis.data(), L, s.ctx), vlkStatusOk);
        ASSERT_EQ(vlkrSHTFwd_32f_C1I(x + 2, y + 2, z + 2, one, 1, coeffs.data(), L, s.ctx),
                  vlkStatusOk);
        for (int k = 0; k < count; ++k) EXPECT_EQ(bitsOf(coeffs[k]), bitsOf(basis[k])) << k;
    }
}

}  // namespace
