/// @file  voxelize/points/detail/points_driver.h
/// @brief The state one call of `voxelizePoints` shares between its stages, and the small
///        helpers of both routes.
#pragma once
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/voxelize_types.h>
#include <limits>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

using Tavrel::Math::double3;
using Tavrel::Math::float3;
using Tavrel::Math::int3;
using TVL::TileTree3D::Container;
using TVL::TileTree3D::VoxelChannel;
using TVL::TileTree3D::VoxelTopology;

/// sqrt(3) as the float the band tests use (bits 0x3FDDB3D9).
inline constexpr float kSqrt3f = 1.73205f;
/// The slack of box overlap tests: the smallest normal float.
inline constexpr float kBoxSlack = 1.1754944e-38f;

/// Floor division (b > 0).
inline std::int64_t floorDivide(std::int64_t a, std::int64_t b)
{
    std::int64_t q = a / b;
    if ((a % b != 0) && (a < 0))
        --q;
    return q;
}

/// An open-addressing set of tiles (corner and depth), one per worker: the tiles a worker's
/// points ask for, without the duplicates that neighbouring points produce.
class CornerSet {
public:
    using Key = TVL::TileTree3D::VoxelCoord;
    void insert(Key const& c)
    {
        if ((mCount + 1) * 2 > mSlots.size())
            grow();
        std::size_t const mask = mSlots.size() - 1;
        for (std::size_t s = hash(c) & mask;; s = (s + 1) & mask) {
            if (!mUsed[s]) {
                mUsed[s] = 1;
                mSlots[s] = c;
                ++mCount;
                return;
            }
            if (mSlots[s] == c)
                return;
        }
    }
    void insert(int3 const& c, int depth) { insert(Key{c.x, c.y, c.z, depth}); }
    template <typename F> void forEach(F&& f) const
    {
        for (std::size_t s = 0; s < mSlots.size(); ++s)
            if (mUsed[s])
                f(mSlots[s]);
    }
    std::size_t size() const { return mCount; }

private:
    static std::size_t hash(Key const& c)
    {
        std::uint64_t h = std::uint64_t(std::uint32_t(c.i)) * 0x9e3779b97f4a7c15ull;
        h ^= std::uint64_t(std::uint32_t(c.j)) * 0xc2b2ae3d27d4eb4full + (h >> 29);
        h ^= std::uint64_t(std::uint32_t(c.k)) * 0x165667b19e3779f9ull + (h >> 31);
        h ^= std::uint64_t(std::uint32_t(c.depth)) * 0x27d4eb2f165667c5ull;
        return std::size_t(h ^ (h >> 32));
    }
    void grow()
    {
        std::vector<Key> old = std::move(mSlots);
        std::vector<unsigned char> oldUsed = std::move(mUsed);
        std::size_t const n = std::max<std::size_t>(64, old.size() * 2);
        mSlots.assign(n, Key{});
        mUsed.assign(n, 0);
        mCount = 0;
        for (std::size_t s = 0; s < old.size(); ++s)
            if (oldUsed[s])
                insert(old[s]);
    }
    std::vector<Key> mSlots;
    std::vector<unsigned char> mUsed;
    std::size_t mCount = 0;
};

/// Adds the tiles of @p keys, sorted and unique, to @p container through a scratch tree filled
/// in that order, so that the tile order of the tree does not depend on the threads.
/// @p newTiles as for `Container::refine`.
template <typename Traits>
void addSortedTiles(std::vector<CornerSet::Key> const& keys,
                    TVL::TileTree3D::Container<Traits>& container,
                    TVL::TileTree3D::TileCornerLists<Traits>* newTiles = nullptr)
{
    // A tree holding at most its root takes the tiles directly: merging a scratch tree into it
    // would copy that tree tile by tile in the same order.
    bool direct = newTiles == nullptr;
    for (int d = 1; d <= Traits::kMaxDepth && direct; ++d)
        direct = container.tileCount(d) == 0;
    if (direct) {
        auto acc = container.tileAccessor();
        for (CornerSet::Key const& c : keys)
            acc.addTile(c);
        return;
    }
    TVL::TileTree3D::Container<Traits> work("", container.voxelSize());
    auto acc = work.tileAccessor();
    for (CornerSet::Key const& c : keys)
        acc.addTile(c);
    container.refine(work, newTiles, true);
}

/// Adds the tiles of all the workers' sets to @p container, in sorted order (see
/// `addSortedTiles`).
template <typename Traits, typename Sets>
void addCollectedTiles(Sets& sets, TVL::TileTree3D::Container<Traits>& container,
                       TVL::TileTree3D::TileCornerLists<Traits>* newTiles = nullptr)
{
    std::vector<CornerSet::Key> keys;
    for (CornerSet const& s : sets)
        s.forEach([&](CornerSet::Key const& c) { keys.push_back(c); });
    sets.clear();
    TVL::Parallel::parallel_sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    addSortedTiles(keys, container, newTiles);
}

/// What every stage of one call reads: the cleaned cloud, the tree and its channels, and the
/// values derived once on entry.
template <typename Traits> struct PointsDriver {
    static constexpr int kMax = Traits::kMaxDepth;
    static constexpr int W = Traits::kTileWidth;
    static constexpr int R = Traits::kRatio;
    static constexpr std::int64_t A = Traits::kCentreOffset;

    // ---- the cloud: only points with a finite position and a finite, non-negative radius ----
    std::vector<double3>
        centre; ///< centres in finest voxels (world / voxelSize); tile corners share the frame
    std::vector<float> radius;        ///< world radius of each point
    std::vector<float> detail;        ///< world detail size of each point; empty when none
    std::vector<std::int64_t> source; ///< the caller's index of each point (property values)
    bool hasSingleRadius = false;
    float radius0 = 0.0f;

    // ---- the volume ----
    Container<Traits>& container;
    VoxelTopology<Traits>& topology;
    VoxelChannel<Traits, float>& level;
    Quillon::Ptr<VoxelChannel<Traits, TVL::TileTree3D::Int64>>
        closest; ///< closest point per voxel (-1: none)

    // ---- derived values ----
    float voxelSize = 1.0f;
    float invVoxelSize = 1.0f;
    float grading = 1.0f;
    float gradedVoxelSize = 1.0f;
    float surfaceBand = 0.0f;
    float deepRadius = 0.0f;
    float defaultValue = 0.0f;
    float errorTolerance = 0.0f;
    double3 offset{0.5, 0.5, 0.5}; ///< the sample's place in its voxel, in voxels
    bool isAdaptive = true;
    bool isVariedFromProperty = false;
    bool hasDetailSizes = false;
    bool allocateAdaptivelyAlongSurface = true;
    bool hasProperties = false;
    bool buildTiles = true;
    int maxVariedRadiusInVoxels = 0;
    int minDepth = kMax;
    int minVariedFromPropertyDepth = kMax;
    int fieldMinDepth = kMax;
    int tileDilation = 0;
    std::array<float, Traits::kDepthCount> padDepthTS{};
    /// The resolution fields, deepest target depth first.
    struct Field {
        float min[3], max[3];
        int targetDepth;
    };
    std::vector<Field> fields;

    PointsDriver(Container<Traits>& c, VoxelTopology<Traits>& t, VoxelChannel<Traits, float>& l)
        : container(c), topology(t), level(l)
    {
    }

    std::size_t size() const { return centre.size(); }
    /// Radius of point @p i in finest voxels.
    double radiusInVoxels(std::size_t i) const { return double(radius[i]) * double(invVoxelSize); }

    /// The depth a world detail size asks for: the depth whose voxels are closest to it on a
    /// logarithmic scale. Sizes that are not positive or not finite ask for the finest depth.
    int detailSizeDepth(float s) const
    {
        double const x = double(s) * double(invVoxelSize);
        if (!(x > 0.0) || !std::isfinite(x))
            return kMax;
        double const levels = std::floor(std::log(x) / std::log(double(R)) + 0.5);
        if (levels >= double(kMax))
            return 0;
        return std::clamp(kMax - int(levels), 0, kMax);
    }

    /// World distance from the sample at @p x (finest voxels) to the sphere of point @p i.
    float sphereDistance(double3 const& x, std::int64_t i) const
    {
        double3 const& p = centre[std::size_t(i)];
        double const dx = x.x - p.x, dy = x.y - p.y, dz = x.z - p.z;
        return float(std::sqrt(dx * dx + dy * dy + dz * dz) * double(voxelSize) -
                     double(radius[std::size_t(i)]));
    }

    /// Tile colour of a checkerboard over the tiles of one depth.
    static int tileColour(int3 const& corner, int depth)
    {
        std::int64_t const w = Container<Traits>::tileVoxelWidth(depth);
        return int(((std::int64_t(corner.x) + A) / w + (std::int64_t(corner.y) + A) / w +
                    (std::int64_t(corner.z) + A) / w) %
                   2);
    }

    /// A corner aligned down to the tile grid of @p depth.
    static std::int64_t alignDown(std::int64_t x, int depth)
    {
        std::int64_t const w = Container<Traits>::tileVoxelWidth(depth);
        return floorDivide(x + A, w) * w - A;
    }
};

} // namespace VolumeGL::TileTree3D::detail
