/// @file  levelset/detail/sweep_batch_kernel.h
/// @brief The body of the batched tile sweep, written once over a SIMD instruction set, and
///        the entry points of its instances (plain C++, SSE2, AVX2, AVX-512).
/// @details Each instance lives in a source file of its own, compiled for its instruction set,
///          and `SweepBatch` picks the widest one the processor runs. Every instance performs
///          the same single-precision operations in the same order as the scalar update, so all
///          of them give the same bits.
///
///          This header is included by sources compiled for wider instruction sets than the
///          rest of the library. It therefore defines nothing but the body template, whose
///          instances are local to each source (their `Ops` types live in anonymous
///          namespaces), and calls no function of any other header: an inline function emitted
///          there could be picked by the linker for every caller in the library.
#pragma once
#include <cstddef>
#include <cstdint>

namespace VolumeGL::TileTree3D::LevelSet::detail {

/// Tiles swept together: the lanes of one batch, whatever the register width.
inline constexpr int kBatchLanes = 16;

/// Everything the kernel reads and writes; arrays are lane-fastest (element * kBatchLanes + lane).
struct SweepKernelArgs {
    float* values;                ///< the blocks with halo, updated in place
    std::uint32_t const* unknown; ///< per interior voxel and lane: all ones where the voxel changes
    std::uint16_t const* order;   ///< per direction, the block offsets in wavefront order
    std::uint16_t const* interior; ///< per direction, the interior indices in the same order
    std::ptrdiff_t const* upwind;  ///< per direction, the three upwind strides (block elements)
    int voxels;                    ///< interior voxels of a block
    float h, twoHSquared,
        threeHSquared;  ///< the depth's spacing and its squares as the update forms them
    float rejectMargin; ///< kEikonalRejectMargin h
    float rejectLimit;  ///< kEikonalRejectLimit h
    float floor;        ///< 0.001 h
    float oneThird;     ///< the float nearest to 1/3
    float* changes;     ///< kBatchLanes, any alignment: each lane's largest change
};

/// The instances; each one is present on every build, and runs only where the processor has its
/// instruction set (`SweepBatch` checks before calling).
void sweepKernelPortable(SweepKernelArgs const& args);
void sweepKernelSse2(SweepKernelArgs const& args);
void sweepKernelAvx2(SweepKernelArgs const& args);
void sweepKernelAvx512(SweepKernelArgs const& args);

/// @brief The eight directions of the sweep for all lanes.
/// @details `Ops` gives the vector type `V` of `Ops::kLanes` floats, the comparison result `M`,
///          and the operations below; `min(x, y)` is x < y ? x : y and `max(x, y)` is
///          x > y ? x : y, as the scalar update's std::min and std::max with swapped arguments.
///          The comparisons are false for NaN, as in C++.
template <typename Ops> inline void sweepKernelBody(SweepKernelArgs const& args)
{
    using V = typename Ops::V;
    using M = typename Ops::M;
    constexpr int L = Ops::kLanes;
    constexpr int S = kBatchLanes / L;
    V const h = Ops::set1(args.h);
    V const twoHSquared = Ops::set1(args.twoHSquared);
    V const threeHSquared = Ops::set1(args.threeHSquared);
    V const rejectMargin = Ops::set1(args.rejectMargin);
    V const rejectLimit = Ops::set1(args.rejectLimit);
    V const floor = Ops::set1(args.floor);
    V const half = Ops::set1(0.5f);
    V const oneThird = Ops::set1(args.oneThird);
    V const zero = Ops::set1(0.0f);
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
                // Solved on the positive side: inside, the neighbours and the result are negated.
                M const inside = Ops::lt(v, zero);
                V const a = Ops::negateWhere(inside, Ops::load(at + ni));
                V const b = Ops::negateWhere(inside, Ops::load(at + nj));
                V const c = Ops::negateWhere(inside, Ops::load(at + nk));
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
                V const x2 =
                    Ops::mul(half, Ops::add(Ops::add(s0, s1), Ops::sqrt(Ops::max(disc2, zero))));
                M const three = Ops::both(two, Ops::gt(x2, s2));
                V const d02 = Ops::sub(s2, s0);
                V const d12 = Ops::sub(s2, s1);
                V const disc3 = Ops::sub(
                    Ops::sub(Ops::sub(threeHSquared, Ops::mul(d01, d01)), Ops::mul(d02, d02)),
                    Ops::mul(d12, d12));
                V const x3 = Ops::mul(
                    Ops::add(Ops::add(Ops::add(s0, s1), s2), Ops::sqrt(Ops::max(disc3, zero))),
                    oneThird);
                V const x = Ops::select(three, x3, Ops::select(two, x2, x1));
                V magnitude = Ops::min(x, bound);
                magnitude =
                    Ops::select(Ops::le(magnitude, zero), Ops::min(floor, bound), magnitude);
                magnitude = Ops::select(reject, bound, magnitude);
                V const r = Ops::select(unknown, Ops::negateWhere(inside, magnitude), v);
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

} // namespace VolumeGL::TileTree3D::LevelSet::detail
