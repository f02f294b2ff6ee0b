// Python bindings: checked numpy arrays in and out of the volume, spherical-harmonic and ray calls.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <vlkr.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace py = pybind11;

namespace {

// numpy's flag for data whose address suits its element type; pybind11 names no constant for it.
constexpr int kAligned = 0x0100;

template <class T>
using CArray = py::array_t<T, py::array::c_style | py::array::forcecast | kAligned>;

const char* statusName(vlkStatus status)
{
    switch (status) {
        case vlkStatusOk:
            return "vlkStatusOk";
        case vlkStatusNoOperation:
            return "vlkStatusNoOperation";
        case vlkStatusDivByZero:
            return "vlkStatusDivByZero";
        case vlkStatusWrongIntersectROI:
            return "vlkStatusWrongIntersectROI";
        case vlkStatusWrongIntersectVOI:
            return "vlkStatusWrongIntersectVOI";
        case vlkStatusNoMemory:
            return "vlkStatusNoMemory";
        case vlkStatusBadArg:
            return "vlkStatusBadArg";
        case vlkStatusSize:
            return "vlkStatusSize";
        case vlkStatusAlgType:
            return "vlkStatusAlgType";
        case vlkStatusNullPtr:
            return "vlkStatusNullPtr";
        case vlkStatusMemAlloc:
            return "vlkStatusMemAlloc";
        case vlkStatusOutOfRange:
            return "vlkStatusOutOfRange";
        case vlkStatusStep:
            return "vlkStatusStep";
        case vlkStatusInterpolation:
            return "vlkStatusInterpolation";
        case vlkStatusResizeFactor:
            return "vlkStatusResizeFactor";
        case vlkStatusNumChannels:
            return "vlkStatusNumChannels";
        case vlkStatusCoeff:
            return "vlkStatusCoeff";
        case vlkStatusRegionTooSmall:
            return "vlkStatusRegionTooSmall";
        default:
            return "unknown status";
    }
}

// Turns a failing status into MemoryError for the two memory statuses and ValueError otherwise.
void check(vlkStatus status, const char* what)
{
    if (status == vlkStatusOk) return;
    const std::string msg =
        std::string(what) + ": " + statusName(status) + " (" + std::to_string(status) + ")";
    if (status == vlkStatusNoMemory || status == vlkStatusMemAlloc) {
        PyErr_SetString(PyExc_MemoryError, msg.c_str());
        throw py::error_already_set();
    }
    throw py::value_error(msg);
}

template <class T>
bool hasType(const py::handle& a)
{
    return py::isinstance<py::array_t<T>>(a);
}

std::string typeName(const py::handle& a)
{
    if (!py::isinstance<py::array>(a)) return py::str(py::type::of(a).attr("__name__"));
    return py::str(py::reinterpret_borrow<py::array>(a).dtype());
}

// The array as C-ordered, aligned data of exactly T, copied only when its layout needs it.
template <class T>
CArray<T> input(const py::handle& a, const char* name)
{
    if (!hasType<T>(a))
        throw py::type_error(std::string(name) + ": expected a numpy array of " +
                             std::string(py::str(py::dtype::of<T>())) + ", got " + typeName(a));
    auto arr = CArray<T>::ensure(a);
    if (!arr) {
        PyErr_SetString(PyExc_MemoryError, (std::string(name) + ": could not copy").c_str());
        throw py::error_already_set();
    }
    return arr;
}

// An array the call writes into: it must already be C-ordered, aligned and writable.
template <class T>
py::array_t<T> output(const py::handle& a, const char* name)
{
    if (!hasType<T>(a))
        throw py::type_error(std::string(name) + ": expected a numpy array of " +
                             std::string(py::str(py::dtype::of<T>())) + ", got " + typeName(a));
    auto out = py::reinterpret_borrow<py::array_t<T>>(a);
    const int flags = py::detail::array_proxy(out.ptr())->flags;
    if (!(flags & py::array::c_style) || !(flags & kAligned))
        throw py::value_error(std::string(name) + ": must be C-contiguous and aligned");
    if (!out.writeable()) throw py::value_error(std::string(name) + ": array is read-only");
    return out;
}

int toInt(py::ssize_t v, const char* name)
{
    if (v < 0 || v > INT_MAX) throw py::value_error(std::string(name) + ": too large for int");
    return static_cast<int>(v);
}

// Extents of a (z, y, x) array in the library's x, y, z order, with a row step that fits an int.
template <class T>
VolumeSize volumeOf(const py::array& a, const char* name)
{
    if (a.ndim() != 3)
        throw py::value_error(std::string(name) + ": expected a 3-D array (z, y, x), got " +
                              std::to_string(a.ndim()) + "-D");
    const VolumeSize v{toInt(a.shape(2), name), toInt(a.shape(1), name), toInt(a.shape(0), name)};
    // The library forms offsets within a plane in int, so one plane must stay below 2 GiB.
    toInt(static_cast<py::ssize_t>(v.width) * v.height * static_cast<py::ssize_t>(sizeof(T)), name);
    return v;
}

// Plane addresses of a C-ordered (z, y, x) block, as the C1PV calls take them.
template <class T>
std::vector<T*> planesOf(T* base, const VolumeSize& v)
{
    std::vector<T*> planes(static_cast<size_t>(v.depth) + 1);
    const size_t plane = static_cast<size_t>(v.width) * static_cast<size_t>(v.height);
    for (int z = 0; z < v.depth; ++z) planes[z] = base + plane * static_cast<size_t>(z);
    return planes;
}

template <class T>
struct VolumeOps;
template <>
struct VolumeOps<uint8_t> {
    static constexpr auto resize = vlkrResize_8u_C1PV;
    static constexpr auto warp = vlkrWarpAffine_8u_C1PV;
    static constexpr auto remap = vlkrRemap_8u_C1PV;
};
template <>
struct VolumeOps<uint16_t> {
    static constexpr auto resize = vlkrResize_16u_C1PV;
    static constexpr auto warp = vlkrWarpAffine_16u_C1PV;
    static constexpr auto remap = vlkrRemap_16u_C1PV;
};
template <>
struct VolumeOps<float> {
    static constexpr auto resize = vlkrResize_32f_C1PV;
    static constexpr auto warp = vlkrWarpAffine_32f_C1PV;
    static constexpr auto remap = vlkrRemap_32f_C1PV;
};

// Work buffer of a resize, sized in 64-bit arithmetic first because the query's int formula
// wraps for very large destinations.
std::vector<unsigned char> resizeBuffer(const Cuboid& src, const Cuboid& dst, int interpolation)
{
    auto a16 = [](long long v) { return (v + 15) & ~15LL; };
    auto a64 = [](long long v) { return (v + 63) & ~63LL; };
    const long long w = dst.width, h = dst.height, d = dst.depth;
    long long bound = 4 * (a16(w) + a16(h) + a16(d)) + 64;
    bound += 4 * (a64(w) + a64(h) + a64(d)) + 4 * a64(4 * w + 192) + 16 * h * a64(w) +
             4 * a64(4 * w + 192) + 4 * a64(4 * h + 192) + 4 * a64(4 * d + 192) +
             4 * a64(128 * (w + h) + 192) + 4 * a64(8 * (w + h) + 64) + 64;
    if (bound > INT_MAX) {
        PyErr_SetString(PyExc_MemoryError, "resize: destination too large for the work buffer");
        throw py::error_already_set();
    }
    int size = 0;
    check(vlkrResizeGetBufSize(&src, &dst, 1, interpolation, &size), "vlkrResizeGetBufSize");
    return std::vector<unsigned char>(static_cast<size_t>(size > 0 ? size : 1));
}

template <class T>
py::array resizeAs(const py::handle& obj, double fx, double fy, double fz, double sx, double sy,
                   double sz, int interpolation)
{
    auto src = input<T>(obj, "volume");
    const VolumeSize sv = volumeOf<T>(src, "volume");
    const Cuboid srcVoi{0, 0, 0, sv.width, sv.height, sv.depth};
    // The destination box is computed in double and truncated to int, so keep it in range.
    const double extents[3][3] = {
        {double(sv.width), fx, sx}, {double(sv.height), fy, sy}, {double(sv.depth), fz, sz}};
    for (const auto& e : extents)
        if (!std::isfinite(e[2]) ||
            (e[1] > 0 && !(std::fabs(e[0] * e[1]) + std::fabs(e[2]) < INT_MAX / 2)))
            throw py::value_error("resize: zoom or shift gives an output beyond int range");
    Cuboid dstVoi{};
    const vlkStatus st =
        vlkrGetResizeCuboid(&srcVoi, &dstVoi, fx, fy, fz, sx, sy, sz, interpolation);
    check(st == vlkStatusNoOperation ? vlkStatusSize : st, "vlkrGetResizeCuboid");
    const VolumeSize dv{dstVoi.x + dstVoi.width, dstVoi.y + dstVoi.height, dstVoi.z + dstVoi.depth};
    py::array_t<T> dst({py::ssize_t{dv.depth}, py::ssize_t{dv.height}, py::ssize_t{dv.width}});
    volumeOf<T>(dst, "resized volume");
    std::fill(dst.mutable_data(), dst.mutable_data() + dst.size(), T{});
    auto buffer = resizeBuffer(srcVoi, dstVoi, interpolation);
    auto srcPlanes = planesOf(const_cast<T*>(src.data()), sv);
    auto dstPlanes = planesOf(dst.mutable_data(), dv);
    vlkStatus status;
    {
        py::gil_scoped_release nogil;
        status = VolumeOps<T>::resize(srcPlanes.data(), &sv, sv.width * int(sizeof(T)), &srcVoi,
                                      dstPlanes.data(), dv.width * int(sizeof(T)), &dstVoi, fx, fy,
                                      fz, sx, sy, sz, interpolation, buffer.data());
    }
    check(status < 0 ? status : vlkStatusOk, "vlkrResize_C1PV");
    return std::move(dst);
}

py::array resize(const py::handle& volume, double fx, double fy, double fz, double sx, double sy,
                 double sz, int interpolation)
{
    if (hasType<uint8_t>(volume))
        return resizeAs<uint8_t>(volume, fx, fy, fz, sx, sy, sz, interpolation);
    if (hasType<uint16_t>(volume))
        return resizeAs<uint16_t>(volume, fx, fy, fz, sx, sy, sz, interpolation);
    if (hasType<float>(volume))
        return resizeAs<float>(volume, fx, fy, fz, sx, sy, sz, interpolation);
    throw py::type_error("volume: expected uint8, uint16 or float32, got " + typeName(volume));
}

template <class T>
void warpAs(const py::handle& obj, const CArray<double>& coeffs, int interpolation,
            const py::handle& outObj)
{
    auto src = input<T>(obj, "volume");
    auto dst = output<T>(outObj, "output");
    const VolumeSize sv = volumeOf<T>(src, "volume");
    const VolumeSize dv = volumeOf<T>(dst, "output");
    const Cuboid srcVoi{0, 0, 0, sv.width, sv.height, sv.depth};
    const Cuboid dstVoi{0, 0, 0, dv.width, dv.height, dv.depth};
    double c[3][4];
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 4; ++k) c[r][k] = coeffs.at(r, k);
    auto srcPlanes = planesOf(const_cast<T*>(src.data()), sv);
    auto dstPlanes = planesOf(dst.mutable_data(), dv);
    vlkStatus status;
    {
        py::gil_scoped_release nogil;
        status = VolumeOps<T>::warp(srcPlanes.data(), &sv, sv.width * int(sizeof(T)), &srcVoi,
                                    dstPlanes.data(), dv.width * int(sizeof(T)), &dstVoi, c,
                                    interpolation);
    }
    check(status < 0 ? status : vlkStatusOk, "vlkrWarpAffine_C1PV");
}

void warp(const py::handle& volume, const py::handle& coeffsObj, int interpolation,
          const py::handle& out)
{
    auto coeffs = input<double>(coeffsObj, "coeffs");
    if (coeffs.ndim() != 2 || coeffs.shape(0) != 3 || coeffs.shape(1) != 4)
        throw py::value_error("coeffs: expected shape (3, 4)");
    if (hasType<uint8_t>(volume)) return warpAs<uint8_t>(volume, coeffs, interpolation, out);
    if (hasType<uint16_t>(volume)) return warpAs<uint16_t>(volume, coeffs, interpolation, out);
    if (hasType<float>(volume)) return warpAs<float>(volume, coeffs, interpolation, out);
    throw py::type_error("volume: expected uint8, uint16 or float32, got " + typeName(volume));
}

template <class T>
void remapAs(const py::handle& obj, const py::handle& zObj, const py::handle& yObj,
             const py::handle& xObj, int interpolation, const py::handle& outObj)
{
    auto src = input<T>(obj, "volume");
    auto dst = output<T>(outObj, "output");
    const VolumeSize sv = volumeOf<T>(src, "volume");
    const VolumeSize dv = volumeOf<T>(dst, "output");
    const CArray<float> maps[3] = {input<float>(xObj, "x map"), input<float>(yObj, "y map"),
                                   input<float>(zObj, "z map")};
    for (const auto& m : maps)
        if (m.ndim() != 3 || m.shape(0) != dst.shape(0) || m.shape(1) != dst.shape(1) ||
            m.shape(2) != dst.shape(2))
            throw py::value_error("coordinates: each map must have the output's shape");
    Cuboid srcVoi{0, 0, 0, sv.width, sv.height, sv.depth};
    auto srcPlanes = planesOf(const_cast<T*>(src.data()), sv);
    auto dstPlanes = planesOf(dst.mutable_data(), dv);
    auto xPlanes = planesOf(const_cast<float*>(maps[0].data()), dv);
    auto yPlanes = planesOf(const_cast<float*>(maps[1].data()), dv);
    auto zPlanes = planesOf(const_cast<float*>(maps[2].data()), dv);
    vlkStatus status;
    {
        py::gil_scoped_release nogil;
        status = VolumeOps<T>::remap(srcPlanes.data(), &sv, sv.width * int(sizeof(T)), &srcVoi,
                                     xPlanes.data(), yPlanes.data(), zPlanes.data(),
                                     dv.width * int(sizeof(float)), dstPlanes.data(),
                                     dv.width * int(sizeof(T)), &dv, interpolation);
    }
    check(status < 0 ? status : vlkStatusOk, "vlkrRemap_C1PV");
}

void remap(const py::handle& volume, const py::handle& zMap, const py::handle& yMap,
           const py::handle& xMap, int interpolation, const py::handle& out)
{
    if (hasType<uint8_t>(volume))
        return remapAs<uint8_t>(volume, zMap, yMap, xMap, interpolation, out);
    if (hasType<uint16_t>(volume))
        return remapAs<uint16_t>(volume, zMap, yMap, xMap, interpolation, out);
    if (hasType<float>(volume)) return remapAs<float>(volume, zMap, yMap, xMap, interpolation, out);
    throw py::type_error("volume: expected uint8, uint16 or float32, got " + typeName(volume));
}

// Convolution of a padded int16 volume: the output is the padded extent less the kernel's, and
// anchor (z, y, x) names the kernel element that meets each output voxel.
py::array filter(const py::handle& paddedObj, const py::handle& kernelObj, py::tuple anchorZyx,
                 int divisor)
{
    auto src = input<int16_t>(paddedObj, "volume");
    auto kernel = input<int32_t>(kernelObj, "kernel");
    const VolumeSize pv = volumeOf<int16_t>(src, "volume");
    if (kernel.ndim() != 3) throw py::value_error("kernel: expected a 3-D array (z, y, x)");
    const VolumeSize kv{toInt(kernel.shape(2), "kernel"), toInt(kernel.shape(1), "kernel"),
                        toInt(kernel.shape(0), "kernel")};
    if (anchorZyx.size() != 3) throw py::value_error("anchor: expected three integers (z, y, x)");
    const int anchor[3] = {anchorZyx[2].cast<int>(), anchorZyx[1].cast<int>(),
                           anchorZyx[0].cast<int>()};
    const int ksize[3] = {kv.width, kv.height, kv.depth};
    for (int a = 0; a < 3; ++a)
        if (anchor[a] < 0 || anchor[a] >= ksize[a])
            throw py::value_error("anchor: must lie inside the kernel");
    const VolumeSize region{pv.width - kv.width + 1, pv.height - kv.height + 1,
                            pv.depth - kv.depth + 1};
    if (kv.width < 1 || kv.height < 1 || kv.depth < 1 || region.width < 1 || region.height < 1 ||
        region.depth < 1)
        throw py::value_error("volume: padded volume smaller than the kernel (vlkStatusSize)");
    py::array_t<int16_t> dst(
        {py::ssize_t{region.depth}, py::ssize_t{region.height}, py::ssize_t{region.width}});
    // Each output voxel's neighbourhood starts kernel - 1 - anchor voxels before it on each axis.
    const int before[3] = {kv.width - 1 - anchor[0], kv.height - 1 - anchor[1],
                           kv.depth - 1 - anchor[2]};
    auto srcPlanes = planesOf(const_cast<int16_t*>(src.data()), pv);
    for (int z = 0; z < pv.depth; ++z)
        srcPlanes[z] += static_cast<size_t>(before[1]) * pv.width + before[0];
    auto dstPlanes = planesOf(dst.mutable_data(), region);
    int size = 0;
    check(vlkrFilterGetBufSize(&region, &kv, 1, &size), "vlkrFilterGetBufSize");
    std::vector<unsigned char> buffer(static_cast<size_t>(size));
    vlkStatus status;
    {
        py::gil_scoped_release nogil;
        status = vlkrFilter_16s_C1PV(srcPlanes.data() + before[2], pv.width * 2, dstPlanes.data(),
                                     region.width * 2, &region, kernel.data(), &kv, anchor, divisor,
                                     buffer.data());
    }
    check(status < 0 ? status : vlkStatusOk, "vlkrFilter_16s_C1PV");
    return std::move(dst);
}

// ------------------------------------------------------------------ spherical harmonics

constexpr int kMaxShBand = 15;  // largest band the evaluation accepts
// Directions per library call, so that element offsets of the outputs stay far inside int.
constexpr int kShChunk = 1 << 20;

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

// A prepared SHContext in a 64-byte aligned block of its own.
struct ShState {
    std::unique_ptr<void, FreeDeleter> block;
    const SHContext* get() const { return static_cast<const SHContext*>(block.get()); }

    ShState(int maxL, int shType)
    {
        if (maxL < 0 || maxL > kMaxShBand)
            throw py::value_error("L must lie in 0.." + std::to_string(kMaxShBand) +
                                  " (vlkStatusAlgType)");
        int size = 0;
        check(vlkrSHGetSize_32f(maxL, shType, &size), "vlkrSHGetSize_32f");
        block.reset(std::aligned_alloc(64, (static_cast<size_t>(size) + 63) & ~size_t{63}));
        if (!block) throw std::bad_alloc();
        check(vlkrSHInit_32f(static_cast<SHContext*>(block.get()), maxL, shType), "vlkrSHInit_32f");
    }
};

// Directions (n, 3) as three contiguous x, y, z arrays.
struct Directions {
    std::vector<float> x, y, z;
    int n = 0;
    explicit Directions(const py::handle& obj)
    {
        auto d = input<float>(obj, "dirs");
        if (d.ndim() != 2 || d.shape(1) != 3) throw py::value_error("dirs: expected shape (n, 3)");
        n = toInt(d.shape(0), "dirs");
        x.resize(n);
        y.resize(n);
        z.resize(n);
        auto r = d.unchecked<2>();
        for (int i = 0; i < n; ++i) {
            x[i] = r(i, 0);
            y[i] = r(i, 1);
            z[i] = r(i, 2);
        }
    }
};

int bandCount(int L) { return (L + 1) * (L + 1); }

py::array shBasis(const py::handle& dirsObj, int L, int shType)
{
    const Directions d(dirsObj);
    const ShState state(L, shType);
    py::array_t<float> dst({py::ssize_t{d.n}, py::ssize_t{bandCount(L)}});
    if (d.n == 0) return std::move(dst);
    vlkStatus status = vlkStatusOk;
    {
        py::gil_scoped_release nogil;
        float* out = dst.mutable_data();
        const size_t k = static_cast<size_t>(bandCount(L));
        for (int i = 0; i < d.n && status == vlkStatusOk; i += kShChunk)
            status = vlkrSH_32f(&d.x[i], &d.y[i], &d.z[i], std::min(kShChunk, d.n - i),
                                out + k * static_cast<size_t>(i), L, state.get());
    }
    check(status, "vlkrSH_32f");
    return std::move(dst);
}

py::array shBand(const py::handle& dirsObj, int L)
{
    const Directions d(dirsObj);
    if (L < 0 || L > kMaxShBand) throw py::value_error("L must lie in 0..15 (vlkStatusAlgType)");
    py::array_t<float> dst({py::ssize_t{d.n}, py::ssize_t{2 * L + 1}});
    if (d.n == 0) return std::move(dst);
    vlkStatus status = vlkStatusOk;
    {
        py::gil_scoped_release nogil;
        float* out = dst.mutable_data();
        const size_t k = static_cast<size_t>(2 * L + 1);
        for (int i = 0; i < d.n && status == vlkStatusOk; i += kShChunk)
            status = vlkrSHBand_32f(&d.x[i], &d.y[i], &d.z[i], std::min(kShChunk, d.n - i),
                                    out + k * static_cast<size_t>(i), L);
    }
    check(status, "vlkrSHBand_32f");
    return std::move(dst);
}

// Forward transform of values (n,) or (n, 3) accumulated into coeffs ((L+1)^2,) or (3, (L+1)^2).
void shForward(const py::handle& dirsObj, const py::handle& valuesObj, int L, int shType,
               const py::handle& coeffsObj)
{
    const Directions d(dirsObj);
    const ShState state(L, shType);
    auto values = input<float>(valuesObj, "values");
    auto coeffs = output<float>(coeffsObj, "coeffs");
    const int k = bandCount(L);
    const bool three = values.ndim() == 2;
    if (!(values.ndim() == 1 || (three && values.shape(1) == 3)) || values.shape(0) != d.n)
        throw py::value_error("values: expected shape (n,) or (n, 3) matching dirs");
    if (three ? (coeffs.ndim() != 2 || coeffs.shape(0) != 3 || coeffs.shape(1) != k)
              : (coeffs.ndim() != 1 || coeffs.shape(0) != k))
        throw py::value_error("coeffs: shape does not match L and the channel count");
    if (d.n == 0) return;
    float* c = coeffs.mutable_data();
    float* const planes[3] = {c, c + k, c + 2 * k};
    vlkStatus status = vlkStatusOk;
    {
        py::gil_scoped_release nogil;
        // Samples are added in order, so splitting the run changes no bit of the sums.
        const size_t channels = three ? 3 : 1;
        for (int i = 0; i < d.n && status == vlkStatusOk; i += kShChunk) {
            const int n = std::min(kShChunk, d.n - i);
            const float* v = values.data() + channels * static_cast<size_t>(i);
            status = three ? vlkrSHTFwd_32f_C3P3I(&d.x[i], &d.y[i], &d.z[i], v, n, planes, L,
                                                  state.get())
                           : vlkrSHTFwd_32f_C1I(&d.x[i], &d.y[i], &d.z[i], v, n, c, L, state.get());
        }
    }
    check(status, three ? "vlkrSHTFwd_32f_C3P3I" : "vlkrSHTFwd_32f_C1I");
}

py::array shInverse(const py::handle& coeffsObj, const py::handle& dirsObj, int L, int shType)
{
    const Directions d(dirsObj);
    const ShState state(L, shType);
    auto coeffs = input<float>(coeffsObj, "coeffs");
    const int k = bandCount(L);
    const bool three = coeffs.ndim() == 2;
    if (three ? (coeffs.shape(0) != 3 || coeffs.shape(1) != k)
              : (coeffs.ndim() != 1 || coeffs.shape(0) != k))
        throw py::value_error("coeffs: expected shape ((L+1)**2,) or (3, (L+1)**2)");
    py::array_t<float> dst = three ? py::array_t<float>({py::ssize_t{d.n}, py::ssize_t{3}})
                                   : py::array_t<float>(py::ssize_t{d.n});
    if (d.n == 0) return std::move(dst);
    const float* c = coeffs.data();
    const float* const planes[3] = {c, c + k, c + 2 * k};
    vlkStatus status = vlkStatusOk;
    {
        py::gil_scoped_release nogil;
        const size_t channels = three ? 3 : 1;
        for (int i = 0; i < d.n && status == vlkStatusOk; i += kShChunk) {
            const int n = std::min(kShChunk, d.n - i);
            float* out = dst.mutable_data() + channels * static_cast<size_t>(i);
            status =
                three
                    ? vlkrSHTInv_32f_P3C3(planes, L, &d.x[i], &d.y[i], &d.z[i], out, n, state.get())
                    : vlkrSHTInv_32f_C1(c, L, &d.x[i], &d.y[i], &d.z[i], out, n, state.get());
        }
    }
    check(status, three ? "vlkrSHTInv_32f_P3C3" : "vlkrSHTInv_32f_C1");
    return std::move(dst);
}

// ------------------------------------------------------------------ ray tracing

// A triangle mesh with its box, acceleration records and k-d tree, owned together.
class Scene {
   public:
    Scene(const py::handle& verticesObj, const py::handle& trianglesObj, float quality,
          unsigned memoryMb, unsigned depth, bool sah)
    {
        auto v = input<float>(verticesObj, "vertices");
        auto t = input<int32_t>(trianglesObj, "triangles");
        if (v.ndim() != 2 || v.shape(1) != 3)
            throw py::value_error("vertices: expected shape (n, 3)");
        if (t.ndim() != 2 || t.shape(1) != 3)
            throw py::value_error("triangles: expected shape (m, 3)");
        vertexCount_ = toInt(v.shape(0), "vertices");
        triangleCount_ = toInt(t.shape(0), "triangles");
        if (triangleCount_ < 1) throw py::value_error("triangles: the mesh has no triangle");
        vertices_.assign(v.data(), v.data() + v.size());
        // Non-finite corners would poison the box and the split search of the tree build.
        for (float c : vertices_)
            if (!std::isfinite(c)) throw py::value_error("vertices: values must be finite");
        if (!(quality >= 0.0f && quality <= 1.0f))
            throw py::value_error("quality must lie in [0, 1] (vlkStatusOutOfRange)");
        // The library reads four words per triangle; the fourth is unused.
        triangles_.resize(static_cast<size_t>(triangleCount_) * 4);
        auto r = t.unchecked<2>();
        for (int i = 0; i < triangleCount_; ++i) {
            for (int c = 0; c < 3; ++c) {
                const int32_t idx = r(i, c);
                if (idx < 0 || idx >= vertexCount_)
                    throw py::value_error("triangles: vertex index out of range");
                triangles_[static_cast<size_t>(i) * 4 + c] = idx;
            }
        }
        accel_.resize(static_cast<size_t>(triangleCount_));
        const KDTreeBuildContext params{sah ? KDTreeBuildSAH : KDTreeBuildSimple, depth, quality,
                                        memoryMb, nullptr};
        vlkStatus status;
        {
            py::gil_scoped_release nogil;
            status = vlkrSetBoundBox_32f(vertices_.data(), vertexCount_, box_);
            if (status == vlkStatusOk)
                status = vlkrTriangleAccelInit(accel_.data(), vertices_.data(), triangles_.data(),
                                               triangleCount_);
            if (status == vlkStatusOk)
                status = vlkrKDTreeBuildAlloc(&tree_, vertices_.data(), triangles_.data(),
                                              vertexCount_, triangleCount_, &treeSize_, &params);
        }
        check(status, "building the scene");
    }
    ~Scene() { vlkrKDTreeFree(tree_); }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    int treeSize() const { return treeSize_; }
    py::array box() const
    {
        py::array_t<float> b(6);
        std::copy(box_, box_ + 6, b.mutable_data());
        return std::move(b);
    }

    // The origins of n rays: one point for all (single) or one a ray.
    static CArray<float> originsFor(const py::handle& originsObj, int n, bool& single)
    {
        auto origins = input<float>(originsObj, "origins");
        single = origins.ndim() == 1 && origins.shape(0) == 3;
        if (!single && (origins.ndim() != 2 || origins.shape(0) != n || origins.shape(1) != 3))
            throw py::value_error("origins: expected shape (3,) or (n, 3) matching directions");
        return origins;
    }

    // Nearest hits: distances (inf on a miss), barycentric weights of corners A and B, ids.
    py::tuple intersect(const py::handle& originsObj, const py::handle& dirsObj,
                        const py::handle& tmaxObj) const
    {
        auto dirs = rays(dirsObj, "directions");
        const int n = toInt(dirs.shape(0), "directions");
        bool single = false;
        auto origins = originsFor(originsObj, n, single);
        auto tmax = input<float>(tmaxObj, "tmax");
        if (tmax.ndim() != 1 || tmax.shape(0) != n)
            throw py::value_error("tmax: expected shape (n,)");
        std::vector<float> planes(static_cast<size_t>(n) * 6);
        splitRays(dirs, planes.data(), n);
        if (!single) splitRays(origins, planes.data() + 3 * static_cast<size_t>(n), n);
        py::array_t<float> dist(n);
        py::array_t<float> bary({py::ssize_t{2}, py::ssize_t{n}});
        py::array_t<int32_t> tri(n);
        std::copy(tmax.data(), tmax.data() + n, dist.mutable_data());
        std::fill(bary.mutable_data(), bary.mutable_data() + 2 * static_cast<size_t>(n), 0.0f);
        const float* d[3] = {planes.data(), planes.data() + n, planes.data() + 2 * n};
        const float* o[3] = {d[0] + 3 * n, d[1] + 3 * n, d[2] + 3 * n};
        float* hit[2] = {bary.mutable_data(), bary.mutable_data() + n};
        const IntersectContext ctx{box_, accel_.data(), tree_};
        const PacketSize block{n, 1};
        vlkStatus status = vlkStatusOk;
        if (n > 0) {
            py::gil_scoped_release nogil;
            status = single ? vlkrIntersectEyeSO_32f(origins.data(), d, dist.mutable_data(), hit,
                                                     tri.mutable_data(), &ctx, block)
                            : vlkrIntersectMO_32f(o, d, dist.mutable_data(), hit,
                                                  tri.mutable_data(), &ctx, block);
        }
        check(status, single ? "vlkrIntersectEyeSO_32f" : "vlkrIntersectMO_32f");
        return py::make_tuple(dist, bary.attr("T"), tri);
    }

    // Occlusion along origin + t * direction for 0 < t < 1: true where something is hit.
    py::array occluded(const py::handle& originsObj, const py::handle& dirsObj) const
    {
        auto dirs = rays(dirsObj, "directions");
        const int n = toInt(dirs.shape(0), "directions");
        bool single = false;
        auto origins = originsFor(originsObj, n, single);
        std::vector<float> planes(static_cast<size_t>(n) * 3);
        splitRays(dirs, planes.data(), n);
        std::vector<int> mask(static_cast<size_t>(n), 0);
        std::vector<int> tri(static_cast<size_t>(n), -1);
        const IntersectContext ctx{box_, accel_.data(), tree_};
        vlkStatus status = vlkStatusOk;
        if (n > 0) {
            py::gil_scoped_release nogil;
            if (single) {
                const float* d[3] = {planes.data(), planes.data() + n, planes.data() + 2 * n};
                status = vlkrIntersectAnySO_32f(origins.data(), d, tri.data(), mask.data(),
                                                PacketSize{n, 1}, &ctx);
            } else {
                // The occlusion test takes one origin per call, so rays of their own go one by one.
                for (int i = 0; i < n && status == vlkStatusOk; ++i) {
                    const float* d[3] = {&planes[i], &planes[n + i], &planes[2 * n + i]};
                    status = vlkrIntersectAnySO_32f(origins.data() + 3 * i, d, &tri[i], &mask[i],
                                                    PacketSize{1, 1}, &ctx);
                }
            }
        }
        check(status, "vlkrIntersectAnySO_32f");
        py::array_t<bool> hit(n);
        for (int i = 0; i < n; ++i) hit.mutable_data()[i] = mask[i] < 0;
        return std::move(hit);
    }

   private:
    static CArray<float> rays(const py::handle& obj, const char* name)
    {
        auto a = input<float>(obj, name);
        if (a.ndim() != 2 || a.shape(1) != 3)
            throw py::value_error(std::string(name) + ": expected shape (n, 3)");
        return a;
    }
    // Packed (n, 3) rows to x, y, z planes, as the ray calls read them.
    static void splitRays(const CArray<float>& a, float* planes, int n)
    {
        auto r = a.unchecked<2>();
        for (int i = 0; i < n; ++i)
            for (int c = 0; c < 3; ++c) planes[static_cast<size_t>(c) * n + i] = r(i, c);
    }

    std::vector<float> vertices_;
    std::vector<int> triangles_;
    std::vector<TriangleAccel> accel_;
    float box_[6] = {};
    KDTreeNode* tree_ = nullptr;
    int treeSize_ = 0;
    int vertexCount_ = 0;
    int triangleCount_ = 0;
};

}  // namespace

PYBIND11_MODULE(_vlkr, m)
{
    m.doc() = "Low-level bindings of libvlkr; use the functions of the vlkr package.";
    const LibVersion* version = vlkrGetLibVersion();
    m.attr("library_version") = version->version;
    m.def("resize", &resize, py::arg("volume"), py::arg("fx"), py::arg("fy"), py::arg("fz"),
          py::arg("sx"), py::arg("sy"), py::arg("sz"), py::arg("interpolation"),
          "Resize of a (z, y, x) volume by factors and shifts in the library's x, y, z order.");
    m.def("warp_affine", &warp, py::arg("volume"), py::arg("coeffs"), py::arg("interpolation"),
          py::arg("output"), "Affine warp into output; coeffs map source x, y, z to output.");
    m.def("remap", &remap, py::arg("volume"), py::arg("z_map"), py::arg("y_map"), py::arg("x_map"),
          py::arg("interpolation"), py::arg("output"),
          "Samples volume at the mapped positions into output.");
    m.def("filter", &filter, py::arg("padded"), py::arg("kernel"), py::arg("anchor"),
          py::arg("divisor"), "Integer convolution of a padded int16 volume.");
    m.def("sh_basis", &shBasis, py::arg("dirs"), py::arg("L"), py::arg("sh_type"));
    m.def("sh_band", &shBand, py::arg("dirs"), py::arg("L"));
    m.def("sh_forward", &shForward, py::arg("dirs"), py::arg("values"), py::arg("L"),
          py::arg("sh_type"), py::arg("coeffs"));
    m.def("sh_inverse", &shInverse, py::arg("coeffs"), py::arg("dirs"), py::arg("L"),
          py::arg("sh_type"));
    py::class_<Scene>(m, "Scene")
        .def(py::init<const py::handle&, const py::handle&, float, unsigned, unsigned, bool>(),
             py::arg("vertices"), py::arg("triangles"), py::arg("quality"), py::arg("memory_mb"),
             py::arg("depth"), py::arg("sah"))
        .def_property_readonly("tree_size", &Scene::treeSize)
        .def_property_readonly("box", &Scene::box)
        .def("intersect", &Scene::intersect, py::arg("origins"), py::arg("directions"),
             py::arg("tmax"))
        .def("occluded", &Scene::occluded, py::arg("origins"), py::arg("directions"));
}
