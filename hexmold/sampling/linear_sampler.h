/// @file  sampling/linear_sampler.h
/// @brief Trilinear reconstruction of a channel at any position of a non-uniform tile tree, the
///        sampler interface offered to operators, and `ensureSamplerAssumptions`, which gives a
///        tree the neighbours that samplers rely on.
/// @details Positions. A sampler works in tile space (finest voxels, centred: tile corners are
///          integer points) under a convention that depends on the depth D asked for: the
///          sample of the depth-D voxel with corner c sits at the point c. World positions are
///          converted with the topology's transform, world / voxelSize - offset(), and sampled
///          with D the deepest depth, so the sample of a finest voxel sits where the topology
///          puts it.
///
///          The lookup. The deepest tile at or above D that holds the position is found, and the
///          cell of its voxel lattice that holds the position is interpolated:
///          - cell-centred channels (offset type 7), and tiles at depth D: the cell is the voxel
///            holding the point, with a voxel of width w at corner c taken to sit at c. At depth
///            D that is exact; in a coarser tile it reads each coarse voxel at its corner point
///            (the centre of its lowest finest voxel), the place where the tree's voxel loops
///            put a voxel of any depth;
///          - other offset types in a coarser tile: the sample offsets are honoured at both
///            resolutions, so each coarse voxel sits at c + (w - wD) * offset. A cell that then
///            starts below the tile continues in the tile below.
///          The eight corners of the cell come from the tile's block; a corner beyond its high
///          side comes from the neighbour there when that has the tile's depth, and is otherwise
///          sampled in the coarser neighbour at the corner's exact position, recursively. So any
///          field that is linear in the positions above is reproduced to rounding, across tile
///          borders and resolution jumps. Where no tile exists the channel's default value is
///          used. A position exactly on a voxel gives that voxel's value.
///
///          Integer element types convert the fractions to the element type before blending,
///          which truncates them to 0: those samplers return the value of the cell's first
///          corner, the voxel that holds the position. That is how they behave, and it stays.
///
///          A cell-centred channel is read through a copy with one extra sample per axis
///          (`computeHalo`), made when the sampler is built and shared by its copies, so that the
///          eight corners of a cell usually lie in one block.
///
///          Threading: building a sampler runs parallel passes over the tree. A sampler keeps
///          per-query caches and is not shared between threads; give each worker its own copy
///          (copies are cheap). The tree and channel must outlive the sampler and its copies and
///          must not change while they are used.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <memory>

namespace Geometry::Volume {

/// How an operator reads a sampled or stored speed. The numbers are part of the interface; the
/// operators test `interpretation == kSamplerInterpretationFraction`.
enum SamplerInterpretation : int {
    /// A level set: full speed where the value is <= 0, none elsewhere.
    kSamplerInterpretationLevelSet = 0,
    /// A fraction of the full speed, clamped to [0, 1].
    kSamplerInterpretationFraction = 1,
};

/// @brief A field that operators can read at world positions, from any number of threads at once.
/// Instantiated for the element types of `VoxelSamplerLinear`.
template <typename T> class HEXMOLD_API Sampler {
public:
    virtual ~Sampler();
    /// The value at the world position @p world. Safe to call concurrently.
    virtual T sample(Tavrel::Math::float3 const& world) const = 0;
    /// The name of the reconstruction, such as "kLinear".
    virtual char const* name() const = 0;
};

} // namespace Geometry::Volume

namespace TVL::TileTree3D {

/// @brief The common base of the voxel samplers. On its own it reconstructs nothing: its name is
///        "kNone" and every sample is the default value.
/// @tparam Vec  the position type, `float3` or `double3`
template <typename Traits, typename T, typename Vec = Tavrel::Math::float3>
class HEXMOLD_API VoxelSampler {
public:
    using ValueType = T;
    using PositionType = Vec;

    explicit VoxelSampler(T const& defaultValue = T{});
    VoxelSampler(VoxelSampler const&) = default;
    VoxelSampler& operator=(VoxelSampler const&) = default;
    virtual ~VoxelSampler();

    /// The name of the reconstruction: "kNone" here.
    virtual char const* name() const;
    /// The value at world position @p world.
    virtual T value(Vec const& world);
    /// @brief The value at tile-space position @p tileSpace (finest voxels, centred), read from
    ///        tiles no deeper than @p maxDepth; the sample of the @p maxDepth voxel with corner c
    ///        sits at c.
    virtual T valueAtTileSpace(Vec const& tileSpace, int maxDepth);
    /// The value where nothing is known.
    T const& defaultValue() const { return mDefault; }

protected:
    T mDefault;
};

namespace detail {
template <typename Traits, typename T> struct LinearSamplerShared;
}

/// @brief The trilinear sampler of a voxel channel (see the file comment).
/// @tparam N    voxels across a tile of the channel: the tree's tile width
/// @tparam S    samples per axis of the stencil: 2
/// @tparam Vec  the position type, `float3` or `double3`
/// Instantiated for both trees, both position types and the element types `unsigned char`,
/// `short`, `int`, `float`, `double`, `float2`, `float3`, `float4` and `double3`.
template <typename Traits, typename T, int N = Traits::kTileWidth, int S = 2,
          typename Vec = Tavrel::Math::float3>
class HEXMOLD_API VoxelSamplerLinear final : public VoxelSampler<Traits, T, Vec> {
    static_assert(N == Traits::kTileWidth,
                  "the sampler reads voxel channels of the tree's tile width");
    static_assert(S == 2, "a linear stencil has two samples per axis");

public:
    using ChannelType = VoxelChannel<Traits, T>;
    using TileType = Tile<Traits>;

    /// @brief A sampler of @p channel on @p container, placing samples as @p topology says.
    /// @details Reads `1 / container.voxelSize()` (0 when the voxel size is 0) and the
    ///          topology's offset. For offset type 7 it makes the copy with one extra sample per
    ///          axis (the channel's default where nothing lies next), in parallel.
    /// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
    VoxelSamplerLinear(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                       ChannelType const& channel);
    /// A copy for another worker: shares the copy of the channel, has its own caches.
    VoxelSamplerLinear(VoxelSamplerLinear const& other);
    VoxelSamplerLinear& operator=(VoxelSamplerLinear const& other);
    ~VoxelSamplerLinear() override;

    /// "kLinear".
    char const* name() const override;
    /// The value at world position @p world: tile-space position world / voxelSize - offset(),
    /// read at the deepest depth.
    T value(Vec const& world) override;
    /// The value at tile-space position @p tileSpace (finest voxels, centred) for depth
    /// @p maxDepth (clamped to the tree's depths): the deepest tile at or above @p maxDepth (and
    /// within the channel's depths) holding the position is interpolated.
    T valueAtTileSpace(Vec const& tileSpace, int maxDepth) override;

    /// 1 / voxel size of the container, or 0 for a voxel size of 0.
    double inverseVoxelSize() const { return mInverseVoxelSize; }
    VoxelOffsetType offsetType() const { return mOffsetType; }
    /// Whether the sampler reads a copy of the channel with one extra sample per axis.
    bool readsHaloCopy() const;

private:
    using Accessor = typename Container<Traits>::ConstTileAccessor;
    using Shared = detail::LinearSamplerShared<Traits, T>;

    /// The interpolation in @p tile of position @p p under the convention of depth @p depth.
    T lookup(TileType const* tile, Tavrel::Math::double3 const& p, int depth);
    /// The block data of @p tile (edge W + 1 in the copy, W in the channel); null without data.
    T const* blockOf(TileType const& tile) const;
    /// The entry point of both value forms.
    T sampleAt(Tavrel::Math::double3 const& p, int depth, int searchDepth);

    Container<Traits> const* mContainer;
    Accessor mAccessor;          ///< finds the tile of a position
    Accessor mNeighbourAccessor; ///< finds neighbours without disturbing the first one's cache
    double mInverseVoxelSize;
    Tavrel::Math::double3 mOffset;
    VoxelOffsetType mOffsetType;
    ChannelType const* mChannel;
    int mMinDepth;
    int mMaxDepth;
    std::shared_ptr<Shared const> mShared; ///< the copy with extra samples and its tables
    TileType const* mCachedTile = nullptr; ///< the tile last read, with its block and table entry
    T const* mCachedData = nullptr;
    unsigned mCachedMask = 0;
};

/// @brief A thread-safe `Geometry::Volume::Sampler` over a voxel channel: each worker thread
///        reads through its own copy of one `VoxelSamplerLinear`, made from it on first use.
/// Instantiated for both trees and the element types of `VoxelSamplerLinear`.
template <typename Traits, typename T>
class HEXMOLD_API LinearVolumeSampler final : public Geometry::Volume::Sampler<T> {
public:
    using Exemplar = VoxelSamplerLinear<Traits, T, Traits::kTileWidth, 2, Tavrel::Math::float3>;

    /// As the constructor of `VoxelSamplerLinear`.
    LinearVolumeSampler(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                        VoxelChannel<Traits, T> const& channel);
    ~LinearVolumeSampler() override;
    LinearVolumeSampler(LinearVolumeSampler const&) = delete;
    LinearVolumeSampler& operator=(LinearVolumeSampler const&) = delete;

    T sample(Tavrel::Math::float3 const& world) const override;
    char const* name() const override;

private:
    struct Workers;
    std::unique_ptr<Workers> mWorkers;
};

} // namespace TVL::TileTree3D

namespace CoreGL::TileTree3D {

/// @brief Adds tiles so that every tile with a child has its 26 neighbours at its own depth:
///        a stencil that crosses a tile border then meets a jump of at most one depth.
/// @details For d from the deepest depth - 1 down to 1: in one deterministic reduction over the
///          tiles of depth d (grain 1), each range of tiles is walked until its first tile
///          without children, and for every tile with children the 3 x 3 x 3 block of tiles of
///          its depth around it is added to a scratch tree, merged after the depth. A tile
///          added at depth d gives its parent at d - 1 a child, which the next depth then
///          surrounds in turn. Drops the tree's precomputed tables; the caller updates the
///          topology and channels (substrate/channel_update.h).
/// @param io_container  the tree to close
/// @param out_newTiles  when not null, receives per depth the corners of the tiles created
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; the depths merged
///         until then stay in the tree.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void ensureSamplerAssumptions(TVL::TileTree3D::Container<Traits>& io_container,
                                          TVL::TileTree3D::TileCornerLists<Traits>* out_newTiles);

} // namespace CoreGL::TileTree3D

/// X(Traits, T) for the element types of the linear sampler: those of the copies with one extra
/// sample per axis.
#define HEXMOLD_FOR_EACH_SAMPLER_ELEMENT(X, TR) HEXMOLD_FOR_EACH_HALO_ELEMENT(X, TR)

/// X(T) for the element types of the linear sampler, spelled out for use in any namespace.
// clang-format off
#define HEXMOLD_FOR_EACH_SAMPLER_VALUE(X) \
    X(unsigned char) X(short) X(int) X(float) X(double) X(Tavrel::Math::float2) \
    X(Tavrel::Math::float3) X(Tavrel::Math::float4) X(Tavrel::Math::double3)
// clang-format on

namespace Geometry::Volume {
#define HEXMOLD_SAMPLER_INTERFACE_EXTERN(T) extern template class HEXMOLD_API Sampler<T>;
HEXMOLD_FOR_EACH_SAMPLER_VALUE(HEXMOLD_SAMPLER_INTERFACE_EXTERN)
#undef HEXMOLD_SAMPLER_INTERFACE_EXTERN
} // namespace Geometry::Volume

namespace TVL::TileTree3D {
#define HEXMOLD_LINEAR_SAMPLER_EXTERN(TR, T)                                                       \
    extern template class HEXMOLD_API VoxelSampler<TR, T, float3>;                                 \
    extern template class HEXMOLD_API VoxelSampler<TR, T, double3>;                                \
    extern template class HEXMOLD_API VoxelSamplerLinear<TR, T, TR::kTileWidth, 2, float3>;        \
    extern template class HEXMOLD_API VoxelSamplerLinear<TR, T, TR::kTileWidth, 2, double3>;       \
    extern template class HEXMOLD_API LinearVolumeSampler<TR, T>;
HEXMOLD_FOR_EACH_SAMPLER_ELEMENT(HEXMOLD_LINEAR_SAMPLER_EXTERN, Traits24)
HEXMOLD_FOR_EACH_SAMPLER_ELEMENT(HEXMOLD_LINEAR_SAMPLER_EXTERN, Traits55)
#undef HEXMOLD_LINEAR_SAMPLER_EXTERN
} // namespace TVL::TileTree3D
