// Volume resize against a per-voxel double-precision reference: every voxel type, block and
// plane layouts and all six selectors, with canaries on every byte the library may not write.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "reference/resize_reference.h"
#include "volume_ops.h"

namespace {

using namespace vlkr::test;
namespace ref = vlkr::reference;

enum class Layout { Block, BottomUp, Planes };
const char* nameOf(Layout l)
{
    return l == Layout::Block ? "block" : l == Layout::BottomUp ? "bottom-up block" : "planes";
}
constexpr Layout kLayouts[] = {Layout::Block, Layout::BottomUp, Layout::Planes};

// A volume with random padding after rows and planes, and byte steps carrying up to
// sizeof(T) - 1 extra bytes, which the arithmetic shift to elements drops (for the negative
// steps of bottom-up blocks too, as it rounds down).
template <class T>
Grid<T> makeVolume(VolumeSize s, Layout l, std::mt19937& rng, unsigned char fill)
{
    const int slack = int(rng() % sizeof(T));
    if (l != Layout::Planes) return Grid<T>::block(s, rng, fill, slack, l == Layout::BottomUp);
    const int pitch = (s.width + int(rng() % 3)) * int(sizeof(T));
    return Grid<T>(s, pitch + slack, pitch, rng, fill);
}

// Dense source values, x fastest.
template <class T>
struct Voxels {
    VolumeSize size;
    std::vector<T> v;
    T at(int x, int y, int z) const
    {
        return v[(std::size_t(z) * size.height + y) * size.width + x];
    }
    double operator()(int x, int y, int z) const { return double(at(x, y, z)); }
};

template <class T>
Voxels<T> randomVoxels(VolumeSize s, std::mt19937& rng)
{
    Voxels<T> out{s, std::vector<T>(std::size_t(s.width) * s.height * s.depth)};
    for (T& x : out.v) x = randomVoxel<T>(rng);
    return out;
}

struct Geometry {
    VolumeSize vol;
    Cuboid src, dst;
    double factor[3], shift[3];
};

std::string describe(const Geometry& g, int selector, Layout layout)
{
    std::ostringstream os;
    print(os << "volume ", g.vol);
    print(os << " src ", g.src);
    print(os << " dst ", g.dst) << " factor " << g.factor[0] << "," << g.factor[1] << ","
                                << g.factor[2] << " shift " << g.shift[0] << "," << g.shift[1]
                                << "," << g.shift[2] << " selector " << selector << " layout "
                                << nameOf(layout);
    return os.str();
}

template <class T>
vlkStatus resize(const Grid<T>& src, const Geometry& g, Grid<T>& dst, Layout layout, int selector,
                 unsigned char* buffer)
{
    const double *f = g.factor, *s = g.shift;
    if (layout == Layout::Planes) {
        const std::vector<const T*> in(src.planes.begin(), src.planes.end());
        return Ops<T>::planes(in.data(), &src.size, src.step, &g.src, dst.planes.data(), dst.step,
                              &g.dst, f[0], f[1], f[2], s[0], s[1], s[2], selector, buffer);
    }
    return Ops<T>::block(src.planes[0], &src.size, src.step, src.planeStep, &g.src, dst.planes[0],
                         dst.step, dst.planeStep, &g.dst, f[0], f[1], f[2], s[0], s[1], s[2],
                         selector, buffer);
}

// Resizes in one layout and checks the status, every written voxel against the reference, and
// that every other destination byte (padding included) kept its canary. Returns the written
// voxels, x fastest. Without a buffer, one of exactly the queried size is used.
template <class T>
std::vector<T> resizeAndCheck(const Voxels<T>& values, const Geometry& g, int selector,
                              Layout layout, std::mt19937& rng, unsigned char* buffer = nullptr)
{
    Grid<T> src = makeVolume<T>(g.vol, layout, rng, kPoison);
    for (int z = 0; z < g.vol.depth; ++z)
        for (int y = 0; y < g.vol.height; ++y)
            for (int x = 0; x < g.vol.width; ++x) src.set(x, y, z, values.at(x, y, z));
    const VolumeSize dstSize{g.dst.x + g.dst.width + 1, g.dst.y + g.dst.height + 1,
                             g.dst.z + g.dst.depth + 1};
    Grid<T> dst = makeVolume<T>(dstSize, layout, rng, kCanary);
    std::vector<unsigned char> own;
    if (!buffer) {
        int size = 0;
        EXPECT_EQ(vlkrResizeGetBufSize(&g.src, &g.dst, 1, selector, &size), vlkStatusOk);
        own.assign(std::size_t(size), 0xEE);
        buffer = own.data();
    }
    const ref::ResizeRegion r = ref::resizeRegion(g.vol, g.src, g.dst, g.factor, g.shift);
    EXPECT_EQ(resize(src, g, dst, layout, selector, buffer),
              r.empty() ? vlkStatusNoOperation : vlkStatusOk);

    std::vector<T> written;
    int bad = 0;
    double bias = 0;
    std::ostringstream first;
    for (int z = r.begin[2]; z < r.end[2]; ++z)
        for (int y = r.begin[1]; y < r.end[1]; ++y)
            for (int x = r.begin[0]; x < r.end[0]; ++x) {
                const int d[3] = {x, y, z};
                double magnitude = 0;
                const double want =
                    ref::resizeVoxel(values, g.vol, selector, d, g.factor, g.shift, &magnitude);
                const T got = dst.get(x, y, z);
                written.push_back(got);
                bias += double(got) - double(ref::resizeStore<T>(want));
                if (!agrees(got, want, magnitude, selector == vlkInterNearest) && bad++ == 0)
                    first << "(" << x << "," << y << "," << z << ") got " << +got << " want "
                          << want;
                dst.reset(x, y, z);
            }
    EXPECT_EQ(bad, 0) << "voxels off the reference, first " << first.str();
    // Integers round to nearest, so the one-step tolerance must not hide a bias.
    if (!std::is_same_v<T, float> && selector != vlkInterNearest && written.size() >= 200) {
        EXPECT_NEAR(bias / double(written.size()), 0.0, 0.25) << "integer results biased";
    }
    EXPECT_TRUE(dst.allBytes(kCanary)) << "a destination byte outside the written region changed";
    return written;
}

template <class T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b)
{
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// Runs every layout, checks each against the reference and all of them against each other.
template <class T>
void checkAllLayouts(const Voxels<T>& values, const Geometry& g, int selector, std::mt19937& rng)
{
    std::vector<T> first;
    for (Layout layout : kLayouts) {
        SCOPED_TRACE(describe(g, selector, layout));
        const std::vector<T> out = resizeAndCheck(values, g, selector, layout, rng);
        if (layout == kLayouts[0]) {
            first = out;
            continue;
        }
        EXPECT_TRUE(sameBits(out, first)) << "layouts differ bit for bit";
    }
}

template <class T>
class ResizeTyped : public ::testing::Test {
};
TYPED_TEST_SUITE(ResizeTyped, VoxelTypes, VoxelNames);

// ------------------------------------------------------------------ against the reference

const Geometry kCases[] = {
    // Upscaling of the whole volume, different factor per axis, into a roomy destination.
    {{7, 6, 5}, {0, 0, 0, 7, 6, 5}, {0, 0, 0, 40, 40, 40}, {1.7, 2.0, 3.1}, {0, 0, 0}},
    // Downscaling.
    {{12, 10, 9}, {0, 0, 0, 12, 10, 9}, {0, 0, 0, 12, 10, 9}, {0.45, 0.5, 0.5}, {0, 0, 0}},
    // Sub-cuboid with mixed shifts, some negative; taps reach outside the source cuboid.
    {{11, 9, 8}, {2, 1, 3, 6, 5, 4}, {0, 0, 0, 20, 20, 20}, {1.3, 0.8, 2.2}, {-1.25, 2.5, -3.7}},
    // Source cuboid reaching past the volume: trimmed to it.
    {{9, 7, 6}, {4, 3, 2, 20, 20, 20}, {1, 1, 1, 30, 30, 30}, {2.0, 1.5, 0.7}, {0.3, -0.6, 1.1}},
    // Destination cuboid clipping the image on every side.
    {{10, 8, 7}, {0, 0, 0, 10, 8, 7}, {3, 2, 4, 5, 6, 3}, {1.9, 2.6, 1.4}, {0.5, -2, 0}},
    // Strongly anisotropic factors.
    {{12, 5, 9}, {1, 0, 2, 10, 5, 6}, {0, 2, 0, 25, 25, 25}, {3.1, 0.45, 1.0}, {-2.3, 4.1, 0.25}},
    // Unit factors with fractional shifts: one fixed phase per axis.
    {{6, 5, 4}, {0, 0, 0, 6, 5, 4}, {0, 0, 0, 9, 9, 9}, {1, 1, 1}, {0.5, -0.25, 1.75}},
    // Axes one voxel long.
    {{1, 3, 4}, {0, 0, 0, 1, 3, 4}, {0, 0, 0, 6, 6, 6}, {2.5, 1, 0.6}, {0, 0.4, 0}},
};

TYPED_TEST(ResizeTyped, TableCasesMatchTheReferenceInEveryLayout)
{
    for (std::size_t c = 0; c < std::size(kCases); ++c)
        for (int selector : kSelectors) {
            const unsigned seed = 1000 + unsigned(c) * 10 + unsigned(selector);
            SCOPED_TRACE("seed " + std::to_string(seed));
            std::mt19937 rng(seed);
            checkAllLayouts(randomVoxels<TypeParam>(kCases[c].vol, rng), kCases[c], selector, rng);
        }
}

// Random volumes, cuboids, factors and shifts; quarter shifts make exact halves common.
Geometry randomGeometry(std::mt19937& rng)
{
    const double factors[] = {0.45, 0.5, 0.8, 1.0, 1.37, 1.7, 2.0, 3.1};
    Geometry g{};
    const int size[3] = {pick(rng, 1, 12), pick(rng, 1, 10), pick(rng, 1, 9)};
    int at[3], extent[3], dstAt[3], dstExtent[3];
    for (int a = 0; a < 3; ++a) {
        at[a] = pick(rng, 0, (size[a] - 1) / 2);
        extent[a] = pick(rng, 1, size[a] - at[a] + 2);
        g.factor[a] = factors[pick(rng, 0, 7)];
        g.shift[a] = pick(rng, 0, 1) ? pick(rng, -16, 16) / 4.0
                                     : std::uniform_real_distribution(-4.0, 4.0)(rng);
        // The destination cuboid starts near where the source cuboid lands.
        const int lands = int(std::floor(at[a] * g.factor[a] + g.shift[a]));
        dstAt[a] = std::max(0, lands - pick(rng, 0, 3));
        dstExtent[a] = pick(rng, 1, 24);
    }
    g.vol = {size[0], size[1], size[2]};
    g.src = {at[0], at[1], at[2], extent[0], extent[1], extent[2]};
    g.dst = {dstAt[0], dstAt[1], dstAt[2], dstExtent[0], dstExtent[1], dstExtent[2]};
    return g;
}

TYPED_TEST(ResizeTyped, RandomGeometryMatchesTheReferenceInEveryLayout)
{
    for (unsigned trial = 0; trial < 60; ++trial) {
        const unsigned seed = 5000 + trial;
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        // Every fifth trial may come out empty; the others are drawn until they write.
        Geometry g = randomGeometry(rng);
        while (trial % 5 && ref::resizeRegion(g.vol, g.src, g.dst, g.factor, g.shift).empty())
            g = randomGeometry(rng);
        checkAllLayouts(randomVoxels<TypeParam>(g.vol, rng), g, kSelectors[trial % 6], rng);
    }
}

// ------------------------------------------------------------------ exact values

TYPED_TEST(ResizeTyped, UnitFactorReproducesTheSourceForInterpolatingKernels)
{
    std::mt19937 rng(77);
    const VolumeSize vol{7, 5, 4};
    const auto values = randomVoxels<TypeParam>(vol, rng);
    const Geometry cases[] = {
        {vol, {0, 0, 0, 7, 5, 4}, {0, 0, 0, 7, 5, 4}, {1, 1, 1}, {0, 0, 0}},
        {vol, {1, 2, 1, 5, 3, 2}, {0, 0, 0, 9, 9, 9}, {1, 1, 1}, {0, 0, 0}},
    };
    for (const Geometry& g : cases)
        for (int selector : {1, 2, 4, 6})
            for (Layout layout : kLayouts) {
                SCOPED_TRACE(describe(g, selector, layout));
                const auto out = resizeAndCheck(values, g, selector, layout, rng);
                std::vector<TypeParam> want;
                for (int z = g.src.z; z < g.src.z + g.src.depth; ++z)
                    for (int y = g.src.y; y < g.src.y + g.src.height; ++y)
                        for (int x = g.src.x; x < g.src.x + g.src.width; ++x)
                            want.push_back(values.at(x, y, z));
                EXPECT_TRUE(sameBits(out, want));
            }
}

// At unit factor the smoothing kernels weigh the neighbours 1/6, 2/3, 1/6 (B-spline) and
// 1/12, 5/6, 1/12 (B = 1/2, C = 3/10) per axis, with the border voxel repeated.
TEST(ResizeSmoothing, UnitFactorSmoothsWithTheKernelsWeightsAtZero)
{
    std::mt19937 rng(56);
    const VolumeSize vol{6, 5, 4};
    const auto values = randomVoxels<float>(vol, rng);
    const Geometry g{vol, {0, 0, 0, 6, 5, 4}, {0, 0, 0, 6, 5, 4}, {1, 1, 1}, {0, 0, 0}};
    const struct {
        int selector;
        double side, centre;
    } kernels[] = {{5, 1.0 / 6, 2.0 / 3}, {7, 1.0 / 12, 5.0 / 6}};
    for (const auto& k : kernels) {
        SCOPED_TRACE(describe(g, k.selector, Layout::Block));
        const auto out = resizeAndCheck(values, g, k.selector, Layout::Block, rng);
        ASSERT_EQ(out.size(), values.v.size());
        const double w[3] = {k.side, k.centre, k.side};
        auto c = [](int i, int n) { return std::clamp(i, 0, n - 1); };
        for (int z = 0, n = 0; z < vol.depth; ++z)
            for (int y = 0; y < vol.height; ++y)
                for (int x = 0; x < vol.width; ++x, ++n) {
                    double sum = 0, size = 0;
                    for (int k3 = 0; k3 < 27; ++k3) {
                        const int i = k3 % 3, j = k3 / 3 % 3, l = k3 / 9;
                        const double term =
                            w[i] * w[j] * w[l] *
                            values.at(c(x + i - 1, vol.width), c(y + j - 1, vol.height),
                                      c(z + l - 1, vol.depth));
                        sum += term, size += std::fabs(term);
                    }
                    EXPECT_NEAR(out[n], sum, 1e-5 * std::max(1.0, size))
                        << x << "," << y << "," << z;
                }
    }
}

// Factor 2 with shift 1/2 puts every even destination voxel exactly halfway between two
// source voxels; nearest takes the lower one there, on every axis.
TEST(ResizeNearest, ExactHalfPicksTheLowerVoxel)
{
    std::mt19937 rng(2);
    const float want[] = {10, 10, 10, 20, 20, 30, 30, 40, 40, 50, 50};
    for (int axis = 0; axis < 3; ++axis) {
        SCOPED_TRACE("axis " + std::to_string(axis));
        int size[3] = {1, 1, 1};
        size[axis] = 5;
        Voxels<float> values{{size[0], size[1], size[2]}, {10, 20, 30, 40, 50}};
        Geometry g{values.size,
                   {0, 0, 0, size[0], size[1], size[2]},
                   {0, 0, 0, 16, 16, 16},
                   {1, 1, 1},
                   {0, 0, 0}};
        g.factor[axis] = 2, g.shift[axis] = 0.5;
        const auto out = resizeAndCheck(values, g, vlkInterNearest, Layout::Block, rng);
        ASSERT_EQ(out.size(), std::size(want));
        for (std::size_t i = 0; i < out.size(); ++i) EXPECT_EQ(out[i], want[i]) << i;
    }
}

// The 8-bit trilinear path blends in fixed point: resizeAndCheck holds every voxel to one step
// of the exactly rounded value and the mean signed difference to a quarter step.
TEST(ResizeLinear8u, FixedPointBlendIsUnbiased)
{
    std::mt19937 rng(137);
    const VolumeSize vol{12, 10, 9};
    const Geometry g{
        vol, {0, 0, 0, 12, 10, 9}, {0, 0, 0, 40, 40, 40}, {1.37, 1.37, 1.37}, {0.3, -0.2, 0.1}};
    const auto values = randomVoxels<Vlk8u>(vol, rng);
    EXPECT_GT(resizeAndCheck(values, g, vlkInterLinear, Layout::Block, rng).size(), 2000u);
}

// Caller blocks may start at any byte address: an odd start gives the same bytes as an
// aligned one (and the sanitizer build checks that no access assumes alignment).
TYPED_TEST(ResizeTyped, BlocksAtOddAddressesGiveTheSameBytes)
{
    using T = TypeParam;
    std::mt19937 rng(5);
    const VolumeSize vol{11, 7, 5};
    const Cuboid src{0, 0, 0, 11, 7, 5}, dst{0, 0, 0, 17, 9, 8};
    const auto values = randomVoxels<T>(vol, rng);
    const std::size_t srcBytes = values.v.size() * sizeof(T);
    const std::size_t dstBytes = std::size_t(dst.width) * dst.height * dst.depth * sizeof(T);
    const int rowStep = dst.width * int(sizeof(T)), planeStep = rowStep * dst.height;
    for (int selector : kSelectors) {
        std::vector<unsigned char> out[2], buffer(1 << 16);
        for (int offset : {0, 1}) {
            std::vector<unsigned char> in(srcBytes + 1);
            out[offset].assign(dstBytes + 1, 0);
            std::memcpy(in.data() + offset, values.v.data(), srcBytes);
            const int step = vol.width * int(sizeof(T));
            EXPECT_EQ(
                Ops<T>::block(reinterpret_cast<const T*>(in.data() + offset), &vol, step,
                              step * vol.height, &src,
                              reinterpret_cast<T*>(out[offset].data() + offset), rowStep, planeStep,
                              &dst, 1.6, 1.3, 1.6, 0, 0, 0, selector, buffer.data() + offset),
                vlkStatusOk);
        }
        EXPECT_EQ(std::memcmp(out[0].data(), out[1].data() + 1, dstBytes), 0) << selector;
    }
}

// ------------------------------------------------------------------ work buffer

// The queried size is all the resize may touch, wherever the buffer starts: canaries on both
// sides of it, at start offsets 0 to 63 from a 64-byte boundary.
TYPED_TEST(ResizeTyped, WorkBufferStaysWithinItsQueriedSizeAtAnyAlignment)
{
    std::mt19937 rng(64);
    const Geometry cases[] = {
        {{9, 7, 5}, {0, 0, 0, 9, 7, 5}, {0, 0, 0, 15, 12, 9}, {1.7, 1.7, 1.7}, {0, 0, 0}},
        {{12, 10, 9}, {0, 0, 0, 12, 10, 9}, {0, 0, 0, 5, 5, 7}, {0.45, 0.5, 0.8}, {0, 0, 0}},
        {{12, 10, 9}, {0, 0, 0, 12, 10, 9}, {5, 4, 3, 2, 3, 2}, {2.5, 1.7, 3.1}, {-1, 0.5, 0}},
    };
    for (const Geometry& g : cases) {
        const auto values = randomVoxels<TypeParam>(g.vol, rng);
        for (int selector : kSelectors) {
            int size = 0;
            ASSERT_EQ(vlkrResizeGetBufSize(&g.src, &g.dst, 1, selector, &size), vlkStatusOk);
            for (int offset : {0, 1, 2, 3, 4, 7, 8, 12, 15, 16, 31, 32, 33, 47, 48, 63}) {
                SCOPED_TRACE(describe(g, selector, Layout::Block) + " offset " +
                             std::to_string(offset));
                std::vector<unsigned char> block(std::size_t(size) + 256, 0x5A);
                const auto address = reinterpret_cast<std::uintptr_t>(block.data()) + 64;
                const std::size_t start = (address & ~std::uintptr_t(63)) -
                                          reinterpret_cast<std::uintptr_t>(block.data()) + offset;
                resizeAndCheck(values, g, selector, Layout::Block, rng, block.data() + start);
                const std::size_t end = start + std::size_t(size);
                const auto outside = [&](std::size_t i) { return i < start || i >= end; };
                std::size_t changed = 0;
                for (std::size_t i = 0; i < block.size(); ++i)
                    changed += outside(i) && block[i] != 0x5A;
                EXPECT_EQ(changed, 0u) << "bytes changed around a buffer of " << size;
            }
        }
    }
}

}  // namespace
