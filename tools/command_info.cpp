// hexmold info FILE: what a volume file holds: the tree (tiles and voxels per depth, bounding box,
// memory), and each channel with its element type, depth range, default, value range and voxel
// hash.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <hexmold/diagnostics/object_info.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/bbox.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/type_lists.h>
#include <limits>
#include <string>

#include "commands.h"

namespace commands {

namespace {

using namespace TVL::TileTree3D;

double megabytes(std::size_t bytes)
{
    return double(bytes) / (1024.0 * 1024.0);
}

template <typename T, typename = void> struct ScalarOf {
    using Type = T;
};
template <typename T> struct ScalarOf<T, std::void_t<typename T::ValueType>> {
    using Type = typename T::ValueType;
};

/// Prints one line for the channel @p name if it is a voxel channel of element type T.
template <typename Traits, typename T>
bool printChannel(TVL::Object const& object, std::string const& name, char const* type, double hash)
{
    auto const channel = object.component<VoxelChannel<Traits, T>>(name);
    if (!channel)
        return false;
    using S = typename ScalarOf<T>::Type;
    constexpr int K = Tavrel::Math::ComponentCount<T>::value;
    // The range over every component of every voxel; NaNs are left out.
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (int d = 0; d <= Traits::kMaxDepth; ++d)
        for (auto const& block : channel->blocks(d))
            for (T const& v : block) {
                S c[K];
                std::memcpy(c, &v, sizeof(T));
                for (S x : c) {
                    double const y = double(x);
                    if (y < lo)
                        lo = y;
                    if (y > hi)
                        hi = y;
                }
            }
    S def[K];
    T const dv = channel->defaultValue();
    std::memcpy(def, &dv, sizeof(T));
    std::string defaults;
    for (int i = 0; i < K; ++i)
        defaults += (i ? " " : "") + std::to_string(double(def[i]));
    std::printf("  %-28s %-9s depths %2d-%-2d  default %-12s  range ", name.c_str(), type,
                channel->minDepth(), channel->depth(),
                K == 1 ? defaults.c_str() : ("(" + defaults + ")").c_str());
    if (lo <= hi)
        std::printf("[%.9g, %.9g]", lo, hi);
    else
        std::printf("(none)");
    std::printf("  voxel hash %.17g\n", hash);
    return true;
}

template <typename Traits> void printVolume(std::string const& path, TVL::Object const& object)
{
    Quillon::Ptr<Container<Traits>> tree;
    Quillon::Ptr<VoxelTopology<Traits>> topology;
    for (auto const& name : object.componentRange()) {
        if (auto t = object.component<Container<Traits>>(name))
            tree = t;
        if (auto t = object.component<VoxelTopology<Traits>>(name))
            topology = t;
    }
    std::printf(
        "%s: Hexmold volume, Traits<%d,%d,%d>, finest voxel %.9g, samples at offset type %d\n",
        path.c_str(), Traits::kRatio, Traits::kTileWidth, Traits::kElementWidth,
        double(tree->voxelSize()), int(topology->offsetType()));
    std::printf("tree '%s', topology '%s'\n", tree->name().c_str(), topology->name().c_str());
    if (tree->tileCount(-1) > 0) {
        bbox<double3, double> box;
        tree->worldSpaceBounds(box);
        std::printf("bounding box of the leaf tiles: (%.6g, %.6g, %.6g) to (%.6g, %.6g, %.6g)\n",
                    box.min.x, box.min.y, box.min.z, box.max.x, box.max.y, box.max.z);
    }
    std::printf("  %5s %10s %12s %14s\n", "depth", "tiles", "voxels", "voxel width");
    for (int d = 0; d <= Traits::kMaxDepth; ++d)
        if (tree->tileCount(d) > 0)
            std::printf("  %5d %10lld %12llu %14.6g\n", d, (long long)tree->tileCount(d),
                        (unsigned long long)tree->voxelDataCount(d),
                        double(Traits::voxelDataWidth(d)) * double(tree->voxelSize()));
    std::size_t treeUsed = 0, channelsUsed = 0, reserved = 0;
    tree->memUse(treeUsed, reserved, true);
    for (auto const& name : object.componentRange())
        if (name != tree->name() && name != topology->name())
            object.component(name)->memUse(channelsUsed, reserved, true);
    std::printf("  total: %lld tiles, %llu voxels; memory in use: tree %.2f MB, channels %.2f MB\n",
                (long long)tree->tileCount(-1), (unsigned long long)tree->voxelDataCount(-1),
                megabytes(treeUsed), megabytes(channelsUsed));

    CoreGL::ObjectInfo const info =
        CoreGL::computeObjectInfo(object, topology->name(), tree->name());
    std::printf("channels:\n");
    for (auto const& [name, record] : info.components) {
        if (name == tree->name() || name == topology->name())
            continue;
        bool found = false;
#define HEXMOLD_INFO_CHANNEL(TR, T)                                                                \
    found = found || printChannel<Traits, T>(object, name, #T, record.hash);
        HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_INFO_CHANNEL, Traits)
#undef HEXMOLD_INFO_CHANNEL
    }
}

void runInfo(std::string const& path)
{
    auto const object = hexmold::io::readVolume(path);
    for (auto const& name : object->componentRange()) {
        if (object->component<Container<Traits24>>(name))
            return printVolume<Traits24>(path, *object);
        if (object->component<Container<Traits55>>(name))
            return printVolume<Traits55>(path, *object);
    }
}

} // namespace

CLI::App* addInfoCommand(CLI::App& app)
{
    auto* cmd = app.add_subcommand(
        "info", "Print what a Hexmold volume file holds: tiles and voxels per depth, "
                "bounding box, memory, and each channel's type, range and voxel hash");
    auto path = std::make_shared<std::string>();
    cmd->add_option("FILE", *path, "Volume file (.vdb) written by hexmold")->required();
    cmd->callback([path] { runInfo(*path); });
    return cmd;
}

} // namespace commands
