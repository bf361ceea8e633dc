// hexmold voxelize MESH: a mesh file becomes an adaptive signed distance volume, and a summary
// a user can read: tiles and voxels per depth, finest voxels in the band, memory of the tree and
// each channel, time per stage and the voxel hash; optionally the volume file and a plain
// OpenVDB level set.
#pragma once
#include <string>

namespace hexmoldtool {

struct VoxelizeArgs {
    std::string mesh;                 ///< any file readMesh reads
    std::string out;                  ///< .vdb volume file to write, or empty
    std::string levelSetGrid;         ///< .vdb plain level set to write, or empty
    double voxelSize = 0.0;           ///< world; 0: from resolution
    int resolution = 256;             ///< voxels across the largest side of the mesh's box
    int traits = 24;                  ///< 24: Traits<2,4,1>, 55: Traits<5,5,1>
    std::string adaptivity = "error"; ///< "error" (refine by error, 0: everywhere near) or "sparse"
    double maxError = 0.0;            ///< relative to the box's largest side
    bool shell = false;               ///< no interior: an unsigned shell
    double holeRadius = 0.0;          ///< world
    double thicken = 0.0;             ///< voxels
    std::string properties;           ///< point properties to carry, a pattern ("*", "Cd, N")
    int verbose = 0;                  ///< the library's verbose level
    bool exactError = false;          ///< also measure the error against the exact distance
    bool half = false;                ///< the volume file's float grids as 16-bit floats
};

/// Runs the command; prints the summary on standard output, progress on standard error when it
/// is a terminal. @return 0. @throws std::exception with a one-line message on any error (an
/// unreadable mesh, a volume file that cannot be written, ...).
int runVoxelize(VoxelizeArgs const& args);

/// `hexmold demo`'s mesh part: the bunny of the shared data folder when it is found (in
/// HEXMOLD_DATA_DIR, or ../shared/data from the working folder), else an icosphere; prints the
/// summary and the error against the exact distance. @return 0; @throws as `runVoxelize`.
int runMeshDemo(int resolution);

} // namespace hexmoldtool
