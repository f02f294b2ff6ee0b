// Volume affine warp against a per-voxel double reference: every voxel type and selector on
// random rotations, scales and shears, single-plane sources, the small-source fallbacks, the
// argument checks in order, the degenerate matrices and allocation failures, with canaries on
// every byte the library may not write.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/vlkcore_testing.h"
#include "reference/warp_reference.h"
#include "vlkr.h"
#include "volume_ops.h"

namespace {

using namespace vlkr::test;
namespace ref = vlkr::reference;

const double kNaN = std::numeric_limits<double>::quiet_NaN();

struct WarpCase {
    VolumeSize vol;
    Cuboid src, dst;
    double c[3][4];
};

std::string describe(const WarpCase& w, int selector)
{
    std::ostringstream os;
    print(os << "volume ", w.vol);
    print(os << " src ", w.src);
    print(os << " dst ", w.dst) << " selector " << selector << " coeffs";
    for (const auto& row : w.c)
        for (double v : row) os << " " << v;
    return os.str();
}

template <class T>
struct WarpRun {
    Grid<T> src, dst;
    vlkStatus status;
};

// Warps a random source into a canary-filled destination one voxel larger than its cuboid on
// every side that can be; the same seed gives the same grids and voxels. Voxels outside the
// source cuboid stay poisoned when no tap may reach them (every extent of 2 or more).
template <class T>
WarpRun<T> runWarp(const WarpCase& w, int selector, unsigned seed)
{
    std::mt19937 rng(seed);
    auto src = Grid<T>::padded(w.vol, rng, kPoison);
    const Box b = trimmedBox(w.vol, w.src);
    bool confined = true;
    for (int a = 0; a < b.dims; ++a) confined = confined && b.hi[a] > b.lo[a];
    for (int z = 0; z < w.vol.depth; ++z)
        for (int y = 0; y < w.vol.height; ++y)
            for (int x = 0; x < w.vol.width; ++x) {
                const bool in = x >= b.lo[0] && x <= b.hi[0] && y >= b.lo[1] && y <= b.hi[1] &&
                                (b.dims == 2 || (z >= b.lo[2] && z <= b.hi[2]));
                if (in || !confined) src.set(x, y, z, randomVoxel<T>(rng));
            }
    const VolumeSize dstSize{w.dst.x + w.dst.width + 1, w.dst.y + w.dst.height + 1,
                             w.dst.z + w.dst.depth + 1};
    auto dst = Grid<T>::padded(dstSize, rng, kCanary);
    const vlkStatus status = Ops<T>::warp(src.planes.data(), &w.vol, src.step, &w.src,
                                          dst.planes.data(), dst.step, &w.dst, w.c, selector);
    return {std::move(src), std::move(dst), status};
}

// How far a check trusts the geometry: the library steps source points along x in double, so
// in general points within 1e-9 of an index edge or of the inside test's bounds may go either
// way and are not judged; with exactly representable steps only index edges are skipped, and
// the values may be held exact too.
enum class Judge { Random, ExactGeometry, ExactValues };

bool fragile(const double s[3], const Box& b, int selector, Judge judge)
{
    const double offset = selector == vlkInterNearest ? 0.5000001 : 1e-7;
    for (int a = 0; a < b.dims; ++a) {
        const double r = s[a] + offset, lo = std::fabs(s[a] - b.lo[a]),
                     hi = std::fabs(s[a] - b.hi[a]);
        if (std::fabs(r - std::round(r)) < 1e-9) return true;
        if (judge == Judge::Random && (lo < 1e-9 || hi < 1e-9)) return true;
    }
    return false;
}

// Every destination voxel whose source point lies in the trimmed source cuboid against the
// reference (exactly for nearest), every other destination byte still canary. Returns the
// number of voxels written.
template <class T>
int checkWarp(WarpRun<T>& run, const WarpCase& w, int selector, Judge judge = Judge::Random)
{
    const Box b = trimmedBox(w.vol, w.src);
    const ref::WarpInverse inv = b.dims == 2 ? ref::warpInversePlanar(w.c) : ref::warpInverse(w.c);
    int smallest = std::min(w.vol.width, w.vol.height);
    if (b.dims == 3) smallest = std::min(smallest, w.vol.depth);
    const int sel = ref::fallbackSelector(selector, smallest);
    auto read = [&run](int x, int y, int z) { return double(run.src.get(x, y, z)); };
    const int zEnd = b.dims == 2 ? w.dst.z + 1 : w.dst.z + w.dst.depth;
    int written = 0, bad = 0;
    std::ostringstream first;
    for (int z = w.dst.z; z < zEnd; ++z)
        for (int y = w.dst.y; y < w.dst.y + w.dst.height; ++y)
            for (int x = w.dst.x; x < w.dst.x + w.dst.width; ++x) {
                const T got = run.dst.get(x, y, z);
                run.dst.reset(x, y, z);
                double s[3];
                bool inside = true;
                for (int a = 0; a < 3; ++a) {
                    s[a] = inv.m[a][0] * x + inv.m[a][1] * y + inv.m[a][2] * z + inv.t[a];
                    inside = inside && b.lo[a] <= s[a] && s[a] <= b.hi[a];
                }
                if (!inside || fragile(s, b, sel, judge)) continue;
                ++written;
                double magnitude = 0;
                const double want = ref::warpSample(read, b.lo, b.hi, b.dims, sel, s, &magnitude);
                if (!agrees(got, want, magnitude,
                            judge == Judge::ExactValues || sel == vlkInterNearest) &&
                    bad++ == 0)
                    first << "(" << x << "," << y << "," << z << ") got " << +got << " want "
                          << want;
            }
    EXPECT_EQ(bad, 0) << "voxels off the reference, first " << first.str();
    EXPECT_TRUE(run.dst.allBytes(kCanary)) << "a byte outside the written voxels changed";
    return written;
}

double uniform(std::mt19937& rng, double lo, double hi)
{
    return std::uniform_real_distribution<double>(lo, hi)(rng);
}

// A random rotation (every fourth case none) times per-axis scales and a little shear,
// translated so that the source cuboid's centre lands near the destination cuboid's centre.
// Single-plane cases rotate in x-y only, with a random z row the warp must ignore.
WarpCase randomWarp(std::mt19937& rng, bool planar, int trial)
{
    auto side = [&](int most) { return rng() % 6 ? pick(rng, 4, most) : pick(rng, 2, 3); };
    WarpCase w{};
    w.vol = planar ? VolumeSize{pick(rng, 5, 9), pick(rng, 5, 8), 1}
                   : VolumeSize{side(9), side(8), side(7)};
    const int size[3] = {w.vol.width, w.vol.height, w.vol.depth};
    int at[3], extent[3], dstAt[3], dstExtent[3];
    for (int a = 0; a < 3; ++a) {
        if (planar && a == 2) {
            at[a] = 0, extent[a] = pick(rng, 1, 3);
        } else {
            at[a] = planar ? pick(rng, 0, size[a] - 5) : pick(rng, 0, (size[a] - 1) / 3);
            extent[a] = pick(rng, planar ? 5 : 2, size[a] - at[a] + 2);
        }
        dstAt[a] = pick(rng, 0, 3),
        dstExtent[a] = planar && a == 2 ? pick(rng, 1, 3) : pick(rng, 6, 12);
    }
    w.src = {at[0], at[1], at[2], extent[0], extent[1], extent[2]};
    w.dst = {dstAt[0], dstAt[1], dstAt[2], dstExtent[0], dstExtent[1], dstExtent[2]};

    double q[4], n = 0, a[3][3];
    for (double& v : q) v = std::normal_distribution<double>()(rng), n += v * v;
    for (double& v : q) v = trial % 4 ? v / std::sqrt(n) : 0;
    if (trial % 4 == 0) q[0] = 1;
    if (planar) q[1] = q[2] = 0, n = std::hypot(q[0], q[3]), q[0] /= n, q[3] /= n;
    const double qw = q[0], qx = q[1], qy = q[2], qz = q[3];
    const double r[3][3] = {
        {1 - 2 * (qy * qy + qz * qz), 2 * (qx * qy - qz * qw), 2 * (qx * qz + qy * qw)},
        {2 * (qx * qy + qz * qw), 1 - 2 * (qx * qx + qz * qz), 2 * (qy * qz - qx * qw)},
        {2 * (qx * qz - qy * qw), 2 * (qy * qz + qx * qw), 1 - 2 * (qx * qx + qy * qy)}};
    double shape[3][3] = {};
    for (int i = 0; i < 3; ++i) {
        shape[i][i] = uniform(rng, planar ? 0.9 : 0.7, 1.5);
        for (int j = i + 1; j < 3; ++j) shape[i][j] = uniform(rng, -0.3, 0.3);
    }
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            a[i][j] = 0;
            for (int k = 0; k < 3; ++k) a[i][j] += r[i][k] * shape[k][j];
        }
    const double from[3] = {at[0] + 0.5 * (std::min(extent[0], size[0] - at[0]) - 1),
                            at[1] + 0.5 * (std::min(extent[1], size[1] - at[1]) - 1),
                            at[2] + 0.5 * (std::min(extent[2], size[2] - at[2]) - 1)};
    for (int i = 0; i < 3; ++i) {
        const double to = dstAt[i] + 0.5 * (dstExtent[i] - 1) + uniform(rng, -1.5, 1.5);
        w.c[i][3] = to - (a[i][0] * from[0] + a[i][1] * from[1] + a[i][2] * from[2]);
        for (int j = 0; j < 3; ++j) w.c[i][j] = a[i][j];
    }
    if (planar) {
        w.c[0][2] = uniform(rng, -1, 1), w.c[1][2] = uniform(rng, -1, 1);
        for (int j = 0; j < 4; ++j) w.c[2][j] = uniform(rng, 0.5, 2);
    }
    return w;
}

template <class T>
class WarpTyped : public ::testing::Test {
};
TYPED_TEST_SUITE(WarpTyped, VoxelTypes, VoxelNames);

template <class T>
void randomCases(bool planar, unsigned seedBase, int trials)
{
    int written = 0;
    for (int selector : kSelectors)
        for (int trial = 0; trial < trials; ++trial) {
            const unsigned seed = seedBase + unsigned(selector * 100 + trial);
            std::mt19937 rng(seed);
            const WarpCase w = randomWarp(rng, planar, trial);
            SCOPED_TRACE("seed " + std::to_string(seed) + " " + describe(w, selector));
            WarpRun<T> run = runWarp<T>(w, selector, seed);
            EXPECT_EQ(run.status, vlkStatusOk);
            written += checkWarp(run, w, selector);
        }
    EXPECT_GT(written, 6 * (planar ? 15 : 20) * trials);
}

TYPED_TEST(WarpTyped, RandomMatricesMatchTheReference)
{
    randomCases<TypeParam>(false, 1000, 20);
}

TYPED_TEST(WarpTyped, SinglePlaneSourceWarpsItsPlaneIntoOneDestinationPlane)
{
    randomCases<TypeParam>(true, 7000, 8);
}

// ------------------------------------------------------------------ exact values

const WarpCase kIdentity{
    {7, 6, 5}, {1, 2, 1, 5, 3, 9}, {0, 0, 0, 9, 8, 7}, {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}};

// The identity copies the cuboid in place, nearest and trilinear bit for bit, the
// interpolating cubics nearly; shifted half a voxel along x, nearest takes the upper neighbour
// and trilinear the exact mean, which the integer types round half up.
TYPED_TEST(WarpTyped, IdentityAndHalfVoxelShiftAreExact)
{
    const struct {
        double shift;
        int selector, voxels;
        Judge judge;
    } rows[] = {{0, 1, 60, Judge::ExactValues},   {0, 2, 60, Judge::ExactValues},
                {0, 4, 60, Judge::ExactGeometry}, {0, 6, 60, Judge::ExactGeometry},
                {0.5, 1, 48, Judge::ExactValues}, {0.5, 2, 48, Judge::ExactValues}};
    for (const auto& r : rows) {
        WarpCase w = kIdentity;
        w.c[0][3] = r.shift;
        SCOPED_TRACE(describe(w, r.selector));
        WarpRun<TypeParam> run = runWarp<TypeParam>(w, r.selector, 11);
        EXPECT_EQ(run.status, vlkStatusOk);
        EXPECT_EQ(checkWarp(run, w, r.selector, r.judge), r.voxels);
    }
}

// A cuboid one voxel thick samples its single layer: trilinear reaches it from the voxel
// before with weight 0 (clamped to 0 at the volume's edge), cubic repeats it.
TYPED_TEST(WarpTyped, OneVoxelThickCuboidsSampleTheirLayer)
{
    const Cuboid cuboids[] = {
        {0, 0, 0, 1, 5, 4}, {3, 1, 0, 1, 3, 4}, {0, 2, 1, 6, 1, 2}, {1, 1, 3, 4, 3, 1}};
    for (const Cuboid& src : cuboids)
        for (int selector : kSelectors) {
            const WarpCase w{
                {6, 5, 4}, src, {0, 0, 0, 7, 10, 5}, {{1, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 1, 0}}};
            SCOPED_TRACE(describe(w, selector));
            WarpRun<TypeParam> run = runWarp<TypeParam>(w, selector, 13);
            EXPECT_EQ(run.status, vlkStatusOk);
            EXPECT_GT(checkWarp(run, w, selector, Judge::ExactGeometry), 0);
        }
}

// Sources under 4 voxels on some axis warp cubics trilinearly; under 2, everything nearest.
// A single plane counts its width and height only.
TYPED_TEST(WarpTyped, SmallSourcesFallBackToSimplerKernels)
{
    // Steps of powers of two keep the source points exact, so a one-voxel-wide source still
    // has points landing on it.
    const double c[3][4] = {{1, 0, 0, 0}, {0, 2, 0, 0.5}, {0, 0, 0.5, 0.25}};
    const FallbackRow rows[] = {{{3, 3, 3}, {4, 5, 6, 7}, 2}, {{8, 7, 3}, {4, 5, 6, 7}, 2},
                                {{1, 6, 5}, {2, 4, 6, 7}, 1}, {{1, 4, 3}, {2, 4, 5, 6}, 1},
                                {{3, 7, 1}, {4, 5, 6, 7}, 2}, {{6, 3, 1}, {4, 5, 6, 7}, 2}};
    for (const auto& r : rows)
        for (int from : r.from) {
            WarpCase w{r.vol, {0, 0, 0, 9, 9, 9}, {0, 0, 1, 11, 11, 9}, {}};
            std::memcpy(w.c, c, sizeof c);
            SCOPED_TRACE(describe(w, from));
            const WarpRun<TypeParam> a = runWarp<TypeParam>(w, from, 3);
            WarpRun<TypeParam> b = runWarp<TypeParam>(w, r.to, 3);
            EXPECT_EQ(a.status, vlkStatusOk);
            EXPECT_TRUE(a.dst.sameBytes(b.dst));
            EXPECT_GT(checkWarp(b, w, r.to, Judge::ExactGeometry), 0);
        }
}

// ------------------------------------------------------------------ argument checks

// A valid trilinear warp of a 6x5x4 volume; each row below breaks part of it. Single-plane
// rows use a 6x5x1 volume, an x-y rotation and destination plane 2.
struct Args {
    VolumeSize vol{6, 5, 4};
    Cuboid src{0, 0, 0, 6, 5, 4}, dst{0, 0, 0, 9, 8, 7};
    double c[3][4]{{1.2, 0.1, 0, 0.5}, {0, 1.1, 0.2, 0.3}, {0.1, 0, 1.3, 0.2}};
    int selector = vlkInterLinear;
    bool nullSrc = false, nullDst = false, nullVol = false, nullSrcVoi = false, nullDstVoi = false;
};
void set(Args& a, const double (&c)[12])
{
    std::memcpy(a.c, c, sizeof a.c);
}
void permute(Args& a)
{
    set(a, {0, 1, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0});
}
void scaleZ(Args& a, double z)
{
    set(a, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, z, 0});
}
void plane(Args& a)
{
    set(a, {1.1, 0.2, 0, 0.5, -0.1, 1.2, 0, 0.4, 0, 0, 1, 0});
    a.vol.depth = 1, a.src.depth = 1, a.dst.z = 2, a.dst.depth = 1;
}

using Row = CheckRow<Args>;

// The matrix check looks at the diagonal and the y-z rows only: an axis permutation fails
// though invertible, x and y rows in proportion pass and the determinant then stops the warp.
const Row kRows[] = {
    {"valid", [](Args&) {}, 0, true},
    {"null source", [](Args& a) { a.nullSrc = true; }, vlkStatusNullPtr, false},
    {"null destination", [](Args& a) { a.nullDst = true; }, vlkStatusNullPtr, false},
    {"null volume record", [](Args& a) { a.nullVol = true; }, vlkStatusNullPtr, false},
    {"null source cuboid", [](Args& a) { a.nullSrcVoi = true; }, vlkStatusNullPtr, false},
    {"null destination cuboid", [](Args& a) { a.nullDstVoi = true; }, vlkStatusNullPtr, false},
    {"null source, width 0, permuted",
     [](Args& a) { a.nullSrc = true, a.vol.width = 0, permute(a); }, vlkStatusNullPtr, false},
    {"volume depth 0", [](Args& a) { a.vol.depth = 0; }, vlkStatusSize, false},
    {"source x -1", [](Args& a) { a.src.x = -1; }, vlkStatusSize, false},
    {"source height 0", [](Args& a) { a.src.height = 0; }, vlkStatusSize, false},
    {"destination z -1", [](Args& a) { a.dst.z = -1; }, vlkStatusSize, false},
    {"destination width 0, permuted", [](Args& a) { a.dst.width = 0, permute(a); }, vlkStatusSize,
     false},
    {"permuted axes", permute, vlkStatusCoeff, false},
    {"permuted, x diagonal 1e-100", [](Args& a) { permute(a), a.c[0][0] = 1e-100; }, vlkStatusCoeff,
     false},
    {"permuted, x diagonal 1e-99", [](Args& a) { permute(a), a.c[0][0] = 1e-99; }, 0, true},
    {"y row zero",
     [](Args& a) {
         set(a, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0});
     },
     vlkStatusCoeff, false},
    {"y row twice z",
     [](Args& a) {
         set(a, {1, 0, 0, 0, .2, 2.6, .4, 0, .1, 1.3, .2, 0});
     },
     vlkStatusCoeff, false},
    {"y, z 1e-12 apart",
     [](Args& a) {
         set(a, {1, 0, 0, 0, .3, 1, 2, 0, .3, 1, 2 + 2e-12, 0});
     },
     vlkStatusCoeff, false},
    {"y, z rows 1e-6 apart",
     [](Args& a) {
         set(a, {1, 0, 0, 0, 0, 1, 1, 0, 0, 1, 1 + 1e-6, 0});
     },
     0, true},
    {"x row twice y",
     [](Args& a) {
         set(a, {0, 2, .4, 0, 0, 1, .2, 0, 0, 0, 1, 0});
     },
     0, false},
    {"permuted, selector 3", [](Args& a) { permute(a), a.selector = 3; }, vlkStatusCoeff, false},
    {"selector 0", [](Args& a) { a.selector = 0; }, vlkStatusInterpolation, false},
    {"selector 3", [](Args& a) { a.selector = 3; }, vlkStatusInterpolation, false},
    {"selector 8", [](Args& a) { a.selector = 8; }, vlkStatusInterpolation, false},
    {"selector 3, source x at the width", [](Args& a) { a.selector = 3, a.src.x = 6; },
     vlkStatusInterpolation, false},
    {"source x at the width", [](Args& a) { a.src.x = 6; }, vlkStatusWrongIntersectVOI, false},
    {"source y at the height", [](Args& a) { a.src.y = 5; }, vlkStatusWrongIntersectVOI, false},
    {"source z at the depth, det 1e-12", [](Args& a) { scaleZ(a, 1e-12), a.src.z = 4; },
     vlkStatusWrongIntersectVOI, false},
    {"source past the volume", [](Args& a) { a.src = {2, 1, 1, 20, 20, 20}; }, 0, true},
    {"det 0.99e-10", [](Args& a) { scaleZ(a, 0.99e-10); }, 0, false},
    {"det -0.99e-10", [](Args& a) { scaleZ(a, -0.99e-10); }, 0, false},
    {"det 1e-10", [](Args& a) { scaleZ(a, 1e-10); }, 0, true},
    {"det -1e-10", [](Args& a) { scaleZ(a, -1e-10); }, 0, true},
    {"image translated out", [](Args& a) { a.c[0][3] = -100; }, 0, false},
    {"destination beside the image", [](Args& a) { a.dst = {10, 0, 0, 5, 8, 7}; }, 0, false},
    {"plane", plane, 0, true},
    {"plane, volume height 0", [](Args& a) { plane(a), a.vol.height = 0; }, vlkStatusSize, false},
    {"plane, permuted", [](Args& a) { plane(a), permute(a); }, vlkStatusCoeff, false},
    {"plane, selector 3", [](Args& a) { plane(a), a.selector = 3; }, vlkStatusInterpolation, false},
    {"plane, z scale 1e-12", [](Args& a) { plane(a), a.c[2][2] = 1e-12; }, 0, true},
    {"plane, z shift NaN", [](Args& a) { plane(a), a.c[2][3] = kNaN; }, 0, true},
    {"plane, cuboid depth 5", [](Args& a) { plane(a), a.src.depth = 5; }, 0, true},
    {"plane, c01 NaN", [](Args& a) { plane(a), a.c[0][1] = kNaN; }, vlkStatusBadArg, false},
    {"plane, c11 NaN", [](Args& a) { plane(a), a.c[1][1] = kNaN; }, vlkStatusBadArg, false},
    {"plane, c13 NaN, source z 1", [](Args& a) { plane(a), a.c[1][3] = kNaN, a.src.z = 1; },
     vlkStatusBadArg, false},
    {"plane, singular",
     [](Args& a) { plane(a), a.c[0][0] = 1, a.c[0][1] = 2, a.c[1][0] = 2, a.c[1][1] = 4; },
     vlkStatusNoMemory, false},
    {"plane, x row 0, source z 1",
     [](Args& a) { plane(a), a.c[0][0] = a.c[0][1] = 0, a.src.z = 1; }, vlkStatusNoMemory, false},
    {"plane, source z 1", [](Args& a) { plane(a), a.src.z = 1; }, vlkStatusWrongIntersectVOI,
     false},
    {"plane, source x at the width", [](Args& a) { plane(a), a.src.x = 6; },
     vlkStatusWrongIntersectVOI, false},
    {"plane, source z 1, destination width 1",
     [](Args& a) { plane(a), a.src.z = 1, a.dst.width = 1; }, vlkStatusWrongIntersectVOI, false},
    {"plane, destination width 1", [](Args& a) { plane(a), a.dst.width = 1; },
     vlkStatusRegionTooSmall, false},
    {"plane, destination height 1", [](Args& a) { plane(a), a.dst.height = 1; },
     vlkStatusRegionTooSmall, false},
    {"plane, destination beside the image",
     [](Args& a) { plane(a), a.dst.x = 12, a.dst.width = 3; }, vlkStatusRegionTooSmall, false},
};

// Every row: its status, a canary-filled 16-cube destination changed exactly when the row
// writes, and neither cuboid written.
TYPED_TEST(WarpTyped, FirstFailingCheckDecidesAndNothingIsWritten)
{
    using T = TypeParam;
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.what);
        Args a;
        row.edit(a);
        CheckVolumes<T> v(16);
        const Cuboid srcVoi = a.src, dstVoi = a.dst;
        const auto* src = a.nullSrc ? nullptr : v.srcPlanes.data();
        auto* dst = a.nullDst ? nullptr : v.dstPlanes.data();
        EXPECT_EQ(
            Ops<T>::warp(src, a.nullVol ? nullptr : &a.vol, v.step, a.nullSrcVoi ? nullptr : &a.src,
                         dst, v.step, a.nullDstVoi ? nullptr : &a.dst, a.c, a.selector),
            row.want);
        EXPECT_EQ(v.dstWritten(), row.writes);
        EXPECT_TRUE(same(a.src, srcVoi) && same(a.dst, dstVoi)) << "a cuboid was written";
    }
}

// The single-plane warp takes its row buffers from vlkMalloc: failing any one of them
// returns NoMemory with the destination untouched and every byte given back.
TYPED_TEST(WarpTyped, PlanarFailedAllocationReturnsNoMemoryAndFreesEverything)
{
    using T = TypeParam;
    WarpCase w{{8, 7, 1},
               {0, 0, 0, 8, 7, 1},
               {0, 0, 1, 12, 11, 1},
               {{0.9, 0.4, 0, 1}, {-0.3, 1.1, 0, 2}, {0, 0, 1, 0}}};
    for (int selector : kSelectors) {
        SCOPED_TRACE(describe(w, selector));
        vlkTestResetAllocations();
        const long long live = vlkTestLiveBytes();
        WarpRun<T> ok = runWarp<T>(w, selector, 9);
        const long long calls = vlkTestAllocationCalls();
        EXPECT_EQ(ok.status, vlkStatusOk);
        EXPECT_GE(calls, 1);
        EXPECT_EQ(vlkTestLiveBytes(), live);
        for (long long k = 1; k <= calls; ++k) {
            vlkTestResetAllocations();
            vlkTestFailAllocationAt(k);
            const WarpRun<T> failed = runWarp<T>(w, selector, 9);
            EXPECT_EQ(failed.status, vlkStatusNoMemory) << "allocation " << k;
            EXPECT_TRUE(failed.dst.allBytes(kCanary)) << "allocation " << k;
            EXPECT_EQ(vlkTestLiveBytes(), live) << "allocation " << k;
        }
        vlkTestResetAllocations();
        EXPECT_GT(checkWarp(ok, w, selector), 40);
    }
}

}  // namespace
