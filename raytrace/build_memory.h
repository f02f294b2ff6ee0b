// Memory of the k-d tree build: the budget account and the storage charged against it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vlkcore.h"

namespace vlkr::raytrace {

constexpr std::uint32_t kGranule = 1u << 24;             // storage grows in 16 MB steps
constexpr std::uint32_t kGranuleCharge = kGranule + 40;  // a further block with its header
constexpr std::uint32_t kBuilderStateBytes = 400;        // the builder's own state

// The running account of what the caller's budget still allows. Every block is charged
// before it is allocated and refunded after it is freed, so the bytes live from vlkMalloc
// never exceed the budget.
class BuildBudget {
   public:
    explicit BuildBudget(std::uint32_t budget) noexcept : remaining_(budget - kBuilderStateBytes) {}
    bool charge(std::uint32_t bytes) noexcept
    {
        if (bytes > remaining_) {
            refused_ = true;
            return false;
        }
        remaining_ -= bytes;
        return true;
    }
    void refund(std::uint32_t bytes) noexcept { remaining_ += bytes; }
    std::uint32_t remaining() const noexcept { return remaining_; }
    // Whether a charge was turned down since the last clearRefused, which tells a build that
    // ran out of budget from one the heap let down.
    bool refused() const noexcept { return refused_; }
    void clearRefused() noexcept { refused_ = false; }

   private:
    std::uint32_t remaining_;
    bool refused_ = false;
};

// One vlkMalloc block with its charge, released (and refunded) when it goes out of scope.
class ChargedBlock {
   public:
    ChargedBlock() noexcept = default;
    ChargedBlock(const ChargedBlock&) = delete;
    ChargedBlock& operator=(const ChargedBlock&) = delete;
    ~ChargedBlock() { release(); }

    // Charges `charge` bytes and allocates `bytes` (at most the charge); false on failure,
    // with nothing charged or allocated.
    bool acquire(BuildBudget& budget, std::uint32_t bytes, std::uint32_t charge) noexcept
    {
        release();
        if (bytes > 0x7FFFFFFFu || !budget.charge(charge)) return false;
        ptr_ = vlkMalloc(static_cast<int>(bytes));
        if (!ptr_ && bytes > 0) {
            budget.refund(charge);
            return false;
        }
        budget_ = &budget;
        charge_ = charge;
        return true;
    }
    void release() noexcept
    {
        if (!budget_) return;
        vlkFree(ptr_);
        budget_->refund(charge_);
        ptr_ = nullptr;
        budget_ = nullptr;
    }
    // Gives the block to the caller: it stays allocated and is no longer this object's.
    void* handOver() noexcept
    {
        void* p = ptr_;
        ptr_ = nullptr;
        budget_ = nullptr;
        return p;
    }
    template <class T>
    T* as() const noexcept
    {
        return static_cast<T*>(ptr_);
    }

   private:
    void* ptr_ = nullptr;
    BuildBudget* budget_ = nullptr;
    std::uint32_t charge_ = 0;
};

// An array of T that grows by whole 16 MB chunks and never moves an element, so growing
// never holds two copies at once. Element i lives in chunk i >> kShift.
template <class T, int kMaxChunks = 256>
class ChunkedArray {
   public:
    static constexpr int kShift = [] {
        int s = 0;
        while ((std::size_t(sizeof(T)) << (s + 1)) <= kGranule) ++s;
        return s;
    }();
    static constexpr std::size_t kPerChunk = std::size_t(1) << kShift;

    // The first `initialBytes` of capacity are charged as one working area; later chunks are
    // charged one granule with its header each.
    bool init(BuildBudget& budget, std::uint32_t initialBytes) noexcept
    {
        budget_ = &budget;
        const std::uint32_t chunks = (initialBytes + kGranule - 1) / kGranule;
        if (!budget.charge(initialBytes)) return false;
        initialCharge_ = initialBytes;
        for (std::uint32_t c = 0; c < chunks; ++c)
            if (!addChunk(false)) return false;
        initialChunks_ = chunks_;
        return true;
    }
    // Frees every chunk added since init and refunds their charges: the state init left.
    void trim() noexcept
    {
        while (chunks_ > initialChunks_) vlkFree(chunk_[--chunks_]);
        if (budget_) budget_->refund(extraCharge_);
        extraCharge_ = 0;
    }
    ~ChunkedArray() { release(); }

    void release() noexcept
    {
        for (int c = 0; c < chunks_; ++c) vlkFree(chunk_[c]);
        chunks_ = 0;
        if (budget_) budget_->refund(initialCharge_ + extraCharge_);
        budget_ = nullptr;
        initialCharge_ = extraCharge_ = 0;
    }

    // Makes room for elements [0, n); false when the budget or the heap is exhausted.
    bool reserve(std::size_t n) noexcept
    {
        while (capacity() < n)
            if (!addChunk(true)) return false;
        return true;
    }
    std::size_t capacity() const noexcept { return std::size_t(chunks_) << kShift; }
    T& operator[](std::size_t i) noexcept { return chunk_[i >> kShift][i & (kPerChunk - 1)]; }
    const T& operator[](std::size_t i) const noexcept
    {
        return chunk_[i >> kShift][i & (kPerChunk - 1)];
    }
    // Copies elements [0, n) out in order.
    void copyTo(T* dst, std::size_t n) const noexcept
    {
        for (int c = 0; n > 0; ++c) {
            const std::size_t k = n < kPerChunk ? n : kPerChunk;
            std::memcpy(dst, chunk_[c], k * sizeof(T));
            dst += k;
            n -= k;
        }
    }

   private:
    bool addChunk(bool charged) noexcept
    {
        if (chunks_ == kMaxChunks) return false;
        if (charged) {
            if (!budget_->charge(kGranuleCharge)) return false;
            extraCharge_ += kGranuleCharge;
        }
        T* p = static_cast<T*>(vlkMalloc(static_cast<int>(kPerChunk * sizeof(T))));
        if (!p) return false;
        chunk_[chunks_++] = p;
        return true;
    }

    T* chunk_[kMaxChunks] = {};
    int chunks_ = 0;
    int initialChunks_ = 0;
    BuildBudget* budget_ = nullptr;
    std::uint32_t initialCharge_ = 0;
    std::uint32_t extraCharge_ = 0;
};

}  // namespace vlkr::raytrace
