/* Demo: loads vlkr, prints its version record and prepares the scene data of a built-in mesh. */
#include <stdio.h>
#include <stdlib.h>

#include "vlkr.h"

/* An octahedron sitting on a ground quad: eight faces plus two ground triangles. */
static const float kVertices[] = {
    0.0f, 1.0f, 0.0f,   1.0f, 2.0f, 0.0f,   0.0f, 2.0f, 1.0f,   -1.0f, 2.0f, 0.0f,
    0.0f, 2.0f, -1.0f,  0.0f, 3.0f, 0.0f,   -4.0f, 0.0f, -4.0f, 4.0f, 0.0f, -4.0f,
    4.0f, 0.0f, 4.0f,   -4.0f, 0.0f, 4.0f,
};
static const int kTriangles[] = {
    0, 1, 2, 0,  0, 2, 3, 0,  0, 3, 4, 0,  0, 4, 1, 0,  5, 2, 1, 0,
    5, 3, 2, 0,  5, 4, 3, 0,  5, 1, 4, 0,  6, 8, 7, 0,  6, 9, 8, 0,
};
enum { kVertexCount = 10, kTriangleCount = 10 };

static int check(vlkStatus status, const char* what)
{
    if (status != vlkStatusOk) {
        fprintf(stderr, "%s failed with status %d\n", what, status);
        return 1;
    }
    return 0;
}

int main(void)
{
    const LibVersion* v = vlkrGetLibVersion();
    printf("%s %s, built %s (%d.%d.%d r%d, target %s)\n", v->name, v->version, v->buildDate,
           v->major, v->minor, v->majorBuild, v->build, v->targetCpu);

    float box[6];
    if (check(vlkrSetBoundBox_32f(kVertices, kVertexCount, box), "vlkrSetBoundBox_32f")) return 1;
    printf("scene box: (%g, %g, %g) - (%g, %g, %g)\n", box[0], box[1], box[2], box[3], box[4],
           box[5]);

    int recordSize = 0;
    if (check(vlkrTriangleAccelGetSize(&recordSize), "vlkrTriangleAccelGetSize")) return 1;
    TriangleAccel* accel = (TriangleAccel*)malloc((size_t)recordSize * kTriangleCount);
    if (!accel) return 1;
    if (check(vlkrTriangleAccelInit(accel, kVertices, kTriangles, kTriangleCount),
              "vlkrTriangleAccelInit")) {
        free(accel);
        return 1;
    }
    static const char kAxis[] = "xyz";
    for (int t = 0; t < kTriangleCount; ++t) {
        const TriangleAccel* r = &accel[t];
        printf("triangle %d: seen along %c%s, plane n = (%.4f, %.4f), corner (%g, %g, %g)\n", t,
               kAxis[(r->axes >> 4) & 3], (r->axes & 0x80000000u) ? " (axis-aligned)" : "",
               r->nu, r->nv, r->cu, r->cv, r->cw);
    }
    free(accel);
    return 0;
}
