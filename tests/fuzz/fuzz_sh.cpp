// Fuzz target for the spherical-harmonics operations: the first byte picks the operation, the
// rest choose orders, evaluation types, counts, directions, coefficients and misalignments.
#include <algorithm>
#include <cstdint>

#include "fuzz_support.h"
#include "vlkr.h"

namespace {

using namespace vlkr_fuzz;

constexpr int kMaxBand = 15;
constexpr int kMaxCount = 10;
constexpr long long kMaxContextBytes = 1 << 20;  // contexts the harness is willing to allocate

// An order: mostly around the supported bands, now and then far outside them.
int order(Input& in)
{
    const std::uint8_t b = in.byte();
    if (b < 216) return int(b % 21) - 2;
    static constexpr int kFar[] = {INT_MAX, INT_MIN, 65535, 46340, 100000, -100, 64, 181};
    return kFar[b & 7];
}

int shType(Input& in)
{
    const std::uint8_t b = in.byte();
    if (b < 112) return SHTypeDirect;
    if (b < 232) return SHTypeRecurrence;
    static constexpr int kOther[] = {2, -1, INT_MIN, 3};
    return kOther[b & 3];
}

// The block size the size query reports, or -1 when it cannot be an int.
long long expectedContextSize(int maxL, int type)
{
    if (type == SHTypeDirect) return 16;
    const __int128 n = (__int128(maxL) + 1) * (__int128(maxL) + 2) / 2;
    const __int128 size = ((8 * n + 30) & ~__int128(31)) + 32;
    return size > INT_MAX ? -1 : (long long)size;
}

// A prepared context in a caller block at 0 or 8 bytes into its allocation.
const SHContext* makeContext(Memory& m, Input& in)
{
    const int type = in.oneIn(2) ? SHTypeDirect : SHTypeRecurrence;
    const int maxL = in.range(0, type == SHTypeDirect ? kMaxBand : 20);
    int size = 0;
    require(vlkrSHGetSize_32f(maxL, type, &size) == vlkStatusOk, "context", "size query failed");
    auto* state = reinterpret_cast<SHContext*>(m.bytes(in, std::size_t(size), 8));
    require(vlkrSHInit_32f(state, maxL, type) == vlkStatusOk, "context", "init failed");
    return state;
}

std::size_t bandsOf(int L) { return L >= 0 && L <= kMaxBand ? std::size_t(L + 1) * (L + 1) : 0; }

std::size_t samples(int n) { return std::size_t(std::max(n, 0)); }

struct Directions {
    float* x;
    float* y;
    float* z;
};

Directions directions(Memory& m, Input& in, std::size_t n)
{
    return {m.floats<float>(in, n), m.floats<float>(in, n), m.floats<float>(in, n)};
}

void getSize(Input& in)
{
    const char* op = "vlkrSHGetSize_32f";
    Memory m;
    const int maxL = order(in), type = shType(in);
    int* size = m.records<int>(in, 1);
    Nulls nulls(in);
    int* sizeArg = nulls(size);
    m.allow(size, sizeof(int));
    m.snapshot();
    const vlkStatus s = vlkrSHGetSize_32f(maxL, type, sizeArg);
    expectStatus(op, s, {vlkStatusOk, vlkStatusNullPtr, vlkStatusSize, vlkStatusAlgType});
    expectNullDecides(op, nulls, s);
    m.verify(op, s == vlkStatusOk);
    if (s == vlkStatusOk) require(*size == expectedContextSize(maxL, type), op, "wrong size");
}

void init(Input& in)
{
    const char* op = "vlkrSHInit_32f";
    Memory m;
    const int maxL = order(in), type = shType(in);
    int size = 0;
    const vlkStatus sized = vlkrSHGetSize_32f(maxL, type, &size);
    if (sized == vlkStatusOk && size > kMaxContextBytes) return;
    auto* state =
        reinterpret_cast<SHContext*>(m.bytes(in, sized == vlkStatusOk ? std::size_t(size) : 0, 8));
    Nulls nulls(in);
    SHContext* stateArg = nulls(state);
    m.allow(state, sized == vlkStatusOk ? std::size_t(size) : 0);
    m.snapshot();
    const vlkStatus s = vlkrSHInit_32f(stateArg, maxL, type);
    expectStatus(op, s, {vlkStatusOk, vlkStatusNullPtr, vlkStatusSize, vlkStatusAlgType});
    expectNullDecides(op, nulls, s);
    if (!nulls.any()) require(s == sized, op, "refuses what the size query accepted, or not");
    m.verify(op, s == vlkStatusOk);
    if (s != vlkStatusOk) return;
    require(state->maxOrder == maxL && state->shType == type, op, "wrong header");
    if (type == SHTypeRecurrence) {
        const auto* block = reinterpret_cast<const char*>(state);
        const auto* a = reinterpret_cast<const char*>(state->coefA);
        const auto* b = reinterpret_cast<const char*>(state->coefB);
        require(a >= block + sizeof(SHContext) && b > a && b < block + size, op,
                "tables outside the block");
        require(std::uintptr_t(a) % 16 == 0 && std::uintptr_t(b) % 16 == 0, op,
                "tables not 16-byte aligned");
    }
}

void basis(Input& in, bool band)
{
    const char* op = band ? "vlkrSHBand_32f" : "vlkrSH_32f";
    Memory m;
    const SHContext* state = band ? nullptr : makeContext(m, in);
    const int n = in.count(kMaxCount), L = order(in);
    const std::size_t per =
        band ? (L >= 0 && L <= kMaxBand ? std::size_t(2 * L + 1) : 0) : bandsOf(L);
    Directions d = directions(m, in, samples(n));
    float* dst = m.array<float>(in, samples(n) * per);
    Nulls nulls(in);
    d.x = nulls(d.x);
    d.y = nulls(d.y);
    d.z = nulls(d.z);
    float* dstArg = nulls(dst);
    if (!band) state = nulls(state);
    m.allow(dst, samples(n) * per * sizeof(float));
    m.snapshot();
    const vlkStatus s = band ? vlkrSHBand_32f(d.x, d.y, d.z, n, dstArg, L)
                             : vlkrSH_32f(d.x, d.y, d.z, n, dstArg, L, state);
    expectStatus(op, s, {vlkStatusOk, vlkStatusNullPtr, vlkStatusSize, vlkStatusAlgType});
    expectNullDecides(op, nulls, s);
    m.verify(op, s == vlkStatusOk);
    if (nulls.any()) return;
    // The band form tests the band before the count; the full form the count first.
    const bool badOrder =
        unsigned(L) > unsigned(kMaxBand) || (!band && unsigned(L) > unsigned(state->maxOrder));
    vlkStatus expected = n == 0              ? vlkStatusSize
                         : badOrder && n > 0 ? vlkStatusAlgType
                                             : vlkStatusOk;
    if (band && badOrder) expected = vlkStatusAlgType;
    require(s == expected, op, "not the status its arguments call for");
}

// Three coefficient vectors or channel planes behind an array of three pointers, each entry
// possibly null.
float** planes(Memory& m, Input& in, std::size_t n, bool fill)
{
    float** p = m.records<float*>(in, 3);
    for (int c = 0; c < 3; ++c) p[c] = fill ? m.floats<float>(in, n) : m.array<float>(in, n);
    return p;
}

void nullEntries(float** p, float** shown, Nulls& nulls)
{
    for (int c = 0; c < 3; ++c) shown[c] = nulls(p[c]);
}

enum Op {
    kGetSize,
    kInit,
    kSH,
    kSHBand,
    kFwdC1,
    kFwdC3P3,
    kFwdP3,
    kInvC1,
    kInvP3,
    kInvP3C3,
    kOpCount
};

void transform(Input& in, Op which)
{
    static const char* const kNames[] = {"",
                                         "",
                                         "",
                                         "",
                                         "vlkrSHTFwd_32f_C1I",
                                         "vlkrSHTFwd_32f_C3P3I",
                                         "vlkrSHTFwd_32f_P3I",
                                         "vlkrSHTInv_32f_C1",
                                         "vlkrSHTInv_32f_P3",
                                         "vlkrSHTInv_32f_P3C3"};
    const char* op = kNames[which];
    Memory m;
    const SHContext* state = makeContext(m, in);
    const int n = in.count(kMaxCount), L = order(in);
    const std::size_t ns = samples(n), nc = bandsOf(L);
    Directions d = directions(m, in, ns);
    const bool forward = which <= kFwdP3;
    const bool threeChannels = which != kFwdC1 && which != kInvC1;
    // Coefficients: one vector, or three behind a pointer array (a second array carries the
    // entries the call sees, some of them perhaps null).
    float* coeffs = nullptr;
    float** coeff3 = nullptr;
    float** coeff3Arg = nullptr;
    if (threeChannels) {
        coeff3 = planes(m, in, nc, true);
        coeff3Arg = m.records<float*>(in, 3);
    } else {
        coeffs = m.floats<float>(in, nc);
    }
    // Samples: C1 or C3 in one array, or P3 planes.
    float* flat = nullptr;
    float** plane3 = nullptr;
    float** plane3Arg = nullptr;
    if (which == kFwdP3 || which == kInvP3) {
        plane3 = planes(m, in, ns, forward);
        plane3Arg = m.records<float*>(in, 3);
    } else {
        const std::size_t count = ns * (which == kFwdC3P3 || which == kInvP3C3 ? 3 : 1);
        flat = forward ? m.floats<float>(in, count) : m.array<float>(in, count);
    }
    Nulls nulls(in);
    d.x = nulls(d.x);
    d.y = nulls(d.y);
    d.z = nulls(d.z);
    float* flatArg = flat ? nulls(flat) : nullptr;
    float* coeffsArg = coeffs ? nulls(coeffs) : nullptr;
    if (coeff3) nullEntries(coeff3, coeff3Arg, nulls);
    if (plane3) nullEntries(plane3, plane3Arg, nulls);
    float* const* coeff3Pass = coeff3 ? nulls(coeff3Arg) : nullptr;
    float* const* plane3Pass = plane3 ? nulls(plane3Arg) : nullptr;
    const SHContext* stateArg = nulls(state);
    if (forward) {
        if (coeffs) m.allow(coeffs, nc * sizeof(float));
        for (int c = 0; coeff3 && c < 3; ++c) m.allow(coeff3[c], nc * sizeof(float));
    } else {
        if (flat) m.allow(flat, ns * (which == kInvP3C3 ? 3 : 1) * sizeof(float));
        for (int c = 0; plane3 && c < 3; ++c) m.allow(plane3[c], ns * sizeof(float));
    }
    m.snapshot();
    vlkStatus s = vlkStatusOk;
    switch (which) {
        case kFwdC1:
            s = vlkrSHTFwd_32f_C1I(d.x, d.y, d.z, flatArg, n, coeffsArg, L, stateArg);
            break;
        case kFwdC3P3:
            s = vlkrSHTFwd_32f_C3P3I(d.x, d.y, d.z, flatArg, n, coeff3Pass, L, stateArg);
            break;
        case kFwdP3:
            s = vlkrSHTFwd_32f_P3I(d.x, d.y, d.z, plane3Pass, n, coeff3Pass, L, stateArg);
            break;
        case kInvC1:
            s = vlkrSHTInv_32f_C1(coeffsArg, L, d.x, d.y, d.z, flatArg, n, stateArg);
            break;
        case kInvP3:
            s = vlkrSHTInv_32f_P3(coeff3Pass, L, d.x, d.y, d.z, plane3Pass, n, stateArg);
            break;
        default:
            s = vlkrSHTInv_32f_P3C3(coeff3Pass, L, d.x, d.y, d.z, flatArg, n, stateArg);
            break;
    }
    expectStatus(op, s, {vlkStatusOk, vlkStatusNullPtr, vlkStatusSize, vlkStatusAlgType});
    expectNullDecides(op, nulls, s);
    if (!nulls.any()) {
        // The count of 0 first, then the order (whatever the sign of the count).
        const bool badOrder =
            unsigned(L) > unsigned(kMaxBand) || unsigned(L) > unsigned(state->maxOrder);
        const vlkStatus expected = n == 0     ? vlkStatusSize
                                   : badOrder ? vlkStatusAlgType
                                              : vlkStatusOk;
        require(s == expected, op, "not the status its arguments call for");
    }
    m.verify(op, s == vlkStatusOk);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input in(data, size);
    const Op op = Op(in.byte() % kOpCount);
    switch (op) {
        case kGetSize:
            getSize(in);
            break;
        case kInit:
            init(in);
            break;
        case kSH:
            basis(in, false);
            break;
        case kSHBand:
            basis(in, true);
            break;
        default:
            transform(in, op);
            break;
    }
    return 0;
}
