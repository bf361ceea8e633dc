/// @file  api/detail/volume_access.cpp
/// @brief The refusals and names shared by the entries of the `hexmold::` layer.
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/substrate/channel_base.h>
#include <hexmold/substrate/type_lists.h>
#include <utility>

namespace hexmold::detail {

namespace {

template <typename T>
constexpr std::pair<std::type_info const*, char const*> named(char const* name)
{
    return {&typeid(T), name};
}

} // namespace

void fail(std::string_view entry, std::string const& what)
{
    throw Error(std::string(entry) + ": " + what);
}

std::string elementTypeName(std::type_info const& type)
{
    using namespace TVL::TileTree3D;
    // The names of the runtime's data properties (platform/tavrel/element_types.h).
#define HEXMOLD_NAMED_ELEMENT(T, text) named<T>(text),
    static std::pair<std::type_info const*, char const*> const kNames[] = {
        HEXMOLD_FOR_EACH_NAMED_ELEMENT_TYPE(HEXMOLD_NAMED_ELEMENT)};
#undef HEXMOLD_NAMED_ELEMENT
    for (auto const& [info, name] : kNames)
        if (*info == type)
            return name;
    return "unknown";
}

std::string channelNames(TVL::Object const& object)
{
    std::string out;
    for (auto const& name : object.componentRange()) {
        if (!object.hasComponentFromName<TVL::TileTree3D::ChannelBase>(name))
            continue;
        if (!out.empty())
            out += ", ";
        out += name;
    }
    return out.empty() ? "none" : out;
}

void requireTiles(Volume const& volume, std::string_view entry)
{
    if (volume.empty())
        fail(entry, "the volume is empty (it holds no tile tree)");
    std::int64_t tiles = 0;
    for (std::int64_t n : volume.tilesPerDepth())
        tiles += n;
    if (tiles == 0)
        fail(entry, "the volume's tree has no tiles");
}

void requireFinite(double value, std::string_view what, std::string_view entry)
{
    if (!std::isfinite(value))
        fail(entry, std::string(what) + " is " + std::to_string(value) + ", not a finite number");
}

void requirePositive(double value, std::string_view what, std::string_view entry)
{
    requireFinite(value, what, entry);
    if (!(value > 0.0))
        fail(entry, std::string(what) + " must be positive, not " + std::to_string(value));
}

std::pair<int, int> depthRange(int minDepth, int maxDepth, TraitsKind traits,
                               std::string_view entry)
{
    int const deepest = hexmold::maxDepth(traits);
    int const hi = maxDepth == -1 ? deepest : maxDepth;
    if (minDepth < 0 || hi > deepest || minDepth > hi)
        fail(entry, "depth range [" + std::to_string(minDepth) + ", " + std::to_string(maxDepth) +
                        "] is not within [0, " + std::to_string(deepest) + "] of " +
                        traitsName(traits) + " with the minimum at most the maximum");
    return {minDepth, hi};
}

} // namespace hexmold::detail
