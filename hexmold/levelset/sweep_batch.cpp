/// @file  levelset/sweep_batch.cpp
/// @brief The batched eight-direction tile sweep with SSE2, four tiles per register.
#include <hexmold/levelset/detail/sweep_batch.h>

#include <emmintrin.h>

#include <array>
#include <bit>
#include <cstring>
#include <hexmold/levelset/detail/eikonal_inline.h>

namespace VolumeGL::TileTree3D::LevelSet::detail {

namespace {

/// The voxels of a W^3 tile in the wavefront order of each sweep direction: block offsets (with
/// the one-element halo) and interior indices, plus the three upwind strides.
template <int W> struct WavefrontOrder {
    static constexpr int E = W + 2;
    static constexpr int N = W * W * W;
    struct Direction {
        std::array<std::uint16_t, N> block;
        std::array<std::uint16_t, N> interior;
        std::ptrdiff_t ni, nj, nk;
    };
    std::array<Direction, 8> directions;

    WavefrontOrder()
    {
        // The directions of travel (k, j, i) in the scalar sweep's order.
        static constexpr int kDirections[8][3] = {{1, 1, 1},   {-1, -1, -1}, {-1, 1, 1},  {1, -1, -1},
                                                  {-1, -1, 1}, {1, 1, -1},   {1, -1, 1},  {-1, 1, -1}};
        for (int d = 0; d < 8; ++d) {
            int const dk = kDirections[d][0], dj = kDirections[d][1], di = kDirections[d][2];
            Direction& out = directions[std::size_t(d)];
            out.ni = -di;
            out.nj = -dj * std::ptrdiff_t(E);
            out.nk = -dk * std::ptrdiff_t(E) * E;
            int n = 0;
            for (int front = 0; front <= 3 * (W - 1); ++front)
                for (int kk = 0; kk < W; ++kk)
                    for (int jj = 0; jj < W; ++jj) {
                        int const ii = front - kk - jj;
                        if (ii < 0 || ii >= W) continue;
                        int const i = di > 0 ? ii : W - 1 - ii;
                        int const j = dj > 0 ? jj : W - 1 - jj;
                        int const k = dk > 0 ? kk : W - 1 - kk;
                        out.block[std::size_t(n)] = std::uint16_t((i + 1) + E * ((j + 1) + E * (k + 1)));
                        out.interior[std::size_t(n)] = std::uint16_t(i + W * (j + W * k));
                        ++n;
                    }
        }
    }
};

template <int W> WavefrontOrder<W> const& wavefrontOrder()
{
    static WavefrontOrder<W> const order;
    return order;
}

/// m ? x : y, with m all ones or all zeros per lane.
inline __m128 select(__m128 m, __m128 x, __m128 y) { return _mm_or_ps(_mm_and_ps(m, x), _mm_andnot_ps(m, y)); }

} // namespace

template <int W> SweepBatch<W>::SweepBatch()
{
    std::memset(mValues, 0, sizeof(mValues));
    std::memset(mUnknown, 0, sizeof(mUnknown));
}

template <int W> int SweepBatch<W>::add(float const* block, unsigned char const* types)
{
    int const lane = mCount++;
    for (std::size_t n = 0; n < kBlock; ++n) mValues[n * kLanes + std::size_t(lane)] = block[n];
    for (std::size_t n = 0; n < kInterior; ++n)
        mUnknown[n * kLanes + std::size_t(lane)] = types[n] == kValueTypeUnknown ? 0xFFFFFFFFu : 0u;
    return lane;
}

template <int W> void SweepBatch<W>::clear()
{
    for (int lane = 0; lane < mCount; ++lane)
        for (std::size_t n = 0; n < kInterior; ++n) mUnknown[n * kLanes + std::size_t(lane)] = 0u;
    mCount = 0;
}

template <int W> void SweepBatch<W>::interior(int lane, float* out) const
{
    constexpr int E = kEdge;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i)
                out[i + W * (j + W * k)] =
                    mValues[std::size_t((i + 1) + E * ((j + 1) + E * (k + 1))) * kLanes + std::size_t(lane)];
}

template <int W> void SweepBatch<W>::sweep(DepthNumbers const& numbers, float (&changes)[kLanes])
{
    static_assert(kLanes == 4, "one SSE register per voxel");
    WavefrontOrder<W> const& order = wavefrontOrder<W>();
    // The scalar update's constants, formed by the same operations.
    __m128 const h = _mm_set1_ps(numbers.h);
    __m128 const twoHSquared = _mm_set1_ps(numbers.h2);
    __m128 const threeHSquared = _mm_set1_ps(numbers.h3);
    __m128 const rejectMargin = _mm_set1_ps(0.57f * numbers.h);
    __m128 const rejectLimit = _mm_set1_ps(65536.0f * numbers.h);
    __m128 const floor = _mm_set1_ps(CoreGL::detail::kEikonalFloorFactor * numbers.h);
    __m128 const half = _mm_set1_ps(0.5f);
    __m128 const oneThird = _mm_set1_ps(CoreGL::detail::kEikonalOneThird);
    __m128 const zero = _mm_setzero_ps();
    __m128 const signBit = _mm_castsi128_ps(_mm_set1_epi32(std::int32_t(0x80000000u)));
    __m128 tracked = zero;
    float* const values = mValues;
    for (auto const& direction : order.directions) {
        std::ptrdiff_t const ni = direction.ni * kLanes, nj = direction.nj * kLanes, nk = direction.nk * kLanes;
        for (int n = 0; n < WavefrontOrder<W>::N; ++n) {
            float* const at = values + std::ptrdiff_t(direction.block[std::size_t(n)]) * kLanes;
            __m128 const unknown = _mm_load_ps(reinterpret_cast<float const*>(
                mUnknown + std::size_t(direction.interior[std::size_t(n)]) * kLanes));
            __m128 const v = _mm_load_ps(at);
            // Solved on the positive side: inside, the neighbours and the result are negated.
            __m128 const inside = _mm_and_ps(_mm_cmplt_ps(v, zero), signBit);
            __m128 const a = _mm_xor_ps(_mm_load_ps(at + ni), inside);
            __m128 const b = _mm_xor_ps(_mm_load_ps(at + nj), inside);
            __m128 const c = _mm_xor_ps(_mm_load_ps(at + nk), inside);
            __m128 const bound = _mm_andnot_ps(signBit, v);
            // std::min(a, std::min(b, c)) of the quick reject; min_ps(x, y) is x < y ? x : y.
            __m128 const smallest = _mm_min_ps(_mm_min_ps(c, b), a);
            __m128 const reject = _mm_and_ps(_mm_cmpge_ps(_mm_add_ps(smallest, rejectMargin), bound),
                                             _mm_cmplt_ps(smallest, rejectLimit));
            // The three-comparison sort of the scalar update.
            __m128 const ba = _mm_cmplt_ps(b, a);
            __m128 const cb = _mm_cmplt_ps(c, b);
            __m128 const ca = _mm_cmplt_ps(c, a);
            __m128 const s0 = select(ba, select(cb, c, b), select(ca, c, a));
            __m128 const s1 = select(ba, select(cb, b, select(ca, c, a)), select(ca, a, select(cb, c, b)));
            __m128 const s2 = select(ba, select(_mm_or_ps(cb, ca), a, c), select(_mm_or_ps(ca, cb), b, c));
            // One, two or three neighbours.
            __m128 const x1 = _mm_add_ps(h, s0);
            __m128 const two = _mm_cmpge_ps(x1, s1);
            __m128 const d01 = _mm_sub_ps(s1, s0);
            __m128 const disc2 = _mm_sub_ps(twoHSquared, _mm_mul_ps(d01, d01));
            __m128 const x2 = _mm_mul_ps(half, _mm_add_ps(_mm_add_ps(s0, s1), _mm_sqrt_ps(_mm_max_ps(disc2, zero))));
            __m128 const three = _mm_and_ps(two, _mm_cmpgt_ps(x2, s2));
            __m128 const d02 = _mm_sub_ps(s2, s0);
            __m128 const d12 = _mm_sub_ps(s2, s1);
            __m128 const disc3 = _mm_sub_ps(
                _mm_sub_ps(_mm_sub_ps(threeHSquared, _mm_mul_ps(d01, d01)), _mm_mul_ps(d02, d02)),
                _mm_mul_ps(d12, d12));
            __m128 const x3 = _mm_mul_ps(
                _mm_add_ps(_mm_add_ps(_mm_add_ps(s0, s1), s2), _mm_sqrt_ps(_mm_max_ps(disc3, zero))), oneThird);
            __m128 const x = select(three, x3, select(two, x2, x1));
            __m128 magnitude = _mm_min_ps(x, bound);
            magnitude = select(_mm_cmple_ps(magnitude, zero), _mm_min_ps(floor, bound), magnitude);
            magnitude = select(reject, bound, magnitude);
            __m128 const r = select(unknown, _mm_xor_ps(magnitude, inside), v);
            // max_ps(x, y) is x > y ? x : y: std::max(tracked, change).
            __m128 const change = _mm_and_ps(unknown, _mm_andnot_ps(signBit, _mm_sub_ps(v, r)));
            tracked = _mm_max_ps(change, tracked);
            _mm_store_ps(at, r);
        }
    }
    _mm_storeu_ps(changes, tracked);
}

template class SweepBatch<4>;
template class SweepBatch<5>;
template class SweepBatch<8>;

} // namespace VolumeGL::TileTree3D::LevelSet::detail
