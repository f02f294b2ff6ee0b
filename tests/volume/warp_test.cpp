// Volume affine warp against a per-point double reference in every voxel type and selector:
// random maps of volumes and single planes, axis-aligned maps held exact, the small-source
// fallbacks, the argument checks in order and failed allocations, with canaries on every
// destination byte the warp may not write.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/vlkcore_testing.h"
#include "reference/sample_reference.h"
#include "volume_ops.h"

namespace {

using namespace vlkr::test;
namespace ref = vlkr::reference;

struct WarpCase {
    VolumeSize vol;
    Cuboid src, dst;
    double c[3][4];
};

template <class T>
struct WarpRun {
    Grid<T> src, dst;
    vlkStatus status;
};

// A random source (poison outside the trimmed cuboid when no tap may reach there: every
// extent 2 or more) warped into a canary-filled destination; the same seed, the same grids.
template <class T>
WarpRun<T> runWarp(const WarpCase& w, int selector, unsigned seed)
{
    std::mt19937 rng(seed);
    Grid<T> src(w.vol, rng, kPoison, Layout::Planes, pick(rng, 0, sizeof(T) - 1));
    fillRandom(src, w.vol, rng);
    const ref::Box b = ref::trimmedBox(w.vol, w.src);
    if (b.hi[0] > b.lo[0] && b.hi[1] > b.lo[1] && (b.dims == 2 || b.hi[2] > b.lo[2]))
        for (int z = 0; z < w.vol.depth; ++z)
            for (int y = 0; y < w.vol.height; ++y)
                for (int x = 0; x < w.vol.width; ++x) {
                    const int p[3] = {x, y, z};
                    for (int a = 0; a < b.dims; ++a)
                        if (p[a] < b.lo[a] || p[a] > b.hi[a])
                            std::memset(src.address(x, y, z), kPoison, sizeof(T));
                }
    const Cuboid& d = w.dst;
    Grid<T> dst({d.x + d.width + 1, d.y + d.height + 1, d.z + d.depth + 1}, rng, kCanary,
                Layout::Planes, pick(rng, 0, sizeof(T) - 1));
    const vlkStatus status = Ops<T>::warp(src.planes.data(), &w.vol, src.step, &w.src,
                                          dst.planes.data(), dst.step, &w.dst, w.c, selector);
    return {std::move(src), std::move(dst), status};
}

// How far a check trusts the geometry: the warp steps its source points along x in double,
// so points within 1e-9 of an index edge may go either way and are not judged, nor (Random)
// points that close to the box's bounds; exactly representable steps may hold values exact.
enum class Judge { Random, ExactGeometry, ExactValues };

// Every destination voxel of the cuboid against the reference where its source point lies in
// the trimmed source cuboid, else untouched. Returns the number of voxels judged written.
template <class T>
int checkWarp(WarpRun<T>& run, const WarpCase& w, int selector, Judge judge = Judge::Random)
{
    const ref::Box b = ref::trimmedBox(w.vol, w.src);
    const ref::Inverse inv = ref::invert(w.c, b.dims == 2);
    const int sel = ref::fallbackSelector(selector, w.vol);
    const bool exact = judge == Judge::ExactValues || sel == vlkInterNearest;
    auto read = [&run](int x, int y, int z) { return double(run.src.get(x, y, z)); };
    const Cuboid& d = w.dst;
    const int begin[3] = {d.x, d.y, d.z};
    const int end[3] = {d.x + d.width, d.y + d.height, d.z + (b.dims == 2 ? 1 : d.depth)};
    int written = 0;
    checkVoxels(run.dst, begin, end, [&](int x, int y, int z, T got, bool untouched) {
        double s[3], magnitude = 0;
        bool inside = true;
        for (int a = 0; a < 3; ++a) {
            s[a] = inv.m[a][0] * x + inv.m[a][1] * y + inv.m[a][2] * z + inv.t[a];
            if (a == b.dims) break;
            const double r = s[a] + (sel == vlkInterNearest ? 0.5000001 : 1e-7);
            const double bound = std::min(std::fabs(s[a] - b.lo[a]), std::fabs(s[a] - b.hi[a]));
            if (std::fabs(r - std::round(r)) < 1e-9 || (judge == Judge::Random && bound < 1e-9))
                return true;  // may go either way
            inside = inside && b.lo[a] <= s[a] && s[a] <= b.hi[a];
        }
        if (!inside) return untouched;
        ++written;
        const double want = ref::sample<double>(read, b, sel, s, &magnitude);
        return agrees(got, want, magnitude, exact);
    });
    return written;
}

double uniform(std::mt19937& rng, double lo, double hi)
{
    return std::uniform_real_distribution<double>(lo, hi)(rng);
}

// A random map: scales of either sign on the diagonal and shears up to 0.6 (every fourth case
// positive scales alone), translated so that the source cuboid's centre lands near the
// destination cuboid's centre. Single-plane cases add a z row and column the warp ignores.
WarpCase randomWarp(std::mt19937& rng, bool planar, int trial)
{
    auto side = [&](int most) { return rng() % 6 ? pick(rng, 4, most) : pick(rng, 2, 3); };
    WarpCase w{};
    w.vol = planar ? VolumeSize{pick(rng, 5, 9), pick(rng, 5, 8), 1}
                   : VolumeSize{side(9), side(8), side(7)};
    const int size[3] = {w.vol.width, w.vol.height, w.vol.depth};
    int at[3], extent[3], dstAt[3], dstExtent[3];
    double from[3];
    for (int a = 0; a < 3; ++a) {
        const bool flat = planar && a == 2;
        at[a] = flat ? 0 : planar ? pick(rng, 0, size[a] - 5) : pick(rng, 0, (size[a] - 1) / 3);
        extent[a] = flat ? pick(rng, 1, 3) : pick(rng, planar ? 5 : 2, size[a] - at[a] + 2);
        dstAt[a] = pick(rng, 0, 3), dstExtent[a] = flat ? pick(rng, 1, 3) : pick(rng, 6, 12);
        from[a] = at[a] + 0.5 * (std::min(extent[a], size[a] - at[a]) - 1);
    }
    w.src = {at[0], at[1], at[2], extent[0], extent[1], extent[2]};
    w.dst = {dstAt[0], dstAt[1], dstAt[2], dstExtent[0], dstExtent[1], dstExtent[2]};
    for (int i = 0; i < 3; ++i) {
        w.c[i][3] = dstAt[i] + 0.5 * (dstExtent[i] - 1) + uniform(rng, -1.5, 1.5);
        for (int j = 0; j < 3; ++j) {
            const double sign = trial % 4 && rng() % 2 ? -1 : 1;
            w.c[i][j] = i == j      ? sign * uniform(rng, 0.7, 1.5)
                        : trial % 4 ? uniform(rng, -0.6, 0.6)
                                    : 0;
            w.c[i][3] -= w.c[i][j] * from[j];
        }
    }
    if (planar) {
        w.c[0][2] = uniform(rng, -1, 1), w.c[1][2] = uniform(rng, -1, 1);
        for (double& v : w.c[2]) v = uniform(rng, 0.5, 2);
    }
    return w;
}

template <class T>
class WarpTyped : public ::testing::Test {
};
TYPED_TEST_SUITE(WarpTyped, VoxelTypes);

TYPED_TEST(WarpTyped, RandomMapsOfVolumesAndPlanesMatchTheReference)
{
    for (bool planar : {false, true}) {
        int written = 0;
        for (int selector : kSelectors)
            for (int trial = 0; trial < 16; ++trial) {
                const unsigned seed = (planar ? 7000 : 1000) + unsigned(selector * 100 + trial);
                SCOPED_TRACE(::testing::Message() << "seed " << seed << " selector " << selector);
                std::mt19937 rng(seed);
                const WarpCase w = randomWarp(rng, planar, trial);
                WarpRun<TypeParam> run = runWarp<TypeParam>(w, selector, seed);
                EXPECT_EQ(run.status, vlkStatusOk);
                written += checkWarp(run, w, selector);
            }
        EXPECT_GT(written, 6 * 16 * (planar ? 10 : 20));
    }
}

// Maps with power-of-two steps put every source point on a voxel, halfway or a quarter of
// the way between two: nearest (the upper voxel at a half) and trilinear are exact, including
// where small sources fall back to them (under 4 voxels on a sampled axis cubic becomes
// trilinear, under 2 everything nearest; a single plane counts its width and height only).
// A shift a hair past a half still rounds up; one voxel thick cuboids sample their layer.
TYPED_TEST(WarpTyped, AxisAlignedMapsAreExact)
{
    std::vector<WarpCase> cases;
    for (const Cuboid& src :
         {Cuboid{1, 2, 1, 5, 3, 9}, Cuboid{0, 0, 0, 1, 5, 4}, Cuboid{3, 1, 0, 1, 3, 4},
          Cuboid{0, 2, 1, 6, 1, 2}, Cuboid{1, 1, 3, 4, 3, 1}})
        for (double shift : {0.0, 0.5, 0.50000005})
            if (shift == 0 || src.width > 1)  // else no point lands on the layer
                cases.push_back({{7, 6, 5},
                                 src,
                                 {0, 0, 0, 9, 12, 7},
                                 {{1, 0, 0, shift}, {0, 2, 0, 0}, {0, 0, 1, 0}}});
    for (const VolumeSize& vol : {VolumeSize{3, 3, 3}, VolumeSize{8, 7, 3}, VolumeSize{1, 6, 5},
                                  VolumeSize{1, 4, 3}, VolumeSize{3, 7, 1}, VolumeSize{6, 3, 1}})
        cases.push_back({vol,
                         {0, 0, 0, 9, 9, 9},
                         {0, 0, 1, 11, 11, 9},
                         {{1, 0, 0, 0}, {0, 2, 0, 0.5}, {0, 0, 0.5, 0.25}}});
    for (const WarpCase& w : cases)
        for (int selector : kSelectors) {
            SCOPED_TRACE(::testing::Message()
                         << "case " << (&w - cases.data()) << " selector " << selector);
            const int sel = ref::fallbackSelector(selector, w.vol);
            const bool exact = sel == 1 || (sel == 2 && w.c[0][3] != 0.50000005);
            WarpRun<TypeParam> run = runWarp<TypeParam>(w, selector, 11);
            EXPECT_EQ(run.status, vlkStatusOk);
            EXPECT_GT(
                checkWarp(run, w, selector, exact ? Judge::ExactValues : Judge::ExactGeometry), 0);
        }
}

// The single-plane warp takes its coordinate rows from vlkMalloc: failing any allocation
// returns NoMemory with the destination untouched, and every byte is given back.
TYPED_TEST(WarpTyped, PlanarFailedAllocationReturnsNoMemoryAndFreesEverything)
{
    const WarpCase w{{8, 7, 1},
                     {0, 0, 0, 8, 7, 1},
                     {0, 0, 1, 12, 11, 1},
                     {{0.9, 0.4, 0, 1}, {-0.3, 1.1, 0, 2}, {0, 0, 1, 0}}};
    const long long live = vlkTestLiveBytes();
    for (int selector : kSelectors)
        for (long long k = 0, calls = 1; k <= calls; ++k) {
            vlkTestResetAllocations();
            vlkTestFailAllocationAt(k);
            const WarpRun<TypeParam> run = runWarp<TypeParam>(w, selector, 9);
            if (k == 0) calls = std::max(1LL, vlkTestAllocationCalls());  // then fail each
            EXPECT_EQ(run.status, k ? vlkStatusNoMemory : vlkStatusOk) << selector << " " << k;
            EXPECT_EQ(run.dst.allBytes(kCanary), k > 0);
            EXPECT_EQ(vlkTestLiveBytes(), live);
        }
    vlkTestResetAllocations();
}

// ------------------------------------------------------------------ argument checks

// A valid trilinear warp of a 6x5x4 volume; single-plane rows start from a 6x5x1 volume, an
// x-y map and destination plane 2.
struct Args {
    VolumeSize vol{6, 5, 4};
    Cuboid src{0, 0, 0, 6, 5, 4}, dst{0, 0, 0, 9, 8, 7};
    double c[3][4]{{1.2, 0.1, 0, 0.5}, {0, 1.1, 0.2, 0.3}, {0.1, 0, 1.3, 0.2}};
    int selector = vlkInterLinear;
    bool nullSrc = false, nullDst = false, nullVol = false, nullSrcVoi = false, nullDstVoi = false;
};
void set(Args& a, const double (&c)[12]) { std::memcpy(a.c, c, sizeof a.c); }
void permute(Args& a) { set(a, {0, 1, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0}); }
void scaleZ(Args& a, double z) { set(a, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, z, 0}); }

const double kNaN = std::numeric_limits<double>::quiet_NaN();
using Row = CheckRow<Args>;

// The matrix check looks at the diagonal and the y-z rows only: an axis permutation fails
// though invertible, x and y rows in proportion pass and the determinant then stops the warp;
// below 1e-10 it is a success that writes nothing.
const std::vector<Row> kVolumeRows = {
    {"null source", [](Args& a) { a.nullSrc = true; }, vlkStatusNullPtr},
    {"null destination", [](Args& a) { a.nullDst = true; }, vlkStatusNullPtr},
    {"null volume record", [](Args& a) { a.nullVol = true; }, vlkStatusNullPtr},
    {"null source cuboid", [](Args& a) { a.nullSrcVoi = true; }, vlkStatusNullPtr},
    {"null destination cuboid", [](Args& a) { a.nullDstVoi = true; }, vlkStatusNullPtr},
    {"volume depth 0", [](Args& a) { a.vol.depth = 0; }, vlkStatusSize},
    {"source height 0", [](Args& a) { a.src.height = 0; }, vlkStatusSize},
    {"destination z -1", [](Args& a) { a.dst.z = -1; }, vlkStatusSize},
    {"permuted axes", permute, vlkStatusCoeff},
    {"permuted, x diagonal 1e-100", [](Args& a) { permute(a), a.c[0][0] = 1e-100; },
     vlkStatusCoeff},
    {"y row twice z",
     [](Args& a) {
         set(a, {1, 0, 0, 0, .2, 2.6, .4, 0, .1, 1.3, .2, 0});
     },
     vlkStatusCoeff},
    {"y, z 1e-12 apart",
     [](Args& a) {
         set(a, {1, 0, 0, 0, .3, 1, 2, 0, .3, 1, 2 + 2e-12, 0});
     },
     vlkStatusCoeff},
    {"selector 3", [](Args& a) { a.selector = 3; }, vlkStatusInterpolation},
    {"source x at the width", [](Args& a) { a.src.x = 6; }, vlkStatusWrongIntersectVOI},
    {"source y at the height", [](Args& a) { a.src.y = 5; }, vlkStatusWrongIntersectVOI},
    {"source z at the depth", [](Args& a) { a.src.z = 4; }, vlkStatusWrongIntersectVOI},
    {"det 0.99e-10", [](Args& a) { scaleZ(a, 0.99e-10); }, vlkStatusOk},
    {"x row twice y",
     [](Args& a) {
         set(a, {0, 2, .4, 0, 0, 1, .2, 0, 0, 0, 1, 0});
     },
     vlkStatusOk},
    {"destination beside the image", [](Args& a) { a.dst = {10, 0, 0, 5, 8, 7}; }, vlkStatusOk},
    {"permuted, x diagonal 1e-99", [](Args& a) { permute(a), a.c[0][0] = 1e-99; }, vlkStatusOk,
     true},
    {"source past the volume", [](Args& a) { a.src = {2, 1, 0, 20, 20, 20}; }, vlkStatusOk, true},
    {"det 1e-10", [](Args& a) { scaleZ(a, 1e-10); }, vlkStatusOk, true},
    {"det -1e-10", [](Args& a) { scaleZ(a, -1e-10); }, vlkStatusOk, true},
    {"y, z 1e-6 apart",
     [](Args& a) {
         set(a, {1, 0, 0, 0, 0, 1, 1, 0, 0, 1, 1 + 1e-6, 0});
     },
     vlkStatusOk, true},
};

// A single-plane source: NaN coefficients, a singular x-y map (reported as NoMemory), an
// origin off plane 0 and a target region at most one voxel wide have statuses of their own;
// the z row and the cuboid's depth do not matter.
const std::vector<Row> kPlaneRows = {
    {"permuted", permute, vlkStatusCoeff},
    {"selector 3", [](Args& a) { a.selector = 3; }, vlkStatusInterpolation},
    {"c01 NaN", [](Args& a) { a.c[0][1] = kNaN; }, vlkStatusBadArg},
    {"c13 NaN", [](Args& a) { a.c[1][3] = kNaN; }, vlkStatusBadArg},
    {"singular", [](Args& a) { a.c[0][0] = 1, a.c[0][1] = 2, a.c[1][0] = 2, a.c[1][1] = 4; },
     vlkStatusNoMemory},
    {"source z 1", [](Args& a) { a.src.z = 1; }, vlkStatusWrongIntersectVOI},
    {"source x at the width", [](Args& a) { a.src.x = 6; }, vlkStatusWrongIntersectVOI},
    {"source y at the height", [](Args& a) { a.src.y = 5; }, vlkStatusWrongIntersectVOI},
    {"destination width 1", [](Args& a) { a.dst.width = 1; }, vlkStatusRegionTooSmall},
    // The image starts at x = 0.5 but at y = -0.1: one row of voxels, or none, is too little.
    {"destination height 1", [](Args& a) { a.dst.height = 1; }, vlkStatusRegionTooSmall},
    {"destination beside the image", [](Args& a) { a.dst.x = 12, a.dst.width = 3; },
     vlkStatusRegionTooSmall},
    {"z scale 1e-12", [](Args& a) { a.c[2][2] = 1e-12; }, vlkStatusOk, true},
    {"z shift NaN", [](Args& a) { a.c[2][3] = kNaN; }, vlkStatusOk, true},
    {"cuboid depth 5", [](Args& a) { a.src.depth = 5; }, vlkStatusOk, true},
};

TYPED_TEST(WarpTyped, FirstFailingCheckDecidesAndNothingIsWritten)
{
    using T = TypeParam;
    auto run = [](const Args& a, bool* written) {
        CheckVolumes<T> v;
        const vlkStatus status = Ops<T>::warp(
            a.nullSrc ? nullptr : v.srcPlanes.data(), a.nullVol ? nullptr : &a.vol, v.kStep,
            a.nullSrcVoi ? nullptr : &a.src, a.nullDst ? nullptr : v.dstPlanes.data(), v.kStep,
            a.nullDstVoi ? nullptr : &a.dst, a.c, a.selector);
        *written = v.dstWritten();
        return status;
    };
    checkInOrder(kVolumeRows, Args{}, run);
    Args plane;
    set(plane, {1.1, 0.2, 0, 0.5, -0.1, 1.2, 0, 0.4, 0, 0, 1, 0});
    plane.vol.depth = 1, plane.src.depth = 1, plane.dst.z = 2, plane.dst.depth = 1;
    checkInOrder(kPlaneRows, plane, run);
}

}  // namespace

namespace {

// The coefficient matrix may sit at any byte address: the identity read through an odd
// address copies the source cuboid.
TEST(WarpChecks, MatrixAtAnOddAddress)
{
    const double identity[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
    alignas(16) unsigned char bytes[sizeof identity + 16];
    std::memcpy(bytes + 3, identity, sizeof identity);
    Vlk8u src[2][4], dst[2][4] = {};
    for (int i = 0; i < 8; ++i) src[i / 4][i % 4] = Vlk8u(10 + i);
    const Vlk8u* srcPlanes[2] = {src[0], src[1]};
    Vlk8u* dstPlanes[2] = {dst[0], dst[1]};
    const VolumeSize volume{2, 2, 2};
    const Cuboid box{0, 0, 0, 2, 2, 2};
    EXPECT_EQ(vlkrWarpAffine_8u_C1PV(srcPlanes, &volume, 2, &box, dstPlanes, 2, &box,
                                     reinterpret_cast<const double(*)[4]>(bytes + 3),
                                     vlkInterNearest),
              vlkStatusOk);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(dst[i / 4][i % 4], src[i / 4][i % 4]) << i;
}

}  // namespace
