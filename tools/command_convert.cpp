// hexmold convert IN OUT: a plain OpenVDB level set becomes an adaptive volume file, a volume file
// becomes a plain OpenVDB level set; which way is decided by what IN is.
#include <cstdio>
#include <hexmold/io/level_set_grid.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <memory>
#include <string>

#include "commands.h"

namespace commands {

namespace {

struct ConvertOptions {
    std::string in, out;
    std::string grid;
    std::string channel = Tavrel::Geometry::sVoxelSignedDistance;
    int tree = 24;
    float halfWidth = 3.0f;
};

void runConvert(ConvertOptions const& o)
{
    if (hexmold::io::isVolumeFile(o.in)) {
        auto const volume = hexmold::io::readVolume(o.in);
        hexmold::io::LevelSetGridOptions options;
        options.halfWidth = o.halfWidth;
        options.gridName = o.grid;
        hexmold::io::writeLevelSetGrid(o.out, *volume, o.channel, options);
        std::printf("%s: level set of channel '%s' written to %s\n", o.in.c_str(),
                    o.channel.c_str(), o.out.c_str());
        return;
    }
    hexmold::io::ImportLevelSetOptions options;
    options.tree =
        o.tree == 55 ? hexmold::io::TreeKind::kTraits55 : hexmold::io::TreeKind::kTraits24;
    options.channelName = o.channel;
    auto const volume = hexmold::io::importLevelSet(o.in, o.grid, options);
    hexmold::io::writeVolume(o.out, *volume);
    std::printf("%s: adaptive volume (Traits<%s>) written to %s\n", o.in.c_str(),
                o.tree == 55 ? "5,5,1" : "2,4,1", o.out.c_str());
}

} // namespace

CLI::App* addConvertCommand(CLI::App& app)
{
    auto* cmd = app.add_subcommand(
        "convert",
        "Convert between a plain OpenVDB level set and a Hexmold volume file: a level-set "
        "FloatGrid becomes a graded, redistanced adaptive volume; a volume file becomes "
        "one narrow-band level-set grid at its finest voxel size");
    auto o = std::make_shared<ConvertOptions>();
    cmd->add_option("IN", o->in, "Input .vdb file")->required();
    cmd->add_option("OUT", o->out, "Output .vdb file")->required();
    cmd->add_option("--grid", o->grid,
                    "Level set to import: the grid's name (default: the first level set); when "
                    "writing a level set, the name of the grid written (default: the channel's)");
    cmd->add_option("--channel", o->channel, "Distance channel of the volume")
        ->capture_default_str();
    cmd->add_option("--tree", o->tree,
                    "Tree of an imported volume: 24 for Traits<2,4,1>, 55 for Traits<5,5,1>")
        ->check(CLI::IsMember({24, 55}))
        ->capture_default_str();
    cmd->add_option("--half-width", o->halfWidth,
                    "Half width of a written level set's band, in voxels")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    cmd->callback([o] { runConvert(*o); });
    return cmd;
}

} // namespace commands
