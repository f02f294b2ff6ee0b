/* Compiled as strict C99: the public headers must stay plain C. */
#include "vlkcore.h"
#include "vlkr.h"

#include <stddef.h>

/* Record layouts the ABI fixes, checked at compile time in C. */
typedef char checkLibVersion[offsetof(LibVersion, name) == 24 && sizeof(LibVersion) == 48 ? 1 : -1];
typedef char checkAccel[sizeof(TriangleAccel) == 40 ? 1 : -1];
typedef char checkNode[sizeof(KDTreeNode) == 8 ? 1 : -1];
typedef char checkContext[sizeof(IntersectContext) == 24 ? 1 : -1];
typedef char checkBuild[offsetof(KDTreeBuildContext, pBound) == 16 ? 1 : -1];
typedef char checkSh[offsetof(SHContext, coefB) == 16 && sizeof(SHContext) == 24 ? 1 : -1];
typedef char checkPacket[sizeof(PacketSize) == 8 ? 1 : -1];
typedef char checkCuboid[sizeof(Cuboid) == 24 && sizeof(VolumeSize) == 12 ? 1 : -1];

int vlkrHeaderCompilesAsC99(void)
{
    const LibVersion* v = vlkrGetLibVersion();
    return v->major;
}
