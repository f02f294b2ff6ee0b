// Volume remap against a per-point reference in every voxel type and selector: random maps
// (points on, inside and just past the cuboid's bounds, halves, NaN and infinities) of
// volumes and single planes, small sources included, with canaries on every byte the remap
// may not write and the trimmed cuboid handed back; the argument checks in order.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "reference/sample_reference.h"
#include "volume_ops.h"

namespace {

using namespace vlkr::test;
namespace ref = vlkr::reference;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// A coordinate for the box [lo, hi] on one axis: mostly inside, with its exact ends, integers
// and halves, points just outside, NaN and infinities.
float mapValue(std::mt19937& rng, int lo, int hi)
{
    const float in = float(pick(rng, lo, hi)), inf = rng() % 2 ? INFINITY : -INFINITY;
    const float picked[] = {kNaN, inf, float(lo), float(hi), hi + 1e-4f, lo - 1e-4f, in, in + .5f};
    const int kind = pick(rng, 0, 15);
    return kind < 8 ? picked[kind] : std::uniform_real_distribution<float>(lo - .4f, hi + .4f)(rng);
}

// One remap of a random volume (4 to 9 voxels a side, now and then 1 to 3) through random
// maps, the z map all NaN for a single-plane source, which must not read it. Odd seeds put
// slack bytes in the source step, which the remap drops, and start destination and map rows,
// whose byte steps it takes as they are, at odd addresses. Returns the voxels written.
template <class T>
int remapTrial(unsigned seed, bool planar, int selector)
{
    std::mt19937 rng(seed);
    auto side = [&](int most) { return rng() % 5 ? pick(rng, 4, most) : pick(rng, 1, 3); };
    const VolumeSize vol{side(9), side(8),
                         planar      ? 1
                         : rng() % 5 ? pick(rng, 4, 7)
                                     : pick(rng, 2, 3)};
    const VolumeSize size{pick(rng, 2, 9), pick(rng, 2, 8), planar ? 2 : pick(rng, 1, 6)};
    const int n[3] = {vol.width, vol.height, vol.depth};
    int at[3], extent[3];
    for (int a = 0; a < 3; ++a) {
        at[a] = rng() % 4 ? pick(rng, 0, (n[a] - 1) / 2) : n[a] - 1;
        extent[a] = pick(rng, 1, n[a] - at[a] + 3);
    }
    const Cuboid voi{at[0], at[1], at[2], extent[0], extent[1], extent[2]};
    const int odd = seed % 2;
    Grid<T> src(vol, rng, kPoison, Layout::Planes, odd * pick(rng, 0, sizeof(T) - 1));
    fillRandom(src, vol, rng);
    std::vector<Grid<float>> maps;
    const int mapSlack = odd * (1 + 2 * pick(rng, 0, 1));
    for (int a = 0; a < 3; ++a) {
        std::mt19937 same = rng;  // one step for the three maps
        maps.emplace_back(size, same, kPoison, Layout::Planes, mapSlack, true, odd);
    }
    const ref::Box b = ref::trimmedBox(vol, voi);
    for (int z = 0; z < size.depth; ++z)
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x < size.width; ++x)
                for (int a = 0; a < 3; ++a)
                    maps[a].set(x, y, z, a < b.dims ? mapValue(rng, b.lo[a], b.hi[a]) : kNaN);
    Grid<T> dst(size, rng, kCanary, Layout::Planes, odd, true, 3 * odd);
    Cuboid handed = voi, trimmed = voi;  // the volume path hands back the trimmed extents
    EXPECT_EQ(Ops<T>::remap(src.planes.data(), &vol, src.step, &handed, maps[0].planes.data(),
                            maps[1].planes.data(), maps[2].planes.data(), maps[0].step,
                            dst.planes.data(), dst.step, &size, selector),
              vlkStatusOk);
    if (!planar)
        trimmed.width = b.hi[0] - at[0] + 1, trimmed.height = b.hi[1] - at[1] + 1,
        trimmed.depth = b.hi[2] - at[2] + 1;
    EXPECT_EQ(std::memcmp(&handed, &trimmed, sizeof voi), 0) << "cuboid handed back wrong";
    const int sel = ref::fallbackSelector(selector, vol);
    auto read = [&src](int x, int y, int z) { return double(src.get(x, y, z)); };
    const int begin[3] = {0, 0, 0}, end[3] = {size.width, size.height, planar ? 1 : size.depth};
    int written = 0;
    checkVoxels(dst, begin, end, [&](int x, int y, int z, T got, bool untouched) {
        const float p[3] = {maps[0].get(x, y, z), maps[1].get(x, y, z), maps[2].get(x, y, z)};
        bool inside = true;
        for (int a = 0; a < b.dims; ++a) inside = inside && b.lo[a] <= p[a] && p[a] <= b.hi[a];
        if (!inside) return untouched;
        ++written;
        double magnitude = 0;
        const double want = ref::sample<float>(read, b, sel, p, &magnitude);
        return agrees(got, want, magnitude, sel <= vlkInterLinear);  // those exactly
    });
    return written;
}

template <class T>
class RemapTyped : public ::testing::Test {
};
TYPED_TEST_SUITE(RemapTyped, VoxelTypes);

// The single-plane form knows selectors 1, 2, 4 and 6 only.
TYPED_TEST(RemapTyped, RandomMapsOfVolumesAndPlanesMatchTheReference)
{
    for (bool planar : {false, true}) {
        int written = 0;
        for (int selector : kSelectors)
            for (unsigned trial = 0; trial < 16 && !(planar && (selector == 5 || selector == 7));
                 ++trial) {
                const unsigned seed = (planar ? 9000u : 3000u) + unsigned(selector * 100) + trial;
                SCOPED_TRACE(::testing::Message() << "seed " << seed << " selector " << selector);
                written += remapTrial<TypeParam>(seed, planar, selector);
            }
        EXPECT_GT(written, 16 * (planar ? 12 : 30));
    }
}

// ------------------------------------------------------------------ argument checks

// A valid trilinear remap of a 6x5x4 volume through a cuboid reaching past it; single-plane
// rows start from a 6x5x1 volume.
struct Args {
    VolumeSize vol{6, 5, 4}, dst{5, 4, 3};
    Cuboid voi{0, 0, 0, 9, 9, 9};
    int selector = vlkInterLinear, srcStep = 16, dstStep = 16, mapStep = 64;  // elements, bytes
    bool nullSrc = false, nullDst = false, nullMap[3] = {}, nullVol = false, nullVoi = false,
         nullDstVol = false;
};
using Row = CheckRow<Args>;

// Steps are not checked on the volume path.
const std::vector<Row> kVolumeRows = {
    {"null source", [](Args& a) { a.nullSrc = true; }, vlkStatusNullPtr},
    {"null destination", [](Args& a) { a.nullDst = true; }, vlkStatusNullPtr},
    {"null x map", [](Args& a) { a.nullMap[0] = true; }, vlkStatusNullPtr},
    {"null y map", [](Args& a) { a.nullMap[1] = true; }, vlkStatusNullPtr},
    {"null z map", [](Args& a) { a.nullMap[2] = true; }, vlkStatusNullPtr},
    {"null volume record", [](Args& a) { a.nullVol = true; }, vlkStatusNullPtr},
    {"null cuboid", [](Args& a) { a.nullVoi = true; }, vlkStatusNullPtr},
    {"null destination volume", [](Args& a) { a.nullDstVol = true; }, vlkStatusNullPtr},
    {"volume height -1", [](Args& a) { a.vol.height = -1; }, vlkStatusSize},
    {"cuboid depth -2", [](Args& a) { a.voi.depth = -2; }, vlkStatusSize},
    {"destination width 0", [](Args& a) { a.dst.width = 0; }, vlkStatusSize},
    {"selector 3", [](Args& a) { a.selector = 3; }, vlkStatusInterpolation},
    {"cuboid x at the width", [](Args& a) { a.voi.x = 6; }, vlkStatusWrongIntersectVOI},
    {"cuboid y at the height", [](Args& a) { a.voi.y = 5; }, vlkStatusWrongIntersectVOI},
    {"cuboid z at the depth", [](Args& a) { a.voi.z = 4; }, vlkStatusWrongIntersectVOI},
    {"zero steps", [](Args& a) { a.srcStep = a.dstStep = a.mapStep = 0; }, vlkStatusOk, true},
    {"valid", [](Args&) {}, vlkStatusOk, true},
};

// A single-plane source has its own selector set, step checks and origin status.
const std::vector<Row> kPlaneRows = {
    {"null z map", [](Args& a) { a.nullMap[2] = true; }, vlkStatusNullPtr},
    {"cuboid depth 0", [](Args& a) { a.voi.depth = 0; }, vlkStatusSize},
    {"selector 3", [](Args& a) { a.selector = 3; }, vlkStatusInterpolation},
    {"selector 5", [](Args& a) { a.selector = 5; }, vlkStatusInterpolation},
    {"selector 7", [](Args& a) { a.selector = 7; }, vlkStatusInterpolation},
    {"source step 0", [](Args& a) { a.srcStep = 0; }, vlkStatusStep},
    {"destination step -4", [](Args& a) { a.dstStep = -4; }, vlkStatusStep},
    {"map step 0", [](Args& a) { a.mapStep = 0; }, vlkStatusStep},
    {"cuboid x at the width", [](Args& a) { a.voi.x = 6; }, vlkStatusWrongIntersectROI},
    {"cuboid y at the height", [](Args& a) { a.voi.y = 5; }, vlkStatusWrongIntersectROI},
    {"selector 4", [](Args& a) { a.selector = 4; }, vlkStatusOk, true},
    {"map step 1", [](Args& a) { a.mapStep = 1; }, vlkStatusOk, true},
    {"valid", [](Args&) {}, vlkStatusOk, true},
};

// Every row: its status, the destination left alone unless Ok, and the cuboid trimmed in
// place only when the volume path succeeds.
TYPED_TEST(RemapTyped, FirstFailingCheckDecidesAndNothingIsWritten)
{
    using T = TypeParam;
    auto run = [](const Args& a, bool* written) {
        CheckVolumes<T> v;
        Cuboid voi = a.voi, want = a.voi;
        auto maps = [&](int i) { return a.nullMap[i] ? nullptr : v.mapPlanes.data(); };
        const vlkStatus status =
            Ops<T>::remap(a.nullSrc ? nullptr : v.srcPlanes.data(), a.nullVol ? nullptr : &a.vol,
                          a.srcStep * int(sizeof(T)), a.nullVoi ? nullptr : &voi, maps(0), maps(1),
                          maps(2), a.mapStep, a.nullDst ? nullptr : v.dstPlanes.data(),
                          a.dstStep * int(sizeof(T)), a.nullDstVol ? nullptr : &a.dst, a.selector);
        if (status == vlkStatusOk && a.vol.depth > 1)
            want.width = 6, want.height = 5, want.depth = 4;
        EXPECT_EQ(std::memcmp(&voi, &want, sizeof want), 0) << "cuboid handed back wrong";
        *written = v.dstWritten();
        return status;
    };
    checkInOrder(kVolumeRows, Args{}, run);
    Args plane;
    plane.vol.depth = 1;
    checkInOrder(kPlaneRows, plane, run);
}

}  // namespace
