/// @file  io/level_set_grid.cpp
/// @brief Plain OpenVDB level sets: a channel written as one narrow-band `FloatGrid`, and such a
///        grid imported as a graded, redistanced adaptive volume.
#include <hexmold/io/level_set_grid.h>

#if HEXMOLD_HAVE_OPENVDB

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/io/detail/vdb_archive.h>
#include <hexmold/io/detail/volume_checksum.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/substrate/topology.h>
#include <openvdb/openvdb.h>
#include <openvdb/tools/Prune.h>
#include <openvdb/tools/SignedFloodFill.h>
#include <string>
#include <vector>

namespace hexmold::io {

namespace {

using namespace TVL::TileTree3D;
using detail::fail;
using Path = std::filesystem::path;
using Tavrel::Math::double3;

// ---- writeLevelSetGrid -------------------------------------------------------------------------

template <typename Traits>
void writeLevelSetGridOf(Path const& path, TVL::Object const& object, Container<Traits> const& tree,
                         Quillon::String const& channelName, LevelSetGridOptions const& options)
{
    Quillon::Ptr<VoxelTopology<Traits>> topology;
    for (auto const& name : object.componentRange())
        if (auto t = object.component<VoxelTopology<Traits>>(name);
            t && t->targetName() == tree.name())
            topology = t;
    if (!topology)
        fail(path, "the object holds no voxel topology of its tree");
    auto channel = object.component<VoxelChannel<Traits, float>>(channelName);
    if (!channel) {
        if (object.component(channelName))
            fail(path, "the component '" + channelName +
                           "' is not a float voxel channel of the object's tree");
        fail(path, "the object has no channel '" + channelName + "'");
    }

    constexpr int W = Traits::kTileWidth;
    constexpr int kMax = Traits::kMaxDepth;
    double const voxelSize = tree.voxelSize();
    float const background = float(options.halfWidth * voxelSize);
    if (!(std::isfinite(background) && background > 0))
        fail(path, "the band width is not a positive number");

    auto grid = openvdb::FloatGrid::create(background);
    auto const offset = topology->offset();
    auto transform = openvdb::math::Transform::createLinearTransform(voxelSize);
    transform->postTranslate(openvdb::Vec3d(offset.x, offset.y, offset.z) * voxelSize);
    grid->setTransform(transform);
    grid->setGridClass(openvdb::GRID_LEVEL_SET);
    grid->setName(options.gridName.empty() ? channelName : options.gridName);
    auto acc = grid->getAccessor();

    // Deepest tiles: the channel's values as they are.
    for (std::int64_t t = 0; t < tree.tileCount(kMax); ++t) {
        auto const& tile = tree.tile(t, kMax);
        auto const data = channel->tileData(t, kMax);
        if (data.empty())
            continue;
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    float const v = data(i, j, k);
                    if (std::abs(v) < background)
                        acc.setValueOn(openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k),
                                       v);
                }
    }
    // Coarser leaf voxels the band may reach: their finest voxels, sampled. A cube of s^3 finest
    // voxels is split (by the refinement ratio) only while the value at its centre leaves the
    // band reachable: within the band plus twice the distance from the centre to the cube's
    // farthest finest sample (a trilinear interpolation of a distance changes by at most
    // sqrt(3) per unit of length; twice that distance covers it), so that work follows the
    // surface and not the volume of coarse voxels.
    std::unique_ptr<VoxelSamplerLinear<Traits, float, W, 2, double3>> sampler;
    auto sampleCube = [&](auto const& self, std::int64_t x0, std::int64_t y0, std::int64_t z0,
                          std::int64_t s) -> void {
        if (s == 1) {
            float const v =
                sampler->valueAtTileSpace(double3{double(x0), double(y0), double(z0)}, kMax);
            if (std::abs(v) < background)
                acc.setValueOn(openvdb::Coord(int(x0), int(y0), int(z0)), v);
            return;
        }
        double const half = 0.5 * double(s - 1);
        float const centre = sampler->valueAtTileSpace(
            double3{double(x0) + half, double(y0) + half, double(z0) + half}, kMax);
        if (!(std::abs(centre) < background + float(2.0 * std::sqrt(3.0) * half * voxelSize)))
            return;
        std::int64_t const step = s / Traits::kRatio;
        for (std::int64_t z = z0; z < z0 + s; z += step)
            for (std::int64_t y = y0; y < y0 + s; y += step)
                for (std::int64_t x = x0; x < x0 + s; x += step)
                    self(self, x, y, z, step);
    };
    for (int d = kMax - 1; d >= 0; --d) {
        std::int64_t const w = Traits::voxelDataWidth(d);
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const& tile = tree.tile(t, d);
            auto const data = channel->tileData(t, d);
            if (data.empty())
                continue;
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        if (!tile.isLeaf(i, j, k))
                            continue;
                        if (!sampler)
                            sampler =
                                std::make_unique<VoxelSamplerLinear<Traits, float, W, 2, double3>>(
                                    tree, *topology, *channel);
                        sampleCube(sampleCube, tile.ti() + i * w, tile.tj() + j * w,
                                   tile.tk() + k * w, w);
                    }
        }
    }
    // Inside and outside everywhere else.
    openvdb::tools::signedFloodFill(grid->tree());
    openvdb::tools::pruneLevelSet(grid->tree());

    detail::initializeOpenVdb();
    Path temp = path;
    temp += ".tmp-levelset";
    try {
        openvdb::io::File file(temp.string());
        std::uint32_t flags = openvdb::io::COMPRESS_ACTIVE_MASK;
        if (options.compression == VolumeCompression::kBlosc)
            flags |= openvdb::io::Archive::hasBloscCompression() ? openvdb::io::COMPRESS_BLOSC
                                                                 : openvdb::io::COMPRESS_ZIP;
        else if (options.compression == VolumeCompression::kZip)
            flags |= openvdb::io::COMPRESS_ZIP;
        file.setCompression(flags);
        file.write({grid});
        file.close();
    } catch (openvdb::Exception const& e) {
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
        fail(path, std::string("cannot be written: ") + e.what());
    }
    std::error_code error;
    std::filesystem::rename(temp, path, error);
    if (error) {
        std::filesystem::remove(temp, error);
        fail(path, "cannot be written: " + error.message());
    }
}

// ---- importLevelSet ----------------------------------------------------------------------------

/// Where the grid's voxels sit relative to the tree: finest voxel corner = index + shift, with
/// samples at offsetType.
struct Placement {
    double voxelSize = 1;
    openvdb::Coord shift;
    int offsetType = 0;
};

Placement placementOf(Path const& path, openvdb::FloatGrid const& grid)
{
    auto const& xf = grid.transform();
    std::string const what = "the grid '" + grid.getName() + "'";
    if (!xf.isLinear())
        fail(path, what + " has a non-linear transform");
    openvdb::Vec3d const o = xf.indexToWorld(openvdb::Vec3d(0, 0, 0));
    double const h = xf.voxelSize()[0];
    if (!(std::isfinite(h) && h > 0))
        fail(path, what + " has no positive voxel size");
    for (int a = 0; a < 3; ++a) {
        openvdb::Vec3d unit(0, 0, 0);
        unit[a] = 1;
        openvdb::Vec3d const step = xf.indexToWorld(unit) - o;
        for (int b = 0; b < 3; ++b)
            if (std::abs(step[b] - (a == b ? h : 0.0)) > 1e-6 * h)
                fail(path, what + " is rotated, mirrored or scaled unequally along its axes");
    }
    Placement p;
    p.voxelSize = h;
    for (int a = 0; a < 3; ++a) {
        double const q = o[a] / h;
        double const whole = std::round(q), half = std::floor(q) + 0.5;
        if (std::abs(q - whole) <= 1e-4) {
            p.shift[a] = int(whole);
        } else if (std::abs(q - half) <= 1e-4) {
            p.shift[a] = int(std::floor(q));
            p.offsetType |= 1 << a;
        } else {
            fail(path, what + " places its voxels off the whole and half voxels of its lattice");
        }
        if (std::abs(q) > 2e9)
            fail(path, what + " lies beyond the tree's domain");
    }
    return p;
}

template <typename Traits>
Quillon::Ptr<TVL::Object> importLevelSetOf(Path const& path, openvdb::FloatGrid const& grid,
                                           Placement const& place,
                                           Quillon::String const& channelName)
{
    constexpr int W = Traits::kTileWidth;
    constexpr int kMax = Traits::kMaxDepth;
    std::string const what = "the grid '" + grid.getName() + "'";
    float const voxelSize = float(place.voxelSize);

    // The domain: tile-space corners from -A to the depth-0 tile width - A - 1.
    openvdb::CoordBBox const box = grid.evalActiveVoxelBoundingBox();
    std::int64_t const lo = -Traits::kCentreOffset,
                       hi = Traits::tileVoxelWidth(0) - Traits::kCentreOffset - 1;
    for (int a = 0; a < 3; ++a)
        if (std::int64_t(box.min()[a]) + place.shift[a] < lo ||
            std::int64_t(box.max()[a]) + place.shift[a] > hi)
            fail(path, what + " extends beyond the domain of the tree");

    // Deepest tiles wherever the grid has active voxels, then the coarser tiles around them.
    Container<Traits> tree(Tavrel::Geometry::sVoxelTileTree, voxelSize);
    {
        auto acc = tree.tileAccessor();
        // An active voxel adds its tile; an active tile of the grid (rare in a level set) adds
        // every tile it overlaps, found at steps of one tile width plus its far side.
        auto steps = [](int lo, int hi) {
            std::vector<std::int64_t> s;
            for (std::int64_t v = lo; v < hi; v += W)
                s.push_back(v);
            s.push_back(hi);
            return s;
        };
        auto add = [&](std::int64_t x, std::int64_t y, std::int64_t z) {
            x += place.shift.x(), y += place.shift.y(), z += place.shift.z();
            if (acc.tile(x, y, z, kMax).depth() != kMax)
                acc.addTile(x, y, z, kMax);
        };
        for (auto it = grid.cbeginValueOn(); it; ++it) {
            if (it.isVoxelValue()) {
                openvdb::Coord const c = it.getCoord();
                add(c.x(), c.y(), c.z());
                continue;
            }
            openvdb::CoordBBox b;
            it.getBoundingBox(b);
            for (std::int64_t z : steps(b.min().z(), b.max().z()))
                for (std::int64_t y : steps(b.min().y(), b.max().y()))
                    for (std::int64_t x : steps(b.min().x(), b.max().x()))
                        add(x, y, z);
        }
    }
    CoreGL::TileTree3D::gradeTileTree<Traits>(tree, nullptr, nullptr, 0, kMax);
    tree.sortIntoMortonOrder();

    Quillon::String const name =
        channelName.empty() ? Tavrel::Geometry::sVoxelSignedDistance : channelName;
    auto topology = Quillon::makePtr<VoxelTopology<Traits>>(
        Tavrel::Geometry::sVoxelComp, tree.name(), voxelSize, VoxelOffsetType(place.offsetType));
    topology->update(tree);
    // The background: a power of two beyond the domain's diagonal, so that means of background
    // values stay exact and no distance in the tree reaches it.
    float const background =
        float(std::exp2(std::ceil(std::log2(4.0 * double(Traits::tileVoxelWidth(0)) * voxelSize))));
    auto distance = Quillon::makePtr<VoxelChannel<Traits, float>>(
        name, &background, kDataElementInitializerDefaultValue, false, true, 0, kMax);
    distance->setTargetName(topology->name());
    distance->update(*topology);
    auto typesPtr = scratchChannel<VoxelChannel<Traits, unsigned char>>(
        *topology, (unsigned char)VolumeGL::TileTree3D::LevelSet::kValueTypeUnknown, 0, kMax,
        "value_type");
    auto& types = *typesPtr;

    // Known voxels: the grid's active ones at the deepest depth. Every other voxel starts at the
    // background of the sign the grid has at the voxel's sample (the finest voxel at its corner,
    // where the solves place voxels of every depth).
    auto acc = grid.getConstAccessor();
    for (int d = 0; d <= kMax; ++d) {
        std::int64_t const w = Traits::voxelDataWidth(d);
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const& tile = tree.tile(t, d);
            auto values = distance->tileData(t, d);
            auto kinds = types.tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        openvdb::Coord const c(int(tile.ti() + i * w - place.shift.x()),
                                               int(tile.tj() + j * w - place.shift.y()),
                                               int(tile.tk() + k * w - place.shift.z()));
                        float v = 0;
                        bool const active = acc.probeValue(c, v);
                        if (active && d == kMax) {
                            values(i, j, k) = v;
                            kinds(i, j, k) = VolumeGL::TileTree3D::LevelSet::kValueTypeKnown;
                        } else {
                            values(i, j, k) = 0.0f > v ? -background : background;
                        }
                    }
        }
    }
    // The classical recursion over the depths: the DOF-driven sweep leaves the voxels of depths
    // too coarse to resolve the band unreached.
    VolumeGL::TileTree3D::LevelSet::levelSetRedistance<Traits>(
        tree, *topology, *distance, true, true, false, 0, kMax, nullptr, &types, 0.01f, FLT_MAX,
        FLT_MAX, 10, 10, false, false, nullptr, "hexmold::io::importLevelSet",
        VolumeGL::TileTree3D::LevelSet::kRedistanceSweeping);

    auto object = TVL::createEmptyTVL();
    object->addComponent(Quillon::makePtr<Container<Traits>>(tree));
    object->addComponent(topology);
    object->addComponent(distance);
    return object;
}

} // namespace

void writeLevelSetGrid(Path const& path, TVL::Object const& object,
                       Quillon::String const& channelName, LevelSetGridOptions const& options)
{
    Quillon::Ptr<Container<Traits24>> tree24;
    Quillon::Ptr<Container<Traits55>> tree55;
    for (auto const& name : object.componentRange()) {
        if (auto t = object.component<Container<Traits24>>(name))
            tree24 = t;
        if (auto t = object.component<Container<Traits55>>(name))
            tree55 = t;
    }
    if (!tree24 && !tree55)
        fail(path, "the object holds no tile tree");
    if (tree24 && tree55)
        fail(path, "the object holds more than one tile tree");
    if (!(options.halfWidth > 0 && std::isfinite(options.halfWidth)))
        fail(path, "the band half width is not a positive number");
    try {
        if (tree24)
            writeLevelSetGridOf<Traits24>(path, object, *tree24, channelName, options);
        else
            writeLevelSetGridOf<Traits55>(path, object, *tree55, channelName, options);
    } catch (IoError const&) {
        throw;
    } catch (openvdb::Exception const& e) {
        fail(path, std::string("cannot be written: ") + e.what());
    }
}

Quillon::Ptr<TVL::Object> importLevelSet(Path const& path, std::string const& gridName,
                                         ImportLevelSetOptions const& options)
{
    std::string const bytes = detail::readWholeFile(path);
    if (!detail::hasVdbMagic(bytes))
        fail(path, "is not an OpenVDB (.vdb) file");
    if (detail::looksLikeVolumeFile(bytes)) {
        if (detail::checkTrailer(bytes) != detail::TrailerState::kValid)
            fail(path, "is a damaged or truncated Hexmold volume file");
        fail(path, "is a Hexmold volume file, which readVolume reads; importLevelSet reads plain "
                   "level-set grids");
    }
    detail::Archive const archive = detail::parseArchive(path, bytes);

    openvdb::FloatGrid::Ptr grid;
    for (auto const& g : *archive.grids) {
        if (!g)
            continue;
        if (!gridName.empty()) {
            if (g->getName() != gridName)
                continue;
            grid = openvdb::gridPtrCast<openvdb::FloatGrid>(g);
            if (!grid)
                fail(path, "the grid '" + gridName + "' is a " + g->valueType() +
                               " grid, not a float grid");
            break;
        }
        auto f = openvdb::gridPtrCast<openvdb::FloatGrid>(g);
        if (f && (f->getGridClass() == openvdb::GRID_LEVEL_SET ||
                  f->getGridClass() == openvdb::GRID_UNKNOWN)) {
            grid = f;
            break;
        }
    }
    if (!grid)
        fail(path, gridName.empty() ? std::string("holds no level-set float grid")
                                    : "holds no grid named '" + gridName + "'");
    std::string const what = "the grid '" + grid->getName() + "'";
    if (grid->getGridClass() == openvdb::GRID_FOG_VOLUME ||
        grid->getGridClass() == openvdb::GRID_STAGGERED)
        fail(path, what + " is a " + openvdb::GridBase::gridClassToString(grid->getGridClass()) +
                       ", not a level set");
    if (grid->activeVoxelCount() == 0)
        fail(path, what + " has no active voxel");
    if (!(std::isfinite(grid->background()) && grid->background() > 0))
        fail(path, what + " has no positive background (a level set's is its band width)");
    Placement const place = placementOf(path, *grid);
    try {
        if (options.tree == TreeKind::kTraits55)
            return importLevelSetOf<Traits55>(path, *grid, place, options.channelName);
        return importLevelSetOf<Traits24>(path, *grid, place, options.channelName);
    } catch (IoError const&) {
        throw;
    } catch (openvdb::Exception const& e) {
        fail(path, std::string("cannot be read: ") + e.what());
    }
}

} // namespace hexmold::io

#else // no OpenVDB

namespace hexmold::io {

namespace {
[[noreturn]] void unavailable(std::filesystem::path const& path)
{
    throw IoError(path.string(),
                  "this build of Hexmold has no OpenVDB, so it cannot read or write .vdb files");
}
} // namespace

void writeLevelSetGrid(std::filesystem::path const& path, TVL::Object const&,
                       Quillon::String const&, LevelSetGridOptions const&)
{
    unavailable(path);
}
Quillon::Ptr<TVL::Object> importLevelSet(std::filesystem::path const& path, std::string const&,
                                         ImportLevelSetOptions const&)
{
    unavailable(path);
}

} // namespace hexmold::io

#endif
