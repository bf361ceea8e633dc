// hexmold voxelize and the mesh part of hexmold demo.
#include "voxelize_command.h"
#include "stage_times.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <hexmold/api/voxelize_mesh.h>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/io/level_set_grid.h>
#include <hexmold/io/read_mesh.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/voxelize_mesh.h>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace hexmoldtool {

namespace {

using namespace TVL::TileTree3D;
namespace Geo = Tavrel::Geometry;
using Clock = std::chrono::steady_clock;

struct MeshArrays {
    Quillon::MutablePtr<Tavrel::Object> object;
    Quillon::Array<Tavrel::Math::float3> positions;
    Quillon::Array<unsigned int> faceVertex, faceOffset;
    double lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
    double maxSide = 0.0;
};

MeshArrays arraysOf(Quillon::MutablePtr<Tavrel::Object> object)
{
    MeshArrays m;
    m.object = std::move(object);
    if (auto const* p =
            Geo::getDataGeoPropertyValues<Tavrel::Math::float3>(*m.object, Geo::sPointPosition))
        m.positions = *p;
    if (auto const* v = Geo::getMeshFaceVertices(*m.object))
        m.faceVertex = *v;
    if (auto const* o = Geo::getMeshFaceOffsets(*m.object))
        m.faceOffset = *o;
    for (int a = 0; a < 3; ++a)
        m.lo[a] = 1e300, m.hi[a] = -1e300;
    for (auto const& p : m.positions)
        for (int a = 0; a < 3; ++a)
            m.lo[a] = std::min(m.lo[a], double(p[a])), m.hi[a] = std::max(m.hi[a], double(p[a]));
    for (int a = 0; a < 3; ++a)
        m.maxSide = std::max(m.maxSide, m.hi[a] - m.lo[a]);
    return m;
}

/// An icosphere of radius 1 with 4 subdivisions (5120 triangles).
MeshArrays icosphere()
{
    double const t = (1.0 + std::sqrt(5.0)) / 2.0;
    std::vector<std::array<double, 3>> v = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0},
                                            {0, -1, t}, {0, 1, t}, {0, -1, -t}, {0, 1, -t},
                                            {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
    std::vector<std::array<unsigned, 3>> f = {
        {0, 11, 5},  {0, 5, 1},  {0, 1, 7},  {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
        {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
        {3, 8, 9},   {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
    auto unit = [](std::array<double, 3> p) {
        double const l = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
        return std::array<double, 3>{p[0] / l, p[1] / l, p[2] / l};
    };
    for (auto& p : v)
        p = unit(p);
    for (int s = 0; s < 4; ++s) {
        std::map<std::pair<unsigned, unsigned>, unsigned> mid;
        auto middle = [&](unsigned a, unsigned b) {
            auto key = std::minmax(a, b);
            auto it = mid.find(key);
            if (it != mid.end())
                return it->second;
            v.push_back(
                unit({(v[a][0] + v[b][0]) / 2, (v[a][1] + v[b][1]) / 2, (v[a][2] + v[b][2]) / 2}));
            return mid[key] = unsigned(v.size() - 1);
        };
        std::vector<std::array<unsigned, 3>> g;
        for (auto const& tri : f) {
            unsigned const a = middle(tri[0], tri[1]), b = middle(tri[1], tri[2]),
                           c = middle(tri[2], tri[0]);
            g.push_back({tri[0], a, c});
            g.push_back({tri[1], b, a});
            g.push_back({tri[2], c, b});
            g.push_back({a, b, c});
        }
        f = g;
    }
    Quillon::Array<Tavrel::Math::float3> positions;
    for (auto const& p : v)
        positions.push_back({float(p[0]), float(p[1]), float(p[2])});
    Quillon::Array<unsigned int> faceVertex, faceOffset{0};
    for (auto const& tri : f) {
        faceVertex.insert(faceVertex.end(), tri.begin(), tri.end());
        faceOffset.push_back(unsigned(faceVertex.size()));
    }
    return arraysOf(Geo::createMesh(positions, faceVertex, faceOffset));
}

/// The volume, built through the hexmold:: layer, with the time it took.
struct Built {
    hexmold::Volume volume;
    double ms = 0.0;
};

Built build(MeshArrays const& m, VoxelizeArgs const& a, double h)
{
    hexmold::VoxelizeMeshOptions o;
    o.traits = a.traits == 55 ? hexmold::TraitsKind::kTraits55 : hexmold::TraitsKind::kTraits24;
    o.voxelSize = h;
    o.solid = !a.shell;
    o.sparse = a.adaptivity == "sparse";
    o.maxRelativeError = a.maxError;
    o.holeRadius = a.holeRadius;
    o.thickenVoxels = a.thicken;
    o.properties = a.properties;
    StageTimes const stages("Geometry::Converters::mesh_to_level_set.", a.verbose);
    auto const t0 = Clock::now();
    Built b{hexmold::voxelizeMesh(*m.object, o), 0.0};
    b.ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    return b;
}

template <typename Traits>
void summary(Built const& b, MeshArrays const& m, VoxelizeArgs const& a, float h)
{
    constexpr int kMax = Traits::kMaxDepth;
    auto const& object = b.volume.object();
    auto const& tree = *object.component<Container<Traits>>(b.volume.names().tree);
    auto const& distance =
        *object.component<VoxelChannel<Traits, float>>(hexmold::kDistanceChannel);
    std::printf("mesh: %zu points, %zu faces, box %.6g x %.6g x %.6g\n", m.positions.size(),
                m.faceOffset.empty() ? std::size_t(0) : m.faceOffset.size() - 1, m.hi[0] - m.lo[0],
                m.hi[1] - m.lo[1], m.hi[2] - m.lo[2]);
    std::printf("volume: %s, finest voxel %.6g (%.0f across), %s%s\n",
                Traits::kRatio == 2 ? "Traits<2,4,1>" : "Traits<5,5,1>", double(h),
                m.maxSide / double(h), a.shell ? "shell (unsigned)" : "solid (signed)",
                a.adaptivity == "sparse" ? ", sparse build" : "");
    std::printf("  depth      tiles        voxels\n");
    for (int d = 0; d <= kMax; ++d) {
        std::int64_t const n = tree.tileCount(d);
        if (n == 0)
            continue;
        std::printf("  %5d %10lld %13llu\n", d, (long long)n,
                    (unsigned long long)tree.voxelDataCount(d));
    }
    std::uint64_t band = 0;
    for (std::int64_t t = 0; t < tree.tileCount(kMax); ++t)
        for (float x : distance.tileData(t, kMax))
            band += std::abs(x) < 3.0f * h;
    std::printf("  all %16llu voxels; finest voxels within 3 voxels of the surface: %llu\n",
                (unsigned long long)b.volume.voxelCount(), (unsigned long long)band);
    std::printf("memory: %.2f MiB in all", mib(b.volume.memoryBytes()));
    for (auto const& name : object.componentRange()) {
        auto const c = object.template component<TVL::Component>(name);
        if (!c)
            continue;
        std::size_t u = 0, r = 0;
        c->memUse(u, r, true);
        std::printf(", %s %.2f MiB", name.c_str(), mib(u));
    }
    std::printf("\ntime: %.1f ms in all\n", b.ms);
    StageTimes::print();
    std::printf("voxel hash: %.17g\n", b.volume.voxelHash());
}

/// Error of the finest voxels within 2 voxels of the surface against the exact distance, on up to
/// 20000 of them chosen at random (brute force over the triangles).
template <typename Traits> void exactError(Built const& b, MeshArrays const& m, float h)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    auto const& object = b.volume.object();
    auto const& tree = *object.component<Container<Traits>>(b.volume.names().tree);
    auto const& distance =
        *object.component<VoxelChannel<Traits, float>>(hexmold::kDistanceChannel);
    std::vector<std::pair<std::int64_t, int>> near;
    for (std::int64_t t = 0; t < tree.tileCount(kMax); ++t) {
        auto const dd = distance.tileData(t, kMax);
        for (int n = 0; n < int(dd.size()); ++n)
            if (std::abs(dd[std::size_t(n)]) <= 2.0f * h)
                near.push_back({t, n});
    }
    std::mt19937_64 rng(7);
    std::shuffle(near.begin(), near.end(), rng);
    if (near.size() > 20000)
        near.resize(20000);
    std::vector<double> err(near.size(), 0.0);
    TVL::Parallel::parallel_for(
        TVL::Parallel::blocked_range<std::size_t>(0, near.size(), 64), [&](auto const& r) {
            for (std::size_t q = r.begin(); q != r.end(); ++q) {
                auto const& tile = tree.tile(near[q].first, kMax);
                int const n = near[q].second;
                Tavrel::Math::float3 const p{float((tile.ti() + n % W + 0.5) * h),
                                             float((tile.tj() + (n / W) % W + 0.5) * h),
                                             float((tile.tk() + n / (W * W) + 0.5) * h)};
                float best = 1e30f;
                for (std::size_t f = 0; f + 1 < m.faceOffset.size(); ++f)
                    for (unsigned q2 = m.faceOffset[f] + 2; q2 < m.faceOffset[f + 1]; ++q2)
                        best = std::min(best, Tavrel::SpatialQuery::pointTriangleDistance(
                                                  p, m.positions[m.faceVertex[m.faceOffset[f]]],
                                                  m.positions[m.faceVertex[q2 - 1]],
                                                  m.positions[m.faceVertex[q2]]));
                err[q] =
                    std::abs(
                        std::abs(double(distance.tileData(near[q].first, kMax)[std::size_t(n)])) -
                        best) /
                    h;
            }
        });
    double sum = 0.0, worst = 0.0;
    for (double e : err)
        sum += e, worst = std::max(worst, e);
    std::printf("error against the exact distance, %zu finest voxels within 2 voxels: mean %.3g, "
                "max %.3g voxel\n",
                err.size(), err.empty() ? 0.0 : sum / double(err.size()), worst);
}

template <typename Traits> int runWith(MeshArrays const& m, VoxelizeArgs const& a)
{
    double const h = a.voxelSize > 0.0 ? a.voxelSize : m.maxSide / double(a.resolution);
    if (!(h > 0.0) || !std::isfinite(h))
        throw std::runtime_error("the mesh has no extent to divide into voxels");
    Built const b = build(m, a, h);
    summary<Traits>(b, m, a, float(h));
    if (a.exactError)
        exactError<Traits>(b, m, float(h));
    if (!a.out.empty()) {
        hexmold::io::VolumeWriteOptions options;
        options.halfFloats = a.half;
        hexmold::io::writeVolume(a.out, b.volume.object(), options);
        std::printf("wrote %s\n", a.out.c_str());
    }
    if (!a.levelSetGrid.empty()) {
        hexmold::io::writeLevelSetGrid(a.levelSetGrid, b.volume.object(),
                                       hexmold::kDistanceChannel);
        std::printf("wrote %s\n", a.levelSetGrid.c_str());
    }
    return 0;
}

int runOn(MeshArrays const& m, VoxelizeArgs const& a)
{
    return a.traits == 55 ? runWith<Traits55>(m, a) : runWith<Traits24>(m, a);
}

} // namespace

int runVoxelize(VoxelizeArgs const& a)
{
    return runOn(arraysOf(hexmold::io::readMesh(a.mesh)), a);
}

int runMeshDemo(int resolution)
{
    std::vector<std::filesystem::path> candidates;
    if (char const* dir = std::getenv("HEXMOLD_DATA_DIR"))
        candidates.emplace_back(std::filesystem::path(dir) / "bunny.obj");
    candidates.emplace_back("../shared/data/bunny.obj");
    candidates.emplace_back("../../shared/data/bunny.obj");
    VoxelizeArgs a;
    a.resolution = resolution;
    a.exactError = true;
    for (auto const& p : candidates) {
        std::error_code ec;
        if (!std::filesystem::exists(p, ec))
            continue;
        std::printf("== voxelizeMesh: %s, %d voxels across\n", p.string().c_str(), resolution);
        a.mesh = p.string();
        return runVoxelize(a);
    }
    std::printf(
        "== voxelizeMesh: an icosphere of 5120 triangles (bunny.obj not found), %d voxels across\n",
        resolution);
    return runOn(icosphere(), a);
}

} // namespace hexmoldtool
