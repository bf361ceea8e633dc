// The hexmold command-line program.
//   hexmold --version            the version banner text
//   hexmold demo [radius]        adaptive volumes of a sphere's exact signed distance, both trees,
//                                and the redistancing of a field right only near the sphere
//   hexmold info FILE            what a volume file holds
//   hexmold convert IN OUT       a plain OpenVDB level set to a volume file, and back
//   hexmold voxelize MESH        a mesh file to an adaptive signed distance volume
//   hexmold slice FILE           the signed distance in a plane, as a PNG
//   hexmold render FILE          the surface, sphere-traced and shaded, as a PNG
// Every command has --help; every error ends the program with a one-line message and exit code 1
// (2 for a command line it cannot parse).
#include <cstdio>
#include <exception>
#include <hexmold/diagnostics/version.h>
#include <hexmold/substrate/parallel.h>
#include <memory>

#include "commands.h"

int main(int argc, char** argv)
{
    CLI::App app{"hexmold: sparse adaptive signed-distance volumes on a tile tree"};
    app.set_version_flag("--version", [] { return CoreGL::versionText(); });
    app.require_subcommand(1);
    int threads = 0;
    app.add_option("--threads", threads, "Worker threads (default: all cores)")
        ->check(CLI::PositiveNumber);
    // Options of the program are taken after the command's name too: hexmold voxelize m.obj
    // --threads 1.
    app.fallthrough();
    app.add_subcommand("version", "Print the version banner")->callback([] {
        std::printf("%s\n", CoreGL::versionText().c_str());
    });
    commands::addDemoCommand(app);
    commands::addInfoCommand(app);
    commands::addConvertCommand(app);
    commands::addVoxelizeCommand(app);
    commands::addPointsCommand(app);
    commands::addSliceCommand(app);
    commands::addRenderCommand(app);

    // The thread limit must hold while the commands run, which CLI11 does inside parse().
    std::unique_ptr<TVL::Parallel::global_control> limit;
    app.parse_complete_callback([&] {
        if (threads > 0)
            limit = std::make_unique<TVL::Parallel::global_control>(
                TVL::Parallel::global_control::max_allowed_parallelism, std::size_t(threads));
    });
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        // --help and --version come this way too, with code 0.
        return app.exit(e) == 0 ? 0 : 2;
    } catch (std::exception const& e) {
        std::fprintf(stderr, "hexmold: %s\n", e.what());
        return 1;
    }
    return 0;
}
