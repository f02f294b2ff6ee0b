// vlkr-demo: ray traces a built-in scene, pictures the layered hits and walks a volume through
// resize, warp, remap and filter, writing render.png, layers.png and volume.png.
#include <png.h>
#include <tiny_obj_loader.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vlkr.h"

#ifndef VLKR_DEMO_DATA_DIR
#define VLKR_DEMO_DATA_DIR "data"
#endif

namespace {

constexpr float kPi = 3.14159265358979f;
constexpr int kBlock = 32;                  // pixel block edge handed to one worker at a time
constexpr int kMaxImageEdge = 8192;         // longest image side accepted
constexpr long kMaxImagePixels = 1L << 25;  // keeps the picture buffers within reason
constexpr int kLayers = 8;                  // depth of the layered query
constexpr float kFar = 1e30f;               // "no limit" for the nearest-hit searches
constexpr float kHitEps = 0.999f;           // hit points slightly in front of the surface
constexpr int kShOrder = 2;                 // irradiance needs bands 0..2 only
constexpr int kShSamples = 4096;            // sky samples for the projection

// One error message for the whole run; the first one wins.
struct ErrorSink {
    std::mutex lock;
    std::string message;
    std::atomic<bool> failed{false};
    void set(const std::string& m)
    {
        std::lock_guard<std::mutex> g(lock);
        if (!failed.exchange(true)) message = m;
    }
};

bool ok(vlkStatus status, const char* call, ErrorSink& errors)
{
    if (status == vlkStatusOk) return true;
    errors.set(std::string(call) + " failed with status " + std::to_string(status));
    return false;
}

#define VLK(call) ok((call), #call, errors)

// ---------------------------------------------------------------- images

struct Image {
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;
    void resize(int w, int h)
    {
        width = w, height = h;
        rgb.assign(static_cast<size_t>(w) * h * 3, 0);
    }
    unsigned char* at(int x, int y) { return &rgb[(static_cast<size_t>(y) * width + x) * 3]; }
};

struct PngFile {
    FILE* f = nullptr;
    png_structp png = nullptr;
    png_infop info = nullptr;
    ~PngFile()
    {
        if (png) png_destroy_write_struct(&png, info ? &info : nullptr);
        if (f) fclose(f);
    }
};

bool writePng(const std::string& path, const Image& image, std::string& error)
{
    PngFile out;
    out.f = fopen(path.c_str(), "wb");
    if (!out.f) {
        error = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    out.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (out.png) out.info = png_create_info_struct(out.png);
    if (!out.png || !out.info) {
        error = "cannot set up the PNG writer for " + path;
        return false;
    }
    std::vector<png_bytep> rows(image.height);
    for (int y = 0; y < image.height; ++y)
        rows[y] = const_cast<png_bytep>(&image.rgb[static_cast<size_t>(y) * image.width * 3]);
    // libpng reports failures by longjmp; nothing with a destructor is created past this point.
    if (setjmp(png_jmpbuf(out.png))) {
        error = "failed while writing " + path;
        return false;
    }
    png_init_io(out.png, out.f);
    png_set_IHDR(out.png, out.info, image.width, image.height, 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(out.png, out.info);
    png_write_image(out.png, rows.data());
    png_write_end(out.png, nullptr);
    if (fflush(out.f) != 0 || ferror(out.f)) {
        error = "failed while writing " + path;
        return false;
    }
    return true;
}

unsigned char toByte(float v)
{
    if (!(v > 0)) return 0;
    if (v >= 1) return 255;
    return static_cast<unsigned char>(v * 255.0f + 0.5f);
}

// ---------------------------------------------------------------- scene

struct Vec3 {
    float x, y, z;
};
Vec3 operator+(Vec3 a, Vec3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
Vec3 operator-(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vec3 operator*(Vec3 a, float s) { return {a.x * s, a.y * s, a.z * s}; }
float dot(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Vec3 cross(Vec3 a, Vec3 b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
Vec3 normalize(Vec3 a) { return a * (1.0f / std::sqrt(dot(a, a))); }

struct Material {
    float albedo[3];
    float mirror;  // share of the colour taken from the reflected ray
};

struct Scene {
    std::vector<float> vertices;     // packed x, y, z
    std::vector<float> normals;      // one per vertex, then the mesh file's own, packed
    std::vector<float> fileNormals;  // normals read from the mesh file, packed
    std::vector<int> normalIndex;    // per triangle: three normal numbers, unused; see below
    std::vector<int> triangles;      // a, b, c, unused
    std::vector<int> material;       // per triangle
    std::vector<Material> materials;
    std::vector<TriangleAccel> accel;
    float box[6] = {};
    KDTreeNode* tree = nullptr;
    int treeSize = 0;
    ~Scene()
    {
        if (tree) vlkrKDTreeFree(tree);
    }
    int vertexCount() const { return static_cast<int>(vertices.size() / 3); }
    int triangleCount() const { return static_cast<int>(triangles.size() / 4); }
    int addVertex(Vec3 p)
    {
        vertices.insert(vertices.end(), {p.x, p.y, p.z});
        return vertexCount() - 1;
    }
    // Normal numbers below zero name file normal -1 - n until finishNormals resolves them.
    void addTriangle(int a, int b, int c, int m, const int* normal = nullptr)
    {
        triangles.insert(triangles.end(), {a, b, c, 0});
        if (normal)
            normalIndex.insert(normalIndex.end(), {normal[0], normal[1], normal[2], 0});
        else
            normalIndex.insert(normalIndex.end(), {a, b, c, 0});
        material.push_back(m);
    }
};

float terrainHeight(float x, float z)
{
    return 0.45f * std::sin(0.55f * x) * std::cos(0.42f * z) +
           0.25f * std::sin(1.3f * x + 0.7f * z) + 0.012f * (x * x + z * z) - 0.8f;
}

void addTerrain(Scene& s, int material)
{
    constexpr int kCells = 128;
    constexpr float kHalf = 14.0f;
    const int first = s.vertexCount();
    for (int j = 0; j <= kCells; ++j)
        for (int i = 0; i <= kCells; ++i) {
            const float x = -kHalf + 2 * kHalf * i / kCells, z = -kHalf + 2 * kHalf * j / kCells;
            s.addVertex({x, terrainHeight(x, z), z});
        }
    for (int j = 0; j < kCells; ++j)
        for (int i = 0; i < kCells; ++i) {
            const int a = first + j * (kCells + 1) + i, b = a + 1, c = a + kCells + 1, d = c + 1;
            s.addTriangle(a, c, b, material);
            s.addTriangle(b, c, d, material);
        }
}

void addSphere(Scene& s, Vec3 centre, float radius, int material)
{
    constexpr int kStacks = 32, kSlices = 64;
    const int first = s.vertexCount();
    for (int i = 0; i <= kStacks; ++i)
        for (int j = 0; j < kSlices; ++j) {
            const float th = kPi * i / kStacks, ph = 2 * kPi * j / kSlices;
            s.addVertex(centre + Vec3{std::sin(th) * std::cos(ph), std::cos(th),
                                      std::sin(th) * std::sin(ph)} *
                                     radius);
        }
    for (int i = 0; i < kStacks; ++i)
        for (int j = 0; j < kSlices; ++j) {
            const int a = first + i * kSlices + j, b = first + i * kSlices + (j + 1) % kSlices;
            if (i != 0) s.addTriangle(a, b, a + kSlices, material);
            if (i != kStacks - 1) s.addTriangle(b, b + kSlices, a + kSlices, material);
        }
}

// Loads an OBJ, scales it to a given height and stands it on the terrain at (x, z).
bool addMesh(Scene& s, const std::string& path, float x, float z, float height, int material,
             std::string& error)
{
    tinyobj::attrib_t attrib;
    std::vector<tinyobj::shape_t> shapes;
    std::vector<tinyobj::material_t> materials;
    std::string warn, err;
    if (!std::filesystem::is_regular_file(path)) {
        error = "cannot read mesh " + path;
        return false;
    }
    if (!tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, path.c_str(), nullptr, true)) {
        error =
            "cannot load mesh " + path + (err.empty() ? "" : ": " + err.substr(0, err.find('\n')));
        return false;
    }
    const size_t vertexCount = attrib.vertices.size() / 3;
    if (vertexCount == 0) {
        error = "mesh " + path + " has no vertices";
        return false;
    }
    float lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
    for (size_t v = 0; v < vertexCount; ++v)
        for (int c = 0; c < 3; ++c) {
            const float p = attrib.vertices[3 * v + c];
            if (!std::isfinite(p)) {
                error = "mesh " + path + " has a non-finite coordinate";
                return false;
            }
            lo[c] = std::min(lo[c], p), hi[c] = std::max(hi[c], p);
        }
    const float extent = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    if (!(extent > 0)) {
        error = "mesh " + path + " is flat to a point";
        return false;
    }
    const float scale = height / extent;
    const Vec3 base = {x - 0.5f * (lo[0] + hi[0]) * scale,
                       terrainHeight(x, z) - 0.1f - lo[1] * scale,
                       z - 0.5f * (lo[2] + hi[2]) * scale};
    const int first = s.vertexCount();
    for (size_t v = 0; v < vertexCount; ++v)
        s.addVertex(base + Vec3{attrib.vertices[3 * v], attrib.vertices[3 * v + 1],
                                attrib.vertices[3 * v + 2]} *
                               scale);
    // The file's normals are used where a face gives one for each corner.
    const size_t fileNormals = attrib.normals.size() / 3;
    const int firstNormal = static_cast<int>(s.fileNormals.size() / 3);
    for (float c : attrib.normals) s.fileNormals.push_back(std::isfinite(c) ? c : 0.0f);
    size_t triangles = 0;
    for (const auto& shape : shapes) {
        const auto& idx = shape.mesh.indices;
        size_t at = 0;
        for (unsigned char n : shape.mesh.num_face_vertices) {
            if (n == 3) {
                int corner[3], normal[3];
                bool ownNormals = true;
                for (int k = 0; k < 3; ++k) {
                    const int vi = idx[at + k].vertex_index, ni = idx[at + k].normal_index;
                    if (vi < 0 || static_cast<size_t>(vi) >= vertexCount) {
                        error = "mesh " + path + " has a face index out of range";
                        return false;
                    }
                    corner[k] = first + vi;
                    ownNormals = ownNormals && ni >= 0 && static_cast<size_t>(ni) < fileNormals;
                    normal[k] = -1 - (firstNormal + ni);
                }
                s.addTriangle(corner[0], corner[1], corner[2], material,
                              ownNormals ? normal : nullptr);
                ++triangles;
            }
            at += n;
        }
    }
    if (triangles == 0) {
        error = "mesh " + path + " has no triangles";
        return false;
    }
    return true;
}

// Vertex normals as the sum of the unit normals of the triangles around each vertex, followed
// by the normals the mesh file brought.
bool computeVertexNormals(Scene& s, ErrorSink& errors)
{
    std::vector<float> faces(3 * static_cast<size_t>(s.triangleCount()));
    if (!VLK(vlkrTriangleNormal_32f(s.vertices.data(), s.triangles.data(), faces.data(),
                                    s.triangleCount())))
        return false;
    s.normals.assign(s.vertices.size(), 0.0f);
    for (int t = 0; t < s.triangleCount(); ++t)
        for (int k = 0; k < 3; ++k)
            for (int c = 0; c < 3; ++c)
                s.normals[3 * s.triangles[4 * t + k] + c] += faces[3 * t + c];
    const int own = s.vertexCount();
    s.normals.insert(s.normals.end(), s.fileNormals.begin(), s.fileNormals.end());
    for (int& n : s.normalIndex)
        if (n < 0) n = own + (-1 - n);
    return true;
}

bool buildScene(Scene& s, const std::string& meshPath, std::string& error, ErrorSink& errors)
{
    s.materials = {{{0.42f, 0.55f, 0.30f}, 0.0f},   // terrain
                   {{0.95f, 0.95f, 0.97f}, 0.85f},  // mirror sphere
                   {{0.85f, 0.25f, 0.20f}, 0.0f},   // red sphere
                   {{0.25f, 0.45f, 0.90f}, 0.15f},  // blue sphere
                   {{0.90f, 0.82f, 0.70f}, 0.0f}};  // mesh
    addTerrain(s, 0);
    addSphere(s, {-3.4f, terrainHeight(-3.4f, 1.5f) + 1.3f, 1.5f}, 1.5f, 1);
    addSphere(s, {3.3f, terrainHeight(3.3f, -0.6f) + 0.75f, -0.6f}, 0.8f, 2);
    addSphere(s, {2.3f, terrainHeight(2.3f, 3.2f) + 1.0f, 3.2f}, 1.05f, 3);
    if (!addMesh(s, meshPath, 0.2f, 0.4f, 3.2f, 4, error)) return false;
    if (!computeVertexNormals(s, errors)) return false;

    s.accel.resize(s.triangleCount());
    const KDTreeBuildContext build = {KDTreeBuildSAH, 40, 1.0f, 256, nullptr};
    return VLK(vlkrSetBoundBox_32f(s.vertices.data(), s.vertexCount(), s.box)) &&
           VLK(vlkrTriangleAccelInit(s.accel.data(), s.vertices.data(), s.triangles.data(),
                                     s.triangleCount())) &&
           VLK(vlkrKDTreeBuildAlloc(&s.tree, s.vertices.data(), s.triangles.data(), s.vertexCount(),
                                    s.triangleCount(), &s.treeSize, &build));
}

// Procedural sky: horizon haze, blue zenith, a warm glow towards the sun, dark ground below.
Vec3 skyRadiance(Vec3 d)
{
    const Vec3 sun = normalize({-0.5f, 0.45f, 0.75f});
    const float up = d.y;
    Vec3 c;
    if (up >= 0) {
        const float t = std::pow(up, 0.6f);
        c = Vec3{0.85f, 0.90f, 0.98f} * (1 - t) + Vec3{0.25f, 0.45f, 0.85f} * t;
    } else {
        const float t = std::min(1.0f, -up * 4);
        c = Vec3{0.75f, 0.78f, 0.80f} * (1 - t) + Vec3{0.30f, 0.26f, 0.22f} * t;
    }
    const float glow = std::max(0.0f, dot(d, sun));
    return c + Vec3{1.0f, 0.8f, 0.55f} * (0.6f * std::pow(glow, 24.0f));
}

// Irradiance coefficients of the sky: project, then convolve with the clamped cosine.
struct Ambient {
    std::unique_ptr<unsigned char[]> block;
    const SHContext* ctx = nullptr;
    std::vector<float> coeffs[3];
};

bool projectSky(Ambient& amb, ErrorSink& errors)
{
    int size = 0;
    if (!VLK(vlkrSHGetSize_32f(kShOrder, SHTypeRecurrence, &size))) return false;
    amb.block.reset(new unsigned char[size + 16]);
    // The context's tables are placed relative to the block, so give it a 16-byte start.
    auto* ctx = reinterpret_cast<SHContext*>((reinterpret_cast<uintptr_t>(amb.block.get()) + 15) &
                                             ~static_cast<uintptr_t>(15));
    if (!VLK(vlkrSHInit_32f(ctx, kShOrder, SHTypeRecurrence))) return false;
    amb.ctx = ctx;

    std::vector<float> x(kShSamples), y(kShSamples), z(kShSamples), r(kShSamples), g(kShSamples),
        b(kShSamples);
    const float golden = kPi * (3.0f - std::sqrt(5.0f));
    for (int i = 0; i < kShSamples; ++i) {
        const float cy = 1.0f - 2.0f * (i + 0.5f) / kShSamples, rad = std::sqrt(1 - cy * cy);
        const Vec3 d = {rad * std::cos(golden * i), cy, rad * std::sin(golden * i)};
        x[i] = d.x, y[i] = d.y, z[i] = d.z;
        const Vec3 L = skyRadiance(d);
        r[i] = L.x, g[i] = L.y, b[i] = L.z;
    }
    const int n = (kShOrder + 1) * (kShOrder + 1);
    for (auto& c : amb.coeffs) c.assign(n, 0.0f);
    const float* const src[3] = {r.data(), g.data(), b.data()};
    float* const dst[3] = {amb.coeffs[0].data(), amb.coeffs[1].data(), amb.coeffs[2].data()};
    if (!VLK(vlkrSHTFwd_32f_P3I(x.data(), y.data(), z.data(), src, kShSamples, dst, kShOrder, ctx)))
        return false;
    // Cosine lobe per band divided by pi gives outgoing radiance of a white diffuse surface.
    const float band[3] = {1.0f, 2.0f / 3.0f, 0.25f};
    constexpr float kAmbientShare = 0.55f;  // sky light kept low so the two lamps set the mood
    for (auto& c : amb.coeffs)
        for (int l = 0; l <= kShOrder; ++l)
            for (int m = -l; m <= l; ++m)
                c[l * l + l + m] *= kAmbientShare * band[l] * 4 * kPi / kShSamples;
    return true;
}

// ---------------------------------------------------------------- tracing

struct Camera {
    Vec3 eye;
    float corner[3], column[3], row[3];
};

Camera makeCamera(int width, int height)
{
    const Vec3 eye = {0.6f, 3.6f, -11.5f}, target = {0.0f, 0.9f, 1.0f};
    const Vec3 fwd = normalize(target - eye), right = normalize(cross({0, 1, 0}, fwd));
    const Vec3 up = cross(fwd, right);
    const float pixel = 2 * std::tan(0.5f * 50.0f * kPi / 180) / height;  // 50 degrees vertically
    const Vec3 corner =
        fwd + right * (pixel * (0.5f - 0.5f * width)) + up * (pixel * (0.5f * height - 0.5f));
    const Vec3 column = right * pixel, row = up * -pixel;
    return {
        eye, {corner.x, corner.y, corner.z}, {column.x, column.y, column.z}, {row.x, row.y, row.z}};
}

struct Light {
    float position[3];
    float colour[3];  // intensity at distance 1
};

struct RayCounts {
    long long eye = 0, shadow = 0, reflection = 0, layer = 0;
    double eyeSeconds = 0, shadowSeconds = 0, reflectionSeconds = 0, layerSeconds = 0;
    void add(const RayCounts& o)
    {
        eye += o.eye, shadow += o.shadow, reflection += o.reflection, layer += o.layer;
        eyeSeconds += o.eyeSeconds, shadowSeconds += o.shadowSeconds;
        reflectionSeconds += o.reflectionSeconds, layerSeconds += o.layerSeconds;
    }
};

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
}

// Planar per-ray arrays of one packet, sized for a full block.
struct Planes {
    std::vector<float> store;
    int size;
    explicit Planes(int count, int n) : store(static_cast<size_t>(count) * n), size(n) {}
    float* operator[](int k) { return store.data() + static_cast<size_t>(k) * size; }
};

struct Tracer {
    const Scene& scene;
    const Ambient& ambient;
    const Light* lights;
    int lightCount;
    IntersectContext ctx;
    ErrorSink& errors;
    RayCounts counts;

    // Per-packet scratch, reused by every block the worker takes.
    Planes p{32, kBlock* kBlock* kLayers};
    std::vector<int> tri = std::vector<int>(kBlock * kBlock * kLayers);
    std::vector<int> mask = std::vector<int>(kBlock * kBlock), lightMask = mask, occluder = mask;
    std::vector<int> tri2 = mask, index = mask;

    // Shades the hits of len rays whose origins are given per ray (origin) or shared (eye).
    // Leaves colour in rgb; rays that missed receive the sky.
    bool shade(const float* eye, const float* const origin[3], const float* const dir[3],
               const float* dist, const float* const hit[2], const int* triangle, int len,
               float* const rgb[3], float* const normal[3], float* const hitPoint[3], bool shadows)
    {
        float* facing = p[20];
        float* cosine = p[21];
        float* atten = p[22];
        float* const shadowDir[3] = {p[23], p[24], p[25]};
        float* const albedo[3] = {p[26], p[27], p[28]};
        const PacketSize packet = {len, 1};
        for (int i = 0; i < len; ++i) mask[i] = triangle[i] >= 0 ? 0 : -1;

        if (eye) {
            if (!VLK(
                    vlkrHitPoint3DEpsS0_32f_M(eye, dir, dist, mask.data(), hitPoint, len, kHitEps)))
                return false;
        } else if (!VLK(vlkrHitPoint3DEpsM0_32f_M(origin, dir, dist, mask.data(), hitPoint, len,
                                                  kHitEps))) {
            return false;
        }
        if (!VLK(vlkrSurfSmoothNormal_32f(scene.normals.data(), scene.normalIndex.data(), triangle,
                                          hit, normal, len, 4)) ||
            !VLK(vlkrDotChangeNorm_32f_IM(dir, mask.data(), normal, facing, len)))
            return false;

        // Ambient light from the sky's harmonics, looked up along each normal.
        const float* const coeffs[3] = {ambient.coeffs[0].data(), ambient.coeffs[1].data(),
                                        ambient.coeffs[2].data()};
        if (!VLK(vlkrSHTInv_32f_P3(coeffs, kShOrder, normal[0], normal[1], normal[2], rgb, len,
                                   ambient.ctx)))
            return false;
        for (int i = 0; i < len; ++i) {
            if (triangle[i] < 0) {
                const float d[3] = {dir[0][i], dir[1][i], dir[2][i]};
                const Vec3 sky = skyRadiance(normalize({d[0], d[1], d[2]}));
                rgb[0][i] = sky.x, rgb[1][i] = sky.y, rgb[2][i] = sky.z;
                for (int c = 0; c < 3; ++c) albedo[c][i] = 0;
                continue;
            }
            const Material& m = scene.materials[scene.material[triangle[i]]];
            for (int c = 0; c < 3; ++c) {
                albedo[c][i] = m.albedo[c] * (1 - m.mirror);
                rgb[c][i] = std::max(0.0f, rgb[c][i]) * albedo[c][i];
            }
        }

        for (int l = 0; l < lightCount; ++l) {
            const Light& light = lights[l];
            std::copy(mask.begin(), mask.begin() + len, lightMask.begin());
            if (!VLK(vlkrCastShadowSO_32f(light.position, facing, normal, hitPoint,
                                          lightMask.data(), cosine, shadowDir, len)))
                return false;
            if (shadows) {
                int traced = 0;
                for (int i = 0; i < len; ++i) traced += lightMask[i] >= 0;
                const auto t0 = Clock::now();
                if (!VLK(vlkrIntersectAnySO_32f(light.position, shadowDir, occluder.data(),
                                                lightMask.data(), packet, &ctx)))
                    return false;
                counts.shadowSeconds += since(t0);
                counts.shadow += traced;
            }
            // Lambert over the squared distance: |v . n| / d^3 with v of length d.
            if (!VLK(vlkrDistAttenuationSO_32f_M(light.position, hitPoint, lightMask.data(), atten,
                                                 len)))
                return false;
            for (int k = 0; k < 3; ++k)
                if (!VLK(vlkrDiv_32f_C1IM(atten, lightMask.data(), cosine, len))) return false;
            if (!VLK(vlkrAddMulMul_32f_AC1P3IM(light.colour, cosine, albedo, lightMask.data(), rgb,
                                               len)))
                return false;
        }
        return true;
    }

    // Renders one pixel block into the picture.
    bool renderBlock(const Camera& cam, int bx, int by, Image& out)
    {
        const int w = std::min(kBlock, out.width - bx * kBlock);
        const int h = std::min(kBlock, out.height - by * kBlock);
        const int len = w * h;
        const PacketSize block = {kBlock, kBlock}, packet = {w, h};
        float* const dir[3] = {p[0], p[1], p[2]};
        float* dist = p[3];
        float* const hit[2] = {p[4], p[5]};
        float* const rgb[3] = {p[6], p[7], p[8]};
        float* const normal[3] = {p[9], p[10], p[11]};
        float* const hitPoint[3] = {p[12], p[13], p[14]};

        if (!VLK(vlkrCastEye_32f(cam.corner, cam.column, cam.row, bx, by, block, dir, packet)))
            return false;
        std::fill(dist, dist + len, kFar);
        const float eye[3] = {cam.eye.x, cam.eye.y, cam.eye.z};
        auto t0 = Clock::now();
        if (!VLK(vlkrIntersectEyeSO_32f(eye, dir, dist, hit, tri.data(), &ctx, packet)))
            return false;
        counts.eyeSeconds += since(t0);
        counts.eye += len;
        if (!shade(eye, nullptr, dir, dist, hit, tri.data(), len, rgb, normal, hitPoint, true))
            return false;

        // Mirror bounce: gather the shiny hits into one packet with per-ray origins.
        int m = 0;
        std::vector<int>& reflMask = lightMask;
        for (int i = 0; i < len; ++i) {
            const bool shiny = tri[i] >= 0 && scene.materials[scene.material[tri[i]]].mirror > 0;
            reflMask[i] = shiny ? 0 : -1;
            if (shiny) index[m++] = i;
        }
        if (m == 0) return store(bx, by, w, h, rgb, out);
        float* const reflected[3] = {p[15], p[16], p[17]};
        if (!VLK(vlkrCastReflectionRay_32f(dir, reflMask.data(), normal, reflected, len)))
            return false;
        float* const o2[3] = {p[29], p[30], p[31]};
        float* const d2[3] = {p[15] + len, p[16] + len, p[17] + len};
        float* dist2 = p[18];
        float* const hit2[2] = {p[19], p[19] + len};
        for (int k = 0; k < m; ++k)
            for (int c = 0; c < 3; ++c)
                o2[c][k] = hitPoint[c][index[k]], d2[c][k] = reflected[c][index[k]];
        std::fill(dist2, dist2 + m, kFar);
        t0 = Clock::now();
        if (!VLK(vlkrIntersectMO_32f(o2, d2, dist2, hit2, tri2.data(), &ctx, PacketSize{m, 1})))
            return false;
        counts.reflectionSeconds += since(t0);
        counts.reflection += m;

        // Shade the reflected hits into spare planes, then blend them in by the mirror share.
        float* const rgb2[3] = {p[0] + len, p[1] + len, p[2] + len};
        float* const n2[3] = {p[9] + len, p[10] + len, p[11] + len};
        float* const h2[3] = {p[12] + len, p[13] + len, p[14] + len};
        if (!shade(nullptr, o2, d2, dist2, hit2, tri2.data(), m, rgb2, n2, h2, true)) return false;
        for (int k = 0; k < m; ++k) {
            const int i = index[k];
            const float share = scene.materials[scene.material[tri[i]]].mirror;
            const float* tint = scene.materials[scene.material[tri[i]]].albedo;
            for (int c = 0; c < 3; ++c) rgb[c][i] += share * tint[c] * rgb2[c][k];
        }
        return store(bx, by, w, h, rgb, out);
    }

    static bool store(int bx, int by, int w, int h, float* const rgb[3], Image& out)
    {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                unsigned char* px = out.at(bx * kBlock + x, by * kBlock + y);
                for (int c = 0; c < 3; ++c) {
                    const float v = rgb[c][y * w + x];
                    // Soft shoulder so bright lights do not clip hard, then display gamma.
                    px[c] = toByte(std::pow(v / (1 + 0.25f * v), 1 / 2.2f));
                }
            }
        return true;
    }

    // Counts the layers each eye ray passes through and paints the count in false colour.
    bool layerBlock(const Camera& cam, int bx, int by, Image& out)
    {
        const int w = std::min(kBlock, out.width - bx * kBlock);
        const int h = std::min(kBlock, out.height - by * kBlock);
        const int len = w * h;
        const PacketSize block = {kBlock, kBlock}, packet = {w, h};
        const size_t all = static_cast<size_t>(len) * kLayers;
        float* const dir[3] = {p[0], p[1], p[2]};
        float* dist = p[3];
        float* const hit[2] = {p[3] + all, p[3] + 2 * all};
        if (!VLK(vlkrCastEye_32f(cam.corner, cam.column, cam.row, bx, by, block, dir, packet)))
            return false;
        std::fill(dist, dist + len, kFar);
        const float eye[3] = {cam.eye.x, cam.eye.y, cam.eye.z};
        const VolumeSize layers = {w, h, kLayers};
        const auto t0 = Clock::now();
        if (!VLK(vlkrIntersectMultipleSO_32f(eye, dir, dist, hit, tri.data(), &layers, &ctx)))
            return false;
        counts.layerSeconds += since(t0);
        counts.layer += len;
        // Palette from deep blue through green and yellow to white, one entry per count.
        static const unsigned char palette[kLayers + 1][3] = {
            {18, 18, 28},   {40, 60, 160},  {30, 130, 200}, {40, 180, 140}, {120, 200, 60},
            {220, 210, 50}, {240, 140, 40}, {220, 60, 50},  {255, 255, 255}};
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                int count = 0;
                while (count < kLayers && tri[static_cast<size_t>(count) * len + y * w + x] >= 0)
                    ++count;
                std::memcpy(out.at(bx * kBlock + x, by * kBlock + y), palette[count], 3);
            }
        return true;
    }
};

// Shares the pixel blocks out to the workers through one atomic counter.
bool runBlocks(int width, int height, int threads, const char* label, ErrorSink& errors,
               const std::function<std::unique_ptr<Tracer>()>& makeTracer,
               const std::function<bool(Tracer&, int, int)>& work, RayCounts& total)
{
    const int columns = (width + kBlock - 1) / kBlock, rows = (height + kBlock - 1) / kBlock;
    const int blocks = columns * rows;
    // More workers than blocks would only hold idle scratch.
    threads = std::min(threads, blocks);
    std::atomic<int> next{0}, done{0};
    std::vector<std::unique_ptr<Tracer>> tracers(threads);
    for (auto& t : tracers) t = makeTracer();
    auto worker = [&](Tracer& tracer) {
        for (int b; !errors.failed && (b = next++) < blocks; ++done)
            if (!work(tracer, b % columns, b / columns)) return;
    };
    std::vector<std::thread> pool;
    for (int t = 1; t < threads; ++t) pool.emplace_back(worker, std::ref(*tracers[t]));
    const bool bar = isatty(STDERR_FILENO);
    if (bar) {
        // The main thread draws progress while the others trace, then joins in.
        std::thread drawer([&] {
            for (;;) {
                const int d = std::min(done.load(), blocks);
                const int filled = 40 * d / blocks;
                fprintf(stderr, "\r%-7s [%s%s] %3d%%", label, std::string(filled, '#').c_str(),
                        std::string(40 - filled, '.').c_str(), 100 * d / blocks);
                if (d >= blocks || errors.failed) break;
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            fprintf(stderr, "\n");
        });
        worker(*tracers[0]);
        for (auto& t : pool) t.join();
        if (errors.failed) done = blocks;
        drawer.join();
    } else {
        worker(*tracers[0]);
        for (auto& t : pool) t.join();
    }
    for (auto& t : tracers) total.add(t->counts);
    return !errors.failed;
}

// ---------------------------------------------------------------- volume

struct Volume16 {
    int w, h, d;
    std::vector<Vlk16u> data;
    Volume16(int w_, int h_, int d_) : w(w_), h(h_), d(d_), data(static_cast<size_t>(w_) * h_ * d_)
    {
    }
    Vlk16u* plane(int z) { return data.data() + static_cast<size_t>(z) * w * h; }
    std::vector<Vlk16u*> planes()
    {
        std::vector<Vlk16u*> p(d);
        for (int z = 0; z < d; ++z) p[z] = plane(z);
        return p;
    }
    int step() const { return w * static_cast<int>(sizeof(Vlk16u)); }
    Vlk16u at(int x, int y, int z) const { return data[(static_cast<size_t>(z) * h + y) * w + x]; }
};

// A head-like phantom: nested ellipsoids of different densities.
Volume16 makePhantom(int n)
{
    struct Blob {
        float cx, cy, cz, rx, ry, rz, value;
    };
    const Blob blobs[] = {
        {0, 0, 0, 0.72f, 0.9f, 0.8f, 12000},          {0, 0, 0, 0.66f, 0.84f, 0.74f, -4000},
        {-0.25f, 0.1f, 0, 0.16f, 0.35f, 0.22f, 9000}, {0.25f, 0.1f, 0, 0.12f, 0.3f, 0.2f, 14000},
        {0, -0.45f, 0.2f, 0.1f, 0.1f, 0.1f, 20000},   {0, 0.5f, -0.2f, 0.22f, 0.12f, 0.3f, 6000}};
    Volume16 v(n, n, n);
    for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x) {
                const float px = 2.0f * (x + 0.5f) / n - 1, py = 2.0f * (y + 0.5f) / n - 1,
                            pz = 2.0f * (z + 0.5f) / n - 1;
                float value = 0;
                for (const Blob& b : blobs) {
                    const float dx = (px - b.cx) / b.rx, dy = (py - b.cy) / b.ry,
                                dz = (pz - b.cz) / b.rz;
                    if (dx * dx + dy * dy + dz * dz <= 1) value += b.value;
                }
                v.data[(static_cast<size_t>(z) * n + y) * n + x] =
                    static_cast<Vlk16u>(std::max(0.0f, value));
            }
    return v;
}

// Appends one row of three centre slices (xy, xz, yz), each scaled to tile x tile.
void montageRow(const Volume16& v, int row, int tile, float top, Image& out)
{
    for (int view = 0; view < 3; ++view)
        for (int ty = 0; ty < tile; ++ty)
            for (int tx = 0; tx < tile; ++tx) {
                Vlk16u s;
                if (view == 0)
                    s = v.at(tx * v.w / tile, ty * v.h / tile, v.d / 2);
                else if (view == 1)
                    s = v.at(tx * v.w / tile, v.h / 2, ty * v.d / tile);
                else
                    s = v.at(v.w / 2, tx * v.h / tile, ty * v.d / tile);
                const unsigned char g = toByte(s / top);
                unsigned char* px = out.at(view * tile + tx, row * tile + ty);
                px[0] = px[1] = px[2] = g;
            }
}

bool volumeDemo(Image& out, ErrorSink& errors)
{
    constexpr int kSource = 64, kTile = 160, kSteps = 5;
    constexpr double kScale = 1.5;
    constexpr float kWindow = 26000.0f;  // voxel value shown as white
    out.resize(3 * kTile, kSteps * kTile);
    Volume16 src = makePhantom(kSource);
    montageRow(src, 0, kTile, kWindow, out);

    // Resize by 1.5 with a Catmull-Rom cubic.
    const Cuboid srcVoi = {0, 0, 0, kSource, kSource, kSource};
    Cuboid dstVoi;
    if (!VLK(vlkrGetResizeCuboid(&srcVoi, &dstVoi, kScale, kScale, kScale, 0, 0, 0,
                                 vlkInterCatmullRom)))
        return false;
    Volume16 big(dstVoi.x + dstVoi.width, dstVoi.y + dstVoi.height, dstVoi.z + dstVoi.depth);
    int bufSize = 0;
    if (!VLK(vlkrResizeGetBufSize(&srcVoi, &dstVoi, 1, vlkInterCatmullRom, &bufSize))) return false;
    std::vector<unsigned char> buffer(bufSize);
    const VolumeSize srcSize = {kSource, kSource, kSource};
    auto srcPlanes = src.planes();
    auto bigPlanes = big.planes();
    if (!VLK(vlkrResize_16u_C1PV(srcPlanes.data(), &srcSize, src.step(), &srcVoi, bigPlanes.data(),
                                 big.step(), &dstVoi, kScale, kScale, kScale, 0, 0, 0,
                                 vlkInterCatmullRom, buffer.data())))
        return false;
    montageRow(big, 1, kTile, kWindow, out);

    // Rotate about the centre, 30 degrees around z and 20 around x.
    const int n = big.w;
    const VolumeSize bigSize = {big.w, big.h, big.d};
    const Cuboid whole = {0, 0, 0, big.w, big.h, big.d};
    const double a = 30 * 3.14159265358979 / 180, b = 20 * 3.14159265358979 / 180;
    const double rz[3][3] = {
        {std::cos(a), -std::sin(a), 0}, {std::sin(a), std::cos(a), 0}, {0, 0, 1}};
    const double rx[3][3] = {
        {1, 0, 0}, {0, std::cos(b), -std::sin(b)}, {0, std::sin(b), std::cos(b)}};
    double coeffs[3][4];
    const double c = 0.5 * (n - 1);
    for (int r = 0; r < 3; ++r) {
        double shift = c;
        for (int k = 0; k < 3; ++k) {
            coeffs[r][k] = 0;
            for (int j = 0; j < 3; ++j) coeffs[r][k] += rx[r][j] * rz[j][k];
            shift -= coeffs[r][k] * c;
        }
        coeffs[r][3] = shift;
    }
    Volume16 turned(n, n, n);
    auto turnedPlanes = turned.planes();
    if (!VLK(vlkrWarpAffine_16u_C1PV(bigPlanes.data(), &bigSize, big.step(), &whole,
                                     turnedPlanes.data(), turned.step(), &whole, coeffs,
                                     vlkInterLinear)))
        return false;
    montageRow(turned, 2, kTile, kWindow, out);

    // Twist: each plane turns about the z axis by an angle growing with its height.
    const size_t voxels = static_cast<size_t>(n) * n * n;
    std::vector<float> xm(voxels), ym(voxels), zm(voxels);
    std::vector<const float*> xp(n), yp(n), zp(n);
    for (int z = 0; z < n; ++z) {
        const float angle = 0.5f + 2.0f * (z - 0.5f * n) / n;
        const float cs = std::cos(angle), sn = std::sin(angle);
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x) {
                const size_t i = (static_cast<size_t>(z) * n + y) * n + x;
                const float dx = x - static_cast<float>(c), dy = y - static_cast<float>(c);
                xm[i] = static_cast<float>(c) + cs * dx - sn * dy;
                ym[i] = static_cast<float>(c) + sn * dx + cs * dy;
                zm[i] = static_cast<float>(z);
            }
        const size_t plane = static_cast<size_t>(z) * n * n;
        xp[z] = xm.data() + plane, yp[z] = ym.data() + plane, zp[z] = zm.data() + plane;
    }
    Volume16 twisted(n, n, n);
    auto twistedPlanes = twisted.planes();
    Cuboid remapVoi = whole;
    const int mapStep = n * static_cast<int>(sizeof(float));
    if (!VLK(vlkrRemap_16u_C1PV(turnedPlanes.data(), &bigSize, turned.step(), &remapVoi, xp.data(),
                                yp.data(), zp.data(), mapStep, twistedPlanes.data(), twisted.step(),
                                &bigSize, vlkInterLinear)))
        return false;
    montageRow(twisted, 3, kTile, kWindow, out);

    // Smooth with a 3x3x3 binomial kernel on a signed copy padded by one replicated voxel.
    const int pw = n + 2;
    std::vector<Vlk16s> padded(static_cast<size_t>(pw) * pw * pw);
    for (int z = 0; z < pw; ++z)
        for (int y = 0; y < pw; ++y)
            for (int x = 0; x < pw; ++x) {
                const int sx = std::clamp(x - 1, 0, n - 1), sy = std::clamp(y - 1, 0, n - 1),
                          sz = std::clamp(z - 1, 0, n - 1);
                padded[(static_cast<size_t>(z) * pw + y) * pw + x] =
                    static_cast<Vlk16s>(std::min<int>(twisted.at(sx, sy, sz), 32767));
            }
    std::vector<const Vlk16s*> paddedPlanes(pw);
    for (int z = 0; z < pw; ++z)
        paddedPlanes[z] = padded.data() + (static_cast<size_t>(z) * pw + 1) * pw + 1;
    std::vector<Vlk16s> smooth(voxels);
    std::vector<Vlk16s*> smoothPlanes(n);
    for (int z = 0; z < n; ++z) smoothPlanes[z] = smooth.data() + static_cast<size_t>(z) * n * n;
    int kernel[27];
    const int taps[3] = {1, 2, 1};
    for (int k = 0; k < 27; ++k) kernel[k] = taps[k % 3] * taps[k / 3 % 3] * taps[k / 9];
    const VolumeSize region = {n, n, n}, kernelSize = {3, 3, 3};
    const int anchor[3] = {1, 1, 1};
    int filterBuf = 0;
    if (!VLK(vlkrFilterGetBufSize(&region, &kernelSize, 1, &filterBuf))) return false;
    std::vector<unsigned char> work(filterBuf);
    // The first source plane read lies one before plane 0: anchor z minus (depth - 1).
    if (!VLK(vlkrFilter_16s_C1PV(paddedPlanes.data() + 1, pw * static_cast<int>(sizeof(Vlk16s)),
                                 smoothPlanes.data(), n * static_cast<int>(sizeof(Vlk16s)), &region,
                                 kernel, &kernelSize, anchor, 64, work.data())))
        return false;
    Volume16 filtered(n, n, n);
    for (size_t i = 0; i < voxels; ++i)
        filtered.data[i] = static_cast<Vlk16u>(std::max<int>(0, smooth[i]));
    montageRow(filtered, 4, kTile, kWindow, out);
    return true;
}

// ---------------------------------------------------------------- command line

struct Options {
    std::string mesh = std::string(VLKR_DEMO_DATA_DIR) + "/bunny.obj";
    int width = 800, height = 600;
    int threads = 0;
    std::string out = "out";
    std::string only;
};

bool parseInt(const char* text, int& value)
{
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (errno || end == text || *end || v < 1 || v > kMaxImageEdge) return false;
    value = static_cast<int>(v);
    return true;
}

bool parseSize(const std::string& text, int& w, int& h)
{
    const size_t x = text.find('x');
    if (x == std::string::npos) return false;
    return parseInt(text.substr(0, x).c_str(), w) && parseInt(text.substr(x + 1).c_str(), h) &&
           static_cast<long>(w) * h <= kMaxImagePixels;
}

bool parseOptions(int argc, char** argv, Options& o, std::string& error)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            error =
                "usage: vlkr-demo [--mesh FILE.obj] [--size WxH] [--threads N] [--out DIR] "
                "[--only render|layers|volume]";
            return false;
        }
        const bool takesValue = arg == "--mesh" || arg == "--size" || arg == "--threads" ||
                                arg == "--out" || arg == "--only";
        if (!takesValue) {
            error = "unknown option " + arg + " (try --help)";
            return false;
        }
        if (i + 1 >= argc) {
            error = "option " + arg + " needs a value";
            return false;
        }
        const std::string value = argv[++i];
        if (arg == "--mesh") {
            o.mesh = value;
        } else if (arg == "--size") {
            if (!parseSize(value, o.width, o.height)) {
                error = "bad size " + value + " (want WxH, each 1 to " +
                        std::to_string(kMaxImageEdge) + ", at most " +
                        std::to_string(kMaxImagePixels) + " pixels)";
                return false;
            }
        } else if (arg == "--threads") {
            if (!parseInt(value.c_str(), o.threads) || o.threads > 256) {
                error = "bad thread count " + value + " (want 1 to 256)";
                return false;
            }
        } else if (arg == "--out") {
            if (value.empty()) {
                error = "empty output folder";
                return false;
            }
            o.out = value;
        } else if (value == "render" || value == "layers" || value == "volume") {
            o.only = value;
        } else {
            error = "bad --only " + value + " (want render, layers or volume)";
            return false;
        }
    }
    return true;
}

// The data folder is compiled in; a run from the source tree finds data/ beside it.
std::string defaultMesh(const Options& o)
{
    if (std::filesystem::is_regular_file(o.mesh)) return o.mesh;
    return "data/bunny.obj";
}

void printRate(const char* kind, long long rays, double seconds)
{
    if (rays == 0) return;
    printf("  %-10s %10lld rays  %7.2f Mrays/s per thread\n", kind, rays,
           seconds > 0 ? rays / seconds / 1e6 : 0.0);
}

int fail(const std::string& message)
{
    fprintf(stderr, "vlkr-demo: %s\n", message.c_str());
    return 1;
}

}  // namespace

static int run(int argc, char** argv)
{
    Options o;
    std::string error;
    const bool meshGiven = [&] {
        for (int i = 1; i < argc; ++i)
            if (std::string(argv[i]) == "--mesh") return true;
        return false;
    }();
    if (!parseOptions(argc, argv, o, error)) return fail(error);
    if (!meshGiven) o.mesh = defaultMesh(o);
    if (o.threads == 0) o.threads = std::max(1u, std::thread::hardware_concurrency());

    std::error_code ec;
    std::filesystem::create_directories(o.out, ec);
    if (ec || !std::filesystem::is_directory(o.out))
        return fail("cannot create output folder " + o.out + (ec ? ": " + ec.message() : ""));
    const bool all = o.only.empty();
    ErrorSink errors;
    const LibVersion* version = vlkrGetLibVersion();
    printf("%s %s, %d thread%s\n", version->name, version->version, o.threads,
           o.threads > 1 ? "s" : "");

    if (all || o.only != "volume") {
        const auto t0 = Clock::now();
        Scene scene;
        if (!buildScene(scene, o.mesh, error, errors))
            return fail(error.empty() ? errors.message : error);
        printf("scene: %d triangles, tree of %d bytes, built in %.2f s\n", scene.triangleCount(),
               scene.treeSize, since(t0));
        Ambient ambient;
        if (!projectSky(ambient, errors)) return fail(errors.message);
        const Light lights[2] = {{{-6.0f, 9.0f, -6.0f}, {95.0f, 88.0f, 78.0f}},
                                 {{7.0f, 5.0f, -3.0f}, {20.0f, 26.0f, 38.0f}}};
        const Camera cam = makeCamera(o.width, o.height);
        const IntersectContext ctx = {scene.box, scene.accel.data(), scene.tree};
        auto makeTracer = [&] {
            return std::unique_ptr<Tracer>(new Tracer{scene, ambient, lights, 2, ctx, errors, {}});
        };

        if (all || o.only == "render") {
            Image image;
            image.resize(o.width, o.height);
            RayCounts counts;
            const auto t1 = Clock::now();
            if (!runBlocks(
                    o.width, o.height, o.threads, "render", errors, makeTracer,
                    [&](Tracer& t, int bx, int by) { return t.renderBlock(cam, bx, by, image); },
                    counts))
                return fail(errors.message);
            const double wall = since(t1);
            if (!writePng(o.out + "/render.png", image, error)) return fail(error);
            const long long rays = counts.eye + counts.shadow + counts.reflection;
            printf("render.png: %dx%d in %.2f s, %.2f Mrays/s over all threads\n", o.width,
                   o.height, wall, rays / wall / 1e6);
            printRate("eye", counts.eye, counts.eyeSeconds);
            printRate("shadow", counts.shadow, counts.shadowSeconds);
            printRate("reflection", counts.reflection, counts.reflectionSeconds);
        }
        if (all || o.only == "layers") {
            Image image;
            image.resize(o.width, o.height);
            RayCounts counts;
            const auto t1 = Clock::now();
            if (!runBlocks(
                    o.width, o.height, o.threads, "layers", errors, makeTracer,
                    [&](Tracer& t, int bx, int by) { return t.layerBlock(cam, bx, by, image); },
                    counts))
                return fail(errors.message);
            if (!writePng(o.out + "/layers.png", image, error)) return fail(error);
            printf("layers.png: %dx%d in %.2f s\n", o.width, o.height, since(t1));
            printRate("layered", counts.layer, counts.layerSeconds);
        }
    }
    if (all || o.only == "volume") {
        const auto t0 = Clock::now();
        Image image;
        if (!volumeDemo(image, errors)) return fail(errors.message);
        if (!writePng(o.out + "/volume.png", image, error)) return fail(error);
        printf("volume.png: %dx%d in %.2f s\n", image.width, image.height, since(t0));
    }
    return 0;
}

int main(int argc, char** argv)
{
    // Out of memory or out of threads still ends with one line, not an abort.
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        return fail(std::string("stopped: ") + e.what());
    }
}
