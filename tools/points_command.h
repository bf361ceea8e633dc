// hexmold points FILE: a point cloud file becomes the signed distance volume of one sphere per
// point, and a summary a user can read: tiles and voxels per depth, memory, time per stage and the
// voxel hash; optionally the volume file.
#pragma once
#include <string>

namespace hexmoldtool {

struct PointsArgs {
    std::string file;           ///< any file readPoints reads
    std::string out;            ///< volume file to write, or empty
    double radius = 0.0;        ///< world; 0: radiusVoxels voxels
    double radiusVoxels = 1.5;  ///< used when neither radius nor radiusProperty is given
    std::string radiusProperty; ///< a float point property of radii, or empty
    double voxelSize = 0.0;     ///< world; 0: from resolution
    int resolution = 256;       ///< voxels across the largest side of the cloud's box
    int traits = 24;            ///< 24: Traits<2,4,1>, 55: Traits<5,5,1>
    bool sparse = false;        ///< the non-adaptive route
    double maxError = 0.0;      ///< relative to the box's largest side
    std::string properties;     ///< point properties to carry, a pattern ("*", "v, point_color")
    int threads = 0;            ///< 0: all
    int verbose = 0;            ///< the library's verbose level
};

/// Runs the command; prints the summary on standard output, progress on standard error when it
/// is a terminal. @return 0. @throws std::exception with a one-line message on any error.
int runPoints(PointsArgs const& args);

} // namespace hexmoldtool
