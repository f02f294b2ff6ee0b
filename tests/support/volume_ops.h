// The volume entry points by voxel type, the plane-array volumes their typed tests run on,
// and the helpers the resize, warp and remap tests share.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "reference/resize_reference.h"
#include "vlkr.h"

namespace vlkr::test {

// Entry points by voxel type: resize in block and plane layouts, the affine warp and remap.
template <class T>
struct Ops;
template <>
struct Ops<Vlk8u> {
    static constexpr auto block = &vlkrResize_8u_C1V;
    static constexpr auto planes = &vlkrResize_8u_C1PV;
    static constexpr auto warp = &vlkrWarpAffine_8u_C1PV;
    static constexpr auto remap = &vlkrRemap_8u_C1PV;
};
template <>
struct Ops<Vlk16u> {
    static constexpr auto block = &vlkrResize_16u_C1V;
    static constexpr auto planes = &vlkrResize_16u_C1PV;
    static constexpr auto warp = &vlkrWarpAffine_16u_C1PV;
    static constexpr auto remap = &vlkrRemap_16u_C1PV;
};
template <>
struct Ops<Vlk32f> {
    static constexpr auto block = &vlkrResize_32f_C1V;
    static constexpr auto planes = &vlkrResize_32f_C1PV;
    static constexpr auto warp = &vlkrWarpAffine_32f_C1PV;
    static constexpr auto remap = &vlkrRemap_32f_C1PV;
};

constexpr int kSelectors[] = {1, 2, 4, 5, 6, 7};

// Destination bytes the library may not write hold 0xA5; source and map padding holds 0xFF,
// a NaN in floats at any byte offset, the maximum in the integer types.
constexpr unsigned char kCanary = 0xA5, kPoison = 0xFF;

// One volume as an array of planes, each its own allocation starting a random number of
// bytes in, so the planes sit unevenly apart (or, from block(), one allocation). `step` is the
// byte row step handed to the library, `pitch` the bytes between rows as the library should
// use them (they differ when the step carries slack that a shift to elements drops). Every
// byte starts as `fill`.
template <class T>
struct Grid {
    VolumeSize size;
    int step, pitch, planeStep = 0;
    std::vector<std::vector<unsigned char>> chunks;
    std::vector<T*> planes;

    Grid(VolumeSize s, int step_, int pitch_, std::mt19937& rng, unsigned char fill,
         int startSlack = 0)
        : size(s), step(step_), pitch(pitch_)
    {
        std::vector<std::size_t> lead;
        for (int z = 0; z < s.depth; ++z) {
            lead.push_back(rng() % 5 * sizeof(T) + std::size_t(startSlack));
            const std::size_t bytes = lead.back() + std::size_t(s.height) * std::size_t(pitch) +
                                      rng() % 9 * sizeof(T) + sizeof(T);
            chunks.emplace_back(bytes, fill);
        }
        for (int z = 0; z < s.depth; ++z)
            planes.push_back(reinterpret_cast<T*>(chunks[z].data() + lead[z]));
    }
    Grid(VolumeSize s, int step_, int pitch_) : size(s), step(step_), pitch(pitch_) {}
    // Plane pointers point into the chunks: a grid moves but never copies.
    Grid(const Grid&) = delete;
    Grid(Grid&&) = default;
    // A grid whose row step is the row plus up to two elements, plus `slack` bytes the
    // library is meant to use as they are.
    static Grid padded(VolumeSize s, std::mt19937& rng, unsigned char fill, int slack = 0,
                       int startSlack = 0)
    {
        const int step = (s.width + int(rng() % 3)) * int(sizeof(T)) + slack;
        return Grid(s, step, step, rng, fill, startSlack);
    }
    // One allocation with random row and plane padding and `slack` bytes on both steps; bottom
    // up starts at the last row of the last plane, so both steps are negative.
    static Grid block(VolumeSize s, std::mt19937& rng, unsigned char fill, int slack, bool bottomUp)
    {
        const int row = (s.width + int(rng() % 3)) * int(sizeof(T)), sign = bottomUp ? -1 : 1;
        const long plane = long(s.height) * row + long(rng() % 5 * sizeof(T));
        Grid g(s, sign * row + slack, sign * row);
        g.planeStep = int(sign * plane) + slack;
        g.chunks.emplace_back(std::size_t(plane * s.depth), fill);
        unsigned char* base = g.chunks[0].data();
        if (bottomUp) base += (s.depth - 1) * plane + (s.height - 1) * row;
        for (int z = 0; z < s.depth; ++z)
            g.planes.push_back(reinterpret_cast<T*>(base + sign * z * plane));
        return g;
    }
    unsigned char* address(int x, int y, int z) const
    {
        return reinterpret_cast<unsigned char*>(planes[z]) + long(y) * pitch +
               long(x) * long(sizeof(T));
    }
    T get(int x, int y, int z) const
    {
        T v;
        std::memcpy(&v, address(x, y, z), sizeof v);
        return v;
    }
    void set(int x, int y, int z, T v) { std::memcpy(address(x, y, z), &v, sizeof v); }
    void reset(int x, int y, int z) { std::memset(address(x, y, z), kCanary, sizeof(T)); }
    bool allBytes(unsigned char b) const
    {
        for (const auto& chunk : chunks)
            for (unsigned char c : chunk)
                if (c != b) return false;
        return true;
    }
    bool sameBytes(const Grid& o) const { return chunks == o.chunks; }
};

inline int pick(std::mt19937& rng, int lo, int hi)
{
    return std::uniform_int_distribution<int>(lo, hi)(rng);
}

// Random voxels over the whole range of the type; floats in [-100, 100].
template <class T>
T randomVoxel(std::mt19937& rng)
{
    if constexpr (std::is_same_v<T, float>) {
        return std::uniform_real_distribution<float>(-100.0f, 100.0f)(rng);
    } else {
        return T(std::uniform_int_distribution<int>(0, std::numeric_limits<T>::max())(rng));
    }
}

// Whether a library voxel agrees with the reference value v, whose terms add up to magnitude:
// exactly (the same float bits, the same rounded integer), or floats within 1e-5 of the term
// size and integers within one step.
template <class T>
bool agrees(T got, double v, double magnitude, bool exact)
{
    if constexpr (std::is_same_v<T, float>) {
        const float want = float(v);
        if (exact) return std::memcmp(&got, &want, sizeof want) == 0;
        return std::fabs(double(got) - v) <= 1e-5 * std::max(1.0, magnitude);
    } else {
        const int want = vlkr::reference::resizeStore<T>(v);
        return exact ? int(got) == want : std::abs(int(got) - want) <= 1;
    }
}

// The source cuboid trimmed to the volume, as first and last indices per axis. A single-plane
// source samples in two dimensions, with z pinned to plane 0.
struct Box {
    int lo[3], hi[3], dims;
};
inline Box trimmedBox(const VolumeSize& v, const Cuboid& c)
{
    const int size[3] = {v.width, v.height, v.depth}, at[3] = {c.x, c.y, c.z},
              extent[3] = {c.width, c.height, c.depth};
    Box b{{}, {}, v.depth == 1 ? 2 : 3};
    for (int a = 0; a < 3; ++a) {
        b.lo[a] = a < b.dims ? at[a] : 0;
        b.hi[a] = a < b.dims ? at[a] + std::min(size[a] - at[a], extent[a]) - 1 : 0;
    }
    return b;
}

inline std::ostream& print(std::ostream& os, const Cuboid& c)
{
    return os << "{" << c.x << "," << c.y << "," << c.z << "," << c.width << "," << c.height << ","
              << c.depth << "}";
}
inline std::ostream& print(std::ostream& os, const VolumeSize& v)
{
    return os << v.width << "x" << v.height << "x" << v.depth;
}
inline bool same(const Cuboid& a, const Cuboid& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

using VoxelTypes = ::testing::Types<Vlk8u, Vlk16u, Vlk32f>;
struct VoxelNames {
    template <class T>
    static std::string GetName(int)
    {
        return sizeof(T) == 1 ? "8u" : sizeof(T) == 2 ? "16u" : "32f";
    }
};

// A side-cubed volume of 7s, a canary-filled destination and maps of 1.0, each one block with
// plane pointers, for the argument-check tables: any write to the destination shows.
template <class T>
struct CheckVolumes {
    int side, step;
    std::vector<T> src, dst;
    std::vector<float> map;
    std::vector<const T*> srcPlanes;
    std::vector<T*> dstPlanes;
    std::vector<const float*> mapPlanes;

    explicit CheckVolumes(int n)
        : side(n),
          step(n * int(sizeof(T))),
          src(std::size_t(n) * n * n, T(7)),
          dst(src.size()),
          map(src.size(), 1.0f)
    {
        std::memset(dst.data(), kCanary, dst.size() * sizeof(T));
        for (int z = 0; z < n; ++z) {
            srcPlanes.push_back(src.data() + z * n * n);
            dstPlanes.push_back(dst.data() + z * n * n);
            mapPlanes.push_back(map.data() + z * n * n);
        }
    }
    bool dstWritten() const
    {
        const auto* p = reinterpret_cast<const unsigned char*>(dst.data());
        return std::any_of(p, p + dst.size() * sizeof(T),
                           [](unsigned char c) { return c != kCanary; });
    }
};

// A source too small for some kernels: each selector in `from` gives the bytes `to` gives.
struct FallbackRow {
    VolumeSize vol;
    int from[4], to;
};

// One row of an argument-check table: what it breaks, the edit to valid arguments A, the
// status wanted and, where the table says so, whether the destination changes.
template <class A>
struct CheckRow {
    const char* what;
    void (*edit)(A&);
    vlkStatus want;
    bool writes = false;
};

}  // namespace vlkr::test
