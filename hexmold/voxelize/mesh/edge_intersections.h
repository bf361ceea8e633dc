/// @file  voxelize/mesh/edge_intersections.h
/// @brief Exact counts of the triangles that cross the grid edges between voxel samples, on a
///        fixed-point copy of the mesh: the crossings from which the sign of a distance field
///        (inside or outside) follows by parity.
/// @details The mesh is snapped to a grid of 1/1024 finest voxel. A grid edge along axis a is a
///          segment of a line along a through a voxel sample; whether the line passes through a
///          triangle is decided in the plane of the two other axes by three integer
///          determinants, exactly. A line through a vertex or along an edge is decided by
///          simulation of simplicity (Edelsbrunner & Mücke 1990): every sample is taken as moved by
///          (e, e^2, e^3), e infinitely small, so that a line crosses exactly one
///          of the triangles that share that vertex or edge in a closed, consistently oriented
///          mesh, and the parity of crossings along any line stays right.
#pragma once
#include <array>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/tile_data.h>
#include <vector>

namespace VolumeGL::TileTree3D {

/// Fixed-point units per finest voxel.
inline constexpr std::int64_t kFixedPointScale = 1024;
/// Fixed-point coordinates are clamped to [-kFixedPointLimit, kFixedPointLimit].
inline constexpr std::int64_t kFixedPointLimit = 0x1ffffffffffll;

/// @brief The mesh's points and the voxel widths of every depth on the fixed-point grid.
/// @details A point's coordinate is floor(t * 1024 + 0.5), t its tile-space coordinate (world /
///          voxel size + the centre offset), clamped to the limit; a width is the voxel width of
///          its depth in finest voxels times 1024, the same way.
struct FixedPointCoords {
    std::vector<std::array<std::int64_t, 3>> points; ///< one triple per point
    std::vector<std::int64_t> widths;                ///< one value per depth
    std::int64_t sampleOffset[3] = {512, 512,
                                    512}; ///< the sample's place in its voxel, fixed point
};

/// @brief Snaps @p positions and the depths' voxel widths to the fixed-point grid of @p container,
///        with the samples at @p voxelOffset (finest voxels) in their voxels. A parallel loop.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API FixedPointCoords makeFixedPointCoords(
    TVL::TileTree3D::Container<Traits> const& container,
    Quillon::Array<Tavrel::Math::float3> const& positions, Tavrel::Math::float3 const& voxelOffset);

/// @brief Adds the crossings of one triangle with the grid edges of one tile.
/// @details Component a of voxel (i, j, k) of @p io_counts counts the triangles crossed by the
///          grid edge along axis a from the voxel's sample to the next sample on that axis (into
///          the next tile for the last voxel). Only the lines through the samples inside the
///          triangle's box are tested.
/// @param triangle   three point indices into @p coords.points
/// @param corner     the tile's corner (tile space, finest voxels, as `Tile::tijk`)
/// @param depth      the tile's depth
/// @return the number of crossings added.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API int countEdgeIntersections(
    Tavrel::Math::ulong3 const& triangle, FixedPointCoords const& coords,
    Tavrel::Math::int3 const& corner, int depth,
    TVL::TileTree3D::TileData<Tavrel::Math::int3, Traits::kTileWidth, 0, 0>& io_counts);

/// @brief The crossings of one triangle with the grid edges of one tile along @p axis only, as
///        the sparse build counts them along its columns.
/// @param signMode  0: each crossing adds 1; positive: a crossing of the front (normal along
///                  +axis) adds 1 and of the back subtracts 1; negative: the reverse
/// @return the number of crossings found.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API int
countAxisCrossings(Tavrel::Math::ulong3 const& triangle, FixedPointCoords const& coords,
                   Tavrel::Math::int3 const& corner, int depth, int axis, int signMode,
                   TVL::TileTree3D::TileData<int, Traits::kTileWidth, 0, 0>& io_counts);

/// @brief The line test of `countEdgeIntersections` on its own: whether the line along axis @p a
///        through the point (@p pb, @p pc) of the plane of the two other axes (b, c) = the
///        cyclic successors of a crosses the triangle (@p v0, @p v1, @p v2) (fixed point), and
///        where: @p out_hit receives the fixed-point coordinate along a of the crossing.
/// @return +1 for a crossing of the front (the triangle's normal points along +a), -1 for the
///         back, 0 for none.
HEXMOLD_API int lineCrossesTriangle(int a, std::int64_t pb, std::int64_t pc,
                                    std::array<std::int64_t, 3> const& v0,
                                    std::array<std::int64_t, 3> const& v1,
                                    std::array<std::int64_t, 3> const& v2, double& out_hit);

} // namespace VolumeGL::TileTree3D
