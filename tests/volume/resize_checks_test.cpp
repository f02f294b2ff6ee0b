// Volume resize arguments: the order of the checks, warnings and errors leaving the
// destination alone, the destination box query, and the resize and warp work-buffer queries.
#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "volume_ops.h"

namespace {

using namespace vlkr::test;

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// ------------------------------------------------------------------ resize check order

// A valid trilinear resize of a 6x5x4 volume by 1.5; each row below breaks part of it.
struct Args {
    VolumeSize vol{6, 5, 4};
    Cuboid src{0, 0, 0, 6, 5, 4}, dst{0, 0, 0, 10, 8, 6};
    double factor[3]{1.5, 1.5, 1.5}, shift[3]{0, 0, 0};
    int selector = vlkInterLinear;
    bool nullSrc = false, nullDst = false, nullBuffer = false;
    bool nullVolume = false, nullSrcVoi = false, nullDstVoi = false;
};

using Row = CheckRow<Args>;

const Row kRows[] = {
    {"valid arguments", [](Args&) {}, vlkStatusOk},
    {"null source", [](Args& a) { a.nullSrc = true; }, vlkStatusNullPtr},
    {"null destination", [](Args& a) { a.nullDst = true; }, vlkStatusNullPtr},
    {"null buffer", [](Args& a) { a.nullBuffer = true; }, vlkStatusNullPtr},
    {"null volume record", [](Args& a) { a.nullVolume = true; }, vlkStatusNullPtr},
    {"null source cuboid", [](Args& a) { a.nullSrcVoi = true; }, vlkStatusNullPtr},
    {"null destination cuboid", [](Args& a) { a.nullDstVoi = true; }, vlkStatusNullPtr},
    {"null source, zero width", [](Args& a) { a.nullSrc = true, a.vol.width = 0; },
     vlkStatusNullPtr},
    {"null buffer, zero factor, selector 3",
     [](Args& a) { a.nullBuffer = true, a.factor[0] = 0, a.selector = 3; }, vlkStatusNullPtr},
    {"volume width 0", [](Args& a) { a.vol.width = 0; }, vlkStatusSize},
    {"volume height -1", [](Args& a) { a.vol.height = -1; }, vlkStatusSize},
    {"source x -1", [](Args& a) { a.src.x = -1; }, vlkStatusSize},
    {"source depth 0", [](Args& a) { a.src.depth = 0; }, vlkStatusSize},
    {"destination z -1", [](Args& a) { a.dst.z = -1; }, vlkStatusSize},
    {"destination width 0", [](Args& a) { a.dst.width = 0; }, vlkStatusSize},
    {"zero width, zero factor", [](Args& a) { a.vol.width = 0, a.factor[1] = 0; }, vlkStatusSize},
    {"destination depth 0, selector 3", [](Args& a) { a.dst.depth = 0, a.selector = 3; },
     vlkStatusSize},
    {"volume depth 0, origin outside", [](Args& a) { a.vol.depth = 0, a.src.x = 9; },
     vlkStatusSize},
    {"x factor 0", [](Args& a) { a.factor[0] = 0; }, vlkStatusResizeFactor},
    {"x factor -0", [](Args& a) { a.factor[0] = -0.0; }, vlkStatusResizeFactor},
    {"y factor -1", [](Args& a) { a.factor[1] = -1; }, vlkStatusResizeFactor},
    {"z factor NaN", [](Args& a) { a.factor[2] = kNaN; }, vlkStatusResizeFactor},
    {"factor NaN, selector 0", [](Args& a) { a.factor[0] = kNaN, a.selector = 0; },
     vlkStatusResizeFactor},
    {"factor 0, origin outside", [](Args& a) { a.factor[2] = 0, a.src.y = 5; },
     vlkStatusResizeFactor},
    {"selector 0", [](Args& a) { a.selector = 0; }, vlkStatusInterpolation},
    {"selector 3", [](Args& a) { a.selector = 3; }, vlkStatusInterpolation},
    {"selector 8", [](Args& a) { a.selector = 8; }, vlkStatusInterpolation},
    {"selector -1", [](Args& a) { a.selector = -1; }, vlkStatusInterpolation},
    {"selector 3, origin outside", [](Args& a) { a.selector = 3, a.src.z = 4; },
     vlkStatusInterpolation},
    {"source x at the width", [](Args& a) { a.src.x = 6; }, vlkStatusWrongIntersectVOI},
    {"source y at the height", [](Args& a) { a.src.y = 5; }, vlkStatusWrongIntersectVOI},
    {"source z at the depth", [](Args& a) { a.src.z = 4; }, vlkStatusWrongIntersectVOI},
    {"origin outside, disjoint destination", [](Args& a) { a.src.x = 7, a.dst.x = 20; },
     vlkStatusWrongIntersectVOI},
    {"destination beside the image", [](Args& a) { a.dst.x = 20; }, vlkStatusNoOperation},
    {"image shifted below zero", [](Args& a) { a.shift[1] = -100; }, vlkStatusNoOperation},
    {"tiny factor covers no voxel", [](Args& a) { a.factor[0] = 0.01; }, vlkStatusNoOperation},
    // Trimmed to the volume, the source ends at x = 6 where the destination starts.
    {"trimmed source ends before the destination",
     [](Args& a) { a.src = {5, 0, 0, 10, 5, 4}, a.factor[0] = 1, a.dst = {6, 0, 0, 4, 5, 4}; },
     vlkStatusNoOperation},
};

// Every row through both layouts: its status, and a destination (a canary-filled 32-cube)
// left alone whenever the status is not Ok.
template <class T>
class ResizeChecks : public ::testing::Test {
};
TYPED_TEST_SUITE(ResizeChecks, VoxelTypes, VoxelNames);

TYPED_TEST(ResizeChecks, FirstFailingCheckDecidesAndNothingIsWritten)
{
    using T = TypeParam;
    for (bool planar : {false, true})
        for (const Row& row : kRows) {
            SCOPED_TRACE(std::string(row.what) + (planar ? " (planes)" : " (block)"));
            Args a;
            row.edit(a);
            CheckVolumes<T> v(32);
            std::vector<unsigned char> buffer(1 << 20);
            const VolumeSize* vol = a.nullVolume ? nullptr : &a.vol;
            const Cuboid* srcVoi = a.nullSrcVoi ? nullptr : &a.src;
            const Cuboid* dstVoi = a.nullDstVoi ? nullptr : &a.dst;
            unsigned char* buf = a.nullBuffer ? nullptr : buffer.data();
            const double *f = a.factor, *s = a.shift;
            const int step = v.step, plane = step * v.side;
            const vlkStatus status =
                planar ? Ops<T>::planes(a.nullSrc ? nullptr : v.srcPlanes.data(), vol, step, srcVoi,
                                        a.nullDst ? nullptr : v.dstPlanes.data(), step, dstVoi,
                                        f[0], f[1], f[2], s[0], s[1], s[2], a.selector, buf)
                       : Ops<T>::block(a.nullSrc ? nullptr : v.src.data(), vol, step, plane, srcVoi,
                                       a.nullDst ? nullptr : v.dst.data(), step, plane, dstVoi,
                                       f[0], f[1], f[2], s[0], s[1], s[2], a.selector, buf);
            EXPECT_EQ(status, row.want);
            EXPECT_TRUE(status == vlkStatusOk || !v.dstWritten()) << "destination written";
        }
}

// ------------------------------------------------------------------ destination box query

TEST(ResizeCuboid, BoxRoundsStartsDownAndEndsUpAtHalvesAndClampsAtZero)
{
    const Cuboid kUntouched{-7, -7, -7, -7, -7, -7};
    const struct {
        Cuboid src;
        double factor[3], shift[3];
        vlkStatus want;
        Cuboid box;
    } rows[] = {
        {{0, 0, 0, 10, 8, 6}, {2, 2, 2}, {0, 0, 0}, vlkStatusOk, {0, 0, 0, 20, 16, 12}},
        {{2, 3, 4, 5, 6, 7},
         {0.45, 1.7, 3.1},
         {0.3, -0.2, 1.0},
         vlkStatusOk,
         {1, 5, 13, 2, 10, 22}},
        // Starts at 1.5, 2.5, -0.5 and ends at 4.5, 5.5, 5.5.
        {{1, 2, 1, 2, 3, 3}, {1.5, 1, 2}, {0, 0.5, -2.5}, vlkStatusOk, {1, 2, 0, 4, 4, 6}},
        // Starts below zero are raised to zero.
        {{0, 0, 0, 4, 4, 4}, {1, 1, 1}, {-2.2, -3.5, 0}, vlkStatusOk, {0, 0, 0, 2, 1, 4}},
        {{3, 0, 0, 2, 2, 2}, {0.1, 1, 1}, {0, 0, 0}, vlkStatusOk, {0, 0, 0, 1, 2, 2}},
        {{0, 0, 0, 4, 4, 4}, {1, 1, 1}, {-10, 0, 0}, vlkStatusNoOperation, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {1, 0.1, 1}, {0, -0.45, 0}, vlkStatusNoOperation, kUntouched},
        {{-1, 0, 0, 4, 4, 4}, {1, 1, 1}, {0, 0, 0}, vlkStatusSize, kUntouched},
        {{0, 0, 0, 4, 0, 4}, {1, 1, 1}, {0, 0, 0}, vlkStatusSize, kUntouched},
        {{0, 0, 0, 0, 4, 4}, {0, 1, 1}, {0, 0, 0}, vlkStatusSize, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {1, 0, 1}, {0, 0, 0}, vlkStatusResizeFactor, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {1, 1, kNaN}, {0, 0, 0}, vlkStatusResizeFactor, kUntouched},
    };
    for (const auto& r : rows)
        for (int selector : kSelectors) {
            std::ostringstream os;
            print(os, r.src) << " selector " << selector;
            SCOPED_TRACE(os.str());
            Cuboid box = kUntouched;
            EXPECT_EQ(vlkrGetResizeCuboid(&r.src, &box, r.factor[0], r.factor[1], r.factor[2],
                                          r.shift[0], r.shift[1], r.shift[2], selector),
                      r.want);
            EXPECT_TRUE(same(box, r.box));
        }
    const Cuboid src{0, 0, 0, 4, 4, 4};
    Cuboid box = kUntouched;
    EXPECT_EQ(vlkrGetResizeCuboid(&src, nullptr, 1, 1, 1, 0, 0, 0, 1), vlkStatusNullPtr);
    EXPECT_EQ(vlkrGetResizeCuboid(&src, &box, 1, 1, 1, 0, 0, 0, 3), vlkStatusInterpolation);
    EXPECT_EQ(vlkrGetResizeCuboid(&src, &box, -1, 1, 1, 0, 0, 0, 3), vlkStatusResizeFactor);
    EXPECT_EQ(vlkrGetResizeCuboid(&src, &box, 1, 1, 1, 0, 0, 0, 0), vlkStatusInterpolation);
    EXPECT_TRUE(same(box, kUntouched));
}

// ------------------------------------------------------------------ work-buffer size

TEST(ResizeBufSize, SizeFollowsTheDestinationExtentsOnly)
{
    const struct {
        int width, height, depth;
        int nearest, linear, cubic;
    } rows[] = {
        {1, 1, 1, 256, 2560, 7936},      {15, 12, 9, 256, 8960, 32000},
        {64, 33, 17, 640, 22656, 92032}, {100, 7, 3, 640, 13952, 78720},
        {17, 65, 2, 576, 38464, 116544},
    };
    const Cuboid sources[] = {{0, 0, 0, 1, 1, 1}, {3, 9, 2, 40, 7, 300}};
    for (const auto& r : rows)
        for (const Cuboid& src : sources)
            for (int selector : kSelectors) {
                const Cuboid dst{selector, 2, 5, r.width, r.height, r.depth};
                std::ostringstream os;
                print(print(os, src) << " ", dst) << " selector " << selector;
                SCOPED_TRACE(os.str());
                int size = -7;
                EXPECT_EQ(vlkrResizeGetBufSize(&src, &dst, 1, selector, &size), vlkStatusOk);
                EXPECT_EQ(size, selector == 1 ? r.nearest : selector == 2 ? r.linear : r.cubic);
            }
}

// The resize and warp queries share one check order and leave the size alone on failure.
TEST(BufSize, BothQueriesCheckInOrder)
{
    const Cuboid good{0, 0, 0, 8, 8, 8}, badOrigin{0, -1, 0, 8, 8, 8}, badExtent{0, 0, 0, 8, 8, 0};
    const struct {
        const char* what;
        const Cuboid *src, *dst;
        int channels, selector;
        bool nullSize;
        vlkStatus want;
    } rows[] = {
        {"null size", &good, &good, 1, 2, true, vlkStatusNullPtr},
        {"null size, bad cuboid, 3 channels", &badOrigin, &good, 3, 3, true, vlkStatusNullPtr},
        {"source origin -1", &badOrigin, &good, 1, 2, false, vlkStatusSize},
        {"destination depth 0", &good, &badExtent, 1, 2, false, vlkStatusSize},
        {"bad cuboid, 3 channels, selector 3", &good, &badOrigin, 3, 3, false, vlkStatusSize},
        {"3 channels", &good, &good, 3, 1, false, vlkStatusNumChannels},
        {"0 channels", &good, &good, 0, 2, false, vlkStatusNumChannels},
        {"3 channels, selector 3", &good, &good, 3, 3, false, vlkStatusNumChannels},
        {"selector 3", &good, &good, 1, 3, false, vlkStatusInterpolation},
        {"selector 0", &good, &good, 1, 0, false, vlkStatusInterpolation},
        {"selector 8", &good, &good, 1, 8, false, vlkStatusInterpolation},
    };
    for (auto query : {&vlkrResizeGetBufSize, &vlkrWarpAffineGetBufSize})
        for (const auto& r : rows) {
            const char* name = query == &vlkrResizeGetBufSize ? " (resize)" : " (warp)";
            int size = -7;
            EXPECT_EQ(query(r.src, r.dst, r.channels, r.selector, r.nullSize ? nullptr : &size),
                      r.want)
                << r.what << name;
            EXPECT_EQ(size, -7) << r.what << name;
        }
    // The warp needs no work buffer, however large its cuboids.
    const Cuboid big{3, 9, 2, 400, 70, 300};
    for (int selector : kSelectors) {
        int size = -7;
        EXPECT_EQ(vlkrWarpAffineGetBufSize(&good, &big, 1, selector, &size), vlkStatusOk);
        EXPECT_EQ(size, 0) << selector;
    }
}

}  // namespace
