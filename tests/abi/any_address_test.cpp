// Caller arrays may start at any byte address. Each call below runs once with every array on a
// 16-byte boundary and then three times with each array at its own odd or 4-byte-but-not-16
// offset, and must give the same bytes. Under the sanitizers any access that assumes more
// alignment than a byte stops the run; without them the odd offsets still take the lead-in and
// scalar paths that an aligned array never reaches.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "test_mesh.h"
#include "vlkr.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Copies of arrays at chosen byte offsets. Shift 0 puts every array on a 16-byte boundary;
// shifts 1 to 3 give each array the next offset of a list of those that are not.
class Placer {
   public:
    explicit Placer(int shift) : shift_(shift) {}

    template <class T>
    T* place(const std::vector<T>& values)
    {
        return place(values.data(), values.size());
    }
    template <class T>
    T* place(const T* values, std::size_t n)
    {
        static constexpr int kOffsets[] = {1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, 4, 8, 12};
        const int offset = shift_ ? kOffsets[(5 * shift_ + placed_++) % 15] : 0;
        blocks_.emplace_back(new unsigned char[n * sizeof(T) + 32]);
        auto base = reinterpret_cast<std::uintptr_t>(blocks_.back().get());
        unsigned char* at = reinterpret_cast<unsigned char*>((base + 15) / 16 * 16) + offset;
        if (n) std::memcpy(at, values, n * sizeof(T));
        return reinterpret_cast<T*>(at);
    }
    template <class T>
    T* zeros(std::size_t n)
    {
        return place(std::vector<T>(n));
    }

   private:
    int shift_, placed_ = 0;
    std::vector<std::unique_ptr<unsigned char[]>> blocks_;
};

// What a call gave: its status and the bytes of its outputs, appended in turn.
struct Result {
    Bytes bytes;
    void status(vlkStatus s) { add(&s, 1); }
    template <class T>
    void add(const T* p, std::size_t n)
    {
        const auto* b = reinterpret_cast<const unsigned char*>(p);
        bytes.insert(bytes.end(), b, b + n * sizeof(T));
    }
};

void expectSameAtAnyAddress(const char* what, const std::function<void(Placer&, Result&)>& run)
{
    Placer aligned(0);
    Result reference;
    run(aligned, reference);
    ASSERT_FALSE(reference.bytes.empty()) << what;
    for (int shift = 1; shift <= 3; ++shift) {
        Placer placer(shift);
        Result r;
        run(placer, r);
        EXPECT_EQ(r.bytes, reference.bytes) << what << ", shift " << shift;
    }
}

std::vector<float> randoms(std::mt19937& rng, std::size_t n, float lo, float hi)
{
    std::uniform_real_distribution<float> u(lo, hi);
    std::vector<float> v(n);
    for (float& x : v) x = u(rng);
    return v;
}

// Masks with about a quarter of the rays passed over.
std::vector<int> randomMask(std::mt19937& rng, std::size_t n)
{
    std::vector<int> m(n);
    for (int& x : m) x = rng() % 4 == 0 ? -1 : int(rng() % 3);
    return m;
}

// Three planes of n floats each, placed separately.
struct Planes {
    float* p[3];
    Planes(Placer& at, const std::vector<float>& all, std::size_t n)
    {
        for (int c = 0; c < 3; ++c) p[c] = at.place(all.data() + c * n, n);
    }
    void addTo(Result& r, std::size_t n) const
    {
        for (float* q : p) r.add(q, n);
    }
};

TEST(AnyAddress, SceneTreeAndEveryQuery)
{
    const vlkr::test::Mesh mesh = vlkr::test::sphere(8, 12);
    const int nv = mesh.vertexCount(), nt = mesh.triangleCount();
    const PacketSize block{13, 11};
    const std::size_t rays = 13 * 11;
    std::mt19937 rng(21);
    // Directions from the eye at the sphere and past it, lengths a hit can reach.
    const float eye[3] = {0.5f, 0.3f, -10.0f};
    std::vector<float> dirs(3 * rays);
    for (std::size_t i = 0; i < rays; ++i) {
        dirs[i] = std::uniform_real_distribution<float>(-4.5f, 4.5f)(rng) - eye[0];
        dirs[rays + i] = std::uniform_real_distribution<float>(-4.5f, 4.5f)(rng) - eye[1];
        dirs[2 * rays + i] = -eye[2];
    }
    const std::vector<float> origins = randoms(rng, 3 * rays, -0.2f, 0.2f);
    const std::vector<int> mask = randomMask(rng, rays);
    const std::vector<float> vertexNormals = randoms(rng, mesh.vertices.size(), -1, 1);

    expectSameAtAnyAddress("scene", [&](Placer& at, Result& r) {
        const float* v = at.place(mesh.vertices);
        const int* t = at.place(mesh.triangles);
        float* box = at.zeros<float>(6);
        r.status(vlkrSetBoundBox_32f(v, nv, box));
        r.add(box, 6);
        auto* accel = at.zeros<TriangleAccel>(std::size_t(nt));
        r.status(vlkrTriangleAccelInit(accel, v, t, nt));
        r.add(accel, std::size_t(nt));
        float* normals = at.zeros<float>(3 * std::size_t(nt));
        r.status(vlkrTriangleNormal_32f(v, t, normals, nt));
        r.add(normals, 3 * std::size_t(nt));

        // The build reads the vertices, the triangles and the caller's box.
        const KDTreeBuildContext params{KDTreeBuildSAH, 30, 1.0f, 64, box};
        KDTreeNode* tree = nullptr;
        int size = 0;
        r.status(vlkrKDTreeBuildAlloc(&tree, v, t, nv, nt, &size, &params));
        ASSERT_NE(tree, nullptr);
        r.add(reinterpret_cast<const unsigned char*>(tree), std::size_t(size));
        const IntersectContext ctx{box, accel, tree};

        // Nearest hits from one origin and from one origin per ray.
        const float* origin = at.place(eye, 3);
        const Planes dir(at, dirs, rays);
        const std::vector<float> far(rays, 30.0f);
        for (bool perRay : {false, true}) {
            float* dist = at.place(far);
            float* hit[2] = {at.zeros<float>(rays), at.zeros<float>(rays)};
            int* tri = at.zeros<int>(rays);
            if (perRay) {
                const Planes o(at, origins, rays);
                r.status(vlkrIntersectMO_32f(o.p, dir.p, dist, hit, tri, &ctx, block));
            } else {
                r.status(vlkrIntersectEyeSO_32f(origin, dir.p, dist, hit, tri, &ctx, block));
            }
            r.add(dist, rays), r.add(hit[0], rays), r.add(hit[1], rays), r.add(tri, rays);
            std::vector<int> found(rays);
            std::memcpy(found.data(), tri, rays * sizeof(int));
            EXPECT_GT(std::count_if(found.begin(), found.end(), [](int k) { return k >= 0; }),
                      int(rays / 3));
        }

        // Three layers.
        const VolumeSize layers{13, 11, 3};
        std::vector<float> farLayers(3 * rays, 30.0f);
        float* dist = at.place(farLayers);
        float* hit[2] = {at.zeros<float>(3 * rays), at.zeros<float>(3 * rays)};
        int* tri = at.zeros<int>(3 * rays);
        r.status(vlkrIntersectMultipleSO_32f(origin, dir.p, dist, hit, tri, &layers, &ctx));
        r.add(dist, 3 * rays), r.add(hit[0], 3 * rays), r.add(tri, 3 * rays);

        // Occlusion of the masked rays, and the normals at the first layer's hits.
        int* occluder = at.zeros<int>(rays);
        int* m = at.place(mask);
        r.status(vlkrIntersectAnySO_32f(origin, dir.p, occluder, m, block, &ctx));
        r.add(occluder, rays), r.add(m, rays);
        float* normal[3] = {at.zeros<float>(rays), at.zeros<float>(rays), at.zeros<float>(rays)};
        r.status(vlkrSurfFlatNormal_32f(normals, tri, normal, int(rays)));
        r.add(normal[1], rays);
        r.status(
            vlkrSurfSmoothNormal_32f(at.place(vertexNormals), t, tri, hit, normal, int(rays), 4));
        for (float* q : normal) r.add(q, rays);
        vlkrKDTreeFree(tree);
    });
}

TEST(AnyAddress, RaysHitPointsAndShading)
{
    constexpr int kLen = 37;  // groups of four and a tail, from any lead-in
    std::mt19937 rng(8);
    const std::vector<float> a = randoms(rng, 3 * kLen, -2, 2), b = randoms(rng, 3 * kLen, -2, 2);
    const std::vector<float> f = randoms(rng, kLen, -1, 3), d = randoms(rng, kLen, 0, 4);
    std::vector<float> withZeros = f;
    withZeros[3] = withZeros[20] = 0.0f;
    const std::vector<int> mask = randomMask(rng, kLen);
    const float three[3] = {0.25f, -1.5f, 2.0f}, step[3] = {0.01f, 0.02f, -0.03f};

    expectSameAtAnyAddress("rays and shading", [&](Placer& at, Result& r) {
        const Planes pa(at, a, kLen), pb(at, b, kLen);
        Planes out(at, std::vector<float>(3 * kLen), kLen);
        const float* k = at.place(three, 3);
        const float* s = at.place(step, 3);
        r.status(vlkrCastEye_32f(k, s, s, 2, 3, PacketSize{7, 5}, out.p, PacketSize{kLen, 1}));
        out.addTo(r, kLen);
        int* m = at.place(mask);
        r.status(vlkrCastReflectionRay_32f(pa.p, m, pb.p, out.p, kLen));
        out.addTo(r, kLen);
        float* cosine = at.zeros<float>(kLen);
        r.status(vlkrCastShadowSO_32f(k, at.place(f), pa.p, pb.p, m, cosine, out.p, kLen));
        r.add(cosine, kLen), r.add(m, kLen);
        out.addTo(r, kLen);
        const float* dist = at.place(d);
        r.status(vlkrHitPoint3DEpsS0_32f_M(k, pa.p, dist, m, out.p, kLen, 0.999f));
        out.addTo(r, kLen);
        r.status(vlkrHitPoint3DEpsM0_32f_M(pb.p, pa.p, dist, m, out.p, kLen, 0.999f));
        out.addTo(r, kLen);

        Planes acc(at, b, kLen);
        r.status(vlkrAddMulMul_32f_AC1P3IM(k, at.place(f), pa.p, m, acc.p, kLen));
        acc.addTo(r, kLen);
        float* one = at.place(d);
        r.status(vlkrDiv_32f_C1IM(at.place(withZeros), m, one, kLen));
        r.status(vlkrMul_32f_C1IM(at.place(f), m, one, kLen));
        r.add(one, kLen);
        r.status(vlkrMul_32f_C1P3IM(at.place(f), m, acc.p, kLen));
        acc.addTo(r, kLen);
        r.status(vlkrDot_32f_P3C1M(pa.p, pb.p, m, one, kLen));
        r.add(one, kLen);
        r.status(vlkrDotChangeNorm_32f_IM(pa.p, m, acc.p, one, kLen));
        acc.addTo(r, kLen), r.add(one, kLen);
        r.status(vlkrDistAttenuationSO_32f_M(k, pa.p, m, one, kLen));
        r.add(one, kLen);
    });
}

TEST(AnyAddress, SphericalHarmonics)
{
    constexpr int kN = 11, kL = 5, kCount = (kL + 1) * (kL + 1);
    std::mt19937 rng(13);
    const std::vector<float> dirs = randoms(rng, 3 * kN, -1, 1),
                             values = randoms(rng, 3 * kN, -1, 1);
    const std::vector<float> coeffs = randoms(rng, 3 * kCount, -1, 1);
    for (int type : {SHTypeDirect, SHTypeRecurrence}) {
        int size = 0;
        ASSERT_EQ(vlkrSHGetSize_32f(kL, type, &size), vlkStatusOk);
        std::vector<unsigned char> block(std::size_t(size) + 16);
        auto* state = reinterpret_cast<SHContext*>(block.data());
        ASSERT_EQ(vlkrSHInit_32f(state, kL, type), vlkStatusOk);
        expectSameAtAnyAddress(type ? "recurrence" : "direct", [&](Placer& at, Result& r) {
            const Planes d(at, dirs, kN);
            float* basis = at.zeros<float>(kN * kCount);
            r.status(vlkrSH_32f(d.p[0], d.p[1], d.p[2], kN, basis, kL, state));
            r.add(basis, kN * kCount);
            r.status(vlkrSHBand_32f(d.p[0], d.p[1], d.p[2], kN, basis, kL));
            r.add(basis, kN * (2 * kL + 1));

            // Forward into coefficients that hold something already, one and three channels.
            const Planes v(at, values, kN);
            Planes c(at, coeffs, kCount);
            r.status(vlkrSHTFwd_32f_C1I(d.p[0], d.p[1], d.p[2], v.p[0], kN, c.p[0], kL, state));
            const float* interleaved = at.place(values);
            r.status(vlkrSHTFwd_32f_C3P3I(d.p[0], d.p[1], d.p[2], interleaved, kN, c.p, kL, state));
            r.status(vlkrSHTFwd_32f_P3I(d.p[0], d.p[1], d.p[2], v.p, kN, c.p, kL, state));
            c.addTo(r, kCount);

            Planes out(at, std::vector<float>(3 * kN), kN);
            float* three = at.zeros<float>(3 * kN);
            r.status(vlkrSHTInv_32f_C1(c.p[1], kL, d.p[0], d.p[1], d.p[2], out.p[0], kN, state));
            r.status(vlkrSHTInv_32f_P3(c.p, kL, d.p[0], d.p[1], d.p[2], out.p, kN, state));
            r.status(vlkrSHTInv_32f_P3C3(c.p, kL, d.p[0], d.p[1], d.p[2], three, kN, state));
            out.addTo(r, kN), r.add(three, 3 * kN);
        });
    }
}

TEST(AnyAddress, VolumeMatrixMapsAndKernel)
{
    std::mt19937 rng(34);
    constexpr int kW = 6, kH = 5, kD = 4, kPlane = kW * kH;
    const VolumeSize volume{kW, kH, kD};
    const Cuboid whole{0, 0, 0, kW, kH, kD};
    const std::vector<float> voxels = randoms(rng, kPlane * kD, 0, 100);
    const double coeffs[3][4] = {{1.1, 0.2, 0, 0.3}, {-0.1, 0.9, 0.1, 0.6}, {0, 0.1, 1.2, -0.2}};
    const std::vector<float> maps = randoms(rng, 3 * kPlane * kD, -0.5f, 5.5f);
    std::vector<int> kernel(27);
    for (int& w : kernel) w = int(rng() % 200) - 100;
    kernel[4] = 70000;  // one weight beyond 16 bits takes the 32-bit path
    std::vector<Vlk16s> shorts(std::size_t(kPlane * kD));
    for (Vlk16s& v : shorts) v = Vlk16s(int(rng() % 20000) - 10000);

    expectSameAtAnyAddress("volume", [&](Placer& at, Result& r) {
        const float* src[kD];
        float* dst[kD];
        for (int z = 0; z < kD; ++z) {
            src[z] = at.place(voxels.data() + z * kPlane, kPlane);
            dst[z] = at.zeros<float>(kPlane);
        }
        const auto* c = reinterpret_cast<const double(*)[4]>(at.place(&coeffs[0][0], 12));
        for (int selector : {vlkInterLinear, vlkInterLagrange}) {
            r.status(vlkrWarpAffine_32f_C1PV(src, &volume, 4 * kW, &whole, dst, 4 * kW, &whole, c,
                                             selector));
            for (float* p : dst) r.add(p, kPlane);
        }
        const float* map[3][kD];
        for (int a = 0; a < 3; ++a)
            for (int z = 0; z < kD; ++z)
                map[a][z] = at.place(maps.data() + (a * kD + z) * kPlane, kPlane);
        Cuboid srcVoi = whole;
        r.status(vlkrRemap_32f_C1PV(src, &volume, 4 * kW, &srcVoi, map[0], map[1], map[2], 4 * kW,
                                    dst, 4 * kW, &volume, vlkInterLinear));
        for (float* p : dst) r.add(p, kPlane);

        // The 3x3x3 kernel over the inner voxels, anchored at its far corner.
        const Vlk16s* in[kD];
        Vlk16s* out[kD];
        for (int z = 0; z < kD; ++z) {
            in[z] = at.place(shorts.data() + z * kPlane, kPlane);
            out[z] = at.zeros<Vlk16s>(kPlane);
        }
        const VolumeSize region{kW - 2, kH - 2, kD - 2}, size{3, 3, 3};
        const int anchor[3] = {2, 2, 2};
        unsigned char* buffer = at.zeros<unsigned char>(4 * kW + 64);
        for (bool wide : {true, false}) {
            std::vector<int> k = kernel;
            if (!wide) k[4] = 7;
            r.status(vlkrFilter_16s_C1PV(in, 2 * kW, out, 2 * kW, &region, at.place(k), &size,
                                         at.place(anchor, 3), 3, buffer));
            for (Vlk16s* p : out) r.add(p, kPlane);
        }
    });
}

}  // namespace
