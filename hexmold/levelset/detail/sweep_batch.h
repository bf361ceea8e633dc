/// @file  levelset/detail/sweep_batch.h
/// @brief The eight-direction tile sweep of several tiles at once, one tile per SIMD lane, with
///        the voxels of each direction taken in wavefront order; and the red-black relaxation of
///        several tiles at once, the same way.
/// @details Bit for bit the same as `sweepTile` in `kSweepEightDirections` mode with the plain
///          neighbour function and no band check:
///          - every lane runs the same single-precision operations, in the same order, as the
///            scalar update (`eikonalUpdate` and `solveEikonalInline`), its branches turned into
///            selections that mirror each comparison, NaN cases included;
///          - within one direction a voxel reads only its own value and its three upwind
///            neighbours, which lie on the previous wavefront (i + j + k one less, counted along
///            the direction). Any order that visits the wavefronts one after the other therefore
///            sees the same values as the scalar row order. Voxels of one wavefront do not
///            depend on each other, so the processor overlaps their updates instead of waiting
///            for each in turn, which the row order makes it do;
///          - the largest change is a maximum, which no order changes.
///          The scalar sweep is latency-bound on that chain; the batch is bound by throughput.
#pragma once
#include <cstddef>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/levelset/detail/redistance_impl.h>

namespace VolumeGL::TileTree3D::LevelSet::detail {

/// The instruction sets of the batched sweep; all give the same bits.
enum class SweepIsa : int {
    kBest = 0,     ///< the widest one the processor runs
    kPortable = 1, ///< plain C++, one lane at a time
    kSse2 = 2,
    kAvx2 = 3,
    kAvx512 = 4,
};

/// Whether this processor (and build) runs the batched sweep with @p isa.
HEXMOLD_API bool sweepIsaAvailable(SweepIsa isa);

/// @brief Up to `kLanes` tile blocks of width @p W (4, 5, or 8 for the coalesced block), each
///        held with a one-element halo, swept together.
/// @details Lanes that are not loaded take part without effect: none of their voxels is unknown.
///          Allocate per worker, not per tile (about 17 KB for W = 4, 70 KB for W = 8).
/// @brief Up to `kLanes` tile blocks of width @p W, each held with a one-element halo and
///        interleaved lane by lane (element n of lane l at n * kLanes + l), with which voxels
///        are unknown: what the batched sweeps and relaxations load, work on and copy out.
template <int W> class HEXMOLD_API TileLanes {
public:
    static constexpr int kLanes = 16;
    static constexpr int kEdge = W + 2;
    static constexpr std::size_t kBlock = std::size_t(kEdge) * kEdge * kEdge;
    static constexpr std::size_t kInterior = std::size_t(W) * W * W;

    TileLanes();

    /// Number of lanes loaded.
    int size() const { return mCount; }
    bool full() const { return mCount == kLanes; }

    /// Copies the interior of @p lane out, W^3 values with k outer.
    void interior(int lane, float* out) const;

    /// Forgets the loaded lanes.
    void clear();

protected:
    /// Loads the next lane: @p block, kBlock values with halo (k outer), and @p types, kInterior
    /// value types of which only unknown voxels (type 2) change. Gives the lane loaded.
    int load(float const* block, unsigned char const* types);

    alignas(64) float mValues[kBlock * kLanes];
    alignas(64) std::uint32_t mUnknown[kInterior * kLanes];
    int mCount = 0;
};

template <int W> class HEXMOLD_API SweepBatch : public TileLanes<W> {
public:
    using Lanes = TileLanes<W>;
    using Lanes::kBlock;
    using Lanes::kEdge;
    using Lanes::kInterior;
    using Lanes::kLanes;

    /// @brief Loads the next lane.
    /// @param block  kBlock values with halo (k outer), as `sweepTile` takes them
    /// @param types  kInterior value types; only voxels of type 2 (unknown) change
    /// @return the lane loaded
    int add(float const* block, unsigned char const* types) { return this->load(block, types); }

    /// Sweeps the loaded lanes in the eight directions; @p changes receives each lane's largest
    /// change (0 for lanes not loaded). @p isa must be available.
    void sweep(DepthNumbers const& numbers, float (&changes)[kLanes],
               SweepIsa isa = SweepIsa::kBest);
};

/// @brief Up to `kLanes` tile blocks of width @p W (4 or 5), each held with a one-element halo,
///        relaxed together, one tile per lane: the red-black relaxation of `sweepTile`
///        (`kSweepRedBlack`, no band check), bit for bit.
/// @details Each lane keeps its own count of quiet iterations and stops where the scalar
///          relaxation of its tile stops; the largest change it reports is the scalar one. A
///          masked batch takes the value types of each block with its halo as well, and reads an
///          excluded neighbour as the voxel's own value (`MaskedNeighbour`); an unmasked one
///          reads neighbours as they are (`PlainNeighbour`). Allocate per worker, not per tile
///          (about 31 KB for W = 4, 52 KB for W = 5, masked).
template <int W> class HEXMOLD_API RelaxBatch : public TileLanes<W> {
public:
    using Lanes = TileLanes<W>;
    using Lanes::kBlock;
    using Lanes::kEdge;
    using Lanes::kInterior;
    using Lanes::kLanes;

    explicit RelaxBatch(bool masked);

    bool masked() const { return mMasked; }

    /// @brief Loads the next lane.
    /// @param block          kBlock values with halo (k outer), as `sweepTile` takes them
    /// @param types          kInterior value types; only voxels of type 2 (unknown) change
    /// @param typesWithHalo  kBlock value types with halo, indexed like @p block: required by a
    ///                       masked batch, ignored by the others
    /// @return the lane loaded
    int add(float const* block, unsigned char const* types,
            unsigned char const* typesWithHalo = nullptr);

    /// Relaxes the loaded lanes; @p changes receives each lane's largest change (0 for lanes not
    /// loaded). @p numbers.tol is the quiet threshold. @p isa must be available.
    void relax(DepthNumbers const& numbers, float (&changes)[kLanes],
               SweepIsa isa = SweepIsa::kBest);

private:
    alignas(64) std::uint32_t mExcluded[kBlock * kLanes];
    bool mMasked;
};

} // namespace VolumeGL::TileTree3D::LevelSet::detail
