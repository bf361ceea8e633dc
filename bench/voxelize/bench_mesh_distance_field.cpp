// Unsigned distance to a mesh (armadillo.obj) at 512 and 1024 voxels across its bounding box:
// ours (createMeshDistanceField without interior: the adaptive build, and the sparse build with a
// half-width of 3 voxels) against OpenVDB's meshToUnsignedDistanceField with a half-width of 3,
// for both trees, 2 threads, repeats interleaved in one run; medians, their ratios, finest voxels
// and memory. HEXMOLD_BENCH_SIGNED=1 measures signed distances instead: ours with the interior
// stage against OpenVDB's meshToLevelSet.
#include <benchmark/benchmark.h>

#include "bench/support/timing.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <hexmold/io/read_mesh.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/mesh_distance_field.h>
#include <string>
#include <vector>

#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#include <openvdb/tools/MeshToVolume.h>
#endif

namespace {

/// Signed distances (HEXMOLD_BENCH_SIGNED=1) rather than unsigned ones.
bool signedRun()
{
    char const* v = std::getenv("HEXMOLD_BENCH_SIGNED");
    return v && v[0] == '1';
}

using benchtiming::median;
using benchtiming::msSince;

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
constexpr int kRepeats = 5;

/// With HEXMOLD_BENCH_STAGES=1 every timer of ours is printed as it ends.
void printStage(Quillon::StringView name, double ms)
{
    std::printf("    stage %.*s: %.1f ms\n", int(name.size()), name.data(), ms);
}

struct Mesh {
    Quillon::Array<float3> positions;
    Quillon::Array<ulong3> triangles;
    float maxSide = 0;
};

/// The mesh of a file, its faces fan-triangulated; empty when the file cannot be read.
Mesh loadMesh(std::string const& path)
{
    Mesh m;
    try {
        auto const object = hexmold::io::readMesh(path);
        auto const* positions = Tavrel::Geometry::getDataGeoPropertyValues<float3>(
            *object, Tavrel::Geometry::sPointPosition);
        auto const* faceVertex = Tavrel::Geometry::getMeshFaceVertices(*object);
        auto const* faceOffset = Tavrel::Geometry::getMeshFaceOffsets(*object);
        if (!positions || !faceVertex || !faceOffset)
            return m;
        m.positions = *positions;
        for (std::size_t f = 0; f + 1 < faceOffset->size(); ++f)
            for (unsigned k = (*faceOffset)[f] + 2; k < (*faceOffset)[f + 1]; ++k)
                m.triangles.push_back(
                    {(*faceVertex)[(*faceOffset)[f]], (*faceVertex)[k - 1], (*faceVertex)[k]});
    } catch (hexmold::io::IoError const&) {
        return m;
    }
    float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
    for (auto const& p : m.positions)
        for (int a = 0; a < 3; ++a)
            lo[a] = std::min(lo[a], p[a]), hi[a] = std::max(hi[a], p[a]);
    m.maxSide = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    return m;
}

struct Result {
    double ms = 0;
    std::uint64_t finestVoxels = 0;
    std::uint64_t allVoxels = 0;
    double megabytes = 0;
};

template <typename Tr> Result runOurs(Mesh const& m, float h, bool adaptive)
{
    float const far = 3.0f * h;
    Container<Tr> container("tree", h);
    VoxelTopology<Tr> topology("topology", "tree", h);
    VoxelChannel<Tr, float> distance("distance", &far, kDataElementInitializerDefaultValue, false,
                                     false, 0, Tr::kMaxDepth);
    Quillon::Ptr<VoxelChannel<Tr, TriangleId>> closest;
    int minDepth = 0;
    float side = 0;
    auto const t0 = std::chrono::steady_clock::now();
    createMeshDistanceField<Tr>(container, topology, distance, adaptive ? nullptr : &closest,
                                m.triangles, m.positions, nullptr, signedRun(), 0.0f, 0.0f, false,
                                3, 0, 0, adaptive, AdaptivityMaxRelativeError, 0.0f, nullptr,
                                &minDepth, &side);
    Result r;
    r.ms = msSince(t0);
    r.finestVoxels = container.voxelDataCount(Tr::kMaxDepth);
    r.allVoxels = container.voxelDataCount(-1);
    std::size_t used = 0, reserved = 0, u2 = 0, r2 = 0;
    container.memUse(used, reserved, true);
    distance.memUse(u2, r2, true);
    r.megabytes = double(used + u2) / (1024.0 * 1024.0);
    return r;
}

#if HEXMOLD_HAVE_OPENVDB
Result runPeer(Mesh const& m, float h)
{
    std::vector<openvdb::Vec3s> points;
    std::vector<openvdb::Vec3I> triangles;
    std::vector<openvdb::Vec4I> quads;
    auto const xform = openvdb::math::Transform::createLinearTransform(h);
    for (auto const& p : m.positions)
        points.emplace_back(p.x, p.y, p.z); // world space
    for (auto const& t : m.triangles)
        triangles.emplace_back(unsigned(t.x), unsigned(t.y), unsigned(t.z));
    auto const t0 = std::chrono::steady_clock::now();
    auto grid = signedRun() ? openvdb::tools::meshToLevelSet<openvdb::FloatGrid>(
                                  *xform, points, triangles, quads, 3.0f)
                            : openvdb::tools::meshToUnsignedDistanceField<openvdb::FloatGrid>(
                                  *xform, points, triangles, quads, 3.0f);
    Result r;
    r.ms = msSince(t0);
    r.finestVoxels = grid->activeVoxelCount();
    r.allVoxels = r.finestVoxels;
    r.megabytes = double(grid->memUsage()) / (1024.0 * 1024.0);
    return r;
}
#endif

template <typename Tr> void BM_UnsignedDistanceArmadillo(benchmark::State& state)
{
    int const across = static_cast<int>(state.range(0));
    std::string const path = std::string(HEXMOLD_DATA_DIR) + "/armadillo.obj";
    Mesh const m = loadMesh(path);
    if (m.triangles.empty()) {
        state.SkipWithError("armadillo.obj is not in the shared data folder");
        return;
    }
    float const h = m.maxSide / float(across);
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism,
                                          2);
#if HEXMOLD_HAVE_OPENVDB
    openvdb::initialize();
#endif
    int const repeats = across > 512 ? 3 : kRepeats;
    // HEXMOLD_BENCH_SPARSE=0 leaves the sparse build out (it is the slow one).
    char const* sparseVar = std::getenv("HEXMOLD_BENCH_SPARSE");
    bool const withSparse = !(sparseVar && sparseVar[0] == '0');
    char const* stages = std::getenv("HEXMOLD_BENCH_STAGES");
    if (stages && stages[0] == '1')
        CoreGL::Logger::setTimerObserver(&printStage);
    for (auto _ : state) {
        std::vector<double> adaptive, sparse, peer;
        Result ra, rs, rp;
        for (int n = 0; n < repeats; ++n) {
            ra = runOurs<Tr>(m, h, true);
            adaptive.push_back(ra.ms);
            if (withSparse) {
                rs = runOurs<Tr>(m, h, false);
                sparse.push_back(rs.ms);
            } else {
                sparse.push_back(0.0);
            }
#if HEXMOLD_HAVE_OPENVDB
            rp = runPeer(m, h);
            peer.push_back(rp.ms);
#endif
        }
        double const ta = median(adaptive), ts = median(sparse);
        std::printf("\n%s distances, %s, %d across (voxel %.6g), %zu triangles, %d interleaved "
                    "repeats, medians:\n",
                    signedRun() ? "signed" : "unsigned",
                    Tr::kRatio == 2 ? "Traits<2,4,1>" : "Traits<5,5,1>", across, double(h),
                    m.triangles.size(), repeats);
        std::printf("  ours adaptive: %8.1f ms, %10llu finest voxels (%llu in all), %7.1f MB\n", ta,
                    (unsigned long long)ra.finestVoxels, (unsigned long long)ra.allVoxels,
                    ra.megabytes);
        std::printf("  ours sparse:   %8.1f ms, %10llu finest voxels (%llu in all), %7.1f MB\n", ts,
                    (unsigned long long)rs.finestVoxels, (unsigned long long)rs.allVoxels,
                    rs.megabytes);
        state.counters["ours_adaptive_ms"] = ta;
        state.counters["ours_sparse_ms"] = ts;
#if HEXMOLD_HAVE_OPENVDB
        double const tp = median(peer);
        std::printf("  OpenVDB:       %8.1f ms, %10llu active voxels, %7.1f MB\n", tp,
                    (unsigned long long)rp.finestVoxels, rp.megabytes);
        std::printf("  time ratio ours / OpenVDB: adaptive %.2f, sparse %.2f\n", ta / tp, ts / tp);
        state.counters["peer_ms"] = tp;
        state.counters["ratio_adaptive"] = ta / tp;
        state.counters["ratio_sparse"] = ts / tp;
#endif
    }
}

BENCHMARK_TEMPLATE(BM_UnsignedDistanceArmadillo, Traits24)
    ->Arg(512)
    ->Arg(1024)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK_TEMPLATE(BM_UnsignedDistanceArmadillo, Traits55)
    ->Arg(512)
    ->Arg(1024)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

} // namespace

BENCHMARK_MAIN();
