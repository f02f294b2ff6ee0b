// Scalar models of the per-ray operations (rays, hit points, normals, masked shading), written
// straight from their formulas, and the guarded, misaligned arrays the tests feed both with.
#pragma once

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "vlkr.h"

namespace vlkr::reference {

inline std::uint32_t wordOf(float f)
{
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

inline float floatOf(std::uint32_t w)
{
    float f;
    std::memcpy(&f, &w, 4);
    return f;
}

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

constexpr float kShadowTolerance = 0.0017453292f;  // pi/180: a smaller |v . n| counts as 0

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

inline vlkStatus hitPointM0(const float* const o[3], const float* const d[3], const float* t,
                            const int* mask, float* const p[3], int len, float eps)
{
    for (int i = 0; i < len; ++i)
        for (int c = 0; c < 3; ++c) p[c][i] = mask[i] < 0 ? 0.0f : o[c][i] + (d[c][i] * eps) * t[i];
    return vlkStatusOk;
}

inline vlkStatus hitPointS0(const float o[3], const float* const d[3], const float* t,
                            const int* mask, float* const p[3], int len, float eps)
{
    for (int i = 0; i < len; ++i)
        for (int c = 0; c < 3; ++c) p[c][i] = mask[i] < 0 ? 0.0f : o[c] + (d[c][i] * eps) * t[i];
    return vlkStatusOk;
}

// ------------------------------------------------------------------ normals

constexpr double kDoubleEpsilon = 2.220446049250313e-16;  // bound on the squared cross length
constexpr float kFloatEpsilon = 1.1920929e-07f;           // bound on the squared blend length

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
            normals[3 * k + c] = l2 < kDoubleEpsilon ? 0.0f : float(m[c] / std::sqrt(l2));
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
            for (int c = 0; c < 3; ++c) n[c] = s < kFloatEpsilon ? 0.0f : n[c] / std::sqrt(s);
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

// ------------------------------------------------------------------ test data

// Bit patterns of a few floats, printed in hex, for the tests by example.
struct Bits {
    std::vector<std::uint32_t> w;
    Bits(std::initializer_list<float> v) : Bits(v.begin(), int(v.size())) {}
    Bits(const float* v, int n) : w(n) { std::memcpy(w.data(), v, 4 * std::size_t(n)); }
    bool operator==(const Bits& o) const { return w == o.w; }
    friend std::ostream& operator<<(std::ostream& os, const Bits& b)
    {
        for (std::uint32_t u : b.w) os << ' ' << std::hex << u << std::dec;
        return os;
    }
};

// What a plane is to the operation: read per ray, written per ray, both, read whole by every
// ray (constants, tables), or integers (masks, indices).
enum class Role { In, Out, InOut, Shared, Index };

// A plane handed to Trial::run as an argument: it becomes the array pointer, the P3 triple of it
// and the next two planes, or the value of its first float, whichever the parameter asks for.
struct PlaneId {
    int k;
};
// For the argument checks: the count under test, alone or as the height of a packet.
struct Count {};
struct PacketRows {
    int width;
};

struct alignas(16) Quad {
    unsigned char bytes[16];
};
using Arena = std::vector<Quad>;  // storage of all planes of a call, 16-byte aligned

// One random call of `n` rays. Each plane sits in the arena at its own offset of 0-3 floats from
// 16-byte alignment, between kGuard words of random filler that must survive the call.
class Trial {
public:
    static constexpr int kGuard = 8;

    Trial(unsigned seed, int length) : n(length), rng(seed)
    {
        edgeRate_ = std::array<double, 3>{0.0, 0.1, 0.35}[below(3)];
        passedRate_ = std::array<double, 4>{0.0, 0.3, 0.7, 1.0}[below(4)];
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

    int add(int size, Role role)
    {
        const int offset = below(4), start = 4 * int(data.size()) + kGuard + offset;
        data.resize(data.size() + (kGuard + offset + size + kGuard + 3) / 4);
        planes_.push_back({start, size, role});
        for (int e = -kGuard; e < size + kGuard; ++e) setWord(int(planes_.size()) - 1, e, rng());
        return int(planes_.size()) - 1;
    }
    PlaneId values(int size, Role role = Role::In)
    {
        const int k = add(size, role);
        for (int e = 0; e < size; ++e) set(k, e, value());
        return {{k}};
    }
    PlaneId triple(Role role = Role::In)
    {
        const int k = values(n, role).k;
        values(n, role), values(n, role);
        return {{k}};
    }
    PlaneId pair()
    {
        const int k = values(n).k;
        values(n);
        return {{k}};
    }
    PlaneId scalar() { return {{values(1, Role::Shared).k}}; }
    PlaneId indices(int size, int lo, int hi)
    {
        const int k = add(size, Role::Index);
        for (int e = 0; e < size; ++e) setWord(k, e, std::uint32_t(lo + below(hi - lo)));
        return {{k}};
    }
    PlaneId masks()
    {
        const int k = add(n, Role::Index);
        for (int e = 0; e < n; ++e) {
            const int taking[] = {0, 1, 5, INT_MAX},
                      passed[] = {-1, -2, INT_MIN, -1 - int(rng() >> 1)};
            setWord(k, e, std::uint32_t(chance(passedRate_) ? passed[below(4)] : taking[below(4)]));
        }
        return {{k}};
    }

    // Element e of plane k: as set up (value, set, setWord) or as it was before the call (old).
    float value(int k, int e) const { return floatOf(word(data, k, e)); }
    void set(int k, int e, float v) { setWord(k, e, wordOf(v)); }
    void setWord(int k, int e, std::uint32_t w) { std::memcpy(at(data, k, e), &w, 4); }
    std::uint32_t old(int k, int e) const { return word(before, k, e); }

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
    // compares every word: filler, inputs and masks bit for bit, results bit for bit or as
    // `same` allows.
    template <class Lib, class Ref, class Same, class... Args>
    std::string run(Lib lib, Ref ref, Same same, const Args&... args)
    {
        before = data;
        Arena model = data;
        const vlkStatus want = ref(arg(model, args)...), got = lib(arg(data, args)...);
        if (want != got) return "status " + std::to_string(got) + ", want " + std::to_string(want);
        for (int k = 0; k < int(planes_.size()); ++k)
            for (int e = -kGuard; e < planes_[k].size + kGuard; ++e) {
                const std::uint32_t w = word(model, k, e), g = word(data, k, e);
                const bool result = planes_[k].role == Role::Out || planes_[k].role == Role::InOut;
                if (w == g || (result && e >= 0 && e < planes_[k].size && same(k, e, w, g)))
                    continue;
                char text[64];
                std::snprintf(text, sizeof text, "plane %d [%d]: %08X, want %08X", k, e,
                              unsigned(g), unsigned(w));
                return text;
            }
        return "";
    }

    // Each plane in `checked`, nulled alone, gives NullPtr at counts 5, 0 and below, since
    // pointers are checked first; any other plane nulled, or none, gives Ok at counts 0 and
    // below; nothing is ever written.
    template <class Fn, class... Args>
    std::string argumentFaults(Fn fn, std::initializer_list<PlaneId> checked, const Args&... args)
    {
        before = data;
        for (null_ = -1; null_ < int(planes_.size()); ++null_)
            for (int len : {5, 0, -1, INT_MIN}) {
                bool isChecked = false;
                for (PlaneId p : checked) isChecked |= p.k == null_;
                if (len > 0 && !isChecked) continue;
                len_ = len;
                const vlkStatus got = fn(arg(data, args)...);
                const bool wrote = std::memcmp(data.data(), before.data(), 16 * data.size()) != 0;
                if (got != (isChecked ? vlkStatusNullPtr : vlkStatusOk) || wrote)
                    return "plane " + std::to_string(null_) + " null, count " +
                           std::to_string(len) + ": status " + std::to_string(got) +
                           (wrote ? ", wrote" : "");
            }
        return "";
    }

    const int n;
    std::mt19937 rng;
    Arena data, before;

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
        operator float() const { return p[0][0]; }
    };

    unsigned char* at(const Arena& A, int k, int e) const
    {
        return const_cast<unsigned char*>(A.data()->bytes) + 4 * (planes_[k].start + e);
    }
    std::uint32_t word(const Arena& A, int k, int e) const
    {
        std::uint32_t w;
        std::memcpy(&w, at(A, k, e), 4);
        return w;
    }
    float* floats(Arena& A, int k) const  // null past the last plane and for the one nulled
    {
        return k == null_ || k >= int(planes_.size()) ? nullptr
                                                      : reinterpret_cast<float*>(at(A, k, 0));
    }
    PlaneArg arg(Arena& A, PlaneId p) const
    {
        return {{floats(A, p.k), floats(A, p.k + 1), floats(A, p.k + 2)}, p.k == null_};
    }
    int arg(Arena&, Count) const { return len_; }
    PacketSize arg(Arena&, PacketRows p) const { return {p.width, len_}; }
    template <class T>
    static T arg(Arena&, T v)  // counts, sizes, block numbers, factors
    {
        return v;
    }

    std::vector<Plane> planes_;
    double edgeRate_, passedRate_;
    int null_ = -1, len_ = 0;
};

// Result rules for Trial::run: bits only, or bits with any NaN the ray was fed.
inline bool exact(int, int, std::uint32_t, std::uint32_t) { return false; }
inline auto fedNaNs(const Trial& t)
{
    return [&t](int, int e, std::uint32_t want, std::uint32_t got) {
        return t.fedNaN(e, want, got);
    };
}

// Runs `body` on fresh trials for every length 0-37, twelve times each; returns the first
// failure, with the seed and length that reproduce it.
template <class Body>
std::string everyLength(unsigned seed, Body body)
{
    for (int n = 0; n <= 37; ++n)
        for (int rep = 0; rep < 12; ++rep) {
            Trial t(seed * 7919u + unsigned(n) * 131u + unsigned(rep), n);
            const std::string fault = body(t);
            if (!fault.empty())
                return "seed " + std::to_string(seed) + " length " + std::to_string(n) +
                       " repeat " + std::to_string(rep) + ": " + fault;
        }
    return "";
}

}  // namespace vlkr::reference
