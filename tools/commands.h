// The subcommands of the hexmold program: each adds itself to the parser, with its options and
// the function that runs it. A new command is one more `add...Command` here and one line in
// hexmold_main.cpp.
#pragma once
#include <CLI/CLI.hpp>

namespace commands {

/// `hexmold demo [radius]`: adaptive volumes of a sphere, redistancing and resizing.
CLI::App* addDemoCommand(CLI::App& app);
/// `hexmold info FILE`: what a volume file holds.
CLI::App* addInfoCommand(CLI::App& app);
/// `hexmold slice FILE --axis x|y|z --at POS -o slice.png`: the distance in a plane.
CLI::App* addSliceCommand(CLI::App& app);
/// `hexmold render FILE -o view.png`: the surface, sphere-traced and shaded.
CLI::App* addRenderCommand(CLI::App& app);
/// `hexmold voxelize MESH [-o OUT.vdb]`: a mesh file to a signed distance volume.
CLI::App* addVoxelizeCommand(CLI::App& app);
/// `hexmold points FILE [-o OUT.vdb]`: a point cloud file to the volume of its spheres.
CLI::App* addPointsCommand(CLI::App& app);
/// `hexmold convert IN OUT`: a plain OpenVDB level set to a volume file and back.
CLI::App* addConvertCommand(CLI::App& app);

} // namespace commands
