// hexmold voxelize and the mesh part of hexmold demo.
#include "voxelize_command.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>
#include <hexmold/diagnostics/logger.h>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/io/read_mesh.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/voxelize_mesh.h>

namespace hexmoldtool {

namespace {

using namespace TVL::TileTree3D;
namespace Geo = Tavrel::Geometry;
using Clock = std::chrono::steady_clock;

/// Messages of the library: warnings and errors to standard error.
class StderrServices : public Quillon::RuntimeServices {
public:
    bool isLogEnabled(Quillon::RuntimeMessageCategory c) const override
    {
        return c != Quillon::RuntimeMessageCategory::kInfo;
    }
    void logImpl(Quillon::RuntimeMessageCategory, Quillon::StringView text) const override
    {
        std::fprintf(stderr, "hexmold: %.*s\n", int(text.size()), text.data());
    }
};

/// Stage times, gathered from the library's timers; progress on a terminal.
struct Stages {
    static std::mutex& lock()
    {
        static std::mutex m;
        return m;
    }
    static std::vector<std::pair<std::string, double>>& list()
    {
        static std::vector<std::pair<std::string, double>> l;
        return l;
    }
    static void observe(Quillon::StringView name, double ms)
    {
        std::lock_guard<std::mutex> g(lock());
        std::string n(name);
        std::string const prefix = "Geometry::Converters::mesh_to_level_set.";
        if (n.rfind(prefix, 0) != 0) return; // the voxelizer's own stages
        n = n.substr(prefix.size());
        list().push_back({n, ms});
        if (isatty(2)) std::fprintf(stderr, "\r  %-50s %9.1f ms\033[K", n.c_str(), ms);
    }
};

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
    if (auto const* p = Geo::getDataGeoPropertyValues<Tavrel::Math::float3>(*m.object, Geo::sPointPosition))
        m.positions = *p;
    if (auto const* v = Geo::getMeshFaceVertices(*m.object)) m.faceVertex = *v;
    if (auto const* o = Geo::getMeshFaceOffsets(*m.object)) m.faceOffset = *o;
    for (int a = 0; a < 3; ++a) m.lo[a] = 1e300, m.hi[a] = -1e300;
    for (auto const& p : m.positions)
        for (int a = 0; a < 3; ++a) m.lo[a] = std::min(m.lo[a], double(p[a])), m.hi[a] = std::max(m.hi[a], double(p[a]));
    for (int a = 0; a < 3; ++a) m.maxSide = std::max(m.maxSide, m.hi[a] - m.lo[a]);
    return m;
}

/// An icosphere of radius 1 with 4 subdivisions (5120 triangles).
MeshArrays icosphere()
{
    double const t = (1.0 + std::sqrt(5.0)) / 2.0;
    std::vector<std::array<double, 3>> v = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0}, {0, -1, t}, {0, 1, t},
                                            {0, -1, -t}, {0, 1, -t}, {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
    std::vector<std::array<unsigned, 3>> f = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11},
                                              {1, 5, 9},  {5, 11, 4}, {11, 10, 2}, {10, 7, 6}, {7, 1, 8},
                                              {3, 9, 4},  {3, 4, 2},  {3, 2, 6},   {3, 6, 8},  {3, 8, 9},
                                              {4, 9, 5},  {2, 4, 11}, {6, 2, 10},  {8, 6, 7},  {9, 8, 1}};
    auto unit = [](std::array<double, 3> p) {
        double const l = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
        return std::array<double, 3>{p[0] / l, p[1] / l, p[2] / l};
    };
    for (auto& p : v) p = unit(p);
    for (int s = 0; s < 4; ++s) {
        std::map<std::pair<unsigned, unsigned>, unsigned> mid;
        auto middle = [&](unsigned a, unsigned b) {
            auto key = std::minmax(a, b);
            auto it = mid.find(key);
            if (it != mid.end()) return it->second;
            v.push_back(unit({(v[a][0] + v[b][0]) / 2, (v[a][1] + v[b][1]) / 2, (v[a][2] + v[b][2]) / 2}));
            return mid[key] = unsigned(v.size() - 1);
        };
        std::vector<std::array<unsigned, 3>> g;
        for (auto const& tri : f) {
            unsigned const a = middle(tri[0], tri[1]), b = middle(tri[1], tri[2]), c = middle(tri[2], tri[0]);
            g.push_back({tri[0], a, c});
            g.push_back({tri[1], b, a});
            g.push_back({tri[2], c, b});
            g.push_back({a, b, c});
        }
        f = g;
    }
    Quillon::Array<Tavrel::Math::float3> positions;
    for (auto const& p : v) positions.push_back({float(p[0]), float(p[1]), float(p[2])});
    Quillon::Array<unsigned int> faceVertex, faceOffset{0};
    for (auto const& tri : f) {
        faceVertex.insert(faceVertex.end(), tri.begin(), tri.end());
        faceOffset.push_back(unsigned(faceVertex.size()));
    }
    return arraysOf(Geo::createMesh(positions, faceVertex, faceOffset));
}

template <typename Traits> struct Built {
    Container<Traits> container;
    VoxelTopology<Traits> topology;
    float far;
    VoxelChannel<Traits, float> distance;
    TVL::Object object;
    double ms = 0.0;
    Built(float h, float farValue)
        : container(Geo::sVoxelTileTree, h), topology(Geo::sVoxelComp, Geo::sVoxelTileTree, h), far(farValue),
          distance(Geo::sVoxelSignedDistance, &far, kDataElementInitializerDefaultValue, false, false, 0,
                   Traits::kMaxDepth)
    {
    }
};

template <typename Traits>
std::unique_ptr<Built<Traits>> build(MeshArrays const& m, VoxelizeArgs const& a, float h)
{
    auto b = std::make_unique<Built<Traits>>(h, 1e30f);
    StderrServices services;
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(a.verbose);
    Stages::list().clear();
    CoreGL::Logger::setTimerObserver(&Stages::observe);
    auto const t0 = Clock::now();
    VolumeGL::TileTree3D::voxelizeMesh<Traits>(
        *m.object, m.positions, m.faceVertex, m.faceOffset, a.properties, nullptr, !a.shell,
        static_cast<VolumeGL::TileTree3D::Adaptivity>(a.adaptivity), float(a.maxError), float(a.holeRadius), float(a.thicken), nullptr,
        b->container, b->topology, b->distance, b->object, services);
    b->ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    CoreGL::Logger::setTimerObserver(nullptr);
    CoreGL::Logger::setVerboseLevel(saved);
    if (isatty(2)) std::fprintf(stderr, "\r\033[K");
    return b;
}

double mib(std::size_t bytes) { return double(bytes) / (1024.0 * 1024.0); }

template <typename Traits> void summary(Built<Traits> const& b, MeshArrays const& m, VoxelizeArgs const& a, float h)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    std::printf("mesh: %zu points, %zu faces, box %.6g x %.6g x %.6g\n", m.positions.size(),
                m.faceOffset.empty() ? std::size_t(0) : m.faceOffset.size() - 1, m.hi[0] - m.lo[0], m.hi[1] - m.lo[1],
                m.hi[2] - m.lo[2]);
    std::printf("volume: %s, finest voxel %.6g (%.0f across), %s\n", Traits::kRatio == 2 ? "Traits<2,4,1>" : "Traits<5,5,1>",
                double(h), m.maxSide / double(h), a.shell ? "shell (unsigned)" : "solid (signed)");
    std::printf("  depth      tiles        voxels\n");
    std::uint64_t voxels = 0;
    for (int d = 0; d <= kMax; ++d) {
        std::int64_t const n = b.container.tileCount(d);
        if (n == 0) continue;
        std::uint64_t const v = b.container.voxelDataCount(d);
        voxels += v;
        std::printf("  %5d %10lld %13llu\n", d, (long long)n, (unsigned long long)v);
    }
    std::uint64_t band = 0;
    for (std::int64_t t = 0; t < b.container.tileCount(kMax); ++t)
        for (float x : b.distance.tileData(t, kMax)) band += std::abs(x) < 3.0f * h;
    std::printf("  all %16llu voxels; finest voxels within 3 voxels of the surface: %llu\n",
                (unsigned long long)voxels, (unsigned long long)band);
    std::size_t used = 0, reserved = 0;
    b.container.memUse(used, reserved, true);
    std::printf("memory: tree %.2f MiB, %s %.2f MiB", mib(used), Geo::sVoxelSignedDistance.c_str(), [&] {
        std::size_t u = 0, r = 0;
        b.distance.memUse(u, r, true);
        return mib(u);
    }());
    for (auto const& name : b.object.componentRange()) {
        auto const c = b.object.template component<TVL::Component>(name);
        if (!c) continue;
        std::size_t u = 0, r = 0;
        c->memUse(u, r, true);
        std::printf(", %s %.2f MiB", name.c_str(), mib(u));
    }
    std::printf("\ntime: %.1f ms in all\n", b.ms);
    for (auto const& [stage, ms] : Stages::list()) std::printf("  %-52s %9.1f ms\n", stage.c_str(), ms);
    std::printf("voxel hash: %.17g\n", CoreGL::voxelHash(b.container, b.distance));
}

/// Error of the finest voxels within 2 voxels of the surface against the exact distance, on up to
/// 20000 of them chosen at random (brute force over the triangles).
template <typename Traits> void exactError(Built<Traits> const& b, MeshArrays const& m, float h)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    std::vector<std::pair<std::int64_t, int>> near;
    for (std::int64_t t = 0; t < b.container.tileCount(kMax); ++t) {
        auto const dd = b.distance.tileData(t, kMax);
        for (int n = 0; n < int(dd.size()); ++n)
            if (std::abs(dd[std::size_t(n)]) <= 2.0f * h) near.push_back({t, n});
    }
    std::mt19937_64 rng(7);
    std::shuffle(near.begin(), near.end(), rng);
    if (near.size() > 20000) near.resize(20000);
    std::vector<double> err(near.size(), 0.0);
    TVL::Parallel::parallel_for(TVL::Parallel::blocked_range<std::size_t>(0, near.size(), 64), [&](auto const& r) {
        for (std::size_t q = r.begin(); q != r.end(); ++q) {
            auto const& tile = b.container.tile(near[q].first, kMax);
            int const n = near[q].second;
            Tavrel::Math::float3 const p{float((tile.ti() + n % W + 0.5) * h), float((tile.tj() + (n / W) % W + 0.5) * h),
                                         float((tile.tk() + n / (W * W) + 0.5) * h)};
            float best = 1e30f;
            for (std::size_t f = 0; f + 1 < m.faceOffset.size(); ++f)
                for (unsigned q2 = m.faceOffset[f] + 2; q2 < m.faceOffset[f + 1]; ++q2)
                    best = std::min(best, Tavrel::SpatialQuery::pointTriangleDistance(
                                              p, m.positions[m.faceVertex[m.faceOffset[f]]],
                                              m.positions[m.faceVertex[q2 - 1]], m.positions[m.faceVertex[q2]]));
            err[q] = std::abs(std::abs(double(b.distance.tileData(near[q].first, kMax)[std::size_t(n)])) - best) / h;
        }
    });
    double sum = 0.0, worst = 0.0;
    for (double e : err) sum += e, worst = std::max(worst, e);
    std::printf("error against the exact distance, %zu finest voxels within 2 voxels: mean %.3g, max %.3g voxel\n",
                err.size(), err.empty() ? 0.0 : sum / double(err.size()), worst);
}

template <typename Traits> int runWith(MeshArrays const& m, VoxelizeArgs const& a)
{
    double const h = a.voxelSize > 0.0 ? a.voxelSize : m.maxSide / double(a.resolution);
    if (!(h > 0.0) || !std::isfinite(h)) {
        std::fprintf(stderr, "hexmold: the mesh has no extent to divide into voxels\n");
        return 1;
    }
    auto const b = build<Traits>(m, a, float(h));
    summary(*b, m, a, float(h));
    if (a.exactError) exactError(*b, m, float(h));
    return 0;
}

int runOn(MeshArrays const& m, VoxelizeArgs const& a)
{
    std::unique_ptr<TVL::Parallel::global_control> limit;
    if (a.threads > 0)
        limit = std::make_unique<TVL::Parallel::global_control>(TVL::Parallel::global_control::max_allowed_parallelism,
                                                                std::size_t(a.threads));
    return a.traits == 55 ? runWith<Traits55>(m, a) : runWith<Traits24>(m, a);
}

} // namespace

int runVoxelize(VoxelizeArgs const& a)
{
    try {
        return runOn(arraysOf(hexmold::io::readMesh(a.mesh)), a);
    } catch (std::exception const& e) {
        std::fprintf(stderr, "hexmold: %s\n", e.what());
        return 1;
    }
}

int runMeshDemo(int resolution)
{
    std::vector<std::filesystem::path> candidates;
    if (char const* dir = std::getenv("HEXMOLD_DATA_DIR")) candidates.emplace_back(std::filesystem::path(dir) / "bunny.obj");
    candidates.emplace_back("../shared/data/bunny.obj");
    candidates.emplace_back("../../shared/data/bunny.obj");
    VoxelizeArgs a;
    a.resolution = resolution;
    a.exactError = true;
    for (auto const& p : candidates) {
        std::error_code ec;
        if (!std::filesystem::exists(p, ec)) continue;
        std::printf("== voxelizeMesh: %s, %d voxels across\n", p.string().c_str(), resolution);
        a.mesh = p.string();
        return runVoxelize(a);
    }
    std::printf("== voxelizeMesh: an icosphere of 5120 triangles (bunny.obj not found), %d voxels across\n", resolution);
    try {
        return runOn(icosphere(), a);
    } catch (std::exception const& e) {
        std::fprintf(stderr, "hexmold: %s\n", e.what());
        return 1;
    }
}

} // namespace hexmoldtool
