/// @file  substrate/commands.cpp
/// @brief Making voxel volume objects.
#include <hexmold/substrate/commands.h>

#include <hexmold/substrate/container.h>

namespace TVL::TileTree3D::Command {

template <typename Traits>
Quillon::Ptr<Object> createVoxelTVL(Quillon::String const& containerName,
                                    Quillon::String const& topologyName, float voxelSize,
                                    VoxelOffsetType offsetType)
{
    Quillon::String const tree =
        containerName.empty() ? Quillon::String(kDefaultContainerName) : containerName;
    Quillon::String const topo =
        topologyName.empty() ? Quillon::String(kDefaultTopologyName) : topologyName;
    auto object = createEmptyTVL();
    auto container = Quillon::makePtr<Container<Traits>>(tree, voxelSize);
    auto topology = Quillon::makePtr<VoxelTopology<Traits>>(topo, tree, voxelSize, offsetType);
    topology->update(*container);
    object->addComponent(container);
    object->addComponent(topology);
    return object;
}

template HEXMOLD_API decltype(createVoxelTVL<Traits24>) createVoxelTVL<Traits24>;
template HEXMOLD_API decltype(createVoxelTVL<Traits55>) createVoxelTVL<Traits55>;

} // namespace TVL::TileTree3D::Command
