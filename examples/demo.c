/* Demo: renders a built-in scene with vlkr (box, records, k-d tree, eye rays, shadows) and
 * writes the picture to vlkr_demo.ppm, or to the path given as the first argument. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "vlkr.h"

enum { kWidth = 640, kHeight = 480, kStacks = 24, kSlices = 48 };

typedef struct Mesh {
    float* vertices;
    int* triangles;
    int vertexCount, triangleCount;
} Mesh;

static int addVertex(Mesh* m, float x, float y, float z)
{
    float* v = m->vertices + 3 * m->vertexCount;
    v[0] = x, v[1] = y, v[2] = z;
    return m->vertexCount++;
}

static void addTriangle(Mesh* m, int a, int b, int c)
{
    int* t = m->triangles + 4 * m->triangleCount++;
    t[0] = a, t[1] = b, t[2] = c, t[3] = 0;
}

/* A ground quad, a sphere and an octahedron resting on the ground. */
static int buildScene(Mesh* m)
{
    m->vertices = malloc(sizeof(float) * 3 * (4 + 6 + (kStacks + 1) * kSlices));
    m->triangles = malloc(sizeof(int) * 4 * (2 + 8 + 2 * kStacks * kSlices));
    if (!m->vertices || !m->triangles) return 0;
    m->vertexCount = m->triangleCount = 0;
    int g = addVertex(m, -6, 0, -6);
    addVertex(m, 6, 0, -6), addVertex(m, 6, 0, 6), addVertex(m, -6, 0, 6);
    addTriangle(m, g, g + 2, g + 1), addTriangle(m, g, g + 3, g + 2);

    int o = addVertex(m, 2.2f, 0.0f, 0.5f);
    addVertex(m, 3.2f, 1.0f, 0.5f), addVertex(m, 2.2f, 1.0f, 1.5f), addVertex(m, 1.2f, 1.0f, 0.5f);
    addVertex(m, 2.2f, 1.0f, -0.5f), addVertex(m, 2.2f, 2.0f, 0.5f);
    for (int k = 0; k < 4; ++k) {
        addTriangle(m, o, o + 1 + k, o + 1 + (k + 1) % 4);
        addTriangle(m, o + 5, o + 1 + (k + 1) % 4, o + 1 + k);
    }

    int s = m->vertexCount;
    for (int i = 0; i <= kStacks; ++i)
        for (int j = 0; j < kSlices; ++j) {
            double th = 3.14159265358979 * i / kStacks, ph = 6.28318530717959 * j / kSlices;
            addVertex(m, (float)(-1.0 + 1.5 * sin(th) * cos(ph)), (float)(1.5 + 1.5 * cos(th)),
                      (float)(0.5 + 1.5 * sin(th) * sin(ph)));
        }
    for (int i = 0; i < kStacks; ++i)
        for (int j = 0; j < kSlices; ++j) {
            int a = s + i * kSlices + j, b = s + i * kSlices + (j + 1) % kSlices;
            if (i != 0) addTriangle(m, a, b, a + kSlices);
            if (i != kStacks - 1) addTriangle(m, b, b + kSlices, a + kSlices);
        }
    return 1;
}

static int check(vlkStatus status, const char* what)
{
    if (status != vlkStatusOk) fprintf(stderr, "%s failed with status %d\n", what, status);
    return status == vlkStatusOk;
}

/* Unit normal of triangle t, turned towards the viewer. */
static void faceNormal(const Mesh* m, int t, const float view[3], float n[3])
{
    const float* a = m->vertices + 3 * m->triangles[4 * t];
    const float* b = m->vertices + 3 * m->triangles[4 * t + 1];
    const float* c = m->vertices + 3 * m->triangles[4 * t + 2];
    float e1[3] = {a[0] - c[0], a[1] - c[1], a[2] - c[2]};
    float e2[3] = {b[0] - c[0], b[1] - c[1], b[2] - c[2]};
    n[0] = e1[1] * e2[2] - e1[2] * e2[1];
    n[1] = e1[2] * e2[0] - e1[0] * e2[2];
    n[2] = e1[0] * e2[1] - e1[1] * e2[0];
    float len = sqrtf(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    float sign = (n[0] * view[0] + n[1] * view[1] + n[2] * view[2]) > 0 ? -1.0f : 1.0f;
    for (int k = 0; k < 3; ++k) n[k] *= sign / len;
}

int main(int argc, char** argv)
{
    const char* path = argc > 1 ? argv[1] : "vlkr_demo.ppm";
    const LibVersion* v = vlkrGetLibVersion();
    printf("%s %s, built %s\n", v->name, v->version, v->buildDate);

    Mesh m;
    if (!buildScene(&m)) return 1;
    float box[6];
    int recordSize = 0, treeSize = 0;
    KDTreeNode* tree = NULL;
    const KDTreeBuildContext params = {KDTreeBuildSAH, 50, 1.0f, 64, NULL};
    if (!check(vlkrSetBoundBox_32f(m.vertices, m.vertexCount, box), "box") ||
        !check(vlkrTriangleAccelGetSize(&recordSize), "record size"))
        return 1;
    TriangleAccel* accel = malloc((size_t)recordSize * m.triangleCount);
    if (!accel || !check(vlkrTriangleAccelInit(accel, m.vertices, m.triangles, m.triangleCount),
                         "records") ||
        !check(vlkrKDTreeBuildAlloc(&tree, m.vertices, m.triangles, m.vertexCount,
                                    m.triangleCount, &treeSize, &params),
               "tree"))
        return 1;
    printf("%d triangles, tree of %d bytes\n", m.triangleCount, treeSize);

    /* Eye rays of a pinhole camera, one packet for the whole picture. */
    const size_t n = (size_t)kWidth * kHeight;
    float* buf = malloc(sizeof(float) * n * 9);
    int* tri = malloc(sizeof(int) * n * 2);
    unsigned char* rgb = malloc(n * 3);
    if (!buf || !tri || !rgb) return 1;
    float *dx = buf, *dy = buf + n, *dz = buf + 2 * n, *dist = buf + 3 * n, *u = buf + 4 * n;
    float *w = buf + 5 * n, *sx = buf + 6 * n, *sy = buf + 7 * n, *sz = buf + 8 * n;
    int *hitTri = tri, *mask = tri + n;
    const float eye[3] = {0.5f, 4.0f, -9.5f}, light[3] = {-4.0f, 9.0f, -5.0f};
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            size_t i = (size_t)y * kWidth + x;
            dx[i] = (x + 0.5f - kWidth / 2) / kWidth;
            dy[i] = -0.32f - (y + 0.5f - kHeight / 2) / kWidth;
            dz[i] = 1.0f;
            dist[i] = 1e30f;
        }
    const float* dir[3] = {dx, dy, dz};
    float* hit[2] = {u, w};
    const IntersectContext ctx = {box, accel, tree};
    const PacketSize block = {kWidth, kHeight};
    if (!check(vlkrIntersectEyeSO_32f(eye, dir, dist, hit, hitTri, &ctx, block), "eye rays"))
        return 1;

    /* Shadow rays from the light to the hit points, pulled slightly towards the eye. */
    for (size_t i = 0; i < n; ++i) {
        float t = hitTri[i] >= 0 ? 0.999f * dist[i] : 0.0f;
        mask[i] = hitTri[i] >= 0 ? 0 : -1;
        sx[i] = eye[0] + dx[i] * t - light[0];
        sy[i] = eye[1] + dy[i] * t - light[1];
        sz[i] = eye[2] + dz[i] * t - light[2];
    }
    const float* shadowDir[3] = {sx, sy, sz};
    int* occluder = (int*)w; /* the barycentric weights are no longer needed */
    if (!check(vlkrIntersectAnySO_32f(light, shadowDir, occluder, mask, block, &ctx), "shadows"))
        return 1;

    for (size_t i = 0; i < n; ++i) {
        float shade = 0.25f + 0.1f * (1.0f - (float)(i / kWidth) / kHeight); /* sky */
        if (hitTri[i] >= 0) {
            float nrm[3], d[3] = {dx[i], dy[i], dz[i]}, l[3] = {-sx[i], -sy[i], -sz[i]};
            faceNormal(&m, hitTri[i], d, nrm);
            float ll = sqrtf(l[0] * l[0] + l[1] * l[1] + l[2] * l[2]);
            float lambert = (nrm[0] * l[0] + nrm[1] * l[1] + nrm[2] * l[2]) / ll;
            shade = 0.12f + (mask[i] >= 0 && lambert > 0 ? 0.85f * lambert : 0.0f);
        }
        int tint = hitTri[i] < 0 ? 0 : hitTri[i] < 2 ? 1 : hitTri[i] < 10 ? 2 : 3;
        static const float kTint[4][3] = {{0.6f, 0.75f, 1.0f}, {0.9f, 0.9f, 0.85f},
                                          {1.0f, 0.55f, 0.3f}, {0.45f, 0.7f, 1.0f}};
        for (int c = 0; c < 3; ++c) {
            float value = shade * kTint[tint][c];
            rgb[3 * i + c] = (unsigned char)(value > 1.0f ? 255 : value * 255.0f);
        }
    }
    FILE* f = fopen(path, "wb");
    if (!f) return 1;
    fprintf(f, "P6\n%d %d\n255\n", kWidth, kHeight);
    fwrite(rgb, 1, n * 3, f);
    fclose(f);
    printf("wrote %s (%dx%d)\n", path, kWidth, kHeight);

    vlkrKDTreeFree(tree);
    free(rgb), free(tri), free(buf), free(accel), free(m.triangles), free(m.vertices);
    return 0;
}
