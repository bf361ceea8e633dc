// Mesh to signed distance volume: ours (voxelizeMesh, error-free adaptivity, solid) against
// OpenVDB's meshToLevelSet with a half-width of 3, the same finest voxel size, 2 threads, repeats
// interleaved in one run, medians. Printed for each side: time, finest voxels, all voxels,
// memory, and the error near the surface against the exact distance at the same points (our
// finest samples within a voxel of the surface: our stored value, OpenVDB's trilinear value), and
// OpenVDB's error at its own voxels. Meshes: bunny.obj and armadillo.obj at 512 across, the
// armadillo at 1024, and the armadillo subdivided to about 830,000 triangles at 512.
#include <benchmark/benchmark.h>

#include "bench/support/exact_distance.h"
#include "bench/support/timing.h"
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <hexmold/io/read_mesh.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/voxelize_mesh.h>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#include <openvdb/tools/Interpolation.h>
#include <openvdb/tools/MeshToVolume.h>
#endif

namespace {

using namespace TVL::TileTree3D;
using benchtiming::median;
using benchtiming::msSince;
namespace Geo = Tavrel::Geometry;

/// The error tolerance of our build (relative to the box's largest side): HEXMOLD_BENCH_MAXERROR,
/// 0 by default (every tile near the surface refined).
float maxError()
{
    char const* v = std::getenv("HEXMOLD_BENCH_MAXERROR");
    return v ? float(std::atof(v)) : 0.0f;
}

class SilentServices : public Quillon::RuntimeServices {
public:
    bool isLogEnabled(Quillon::RuntimeMessageCategory) const override { return false; }
    void logImpl(Quillon::RuntimeMessageCategory, Quillon::StringView) const override {}
};

struct PolyMesh {
    Quillon::MutablePtr<Tavrel::Object> object;
    Quillon::Array<float3> positions;
    Quillon::Array<unsigned int> faceVertex, faceOffset;
    Quillon::Array<Tavrel::Math::ulong3> triangles;
    float maxSide = 0.0f;
};

PolyMesh fromArrays(Quillon::Array<float3> positions, Quillon::Array<unsigned int> faceVertex,
                    Quillon::Array<unsigned int> faceOffset)
{
    PolyMesh m;
    m.object = Geo::createMesh(positions, faceVertex, faceOffset);
    m.positions = std::move(positions);
    m.faceVertex = std::move(faceVertex);
    m.faceOffset = std::move(faceOffset);
    for (std::size_t f = 0; f + 1 < m.faceOffset.size(); ++f)
        for (unsigned k = m.faceOffset[f] + 2; k < m.faceOffset[f + 1]; ++k)
            m.triangles.push_back(
                {m.faceVertex[m.faceOffset[f]], m.faceVertex[k - 1], m.faceVertex[k]});
    float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
    for (auto const& p : m.positions)
        for (int a = 0; a < 3; ++a)
            lo[a] = std::min(lo[a], p[a]), hi[a] = std::max(hi[a], p[a]);
    m.maxSide = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    return m;
}

PolyMesh load(std::string const& file)
{
    try {
        auto const object = hexmold::io::readMesh(std::string(HEXMOLD_DATA_DIR) + "/" + file);
        auto const* p = Geo::getDataGeoPropertyValues<float3>(*object, Geo::sPointPosition);
        auto const* v = Geo::getMeshFaceVertices(*object);
        auto const* o = Geo::getMeshFaceOffsets(*object);
        if (!p || !v || !o)
            return {};
        return fromArrays(*p, *v, *o);
    } catch (std::exception const&) {
        return {};
    }
}

/// Each triangle split in four, @p levels times (midpoints shared).
PolyMesh subdivided(PolyMesh const& m, int levels)
{
    Quillon::Array<float3> positions = m.positions;
    std::vector<std::array<std::uint64_t, 3>> tris;
    for (auto const& t : m.triangles)
        tris.push_back({t.x, t.y, t.z});
    for (int l = 0; l < levels; ++l) {
        std::unordered_map<std::uint64_t, std::uint64_t> mid;
        auto middle = [&](std::uint64_t a, std::uint64_t b) {
            std::uint64_t const key = std::min(a, b) * 0x100000000ull + std::max(a, b);
            auto it = mid.find(key);
            if (it != mid.end())
                return it->second;
            float3 const& x = positions[a];
            float3 const& y = positions[b];
            positions.push_back({0.5f * (x.x + y.x), 0.5f * (x.y + y.y), 0.5f * (x.z + y.z)});
            return mid[key] = positions.size() - 1;
        };
        std::vector<std::array<std::uint64_t, 3>> next;
        next.reserve(tris.size() * 4);
        for (auto const& t : tris) {
            std::uint64_t const a = middle(t[0], t[1]), b = middle(t[1], t[2]),
                                c = middle(t[2], t[0]);
            next.push_back({t[0], a, c});
            next.push_back({t[1], b, a});
            next.push_back({t[2], c, b});
            next.push_back({a, b, c});
        }
        tris.swap(next);
    }
    Quillon::Array<unsigned int> fv, fo{0};
    for (auto const& t : tris) {
        fv.insert(fv.end(), {unsigned(t[0]), unsigned(t[1]), unsigned(t[2])});
        fo.push_back(unsigned(fv.size()));
    }
    return fromArrays(std::move(positions), std::move(fv), std::move(fo));
}

struct Side {
    double ms = 0.0;
    std::uint64_t finest = 0, all = 0;
    double megabytes = 0.0;
};

template <typename Tr> struct Ours {
    Container<Tr> container;
    VoxelTopology<Tr> topology;
    float far;
    VoxelChannel<Tr, float> distance;
    TVL::Object object;
    explicit Ours(float h)
        : container(Geo::sVoxelTileTree, h), topology(Geo::sVoxelComp, Geo::sVoxelTileTree, h),
          far(1e30f), distance(Geo::sVoxelSignedDistance, &far, kDataElementInitializerDefaultValue,
                               false, false, 0, Tr::kMaxDepth)
    {
    }
};

template <typename Tr> std::unique_ptr<Ours<Tr>> runOurs(PolyMesh const& m, float h, Side& s)
{
    auto o = std::make_unique<Ours<Tr>>(h);
    SilentServices services;
    auto const t0 = std::chrono::steady_clock::now();
    VolumeGL::TileTree3D::voxelizeMesh<Tr>(
        *m.object, m.positions, m.faceVertex, m.faceOffset, "", nullptr, true,
        VolumeGL::TileTree3D::AdaptivityMaxRelativeError, maxError(), 0.0f, 0.0f, nullptr,
        o->container, o->topology, o->distance, o->object, services);
    s.ms = msSince(t0);
    s.finest = o->container.voxelDataCount(Tr::kMaxDepth);
    s.all = o->container.voxelDataCount(-1);
    std::size_t u = 0, r = 0, u2 = 0, r2 = 0;
    o->container.memUse(u, r, true);
    o->distance.memUse(u2, r2, true);
    s.megabytes = double(u + u2) / (1024.0 * 1024.0);
    return o;
}

#if HEXMOLD_HAVE_OPENVDB
openvdb::FloatGrid::Ptr runPeer(PolyMesh const& m, float h, Side& s)
{
    std::vector<openvdb::Vec3s> points;
    std::vector<openvdb::Vec3I> triangles;
    auto const xform = openvdb::math::Transform::createLinearTransform(h);
    for (auto const& p : m.positions)
        points.emplace_back(p.x, p.y, p.z);
    for (auto const& t : m.triangles)
        triangles.emplace_back(unsigned(t.x), unsigned(t.y), unsigned(t.z));
    auto const t0 = std::chrono::steady_clock::now();
    auto grid = openvdb::tools::meshToLevelSet<openvdb::FloatGrid>(*xform, points, triangles, 3.0f);
    s.ms = msSince(t0);
    s.finest = grid->activeVoxelCount();
    s.all = s.finest;
    s.megabytes = double(grid->memUsage()) / (1024.0 * 1024.0);
    return grid;
}
#endif

struct Errors {
    double mean = 0.0, max = 0.0;
    std::size_t count = 0;
};
Errors summarize(std::vector<double> const& e)
{
    Errors r;
    r.count = e.size();
    for (double x : e)
        r.mean += x, r.max = std::max(r.max, x);
    if (!e.empty())
        r.mean /= double(e.size());
    return r;
}

template <typename Tr> void compare(char const* label, PolyMesh const& m, int across, int repeats)
{
    constexpr int W = Tr::kTileWidth;
    float const h = m.maxSide / float(across);
    TVL::Parallel::global_control threads(TVL::Parallel::global_control::max_allowed_parallelism,
                                          2);
    std::vector<double> ours, peer;
    Side so, sp;
    std::unique_ptr<Ours<Tr>> volume;
#if HEXMOLD_HAVE_OPENVDB
    openvdb::initialize();
    openvdb::FloatGrid::Ptr grid;
#endif
    for (int n = 0; n < repeats; ++n) {
        volume.reset();
        volume = runOurs<Tr>(m, h, so);
        ours.push_back(so.ms);
#if HEXMOLD_HAVE_OPENVDB
        grid.reset();
        grid = runPeer(m, h, sp);
        peer.push_back(sp.ms);
#endif
    }
    // Errors at the same points: random points on random triangles moved along the normal by up
    // to a voxel either way, read by trilinear interpolation on both sides.
    benchdistance::ExactDistance const exact(m.positions, m.triangles);
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> u01(0.0, 1.0);
    std::vector<float3> points;
    for (int q = 0; q < 20000; ++q) {
        auto const& t =
            m.triangles[std::size_t(u01(rng) * double(m.triangles.size())) % m.triangles.size()];
        double a = u01(rng), b = u01(rng);
        if (a + b > 1.0)
            a = 1.0 - a, b = 1.0 - b;
        float3 const &p0 = m.positions[t.x], &p1 = m.positions[t.y], &p2 = m.positions[t.z];
        double n[3] = {double(p1.y - p0.y) * (p2.z - p0.z) - double(p1.z - p0.z) * (p2.y - p0.y),
                       double(p1.z - p0.z) * (p2.x - p0.x) - double(p1.x - p0.x) * (p2.z - p0.z),
                       double(p1.x - p0.x) * (p2.y - p0.y) - double(p1.y - p0.y) * (p2.x - p0.x)};
        double const len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        if (!(len > 0.0))
            continue;
        double const off = (2.0 * u01(rng) - 1.0) * h / len;
        float3 p;
        for (int k = 0; k < 3; ++k)
            p[k] = float(p0[k] + a * (p1[k] - p0[k]) + b * (p2[k] - p0[k]) + off * n[k]);
        points.push_back(p);
    }
    std::vector<double> eo(points.size()), ep(points.size());
    VoxelSamplerLinear<Tr, float> const exemplar(volume->container, volume->topology,
                                                 volume->distance);
    TVL::Parallel::parallel_for(
        TVL::Parallel::blocked_range<std::size_t>(0, points.size(), 64), [&](auto const& r) {
            VoxelSamplerLinear<Tr, float> sampler(exemplar);
#if HEXMOLD_HAVE_OPENVDB
            auto acc = grid->getConstAccessor();
            openvdb::tools::GridSampler<decltype(acc), openvdb::tools::BoxSampler> vdb(
                acc, grid->transform());
#endif
            for (std::size_t q = r.begin(); q != r.end(); ++q) {
                float3 const& p = points[q];
                double const d = exact(p);
                eo[q] = std::abs(std::abs(double(sampler.value(p))) - d) / h;
#if HEXMOLD_HAVE_OPENVDB
                ep[q] =
                    std::abs(std::abs(double(vdb.wsSample(openvdb::Vec3d(p.x, p.y, p.z)))) - d) / h;
#endif
            }
        });
    Errors const oe = summarize(eo), pe = summarize(ep);
    double const to = median(ours);
    std::printf("\n%s, %s, %d across (voxel %.6g), %zu triangles, error tolerance %g, %d "
                "interleaved repeats, medians, 2 "
                "threads:\n",
                label, Tr::kRatio == 2 ? "Traits<2,4,1>" : "Traits<5,5,1>", across, double(h),
                m.triangles.size(), double(maxError()), repeats);
    std::printf("  ours:    %8.1f ms, %10llu finest voxels, %10llu in all, %7.1f MB; near-surface "
                "error mean %.4f, max %.4f voxel (trilinear)\n",
                to, (unsigned long long)so.finest, (unsigned long long)so.all, so.megabytes,
                oe.mean, oe.max);
#if HEXMOLD_HAVE_OPENVDB
    // OpenVDB at its own voxels within a voxel of the surface.
    std::vector<std::array<float, 4>> own;
    for (auto it = grid->cbeginValueOn(); it; ++it)
        if (std::abs(*it) <= h) {
            auto const w = grid->indexToWorld(it.getCoord());
            own.push_back({float(w.x()), float(w.y()), float(w.z()), *it});
        }
    std::shuffle(own.begin(), own.end(), rng);
    if (own.size() > 20000)
        own.resize(20000);
    std::vector<double> eown(own.size());
    TVL::Parallel::parallel_for(
        TVL::Parallel::blocked_range<std::size_t>(0, own.size(), 64), [&](auto const& r) {
            for (std::size_t q = r.begin(); q != r.end(); ++q)
                eown[q] = std::abs(std::abs(double(own[q][3])) -
                                   exact(float3{own[q][0], own[q][1], own[q][2]})) /
                          h;
        });
    Errors const pown = summarize(eown);
    double const tp = median(peer);
    std::printf("  OpenVDB: %8.1f ms, %10llu active voxels, %7.1f MB; near-surface error mean "
                "%.4f, max %.4f voxel (trilinear); at its "
                "own voxels mean %.4f, max %.4f voxel\n",
                tp, (unsigned long long)sp.finest, sp.megabytes, pe.mean, pe.max, pown.mean,
                pown.max);
    std::printf("  time ratio ours / OpenVDB: %.2f; voxel ratio (finest / active): %.2f\n", to / tp,
                double(so.finest) / double(sp.finest));
#endif
}

template <typename Tr> void BM_VoxelizeMesh(benchmark::State& state)
{
    int const which = int(state.range(0));
    char const* file = which == 0 ? "bunny.obj" : "armadillo.obj";
    PolyMesh m = load(file);
    if (m.triangles.empty()) {
        state.SkipWithError("the mesh is not in the shared data folder");
        return;
    }
    for (auto _ : state) {
        if (which <= 1)
            compare<Tr>(file, m, 512, 5);
        if (which == 2)
            compare<Tr>("armadillo.obj", m, 1024, 3);
        if (which == 3)
            compare<Tr>("armadillo.obj subdivided twice", subdivided(m, 2), 512, 3);
    }
}

// 0 bunny at 512, 1 armadillo at 512, 2 armadillo at 1024, 3 subdivided armadillo at 512.
BENCHMARK_TEMPLATE(BM_VoxelizeMesh, Traits24)
    ->DenseRange(0, 3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK_TEMPLATE(BM_VoxelizeMesh, Traits55)
    ->DenseRange(0, 3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

} // namespace
