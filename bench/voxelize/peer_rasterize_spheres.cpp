// OpenVDB's points::rasterizeSpheres for the point benchmark.
#if HEXMOLD_HAVE_OPENVDB
#include "bench/support/timing.h"
#include "bench/voxelize/point_peers.h"
#include <chrono>
#include <openvdb/openvdb.h>
#include <openvdb/points/PointConversion.h>
#include <openvdb/points/PointRasterizeSDF.h>
#include <vector>

namespace pointpeers {

PeerResult runRasterizeSpheres(Quillon::Array<Tavrel::Math::float3> const& p, float h, float radius)
{
    auto const t0 = std::chrono::steady_clock::now();
    std::vector<openvdb::Vec3R> positions(p.size());
    for (std::size_t i = 0; i < p.size(); ++i)
        positions[i] = openvdb::Vec3R(p[i].x, p[i].y, p[i].z);
    auto const pointXform = openvdb::math::Transform::createLinearTransform(8.0 * h);
    auto points = openvdb::points::createPointDataGrid<openvdb::points::NullCodec,
                                                       openvdb::points::PointDataGrid>(positions,
                                                                                       *pointXform);
    auto const xform = openvdb::math::Transform::createLinearTransform(h);
    auto sdf = openvdb::points::rasterizeSpheres(*points, double(radius), 3.0, xform);
    PeerResult r;
    r.ms = benchtiming::msSince(t0);
    r.voxels = sdf->activeVoxelCount();
    r.megabytes = double(sdf->memUsage()) / 1e6;
    return r;
}

} // namespace pointpeers
#endif
