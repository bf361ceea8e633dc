/// @file  analysis/channel_coarsen.cpp
/// @brief `channelCoarsen`: arguments, the choice of tree type and element type, and the move of
///        a geometry object's volume in and out.
#include <hexmold/analysis/channel_coarsen.h>

#include <cmath>
#include <hexmold/analysis/detail/channel_coarsen_typed.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/object.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/scene_conversion.h>
#include <hexmold/substrate/scope_guard.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/type_lists.h>
#include <iostream>

namespace VolumeGL::TileTree3D {

namespace {

using namespace TVL::TileTree3D;
using CoreGL::Logger;

/// What one tree type made of the call.
enum class Outcome { kNoTree, kNoChannel, kEmptyTree, kFailed, kDone };

void reportError(char const* what, Quillon::String const& name)
{
    if (Logger::errorVerboseLevel() > 0)
        std::cerr << "channelCoarsen: " << what << " '" << name << "'\n";
}

/// The object's tree of type Traits, if any, and the typed stages on the channel @p name.
template <typename Traits>
Outcome coarsenTraits(Quillon::String const& name, detail::CoarsenSettings const& settings,
                      TVL::Object& object)
{
    auto const container = object.component<Container<Traits>>(Tavrel::Geometry::sVoxelTileTree);
    if (!container ||
        !object.hasComponentFromName<VoxelTopology<Traits>>(Tavrel::Geometry::sVoxelComp))
        return Outcome::kNoTree;
    bool const empty = container->tileCount(-1) == 0;
#define HEXMOLD_COARSEN_IF_TYPE(TR, T)                                                             \
    if (object.hasComponentFromName<VoxelChannel<TR, T>>(name)) {                                  \
        if (empty)                                                                                 \
            return Outcome::kEmptyTree;                                                            \
        return detail::typedChannelCoarsen<TR, T>(name, settings, object) ? Outcome::kDone         \
                                                                          : Outcome::kFailed;      \
    }
    HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_COARSEN_IF_TYPE, Traits)
#undef HEXMOLD_COARSEN_IF_TYPE
    return Outcome::kNoChannel;
}

} // namespace

bool channelCoarsen(Quillon::String const& channelName, float minDetailSize, float maxRelativeError,
                    bool storeError, float bandWidth, TVL::Object& io_volume,
                    Quillon::String const& timerPrefix)
{
    auto const timer = Logger::timer(timerPrefix + "coarsen", nullptr);
    if (Logger::verboseLevel() > 1)
        std::cout << "in_channelName = " << channelName << '\n'
                  << "in_minDetailSize = " << minDetailSize << '\n'
                  << "in_maxRelativeError = " << maxRelativeError << '\n'
                  << "in_storeError = " << storeError << '\n'
                  << "in_bandWidth = " << bandWidth << '\n';
    if (std::isnan(minDetailSize) || std::isnan(maxRelativeError) || std::isnan(bandWidth)) {
        reportError("a NaN argument; nothing done for the channel", channelName);
        return false;
    }
    detail::CoarsenSettings const settings{minDetailSize, maxRelativeError, storeError, bandWidth};
    Outcome outcome = coarsenTraits<Traits24>(channelName, settings, io_volume);
    if (outcome == Outcome::kNoTree || outcome == Outcome::kNoChannel) {
        Outcome const other = coarsenTraits<Traits55>(channelName, settings, io_volume);
        if (other != Outcome::kNoTree)
            outcome = other;
    }
    switch (outcome) {
    case Outcome::kDone:
        return true;
    case Outcome::kNoTree:
        reportError("no tile tree with a voxel topology; nothing done for the channel",
                    channelName);
        break;
    case Outcome::kNoChannel:
        reportError("no voxel channel of the tile tree is named", channelName);
        break;
    case Outcome::kEmptyTree:
        reportError("the tile tree is empty; nothing done for the channel", channelName);
        break;
    case Outcome::kFailed:
        break; // reported where it failed
    }
    return false;
}

bool channelCoarsen(Quillon::String const& channelName, float minDetailSize, float maxRelativeError,
                    bool storeError, float bandWidth,
                    Quillon::MutablePtr<Tavrel::Object>& io_object,
                    Quillon::String const& timerPrefix)
{
    if (!io_object) {
        reportError("no object; nothing done for the channel", channelName);
        return false;
    }
    Tavrel::Object& geometry = *io_object;
    TVL::Object volume = Tavrel::Geometry::move_object_to_tvl_volume(geometry);
    // The components go back into the caller's object, also while an exception unwinds.
    auto const moveBack = TVL::onScopeExit([&] {
        Tavrel::Object moved = Tavrel::Geometry::move_tvl_volume_to_object(volume);
        for (Quillon::String const& name : moved.propertyNames())
            geometry.setProperty(name, moved.extractProperty(name));
    });
    return channelCoarsen(channelName, minDetailSize, maxRelativeError, storeError, bandWidth,
                          volume, timerPrefix);
}

} // namespace VolumeGL::TileTree3D
