/* Ray tracing in ten lines: a tree over a mesh, then the nearest hit of a block of rays. */
#include <float.h>
#include <stdio.h>
#include <vlkr.h>

int main(void)
{
    const float v[] = {-1, -1, 3, 1, -1, 3, 0, 1, 3}; /* one triangle at z = 3 */
    const int t[] = {0, 1, 2, 0};
    float box[6], dist[2] = {FLT_MAX, FLT_MAX}, u[2], w[2], dx[2] = {0, 5}, dy[2] = {0, 0},
                  dz[2] = {1, 1}, eye[3] = {0, 0, 0};
    TriangleAccel accel[1];
    KDTreeNode* tree;
    int size, tri[2];
    const KDTreeBuildContext build = {KDTreeBuildSAH, 50, 1.0f, 64, NULL}; /* 64 MB budget */
    vlkrSetBoundBox_32f(v, 3, box);
    vlkrTriangleAccelInit(accel, v, t, 1);
    vlkrKDTreeBuildAlloc(&tree, v, t, 3, 1, &size, &build);
    const IntersectContext ctx = {box, accel, tree};
    const float* dir[3] = {dx, dy, dz};
    float* hit[2] = {u, w};
    vlkrIntersectEyeSO_32f(eye, dir, dist, hit, tri, &ctx, (PacketSize){2, 1});
    printf("ray 0: triangle %d at %g; ray 1: triangle %d\n", tri[0], dist[0], tri[1]);
    vlkrKDTreeFree(tree);
    return tri[0] == 0 && tri[1] == -1 ? 0 : 1;
}
