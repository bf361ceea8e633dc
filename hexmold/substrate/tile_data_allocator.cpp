/// @file  substrate/tile_data_allocator.cpp
/// @brief The jemalloc calls behind `TileDataAllocator`.
/// @details Under AddressSanitizer the blocks come from the aligned global operator new instead:
///          jemalloc's memory is invisible to the sanitizer, and block overruns are exactly what
///          a sanitizer run should catch.
#include <hexmold/substrate/tile_data_allocator.h>

#include <jemalloc/jemalloc.h>

#if defined(__SANITIZE_ADDRESS__)
#define HEXMOLD_TILE_DATA_FROM_NEW 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HEXMOLD_TILE_DATA_FROM_NEW 1
#endif
#endif

namespace TVL::TileTree3D {

#if defined(HEXMOLD_TILE_DATA_FROM_NEW)

namespace {
// The alignment is stored in front of the block so that deallocation can pass it back.
constexpr std::size_t kHeader = 64;
} // namespace

void* allocate_jemalloc(std::size_t size, std::size_t alignment)
{
    std::size_t const align = alignment > kHeader ? alignment : kHeader;
    void* raw = ::operator new(size + align, std::align_val_t(align), std::nothrow);
    if (!raw)
        return nullptr;
    auto* user = static_cast<unsigned char*>(raw) + align;
    reinterpret_cast<std::size_t*>(user)[-1] = align;
    return user;
}

void deallocate_jemalloc(void* pointer)
{
    if (!pointer)
        return;
    auto* user = static_cast<unsigned char*>(pointer);
    std::size_t const align = reinterpret_cast<std::size_t*>(user)[-1];
    ::operator delete(user - align, std::align_val_t(align));
}

#else

void* allocate_jemalloc(std::size_t size, std::size_t alignment)
{
    // mallocx requires a non-zero size.
    return mallocx(size ? size : 1, alignment > 1 ? MALLOCX_ALIGN(alignment) : 0);
}

void deallocate_jemalloc(void* pointer)
{
    if (pointer)
        dallocx(pointer, 0);
}

#endif

} // namespace TVL::TileTree3D
