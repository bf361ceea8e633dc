// hexmold points FILE: the options of the command; the work is in points_command.cpp.
#include <memory>
#include <string>

#include "commands.h"
#include "points_command.h"

namespace commands {

CLI::App* addPointsCommand(CLI::App& app)
{
    auto* cmd = app.add_subcommand(
        "points",
        "A point cloud file (PLY, XYZ, CSV) becomes the signed distance volume of one sphere "
        "per point");
    auto a = std::make_shared<hexmoldtool::PointsArgs>();
    cmd->add_option("FILE", a->file, "The point cloud file")->required();
    cmd->add_option("-o,--output", a->out, "Write the volume to this .vdb file");
    auto* radius =
        cmd->add_option("--radius", a->radius, "Sphere radius of every point, world units")
            ->check(CLI::PositiveNumber);
    cmd->add_option("--radius-property", a->radiusProperty,
                    "The float point property holding each point's radius")
        ->excludes(radius);
    cmd->add_option("--radius-voxels", a->radiusVoxels,
                    "Sphere radius in finest voxels when no radius is given (1.5)")
        ->check(CLI::PositiveNumber);
    auto* size = cmd->add_option("--voxel-size", a->voxelSize, "Finest voxel size, world units")
                     ->check(CLI::PositiveNumber);
    cmd->add_option("--resolution", a->resolution,
                    "Voxels across the largest side of the cloud's box (default 256)")
        ->check(CLI::Range(1, 65536))
        ->excludes(size);
    cmd->add_option("--traits", a->traits,
                    "Tree: 24 (Traits<2,4,1>, default) or 55 (Traits<5,5,1>)")
        ->check(CLI::IsMember({24, 55}));
    cmd->add_flag("--sparse", a->sparse,
                  "A narrow band of finest tiles instead of the adaptive tree");
    cmd->add_option("--max-error", a->maxError,
                    "Error tolerance relative to the box's largest side (default 0: refine "
                    "everywhere near the surface)")
        ->check(CLI::NonNegativeNumber);
    cmd->add_option("--properties", a->properties,
                    "Point properties to carry into channels: \"*\", \"v, point_color\"");
    cmd->add_option("--threads", a->threads, "Worker threads (default: all)")
        ->check(CLI::PositiveNumber);
    cmd->add_flag("-v,--verbose", a->verbose, "The library's verbose lines (repeat for more)");
    cmd->callback([a] { hexmoldtool::runPoints(*a); });
    return cmd;
}

} // namespace commands
