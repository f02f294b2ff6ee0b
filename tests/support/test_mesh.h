// Seeded random meshes and bit-pattern helpers shared by the ray-tracing tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace vlkr::test {

inline std::uint32_t bitsOf(float f)
{
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

inline float floatOf(std::uint32_t u)
{
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

struct Mesh {
    std::vector<float> vertices;  // packed x, y, z
    std::vector<int> triangles;   // four words per triangle, the fourth unused
    int vertexCount() const { return static_cast<int>(vertices.size() / 3); }
    int triangleCount() const { return static_cast<int>(triangles.size() / 4); }
};

// Triangles with independent random corners in [-scale, scale]^3; the unused fourth index
// word holds garbage on purpose.
inline Mesh randomSoup(std::mt19937& rng, int triangleCount, float scale = 10.0f)
{
    std::uniform_real_distribution<float> coord(-scale, scale);
    Mesh m;
    for (int t = 0; t < triangleCount; ++t) {
        for (int k = 0; k < 9; ++k) m.vertices.push_back(coord(rng));
        m.triangles.insert(m.triangles.end(), {3 * t, 3 * t + 1, 3 * t + 2, -12345});
    }
    return m;
}

// A height field of n x n quads (two triangles each) with random heights.
inline Mesh randomTerrain(std::mt19937& rng, int n)
{
    std::uniform_real_distribution<float> height(0.0f, 2.0f);
    Mesh m;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
            m.vertices.insert(m.vertices.end(), {float(i), height(rng), float(j)});
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const int a = j * (n + 1) + i, b = a + 1, c = a + n + 1, d = c + 1;
            m.triangles.insert(m.triangles.end(), {a, b, c, 0, b, d, c, 0});
        }
    return m;
}

}  // namespace vlkr::test
