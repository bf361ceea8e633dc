// Point clouds to level sets: voxelizePoints (both routes) against OpenVDB's
// tools::ParticlesToLevelSet and points::rasterizeSpheres, same voxel size, half-width 3, 2
// threads, interleaved repeats, medians; times, voxels, memory and the ratio against the faster
// OpenVDB tool.
//   0: 1,000,000 uniform points in the unit cube, radius 1.5 voxels, voxel 1/512
//   1: 1,000,000 points on armadillo.obj scaled to the unit cube, radius 1.5 voxels, voxel 1/512
//   2: 100,000 uniform points, radius 4 voxels, voxel 1/512
// HEXMOLD_BENCH_REPEATS sets the repeats (default 3); HEXMOLD_BENCH_POINT_SCALE scales the point
// counts (e.g. 0.2 for quick profiling runs); HEXMOLD_BENCH_ROUTES picks what runs, a subset of
// the letters a (ours, adaptive), s (ours, non-adaptive) and p (the OpenVDB peers); default all;
// HEXMOLD_BENCH_STAGES=1 prints our stage timers to standard error.
#include <benchmark/benchmark.h>

#include "bench/support/timing.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <hexmold/io/read_mesh.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/points/voxelize_points.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

#if HEXMOLD_HAVE_OPENVDB
#include "bench/voxelize/point_peers.h"
#include <openvdb/openvdb.h>
#endif

using namespace TVL::TileTree3D;
using benchtiming::msSince;

namespace {
/// The median, 0 for a run that was not selected.
double median(std::vector<double> const& v)
{
    return v.empty() ? 0.0 : benchtiming::median(v);
}
} // namespace
using Tavrel::Math::float3;
namespace Geo = Tavrel::Geometry;

namespace {

class Quiet : public Quillon::RuntimeServices {
public:
    bool isLogEnabled(Quillon::RuntimeMessageCategory) const override { return false; }
    void logImpl(Quillon::RuntimeMessageCategory, Quillon::StringView) const override {}
};

Quillon::Array<float3> uniformPoints(std::size_t n)
{
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    Quillon::Array<float3> p(n);
    for (auto& x : p)
        x = {u(rng), u(rng), u(rng)};
    return p;
}

/// Points uniformly on the surface of a mesh scaled into the unit cube; empty when the file is
/// absent.
Quillon::Array<float3> surfacePoints(char const* file, std::size_t n)
{
    Quillon::Array<float3> out;
    std::string const path = std::string(HEXMOLD_DATA_DIR) + "/" + file;
    Quillon::MutablePtr<Tavrel::Object> mesh;
    try {
        mesh = hexmold::io::readMesh(path);
    } catch (std::exception const&) {
        return out;
    }
    auto const& p = *Geo::getDataGeoPropertyValues<float3>(*mesh, Geo::sPointPosition);
    auto const& fv = *Geo::getMeshFaceVertices(*mesh);
    auto const& fo = *Geo::getMeshFaceOffsets(*mesh);
    float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
    for (auto const& x : p)
        for (int a = 0; a < 3; ++a)
            lo[a] = std::min(lo[a], x[a]), hi[a] = std::max(hi[a], x[a]);
    float const side = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    std::vector<std::array<std::uint32_t, 3>> tris;
    std::vector<double> area;
    double total = 0.0;
    for (std::size_t f = 0; f + 1 < fo.size(); ++f)
        for (unsigned q = fo[f] + 2; q < fo[f + 1]; ++q) {
            std::array<std::uint32_t, 3> const t{fv[fo[f]], fv[q - 1], fv[q]};
            double e1[3], e2[3];
            for (int a = 0; a < 3; ++a)
                e1[a] = p[t[1]][a] - p[t[0]][a], e2[a] = p[t[2]][a] - p[t[0]][a];
            double const cx = e1[1] * e2[2] - e1[2] * e2[1], cy = e1[2] * e2[0] - e1[0] * e2[2],
                         cz = e1[0] * e2[1] - e1[1] * e2[0];
            total += 0.5 * std::sqrt(cx * cx + cy * cy + cz * cz);
            tris.push_back(t);
            area.push_back(total);
        }
    std::mt19937 rng(2);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    out.resize(n);
    for (auto& x : out) {
        auto const it = std::lower_bound(area.begin(), area.end(), u(rng) * total);
        auto const& t = tris[std::size_t(
            std::min<std::ptrdiff_t>(it - area.begin(), std::ptrdiff_t(tris.size()) - 1))];
        double a = u(rng), b = u(rng);
        if (a + b > 1.0)
            a = 1.0 - a, b = 1.0 - b;
        for (int k = 0; k < 3; ++k) {
            double const v =
                p[t[0]][k] + a * (p[t[1]][k] - p[t[0]][k]) + b * (p[t[2]][k] - p[t[0]][k]);
            x[k] = float((v - lo[k]) / side);
        }
    }
    return out;
}

struct Result {
    double ms = 0.0;
    unsigned long long voxels = 0; ///< ours: finest voxels; OpenVDB: active voxels
    double megabytes = 0.0;
};

#if HEXMOLD_HAVE_OPENVDB
Result asResult(pointpeers::PeerResult const& r)
{
    return Result{r.ms, r.voxels, r.megabytes};
}
#endif

void printStage(Quillon::StringView name, double ms)
{
    std::fprintf(stderr, "    %-70s %9.1f ms\n", std::string(name).c_str(), ms);
}

template <typename Tr>
Result runOurs(Quillon::Array<float3> const& p, float h, float radius, bool sparse)
{
    constexpr int W = Tr::kTileWidth;
    auto cloud = Geo::createPointCloud(Quillon::Array<float3>{});
    auto object = Command::createVoxelTVL<Tr>("tree", "topology", h, kVoxelOffsetCenter);
    {
        TVL::ComponentGuard<VoxelTopology<Tr>> topology(*object, "topology");
        Command::createChannel<float, Tr::kRatio, W, W, 0>(
            "voxel_signed_distance", *topology, *object, 3.0f * h,
            kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
    }
    Quiet quiet;
    if (std::getenv("HEXMOLD_BENCH_STAGES"))
        CoreGL::Logger::setTimerObserver(&printStage);
    auto const t0 = std::chrono::steady_clock::now();
    VolumeGL::TileTree3D::voxelizePoints<Tr>(
        *cloud, p, radius, nullptr,
        sparse ? VolumeGL::TileTree3D::AdaptivityResolutionFields
               : VolumeGL::TileTree3D::AdaptivityMaxRelativeError,
        0.0f, nullptr, 1.0f, "", "tree", "topology", "voxel_signed_distance", *object,
        VolumeGL::TileTree3D::TopologyTypeBuildTiles, quiet);
    Result r;
    r.ms = msSince(t0);
    CoreGL::Logger::setTimerObserver(nullptr);
    auto const tree = object->template component<Container<Tr>>("tree");
    r.voxels = tree->voxelDataCount(Tr::kMaxDepth);
    std::size_t used = 0, reserved = 0;
    for (auto const& name : object->componentRange()) {
        auto const c = object->template component<TVL::Component>(name);
        if (c)
            c->memUse(used, reserved, true);
    }
    r.megabytes = double(used) / 1e6;
    return r;
}

/// Whether the run selected by letter @p c is wanted (HEXMOLD_BENCH_ROUTES).
bool wanted(char c)
{
    char const* r = std::getenv("HEXMOLD_BENCH_ROUTES");
    return !r || std::string(r).find(c) != std::string::npos;
}

double pointScale()
{
    char const* s = std::getenv("HEXMOLD_BENCH_POINT_SCALE");
    double const x = s ? std::atof(s) : 1.0;
    return x > 0.0 ? x : 1.0;
}

template <typename Tr>
void compare(char const* label, Quillon::Array<float3> const& p, float h, float radiusVoxels,
             int repeats)
{
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism,
                                          2);
    float const radius = radiusVoxels * h;
    std::vector<double> adaptive, sparse, ptls, spheres;
    Result ra, rs, rp, rr;
#if HEXMOLD_HAVE_OPENVDB
    openvdb::initialize();
#endif
    for (int n = 0; n < repeats; ++n) {
        if (wanted('a')) {
            ra = runOurs<Tr>(p, h, radius, false);
            adaptive.push_back(ra.ms);
        }
        if (wanted('s')) {
            rs = runOurs<Tr>(p, h, radius, true);
            sparse.push_back(rs.ms);
        }
#if HEXMOLD_HAVE_OPENVDB
        if (wanted('p')) {
            rp = asResult(pointpeers::runParticlesToLevelSet(p, h, radius));
            ptls.push_back(rp.ms);
            rr = asResult(pointpeers::runRasterizeSpheres(p, h, radius));
            spheres.push_back(rr.ms);
        }
#endif
    }
    std::printf("\n%s, %zu points, radius %.2f voxels, voxel %.6g, %s, %d interleaved repeats, "
                "medians, 2 threads:\n",
                label, p.size(), double(radiusVoxels), double(h),
                Tr::kRatio == 2 ? "Traits<2,4,1>" : "Traits<5,5,1>", repeats);
    std::printf("  ours, adaptive:        %9.1f ms, %11llu finest voxels, %8.1f MB\n",
                median(adaptive), ra.voxels, ra.megabytes);
    std::printf("  ours, non-adaptive:    %9.1f ms, %11llu finest voxels, %8.1f MB\n",
                median(sparse), rs.voxels, rs.megabytes);
#if HEXMOLD_HAVE_OPENVDB
    std::printf("  ParticlesToLevelSet:   %9.1f ms, %11llu active voxels, %8.1f MB\n", median(ptls),
                rp.voxels, rp.megabytes);
    std::printf("  rasterizeSpheres:      %9.1f ms, %11llu active voxels, %8.1f MB\n",
                median(spheres), rr.voxels, rr.megabytes);
    double const peer = std::min(median(ptls), median(spheres));
    std::printf(
        "  ratio against the faster OpenVDB tool: adaptive %.2f, non-adaptive %.2f (goal <= 0.4)\n",
        median(adaptive) / peer, median(sparse) / peer);
#endif
}

int repeats()
{
    char const* r = std::getenv("HEXMOLD_BENCH_REPEATS");
    return r ? std::max(1, std::atoi(r)) : 3;
}

template <typename Tr> void BM_VoxelizePoints(benchmark::State& state)
{
    int const which = int(state.range(0));
    float const h = 1.0f / 512;
    std::size_t const n = std::size_t(double(which == 2 ? 100000 : 1000000) * pointScale());
    Quillon::Array<float3> const p =
        which == 1 ? surfacePoints("armadillo.obj", n) : uniformPoints(n);
    if (p.empty()) {
        state.SkipWithError("armadillo.obj is not in the shared data folder");
        return;
    }
    for (auto _ : state) {
        char const* labels[] = {"uniform in the unit cube", "on the armadillo",
                                "uniform in the unit cube"};
        compare<Tr>(labels[which], p, h, which == 2 ? 4.0f : 1.5f, repeats());
    }
}

} // namespace

BENCHMARK_TEMPLATE(BM_VoxelizePoints, Traits24)
    ->DenseRange(0, 2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK_TEMPLATE(BM_VoxelizePoints, Traits55)
    ->DenseRange(0, 2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
