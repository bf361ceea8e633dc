// hexmold demo [radius]: for both trees, an adaptive volume of a sphere, redistancing of a field
// right only near the sphere, and resizing of a narrow band; then a mesh (the bunny when the shared
// data folder is found, an icosphere otherwise) voxelized, with its error against the exact
// distance.
#include <algorithm>
#include <cstdio>
#include <hexmold/diagnostics/version.h>

#include "commands.h"
#include "demo_redistance.h"
#include "demo_resize.h"
#include "demo_volume.h"
#include "voxelize_command.h"

namespace commands {

CLI::App* addDemoCommand(CLI::App& app)
{
    auto* cmd =
        app.add_subcommand("demo", "Adaptive volumes of a sphere's exact signed distance in "
                                   "both trees, redistancing and resizing, with errors and times");
    auto radius = std::make_shared<double>(128.0);
    cmd->add_option("radius", *radius, "Sphere radius in finest voxels")
        ->check(CLI::Range(8.0, 4096.0));
    cmd->callback([radius] {
        double const r = *radius;
        std::printf("%s\n\n", CoreGL::versionText().c_str());
        demo::runVolumeDemo<TVL::TileTree3D::Traits24>("Traits<2,4,1>", r);
        demo::runVolumeDemo<TVL::TileTree3D::Traits55>("Traits<5,5,1>", r);
        demo::runRedistanceDemo<TVL::TileTree3D::Traits24>("Traits<2,4,1>", std::min(r, 128.0));
        demo::runRedistanceDemo<TVL::TileTree3D::Traits55>("Traits<5,5,1>", std::min(r, 128.0));
        demo::runResizeDemo<TVL::TileTree3D::Traits24>("Traits<2,4,1>", std::min(r, 128.0));
        demo::runResizeDemo<TVL::TileTree3D::Traits55>("Traits<5,5,1>", std::min(r, 128.0));
        std::printf("\n");
        hexmoldtool::runMeshDemo(256);
    });
    return cmd;
}

} // namespace commands
