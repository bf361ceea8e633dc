/// @file  substrate/bbox.h
/// @brief Axis-aligned box of two corners.
#pragma once

namespace TVL::TileTree3D {

/// Box with corners `min` and `max`. Integer tile-space boxes are half-open, [min, max); world
/// boxes are closed. A default box is empty (min above max).
template <typename V, typename S> struct bbox {
    V min{};
    V max{};
    bool empty() const { return max.x < min.x || max.y < min.y || max.z < min.z; }
};

} // namespace TVL::TileTree3D
