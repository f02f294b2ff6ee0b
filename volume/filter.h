// The 3-D integer convolution behind its checked front end: 32-bit sums of 16-bit voxels
// times 32-bit weights, divided, rounded to nearest with ties to even, saturated.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vlkr::volume {

struct FilterJob {
    const std::int16_t* const* src;  // indexed from anchor z - (kernel depth - 1)
    std::ptrdiff_t srcStep;          // elements
    std::int16_t* const* dst;
    std::ptrdiff_t dstStep;  // elements
    int size[3];             // region width, height, depth
    const std::int32_t* kernel;
    int kernelSize[3];
    int anchor[3];
    int divisor;
    unsigned char* buffer;  // 4 * width + 64 bytes, any alignment; may be null
};

// Filters a region whose arguments passed every check; never fails.
void runFilter(const FilterJob& job) noexcept;

}  // namespace vlkr::volume
