/// @file  substrate/commands.h
/// @brief Making volume objects and their channels: `Command::createVoxelTVL` and
///        `Command::createChannel`.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/traits.h>

namespace TVL::TileTree3D::Command {

/// Name given to the container when `createVoxelTVL` is passed an empty name.
inline constexpr char kDefaultContainerName[] = "voxel_tile_tree";
/// Name given to the voxel topology when `createVoxelTVL` is passed an empty name.
inline constexpr char kDefaultTopologyName[] = "voxel_topology";

/// @brief An object holding a new, empty `Container<Traits>` and a `VoxelTopology<Traits>`
///        that targets it.
/// @param containerName  name of the container; empty: `kDefaultContainerName`
/// @param topologyName   name of the topology; empty: `kDefaultTopologyName`
/// @param voxelSize      world size of a voxel of the deepest depth (> 0)
/// @param offsetType     where samples sit in their voxels
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API Quillon::Ptr<Object> createVoxelTVL(Quillon::String const& containerName,
                                                Quillon::String const& topologyName,
                                                float voxelSize, VoxelOffsetType offsetType);

/// The tree instance of refinement ratio R and tile width TW: (2, 4) or (5, 5).
template <int R, int TW> using TraitsOf = Traits<R, TW, 1>;

/// @brief Creates a channel bound to @p topology, allocates its blocks for the topology's tiles,
///        adds it to @p object (replacing any component of that name) and returns it. The
///        returned pointer shares the channel with the object.
/// @tparam T      element type
/// @tparam R, TW  select the tree instance: (2, 4) for `Traits<2,4,1>`, (5, 5) for `Traits<5,5,1>`
/// @tparam W, H   the channel form
/// @param minDepth, depth  inclusive depth range, usually 0 to the deepest depth
template <typename T, int R, int TW, int W, int H>
Quillon::Ptr<Channel<TraitsOf<R, TW>, T, W, H, 0>>
createChannel(Quillon::String const& name, VoxelTopology<TraitsOf<R, TW>> const& topology,
              Object& object, T defaultValue, DataElementInitializerType initializer, int minDepth,
              int depth)
{
    auto channel = Quillon::makePtr<Channel<TraitsOf<R, TW>, T, W, H, 0>>(
        name, &defaultValue, initializer, false, true, minDepth, depth);
    channel->setTargetName(topology.name());
    channel->update(topology);
    object.addComponent(channel);
    return channel;
}

} // namespace TVL::TileTree3D::Command
