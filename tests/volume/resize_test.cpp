// Volume resize: against a per-voxel float reference in every voxel type, layout (block,
// bottom-up block, plane array) and selector on random geometry, with canaries on every
// destination and work-buffer byte it may not write, wherever the buffer starts; the checks
// in order; the destination box and the resize and warp buffer-size queries.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "reference/resize_reference.h"
#include "volume_ops.h"

namespace {

using namespace vlkr::test;
namespace ref = vlkr::reference;

const double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Geometry {
    VolumeSize vol;
    Cuboid src, dst;
    double factor[3], shift[3];
};

// Random volumes, cuboids (the source often past the volume), factors and shifts (quarters
// make exact halves common), and a destination cuboid near where the source lands.
Geometry randomGeometry(std::mt19937& rng)
{
    const double factors[] = {0.45, 0.5, 0.8, 1.0, 1.37, 1.7, 2.0, 3.1};
    Geometry g{{pick(rng, 1, 12), pick(rng, 1, 10), pick(rng, 1, 9)}, {}, {}, {}, {}};
    const int size[3] = {g.vol.width, g.vol.height, g.vol.depth};
    int at[3], extent[3], dstAt[3];
    for (int a = 0; a < 3; ++a) {
        at[a] = pick(rng, 0, (size[a] - 1) / 2);
        extent[a] = pick(rng, 1, size[a] - at[a] + 2);
        g.factor[a] = factors[pick(rng, 0, 7)];
        g.shift[a] = rng() % 2 ? pick(rng, -16, 16) / 4.0
                               : std::uniform_real_distribution<double>(-4, 4)(rng);
        dstAt[a] = std::max(0, int(std::floor(at[a] * g.factor[a] + g.shift[a])) - pick(rng, 0, 3));
    }
    g.src = {at[0], at[1], at[2], extent[0], extent[1], extent[2]};
    g.dst = {dstAt[0], dstAt[1], dstAt[2], pick(rng, 1, 24), pick(rng, 1, 24), pick(rng, 1, 24)};
    return g;
}

// One resize of random voxels: the status, the written region against the reference (8-bit
// trilinear, which blends z in fixed point, within one step; bias[] sums its differences),
// every other destination byte and the work buffer's surroundings untouched.
template <class T>
void checkResize(const Geometry& g, int selector, Layout layout, std::mt19937& rng, double bias[2])
{
    const int extra = pick(rng, 0, sizeof(T) - 1), lead = pick(rng, 0, sizeof(T) - 1);
    Grid<T> src(g.vol, rng, kPoison, layout, extra, false, lead);
    fillRandom(src, g.vol, rng);
    const Cuboid& d = g.dst;
    Grid<T> dst({d.x + d.width + 1, d.y + d.height + 1, d.z + d.depth + 1}, rng, kCanary, layout,
                extra, false, lead);
    int bytes = 0;
    ASSERT_EQ(vlkrResizeGetBufSize(&g.src, &g.dst, 1, selector, &bytes), vlkStatusOk);
    std::vector<unsigned char> buffer(std::size_t(bytes) + 192, kCanary);
    const long start =
        64 - long(reinterpret_cast<std::uintptr_t>(buffer.data()) % 64) + pick(rng, 0, 63);
    const double *f = g.factor, *s = g.shift;
    const vlkStatus status =
        layout == Layout::Planes
            ? Ops<T>::planes(src.planes.data(), &g.vol, src.step, &g.src, dst.planes.data(),
                             dst.step, &g.dst, f[0], f[1], f[2], s[0], s[1], s[2], selector,
                             buffer.data() + start)
            : Ops<T>::block(src.planes[0], &g.vol, src.step, src.planeStep, &g.src, dst.planes[0],
                            dst.step, dst.planeStep, &g.dst, f[0], f[1], f[2], s[0], s[1], s[2],
                            selector, buffer.data() + start);
    const ref::Region r = ref::resizeRegion(g.vol, g.src, g.dst, f, s);
    EXPECT_EQ(status, r.empty() ? vlkStatusNoOperation : vlkStatusOk);
    const bool fixed = std::is_same_v<T, Vlk8u> && selector == vlkInterLinear;
    auto read = [&src](int x, int y, int z) { return float(src.get(x, y, z)); };
    checkVoxels(dst, r.begin, r.end, [&](int x, int y, int z, T got, bool) {
        const int at[3] = {x, y, z};
        const float want = ref::resizeVoxel(read, g.vol, selector, at, f, s);
        const double diff = double(got) - double(storeAs<T>(want));
        if (fixed) bias[0] += diff, bias[1] += 1;
        return std::fabs(diff) <= (fixed ? 1 : 0);
    });
    buffer.erase(buffer.begin() + start, buffer.begin() + start + bytes);
    EXPECT_EQ(std::count(buffer.begin(), buffer.end(), kCanary), 192) << "buffer overrun";
}

template <class T>
class ResizeTyped : public ::testing::Test {
};
TYPED_TEST_SUITE(ResizeTyped, VoxelTypes);

TYPED_TEST(ResizeTyped, RandomGeometryMatchesTheReferenceInEveryLayout)
{
    double bias[2] = {0, 0};
    for (unsigned seed = 5000; seed < 5120; ++seed) {
        std::mt19937 rng(seed);
        // Every fifth trial may come out empty; the others are drawn until they write.
        Geometry g = randomGeometry(rng);
        while (seed % 5 && ref::resizeRegion(g.vol, g.src, g.dst, g.factor, g.shift).empty())
            g = randomGeometry(rng);
        for (Layout layout : {Layout::Block, Layout::BottomUp, Layout::Planes}) {
            SCOPED_TRACE(::testing::Message() << "seed " << seed << " layout " << int(layout));
            checkResize<TypeParam>(g, kSelectors[seed % 6], layout, rng, bias);
        }
    }
    if (std::is_same_v<TypeParam, Vlk8u>) {
        EXPECT_GT(bias[1], 1000);
        EXPECT_NEAR(bias[0] / bias[1], 0.0, 0.25) << "8-bit trilinear results biased";
    }
}

// ------------------------------------------------------------------ argument checks

// A valid trilinear resize of a 6x5x4 volume by 1.5.
struct Args {
    VolumeSize vol{6, 5, 4};
    Cuboid src{0, 0, 0, 6, 5, 4}, dst{0, 0, 0, 10, 8, 6};
    double factor[3]{1.5, 1.5, 1.5};
    int selector = vlkInterLinear;
    bool nullSrc = false, nullDst = false, nullBuf = false, nullVol = false, nullSrcVoi = false,
         nullDstVoi = false;
};

const std::vector<CheckRow<Args>> kRows = {
    {"null source", [](Args& a) { a.nullSrc = true; }, vlkStatusNullPtr},
    {"null destination", [](Args& a) { a.nullDst = true; }, vlkStatusNullPtr},
    {"null buffer", [](Args& a) { a.nullBuf = true; }, vlkStatusNullPtr},
    {"null volume record", [](Args& a) { a.nullVol = true; }, vlkStatusNullPtr},
    {"null source cuboid", [](Args& a) { a.nullSrcVoi = true; }, vlkStatusNullPtr},
    {"null destination cuboid", [](Args& a) { a.nullDstVoi = true; }, vlkStatusNullPtr},
    {"volume depth 0", [](Args& a) { a.vol.depth = 0; }, vlkStatusSize},
    {"source x -1", [](Args& a) { a.src.x = -1; }, vlkStatusSize},
    {"destination width 0", [](Args& a) { a.dst.width = 0; }, vlkStatusSize},
    {"x factor -0", [](Args& a) { a.factor[0] = -0.0; }, vlkStatusResizeFactor},
    {"y factor 0", [](Args& a) { a.factor[1] = 0.0; }, vlkStatusResizeFactor},
    {"z factor NaN", [](Args& a) { a.factor[2] = kNaN; }, vlkStatusResizeFactor},
    {"selector 3", [](Args& a) { a.selector = 3; }, vlkStatusInterpolation},
    {"selector 8", [](Args& a) { a.selector = 8; }, vlkStatusInterpolation},
    {"source x at the width", [](Args& a) { a.src.x = 6; }, vlkStatusWrongIntersectVOI},
    {"source y at the height", [](Args& a) { a.src.y = 5; }, vlkStatusWrongIntersectVOI},
    {"source z at the depth", [](Args& a) { a.src.z = 4; }, vlkStatusWrongIntersectVOI},
    {"destination beside the image", [](Args& a) { a.dst.x = 20; }, vlkStatusNoOperation},
    {"tiny factor covers no voxel", [](Args& a) { a.factor[0] = 0.01; }, vlkStatusNoOperation},
    // Trimmed to the volume, the source ends at x = 6 where the destination starts.
    {"trimmed source ends before the destination",
     [](Args& a) { a.src = {5, 0, 0, 10, 5, 4}, a.factor[0] = 1, a.dst = {6, 0, 0, 4, 5, 4}; },
     vlkStatusNoOperation},
    // Infinity times the origin 0 maps nowhere.
    {"infinite x factor", [](Args& a) { a.factor[0] = INFINITY; }, vlkStatusNoOperation},
    {"valid", [](Args&) {}, vlkStatusOk, true},
};

TYPED_TEST(ResizeTyped, FirstFailingCheckDecidesAndNothingIsWritten)
{
    using T = TypeParam;
    for (bool planar : {false, true})
        checkInOrder(kRows, Args{}, [planar](const Args& a, bool* written) {
            CheckVolumes<T> v;
            std::vector<unsigned char> buffer(1 << 20);
            const VolumeSize* vol = a.nullVol ? nullptr : &a.vol;
            const Cuboid *src = a.nullSrcVoi ? nullptr : &a.src,
                         *dst = a.nullDstVoi ? nullptr : &a.dst;
            unsigned char* buf = a.nullBuf ? nullptr : buffer.data();
            const double* f = a.factor;
            const int step = v.kStep, plane = step * v.kSide;
            const vlkStatus status =
                planar ? Ops<T>::planes(a.nullSrc ? nullptr : v.srcPlanes.data(), vol, step, src,
                                        a.nullDst ? nullptr : v.dstPlanes.data(), step, dst, f[0],
                                        f[1], f[2], 0, 0, 0, a.selector, buf)
                       : Ops<T>::block(a.nullSrc ? nullptr : v.src.data(), vol, step, plane, src,
                                       a.nullDst ? nullptr : v.dst.data(), step, plane, dst, f[0],
                                       f[1], f[2], 0, 0, 0, a.selector, buf);
            *written = v.dstWritten();
            return status;
        });
}

// The box a resize covers: a start on a half rounds down, an end on a half up, a start below
// zero is raised to it; the checks in order; on failure the box is left alone.
TEST(ResizeCuboid, BoxRoundsHalvesOutwardsAndClampsAtZero)
{
    const Cuboid kUntouched{-7, -7, -7, -7, -7, -7}, kSrc{0, 0, 0, 4, 4, 4};
    const struct {
        Cuboid src;
        double factor[3], shift[3];
        int selector;
        vlkStatus want;
        Cuboid box;
    } rows[] = {
        {{2, 3, 4, 5, 6, 7},
         {0.45, 1.7, 3.1},
         {0.3, -0.2, 1.0},
         7,
         vlkStatusOk,
         {1, 5, 13, 2, 10, 22}},
        // Starts at 1.5, 2.5, -0.5 and ends at 4.5, 5.5, 5.5.
        {{1, 2, 1, 2, 3, 3}, {1.5, 1, 2}, {0, 0.5, -2.5}, 2, vlkStatusOk, {1, 2, 0, 4, 4, 6}},
        {kSrc, {1, 1, 1}, {-2.2, -3.5, 0}, 4, vlkStatusOk, {0, 0, 0, 2, 1, 4}},
        {{3, 0, 0, 2, 2, 2}, {0.1, 1, 1}, {0, 0, 0}, 5, vlkStatusOk, {0, 0, 0, 1, 2, 2}},
        {kSrc, {1, 1, 1}, {-10, 0, 0}, 1, vlkStatusNoOperation, kUntouched},
        {kSrc, {1, 0.1, 1}, {0, -0.45, 0}, 6, vlkStatusNoOperation, kUntouched},
        // Ends that are not numbers: a NaN shift, infinity times the origin 0, and an end
        // that overflows to infinity less an infinite shift.
        {kSrc, {1, 1, 1}, {0, kNaN, 0}, 2, vlkStatusNoOperation, kUntouched},
        {kSrc, {1, 1, INFINITY}, {0, 0, 0}, 2, vlkStatusNoOperation, kUntouched},
        {kSrc, {1e308, 1, 1}, {-INFINITY, 0, 0}, 2, vlkStatusNoOperation, kUntouched},
        {{-1, 0, 0, 4, 4, 4}, {1, 1, 1}, {0, 0, 0}, 2, vlkStatusSize, kUntouched},
        {{0, 0, 0, 0, 4, 4}, {0, 1, 1}, {0, 0, 0}, 3, vlkStatusSize, kUntouched},
        {kSrc, {1, 1, kNaN}, {0, 0, 0}, 3, vlkStatusResizeFactor, kUntouched},
        {kSrc, {-1, 1, 1}, {0, 0, 0}, 3, vlkStatusResizeFactor, kUntouched},
        {kSrc, {1, 0, 1}, {0, 0, 0}, 3, vlkStatusResizeFactor, kUntouched},
        {kSrc, {1, 1, 1}, {-10, 0, 0}, 0, vlkStatusInterpolation, kUntouched},
    };
    for (const auto& r : rows) {
        Cuboid box = kUntouched;
        const double *f = r.factor, *s = r.shift;
        EXPECT_EQ(vlkrGetResizeCuboid(&r.src, &box, f[0], f[1], f[2], s[0], s[1], s[2], r.selector),
                  r.want);
        EXPECT_EQ(std::memcmp(&box, &r.box, sizeof box), 0)
            << box.x << "," << box.y << "," << box.z;
    }
    EXPECT_EQ(vlkrGetResizeCuboid(&kSrc, nullptr, 0, 1, 1, 0, 0, 0, 1), vlkStatusNullPtr);
    Cuboid box = kUntouched;
    EXPECT_EQ(vlkrGetResizeCuboid(nullptr, &box, 0, 1, 1, 0, 0, 0, 1), vlkStatusNullPtr);
    EXPECT_EQ(std::memcmp(&box, &kUntouched, sizeof box), 0);
}

// The resize and warp queries share one check order and leave the size alone on failure;
// the warp needs no buffer.
struct QueryArgs {
    Cuboid src{0, 0, 0, 8, 8, 8}, dst{3, 9, 2, 400, 70, 300};
    int channels = 1, selector = 2;
    bool nullSize = false, nullSrc = false, nullDst = false;
};

TEST(BufSize, BothQueriesCheckInOrder)
{
    const std::vector<CheckRow<QueryArgs>> rows = {
        {"null size", [](QueryArgs& a) { a.nullSize = true; }, vlkStatusNullPtr},
        {"null source", [](QueryArgs& a) { a.nullSrc = true; }, vlkStatusNullPtr},
        {"null destination", [](QueryArgs& a) { a.nullDst = true; }, vlkStatusNullPtr},
        {"source y -1", [](QueryArgs& a) { a.src.y = -1; }, vlkStatusSize},
        {"destination depth 0", [](QueryArgs& a) { a.dst.depth = 0; }, vlkStatusSize},
        {"3 channels", [](QueryArgs& a) { a.channels = 3; }, vlkStatusNumChannels},
        {"0 channels", [](QueryArgs& a) { a.channels = 0; }, vlkStatusNumChannels},
        {"selector 3", [](QueryArgs& a) { a.selector = 3; }, vlkStatusInterpolation},
        {"selector 8", [](QueryArgs& a) { a.selector = 8; }, vlkStatusInterpolation},
        {"valid", [](QueryArgs&) {}, vlkStatusOk, true},
    };
    for (auto query : {&vlkrResizeGetBufSize, &vlkrWarpAffineGetBufSize})
        checkInOrder(rows, QueryArgs{}, [query](const QueryArgs& a, bool* written) {
            int size = -7;
            const vlkStatus status =
                query(a.nullSrc ? nullptr : &a.src, a.nullDst ? nullptr : &a.dst, a.channels,
                      a.selector, a.nullSize ? nullptr : &size);
            *written = size != -7;
            if (query == &vlkrWarpAffineGetBufSize) {
                EXPECT_LE(size, 0);
            }
            return status;
        });
}

}  // namespace
