/* vlkr: numeric rendering primitives (ray tracing, spherical harmonics, volumes) with a C ABI. */
#ifndef VLKR_H
#define VLKR_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(VLKR_BUILDING)
#define VLKR_API __attribute__((visibility("default")))
#else
#define VLKR_API
#endif

/*
 * Conventions shared by every operation
 * -------------------------------------
 * - Every operation except vlkrGetLibVersion returns a vlkStatus: 0 is success, negative
 *   values are errors (nothing was written), positive values are warnings (the
 *   operation ran; the warning says something about the result).
 * - Arguments are checked before anything is read or written: null pointers first
 *   (vlkStatusNullPtr), then sizes (vlkStatusSize), then parameters, then selectors.
 *   Only the pointers named in each comment are checked.
 * - Per-ray counts of zero or less are not errors: nothing is written, vlkStatusOk.
 * - Planar triples ("P3") are three pointers to x, y, z float arrays, one element per
 *   ray; the inner pointers are never checked. Masks are signed 32-bit values per ray:
 *   a ray takes part when its value is >= 0.
 * - All memory belongs to the caller except k-d trees, which vlkrKDTreeBuildAlloc hands
 *   over and vlkrKDTreeFree takes back.
 */

typedef int vlkStatus;

enum {
    vlkStatusOk = 0,
    vlkStatusNoOperation = 1,        /* resize: empty destination region, nothing written */
    vlkStatusDivByZero = 6,          /* vlkrDiv_32f_C1IM: some unmasked divisor was zero */
    vlkStatusWrongIntersectROI = 29, /* single-plane remap: origin outside the source plane */
    vlkStatusWrongIntersectVOI = 40, /* volume ops: source cuboid origin outside the volume */
    vlkStatusNoMemory = -4,          /* k-d tree budget too small or allocation failed */
    vlkStatusBadArg = -5,            /* unknown k-d tree build mode; NaN in a warp check */
    vlkStatusSize = -6,              /* a count, size, extent or order is out of range */
    vlkStatusAlgType = -7,           /* unknown SH evaluation type or order too high */
    vlkStatusNullPtr = -8,           /* a required pointer is null */
    vlkStatusMemAlloc = -9,          /* k-d tree build ran out of its memory budget */
    vlkStatusOutOfRange = -11,       /* k-d tree depth above 50 or quality outside [0, 1] */
    vlkStatusStep = -14,             /* single-plane remap: invalid byte step */
    vlkStatusInterpolation = -22,    /* interpolation selector not 1, 2, 4, 5, 6 or 7 */
    vlkStatusResizeFactor = -23,     /* resize: a scale factor is not greater than 0 */
    vlkStatusNumChannels = -53,      /* buffer-size query: channel count other than 1 */
    vlkStatusCoeff = -56,            /* affine warp: degenerate coefficient matrix */
    vlkStatusRegionTooSmall = -57    /* affine warp: region at most one element wide or high */
};

/* Voxel types of the volume operations. */
typedef unsigned char Vlk8u;
typedef unsigned short Vlk16u;
typedef short Vlk16s;
typedef float Vlk32f;

/* Interpolation selectors of resize, affine warp and remap. */
enum {
    vlkInterNearest = 1,    /* nearest neighbour */
    vlkInterLinear = 2,     /* trilinear */
    vlkInterLagrange = 4,   /* four-point Lagrange cubic */
    vlkInterBSpline = 5,    /* cubic B-spline, B = 1, C = 0 */
    vlkInterCatmullRom = 6, /* cubic, B = 0, C = 1/2 */
    vlkInterCubicC03 = 7    /* cubic, B = 1/2, C = 3/10 */
};

/* Constant version record; it and its strings live in read-only storage. */
typedef struct LibVersion {
    int major;             /* 8 */
    int minor;             /* 1 */
    int majorBuild;        /* update number: 1 */
    int build;             /* source revision number, the N of "(rN)" in version */
    char targetCpu[4];     /* code variant: "mx" and two zero bytes (generic SSE2 code) */
    const char* name;      /* "vlkRR PX (mx)" */
    const char* version;   /* "8.1.1 (rN)" */
    const char* buildDate; /* "Mmm d yyyy", single blanks */
} LibVersion;

/* Size of a ray packet: ray (row r, column c) is element r * width + c. */
typedef struct PacketSize {
    int width;
    int height;
} PacketSize;

/* Width, height and depth (or, for vlkrIntersectMultipleSO_32f, the number of layers). */
typedef struct VolumeSize {
    int width;
    int height;
    int depth;
} VolumeSize;

/* Box of voxels: origin (>= 0) and extent (> 0) on each axis. */
typedef struct Cuboid {
    int x;
    int y;
    int z;
    int width;
    int height;
    int depth;
} Cuboid;

/*
 * Per-triangle record for the ray/triangle test, 40 bytes. N = (A - C) x (B - C) in
 * double; w is N's dominant axis, u and v the other two, s = +1 or -1 by axis choice.
 * A record of ten zero words marks a degenerate triangle.
 */
typedef struct TriangleAccel {
    unsigned int axes; /* bits 0-1 v, 2-3 u, 4-5 w; bit 31: normal lies along w */
    float nu;          /* N[u] / N[w] */
    float cw;          /* C[w] */
    float nv;          /* N[v] / N[w] */
    float cu;          /* C[u] */
    float cv;          /* C[v] */
    float e2u;         /* (B - C)[u] * s / N[w] */
    float e2v;         /* (B - C)[v] * s / N[w] */
    float e1u;         /* (A - C)[u] * s / N[w] */
    float e1v;         /* (A - C)[v] * s / N[w] */
} TriangleAccel;

/*
 * K-d tree node, 8 bytes; links are byte offsets from the node that holds them.
 * Inner node (link >= 0): bits 0-1 split axis; link & ~7 is the offset to the pair of
 * children (below the plane, then above it); data holds the split position's float bits.
 * Leaf (link < 0): data == 0 empty; data > 0 count of triangle numbers stored at byte
 * offset -(link & ~3); data < 0 one to three triangles held in the node itself.
 */
typedef struct KDTreeNode {
    int link;
    int data;
} KDTreeNode;

/* What the intersection operations read: scene box, TriangleAccel array, tree root. */
typedef struct IntersectContext {
    const float* pBound;         /* six floats: min x, y, z, max x, y, z */
    const TriangleAccel* pAccel; /* one record per triangle */
    const KDTreeNode* pRootNode; /* first node of a tree from vlkrKDTreeBuildAlloc */
} IntersectContext;

/* Build modes of vlkrKDTreeBuildAlloc. */
#define KDTreeBuildSimple 0x499D3DC2u /* every triangle in one leaf */
#define KDTreeBuildSAH 0x2D07705Bu    /* surface-area heuristic within a memory budget */

typedef struct KDTreeBuildContext {
    unsigned int mode;   /* KDTreeBuildSimple or KDTreeBuildSAH */
    unsigned int depth;  /* largest tree depth, at most 50 */
    float quality;       /* 0 to 1, SAH only: higher spends more nodes for faster rays */
    unsigned int memory; /* budget in megabytes, at least 32, SAH only */
    const float* pBound; /* SAH only: optional box to build inside; null = all vertices */
} KDTreeBuildContext;

/* Spherical-harmonic evaluation methods. */
enum {
    SHTypeDirect = 0,    /* closed-form polynomials, bands 0 to 15, no tables */
    SHTypeRecurrence = 1 /* single-precision recurrence from tables in the context */
};

/* Spherical-harmonic state block; caller-owned, sized by vlkrSHGetSize_32f, and not to be
 * moved after vlkrSHInit_32f because the table pointers point into the block itself. */
typedef struct SHContext {
    int maxOrder;
    int shType;
    float* coefA;
    float* coefB;
} SHContext;

/* ---------------------------------------------------------------- library frame */

/* Returns the constant version record; never null, always the same address. */
VLKR_API const LibVersion* vlkrGetLibVersion(void);

/* ---------------------------------------------------------------- scene data */

/* Bounding box of the first vertexCount vertices (packed x, y, z floats), padded by 1e-4
 * of its largest absolute coordinate. box: min x, y, z, max x, y, z. Checks vertices only;
 * vertexCount <= 0 writes the inverted box of the start values. */
VLKR_API vlkStatus vlkrSetBoundBox_32f(const float* vertices, int vertexCount, float box[6]);

/* Stores sizeof(TriangleAccel), 40, in *pSize. NullPtr when pSize is null. */
VLKR_API vlkStatus vlkrTriangleAccelGetSize(int* pSize);

/* Fills one TriangleAccel per triangle. triangles holds four ints per triangle (corners A,
 * B, C, one unused word). NullPtr before the count test; count <= 0 writes nothing. */
VLKR_API vlkStatus vlkrTriangleAccelInit(TriangleAccel* accel, const float* vertices,
                                         const int* triangles, int triangleCount);

/* ---------------------------------------------------------------- k-d tree */

/* Builds a k-d tree over the mesh and hands it to the caller in *tree with its size in
 * bytes in *treeSize. Statuses: NullPtr, Size (negative counts), OutOfRange (depth > 50,
 * quality outside [0, 1]), NoMemory (budget below 32 MB or the size formula), MemAlloc
 * (budget exhausted while building), BadArg (unknown mode). Release with vlkrKDTreeFree. */
VLKR_API vlkStatus vlkrKDTreeBuildAlloc(KDTreeNode** tree, const float* vertices,
                                        const int* triangles, int vertexCount, int triangleCount,
                                        int* treeSize, const KDTreeBuildContext* params);

/* Releases a tree from vlkrKDTreeBuildAlloc. */
VLKR_API vlkStatus vlkrKDTreeFree(KDTreeNode* tree);

/* ---------------------------------------------------------------- intersection */

/* Nearest hit of each ray of a block from one origin. dist holds the largest distance to
 * accept on entry and the hit distance on exit; hit[0], hit[1] the barycentric weights of
 * corners A and B; triangle the triangle number or -1. Checks dir, dist, hit. */
VLKR_API vlkStatus vlkrIntersectEyeSO_32f(const float origin[3], const float* const dir[3],
                                          float* dist, float* const hit[2], int* triangle,
                                          const IntersectContext* ctx, PacketSize block);

/* As vlkrIntersectEyeSO_32f with one origin per ray. Checks origin, dir, dist. */
VLKR_API vlkStatus vlkrIntersectMO_32f(const float* const origin[3], const float* const dir[3],
                                       float* dist, float* const hit[2], int* triangle,
                                       const IntersectContext* ctx, PacketSize block);

/* Successive hits along each ray, one per layer; volume holds width, height and the
 * number of layers, each result array volume->depth layers of width * height elements.
 * Checks dir, dist, hit. */
VLKR_API vlkStatus vlkrIntersectMultipleSO_32f(const float origin[3], const float* const dir[3],
                                               float* dist, float* const hit[2], int* triangle,
                                               const VolumeSize* volume,
                                               const IntersectContext* ctx);

/* Occlusion: any hit with 0 < t < 1 along origin + t * dir. Rays with a negative mask are
 * skipped; a hit sets the mask to -1. triangle receives the hit triangle or -1. Checks
 * dir, triangle, mask. */
VLKR_API vlkStatus vlkrIntersectAnySO_32f(const float origin[3], const float* const dir[3],
                                          int* triangle, int* mask, PacketSize block,
                                          const IntersectContext* ctx);

/* ---------------------------------------------------------------- rays and hit points */

/* Eye-ray directions of pixel block (blockColumn, blockRow): for pixel (x, y) the
 * direction is (rowStep * y + corner) + columnStep * x, not normalised. Checks dir. */
VLKR_API vlkStatus vlkrCastEye_32f(const float corner[3], const float columnStep[3],
                                   const float rowStep[3], int blockColumn, int blockRow,
                                   PacketSize blockSize, float* const dir[3],
                                   PacketSize packetSize);

/* Mirror directions d - 2 (d . n) n; passed-over rays receive (0, 0, 0). */
VLKR_API vlkStatus vlkrCastReflectionRay_32f(const float* const incident[3], const int* mask,
                                             const float* const normal[3],
                                             float* const reflected[3], int len);

/* Shadow rays from the light to each hit point, with the lit-side test against factor's
 * sign; unlit rays get mask -1, cosine 0 and direction (0, 0, 0). */
VLKR_API vlkStatus vlkrCastShadowSO_32f(const float light[3], const float* factor,
                                        const float* const normal[3],
                                        const float* const hitPoint[3], int* mask, float* cosine,
                                        float* const shadowDir[3], int len);

/* Hit points origin + (dir * eps) * dist from one origin; passed-over rays get 0. */
VLKR_API vlkStatus vlkrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const dir[3],
                                             const float* dist, const int* mask,
                                             float* const hitPoint[3], int len, float eps);

/* As vlkrHitPoint3DEpsS0_32f_M with one origin per ray. */
VLKR_API vlkStatus vlkrHitPoint3DEpsM0_32f_M(const float* const origin[3],
                                             const float* const dir[3], const float* dist,
                                             const int* mask, float* const hitPoint[3], int len,
                                             float eps);

/* ---------------------------------------------------------------- normals */

/* Unit normal of each triangle, packed x, y, z. */
VLKR_API vlkStatus vlkrTriangleNormal_32f(const float* vertices, const int* triangles,
                                          float* normals, int triangleCount);

/* Per-ray normal of the hit triangle, looked up from triangle normals. */
VLKR_API vlkStatus vlkrSurfFlatNormal_32f(const float* triangleNormals, const int* triangle,
                                          float* const normal[3], int len);

/* Per-ray normal interpolated from vertex normals with the barycentric hit weights. */
VLKR_API vlkStatus vlkrSurfSmoothNormal_32f(const float* vertexNormals, const int* normalIndices,
                                            const int* triangle, const float* const hit[2],
                                            float* const normal[3], int len, int stride);

/* ---------------------------------------------------------------- shading arithmetic */

/* srcDst.c += k[c] * factor * src.c for unmasked rays. */
VLKR_API vlkStatus vlkrAddMulMul_32f_AC1P3IM(const float k[3], const float* factor,
                                             const float* const src[3], const int* mask,
                                             float* const srcDst[3], int len);

/* srcDst /= divisor for unmasked rays; returns vlkStatusDivByZero (a warning) when some
 * unmasked divisor was zero, after processing every element. */
VLKR_API vlkStatus vlkrDiv_32f_C1IM(const float* divisor, const int* mask, float* srcDst, int len);

/* srcDst *= factor for unmasked rays. */
VLKR_API vlkStatus vlkrMul_32f_C1IM(const float* factor, const int* mask, float* srcDst, int len);

/* Each plane of srcDst *= factor for unmasked rays. */
VLKR_API vlkStatus vlkrMul_32f_C1P3IM(const float* factor, const int* mask, float* const srcDst[3],
                                      int len);

/* dst = a . b per unmasked ray. */
VLKR_API vlkStatus vlkrDot_32f_P3C1M(const float* const a[3], const float* const b[3],
                                     const int* mask, float* dst, int len);

/* dot = v . normal per unmasked ray, turning the normal to face v's origin side. */
VLKR_API vlkStatus vlkrDotChangeNorm_32f_IM(const float* const v[3], const int* mask,
                                            float* const normal[3], float* dot, int len);

/* Distance from point to each surface point, for distance attenuation. */
VLKR_API vlkStatus vlkrDistAttenuationSO_32f_M(const float point[3], const float* const surface[3],
                                               const int* mask, float* dist, int len);

/* ---------------------------------------------------------------- spherical harmonics */

/* Size in bytes of an SHContext for bands 0..maxL with the given SHType. */
VLKR_API vlkStatus vlkrSHGetSize_32f(int maxL, int shType, int* pSize);

/* Prepares a caller-allocated SHContext (zero-filled, then tables for the recurrence). */
VLKR_API vlkStatus vlkrSHInit_32f(SHContext* state, int maxL, int shType);

/* All bands 0..L for n directions: (L + 1)^2 floats per direction in order l*l + l + m. */
VLKR_API vlkStatus vlkrSH_32f(const float* x, const float* y, const float* z, int n, float* dst,
                              int L, const SHContext* state);

/* Band L only (2L + 1 floats per direction), by the closed-form polynomials. */
VLKR_API vlkStatus vlkrSHBand_32f(const float* x, const float* y, const float* z, int n, float* dst,
                                  int L);

/* Forward transforms: coeffs += sum over samples of src * basis(direction). */
VLKR_API vlkStatus vlkrSHTFwd_32f_C1I(const float* x, const float* y, const float* z,
                                      const float* src, int n, float* coeffs, int L,
                                      const SHContext* state);
VLKR_API vlkStatus vlkrSHTFwd_32f_C3P3I(const float* x, const float* y, const float* z,
                                        const float* src, int n, float* const coeffs[3], int L,
                                        const SHContext* state);
VLKR_API vlkStatus vlkrSHTFwd_32f_P3I(const float* x, const float* y, const float* z,
                                      const float* const src[3], int n, float* const coeffs[3],
                                      int L, const SHContext* state);

/* Inverse transforms: dst = sum over coefficients of coeff * basis(direction). */
VLKR_API vlkStatus vlkrSHTInv_32f_C1(const float* coeffs, int L, const float* x, const float* y,
                                     const float* z, float* dst, int n, const SHContext* state);
VLKR_API vlkStatus vlkrSHTInv_32f_P3(const float* const coeffs[3], int L, const float* x,
                                     const float* y, const float* z, float* const dst[3], int n,
                                     const SHContext* state);
VLKR_API vlkStatus vlkrSHTInv_32f_P3C3(const float* const coeffs[3], int L, const float* x,
                                       const float* y, const float* z, float* dst, int n,
                                       const SHContext* state);

/* ---------------------------------------------------------------- volume processing */

/* Destination box that a resize of srcVoi by the given factors and shifts covers. */
VLKR_API vlkStatus vlkrGetResizeCuboid(const Cuboid* srcVoi, Cuboid* dstVoi, double xFactor,
                                       double yFactor, double zFactor, double xShift, double yShift,
                                       double zShift, int interpolation);

/* Work-buffer size in bytes for vlkrResize_*; nChannel must be 1. */
VLKR_API vlkStatus vlkrResizeGetBufSize(const Cuboid* srcVoi, const Cuboid* dstVoi, int nChannel,
                                        int interpolation, int* pSize);

/* Resize of one block (row and plane steps in bytes), by factors and shifts. */
VLKR_API vlkStatus vlkrResize_8u_C1V(const Vlk8u* src, const VolumeSize* srcVolume, int srcRowStep,
                                     int srcPlaneStep, const Cuboid* srcVoi, Vlk8u* dst,
                                     int dstRowStep, int dstPlaneStep, const Cuboid* dstVoi,
                                     double xFactor, double yFactor, double zFactor, double xShift,
                                     double yShift, double zShift, int interpolation,
                                     unsigned char* buffer);
VLKR_API vlkStatus vlkrResize_16u_C1V(const Vlk16u* src, const VolumeSize* srcVolume,
                                      int srcRowStep, int srcPlaneStep, const Cuboid* srcVoi,
                                      Vlk16u* dst, int dstRowStep, int dstPlaneStep,
                                      const Cuboid* dstVoi, double xFactor, double yFactor,
                                      double zFactor, double xShift, double yShift, double zShift,
                                      int interpolation, unsigned char* buffer);
VLKR_API vlkStatus vlkrResize_32f_C1V(const Vlk32f* src, const VolumeSize* srcVolume,
                                      int srcRowStep, int srcPlaneStep, const Cuboid* srcVoi,
                                      Vlk32f* dst, int dstRowStep, int dstPlaneStep,
                                      const Cuboid* dstVoi, double xFactor, double yFactor,
                                      double zFactor, double xShift, double yShift, double zShift,
                                      int interpolation, unsigned char* buffer);

/* Resize of a volume given as plane pointers sharing one row step in bytes. */
VLKR_API vlkStatus vlkrResize_8u_C1PV(const Vlk8u* const src[], const VolumeSize* srcVolume,
                                      int srcStep, const Cuboid* srcVoi, Vlk8u* const dst[],
                                      int dstStep, const Cuboid* dstVoi, double xFactor,
                                      double yFactor, double zFactor, double xShift, double yShift,
                                      double zShift, int interpolation, unsigned char* buffer);
VLKR_API vlkStatus vlkrResize_16u_C1PV(const Vlk16u* const src[], const VolumeSize* srcVolume,
                                       int srcStep, const Cuboid* srcVoi, Vlk16u* const dst[],
                                       int dstStep, const Cuboid* dstVoi, double xFactor,
                                       double yFactor, double zFactor, double xShift, double yShift,
                                       double zShift, int interpolation, unsigned char* buffer);
VLKR_API vlkStatus vlkrResize_32f_C1PV(const Vlk32f* const src[], const VolumeSize* srcVolume,
                                       int srcStep, const Cuboid* srcVoi, Vlk32f* const dst[],
                                       int dstStep, const Cuboid* dstVoi, double xFactor,
                                       double yFactor, double zFactor, double xShift, double yShift,
                                       double zShift, int interpolation, unsigned char* buffer);

/* Work-buffer size query of the affine warp, kept beside resize's: the warp takes no buffer,
 * so the size is always 0. nChannel must be 1. */
VLKR_API vlkStatus vlkrWarpAffineGetBufSize(const Cuboid* srcVoi, const Cuboid* dstVoi,
                                            int nChannel, int interpolation, int* pSize);

/*
 * Affine warp. coeffs maps source voxel coordinates to destination ones,
 * dst = coeffs[.][0..2] * src + coeffs[.][3]; each destination voxel of dstVoi whose
 * pre-image under that map lies inside srcVoi (trimmed to the volume, bounds inclusive)
 * samples the source there; every other voxel keeps its value. Plane arrays are indexed by
 * absolute z, steps are in bytes. A source of depth 1 is warped as one plane into plane
 * dstVoi->z with the x and y rows of coeffs. Checks src, dst (coeffs is not checked).
 */
VLKR_API vlkStatus vlkrWarpAffine_8u_C1PV(const Vlk8u* const src[], const VolumeSize* srcVolume,
                                          int srcStep, const Cuboid* srcVoi, Vlk8u* const dst[],
                                          int dstStep, const Cuboid* dstVoi,
                                          const double coeffs[3][4], int interpolation);
VLKR_API vlkStatus vlkrWarpAffine_16u_C1PV(const Vlk16u* const src[], const VolumeSize* srcVolume,
                                           int srcStep, const Cuboid* srcVoi, Vlk16u* const dst[],
                                           int dstStep, const Cuboid* dstVoi,
                                           const double coeffs[3][4], int interpolation);
VLKR_API vlkStatus vlkrWarpAffine_32f_C1PV(const Vlk32f* const src[], const VolumeSize* srcVolume,
                                           int srcStep, const Cuboid* srcVoi, Vlk32f* const dst[],
                                           int dstStep, const Cuboid* dstVoi,
                                           const double coeffs[3][4], int interpolation);

/*
 * Remap: each destination voxel samples the source at (xMap, yMap, zMap) when that point
 * lies inside srcVoi (bounds inclusive); others keep their value. On the volume path the
 * call writes the trimmed width, height and depth back into *srcVoi (never its origin);
 * a source of depth 1 is remapped as one plane and leaves *srcVoi as it was. Map and
 * destination steps are bytes, as is the source step. Checks src, the maps, dst.
 */
VLKR_API vlkStatus vlkrRemap_8u_C1PV(const Vlk8u* const src[], const VolumeSize* srcVolume,
                                     int srcStep, Cuboid* srcVoi, const float* const xMap[],
                                     const float* const yMap[], const float* const zMap[],
                                     int mapStep, Vlk8u* const dst[], int dstStep,
                                     const VolumeSize* dstVolume, int interpolation);
VLKR_API vlkStatus vlkrRemap_16u_C1PV(const Vlk16u* const src[], const VolumeSize* srcVolume,
                                      int srcStep, Cuboid* srcVoi, const float* const xMap[],
                                      const float* const yMap[], const float* const zMap[],
                                      int mapStep, Vlk16u* const dst[], int dstStep,
                                      const VolumeSize* dstVolume, int interpolation);
VLKR_API vlkStatus vlkrRemap_32f_C1PV(const Vlk32f* const src[], const VolumeSize* srcVolume,
                                      int srcStep, Cuboid* srcVoi, const float* const xMap[],
                                      const float* const yMap[], const float* const zMap[],
                                      int mapStep, Vlk32f* const dst[], int dstStep,
                                      const VolumeSize* dstVolume, int interpolation);

/* Work-buffer size of vlkrFilter_16s_C1PV: 4 * region width + 64 bytes. */
VLKR_API vlkStatus vlkrFilterGetBufSize(const VolumeSize* region, const VolumeSize* kernelVolume,
                                        int nChannel, int* pSize);

/* 3-D integer convolution of signed 16-bit planes, divided by divisor and saturated. */
VLKR_API vlkStatus vlkrFilter_16s_C1PV(const Vlk16s* const src[], int srcStep, Vlk16s* const dst[],
                                       int dstStep, const VolumeSize* region, const int* kernel,
                                       const VolumeSize* kernelVolume, const int anchor[3],
                                       int divisor, unsigned char* buffer);

#ifdef __cplusplus
}
#endif

#endif /* VLKR_H */
