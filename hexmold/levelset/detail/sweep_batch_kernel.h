/// @file  levelset/detail/sweep_batch_kernel.h
/// @brief The bodies of the batched tile sweep and of the batched red-black relaxation, written
///        once over a SIMD instruction set, and the entry points of their instances (plain C++,
///        SSE2, AVX2, AVX-512).
/// @details Each instance lives in a source file of its own, compiled for its instruction set,
///          and `SweepBatch` and `RelaxBatch` pick the widest one the processor runs. Every
///          instance performs the same single-precision operations in the same order as the scalar
///          update, so all of them give the same bits.
///
///          This header is included by sources compiled for wider instruction sets than the
///          rest of the library. It therefore defines nothing but templates over `Ops`, whose
///          instances are local to each source (their `Ops` types live in anonymous
///          namespaces), and calls no function of any other header: an inline function emitted
///          there could be picked by the linker for every caller in the library.
#pragma once
#include <cstddef>
#include <cstdint>

namespace VolumeGL::TileTree3D::LevelSet::detail {

/// Tiles swept together: the lanes of one batch, whatever the register width.
inline constexpr int kBatchLanes = 16;

/// The scalar update's constants of one depth, formed by the same operations as there.
struct EikonalConstants {
    float h, twoHSquared,
        threeHSquared;  ///< the depth's spacing and its squares as the update forms them
    float rejectMargin; ///< kEikonalRejectMargin h
    float rejectLimit;  ///< kEikonalRejectLimit h
    float floor;        ///< 0.001 h
    float oneThird;     ///< the float nearest to 1/3
};

/// Everything the kernel reads and writes; arrays are lane-fastest (element * kBatchLanes + lane).
struct SweepKernelArgs {
    float* values;                ///< the blocks with halo, updated in place
    std::uint32_t const* unknown; ///< per interior voxel and lane: all ones where the voxel changes
    std::uint16_t const* order;   ///< per direction, the block offsets in wavefront order
    std::uint16_t const* interior; ///< per direction, the interior indices in the same order
    std::ptrdiff_t const* upwind;  ///< per direction, the three upwind strides (block elements)
    int voxels;                    ///< interior voxels of a block
    EikonalConstants eikonal;      ///< the update's constants
    float* changes;                ///< kBatchLanes, any alignment: each lane's largest change
};

/// Everything the red-black kernel reads and writes; arrays are lane-fastest, as above.
struct RelaxKernelArgs {
    float* values;                ///< the blocks with halo, updated in place
    std::uint32_t const* unknown; ///< per interior voxel and lane: all ones where the voxel changes
    std::uint32_t const* excluded; ///< per block element and lane: all ones where the element is
                                   ///< of excluded type; null without the mask
    std::uint16_t const* order;    ///< the block offsets of the voxels, colour 0 then colour 1
    std::uint16_t const* interior; ///< their interior indices in the same order
    int colourBegin[3];            ///< colour c is [colourBegin[c], colourBegin[c + 1])
    int edge;                      ///< elements across a block with its halo
    int lanes;                     ///< lanes loaded; the others take part without effect
    EikonalConstants eikonal;      ///< the update's constants
    float tolerance;               ///< an iteration whose largest change is below it is quiet
    float* changes;                ///< kBatchLanes, any alignment: each lane's largest change
};

/// The instances; each one is present on every build, and runs only where the processor has its
/// instruction set (`SweepBatch` and `RelaxBatch` check before calling).
void sweepKernelPortable(SweepKernelArgs const& args);
void sweepKernelSse2(SweepKernelArgs const& args);
void sweepKernelAvx2(SweepKernelArgs const& args);
void sweepKernelAvx512(SweepKernelArgs const& args);
void relaxKernelPortable(RelaxKernelArgs const& args);
void relaxKernelSse2(RelaxKernelArgs const& args);
void relaxKernelAvx2(RelaxKernelArgs const& args);
void relaxKernelAvx512(RelaxKernelArgs const& args);

/// @brief The constants of the eikonal update in every lane, formed once per kernel call.
template <typename Ops> struct EikonalLanes {
    using V = typename Ops::V;
    using M = typename Ops::M;
    V h, twoHSquared, threeHSquared, rejectMargin, rejectLimit, floor, half, oneThird, zero;

    explicit EikonalLanes(EikonalConstants const& c)
        : h(Ops::set1(c.h)), twoHSquared(Ops::set1(c.twoHSquared)),
          threeHSquared(Ops::set1(c.threeHSquared)), rejectMargin(Ops::set1(c.rejectMargin)),
          rejectLimit(Ops::set1(c.rejectLimit)), floor(Ops::set1(c.floor)), half(Ops::set1(0.5f)),
          oneThird(Ops::set1(c.oneThird)), zero(Ops::set1(0.0f))
    {
    }

    /// @brief The scalar `eikonalUpdate` of value @p v from neighbours @p a, @p b, @p c, in
    ///        every lane.
    /// @details `Ops` gives the vector type `V` of `Ops::kLanes` floats, the comparison result
    ///          `M`, and the operations below; `min(x, y)` is x < y ? x : y and `max(x, y)` is
    ///          x > y ? x : y, as the scalar update's std::min and std::max with swapped
    ///          arguments. The comparisons are false for NaN, as in C++.
    /// @param inside  the lanes where v < 0
    V update(V v, M inside, V a, V b, V c) const
    {
        // Solved on the positive side: inside, the neighbours and the result are negated.
        a = Ops::negateWhere(inside, a);
        b = Ops::negateWhere(inside, b);
        c = Ops::negateWhere(inside, c);
        V const bound = Ops::abs(v);
        // The quick reject of the scalar update: std::min(a, std::min(b, c)).
        V const smallest = Ops::min(Ops::min(c, b), a);
        M const reject = Ops::both(Ops::ge(Ops::add(smallest, rejectMargin), bound),
                                   Ops::lt(smallest, rejectLimit));
        // The three-comparison sort of the scalar update.
        M const ba = Ops::lt(b, a);
        M const cb = Ops::lt(c, b);
        M const ca = Ops::lt(c, a);
        V const s0 = Ops::select(ba, Ops::select(cb, c, b), Ops::select(ca, c, a));
        V const s1 = Ops::select(ba, Ops::select(cb, b, Ops::select(ca, c, a)),
                                 Ops::select(ca, a, Ops::select(cb, c, b)));
        V const s2 = Ops::select(ba, Ops::select(Ops::either(cb, ca), a, c),
                                 Ops::select(Ops::either(ca, cb), b, c));
        // One, two or three neighbours.
        V const x1 = Ops::add(h, s0);
        M const two = Ops::ge(x1, s1);
        V const d01 = Ops::sub(s1, s0);
        V const disc2 = Ops::sub(twoHSquared, Ops::mul(d01, d01));
        V const x2 = Ops::mul(half, Ops::add(Ops::add(s0, s1), Ops::sqrt(Ops::max(disc2, zero))));
        M const three = Ops::both(two, Ops::gt(x2, s2));
        V const d02 = Ops::sub(s2, s0);
        V const d12 = Ops::sub(s2, s1);
        V const disc3 =
            Ops::sub(Ops::sub(Ops::sub(threeHSquared, Ops::mul(d01, d01)), Ops::mul(d02, d02)),
                     Ops::mul(d12, d12));
        V const x3 = Ops::mul(
            Ops::add(Ops::add(Ops::add(s0, s1), s2), Ops::sqrt(Ops::max(disc3, zero))), oneThird);
        V const x = Ops::select(three, x3, Ops::select(two, x2, x1));
        V magnitude = Ops::min(x, bound);
        magnitude = Ops::select(Ops::le(magnitude, zero), Ops::min(floor, bound), magnitude);
        magnitude = Ops::select(reject, bound, magnitude);
        return Ops::negateWhere(inside, magnitude);
    }
};

/// @brief The eight directions of the sweep for all lanes.
template <typename Ops> inline void sweepKernelBody(SweepKernelArgs const& args)
{
    using V = typename Ops::V;
    using M = typename Ops::M;
    constexpr int L = Ops::kLanes;
    constexpr int S = kBatchLanes / L;
    EikonalLanes<Ops> const lanes(args.eikonal);
    V const zero = lanes.zero;
    V tracked[S];
    for (int s = 0; s < S; ++s)
        tracked[s] = zero;
    int const n = args.voxels;
    for (int d = 0; d < 8; ++d) {
        std::ptrdiff_t const ni = args.upwind[3 * d] * kBatchLanes;
        std::ptrdiff_t const nj = args.upwind[3 * d + 1] * kBatchLanes;
        std::ptrdiff_t const nk = args.upwind[3 * d + 2] * kBatchLanes;
        std::uint16_t const* const order = args.order + std::ptrdiff_t(d) * n;
        std::uint16_t const* const interior = args.interior + std::ptrdiff_t(d) * n;
        for (int q = 0; q < n; ++q) {
            float* const base = args.values + std::ptrdiff_t(order[q]) * kBatchLanes;
            std::uint32_t const* const unknownBase =
                args.unknown + std::ptrdiff_t(interior[q]) * kBatchLanes;
            for (int s = 0; s < S; ++s) {
                float* const at = base + s * L;
                M const unknown = Ops::flags(unknownBase + s * L);
                V const v = Ops::load(at);
                M const inside = Ops::lt(v, zero);
                V const r = Ops::select(unknown,
                                        lanes.update(v, inside, Ops::load(at + ni),
                                                     Ops::load(at + nj), Ops::load(at + nk)),
                                        v);
                // std::max(tracked, change), over the voxels that may change.
                V const change = Ops::select(unknown, Ops::abs(Ops::sub(v, r)), zero);
                tracked[s] = Ops::max(change, tracked[s]);
                Ops::store(at, r);
            }
        }
    }
    for (int s = 0; s < S; ++s)
        Ops::storeUnaligned(args.changes + s * L, tracked[s]);
}

/// @brief The red-black relaxation of `sweepTile` (`kSweepRedBlack`) for all lanes: at most
///        seven iterations, each lane ending at its fourth quiet one.
/// @details An iteration updates the voxels of one colour ((i + j + k) % 2 equal to the
///          iteration's parity), which read only voxels of the other colour and the halo: their
///          updates do not depend on each other, so any order gives the bits of the scalar row
///          order. A lane whose relaxation has ended takes part without effect. With @p kMasked,
///          a neighbour of excluded type stands for the voxel's own value, as `MaskedNeighbour`.
template <typename Ops, bool kMasked> inline void relaxKernelBody(RelaxKernelArgs const& args)
{
    using V = typename Ops::V;
    using M = typename Ops::M;
    constexpr int L = Ops::kLanes;
    constexpr int S = kBatchLanes / L;
    EikonalLanes<Ops> const lanes(args.eikonal);
    V const zero = lanes.zero;
    std::ptrdiff_t const sx = kBatchLanes;
    std::ptrdiff_t const sy = std::ptrdiff_t(args.edge) * kBatchLanes;
    std::ptrdiff_t const sz = std::ptrdiff_t(args.edge) * args.edge * kBatchLanes;
    alignas(64) std::uint32_t active[kBatchLanes];
    alignas(64) float change[kBatchLanes];
    float tracked[kBatchLanes];
    int quiet[kBatchLanes];
    for (int lane = 0; lane < kBatchLanes; ++lane) {
        active[lane] = lane < args.lanes ? 0xFFFFFFFFu : 0u;
        tracked[lane] = 0.0f;
        quiet[lane] = 0;
    }
    for (int n = 0; n < 7; ++n) {
        bool any = false;
        for (int lane = 0; lane < kBatchLanes; ++lane)
            any = any || active[lane] != 0u;
        if (!any)
            break;
        int const colour = n % 2;
        V iteration[S];
        for (int s = 0; s < S; ++s)
            iteration[s] = zero;
        for (int q = args.colourBegin[colour]; q < args.colourBegin[colour + 1]; ++q) {
            std::ptrdiff_t const element = std::ptrdiff_t(args.order[q]) * kBatchLanes;
            std::uint32_t const* const unknownBase =
                args.unknown + std::ptrdiff_t(args.interior[q]) * kBatchLanes;
            for (int s = 0; s < S; ++s) {
                float* const at = args.values + element + s * L;
                M const solve =
                    Ops::both(Ops::flags(unknownBase + s * L), Ops::flags(active + s * L));
                V const v = Ops::load(at);
                M const inside = Ops::lt(v, zero);
                // Of the two neighbours on an axis, the one nearer the interface on v's side:
                // std::max(lo, hi) inside, std::min(lo, hi) outside.
                auto pick = [&](std::ptrdiff_t stride) {
                    V lo = Ops::load(at - stride);
                    V hi = Ops::load(at + stride);
                    if constexpr (kMasked) {
                        std::uint32_t const* const excluded = args.excluded + element + s * L;
                        lo = Ops::select(Ops::flags(excluded - stride), v, lo);
                        hi = Ops::select(Ops::flags(excluded + stride), v, hi);
                    }
                    return Ops::select(inside, Ops::max(hi, lo), Ops::min(hi, lo));
                };
                V const a = pick(sx);
                V const b = pick(sy);
                V const c = pick(sz);
                V const r = Ops::select(solve, lanes.update(v, inside, a, b, c), v);
                // std::max(change, |v - r|), over the voxels that may change.
                V const delta = Ops::select(solve, Ops::abs(Ops::sub(v, r)), zero);
                iteration[s] = Ops::max(delta, iteration[s]);
                Ops::store(at, r);
            }
        }
        for (int s = 0; s < S; ++s)
            Ops::storeUnaligned(change + s * L, iteration[s]);
        for (int lane = 0; lane < kBatchLanes; ++lane) {
            if (active[lane] == 0u)
                continue;
            float const c = change[lane];
            if (tracked[lane] < c)
                tracked[lane] = c;
            if (c < args.tolerance && ++quiet[lane] >= 4)
                active[lane] = 0u;
        }
    }
    for (int lane = 0; lane < kBatchLanes; ++lane)
        args.changes[lane] = tracked[lane];
}

} // namespace VolumeGL::TileTree3D::LevelSet::detail
