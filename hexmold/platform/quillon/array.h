/// @file  platform/quillon/array.h
/// @brief The host runtime's dynamic array and the fixed-size array of per-depth tables.
#pragma once
#include <array>
#include <cstddef>
#include <vector>

namespace Quillon {

/// Contiguous growable array of values.
template <typename T> using Array = std::vector<T>;

} // namespace Quillon

namespace Dense1D {

/// Fixed-size array; per-depth tables of the tile tree are FixedArray<..., depthCount>.
template <typename T, std::size_t N> using FixedArray = std::array<T, N>;

} // namespace Dense1D
