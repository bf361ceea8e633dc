// Triangle meshes for tests (an icosphere, a box, a plate, the shared data files) and the
// brute-force distance to them in long double.
#pragma once
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/tavrel/math.h>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace testmeshes {

using Tavrel::Math::float3;
using Tavrel::Math::ulong3;

struct TriangleMesh {
    Quillon::Array<float3> positions;
    Quillon::Array<ulong3> triangles;
};

/// Icosphere of @p radius around @p centre, @p subdivisions times refined (20 * 4^n triangles),
/// outward facing.
inline TriangleMesh icosphere(float3 centre, double radius, int subdivisions)
{
    double const t = (1.0 + std::sqrt(5.0)) / 2.0;
    std::vector<std::array<double, 3>> v = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0},
                                            {0, -1, t}, {0, 1, t}, {0, -1, -t}, {0, 1, -t},
                                            {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
    std::vector<std::array<std::uint64_t, 3>> f = {
        {0, 11, 5},  {0, 5, 1},  {0, 1, 7},  {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
        {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
        {3, 8, 9},   {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
    auto normalise = [](std::array<double, 3> p) {
        double const l = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
        return std::array<double, 3>{p[0] / l, p[1] / l, p[2] / l};
    };
    for (auto& p : v)
        p = normalise(p);
    for (int s = 0; s < subdivisions; ++s) {
        std::map<std::pair<std::uint64_t, std::uint64_t>, std::uint64_t> mid;
        auto middle = [&](std::uint64_t a, std::uint64_t b) {
            auto key = std::minmax(a, b);
            auto it = mid.find(key);
            if (it != mid.end())
                return it->second;
            v.push_back(normalise(
                {(v[a][0] + v[b][0]) / 2, (v[a][1] + v[b][1]) / 2, (v[a][2] + v[b][2]) / 2}));
            mid[key] = v.size() - 1;
            return v.size() - 1;
        };
        std::vector<std::array<std::uint64_t, 3>> g;
        for (auto const& tri : f) {
            std::uint64_t const a = middle(tri[0], tri[1]), b = middle(tri[1], tri[2]),
                                c = middle(tri[2], tri[0]);
            g.push_back({tri[0], a, c});
            g.push_back({tri[1], b, a});
            g.push_back({tri[2], c, b});
            g.push_back({a, b, c});
        }
        f.swap(g);
    }
    TriangleMesh m;
    for (auto const& p : v)
        m.positions.push_back({static_cast<float>(centre.x + radius * p[0]),
                               static_cast<float>(centre.y + radius * p[1]),
                               static_cast<float>(centre.z + radius * p[2])});
    for (auto const& tri : f)
        m.triangles.push_back({tri[0], tri[1], tri[2]});
    return m;
}

/// Closed box [lo, hi], 12 outward-facing triangles.
inline TriangleMesh box(float3 lo, float3 hi)
{
    TriangleMesh m;
    for (int k = 0; k < 8; ++k)
        m.positions.push_back(
            {(k & 1) ? hi.x : lo.x, (k & 2) ? hi.y : lo.y, (k & 4) ? hi.z : lo.z});
    std::uint64_t const q[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                                   {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (auto const& f : q) {
        m.triangles.push_back({f[0], f[1], f[2]});
        m.triangles.push_back({f[0], f[2], f[3]});
    }
    return m;
}

/// Torus around the z axis through @p centre: ring radius @p R, tube radius @p r, @p nu by @p nv
/// quads split in two, outward facing.
inline TriangleMesh torus(float3 centre, double R, double r, int nu, int nv)
{
    TriangleMesh m;
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j) {
            double const u = 2.0 * M_PI * i / nu, v = 2.0 * M_PI * j / nv;
            double const rr = R + r * std::cos(v);
            m.positions.push_back({static_cast<float>(centre.x + rr * std::cos(u)),
                                   static_cast<float>(centre.y + rr * std::sin(u)),
                                   static_cast<float>(centre.z + r * std::sin(v))});
        }
    auto id = [&](int i, int j) { return std::uint64_t(((i + nu) % nu) * nv + (j + nv) % nv); };
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j) {
            m.triangles.push_back({id(i, j), id(i + 1, j), id(i + 1, j + 1)});
            m.triangles.push_back({id(i, j), id(i + 1, j + 1), id(i, j + 1)});
        }
    return m;
}

/// The same surface facing the other way.
inline TriangleMesh flipped(TriangleMesh m)
{
    for (auto& t : m.triangles)
        std::swap(t.y, t.z);
    return m;
}

/// Both meshes as one.
inline TriangleMesh merged(TriangleMesh const& a, TriangleMesh const& b)
{
    TriangleMesh m = a;
    std::uint64_t const base = a.positions.size();
    for (auto const& p : b.positions)
        m.positions.push_back(p);
    for (auto const& t : b.triangles)
        m.triangles.push_back({t.x + base, t.y + base, t.z + base});
    return m;
}

/// The mesh without the triangles whose index @p drop(index) says.
template <typename F> inline TriangleMesh withoutTriangles(TriangleMesh const& a, F&& drop)
{
    TriangleMesh m;
    m.positions = a.positions;
    for (std::size_t t = 0; t < a.triangles.size(); ++t)
        if (!drop(t))
            m.triangles.push_back(a.triangles[t]);
    return m;
}

/// Reads the vertices and faces of an OBJ file (fan-triangulated); empty when unreadable.
inline TriangleMesh readObj(std::string const& path)
{
    TriangleMesh m;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream s(line);
        std::string tag;
        s >> tag;
        if (tag == "v") {
            float3 p;
            s >> p.x >> p.y >> p.z;
            m.positions.push_back(p);
        } else if (tag == "f") {
            std::vector<std::uint64_t> f;
            std::string w;
            while (s >> w) {
                long long const i = std::stoll(w.substr(0, w.find('/')));
                f.push_back(static_cast<std::uint64_t>(
                    i < 0 ? static_cast<long long>(m.positions.size()) + i : i - 1));
            }
            for (std::size_t k = 2; k < f.size(); ++k)
                m.triangles.push_back({f[0], f[k - 1], f[k]});
        }
    }
    return m;
}

/// Path of a file of the shared test data, or empty when the data folder lacks it.
inline std::string dataFile(std::string const& name)
{
#ifdef HEXMOLD_DATA_DIR
    std::string const path = std::string(HEXMOLD_DATA_DIR) + "/" + name;
    std::ifstream in(path);
    if (in.good())
        return path;
#endif
    return {};
}

using Real = long double;

/// Squared distance from p to segment [a, b], long double.
inline Real segmentDistance2(Real const p[3], Real const a[3], Real const b[3])
{
    Real ab[3], ap[3];
    for (int i = 0; i < 3; ++i)
        ab[i] = b[i] - a[i], ap[i] = p[i] - a[i];
    Real const l2 = ab[0] * ab[0] + ab[1] * ab[1] + ab[2] * ab[2];
    Real t = l2 > 0 ? (ap[0] * ab[0] + ap[1] * ab[1] + ap[2] * ab[2]) / l2 : 0;
    t = std::clamp<Real>(t, 0, 1);
    Real d2 = 0;
    for (int i = 0; i < 3; ++i) {
        Real const d = ap[i] - t * ab[i];
        d2 += d * d;
    }
    return d2;
}

/// Distance from p to the closed triangle (a, b, c) in long double: the foot of the
/// perpendicular when barycentric coordinates (by areas of the sub-triangles against the
/// normal) are all non-negative, else the nearest edge.
inline Real triangleDistance(float3 const& p3, float3 const& a3, float3 const& b3, float3 const& c3)
{
    Real const p[3] = {p3.x, p3.y, p3.z}, a[3] = {a3.x, a3.y, a3.z}, b[3] = {b3.x, b3.y, b3.z},
               c[3] = {c3.x, c3.y, c3.z};
    Real u[3], v[3], n[3];
    for (int i = 0; i < 3; ++i)
        u[i] = b[i] - a[i], v[i] = c[i] - a[i];
    n[0] = u[1] * v[2] - u[2] * v[1];
    n[1] = u[2] * v[0] - u[0] * v[2];
    n[2] = u[0] * v[1] - u[1] * v[0];
    Real const nn = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
    Real best =
        std::min({segmentDistance2(p, a, b), segmentDistance2(p, b, c), segmentDistance2(p, c, a)});
    Real const scale =
        (u[0] * u[0] + u[1] * u[1] + u[2] * u[2]) * (v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    if (nn > 1e-20L * scale && nn > 0) {
        auto area = [&](Real const x[3], Real const y[3]) {
            // n . ((x - p) x (y - p))
            Real const xp[3] = {x[0] - p[0], x[1] - p[1], x[2] - p[2]},
                       yp[3] = {y[0] - p[0], y[1] - p[1], y[2] - p[2]};
            Real const cx = xp[1] * yp[2] - xp[2] * yp[1], cy = xp[2] * yp[0] - xp[0] * yp[2],
                       cz = xp[0] * yp[1] - xp[1] * yp[0];
            return n[0] * cx + n[1] * cy + n[2] * cz;
        };
        if (area(b, c) >= 0 && area(c, a) >= 0 && area(a, b) >= 0) {
            Real const h = (p[0] - a[0]) * n[0] + (p[1] - a[1]) * n[1] + (p[2] - a[2]) * n[2];
            best = std::min(best, h * h / nn);
        }
    }
    return std::sqrt(best);
}

/// Brute-force distance to a mesh, with the exact minimum over all triangles: triangles are
/// measured in order of their box distance and the walk stops when no box can beat the best.
struct BruteForce {
    TriangleMesh const* mesh;
    std::vector<std::array<float, 6>> boxes;
    explicit BruteForce(TriangleMesh const& m) : mesh(&m)
    {
        for (auto const& t : m.triangles) {
            float3 const &a = m.positions[t.x], &b = m.positions[t.y], &c = m.positions[t.z];
            boxes.push_back({std::min({a.x, b.x, c.x}), std::min({a.y, b.y, c.y}),
                             std::min({a.z, b.z, c.z}), std::max({a.x, b.x, c.x}),
                             std::max({a.y, b.y, c.y}), std::max({a.z, b.z, c.z})});
        }
    }
    /// The distance and the lowest index of a closest triangle: the triangle with the nearest
    /// box gives a first bound, then every triangle whose box is within the bound is measured.
    std::pair<Real, std::int64_t> operator()(float3 const& p) const
    {
        thread_local std::vector<Real> box2;
        box2.resize(boxes.size());
        std::size_t first = 0;
        for (std::size_t t = 0; t < boxes.size(); ++t) {
            Real d2 = 0;
            for (int ax = 0; ax < 3; ++ax) {
                Real const x = p[ax];
                Real const d =
                    std::max<Real>({Real(boxes[t][ax]) - x, x - Real(boxes[t][3 + ax]), 0});
                d2 += d * d;
            }
            box2[t] = d2;
            if (d2 < box2[first])
                first = t;
        }
        if (boxes.empty())
            return {std::numeric_limits<Real>::infinity(), -1};
        auto measure = [&](std::size_t t) {
            ulong3 const& tri = mesh->triangles[t];
            return triangleDistance(p, mesh->positions[tri.x], mesh->positions[tri.y],
                                    mesh->positions[tri.z]);
        };
        Real best = measure(first);
        std::int64_t id = std::int64_t(first);
        Real const bound2 = best * best * (1 + 1e-12L);
        for (std::size_t t = 0; t < boxes.size(); ++t) {
            if (box2[t] > bound2 || t == first)
                continue;
            Real const d = measure(t);
            if (d < best || (d == best && std::int64_t(t) < id)) {
                best = d;
                id = std::int64_t(t);
            }
        }
        return {best, id};
    }
};

} // namespace testmeshes
