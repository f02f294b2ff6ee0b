// Resize geometry: the destination range of a resize, the box query and the buffer plan.
#include "geometry.h"

#include <algorithm>
#include <cmath>

namespace vlkr::volume {
namespace {

// A start that lands exactly on a half rounds down, an end exactly on a half rounds up, so
// two resizes that tile the destination never both write the voxel between them.
constexpr double kStartBias = 0.4999999999;
constexpr double kEndBias = 0.5000000001;

// Truncates a finite position toward zero; values beyond the int range are pinned to just
// outside it, where every comparison that follows still reads them right.
int truncateIndex(double v) { return static_cast<int>(std::clamp(v, -1.0, 2147483647.0)); }

struct Axes {
    int origin[3], extent[3];
    explicit Axes(const Cuboid& c) : origin{c.x, c.y, c.z}, extent{c.width, c.height, c.depth} {}
};

std::uint32_t align16(std::uint32_t v) { return (v + 15u) & ~15u; }
std::uint32_t align64(std::uint32_t v) { return (v + 63u) & ~63u; }

}  // namespace

vlkStatus buildResizeFrame(const VolumeSize& srcVolume, const Cuboid& srcVoi, const Cuboid& dstVoi,
                           const double factor[3], const double shift[3],
                           ResizeFrame* frame) noexcept
{
    const int volume[3] = {srcVolume.width, srcVolume.height, srcVolume.depth};
    const Axes src(srcVoi), dst(dstVoi);
    for (int a = 0; a < 3; ++a)
        if (src.origin[a] >= volume[a]) return vlkStatusWrongIntersectVOI;

    bool empty = false;
    for (int a = 0; a < 3; ++a) {
        // Cut the source box to the volume, then map its ends and cut them to the
        // destination box; the biases go on after the cut.
        const int trimmed = std::min(volume[a] - src.origin[a], src.extent[a]);
        const double first = std::max(src.origin[a] * factor[a] + shift[a], double(dst.origin[a]));
        const double last = std::min((src.origin[a] + trimmed) * factor[a] + shift[a],
                                     double(dst.origin[a]) + dst.extent[a]);
        // A NaN shift, or an infinite factor times a zero origin, maps nowhere.
        if (std::isnan(first) || std::isnan(last)) {
            empty = true;
            continue;
        }
        ResizeAxis& axis = frame->axis[a];
        axis.start = truncateIndex(first + kStartBias);
        axis.end = truncateIndex(last + kEndBias);
        axis.size = volume[a];
        axis.inv = 1.0 / factor[a];
        axis.off = (0.0 - shift[a]) / factor[a];
        empty = empty || axis.start >= axis.end;
    }
    return empty ? vlkStatusNoOperation : vlkStatusOk;
}

vlkStatus resizeCuboid(const Cuboid& srcVoi, const double factor[3], const double shift[3],
                       Cuboid* dstVoi) noexcept
{
    const Axes src(srcVoi);
    int start[3], extent[3];
    for (int a = 0; a < 3; ++a) {
        const double first = src.origin[a] * factor[a] + shift[a] + kStartBias;
        const double last =
            (double(src.origin[a]) + src.extent[a]) * factor[a] + shift[a] + kEndBias;
        if (std::isnan(first) || std::isnan(last)) return vlkStatusNoOperation;
        start[a] = std::max(truncateIndex(first), 0);
        const int end = std::max(truncateIndex(last), 0);
        if (start[a] >= end) return vlkStatusNoOperation;
        extent[a] = end - start[a];
    }
    *dstVoi = Cuboid{start[0], start[1], start[2], extent[0], extent[1], extent[2]};
    return vlkStatusOk;
}

bool degenerateCoefficients(const double coeffs[3][4]) noexcept
{
    constexpr double kZero = 1e-100;
    const double(*c)[4] = coeffs;
    if (std::fabs(c[0][0]) <= kZero && std::fabs(c[1][1]) <= kZero && std::fabs(c[2][2]) <= kZero)
        return true;
    // Relative closeness, or absolute when the first product is nil.
    auto near = [](double a, double b) {
        return std::fabs(a) <= 1e-200 ? std::fabs(b) <= 1e-10 : std::fabs((a - b) / a) <= 1e-10;
    };
    // Kept on purpose: only the y and z rows are compared; the x row never is.
    return near(c[1][1] * c[2][2], c[1][2] * c[2][1]) &&
           near(c[2][2] * c[1][0], c[1][2] * c[2][0]) && near(c[1][0] * c[2][1], c[1][1] * c[2][0]);
}

double affineDeterminant(const double coeffs[3][4]) noexcept
{
    const double(*c)[4] = coeffs;
    return c[0][0] * (c[1][1] * c[2][2] - c[1][2] * c[2][1]) -
           c[0][1] * (c[1][0] * c[2][2] - c[1][2] * c[2][0]) +
           c[0][2] * (c[1][0] * c[2][1] - c[1][1] * c[2][0]);
}

namespace {

// Fills the translation -m * t of an inverse whose linear part is set.
void invertTranslation(const double coeffs[3][4], AffineInverse* inv)
{
    for (int r = 0; r < 3; ++r)
        inv->t[r] = -(inv->m[r][0] * coeffs[0][3] + inv->m[r][1] * coeffs[1][3] +
                      inv->m[r][2] * coeffs[2][3]);
}

}  // namespace

AffineInverse invertAffine(const double coeffs[3][4], double det) noexcept
{
    const double(*c)[4] = coeffs;
    const double r = 1.0 / det;
    AffineInverse inv{};
    inv.m[0][0] = (c[1][1] * c[2][2] - c[1][2] * c[2][1]) * r;
    inv.m[0][1] = (c[0][2] * c[2][1] - c[0][1] * c[2][2]) * r;
    inv.m[0][2] = (c[0][1] * c[1][2] - c[0][2] * c[1][1]) * r;
    inv.m[1][0] = (c[1][2] * c[2][0] - c[1][0] * c[2][2]) * r;
    inv.m[1][1] = (c[0][0] * c[2][2] - c[0][2] * c[2][0]) * r;
    inv.m[1][2] = (c[0][2] * c[1][0] - c[0][0] * c[1][2]) * r;
    inv.m[2][0] = (c[1][0] * c[2][1] - c[1][1] * c[2][0]) * r;
    inv.m[2][1] = (c[0][1] * c[2][0] - c[0][0] * c[2][1]) * r;
    inv.m[2][2] = (c[0][0] * c[1][1] - c[0][1] * c[1][0]) * r;
    invertTranslation(coeffs, &inv);
    return inv;
}

AffineInverse invertPlanarAffine(const double coeffs[3][4], double det) noexcept
{
    const double(*c)[4] = coeffs;
    const double r = 1.0 / det;
    AffineInverse inv{};
    inv.m[0][0] = c[1][1] * r;
    inv.m[0][1] = -c[0][1] * r;
    inv.m[1][0] = -c[1][0] * r;
    inv.m[1][1] = c[0][0] * r;
    // The plane's map has no z: its inverse reads no z translation either.
    for (int k = 0; k < 2; ++k)
        inv.t[k] = -(inv.m[k][0] * coeffs[0][3] + inv.m[k][1] * coeffs[1][3]);
    return inv;
}

ResizeBufferPlan resizeBufferPlan(std::uint32_t width, std::uint32_t height, std::uint32_t depth,
                                  std::uint32_t nChannel, int interpolation) noexcept
{
    const std::uint32_t extent[3] = {width, height, depth};
    const std::uint32_t n = nChannel;
    ResizeBufferPlan p{};
    for (int a = 0; a < 3; ++a) p.index[a] = 4 * align16(extent[a]);
    p.planeRowFloats = align64(width);
    if (interpolation == vlkInterNearest) return p;

    for (int a = 0; a < 3; ++a) p.fraction[a] = 4 * align64(extent[a]);
    if (interpolation == vlkInterLinear) {
        // Two taps per axis: two x-resampled rows, two resampled planes.
        p.rows = 4 * n * align64(2 * width + 64);
        p.planes = 4 * 2 * height * n * align64(width);
        p.spare = 4 * n * align64(8 * (width + height) + 64);
        return p;
    }
    // Four taps per axis, with their weights stored per position.
    p.rows = 4 * n * align64(4 * width + 192);
    p.planes = 4 * 4 * height * n * align64(width);
    for (int a = 0; a < 3; ++a) p.weights[a] = 4 * align64(4 * extent[a] + 192);
    p.spare = 4 * n * align64(128 * (width + height) + 192);
    return p;
}

std::uint32_t resizeBufferSize(const ResizeBufferPlan& p) noexcept
{
    std::uint32_t size = p.rows + p.planes + p.spare + 64;
    for (int a = 0; a < 3; ++a) size += p.index[a] + p.fraction[a] + p.weights[a];
    return size;
}

}  // namespace vlkr::volume
