/// @file  substrate/large_alloc.h
/// @brief Allocation of large arrays on transparent huge pages where the system allows it, so
///        that random access over tile arrays and lookup tables costs fewer TLB misses.
#pragma once
#include <cstddef>
#include <hexmold/export.h>

namespace TVL::TileTree3D::detail {

/// At least @p bytes, aligned to 64 bytes; blocks of 2 MiB and more are 2 MiB aligned and advised
/// as huge pages. Throws std::bad_alloc when memory is exhausted.
HEXMOLD_API void* allocateLarge(std::size_t bytes);
/// Frees what `allocateLarge` returned (null is ignored).
HEXMOLD_API void freeLarge(void* p) noexcept;

} // namespace TVL::TileTree3D::detail
