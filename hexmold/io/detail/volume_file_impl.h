/// @file  io/detail/volume_file_impl.h
/// @brief The bodies of the volume file reader and writer, instantiated per tree instance in
///        volume_file_t24.cpp and volume_file_t55.cpp: names of the metadata, the element
///        types' codecs, the tile layout grids, the channel writers and readers, and the walks
///        over whole objects.
#pragma once
#include <algorithm>
#include <array>
#include <cmath>
#include <hexmold/io/detail/vdb_archive.h>
#include <hexmold/io/detail/vdb_voxels.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/type_lists.h>
#include <limits>
#include <map>
#include <openvdb/openvdb.h>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace hexmold::io::volume_file {

using namespace TVL::TileTree3D;
using detail::fail;
using detail::findMeta;
using Path = std::filesystem::path;

// ---- names ------------------------------------------------------------------------------------

/// File metadata names; per-channel names are "hexmold.channel.<n>.<field>".
inline constexpr char kMetaVersion[] = "hexmold.format_version";
inline constexpr char kMetaTraits[] = "hexmold.traits";
inline constexpr char kMetaVoxelSize[] = "hexmold.voxel_size";
inline constexpr char kMetaTopologyVoxelSize[] = "hexmold.topology_voxel_size";
inline constexpr char kMetaOffsetType[] = "hexmold.offset_type";
inline constexpr char kMetaRefinementError[] = "hexmold.max_relative_refinement_error";
inline constexpr char kMetaContainer[] = "hexmold.container";
inline constexpr char kMetaTopology[] = "hexmold.topology";
inline constexpr char kMetaTileCounts[] = "hexmold.tile_counts";
inline constexpr char kMetaChannelCount[] = "hexmold.channel_count";
/// Grid metadata.
inline constexpr char kGridRole[] = "hexmold.role"; ///< "tiles" or "voxels"
inline constexpr char kGridDepth[] = "hexmold.depth";
inline constexpr char kGridChannel[] = "hexmold.channel";
inline constexpr char kGridChannelName[] = "hexmold.channel_name";
inline constexpr char kGridElementType[] = "hexmold.element_type";
inline constexpr char kGridPart[] = "hexmold.part";
inline constexpr char kGridFirstComponent[] = "hexmold.first_component";
/// True on a grid stored as 16-bit floats, whose infinities stand for the far values.
inline constexpr char kGridHalf[] = "hexmold.half";

inline std::string channelKey(int n, char const* field)
{
    return "hexmold.channel." + std::to_string(n) + "." + field;
}

template <typename T>
inline constexpr char const* kElementName = Tavrel::Geometry::kElementTypeName<T>;

template <typename Traits> std::string traitsName()
{
    return std::to_string(Traits::kRatio) + "," + std::to_string(Traits::kTileWidth) + "," +
           std::to_string(Traits::kElementWidth);
}

inline std::string toHex(void const* data, std::size_t size)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    auto const* p = static_cast<unsigned char const*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        out += kDigits[p[i] >> 4];
        out += kDigits[p[i] & 15];
    }
    return out;
}

inline bool fromHex(std::string const& hex, void* data, std::size_t size)
{
    if (hex.size() != 2 * size)
        return false;
    auto digit = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    auto* p = static_cast<unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        int const hi = digit(hex[2 * i]), lo = digit(hex[2 * i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        p[i] = static_cast<unsigned char>(hi * 16 + lo);
    }
    return true;
}

// ---- metadata reads that fail with the file's name ---------------------------------------------

struct MetaReader {
    Path const& path;
    openvdb::MetaMap const& map;

    template <typename MetaT> auto get(std::string const& name, char const* type) const
    {
        MetaT const* m = findMeta<MetaT>(map, name);
        if (!m) {
            if (map[name])
                fail(path, "its metadata '" + name + "' is not " + type);
            fail(path, "lacks the metadata '" + name + "'");
        }
        return m->value();
    }
    int integer(std::string const& name) const
    {
        return get<openvdb::Int32Metadata>(name, "an int32");
    }
    float real(std::string const& name) const
    {
        return get<openvdb::FloatMetadata>(name, "a float");
    }
    bool flag(std::string const& name) const { return get<openvdb::BoolMetadata>(name, "a bool"); }
    std::string text(std::string const& name) const
    {
        return get<openvdb::StringMetadata>(name, "a string");
    }
};

inline int gridInt(openvdb::GridBase const& grid, char const* name, int fallback)
{
    auto m = grid.getMetadata<openvdb::Int32Metadata>(name);
    return m ? m->value() : fallback;
}

// ---- the tile layout grids ---------------------------------------------------------------------

/// Transform of a lattice whose cells are @p width finest voxels wide and whose index 0 sample
/// sits at @p origin finest voxels on each axis.
inline openvdb::math::Transform::Ptr latticeTransform(double voxelSize, double width,
                                                      openvdb::Vec3d const& origin)
{
    auto transform = openvdb::math::Transform::createLinearTransform(width * voxelSize);
    transform->postTranslate(origin * voxelSize);
    return transform;
}

template <typename Traits>
openvdb::GridBase::Ptr tileLayoutGrid(Container<Traits> const& tree, int depth)
{
    std::int64_t const n = tree.tileCount(depth);
    detail::DepthLattice const lattice{Traits::kCentreOffset, Traits::tileVoxelWidth(depth)};
    auto grid = openvdb::Int32Grid::create(-1);
    auto acc = grid->getAccessor();
    for (std::int64_t t = 0; t < n; ++t)
        acc.setValueOn(lattice.index(tree.tile(t, depth).tijk()), static_cast<std::int32_t>(t));
    double const o = lattice.origin(0.5);
    grid->setTransform(latticeTransform(tree.voxelSize(), double(lattice.voxelWidth), {o, o, o}));
    grid->setName("hexmold_tiles.d" + std::to_string(depth));
    grid->insertMeta(kGridRole, openvdb::StringMetadata("tiles"));
    grid->insertMeta(kGridDepth, openvdb::Int32Metadata(depth));
    return grid;
}

/// The tile corners of one depth, in tile order, from its layout grid.
template <typename Traits>
std::vector<int3> readTileLayout(Path const& path, openvdb::GridBase const& base, int depth,
                                 std::int64_t count)
{
    std::string const what = "its tile layout of depth " + std::to_string(depth);
    auto const* grid = dynamic_cast<openvdb::Int32Grid const*>(&base);
    if (!grid)
        fail(path, what + " is not an int32 grid");
    if (grid->activeVoxelCount() != openvdb::Index64(count))
        fail(path, what + " holds " + std::to_string(grid->activeVoxelCount()) + " tiles, not " +
                       std::to_string(count));
    detail::DepthLattice const lattice{Traits::kCentreOffset, Traits::tileVoxelWidth(depth)};
    // Tile ordinals along an axis run from 0 to the number of tiles of the depth across the
    // domain of the depth-0 tile.
    std::int64_t const across = Traits::tileVoxelWidth(0) / Traits::tileVoxelWidth(depth);
    std::vector<int3> corners(static_cast<std::size_t>(count));
    std::vector<char> seen(static_cast<std::size_t>(count), 0);
    for (auto it = grid->cbeginValueOn(); it; ++it) {
        if (!it.isVoxelValue())
            fail(path, what + " holds a tile of voxels, not single voxels");
        std::int32_t const t = *it;
        if (t < 0 || t >= count || seen[t])
            fail(path, what + " has a bad or repeated tile index");
        seen[t] = 1;
        openvdb::Coord const c = it.getCoord();
        int3 corner{};
        for (int a = 0; a < 3; ++a) {
            std::int64_t const ordinal =
                c[a] - detail::DepthLattice::kShift + lattice.centre / lattice.voxelWidth;
            if (ordinal < 0 || ordinal >= across)
                fail(path, what + " has a tile outside the tree's domain");
            corner[a] = static_cast<int>(lattice.corner(c[a]));
        }
        corners[t] = corner;
    }
    return corners;
}

// ---- channels, one element type at a time ------------------------------------------------------

/// Where the grids of a file are: (role, channel, depth, part) -> grid.
using GridKey = std::tuple<std::string, int, int, int>;
using GridMap = std::map<GridKey, openvdb::GridBase::Ptr>;

/// What the writer and reader of a channel share.
template <typename Traits> struct VolumeContext {
    Container<Traits> const& tree;
    float voxelSize = 1;
    Tavrel::Math::float3 offset{};
    std::array<std::vector<openvdb::Coord>, Traits::kDepthCount> origins;
    bool halfFloats = false; ///< writing: float grids as 16-bit floats where they survive it
};

// ---- 16-bit floats -----------------------------------------------------------------------------

/// The components of a float grid's value.
template <typename Value> inline constexpr int kFloatComponents = 0;
template <> inline constexpr int kFloatComponents<float> = 1;
template <> inline constexpr int kFloatComponents<openvdb::Vec3s> = 3;

template <typename Value> float& componentOf(Value& v, int c)
{
    if constexpr (std::is_same_v<Value, float>)
        return v;
    else
        return v[c];
}

/// Whether every value survives 16-bit floats: finite and within their range, or plus or
/// minus the default's magnitude (which comes back through `restoreFarValues`).
template <typename Value> bool survivesHalf(std::vector<Value> const& values, Value def)
{
    constexpr float kHalfMax = 65504.0f;
    for (Value v : values)
        for (int c = 0; c < kFloatComponents<Value>; ++c) {
            float const x = componentOf(v, c);
            if (!std::isfinite(x))
                return false;
            if (std::abs(x) > kHalfMax && std::abs(x) != std::abs(componentOf(def, c)))
                return false;
        }
    return true;
}

/// After reading a 16-bit grid: an infinity was a far value, plus or minus the default's
/// magnitude.
template <typename Value> void restoreFarValues(std::vector<Value>& values, Value def)
{
    for (Value& v : values)
        for (int c = 0; c < kFloatComponents<Value>; ++c) {
            float& x = componentOf(v, c);
            if (std::isinf(x))
                x = std::copysign(std::abs(componentOf(def, c)), x);
        }
}

template <typename Traits, typename T>
void writeChannel(VolumeContext<Traits> const& ctx, TVL::Component const& component, int n,
                  openvdb::GridCPtrVec& out)
{
    using Storage = detail::ElementStorage<T>;
    using Value = typename Storage::Value;
    constexpr int W = Traits::kTileWidth;
    auto const& channel = static_cast<VoxelChannel<Traits, T> const&>(component);
    for (int d = std::max(channel.minDepth(), 0); d <= std::min(channel.depth(), Traits::kMaxDepth);
         ++d) {
        std::int64_t const tiles = ctx.tree.tileCount(d);
        if (tiles == 0)
            continue;
        detail::DepthLattice const lattice{Traits::kCentreOffset, Traits::voxelDataWidth(d)};
        openvdb::Vec3d const origin(lattice.origin(ctx.offset.x), lattice.origin(ctx.offset.y),
                                    lattice.origin(ctx.offset.z));
        for (int part = 0; part < Storage::kParts; ++part) {
            std::vector<Value> values(static_cast<std::size_t>(tiles) * Traits::kTileSize);
            for (std::int64_t t = 0; t < tiles; ++t) {
                auto const* block = channel.block(t, d);
                for (int v = 0; v < Traits::kTileSize; ++v)
                    values[std::size_t(t) * Traits::kTileSize + v] =
                        Storage::encode((*block)[v], part);
            }
            Value const def = Storage::encode(channel.defaultValue(), part);
            auto grid = detail::voxelGrid<typename Storage::Grid>(ctx.origins[d], W, values, def);
            if constexpr (kFloatComponents < Value >> 0)
                if (ctx.halfFloats && survivesHalf(values, def)) {
                    grid->setSaveFloatAsHalf(true);
                    grid->insertMeta(kGridHalf, openvdb::BoolMetadata(true));
                }
            grid->setTransform(latticeTransform(ctx.voxelSize, double(lattice.voxelWidth), origin));
            std::string name = channel.name() + ".d" + std::to_string(d);
            if (Storage::kParts > 1)
                name += ".p" + std::to_string(part);
            grid->setName(name);
            grid->insertMeta(kGridRole, openvdb::StringMetadata("voxels"));
            grid->insertMeta(kGridChannel, openvdb::Int32Metadata(n));
            grid->insertMeta(kGridChannelName, openvdb::StringMetadata(channel.name()));
            grid->insertMeta(kGridElementType, openvdb::StringMetadata(kElementName<T>));
            grid->insertMeta(kGridDepth, openvdb::Int32Metadata(d));
            grid->insertMeta(kGridPart, openvdb::Int32Metadata(part));
            if (Storage::kVector)
                grid->insertMeta(kGridFirstComponent, openvdb::Int32Metadata(3 * part));
            out.push_back(grid);
        }
    }
}

/// A channel's record in the file metadata.
struct ChannelRecord {
    int n = 0;
    std::string name;
    std::string defaultHex;
    int minDepth = 0, depth = 0, initializer = 2;
    bool construct = true;
};

template <typename Traits, typename T>
Quillon::Ptr<TVL::Component> readChannel(Path const& path, VolumeContext<Traits> const& ctx,
                                         VoxelTopology<Traits> const& topology,
                                         ChannelRecord const& rec, GridMap const& grids)
{
    using Storage = detail::ElementStorage<T>;
    using GridT = typename Storage::Grid;
    std::string const what = "channel '" + rec.name + "'";
    T defaultValue{};
    if (!fromHex(rec.defaultHex, &defaultValue, sizeof(T)))
        fail(path, "the default value of " + what + " is malformed");
    auto channel = Quillon::makePtr<VoxelChannel<Traits, T>>(
        rec.name, &defaultValue, DataElementInitializerType(rec.initializer), false, rec.construct,
        rec.minDepth, rec.depth);
    channel->setTargetName(topology.name());
    channel->update(topology);
    std::vector<typename Storage::Value> values;
    for (int d = std::max(rec.minDepth, 0); d <= std::min(rec.depth, Traits::kMaxDepth); ++d) {
        std::int64_t const tiles = ctx.tree.tileCount(d);
        if (tiles == 0)
            continue;
        for (int part = 0; part < Storage::kParts; ++part) {
            std::string const where = what + " at depth " + std::to_string(d) +
                                      (Storage::kParts > 1 ? " part " + std::to_string(part) : "");
            auto it = grids.find(GridKey("voxels", rec.n, d, part));
            if (it == grids.end())
                fail(path, "lacks the grid of " + where);
            std::string const problem = detail::readVoxelGrid<GridT>(*it->second, ctx.origins[d],
                                                                     Traits::kTileWidth, values);
            if (!problem.empty())
                fail(path, "the grid of " + where + " " + problem);
            if constexpr (kFloatComponents < typename Storage::Value >> 0) {
                auto const half =
                    it->second->template getMetadata<openvdb::BoolMetadata>(kGridHalf);
                if (half && half->value())
                    restoreFarValues(values, Storage::encode(defaultValue, part));
            }
            for (std::int64_t t = 0; t < tiles; ++t) {
                auto* block = channel->block(t, d);
                if (!block || block->size() != std::size_t(Traits::kTileSize))
                    fail(path, what + " has no block for a tile at depth " + std::to_string(d));
                for (int v = 0; v < Traits::kTileSize; ++v)
                    if (!Storage::decode((*block)[v], part,
                                         values[std::size_t(t) * Traits::kTileSize + v]))
                        fail(path, "the grid of " + where + " holds a value out of the range of " +
                                       kElementName<T>);
            }
        }
    }
    return channel;
}

/// One element type's entries: its name, whether a component is a voxel channel of it, and
/// the writer and reader of such a channel.
template <typename Traits> struct ElementCodec {
    char const* name;
    int parts;
    bool (*matches)(TVL::Component const&);
    void (*write)(VolumeContext<Traits> const&, TVL::Component const&, int, openvdb::GridCPtrVec&);
    Quillon::Ptr<TVL::Component> (*read)(Path const&, VolumeContext<Traits> const&,
                                         VoxelTopology<Traits> const&, ChannelRecord const&,
                                         GridMap const&);
    /// The default value's bytes in hex, the initialiser and the construct flag of a channel.
    std::tuple<std::string, int, bool> (*settings)(TVL::Component const&);
};

template <typename Traits, typename T> ElementCodec<Traits> codecOf()
{
    return {kElementName<T>,
            detail::ElementStorage<T>::kParts,
            [](TVL::Component const& c) { return TVL::componentIsA<VoxelChannel<Traits, T>>(c); },
            &writeChannel<Traits, T>,
            &readChannel<Traits, T>,
            [](TVL::Component const& c) {
                auto const& channel = static_cast<VoxelChannel<Traits, T> const&>(c);
                T const v = channel.defaultValue();
                return std::tuple<std::string, int, bool>(toHex(&v, sizeof(T)),
                                                          int(channel.dataElementInitializerType()),
                                                          channel.callElementConstructor());
            }};
}

template <typename Traits> std::vector<ElementCodec<Traits>> const& codecs()
{
#define HEXMOLD_IO_CODEC(TR, T) codecOf<Traits, T>(),
    static std::vector<ElementCodec<Traits>> const all{
        HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_IO_CODEC, Traits)};
#undef HEXMOLD_IO_CODEC
    return all;
}

// ---- whole objects -----------------------------------------------------------------------------

template <typename Traits>
void writeVolumeOf(Path const& path, TVL::Object const& object, Container<Traits> const& tree,
                   VolumeWriteOptions const& options)
{
    // The topology of the tree, and the channels bound to it.
    Quillon::Ptr<VoxelTopology<Traits>> topology;
    std::vector<std::pair<Quillon::Ptr<TVL::Component>, ElementCodec<Traits> const*>> channels;
    for (auto const& name : object.componentRange()) {
        auto c = object.component(name);
        if (c.get() == &tree)
            continue;
        if (TVL::componentIsA<VoxelTopology<Traits>>(*c)) {
            if (topology)
                fail(path, "the object holds two voxel topologies, '" + topology->name() +
                               "' and '" + name + "'");
            topology = Quillon::dynamicPtrCast<VoxelTopology<Traits>>(c);
        }
    }
    if (!topology)
        fail(path, "the object holds no voxel topology of its tree");
    if (topology->targetName() != tree.name())
        fail(path, "the voxel topology '" + topology->name() + "' does not target the tree '" +
                       tree.name() + "'");
    for (auto const& name : object.componentRange()) {
        auto c = object.component(name);
        if (c.get() == &tree || c.get() == topology.get())
            continue;
        ElementCodec<Traits> const* codec = nullptr;
        for (auto const& e : codecs<Traits>())
            if (e.matches(*c))
                codec = &e;
        if (!codec)
            fail(path,
                 "the component '" + name +
                     "' cannot be stored: only a tree, its voxel topology and voxel channels can");
        if (c->targetName() != topology->name())
            fail(path, "the channel '" + name + "' is not bound to the topology '" +
                           topology->name() + "'");
        auto const& base = static_cast<ChannelBase const&>(*c);
        for (int d = std::max(base.minDepth(), 0); d <= std::min(base.depth(), Traits::kMaxDepth);
             ++d)
            if (base.tileCount(d) != tree.tileCount(d) ||
                base.elementCount(d) != std::uint64_t(tree.tileCount(d)) * Traits::kTileSize)
                fail(path, "the channel '" + name + "' does not match its tree at depth " +
                               std::to_string(d));
        channels.emplace_back(c, codec);
    }
    for (int d = 0; d <= Traits::kMaxDepth; ++d)
        if (tree.tileCount(d) > std::numeric_limits<std::int32_t>::max())
            fail(path,
                 "the tree has more tiles at depth " + std::to_string(d) + " than a file holds");

    VolumeContext<Traits> ctx{tree, tree.voxelSize(), topology->offset(), {}, options.halfFloats};
    openvdb::MetaMap meta;
    meta.insertMeta(kMetaVersion, openvdb::Int32Metadata(kVolumeFormatVersion));
    meta.insertMeta(kMetaTraits, openvdb::StringMetadata(traitsName<Traits>()));
    meta.insertMeta(kMetaVoxelSize, openvdb::FloatMetadata(tree.voxelSize()));
    meta.insertMeta(kMetaTopologyVoxelSize, openvdb::FloatMetadata(topology->voxelSize()));
    meta.insertMeta(kMetaOffsetType, openvdb::Int32Metadata(int(topology->offsetType())));
    meta.insertMeta(kMetaRefinementError,
                    openvdb::FloatMetadata(tree.maxRelativeRefinementError()));
    meta.insertMeta(kMetaContainer, openvdb::StringMetadata(tree.name()));
    meta.insertMeta(kMetaTopology, openvdb::StringMetadata(topology->name()));
    std::string counts;
    for (int d = 0; d <= Traits::kMaxDepth; ++d) {
        if (d)
            counts += ' ';
        counts += std::to_string(tree.tileCount(d));
    }
    meta.insertMeta(kMetaTileCounts, openvdb::StringMetadata(counts));
    meta.insertMeta(kMetaChannelCount, openvdb::Int32Metadata(int(channels.size())));

    openvdb::GridCPtrVec grids;
    for (int d = 0; d <= Traits::kMaxDepth; ++d) {
        ctx.origins[d] = detail::tileOrigins(tree, d);
        if (tree.tileCount(d) > 0)
            grids.push_back(tileLayoutGrid(tree, d));
    }
    for (std::size_t n = 0; n < channels.size(); ++n) {
        auto const& [c, codec] = channels[n];
        auto const& base = static_cast<ChannelBase const&>(*c);
        int const i = int(n);
        meta.insertMeta(channelKey(i, "name"), openvdb::StringMetadata(c->name()));
        meta.insertMeta(channelKey(i, "element_type"), openvdb::StringMetadata(codec->name));
        meta.insertMeta(channelKey(i, "parts"), openvdb::Int32Metadata(codec->parts));
        auto const [defaultHex, initializer, construct] = codec->settings(*c);
        meta.insertMeta(channelKey(i, "default"), openvdb::StringMetadata(defaultHex));
        meta.insertMeta(channelKey(i, "min_depth"), openvdb::Int32Metadata(base.minDepth()));
        meta.insertMeta(channelKey(i, "depth"), openvdb::Int32Metadata(base.depth()));
        meta.insertMeta(channelKey(i, "initializer"), openvdb::Int32Metadata(initializer));
        meta.insertMeta(channelKey(i, "construct"), openvdb::BoolMetadata(construct));
        codec->write(ctx, *c, i, grids);
    }
    detail::writeArchive(path, grids, meta, options.compression);
}

template <typename Traits>
Quillon::Ptr<TVL::Object> readVolumeOf(Path const& path, detail::Archive const& archive)
{
    MetaReader const meta{path, *archive.metadata};
    float const voxelSize = meta.real(kMetaVoxelSize);
    float const topologyVoxelSize = meta.real(kMetaTopologyVoxelSize);
    if (!(std::isfinite(voxelSize) && voxelSize > 0) ||
        !(std::isfinite(topologyVoxelSize) && topologyVoxelSize > 0))
        fail(path, "its voxel size is not a positive number");
    int const offsetType = meta.integer(kMetaOffsetType);
    if (offsetType < 0 || offsetType > 7)
        fail(path, "its voxel offset type " + std::to_string(offsetType) + " is not 0 to 7");
    std::string const treeName = meta.text(kMetaContainer);
    std::string const topologyName = meta.text(kMetaTopology);
    if (treeName.empty() || topologyName.empty() || treeName == topologyName)
        fail(path, "the names of its tree and topology are empty or equal");

    std::array<std::int64_t, Traits::kDepthCount> counts{};
    {
        std::istringstream in(meta.text(kMetaTileCounts));
        for (auto& c : counts)
            if (!(in >> c) || c < 0)
                fail(path, "its tile counts per depth are malformed");
        std::string rest;
        if (in >> rest)
            fail(path, "its tile counts per depth are malformed");
        if (counts[0] > 1)
            fail(path, "its tile counts per depth are malformed");
    }

    // Where the grids are.
    GridMap grids;
    for (auto const& g : *archive.grids) {
        if (!g)
            continue;
        auto role = g->getMetadata<openvdb::StringMetadata>(kGridRole);
        if (!role)
            continue; // a grid someone added: not ours, ignored
        GridKey const key(role->value(), gridInt(*g, kGridChannel, -1), gridInt(*g, kGridDepth, -1),
                          gridInt(*g, kGridPart, 0));
        if (!grids.emplace(key, g).second)
            fail(path, "holds the grid '" + g->getName() + "' twice");
    }

    // The tree, depth by depth in tile order: every tile's parent comes first, so each tile
    // lands at its own index.
    Container<Traits> tree(treeName, voxelSize);
    tree.setMaxRelativeRefinementError(meta.real(kMetaRefinementError));
    {
        auto acc = tree.tileAccessor();
        for (int d = 0; d <= Traits::kMaxDepth; ++d) {
            if (counts[d] == 0)
                continue;
            auto it = grids.find(GridKey("tiles", -1, d, 0));
            if (it == grids.end())
                fail(path, "lacks its tile layout of depth " + std::to_string(d));
            std::vector<int3> const corners =
                readTileLayout<Traits>(path, *it->second, d, counts[d]);
            for (std::int64_t t = 0; t < counts[d]; ++t) {
                int3 const c = corners[std::size_t(t)];
                if (d > 0 && acc.tile(c.x, c.y, c.z, d - 1).depth() != d - 1)
                    fail(path, "a tile of depth " + std::to_string(d) + " has no parent");
                auto const& tile = acc.addTile(c.x, c.y, c.z, d);
                if (tile.depth() != d || tile.index() != t || tile.ti() != c.x ||
                    tile.tj() != c.y || tile.tk() != c.z)
                    fail(path, "its tile layout of depth " + std::to_string(d) + " is not a tree");
            }
        }
        for (int d = 0; d <= Traits::kMaxDepth; ++d)
            if (tree.tileCount(d) != counts[d])
                fail(path, "its tile layout is not a tree");
    }
    auto topology = Quillon::makePtr<VoxelTopology<Traits>>(
        topologyName, treeName, topologyVoxelSize, VoxelOffsetType(offsetType));
    topology->update(tree);
    topology->setVoxelSize(topologyVoxelSize);

    VolumeContext<Traits> ctx{tree, voxelSize, topology->offset(), {}};
    for (int d = 0; d <= Traits::kMaxDepth; ++d)
        ctx.origins[d] = detail::tileOrigins(tree, d);

    int const channelCount = meta.integer(kMetaChannelCount);
    if (channelCount < 0 || std::size_t(channelCount) > archive.grids->size() + 1000000)
        fail(path, "its channel count " + std::to_string(channelCount) + " is malformed");
    std::vector<Quillon::Ptr<TVL::Component>> channels;
    std::set<std::string> names{treeName, topologyName};
    for (int n = 0; n < channelCount; ++n) {
        ChannelRecord rec;
        rec.n = n;
        rec.name = meta.text(channelKey(n, "name"));
        if (rec.name.empty() || !names.insert(rec.name).second)
            fail(path, "channel " + std::to_string(n) + " has an empty or repeated name");
        std::string const type = meta.text(channelKey(n, "element_type"));
        rec.defaultHex = meta.text(channelKey(n, "default"));
        rec.minDepth = meta.integer(channelKey(n, "min_depth"));
        rec.depth = meta.integer(channelKey(n, "depth"));
        rec.initializer = meta.integer(channelKey(n, "initializer"));
        rec.construct = meta.flag(channelKey(n, "construct"));
        if (rec.minDepth < 0 || rec.minDepth > Traits::kMaxDepth || rec.depth < -1 ||
            rec.depth > Traits::kMaxDepth)
            fail(path,
                 "the depth range of channel '" + rec.name + "' is outside the tree's depths");
        if (rec.initializer < 0 || rec.initializer > 2)
            fail(path, "the initialiser of channel '" + rec.name + "' is not 0 to 2");
        ElementCodec<Traits> const* codec = nullptr;
        for (auto const& e : codecs<Traits>())
            if (type == e.name)
                codec = &e;
        if (!codec)
            fail(path, "channel '" + rec.name + "' has the unknown element type '" + type + "'");
        if (meta.integer(channelKey(n, "parts")) != codec->parts)
            fail(path, "channel '" + rec.name + "' has the wrong number of grids per depth");
        channels.push_back(codec->read(path, ctx, *topology, rec, grids));
    }

    // Complete: only now does an object exist.
    auto object = TVL::createEmptyTVL();
    object->addComponent(Quillon::makePtr<Container<Traits>>(std::move(tree)));
    object->addComponent(topology);
    for (auto& c : channels)
        object->addComponent(c);
    return object;
}

} // namespace hexmold::io::volume_file

/// The instantiations, one per tree instance, in volume_file_t24.cpp and volume_file_t55.cpp.
#define HEXMOLD_IO_VOLUME_FILE_INSTANCES(PREFIX, TR)                                               \
    PREFIX template void hexmold::io::volume_file::writeVolumeOf<TVL::TileTree3D::TR>(             \
        std::filesystem::path const&, TVL::Object const&,                                          \
        TVL::TileTree3D::Container<TVL::TileTree3D::TR> const&,                                    \
        hexmold::io::VolumeWriteOptions const&);                                                   \
    PREFIX template Quillon::Ptr<TVL::Object>                                                      \
    hexmold::io::volume_file::readVolumeOf<TVL::TileTree3D::TR>(                                   \
        std::filesystem::path const&, hexmold::io::detail::Archive const&);
