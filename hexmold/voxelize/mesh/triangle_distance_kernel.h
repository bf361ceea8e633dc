/// @file  voxelize/mesh/triangle_distance_kernel.h
/// @brief Which triangle is nearest to a voxel and how far it is: the exact distance on the node
///        lattice of a tile, the per-tile visit of a triangle, the red-black sweep that carries
///        closest-triangle ids across tiles, and the process-wide switches of the mesh voxelizer.
/// @details Every distance stored is an exact point-triangle distance (computed in double
///          precision and rounded to float); neighbours only propose which triangle to measure.
///          Ties between triangles at the same distance go to the lower triangle index in the
///          lattice kernel, so that the order of a triangle list never shows in the result.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>

namespace VolumeGL::TileTree3D {

using Tavrel::Math::float3;
using Tavrel::Math::int3;
using Tavrel::Math::ulong3;

/// Element type of closest-triangle channels: a triangle index, -1 for none.
using TriangleId = long long;

// ---- process-wide switches ------------------------------------------------------------------
// Plain process-wide variables, set by their setters and read without synchronisation: set them
// before a voxelization starts, not while one runs.

/// Whether each coarse tile's triangle list is shuffled before refinement (default false). The
/// result does not change; the switch exists to show that it does not.
HEXMOLD_API bool enableTrianglePermutations();
HEXMOLD_API void setEnableTrianglePermutations(bool enable);
/// Seed of the shuffle (default 0).
HEXMOLD_API unsigned long long trianglePermutationsSeed();
HEXMOLD_API void setTrianglePermutationsSeed(unsigned long long seed);
/// @brief Whether the mesh voxelizer takes its shortcuts (default true): the switch to the
///        non-adaptive build for dense meshes, the clipping of long triangle lists to each
///        triangle's box, and the restricted redistance.
HEXMOLD_API bool enableVoxelizeMeshOptimizations();
/// Sets the switch; @return its previous value.
HEXMOLD_API bool setEnableVoxelizeMeshOptimizations(bool enable);
/// Always false; kept as part of the interface. It has no setter.
HEXMOLD_API bool enableVDBBenchmarkOptimizations();

// ---- the lattice kernel -----------------------------------------------------------------------

/// @brief What the lattice kernel tests of a triangle before measuring it: its box and the
///        unit normal of its plane, computed once per mesh (see `TriangleKernelContext::bounds`).
/// @details `normal` is (b - a) x (c - a) over its length, in double precision; zero for a
///          sliver, whose normal is noise. One cache line per triangle.
struct alignas(64) TriangleBounds {
    float lo[3];      ///< smallest vertex coordinate per axis
    float hi[3];      ///< largest vertex coordinate per axis
    float origin[3];  ///< the first vertex
    double normal[3]; ///< unit normal, or zero
};

/// @brief What the lattice kernel calls of one build share, read only.
/// @details A node or voxel with lattice coordinates n of a tile with corner c (tile-space,
///          finest voxels) and spacing s lies at world (c + s * n + voxelOffset) * voxelSize.
struct TriangleKernelContext {
    float far = 0.0f;            ///< value of a node no triangle reaches (world units)
    float far2 = 0.0f;           ///< far squared
    float voxelSize = 1.0f;      ///< world size of a finest voxel
    float3 voxelOffset{0, 0, 0}; ///< the topology's sample offset, in finest voxels
    Quillon::Array<ulong3> const* triangles = nullptr; ///< three point indices per triangle
    Quillon::Array<float3> const* positions = nullptr; ///< world point positions
    int tileWidth = 4;                                 ///< voxels across a tile
    /// Per triangle, or null: each triangle's bounds are then computed at each visit.
    TriangleBounds const* bounds = nullptr;
};

namespace detail {
struct PreparedTriangle;
}

/// Node lattice of a tile: (W + 1)^3 nodes, x fastest; the last node on each axis belongs to
/// the next tile.
template <typename Traits> struct TileLattice {
    static constexpr int kNodes = Traits::kTileWidth + 1;
    static constexpr int kCount = kNodes * kNodes * kNodes;
    static constexpr int index(int i, int j, int k) { return i + kNodes * (j + kNodes * k); }
};

/// Id of a node that no triangle reaches, as stored.
inline constexpr std::int64_t kNoTriangle = -1;

/// @brief Exact distances and closest triangles on the node lattice of one tile.
/// @param ctx             shared data of the build
/// @param i, j, k         the tile's corner (tile space, finest voxels)
/// @param spacing         node spacing in finest voxels (the voxel width of the tile's depth)
/// @param triangleBegin, triangleEnd  the triangle indices to consider, in any order
/// @param out_distances   `TileLattice<Traits>::kCount` distances (world units)
/// @param out_closest     `TileLattice<Traits>::kCount` triangle ids (`kNoTriangle`: none)
/// @param band            world distance: the result says whether a node came closer
/// @param parentDistances, parentClosest  the parent tile's lattices, or null. With them, nodes
///                        whose coordinates are all multiples of the refinement ratio are
///                        copied from the parent's node (n / ratio + voxels per slot *
///                        @p childPosition) instead of computed
/// @param childPosition   the tile's slot in its parent
/// @param rangeBegin, rangeEnd  the nodes to fill, per axis, [begin, end); nodes outside are
///                        left as they are in the outputs
/// @param clip            walk only the nodes within @p band of each triangle's box (for long
///                        lists); nodes no box reaches are then left to the sweep
/// @param sweepFill       after the triangles, carry ids to unset nodes by a fast sweep inside
///                        the lattice (8 directions)
/// @param finalFill       write the far value and `kNoTriangle` to nodes left without a triangle;
///                        when false such nodes keep what the outputs held
/// @param prepared        null, or per listed triangle the triangle made ready for distance
///                        queries (by `detail::PreparedTriangle::prepare` of its vertices), so
///                        that a caller with them at hand spares the kernel the work
/// @return true when at least one node in range lies within @p band of a triangle.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API bool
computeTileLattice(TriangleKernelContext const& ctx, std::int64_t i, std::int64_t j, std::int64_t k,
                   std::int64_t spacing, std::int64_t const* triangleBegin,
                   std::int64_t const* triangleEnd, float* out_distances, std::int64_t* out_closest,
                   float band, float const* parentDistances, std::int64_t const* parentClosest,
                   int3 childPosition, int3 rangeBegin, int3 rangeEnd, bool clip, bool sweepFill,
                   bool finalFill, detail::PreparedTriangle const* const* prepared = nullptr);

/// @brief The sparse build's visit of one triangle in one finest tile: every voxel in the
///        triangle's box (at least one voxel per axis) takes the triangle's exact distance when
///        it is strictly smaller than the voxel's.
/// @param corner  the tile's corner (tile space, finest voxels)
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void
visitTileTriangle(TriangleKernelContext const& ctx, int3 const& corner, std::int64_t triangle,
                  TVL::TileTree3D::TileData<float, Traits::kTileWidth, 0, 0>& io_distance,
                  TVL::TileTree3D::TileData<TriangleId, Traits::kTileWidth, 0, 0>& io_closest);

// ---- the red-black sweep of triangle ids ------------------------------------------------------

namespace TrianglesLevelSetSweepKernel {

/// @brief One colour's pass of the fast sweep that carries closest-triangle ids across the
///        finest tiles: each tile of the colour reads its face neighbours' ids (tiles of the
///        other colour, so the reads are stable), sweeps its voxels in eight directions, and
///        takes a neighbour's triangle where its exact distance is strictly smaller.
/// @details Run as a reduction over the finest depth; `numUnassigned` then counts the voxels of
///          the colour's tiles still without a triangle. Tile colour: the parity of
///          ((ti + A) / T + (tj + A) / T + (tk + A) / T), A the centre offset, T the tile width.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
class HEXMOLD_API Kernel : public TVL::TileTree3D::Visitor<TVL::TileTree3D::Container<Traits>> {
    using Base = TVL::TileTree3D::Visitor<TVL::TileTree3D::Container<Traits>>;
    static constexpr int kW = Traits::kTileWidth;

public:
    using TileType = TVL::TileTree3D::Tile<Traits>;
    using HaloTile = TVL::TileTree3D::TileData<TriangleId, kW, 1, 0>;

    /// @param color        the colour of the tiles this pass sweeps (0 or 1)
    /// @param voxelOffset  the topology's sample offset, in voxels
    Kernel(std::uint32_t color, TVL::TileTree3D::Container<Traits> const& container,
           TVL::TileTree3D::VoxelChannel<Traits, float>& distance,
           TVL::TileTree3D::VoxelChannel<Traits, TriangleId>& closest,
           Quillon::Array<ulong3> const& triangles, Quillon::Array<float3> const& positions,
           float3 const& voxelOffset);
    Kernel(Kernel const& other);
    ~Kernel() override;

    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTraverse() override {}
    /// The whole per-tile sweep.
    void beginTile(TileType const& tile) override;
    bool visitInteriorVoxel(TileType const&, int3 const&) override { return true; }
    void join(Base const& other) override;
    Base* copy() const override;

    /// Fills the halo buffer: -1 everywhere, the tile's ids inside, and each face from the
    /// neighbour of the same depth on that side where one exists. Edges and corners stay -1.
    void updateHaloTile(TileType const& tile, TVL::TileTree3D::TreeIndex const& treeIndex);
    /// @brief Proposes the triangle of the neighbour (i + di, j + dj, k + dk) (halo coordinates)
    ///        to voxel (i, j, k), at world position @p worldPosition.
    void checkVoxel(int i, int j, int k, int di, int dj, int dk, float3 const& worldPosition,
                    Quillon::Array<ulong3> const& triangles,
                    Quillon::Array<float3> const& positions,
                    TVL::TileTree3D::TileData<float, kW, 0, 0>& distanceTile, HaloTile& idHalo);

    std::int64_t numUnassigned =
        0; ///< voxels of the swept tiles without a triangle; reset by `copy`

private:
    std::uint32_t mColor;
    HaloTile mHalo;
    TVL::TileTree3D::Container<Traits> const* mContainer;
    TVL::TileTree3D::VoxelChannel<Traits, float>* mDistance;
    TVL::TileTree3D::VoxelChannel<Traits, TriangleId>* mClosest;
    Quillon::Array<ulong3> const* mTriangles;
    Quillon::Array<float3> const* mPositions;
    float3 mVoxelOffset;
    typename TVL::TileTree3D::Container<Traits>::ConstTileAccessor mAccessor;
};

extern template class HEXMOLD_API Kernel<TVL::TileTree3D::Traits24>;
extern template class HEXMOLD_API Kernel<TVL::TileTree3D::Traits55>;

} // namespace TrianglesLevelSetSweepKernel

} // namespace VolumeGL::TileTree3D
