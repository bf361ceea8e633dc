/// @file  substrate/large_alloc.cpp
/// @brief Huge-page friendly allocation of large arrays.
#include <hexmold/substrate/large_alloc.h>

#include <cstdlib>
#include <new>
#include <sys/mman.h>

namespace TVL::TileTree3D::detail {

namespace {
constexpr std::size_t kHuge = std::size_t(2) << 20;
}

void* allocateLarge(std::size_t bytes)
{
    std::size_t const align = bytes >= kHuge ? kHuge : 64;
    std::size_t const rounded = (bytes + align - 1) / align * align;
    void* p = std::aligned_alloc(align, rounded == 0 ? align : rounded);
    if (!p)
        throw std::bad_alloc();
    if (align == kHuge)
        madvise(p, rounded, MADV_HUGEPAGE);
    return p;
}

void freeLarge(void* p) noexcept
{
    std::free(p);
}

} // namespace TVL::TileTree3D::detail
