/* Volume resize in ten lines: a 4^3 block of 16-bit voxels doubled by trilinear sampling. */
#include <stdio.h>
#include <stdlib.h>
#include <vlkr.h>

int main(void)
{
    unsigned short src[4 * 4 * 4], dst[8 * 8 * 8];
    for (int i = 0; i < 64; ++i) src[i] = (unsigned short)(1000 * (i % 4)); /* ramp along x */
    const VolumeSize srcSize = {4, 4, 4};
    const Cuboid srcVoi = {0, 0, 0, 4, 4, 4};
    Cuboid dstVoi;
    int bufSize;
    vlkrGetResizeCuboid(&srcVoi, &dstVoi, 2, 2, 2, 0, 0, 0, vlkInterLinear);
    vlkrResizeGetBufSize(&srcVoi, &dstVoi, 1, vlkInterLinear, &bufSize);
    unsigned char* buffer = malloc((size_t)bufSize);
    const vlkStatus st = vlkrResize_16u_C1V(src, &srcSize, 8, 32, &srcVoi, dst, 16, 128, &dstVoi, 2,
                                            2, 2, 0, 0, 0, vlkInterLinear, buffer);
    printf("status %d, box %dx%dx%d, row 0: %u %u %u %u\n", st, dstVoi.width, dstVoi.height,
           dstVoi.depth, dst[0], dst[1], dst[2], dst[3]);
    free(buffer);
    return st == vlkStatusOk ? 0 : 1;
}
