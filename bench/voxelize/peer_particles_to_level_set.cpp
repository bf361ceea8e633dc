// OpenVDB's tools::ParticlesToLevelSet for the point benchmark.
#if HEXMOLD_HAVE_OPENVDB
#include "bench/support/timing.h"
#include "bench/voxelize/point_peers.h"
#include <chrono>
#include <openvdb/openvdb.h>
#include <openvdb/tools/ParticlesToLevelSet.h>

namespace pointpeers {

namespace {

struct Particles {
    using PosType = openvdb::Vec3R;
    Quillon::Array<Tavrel::Math::float3> const& p;
    double r;
    std::size_t size() const { return p.size(); }
    void getPos(std::size_t n, openvdb::Vec3R& xyz) const
    {
        xyz = openvdb::Vec3R(p[n].x, p[n].y, p[n].z);
    }
    void getPosRad(std::size_t n, openvdb::Vec3R& xyz, openvdb::Real& rad) const
    {
        getPos(n, xyz);
        rad = r;
    }
};

} // namespace

PeerResult runParticlesToLevelSet(Quillon::Array<Tavrel::Math::float3> const& p, float h,
                                  float radius)
{
    auto const t0 = std::chrono::steady_clock::now();
    auto grid = openvdb::createLevelSet<openvdb::FloatGrid>(h, 3.0);
    openvdb::tools::ParticlesToLevelSet<openvdb::FloatGrid> raster(*grid);
    // A radius of 1.5 voxels is kept (the default minimum ignores smaller ones).
    raster.setRmin(1.0);
    Particles const list{p, radius};
    raster.rasterizeSpheres(list);
    raster.finalize(true);
    PeerResult r;
    r.ms = benchtiming::msSince(t0);
    r.voxels = grid->activeVoxelCount();
    r.megabytes = double(grid->memUsage()) / 1e6;
    return r;
}

} // namespace pointpeers
#endif
