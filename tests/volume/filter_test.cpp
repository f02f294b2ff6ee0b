// Volume filter against an exact integer reference: random volumes, kernels and anchors on
// every kernel path, plane arrays offset into longer arrays, wrapping sums, the three divisor
// modes with their ties and saturation, the work buffer at its queried size, and the argument
// checks in order, with canaries on every byte the library may not write.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfenv>
#include <climits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "reference/filter_reference.h"
#include "vlkr.h"
#include "volume_ops.h"

namespace {

using namespace vlkr::test;
namespace ref = vlkr::reference;

struct FilterCase {
    VolumeSize region, kernel;
    int anchor[3], divisor;
    int bits;  // weights from the signed range of this many bits; 0: voxels and weights +-2^15
};

std::string describe(const FilterCase& c)
{
    std::ostringstream os;
    print(os << "region ", c.region);
    print(os << " kernel ", c.kernel)
        << " anchor " << c.anchor[0] << "," << c.anchor[1] << "," << c.anchor[2] << " divisor "
        << c.divisor << " weight bits " << c.bits;
    return os.str();
}

// Layout 0 pads rows by whole elements, 1 adds a step byte the shift to elements drops, 2 is
// one block bottom up (negative steps) with that byte.
Grid<Vlk16s> makeGrid(VolumeSize s, std::mt19937& rng, unsigned char fill, int layout)
{
    if (layout == 2) return Grid<Vlk16s>::block(s, rng, fill, 1, true);
    const int pitch = (s.width + int(rng() % 3)) * 2;
    return Grid<Vlk16s>(s, pitch + layout, pitch, rng, fill);
}

struct FilterRun {
    Grid<Vlk16s> src, dst;
    int lo[3] = {};                     // the source voxel stored at (0, 0, 0)
    std::vector<const Vlk16s*> planes;  // null but for the planes the filter may read
    int base = 0;                       // planes[base] is source plane 0
    std::vector<int> kernel;
    int bufSize = 0, lead = 0, tail = 16;  // buffer: lead canaries, bufSize bytes, tail canaries
    std::vector<unsigned char> buffer;
    FilterRun(Grid<Vlk16s>&& s, Grid<Vlk16s>&& d) : src(std::move(s)), dst(std::move(d)) {}
    int at(int x, int y, int z) const { return src.get(x - lo[0], y - lo[1], z - lo[2]); }
};

// Random voxels exactly where a kernel of size `cover` reaches (x and y widened to take in
// 0, so every row origin handed over lies inside its allocation), random weights for
// c.kernel, and a canary-filled destination and work buffer.
FilterRun makeFilter(const FilterCase& c, unsigned seed, const VolumeSize& cover)
{
    std::mt19937 rng(seed);
    const int n[3] = {c.region.width, c.region.height, c.region.depth},
              k[3] = {cover.width, cover.height, cover.depth};
    int lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = c.anchor[a] - k[a] + 1, hi[a] = n[a] - 1 + c.anchor[a];
        if (a < 2) lo[a] = std::min(lo[a], 0), hi[a] = std::max(hi[a], 0);
    }
    const VolumeSize box{hi[0] - lo[0] + 1, hi[1] - lo[1] + 1, hi[2] - lo[2] + 1};
    auto end = [&rng](long long half) { return int(rng() % 2 ? -half : half - 1); };
    Grid<Vlk16s> src = makeGrid(box, rng, kPoison, int(rng() % 3));
    for (int z = 0; z < box.depth; ++z)
        for (int y = 0; y < box.height; ++y)
            for (int x = 0; x < box.width; ++x)
                src.set(x, y, z, Vlk16s(c.bits ? pick(rng, -32768, 32767) : end(32768)));
    FilterRun r(std::move(src), makeGrid(c.region, rng, kCanary, int(rng() % 3)));
    std::copy(lo, lo + 3, r.lo);
    r.base = std::max(0, -lo[2]) + pick(rng, 0, 2);
    r.planes.assign(std::size_t(r.base + hi[2] + 1 + pick(rng, 0, 2)), nullptr);
    for (int z = lo[2]; z <= hi[2]; ++z)
        r.planes[r.base + z] =
            reinterpret_cast<const Vlk16s*>(r.src.address(-lo[0], -lo[1], z - lo[2]));
    const long long half = 1LL << ((c.bits ? c.bits : 16) - 1);
    r.kernel.resize(std::size_t(c.kernel.width) * c.kernel.height * c.kernel.depth);
    for (int& w : r.kernel)
        w = c.bits ? int(std::uniform_int_distribution<long long>(-half, half - 1)(rng))
                   : end(half);
    EXPECT_EQ(vlkrFilterGetBufSize(&c.region, &c.kernel, 1, &r.bufSize), vlkStatusOk);
    r.lead = int(rng() % 16);
    r.buffer.assign(std::size_t(r.lead + r.bufSize + r.tail), kCanary);
    return r;
}

vlkStatus callFilter(FilterRun& r, const FilterCase& c, const int* kernel, const VolumeSize& kv,
                     bool withBuffer = true)
{
    return vlkrFilter_16s_C1PV(r.planes.data() + r.base, r.src.step, r.dst.planes.data(),
                               r.dst.step, &c.region, kernel, &kv, c.anchor, c.divisor,
                               withBuffer ? r.buffer.data() + r.lead : nullptr);
}

// Every region voxel against the reference, every other destination byte and every buffer
// byte outside the queried size still canary.
void checkFilter(FilterRun& r, const FilterCase& c)
{
    const int k[3] = {c.kernel.width, c.kernel.height, c.kernel.depth};
    auto read = [&r](int x, int y, int z) { return r.at(x, y, z); };
    int bad = 0;
    std::ostringstream first;
    for (int z = 0; z < c.region.depth; ++z)
        for (int y = 0; y < c.region.height; ++y)
            for (int x = 0; x < c.region.width; ++x) {
                const int sum = ref::filterSum(read, r.kernel.data(), k, c.anchor, x, y, z);
                const int want = ref::filterDivide(sum, c.divisor), got = r.dst.get(x, y, z);
                r.dst.reset(x, y, z);
                if (got != want && bad++ == 0)
                    first << "(" << x << "," << y << "," << z << ") sum " << sum << " got " << got
                          << " want " << want;
            }
    EXPECT_EQ(bad, 0) << "voxels off the reference, first " << first.str();
    EXPECT_TRUE(r.dst.allBytes(kCanary)) << "a destination byte outside the region changed";
    auto canary = [](unsigned char b) { return b == kCanary; };
    const auto& b = r.buffer;
    EXPECT_TRUE(std::all_of(b.begin(), b.begin() + r.lead, canary) &&
                std::all_of(b.end() - r.tail, b.end(), canary))
        << "work buffer written outside its queried size";
}

// Kernel sides 1 to 7, or 3 x 3 x 3 (shape 1), or width 5 (shape 2); anchors mostly inside
// the kernel; divisors of every mode.
FilterCase randomFilter(std::mt19937& rng, int shape)
{
    FilterCase c{};
    c.region = {pick(rng, 1, 13), pick(rng, 1, 5), pick(rng, 1, 4)};
    c.kernel = {pick(rng, 1, 7), pick(rng, 1, 7), pick(rng, 1, 7)};
    if (shape == 1) c.kernel = {3, 3, 3};
    if (shape == 2) c.kernel.width = 5;
    const int k[3] = {c.kernel.width, c.kernel.height, c.kernel.depth};
    for (int a = 0; a < 3; ++a)
        c.anchor[a] = rng() % 4 ? pick(rng, 0, k[a] - 1) : pick(rng, -3, k[a] + 2);
    const int bits[] = {0, 4, 12, 16, 17, 32};  // 16 bits and less take the pairwise path
    c.bits = bits[rng() % 6];
    const int divisors[] = {1,       1 << pick(rng, 1, 30), -(1 << pick(rng, 0, 30)),
                            INT_MIN, pick(rng, -100, 100),  int(rng())};
    c.divisor = divisors[rng() % 6];
    if (c.divisor == 0) c.divisor = 3;
    return c;
}

TEST(Filter, RandomVolumesMatchTheReference)
{
    for (int shape = 0; shape < 3; ++shape)
        for (int trial = 0; trial < 150; ++trial) {
            const unsigned seed = 4000u + unsigned(shape * 1000 + trial);
            std::mt19937 rng(seed);
            const FilterCase c = randomFilter(rng, shape);
            const bool withBuffer = trial % 5 != 0;
            SCOPED_TRACE("seed " + std::to_string(seed) + " " + describe(c) +
                         (withBuffer ? "" : " null buffer"));
            FilterRun r = makeFilter(c, seed, c.kernel);
            ASSERT_EQ(callFilter(r, c, r.kernel.data(), c.kernel, withBuffer), vlkStatusOk);
            checkFilter(r, c);
        }
}

// A 3 x 3 x 3 kernel grown by a zero plane, and a width-5 kernel by a zero column, keep every
// sum but leave the dedicated paths; with and without a buffer the bytes must not change.
TEST(Filter, DedicatedPathsMatchTheGenericPath)
{
    for (int shape = 1; shape < 3; ++shape)
        for (int trial = 0; trial < 40; ++trial) {
            const unsigned seed = 8000u + unsigned(shape * 1000 + trial);
            std::mt19937 rng(seed);
            const FilterCase c = randomFilter(rng, shape);
            const VolumeSize& k = c.kernel;
            const VolumeSize big =
                shape == 1 ? VolumeSize{3, 3, 4} : VolumeSize{6, k.height, k.depth};
            SCOPED_TRACE("seed " + std::to_string(seed) + " " + describe(c));
            FilterRun a = makeFilter(c, seed, big), b = makeFilter(c, seed, big),
                      d = makeFilter(c, seed, big);
            std::vector<int> grown(std::size_t(big.width) * big.height * big.depth, 0);
            for (int kk = 0; kk < k.depth; ++kk)
                for (int j = 0; j < k.height; ++j)
                    for (int i = 0; i < k.width; ++i)
                        grown[i + big.width * (j + big.height * kk)] =
                            a.kernel[i + k.width * (j + k.height * kk)];
            ASSERT_EQ(callFilter(a, c, a.kernel.data(), k), vlkStatusOk);
            ASSERT_EQ(callFilter(b, c, grown.data(), big), vlkStatusOk);
            ASSERT_EQ(callFilter(d, c, grown.data(), big, false), vlkStatusOk);
            EXPECT_TRUE(a.dst.sameBytes(b.dst)) << "generic path with buffer differs";
            EXPECT_TRUE(a.dst.sameBytes(d.dst)) << "generic path without buffer differs";
            checkFilter(a, c);
        }
}

// Two weights over a source of ones make the sum w0 + w1 (wrapping); every path, voxel and
// floating-point rounding mode must give the hand-worked value.
TEST(Filter, DivisorModesRoundHalfToEvenAndSaturate)
{
    const int kPow29 = 1 << 29, kPow30 = 1 << 30;
    const struct {
        int divisor;
        std::vector<std::array<int, 3>> sums;  // w0, w1, the voxel wanted
    } rows[] = {
        {1, {{100000, 0, 32767}, {-100000, 0, -32768}, {INT_MAX, 2, -32768}, {INT_MIN, -1, 32767}}},
        {1, {{INT_MIN, INT_MIN, 0}, {32768, -1, 32767}, {-32769, 2, -32767}}},
        {2, {{5, 0, 2}, {7, 0, 4}, {-5, 0, -2}, {-7, 0, -4}, {INT_MAX, INT_MAX, -1}}},
        {2, {{65535, 0, 32767}, {65533, 0, 32766}, {-65535, 0, -32768}}},
        {4, {{6, 0, 2}, {10, 0, 2}, {-10, 0, -2}, {-6, 0, -2}, {5, 0, 1}}},
        {65536, {{INT_MAX, 0, 32767}}},
        {kPow30, {{-1, 0, 0}, {-kPow29, 0, 0}, {3 * kPow29, 0, 2}, {-3 * kPow29, 0, -2}}},
        {1000, {{6500, 0, 6}, {7500, 0, 8}, {6501, 0, 7}}},
        {6, {{3, 0, 0}, {9, 0, 2}}},
        {3, {{98302, 0, 32767}, {98304, 0, 32767}, {-98305, 0, -32768}}},
        {33554434, {{16777217, 0, 0}, {83886085, 0, 2}}},  // not a float: 2^25 + 2
        {-1, {{INT_MIN, -1, -32768}}},
        {-2, {{7, 0, -4}, {-9, 0, 4}}},
        {-3, {{-7, 0, 2}}},
        {-4, {{10, 0, -2}, {-6, 0, 2}}},
        {INT_MIN, {{INT_MIN, 0, 1}, {kPow30, 0, 0}, {-kPow30, 0, 0}, {-3 * kPow29, 0, 1}}},
        {INT_MIN, {{INT_MAX, 0, -1}}}};
    const VolumeSize kernels[] = {{2, 1, 1}, {3, 3, 3}, {5, 1, 2}};
    const int kModes[] = {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO};
    for (const auto& row : rows)
        for (const auto& [w0, w1, want] : row.sums)
            for (const VolumeSize& kv : kernels)
                for (int mode = 0; mode < 4; ++mode) {
                    const bool withBuffer = mode % 2 == 0;
                    SCOPED_TRACE(::testing::Message()
                                 << w0 << " + " << w1 << " over " << row.divisor << " kernel "
                                 << kv.width << "x" << kv.height << "x" << kv.depth << " mode "
                                 << mode << (withBuffer ? "" : " null buffer"));
                    const FilterCase c{{6, 2, 2}, kv, {1, 0, 1}, row.divisor, 4};
                    FilterRun r = makeFilter(c, 77, kv);
                    for (auto& chunk : r.src.chunks)
                        for (std::size_t i = 0; i + 1 < chunk.size(); i += 2)
                            chunk[i] = 1, chunk[i + 1] = 0;
                    std::fill(r.kernel.begin(), r.kernel.end(), 0);
                    r.kernel.front() = w0, r.kernel.back() = w1;
                    std::fesetround(kModes[mode]);
                    const vlkStatus status = callFilter(r, c, r.kernel.data(), kv, withBuffer);
                    std::fesetround(FE_TONEAREST);
                    ASSERT_EQ(status, vlkStatusOk);
                    EXPECT_EQ(r.dst.get(0, 0, 0), want);
                    checkFilter(r, c);
                }
}

// The buffer ends exactly where its allocation does, so the sanitizers see an overrun too.
TEST(Filter, WorkBufferStaysWithinItsQueriedSizeAtAnyAlignment)
{
    for (int lead = 0; lead < 16; ++lead) {
        const unsigned seed = 600u + unsigned(lead);
        std::mt19937 rng(seed);
        FilterCase c = randomFilter(rng, 0);
        c.kernel.width = 4, c.anchor[0] = 1;  // never a dedicated path
        SCOPED_TRACE("seed " + std::to_string(seed) + " " + describe(c) + " lead " +
                     std::to_string(lead));
        FilterRun r = makeFilter(c, seed, c.kernel);
        EXPECT_EQ(r.bufSize, 4 * c.region.width + 64);
        r.lead = lead, r.tail = 0;
        r.buffer.assign(std::size_t(lead + r.bufSize), kCanary);
        ASSERT_EQ(callFilter(r, c, r.kernel.data(), c.kernel), vlkStatusOk);
        checkFilter(r, c);
    }
}

TEST(FilterBufSize, SizeIsFourBytesPerRegionColumnPlus64)
{
    for (int width : {1, 2, 3, 7, 100, 4096}) {
        const VolumeSize region{width, 3, 2}, kv{3, 1, 6};
        int size = -1;
        EXPECT_EQ(vlkrFilterGetBufSize(&region, &kv, 1, &size), vlkStatusOk);
        EXPECT_EQ(size, 4 * width + 64) << "width " << width;
    }
}

TEST(FilterBufSize, FirstFailingCheckDecidesAndNothingIsWritten)
{
    enum { kOut = 1, kRegion = 2, kKernel = 4 };  // which pointers are null
    const struct {
        const char* what;
        VolumeSize region, kernel;
        int nChannel, nulls;
        vlkStatus want;
    } rows[] = {{"valid", {5, 4, 3}, {3, 3, 3}, 1, 0, vlkStatusOk},
                {"null out, width 0, 2 channels", {0, 4, 3}, {3, 3, 3}, 2, kOut, vlkStatusNullPtr},
                {"null region record", {5, 4, 3}, {3, 3, 3}, 1, kRegion, vlkStatusNullPtr},
                {"null kernel record, depth 0", {5, 4, 3}, {3, 3, 0}, 1, kKernel, vlkStatusNullPtr},
                {"region width 0, 2 channels", {0, 4, 3}, {3, 3, 3}, 2, 0, vlkStatusSize},
                {"region height -1", {5, -1, 3}, {3, 3, 3}, 1, 0, vlkStatusSize},
                {"region depth 0", {5, 4, 0}, {3, 3, 3}, 1, 0, vlkStatusSize},
                {"kernel width -1", {5, 4, 3}, {-1, 3, 3}, 1, 0, vlkStatusSize},
                {"kernel height 0", {5, 4, 3}, {3, 0, 3}, 1, 0, vlkStatusSize},
                {"kernel depth 0, 0 channels", {5, 4, 3}, {3, 3, 0}, 0, 0, vlkStatusSize},
                {"0 channels", {5, 4, 3}, {3, 3, 3}, 0, 0, vlkStatusNumChannels},
                {"3 channels", {5, 4, 3}, {3, 3, 3}, 3, 0, vlkStatusNumChannels},
                {"-1 channels", {5, 4, 3}, {3, 3, 3}, -1, 0, vlkStatusNumChannels}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        int size = -12345;
        EXPECT_EQ(vlkrFilterGetBufSize(row.nulls & kRegion ? nullptr : &row.region,
                                       row.nulls & kKernel ? nullptr : &row.kernel, row.nChannel,
                                       row.nulls & kOut ? nullptr : &size),
                  row.want);
        EXPECT_EQ(size, row.want == vlkStatusOk ? 4 * 5 + 64 : -12345);
    }
}

// ------------------------------------------------------------------ argument checks

// A valid 3 x 3 x 3 box filter of a 5 x 4 x 3 region whose anchor keeps every read in a
// 16-voxel cube; each row below breaks part of it.
struct Args {
    VolumeSize region{5, 4, 3}, kernel{3, 3, 3};
    int divisor = 1, srcStep = INT_MIN, dstStep = INT_MIN;
    bool nullSrc = false, nullDst = false, nullKernel = false, nullRegion = false,
         nullKernelVolume = false, nullAnchor = false, nullBuffer = false;
};
using Row = CheckRow<Args>;

const Row kRows[] = {
    {"valid arguments", [](Args&) {}, vlkStatusOk, true},
    {"null buffer", [](Args& a) { a.nullBuffer = true; }, vlkStatusOk, true},
    {"divisor -1", [](Args& a) { a.divisor = -1; }, vlkStatusOk, true},
    {"divisor INT_MIN", [](Args& a) { a.divisor = INT_MIN; }, vlkStatusOk, true},
    {"zero steps", [](Args& a) { a.srcStep = a.dstStep = 0; }, vlkStatusOk, true},
    {"null source", [](Args& a) { a.nullSrc = true; }, vlkStatusNullPtr},
    {"null destination", [](Args& a) { a.nullDst = true; }, vlkStatusNullPtr},
    {"null kernel", [](Args& a) { a.nullKernel = true; }, vlkStatusNullPtr},
    {"null region record", [](Args& a) { a.nullRegion = true; }, vlkStatusNullPtr},
    {"null kernel volume record", [](Args& a) { a.nullKernelVolume = true; }, vlkStatusNullPtr},
    {"null source, region width 0, divisor 0",
     [](Args& a) { a.nullSrc = true, a.region.width = 0, a.divisor = 0; }, vlkStatusNullPtr},
    {"null kernel, null buffer, kernel depth 0",
     [](Args& a) { a.nullKernel = a.nullBuffer = true, a.kernel.depth = 0; }, vlkStatusNullPtr},
    {"region width 0", [](Args& a) { a.region.width = 0; }, vlkStatusSize},
    {"region height -1", [](Args& a) { a.region.height = -1; }, vlkStatusSize},
    {"region depth 0", [](Args& a) { a.region.depth = 0; }, vlkStatusSize},
    {"kernel width 0", [](Args& a) { a.kernel.width = 0; }, vlkStatusSize},
    {"kernel height -2", [](Args& a) { a.kernel.height = -2; }, vlkStatusSize},
    {"kernel depth 0, divisor 0", [](Args& a) { a.kernel.depth = 0, a.divisor = 0; },
     vlkStatusSize},
    {"null buffer, region width 0", [](Args& a) { a.nullBuffer = true, a.region.width = 0; },
     vlkStatusSize},
    {"null anchor, region depth 0", [](Args& a) { a.nullAnchor = true, a.region.depth = 0; },
     vlkStatusSize},
    {"divisor 0", [](Args& a) { a.divisor = 0; }, vlkStatusSize},
    {"null anchor, null buffer, divisor 0",
     [](Args& a) { a.nullAnchor = a.nullBuffer = true, a.divisor = 0; }, vlkStatusSize},
};

// Every row: its status, and a canary-filled destination written only when Ok.
TEST(FilterChecks, FirstFailingCheckDecidesAndNothingIsWritten)
{
    const std::vector<int> kernel(27, 1);
    const int anchor[3] = {2, 2, 2};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.what);
        Args a;
        row.edit(a);
        CheckVolumes<Vlk16s> v(16);
        std::vector<unsigned char> buffer(4 * 16 + 64);
        const vlkStatus status = vlkrFilter_16s_C1PV(
            a.nullSrc ? nullptr : v.srcPlanes.data(), a.srcStep == INT_MIN ? v.step : a.srcStep,
            a.nullDst ? nullptr : v.dstPlanes.data(), a.dstStep == INT_MIN ? v.step : a.dstStep,
            a.nullRegion ? nullptr : &a.region, a.nullKernel ? nullptr : kernel.data(),
            a.nullKernelVolume ? nullptr : &a.kernel, a.nullAnchor ? nullptr : anchor, a.divisor,
            a.nullBuffer ? nullptr : buffer.data());
        EXPECT_EQ(status, row.want);
        EXPECT_EQ(v.dstWritten(), row.writes) << "destination written or left alone wrongly";
        if (status == vlkStatusOk && a.divisor == 1) {
            EXPECT_EQ(v.dst[0], 27 * 7) << "box filter of sevens";
        }
    }
}

}  // namespace
