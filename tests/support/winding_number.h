// The generalized winding number of a triangle mesh, in double precision: the sum of the signed
// solid angles of the triangles seen from a point, over 4 pi (Van Oosterom and Strackee's
// formula). 1 inside a closed outward-facing mesh, 0 outside, fractional near holes.
//
// Far clusters of triangles count by their dipole (the area-weighted normal at the area-weighted
// centroid; Barill et al. 2018, first order), so that a query costs about the logarithm of the
// triangle count; a cluster counts exactly while the point is within `kBeta` times its radius.
// The far-field error is far below the 0.5 that separates inside from outside.
#pragma once
#include "support/meshes.h"
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <vector>

namespace testmeshes {

class WindingNumber {
public:
    static constexpr double kBeta = 3.0;

    explicit WindingNumber(TriangleMesh const& m)
    {
        mTris.reserve(m.triangles.size());
        for (auto const& t : m.triangles) {
            std::array<double, 9> v{};
            std::uint64_t const id[3] = {t.x, t.y, t.z};
            for (int c = 0; c < 3; ++c)
                for (int a = 0; a < 3; ++a)
                    v[3 * c + a] = m.positions[id[c]][a];
            mTris.push_back(v);
        }
        mOrder.resize(mTris.size());
        std::iota(mOrder.begin(), mOrder.end(), 0);
        if (!mTris.empty())
            build(0, int(mTris.size()));
    }

    /// The exact sum over every triangle (for checking the clustered one).
    double exact(double const p[3]) const
    {
        double w = 0.0;
        for (auto const& t : mTris)
            w += solidAngle(t, p);
        return w / (4.0 * M_PI);
    }

    double operator()(double const p[3]) const
    {
        if (mNodes.empty())
            return 0.0;
        double w = 0.0;
        int stack[128];
        int top = 0;
        stack[top++] = 0;
        while (top > 0) {
            Node const& n = mNodes[std::size_t(stack[--top])];
            double const d[3] = {n.centre[0] - p[0], n.centre[1] - p[1], n.centre[2] - p[2]};
            double const r2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
            if (n.left < 0) {
                for (int q = n.first; q < n.first + n.count; ++q)
                    w += solidAngle(mTris[std::size_t(mOrder[std::size_t(q)])], p);
                continue;
            }
            if (r2 > kBeta * kBeta * n.radius * n.radius) {
                double const r = std::sqrt(r2);
                w += (n.area[0] * d[0] + n.area[1] * d[1] + n.area[2] * d[2]) / (r2 * r);
                continue;
            }
            stack[top++] = n.left;
            stack[top++] = n.right;
        }
        return w / (4.0 * M_PI);
    }

    static double solidAngle(std::array<double, 9> const& t, double const p[3])
    {
        double a[3], b[3], c[3];
        for (int k = 0; k < 3; ++k)
            a[k] = t[k] - p[k], b[k] = t[3 + k] - p[k], c[k] = t[6 + k] - p[k];
        double const la = std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
        double const lb = std::sqrt(b[0] * b[0] + b[1] * b[1] + b[2] * b[2]);
        double const lc = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
        double const det = a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0]) +
                           a[2] * (b[0] * c[1] - b[1] * c[0]);
        double const ab = a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
        double const bc = b[0] * c[0] + b[1] * c[1] + b[2] * c[2];
        double const ca = c[0] * a[0] + c[1] * a[1] + c[2] * a[2];
        return 2.0 * std::atan2(det, la * lb * lc + ab * lc + bc * la + ca * lb);
    }

private:
    struct Node {
        double centre[3] = {0, 0, 0};
        double area[3] = {0, 0, 0}; ///< sum of half cross products (area-weighted normal)
        double radius = 0.0;
        int first = 0, count = 0, left = -1, right = -1;
    };

    int build(int first, int count)
    {
        int const index = int(mNodes.size());
        mNodes.emplace_back();
        double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
        double area = 0.0, centre[3] = {0, 0, 0}, normal[3] = {0, 0, 0};
        for (int q = first; q < first + count; ++q) {
            auto const& t = mTris[std::size_t(mOrder[std::size_t(q)])];
            double e1[3], e2[3];
            for (int k = 0; k < 3; ++k)
                e1[k] = t[3 + k] - t[k], e2[k] = t[6 + k] - t[k];
            double const n[3] = {0.5 * (e1[1] * e2[2] - e1[2] * e2[1]),
                                 0.5 * (e1[2] * e2[0] - e1[0] * e2[2]),
                                 0.5 * (e1[0] * e2[1] - e1[1] * e2[0])};
            double const a = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
            for (int k = 0; k < 3; ++k) {
                normal[k] += n[k];
                double const mid = (t[k] + t[3 + k] + t[6 + k]) / 3.0;
                centre[k] += a * mid;
                lo[k] = std::min(lo[k], mid);
                hi[k] = std::max(hi[k], mid);
            }
            area += a;
        }
        Node n;
        for (int k = 0; k < 3; ++k) {
            n.area[k] = normal[k];
            n.centre[k] = area > 0.0 ? centre[k] / area : 0.5 * (lo[k] + hi[k]);
        }
        for (int q = first; q < first + count; ++q) {
            auto const& t = mTris[std::size_t(mOrder[std::size_t(q)])];
            for (int c = 0; c < 3; ++c) {
                double const d[3] = {t[3 * c] - n.centre[0], t[3 * c + 1] - n.centre[1],
                                     t[3 * c + 2] - n.centre[2]};
                n.radius = std::max(n.radius, std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]));
            }
        }
        n.first = first;
        n.count = count;
        if (count > 8) {
            int axis = 0;
            for (int k = 1; k < 3; ++k)
                if (hi[k] - lo[k] > hi[axis] - lo[axis])
                    axis = k;
            int const half = count / 2;
            auto key = [&](int id) {
                auto const& t = mTris[std::size_t(id)];
                return t[axis] + t[3 + axis] + t[6 + axis];
            };
            std::nth_element(mOrder.begin() + first, mOrder.begin() + first + half,
                             mOrder.begin() + first + count,
                             [&](int x, int y) { return key(x) < key(y); });
            n.left = build(first, half);
            n.right = build(first + half, count - half);
        }
        mNodes[std::size_t(index)] = n;
        return index;
    }

    std::vector<std::array<double, 9>> mTris;
    std::vector<int> mOrder;
    std::vector<Node> mNodes;
};

} // namespace testmeshes
