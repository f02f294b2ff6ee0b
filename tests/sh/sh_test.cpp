// Spherical harmonics: state block layout and tables, both evaluation methods against a
// double-precision oracle, band slices, check order, and the transforms.
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
using vlkr::test::floatOf;

// A state block in 16-byte-aligned storage, sized by the library.
struct State {
    std::vector<std::uint64_t> storage;
    SHContext* ctx = nullptr;
    int size = 0;
    State(int maxL, int type)
    {
        EXPECT_EQ(vlkrSHGetSize_32f(maxL, type, &size), vlkStatusOk);
        storage.assign(size / 8 + 4, 0xABABABABABABABABull);
        ctx = reinterpret_cast<SHContext*>(
            (reinterpret_cast<std::uintptr_t>(storage.data()) + 15) & ~std::uintptr_t(15));
        EXPECT_EQ(vlkrSHInit_32f(ctx, maxL, type), vlkStatusOk);
    }
};

struct Directions {
    std::vector<float> x, y, z;
    std::size_t size() const { return x.size(); }
};

// Random unit directions plus the poles, the axes and a few diagonals.
Directions directions(int count, unsigned seed)
{
    Directions d;
    const float fixed[][3] = {{0, 0, 1}, {0, 0, -1}, {1, 0, 0}, {-1, 0, 0}, {0, 1, 0},
                              {0, -1, 0}, {0.6f, 0.8f, 0}, {0, 0.6f, -0.8f}};
    for (const auto& f : fixed) d.x.push_back(f[0]), d.y.push_back(f[1]), d.z.push_back(f[2]);
    std::mt19937 rng(seed);
    std::normal_distribution<double> g;
    while (int(d.size()) < count) {
        const double v[3] = {g(rng), g(rng), g(rng)};
        const double n = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        d.x.push_back(float(v[0] / n)), d.y.push_back(float(v[1] / n)), d.z.push_back(float(v[2] / n));
    }
    return d;
}

std::vector<float> evaluate(const Directions& d, int L, const SHContext* ctx)
{
    std::vector<float> out(d.size() * (L + 1) * (L + 1));
    EXPECT_EQ(vlkrSH_32f(d.x.data(), d.y.data(), d.z.data(), int(d.size()), out.data(), L, ctx),
              vlkStatusOk);
    return out;
}

// ------------------------------------------------------------------ state block

TEST(SHState, SizesOfBothKinds)
{
    int size = -1;
    const struct {
        int maxL, type, want;
        vlkStatus status;
    } rows[] = {{15, 0, 16, vlkStatusOk},  {0, 0, 16, vlkStatusOk},   {15, 1, 1120, vlkStatusOk},
                {0, 1, 64, vlkStatusOk},   {1, 1, 64, vlkStatusOk},   {20, 1, 1888, vlkStatusOk},
                {16, 0, -1, vlkStatusSize}, {-1, 0, -1, vlkStatusSize}, {-1, 1, -1, vlkStatusSize},
                {3, 2, -1, vlkStatusAlgType}, {3, -1, -1, vlkStatusAlgType}};
    for (const auto& r : rows) {
        size = -1;
        EXPECT_EQ(vlkrSHGetSize_32f(r.maxL, r.type, &size), r.status) << r.maxL << " " << r.type;
        EXPECT_EQ(size, r.want) << r.maxL << " " << r.type;
    }
    EXPECT_EQ(vlkrSHGetSize_32f(3, 1, nullptr), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSHInit_32f(nullptr, 3, 1), vlkStatusNullPtr);
}

TEST(SHState, DirectBlockIsSixteenBytes)
{
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

TEST(SHState, RecurrenceTablesAreAlignedZeroFilledAndExact)
{
    for (int maxL : {0, 1, 2, 7, 15, 20}) {
        State s(maxL, SHTypeRecurrence);
        const auto base = reinterpret_cast<std::uintptr_t>(s.ctx);
        const std::size_t n = std::size_t(maxL + 1) * (maxL + 2) / 2;
        const auto a = reinterpret_cast<std::uintptr_t>(s.ctx->coefA);
        const auto b = reinterpret_cast<std::uintptr_t>(s.ctx->coefB);
        EXPECT_EQ(a, (base + 24 + 15) & ~std::uintptr_t(15));
        EXPECT_EQ(b, (a + 4 * n + 15) & ~std::uintptr_t(15));
        EXPECT_LE(b + 4 * n, base + s.size);
        const float* A = s.ctx->coefA;
        const float* B = s.ctx->coefB;
        EXPECT_EQ(bitsOf(A[0]), 0x3E906EBBu);
        EXPECT_EQ(bitsOf(A[1]), 0x3EFA2A1Du);
        EXPECT_EQ(bitsOf(A[2]), 0xBEFA2A1Du);
        // Padding between and after the tables reads as zero.
        for (auto p = a + 4 * std::max<std::size_t>(n, 3); p < b; p += 4)
            EXPECT_EQ(*reinterpret_cast<const std::uint32_t*>(p), 0u);
        for (int i = 0; i < 3 && std::size_t(i) < n; ++i) EXPECT_EQ(bitsOf(B[i]), 0u);
        for (int l = 2; l <= maxL; ++l) {
            const float* ar = A + l * (l + 1) / 2;
            const float* br = B + l * (l + 1) / 2;
            EXPECT_EQ(ar[0], float(std::sqrt(double(4 * l * l - 1)) / l)) << l;
            for (int m = 1; m <= l - 2; ++m)
                EXPECT_EQ(ar[m], std::sqrt(float(4 * l * l - 1) / float(l * l - m * m))) << l;
            EXPECT_EQ(ar[l - 1], float(std::sqrt(double(2 * l + 1))));
            EXPECT_EQ(ar[l], float(-std::sqrt((2.0 * l + 1) / (2.0 * l))));
            EXPECT_EQ(br[0], float((1.0 / l - 1.0) * std::sqrt(double(float(2 * l + 1) / float(2 * l - 3)))));
            for (int m = 1; m <= l - 2; ++m) {
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

TEST(SHBasis, BothMethodsMatchTheOracleInEveryBand)
{
    const Directions d = directions(400, 7);
    State direct(15, SHTypeDirect), rec(15, SHTypeRecurrence);
    const auto a = evaluate(d, 15, direct.ctx);
    const auto b = evaluate(d, 15, rec.ctx);
    double worst[2][16] = {};
    for (std::size_t i = 0; i < d.size(); ++i) {
        const auto want = vlkr::reference::realHarmonics(d.x[i], d.y[i], d.z[i], 15);
        for (int k = 0; k < 256; ++k) {
            const int l = int(std::sqrt(double(k)));
            worst[0][l] = std::max(worst[0][l], std::fabs(a[i * 256 + k] - want[k]));
            worst[1][l] = std::max(worst[1][l], std::fabs(b[i * 256 + k] - want[k]));
        }
    }
    for (int l = 0; l < 16; ++l) {
        // The oracle normalises; the methods take the float direction as given, whose length
        // is 1 only to float rounding, which band 15 magnifies to a few 1e-6.
        EXPECT_LT(worst[0][l], 4e-6) << "direct, band " << l;
        EXPECT_LT(worst[1][l], 1e-5) << "recurrence, band " << l;
    }
    for (int l = 0; l < 16; ++l)
        std::printf("band %2d: max error direct %.2e, recurrence %.2e\n", l, worst[0][l], worst[1][l]);
}

TEST(SHBasis, FirstBandsHaveTheirExactForms)
{
    const Directions d = directions(200, 8);
    State s(2, SHTypeDirect);
    const auto out = evaluate(d, 2, s.ctx);
    for (std::size_t i = 0; i < d.size(); ++i) {
        const double x = d.x[i], y = d.y[i], z = d.z[i];
        const float z2 = d.z[i] * d.z[i], x2y2 = d.x[i] * d.x[i] - d.y[i] * d.y[i];
        const float want[9] = {floatOf(0x3E906EBBu),
                               float(-0.4886025119029199 * y),
                               float(0.4886025119029199 * z),
                               float(-0.4886025119029199 * x),
                               float(1.0925484305920792 * x * y),
                               float(-1.0925484305920792 * y * z),
                               float(0.31539156525252005 * (3.0 * z2 - 1.0)),
                               float(-1.0925484305920792 * x * z),
                               float(0.5462742152960396 * x2y2)};
        for (int k = 0; k < 9; ++k) EXPECT_NEAR(out[i * 9 + k], want[k], 1.2e-7) << i << " " << k;
        EXPECT_EQ(bitsOf(out[i * 9]), 0x3E906EBBu);
    }
}

// The recurrence with the block's own tables, written out in the defining operand order.
void recurrenceByHand(float x, float y, float z, int L, const SHContext& s, float* out)
{
    const float* A = s.coefA;
    const float* B = s.coefB;
    out[0] = A[0];
    if (L == 0) return;
    out[1] = A[2] * y, out[2] = A[1] * z, out[3] = A[2] * x;
    for (int l = 2; l <= L; ++l) {
        const float* a = A + l * (l + 1) / 2;
        const float* b = B + l * (l + 1) / 2;
        auto P = [&](int m) { return out[(l - 1) * (l - 1) + (l - 1) + m]; };
        auto Q = [&](int m) { return out[(l - 2) * (l - 2) + (l - 2) + m]; };
        auto R = [&](int m) -> float& { return out[l * l + l + m]; };
        const float C = P(l - 1), S = P(-(l - 1));
        R(l) = (x * C - y * S) * a[l];
        R(-l) = (y * C + x * S) * a[l];
        R(l - 1) = a[l - 1] * z * C;
        R(-(l - 1)) = a[l - 1] * z * S;
        R(0) = a[0] * z * P(0) + b[0] * Q(0);
        for (int k = 1; k <= l - 2; ++k) {
            R(k) = a[k] * z * P(k) + b[k] * Q(k);
            R(-k) = a[k] * z * P(-k) + b[k] * Q(-k);
        }
    }
}

TEST(SHBasis, RecurrenceFollowsItsOperandOrderBitForBit)
{
    const Directions d = directions(301, 9);  // not a multiple of four
    State s(15, SHTypeRecurrence);
    for (int L : {0, 1, 2, 7, 15}) {
        const auto out = evaluate(d, L, s.ctx);
        const int count = (L + 1) * (L + 1);
        std::vector<float> want(count);
        for (std::size_t i = 0; i < d.size(); ++i) {
            recurrenceByHand(d.x[i], d.y[i], d.z[i], L, *s.ctx, want.data());
            for (int k = 0; k < count; ++k)
                ASSERT_EQ(bitsOf(out[i * count + k]), bitsOf(want[k])) << L << " " << i << " " << k;
        }
    }
}

TEST(SHBasis, MethodsAgreeAndBandsEqualTheirSlices)
{
    const Directions d = directions(100, 10);
    State direct(15, SHTypeDirect), rec(15, SHTypeRecurrence);
    const auto a = evaluate(d, 15, direct.ctx);
    const auto b = evaluate(d, 15, rec.ctx);
    for (std::size_t k = 0; k < a.size(); ++k) EXPECT_NEAR(a[k], b[k], 2e-5) << k;
    for (int L = 0; L <= 15; ++L) {
        std::vector<float> band(d.size() * (2 * L + 1));
        ASSERT_EQ(vlkrSHBand_32f(d.x.data(), d.y.data(), d.z.data(), int(d.size()), band.data(), L),
                  vlkStatusOk);
        for (std::size_t i = 0; i < d.size(); ++i)
            for (int m = 0; m <= 2 * L; ++m)
                ASSERT_EQ(bitsOf(band[i * (2 * L + 1) + m]), bitsOf(a[i * 256 + L * L + m]));
    }
    const float y[1] = {1}, zero[1] = {0};
    float out[4];
    ASSERT_EQ(vlkrSH_32f(zero, y, zero, 1, out, 1, rec.ctx), vlkStatusOk);
    EXPECT_EQ(bitsOf(out[1]), 0xBEFA2A1Du);
}

TEST(SHChecks, OrderOfChecks)
{
    State rec(20, SHTypeRecurrence), direct(3, SHTypeDirect);
    const float v[1] = {0};
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
    for (float f : out) ASSERT_EQ(f, 7.0f);
    EXPECT_EQ(vlkrSH_32f(v, v, v, 1, out, 0, rec.ctx), vlkStatusOk);
    EXPECT_EQ(bitsOf(out[0]), 0x3E906EBBu);
    EXPECT_EQ(out[1], 7.0f) << "band 0 writes one float";
    EXPECT_EQ(vlkrSH_32f(v, v, v, 1, out, 15, rec.ctx), vlkStatusOk);
}

// ------------------------------------------------------------------ transforms

TEST(SHTransform, ForwardAccumulatesAndScalesExactly)
{
    State s(1, SHTypeDirect);
    const float x[1] = {0}, y[1] = {0}, z[1] = {1}, one[1] = {1}, zero[1] = {0};
    float coeffs[4] = {0, 0, 0, 0};
    ASSERT_EQ(vlkrSHTFwd_32f_C1I(x, y, z, one, 1, coeffs, 1, s.ctx), vlkStatusOk);
    EXPECT_EQ(bitsOf(coeffs[0]), 0x3E906EBBu);
    EXPECT_EQ(coeffs[1], 0.0f);
    EXPECT_EQ(coeffs[2], float(0.4886025119029199));
    EXPECT_EQ(coeffs[3], 0.0f);
    ASSERT_EQ(vlkrSHTFwd_32f_C1I(x, y, z, one, 1, coeffs, 1, s.ctx), vlkStatusOk);
    EXPECT_EQ(coeffs[0], 2 * floatOf(0x3E906EBBu));
    ASSERT_EQ(vlkrSHTFwd_32f_C1I(x, y, z, zero, 1, coeffs, 1, s.ctx), vlkStatusOk);
    EXPECT_EQ(coeffs[0], 2 * floatOf(0x3E906EBBu));
}

TEST(SHTransform, ThreeChannelFormsEqualThreeSingleCalls)
{
    const Directions d = directions(77, 11);
    State s(7, SHTypeRecurrence);
    const int n = int(d.size()), count = 64;
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> val(-2, 2);
    std::vector<float> planes[3], interleaved(3 * n);
    for (int c = 0; c < 3; ++c) {
        planes[c].resize(n);
        for (int i = 0; i < n; ++i) interleaved[3 * i + c] = planes[c][i] = val(rng);
    }
    std::vector<float> single[3], viaC3[3], viaP3[3];
    for (int c = 0; c < 3; ++c) {
        single[c].assign(count, 0.5f), viaC3[c].assign(count, 0.5f), viaP3[c].assign(count, 0.5f);
        vlkrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), planes[c].data(), n, single[c].data(),
                           7, s.ctx);
    }
    float* c3[3] = {viaC3[0].data(), viaC3[1].data(), viaC3[2].data()};
    float* p3[3] = {viaP3[0].data(), viaP3[1].data(), viaP3[2].data()};
    const float* src[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
    ASSERT_EQ(vlkrSHTFwd_32f_C3P3I(d.x.data(), d.y.data(), d.z.data(), interleaved.data(), n, c3, 7, s.ctx),
              vlkStatusOk);
    ASSERT_EQ(vlkrSHTFwd_32f_P3I(d.x.data(), d.y.data(), d.z.data(), src, n, p3, 7, s.ctx), vlkStatusOk);
    for (int c = 0; c < 3; ++c)
        for (int k = 0; k < count; ++k) {
            EXPECT_EQ(bitsOf(viaC3[c][k]), bitsOf(single[c][k]));
            EXPECT_EQ(bitsOf(viaP3[c][k]), bitsOf(single[c][k]));
        }

    // Inverse: the three-channel forms equal three one-channel calls.
    const float* coeffs[3] = {single[0].data(), single[1].data(), single[2].data()};
    std::vector<float> one(n), p[3], inter(3 * n);
    float* dst[3];
    for (int c = 0; c < 3; ++c) p[c].resize(n), dst[c] = p[c].data();
    ASSERT_EQ(vlkrSHTInv_32f_P3(coeffs, 7, d.x.data(), d.y.data(), d.z.data(), dst, n, s.ctx), vlkStatusOk);
    ASSERT_EQ(vlkrSHTInv_32f_P3C3(coeffs, 7, d.x.data(), d.y.data(), d.z.data(), inter.data(), n, s.ctx),
              vlkStatusOk);
    for (int c = 0; c < 3; ++c) {
        vlkrSHTInv_32f_C1(coeffs[c], 7, d.x.data(), d.y.data(), d.z.data(), one.data(), n, s.ctx);
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(bitsOf(p[c][i]), bitsOf(one[i]));
            EXPECT_EQ(bitsOf(inter[3 * i + c]), bitsOf(one[i]));
        }
    }
}

TEST(SHTransform, ChecksWriteNothing)
{
    State s(3, SHTypeRecurrence);
    const float v[2] = {0, 1};
    float c0[16], c1[16], c2[16], out[6];
    std::fill(c0, c0 + 16, 9.0f), std::fill(out, out + 6, 9.0f);
    float* coeffs[3] = {c0, c1, nullptr};
    const float* in[3] = {c0, c1, c2};
    float* dst[3] = {out, out + 2, nullptr};
    EXPECT_EQ(vlkrSHTFwd_32f_C3P3I(v, v, v, v, 2, coeffs, 3, s.ctx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSHTFwd_32f_P3I(v, v, v, in, 2, coeffs, 3, s.ctx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSHTInv_32f_P3(in, 3, v, v, v, dst, 2, s.ctx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSHTFwd_32f_C1I(v, v, v, v, 0, c0, 99, s.ctx), vlkStatusSize);
    EXPECT_EQ(vlkrSHTFwd_32f_C1I(v, v, v, v, -1, c0, 4, s.ctx), vlkStatusAlgType);
    EXPECT_EQ(vlkrSHTFwd_32f_C1I(v, v, v, v, -1, c0, 3, s.ctx), vlkStatusOk);
    EXPECT_EQ(vlkrSHTInv_32f_C1(c0, 3, v, v, v, out, -1, s.ctx), vlkStatusOk);
    State big(20, SHTypeRecurrence);
    EXPECT_EQ(vlkrSHTInv_32f_C1(c0, 16, v, v, v, out, 1, big.ctx), vlkStatusAlgType) << "band 15 at most";
    for (float f : c0) EXPECT_EQ(f, 9.0f);
    for (float f : out) EXPECT_EQ(f, 9.0f);
    const float zeros[16] = {};
    EXPECT_EQ(vlkrSHTInv_32f_C1(zeros, 3, v, v, v, out, 2, s.ctx), vlkStatusOk);
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_EQ(out[1], 0.0f);
}

// Gauss-Legendre nodes and weights on [-1, 1] by Newton's method on P_n.
void gaussLegendre(int n, std::vector<double>& nodes, std::vector<double>& weights)
{
    for (int i = 0; i < n; ++i) {
        double x = std::cos(M_PI * (i + 0.75) / (n + 0.5)), dp = 0;
        for (int iter = 0; iter < 100; ++iter) {
            double p0 = 1, p1 = x;
            for (int k = 2; k <= n; ++k) {
                const double p2 = ((2 * k - 1) * x * p1 - (k - 1) * p0) / k;
                p0 = p1, p1 = p2;
            }
            dp = n * (x * p1 - p0) / (x * x - 1);
            const double dx = p1 / dp;
            x -= dx;
            if (std::fabs(dx) < 1e-15) break;
        }
        nodes.push_back(x);
        weights.push_back(2 / ((1 - x * x) * dp * dp));
    }
}

TEST(SHTransform, RoundTripOfABandLimitedFunction)
{
    for (int type : {SHTypeDirect, SHTypeRecurrence}) {
        for (int L : {4, 7, 15}) {
            State s(15, type);
            const int count = (L + 1) * (L + 1);
            std::mt19937 rng(L);
            std::uniform_real_distribution<float> val(-1, 1);
            std::vector<float> truth(count);
            for (float& c : truth) c = val(rng);
            // Samples on a Gauss-Legendre x uniform-longitude grid, weighted for exact
            // quadrature of products up to degree 2L.
            std::vector<double> nodes, weights;
            gaussLegendre(L + 1, nodes, weights);
            const int lon = 2 * L + 2;
            Directions d;
            std::vector<float> w;
            for (int i = 0; i <= L; ++i)
                for (int j = 0; j < lon; ++j) {
                    const double z = nodes[i], r = std::sqrt(1 - z * z), phi = 2 * M_PI * j / lon;
                    d.x.push_back(float(r * std::cos(phi))), d.y.push_back(float(r * std::sin(phi)));
                    d.z.push_back(float(z));
                    w.push_back(float(weights[i] * 2 * M_PI / lon));
                }
            const int n = int(d.size());
            std::vector<float> f(n), weighted(n), back(count, 0.0f);
            ASSERT_EQ(vlkrSHTInv_32f_C1(truth.data(), L, d.x.data(), d.y.data(), d.z.data(), f.data(), n,
                                        s.ctx),
                      vlkStatusOk);
            for (int i = 0; i < n; ++i) weighted[i] = f[i] * w[i];
            ASSERT_EQ(vlkrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), weighted.data(), n,
                                         back.data(), L, s.ctx),
                      vlkStatusOk);
            for (int k = 0; k < count; ++k) EXPECT_NEAR(back[k], truth[k], 1e-4) << type << " " << L << " " << k;
        }
    }
}

}  // namespace
