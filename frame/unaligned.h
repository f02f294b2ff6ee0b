// Caller arrays may sit at any byte address: the library reads and writes their elements
// through these two, which compile to plain moves yet promise the compiler no alignment, so
// no access is undefined and no optimiser may turn a run of them into aligned vector moves.
#pragma once

#include <cstring>

namespace vlkr {

template <class T>
inline T loadUnaligned(const T* p) noexcept
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <class T>
inline void storeUnaligned(T* p, const T& v) noexcept
{
    std::memcpy(p, &v, sizeof v);
}

}  // namespace vlkr
