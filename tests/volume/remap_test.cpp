// Volume remap against a per-voxel reference: every voxel type and selector on random maps
// (points outside the cuboid, NaN and infinities among them), single-plane sources, the
// small-source fallbacks, exact points, the argument checks in order and the trimmed cuboid
// handed back, with canaries on every byte the library may not write.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "reference/remap_reference.h"
#include "vlkr.h"
#include "volume_ops.h"

namespace {

using namespace vlkr::test;
namespace ref = vlkr::reference;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

struct RemapCase {
    VolumeSize vol;
    Cuboid voi;
    VolumeSize dst;
};

std::string describe(const RemapCase& c, int selector)
{
    std::ostringstream os;
    print(os << "volume ", c.vol);
    print(os << " cuboid ", c.voi);
    print(os << " destination ", c.dst) << " selector " << selector;
    return os.str();
}

template <class T>
struct RemapRun {
    Grid<T> src;
    std::vector<Grid<float>> maps;
    Grid<T> dst;
    Cuboid voi;
};

// A coordinate for the box [lo, hi] on one axis: mostly inside, with its exact ends, integers
// and halves, points just outside, NaN and infinities.
float mapValue(std::mt19937& rng, int lo, int hi)
{
    const unsigned kind = rng() % 16;
    const float in = float(pick(rng, lo, hi)), inf = rng() % 2 ? kInf : -kInf;
    const float special[] = {kNaN, inf, float(lo), float(hi), hi + 1e-4f, lo - 1e-4f, in, in + .5f};
    if (kind < 8) return special[kind];
    return std::uniform_real_distribution<float>(lo - 0.4f, hi + 0.4f)(rng);
}

// Random source voxels and maps for the trimmed cuboid (the z map all NaN for a single-plane
// source, which must not read it), and a canary-filled destination. `odd` puts slack bytes in
// the source step, which the library drops, and starts destination and map rows at odd byte
// addresses.
template <class T>
RemapRun<T> makeRemap(const RemapCase& c, unsigned seed, bool odd)
{
    std::mt19937 rng(seed);
    const int slack = odd && sizeof(T) > 1 ? 1 + int(rng() % (sizeof(T) - 1)) : 0;
    const int srcStep = (c.vol.width + int(rng() % 3)) * int(sizeof(T)) + slack;
    Grid<T> src(c.vol, srcStep, srcStep - slack, rng, kPoison);
    for (int z = 0; z < c.vol.depth; ++z)
        for (int y = 0; y < c.vol.height; ++y)
            for (int x = 0; x < c.vol.width; ++x) src.set(x, y, z, randomVoxel<T>(rng));
    const int mapStep = (c.dst.width + int(rng() % 3)) * 4 + (odd ? 1 + 2 * int(rng() % 2) : 0);
    std::vector<Grid<float>> maps;
    for (int a = 0; a < 3; ++a) maps.emplace_back(c.dst, mapStep, mapStep, rng, kPoison, odd);
    Box b = trimmedBox(c.vol, c.voi);
    for (int a = 0; a < 3; ++a)
        b.lo[a] = std::max(b.lo[a], 0), b.hi[a] = std::max(b.hi[a], b.lo[a]);
    for (int z = 0; z < c.dst.depth; ++z)
        for (int y = 0; y < c.dst.height; ++y)
            for (int x = 0; x < c.dst.width; ++x)
                for (int a = 0; a < 3; ++a)
                    maps[a].set(x, y, z, a < b.dims ? mapValue(rng, b.lo[a], b.hi[a]) : kNaN);
    auto dst = Grid<T>::padded(c.dst, rng, kCanary, odd ? 1 : 0, odd ? 3 : 0);
    return {std::move(src), std::move(maps), std::move(dst), c.voi};
}

template <class T>
vlkStatus callRemap(RemapRun<T>& r, const RemapCase& c, int selector)
{
    r.voi = c.voi;
    return Ops<T>::remap(r.src.planes.data(), &c.vol, r.src.step, &r.voi, r.maps[0].planes.data(),
                         r.maps[1].planes.data(), r.maps[2].planes.data(), r.maps[0].step,
                         r.dst.planes.data(), r.dst.step, &c.dst, selector);
}

// The cuboid as handed back (trimmed by the volume path only), every destination voxel whose
// map point lies in the trimmed cuboid against the reference (exactly for nearest and for
// integer trilinear), every other destination byte still canary. Returns the voxels written.
template <class T>
int checkRemap(RemapRun<T>& r, const RemapCase& c, int selector)
{
    const Box b = trimmedBox(c.vol, c.voi);
    Cuboid trimmed = c.voi;
    if (b.dims == 3) {
        trimmed.width = b.hi[0] - b.lo[0] + 1, trimmed.height = b.hi[1] - b.lo[1] + 1;
        trimmed.depth = b.hi[2] - b.lo[2] + 1;
    }
    EXPECT_TRUE(same(r.voi, trimmed)) << "cuboid handed back wrong";
    int smallest = std::min(c.vol.width, c.vol.height);
    if (b.dims == 3) smallest = std::min(smallest, c.vol.depth);
    const int sel = ref::fallbackSelector(selector, smallest);
    const bool exact = sel == vlkInterNearest || (sel == vlkInterLinear && sizeof(T) < 4);
    auto read = [&r](int x, int y, int z) { return double(r.src.get(x, y, z)); };
    int written = 0, bad = 0;
    std::ostringstream first;
    for (int z = 0; z < (b.dims == 2 ? 1 : c.dst.depth); ++z)
        for (int y = 0; y < c.dst.height; ++y)
            for (int x = 0; x < c.dst.width; ++x) {
                const float p[3] = {r.maps[0].get(x, y, z), r.maps[1].get(x, y, z),
                                    r.maps[2].get(x, y, z)};
                const T got = r.dst.get(x, y, z);
                r.dst.reset(x, y, z);
                double want = 0, magnitude = 0;
                if (!ref::remapSample(read, b.lo, b.hi, b.dims, sel, p, &want, &magnitude))
                    continue;
                ++written;
                if (!agrees(got, want, magnitude, exact) && bad++ == 0)
                    first << "(" << x << "," << y << "," << z << ") at " << p[0] << "," << p[1]
                          << "," << p[2] << " got " << +got << " want " << want;
            }
    EXPECT_EQ(bad, 0) << "voxels off the reference, first " << first.str();
    EXPECT_TRUE(r.dst.allBytes(kCanary)) << "a byte outside the written voxels changed";
    return written;
}

// Mostly 4 to 9 voxels a side, now and then 1 to 3; cuboids anywhere, often past the volume.
RemapCase randomRemap(std::mt19937& rng, bool planar)
{
    auto side = [&](int most) { return rng() % 5 ? pick(rng, 4, most) : pick(rng, 1, 3); };
    RemapCase c{};
    c.vol = {side(9), side(8), planar ? 1 : rng() % 5 ? pick(rng, 4, 7) : pick(rng, 2, 3)};
    const int size[3] = {c.vol.width, c.vol.height, c.vol.depth};
    int at[3], extent[3];
    for (int a = 0; a < 3; ++a) {
        at[a] = rng() % 4 ? pick(rng, 0, (size[a] - 1) / 2) : size[a] - 1;
        extent[a] = pick(rng, 1, size[a] - at[a] + 3);
    }
    c.voi = {at[0], at[1], at[2], extent[0], extent[1], extent[2]};
    c.dst = {pick(rng, 2, 9), pick(rng, 2, 8), planar ? 2 : pick(rng, 1, 6)};
    return c;
}

template <class T>
class RemapTyped : public ::testing::Test {
};
TYPED_TEST_SUITE(RemapTyped, VoxelTypes, VoxelNames);

template <class T>
void randomCases(bool planar, std::initializer_list<int> selectors, int trials)
{
    int written = 0;
    for (int selector : selectors)
        for (int trial = 0; trial < trials; ++trial) {
            const unsigned seed = (planar ? 9000u : 3000u) + unsigned(selector * 100 + trial);
            std::mt19937 rng(seed);
            const RemapCase c = randomRemap(rng, planar);
            SCOPED_TRACE("seed " + std::to_string(seed) + " " + describe(c, selector) +
                         (trial % 2 ? " odd rows" : ""));
            RemapRun<T> r = makeRemap<T>(c, seed, trial % 2);
            EXPECT_EQ(callRemap(r, c, selector), vlkStatusOk);
            written += checkRemap(r, c, selector);
        }
    EXPECT_GT(written, (planar ? 3 : 5) * trials * int(selectors.size()));
}

TYPED_TEST(RemapTyped, RandomMapsMatchTheReference)
{
    randomCases<TypeParam>(false, {1, 2, 4, 5, 6, 7}, 16);
}

TYPED_TEST(RemapTyped, SinglePlaneSourceRemapsIntoPlaneZero)
{
    randomCases<TypeParam>(true, {1, 2, 4, 6}, 8);
}

// Sources under 4 voxels on some axis remap cubics trilinearly; under 2, everything nearest.
// A single plane counts its width and height only.
TYPED_TEST(RemapTyped, SmallSourcesFallBackToSimplerKernels)
{
    const FallbackRow rows[] = {{{3, 6, 5}, {4, 5, 6, 7}, 2}, {{6, 5, 2}, {4, 5, 6, 7}, 2},
                                {{1, 6, 5}, {2, 4, 6, 7}, 1}, {{4, 1, 3}, {2, 4, 5, 6}, 1},
                                {{3, 6, 1}, {4, 6, 4, 6}, 2}, {{6, 1, 1}, {2, 4, 6, 2}, 1}};
    for (const auto& row : rows)
        for (int from : row.from) {
            const RemapCase c{row.vol, {0, 0, 0, 9, 9, 9}, {7, 6, 4}};
            SCOPED_TRACE(describe(c, from));
            RemapRun<TypeParam> a = makeRemap<TypeParam>(c, 21, true),
                                b = makeRemap<TypeParam>(c, 21, true);
            EXPECT_EQ(callRemap(a, c, from), vlkStatusOk);
            EXPECT_EQ(callRemap(b, c, row.to), vlkStatusOk);
            EXPECT_TRUE(a.dst.sameBytes(b.dst));
            EXPECT_GT(checkRemap(b, c, row.to), 0);
        }
}

// Points on and just past the cuboid's ends, NaN and infinities, halves, and an 8-bit
// trilinear 254.5 that rounds up.
TYPED_TEST(RemapTyped, ExactPointsAndBounds)
{
    using T = TypeParam;
    const RemapCase base{{6, 5, 4}, {1, 0, 0, 4, 9, 9}, {1, 1, 1}};
    auto f = [](int x, int y, int z) { return double(2 * x + 10 * y + 40 * z); };
    const struct {
        int selector;
        float p[3];
        double want;  // -1: voxel left alone
    } rows[] = {{1, {4, 1, 1}, f(4, 1, 1)},
                {1, {4.0001f, 1, 1}, -1},
                {1, {1, 1, 1}, f(1, 1, 1)},
                {1, {0.9999f, 1, 1}, -1},
                {1, {2.5f, 1.5f, 0.5f}, f(3, 2, 1)},
                {1, {2.4999f, 0, 3}, f(2, 0, 3)},
                {1, {1, 4, 3}, f(1, 4, 3)},
                {1, {kNaN, 1, 1}, -1},
                {1, {1, kInf, 1}, -1},
                {1, {1, 1, -kInf}, -1},
                {2, {1.5f, 0, 0}, 254.5},
                {2, {4, 4, 3}, f(4, 4, 3)},
                {2, {2.25f, 1.5f, 2}, 99.5},
                {2, {4, 4.0001f, 3}, -1},
                {2, {3, 2, kNaN}, -1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << "selector " << row.selector << " at " << row.p[0]
                                          << "," << row.p[1] << "," << row.p[2]);
        RemapRun<T> r = makeRemap<T>(base, 5, false);
        for (int z = 0; z < 4; ++z)
            for (int y = 0; y < 5; ++y)
                for (int x = 0; x < 6; ++x) r.src.set(x, y, z, T(f(x, y, z)));
        r.src.set(1, 0, 0, T(254)), r.src.set(2, 0, 0, T(255));
        for (int a = 0; a < 3; ++a) r.maps[a].set(0, 0, 0, row.p[a]);
        EXPECT_EQ(callRemap(r, base, row.selector), vlkStatusOk);
        if (row.want < 0) {
            EXPECT_TRUE(r.dst.allBytes(kCanary));
        } else {
            EXPECT_TRUE(agrees(r.dst.get(0, 0, 0), row.want, 0, true)) << +r.dst.get(0, 0, 0);
        }
    }
}

// ------------------------------------------------------------------ argument checks

// A valid trilinear remap of a 6x5x4 volume through a cuboid reaching past it; each row
// below breaks part of it. Single-plane rows use a 6x5x1 volume.
struct Args {
    VolumeSize vol{6, 5, 4}, dst{5, 4, 3};
    Cuboid voi{0, 0, 0, 9, 9, 9};
    int selector = vlkInterLinear, srcStep = INT_MIN, dstStep = INT_MIN, mapStep = INT_MIN;
    bool nullSrc = false, nullDst = false, nullMap[3] = {}, nullVol = false, nullVoi = false,
         nullDstVol = false;
};
void plane(Args& a)
{
    a.vol.depth = 1;
}

using Row = CheckRow<Args>;

const Row kRows[] = {
    {"valid arguments", [](Args&) {}, vlkStatusOk},
    {"null source", [](Args& a) { a.nullSrc = true; }, vlkStatusNullPtr},
    {"null destination", [](Args& a) { a.nullDst = true; }, vlkStatusNullPtr},
    {"null x map", [](Args& a) { a.nullMap[0] = true; }, vlkStatusNullPtr},
    {"null y map", [](Args& a) { a.nullMap[1] = true; }, vlkStatusNullPtr},
    {"null z map", [](Args& a) { a.nullMap[2] = true; }, vlkStatusNullPtr},
    {"null z map, single plane", [](Args& a) { a.nullMap[2] = true, plane(a); }, vlkStatusNullPtr},
    {"null volume record", [](Args& a) { a.nullVol = true; }, vlkStatusNullPtr},
    {"null cuboid", [](Args& a) { a.nullVoi = true; }, vlkStatusNullPtr},
    {"null destination volume", [](Args& a) { a.nullDstVol = true; }, vlkStatusNullPtr},
    {"null z map, width 0, selector 3",
     [](Args& a) { a.nullMap[2] = true, a.vol.width = 0, a.selector = 3; }, vlkStatusNullPtr},
    {"volume width 0", [](Args& a) { a.vol.width = 0; }, vlkStatusSize},
    {"volume height -1", [](Args& a) { a.vol.height = -1; }, vlkStatusSize},
    {"cuboid x -1", [](Args& a) { a.voi.x = -1; }, vlkStatusSize},
    {"cuboid height 0", [](Args& a) { a.voi.height = 0; }, vlkStatusSize},
    {"cuboid depth -2", [](Args& a) { a.voi.depth = -2; }, vlkStatusSize},
    {"destination width 0", [](Args& a) { a.dst.width = 0; }, vlkStatusSize},
    {"destination depth 0, selector 3", [](Args& a) { a.dst.depth = 0, a.selector = 3; },
     vlkStatusSize},
    {"cuboid at the width, volume depth 0", [](Args& a) { a.voi.x = 6, a.vol.depth = 0; },
     vlkStatusSize},
    {"single plane, cuboid depth 0", [](Args& a) { plane(a), a.voi.depth = 0; }, vlkStatusSize},
    {"selector 0", [](Args& a) { a.selector = 0; }, vlkStatusInterpolation},
    {"selector 3", [](Args& a) { a.selector = 3; }, vlkStatusInterpolation},
    {"selector 8", [](Args& a) { a.selector = 8; }, vlkStatusInterpolation},
    {"selector -1", [](Args& a) { a.selector = -1; }, vlkStatusInterpolation},
    {"selector 3, cuboid at the width", [](Args& a) { a.selector = 3, a.voi.x = 6; },
     vlkStatusInterpolation},
    {"cuboid x at the width", [](Args& a) { a.voi.x = 6; }, vlkStatusWrongIntersectVOI},
    {"cuboid y at the height", [](Args& a) { a.voi.y = 5; }, vlkStatusWrongIntersectVOI},
    {"cuboid z at the depth, zero steps",
     [](Args& a) { a.voi.z = 4, a.srcStep = a.dstStep = a.mapStep = 0; },
     vlkStatusWrongIntersectVOI},
    {"single plane", plane, vlkStatusOk},
    {"single plane, selector 4", [](Args& a) { plane(a), a.selector = 4; }, vlkStatusOk},
    {"single plane, selector 5", [](Args& a) { plane(a), a.selector = 5; }, vlkStatusInterpolation},
    {"single plane, selector 7", [](Args& a) { plane(a), a.selector = 7; }, vlkStatusInterpolation},
    {"single plane, selector 5, source step 0",
     [](Args& a) { plane(a), a.selector = 5, a.srcStep = 0; }, vlkStatusInterpolation},
    {"single plane, source step 0", [](Args& a) { plane(a), a.srcStep = 0; }, vlkStatusStep},
    {"single plane, destination step -4", [](Args& a) { plane(a), a.dstStep = -4; }, vlkStatusStep},
    {"single plane, map step 0", [](Args& a) { plane(a), a.mapStep = 0; }, vlkStatusStep},
    {"single plane, map step 1", [](Args& a) { plane(a), a.mapStep = 1; }, vlkStatusOk},
    {"single plane, source step 0, cuboid at the width",
     [](Args& a) { plane(a), a.srcStep = 0, a.voi.x = 6; }, vlkStatusStep},
    {"single plane, cuboid x at the width", [](Args& a) { plane(a), a.voi.x = 6; },
     vlkStatusWrongIntersectROI},
    {"single plane, cuboid y at the height", [](Args& a) { plane(a), a.voi.y = 5; },
     vlkStatusWrongIntersectROI},
};

// Every row: its status, a canary-filled destination left alone unless Ok, and the cuboid
// trimmed in place only when the volume path succeeds.
TYPED_TEST(RemapTyped, FirstFailingCheckDecidesAndNothingIsWritten)
{
    using T = TypeParam;
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.what);
        Args a;
        row.edit(a);
        CheckVolumes<T> v(16);
        const Cuboid voi = a.voi;
        auto maps = [&](int i) { return a.nullMap[i] ? nullptr : v.mapPlanes.data(); };
        const vlkStatus status = Ops<T>::remap(
            a.nullSrc ? nullptr : v.srcPlanes.data(), a.nullVol ? nullptr : &a.vol,
            a.srcStep == INT_MIN ? v.step : a.srcStep, a.nullVoi ? nullptr : &a.voi, maps(0),
            maps(1), maps(2), a.mapStep == INT_MIN ? v.side * 4 : a.mapStep,
            a.nullDst ? nullptr : v.dstPlanes.data(), a.dstStep == INT_MIN ? v.step : a.dstStep,
            a.nullDstVol ? nullptr : &a.dst, a.selector);
        EXPECT_EQ(status, row.want);
        Cuboid want = voi;
        if (status == vlkStatusOk && a.vol.depth > 1)
            want.width = 6, want.height = 5, want.depth = 4;
        EXPECT_TRUE(same(a.voi, want)) << "cuboid handed back wrong";
        EXPECT_TRUE(status == vlkStatusOk || !v.dstWritten()) << "destination written";
    }
}

// The volume path trims the caller's cuboid to the volume in place, origin unchanged; the
// single-plane path leaves it as it was (the check table covers errors and warnings).
TEST(RemapCuboid, VolumePathWritesTheTrimmedExtentsBack)
{
    const struct {
        VolumeSize vol;
        Cuboid voi;
        int selector;
        vlkStatus want;
        Cuboid after;
    } rows[] = {
        {{50, 6, 5}, {10, 0, 0, 100, 6, 5}, 2, vlkStatusOk, {10, 0, 0, 40, 6, 5}},
        {{6, 5, 4}, {2, 1, 3, 9, 9, 9}, 6, vlkStatusOk, {2, 1, 3, 4, 4, 1}},
        {{6, 5, 4}, {1, 1, 1, 2, 2, 2}, 1, vlkStatusOk, {1, 1, 1, 2, 2, 2}},
        {{6, 5, 4}, {1, 5, 0, 30, 30, 30}, 2, vlkStatusWrongIntersectVOI, {1, 5, 0, 30, 30, 30}},
        {{6, 5, 1}, {2, 1, 0, 30, 30, 30}, 2, vlkStatusOk, {2, 1, 0, 30, 30, 30}}};
    for (const auto& row : rows) {
        const RemapCase c{row.vol, row.voi, {4, 3, 2}};
        SCOPED_TRACE(describe(c, row.selector));
        RemapRun<Vlk32f> r = makeRemap<Vlk32f>(c, 8, false);
        EXPECT_EQ(callRemap(r, c, row.selector), row.want);
        EXPECT_TRUE(same(r.voi, row.after));
    }
}

}  // namespace
