/// @file  diagnostics/object_info.cpp
/// @brief Fingerprints of volume objects and their comparison.
#include <hexmold/diagnostics/object_info.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/type_lists.h>
#include <iostream>
#include <string>

namespace CoreGL {

namespace {

using namespace TVL::TileTree3D;
using Quillon::String;

/// Relative tolerance of two hashes of the same data: one unit of rounding of a double.
constexpr double kHashRelativeTolerance = 2.220446049250313e-16;
/// Absolute floor of that tolerance: the smallest normal double.
constexpr double kHashAbsoluteTolerance = 2.2250738585072014e-308;

void debugLine(Quillon::StringView text)
{
    Logger::DebugFileStreamScopedLock lock;
    Logger::debugFileStream() << text << '\n';
}

void errorLine(Quillon::StringView text)
{
    if (Logger::errorVerboseLevel() > 0)
        std::cerr << text << '\n';
}

template <typename Traits> std::string traitsArguments()
{
    return std::to_string(Traits::kRatio) + ", " + std::to_string(Traits::kTileWidth) + ", " +
           std::to_string(Traits::kElementWidth);
}

/// Owners of a component besides the pointer @p p held here.
template <typename T> std::uint64_t otherOwners(Quillon::Ptr<T> const& p)
{
    return p.useCount() > 1 ? static_cast<std::uint64_t>(p.useCount() - 1) : 0;
}

/// The record of a tree or a topology: hashed by its tile count.
template <typename C>
ComponentInfo structureRecord(Quillon::Ptr<C> const& c, void const* firstElement)
{
    ComponentInfo r;
    r.hash = std::bit_cast<double>(static_cast<std::int64_t>(c->tileCount(-1)));
    r.size = c->size();
    r.useCount = otherOwners(c);
    r.dataUseCount = r.useCount;
    r.component = static_cast<TVL::Component const*>(c.get());
    r.firstElement = firstElement;
    return r;
}

/// Records the channel @p name if it is a voxel channel of element type T; true when it is.
template <typename Traits, typename T>
bool recordChannel(TVL::Object const& object, String const& name,
                   Container<Traits> const& container, ObjectInfo& info)
{
    auto const channel = object.component<VoxelChannel<Traits, T>>(name);
    if (!channel)
        return false;
    if (Logger::verboseLevel() > 2)
        debugLine("found channel for '" + name + "'");
    ComponentInfo r;
    r.hash = voxelHash(container, *channel);
    r.size = channel->size();
    r.useCount = otherOwners(channel);
    r.dataUseCount = static_cast<std::uint64_t>(channel->dataUseCount());
    r.component = channel.get();
    auto const* first = channel->block(0, 0);
    r.firstElement = first && !first->empty() ? static_cast<void const*>(first->data()) : nullptr;
    info.components[name] = r;
    return true;
}

/// The step of one tree type; false when the object holds no tree of that type.
template <typename Traits>
bool objectInfoStep(TVL::Object const& object, String const& topologyName,
                    String const& containerName, ObjectInfo& info)
{
    if (Logger::verboseLevel() > 2)
        debugLine("computeObjectInfo<" + traitsArguments<Traits>() + ">");
    auto const container = object.component<Container<Traits>>(containerName);
    if (!container) {
        if (Logger::verboseLevel() > 2)
            debugLine("Found no container with this type. Exiting.");
        return false;
    }
    info.componentsUseCount = object.componentsUseCount();
    void const* const firstTile = container->tileCount(0) > 0 ? &container->tile(0, 0) : nullptr;
    info.components[containerName] = structureRecord(container, firstTile);
    if (auto const topology = object.component(topologyName))
        info.components[topologyName] = structureRecord(topology, nullptr);

    for (String const& name : object.componentRange()) {
        if (name == containerName || name == topologyName)
            continue;
        bool found = false;
#define HEXMOLD_TRY_CHANNEL(TR, T)                                                                 \
    if (!found)                                                                                    \
        found = recordChannel<TR, T>(object, name, *container, info);
        HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_TRY_CHANNEL, Traits)
#undef HEXMOLD_TRY_CHANNEL
    }
    return true;
}

bool hashesAgree(double a, double b)
{
    double const difference = std::abs(a - b);
    return difference <= std::abs(a + b) * kHashRelativeTolerance ||
           difference < kHashAbsoluteTolerance;
}

} // namespace

ObjectInfo computeObjectInfo(TVL::Object const& object, Quillon::String const& topologyName,
                             Quillon::String const& containerName)
{
    ObjectInfo info;
    bool const found24 = objectInfoStep<Traits24>(object, topologyName, containerName, info);
    bool const found55 = objectInfoStep<Traits55>(object, topologyName, containerName, info);
    if (!found24 && !found55) {
        errorLine("computeObjectInfoHelper.error: unable to compute info about object, it has an "
                  "unsupported "
                  "traits type");
        return ObjectInfo{};
    }
    return info;
}

bool verifyObjectInfo(ObjectInfo const& before, ObjectInfo const& after)
{
    bool ok = true;
    for (auto const& [name, a] : after.components) {
        auto const it = before.components.find(name);
        if (it == before.components.end()) {
            if (Logger::errorVerboseLevel() >= 2)
                std::cerr << "verifyObjectInfo.warning: Component " << name
                          << " does not exist in objectInfo struct\n";
            continue;
        }
        ComponentInfo const& b = it->second;
        if (b.size == a.size && hashesAgree(b.hash, a.hash)) {
            if (Logger::verboseLevel() >= 3)
                debugLine("verifyObjectInfo: component '" + name + "' ok");
            continue;
        }
        bool const shared = b.useCount > 1 || b.dataUseCount > 1 || before.componentsUseCount > 1;
        if (shared) {
            bool notCloned = false;
            if (b.firstElement && b.firstElement == a.firstElement)
                notCloned = true;
            else if (b.component == a.component && b.useCount != 1)
                notCloned = true;
            if (notCloned) {
                errorLine("verifyObjectInfo.error: ref count for component " + name +
                          " before is larger than one, but data was not cloned");
                ok = false;
            }
        } else if (b.firstElement && b.firstElement != a.firstElement) {
            errorLine("verifyObjectInfo.error: ref count for component " + name +
                      " before is one, but data was cloned");
            ok = false;
        }
    }
    return ok;
}

} // namespace CoreGL
