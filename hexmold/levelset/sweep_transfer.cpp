/// @file  levelset/sweep_transfer.cpp
/// @brief The transfers of the multilevel solve between depths: restriction of covered voxels
///        from their children and interpolation of hanging voxels from the coarser lattice.
#include <hexmold/levelset/detail/redistance_impl.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/type_lists.h>
#include <limits>

namespace VolumeGL::TileTree3D::LevelSet::detail {

template <typename Traits>
void restrictToParents(Container<Traits> const& container, VoxelChannel<Traits, short> const& dof,
                       VoxelChannel<Traits, float>& io_distance, int a, int b,
                       Quillon::String const& name)
{
    constexpr int W = Traits::kTileWidth;
    constexpr int S = Traits::kVoxelsPerSlot;
    constexpr std::size_t N = std::size_t(W) * W * W;
    auto const timer = CoreGL::Logger::timer(name + ".restrict", nullptr);
    int const lo = std::max(a, dof.minDepth());
    int const hi = std::min(dof.depth(), b) - 1;
    for (int depth = hi; depth >= lo; --depth) {
        parallelRanges(container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t t = begin; t < end; ++t) {
                Tile<Traits> const& tile = container.tile(t, depth);
                if (tile.isLeaf())
                    continue;
                auto const flags = dof.tileData(tile.treeIndex());
                auto values = io_distance.tileData(tile.treeIndex());
                if (flags.size() != N || values.size() != N)
                    continue;
                std::int64_t const w = tile.voxelDataWidth();
                std::int64_t const cw = tile.childVoxelDataWidth();
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i) {
                            if (!(flags(i, j, k) & kDOFFromChild))
                                continue;
                            std::int64_t const child = tile.childIndex(i / S, j / S, k / S);
                            if (child < 0)
                                continue;
                            auto const childValues = io_distance.tileData(child, depth + 1);
                            if (childValues.size() != N)
                                continue;
                            // The voxel's corner relative to the child's corner, in child voxels.
                            int const ci = int(((i % S) * w) / cw);
                            int const cj = int(((j % S) * w) / cw);
                            int const ck = int(((k % S) * w) / cw);
                            values(i, j, k) = childValues(ci, cj, ck);
                        }
            }
        });
    }
}

template <typename Traits>
void interpolateHanging(Container<Traits> const& container, VoxelChannel<Traits, short> const& dof,
                        VoxelChannel<Traits, float>& io_distance, int a, int b,
                        Quillon::String const& name, VoxelChannel<Traits, unsigned char>* io_types)
{
    constexpr int W = Traits::kTileWidth;
    constexpr std::size_t N = std::size_t(W) * W * W;
    auto const timer = CoreGL::Logger::timer(name + ".interpolate_dirichlet2", nullptr);
    float const background = std::fabs(io_distance.defaultValue());
    int const lo = std::max({a, dof.minDepth(), 1});
    int const hi = std::min(dof.depth(), b);
    for (int depth = lo; depth <= hi; ++depth) {
        std::int64_t const pw = Container<Traits>::voxelDataWidth(depth - 1);
        parallelRanges(container.tileCount(depth), [&](std::int64_t begin, std::int64_t end) {
            auto accessor = container.tileAccessor();
            // The value of the coarse lattice point q: the voxel of depth - 1, or of the deepest
            // tile above it, that holds q.
            auto coarse = [&](std::int64_t x, std::int64_t y, std::int64_t z) -> float {
                Tile<Traits> const& c = accessor.tile(x, y, z, depth - 1);
                if (!c.valid())
                    return io_distance.defaultValue();
                auto const cv = io_distance.tileData(c.treeIndex());
                if (cv.size() != N)
                    return io_distance.defaultValue();
                std::int64_t const cw = c.voxelDataWidth();
                return cv(int((x - c.ti()) / cw), int((y - c.tj()) / cw), int((z - c.tk()) / cw));
            };
            for (std::int64_t t = begin; t < end; ++t) {
                Tile<Traits> const& tile = container.tile(t, depth);
                if (tile.parent() < 0)
                    continue;
                auto const flags = dof.tileData(tile.treeIndex());
                auto values = io_distance.tileData(tile.treeIndex());
                if (flags.size() != N || values.size() != N)
                    continue;
                std::int64_t const w = tile.voxelDataWidth();
                auto types = io_types ? io_types->tileData(tile.treeIndex())
                                      : TileData<unsigned char, W, 0, 0>();
                auto visit = [&](int i, int j, int k) {
                    short const f = flags(i, j, k);
                    if (!(f & kDOFHanging) || (f & kDOFNotInterpolated))
                        return;
                    // An excluded voxel keeps its value.
                    if (types.size() == N && types(i, j, k) == kValueTypeExcluded)
                        return;
                    std::int64_t const p[3] = {tile.ti() + i * w, tile.tj() + j * w,
                                               tile.tk() + k * w};
                    // Where the coarse lattice is unreached there is no value to interpolate.
                    double const mix = latticeMix<Traits>(
                        p, pw, [&](std::int64_t x, std::int64_t y, std::int64_t z) {
                            float const v = coarse(x, y, z);
                            return std::fabs(v) < background - kEpsilon
                                       ? double(v)
                                       : std::numeric_limits<double>::quiet_NaN();
                        });
                    if (std::isnan(mix))
                        return;
                    float const interpolated = float(mix);
                    // A voxel the sweeps of its own depth solve keeps their value where they
                    // reached it; the coarse lattice fills in where they did not.
                    if (types.size() == N && types(i, j, k) == kValueTypeUnknown &&
                        std::fabs(values(i, j, k)) < background - kEpsilon)
                        return;
                    values(i, j, k) = interpolated;
                };
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        visit(i, j, 0);
                for (int k = 1; k < W; ++k)
                    for (int i = 0; i < W; ++i)
                        visit(i, 0, k);
                for (int k = 1; k < W; ++k)
                    for (int j = 1; j < W; ++j)
                        visit(0, j, k);
            }
        });
    }
}

#define HEXMOLD_INSTANTIATE_SWEEP_TRANSFER(TR)                                                     \
    template void restrictToParents<TR>(Container<TR> const&, VoxelChannel<TR, short> const&,      \
                                        VoxelChannel<TR, float>&, int, int,                        \
                                        Quillon::String const&);                                   \
    template void interpolateHanging<TR>(                                                          \
        Container<TR> const&, VoxelChannel<TR, short> const&, VoxelChannel<TR, float>&, int, int,  \
        Quillon::String const&, VoxelChannel<TR, unsigned char>*);
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_SWEEP_TRANSFER)
#undef HEXMOLD_INSTANTIATE_SWEEP_TRANSFER

} // namespace VolumeGL::TileTree3D::LevelSet::detail
