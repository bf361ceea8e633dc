/// @file  substrate/tile_store.h
/// @brief Growable array of tiles with stable element addresses and O(1) indexing.
/// @details Segment s holds kBase * 2^s elements, so an index maps to its segment with one
///          leading-zero count. Elements never move while the array grows, which lets several
///          workers add tiles to one scratch tree (under the tree's lock) while others keep
///          references to tiles they found earlier.
#pragma once
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <hexmold/substrate/contract.h>
#include <hexmold/substrate/large_alloc.h>
#include <new>
#include <utility>

namespace TVL::TileTree3D::detail {

template <typename T> class TileStore {
public:
    static constexpr int kBaseShift = 6;
    static constexpr std::int64_t kBase = std::int64_t(1) << kBaseShift;
    static constexpr int kMaxSegments = 40;

    TileStore() = default;
    TileStore(TileStore const& o) { *this = o; }
    TileStore& operator=(TileStore const& o)
    {
        if (this == &o)
            return *this;
        clear();
        std::int64_t n = o.size();
        reserve(n);
        for (std::int64_t i = 0; i < n; ++i)
            new (slot(i)) T(o[i]);
        mSize.store(n, std::memory_order_release);
        return *this;
    }
    TileStore(TileStore&& o) noexcept { swap(o); }
    TileStore& operator=(TileStore&& o) noexcept
    {
        if (this != &o) {
            clear();
            swap(o);
        }
        return *this;
    }
    ~TileStore() { clear(); }

    void swap(TileStore& o) noexcept
    {
        for (int s = 0; s < kMaxSegments; ++s)
            std::swap(mSegments[s], o.mSegments[s]);
        std::int64_t a = mSize.load(), b = o.mSize.load();
        mSize.store(b);
        o.mSize.store(a);
        std::swap(mSegmentCount, o.mSegmentCount);
    }

    std::int64_t size() const { return mSize.load(std::memory_order_acquire); }
    bool empty() const { return size() == 0; }

    static int segmentOf(std::int64_t i)
    {
        return 63 - std::countl_zero(static_cast<std::uint64_t>((i >> kBaseShift) + 1));
    }
    static std::int64_t segmentStart(int s) { return kBase * ((std::int64_t(1) << s) - 1); }

    /// Element @p i; 0 <= i < size() is a precondition the callers check.
    T& operator[](std::int64_t i)
    {
        HEXMOLD_EXPECTS(i >= 0 && i < size());
        if (i < 0)
            __builtin_unreachable();
        int const s = segmentOf(i);
        return mSegments[s][i - segmentStart(s)];
    }
    T const& operator[](std::int64_t i) const
    {
        HEXMOLD_EXPECTS(i >= 0 && i < size());
        if (i < 0)
            __builtin_unreachable();
        int const s = segmentOf(i);
        return mSegments[s][i - segmentStart(s)];
    }

    /// Makes room for @p n elements without constructing them.
    void reserve(std::int64_t n)
    {
        while (n > 0 && segmentStart(mSegmentCount) < n) {
            std::int64_t const count = kBase << mSegmentCount;
            mSegments[mSegmentCount] = static_cast<T*>(allocateLarge(sizeof(T) * count));
            ++mSegmentCount;
        }
    }

    /// Appends a default-constructed element and returns its index. Not safe against concurrent
    /// appends: the owner serialises them.
    std::int64_t emplace_back()
    {
        std::int64_t const n = mSize.load(std::memory_order_relaxed);
        reserve(n + 1);
        new (slot(n)) T();
        mSize.store(n + 1, std::memory_order_release);
        return n;
    }

    /// Appends a copy of @p v and returns its index. Not safe against concurrent appends: the
    /// owner serialises them.
    std::int64_t push_back(T const& v)
    {
        std::int64_t const n = mSize.load(std::memory_order_relaxed);
        reserve(n + 1);
        new (slot(n)) T(v);
        mSize.store(n + 1, std::memory_order_release);
        return n;
    }

    /// Drops the elements from @p n on (keeps the memory).
    void truncate(std::int64_t n)
    {
        std::int64_t const old = size();
        for (std::int64_t i = n; i < old; ++i)
            (*this)[i].~T();
        if (n < old)
            mSize.store(n, std::memory_order_release);
    }

    void clear()
    {
        truncate(0);
        for (int s = 0; s < mSegmentCount; ++s) {
            freeLarge(mSegments[s]);
            mSegments[s] = nullptr;
        }
        mSegmentCount = 0;
    }

    /// Bytes reserved.
    std::size_t capacityBytes() const
    {
        return static_cast<std::size_t>(segmentStart(mSegmentCount)) * sizeof(T);
    }

private:
    /// Storage of element @p i, which may be the one being appended (i == size()).
    T* slot(std::int64_t i)
    {
        int const s = segmentOf(i);
        return &mSegments[s][i - segmentStart(s)];
    }

    T* mSegments[kMaxSegments] = {};
    std::atomic<std::int64_t> mSize{0};
    int mSegmentCount = 0;
};

} // namespace TVL::TileTree3D::detail
