// The volume entry points by voxel type, for tests and fuzz targets written once over it.
#pragma once

#include "vlkr.h"

namespace vlkr::test {

template <class T>
struct Ops;
#define VLKR_TEST_OPS(T, S)                                      \
    template <>                                                  \
    struct Ops<T> {                                              \
        static constexpr auto block = &vlkrResize_##S##_C1V;     \
        static constexpr auto planes = &vlkrResize_##S##_C1PV;   \
        static constexpr auto warp = &vlkrWarpAffine_##S##_C1PV; \
        static constexpr auto remap = &vlkrRemap_##S##_C1PV;     \
    };
VLKR_TEST_OPS(Vlk8u, 8u)
VLKR_TEST_OPS(Vlk16u, 16u)
VLKR_TEST_OPS(Vlk32f, 32f)
#undef VLKR_TEST_OPS

}  // namespace vlkr::test
