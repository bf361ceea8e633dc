/// @file  api/volume.cpp
/// @brief `hexmold::Volume`: the queries, each a read of the tree, topology or channels.
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/api/volume.h>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/substrate/bbox.h>
#include <hexmold/substrate/channel_base.h>
#include <hexmold/substrate/type_lists.h>

namespace hexmold {

using namespace TVL::TileTree3D;

char const* traitsName(TraitsKind traits)
{
    return traits == TraitsKind::kTraits24 ? "Traits24" : "Traits55";
}

int maxDepth(TraitsKind traits)
{
    return traits == TraitsKind::kTraits24 ? Traits24::kMaxDepth : Traits55::kMaxDepth;
}

Volume::Volume() = default;

Volume::Volume(TVL::Object object, VolumeNames names) : mNames(std::move(names))
{
    constexpr std::string_view kEntry = "hexmold::Volume";
    if (object.component<Container<Traits24>>(mNames.tree))
        mTraits = TraitsKind::kTraits24;
    else if (object.component<Container<Traits55>>(mNames.tree))
        mTraits = TraitsKind::kTraits55;
    else if (object.component(mNames.tree))
        detail::fail(kEntry,
                     "component \"" + mNames.tree + "\" is not a Traits24 or Traits55 tile tree");
    else
        detail::fail(kEntry, "the object holds no tile tree named \"" + mNames.tree + "\"");
    bool const hasTopology = detail::withTraits(mTraits, [&](auto tag) {
        using Tr = typename decltype(tag)::type;
        return static_cast<bool>(object.component<VoxelTopology<Tr>>(mNames.topology));
    });
    if (!hasTopology)
        detail::fail(kEntry, "the object holds no " + std::string(traitsName(mTraits)) +
                                 " voxel topology named \"" + mNames.topology + "\"");
    mObject.emplace(std::move(object));
}

Volume Volume::adopt(Quillon::Ptr<TVL::Object> const& object, VolumeNames names)
{
    if (!object)
        detail::fail("hexmold::Volume::adopt", "the object pointer is null");
    return Volume(*object, std::move(names));
}

Volume::Volume(Volume const&) = default;
Volume::Volume(Volume&& other) noexcept
    : mObject(std::move(other.mObject)), mNames(std::move(other.mNames)), mTraits(other.mTraits)
{
    other.mObject.reset();
}
Volume& Volume::operator=(Volume const&) = default;
Volume& Volume::operator=(Volume&& other) noexcept
{
    mObject = std::move(other.mObject);
    mNames = std::move(other.mNames);
    mTraits = other.mTraits;
    other.mObject.reset();
    return *this;
}
Volume::~Volume() = default;

TVL::Object const& Volume::object() const
{
    if (!mObject)
        detail::fail("hexmold::Volume", "the volume is empty (it holds no tile tree)");
    return *mObject;
}

TVL::Object& Volume::object()
{
    if (!mObject)
        detail::fail("hexmold::Volume", "the volume is empty (it holds no tile tree)");
    return *mObject;
}

TraitsKind Volume::traits() const
{
    object();
    return mTraits;
}

float Volume::voxelSize() const
{
    return detail::withTraits(traits(), [&](auto tag) {
        using Tr = typename decltype(tag)::type;
        return detail::treeOf<Tr>(*this).voxelSize();
    });
}

std::vector<std::int64_t> Volume::tilesPerDepth() const
{
    return detail::withTraits(traits(), [&](auto tag) {
        using Tr = typename decltype(tag)::type;
        auto const& tree = detail::treeOf<Tr>(*this);
        std::vector<std::int64_t> out(Tr::kDepthCount);
        for (int d = 0; d < Tr::kDepthCount; ++d)
            out[std::size_t(d)] = tree.tileCount(d);
        return out;
    });
}

std::uint64_t Volume::voxelCount() const
{
    return detail::withTraits(traits(), [&](auto tag) {
        using Tr = typename decltype(tag)::type;
        return detail::treeOf<Tr>(*this).voxelDataCount(-1);
    });
}

WorldBox Volume::bbox() const
{
    return detail::withTraits(traits(), [&](auto tag) {
        using Tr = typename decltype(tag)::type;
        auto const& tree = detail::treeOf<Tr>(*this);
        WorldBox out;
        if (tree.tileCount(-1) == 0)
            return out;
        TVL::TileTree3D::bbox<double3, double> box;
        tree.worldSpaceBounds(box);
        out.min = box.min;
        out.max = box.max;
        return out;
    });
}

std::vector<ChannelInfo> Volume::channels() const
{
    TVL::Object const& obj = object();
    std::vector<ChannelInfo> out;
    for (auto const& name : obj.componentRange()) {
        auto const channel = obj.component<ChannelBase>(name);
        if (!channel)
            continue;
        ChannelInfo info;
        info.name = name;
        info.elementType = detail::elementTypeName(channel->elementType());
        info.minDepth = channel->minDepth();
        info.maxDepth = channel->depth();
        info.voxelForm = detail::withTraits(mTraits, [&](auto tag) {
            using Tr = typename decltype(tag)::type;
            bool found = false;
#define HEXMOLD_API_IS_VOXEL_CHANNEL(TR, T)                                                        \
    found = found || obj.component<VoxelChannel<TR, T>>(name);
            HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_API_IS_VOXEL_CHANNEL, Tr)
#undef HEXMOLD_API_IS_VOXEL_CHANNEL
            return found;
        });
        out.push_back(std::move(info));
    }
    return out;
}

std::size_t Volume::memoryBytes() const
{
    TVL::Object const& obj = object();
    std::size_t total = 0;
    for (auto const& name : obj.componentRange()) {
        std::size_t used = 0, reserved = 0;
        obj.component(name)->memUse(used, reserved, true);
        total += used;
    }
    return total;
}

double Volume::voxelHash(std::string_view channel) const
{
    constexpr std::string_view kEntry = "hexmold::Volume::voxelHash";
    TVL::Object const& obj = object();
    std::string const name(channel);
    return detail::withTraits(mTraits, [&](auto tag) {
        using Tr = typename decltype(tag)::type;
        auto const& tree = detail::treeOf<Tr>(*this);
#define HEXMOLD_API_HASH_CHANNEL(TR, T)                                                            \
    if (auto ch = obj.component<VoxelChannel<TR, T>>(name))                                        \
        return CoreGL::voxelHash(tree, *ch);
        HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_API_HASH_CHANNEL, Tr)
#undef HEXMOLD_API_HASH_CHANNEL
        if (!obj.component(name))
            detail::fail(kEntry, "channel \"" + name + "\" is not in the volume (channels: " +
                                     detail::channelNames(obj) + ")");
        detail::fail(
            kEntry, "\"" + name +
                        "\" is not a channel with one element per voxel of the volume's tree type");
    });
}

} // namespace hexmold
