/// @file  substrate/channel_update.cpp
/// @brief The free update functions over the channels of an object.
#include <hexmold/substrate/channel_update.h>

#include <hexmold/logging/logger.h>
#include <hexmold/substrate/topology.h>
#include <iostream>
#include <vector>

namespace TVL::TileTree3D {

namespace {

/// Writable channels of @p object whose target is @p topologyName.
std::vector<ChannelBase*> boundChannels(Object& object, Quillon::String const& topologyName)
{
    std::vector<ChannelBase*> out;
    for (Quillon::String const& name : object.componentRange()) {
        if (!object.hasComponentFromName<ChannelBase>(name))
            continue;
        if (object.component(name)->targetName() != topologyName)
            continue;
        out.push_back(static_cast<ChannelBase*>(object.mutableComponent(name)));
    }
    return out;
}

} // namespace

void updateTilesAdded(Component const& topology, Object& object)
{
    for (ChannelBase* c : boundChannels(object, topology.name()))
        c->updateTilesAdded(topology);
}

void updateTilesRemoved(std::span<TileMoveList const> moved, Component const& topology,
                        Object& object)
{
    for (ChannelBase* c : boundChannels(object, topology.name()))
        c->updateTilesRemoved(moved, topology);
}

template <typename Traits>
void initializeTileData(Container<Traits> const& container, TileCornerLists<Traits> const& newTiles,
                        Object& object)
{
    // The object's voxel topology is the one that targets the container. A driver usually holds
    // it extracted; then every channel not bound to a point topology is taken.
    std::vector<ChannelBase*> channels;
    Quillon::String topologyName;
    bool inObject = false;
    for (Quillon::String const& name : object.componentRange()) {
        auto t = object.component<VoxelTopology<Traits>>(name);
        if (t && t->targetName() == container.name()) {
            topologyName = name;
            inObject = true;
            break;
        }
    }
    if (inObject) {
        channels = boundChannels(object, topologyName);
    } else {
        for (Quillon::String const& name : object.componentRange()) {
            auto c = object.component<ChannelBase>(name);
            if (!c)
                continue;
            Quillon::String const& target = c->targetName();
            if (target == Const::TileTreePointTopologyName ||
                object.hasComponentFromName<PointTopology<Traits>>(target))
                continue;
            c.reset();
            channels.push_back(static_cast<ChannelBase*>(object.mutableComponent(name)));
        }
    }
    if (channels.empty())
        return;

    auto accessor = container.tileAccessor();
    std::vector<TileParentLink> links;
    for (int d = 1; d < Traits::kDepthCount; ++d) {
        if (newTiles[d].empty())
            continue;
        links.clear();
        links.reserve(newTiles[d].size());
        for (int3 const& corner : newTiles[d]) {
            auto const& tile = accessor.tile(corner.x, corner.y, corner.z, d);
            if (!tile.valid() || tile.depth() != d || tile.parent() < 0)
                continue;
            auto const& parent = container.tile(tile.parent(), d - 1);
            links.push_back(
                TileParentLink{tile.index(), tile.parent(), parent.childIJK(tile.tijk())});
        }
        for (ChannelBase* c : channels)
            if (d - 1 >= c->minDepth() && d <= c->depth())
                c->initializeFromParents(d, links);
    }
}

template <typename Traits> TileLayout<Traits> recordTileLayout(Container<Traits> const& container)
{
    TileLayout<Traits> out;
    for (int d = 0; d < Traits::kDepthCount; ++d) {
        std::int64_t const n = container.tileCount(d);
        auto& corners = out.corners[std::size_t(d)];
        corners.resize(std::size_t(n));
        for (std::int64_t t = 0; t < n; ++t)
            corners[std::size_t(t)] = container.tile(t, d).tijk();
    }
    return out;
}

template <typename Traits>
TileMoveLists<Traits> tileMovesSince(TileLayout<Traits> const& before,
                                     Container<Traits> const& after)
{
    TileMoveLists<Traits> moved;
    std::int64_t unmatched = 0;
    for (int d = 0; d < Traits::kDepthCount; ++d) {
        auto const& corners = before.corners[std::size_t(d)];
        std::size_t const count = corners.size();
        std::int64_t const n = after.tileCount(d);
        std::size_t from = 0;
        for (std::int64_t to = 0; to < n; ++to, ++from) {
            int3 const corner = after.tile(to, d).tijk();
            while (from < count && !(corners[from] == corner))
                ++from;
            if (from == count) {
                unmatched += n - to;
                break;
            }
            if (std::int64_t(from) != to)
                moved[d].emplace_back(std::int64_t(from), to);
        }
    }
    if (unmatched && CoreGL::Logger::errorVerboseLevel() > 0)
        std::cerr << "tileMovesSince.error: " << unmatched
                  << " tiles are not in the recorded layout; their moves are left out\n";
    return moved;
}

template HEXMOLD_API decltype(recordTileLayout<Traits24>) recordTileLayout<Traits24>;
template HEXMOLD_API decltype(recordTileLayout<Traits55>) recordTileLayout<Traits55>;
template HEXMOLD_API decltype(tileMovesSince<Traits24>) tileMovesSince<Traits24>;
template HEXMOLD_API decltype(tileMovesSince<Traits55>) tileMovesSince<Traits55>;
template HEXMOLD_API decltype(initializeTileData<Traits24>) initializeTileData<Traits24>;
template HEXMOLD_API decltype(initializeTileData<Traits55>) initializeTileData<Traits55>;

} // namespace TVL::TileTree3D
