// hexmold demo, fingerprint part: the voxel hash of channels, the number that the debug lines of
// the operators print, so that two runs of the demo can be compared number by number.
#pragma once
#include <cstdio>
#include <hexmold/diagnostics/object_info.h>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>

namespace demo {

/// Prints "<indent><channel name>.voxel_hash = <hash>" for @p channel on @p tree, the hash with 17
/// significant digits.
template <typename Traits, typename T>
void printVoxelHash(TVL::TileTree3D::Container<Traits> const& tree,
                    TVL::TileTree3D::VoxelChannel<Traits, T> const& channel,
                    char const* indent = "  ")
{
    std::printf("%s%s.voxel_hash = %.17g\n", indent, channel.name().c_str(),
                CoreGL::voxelHash(tree, channel));
}

/// Prints the same line for every voxel channel of @p object (a volume with the standard tree and
/// topology names), in name order.
inline void printVoxelHashes(TVL::Object const& object, char const* indent = "  ")
{
    CoreGL::ObjectInfo const info = CoreGL::computeObjectInfo(object, Tavrel::Geometry::sVoxelComp,
                                                              Tavrel::Geometry::sVoxelTileTree);
    for (auto const& [name, record] : info.components) {
        if (name == Tavrel::Geometry::sVoxelComp || name == Tavrel::Geometry::sVoxelTileTree)
            continue;
        std::printf("%s%s.voxel_hash = %.17g\n", indent, name.c_str(), record.hash);
    }
}

} // namespace demo
