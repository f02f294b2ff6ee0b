/* Demo: renders a built-in scene through vlkr, from the scene box to the lit colour of every
 * pixel, and writes the picture to vlkr_demo.ppm (or to the path given as first argument). */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "vlkr.h"

enum { W = 640, H = 480, kStacks = 24, kSlices = 48, kMaxTris = 10 + 2 * kStacks * kSlices };

static float vertices[3 * (10 + (kStacks + 1) * kSlices)];
static int triangles[4 * kMaxTris], vertexCount, triangleCount;

static int vertex(float x, float y, float z)
{
    float* v = vertices + 3 * vertexCount;
    v[0] = x, v[1] = y, v[2] = z;
    return vertexCount++;
}

static void triangle(int a, int b, int c)
{
    int* t = triangles + 4 * triangleCount++;
    t[0] = a, t[1] = b, t[2] = c, t[3] = 0;
}

/* A ground quad (triangles 0-1), an octahedron (2-9) and a sphere (the rest). */
static void buildScene(void)
{
    int g = vertex(-6, 0, -6), o, s;
    vertex(6, 0, -6), vertex(6, 0, 6), vertex(-6, 0, 6);
    triangle(g, g + 2, g + 1), triangle(g, g + 3, g + 2);
    o = vertex(2.2f, 0, 0.5f);
    vertex(3.2f, 1, 0.5f), vertex(2.2f, 1, 1.5f), vertex(1.2f, 1, 0.5f), vertex(2.2f, 1, -0.5f);
    vertex(2.2f, 2, 0.5f);
    for (int k = 0; k < 4; ++k) {
        triangle(o, o + 1 + k, o + 1 + (k + 1) % 4);
        triangle(o + 5, o + 1 + (k + 1) % 4, o + 1 + k);
    }
    s = vertexCount;
    for (int i = 0; i <= kStacks; ++i)
        for (int j = 0; j < kSlices; ++j) {
            double th = 3.14159265358979 * i / kStacks, ph = 6.28318530717959 * j / kSlices;
            vertex((float)(-1 + 1.5 * sin(th) * cos(ph)), (float)(1.5 + 1.5 * cos(th)),
                   (float)(0.5 + 1.5 * sin(th) * sin(ph)));
        }
    for (int i = 0; i < kStacks; ++i)
        for (int j = 0; j < kSlices; ++j) {
            int a = s + i * kSlices + j, b = s + i * kSlices + (j + 1) % kSlices;
            if (i != 0) triangle(a, b, a + kSlices);
            if (i != kStacks - 1) triangle(b, b + kSlices, a + kSlices);
        }
}

#define CHECK(call)                                                            \
    do {                                                                       \
        vlkStatus st_ = (call);                                                \
        if (st_ < 0) {                                                         \
            fprintf(stderr, "%s failed with status %d\n", #call, (int)st_);    \
            return 1;                                                          \
        }                                                                      \
    } while (0)

static float planes[17][W * H]; /* per-pixel arrays, one plane each */
static int tri[W * H], mask[W * H], occluder[W * H];
static float triNormals[3 * kMaxTris];

int main(int argc, char** argv)
{
    const LibVersion* v = vlkrGetLibVersion();
    printf("%s %s, built %s\n", v->name, v->version, v->buildDate);
    buildScene();

    /* Once per scene: box, triangle records, tree, triangle normals. */
    float box[6];
    KDTreeNode* tree = NULL;
    int treeSize = 0;
    const KDTreeBuildContext build = {KDTreeBuildSAH, 50, 1.0f, 64, NULL};
    TriangleAccel* accel = malloc(sizeof(TriangleAccel) * (size_t)triangleCount);
    if (!accel) return 1;
    CHECK(vlkrSetBoundBox_32f(vertices, vertexCount, box));
    CHECK(vlkrTriangleAccelInit(accel, vertices, triangles, triangleCount));
    CHECK(vlkrKDTreeBuildAlloc(&tree, vertices, triangles, vertexCount, triangleCount, &treeSize, &build));
    CHECK(vlkrTriangleNormal_32f(vertices, triangles, triNormals, triangleCount));
    printf("%d triangles, tree of %d bytes\n", triangleCount, treeSize);

    float *dir[3] = {planes[0], planes[1], planes[2]}, *dist = planes[3], *u = planes[4];
    float *w = planes[5], *hitp[3] = {planes[6], planes[7], planes[8]};
    float *n[3] = {planes[9], planes[10], planes[11]}, *facing = planes[12], *cosine = planes[13];
    float *shadow[3] = {planes[14], planes[15], planes[16]}, *rgb[3] = {u, w, dist};
    float *bary[2] = {u, w}, albedo[4][3] = {{0.9f, 0.9f, 0.85f}, {1, 0.55f, 0.3f}, {0.45f, 0.7f, 1}, {0.6f, 0.75f, 1}};
    const float eye[3] = {0.5f, 4.0f, -9.5f}, light[3] = {-4, 9, -5}, sun[3] = {60, 60, 60};
    const float corner[3] = {-0.5f, 0.055f, 1}, col[3] = {1.0f / W, 0, 0}, row[3] = {0, -1.0f / W, 0};
    const PacketSize frame = {W, H};
    const IntersectContext ctx = {box, accel, tree};

    /* Eye rays and their nearest hits. */
    CHECK(vlkrCastEye_32f(corner, col, row, 0, 0, frame, dir, frame));
    for (int i = 0; i < W * H; ++i) dist[i] = 1e30f;
    CHECK(vlkrIntersectEyeSO_32f(eye, (const float* const*)dir, dist, bary, tri, &ctx, frame));
    for (int i = 0; i < W * H; ++i) mask[i] = tri[i] >= 0 ? 0 : -1;

    /* Hit points just in front of the surface, normals facing the eye, shadow rays. */
    CHECK(vlkrHitPoint3DEpsS0_32f_M(eye, (const float* const*)dir, dist, mask, hitp, W * H, 0.999f));
    CHECK(vlkrSurfFlatNormal_32f(triNormals, tri, n, W * H));
    CHECK(vlkrDotChangeNorm_32f_IM((const float* const*)dir, mask, n, facing, W * H));
    CHECK(vlkrCastShadowSO_32f(light, facing, (const float* const*)n, (const float* const*)hitp, mask,
                               cosine, shadow, W * H));
    CHECK(vlkrIntersectAnySO_32f(light, (const float* const*)shadow, occluder, mask, frame, &ctx));

    /* Lambert over the squared distance: |n . v| / d^3 with v of length d. */
    CHECK(vlkrDistAttenuationSO_32f_M(light, (const float* const*)hitp, mask, dist, W * H));
    for (int k = 0; k < 3; ++k) CHECK(vlkrDiv_32f_C1IM(dist, mask, cosine, W * H));

    /* Colour: ambient, plus the light for pixels that are lit. */
    float* albedoPlanes[3] = {n[0], n[1], n[2]};
    for (int i = 0; i < W * H; ++i) {
        int kind = tri[i] < 0 ? 3 : tri[i] < 2 ? 0 : tri[i] < 10 ? 1 : 2;
        for (int c = 0; c < 3; ++c) {
            albedoPlanes[c][i] = kind == 3 ? 0 : albedo[kind][c];
            const float sky = 0.4f - 0.15f * (float)(i / W) / H;
            rgb[c][i] = albedo[kind][c] * (kind == 3 ? sky : 0.12f);
        }
    }
    CHECK(vlkrAddMulMul_32f_AC1P3IM(sun, cosine, (const float* const*)albedoPlanes, mask, rgb, W * H));

    FILE* f = fopen(argc > 1 ? argv[1] : "vlkr_demo.ppm", "wb");
    if (!f) return 1;
    fprintf(f, "P6\n%d %d\n255\n", W, H);
    for (int i = 0; i < W * H; ++i)
        for (int c = 0; c < 3; ++c) fputc(rgb[c][i] >= 1 ? 255 : (int)(rgb[c][i] * 255), f);
    fclose(f);
    printf("wrote %s (%dx%d)\n", argc > 1 ? argv[1] : "vlkr_demo.ppm", W, H);
    vlkrKDTreeFree(tree);
    free(accel);
    return 0;
}
