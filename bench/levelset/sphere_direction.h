// The data the extrapolation benchmark extends from a sphere's surface, and OpenVDB's extension of
// it (in a source of its own, so that OpenVDB's fast sweeping compiles beside the benchmark).
#pragma once
#include <cmath>
#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#endif

namespace extrapolatebench {

/// The data on the sphere: a smooth function of the direction (finest-voxel coordinates).
inline double direction(double x, double y, double z)
{
    double const r = std::sqrt(x * x + y * y + z * z);
    return x / r + 0.5 * (y / r) * (z / r) + 0.25 * z / r;
}

#if HEXMOLD_HAVE_OPENVDB
/// tools::sdfToExt of `direction` (at world positions over voxel size @p h) from the zero
/// crossing of @p grid, one iteration.
openvdb::FloatGrid::Ptr extendDirection(openvdb::FloatGrid const& grid, double h);
#endif

} // namespace extrapolatebench
