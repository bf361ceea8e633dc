/// @file  substrate/tile_data_allocator.h
/// @brief `TileDataAllocator<T>`: the standard allocator behind every tile data block, over
///        jemalloc, and the block type `TileDataBlock<T>`.
/// @details Blocks are many, small and equal in size (64 to 729 elements), which is the case
///          jemalloc's size classes and thread caches serve best. The allocator's `construct`
///          without arguments default-initialises, so that a block of trivially constructible
///          elements grown by `resize(n)` stays raw memory: channels that are about to overwrite
///          every element (temporaries, the empty-block bracket) skip the first write that way.
///          Growing with a value (`resize(n, v)`, `assign`) constructs as usual.
#pragma once
#include <cstddef>
#include <hexmold/export.h>
#include <limits>
#include <new>
#include <utility>
#include <vector>

namespace TVL::TileTree3D {

/// @brief Allocates @p size bytes aligned to @p alignment (a power of two) from jemalloc.
/// @return the memory, or null when none is left. A size of 0 gives a valid, unique pointer.
/// Thread-safe.
HEXMOLD_API void* allocate_jemalloc(std::size_t size, std::size_t alignment);
/// Frees memory from `allocate_jemalloc`; null is ignored. Thread-safe.
HEXMOLD_API void deallocate_jemalloc(void* pointer);

/// Stateless standard allocator over `allocate_jemalloc`; all instances compare equal, so
/// blocks may be moved and swapped between channels freely.
template <typename T> class TileDataAllocator {
public:
    using value_type = T;
    /// Blocks are aligned at least to 16 bytes, so that vector loads of small types line up.
    static constexpr std::size_t kAlignment = alignof(T) > 16 ? alignof(T) : 16;

    TileDataAllocator() noexcept = default;
    template <typename U> TileDataAllocator(TileDataAllocator<U> const&) noexcept {}

    T* allocate(std::size_t n)
    {
        if (n > std::numeric_limits<std::size_t>::max() / sizeof(T))
            throw std::bad_array_new_length();
        void* p = allocate_jemalloc(n * sizeof(T), kAlignment);
        if (!p)
            throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, std::size_t) noexcept { deallocate_jemalloc(p); }

    /// Default-initialisation: trivially constructible elements are left unwritten.
    template <typename U> void construct(U* p) noexcept(noexcept(::new (static_cast<void*>(p)) U))
    {
        ::new (static_cast<void*>(p)) U;
    }
    template <typename U, typename... Args> void construct(U* p, Args&&... args)
    {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }

    template <typename U> struct rebind {
        using other = TileDataAllocator<U>;
    };

    friend bool operator==(TileDataAllocator const&, TileDataAllocator const&) noexcept
    {
        return true;
    }
    friend bool operator!=(TileDataAllocator const&, TileDataAllocator const&) noexcept
    {
        return false;
    }
};

/// The storage of one tile's elements in a channel, and of an owning scratch block.
template <typename T> using TileDataBlock = std::vector<T, TileDataAllocator<T>>;

} // namespace TVL::TileTree3D
