/* Spherical harmonics in ten lines: project samples on bands 0..2 and evaluate them back. */
#include <stdio.h>
#include <stdlib.h>
#include <vlkr.h>

int main(void)
{
    const float x[] = {1, 0, 0, -1}, y[] = {0, 1, 0, 0}, z[] = {0, 0, 1, 0};
    const float value[] = {2, 1, 1, 0}; /* brighter towards +x */
    float coeffs[9] = {0}, back[4];
    int size;
    vlkrSHGetSize_32f(2, SHTypeRecurrence, &size);
    SHContext* sh = malloc((size_t)size);
    vlkrSHInit_32f(sh, 2, SHTypeRecurrence);
    vlkrSHTFwd_32f_C1I(x, y, z, value, 4, coeffs, 2, sh);
    vlkrSHTInv_32f_C1(coeffs, 2, x, y, z, back, 4, sh);
    printf("+x %g, -x %g\n", back[0], back[3]);
    free(sh);
    return back[0] > back[3] ? 0 : 1;
}
