/// @file  api/create_level_set.cpp
/// @brief The level-set factories: checks, the tree around the surface, the exact distance.
#include <algorithm>
#include <cmath>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/api/create_level_set.h>
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <numbers>

namespace hexmold {

namespace {

using namespace TVL::TileTree3D;
using Tavrel::Math::double3;

/// Signed distance to a sphere.
struct SphereDistance {
    double3 c;
    double r;
    double operator()(double x, double y, double z) const
    {
        double const dx = x - c.x, dy = y - c.y, dz = z - c.z;
        return std::sqrt(dx * dx + dy * dy + dz * dz) - r;
    }
};

/// Signed distance to an axis-aligned box: the distance to the box outside, minus the distance
/// to the nearest face inside.
struct BoxDistance {
    double3 c; ///< centre
    double3 e; ///< half sizes
    double operator()(double x, double y, double z) const
    {
        double const qx = std::abs(x - c.x) - e.x, qy = std::abs(y - c.y) - e.y,
                     qz = std::abs(z - c.z) - e.z;
        double const ox = std::max(qx, 0.0), oy = std::max(qy, 0.0), oz = std::max(qz, 0.0);
        return std::sqrt(ox * ox + oy * oy + oz * oz) +
               std::min(std::max(qx, std::max(qy, qz)), 0.0);
    }
};

/// Signed distance to a torus around the z axis through its centre: the distance to the core
/// circle minus the tube radius.
struct TorusDistance {
    double3 c;
    double major, minor;
    double operator()(double x, double y, double z) const
    {
        double const dx = x - c.x, dy = y - c.y, dz = z - c.z;
        double const rho = std::sqrt(dx * dx + dy * dy) - major;
        return std::sqrt(rho * rho + dz * dz) - minor;
    }
};

/// What the checks need to know of a shape besides its distance.
struct ShapeExtent {
    double feature = 0; ///< the smallest feature, world units
    double reach = 0;   ///< largest |coordinate| of the shape, world units
    double area = 0;    ///< surface area, world units squared
};

/// The checks shared by the three factories. @return the voxel size to use.
double checkOptions(LevelSetOptions const& o, ShapeExtent const& shape, std::string_view entry)
{
    double const h = o.voxelSize == 0.0 ? shape.feature / 10.0 : o.voxelSize;
    detail::requirePositive(h, "the voxel size", entry);
    if (!std::isfinite(float(h)) || !(float(h) > 0.0f))
        detail::fail(entry,
                     "the voxel size " + std::to_string(h) + " is out of single-precision range");
    if (o.traits != TraitsKind::kTraits24 && o.traits != TraitsKind::kTraits55)
        detail::fail(entry, "unknown tree type " + std::to_string(int(o.traits)));
    if (o.layout != TreeLayout::kNarrowBand && o.layout != TreeLayout::kAdaptive)
        detail::fail(entry, "unknown tree layout " + std::to_string(int(o.layout)));
    detail::requirePositive(o.bandVoxels, "bandVoxels", entry);
    detail::requirePositive(o.bandTiles, "bandTiles", entry);
    detail::requirePositive(o.background, "the background", entry);
    if (o.channel.empty())
        detail::fail(entry, "the channel name is empty");

    int const w = o.traits == TraitsKind::kTraits24 ? Traits24::kTileWidth : Traits55::kTileWidth;
    double const centreOffset = double(o.traits == TraitsKind::kTraits24 ? Traits24::kCentreOffset
                                                                         : Traits55::kCentreOffset);
    double const bandVoxels = o.layout == TreeLayout::kNarrowBand ? o.bandVoxels : o.bandTiles * w;
    // Half the tree's domain, so that the band and the coarse tiles around it fit as well.
    double const limit = 0.5 * centreOffset * h;
    if (shape.reach + (bandVoxels + 2 * w) * h > limit)
        detail::fail(entry, "the shape reaches " + std::to_string(shape.reach) +
                                " world units from the origin; with voxels of " +
                                std::to_string(h) + " a " + traitsName(o.traits) +
                                " tree holds shapes within " + std::to_string(limit));
    double const estimate = shape.area / (h * h) * (2.0 * bandVoxels + 2.0 * w);
    if (estimate > double(o.maxVoxels))
        detail::fail(entry, "a voxel size of " + std::to_string(h) + " needs about " +
                                std::to_string(std::uint64_t(estimate)) +
                                " voxels, more than maxVoxels (" + std::to_string(o.maxVoxels) +
                                "); choose larger voxels");
    return h;
}

/// Adds, depth after depth from the root, each child tile that @p wanted(corner, depth) names;
/// parents exist before their children. Runs on one thread: it visits the tiles near the
/// surface only, a small fraction of the work of filling their voxels.
template <typename Traits, typename Wanted>
void refineWhere(Container<Traits>& tree, Wanted const& wanted)
{
    auto acc = tree.tileAccessor();
    acc.addTile(0, 0, 0, 0);
    for (int d = 0; d < Traits::kMaxDepth; ++d) {
        std::int64_t const n = tree.tileCount(d);
        for (std::int64_t t = 0; t < n; ++t)
            for (int s = 0; s < Traits::kChildCount; ++s) {
                int3 const corner =
                    tree.tile(t, d).childTIJK(Container<Traits>::TileType::slotCoordinates(s));
                if (wanted(corner, d + 1))
                    acc.addTile(corner, d + 1);
            }
        if (tree.tileCount(d + 1) == 0)
            break;
    }
}

template <typename Traits, typename Distance>
Volume build(Distance const& distance, LevelSetOptions const& o, double h)
{
    constexpr int W = Traits::kTileWidth;
    VolumeNames const names;
    Quillon::Ptr<TVL::Object> object =
        Command::createVoxelTVL<Traits>(names.tree, names.topology, float(h), kVoxelOffsetCenter);
    {
        TVL::ComponentGuard<Container<Traits>> tree(*object, names.tree);
        TVL::ComponentGuard<VoxelTopology<Traits>> topology(*object, names.topology);
        double const s = tree->voxelSize();
        // |distance| over a tile's box is at least its value at the centre less the half
        // diagonal: a signed distance changes by at most the distance moved.
        auto lowerBound = [&](int3 const& corner, int depth) {
            double const tw = double(Container<Traits>::tileVoxelWidth(depth));
            double const x = (corner.x + 0.5 * tw) * s, y = (corner.y + 0.5 * tw) * s,
                         z = (corner.z + 0.5 * tw) * s;
            return std::abs(distance(x, y, z)) - 0.5 * std::sqrt(3.0) * tw * s;
        };
        if (o.layout == TreeLayout::kNarrowBand)
            refineWhere<Traits>(*tree, [&](int3 const& corner, int depth) {
                double const tw = double(Container<Traits>::tileVoxelWidth(depth));
                double const reach =
                    depth == Traits::kMaxDepth ? o.bandVoxels : std::max(o.bandVoxels, tw);
                return lowerBound(corner, depth) <= reach * s;
            });
        else
            refineWhere<Traits>(*tree, [&](int3 const& corner, int depth) {
                double const tw = double(Container<Traits>::tileVoxelWidth(depth));
                return lowerBound(corner, depth) <= o.bandTiles * tw * s;
            });
        CoreGL::TileTree3D::gradeTileTree<Traits>(*tree, nullptr, nullptr, 0, Traits::kMaxDepth);
        tree->sortIntoMortonOrder();
        topology->update(*tree);
    }

    auto const& topology = *object->template component<VoxelTopology<Traits>>(names.topology);
    auto const& tree = *object->template component<Container<Traits>>(names.tree);
    auto channel = Command::createChannel<float, Traits::kRatio, W, W, 0>(
        o.channel, topology, *object, o.background, kDataElementInitializerDefaultValue, 0,
        Traits::kMaxDepth);
    double const s = tree.voxelSize();
    double const bg = o.background;
    for (int d = 0; d <= Traits::kMaxDepth; ++d) {
        TVL::Parallel::parallel_for(
            TVL::Parallel::blocked_range<std::int64_t>(0, tree.tileCount(d), 16),
            [&](TVL::Parallel::blocked_range<std::int64_t> const& range) {
                if (TVL::bodyCancelled())
                    return;
                for (std::int64_t t = range.begin(); t != range.end(); ++t) {
                    auto const& tile = tree.tile(t, d);
                    auto data = channel->tileData(t, d);
                    double const w = double(tile.voxelDataWidth());
                    for (int k = 0; k < W; ++k)
                        for (int j = 0; j < W; ++j)
                            for (int i = 0; i < W; ++i) {
                                // The sample of the finest voxel at the voxel's lowest corner.
                                double const v = distance((tile.ti() + i * w + 0.5) * s,
                                                          (tile.tj() + j * w + 0.5) * s,
                                                          (tile.tk() + k * w + 0.5) * s);
                                data(i, j, k) = float(std::clamp(v, -bg, bg));
                            }
                }
            });
        TVL::throwIfJobCancelled();
    }
    return Volume(*object, names);
}

template <typename Distance>
Volume create(Distance const& distance, ShapeExtent const& extent, LevelSetOptions const& o,
              std::string_view entry)
{
    double const h = checkOptions(o, extent, entry);
    return detail::withTraits(o.traits, [&](auto tag) {
        using Tr = typename decltype(tag)::type;
        return build<Tr>(distance, o, h);
    });
}

void requireFinitePoint(double3 const& p, std::string_view what, std::string_view entry)
{
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z))
        detail::fail(entry, std::string(what) + " (" + std::to_string(p.x) + ", " +
                                std::to_string(p.y) + ", " + std::to_string(p.z) +
                                ") is not a finite point");
}

double largestCoordinate(double3 const& p, double margin)
{
    return std::max({std::abs(p.x), std::abs(p.y), std::abs(p.z)}) + margin;
}

} // namespace

Volume createLevelSetSphere(double3 const& centre, double radius, LevelSetOptions const& options)
{
    constexpr std::string_view kEntry = "hexmold::createLevelSetSphere";
    requireFinitePoint(centre, "the centre", kEntry);
    detail::requirePositive(radius, "the radius", kEntry);
    ShapeExtent const extent{radius, largestCoordinate(centre, radius),
                             4.0 * std::numbers::pi * radius * radius};
    return create(SphereDistance{centre, radius}, extent, options, kEntry);
}

Volume createLevelSetBox(double3 const& min, double3 const& max, LevelSetOptions const& options)
{
    constexpr std::string_view kEntry = "hexmold::createLevelSetBox";
    requireFinitePoint(min, "the minimum corner", kEntry);
    requireFinitePoint(max, "the maximum corner", kEntry);
    double3 const size{max.x - min.x, max.y - min.y, max.z - min.z};
    if (!(size.x > 0.0 && size.y > 0.0 && size.z > 0.0))
        detail::fail(kEntry, "the box's size (" + std::to_string(size.x) + ", " +
                                 std::to_string(size.y) + ", " + std::to_string(size.z) +
                                 ") must be positive on every axis");
    double3 const half{0.5 * size.x, 0.5 * size.y, 0.5 * size.z};
    double3 const centre{min.x + half.x, min.y + half.y, min.z + half.z};
    ShapeExtent const extent{std::min({half.x, half.y, half.z}),
                             std::max(largestCoordinate(min, 0.0), largestCoordinate(max, 0.0)),
                             2.0 * (size.x * size.y + size.y * size.z + size.z * size.x)};
    return create(BoxDistance{centre, half}, extent, options, kEntry);
}

Volume createLevelSetTorus(double3 const& centre, double majorRadius, double minorRadius,
                           LevelSetOptions const& options)
{
    constexpr std::string_view kEntry = "hexmold::createLevelSetTorus";
    requireFinitePoint(centre, "the centre", kEntry);
    detail::requirePositive(majorRadius, "the major radius", kEntry);
    detail::requirePositive(minorRadius, "the minor radius", kEntry);
    if (!(minorRadius < majorRadius))
        detail::fail(kEntry, "the minor radius " + std::to_string(minorRadius) +
                                 " must be below the major radius " + std::to_string(majorRadius) +
                                 " (a ring torus)");
    ShapeExtent const extent{minorRadius, largestCoordinate(centre, majorRadius + minorRadius),
                             4.0 * std::numbers::pi * std::numbers::pi * majorRadius * minorRadius};
    return create(TorusDistance{centre, majorRadius, minorRadius}, extent, options, kEntry);
}

} // namespace hexmold
