// hexmold demo, analysis part: gradient, Laplacian and mean curvature of a sphere's signed
// distance, with their errors against the exact values.
#pragma once
#include <chrono>
#include <cmath>
#include <cstdio>
#include <hexmold/analysis/analyze.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>

namespace demo {

/// Runs gradient, Laplacian and mean curvature on @p distance, the signed distance (world units,
/// sampled at voxel centres) of a sphere of radius @p radius (world units) centred on the origin,
/// and prints for each the largest and the mean error against the exact value (|grad| = 1,
/// Laplacian 2/|x|, mean curvature 1/|x|, relative) over two sets of deepest voxels: those within
/// two voxels of the surface, and those whose stencil reaches into a coarser tile, where the rim
/// is interpolated from the coarse voxels. Then the time taken. The inputs are not changed: the
/// operators run on copies in an object of their own.
template <typename Traits>
void runAnalyzeDemo(
    TVL::TileTree3D::Container<Traits> const& tree,
    TVL::TileTree3D::VoxelTopology<Traits> const& topology,
    TVL::TileTree3D::Channel<Traits, float, Traits::kTileWidth, 0, 0> const& distance,
    double radius)
{
    using namespace TVL::TileTree3D;
    using Clock = std::chrono::steady_clock;
    constexpr int W = Traits::kTileWidth;
    using FloatChannel = Channel<Traits, float, W, 0, 0>;
    using VectorChannel = Channel<Traits, float3, W, 0, 0>;

    // An object holding copies under the standard names.
    auto object = TVL::createEmptyTVL();
    auto add = [&](TVL::Component const& c, Quillon::String const& name,
                   Quillon::String const& target) {
        Quillon::Ptr<TVL::Component> copy;
        c.copyTo(copy);
        copy->setName(name);
        copy->setTargetName(target);
        object->addComponent(copy);
    };
    add(tree, Tavrel::Geometry::sVoxelTileTree, "");
    add(topology, Tavrel::Geometry::sVoxelComp, Tavrel::Geometry::sVoxelTileTree);
    add(distance, "distance", Tavrel::Geometry::sVoxelComp);

    auto const t0 = Clock::now();
    VolumeGL::TileTree3D::analyze<VolumeGL::TileTree3D::Analyze::GradientOperator>("distance", "",
                                                                                   false, *object);
    auto const t1 = Clock::now();
    VolumeGL::TileTree3D::analyze<VolumeGL::TileTree3D::Analyze::LaplacianOperator>("distance", "",
                                                                                    false, *object);
    auto const t2 = Clock::now();
    // The mean curvature output is named like the gradient output: keep the gradient aside.
    auto const gradient = object->template component<VectorChannel>("distance_gradient");
    object->removeComponent("distance_gradient");
    VolumeGL::TileTree3D::analyze<VolumeGL::TileTree3D::Analyze::MeanCurvatureOperator>(
        "distance", "", false, *object);
    auto const t3 = Clock::now();
    auto const laplacian = object->template component<FloatChannel>("distance_laplacian");
    auto const curvature = object->template component<FloatChannel>("distance_gradient");
    if (!gradient || !laplacian || !curvature) {
        std::printf("  analyze: no result\n");
        return;
    }

    struct Error {
        double max = 0, sum = 0;
        long long n = 0;
        void add(double e)
        {
            max = std::max(max, std::abs(e));
            sum += std::abs(e);
            ++n;
        }
    };
    struct Errors {
        Error grad, lap, curv;
    } near, jumps;
    auto acc = tree.tileAccessor();
    float const h0 = tree.voxelSize();
    int const d = Traits::kMaxDepth;
    std::int64_t const w = Container<Traits>::voxelDataWidth(d);
    double const h = double(w) * h0;
    for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
        auto const& tile = tree.tile(t, d);
        auto const g = std::as_const(*gradient).tileData(t, d);
        auto const l = std::as_const(*laplacian).tileData(t, d);
        auto const c = std::as_const(*curvature).tileData(t, d);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    double const x = (tile.ti() + (i + 0.5) * w) * double(h0),
                                 y = (tile.tj() + (j + 0.5) * w) * double(h0),
                                 z = (tile.tk() + (k + 0.5) * w) * double(h0);
                    double const len = std::sqrt(x * x + y * y + z * z);
                    // Whether the stencil (axis neighbours and in-plane diagonals) reaches a
                    // coarser tile.
                    bool jump = false;
                    for (int a = -1; a <= 1 && !jump; ++a)
                        for (int b = -1; b <= 1 && !jump; ++b)
                            for (int e = -1; e <= 1 && !jump; ++e)
                                if ((a != 0) + (b != 0) + (e != 0) <= 2)
                                    jump =
                                        acc.tile(tile.ti() + (i + a) * w, tile.tj() + (j + b) * w,
                                                 tile.tk() + (k + e) * w, d)
                                            .depth() < d;
                    bool const isNear = std::abs(len - radius) <= 2 * h;
                    if (!isNear && !jump)
                        continue;
                    float3 const gv = g(i, j, k);
                    double const eg =
                        std::sqrt(double(gv.x) * gv.x + double(gv.y) * gv.y + double(gv.z) * gv.z) -
                        1.0;
                    double const el = (l(i, j, k) - 2.0 / len) * len;
                    double const ec = (c(i, j, k) - 1.0 / len) * len;
                    for (Errors* set : {isNear ? &near : nullptr, jump ? &jumps : nullptr}) {
                        if (!set)
                            continue;
                        set->grad.add(eg);
                        set->lap.add(el);
                        set->curv.add(ec);
                    }
                }
    }
    auto ms = [](Clock::time_point a, Clock::time_point b) {
        return std::chrono::duration<double, std::milli>(b - a).count();
    };
    std::printf("  analyze, deepest voxels near the surface (%lld voxels) and at resolution jumps "
                "(%lld voxels),\n"
                "  errors relative to the exact values:\n",
                near.grad.n, jumps.grad.n);
    std::printf("  %-15s %12s %12s %10s %12s %12s\n", "operator", "max error", "mean error",
                "time ms", "max at jumps", "mean at jumps");
    auto row2 = [&](char const* name, Error const& e, Error const& j, double t) {
        std::printf("  %-15s %12.3e %12.3e %10.1f %12.3e %12.3e\n", name, e.max,
                    e.n ? e.sum / double(e.n) : 0.0, t, j.max, j.n ? j.sum / double(j.n) : 0.0);
    };
    row2("|gradient|", near.grad, jumps.grad, ms(t0, t1));
    row2("laplacian", near.lap, jumps.lap, ms(t1, t2));
    row2("mean curvature", near.curv, jumps.curv, ms(t2, t3));
}

} // namespace demo
