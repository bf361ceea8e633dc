// hexmold voxelize MESH: the options of the command; the work is in voxelize_command.cpp.
#include <memory>
#include <stdexcept>
#include <string>

#include "commands.h"
#include "voxelize_command.h"

namespace commands {

CLI::App* addVoxelizeCommand(CLI::App& app)
{
    auto* cmd = app.add_subcommand(
        "voxelize",
        "A mesh file (OBJ, PLY, STL, OFF, glTF) becomes an adaptive signed distance volume");
    auto a = std::make_shared<hexmoldtool::VoxelizeArgs>();
    cmd->add_option("MESH", a->mesh, "The mesh file")->required();
    cmd->add_option("-o,--output", a->out, "Write the volume to this .vdb file");
    cmd->add_flag("--half", a->half,
                  "Store the volume file's float grids as 16-bit floats: about half the size, "
                  "values within 2^-11 "
                  "relative (0.001 voxel near the surface)");
    cmd->add_option("--level-set-grid", a->levelSetGrid,
                    "Also write a plain OpenVDB level set (finest voxels) to this .vdb file");
    auto* size = cmd->add_option("--voxel-size", a->voxelSize, "Finest voxel size, world units")
                     ->check(CLI::PositiveNumber);
    cmd->add_option("--resolution", a->resolution,
                    "Voxels across the largest side of the mesh's box (default 256)")
        ->check(CLI::Range(1, 65536))
        ->excludes(size);
    cmd->add_option("--traits", a->traits,
                    "Tree: 24 (Traits<2,4,1>, default) or 55 (Traits<5,5,1>)")
        ->check(CLI::IsMember({24, 55}));
    cmd->add_option("--adaptivity", a->adaptivity,
                    "error: refine where the parent misses the exact distance (default); sparse: a "
                    "narrow band of "
                    "finest tiles")
        ->check(CLI::IsMember({"error", "sparse"}));
    cmd->add_option("--max-error", a->maxError,
                    "Error tolerance relative to the box's largest side (default 0: refine "
                    "everywhere near the surface)")
        ->check(CLI::NonNegativeNumber);
    cmd->add_flag("--shell", a->shell, "No interior: an unsigned shell around the surface");
    cmd->add_option("--hole-radius", a->holeRadius, "Close holes up to this radius, world units")
        ->check(CLI::NonNegativeNumber);
    cmd->add_option("--thicken", a->thicken, "Offset the surface outwards by this many voxels")
        ->check(CLI::NonNegativeNumber);
    cmd->add_option("--properties", a->properties,
                    "Point properties to carry into channels: \"*\", \"Cd, N\", ...");
    cmd->add_flag("-v,--verbose", a->verbose, "The library's verbose lines (repeat for more)");
    cmd->add_flag("--exact-error", a->exactError,
                  "Also measure the error against the exact distance");
    cmd->callback([a] { hexmoldtool::runVoxelize(*a); });
    return cmd;
}

} // namespace commands
