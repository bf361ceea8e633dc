#include <gtest/gtest.h>
#include <cfloat>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <hexmold/diagnostics/logger.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/levelset/dof_classification.h>
#include "support/analysis_scene.h"

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D::LevelSet;

template <typename Tr> void runScratch(bool graded, bool useDof, double band)
{
    double const R = 40.0;
    float const vs = 0.01f;
    testscene::Scene<Tr> s(vs);
    if (graded) s.buildGradedSphere(R, 1.5); else s.buildUniformBand(R, band);
    double const Rw = R * vs;
    auto exact = [&](double x, double y, double z) { return std::sqrt(x * x + y * y + z * z) - Rw; };
    auto field = [&](double x, double y, double z) { return (x * x + y * y + z * z - Rw * Rw) / (2 * Rw); };
    s.template add<float>("d", [&](Tile<Tr> const& t, int i, int j, int k) { auto p = s.position(t, i, j, k, true); return float(field(p.x + 0.5 * vs, p.y + 0.5 * vs, p.z + 0.5 * vs)); });
    auto* ch = const_cast<VoxelChannel<Tr, float>*>(&s.template channel<float>("d"));
    float bg = 100.0f * vs * 4;
    ch->setDefaultValue(&bg);
    auto& tree = s.tree();
    std::unique_ptr<VoxelChannel<Tr, short>> dof;
    if (useDof) {
        short z = 0;
        dof = std::make_unique<VoxelChannel<Tr, short>>(Quillon::String(), &z, kDataElementInitializerDefaultValue, false, false, 0, Tr::kMaxDepth);
        dof->update(s.topology());
        classifyDegreesOfFreedom(tree, *dof);
    }
    if (getenv("VERB")) CoreGL::Logger::setVerboseLevel(3);
    auto t0 = std::chrono::steady_clock::now();
    levelSetRedistance<Tr>(tree, s.topology(), *ch, true, true, true, 0, Tr::kMaxDepth, nullptr, nullptr, 0.01f, FLT_MAX,
                           FLT_MAX, getenv("PASSES") ? atoi(getenv("PASSES")) : 10, getenv("PASSES") ? atoi(getenv("PASSES")) : 10, false, false, dof.get(), Quillon::String("t"), kRedistanceSweeping);
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double maxNear = 0, sumNear = 0; long nNear = 0; int flips = 0; long unreached = 0;
    std::vector<double> maxPerDepth(Tr::kDepthCount, 0.0);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const& tile = tree.tile(t, d);
            auto td = ch->tileData(t, d);
            double h = double(tile.voxelDataWidth()) * vs;
            for (int k = 0; k < Tr::kTileWidth; ++k) for (int j = 0; j < Tr::kTileWidth; ++j) for (int i = 0; i < Tr::kTileWidth; ++i) {
                { auto p = s.position(tile, i, j, k, true); p.x += 0.5 * vs; p.y += 0.5 * vs; p.z += 0.5 * vs; double e = exact(p.x, p.y, p.z); float v = td(i, j, k);
                if (getenv("DUMP") && d == atoi(getenv("DUMP"))) std::printf("D d=%d t=(%d,%d,%d) %d%d%d leaf=%d flag=%d e=%.3f v=%.3f\n", d, tile.ti(), tile.tj(), tile.tk(), i, j, k, int(tile.isLeaf(i,j,k)), dof ? int(dof->tileData(t, d)(i,j,k)) : -1, e, v);
                }
                if (!(d == Tr::kMaxDepth || tile.isLeaf(i, j, k))) continue;
                auto p = s.position(tile, i, j, k, true); p.x += 0.5 * vs; p.y += 0.5 * vs; p.z += 0.5 * vs;
                double e = exact(p.x, p.y, p.z);
                float v = td(i, j, k);
                if ((e < 0) != (v < 0) && std::fabs(e) > 1e-6) ++flips;
                if (std::fabs(std::fabs(v) - bg) < 1e-6) { ++unreached; continue; }
                double err = std::fabs(v - e);
                if (std::fabs(e) < 3 * vs && d == Tr::kMaxDepth) { maxNear = std::max(maxNear, err); sumNear += err; ++nNear; }
                if (std::fabs(e) < 0.5 * bg && err / h > maxPerDepth[d]) { maxPerDepth[d] = err / h; if (getenv("DBG")) std::printf("    d=%d tile=(%d,%d,%d) ijk=%d%d%d e=%.4f v=%.4f h=%.4f\n", d, tile.ti(), tile.tj(), tile.tk(), i,j,k, e, v, h); }
            }
        }
    std::printf("graded=%d dof=%d tiles=%lld time=%.3fs nearMean=%.4f h nearMax=%.4f h flips=%d unreached=%ld\n", graded, useDof,
                (long long)tree.tileCount(-1), secs, sumNear / std::max(1L, nNear) / vs, maxNear / vs, flips, unreached);
    for (int d = 0; d <= Tr::kMaxDepth; ++d) if (tree.tileCount(d)) std::printf("  depth %d tiles %lld max err %.3f h(d)\n", d, (long long)tree.tileCount(d), maxPerDepth[d]);
}

TEST(Scratch, T24) { runScratch<Traits24>(false, false, 6); runScratch<Traits24>(true, false, 6); runScratch<Traits24>(true, true, 6); runScratch<Traits24>(false, true, 6);}
TEST(Scratch, T55) { runScratch<Traits55>(false, false, 6); runScratch<Traits55>(true, false, 6); runScratch<Traits55>(true, true, 6);runScratch<Traits55>(false, true, 6); }
TEST(Scratch, T55Dof) { runScratch<Traits55>(true, true, 6); }
TEST(Scratch, T24Dof) { runScratch<Traits24>(true, true, 6); }
TEST(Scratch, T55DofU) { runScratch<Traits55>(false, true, 6); }
TEST(Scratch, T24G) { runScratch<Traits24>(true, false, 6); }
TEST(Scratch, Perf) { runScratch<Traits24>(false, false, 3); }
#include <hexmold/substrate/parallel.h>
TEST(Scratch, Big) {
    using Tr = Traits24;
    double const R = getenv("RAD") ? atof(getenv("RAD")) : 128.0;
    float const vs = 1.0f / 512;
    testscene::Scene<Tr> s(vs);
    s.buildUniformBand(R, 10);
    double const Rw = R * vs;
    auto field = [&](double x, double y, double z) { return (x * x + y * y + z * z - Rw * Rw) / (2 * Rw); };
    s.template add<float>("d", [&](Tile<Tr> const& t, int i, int j, int k) { auto p = s.position(t, i, j, k, true); return float(field(p.x + 0.5 * vs, p.y + 0.5 * vs, p.z + 0.5 * vs)); });
    auto* ch = const_cast<VoxelChannel<Tr, float>*>(&s.template channel<float>("d"));
    float bg = 3.0f * vs;
    ch->setDefaultValue(&bg);
    auto& tree = const_cast<Container<Tr>&>(s.tree());
    tree.precomputeTileNeighbors();
    // Only the 3-voxel band is right: reset beyond it.
    for (std::int64_t t = 0; t < tree.tileCount(28); ++t) { auto td = ch->tileData(t, 28); for (auto& v : td) if (std::fabs(v) > 3 * vs) v = v < 0 ? -bg : bg; }
    float bg10 = 10.0f * vs; ch->setDefaultValue(&bg10);
    if (getenv("VERB")) CoreGL::Logger::setVerboseLevel(3);
    int passes = getenv("PASSES") ? atoi(getenv("PASSES")) : 10;
    auto t0 = std::chrono::steady_clock::now();
    levelSetRedistance<Tr>(tree, s.topology(), *ch, true, true, true, 0, Tr::kMaxDepth, nullptr, nullptr, 0.01f, FLT_MAX,
                           FLT_MAX, passes, passes, false, getenv("COAL") != nullptr, nullptr, Quillon::String("t"), kRedistanceSweeping);
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double maxErr = 0, sum = 0; long n = 0, unre = 0;
    for (std::int64_t t = 0; t < tree.tileCount(28); ++t) {
        auto const& tile = tree.tile(t, 28); auto td = ch->tileData(t, 28);
        for (int k = 0; k < 4; ++k) for (int j = 0; j < 4; ++j) for (int i = 0; i < 4; ++i) {
            auto p = s.position(tile, i, j, k, true); double e = std::sqrt((p.x+0.5*vs)*(p.x+0.5*vs)+(p.y+0.5*vs)*(p.y+0.5*vs)+(p.z+0.5*vs)*(p.z+0.5*vs)) - Rw;
            float v = td(i, j, k); if (std::fabs(e) > 10 * vs) continue; if (std::fabs(std::fabs(v) - bg10) < 1e-9) { ++unre; continue; }
            double err = std::fabs(v - e) / vs; if (err > maxErr && getenv("DBG")) std::printf("  big t=(%d,%d,%d) %d%d%d e=%.3f v=%.3f (voxels)\n", tile.ti(), tile.tj(), tile.tk(), i,j,k, e/vs, v/vs); maxErr = std::max(maxErr, err); sum += err; ++n; }
    }
    if (getenv("CHAIN")) { auto acc = tree.tileAccessor(); int px = 104, py = 80, pz = 40;
        for (int d = 28; d >= 18; --d) { auto const& t = acc.tile(px, py, pz, d); if (!t.valid()) continue; auto td = ch->tileData(t.treeIndex()); std::int64_t w = t.voxelDataWidth();
            int i = int((px - t.ti()) / w), j = int((py - t.tj()) / w), k = int((pz - t.tk()) / w);
            double cx = (t.ti() + i * w + 0.5) * vs, cy = (t.tj() + j * w + 0.5) * vs, cz = (t.tk() + k * w + 0.5) * vs;
            std::printf("chain d=%d tile depth %d leaf=%d v=%.3f e=%.3f (voxels)\n", d, t.depth(), int(t.isLeaf(i,j,k)), td(i,j,k) / vs, (std::sqrt(cx*cx+cy*cy+cz*cz) - Rw) / vs); } }
    std::printf("Big R=%g tiles28=%lld voxels=%lld time=%.3fs mean=%.4f max=%.4f unreached=%ld\n", R, (long long)tree.tileCount(28), (long long)tree.tileCount(28) * 64, secs, sum / n, maxErr, unre);
}
#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#include <openvdb/tools/FastSweeping.h>
TEST(Scratch, Vdb) {
    openvdb::initialize();
    double const R = getenv("RAD") ? atof(getenv("RAD")) : 128.0;
    float const vs = 1.0f / 512;
    auto g = openvdb::FloatGrid::create(10 * vs);
    g->setTransform(openvdb::math::Transform::createLinearTransform(vs));
    g->setGridClass(openvdb::GRID_LEVEL_SET);
    auto acc = g->getAccessor();
    int const n = int(R + 12);
    for (int k = -n; k <= n; ++k) for (int j = -n; j <= n; ++j) for (int i = -n; i <= n; ++i) {
        double r = std::sqrt(double(i) * i + double(j) * j + double(k) * k);
        if (std::fabs(r - R) > 10) continue;
        double f = (r * r - R * R) / (2 * R) * vs;
        float v = std::fabs(f) > 3 * vs ? (f < 0 ? -10 * vs : 10 * vs) : float(f);
        acc.setValueOn(openvdb::Coord(i, j, k), v);
    }
    for (int rep = 0; rep < 3; ++rep) {
        auto t0 = std::chrono::steady_clock::now();
        auto out = openvdb::tools::sdfToSdf(*g);
        double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        double mx = 0, sum = 0; long cnt = 0;
        for (auto it = out->cbeginValueOn(); it; ++it) { auto c = it.getCoord(); double r = std::sqrt(double(c.x())*c.x()+double(c.y())*c.y()+double(c.z())*c.z()); double e = std::fabs(*it - (r - R) * vs) / vs; mx = std::max(mx, e); sum += e; ++cnt; }
        std::printf("VDB active=%llu time=%.3fs mean=%.4f max=%.4f\n", (unsigned long long)g->activeVoxelCount(), secs, sum / cnt, mx);
    }
}
#endif
TEST(Scratch, BigDof) {
    using Tr = Traits24;
    double const R = getenv("RAD") ? atof(getenv("RAD")) : 128.0;
    float const vs = 1.0f / 512;
    testscene::Scene<Tr> s(vs);
    s.buildGradedSphere(R, 1.5);
    double const Rw = R * vs;
    auto field = [&](double x, double y, double z) { return (x * x + y * y + z * z - Rw * Rw) / (2 * Rw); };
    s.template add<float>("d", [&](Tile<Tr> const& t, int i, int j, int k) { auto p = s.position(t, i, j, k, true); return float(field(p.x + 0.5 * vs, p.y + 0.5 * vs, p.z + 0.5 * vs)); });
    auto* ch = const_cast<VoxelChannel<Tr, float>*>(&s.template channel<float>("d"));
    auto& tree = const_cast<Container<Tr>&>(s.tree());
    tree.precomputeTileNeighbors();
    float bg10 = 1000.0f * vs; ch->setDefaultValue(&bg10);
    short z = 0;
    VoxelChannel<Tr, short> dof(Quillon::String(), &z, kDataElementInitializerDefaultValue, false, false, 0, Tr::kMaxDepth);
    dof.update(s.topology());
    classifyDegreesOfFreedom(tree, dof);
    if (getenv("VERB")) CoreGL::Logger::setVerboseLevel(3);
    auto t0 = std::chrono::steady_clock::now();
    levelSetRedistance<Tr>(tree, s.topology(), *ch, true, true, true, 0, Tr::kMaxDepth, nullptr, nullptr, 0.01f, FLT_MAX,
                           FLT_MAX, 10, 10, true, false, getenv("NODOF") ? nullptr : &dof, Quillon::String("t"), kRedistanceSweeping);
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("BigDof tiles=%lld tiles28=%lld time=%.3fs\n", (long long)tree.tileCount(-1), (long long)tree.tileCount(28), secs);
}
