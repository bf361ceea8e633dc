// OpenVDB's tools::sdfToExt for the extrapolation benchmark.
#if HEXMOLD_HAVE_OPENVDB
#include "bench/levelset/sphere_direction.h"
#include <openvdb/tools/FastSweeping.h>

namespace extrapolatebench {

openvdb::FloatGrid::Ptr extendDirection(openvdb::FloatGrid const& grid, double h)
{
    auto const op = [h](openvdb::Vec3R const& xyz) {
        return float(direction(xyz[0] / h, xyz[1] / h, xyz[2] / h));
    };
    return openvdb::tools::sdfToExt(grid, op, 0.0f);
}

} // namespace extrapolatebench
#endif
