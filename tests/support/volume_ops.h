// What the volume tests share: the entry points by voxel type, volumes laid out as the
// library sees them with canaries in every byte it may not touch, the per-voxel check, and
// argument-check tables run in the order of the checks.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "vlkr.h"
#include "volume_entry_points.h"

namespace vlkr::test {

using VoxelTypes = ::testing::Types<Vlk8u, Vlk16u, Vlk32f>;
constexpr int kSelectors[] = {1, 2, 4, 5, 6, 7};

// Destination bytes the library may not write hold kCanary; source and map padding holds
// kPoison: NaN in floats at any byte offset, the maximum in the integer types.
constexpr unsigned char kCanary = 0xA5, kPoison = 0xFF;

inline int pick(std::mt19937& rng, int lo, int hi)
{
    return std::uniform_int_distribution<int>(lo, hi)(rng);
}

enum class Layout { Planes, Block, BottomUp };

// A volume with every byte set to `fill`: planes each in their own allocation at uneven
// offsets, or one block (bottom up: both steps negative). Rows start `lead` bytes past an
// element boundary; the row step carries `extra` bytes, which the library either drops
// (element steps) or, when `used`, takes as they are (byte steps).
template <class T>
struct Grid {
    int pitch, step, planeStep = 0;
    std::vector<std::vector<unsigned char>> chunks;
    std::vector<T*> planes;

    Grid(VolumeSize s, std::mt19937& rng, unsigned char fill, Layout layout = Layout::Planes,
         int extra = 0, bool used = false, int lead = 0)
    {
        const int row = (s.width + pick(rng, 0, 2)) * int(sizeof(T)) + (used ? extra : 0);
        const int sign = layout == Layout::BottomUp ? -1 : 1;
        pitch = sign * row, step = pitch + (used ? 0 : extra);
        const long bytes = long(s.height) * row + pick(rng, 0, 4) * long(sizeof(T));
        if (layout != Layout::Planes) chunks.emplace_back(lead + bytes * s.depth, fill);
        planeStep = sign * int(bytes) + extra;
        for (int z = 0; z < s.depth; ++z) {
            const long at = lead + pick(rng, 0, 4) * long(sizeof(T));
            if (layout == Layout::Planes) chunks.emplace_back(at + bytes, fill);
            unsigned char* block = chunks[0].data() + lead + (sign < 0) * (bytes * s.depth - row);
            planes.push_back(reinterpret_cast<T*>(
                layout == Layout::Planes ? chunks[z].data() + at : block + sign * z * bytes));
        }
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
    bool allBytes(unsigned char b) const
    {
        for (const auto& c : chunks)
            if (std::count(c.begin(), c.end(), b) != long(c.size())) return false;
        return true;
    }
};

// Random voxels over the whole range of the integer types, floats in [-100, 100].
template <class T>
void fillRandom(Grid<T>& g, VolumeSize s, std::mt19937& rng)
{
    for (int z = 0; z < s.depth; ++z)
        for (int y = 0; y < s.height; ++y)
            for (int x = 0; x < s.width; ++x)
                if constexpr (std::is_same_v<T, float>)
                    g.set(x, y, z, std::uniform_real_distribution<float>(-100, 100)(rng));
                else
                    g.set(x, y, z, T(pick(rng, 0, std::numeric_limits<T>::max())));
}

// A value stored as a voxel: floats as they are, integers truncate(v + 0.5000001) saturated.
template <class T>
T storeAs(double v)
{
    if constexpr (std::is_same_v<T, float>)
        return float(v);
    else
        return T(std::clamp(std::trunc(v + 0.5000001), 0.0, double(std::numeric_limits<T>::max())));
}

// A voxel against the reference value v whose terms add up to `magnitude`: exactly, or floats
// within 1e-5 of the magnitude and integers within one step.
template <class T>
bool agrees(T got, double v, double magnitude, bool exact)
{
    if (exact || !std::is_same_v<T, float>)
        return std::fabs(double(got) - double(storeAs<T>(v))) <= (exact ? 0 : 1);
    return std::fabs(double(got) - v) <= 1e-5 * std::max(1.0, magnitude);
}

// Every voxel [begin, end) of dst passes judge(x, y, z, voxel, untouched) and is then reset;
// after that every byte of dst must be the canary.
template <class T, class Judge>
void checkVoxels(Grid<T>& dst, const int begin[3], const int end[3], const Judge& judge)
{
    int bad = 0;
    std::ostringstream first;
    for (int z = begin[2]; z < end[2]; ++z)
        for (int y = begin[1]; y < end[1]; ++y)
            for (int x = begin[0]; x < end[0]; ++x) {
                unsigned char* p = dst.address(x, y, z);
                const bool untouched = std::count(p, p + sizeof(T), kCanary) == long(sizeof(T));
                if (!judge(x, y, z, dst.get(x, y, z), untouched) && bad++ == 0)
                    first << "(" << x << "," << y << "," << z << ") holds " << +dst.get(x, y, z);
                std::memset(p, kCanary, sizeof(T));
            }
    EXPECT_EQ(bad, 0) << "voxels off the reference or written outside, first " << first.str();
    EXPECT_TRUE(dst.allBytes(kCanary)) << "a byte outside the checked voxels changed";
}

// One row of an argument-check table: what it breaks in valid arguments A, the status wanted
// and whether the output then changes.
template <class A>
struct CheckRow {
    const char* what;
    void (*edit)(A&);
    vlkStatus want;
    bool writes = false;
};

// Rows listed in the order the checks run: each alone gives its status, and with any later
// row applied too (first, so that this row's edit stands) it still does, as the first failing
// check decides. run(args, &written) calls the operation.
template <class A, class Run>
void checkInOrder(const std::vector<CheckRow<A>>& rows, const A& valid, const Run& run)
{
    for (std::size_t i = 0; i < rows.size(); ++i)
        for (std::size_t j = i; j < rows.size(); ++j) {
            SCOPED_TRACE(std::string(rows[i].what) + ", then " + rows[j].what);
            A a = valid;
            rows[j].edit(a), rows[i].edit(a);
            bool written = false;
            EXPECT_EQ(run(a, &written), rows[i].want);
            EXPECT_EQ(written, rows[i].writes);
        }
}

// The check tables' volumes: a 16-cube of 7s, a canary-filled destination and maps of 1.0.
template <class T>
struct CheckVolumes {
    static constexpr int kSide = 16, kStep = kSide * int(sizeof(T)), kPlane = kSide * kSide;
    std::vector<T> src = std::vector<T>(kPlane * kSide, T(7)), dst = src;
    std::vector<float> map = std::vector<float>(src.size(), 1.0f);
    std::vector<const T*> srcPlanes;
    std::vector<T*> dstPlanes;
    std::vector<const float*> mapPlanes;
    CheckVolumes()
    {
        std::memset(dst.data(), kCanary, dst.size() * sizeof(T));
        for (int z = 0; z < kPlane * kSide; z += kPlane)
            srcPlanes.push_back(&src[z]), dstPlanes.push_back(&dst[z]),
                mapPlanes.push_back(&map[z]);
    }
    bool dstWritten() const
    {
        const auto* p = reinterpret_cast<const unsigned char*>(dst.data());
        return std::count(p, p + dst.size() * sizeof(T), kCanary) != long(dst.size() * sizeof(T));
    }
};

}  // namespace vlkr::test
