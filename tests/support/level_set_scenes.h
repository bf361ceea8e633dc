// Scenes for the redistancing tests, benchmark and demo: closed surfaces (sphere, torus, box)
// given by their exact signed distance and by a field that is right only at its zero set; tile
// trees around them (a uniform band of deepest tiles with their ancestors, or a graded adaptive
// tree); channels filled at every voxel of every depth; error statistics against the exact
// distance, per depth and near the surface.
#pragma once
#include "trees.h"
#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <functional>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace testlevelset {

using namespace TVL::TileTree3D;

/// A closed surface in world units. `distance` is the exact signed distance (negative inside);
/// `field` has the same zero set and sign but a gradient magnitude that is right only on the
/// surface, as a producer of level sets leaves it before redistancing.
struct Shape {
    std::string name;
    std::function<double(double, double, double)> distance;
    std::function<double(double, double, double)> field;
    /// The smallest feature (world units): the sphere's radius, the torus's tube radius, the
    /// box's smallest half size.
    double featureSize = 0;
    /// Where the distance is not smooth because of sharp edges: outside, within two voxels of the
    /// region where the closest point is an edge or a corner and the distance fans out from it,
    /// which a first-order upwind solve overestimates by more than a voxel (OpenVDB's sdfToSdf
    /// alike); inside, within two voxels of the planes where two faces are equally far, where the
    /// solve mixes the faces' gradients and underestimates.
    std::function<bool(double, double, double)> nearEdges = [](double, double, double) {
        return false;
    };
};

/// Sphere of radius @p r centred on the origin; field (|x|^2 - r^2) / (2 r) = d + d^2 / (2 r).
inline Shape sphere(double r)
{
    return {
        "sphere",
        [r](double x, double y, double z) { return std::sqrt(x * x + y * y + z * z) - r; },
        [r](double x, double y, double z) { return (x * x + y * y + z * z - r * r) / (2.0 * r); },
        r};
}

/// Torus around the z axis: tube of radius @p minor around a circle of radius @p major; field
/// (q^2 - minor^2) / (2 minor), q the distance to the core circle.
inline Shape torus(double major, double minor)
{
    auto q = [major](double x, double y, double z) {
        double const rho = std::sqrt(x * x + y * y) - major;
        return std::sqrt(rho * rho + z * z);
    };
    return {"torus", [q, minor](double x, double y, double z) { return q(x, y, z) - minor; },
            [q, minor](double x, double y, double z) {
                double const v = q(x, y, z);
                return (v * v - minor * minor) / (2.0 * minor);
            },
            minor};
}

/// Axis-aligned box of half sizes (@p hx, @p hy, @p hz) centred on (@p cx, @p cy, @p cz), with
/// sharp edges and corners; field d + d^2 / (2 m), m the largest half size (the sphere's form,
/// which keeps the sign since |d| <= m inside). @p voxelSize sizes the region near the edges.
inline Shape box(double hx, double hy, double hz, double cx, double cy, double cz, double voxelSize)
{
    auto d = [=](double x, double y, double z) {
        double const qx = std::abs(x - cx) - hx, qy = std::abs(y - cy) - hy,
                     qz = std::abs(z - cz) - hz;
        double const ox = std::max(qx, 0.0), oy = std::max(qy, 0.0), oz = std::max(qz, 0.0);
        return std::sqrt(ox * ox + oy * oy + oz * oz) +
               std::min(std::max(qx, std::max(qy, qz)), 0.0);
    };
    double const m = std::max(hx, std::max(hy, hz));
    auto edge = [=](double x, double y, double z, double voxelSize) {
        double q[3] = {std::abs(x - cx) - hx, std::abs(y - cy) - hy, std::abs(z - cz) - hz};
        std::sort(q, q + 3);
        if (q[2] > 0)
            return q[1] > -2.0 * voxelSize;
        return q[2] - q[1] <= 2.0 * voxelSize;
    };
    return {"box", d,
            [d, m](double x, double y, double z) {
                double const v = d(x, y, z);
                return v + v * v / (2.0 * m);
            },
            std::min(hx, std::min(hy, hz)),
            [edge, voxelSize](double x, double y, double z) { return edge(x, y, z, voxelSize); }};
}

/// World position of the sample of voxel (i, j, k) of @p tile as the solves place it at every
/// depth: the sample (centre) of the finest voxel at the voxel's corner. A covered voxel thus
/// coincides with the child voxel at the low corner of its region, and a hanging voxel with its
/// place on the coarser lattice.
template <typename Tr>
std::array<double, 3> voxelCentre(Tile<Tr> const& tile, int i, int j, int k, double voxelSize)
{
    double const w = double(tile.voxelDataWidth());
    return {(tile.ti() + i * w + 0.5) * voxelSize, (tile.tj() + j * w + 0.5) * voxelSize,
            (tile.tk() + k * w + 0.5) * voxelSize};
}

/// Lower bound of |distance| over the box of the tile (@p corner, @p depth): the value at the
/// box centre minus the half diagonal (a signed distance is 1-Lipschitz).
template <typename Tr>
double tileLowerBound(Shape const& shape, int3 const& corner, int depth, double voxelSize)
{
    double const w = double(Container<Tr>::tileVoxelWidth(depth));
    double const cx = (corner.x + 0.5 * w) * voxelSize, cy = (corner.y + 0.5 * w) * voxelSize,
                 cz = (corner.z + 0.5 * w) * voxelSize;
    return std::abs(shape.distance(cx, cy, cz)) - 0.5 * std::sqrt(3.0) * w * voxelSize;
}

/// A tree, its voxel topology (samples at voxel centres) and float channels of background
/// `kBackground`.
template <typename Tr> class LevelSetScene {
public:
    static constexpr int W = Tr::kTileWidth;
    /// Background of the distance channels: a power of two, so that means and interpolations of
    /// background values stay exact, and far above any distance in the tree.
    static constexpr float kBackground = 8589934592.0f;

    Container<Tr> tree;
    VoxelTopology<Tr> topology;

    explicit LevelSetScene(float voxelSize)
        : tree("tree", voxelSize), topology("topology", "tree", voxelSize, kVoxelOffsetCenter)
    {
    }

    double voxelSize() const { return tree.voxelSize(); }
    /// World spacing of the voxels of depth @p d.
    double spacing(int d) const { return double(Container<Tr>::voxelDataWidth(d)) * voxelSize(); }

    /// A narrow band: the deepest tiles that may come within @p bandVoxels finest voxels of the
    /// surface, in a tree that coarsens away from it as `buildGraded` does with one tile of each
    /// depth around the surface (graded, as every producer of level sets leaves its tree: no tile
    /// has a neighbour more than one depth coarser, which the transfers between depths rely on).
    void buildUniformBand(Shape const& shape, double bandVoxels)
    {
        double const s = voxelSize();
        testtrees::refineWhere<Tr>(tree, Tr::kMaxDepth, [&](int3 const& corner, int depth) {
            double const reach =
                depth == Tr::kMaxDepth
                    ? bandVoxels
                    : std::max(bandVoxels, double(Container<Tr>::tileVoxelWidth(depth)));
            return tileLowerBound<Tr>(shape, corner, depth, s) <= reach * s;
        });
        CoreGL::TileTree3D::gradeTileTree<Tr>(tree, nullptr, nullptr, 0, Tr::kMaxDepth);
        finish();
    }

    /// Tiles of every depth that may come within @p bandTiles of their own widths of the surface:
    /// deepest tiles near the surface, coarser ones away from it.
    void buildGraded(Shape const& shape, double bandTiles)
    {
        double const s = voxelSize();
        testtrees::refineWhere<Tr>(tree, Tr::kMaxDepth, [&](int3 const& corner, int depth) {
            return tileLowerBound<Tr>(shape, corner, depth, s) <=
                   bandTiles * double(Container<Tr>::tileVoxelWidth(depth)) * s;
        });
        finish();
    }

    /// Grows the tree with @p grow(tree), then records it in the topology.
    template <typename F> void build(F const& grow)
    {
        grow(tree);
        finish();
    }

    /// The largest difference of depth between a tile and the tiles that hold the points one
    /// tile width away from it in any of the 26 directions.
    int maxNeighbourDepthJump()
    {
        auto acc = tree.tileAccessor();
        int jump = 0;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                Tile<Tr> const& tile = tree.tile(t, d);
                std::int64_t const w = tile.tileVoxelWidth();
                for (int dz = -1; dz <= 1; ++dz)
                    for (int dy = -1; dy <= 1; ++dy)
                        for (int dx = -1; dx <= 1; ++dx) {
                            auto const& n = acc.tile(tile.ti() + dx * w, tile.tj() + dy * w,
                                                     tile.tk() + dz * w, d);
                            if (n.valid())
                                jump = std::max(jump, d - n.depth());
                        }
            }
        return jump;
    }

    /// A float channel of default `kBackground` over all depths, every voxel set to
    /// @p value(x, y, z) at its centre, clamped to plus or minus the background.
    std::unique_ptr<VoxelChannel<Tr, float>>
    makeChannel(std::function<double(double, double, double)> const& value,
                char const* name = "distance") const
    {
        float const background = kBackground;
        auto ch = std::make_unique<VoxelChannel<Tr, float>>(
            name, &background, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
        ch->update(topology);
        forEachVoxel(
            [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
                double const v =
                    std::clamp(value(p[0], p[1], p[2]), -double(kBackground), double(kBackground));
                ch->tileData(tile.index(), tile.depth())(i, j, k) = float(v);
            });
        return ch;
    }

    /// The DOF flags of the tree.
    std::unique_ptr<VoxelChannel<Tr, short>> makeDOF() const
    {
        short const zero = 0;
        auto ch = std::make_unique<VoxelChannel<Tr, short>>(
            "dof", &zero, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
        ch->update(topology);
        VolumeGL::TileTree3D::LevelSet::classifyDegreesOfFreedom<Tr>(tree, *ch);
        return ch;
    }

    /// A value-type channel (default 2, unknown) over all depths.
    std::unique_ptr<VoxelChannel<Tr, unsigned char>> makeValueTypes(unsigned char fill = 2) const
    {
        auto ch = std::make_unique<VoxelChannel<Tr, unsigned char>>(
            "value_type", &fill, kDataElementInitializerDefaultValue, false, true, 0,
            Tr::kMaxDepth);
        ch->update(topology);
        return ch;
    }

    /// @p fn(tile, i, j, k, centre) for every voxel of every tile, depth by depth.
    template <typename F> void forEachVoxel(F const& fn) const
    {
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                Tile<Tr> const& tile = tree.tile(t, d);
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            fn(tile, i, j, k, voxelCentre(tile, i, j, k, voxelSize()));
            }
    }

    /// Whether voxel (i, j, k) of @p tile is a leaf voxel: no child tile covers it.
    static bool isLeafVoxel(Tile<Tr> const& tile, int i, int j, int k)
    {
        return tile.depth() == Tr::kMaxDepth || tile.isLeaf(i, j, k);
    }

private:
    void finish()
    {
        tree.sortIntoMortonOrder();
        topology.update(tree);
    }
};

/// Largest and mean of a set of errors.
struct ErrorStats {
    double max = 0, sum = 0;
    long long n = 0;
    void add(double e)
    {
        max = std::max(max, e);
        sum += e;
        ++n;
    }
    double mean() const { return n ? sum / double(n) : 0.0; }
};

/// Where and how large the worst error was, for messages.
struct Worst {
    double error = -1, value = 0, exact = 0;
    int depth = -1;
    std::array<double, 3> position{};
    std::string str() const
    {
        return "depth " + std::to_string(depth) + " at (" + std::to_string(position[0]) + ", " +
               std::to_string(position[1]) + ", " + std::to_string(position[2]) + "): value " +
               std::to_string(value) + ", exact " + std::to_string(exact) + ", error " +
               std::to_string(error) + " h";
    }
};

/// Errors of a redistanced channel against the exact distance, all in units of the spacing h(d)
/// of each voxel's depth.
template <typename Tr> struct Accuracy {
    /// Near the surface: leaf voxels whose exact distance is at most `kNearSurface` finest voxels.
    static constexpr double kNearSurface = 3.0;
    /// A non-leaf voxel takes its value from finer voxels that lie up to one of its own widths
    /// from its centre, so its sign is compared only where the surface is farther than that.
    static constexpr double kRestrictedSignBand = 1.0;

    ErrorStats nearSurface; ///< away from sharp edges
    Worst worstNear;
    ErrorStats nearEdges; ///< near the surface and near sharp edges (`Shape::nearEdges`)
    Worst worstNearEdges;
    std::array<ErrorStats, Tr::kDepthCount>
        band{}; ///< reached voxels away from sharp edges, per depth
    std::array<Worst, Tr::kDepthCount> worstBand{};
    std::array<ErrorStats, Tr::kDepthCount>
        bandEdges{}; ///< reached voxels near sharp edges, per depth
    std::array<Worst, Tr::kDepthCount> worstBandEdges{};
    long long voxels = 0, unreached = 0, signFlips = 0, nonFinite = 0;
    Worst firstUnreached, firstFlip;

    /// All leaf voxels near the surface, near sharp edges or not.
    ErrorStats allNearSurface() const
    {
        ErrorStats e = nearSurface;
        e.max = std::max(e.max, nearEdges.max);
        e.sum += nearEdges.sum;
        e.n += nearEdges.n;
        return e;
    }
};

/// Compares @p out with @p shape's exact distance at every voxel of every depth; @p in is the
/// input, whose signs the output must keep. A voxel is unreached when its magnitude is the
/// background (within the rounding of a mean or an interpolation of background values).
template <typename Tr>
Accuracy<Tr> measure(LevelSetScene<Tr> const& scene, VoxelChannel<Tr, float> const& out,
                     VoxelChannel<Tr, float> const& in, Shape const& shape)
{
    Accuracy<Tr> a;
    double const background = double(std::abs(out.defaultValue()));
    scene.forEachVoxel(
        [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
            int const d = tile.depth();
            double const h = scene.spacing(d);
            float const v = out.tileData(tile.index(), d)(i, j, k);
            float const v0 = in.tileData(tile.index(), d)(i, j, k);
            double const exact = shape.distance(p[0], p[1], p[2]);
            bool const leaf = LevelSetScene<Tr>::isLeafVoxel(tile, i, j, k);
            ++a.voxels;
            auto where = [&](double e) {
                Worst w;
                w.error = e;
                w.value = v;
                w.exact = exact;
                w.depth = d;
                w.position = p;
                return w;
            };
            if (!std::isfinite(v)) {
                ++a.nonFinite;
                return;
            }
            if (std::abs(double(v)) >= background * (1.0 - 1e-6)) {
                if (a.unreached++ == 0)
                    a.firstUnreached = where(0);
                return;
            }
            bool const flipped = (0.0f > v) != (0.0f > v0);
            if (flipped && (leaf || std::abs(exact) > Accuracy<Tr>::kRestrictedSignBand * h)) {
                if (a.signFlips++ == 0)
                    a.firstFlip = where(0);
            }
            double const e = std::abs(double(v) - exact) / h;
            bool const fan = shape.nearEdges(p[0], p[1], p[2]);
            (fan ? a.bandEdges : a.band)[d].add(e);
            Worst& wb = (fan ? a.worstBandEdges : a.worstBand)[d];
            if (e > wb.error)
                wb = where(e);
            if (leaf && std::abs(exact) <= Accuracy<Tr>::kNearSurface * scene.voxelSize()) {
                (fan ? a.nearEdges : a.nearSurface).add(e);
                Worst& wn = fan ? a.worstNearEdges : a.worstNear;
                if (e > wn.error)
                    wn = where(e);
            }
        });
    return a;
}

/// The arguments of one `levelSetRedistance` call, defaulting to the classical recursion over
/// all depths (no mask, no value types, no DOF channel) with 10 passes each way.
template <typename Tr> struct RedistanceCall {
    bool redistanceInterior = true, redistanceExterior = true, overwriteSurface = true;
    int minDepth = 0, maxDepth = Tr::kMaxDepth;
    VoxelChannel<Tr, float> const* mask = nullptr;
    VoxelChannel<Tr, unsigned char>* valueType = nullptr;
    float tolerance = 0.01f, interiorBand = FLT_MAX, exteriorBand = FLT_MAX;
    int pre = 10, post = 10;
    bool haloByExtrapolation = false, coalesced = false;
    VoxelChannel<Tr, short> const* dof = nullptr;
    VolumeGL::TileTree3D::LevelSet::RedistancingScheme scheme =
        VolumeGL::TileTree3D::LevelSet::kRedistanceSweeping;
    char const* name = "test";

    void run(LevelSetScene<Tr> const& scene, VoxelChannel<Tr, float>& io_distance) const
    {
        VolumeGL::TileTree3D::LevelSet::levelSetRedistance<Tr>(
            scene.tree, scene.topology, io_distance, redistanceInterior, redistanceExterior,
            overwriteSurface, minDepth, maxDepth, mask, valueType, tolerance, interiorBand,
            exteriorBand, pre, post, haloByExtrapolation, coalesced, dof, name, scheme);
    }
};

/// All values of a channel, tile after tile, depth after depth.
template <typename Tr, typename T>
std::vector<T> channelValues(LevelSetScene<Tr> const& scene, VoxelChannel<Tr, T> const& ch)
{
    std::vector<T> out;
    scene.forEachVoxel(
        [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
            out.push_back(ch.tileData(tile.index(), tile.depth())(i, j, k));
        });
    return out;
}

} // namespace testlevelset
