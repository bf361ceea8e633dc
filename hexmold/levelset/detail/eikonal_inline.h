/// @file  levelset/detail/eikonal_inline.h
/// @brief The eikonal update as the tile sweeps inline it, with the helpers it shares with the
///        exported `CoreGL::solveEikonal`.
/// @details Kept header-only on purpose: the sweep calls it once per unknown voxel and per sweep
///          direction, so it has to inline into the loop. Its arithmetic is single precision.
#pragma once
#include <bit>
#include <cmath>
#include <cstdint>

namespace CoreGL::detail {

/// Floor factor: a solution x <= 0 becomes kEikonalFloorFactor * h, so that an update never
/// moves a voxel onto or across the interface. Kept as the float nearest to 0.001.
inline constexpr float kEikonalFloorFactor = 0.001f;
static_assert(std::bit_cast<std::uint32_t>(kEikonalFloorFactor) == 0x3A83126Fu);

/// Float nearest to 1/3; the sweep multiplies by it where the exported update divides by 3.
inline constexpr float kEikonalOneThird = 0.33333334f;
static_assert(std::bit_cast<std::uint32_t>(kEikonalOneThird) == 0x3EAAAAABu);

/// The sweeps' early rejection, in spacings h: when the smallest neighbour plus
/// kEikonalRejectMargin * h already reaches |v| the update cannot lower |v| (it is never below
/// the smallest neighbour plus h / sqrt(3)), so the solve is left out; the margin covers the
/// solve's rounding while values stay below kEikonalRejectLimit * h. The scalar and the batched
/// sweeps form both bounds from these two constants, so that they give the same bits.
inline constexpr float kEikonalRejectMargin = 0.57f;
inline constexpr float kEikonalRejectLimit = 65536.0f;

/// Sorts three values ascending into @p s0 <= @p s1 <= @p s2 with at most three strict
/// comparisons. Equal values keep their argument order (a before b before c), which matters only
/// where a value carries a payload (its spacing in the anisotropic update).
template <typename Payload>
inline void sortAscending(float a, Payload pa, float b, Payload pb, float c, Payload pc, float& s0,
                          Payload& p0, float& s1, Payload& p1, float& s2, Payload& p2)
{
    if (b < a) {
        if (c < b) {
            s0 = c, p0 = pc, s1 = b, p1 = pb, s2 = a, p2 = pa;
        } else if (c < a) {
            s0 = b, p0 = pb, s1 = c, p1 = pc, s2 = a, p2 = pa;
        } else {
            s0 = b, p0 = pb, s1 = a, p1 = pa, s2 = c, p2 = pc;
        }
    } else {
        if (c < a) {
            s0 = c, p0 = pc, s1 = a, p1 = pa, s2 = b, p2 = pb;
        } else if (c < b) {
            s0 = a, p0 = pa, s1 = c, p1 = pc, s2 = b, p2 = pb;
        } else {
            s0 = a, p0 = pa, s1 = b, p1 = pb, s2 = c, p2 = pc;
        }
    }
}

/// Sorts three values ascending, as above, without a payload.
inline void sortAscending(float a, float b, float c, float& s0, float& s1, float& s2)
{
    struct None {
    } n0, n1, n2;
    sortAscending(a, None{}, b, None{}, c, None{}, s0, n0, s1, n1, s2, n2);
}

/// 2*h*h as the sweep precomputes it once per depth: (h + h) * h.
inline float eikonalTwoHSquared(float h)
{
    return (h + h) * h;
}

/// 3*h*h as the sweep precomputes it once per depth: h * 3 * h, in single precision.
inline float eikonalThreeHSquared(float h)
{
    return h * 3.0f * h;
}

/// @brief The isotropic eikonal update in the form the tile sweeps inline.
/// @param h              grid spacing (world units), > 0
/// @param twoHSquared    eikonalTwoHSquared(h)
/// @param threeHSquared  eikonalThreeHSquared(h)
/// @param a, b, c        neighbour values, already on the positive side: the caller negates
///                       them (and the result) when the voxel lies inside
/// @param v              the voxel's current value; only its magnitude is read
/// @return the new magnitude, never larger than |v|: min(|v|, x), or min(0.001 * h, |v|) when
///         that is not positive. Never NaN for finite input.
/// @details Differs from `CoreGL::solveEikonal` in three ways that the sweep relies on: both
///          discriminants are clamped at zero, the three-neighbour sum is multiplied by the float
///          nearest to 1/3 instead of divided by 3, and the bound is |v| so a sweep can only lower
///          a magnitude.
inline float solveEikonalInline(float h, float twoHSquared, float threeHSquared, float a, float b,
                                float c, float v)
{
    float s0, s1, s2;
    sortAscending(a, b, c, s0, s1, s2);

    float x = h + s0;
    if (x >= s1) {
        float const d01 = s1 - s0;
        float const disc2 = twoHSquared - d01 * d01;
        x = 0.5f * (s0 + s1 + std::sqrt(disc2 > 0.0f ? disc2 : 0.0f));
        if (x > s2) {
            float const d02 = s2 - s0;
            float const d12 = s2 - s1;
            float const disc3 = threeHSquared - d01 * d01 - d02 * d02 - d12 * d12;
            x = (s0 + s1 + s2 + std::sqrt(disc3 > 0.0f ? disc3 : 0.0f)) * kEikonalOneThird;
        }
    }

    float const bound = std::fabs(v);
    float magnitude = x < bound ? x : bound;
    if (0.0f >= magnitude) {
        float const floor = kEikonalFloorFactor * h;
        magnitude = floor < bound ? floor : bound;
    }
    return magnitude;
}

} // namespace CoreGL::detail
