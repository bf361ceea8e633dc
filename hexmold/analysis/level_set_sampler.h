/// @file  analysis/level_set_sampler.h
/// @brief The level-set sampler behind adaptive refinement: which child tiles lie close enough
///        to the zero crossing of a level set to exist.
/// @details `LevelSetSampler` is the plain record that a driver fills and shares (the channel to
///          sample, the band factor, the local level, a box); `LevelSetSamplerReader` is the
///          per-worker reader made from it, a trilinear sampler (see sampling/linear_sampler.h)
///          over the named channel. The rule: a tile of depth d with world width w and centre c
///          is wanted when |phi(c)| <= w * f + offset, with f the band factor when the depth of
///          its parent lies above (is coarser than) the local level, else 1, and when the tile
///          does not lie outside the box, nor below the deepest depth.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/bbox.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <limits>

namespace CoreGL::TileTree3D {

/// Slack of the box test: a tile touching the box within it still counts as inside.
inline constexpr float kLevelSetSamplerBoxSlack = 1.1754944e-38f;

/// The shared description of a level-set sampler.
struct LevelSetSampler {
    Quillon::String channelName;     ///< float voxel channel of the object holding the level set
    float bandFactor = 2.0f;         ///< band factor of the depths above the local level
    int const* localLevel = nullptr; ///< depth of the local level; null: every depth is above it
    /// Deepest depth a wanted tile may have; deeper tiles are never wanted.
    int deepestDepth = std::numeric_limits<int>::max();
    /// World box; empty (the default: min above max) for no limit.
    TVL::TileTree3D::bbox<Tavrel::Math::float3, float> bounds{{1.0f, 1.0f, 1.0f},
                                                              {-1.0f, -1.0f, -1.0f}};

    /// The band factor for children of a tile of @p parentDepth.
    float bandFactorAt(int parentDepth) const
    {
        return (!localLevel || parentDepth < *localLevel) ? bandFactor : 1.0f;
    }
};

/// @brief A worker's reader of a `LevelSetSampler`: copy one per worker (copies share the
///        sampler's tables and have their own caches).
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits> class HEXMOLD_API LevelSetSamplerReader {
public:
    using Linear = TVL::TileTree3D::VoxelSamplerLinear<Traits, float, Traits::kTileWidth, 2,
                                                       Tavrel::Math::double3>;

    /// @param description      the description; copied
    /// @param channel   the level set named by @p description, bound to @p topology
    /// @param box       an extra world box (null: none), applied like `description.bounds`
    /// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only (building the
    ///         sampler runs parallel passes).
    LevelSetSamplerReader(LevelSetSampler const& description,
                          TVL::TileTree3D::Container<Traits> const& container,
                          TVL::TileTree3D::VoxelTopology<Traits> const& topology,
                          TVL::TileTree3D::VoxelChannel<Traits, float> const& channel,
                          TVL::TileTree3D::bbox<Tavrel::Math::float3, float> const* box);

    /// The level set (world units) at the world position @p world, read at the deepest depth.
    float distance(Tavrel::Math::double3 const& world);

    /// @brief Whether the tile of @p depth with tile-space corner @p corner is wanted.
    /// @param offset  world distance added to the band
    bool wantsTile(Tavrel::Math::int3 const& corner, int depth, float offset);

    /// Whether the tile lies outside a box (with the slack above).
    bool outsideBox(Tavrel::Math::int3 const& corner, int depth) const;

private:
    LevelSetSampler mDescription;
    TVL::TileTree3D::bbox<Tavrel::Math::float3, float> mBox;
    bool mHasBox;
    double mVoxelSize;
    Linear mLinear;
};

} // namespace CoreGL::TileTree3D
