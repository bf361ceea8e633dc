/// @file  platform/tavrel/spatial_query.cpp
/// @brief Point-triangle distance, closest-point barycentric coordinates and the 2D
///        point-in-triangle test.
#include <hexmold/platform/tavrel/spatial_query.h>

#include <cmath>

namespace Tavrel::SpatialQuery {

using Math::double3;
using Math::float2;
using Math::float3;

float pointTriangleDistance(float3 const& p, float3 const& a, float3 const& b, float3 const& c,
                            PointTriangleScratch& scratch)
{
    return static_cast<float>(std::sqrt(detail::pointTriangleClosest(
        detail::toV3(p), detail::toV3(a), detail::toV3(b), detail::toV3(c), scratch)));
}

float pointTriangleDistance(float3 const& p, float3 const& a, float3 const& b, float3 const& c)
{
    PointTriangleScratch scratch;
    return pointTriangleDistance(p, a, b, c, scratch);
}

double pointTriangleDistance(double3 const& p, double3 const& a, double3 const& b, double3 const& c,
                             PointTriangleScratch& scratch)
{
    return std::sqrt(detail::pointTriangleClosest(detail::toV3(p), detail::toV3(a), detail::toV3(b),
                                                  detail::toV3(c), scratch));
}

double pointTriangleDistance(double3 const& p, double3 const& a, double3 const& b, double3 const& c)
{
    PointTriangleScratch scratch;
    return pointTriangleDistance(p, a, b, c, scratch);
}

namespace {

/// Weights in the output precision that sum to 1: the largest is 1 minus the other two, so the
/// rounding of the conversion does not show in the sum.
template <typename T> Math::Vec3<T> normalizedWeights(double3 const& bc)
{
    Math::Vec3<T> w = Math::convert<T>(bc);
    int const largest = bc.x >= bc.y ? (bc.x >= bc.z ? 0 : 2) : (bc.y >= bc.z ? 1 : 2);
    w[largest] = T(1) - w[(largest + 1) % 3] - w[(largest + 2) % 3];
    return w;
}

} // namespace

float pointTriangleBC(float3 const& p, float3 const& a, float3 const& b, float3 const& c,
                      float3& out_bc)
{
    PointTriangleScratch scratch;
    float const distance = pointTriangleDistance(p, a, b, c, scratch);
    out_bc = normalizedWeights<float>(scratch.bc);
    return distance;
}

double pointTriangleBC(double3 const& p, double3 const& a, double3 const& b, double3 const& c,
                       double3& out_bc)
{
    PointTriangleScratch scratch;
    double const distance = pointTriangleDistance(p, a, b, c, scratch);
    out_bc = normalizedWeights<double>(scratch.bc);
    return distance;
}

namespace {

struct Point2 {
    double x, y;
};

/// Twice the signed area of (a, b, c): positive when counter-clockwise.
double orientation(Point2 a, Point2 b, Point2 c)
{
    return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

} // namespace

bool pointInTriangle(float2 const& p, float2 const& a, float2 const& b, float2 const& c,
                     float& out_u, float& out_v, float& out_w, bool* out_edge)
{
    if (out_edge)
        *out_edge = false;
    Point2 const q{p.x, p.y};
    Point2 const v[3] = {{a.x, a.y}, {b.x, b.y}, {c.x, c.y}};
    double const area = orientation(v[0], v[1], v[2]);
    if (area != 0.0) { // NaN included: every test below is then false
        double const wa = orientation(q, v[1], v[2]);
        double const wb = orientation(v[0], q, v[2]);
        double const wc = orientation(v[0], v[1], q);
        out_u = static_cast<float>(wa / area);
        out_v = static_cast<float>(wb / area);
        out_w = static_cast<float>(wc / area);
        bool const inside = area > 0.0 ? (wa >= 0.0 && wb >= 0.0 && wc >= 0.0)
                                       : (wa <= 0.0 && wb <= 0.0 && wc <= 0.0);
        if (out_edge)
            *out_edge = inside && (wa == 0.0 || wb == 0.0 || wc == 0.0);
        return inside;
    }
    // Zero area: the triangle is its longest edge (i, i + 1), or a point.
    int longest = 0;
    double longest2 = -1.0;
    for (int i = 0; i < 3; ++i) {
        Point2 const s = v[i], e = v[(i + 1) % 3];
        double const l2 = (e.x - s.x) * (e.x - s.x) + (e.y - s.y) * (e.y - s.y);
        if (l2 > longest2) {
            longest2 = l2;
            longest = i;
        }
    }
    Point2 const s = v[longest], e = v[(longest + 1) % 3];
    double t = 0.0;
    if (longest2 > 0.0) {
        t = ((q.x - s.x) * (e.x - s.x) + (q.y - s.y) * (e.y - s.y)) / longest2;
        t = t < 0.0 ? 0.0 : (t > 1.0 ? 1.0 : t);
    }
    float w[3] = {0.0f, 0.0f, 0.0f};
    w[longest] = static_cast<float>(1.0 - t);
    w[(longest + 1) % 3] += static_cast<float>(t);
    out_u = w[0];
    out_v = w[1];
    out_w = w[2];
    bool inside;
    if (longest2 > 0.0) {
        inside = orientation(s, e, q) == 0.0 &&
                 (q.x - s.x) * (e.x - s.x) + (q.y - s.y) * (e.y - s.y) >= 0.0 &&
                 (q.x - e.x) * (s.x - e.x) + (q.y - e.y) * (s.y - e.y) >= 0.0;
    } else {
        inside = q.x == s.x && q.y == s.y;
    }
    if (!inside && (q.x != q.x || q.y != q.y))
        out_u = out_v = out_w = q.x + q.y; // NaN
    if (out_edge)
        *out_edge = inside;
    return inside;
}

} // namespace Tavrel::SpatialQuery
