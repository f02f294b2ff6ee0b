// Shared pieces of the fuzz targets: a reader over the fuzzer's bytes, caller arrays placed at
// chosen misalignments whose untouchable bytes are compared after each call, and the checks
// that abort with a message when an operation breaks its contract.
#pragma once

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <vector>

#include "vlkr.h"

namespace vlkr_fuzz {

[[noreturn]] inline void fail(const char* op, const char* what)
{
    std::fprintf(stderr, "vlkr fuzz: %s: %s\n", op, what);
    std::abort();
}

inline void require(bool ok, const char* op, const char* what)
{
    if (!ok) fail(op, what);
}

inline void expectStatus(const char* op, vlkStatus status, std::initializer_list<vlkStatus> allowed)
{
    for (vlkStatus s : allowed)
        if (s == status) return;
    std::fprintf(stderr, "vlkr fuzz: %s: status %d is not one this operation returns\n", op,
                 status);
    std::abort();
}

// Reads the fuzzer's bytes front to back; past the end every read gives zeros, so any prefix
// of an input is an input too.
class Input {
   public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    std::uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }

    template <class T>
    T raw()
    {
        unsigned char b[sizeof(T)];
        for (unsigned char& c : b) c = byte();
        T v;
        std::memcpy(&v, b, sizeof v);
        return v;
    }

    // lo..hi inclusive, one byte when the span fits in one, else four.
    int range(int lo, int hi)
    {
        const std::uint64_t span = std::uint64_t(std::int64_t(hi) - lo) + 1;
        const std::uint64_t r = span <= 256 ? byte() : raw<std::uint32_t>();
        return int(std::int64_t(lo) + std::int64_t(r % span));
    }

    bool oneIn(int n) { return byte() % n == 0; }

    // A count or size: mostly 0..max, now and then a negative or extreme value.
    int count(int max)
    {
        const std::uint8_t b = byte();
        if (b < 232) return b % (max + 1);
        static constexpr int kOdd[] = {-1, -5, INT_MIN, -2, 0, -1000, INT_MIN + 1, -3};
        return kOdd[b & 7];
    }

    // A positive size 1..max, now and then 0 or negative.
    int size(int max)
    {
        const std::uint8_t b = byte();
        if (b < 240) return 1 + b % max;
        static constexpr int kBad[] = {0, -1, INT_MIN, -7};
        return kBad[b & 3];
    }

    // A float that is often special: a palette, a small grid, or raw bits.
    float value()
    {
        static const float kPalette[32] = {
            0.0f,    -0.0f,    1.0f,     -1.0f,     0.5f,          -0.5f,         2.0f,    -2.0f,
            3.0f,    0.25f,    1e-7f,    -1e-7f,    1.1920929e-7f, 1e-30f,        FLT_MIN, 1e-42f,
            FLT_MAX, -FLT_MAX, INFINITY, -INFINITY, NAN,           -NAN,          10.0f,   -10.0f,
            100.0f,  1e10f,    0.1f,     0.9999f,   1.0001f,       0.0017453292f, 4.0f,    -4.0f};
        const std::uint8_t b = byte();
        if (b < 64) return kPalette[b & 31];
        if (b < 200) return float(int(b) - 132) / 4.0f;
        return raw<float>();
    }

    double dvalue()
    {
        const std::uint8_t b = byte();
        if (b < 200) return double(value());
        if (b < 230) return double(int(byte()) - 128) / 16.0;
        return raw<double>();
    }

    // An interpolation selector: mostly a known one.
    int selector()
    {
        static constexpr int kKnown[] = {1, 2, 4, 5, 6, 7};
        static constexpr int kOther[] = {0, 3, 8, -1, 16, INT_MIN, 1 | INT_MIN, 9};
        const std::uint8_t b = byte();
        return b < 224 ? kKnown[b % 6] : kOther[b & 7];
    }

   private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

// Element access through memcpy: the arrays handed to the library may sit at any byte.
template <class T>
void put(void* base, std::size_t i, T v)
{
    std::memcpy(static_cast<unsigned char*>(base) + i * sizeof(T), &v, sizeof v);
}

template <class T>
T get(const void* base, std::size_t i)
{
    T v;
    std::memcpy(&v, static_cast<const unsigned char*>(base) + i * sizeof(T), sizeof v);
    return v;
}

// Every block a call may touch. Each is allocated with exactly the bytes the caller owes the
// operation, placed 0..15 bytes past the start of its allocation (the bytes before it are
// part of the check), filled with a canary or with input data. After the call every byte not
// marked writable must hold what it held before; on a call that may write nothing, no byte.
class Memory {
   public:
    Memory() = default;
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;
    ~Memory()
    {
        for (Block& b : blocks_) std::free(b.raw);
    }

    // `lead` is the misalignment; `step` keeps records at their natural alignment.
    unsigned char* bytes(Input& in, std::size_t size, std::size_t step = 1)
    {
        const std::size_t lead = std::size_t(in.byte() % 16) / step * step;
        return place(size, lead);
    }

    template <class T>
    T* array(Input& in, std::size_t count)
    {
        return reinterpret_cast<T*>(bytes(in, count * sizeof(T)));
    }

    // Records and pointer arrays stay at their natural alignment, as a C caller's would.
    template <class T>
    T* records(Input& in, std::size_t count)
    {
        return reinterpret_cast<T*>(bytes(in, count * sizeof(T), alignof(T)));
    }

    template <class T>
    T* floats(Input& in, std::size_t count)
    {
        T* p = array<T>(in, count);
        for (std::size_t i = 0; i < count; ++i) put<T>(p, i, T(in.value()));
        return p;
    }

    void allow(const void* p, std::size_t size)
    {
        if (size == 0 || !p) return;  // a pointer passed as null has nothing to write
        const auto* c = static_cast<const unsigned char*>(p);
        for (Block& b : blocks_) {
            if (c >= b.raw && c + size <= b.raw + b.lead + b.size) {
                std::memset(b.writable.data() + (c - b.raw), 1, size);
                return;
            }
        }
        fail("fuzz harness", "a writable range lies in no block");
    }

    void snapshot()
    {
        for (Block& b : blocks_) b.before.assign(b.raw, b.raw + b.lead + b.size);
    }

    // Fails unless the unwritable bytes (all bytes when `wrote` is false) are as before.
    void verify(const char* op, bool wrote) const
    {
        for (const Block& b : blocks_) {
            for (std::size_t i = 0; i < b.lead + b.size; ++i) {
                if (b.raw[i] == b.before[i] || (wrote && b.writable[i])) continue;
                char what[160];
                std::snprintf(
                    what, sizeof what,
                    "%s byte %td of a %zu-byte caller block (misaligned by %zu) changed",
                    !wrote ? "on a call that writes nothing," : "outside what it may write,",
                    std::ptrdiff_t(i) - std::ptrdiff_t(b.lead), b.size, b.lead);
                fail(op, what);
            }
        }
    }

   private:
    struct Block {
        unsigned char* raw;
        std::size_t lead;
        std::size_t size;
        std::vector<unsigned char> before;
        std::vector<unsigned char> writable;
    };

    unsigned char* place(std::size_t size, std::size_t lead)
    {
        auto* raw = static_cast<unsigned char*>(std::malloc(lead + size + (lead + size == 0)));
        if (!raw) fail("fuzz harness", "out of memory");
        for (std::size_t i = 0; i < lead + size; ++i) raw[i] = kCanary ^ (unsigned char)(i * 29);
        blocks_.push_back({raw, lead, size, {}, std::vector<unsigned char>(lead + size, 0)});
        return raw + lead;
    }

    static constexpr unsigned char kCanary = 0xA5;
    std::vector<Block> blocks_;
};

// Chooses, for some inputs, pointers to pass as null; remembers whether any checked one was.
class Nulls {
   public:
    explicit Nulls(Input& in) : in_(in), on_(in.oneIn(8)) {}

    template <class P>
    P operator()(P p)
    {
        if (on_ && in_.oneIn(3)) {
            any_ = true;
            return nullptr;
        }
        return p;
    }

    bool any() const { return any_; }

   private:
    Input& in_;
    bool on_;
    bool any_ = false;
};

// A checked null pointer decides the status before anything else the checks look at.
inline void expectNullDecides(const char* op, const Nulls& nulls, vlkStatus status)
{
    if (nulls.any()) require(status == vlkStatusNullPtr, op, "a checked null pointer passed");
}

}  // namespace vlkr_fuzz
