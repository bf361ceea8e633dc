// Tests of Tavrel::SpatialQuery against analytic cases, an independent long-double reference
// (normal equations of the plane, then the edges) and dense sampling of the triangle.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <limits>
#include <random>

using namespace Tavrel::SpatialQuery;
using Tavrel::Math::double3;
using Tavrel::Math::float2;
using Tavrel::Math::float3;

namespace {

using Real = long double;
struct R3 {
    Real x, y, z;
};
R3 sub(R3 a, R3 b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
Real dotR(R3 a, R3 b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
R3 toR(float3 v)
{
    return {v.x, v.y, v.z};
}
R3 toR(double3 v)
{
    return {v.x, v.y, v.z};
}

Real segmentDistance2(R3 p, R3 a, R3 b)
{
    R3 const ab = sub(b, a), ap = sub(p, a);
    Real const l2 = dotR(ab, ab);
    Real t = l2 > 0 ? dotR(ap, ab) / l2 : 0;
    t = std::clamp<Real>(t, 0, 1);
    R3 const d = {ap.x - t * ab.x, ap.y - t * ab.y, ap.z - t * ab.z};
    return dotR(d, d);
}

/// Reference squared distance: the plane's closest point from the 2x2 normal equations when it
/// lies in the triangle, else the nearest edge.
template <typename V> Real referenceDistance2(V p3, V a3, V b3, V c3)
{
    R3 const p = toR(p3), a = toR(a3), b = toR(b3), c = toR(c3);
    R3 const e0 = sub(b, a), e1 = sub(c, a), ap = sub(p, a);
    Real const m00 = dotR(e0, e0), m01 = dotR(e0, e1), m11 = dotR(e1, e1);
    Real const r0 = dotR(ap, e0), r1 = dotR(ap, e1);
    Real const det = m00 * m11 - m01 * m01;
    Real best =
        std::min({segmentDistance2(p, a, b), segmentDistance2(p, b, c), segmentDistance2(p, c, a)});
    if (det > 1e-24L * m00 * m11) {
        Real const s = (r0 * m11 - r1 * m01) / det;
        Real const t = (r1 * m00 - r0 * m01) / det;
        if (s >= 0 && t >= 0 && s + t <= 1) {
            R3 const q = {a.x + s * e0.x + t * e1.x, a.y + s * e0.y + t * e1.y,
                          a.z + s * e0.z + t * e1.z};
            R3 const d = sub(p, q);
            best = std::min(best, dotR(d, d));
        }
    }
    return best;
}

/// Smallest distance from @p p to a lattice of (n + 1)(n + 2)/2 points covering the triangle.
double sampledDistance(float3 p, float3 a, float3 b, float3 c, int n)
{
    double best = std::numeric_limits<double>::infinity();
    for (int i = 0; i <= n; ++i)
        for (int j = 0; i + j <= n; ++j) {
            double const s = double(i) / n, t = double(j) / n;
            double const qx = a.x + s * (b.x - a.x) + t * (c.x - a.x);
            double const qy = a.y + s * (b.y - a.y) + t * (c.y - a.y);
            double const qz = a.z + s * (b.z - a.z) + t * (c.z - a.z);
            double const d = std::sqrt((p.x - qx) * (p.x - qx) + (p.y - qy) * (p.y - qy) +
                                       (p.z - qz) * (p.z - qz));
            best = std::min(best, d);
        }
    return best;
}

double edgeLength(float3 a, float3 b)
{
    return std::sqrt(double(a.x - b.x) * (a.x - b.x) + double(a.y - b.y) * (a.y - b.y) +
                     double(a.z - b.z) * (a.z - b.z));
}

/// The point with weights @p bc of a, b, c.
double3 combine(double3 bc, float3 a, float3 b, float3 c)
{
    return {bc.x * a.x + bc.y * b.x + bc.z * c.x, bc.x * a.y + bc.y * b.y + bc.z * c.y,
            bc.x * a.z + bc.y * b.z + bc.z * c.z};
}

double distanceTo(float3 p, double3 q)
{
    return std::sqrt((p.x - q.x) * (p.x - q.x) + (p.y - q.y) * (p.y - q.y) +
                     (p.z - q.z) * (p.z - q.z));
}

float const kNaN = std::numeric_limits<float>::quiet_NaN();

// Unit right triangle in the z = 0 plane.
float3 const kA{0, 0, 0}, kB{1, 0, 0}, kC{0, 1, 0};

/// A random triangle: general, collinear, with a repeated vertex, or a single point.
struct TriangleSet {
    std::mt19937 rng{12345};
    std::uniform_real_distribution<float> coord{-2.0f, 2.0f};
    float3 randomPoint() { return {coord(rng), coord(rng), coord(rng)}; }
    void next(int kind, float3& a, float3& b, float3& c)
    {
        a = randomPoint();
        b = randomPoint();
        c = randomPoint();
        if (kind == 1) { // collinear on exactly representable positions along an axis line
            float const y = coord(rng), z = coord(rng);
            a = {std::round(coord(rng) * 8) / 8, y, z};
            b = {std::round(coord(rng) * 8) / 8, y, z};
            c = {std::round(coord(rng) * 8) / 8, y, z};
        } else if (kind == 2) {
            b = a;
        } else if (kind == 3) {
            b = a;
            c = a;
        } else if (kind == 4) { // collinear in general direction: c = a + 2 (b - a), exact
            c = {a.x + 2 * (b.x - a.x), a.y + 2 * (b.y - a.y), a.z + 2 * (b.z - a.z)};
            c = {std::round(c.x * 64) / 64, std::round(c.y * 64) / 64, std::round(c.z * 64) / 64};
            a = {std::round(a.x * 64) / 64, std::round(a.y * 64) / 64, std::round(a.z * 64) / 64};
            b = {std::round(b.x * 64) / 64, std::round(b.y * 64) / 64, std::round(b.z * 64) / 64};
        }
    }
};

} // namespace

// ---- analytic cases ---------------------------------------------------------------------------

TEST(SpatialQuery, PointAboveFaceIsAtItsHeight)
{
    PointTriangleScratch s;
    float const d = pointTriangleDistance(float3{0.25f, 0.25f, 2.0f}, kA, kB, kC, s);
    EXPECT_FLOAT_EQ(d, 2.0f);
    EXPECT_EQ(s.feature, TriangleFeature::kFace);
    EXPECT_DOUBLE_EQ(s.bc.x, 0.5);
    EXPECT_DOUBLE_EQ(s.bc.y, 0.25);
    EXPECT_DOUBLE_EQ(s.bc.z, 0.25);
    // Below the face: the same distance, whatever the orientation.
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{0.25f, 0.25f, -2.0f}, kA, kC, kB), 2.0f);
}

TEST(SpatialQuery, VertexRegionsGiveVertexDistance)
{
    PointTriangleScratch s;
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{-1, -1, 1}, kA, kB, kC, s), std::sqrt(3.0f));
    EXPECT_EQ(s.feature, TriangleFeature::kVertexA);
    EXPECT_EQ(s.bc.x, 1.0);
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{3, 0, 0}, kA, kB, kC, s), 2.0f);
    EXPECT_EQ(s.feature, TriangleFeature::kVertexB);
    EXPECT_EQ(s.bc.y, 1.0);
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{0, 1, 4}, kA, kB, kC, s), 4.0f);
    EXPECT_EQ(s.feature, TriangleFeature::kVertexC);
    EXPECT_EQ(s.bc.z, 1.0);
}

TEST(SpatialQuery, EdgeRegionsGiveEdgeDistance)
{
    PointTriangleScratch s;
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{0.5f, -1, 0}, kA, kB, kC, s), 1.0f);
    EXPECT_EQ(s.feature, TriangleFeature::kEdgeAB);
    EXPECT_DOUBLE_EQ(s.bc.x, 0.5);
    EXPECT_DOUBLE_EQ(s.bc.y, 0.5);
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{1, 1, 0}, kA, kB, kC, s), std::sqrt(0.5f));
    EXPECT_EQ(s.feature, TriangleFeature::kEdgeBC);
    EXPECT_DOUBLE_EQ(s.bc.y, 0.5);
    EXPECT_DOUBLE_EQ(s.bc.z, 0.5);
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{-3, 0.5f, 4}, kA, kB, kC, s), 5.0f);
    EXPECT_EQ(s.feature, TriangleFeature::kEdgeCA);
}

TEST(SpatialQuery, PointOnTriangleIsAtZero)
{
    EXPECT_EQ(pointTriangleDistance(float3{0.2f, 0.3f, 0}, kA, kB, kC), 0.0f);
    EXPECT_EQ(pointTriangleDistance(kB, kA, kB, kC), 0.0f);
    PointTriangleScratch s;
    EXPECT_EQ(pointTriangleDistance2(float3{0.5f, 0, 0}, kA, kB, kC, s), 0.0f);
    EXPECT_EQ(s.feature, TriangleFeature::kEdgeAB);
}

TEST(SpatialQuery, AllFormsAgree)
{
    float3 const p{0.7f, 0.9f, -0.3f};
    PointTriangleScratch s;
    float const d2 = pointTriangleDistance2(p, kA, kB, kC);
    EXPECT_EQ(pointTriangleDistance2(p, kA, kB, kC, s), d2);
    EXPECT_EQ(pointTriangleDistance(p, kA, kB, kC), pointTriangleDistance(p, kA, kB, kC, s));
    EXPECT_FLOAT_EQ(pointTriangleDistance(p, kA, kB, kC), std::sqrt(d2));
    double3 const pd{0.7, 0.9, -0.3}, ad{0, 0, 0}, bd{1, 0, 0}, cd{0, 1, 0};
    EXPECT_NEAR(pointTriangleDistance(pd, ad, bd, cd), std::sqrt(d2), 1e-6);
    EXPECT_EQ(pointTriangleDistance2(pd, ad, bd, cd, s), pointTriangleDistance2(pd, ad, bd, cd));
    EXPECT_DOUBLE_EQ(pointTriangleDistance(pd, ad, bd, cd, s),
                     std::sqrt(pointTriangleDistance2(pd, ad, bd, cd)));
}

// ---- degenerate triangles ---------------------------------------------------------------------

TEST(SpatialQuery, CollinearTriangleIsItsSegment)
{
    // c between a and b: the segment [a, b].
    float3 const a{0, 0, 0}, b{2, 0, 0}, c{1, 0, 0};
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{1, 1, 0}, a, b, c), 1.0f);
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{3, 0, 0}, a, b, c), 1.0f);
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{-1, 0, 1}, a, b, c), std::sqrt(2.0f));
    // c beyond b: the segment [a, c].
    float3 const c2{3, 0, 0};
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{2.5f, 1, 0}, a, float3{1, 0, 0}, c2), 1.0f);
}

TEST(SpatialQuery, RepeatedVertexIsItsSegment)
{
    float3 const a{0, 0, 0}, c{0, 2, 0};
    PointTriangleScratch s;
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{1, 1, 0}, a, a, c, s), 1.0f);
    EXPECT_NE(s.feature, TriangleFeature::kFace);
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{0, 3, 0}, a, c, c), 1.0f);
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{0, -1, 0}, c, a, a), 1.0f);
}

TEST(SpatialQuery, ThreeEqualVerticesAreAPoint)
{
    float3 const a{1, 2, 3};
    PointTriangleScratch s;
    EXPECT_FLOAT_EQ(pointTriangleDistance(float3{1, 2, 5}, a, a, a, s), 2.0f);
    EXPECT_EQ(s.feature, TriangleFeature::kVertexA);
    EXPECT_EQ(s.bc.x, 1.0);
    EXPECT_EQ(s.bc.y, 0.0);
    EXPECT_EQ(s.bc.z, 0.0);
    EXPECT_EQ(pointTriangleDistance(a, a, a, a), 0.0f);
}

TEST(SpatialQuery, SliverTriangleMatchesReference)
{
    // Widths from 1e-3 down to 1e-12 of the length, and exactly 0.
    for (double width : {1e-3, 1e-6, 1e-9, 1e-12, 0.0}) {
        double3 const a{0, 0, 0}, b{1, 0, 0}, c{0.5, width, 0};
        for (double3 p : {double3{0.5, 0.5 * width, 1e-3}, double3{0.25, -1e-4, 0},
                          double3{0.5, 1.0, 0}, double3{1.5, 0, 2}, double3{0.5, 0, 0}}) {
            double const d = pointTriangleDistance(p, a, b, c);
            double const ref = std::sqrt(static_cast<double>(referenceDistance2(p, a, b, c)));
            // Within rounding, or within the sliver's width when it is treated as its edges.
            EXPECT_NEAR(d, ref, 1e-12 + width) << "width " << width;
        }
    }
}

TEST(SpatialQuery, NanCoordinatesGiveNan)
{
    PointTriangleScratch s;
    EXPECT_TRUE(std::isnan(pointTriangleDistance(float3{kNaN, 0, 0}, kA, kB, kC, s)));
    EXPECT_EQ(s.feature, TriangleFeature::kNone);
    EXPECT_TRUE(std::isnan(pointTriangleDistance2(float3{0, 0, 0}, float3{kNaN, 0, 0}, kB, kC)));
    EXPECT_TRUE(std::isnan(pointTriangleDistance(float3{0, 0, 1}, kA, kB, float3{0, kNaN, 0})));
    EXPECT_TRUE(std::isnan(pointTriangleDistance(float3{0, 0, 1}, kA, kA, float3{0, kNaN, 0})));
    float3 bc{};
    EXPECT_TRUE(std::isnan(pointTriangleBC(float3{0, kNaN, 0}, kA, kB, kC, bc)));
    EXPECT_TRUE(std::isnan(bc.x));
}

// ---- against the reference and dense sampling -----------------------------------------------

TEST(SpatialQuery, RandomTrianglesMatchReference)
{
    TriangleSet set;
    std::uniform_real_distribution<float> coord(-4.0f, 4.0f);
    for (int i = 0; i < 20000; ++i) {
        float3 a, b, c;
        set.next(i % 5, a, b, c);
        float3 const p{coord(set.rng), coord(set.rng), coord(set.rng)};
        double const ref = std::sqrt(static_cast<double>(referenceDistance2(p, a, b, c)));
        PointTriangleScratch s;
        float const d = pointTriangleDistance(p, a, b, c, s);
        // Computed in double, rounded once to float.
        ASSERT_NEAR(d, ref, 1e-6 * (1.0 + ref)) << "case " << i << " kind " << i % 5;
        // The reported closest point is at the reported distance.
        ASSERT_NEAR(distanceTo(p, combine(s.bc, a, b, c)), ref, 1e-5 * (1.0 + ref));
        double3 const pd = Tavrel::Math::convert<double>(p);
        double const dd = pointTriangleDistance(pd, Tavrel::Math::convert<double>(a),
                                                Tavrel::Math::convert<double>(b),
                                                Tavrel::Math::convert<double>(c));
        ASSERT_NEAR(dd, ref, 1e-12 * (1.0 + ref)) << "case " << i;
    }
}

TEST(SpatialQuery, DenseSamplingBoundsTheDistance)
{
    TriangleSet set;
    int constexpr kSamples = 150;
    for (int i = 0; i < 60; ++i) {
        float3 a, b, c;
        set.next(i % 5, a, b, c);
        double const spacing =
            std::max({edgeLength(a, b), edgeLength(b, c), edgeLength(c, a)}) / kSamples;
        for (int k = 0; k < 5; ++k) {
            float3 const p = set.randomPoint();
            double const sampled = sampledDistance(p, a, b, c, kSamples);
            double const d = pointTriangleDistance(p, a, b, c);
            // No sample is closer than the triangle; every point of it is within one lattice
            // spacing of a sample.
            ASSERT_LE(d, sampled * (1 + 1e-6) + 1e-6) << "case " << i;
            ASSERT_GE(d, sampled - spacing - 1e-6) << "case " << i;
        }
    }
}

// ---- barycentric closest point --------------------------------------------------------------

TEST(SpatialQuery, BarycentricWeightsSumToOneAndRebuildTheClosestPoint)
{
    TriangleSet set;
    for (int i = 0; i < 5000; ++i) {
        float3 a, b, c;
        set.next(i % 5, a, b, c);
        float3 const p = set.randomPoint();
        float3 bc{};
        float const d = pointTriangleBC(p, a, b, c, bc);
        EXPECT_NEAR(double(bc.x) + bc.y + bc.z, 1.0, 2e-7);
        EXPECT_GE(bc.x, 0.0f);
        EXPECT_GE(bc.y, 0.0f);
        EXPECT_GE(bc.z, 0.0f);
        double3 const q = combine(Tavrel::Math::convert<double>(bc), a, b, c);
        ASSERT_NEAR(distanceTo(p, q), d, 1e-5 * (1.0 + d)) << "case " << i;
    }
}

TEST(SpatialQuery, BarycentricOfFaceAndVertexCases)
{
    float3 bc{};
    EXPECT_FLOAT_EQ(pointTriangleBC(float3{0.25f, 0.5f, 1}, kA, kB, kC, bc), 1.0f);
    EXPECT_FLOAT_EQ(bc.x, 0.25f);
    EXPECT_FLOAT_EQ(bc.y, 0.25f);
    EXPECT_FLOAT_EQ(bc.z, 0.5f);
    EXPECT_FLOAT_EQ(pointTriangleBC(float3{-1, 0, 0}, kA, kB, kC, bc), 1.0f);
    EXPECT_EQ(bc.x, 1.0f);
    EXPECT_EQ(bc.y, 0.0f);
    EXPECT_EQ(bc.z, 0.0f);
    double3 bcd{};
    EXPECT_DOUBLE_EQ(pointTriangleBC(double3{2, 2, 0}, double3{0, 0, 0}, double3{0, 0, 0},
                                     double3{0, 0, 0}, bcd),
                     std::sqrt(8.0));
    EXPECT_EQ(bcd.x, 1.0);
}

// ---- 2D point in triangle ---------------------------------------------------------------------

TEST(SpatialQuery, PointInTriangleInteriorOfEitherOrientation)
{
    float2 const a{0, 0}, b{4, 0}, c{0, 4};
    float u, v, w;
    bool edge = true;
    EXPECT_TRUE(pointInTriangle(float2{1, 1}, a, b, c, u, v, w, &edge));
    EXPECT_FALSE(edge);
    EXPECT_FLOAT_EQ(u, 0.5f);
    EXPECT_FLOAT_EQ(v, 0.25f);
    EXPECT_FLOAT_EQ(w, 0.25f);
    EXPECT_TRUE(pointInTriangle(float2{1, 1}, a, c, b, u, v, w, &edge));
    EXPECT_FALSE(edge);
    EXPECT_FLOAT_EQ(u, 0.5f);
    EXPECT_FLOAT_EQ(v, 0.25f);
    EXPECT_FLOAT_EQ(w, 0.25f);
}

TEST(SpatialQuery, PointInTriangleOnEdgeAndVertex)
{
    float2 const a{0, 0}, b{4, 0}, c{0, 4};
    float u, v, w;
    bool edge = false;
    EXPECT_TRUE(pointInTriangle(float2{2, 0}, a, b, c, u, v, w, &edge));
    EXPECT_TRUE(edge);
    EXPECT_EQ(w, 0.0f);
    EXPECT_TRUE(pointInTriangle(float2{2, 2}, a, b, c, u, v, w, &edge));
    EXPECT_TRUE(edge);
    EXPECT_EQ(u, 0.0f);
    EXPECT_TRUE(pointInTriangle(c, a, b, c, u, v, w, &edge));
    EXPECT_TRUE(edge);
    EXPECT_EQ(w, 1.0f);
    // Without the optional flag.
    EXPECT_TRUE(pointInTriangle(float2{2, 0}, a, b, c, u, v, w));
}

TEST(SpatialQuery, PointInTriangleOutside)
{
    float2 const a{0, 0}, b{4, 0}, c{0, 4};
    float u, v, w;
    bool edge = true;
    EXPECT_FALSE(pointInTriangle(float2{3, 3}, a, b, c, u, v, w, &edge));
    EXPECT_FALSE(edge);
    EXPECT_LT(u, 0.0f);
    EXPECT_FLOAT_EQ(u + v + w, 1.0f);
    EXPECT_FALSE(pointInTriangle(float2{-0.001f, 1}, a, b, c, u, v, w, &edge));
}

TEST(SpatialQuery, PointInDegenerateTriangle)
{
    float u, v, w;
    bool edge = false;
    // Collinear: the hull is the segment from (0,0) to (4,4).
    float2 const a{0, 0}, b{4, 4}, c{1, 1};
    EXPECT_TRUE(pointInTriangle(float2{2, 2}, a, b, c, u, v, w, &edge));
    EXPECT_TRUE(edge);
    EXPECT_FLOAT_EQ(u * a.x + v * b.x + w * c.x, 2.0f);
    EXPECT_FLOAT_EQ(u + v + w, 1.0f);
    EXPECT_FALSE(pointInTriangle(float2{2, 2.5f}, a, b, c, u, v, w, &edge));
    EXPECT_FALSE(edge);
    EXPECT_FALSE(pointInTriangle(float2{5, 5}, a, b, c, u, v, w, &edge));
    // Weights of the closest point of the segment: (4, 4).
    EXPECT_FLOAT_EQ(u * a.x + v * b.x + w * c.x, 4.0f);
    // Repeated vertex.
    EXPECT_TRUE(pointInTriangle(float2{0, 1}, a, a, float2{0, 3}, u, v, w, &edge));
    EXPECT_TRUE(edge);
    // A single point.
    EXPECT_TRUE(
        pointInTriangle(float2{1, 2}, float2{1, 2}, float2{1, 2}, float2{1, 2}, u, v, w, &edge));
    EXPECT_TRUE(edge);
    EXPECT_EQ(u, 1.0f);
    EXPECT_FALSE(
        pointInTriangle(float2{1, 3}, float2{1, 2}, float2{1, 2}, float2{1, 2}, u, v, w, &edge));
}

TEST(SpatialQuery, PointInTriangleNanIsOutside)
{
    float2 const a{0, 0}, b{4, 0}, c{0, 4};
    float u, v, w;
    bool edge = true;
    EXPECT_FALSE(pointInTriangle(float2{kNaN, 1}, a, b, c, u, v, w, &edge));
    EXPECT_FALSE(edge);
    EXPECT_TRUE(std::isnan(u));
    EXPECT_FALSE(pointInTriangle(float2{1, 1}, float2{kNaN, 0}, b, c, u, v, w, &edge));
    EXPECT_FALSE(edge);
    // NaN point against a degenerate triangle.
    EXPECT_FALSE(pointInTriangle(float2{kNaN, 1}, a, a, a, u, v, w, &edge));
    EXPECT_TRUE(std::isnan(u));
}

TEST(SpatialQuery, PointInTriangleIsExactOnIntegerGrid)
{
    // Integer coordinates: the exact answers come from 64-bit integer orientation tests.
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> coord(-1000, 1000);
    auto orient = [](std::int64_t ax, std::int64_t ay, std::int64_t bx, std::int64_t by,
                     std::int64_t cx,
                     std::int64_t cy) { return (bx - ax) * (cy - ay) - (by - ay) * (cx - ax); };
    int onEdge = 0;
    for (int i = 0; i < 20000; ++i) {
        int const ax = coord(rng), ay = coord(rng), bx = coord(rng), by = coord(rng);
        int const cx = coord(rng), cy = coord(rng);
        int px = coord(rng), py = coord(rng);
        if (i % 4 == 0) { // a point on edge a-b when the lattice allows it
            int const g = std::gcd(std::abs(bx - ax), std::abs(by - ay));
            if (g > 1) {
                int const k = 1 + int(rng() % (g - 1));
                px = ax + (bx - ax) / g * k;
                py = ay + (by - ay) / g * k;
            }
        }
        std::int64_t const area = orient(ax, ay, bx, by, cx, cy);
        if (area == 0)
            continue;
        std::int64_t const wa = orient(px, py, bx, by, cx, cy);
        std::int64_t const wb = orient(ax, ay, px, py, cx, cy);
        std::int64_t const wc = orient(ax, ay, bx, by, px, py);
        bool const inside =
            area > 0 ? (wa >= 0 && wb >= 0 && wc >= 0) : (wa <= 0 && wb <= 0 && wc <= 0);
        bool const boundary = inside && (wa == 0 || wb == 0 || wc == 0);
        onEdge += boundary;
        float u, v, w;
        bool edge = false;
        bool const got = pointInTriangle(float2{float(px), float(py)}, float2{float(ax), float(ay)},
                                         float2{float(bx), float(by)}, float2{float(cx), float(cy)},
                                         u, v, w, &edge);
        ASSERT_EQ(got, inside) << "case " << i;
        ASSERT_EQ(edge, boundary) << "case " << i;
    }
    EXPECT_GT(onEdge, 100);
}
