/// @file  levelset/detail/zero_crossing.h
/// @brief The zero-crossing test of the redistancing: which voxels of a tile hold the surface and
///        so start the sweeps as known values.
/// @details One test for every caller (the adaptive sweep's reset, the value types of resize),
///          so that a voxel is known or unknown the same way whichever operation asks.
#pragma once
#include <cmath>

namespace VolumeGL::TileTree3D::LevelSet::detail {

/// Steps to the seven voxels above a voxel: +x, +y, +z and the diagonals between them.
inline constexpr int kUpNeighbours[7][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 0},
                                            {1, 0, 1}, {0, 1, 1}, {1, 1, 1}};

/// Every face neighbour takes part in the sign test (a volume without a mask).
struct EveryNeighbour {
    constexpr bool operator()(int, int, int) const { return true; }
};

/// @brief Whether voxel (i, j, k) of a tile lies on the zero crossing, read on a copy of the tile
///        with a rim of one voxel (indices -1 to W on each axis).
/// @details First test: a face neighbour, in the order +x, -x, +y, -y, +z, -z, whose sign under
///          0 > value differs from the voxel's; a neighbour for which @p counts(a, b, c) is false
///          is passed over. Second test, only for a voxel within @p nearZero of zero: some voxel
///          of the 3 x 3 x 3 block around it, k outer, then j, i inner, changes sign towards one
///          of its seven neighbours above (`kUpNeighbours`) whose own magnitude is within
///          @p nearZero. A surface running through values at zero may cross between diagonal
///          neighbours only, with every face pair on one side; the diagonals catch it.
///          Neighbours beyond the rim are not read.
/// @tparam W                 voxels across the tile
/// @tparam kRimCornersFilled whether the copy's rim corners (outside the tile on all three axes)
///                           hold values; when false they are never read
/// @param halo      the tile's values with their rim, indexed (i, j, k)
/// @param nearZero  0.001 h, h the voxel spacing of the tile's depth (world units)
/// @param counts    counts(a, b, c): whether the face neighbour at rim index (a, b, c) takes part
template <int W, bool kRimCornersFilled, typename Halo, typename Counts>
inline bool onZeroCrossing(Halo const& halo, int i, int j, int k, float nearZero,
                           Counts const& counts)
{
    static constexpr int kFaces[6][3] = {{1, 0, 0},  {-1, 0, 0}, {0, 1, 0},
                                         {0, -1, 0}, {0, 0, 1},  {0, 0, -1}};
    auto rimCorner = [](int a, int b, int c) {
        return !kRimCornersFilled && (a < 0 || a >= W) && (b < 0 || b >= W) && (c < 0 || c >= W);
    };
    float const v = halo(i, j, k);
    bool const inside = 0.0f > v;
    for (auto const& d : kFaces) {
        int const a = i + d[0], b = j + d[1], c = k + d[2];
        if (!counts(a, b, c))
            continue;
        if ((0.0f > halo(a, b, c)) != inside)
            return true;
    }
    if (!(std::fabs(v) <= nearZero))
        return false;
    for (int c = k - 1; c <= k + 1; ++c)
        for (int b = j - 1; b <= j + 1; ++b)
            for (int a = i - 1; a <= i + 1; ++a) {
                if (rimCorner(a, b, c))
                    continue;
                bool const qInside = 0.0f > halo(a, b, c);
                for (auto const& u : kUpNeighbours) {
                    int const x = a + u[0], y = b + u[1], z = c + u[2];
                    if (x > W || y > W || z > W || rimCorner(x, y, z))
                        continue;
                    float const n = halo(x, y, z);
                    if ((0.0f > n) != qInside && std::fabs(n) <= nearZero)
                        return true;
                }
            }
    return false;
}

} // namespace VolumeGL::TileTree3D::LevelSet::detail
