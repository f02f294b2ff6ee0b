// Fuzz target for the volume operations: the first byte picks the operation, the rest choose
// volume sizes, row and plane steps, cuboids, factors, shifts, matrices, coordinate maps,
// filter kernels, anchors, divisors, selectors and misalignments.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "fuzz_support.h"
#include "vlkr.h"
#include "volume_entry_points.h"

namespace {

using namespace vlkr_fuzz;

constexpr int kMaxSide = 8;     // source and destination volume sides
constexpr int kMaxOrigin = 10;  // destination cuboid origins
constexpr int kMaxKernel = 7;   // filter kernel sides

// The voxels a caller must provide: x0 <= x < x1 and so on (ends exclusive; starts may be
// negative, as the filter's neighbourhood is).
struct Region {
    int x0, y0, z0, x1, y1, z1;
    bool empty() const { return x0 >= x1 || y0 >= y1 || z0 >= z1; }
};

Region wholeOf(const VolumeSize& v) { return {0, 0, 0, v.width, v.height, v.depth}; }

bool valid(const VolumeSize& v) { return v.width > 0 && v.height > 0 && v.depth > 0; }

bool valid(const Cuboid& c)
{
    return c.x >= 0 && c.y >= 0 && c.z >= 0 && c.width > 0 && c.height > 0 && c.depth > 0;
}

Region cuboidRegion(const Cuboid& c)
{
    return {c.x, c.y, c.z, c.x + c.width, c.y + c.height, c.z + c.depth};
}

// A caller volume in either layout. Steps are the byte values passed; the library truncates
// them to whole voxels, and the harness places voxels the same way.
struct Volume {
    unsigned char* block = nullptr;    // C1V: address of voxel (0, 0, 0)
    unsigned char** planes = nullptr;  // C1PV: plane array as passed, indexed by absolute z
    int rowStep = 0, planeStep = 0;
    std::size_t row = 0, plane = 0;  // effective steps in bytes
};

void fillBytes(Input& in, unsigned char* p, std::size_t size, bool isFloat)
{
    std::size_t i = 0;
    if (isFloat)
        for (; i + 4 <= size; i += 4) put<float>(p + i, 0, in.value());
    for (; i < size; ++i) p[i] = in.byte();
}

// Exactly the bytes of region r: one block from its first to its last voxel (C1V), or one
// allocation per plane from its first to its last voxel and a plane array holding only the
// planes of r (C1PV). Rows hold every voxel from min(x0, 0) on, as a volume's rows do.
Volume makeVolume(Memory& m, Input& in, bool planar, int vs, const Region& r, bool fill,
                  bool isFloat, bool byteSteps = false)
{
    Volume v;
    const int unit = byteSteps ? 1 : vs;  // some steps are used in bytes as given
    v.rowStep = (r.x1 - std::min(r.x0, 0)) * vs + in.range(0, 7);
    v.row = std::size_t(v.rowStep / unit * unit);
    v.planeStep = int((r.y1 - std::min(r.y0, 0)) * v.row) + in.range(0, 7);
    v.plane = std::size_t(v.planeStep / unit * unit);
    if (r.empty()) {
        v.block = m.bytes(in, 0);
        v.planes = m.records<unsigned char*>(in, 0);
        return v;
    }
    const std::ptrdiff_t first =
        std::ptrdiff_t(r.y0) * std::ptrdiff_t(v.row) + std::ptrdiff_t(r.x0) * vs;
    const std::ptrdiff_t last =
        std::ptrdiff_t(r.y1 - 1) * std::ptrdiff_t(v.row) + std::ptrdiff_t(r.x1) * vs;
    if (planar) {
        v.planes = m.records<unsigned char*>(in, std::size_t(r.z1 - r.z0)) - r.z0;
        for (int z = r.z0; z < r.z1; ++z) {
            unsigned char* p = m.bytes(in, std::size_t(last - first));
            if (fill) fillBytes(in, p, std::size_t(last - first), isFloat);
            v.planes[z] = p - first;
        }
    } else {
        const std::ptrdiff_t start = std::ptrdiff_t(r.z0) * std::ptrdiff_t(v.plane) + first;
        const std::ptrdiff_t end = std::ptrdiff_t(r.z1 - 1) * std::ptrdiff_t(v.plane) + last;
        unsigned char* p = m.bytes(in, std::size_t(end - start));
        if (fill) fillBytes(in, p, std::size_t(end - start), isFloat);
        v.block = p - start;
    }
    return v;
}

unsigned char* voxelRow(const Volume& v, bool planar, int y, int z)
{
    return planar ? v.planes[z] + std::ptrdiff_t(y) * std::ptrdiff_t(v.row)
                  : v.block + std::ptrdiff_t(z) * std::ptrdiff_t(v.plane) +
                        std::ptrdiff_t(y) * std::ptrdiff_t(v.row);
}

void allowRegion(Memory& m, const Volume& v, bool planar, int vs, const Region& r)
{
    if (r.empty()) return;
    for (int z = r.z0; z < r.z1; ++z)
        for (int y = r.y0; y < r.y1; ++y)
            m.allow(voxelRow(v, planar, y, z) + std::ptrdiff_t(r.x0) * vs,
                    std::size_t(r.x1 - r.x0) * vs);
}

VolumeSize volumeSize(Input& in, int max) { return {in.size(max), in.size(max), in.size(max)}; }

int origin(Input& in, int max)
{
    const std::uint8_t b = in.byte();
    if (b < 244) return b % (max + 1);
    static constexpr int kBad[] = {-1, INT_MIN, -3, INT_MAX};
    return kBad[b & 3];
}

// A source cuboid: mostly inside or near the volume, now and then reaching far past it.
Cuboid sourceCuboid(Input& in, const VolumeSize& v)
{
    auto extent = [&in](int side) {
        if (in.oneIn(16)) return in.oneIn(2) ? INT_MAX : 1000;
        return in.size(std::max(side, 1) + 2);
    };
    Cuboid c;
    c.x = origin(in, std::max(v.width, 0) + 1);
    c.y = origin(in, std::max(v.height, 0) + 1);
    c.z = origin(in, std::max(v.depth, 0) + 1);
    c.width = extent(v.width);
    c.height = extent(v.height);
    c.depth = extent(v.depth);
    return c;
}

Cuboid destinationCuboid(Input& in)
{
    Cuboid c;
    c.x = origin(in, kMaxOrigin);
    c.y = origin(in, kMaxOrigin);
    c.z = origin(in, kMaxOrigin);
    c.width = in.size(kMaxSide + 4);
    c.height = in.size(kMaxSide + 4);
    c.depth = in.size(kMaxSide + 4);
    // A cuboid the harness cannot hold is made invalid instead: the call must refuse it.
    if (c.x == INT_MAX || c.y == INT_MAX || c.z == INT_MAX) c.width = 0;
    return c;
}

double factor(Input& in)
{
    static constexpr double kFactors[] = {1.0, 2.0, 0.5,  1.5, 0.25, 3.0, 0.75, 1.0 / 3.0,
                                          4.0, 0.1, 1.25, 2.5, 0.6,  1.0, 7.0,  0.9};
    const std::uint8_t b = in.byte();
    return b < 224 ? kFactors[b & 15] : in.dvalue();
}

double shift(Input& in)
{
    static constexpr double kShifts[] = {0.0, 0.5, -0.5, 1.0, -1.0, 2.25, -3.0, 5.0};
    const std::uint8_t b = in.byte();
    return b < 224 ? kShifts[b & 7] : in.dvalue();
}

int channels(Input& in)
{
    static constexpr int kOdd[] = {3, 0, -1, 2};
    return in.oneIn(8) ? kOdd[in.byte() & 3] : 1;
}

// The resize work-buffer size in the library's 32-bit arithmetic.
std::uint32_t resizeBufferSize(const Cuboid& dst, std::uint32_t n, int interpolation)
{
    const std::uint32_t W = std::uint32_t(dst.width), H = std::uint32_t(dst.height),
                        D = std::uint32_t(dst.depth);
    auto a16 = [](std::uint32_t v) { return (v + 15u) & ~15u; };
    auto a64 = [](std::uint32_t v) { return (v + 63u) & ~63u; };
    const std::uint32_t base = 4u * (a16(W) + a16(H) + a16(D));
    if (interpolation == 1) return base + 64u;
    const std::uint32_t taps = 4u * (a64(W) + a64(H) + a64(D));
    if (interpolation == 2)
        return base + taps + 4u * n * a64(2u * W + 64u) + 4u * 2u * H * n * a64(W) +
               4u * n * a64(8u * (W + H) + 64u) + 64u;
    return base + taps + 4u * n * a64(4u * W + 192u) + 4u * 4u * H * n * a64(W) +
           4u * a64(4u * W + 192u) + 4u * a64(4u * H + 192u) + 4u * a64(4u * D + 192u) +
           4u * n * a64(128u * (W + H) + 192u) + 64u;
}

bool knownSelector(int s) { return s == 1 || s == 2 || (s >= 4 && s <= 7); }

constexpr double kStartBias = 0.4999999999;  // a start exactly on a half rounds down
constexpr double kEndBias = 0.5000000001;    // an end exactly on a half rounds up

// Index of a mapped position, kept inside the int range as the harness compares it.
double indexOf(double v) { return std::trunc(std::clamp(v, -4e9, 4e9)); }

// What a resize must return, and on success the destination range it writes: the source
// cuboid cut to the volume, mapped and cut to the destination cuboid, with the biases added.
vlkStatus expectedResize(const VolumeSize& v, const Cuboid& src, const Cuboid& dst,
                         const double f[3], const double sh[3], int interpolation, Region* out)
{
    if (!valid(v) || !valid(src) || !valid(dst)) return vlkStatusSize;
    if (!(f[0] > 0) || !(f[1] > 0) || !(f[2] > 0)) return vlkStatusResizeFactor;
    if (!knownSelector(interpolation)) return vlkStatusInterpolation;
    const int volume[3] = {v.width, v.height, v.depth};
    const int origin[3] = {src.x, src.y, src.z}, extent[3] = {src.width, src.height, src.depth};
    const int dOrigin[3] = {dst.x, dst.y, dst.z}, dExtent[3] = {dst.width, dst.height, dst.depth};
    for (int a = 0; a < 3; ++a)
        if (origin[a] >= volume[a]) return vlkStatusWrongIntersectVOI;
    int lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        const int trimmed = std::min(volume[a] - origin[a], extent[a]);
        const double mappedFirst = origin[a] * f[a] + sh[a];
        const double mappedLast = (origin[a] + trimmed) * f[a] + sh[a];
        const double dFirst = dOrigin[a], dLast = double(dOrigin[a]) + dExtent[a];
        if (std::isnan(mappedFirst) || std::isnan(mappedLast)) return vlkStatusNoOperation;
        const double start = indexOf(std::max(mappedFirst, dFirst) + kStartBias);
        const double end = indexOf(std::min(mappedLast, dLast) + kEndBias);
        if (start >= end) return vlkStatusNoOperation;
        lo[a] = int(std::clamp(start, dFirst, dLast));
        hi[a] = int(std::clamp(end, dFirst, dLast));
    }
    *out = {lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]};
    return vlkStatusOk;
}

void getResizeCuboid(Input& in)
{
    const char* op = "vlkrGetResizeCuboid";
    Memory m;
    auto* src = m.records<Cuboid>(in, 1);
    *src = sourceCuboid(in, {kMaxSide, kMaxSide, kMaxSide});
    auto* result = m.records<Cuboid>(in, 1);
    const double f[3] = {factor(in), factor(in), factor(in)};
    const double s[3] = {shift(in), shift(in), shift(in)};
    const int interpolation = in.selector();
    Nulls nulls(in);
    Cuboid* resultArg = nulls(result);  // the source cuboid is not among the checked pointers
    m.allow(result, sizeof(Cuboid));
    m.snapshot();
    const vlkStatus st =
        vlkrGetResizeCuboid(src, resultArg, f[0], f[1], f[2], s[0], s[1], s[2], interpolation);
    expectStatus(op, st,
                 {vlkStatusOk, vlkStatusNoOperation, vlkStatusNullPtr, vlkStatusSize,
                  vlkStatusResizeFactor, vlkStatusInterpolation});
    expectNullDecides(op, nulls, st);
    m.verify(op, st == vlkStatusOk);
    if (nulls.any()) return;
    // The untrimmed image of the source cuboid, starts raised to 0.
    vlkStatus expected = vlkStatusOk;
    int want[6] = {};
    const int origin[3] = {src->x, src->y, src->z},
              extent[3] = {src->width, src->height, src->depth};
    if (!valid(*src))
        expected = vlkStatusSize;
    else if (!(f[0] > 0) || !(f[1] > 0) || !(f[2] > 0))
        expected = vlkStatusResizeFactor;
    else if (!knownSelector(interpolation))
        expected = vlkStatusInterpolation;
    for (int a = 0; a < 3 && expected == vlkStatusOk; ++a) {
        const double first = origin[a] * f[a] + s[a] + kStartBias;
        const double last = (double(origin[a]) + extent[a]) * f[a] + s[a] + kEndBias;
        if (std::isnan(first) || std::isnan(last)) {
            expected = vlkStatusNoOperation;
            break;
        }
        const double start = std::max(indexOf(first), 0.0), end = std::max(indexOf(last), 0.0);
        if (start >= end) {
            expected = vlkStatusNoOperation;
            break;
        }
        if (end > INT_MAX) return;  // beyond an int: the contract does not say
        want[a] = int(start);
        want[a + 3] = int(end - start);
    }
    require(st == expected, op, "not the status its arguments call for");
    if (st == vlkStatusOk)
        require(result->x == want[0] && result->y == want[1] && result->z == want[2] &&
                    result->width == want[3] && result->height == want[4] &&
                    result->depth == want[5],
                op, "not the image of the source cuboid");
}

void bufferSize(Input& in, bool warp)
{
    const char* op = warp ? "vlkrWarpAffineGetBufSize" : "vlkrResizeGetBufSize";
    Memory m;
    auto* src = m.records<Cuboid>(in, 1);
    *src = sourceCuboid(in, {kMaxSide, kMaxSide, kMaxSide});
    auto* dst = m.records<Cuboid>(in, 1);
    *dst = destinationCuboid(in);
    if (in.oneIn(8)) dst->width = in.raw<int>();  // the formula wraps; it is not checked
    const int n = channels(in), interpolation = in.selector();
    int* size = m.records<int>(in, 1);
    Nulls nulls(in);
    int* sizeArg = nulls(size);
    m.allow(size, sizeof(int));
    m.snapshot();
    const vlkStatus st = warp ? vlkrWarpAffineGetBufSize(src, dst, n, interpolation, sizeArg)
                              : vlkrResizeGetBufSize(src, dst, n, interpolation, sizeArg);
    expectStatus(op, st,
                 {vlkStatusOk, vlkStatusNullPtr, vlkStatusSize, vlkStatusNumChannels,
                  vlkStatusInterpolation});
    expectNullDecides(op, nulls, st);
    m.verify(op, st == vlkStatusOk);
    if (st != vlkStatusOk) return;
    const int expected = warp ? 0 : int(resizeBufferSize(*dst, std::uint32_t(n), interpolation));
    require(*size == expected, op, "wrong buffer size");
}

// The six resize exports behind one signature.
template <class T>
vlkStatus resizeCall(bool planar, const Volume& s, const VolumeSize* sv, const Cuboid* sc,
                     const Volume& d, const Cuboid* dc, const double* f, const double* sh, int ip,
                     unsigned char* buf, bool nullSrc, bool nullDst)
{
    using Ops = vlkr::test::Ops<T>;
    if (planar)
        return Ops::planes(nullSrc ? nullptr : (const T* const*)s.planes, sv, s.rowStep, sc,
                           nullDst ? nullptr : (T* const*)d.planes, d.rowStep, dc, f[0], f[1], f[2],
                           sh[0], sh[1], sh[2], ip, buf);
    return Ops::block(nullSrc ? nullptr : (const T*)(const void*)s.block, sv, s.rowStep,
                      s.planeStep, sc, nullDst ? nullptr : (T*)(void*)d.block, d.rowStep,
                      d.planeStep, dc, f[0], f[1], f[2], sh[0], sh[1], sh[2], ip, buf);
}

template <class T>
void resize(Input& in, bool planar, const char* op)
{
    constexpr int vs = int(sizeof(T));
    constexpr bool isFloat = std::is_same_v<T, Vlk32f>;
    Memory m;
    auto* srcVolume = m.records<VolumeSize>(in, 1);
    *srcVolume = volumeSize(in, kMaxSide);
    auto* srcVoi = m.records<Cuboid>(in, 1);
    *srcVoi = sourceCuboid(in, *srcVolume);
    auto* dstVoi = m.records<Cuboid>(in, 1);
    *dstVoi = destinationCuboid(in);
    const double f[3] = {factor(in), factor(in), factor(in)};
    const double sh[3] = {shift(in), shift(in), shift(in)};
    const int interpolation = in.selector();
    const Volume src = makeVolume(
        m, in, planar, vs, valid(*srcVolume) ? wholeOf(*srcVolume) : Region{}, true, isFloat);
    const Region dstRegion = valid(*dstVoi) ? cuboidRegion(*dstVoi) : Region{};
    const Volume dst = makeVolume(m, in, planar, vs, dstRegion, true, isFloat);
    int bufferSize = 0;
    const bool sized =
        vlkrResizeGetBufSize(srcVoi, dstVoi, 1, interpolation, &bufferSize) == vlkStatusOk;
    unsigned char* buffer = m.bytes(in, sized ? std::size_t(bufferSize) : 0);
    Nulls nulls(in);
    const void* srcData = planar ? (const void*)src.planes : src.block;
    const void* dstData = planar ? (const void*)dst.planes : dst.block;
    const bool nullSrc = nulls(srcData) == nullptr, nullDst = nulls(dstData) == nullptr;
    unsigned char* bufferArg = nulls(buffer);
    Region written{};
    const vlkStatus expected =
        expectedResize(*srcVolume, *srcVoi, *dstVoi, f, sh, interpolation, &written);
    allowRegion(m, dst, planar, vs, written);
    m.allow(buffer, sized ? std::size_t(bufferSize) : 0);
    m.snapshot();
    const vlkStatus st = resizeCall<T>(planar, src, srcVolume, srcVoi, dst, dstVoi, f, sh,
                                       interpolation, bufferArg, nullSrc, nullDst);
    expectStatus(op, st,
                 {vlkStatusOk, vlkStatusNoOperation, vlkStatusWrongIntersectVOI, vlkStatusNullPtr,
                  vlkStatusSize, vlkStatusResizeFactor, vlkStatusInterpolation});
    expectNullDecides(op, nulls, st);
    if (!nulls.any()) require(st == expected, op, "not the status its arguments call for");
    if (st == vlkStatusOk) require(sized, op, "ran with cuboids its buffer query refuses");
    m.verify(op, st == vlkStatusOk);
}

// A 3 x 4 matrix: mostly near the identity, now and then anything.
void coefficients(Input& in, double* c)
{
    static constexpr double kDiagonal[] = {1.0, 1.0, -1.0, 0.5, 2.0, 0.0, 0.8, 1.5};
    static constexpr double kOff[] = {0.0, 0.0, 0.0, 0.25, -0.5, 1.0, 0.6, -0.6};
    static constexpr double kShift[] = {0.0, 1.0, -2.0, 0.5, 3.3, -0.25, 4.0, 0.0};
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 4; ++k) {
            const std::uint8_t b = in.byte();
            double v = k == 3 ? kShift[b & 7] : r == k ? kDiagonal[b & 7] : kOff[b & 7];
            if (b >= 232) v = in.dvalue();
            put<double>(c, std::size_t(4 * r + k), v);
        }
}

// The two rejections of a matrix: a nil diagonal, or y and z rows in proportion.
bool degenerate(const double c[3][4])
{
    constexpr double kZero = 1e-100;
    if (std::fabs(c[0][0]) <= kZero && std::fabs(c[1][1]) <= kZero && std::fabs(c[2][2]) <= kZero)
        return true;
    auto near = [](double a, double b) {
        return std::fabs(a) <= 1e-200 ? std::fabs(b) <= 1e-10 : std::fabs((a - b) / a) <= 1e-10;
    };
    return near(c[1][1] * c[2][2], c[1][2] * c[2][1]) &&
           near(c[2][2] * c[1][0], c[1][2] * c[2][0]) && near(c[1][0] * c[2][1], c[1][1] * c[2][0]);
}

template <class T>
vlkStatus warpCall(const Volume& s, const VolumeSize* sv, const Cuboid* sc, const Volume& d,
                   const Cuboid* dc, const double* c, int ip, bool nullSrc, bool nullDst)
{
    return vlkr::test::Ops<T>::warp(nullSrc ? nullptr : (const T* const*)s.planes, sv, s.rowStep,
                                    sc, nullDst ? nullptr : (T* const*)d.planes, d.rowStep, dc,
                                    (const double(*)[4])c, ip);
}

template <class T>
void warp(Input& in, const char* op)
{
    constexpr int vs = int(sizeof(T));
    constexpr bool isFloat = std::is_same_v<T, Vlk32f>;
    Memory m;
    auto* srcVolume = m.records<VolumeSize>(in, 1);
    *srcVolume = volumeSize(in, kMaxSide);
    if (in.oneIn(4)) srcVolume->depth = 1;  // the single-plane path
    auto* srcVoi = m.records<Cuboid>(in, 1);
    *srcVoi = sourceCuboid(in, *srcVolume);
    auto* dstVoi = m.records<Cuboid>(in, 1);
    *dstVoi = destinationCuboid(in);
    auto* c = m.array<double>(in, 12);
    coefficients(in, c);
    const int interpolation = in.selector();
    const Volume src = makeVolume(
        m, in, true, vs, valid(*srcVolume) ? wholeOf(*srcVolume) : Region{}, true, isFloat);
    const Region dstRegion = valid(*dstVoi) ? cuboidRegion(*dstVoi) : Region{};
    const Volume dst = makeVolume(m, in, true, vs, dstRegion, true, isFloat);
    Nulls nulls(in);
    const bool nullSrc = nulls(src.planes) == nullptr, nullDst = nulls(dst.planes) == nullptr;
    allowRegion(m, dst, true, vs, dstRegion);
    m.snapshot();
    const vlkStatus st =
        warpCall<T>(src, srcVolume, srcVoi, dst, dstVoi, c, interpolation, nullSrc, nullDst);
    expectStatus(
        op, st,
        {vlkStatusOk, vlkStatusWrongIntersectVOI, vlkStatusNullPtr, vlkStatusSize, vlkStatusCoeff,
         vlkStatusInterpolation, vlkStatusBadArg, vlkStatusNoMemory, vlkStatusRegionTooSmall});
    expectNullDecides(op, nulls, st);
    if (!nulls.any()) {
        vlkStatus expected = vlkStatusOk;
        double cm[3][4];
        std::memcpy(cm, c, sizeof cm);
        if (!valid(*srcVolume) || !valid(*srcVoi) || !valid(*dstVoi))
            expected = vlkStatusSize;
        else if (degenerate(cm))
            expected = vlkStatusCoeff;
        else if (!knownSelector(interpolation))
            expected = vlkStatusInterpolation;
        else if (srcVolume->depth == 1)  // the single-plane path has statuses of its own
            expectStatus(op, expected = st,
                         {vlkStatusOk, vlkStatusWrongIntersectVOI, vlkStatusBadArg,
                          vlkStatusNoMemory, vlkStatusRegionTooSmall});
        else if (srcVoi->x >= srcVolume->width || srcVoi->y >= srcVolume->height ||
                 srcVoi->z >= srcVolume->depth)
            expected = vlkStatusWrongIntersectVOI;
        require(st == expected, op, "not the status its arguments call for");
    }
    m.verify(op, st == vlkStatusOk);
}

template <class T>
vlkStatus remapCall(const Volume& s, const VolumeSize* sv, int srcStep, Cuboid* sc,
                    const float* const* maps[3], int mapStep, const Volume& d, int dstStep,
                    const VolumeSize* dv, int ip, bool nullSrc, bool nullDst)
{
    return vlkr::test::Ops<T>::remap(nullSrc ? nullptr : (const T* const*)s.planes, sv, srcStep, sc,
                                     maps[0], maps[1], maps[2], mapStep,
                                     nullDst ? nullptr : (T* const*)d.planes, dstStep, dv, ip);
}

// A map value: mostly source coordinates near the volume, quarters apart; now and then any.
float mapValue(Input& in)
{
    const std::uint8_t b = in.byte();
    return b < 216 ? float(int(b % 48) - 6) / 4.0f : in.value();
}

template <class T>
void remap(Input& in, const char* op)
{
    constexpr int vs = int(sizeof(T));
    constexpr bool isFloat = std::is_same_v<T, Vlk32f>;
    Memory m;
    auto* srcVolume = m.records<VolumeSize>(in, 1);
    *srcVolume = volumeSize(in, kMaxSide);
    if (in.oneIn(4)) srcVolume->depth = 1;  // the single-plane path
    auto* srcVoi = m.records<Cuboid>(in, 1);
    *srcVoi = sourceCuboid(in, *srcVolume);
    auto* dstVolume = m.records<VolumeSize>(in, 1);
    *dstVolume = volumeSize(in, kMaxSide);
    const int interpolation = in.selector();
    const Region dstRegion = valid(*dstVolume) ? wholeOf(*dstVolume) : Region{};
    const Volume src = makeVolume(
        m, in, true, vs, valid(*srcVolume) ? wholeOf(*srcVolume) : Region{}, true, isFloat);
    // The destination and map steps are added to row addresses in bytes, untruncated.
    const Volume dst = makeVolume(m, in, true, vs, dstRegion, true, isFloat, true);
    // Three maps of the destination's extent sharing one row step.
    const Volume xMap = makeVolume(m, in, true, 4, dstRegion, false, true, true);
    Volume maps[3] = {xMap, xMap, xMap};
    for (int k = 0; k < 3; ++k) {
        if (k > 0) {
            maps[k].planes =
                m.records<unsigned char*>(in, dstRegion.empty() ? 0 : std::size_t(dstRegion.z1));
            for (int z = 0; !dstRegion.empty() && z < dstRegion.z1; ++z)
                maps[k].planes[z] =
                    m.bytes(in, std::size_t((dstRegion.y1 - 1) * xMap.row + 4 * dstRegion.x1));
        }
        for (int z = 0; !dstRegion.empty() && z < dstRegion.z1; ++z)
            for (int y = 0; y < dstRegion.y1; ++y)
                for (int x = 0; x < dstRegion.x1; ++x)
                    put<float>(voxelRow(maps[k], true, y, z), std::size_t(x), mapValue(in));
    }
    int srcStep = src.rowStep, dstStep = dst.rowStep, mapStep = xMap.rowStep;
    if (srcVolume->depth == 1 && in.oneIn(8)) {  // the single-plane path checks its steps
        static constexpr int kBad[] = {0, -1, INT_MIN, -8};
        const int bad = kBad[in.byte() & 3];
        switch (in.byte() % 3) {
            case 0:
                srcStep = bad;
                break;
            case 1:
                dstStep = bad;
                break;
            default:
                mapStep = bad;
                break;
        }
    }
    const Cuboid voiBefore = *srcVoi;
    Nulls nulls(in);
    const bool nullSrc = nulls(src.planes) == nullptr, nullDst = nulls(dst.planes) == nullptr;
    const float* const* mapArgs[3];
    for (int k = 0; k < 3; ++k) mapArgs[k] = nulls((const float* const*)maps[k].planes);
    allowRegion(m, dst, true, vs, dstRegion);
    m.allow(&srcVoi->width, 3 * sizeof(int));
    m.snapshot();
    const vlkStatus st = remapCall<T>(src, srcVolume, srcStep, srcVoi, mapArgs, mapStep, dst,
                                      dstStep, dstVolume, interpolation, nullSrc, nullDst);
    expectStatus(op, st,
                 {vlkStatusOk, vlkStatusWrongIntersectVOI, vlkStatusWrongIntersectROI,
                  vlkStatusNullPtr, vlkStatusSize, vlkStatusInterpolation, vlkStatusStep});
    expectNullDecides(op, nulls, st);
    m.verify(op, st == vlkStatusOk);
    if (nulls.any()) return;
    vlkStatus expected = vlkStatusOk;
    if (!valid(*srcVolume) || !valid(voiBefore) || !valid(*dstVolume))
        expected = vlkStatusSize;
    else if (!knownSelector(interpolation))
        expected = vlkStatusInterpolation;
    else if (srcVolume->depth == 1) {
        // The single-plane remap: its own selectors, its steps, then the rectangle's origin.
        if (interpolation != 1 && interpolation != 2 && interpolation != 4 && interpolation != 6)
            expected = vlkStatusInterpolation;
        else if (srcStep <= 0 || dstStep <= 0 || mapStep < 1)
            expected = vlkStatusStep;
        else if (voiBefore.x >= srcVolume->width || voiBefore.y >= srcVolume->height)
            expected = vlkStatusWrongIntersectROI;
    } else if (voiBefore.x >= srcVolume->width || voiBefore.y >= srcVolume->height ||
               voiBefore.z >= srcVolume->depth) {
        expected = vlkStatusWrongIntersectVOI;
    }
    require(st == expected, op, "not the status its arguments call for");
    if (st != vlkStatusOk) return;
    if (srcVolume->depth == 1) {
        require(std::memcmp(srcVoi, &voiBefore, sizeof voiBefore) == 0, op,
                "the single-plane path changed the cuboid");
    } else {
        require(srcVoi->width == std::min(srcVolume->width - voiBefore.x, voiBefore.width) &&
                    srcVoi->height == std::min(srcVolume->height - voiBefore.y, voiBefore.height) &&
                    srcVoi->depth == std::min(srcVolume->depth - voiBefore.z, voiBefore.depth),
                op, "the cuboid is not trimmed to the volume");
    }
}

void filterBufferSize(Input& in)
{
    const char* op = "vlkrFilterGetBufSize";
    Memory m;
    auto* region = m.records<VolumeSize>(in, 1);
    *region = volumeSize(in, kMaxSide);
    if (in.oneIn(16)) region->width = INT_MAX;
    auto* kernel = m.records<VolumeSize>(in, 1);
    *kernel = volumeSize(in, kMaxKernel);
    const int n = channels(in);
    int* size = m.records<int>(in, 1);
    Nulls nulls(in);
    int* sizeArg = nulls(size);
    m.allow(size, sizeof(int));
    m.snapshot();
    const vlkStatus st = vlkrFilterGetBufSize(region, kernel, n, sizeArg);
    expectStatus(op, st, {vlkStatusOk, vlkStatusNullPtr, vlkStatusSize, vlkStatusNumChannels});
    expectNullDecides(op, nulls, st);
    m.verify(op, st == vlkStatusOk);
    if (st == vlkStatusOk)
        require(*size == int(4u * std::uint32_t(region->width) + 64u), op, "wrong buffer size");
}

int divisor(Input& in)
{
    static constexpr int kDivisors[] = {1, 2,  4,       8,       3,       -3, -1, 0,
                                        7, 16, 1 << 30, INT_MIN, INT_MAX, 27, -2, 5};
    const std::uint8_t b = in.byte();
    return b < 232 ? kDivisors[b & 15] : in.raw<int>();
}

void filter(Input& in)
{
    const char* op = "vlkrFilter_16s_C1PV";
    Memory m;
    auto* region = m.records<VolumeSize>(in, 1);
    *region = volumeSize(in, kMaxSide);
    auto* kernelVolume = m.records<VolumeSize>(in, 1);
    *kernelVolume = volumeSize(in, kMaxKernel);
    int* anchor = m.array<int>(in, 3);
    const int sides[3] = {kernelVolume->width, kernelVolume->height, kernelVolume->depth};
    for (int a = 0; a < 3; ++a) put<int>(anchor, a, in.range(-2, std::max(sides[a], 0) + 1));
    const int div = divisor(in);
    const bool ok = valid(*region) && valid(*kernelVolume);
    const std::size_t taps =
        ok ? std::size_t(sides[0]) * std::size_t(sides[1]) * std::size_t(sides[2]) : 0;
    int* kernel = m.array<int>(in, taps);
    for (std::size_t i = 0; i < taps; ++i)
        put<int>(kernel, i, in.oneIn(16) ? in.raw<int>() : in.range(-4, 4));
    // The neighbourhood the sums read: kw - 1 - ax columns left of the region to ax right of
    // it, likewise rows and planes.
    Region srcRegion{};
    if (ok) {
        const int ax = get<int>(anchor, 0), ay = get<int>(anchor, 1), az = get<int>(anchor, 2);
        srcRegion = {ax - (sides[0] - 1), ay - (sides[1] - 1), az - (sides[2] - 1),
                     region->width + ax,  region->height + ay, region->depth + az};
    }
    const Region dstRegion = ok ? wholeOf(*region) : Region{};
    const Volume src = makeVolume(m, in, true, 2, srcRegion, true, false);
    const Volume dst = makeVolume(m, in, true, 2, dstRegion, true, false);
    int bufferSize = 0;
    const bool sized = vlkrFilterGetBufSize(region, kernelVolume, 1, &bufferSize) == vlkStatusOk;
    unsigned char* buffer =
        in.oneIn(16) ? nullptr : m.bytes(in, sized ? std::size_t(bufferSize) : 0);
    Nulls nulls(in);
    const bool nullSrc = nulls(src.planes) == nullptr, nullDst = nulls(dst.planes) == nullptr;
    int* kernelArg = nulls(kernel);
    allowRegion(m, dst, true, 2, dstRegion);
    if (buffer) m.allow(buffer, sized ? std::size_t(bufferSize) : 0);
    m.snapshot();
    const vlkStatus st =
        vlkrFilter_16s_C1PV(nullSrc ? nullptr : (const Vlk16s* const*)src.planes, src.rowStep,
                            nullDst ? nullptr : (Vlk16s* const*)dst.planes, dst.rowStep, region,
                            kernelArg, kernelVolume, anchor, div, buffer);
    expectStatus(op, st, {vlkStatusOk, vlkStatusNullPtr, vlkStatusSize});
    expectNullDecides(op, nulls, st);
    if (!nulls.any())
        require(st == (!ok || div == 0 ? vlkStatusSize : vlkStatusOk), op,
                "not the status its arguments call for");
    m.verify(op, st == vlkStatusOk);
}

// The operations, picked by the input's first byte modulo their count. The committed corpus
// depends on this order: add new entries at the end.
using OpFn = void (*)(Input&);
constexpr OpFn kOps[] = {
    getResizeCuboid,
    [](Input& in) { bufferSize(in, false); },
    [](Input& in) { resize<Vlk8u>(in, false, "vlkrResize_8u_C1V"); },
    [](Input& in) { resize<Vlk16u>(in, false, "vlkrResize_16u_C1V"); },
    [](Input& in) { resize<Vlk32f>(in, false, "vlkrResize_32f_C1V"); },
    [](Input& in) { resize<Vlk8u>(in, true, "vlkrResize_8u_C1PV"); },
    [](Input& in) { resize<Vlk16u>(in, true, "vlkrResize_16u_C1PV"); },
    [](Input& in) { resize<Vlk32f>(in, true, "vlkrResize_32f_C1PV"); },
    [](Input& in) { bufferSize(in, true); },
    [](Input& in) { warp<Vlk8u>(in, "vlkrWarpAffine_8u_C1PV"); },
    [](Input& in) { warp<Vlk16u>(in, "vlkrWarpAffine_16u_C1PV"); },
    [](Input& in) { warp<Vlk32f>(in, "vlkrWarpAffine_32f_C1PV"); },
    [](Input& in) { remap<Vlk8u>(in, "vlkrRemap_8u_C1PV"); },
    [](Input& in) { remap<Vlk16u>(in, "vlkrRemap_16u_C1PV"); },
    [](Input& in) { remap<Vlk32f>(in, "vlkrRemap_32f_C1PV"); },
    filterBufferSize,
    filter,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input in(data, size);
    kOps[in.byte() % std::size(kOps)](in);
    return 0;
}
