// The mesh and the ready-to-trace scene of the ray-tracing tests and the benchmarks, with the
// tests' seeded random meshes and bit-pattern helpers.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "vlkr.h"

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
    std::string name;             // what benchmark reports call it; empty in the tests
    std::vector<float> vertices;  // packed x, y, z
    std::vector<int> triangles;   // four words per triangle, the fourth unused
    int vertexCount() const { return static_cast<int>(vertices.size() / 3); }
    int triangleCount() const { return static_cast<int>(triangles.size() / 4); }
    // Appends a triangle on three corners of its own (nine floats), `unused` in its fourth word.
    void add(const float* corners, int unused = 0)
    {
        const int v = vertexCount();
        vertices.insert(vertices.end(), corners, corners + 9);
        triangles.insert(triangles.end(), {v, v + 1, v + 2, unused});
    }
};

// Triangles with independent random corners in [-scale, scale]^3; the unused fourth index
// word holds garbage on purpose.
inline Mesh randomSoup(std::mt19937& rng, int triangleCount, float scale = 10.0f)
{
    std::uniform_real_distribution<float> coord(-scale, scale);
    Mesh m;
    for (int t = 0; t < triangleCount; ++t) {
        float c[9];
        for (float& x : c) x = coord(rng);
        m.add(c, -12345);
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
    for (int q = 0; q < n * n; ++q) {
        const int a = q / n * (n + 1) + q % n, b = a + 1, c = a + n + 1, d = c + 1;
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
        const float c[9] = {a[0], a[1], a[2], b[0], b[1], b[2], a[0] + 0.1f, a[1], a[2] + 0.1f};
        m.add(c);
    }
    return m;
}

// A closed UV sphere of `stacks` x `slices` quads around the origin.
inline Mesh sphere(int stacks, int slices, float radius = 3.0f)
{
    Mesh m;
    for (int i = 0; i <= stacks; ++i)
        for (int j = 0; j < slices; ++j) {
            const double th = 3.14159265358979 * i / stacks, ph = 6.28318530717959 * j / slices;
            const double r = radius * std::sin(th), y = radius * std::cos(th);
            for (double x : {r * std::cos(ph), y, r * std::sin(ph)}) m.vertices.push_back(float(x));
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
        float c[9];
        for (int k = 0; k < 9; ++k) c[k] = k % 3 == a ? p : coord(rng);
        m.add(c);
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
        float line[9];  // the corner a at one, two and three times its position
        for (int k = 0; k < 9; ++k) line[k] = m.vertices[3 * a + k % 3] * float(k / 3 + 1);
        if (i % 3 == 2) m.add(line);
        if (i % 3 < 2) m.triangles.insert(m.triangles.end(), {a, i % 3 ? a : b, c, 0});
    }
}

inline vlkStatus buildTree(const Mesh& m, const KDTreeBuildContext& p, KDTreeNode** tree, int* size)
{
    return vlkrKDTreeBuildAlloc(tree, m.vertices.data(), m.triangles.data(), m.vertexCount(),
                                m.triangleCount(), size, &p);
}

// A mesh with its acceleration records, bounding box and a depth-50 tree of the best quality,
// built within `memory` megabytes, ready to intersect.
struct Scene {
    Mesh mesh;
    std::vector<TriangleAccel> accel;
    float box[6];
    KDTreeNode* tree = nullptr;
    IntersectContext ctx;
    explicit Scene(Mesh m, unsigned mode = KDTreeBuildSAH, unsigned memory = 256)
        : mesh(std::move(m)), accel(mesh.triangleCount())
    {
        const float* v = mesh.vertices.data();
        vlkrTriangleAccelInit(accel.data(), v, mesh.triangles.data(), mesh.triangleCount());
        vlkrSetBoundBox_32f(v, mesh.vertexCount(), box);
        const KDTreeBuildContext p{mode, 50, 1.0f, memory, nullptr};
        int size = 0;
        if (buildTree(mesh, p, &tree, &size) != vlkStatusOk)
            throw std::runtime_error("tree build failed");
        ctx = IntersectContext{box, accel.data(), tree};
    }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
    ~Scene() { vlkrKDTreeFree(tree); }
};

}  // namespace vlkr::test
