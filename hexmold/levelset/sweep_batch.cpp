/// @file  levelset/sweep_batch.cpp
/// @brief The batched eight-direction tile sweep: the lanes, the wavefront tables, and the choice
///        of the kernel instance.
#include <hexmold/levelset/detail/sweep_batch.h>

#include <array>
#include <cstring>
#include <hexmold/levelset/detail/eikonal_inline.h>
#include <hexmold/levelset/detail/sweep_batch_kernel.h>

namespace VolumeGL::TileTree3D::LevelSet::detail {

namespace {

/// The kernel's tables for W^3 tiles: per sweep direction, the voxels in wavefront order as
/// block offsets (with the one-element halo) and interior indices, and the three upwind strides.
template <int W> struct KernelTables {
    static constexpr int E = W + 2;
    static constexpr int N = W * W * W;
    std::array<std::uint16_t, 8 * N> order;
    std::array<std::uint16_t, 8 * N> interior;
    std::array<std::ptrdiff_t, 24> upwind;

    KernelTables()
    {
        // The directions of travel (k, j, i) in the scalar sweep's order.
        static constexpr int kDirections[8][3] = {{1, 1, 1},   {-1, -1, -1}, {-1, 1, 1},
                                                  {1, -1, -1}, {-1, -1, 1},  {1, 1, -1},
                                                  {1, -1, 1},  {-1, 1, -1}};
        for (int d = 0; d < 8; ++d) {
            int const dk = kDirections[d][0], dj = kDirections[d][1], di = kDirections[d][2];
            upwind[std::size_t(3 * d)] = -di;
            upwind[std::size_t(3 * d + 1)] = -dj * std::ptrdiff_t(E);
            upwind[std::size_t(3 * d + 2)] = -dk * std::ptrdiff_t(E) * E;
            std::size_t n = std::size_t(d) * N;
            for (int front = 0; front <= 3 * (W - 1); ++front)
                for (int kk = 0; kk < W; ++kk)
                    for (int jj = 0; jj < W; ++jj) {
                        int const ii = front - kk - jj;
                        if (ii < 0 || ii >= W)
                            continue;
                        int const i = di > 0 ? ii : W - 1 - ii;
                        int const j = dj > 0 ? jj : W - 1 - jj;
                        int const k = dk > 0 ? kk : W - 1 - kk;
                        order[n] = std::uint16_t((i + 1) + E * ((j + 1) + E * (k + 1)));
                        interior[n] = std::uint16_t(i + W * (j + W * k));
                        ++n;
                    }
        }
    }
};

template <int W> KernelTables<W> const& kernelTables()
{
    static KernelTables<W> const tables;
    return tables;
}

/// The red-black kernel's tables for W^3 tiles: the voxels of colour 0 ((i + j + k) even), then
/// those of colour 1, each as a block offset and an interior index, in row order.
template <int W> struct RelaxTables {
    static constexpr int E = W + 2;
    static constexpr int N = W * W * W;
    std::array<std::uint16_t, N> order;
    std::array<std::uint16_t, N> interior;
    int colourBegin[3];

    RelaxTables()
    {
        std::size_t n = 0;
        for (int colour = 0; colour < 2; ++colour) {
            colourBegin[colour] = int(n);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        if ((i + j + k) % 2 != colour)
                            continue;
                        order[n] = std::uint16_t((i + 1) + E * ((j + 1) + E * (k + 1)));
                        interior[n] = std::uint16_t(i + W * (j + W * k));
                        ++n;
                    }
        }
        colourBegin[2] = int(n);
    }
};

template <int W> RelaxTables<W> const& relaxTables()
{
    static RelaxTables<W> const tables;
    return tables;
}

bool processorHas(SweepIsa isa)
{
#if defined(__x86_64__) || defined(__i386__)
    switch (isa) {
    case SweepIsa::kSse2:
        return __builtin_cpu_supports("sse2");
    case SweepIsa::kAvx2:
        return __builtin_cpu_supports("avx2");
    case SweepIsa::kAvx512:
        return __builtin_cpu_supports("avx512f");
    default:
        return true;
    }
#else
    return isa == SweepIsa::kPortable || isa == SweepIsa::kBest;
#endif
}

/// The widest instruction set that both the build and the processor have, chosen once.
SweepIsa bestIsa()
{
    static SweepIsa const best = [] {
        for (SweepIsa isa : {SweepIsa::kAvx512, SweepIsa::kAvx2, SweepIsa::kSse2})
            if (sweepIsaAvailable(isa))
                return isa;
        return SweepIsa::kPortable;
    }();
    return best;
}

/// The scalar update's constants for the depth of @p numbers, formed by the same operations.
EikonalConstants eikonalConstants(DepthNumbers const& numbers)
{
    return {numbers.h,
            numbers.h2,
            numbers.h3,
            CoreGL::detail::kEikonalRejectMargin * numbers.h,
            CoreGL::detail::kEikonalRejectLimit * numbers.h,
            CoreGL::detail::kEikonalFloorFactor * numbers.h,
            CoreGL::detail::kEikonalOneThird};
}

/// The one of the four kernel instances that @p isa names (`kBest`: the widest available).
template <typename F> F forIsa(SweepIsa isa, F portable, F sse2, F avx2, F avx512)
{
    switch (isa == SweepIsa::kBest ? bestIsa() : isa) {
    case SweepIsa::kAvx512:
        return avx512;
    case SweepIsa::kAvx2:
        return avx2;
    case SweepIsa::kSse2:
        return sse2;
    default:
        return portable;
    }
}

} // namespace

template <int W> TileLanes<W>::TileLanes()
{
    std::memset(mValues, 0, sizeof(mValues));
    std::memset(mUnknown, 0, sizeof(mUnknown));
}

template <int W> int TileLanes<W>::load(float const* block, unsigned char const* types)
{
    int const lane = mCount++;
    for (std::size_t n = 0; n < kBlock; ++n)
        mValues[n * kLanes + std::size_t(lane)] = block[n];
    for (std::size_t n = 0; n < kInterior; ++n)
        mUnknown[n * kLanes + std::size_t(lane)] = types[n] == kValueTypeUnknown ? 0xFFFFFFFFu : 0u;
    return lane;
}

template <int W> void TileLanes<W>::clear()
{
    for (int lane = 0; lane < mCount; ++lane)
        for (std::size_t n = 0; n < kInterior; ++n)
            mUnknown[n * kLanes + std::size_t(lane)] = 0u;
    mCount = 0;
}

template <int W> void TileLanes<W>::interior(int lane, float* out) const
{
    constexpr int E = kEdge;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i)
                out[i + W * (j + W * k)] =
                    mValues[std::size_t((i + 1) + E * ((j + 1) + E * (k + 1))) * kLanes +
                            std::size_t(lane)];
}

template <int W>
void SweepBatch<W>::sweep(DepthNumbers const& numbers, float (&changes)[kLanes], SweepIsa isa)
{
    static_assert(kLanes == kBatchLanes);
    KernelTables<W> const& tables = kernelTables<W>();
    SweepKernelArgs const args{
        this->mValues,        this->mUnknown, tables.order.data(),       tables.interior.data(),
        tables.upwind.data(), int(kInterior), eikonalConstants(numbers), changes};
    forIsa(isa, &sweepKernelPortable, &sweepKernelSse2, &sweepKernelAvx2, &sweepKernelAvx512)(args);
}

template <int W> RelaxBatch<W>::RelaxBatch(bool masked) : mMasked(masked)
{
    std::memset(mExcluded, 0, sizeof(mExcluded));
}

template <int W>
int RelaxBatch<W>::add(float const* block, unsigned char const* types,
                       unsigned char const* typesWithHalo)
{
    int const lane = this->load(block, types);
    if (mMasked)
        for (std::size_t n = 0; n < kBlock; ++n)
            mExcluded[n * kLanes + std::size_t(lane)] =
                typesWithHalo[n] == kValueTypeExcluded ? 0xFFFFFFFFu : 0u;
    return lane;
}

template <int W>
void RelaxBatch<W>::relax(DepthNumbers const& numbers, float (&changes)[kLanes], SweepIsa isa)
{
    static_assert(kLanes == kBatchLanes);
    RelaxTables<W> const& tables = relaxTables<W>();
    RelaxKernelArgs const args{
        this->mValues,
        this->mUnknown,
        mMasked ? mExcluded : nullptr,
        tables.order.data(),
        tables.interior.data(),
        {tables.colourBegin[0], tables.colourBegin[1], tables.colourBegin[2]},
        kEdge,
        this->mCount,
        eikonalConstants(numbers),
        numbers.tol,
        changes};
    forIsa(isa, &relaxKernelPortable, &relaxKernelSse2, &relaxKernelAvx2, &relaxKernelAvx512)(args);
}

bool sweepIsaAvailable(SweepIsa isa)
{
    switch (isa) {
    case SweepIsa::kBest:
    case SweepIsa::kPortable:
        return true;
#if defined(__SSE2__)
    case SweepIsa::kSse2:
        return processorHas(isa);
#endif
#if defined(HEXMOLD_SWEEP_AVX2)
    case SweepIsa::kAvx2:
        return processorHas(isa);
#endif
#if defined(HEXMOLD_SWEEP_AVX512)
    case SweepIsa::kAvx512:
        return processorHas(isa);
#endif
    default:
        return false;
    }
}

template class TileLanes<4>;
template class TileLanes<5>;
template class TileLanes<8>;
template class SweepBatch<4>;
template class SweepBatch<5>;
template class SweepBatch<8>;
template class RelaxBatch<4>;
template class RelaxBatch<5>;

} // namespace VolumeGL::TileTree3D::LevelSet::detail
