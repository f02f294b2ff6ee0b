// Argument checks of the spherical-harmonics operations. Orders are compared as unsigned
// numbers, so a negative order counts as too large; a count of exactly 0 is an error while a
// negative count is nothing to do.
#include "api.h"

#include <optional>

#include "basis.h"
#include "transform.h"

namespace vlkr::sh {
namespace {

bool aboveOrder(int L, unsigned limit) { return unsigned(L) > limit; }

template <class T>
bool anyNull3(T* const* p)
{
    return !p || !p[0] || !p[1] || !p[2];
}

// The order checks of the transforms: the context's order, and band 15, beyond which the
// per-sample buffer has no room.
bool orderRefused(int L, const SHContext& state)
{
    return aboveOrder(L, unsigned(state.maxOrder)) || aboveOrder(L, kMaxBand);
}

// The checks every transform makes after its pointers: a count of 0 is an error, then the
// order, and a negative count is nothing to do. Empty when the transform should run.
std::optional<vlkStatus> countAndOrder(int n, int L, const SHContext& state)
{
    if (n == 0) return vlkStatusSize;
    if (orderRefused(L, state)) return vlkStatusAlgType;
    if (n < 0) return vlkStatusOk;
    return std::nullopt;
}

}  // namespace

vlkStatus getSize(int maxL, int shType, int* pSize) noexcept
{
    if (!pSize) return vlkStatusNullPtr;
    if (shType == SHTypeDirect && aboveOrder(maxL, kMaxBand)) return vlkStatusSize;
    if (shType != SHTypeDirect && shType != SHTypeRecurrence) return vlkStatusAlgType;
    const long long size = stateSize(maxL, shType);
    if (size < 0) return vlkStatusSize;
    *pSize = int(size);
    return vlkStatusOk;
}

vlkStatus init(SHContext* state, int maxL, int shType) noexcept
{
    if (!state) return vlkStatusNullPtr;
    if (shType == SHTypeDirect && aboveOrder(maxL, kMaxBand)) return vlkStatusSize;
    if (shType != SHTypeDirect && shType != SHTypeRecurrence) return vlkStatusAlgType;
    if (stateSize(maxL, shType) < 0) return vlkStatusSize;
    initState(state, maxL, shType);
    return vlkStatusOk;
}

vlkStatus basisAll(const float* x, const float* y, const float* z, int n, float* dst, int L,
                   const SHContext* state) noexcept
{
    if (!x || !y || !z || !dst || !state) return vlkStatusNullPtr;
    // Only a count of exactly 0 is an error; a negative count is nothing to do, whatever L.
    if (n == 0) return vlkStatusSize;
    if (n < 0) return vlkStatusOk;
    if (aboveOrder(L, unsigned(state->maxOrder)) || aboveOrder(L, kMaxBand))
        return vlkStatusAlgType;
    if (state->shType != SHTypeDirect && state->shType != SHTypeRecurrence) return vlkStatusAlgType;
    evaluate(x, y, z, std::size_t(n), dst, L, *state);
    return vlkStatusOk;
}

vlkStatus basisBand(const float* x, const float* y, const float* z, int n, float* dst,
                    int L) noexcept
{
    if (!x || !y || !z || !dst) return vlkStatusNullPtr;
    // Kept on purpose: the band is tested before the count that precedes it.
    if (aboveOrder(L, kMaxBand)) return vlkStatusAlgType;
    if (n == 0) return vlkStatusSize;
    if (n < 0) return vlkStatusOk;
    evaluateBand(x, y, z, std::size_t(n), dst, L);
    return vlkStatusOk;
}

namespace {

vlkStatus forwardChecked(const float* x, const float* y, const float* z, Channels src, int n,
                         float* const coeffs[], int L, const SHContext* state) noexcept
{
    if (const auto status = countAndOrder(n, L, *state)) return *status;
    forward(x, y, z, src, std::size_t(n), coeffs, L, *state);
    return vlkStatusOk;
}

}  // namespace

vlkStatus forwardC1I(const float* x, const float* y, const float* z, const float* src, int n,
                     float* coeffs, int L, const SHContext* state) noexcept
{
    if (!x || !y || !z || !src || !coeffs || !state) return vlkStatusNullPtr;
    float* const out[1] = {coeffs};
    return forwardChecked(x, y, z, {src, nullptr, 1}, n, out, L, state);
}

vlkStatus forwardC3P3I(const float* x, const float* y, const float* z, const float* src, int n,
                       float* const coeffs[3], int L, const SHContext* state) noexcept
{
    if (!x || !y || !z || !src || anyNull3(coeffs) || !state) return vlkStatusNullPtr;
    return forwardChecked(x, y, z, {src, nullptr, 3}, n, coeffs, L, state);
}

vlkStatus forwardP3I(const float* x, const float* y, const float* z, const float* const src[3],
                     int n, float* const coeffs[3], int L, const SHContext* state) noexcept
{
    if (!x || !y || !z || anyNull3(src) || anyNull3(coeffs) || !state) return vlkStatusNullPtr;
    return forwardChecked(x, y, z, {nullptr, src, 3}, n, coeffs, L, state);
}

vlkStatus inverseC1(const float* coeffs, int L, const float* x, const float* y, const float* z,
                    float* dst, int n, const SHContext* state) noexcept
{
    if (!coeffs || !x || !y || !z || !dst || !state) return vlkStatusNullPtr;
    if (const auto status = countAndOrder(n, L, *state)) return *status;
    const float* const in[1] = {coeffs};
    inverse(in, 1, L, x, y, z, nullptr, dst, std::size_t(n), *state);
    return vlkStatusOk;
}

vlkStatus inverseP3(const float* const coeffs[3], int L, const float* x, const float* y,
                    const float* z, float* const dst[3], int n, const SHContext* state) noexcept
{
    if (anyNull3(coeffs) || !x || !y || !z || anyNull3(dst) || !state) return vlkStatusNullPtr;
    if (const auto status = countAndOrder(n, L, *state)) return *status;
    inverse(coeffs, 3, L, x, y, z, dst, nullptr, std::size_t(n), *state);
    return vlkStatusOk;
}

vlkStatus inverseP3C3(const float* const coeffs[3], int L, const float* x, const float* y,
                      const float* z, float* dst, int n, const SHContext* state) noexcept
{
    if (anyNull3(coeffs) || !x || !y || !z || !dst || !state) return vlkStatusNullPtr;
    if (const auto status = countAndOrder(n, L, *state)) return *status;
    inverse(coeffs, 3, L, x, y, z, nullptr, dst, std::size_t(n), *state);
    return vlkStatusOk;
}

}  // namespace vlkr::sh
