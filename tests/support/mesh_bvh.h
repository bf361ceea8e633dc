// Exact distance to a triangle mesh through a bounding volume hierarchy: the same long-double
// point-triangle distance as `BruteForce`, visiting boxes nearest first and stopping when no box
// can beat the best, so that large meshes (the armadillo) can be checked voxel by voxel.
#pragma once
#include "support/meshes.h"
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <utility>
#include <vector>

namespace testmeshes {

class MeshBvh {
public:
    explicit MeshBvh(TriangleMesh const& m) : mMesh(&m)
    {
        mOrder.resize(m.triangles.size());
        std::iota(mOrder.begin(), mOrder.end(), 0);
        mBoxes.resize(m.triangles.size());
        for (std::size_t t = 0; t < m.triangles.size(); ++t) {
            auto const& tri = m.triangles[t];
            float3 const& a = m.positions[tri.x];
            float3 const& b = m.positions[tri.y];
            float3 const& c = m.positions[tri.z];
            for (int k = 0; k < 3; ++k) {
                mBoxes[t][k] = std::min({a[k], b[k], c[k]});
                mBoxes[t][3 + k] = std::max({a[k], b[k], c[k]});
            }
        }
        if (!mOrder.empty())
            build(0, int(mOrder.size()));
    }

    /// Distance from @p p to the mesh (long double, returned as double). With a @p limit, only
    /// distances up to it are exact: a point farther than that gets some value above the limit,
    /// found without visiting the far triangles.
    double operator()(float3 const& p, double limit = std::numeric_limits<double>::infinity()) const
    {
        if (mNodes.empty())
            return std::numeric_limits<double>::infinity();
        Real best = std::isfinite(limit) ? Real(limit) * (1.0L + 1e-6L) + Real(1e-30)
                                         : std::numeric_limits<Real>::infinity();
        std::vector<std::pair<double, int>> stack;
        stack.reserve(64);
        stack.push_back({boxDistance(mNodes[0].box, p), 0});
        while (!stack.empty()) {
            auto const [d, index] = stack.back();
            stack.pop_back();
            if (Real(d) > best * (1.0L + 1e-12L))
                continue;
            Node const& n = mNodes[std::size_t(index)];
            if (n.left < 0) {
                for (int q = n.first; q < n.first + n.count; ++q) {
                    auto const& tri = mMesh->triangles[std::size_t(mOrder[std::size_t(q)])];
                    best = std::min(best, triangleDistance(p, mMesh->positions[tri.x],
                                                           mMesh->positions[tri.y],
                                                           mMesh->positions[tri.z]));
                }
                continue;
            }
            double const dl = boxDistance(mNodes[std::size_t(n.left)].box, p);
            double const dr = boxDistance(mNodes[std::size_t(n.right)].box, p);
            // Nearer child on top.
            if (dl < dr) {
                stack.push_back({dr, n.right});
                stack.push_back({dl, n.left});
            } else {
                stack.push_back({dl, n.left});
                stack.push_back({dr, n.right});
            }
        }
        return double(best);
    }

private:
    struct Node {
        std::array<float, 6> box;
        int first = 0, count = 0, left = -1, right = -1;
    };

    static double boxDistance(std::array<float, 6> const& b, float3 const& p)
    {
        double s = 0.0;
        for (int k = 0; k < 3; ++k) {
            double const d =
                std::max({double(b[k]) - double(p[k]), 0.0, double(p[k]) - double(b[3 + k])});
            s += d * d;
        }
        // A hair below, so that rounding never prunes the box holding the nearest triangle.
        return std::sqrt(s) * (1.0 - 1e-9);
    }

    int build(int first, int count)
    {
        int const index = int(mNodes.size());
        mNodes.emplace_back();
        Node n;
        n.box = {1e30f, 1e30f, 1e30f, -1e30f, -1e30f, -1e30f};
        for (int q = first; q < first + count; ++q) {
            auto const& b = mBoxes[std::size_t(mOrder[std::size_t(q)])];
            for (int k = 0; k < 3; ++k) {
                n.box[k] = std::min(n.box[k], b[k]);
                n.box[3 + k] = std::max(n.box[3 + k], b[3 + k]);
            }
        }
        n.first = first;
        n.count = count;
        if (count > 8) {
            int axis = 0;
            for (int k = 1; k < 3; ++k)
                if (n.box[3 + k] - n.box[k] > n.box[3 + axis] - n.box[axis])
                    axis = k;
            int const half = count / 2;
            std::nth_element(
                mOrder.begin() + first, mOrder.begin() + first + half,
                mOrder.begin() + first + count, [&](int x, int y) {
                    return mBoxes[std::size_t(x)][axis] + mBoxes[std::size_t(x)][3 + axis] <
                           mBoxes[std::size_t(y)][axis] + mBoxes[std::size_t(y)][3 + axis];
                });
            n.left = build(first, half);
            n.right = build(first + half, count - half);
        }
        mNodes[std::size_t(index)] = n;
        return index;
    }

    TriangleMesh const* mMesh;
    std::vector<int> mOrder;
    std::vector<std::array<float, 6>> mBoxes;
    std::vector<Node> mNodes;
};

} // namespace testmeshes
