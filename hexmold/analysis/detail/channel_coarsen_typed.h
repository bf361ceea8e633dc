/// @file  analysis/detail/channel_coarsen_typed.h
/// @brief The typed stage of `channelCoarsen`: one function per tree type and element type,
///        declared for the dispatch and instantiated in the shards.
#pragma once
#include <hexmold/platform/quillon/string.h>

namespace TVL {
class Object;
}

namespace VolumeGL::TileTree3D::detail {

/// The arguments of `channelCoarsen` that the stages read.
struct CoarsenSettings {
    float minDetailSize;    ///< world
    float maxRelativeError; ///< absolute, in the channel's units
    bool storeError;
    float bandWidth; ///< channel units, or tile voxels for the signed distance
};

/// Both stages on the voxel channel @p name of element type T of the object's tree of type
/// Traits. The caller has checked that the tree, its topology and such a channel exist and that
/// the tree is not empty. @return false, logged, when the channel is out of step with the tree.
template <typename Traits, typename T>
bool typedChannelCoarsen(Quillon::String const& name, CoarsenSettings const& settings,
                         TVL::Object& object);

} // namespace VolumeGL::TileTree3D::detail
