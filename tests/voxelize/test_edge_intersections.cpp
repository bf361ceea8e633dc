// Tests of the exact grid-edge crossings: the parity of crossings along grid lines against the
// generalized winding number (solid angles in long double) on closed meshes, lines through
// shared vertices and along shared edges, the 32-bit and 128-bit paths, and the clamp of the
// fixed-point grid.
#include "support/meshes.h"
#include "support/typed_traits.h"
#include <array>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <hexmold/substrate/container.h>
#include <hexmold/voxelize/mesh/edge_intersections.h>
#include <limits>
#include <map>
#include <random>
#include <tuple>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
using testmeshes::Real;
using testmeshes::TriangleMesh;

namespace {

/// Generalized winding number of a closed mesh at p: the sum of the triangles' solid angles
/// (Van Oosterom & Strackee), over 4 pi.
Real windingNumber(TriangleMesh const& m, Real const p[3])
{
    Real total = 0;
    for (auto const& t : m.triangles) {
        Real v[3][3];
        for (int k = 0; k < 3; ++k) {
            float3 const& q = m.positions[k == 0 ? t.x : (k == 1 ? t.y : t.z)];
            v[k][0] = q.x - p[0], v[k][1] = q.y - p[1], v[k][2] = q.z - p[2];
        }
        Real const la = std::sqrt(v[0][0] * v[0][0] + v[0][1] * v[0][1] + v[0][2] * v[0][2]);
        Real const lb = std::sqrt(v[1][0] * v[1][0] + v[1][1] * v[1][1] + v[1][2] * v[1][2]);
        Real const lc = std::sqrt(v[2][0] * v[2][0] + v[2][1] * v[2][1] + v[2][2] * v[2][2]);
        Real const det = v[0][0] * (v[1][1] * v[2][2] - v[1][2] * v[2][1]) -
                         v[0][1] * (v[1][0] * v[2][2] - v[1][2] * v[2][0]) +
                         v[0][2] * (v[1][0] * v[2][1] - v[1][1] * v[2][0]);
        auto dot = [&](int i, int j) {
            return v[i][0] * v[j][0] + v[i][1] * v[j][1] + v[i][2] * v[j][2];
        };
        Real const den = la * lb * lc + dot(0, 1) * lc + dot(1, 2) * la + dot(2, 0) * lb;
        total += 2 * std::atan2(det, den);
    }
    return total / (4 * 3.14159265358979323846264338327950288L);
}

/// Counts every triangle's crossings in a block of finest tiles covering [lo, hi) tiles per
/// axis, then walks each grid line along each axis from outside and compares the parity with
/// the winding number at every sample farther than @p skip world units from the surface.
template <typename Tr>
void expectParityMatchesWindingNumber(TriangleMesh const& m, float h, int lo, int hi, float skip)
{
    constexpr int W = Tr::kTileWidth;
    constexpr int kMax = Tr::kMaxDepth;
    Container<Tr> container("tree", h);
    float3 const offset{0.5f, 0.5f, 0.5f};
    FixedPointCoords const coords = makeFixedPointCoords<Tr>(container, m.positions, offset);
    int const n = (hi - lo) * W; // samples per axis
    std::vector<int3> counts(std::size_t(n) * n * n, int3{0, 0, 0});
    auto at = [&](int x, int y, int z) -> int3& {
        return counts[std::size_t(x) + std::size_t(n) * (std::size_t(y) + std::size_t(n) * z)];
    };
    for (int tz = lo; tz < hi; ++tz)
        for (int ty = lo; ty < hi; ++ty)
            for (int tx = lo; tx < hi; ++tx) {
                TileData<int3, W, 0, 0> tile(W * W * W, int3{0, 0, 0});
                int3 const corner{tx * W, ty * W, tz * W};
                for (auto const& t : m.triangles)
                    countEdgeIntersections<Tr>(t, coords, corner, kMax, tile);
                for (int z = 0; z < W; ++z)
                    for (int y = 0; y < W; ++y)
                        for (int x = 0; x < W; ++x)
                            at((tx - lo) * W + x, (ty - lo) * W + y, (tz - lo) * W + z) =
                                tile(x, y, z);
            }
    testmeshes::BruteForce const brute(m);
    int checked = 0, mismatches = 0, near = 0;
    for (int a = 0; a < 3; ++a) {
        int const b = (a + 1) % 3, c = (a + 2) % 3;
        for (int jc = 0; jc < n; ++jc)
            for (int jb = 0; jb < n; ++jb) {
                bool inside = false; // the first sample of every line lies outside the mesh
                for (int i = 0; i < n; ++i) {
                    int idx[3];
                    idx[a] = i, idx[b] = jb, idx[c] = jc;
                    if (i > 0) {
                        int prev[3] = {idx[0], idx[1], idx[2]};
                        prev[a] = i - 1;
                        if (at(prev[0], prev[1], prev[2])[a] % 2 != 0)
                            inside = !inside;
                    }
                    float3 const p{(lo * W + idx[0] + 0.5f) * h, (lo * W + idx[1] + 0.5f) * h,
                                   (lo * W + idx[2] + 0.5f) * h};
                    if (brute(p).first <= skip) {
                        ++near;
                        continue;
                    }
                    Real const q[3] = {p.x, p.y, p.z};
                    bool const truth = std::abs(windingNumber(m, q)) > 0.5L;
                    ++checked;
                    if (truth != inside && ++mismatches <= 5)
                        ADD_FAILURE()
                            << "axis " << a << " sample " << idx[0] << "," << idx[1] << ","
                            << idx[2] << ": parity says " << inside << ", winding number " << truth;
                }
            }
    }
    std::printf("[          ] %d samples checked on three axes, %d on the surface skipped\n",
                checked, near);
    EXPECT_GT(checked, 100);
    EXPECT_EQ(mismatches, 0);
}

} // namespace

template <typename Tr> class EdgeIntersections : public ::testing::Test {
};
TYPED_TEST_SUITE(EdgeIntersections, testtraits::TraitsTypes, testtraits::TraitsNames);

// An icosphere in general position: the parity along every grid line, on all three axes, gives
// the inside the winding number gives.
TYPED_TEST(EdgeIntersections, IcosphereParityMatchesWindingNumber)
{
    float const h = 0.1f;
    TriangleMesh const m = testmeshes::icosphere({0.013f, -0.021f, 0.007f}, 0.9, 2);
    expectParityMatchesWindingNumber<TypeParam>(m, h, -3, 3, 0.0f);
}

// A box whose vertices and edges lie exactly on sample lines: lines through shared vertices and
// along shared edges cross exactly one of the triangles that share them, so the parity stays
// right (samples on the faces are skipped: they are neither inside nor outside).
TYPED_TEST(EdgeIntersections, LinesThroughSharedVerticesAndEdgesCountOnce)
{
    float const h = 0.125f;
    // Vertices at sample positions (n + 0.5) h.
    TriangleMesh const m =
        testmeshes::box({-4.5f * h, -3.5f * h, -2.5f * h}, {3.5f * h, 4.5f * h, 5.5f * h});
    expectParityMatchesWindingNumber<TypeParam>(m, h, -2, 2, 1e-6f);
}

// A fan: an octahedron with its vertices on sample lines, every line through a vertex shared by
// four triangles.
TYPED_TEST(EdgeIntersections, LineThroughAFanVertexCountsOnce)
{
    float const h = 0.125f;
    TriangleMesh m;
    float const r = 6 * h, o = 0.5f * h;
    m.positions = {{o + r, o, o}, {o - r, o, o}, {o, o + r, o},
                   {o, o - r, o}, {o, o, o + r}, {o, o, o - r}};
    m.triangles = {{0, 2, 4}, {2, 1, 4}, {1, 3, 4}, {3, 0, 4},
                   {2, 0, 5}, {1, 2, 5}, {3, 1, 5}, {0, 3, 5}};
    expectParityMatchesWindingNumber<TypeParam>(m, h, -3, 3, 1e-6f);
}

// The line test against a long-double reference for triangles and points in general position,
// both with small coordinates (the 32-bit path) and with triangles spanning more than 2^20 units
// (the 128-bit path).
TEST(EdgeIntersections, LineTestMatchesReferenceOnBothPaths)
{
    std::mt19937_64 rng(99);
    for (std::int64_t span : {std::int64_t(1) << 12, std::int64_t(1) << 30}) {
        std::uniform_int_distribution<std::int64_t> coord(-span, span);
        std::int64_t const base = std::int64_t(1) << 38;
        int hits = 0;
        for (int n = 0; n < 20000; ++n) {
            std::array<std::int64_t, 3> v[3];
            for (auto& p : v)
                p = {base + coord(rng), base + coord(rng), base + coord(rng)};
            int const a = n % 3, b = (a + 1) % 3, c = (a + 2) % 3;
            std::int64_t const pb = base + coord(rng), pc = base + coord(rng);
            double hit = 0.0;
            int const got = lineCrossesTriangle(a, pb, pc, v[0], v[1], v[2], hit);
            // Reference: barycentric weights of the point in the (b, c) plane, long double.
            Real const w0 =
                Real(v[1][b] - pb) * Real(v[2][c] - pc) - Real(v[2][b] - pb) * Real(v[1][c] - pc);
            Real const w1 =
                Real(v[2][b] - pb) * Real(v[0][c] - pc) - Real(v[0][b] - pb) * Real(v[2][c] - pc);
            Real const w2 =
                Real(v[0][b] - pb) * Real(v[1][c] - pc) - Real(v[1][b] - pb) * Real(v[0][c] - pc);
            if (w0 == 0 || w1 == 0 || w2 == 0)
                continue; // not general position
            int const want =
                (w0 > 0 && w1 > 0 && w2 > 0) ? 1 : ((w0 < 0 && w1 < 0 && w2 < 0) ? -1 : 0);
            ASSERT_EQ(got, want) << "case " << n;
            if (want != 0) {
                ++hits;
                Real const ref = (w0 * v[0][a] + w1 * v[1][a] + w2 * v[2][a]) / (w0 + w1 + w2);
                ASSERT_NEAR(hit, double(ref), 1e-9 * std::abs(double(ref)) + 1.0);
            }
        }
        EXPECT_GT(hits, 1000);
    }
}

// Coordinates beyond the fixed-point range collapse to the clamp and stay finite.
TYPED_TEST(EdgeIntersections, CoordinatesBeyondTheClampCollapseToIt)
{
    using Tr = TypeParam;
    Container<Tr> container("tree", 1e-6f);
    Quillon::Array<float3> const positions = {{1e30f, -1e30f, 0.0f},
                                              {std::numeric_limits<float>::quiet_NaN(), 0, 0}};
    FixedPointCoords const coords =
        makeFixedPointCoords<Tr>(container, positions, float3{0.5f, 0.5f, 0.5f});
    EXPECT_EQ(coords.points[0][0], kFixedPointLimit);
    EXPECT_EQ(coords.points[0][1], -kFixedPointLimit);
    EXPECT_EQ(coords.points[0][2], (Tr::kCentreOffset)*kFixedPointScale);
    EXPECT_EQ(coords.points[1][0], -kFixedPointLimit);
    ASSERT_EQ(coords.widths.size(), std::size_t(Tr::kDepthCount));
    EXPECT_EQ(coords.widths[Tr::kMaxDepth], kFixedPointScale);
    for (std::int64_t w : coords.widths)
        EXPECT_LE(w, kFixedPointLimit);
    // A triangle at the clamp crosses nothing near the origin and does not overflow.
    TileData<int3, Tr::kTileWidth, 0, 0> tile(Tr::kTileSize, int3{0, 0, 0});
    EXPECT_EQ(countEdgeIntersections<Tr>(Tavrel::Math::ulong3{0, 0, 1}, coords, int3{0, 0, 0},
                                         Tr::kMaxDepth, tile),
              0);
}

// A tile's crossing counts agree with the line test line by line, for small triangles inside the
// tile whose vertices and edges lie on its sample lines (zero determinants, decided by the
// simulation of simplicity) or off them, both orientations: every crossing the line test reports
// is counted once on its line, and nothing else is.
TYPED_TEST(EdgeIntersections, TileCountsMatchTheLineTestLineByLine)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    constexpr int kMax = Tr::kMaxDepth;
    FixedPointCoords coords;
    coords.widths.assign(std::size_t(Tr::kDepthCount), kFixedPointScale);
    int3 const corner{0, 0, 0};
    std::int64_t origin[3];
    for (int ax = 0; ax < 3; ++ax)
        origin[ax] = std::int64_t(Tr::kCentreOffset) * kFixedPointScale + coords.sampleOffset[ax];
    std::mt19937_64 rng(7);
    // Along each axis a coordinate strictly after the first sample and not after the last: on
    // a sample, half-way, or anywhere.
    std::uniform_int_distribution<std::int64_t> sample(1, W - 1), anywhere(1, (W - 1) * 1024);
    auto coordinate = [&](int ax, int kind) {
        switch (kind % 3) {
        case 0:
            return origin[ax] + sample(rng) * kFixedPointScale;
        case 1:
            return origin[ax] + sample(rng) * kFixedPointScale - kFixedPointScale / 2;
        default:
            return origin[ax] + anywhere(rng) * (kFixedPointScale / 1024);
        }
    };
    int crossings = 0;
    for (int n = 0; n < 3000; ++n) {
        coords.points.clear();
        for (int v = 0; v < 3; ++v)
            coords.points.push_back(
                {coordinate(0, n + v), coordinate(1, n / 3 + v), coordinate(2, n / 9 + 2 * v)});
        TileData<int3, W, 0, 0> tile(Tr::kTileSize, int3{0, 0, 0});
        int const counted =
            countEdgeIntersections<Tr>(Tavrel::Math::ulong3{0, 1, 2}, coords, corner, kMax, tile);
        int total = 0;
        for (int a = 0; a < 3; ++a) {
            int const b = (a + 1) % 3, c = (a + 2) % 3;
            for (int jc = 0; jc < W; ++jc)
                for (int jb = 0; jb < W; ++jb) {
                    double hit = 0.0;
                    int const want =
                        lineCrossesTriangle(a, origin[b] + jb * kFixedPointScale,
                                            origin[c] + jc * kFixedPointScale, coords.points[0],
                                            coords.points[1], coords.points[2], hit) != 0;
                    int got = 0;
                    for (int i = 0; i < W; ++i) {
                        int idx[3];
                        idx[a] = i, idx[b] = jb, idx[c] = jc;
                        got += tile(idx[0], idx[1], idx[2])[a];
                    }
                    ASSERT_EQ(got, want)
                        << "case " << n << " axis " << a << " line " << jb << "," << jc;
                    total += want;
                }
        }
        EXPECT_EQ(counted, total) << "case " << n;
        crossings += total;
    }
    EXPECT_GT(crossings, 1000);
}
