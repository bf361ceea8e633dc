/// @file  levelset/eikonal.cpp
/// @brief One upwind update of the eikonal equation, isotropic and anisotropic.
/// @details Godunov upwind scheme as used by fast sweeping (Zhao 2005): the k smallest neighbours
///          enter the quadratic sum((u - s_i) / h_i)^2 = 1 while the solution exceeds the next
///          neighbour. All arithmetic is single precision and in a fixed order, so the results
///          are reproducible to the bit.
#include <hexmold/levelset/eikonal.h>

#include <hexmold/levelset/detail/eikonal_inline.h>

#include <cmath>

namespace CoreGL {

namespace {

/// Square root of the discriminants. No clamp on purpose: a negative operand (possible only
/// through rounding in the three-neighbour case) yields the C library's sqrtf result, NaN, and
/// that NaN passes the bound and floor tests unchanged.
inline float guardedSqrt(float value)
{
    return std::sqrt(value);
}

/// Bound and floor shared by both updates: a solution above @p limit is clamped to it, a
/// non-positive one becomes the floor. The clamp is not applied again to the floor.
inline float boundAndFloor(float x, float limit, float spacing)
{
    if (x > limit)
        return limit;
    if (0.0f >= x)
        return detail::kEikonalFloorFactor * spacing;
    return x;
}

/// Isotropic update on the outside (0 > limit is false).
float solveOutside(float h, float a, float b, float c, float limit)
{
    float s0, s1, s2;
    detail::sortAscending(a, b, c, s0, s1, s2);

    float x = h + s0;
    if (x >= s1) {
        float const d01 = s1 - s0;
        x = 0.5f * (s0 + s1 + guardedSqrt((h + h) * h - d01 * d01));
        if (x > s2) {
            float const d02 = s2 - s0;
            float const d12 = s2 - s1;
            float const disc = 3.0f * h * h - d01 * d01 - d02 * d02 - d12 * d12;
            x = (s0 + s1 + s2 + guardedSqrt(disc)) / 3.0f;
        }
    }
    return boundAndFloor(x, limit, h);
}

/// Anisotropic update on the outside, spacings not all equal.
float solveOutside(float hx, float hy, float hz, float a, float b, float c, float limit)
{
    float s0, s1, s2, h0, h1, h2;
    detail::sortAscending(a, hx, b, hy, c, hz, s0, h0, s1, h1, s2, h2);

    float x = h0 + s0;
    if (x >= s1) {
        // Two neighbours: (u - s0)^2 / h0^2 + (u - s1)^2 / h1^2 = 1 as A u^2 + B u + C - 1 = 0.
        float const h0Sq = h0 * h0;
        float const h1Sq = h1 * h1;
        float const A = 1.0f / h1Sq + 1.0f / h0Sq;
        float const B = s0 * -2.0f / h0Sq - 2.0f * s1 / h1Sq;
        float const C = s1 * s1 / h1Sq + s0 * s0 / h0Sq;
        float const D = B * B - 4.0f * A * (C - 1.0f);
        if (!(D < 0.0f)) {
            x = (guardedSqrt(D) - B) / (A + A);
            // Inclusive test: at x == s2 the third neighbour joins the quadratic.
            if (x >= s2) {
                float const h2Sq = h2 * h2;
                float const A3 = 1.0f / h2Sq + A;
                float const B3 = B - 2.0f * s2 / h2Sq;
                float const C3 = s2 * s2 / h2Sq + C;
                float const D3 = B3 * B3 - 4.0f * A3 * (C3 - 1.0f);
                if (!(D3 < 0.0f))
                    x = (guardedSqrt(D3) - B3) / (A3 + A3);
            }
        }
    }
    return boundAndFloor(x, limit, h0);
}

} // namespace

float solveEikonal(float h, float a, float b, float c, float limit)
{
    // Strict test: zero and NaN take the outside path. The inside is the mirror image.
    if (0.0f > limit)
        return -solveOutside(h, -a, -b, -c, -limit);
    return solveOutside(h, a, b, c, limit);
}

float solveEikonal(float hx, float hy, float hz, float a, float b, float c, float limit)
{
    // Exactly equal spacings take the isotropic path, before the sign test.
    if (hx == hy && hx == hz)
        return solveEikonal(hx, a, b, c, limit);
    if (0.0f > limit)
        return -solveOutside(hx, hy, hz, -a, -b, -c, -limit);
    return solveOutside(hx, hy, hz, a, b, c, limit);
}

} // namespace CoreGL
