// Seeded random meshes and bit-pattern helpers shared by the ray-tracing tests.
#pragma once

#include <cstdint>
#include <cmath>
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

// Long thin triangles spanning a cube of side 100 in random directions: every split cuts many
// of them, so the build needs far more references and nodes than triangles.
inline Mesh needles(std::mt19937& rng, int count)
{
    std::uniform_real_distribution<float> u(0.0f, 100.0f);
    Mesh m;
    for (int t = 0; t < count; ++t) {
        const float a[3] = {u(rng), u(rng), u(rng)}, b[3] = {u(rng), u(rng), u(rng)};
        m.vertices.insert(m.vertices.end(),
                          {a[0], a[1], a[2], b[0], b[1], b[2], a[0] + 0.1f, a[1], a[2] + 0.1f});
        m.triangles.insert(m.triangles.end(), {3 * t, 3 * t + 1, 3 * t + 2, 0});
    }
    return m;
}

// A closed UV sphere of `stacks` x `slices` quads around `centre`.
inline Mesh sphere(int stacks, int slices, float radius = 3.0f)
{
    Mesh m;
    for (int i = 0; i <= stacks; ++i)
        for (int j = 0; j < slices; ++j) {
            const double th = 3.14159265358979 * i / stacks, ph = 6.28318530717959 * j / slices;
            m.vertices.insert(m.vertices.end(),
                              {float(radius * std::sin(th) * std::cos(ph)), float(radius * std::cos(th)),
                               float(radius * std::sin(th) * std::sin(ph))});
        }
    for (int i = 0; i < stacks; ++i)
        for (int j = 0; j < slices; ++j) {
            const int a = i * slices + j, b = i * slices + (j + 1) % slices;
            const int c = a + slices, d = b + slices;
            if (i != 0) m.triangles.insert(m.triangles.end(), {a, b, c, 0});
            if (i != stacks - 1) m.triangles.insert(m.triangles.end(), {b, d, c, 0});
        }
    return m;
}

// Axis-aligned triangles flat in x, y or z at a few shared integer planes, so many of them
// lie exactly in candidate split planes and on node faces.
inline Mesh axisAlignedFlats(std::mt19937& rng, int count)
{
    std::uniform_int_distribution<int> plane(0, 4), axis(0, 2);
    std::uniform_real_distribution<float> coord(0.0f, 4.0f);
    Mesh m;
    for (int t = 0; t < count; ++t) {
        const int a = axis(rng);
        const float p = float(plane(rng));
        for (int c = 0; c < 3; ++c)
            for (int k = 0; k < 3; ++k) m.vertices.push_back(k == a ? p : coord(rng));
        m.triangles.insert(m.triangles.end(), {3 * t, 3 * t + 1, 3 * t + 2, 0});
    }
    return m;
}

// Appends copies of some triangles and some degenerate ones (repeated corners, collinear).
inline void addDuplicatesAndDegenerates(std::mt19937& rng, Mesh& m, int count)
{
    std::uniform_int_distribution<int> pick(0, m.triangleCount() - 1);
    for (int i = 0; i < count; ++i) {
        const int t = pick(rng);
        const int a = m.triangles[4 * t], b = m.triangles[4 * t + 1], c = m.triangles[4 * t + 2];
        switch (i % 3) {
        case 0: m.triangles.insert(m.triangles.end(), {a, b, c, 0}); break;
        case 1: m.triangles.insert(m.triangles.end(), {a, a, c, 0}); break;
        default: {
            const int base = m.vertexCount();
            for (int k = 0; k < 3; ++k)
                for (int d = 0; d < 3; ++d)
                    m.vertices.push_back(m.vertices[3 * a + d] * float(k + 1));
            m.triangles.insert(m.triangles.end(), {base, base + 1, base + 2, 0});
        }
        }
    }
}

}  // namespace vlkr::test
