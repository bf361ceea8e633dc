/// @file  substrate/canonical_order.h
/// @brief `addTilesInCanonicalOrder`: copies the tiles of a scratch tree into another tree in an
///        order that depends only on the tiles, not on how they were found.
#pragma once
#include <hexmold/export.h>
#include <hexmold/substrate/container.h>

namespace TVL::TileTree3D {

/// @brief Adds every tile of @p scratch to @p io_out, in the order depth, k, j, i.
/// @details Per-worker scratch trees of a parallel reduction get their tiles in an order that
///          depends on the split of the work; adding them again in this order before a merge by
///          `Container::refine` gives the merged tree the same tile order on any thread count.
///          Tiles already in @p io_out are left alone, as `addTile` does.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void addTilesInCanonicalOrder(Container<Traits> const& scratch,
                                          Container<Traits>& io_out);

} // namespace TVL::TileTree3D
