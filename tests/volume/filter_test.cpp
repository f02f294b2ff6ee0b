// Volume filter against an exact integer reference: random volumes, kernels, anchors and
// divisors on every kernel path, plane arrays offset into longer arrays, the work buffer at
// its queried size and any alignment; the divisor modes' ties and saturation under every
// floating-point rounding mode; the buffer-size query and the argument checks in order.
#include <gtest/gtest.h>

#include <array>
#include <cfenv>
#include <climits>
#include <cstring>
#include <random>
#include <vector>

#include "reference/filter_reference.h"
#include "volume_ops.h"

namespace {

using namespace vlkr::test;
namespace ref = vlkr::reference;

struct FilterCase {
    VolumeSize region, kernel;
    int anchor[3], divisor;
    int bits;  // weights from the signed range of this many bits; 0: voxels and weights +-2^15
};

// A source holding random voxels exactly where the kernel reaches (x and y widened to take
// in 0, so every row origin handed over lies inside its allocation) with lo its first voxel,
// plane pointers into a longer array, random weights, a canary-filled destination and a work
// buffer of the queried size between canaries. Steps carry a byte the filter drops.
struct FilterRun {
    Grid<Vlk16s> src, dst;
    int lo[3] = {};
    std::vector<const Vlk16s*> planes = {};
    std::vector<int> kernel = {};
    std::vector<unsigned char> buffer = {};
    int base = 0, lead = 0;  // planes[base] is source plane 0; the buffer starts at lead
};

FilterRun makeFilter(const FilterCase& c, unsigned seed)
{
    std::mt19937 rng(seed);
    const int n[3] = {c.region.width, c.region.height, c.region.depth};
    const int k[3] = {c.kernel.width, c.kernel.height, c.kernel.depth};
    int lo[3], hi[3];
    for (int a = 0; a < 3; ++a)
        lo[a] = std::min(c.anchor[a] - k[a] + 1, a < 2 ? 0 : INT_MAX),
        hi[a] = std::max(n[a] - 1 + c.anchor[a], a < 2 ? 0 : INT_MIN);
    const Layout layouts[] = {Layout::Planes, Layout::Block, Layout::BottomUp};
    const VolumeSize box{hi[0] - lo[0] + 1, hi[1] - lo[1] + 1, hi[2] - lo[2] + 1};
    FilterRun r{Grid<Vlk16s>(box, rng, kPoison, layouts[pick(rng, 0, 2)], 1),
                Grid<Vlk16s>(c.region, rng, kCanary, layouts[pick(rng, 0, 2)], 1)};
    std::copy(lo, lo + 3, r.lo);
    r.base = std::max(0, -lo[2]) + pick(rng, 0, 2), r.lead = pick(rng, 0, 15);
    auto end = [&rng](long long half) { return int(rng() % 2 ? -half : half - 1); };
    for (int z = 0; z < box.depth; ++z)
        for (int y = 0; y < box.height; ++y)
            for (int x = 0; x < box.width; ++x)
                r.src.set(x, y, z, Vlk16s(c.bits ? pick(rng, -32768, 32767) : end(32768)));
    r.planes.assign(std::size_t(r.base + hi[2] + 1 + pick(rng, 0, 2)), nullptr);
    for (int z = lo[2]; z <= hi[2]; ++z)
        r.planes[r.base + z] =
            reinterpret_cast<const Vlk16s*>(r.src.address(-lo[0], -lo[1], z - lo[2]));
    const long long half = 1LL << ((c.bits ? c.bits : 16) - 1);
    r.kernel.resize(std::size_t(k[0]) * k[1] * k[2]);
    for (int& w : r.kernel)
        w = c.bits ? int(std::uniform_int_distribution<long long>(-half, half - 1)(rng))
                   : end(half);
    int size = 0;
    EXPECT_EQ(vlkrFilterGetBufSize(&c.region, &c.kernel, 1, &size), vlkStatusOk);
    r.buffer.assign(std::size_t(r.lead + size + 16), kCanary);
    return r;
}

// Calls the filter, then checks every region voxel against the reference, every other
// destination byte and the work buffer's surroundings untouched.
void runAndCheck(FilterRun& r, const FilterCase& c, bool withBuffer = true)
{
    ASSERT_EQ(vlkrFilter_16s_C1PV(r.planes.data() + r.base, r.src.step, r.dst.planes.data(),
                                  r.dst.step, &c.region, r.kernel.data(), &c.kernel, c.anchor,
                                  c.divisor, withBuffer ? r.buffer.data() + r.lead : nullptr),
              vlkStatusOk);
    const int k[3] = {c.kernel.width, c.kernel.height, c.kernel.depth};
    auto read = [&r](int x, int y, int z) {
        return r.src.get(x - r.lo[0], y - r.lo[1], z - r.lo[2]);
    };
    const int begin[3] = {0, 0, 0}, end[3] = {c.region.width, c.region.height, c.region.depth};
    checkVoxels(r.dst, begin, end, [&](int x, int y, int z, Vlk16s got, bool) {
        return got == ref::filterDivide(ref::filterSum(read, r.kernel.data(), k, c.anchor, x, y, z),
                                        c.divisor);
    });
    r.buffer.erase(r.buffer.begin() + r.lead, r.buffer.end() - 16);
    EXPECT_EQ(std::count(r.buffer.begin(), r.buffer.end(), kCanary), r.lead + 16)
        << "buffer overrun";
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
    c.bits = bits[pick(rng, 0, 5)];
    const int divisors[] = {1,       1 << pick(rng, 1, 30),    -(1 << pick(rng, 0, 30)),
                            INT_MIN, pick(rng, -100, 100) | 1, int(rng())};
    c.divisor = divisors[pick(rng, 0, 5)];
    return c;
}

// The generic path runs with the buffer, and (every fifth trial) without it.
TEST(Filter, RandomVolumesMatchTheReference)
{
    for (int shape = 0; shape < 3; ++shape)
        for (unsigned trial = 0; trial < 150; ++trial) {
            const unsigned seed = 4000u + unsigned(shape * 1000) + trial;
            SCOPED_TRACE(::testing::Message() << "seed " << seed);
            std::mt19937 rng(seed);
            const FilterCase c = randomFilter(rng, shape);
            FilterRun r = makeFilter(c, seed);
            runAndCheck(r, c, trial % 5 != 0);
        }
}

// Two weights over a source of ones make every sum w0 + w1 (wrapping): the hand-worked
// quotient, rounded half to even and saturated, on every path and floating-point rounding mode.
TEST(Filter, DivisorModesRoundHalfToEvenAndSaturate)
{
    const struct {
        int divisor;
        std::vector<std::array<int, 3>> sums;  // w0, w1, the voxel wanted
    } rows[] = {{1, {{100000, 0, 32767}, {INT_MAX, 2, -32768}, {INT_MIN, INT_MIN, 0}}},
                {2, {{5, 0, 2}, {7, 0, 4}, {-5, 0, -2}, {-65535, 0, -32768}}},
                {4, {{10, 0, 2}, {-6, 0, -2}}},
                {1 << 30, {{3 << 29, 0, 2}, {-(1 << 29), 0, 0}}},
                {1000, {{6500, 0, 6}, {7500, 0, 8}, {6501, 0, 7}}},
                {3, {{-98305, 0, -32768}}},
                {33554434, {{83886085, 0, 2}}},  // not a float: 2^25 + 2
                {-1, {{INT_MIN, 0, 32767}}},
                {-2, {{7, 0, -4}}},
                {-3, {{-7, 0, 2}}},
                {INT_MIN, {{INT_MIN, 0, 1}, {-(3 << 29), 0, 1}, {INT_MAX, 0, -1}}}};
    const int kModes[] = {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO};
    for (const auto& row : rows)
        for (const auto& [w0, w1, want] : row.sums) {
            EXPECT_EQ(ref::filterDivide(int(unsigned(w0) + unsigned(w1)), row.divisor), want);
            for (const VolumeSize& kv :
                 {VolumeSize{2, 1, 1}, VolumeSize{3, 3, 3}, VolumeSize{5, 1, 2}})
                for (int mode = 0; mode < 4; ++mode) {
                    SCOPED_TRACE(::testing::Message()
                                 << w0 << " + " << w1 << " over " << row.divisor << " kernel width "
                                 << kv.width << " mode " << mode);
                    const FilterCase c{{6, 2, 2}, kv, {1, 0, 1}, row.divisor, 4};
                    FilterRun r = makeFilter(c, 77);
                    for (auto& chunk : r.src.chunks)
                        for (std::size_t i = 0; i + 1 < chunk.size(); i += 2)
                            chunk[i] = 1, chunk[i + 1] = 0;
                    std::fill(r.kernel.begin(), r.kernel.end(), 0);
                    r.kernel.front() = w0, r.kernel.back() = w1;
                    std::fesetround(kModes[mode]);
                    runAndCheck(r, c, mode % 2 == 0);
                    std::fesetround(FE_TONEAREST);
                }
        }
}

// 4 bytes per region column plus 64, whatever the kernel; the checks in order; the size kept
// on failure.
TEST(FilterBufSize, SizeAndFirstFailingCheck)
{
    const struct {
        VolumeSize region, kernel;
        int channels, nulls;  // 1: size, 2: region, 4: kernel
        vlkStatus want;
    } rows[] = {{{1, 4, 3}, {3, 3, 3}, 1, 0, vlkStatusOk},
                {{4096, 1, 1}, {1, 7, 2}, 1, 0, vlkStatusOk},
                {{0, 4, 3}, {3, 3, 3}, 2, 1, vlkStatusNullPtr},
                {{5, 4, 3}, {3, 3, 3}, 1, 2, vlkStatusNullPtr},
                {{5, 4, 3}, {3, 3, 0}, 1, 4, vlkStatusNullPtr},
                {{0, 4, 3}, {3, 3, 3}, 2, 0, vlkStatusSize},
                {{5, 4, 0}, {3, 3, 3}, 1, 0, vlkStatusSize},
                {{5, 4, 3}, {3, -1, 3}, 0, 0, vlkStatusSize},
                {{5, 4, 3}, {3, 3, 3}, 0, 0, vlkStatusNumChannels},
                {{5, 4, 3}, {3, 3, 3}, 3, 0, vlkStatusNumChannels}};
    for (const auto& r : rows) {
        int size = -7;
        EXPECT_EQ(vlkrFilterGetBufSize(r.nulls & 2 ? nullptr : &r.region,
                                       r.nulls & 4 ? nullptr : &r.kernel, r.channels,
                                       r.nulls & 1 ? nullptr : &size),
                  r.want);
        EXPECT_EQ(size, r.want == vlkStatusOk ? 4 * r.region.width + 64 : -7);
    }
}

// A valid 3 x 3 x 3 box filter of a 5 x 4 x 3 region whose anchor keeps every read in a
// 16-voxel cube. Neither the anchor nor the buffer is checked (the buffer may be null).
struct Args {
    VolumeSize region{5, 4, 3}, kernel{3, 3, 3};
    int divisor = 1, srcStep = 32, dstStep = 32;
    bool nullSrc = false, nullDst = false, nullKernel = false, nullRegion = false,
         nullKernelVolume = false, nullAnchor = false, nullBuffer = false;
};

TEST(FilterChecks, FirstFailingCheckDecidesAndNothingIsWritten)
{
    const std::vector<CheckRow<Args>> rows = {
        {"null source", [](Args& a) { a.nullSrc = true; }, vlkStatusNullPtr},
        {"null destination", [](Args& a) { a.nullDst = true; }, vlkStatusNullPtr},
        {"null kernel", [](Args& a) { a.nullKernel = true; }, vlkStatusNullPtr},
        {"null region record", [](Args& a) { a.nullRegion = true; }, vlkStatusNullPtr},
        {"null kernel volume record", [](Args& a) { a.nullKernelVolume = true; }, vlkStatusNullPtr},
        {"null anchor, region height -1",
         [](Args& a) { a.nullAnchor = true, a.region.height = -1; }, vlkStatusSize},
        {"kernel depth 0", [](Args& a) { a.kernel.depth = 0; }, vlkStatusSize},
        {"null anchor, divisor 0", [](Args& a) { a.nullAnchor = true, a.divisor = 0; },
         vlkStatusSize},
        {"null buffer", [](Args& a) { a.nullBuffer = true; }, vlkStatusOk, true},
        {"divisor INT_MIN", [](Args& a) { a.divisor = INT_MIN; }, vlkStatusOk, true},
        {"zero steps", [](Args& a) { a.srcStep = a.dstStep = 0; }, vlkStatusOk, true},
    };
    checkInOrder(rows, Args{}, [](const Args& a, bool* written) {
        const std::vector<int> kernel(27, 1);
        const int anchor[3] = {2, 2, 2};
        CheckVolumes<Vlk16s> v;
        std::vector<unsigned char> buffer(4 * 16 + 64);
        const vlkStatus status = vlkrFilter_16s_C1PV(
            a.nullSrc ? nullptr : v.srcPlanes.data(), a.srcStep,
            a.nullDst ? nullptr : v.dstPlanes.data(), a.dstStep, a.nullRegion ? nullptr : &a.region,
            a.nullKernel ? nullptr : kernel.data(), a.nullKernelVolume ? nullptr : &a.kernel,
            a.nullAnchor ? nullptr : anchor, a.divisor, a.nullBuffer ? nullptr : buffer.data());
        *written = v.dstWritten();
        if (status == vlkStatusOk && a.divisor == 1) {
            EXPECT_EQ(v.dst[0], 27 * 7) << "box filter of sevens";
        }
        return status;
    });
}

}  // namespace

namespace {

// The anchor and the kernel may sit at any byte address: a 1 x 1 x 1 identity kernel read
// through an odd address copies the region.
TEST(FilterChecks, AnchorAndKernelAtAnOddAddress)
{
    const Vlk16s src[4] = {7, -3, 12, 32767};
    Vlk16s dst[4] = {0, 0, 0, 0};
    const Vlk16s* srcPlanes[1] = {src};
    Vlk16s* dstPlanes[1] = {dst};
    alignas(16) unsigned char bytes[32] = {};
    const int anchor[3] = {0, 0, 0}, weight = 1;
    std::memcpy(bytes + 1, anchor, sizeof anchor);
    std::memcpy(bytes + 17, &weight, sizeof weight);
    const VolumeSize region{4, 1, 1}, kernel{1, 1, 1};
    unsigned char buffer[128];
    EXPECT_EQ(vlkrFilter_16s_C1PV(srcPlanes, 8, dstPlanes, 8, &region,
                                  reinterpret_cast<const int*>(bytes + 17), &kernel,
                                  reinterpret_cast<const int*>(bytes + 1), 1, buffer),
              vlkStatusOk);
    for (int x = 0; x < 4; ++x) EXPECT_EQ(dst[x], src[x]) << x;
}

}  // namespace
