// Exact distance to a triangle soup for benchmark accuracy figures: triangles bucketed in a
// uniform grid by their boxes, searched ring by ring around the query until no farther ring can
// hold anything nearer; distances in double precision (pointTriangleBC's double form).
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <unordered_map>
#include <vector>

namespace benchdistance {

class ExactDistance {
public:
    ExactDistance(Quillon::Array<Tavrel::Math::float3> const& positions,
                  Quillon::Array<Tavrel::Math::ulong3> const& triangles)
        : mPositions(&positions), mTriangles(&triangles)
    {
        double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300}, edge = 0.0;
        for (auto const& t : triangles) {
            auto const &a = positions[t.x], &b = positions[t.y];
            edge += std::sqrt(double((a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y) +
                                     (a.z - b.z) * (a.z - b.z)));
        }
        for (auto const& p : positions)
            for (int k = 0; k < 3; ++k)
                lo[k] = std::min(lo[k], double(p[k])), hi[k] = std::max(hi[k], double(p[k]));
        mCell = std::max(2.0 * edge / double(std::max<std::size_t>(1, triangles.size())), 1e-9);
        for (int k = 0; k < 3; ++k)
            mOrigin[k] = lo[k];
        for (std::size_t q = 0; q < triangles.size(); ++q) {
            auto const& t = triangles[q];
            std::int64_t cl[3], ch[3];
            for (int k = 0; k < 3; ++k) {
                double const mn =
                    std::min({positions[t.x][k], positions[t.y][k], positions[t.z][k]});
                double const mx =
                    std::max({positions[t.x][k], positions[t.y][k], positions[t.z][k]});
                cl[k] = cellOf(mn, k);
                ch[k] = cellOf(mx, k);
            }
            for (std::int64_t z = cl[2]; z <= ch[2]; ++z)
                for (std::int64_t y = cl[1]; y <= ch[1]; ++y)
                    for (std::int64_t x = cl[0]; x <= ch[0]; ++x)
                        mCells[key(x, y, z)].push_back(std::uint32_t(q));
        }
        for (int k = 0; k < 3; ++k)
            mExtent = std::max<std::int64_t>(mExtent, cellOf(hi[k], k) + 2);
    }

    double operator()(Tavrel::Math::float3 const& p) const
    {
        std::int64_t const c[3] = {cellOf(p.x, 0), cellOf(p.y, 1), cellOf(p.z, 2)};
        double best = 1e300;
        Tavrel::Math::double3 const pd{p.x, p.y, p.z};
        for (std::int64_t r = 0;; ++r) {
            for (std::int64_t z = c[2] - r; z <= c[2] + r; ++z)
                for (std::int64_t y = c[1] - r; y <= c[1] + r; ++y)
                    for (std::int64_t x = c[0] - r; x <= c[0] + r; ++x) {
                        if (std::max(
                                {std::abs(x - c[0]), std::abs(y - c[1]), std::abs(z - c[2])}) != r)
                            continue;
                        auto const it = mCells.find(key(x, y, z));
                        if (it == mCells.end())
                            continue;
                        for (std::uint32_t q : it->second) {
                            auto const& t = (*mTriangles)[q];
                            auto d3 = [&](std::uint64_t i) {
                                auto const& v = (*mPositions)[i];
                                return Tavrel::Math::double3{v.x, v.y, v.z};
                            };
                            Tavrel::Math::double3 bc;
                            best = std::min(best, Tavrel::SpatialQuery::pointTriangleBC(
                                                      pd, d3(t.x), d3(t.y), d3(t.z), bc));
                        }
                    }
            // Everything within (r - 1) cells is examined.
            if (best <= double(r - 1) * mCell ||
                r > mExtent + std::abs(c[0]) + std::abs(c[1]) + std::abs(c[2]))
                return best;
        }
    }

private:
    std::int64_t cellOf(double x, int k) const
    {
        return std::int64_t(std::floor((x - mOrigin[k]) / mCell));
    }
    static std::uint64_t key(std::int64_t x, std::int64_t y, std::int64_t z)
    {
        return (std::uint64_t(x + (1 << 20)) << 42) ^ (std::uint64_t(y + (1 << 20)) << 21) ^
               std::uint64_t(z + (1 << 20));
    }
    Quillon::Array<Tavrel::Math::float3> const* mPositions;
    Quillon::Array<Tavrel::Math::ulong3> const* mTriangles;
    double mCell = 1.0, mOrigin[3] = {0, 0, 0};
    std::int64_t mExtent = 0;
    std::unordered_map<std::uint64_t, std::vector<std::uint32_t>> mCells;
};

} // namespace benchdistance
