/// @file  platform/tavrel/spatial_query.h
/// @brief `Tavrel::SpatialQuery`: distance from a point to a triangle, the closest point's
///        barycentric coordinates, and the 2D point-in-triangle test.
/// @details All queries compute in double precision, whatever the input precision.
///          The triangle is closed (boundary included) and may be degenerate: for collinear
///          vertices, repeated vertices or one point repeated three times the distance is the
///          distance to that segment or point. A triangle is handled as a segment set when the
///          sine of its angle at the vertex opposite its longest edge is below 1e-9; the
///          distance then differs from the filled sliver's by at most its width, which is below
///          1e-9 of its edge lengths. NaN in any coordinate gives a NaN distance; nothing throws.
///          The squared-distance forms are inline: the mesh voxelizer calls them once per
///          lattice node and triangle.
#pragma once
#include <limits>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/math.h>

namespace Tavrel::SpatialQuery {

/// The part of a triangle that holds the point closest to a query point.
enum class TriangleFeature : int {
    kNone = -1,   ///< not determined (NaN input)
    kVertexA = 0, ///< vertex a
    kVertexB = 1, ///< vertex b
    kVertexC = 2, ///< vertex c
    kEdgeAB = 3,  ///< inside edge a-b
    kEdgeBC = 4,  ///< inside edge b-c
    kEdgeCA = 5,  ///< inside edge c-a
    kFace = 6     ///< inside the face
};

/// What a distance query found besides the distance: the closest feature and the barycentric
/// weights of the closest point (closest = bc.x * a + bc.y * b + bc.z * c; the weights are in
/// [0, 1] and sum to 1 up to rounding). A vertex shared by several features is reported as the
/// vertex; for repeated vertices the first of the coinciding ones in the order a, b, c.
struct PointTriangleScratch {
    TriangleFeature feature = TriangleFeature::kNone; ///< where the closest point lies
    Math::double3 bc{0.0, 0.0, 0.0};                  ///< its weights of a, b and c
};

namespace detail {

/// Below this squared sine a triangle is treated as its edges (see the file comment).
inline constexpr double kSliverSine2 = 1e-18;

/// Plain double triple for the kernel: written out component by component, the arithmetic
/// stays in registers (about half the instructions of the generic vector templates here).
struct V3 {
    double x, y, z;
};
inline V3 toV3(Math::float3 const& v)
{
    return {v.x, v.y, v.z};
}
inline V3 toV3(Math::double3 const& v)
{
    return {v.x, v.y, v.z};
}
inline V3 sub(V3 const& a, V3 const& b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline double dot(V3 const& a, V3 const& b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline V3 cross(V3 const& a, V3 const& b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
/// Triple product a . (b x c).
inline double det(V3 const& a, V3 const& b, V3 const& c)
{
    return dot(a, cross(b, c));
}

/// max(x, lo) that keeps a NaN x. One maxsd: the compiler turns the plain conditional with a
/// constant bound into a branch, which mispredicts half the time here.
inline double maxKeepNaN(double x, double lo)
{
#if defined(__SSE2__)
    return _mm_cvtsd_f64(_mm_max_sd(_mm_set_sd(lo), _mm_set_sd(x)));
#else
    return x < lo ? lo : x;
#endif
}
/// min(x, hi) that keeps a NaN x; one minsd.
inline double minKeepNaN(double x, double hi)
{
#if defined(__SSE2__)
    return _mm_cvtsd_f64(_mm_min_sd(_mm_set_sd(hi), _mm_set_sd(x)));
#else
    return hi < x ? hi : x;
#endif
}

/// Squared distance from @p p to segment [@p a, @p b] and the parameter of the closest point
/// (0 at a, 1 at b). A zero-length segment is its point. Branch-free: the callers' points fall
/// on either side of the segment's ends at random.
inline double pointSegmentDistance2(V3 const& p, V3 const& a, V3 const& b, double& out_t)
{
    V3 const ab = sub(b, a);
    V3 const ap = sub(p, a);
    // For a zero-length segment dot(ap, ab) is 0, so t = 0. A subnormal length is replaced by
    // the smallest normal one: t is then off only along a segment shorter than 1e-154.
    double t = dot(ap, ab) / maxKeepNaN(dot(ab, ab), std::numeric_limits<double>::min());
    t = minKeepNaN(maxKeepNaN(t, 0.0), 1.0);
    out_t = t;
    V3 const d = {ap.x - ab.x * t, ap.y - ab.y * t, ap.z - ab.z * t};
    return dot(d, d);
}

/// Sets @p out to the point with parameter @p t of edge @p edge (0: a-b, 1: b-c, 2: c-a; t = 0
/// at its first vertex), naming a vertex when t is 0 or 1.
inline void setEdgePoint(int edge, double t, PointTriangleScratch& out)
{
    out.bc.x = edge == 0 ? 1.0 - t : (edge == 2 ? t : 0.0);
    out.bc.y = edge == 1 ? 1.0 - t : (edge == 0 ? t : 0.0);
    out.bc.z = edge == 2 ? 1.0 - t : (edge == 1 ? t : 0.0);
    int const next = edge == 2 ? 0 : edge + 1;
    int const feature = t == 0.0 ? edge : (t == 1.0 ? next : 3 + edge);
    out.feature = static_cast<TriangleFeature>(feature);
}

/// Squared distance from @p p to the closed triangle (@p a, @p b, @p c); fills @p out.
inline double pointTriangleClosest(V3 const& p, V3 const& a, V3 const& b, V3 const& c,
                                   PointTriangleScratch& out)
{
    V3 const ab = sub(b, a), bc = sub(c, b), ca = sub(a, c);
    double const lab = dot(ab, ab), lbc = dot(bc, bc), lca = dot(ca, ca);
    // The normal from the two shorter edges, at the vertex of the largest angle, where its
    // rounding error relative to its length is smallest. All three choices keep the orientation
    // of (a, b, c): ab x ac = bc x ba = ca x cb.
    V3 n;
    double scale;
    if (lbc >= lab && lbc >= lca) {
        n = cross(ab, sub(c, a));
        scale = lab * lca;
    } else if (lca >= lab) {
        n = cross(bc, sub(a, b));
        scale = lbc * lab;
    } else {
        n = cross(ca, sub(b, c));
        scale = lca * lbc;
    }
    double const nn = dot(n, n);
    if (nn > kSliverSine2 * scale) {
        // Signed sub-areas of the point's projection (p, b, c), (a, p, c), (a, b, p) times |n|;
        // the component of p along n cancels in each.
        V3 const pa = sub(a, p), pb = sub(b, p), pc = sub(c, p);
        double const wa = det(n, pb, pc);
        double const wb = det(n, pc, pa);
        double const wc = det(n, pa, pb);
        if (wa >= 0.0 && wb >= 0.0 && wc >= 0.0) {
            double const inv = 1.0 / (wa + wb + wc);
            out.bc = {wa * inv, wb * inv, wc * inv};
            int const zeros = (wa == 0.0) + (wb == 0.0) + (wc == 0.0);
            if (zeros == 0) {
                out.feature = TriangleFeature::kFace;
            } else if (zeros == 1) {
                out.feature = wc == 0.0   ? TriangleFeature::kEdgeAB
                              : wa == 0.0 ? TriangleFeature::kEdgeBC
                                          : TriangleFeature::kEdgeCA;
            } else {
                out.feature = wa > 0.0   ? TriangleFeature::kVertexA
                              : wb > 0.0 ? TriangleFeature::kVertexB
                                         : TriangleFeature::kVertexC;
            }
            double const h = dot(pa, n);
            return h * h / nn;
        }
    }
    // Outside the face, or a sliver: the closest point is on an edge, and the nearest of the
    // three is taken (ties keep the first). Selects rather than branches, for the same reason
    // as in the segment distance.
    double t0, t1, t2;
    double const d0 = pointSegmentDistance2(p, a, b, t0);
    double const d1 = pointSegmentDistance2(p, b, c, t1);
    double const d2 = pointSegmentDistance2(p, c, a, t2);
    // The sum of the non-negative distances is NaN exactly when one of them is: a NaN
    // coordinate anywhere must not be hidden by the minimum over the other edges.
    double const any = d0 + d1 + d2;
    if (any != any) {
        out.feature = TriangleFeature::kNone;
        out.bc = {any, any, any};
        return any;
    }
    bool const take1 = d1 < d0;
    double const best01 = take1 ? d1 : d0;
    bool const take2 = d2 < best01;
    int const edge = take2 ? 2 : (take1 ? 1 : 0);
    setEdgePoint(edge, take2 ? t2 : (take1 ? t1 : t0), out);
    return take2 ? d2 : best01;
}

} // namespace detail

// ---- squared distance (inline) ----------------------------------------------------------------

/// @brief Squared distance from @p p to the closed triangle (@p a, @p b, @p c), all in the same
///        (world) units; @p scratch receives the closest feature and its weights.
inline float pointTriangleDistance2(Math::float3 const& p, Math::float3 const& a,
                                    Math::float3 const& b, Math::float3 const& c,
                                    PointTriangleScratch& scratch)
{
    return static_cast<float>(detail::pointTriangleClosest(
        detail::toV3(p), detail::toV3(a), detail::toV3(b), detail::toV3(c), scratch));
}
/// Squared distance from @p p to the closed triangle (@p a, @p b, @p c).
inline float pointTriangleDistance2(Math::float3 const& p, Math::float3 const& a,
                                    Math::float3 const& b, Math::float3 const& c)
{
    PointTriangleScratch scratch;
    return pointTriangleDistance2(p, a, b, c, scratch);
}
/// Double-precision form of the squared distance with a scratch record.
inline double pointTriangleDistance2(Math::double3 const& p, Math::double3 const& a,
                                     Math::double3 const& b, Math::double3 const& c,
                                     PointTriangleScratch& scratch)
{
    return detail::pointTriangleClosest(detail::toV3(p), detail::toV3(a), detail::toV3(b),
                                        detail::toV3(c), scratch);
}
/// Double-precision form of the squared distance.
inline double pointTriangleDistance2(Math::double3 const& p, Math::double3 const& a,
                                     Math::double3 const& b, Math::double3 const& c)
{
    PointTriangleScratch scratch;
    return detail::pointTriangleClosest(detail::toV3(p), detail::toV3(a), detail::toV3(b),
                                        detail::toV3(c), scratch);
}

// ---- distance -----------------------------------------------------------------------------

/// @brief Euclidean distance from @p p to the closed triangle (@p a, @p b, @p c);
///        @p scratch receives the closest feature and its weights.
HEXMOLD_API float pointTriangleDistance(Math::float3 const& p, Math::float3 const& a,
                                        Math::float3 const& b, Math::float3 const& c,
                                        PointTriangleScratch& scratch);
/// Euclidean distance from @p p to the closed triangle (@p a, @p b, @p c).
HEXMOLD_API float pointTriangleDistance(Math::float3 const& p, Math::float3 const& a,
                                        Math::float3 const& b, Math::float3 const& c);
/// Double-precision form of the distance with a scratch record.
HEXMOLD_API double pointTriangleDistance(Math::double3 const& p, Math::double3 const& a,
                                         Math::double3 const& b, Math::double3 const& c,
                                         PointTriangleScratch& scratch);
/// Double-precision form of the distance.
HEXMOLD_API double pointTriangleDistance(Math::double3 const& p, Math::double3 const& a,
                                         Math::double3 const& b, Math::double3 const& c);

// ---- barycentric closest point --------------------------------------------------------------

/// @brief Barycentric coordinates of the point of the triangle closest to @p p.
/// @param out_bc  weights of a, b, c (x, y, z), each in [0, 1], summing to 1 (the largest
///                weight is 1 minus the others); NaN for NaN input
/// @return the distance from @p p to the triangle
HEXMOLD_API float pointTriangleBC(Math::float3 const& p, Math::float3 const& a,
                                  Math::float3 const& b, Math::float3 const& c,
                                  Math::float3& out_bc);
/// Double-precision form of `pointTriangleBC`.
HEXMOLD_API double pointTriangleBC(Math::double3 const& p, Math::double3 const& a,
                                   Math::double3 const& b, Math::double3 const& c,
                                   Math::double3& out_bc);

// ---- 2D point in triangle ---------------------------------------------------------------------

/// @brief Whether @p p lies in the closed 2D triangle (@p a, @p b, @p c), of either orientation.
/// @details The orientation tests are exact for float coordinates within a factor 2^29 of each
///          other (their differences and products are exact in double precision), so points on
///          an edge are found on it. A degenerate triangle is its segment or point: @p p is in
///          it when it lies on that set, and then always on its edge.
/// @param out_u, out_v, out_w  barycentric weights of a, b, c with p = u a + v b + w c (negative
///                outside); for a degenerate triangle the weights of the point of the segment
///                or point closest to @p p; NaN for NaN input
/// @param out_edge  optional; set to whether @p p is in the triangle and on its boundary
/// @return true when @p p is in the triangle, boundary included; false for NaN input
HEXMOLD_API bool pointInTriangle(Math::float2 const& p, Math::float2 const& a,
                                 Math::float2 const& b, Math::float2 const& c, float& out_u,
                                 float& out_v, float& out_w, bool* out_edge = nullptr);

} // namespace Tavrel::SpatialQuery
