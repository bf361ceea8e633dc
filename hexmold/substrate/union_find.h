/// @file  substrate/union_find.h
/// @brief `UnionFind`: a lock-free union-find over 64-bit ids, for connected regions of voxels
///        found by parallel loops.
/// @details `find` halves paths with compare-and-swap; `unite` hangs the larger of two roots
///          under the smaller by compare-and-swap and retries when another thread got there
///          first, so a set's root is always its smallest id, whatever the order of the unions
///          and the number of threads.
#pragma once
#include <atomic>
#include <cstdint>
#include <hexmold/substrate/parallel.h>
#include <memory>
#include <utility>

namespace TVL::TileTree3D {

class UnionFind {
public:
    /// Ids 0 to @p n - 1, each its own set (initialised in parallel).
    explicit UnionFind(std::int64_t n)
        : mParent(new std::atomic<std::int64_t>[std::size_t(n)]), mSize(n)
    {
        TVL::Parallel::parallel_for(TVL::Parallel::blocked_range<std::int64_t>(0, n, 1 << 16),
                                    [&](auto const& r) {
                                        for (std::int64_t i = r.begin(); i != r.end(); ++i)
                                            mParent[i].store(i, std::memory_order_relaxed);
                                    });
    }
    /// The root of @p x's set.
    std::int64_t find(std::int64_t x) const
    {
        for (;;) {
            std::int64_t p = mParent[x].load(std::memory_order_acquire);
            if (p == x)
                return x;
            std::int64_t const g = mParent[p].load(std::memory_order_acquire);
            if (g != p)
                mParent[x].compare_exchange_weak(p, g, std::memory_order_acq_rel);
            x = g;
        }
    }
    /// Joins the sets of @p a and @p b.
    void unite(std::int64_t a, std::int64_t b)
    {
        for (;;) {
            a = find(a);
            b = find(b);
            if (a == b)
                return;
            if (a > b)
                std::swap(a, b);
            std::int64_t expected = b;
            if (mParent[b].compare_exchange_strong(expected, a, std::memory_order_acq_rel))
                return;
        }
    }
    std::int64_t size() const { return mSize; }

private:
    std::unique_ptr<std::atomic<std::int64_t>[]> mParent;
    std::int64_t mSize;
};

} // namespace TVL::TileTree3D
