// The standard benchmark meshes: terrain, sphere cluster, random soup and the bunny, as the
// Mesh the tests use too.
#pragma once

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "test_mesh.h"

namespace vlkr::bench {

using test::Mesh;

// n x n quads of a smooth rolling height field on [0, n] x [0, n], two triangles a quad.
inline Mesh terrain(int n)
{
    Mesh s;
    s.name = "terrain" + std::to_string(n);
    s.vertices.reserve(3 * size_t(n + 1) * (n + 1));
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) {
            const double x = double(i) / n, z = double(j) / n;
            const double h = 0.08 * n *
                             (0.5 * std::sin(6.1 * x) * std::cos(4.3 * z) +
                              0.25 * std::sin(17.0 * x + 3.0 * z) + 0.1 * std::cos(41.0 * z - 29.0 * x));
            s.vertices.insert(s.vertices.end(), {float(i), float(h), float(j)});
        }
    s.triangles.reserve(8 * size_t(n) * n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const int a = j * (n + 1) + i, b = a + 1, c = a + n + 1, d = c + 1;
            s.triangles.insert(s.triangles.end(), {a, c, b, 0, b, c, d, 0});
        }
    return s;
}

// Eight overlapping UV spheres of stacks x slices (by default 128 x 256, about 500k
// triangles in all).
inline Mesh sphereCluster(int stacks = 128, int slices = 256)
{
    Mesh s;
    s.name = "spheres";
    std::mt19937 rng(4242);
    std::uniform_real_distribution<float> pos(-6.0f, 6.0f), rad(1.5f, 4.0f);
    for (int k = 0; k < 8; ++k) {
        const float cx = pos(rng), cy = pos(rng), cz = pos(rng), r = rad(rng);
        const int base = s.vertexCount();
        for (int i = 0; i <= stacks; ++i) {
            const double theta = M_PI * i / stacks;
            for (int j = 0; j < slices; ++j) {
                const double phi = 2.0 * M_PI * j / slices;
                s.vertices.insert(s.vertices.end(),
                                  {float(cx + r * std::sin(theta) * std::cos(phi)),
                                   float(cy + r * std::cos(theta)),
                                   float(cz + r * std::sin(theta) * std::sin(phi))});
            }
        }
        for (int i = 0; i < stacks; ++i)
            for (int j = 0; j < slices; ++j) {
                const int a = base + i * slices + j, b = base + i * slices + (j + 1) % slices;
                const int c = a + slices, d = b + slices;
                if (i != 0) s.triangles.insert(s.triangles.end(), {a, b, c, 0});
                if (i != stacks - 1) s.triangles.insert(s.triangles.end(), {b, d, c, 0});
            }
    }
    return s;
}

// Random triangles of modest size scattered through a cube of side 100.
inline Mesh randomSoup(int count)
{
    Mesh s;
    s.name = "soup" + std::to_string(count / 1000) + "k";
    std::mt19937 rng(777);
    std::uniform_real_distribution<float> centre(0.0f, 100.0f), offset(-1.5f, 1.5f);
    for (int t = 0; t < count; ++t) {
        const float c[3] = {centre(rng), centre(rng), centre(rng)};
        for (int k = 0; k < 3; ++k)
            for (int a = 0; a < 3; ++a) s.vertices.push_back(c[a] + offset(rng));
        s.triangles.insert(s.triangles.end(), {3 * t, 3 * t + 1, 3 * t + 2, 0});
    }
    return s;
}

// Reads the v and f records of a Wavefront OBJ file (faces fanned into triangles).
inline Mesh loadObj(const std::string& path, const std::string& name)
{
    Mesh s;
    s.name = name;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream ls(line);
        std::string tag;
        ls >> tag;
        if (tag == "v") {
            float x, y, z;
            ls >> x >> y >> z;
            s.vertices.insert(s.vertices.end(), {x, y, z});
        } else if (tag == "f") {
            std::vector<int> face;
            std::string ref;
            while (ls >> ref) face.push_back(std::stoi(ref.substr(0, ref.find('/'))) - 1);
            for (size_t k = 2; k < face.size(); ++k)
                s.triangles.insert(s.triangles.end(), {face[0], face[k - 1], face[k], 0});
        }
    }
    return s;
}

inline Mesh bunny() { return loadObj(VLKR_DATA_DIR "/bunny.obj", "bunny"); }

}  // namespace vlkr::bench
