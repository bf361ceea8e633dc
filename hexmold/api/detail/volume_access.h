/// @file  api/detail/volume_access.h
/// @brief What the entries of the `hexmold::` layer share: the refusals with their messages, the
///        dispatch from `TraitsKind` to the tree type, typed reads of a volume's components, and
///        the runtime services that turn a driver's error message into the entry's error.
#pragma once
#include <cmath>
#include <hexmold/api/error.h>
#include <hexmold/api/volume.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/traits.h>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>

namespace hexmold::detail {

/// Throws `Error` with the message "<entry>: <what>".
[[noreturn]] void fail(std::string_view entry, std::string const& what);

/// The runtime's name of a channel element type ("float", "double3", ...), "unknown" for others.
std::string elementTypeName(std::type_info const& type);

/// The names of the channels of @p object, comma separated, or "none".
std::string channelNames(TVL::Object const& object);

/// Refuses an empty volume, or one whose tree has no tile.
void requireTiles(Volume const& volume, std::string_view entry);

/// Refuses a NaN or infinite @p value.
void requireFinite(double value, std::string_view what, std::string_view entry);

/// Refuses anything but a finite @p value > 0.
void requirePositive(double value, std::string_view what, std::string_view entry);

/// Refuses an inverted or out-of-range inclusive depth range of @p traits; -1 for @p maxDepth
/// means the deepest depth. @return the range with -1 resolved.
std::pair<int, int> depthRange(int minDepth, int maxDepth, TraitsKind traits,
                               std::string_view entry);

/// Calls @p f with `std::type_identity<Traits24>` or `std::type_identity<Traits55>`.
template <typename F> decltype(auto) withTraits(TraitsKind traits, F&& f)
{
    if (traits == TraitsKind::kTraits24)
        return f(std::type_identity<TVL::TileTree3D::Traits24>{});
    return f(std::type_identity<TVL::TileTree3D::Traits55>{});
}

/// The tree of @p volume, known to be of type @p Traits.
template <typename Traits> TVL::TileTree3D::Container<Traits> const& treeOf(Volume const& volume)
{
    return *volume.object().component<TVL::TileTree3D::Container<Traits>>(volume.names().tree);
}

/// The voxel topology of @p volume, known to be of type @p Traits.
template <typename Traits>
TVL::TileTree3D::VoxelTopology<Traits> const& topologyOf(Volume const& volume)
{
    return *volume.object().component<TVL::TileTree3D::VoxelTopology<Traits>>(
        volume.names().topology);
}

/// @brief Refuses @p name unless it names a voxel channel of element @p T in @p volume, with a
///        message that tells a missing channel from one of another element type or form.
/// @param expected  what the entry takes, for the message ("a float channel")
template <typename Traits, typename T>
void requireChannel(Volume const& volume, std::string const& name, std::string_view expected,
                    std::string_view entry)
{
    TVL::Object const& object = volume.object();
    auto const component = object.component(name);
    if (!component)
        fail(entry, "channel \"" + name +
                        "\" is not in the volume (channels: " + channelNames(object) + ")");
    if (object.component<TVL::TileTree3D::VoxelChannel<Traits, T>>(name))
        return;
    auto const* channel = dynamic_cast<TVL::TileTree3D::ChannelBase const*>(component.get());
    if (!channel)
        fail(entry, "\"" + name + "\" is not a channel; " + std::string(entry) + " takes " +
                        std::string(expected));
    fail(entry, "channel \"" + name + "\" holds " + elementTypeName(channel->elementType()) +
                    " elements; " + std::string(entry) + " takes " + std::string(expected) +
                    " with one element per voxel");
}

/// Runtime services for a driver call: its first error message is kept, to become the error of
/// the entry.
class CollectingServices : public Quillon::RuntimeServices {
public:
    bool isLogEnabled(Quillon::RuntimeMessageCategory) const override { return true; }
    void logImpl(Quillon::RuntimeMessageCategory category, Quillon::StringView text) const override
    {
        if (category == Quillon::RuntimeMessageCategory::kError && error.empty())
            error = std::string(text);
    }
    mutable std::string error;
};

} // namespace hexmold::detail
