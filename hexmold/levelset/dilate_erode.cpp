/// @file  levelset/dilate_erode.cpp
/// @brief Dilation and erosion of the tiles around a level set.
#include <hexmold/levelset/dilate_erode.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/canonical_order.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/parallel_ranges.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/visitor.h>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace TVL::TileTree3D;

constexpr float kSqrt3 = 1.7320508f; ///< diagonal of a unit cube, single precision
constexpr float kSafety = 1.01f;     ///< widens every radius and threshold by 1 %

/// Whether one of the @p n values, read in storage order (k outer, then j, i inner), has a
/// magnitude below @p threshold; stops at the first.
inline bool anyBelow(float const* values, std::size_t n, float threshold)
{
    for (std::size_t v = 0; v < n; ++v)
        if (std::abs(values[v]) < threshold)
            return true;
    return false;
}

/// Floor division remainder into [0, t) of a tile-space coordinate shifted by the centre offset.
template <typename Traits> inline std::int64_t snapDown(std::int64_t x, std::int64_t t)
{
    return x - (x + Traits::kCentreOffset) % t;
}

/// The lower face neighbours (-x, -y, -z), as directions of the neighbour tables and as offsets.
constexpr int kLowerFaceDirections[3] = {4, 10, 12};
constexpr int kLowerFaceOffsets[3][3] = {{-1, 0, 0}, {0, -1, 0}, {0, 0, -1}};

/// The dilation of one surface tile of a depth: its box, and the tiles of the box within its
/// radius, all in finest voxels.
/// @details The centre is the tile's corner plus (t - 1) / 2, and every quantity derived from it
///          (the box ends, the distances to the candidate tiles' centres) is computed in double
///          precision from integers below 2^31 and a radius of float precision, without
///          rounding. Which tiles a surface tile adds, relative to its corner, is therefore the
///          same for every tile of the depth.
template <typename Traits> struct Ball {
    float radius;
    std::int64_t t;

    Ball(float bandwidth, float voxelSize, int depth) : t(Container<Traits>::tileVoxelWidth(depth))
    {
        float const e = float(t - 1);
        float const diagonal = std::sqrt(e * e + e * e + e * e);
        radius = diagonal * kSafety * 0.5f + bandwidth / voxelSize;
    }
    /// Calls @p add(i, j, k) for every lattice tile within the radius of the tile with corner
    /// @p corner, k outer, then j, then i.
    template <typename Add> void forEach(std::int64_t const (&corner)[3], Add const& add) const
    {
        double const c[3] = {corner[0] + 0.5 * double(t - 1), corner[1] + 0.5 * double(t - 1),
                             corner[2] + 0.5 * double(t - 1)};
        std::int64_t lo[3], hi[3];
        for (int a = 0; a < 3; ++a) {
            lo[a] = snapDown<Traits>(static_cast<std::int64_t>(std::floor(c[a] - radius)), t);
            hi[a] = static_cast<std::int64_t>(std::ceil(c[a] + radius));
        }
        double const half = 0.5 * double(t);
        for (std::int64_t k = lo[2]; k <= hi[2]; k += t)
            for (std::int64_t j = lo[1]; j <= hi[1]; j += t)
                for (std::int64_t i = lo[0]; i <= hi[0]; i += t) {
                    double const dx = c[0] - (i + half), dy = c[1] - (j + half),
                                 dz = c[2] - (k + half);
                    if (double(radius) > std::sqrt(dx * dx + dy * dy + dz * dz))
                        add(i, j, k);
                }
    }
};

/// @brief The balls of one depth as offsets from the tile's corner, and for each set of lower
///        face neighbours that are surface tiles too, the part of the ball that their balls miss.
/// @details The set of added tiles is a union, so a tile that a face neighbour's ball holds may
///          be left to that neighbour: offset o is needed only when o - e lies outside the ball
///          for every such neighbour at offset e. Only the lower neighbours (-x, -y, -z) are
///          relied on: each lies before the tile in the order of i + j + k, so by induction from
///          the first tile in that order every surface tile's whole ball is added. (Relying on
///          both sides would let two neighbours each leave a tile to the other.)
struct BallStencil {
    std::vector<std::array<std::int64_t, 3>> offsets; ///< the whole ball
    std::array<std::vector<std::array<std::int64_t, 3>>, 8>
        partByFaces; ///< by lower-neighbour mask
};

/// The stencil of @p ball, or null when the ball is too large to list (the tiles are then
/// visited through the box, as `Ball::forEach` does).
template <typename Traits> std::unique_ptr<BallStencil> makeStencil(Ball<Traits> const& ball)
{
    constexpr std::int64_t kMaxAcross = 33; ///< tiles of the box across, at most
    std::int64_t const t = ball.t;
    // A corner on the lattice of the depth: the one at the origin's cell.
    std::int64_t const origin = snapDown<Traits>(0, t);
    std::int64_t const corner[3] = {origin, origin, origin};
    if (2.0 * double(ball.radius) / double(t) + 3.0 > double(kMaxAcross))
        return nullptr;
    auto stencil = std::make_unique<BallStencil>();
    ball.forEach(corner, [&](std::int64_t i, std::int64_t j, std::int64_t k) {
        stencil->offsets.push_back({(i - origin) / t, (j - origin) / t, (k - origin) / t});
    });
    // Membership in the ball, on a box with a margin of one for the shifted lookups.
    std::int64_t reach = 0;
    for (auto const& o : stencil->offsets)
        for (std::int64_t v : o)
            reach = std::max(reach, v < 0 ? -v : v);
    std::int64_t const side = 2 * reach + 3;
    std::vector<unsigned char> inside(std::size_t(side * side * side), 0);
    auto cell = [&](std::int64_t x, std::int64_t y, std::int64_t z) {
        return std::size_t((x + reach + 1) + side * ((y + reach + 1) + side * (z + reach + 1)));
    };
    for (auto const& o : stencil->offsets)
        inside[cell(o[0], o[1], o[2])] = 1;
    for (int mask = 0; mask < 8; ++mask)
        for (auto const& o : stencil->offsets) {
            bool needed = true;
            for (int f = 0; f < 3 && needed; ++f)
                if (mask & (1 << f))
                    needed =
                        !inside[cell(o[0] - kLowerFaceOffsets[f][0], o[1] - kLowerFaceOffsets[f][1],
                                     o[2] - kLowerFaceOffsets[f][2])];
            if (needed)
                stencil->partByFaces[std::size_t(mask)].push_back({o[0] * t, o[1] * t, o[2] * t});
        }
    return stencil;
}

/// Which tiles of each depth hold the surface: a voxel below the depth's threshold, found by the
/// scan in storage order.
template <typename Traits>
std::vector<std::vector<unsigned char>> surfaceTiles(Container<Traits> const& container,
                                                     VoxelChannel<Traits, float> const& distance,
                                                     float voxelSize, int minDepth, int maxDepth)
{
    std::vector<std::vector<unsigned char>> out(std::size_t(Traits::kMaxDepth + 1));
    for (int d = minDepth; d <= maxDepth; ++d) {
        std::int64_t const n = container.tileCount(d);
        out[std::size_t(d)].assign(std::size_t(n), 0);
        float const threshold =
            float(Container<Traits>::voxelDataWidth(d)) * voxelSize * kSqrt3 * kSafety;
        unsigned char* const flags = out[std::size_t(d)].data();
        TVL::Parallel::cancellableRanges(
            n,
            [&](std::int64_t begin, std::int64_t end) {
                for (std::int64_t t = begin; t < end; ++t) {
                    auto const block = distance.tileData(t, d);
                    flags[t] = !block.empty() && anyBelow(block.data(), block.size(), threshold);
                }
            },
            256);
    }
    return out;
}

/// The dilation reduction: each worker grows a scratch tree of its own, and the scratch trees
/// are merged in the join.
template <typename Traits> class DilateVisitor final : public Visitor<Container<Traits>> {
    using Base = Visitor<Container<Traits>>;

public:
    /// @param surface   per depth, per tile: whether the tile holds the surface
    /// @param balls     per depth, the ball (null outside the depths visited)
    /// @param stencils  per depth, its stencil (null where the ball is visited through its box)
    DilateVisitor(Container<Traits> const& container, float voxelSize,
                  std::vector<std::vector<unsigned char>> const& surface,
                  std::vector<std::unique_ptr<Ball<Traits>>> const& balls,
                  std::vector<std::unique_ptr<BallStencil>> const& stencils)
        : mContainer(&container), mVoxelSize(voxelSize), mSurface(&surface), mBalls(&balls),
          mStencils(&stencils), mScratch(freshTree(voxelSize)), mAccessor(mScratch->tileAccessor()),
          mNeighbours(container.tileAccessor())
    {
    }
    DilateVisitor(DilateVisitor const& other)
        : Base(other), mContainer(other.mContainer), mVoxelSize(other.mVoxelSize),
          mSurface(other.mSurface), mBalls(other.mBalls), mStencils(other.mStencils),
          mScratch(freshTree(other.mVoxelSize)), mAccessor(mScratch->tileAccessor()),
          mNeighbours(other.mContainer->tileAccessor())
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTile(Tile<Traits> const& tile) override
    {
        if (TVL::bodyCancelled())
            return;
        int const d = tile.depth();
        auto const& surface = (*mSurface)[std::size_t(d)];
        if (!surface[std::size_t(tile.index())])
            return;
        std::int64_t const corner[3] = {tile.ti(), tile.tj(), tile.tk()};
        auto add = [&](std::int64_t i, std::int64_t j, std::int64_t k) {
            if (Container<Traits>::inDomain(i, j, k))
                mAccessor.addTile(i, j, k, d);
        };
        BallStencil const* stencil = (*mStencils)[std::size_t(d)].get();
        if (!stencil) {
            (*mBalls)[std::size_t(d)]->forEach(corner, add);
            return;
        }
        int mask = 0;
        for (int f = 0; f < 3; ++f) {
            Tile<Traits> const& n = mNeighbours.tileNeighbor(tile, kLowerFaceDirections[f]);
            if (n.valid() && n.depth() == d && surface[std::size_t(n.index())])
                mask |= 1 << f;
        }
        for (auto const& o : stencil->partByFaces[std::size_t(mask)])
            add(corner[0] + o[0], corner[1] + o[1], corner[2] + o[2]);
    }
    void join(Base const& other) override
    {
        auto const& o = static_cast<DilateVisitor const&>(other);
        if (o.mScratch->tileCount(-1) > 1)
            mScratch->refine(*o.mScratch, nullptr, true);
        mAccessor = mScratch->tileAccessor();
    }
    Base* copy() const override { return new DilateVisitor(*this); }

    Container<Traits> const& scratch() const { return *mScratch; }

private:
    static std::unique_ptr<Container<Traits>> freshTree(float voxelSize)
    {
        auto tree = std::make_unique<Container<Traits>>("", voxelSize);
        tree->tileAccessor().addTile(0, 0, 0, 0);
        return tree;
    }

    Container<Traits> const* mContainer;
    float mVoxelSize;
    std::vector<std::vector<unsigned char>> const* mSurface;
    std::vector<std::unique_ptr<Ball<Traits>>> const* mBalls;
    std::vector<std::unique_ptr<BallStencil>> const* mStencils;
    std::unique_ptr<Container<Traits>> mScratch;
    typename Container<Traits>::TileAccessor mAccessor;
    typename Container<Traits>::ConstTileAccessor mNeighbours;
};

/// The erosion reduction: per worker, per depth, the tiles that are far from the surface.
template <typename Traits> class ErodeVisitor final : public Visitor<Container<Traits>> {
    using Base = Visitor<Container<Traits>>;

public:
    ErodeVisitor(float bandwidth, float voxelSize, VoxelChannel<Traits, float> const& distance)
        : mBandwidth(bandwidth), mVoxelSize(voxelSize), mDistance(&distance)
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTile(Tile<Traits> const& tile) override
    {
        if (TVL::bodyCancelled())
            return;
        // A tile without a block has no voxel below the threshold: it goes too.
        auto const block = mDistance->tileData(tile.treeIndex());
        // The tile's whole diagonal, not a voxel's: kept in this order of multiplication.
        float const threshold =
            mVoxelSize * kSafety * kSqrt3 * float(tile.tileVoxelWidth()) + mBandwidth;
        if (block.empty() || !anyBelow(block.data(), block.size(), threshold))
            mFar[tile.depth()].push_back(tile.index());
    }
    void join(Base const& other) override
    {
        auto const& o = static_cast<ErodeVisitor const&>(other);
        for (int d = 0; d <= Traits::kMaxDepth; ++d)
            mFar[d].insert(mFar[d].end(), o.mFar[d].begin(), o.mFar[d].end());
    }
    Base* copy() const override { return new ErodeVisitor(*this); }

    TileIndexLists<Traits>& far() { return mFar; }

private:
    float mBandwidth;
    float mVoxelSize;
    VoxelChannel<Traits, float> const* mDistance;
    TileIndexLists<Traits> mFar;
};

} // namespace

template <typename Traits, typename Logger>
void dilate(float bandwidth, Container<Traits>& io_container, VoxelChannel<Traits, float>& distance,
            TileCornerLists<Traits>& out_newTiles, Logger const& logger, int minDepth, int maxDepth)
{
    static Quillon::String const reduceName("Volume::resize_level_set.dilate.reduce");
    static Quillon::String const refineName("Volume::resize_level_set.dilate.refine");
    static Quillon::String const neighborsName(
        "Volume::resize_level_set.dilate.precompute_neighbors");
    if (CoreGL::Logger::verboseLevel() > 0)
        std::cout << "levelset_dilate.begin\n";
    minDepth = std::max(minDepth, 0);
    maxDepth = std::min(maxDepth, Traits::kMaxDepth);
    Container<Traits> ordered("", io_container.voxelSize());
    {
        auto const timer = CoreGL::Logger::timer(reduceName, logger.services());
        float const voxelSize = io_container.voxelSize();
        auto const surface = surfaceTiles(std::as_const(io_container), std::as_const(distance),
                                          voxelSize, minDepth, maxDepth);
        std::vector<std::unique_ptr<Ball<Traits>>> balls(std::size_t(Traits::kMaxDepth + 1));
        std::vector<std::unique_ptr<BallStencil>> stencils(std::size_t(Traits::kMaxDepth + 1));
        for (int d = minDepth; d <= maxDepth; ++d) {
            auto const& flags = surface[std::size_t(d)];
            if (std::find(flags.begin(), flags.end(), 1) == flags.end())
                continue;
            balls[std::size_t(d)] = std::make_unique<Ball<Traits>>(bandwidth, voxelSize, d);
            stencils[std::size_t(d)] = makeStencil(*balls[std::size_t(d)]);
        }
        DilateVisitor<Traits> visitor(std::as_const(io_container), voxelSize, surface, balls,
                                      stencils);
        std::as_const(io_container)
            .reduceInternalNonInlined(&visitor, kTraversalUnordered, kNoTile, minDepth, maxDepth,
                                      50, 0, Traits::kRatio, kVisitInteriorVoxelNone);
        if (visitor.scratch().tileCount(-1) > 1)
            addTilesInCanonicalOrder(visitor.scratch(), ordered);
    }
    std::int64_t const before = io_container.tileCount(-1);
    {
        auto const timer = CoreGL::Logger::timer(refineName, logger.services());
        if (ordered.tileCount(-1) > 0)
            io_container.refine(ordered, &out_newTiles, true);
    }
    logger.info("Added " + std::to_string(io_container.tileCount(-1) - before) + " tiles.");
    {
        auto const timer = CoreGL::Logger::timer(neighborsName, logger.services());
        io_container.clearPrecomputedTileNeighbors();
        io_container.precomputeTileNeighbors();
    }
    if (CoreGL::Logger::verboseLevel() > 0)
        std::cout << "levelset_dilate.end\n";
}

template <typename Traits, typename Logger>
void erode(float bandwidth, Container<Traits>& io_container, VoxelChannel<Traits, float>& distance,
           Logger const& logger)
{
    ErodeVisitor<Traits> visitor(bandwidth, io_container.voxelSize(), std::as_const(distance));
    std::as_const(io_container)
        .reduceInternalNonInlined(&visitor, kTraversalUnordered, kNoTile, 0, Traits::kMaxDepth, 50,
                                  0, Traits::kRatio, kVisitInteriorVoxelNone);
    std::int64_t const before = io_container.tileCount(-1);
    // The pairs are the caller's to recover (tileMovesSince); channels follow as after any removal.
    TileMoveLists<Traits> moved;
    io_container.tileAccessor().removeTiles(visitor.far(), moved, true);
    logger.info("Removed " + std::to_string(before - io_container.tileCount(-1)) + " tiles.");
    io_container.clearPrecomputedTileNeighbors();
    io_container.precomputeTileNeighbors();
}

#define HEXMOLD_INSTANTIATE_DILATE_ERODE(TR, LG)                                                   \
    template HEXMOLD_API decltype(dilate<TR, LG>) dilate<TR, LG>;                                  \
    template HEXMOLD_API decltype(erode<TR, LG>) erode<TR, LG>;
#define HEXMOLD_INSTANTIATE_DILATE_ERODE_LOGGERS(TR)                                               \
    HEXMOLD_INSTANTIATE_DILATE_ERODE(TR, CoreGL::QuillonLogger)                                    \
    HEXMOLD_INSTANTIATE_DILATE_ERODE(TR, CoreGL::ConsoleLogger)                                    \
    HEXMOLD_INSTANTIATE_DILATE_ERODE(TR, CoreGL::NOPLogger)
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_DILATE_ERODE_LOGGERS)
#undef HEXMOLD_INSTANTIATE_DILATE_ERODE_LOGGERS
#undef HEXMOLD_INSTANTIATE_DILATE_ERODE

} // namespace VolumeGL::TileTree3D::LevelSet
