// The six resize entry points by voxel type, for typed volume tests.
#pragma once

#include "vlkr.h"

namespace vlkr::test {

template <class T>
struct Ops;
template <>
struct Ops<Vlk8u> {
    static constexpr auto block = &vlkrResize_8u_C1V;
    static constexpr auto planes = &vlkrResize_8u_C1PV;
};
template <>
struct Ops<Vlk16u> {
    static constexpr auto block = &vlkrResize_16u_C1V;
    static constexpr auto planes = &vlkrResize_16u_C1PV;
};
template <>
struct Ops<Vlk32f> {
    static constexpr auto block = &vlkrResize_32f_C1V;
    static constexpr auto planes = &vlkrResize_32f_C1PV;
};

}  // namespace vlkr::test
