// The hexmold command-line program.
//   hexmold --version          the version banner text
//   hexmold demo [radius]      adaptive volumes of a sphere's exact signed distance, both trees,
//                              and the redistancing of a field right only near the sphere
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <hexmold/diagnostics/version.h>

#include "demo_redistance.h"
#include "demo_resize.h"
#include "demo_volume.h"
#include "voxelize_command.h"

namespace {

int usage()
{
    std::fprintf(stderr,
                 "usage: hexmold --version\n"
                 "       hexmold demo [radius-in-finest-voxels (8..4096, default 128)]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) return usage();
    std::string const cmd = argv[1];
    if (cmd == "--version" || cmd == "version") {
        std::printf("%s\n", CoreGL::versionText().c_str());
        return 0;
    }
    if (cmd == "demo") {
        double radius = 128.0;
        if (argc > 2) {
            char* end = nullptr;
            radius = std::strtod(argv[2], &end);
            if (!end || *end != '\0' || !(radius >= 8.0 && radius <= 4096.0)) return usage();
        }
        std::printf("%s\n\n", CoreGL::versionText().c_str());
        demo::runVolumeDemo<TVL::TileTree3D::Traits24>("Traits<2,4,1>", radius);
        demo::runVolumeDemo<TVL::TileTree3D::Traits55>("Traits<5,5,1>", radius);
        demo::runRedistanceDemo<TVL::TileTree3D::Traits24>("Traits<2,4,1>", std::min(radius, 128.0));
        demo::runRedistanceDemo<TVL::TileTree3D::Traits55>("Traits<5,5,1>", std::min(radius, 128.0));
        demo::runResizeDemo<TVL::TileTree3D::Traits24>("Traits<2,4,1>", std::min(radius, 128.0));
        demo::runResizeDemo<TVL::TileTree3D::Traits55>("Traits<5,5,1>", std::min(radius, 128.0));
        return hexmoldtool::runMeshDemo(256);
    }
    if (cmd == "voxelize" && argc > 2) {
        hexmoldtool::VoxelizeArgs a;
        a.mesh = argv[2];
        return hexmoldtool::runVoxelize(a);
    }
    return usage();
}
