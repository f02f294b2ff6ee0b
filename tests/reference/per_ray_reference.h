// Scalar models of the per-ray operations (rays, hit points, normals, masked shading), written
// straight from their formulas, and the harness that runs each operation beside its model on
// guarded, misaligned arrays and then checks which pointers it tests.
#pragma once

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_mesh.h"
#include "vlkr.h"

namespace vlkr::reference {

using vlkr::test::bitsOf;
using vlkr::test::floatOf;

// ------------------------------------------------------------------ rays and hit points

inline vlkStatus castEye(const float corner[3], const float columnStep[3], const float rowStep[3],
                         int blockColumn, int blockRow, PacketSize blockSize, float* const dir[3],
                         PacketSize packetSize)
{
    const float xOffset = float(blockColumn * blockSize.width);
    const float yOffset = float(blockRow * blockSize.height);
    for (int j = 0; j < packetSize.height; ++j) {
        const float y = float(j) + yOffset;
        for (int i = 0; i < packetSize.width; ++i) {
            const float x = float(i) + xOffset;
            for (int c = 0; c < 3; ++c)
                dir[c][j * packetSize.width + i] = (rowStep[c] * y + corner[c]) + columnStep[c] * x;
        }
    }
    return vlkStatusOk;
}

inline vlkStatus castReflectionRay(const float* const d[3], const int* mask,
                                   const float* const n[3], float* const r[3], int len)
{
    for (int i = 0; i < len; ++i) {
        const float t = (d[1][i] * n[1][i] + d[2][i] * n[2][i]) + n[0][i] * d[0][i];
        const float t2 = t + t;
        for (int c = 0; c < 3; ++c) r[c][i] = mask[i] < 0 ? 0.0f : d[c][i] - n[c][i] * t2;
    }
    return vlkStatusOk;
}

// pi / 1800: a smaller |v . n| counts as 0. v . n is unnormalised, so this is a distance of the
// light from the surface plane (for a unit normal), not an angle.
constexpr float kShadowTolerance = 0.0017453292f;

inline vlkStatus castShadow(const float light[3], const float* s, const float* const n[3],
                            const float* const h[3], int* mask, float* c, float* const dir[3],
                            int len)
{
    for (int i = 0; i < len; ++i) c[i] = 0.0f;
    for (int i = 0; i < len; ++i) {
        for (int k = 0; k < 3; ++k) dir[k][i] = 0.0f;
        if (mask[i] < 0) continue;
        const float v[3] = {h[0][i] - light[0], h[1][i] - light[1], h[2][i] - light[2]};
        float t = (v[1] * n[1][i] + v[2] * n[2][i]) + v[0] * n[0][i];
        if (std::fabs(t) < kShadowTolerance) t = 0.0f;
        if (s[i] * t > 0.0f) {
            c[i] = std::fabs(t);
            for (int k = 0; k < 3; ++k) dir[k][i] = v[k];
        } else {
            mask[i] = -1;
        }
    }
    return vlkStatusOk;
}

// Hit points from per-ray origins (M0) or one shared origin (S0).
inline float originOf(const float* const o[3], int c, int i) { return o[c][i]; }
inline float originOf(const float o[3], int c, int) { return o[c]; }
template <class Origin>
vlkStatus hitPoint(Origin o, const float* const d[3], const float* t, const int* mask,
                   float* const p[3], int len, float eps)
{
    for (int i = 0; i < len; ++i)
        for (int c = 0; c < 3; ++c)
            p[c][i] = mask[i] < 0 ? 0.0f : originOf(o, c, i) + (d[c][i] * eps) * t[i];
    return vlkStatusOk;
}

// ------------------------------------------------------------------ normals

// Unit normals in double; zero where the squared cross length is below DBL_EPSILON.
inline vlkStatus triangleNormal(const float* vertices, const int* triangles, float* normals,
                                int triangleCount)
{
    for (int k = 0; k < triangleCount; ++k) {
        double A[3], B[3], C[3], e1[3], e2[3];
        for (int c = 0; c < 3; ++c) {
            A[c] = vertices[3 * triangles[4 * k] + c];
            B[c] = vertices[3 * triangles[4 * k + 1] + c];
            C[c] = vertices[3 * triangles[4 * k + 2] + c];
            e1[c] = B[c] - C[c];
            e2[c] = A[c] - C[c];
        }
        const double m[3] = {e2[1] * e1[2] - e2[2] * e1[1], e2[2] * e1[0] - e1[2] * e2[0],
                             e1[1] * e2[0] - e2[1] * e1[0]};
        const double l2 = m[0] * m[0] + m[1] * m[1] + m[2] * m[2];
        for (int c = 0; c < 3; ++c)
            normals[3 * k + c] = l2 < DBL_EPSILON ? 0.0f : float(m[c] / std::sqrt(l2));
    }
    return vlkStatusOk;
}

inline vlkStatus surfFlatNormal(const float* triangleNormals, const int* triangle,
                                float* const normal[3], int len)
{
    for (int i = 0; i < len; ++i)
        for (int c = 0; c < 3; ++c) {
            normal[c][i] = 0.0f;
            if (triangle[i] >= 0)
                std::memcpy(&normal[c][i], &triangleNormals[3 * triangle[i] + c], 4);
        }
    return vlkStatusOk;
}

// Blend normalised; zero for misses and where its squared length is below FLT_EPSILON.
inline vlkStatus surfSmoothNormal(const float* vertexNormals, const int* normalIndices,
                                  const int* triangle, const float* const hit[2],
                                  float* const normal[3], int len, int stride)
{
    for (int i = 0; i < len; ++i) {
        float n[3] = {0.0f, 0.0f, 0.0f};
        if (triangle[i] >= 0) {
            const float u = hit[0][i], v = hit[1][i], w = (1.0f - u) - v;
            const int* entry = normalIndices + std::int64_t(triangle[i]) * stride;
            const float *N0 = vertexNormals + 3 * entry[0], *N1 = vertexNormals + 3 * entry[1],
                        *N2 = vertexNormals + 3 * entry[2];
            for (int c = 0; c < 3; ++c) n[c] = w * N2[c] + (v * N1[c] + u * N0[c]);
            const float s = (n[0] * n[0] + n[1] * n[1]) + n[2] * n[2];
            for (int c = 0; c < 3; ++c) n[c] = s < FLT_EPSILON ? 0.0f : n[c] / std::sqrt(s);
        }
        for (int c = 0; c < 3; ++c) normal[c][i] = n[c];
    }
    return vlkStatusOk;
}

// ------------------------------------------------------------------ masked shading

inline vlkStatus addMulMul(const float k[3], const float* s, const float* const a[3],
                           const int* mask, float* const d[3], int len)
{
    for (int i = 0; i < len; ++i)
        for (int c = 0; c < 3; ++c)
            if (mask[i] >= 0) d[c][i] = d[c][i] + (a[c][i] * k[c]) * s[i];
    return vlkStatusOk;
}

constexpr std::uint32_t kDefaultNaN = 0xFFC00000u;  // x86's own NaN; also Div's 0/0 answer

inline vlkStatus divC1(const float* q, const int* mask, float* d, int len)
{
    bool zero = false;
    for (int i = 0; i < len; ++i) {
        if (mask[i] < 0) {
            d[i] = 0.0f;
        } else if (q[i] != 0.0f) {
            d[i] = d[i] / q[i];
        } else {
            zero = true;  // +-inf by the dividend's sign; 0 / 0 and NaN / 0 the default NaN
            d[i] = d[i] > 0.0f ? INFINITY : d[i] < 0.0f ? -INFINITY : floatOf(kDefaultNaN);
        }
    }
    return zero ? vlkStatusDivByZero : vlkStatusOk;
}

inline vlkStatus mulC1(const float* f, const int* mask, float* d, int len)
{
    for (int i = 0; i < len; ++i) d[i] = d[i] * f[i] * (mask[i] < 0 ? 0.0f : 1.0f);
    return vlkStatusOk;
}

inline vlkStatus mulC1P3(const float* f, const int* mask, float* const d[3], int len)
{
    for (int c = 0; c < 3; ++c) mulC1(f, mask, d[c], len);
    return vlkStatusOk;
}

inline vlkStatus dot(const float* const a[3], const float* const b[3], const int* mask, float* r,
                     int len)
{
    for (int i = 0; i < len; ++i)
        r[i] = mask[i] < 0 ? 0.0f : (a[0][i] * b[0][i] + a[1][i] * b[1][i]) + a[2][i] * b[2][i];
    return vlkStatusOk;
}

inline vlkStatus dotChangeNorm(const float* const v[3], const int* mask, float* const n[3],
                               float* r, int len)
{
    for (int i = 0; i < len; ++i) {
        if (mask[i] < 0) {
            r[i] = 0.0f;
            continue;
        }
        const float t = v[0][i] * n[0][i] + v[1][i] * n[1][i] + v[2][i] * n[2][i];
        const float sigma = t > 0.0f ? -1.0f : 1.0f;
        for (int c = 0; c < 3; ++c) n[c][i] = n[c][i] * sigma;
        r[i] = t * sigma;
    }
    return vlkStatusOk;
}

inline vlkStatus distAttenuation(const float p[3], const float* const h[3], const int* mask,
                                 float* r, int len)
{
    for (int i = 0; i < len; ++i) {
        const float dx = h[0][i] - p[0], dy = h[1][i] - p[1], dz = h[2][i] - p[2];
        const float e = dx * dx + dy * dy + dz * dz;
        r[i] = mask[i] < 0 || e < 1.0f ? 1.0f : std::sqrt(e);
    }
    return vlkStatusOk;
}

// ------------------------------------------------------------------ harness

// Bit patterns of a few floats, for worked examples where signed zeros and NaNs matter.
template <class... F>
std::vector<std::uint32_t> bits(F... f)
{
    return {bitsOf(float(f))...};
}

// What a plane is to the operation: read per ray, written per ray, both, read whole by every
// ray (constants, tables), or integers (masks, indices).
enum class Role { In, Out, InOut, Shared, Index };

// Placeholders in Trial::run's arguments. A plane becomes its pointer, the P3 triple of it and
// the next two planes, or its first float, as the parameter asks; Count becomes Trial::count,
// and Rows a packet of that many rows.
struct PlaneId {
    int k;
};
struct Count {};
struct Rows {
    int width;
};

// One random call of n rays. Each plane starts 0-3 floats past 16-byte alignment, between
// kGuard words of random filler that must survive the call.
class Trial {
public:
    static constexpr int kGuard = 8;
    static_assert(__STDCPP_DEFAULT_NEW_ALIGNMENT__ >= 16, "the arena starts 16-byte aligned");
    using Arena = std::vector<std::uint32_t>;

    Trial(unsigned seed, int length) : n(length), count(length), rng(seed)
    {
        const double edge[] = {0.0, 0.1, 0.35}, passed[] = {0.0, 0.3, 0.7, 1.0};
        edgeRate_ = edge[below(3)], passedRate_ = passed[below(4)];
        accept = [this](int, int e, std::uint32_t want, std::uint32_t got) {
            return fedNaN(e, want, got);
        };
    }

    int below(int k) { return int(rng() % unsigned(k)); }
    bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(rng) < p; }
    float uniform(float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng); }
    // Mostly ordinary values of mixed size and sign, many of them whole so that exact zeros and
    // cancellations come up; edge values at a rate chosen per trial.
    float value()
    {
        static constexpr std::uint32_t kEdge[] = {
            0x00000000, 0x80000000, 0x7F800000, 0xFF800000,  // signed zeros and infinities
            0x7FC00000, 0xFFC00000, 0x7FC0BEEF, 0xFFD00001,  // quiet NaNs with payloads
            0x7F800001, 0xFFA00000, 0x00000001, 0x80000001,  // signalling NaNs, subnormals
            0x007FFFFF, 0x803FFFFF, 0x00800000, 0x7F7FFFFF,  // subnormals, least normal, max
            0xFF7FFFFF, 0x7E967699, 0x60AD78EC, 0x1E3CE508,  // -max, 1e38, 1e20, 1e-20
        };
        if (chance(edgeRate_)) return floatOf(kEdge[below(sizeof kEdge / 4)]);
        const int kind = below(10);
        if (kind < 5) return uniform(-4.0f, 4.0f);
        return kind < 8 ? float(below(5) - 2) : uniform(-0.004f, 0.004f);
    }

    // `planes` planes of `size` values each; the id of the first.
    PlaneId values(int size, Role role = Role::In, int planes = 1)
    {
        const PlaneId first{int(planes_.size())};
        for (int p = 0; p < planes; ++p) {
            const int start = int(data.size()) + kGuard + below(4);
            data.resize((start + size + kGuard + 3) / 4 * 4);
            planes_.push_back({start, size, role});
            for (int e = -kGuard; e < size + kGuard; ++e)
                data[start + e] = e >= 0 && e < size ? bitsOf(value()) : std::uint32_t(rng());
        }
        return first;
    }
    PlaneId shared(int size) { return values(size, Role::Shared); }
    PlaneId triple(Role role = Role::In) { return values(n, role, 3); }
    PlaneId indices(int size, int lo, int hi)
    {
        const PlaneId p = values(size, Role::Index);
        for (int e = 0; e < size; ++e) setWord(p.k, e, std::uint32_t(lo + below(hi - lo)));
        return p;
    }
    PlaneId masks()
    {
        const PlaneId p = values(n, Role::Index);
        for (int e = 0; e < n; ++e) {
            const int taking[] = {0, 1, 5, INT_MAX},
                      passed[] = {-1, -2, INT_MIN, -1 - int(rng() >> 1)};
            setWord(p.k, e,
                    std::uint32_t(chance(passedRate_) ? passed[below(4)] : taking[below(4)]));
        }
        return p;
    }

    // Element e of plane k: as set up, or as it was before the call (old).
    float value(int k, int e) const { return floatOf(data[planes_[k].start + e]); }
    void set(int k, int e, float v) { setWord(k, e, bitsOf(v)); }
    void setWord(int k, int e, std::uint32_t w) { data[planes_[k].start + e] = w; }
    std::uint32_t old(int k, int e) const { return before_[planes_[k].start + e]; }

    // A NaN result of arithmetic. When two NaNs meet in one instruction, which one survives
    // depends on the operand order the compiler picked, so any NaN this ray was fed (quieted or
    // as given) or x86's default NaN is accepted; a NaN made up (another payload, a flipped
    // sign) is still caught.
    bool fedNaN(int e, std::uint32_t want, std::uint32_t got) const
    {
        auto isNaN = [](std::uint32_t w) { return (w & 0x7FFFFFFFu) > 0x7F800000u; };
        if (!isNaN(want) || !isNaN(got)) return false;
        if (got == kDefaultNaN) return true;
        for (int k = 0; k < int(planes_.size()); ++k) {
            const Role r = planes_[k].role;
            const bool perRay = r == Role::In || r == Role::InOut;
            const int end = perRay ? std::min(e + 1, planes_[k].size)
                                   : r == Role::Shared ? planes_[k].size : 0;
            for (int j = perRay ? e : 0; j < end; ++j)
                if (got == old(k, j) || got == (old(k, j) | 0x00400000u)) return true;
        }
        return false;
    }

    // Calls the library and the model with the same arguments on copies of the arena and
    // compares every plane and guard word bit for bit, results as `accept` allows. Then nulls
    // each plane alone: one in `checked` must give NullPtr at count 5, 0 and below, since
    // pointers are checked before the count; any other, or none, Ok at counts 0 and below, so
    // it is not read. Those calls may write nothing.
    template <class Lib, class Ref, class... Args>
    std::string run(Lib lib, Ref ref, std::initializer_list<PlaneId> checked, const Args&... args)
    {
        before_ = data;
        Arena model = data;
        const vlkStatus want = ref(arg(model, args)...), got = lib(arg(data, args)...);
        if (want != got) return "status " + std::to_string(got) + ", want " + std::to_string(want);
        for (int k = 0; k < int(planes_.size()); ++k)
            for (int e = -kGuard; e < planes_[k].size + kGuard; ++e) {
                const std::uint32_t w = model[planes_[k].start + e], g = data[planes_[k].start + e];
                const Role r = planes_[k].role;
                const bool result =
                    (r == Role::Out || r == Role::InOut) && e >= 0 && e < planes_[k].size;
                if (w == g || (result && accept && accept(k, e, w, g))) continue;
                char text[64];
                std::snprintf(text, sizeof text, "plane %d [%d]: %08X, want %08X", k, e,
                              unsigned(g), unsigned(w));
                return text;
            }
        const Arena settled = data;
        for (null_ = -1; null_ < int(planes_.size()); ++null_) {
            bool isChecked = false;
            for (PlaneId p : checked) isChecked |= p.k == null_;
            for (int len : {5, 0, -1, INT_MIN}) {
                if (len > 0 && !isChecked) continue;
                count = len;
                const vlkStatus status = lib(arg(data, args)...);
                if (status != (isChecked ? vlkStatusNullPtr : vlkStatusOk) || data != settled)
                    return "plane " + std::to_string(null_) + " null, count " +
                           std::to_string(len) + ": status " + std::to_string(status) +
                           (data != settled ? ", wrote" : "");
            }
        }
        return "";
    }

    const int n;
    int count;  // what Count stands for; Trial::run sets it for the pointer checks
    std::mt19937 rng;
    Arena data;
    // Which result words may differ from the model's: NaNs the ray was fed unless replaced;
    // none when empty.
    std::function<bool(int plane, int e, std::uint32_t want, std::uint32_t got)> accept;

private:
    struct Plane {
        int start, size;
        Role role;
    };
    struct PlaneArg {
        float* p[3];
        bool null;
        operator float*() const { return null ? nullptr : p[0]; }
        operator int*() const { return reinterpret_cast<int*>(null ? nullptr : p[0]); }
        operator float* const*() const { return null ? nullptr : p; }
        operator float() const { return null ? 0.0f : p[0][0]; }  // a scalar has no pointer
    };

    float* floats(Arena& A, int k) const  // null past the last plane and for the one nulled
    {
        return k == null_ || k >= int(planes_.size())
                   ? nullptr
                   : reinterpret_cast<float*>(A.data() + planes_[k].start);
    }
    PlaneArg arg(Arena& A, PlaneId p) const
    {
        return {{floats(A, p.k), floats(A, p.k + 1), floats(A, p.k + 2)}, p.k == null_};
    }
    int arg(Arena&, Count) const { return count; }
    PacketSize arg(Arena&, Rows r) const { return {r.width, count}; }
    template <class T>
    static T arg(Arena&, T v)  // sizes, block numbers, strides
    {
        return v;
    }

    std::vector<Plane> planes_;
    Arena before_;
    double edgeRate_, passedRate_;
    int null_ = -1;
};

// Runs `body` on fresh trials at every length 0-37, twelve times each; reports the first
// failure with the seed, length and repeat that reproduce it.
template <class Body>
void everyLength(unsigned seed, Body body)
{
    for (int n = 0; n <= 37; ++n)
        for (int rep = 0; rep < 12; ++rep) {
            Trial t(seed * 7919u + unsigned(n) * 131u + unsigned(rep), n);
            const std::string fault = body(t);
            if (fault.empty()) continue;
            ADD_FAILURE() << "seed " << seed << " length " << n << " repeat " << rep << ": "
                          << fault;
            return;
        }
}

}  // namespace vlkr::reference
