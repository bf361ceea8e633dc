// Tests of the lattice kernel's SIMD instances (distance batch and node test): every instruction
// set the processor runs gives the same bits as the scalar code, point by point and on whole
// lattices.
#include "support/kernel_context.h"
#include "support/meshes.h"
#include "support/typed_traits.h"
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <hexmold/voxelize/mesh/detail/lattice_kernel.h>
#include <hexmold/voxelize/mesh/detail/triangle_batch.h>
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
using testmeshes::TriangleMesh;
namespace lattice = VolumeGL::TileTree3D::detail;
using lattice::PreparedTriangle;
using lattice::TriangleBatchIsa;

namespace {

std::uint32_t bits(float v)
{
    std::uint32_t b;
    std::memcpy(&b, &v, sizeof b);
    return b;
}

constexpr TriangleBatchIsa kIsas[] = {TriangleBatchIsa::kPortable, TriangleBatchIsa::kSse2,
                                      TriangleBatchIsa::kAvx2, TriangleBatchIsa::kAvx512};

char const* isaName(TriangleBatchIsa isa)
{
    switch (isa) {
    case TriangleBatchIsa::kBest:
        return "Best";
    case TriangleBatchIsa::kPortable:
        return "Portable";
    case TriangleBatchIsa::kSse2:
        return "Sse2";
    case TriangleBatchIsa::kAvx2:
        return "Avx2";
    case TriangleBatchIsa::kAvx512:
        return "Avx512";
    }
    return "Unknown";
}

/// The distance batch of one instruction set; skipped, with the reason, where this build has no
/// instance for it or the processor does not run it.
class TriangleDistanceBatchOnIsa : public ::testing::TestWithParam<TriangleBatchIsa> {
protected:
    void SetUp() override
    {
        if (!lattice::triangleBatchIsaAvailable(GetParam()))
            GTEST_SKIP() << "no " << isaName(GetParam())
                         << " instance: the build was not given the instruction set, or the "
                            "processor lacks it";
    }
};

/// A random triangle, every fifth kind degenerate (collinear, needle, repeated vertices, a point)
/// or not finite.
void randomTriangle(std::mt19937& rng, int kind, float3& a, float3& b, float3& c)
{
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    auto point = [&](float s) { return float3{s * unit(rng), s * unit(rng), s * unit(rng)}; };
    a = point(2.0f), b = point(2.0f), c = point(2.0f);
    switch (kind % 10) {
    case 1:
        c = {a.x + 0.5f * (b.x - a.x), a.y + 0.5f * (b.y - a.y), a.z + 0.5f * (b.z - a.z)};
        break;
    case 2:
        c = {a.x + 1e-6f * unit(rng), a.y + 1e-6f * unit(rng), a.z + 1e-6f * unit(rng)};
        break;
    case 3:
        b = a;
        break;
    case 4:
        b = a, c = a;
        break;
    case 5:
        c.y = std::numeric_limits<float>::quiet_NaN();
        break;
    case 6:
        b.x = std::numeric_limits<float>::infinity();
        break;
    case 7: // large and flat: most points fall in the face case
        a = point(100.0f), b = point(100.0f), c = point(100.0f);
        a.z = b.z = c.z = 0.25f;
        break;
    default:
        break;
    }
}

} // namespace

// Random triangles against batches of 1 to 40 random points (some on the triangle's vertices and
// edges, some far, a few not finite): each instance's floats equal the scalar ones bit for bit.
TEST_P(TriangleDistanceBatchOnIsa, SameBitsAsTheScalarDistance)
{
    auto const batch = lattice::triangleBatchFunction(GetParam());
    std::mt19937 rng(31);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f), u01(0.0f, 1.0f);
    constexpr int kMaxPoints = 40;
    constexpr int kRoom = kMaxPoints + lattice::kTriangleBatchPad;
    std::vector<float> x(kRoom), y(kRoom), z(kRoom);
    std::vector<float> out(kRoom);
    std::vector<float3> points(kMaxPoints);
    for (int round = 0; round < 20000; ++round) {
        float3 a, b, c;
        randomTriangle(rng, round, a, b, c);
        PreparedTriangle t;
        t.prepare(a, b, c);
        int const count = 1 + round % kMaxPoints;
        for (int q = 0; q < count; ++q) {
            float3 p;
            switch (q % 7) {
            case 0:
                p = a;
                break;
            case 1: { // on the edge ab
                float const s = u01(rng);
                p = {a.x + s * (b.x - a.x), a.y + s * (b.y - a.y), a.z + s * (b.z - a.z)};
                break;
            }
            case 2:
                p = {1e4f * unit(rng), 1e4f * unit(rng), 1e4f * unit(rng)};
                break;
            case 3:
                p = {unit(rng), unit(rng), round % 13 == 0 ? std::nanf("") : unit(rng)};
                break;
            default:
                p = {4.0f * unit(rng), 4.0f * unit(rng), 4.0f * unit(rng)};
                break;
            }
            points[std::size_t(q)] = p;
            x[std::size_t(q)] = p.x, y[std::size_t(q)] = p.y, z[std::size_t(q)] = p.z;
        }
        for (int q = count; q < kRoom; ++q)
            x[std::size_t(q)] = y[std::size_t(q)] = z[std::size_t(q)] = 0.0f;
        batch(t, x.data(), y.data(), z.data(), count, out.data());
        for (int q = 0; q < count; ++q) {
            float const expected = t.distance2(points[std::size_t(q)]);
            ASSERT_EQ(bits(out[std::size_t(q)]), bits(expected))
                << "round " << round << " point " << q << ": " << out[std::size_t(q)] << " vs "
                << expected;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Isas, TriangleDistanceBatchOnIsa, ::testing::ValuesIn(kIsas),
                         [](auto const& info) { return std::string(isaName(info.param)); });

// ---- the lattice minimum
// -------------------------------------------------------------------------

// Random triangles offered to 1 to 40 nodes with random bests (some equal to the node's distance,
// so that the tie rule decides, some far, a few not finite): each instance leaves every node with
// what the scalar rule gives, the smaller distance and on a tie the smaller id. The bounds that
// skip a register must never skip an improvement.
TEST_P(TriangleDistanceBatchOnIsa, LatticeMinimumKeepsTheSmallerDistanceAndId)
{
    auto const offer = lattice::latticeMinFunction(GetParam());
    std::mt19937 rng(47);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f), u01(0.0f, 1.0f);
    std::uniform_int_distribution<std::int64_t> someId(0, 40);
    constexpr int kMaxNodes = 40;
    constexpr int kRoom = kMaxNodes + lattice::kTriangleBatchPad;
    std::vector<float> x(kRoom), y(kRoom), z(kRoom), best(kRoom), expectedBest(kMaxNodes);
    std::vector<std::int64_t> id(kRoom), expectedId(kMaxNodes);
    int improved = 0, ties = 0;
    for (int round = 0; round < 20000; ++round) {
        float3 a, b, c;
        randomTriangle(rng, round, a, b, c);
        PreparedTriangle t;
        t.prepare(a, b, c);
        TriangleBounds const tb = lattice::makeTriangleBounds(a, b, c);
        std::int64_t const tid = 20;
        int const count = 1 + round % kMaxNodes;
        for (int q = 0; q < count; ++q) {
            float3 p;
            switch (q % 5) {
            case 0: { // on the edge ab
                float const s = u01(rng);
                p = {a.x + s * (b.x - a.x), a.y + s * (b.y - a.y), a.z + s * (b.z - a.z)};
                break;
            }
            case 1:
                p = {1e3f * unit(rng), 1e3f * unit(rng), round % 17 == 0 ? std::nanf("") : 0.5f};
                break;
            default:
                p = {2.0f * unit(rng), 2.0f * unit(rng), 2.0f * unit(rng)};
                break;
            }
            float const d = t.distance2(p);
            float b2;
            switch (q % 4) {
            case 0:
                b2 = d; // a tie
                break;
            case 1:
                b2 = d * (0.5f + u01(rng)); // either side
                break;
            case 2:
                b2 = std::numeric_limits<float>::max();
                break;
            default:
                b2 = 4.0f * u01(rng);
                break;
            }
            std::int64_t const i = someId(rng);
            x[std::size_t(q)] = p.x, y[std::size_t(q)] = p.y, z[std::size_t(q)] = p.z;
            best[std::size_t(q)] = b2, id[std::size_t(q)] = i;
            bool const better = d < b2 || (d == b2 && tid < i);
            expectedBest[std::size_t(q)] = better ? d : b2;
            expectedId[std::size_t(q)] = better ? tid : i;
            improved += d < b2;
            ties += d == b2 && tid < i;
        }
        for (int q = count; q < kRoom; ++q) {
            x[std::size_t(q)] = y[std::size_t(q)] = z[std::size_t(q)] = 0.0f;
            best[std::size_t(q)] = -1.0f, id[std::size_t(q)] = -7;
        }
        lattice::LatticeMinArgs const args{x.data(),
                                           y.data(),
                                           z.data(),
                                           best.data(),
                                           id.data(),
                                           count,
                                           tb.lo,
                                           tb.hi,
                                           tb.origin,
                                           tb.normal,
                                           lattice::kBoxTestTolerance,
                                           tid};
        offer(t, args);
        for (int q = 0; q < count; ++q) {
            ASSERT_EQ(bits(best[std::size_t(q)]), bits(expectedBest[std::size_t(q)]))
                << "round " << round << " node " << q;
            ASSERT_EQ(id[std::size_t(q)], expectedId[std::size_t(q)])
                << "round " << round << " node " << q;
        }
        for (int q = count; q < kRoom; ++q)
            ASSERT_EQ(id[std::size_t(q)], -7) << "padding changed, round " << round;
    }
    // The cases the rule decides did occur.
    EXPECT_GT(improved, 1000);
    EXPECT_GT(ties, 1000);
}

// ---- whole lattices -----------------------------------------------------------------------------

namespace {

/// A random soup of small triangles in [-2, 2]^3 world units, some of them slivers.
TriangleMesh soup(int count, unsigned seed, float size)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> where(-2.0f, 2.0f), jitter(-size, size);
    TriangleMesh m;
    for (int t = 0; t < count; ++t) {
        float3 const c{where(rng), where(rng), where(rng)};
        for (int v = 0; v < 3; ++v)
            m.positions.push_back({c.x + jitter(rng), c.y + jitter(rng), c.z + jitter(rng)});
        if (t % 9 == 4) // collinear
            m.positions.back() = {0.5f * (m.positions[3 * t].x + m.positions[3 * t + 1].x),
                                  0.5f * (m.positions[3 * t].y + m.positions[3 * t + 1].y),
                                  0.5f * (m.positions[3 * t].z + m.positions[3 * t + 1].z)};
        std::uint64_t const b = std::uint64_t(3 * t);
        m.triangles.push_back({b, b + 1, b + 2});
    }
    // A copy of an earlier triangle: ties for the tie rule.
    m.triangles.push_back(m.triangles[std::size_t(count / 2)]);
    return m;
}

template <typename Tr> class LatticeBatch : public ::testing::Test {
};
TYPED_TEST_SUITE(LatticeBatch, testtraits::TraitsTypes, testtraits::TraitsNames);

} // namespace

// The lattice kernel with each instruction set gives the same distances and triangle ids as with
// the plain C++ instance, bit for bit: spacings, clipping, parents with their seeds, ranges.
TYPED_TEST(LatticeBatch, EveryInstructionSetGivesTheSameLattice)
{
    using Tr = TypeParam;
    using L = TileLattice<Tr>;
    constexpr int N = L::kNodes;
    constexpr int R = Tr::kRatio;
    std::mt19937 rng(5);
    for (int scene = 0; scene < 6; ++scene) {
        TriangleMesh const m = soup(120 + 40 * scene, 100u + unsigned(scene), 0.05f + 0.1f * scene);
        TriangleKernelContext ctx = testsupport::kernelContext<Tr>(m, 0.04f + 0.01f * float(scene));
        std::vector<std::int64_t> list(m.triangles.size());
        for (std::size_t t = 0; t < list.size(); ++t)
            list[t] = std::int64_t(t);
        std::shuffle(list.begin(), list.end(), rng);
        std::uniform_int_distribution<std::int64_t> pick(-1, std::int64_t(list.size()) - 1);
        for (int variant = 0; variant < 8; ++variant) {
            std::int64_t const spacing = variant % 3 == 0 ? 1 : (variant % 3 == 1 ? R : R * R);
            bool const clip = variant % 2 == 1;
            bool const withParent = variant >= 4;
            std::int64_t const ci = (variant - 4) * spacing * 3, cj = -2 * spacing, ck = spacing;
            float parent[L::kCount];
            std::int64_t parentIds[L::kCount];
            for (int n = 0; n < L::kCount; ++n)
                parent[n] = 0.5f + 0.001f * float(n), parentIds[n] = pick(rng);
            int3 const slot{Tr::kSlotsPerAxis - 1, 0, Tr::kSlotsPerAxis > 1 ? 1 : 0};
            int3 const rb{0, variant == 5 ? 1 : 0, 0};
            float reference[L::kCount];
            std::int64_t referenceIds[L::kCount];
            std::fill(reference, reference + L::kCount, -3.0f);
            std::fill(referenceIds, referenceIds + L::kCount, std::int64_t(-3));
            auto run = [&](TriangleBatchIsa isa, float* dist, std::int64_t* ids) {
                TriangleBatchIsa const previous = lattice::setLatticeBatchIsa(isa);
                bool const near = computeTileLattice<Tr>(
                    ctx, ci, cj, ck, spacing, list.data(), list.data() + list.size(), dist, ids,
                    0.3f, withParent ? parent : nullptr, withParent ? parentIds : nullptr, slot, rb,
                    int3{N, N, N}, clip, clip, true);
                lattice::setLatticeBatchIsa(previous);
                return near;
            };
            bool const referenceNear = run(TriangleBatchIsa::kPortable, reference, referenceIds);
            // Each computed node holds the scalar distance to its triangle, bit for bit.
            for (int z = rb.z; z < N; ++z)
                for (int y = rb.y; y < N; ++y)
                    for (int x = rb.x; x < N; ++x) {
                        int const n = L::index(x, y, z);
                        if (withParent && x % R == 0 && y % R == 0 && z % R == 0)
                            continue;
                        std::int64_t const t = referenceIds[n];
                        if (t < 0)
                            continue;
                        float3 const p{
                            lattice::latticeCoordinate(ci, spacing, x, 0.5f, ctx.voxelSize),
                            lattice::latticeCoordinate(cj, spacing, y, 0.5f, ctx.voxelSize),
                            lattice::latticeCoordinate(ck, spacing, z, 0.5f, ctx.voxelSize)};
                        ulong3 const& tri = m.triangles[std::size_t(t)];
                        PreparedTriangle pt;
                        pt.prepare(m.positions[tri.x], m.positions[tri.y], m.positions[tri.z]);
                        ASSERT_EQ(bits(reference[n]), bits(std::sqrt(pt.distance2(p))))
                            << "scene " << scene << " variant " << variant << " node " << n;
                    }
            for (TriangleBatchIsa isa : kIsas) {
                if (!lattice::triangleBatchIsaAvailable(isa))
                    continue;
                float dist[L::kCount];
                std::int64_t ids[L::kCount];
                std::fill(dist, dist + L::kCount, -3.0f);
                std::fill(ids, ids + L::kCount, std::int64_t(-3));
                EXPECT_EQ(run(isa, dist, ids), referenceNear);
                for (int n = 0; n < L::kCount; ++n) {
                    ASSERT_EQ(bits(dist[n]), bits(reference[n]))
                        << isaName(isa) << " scene " << scene << " variant " << variant << " node "
                        << n;
                    ASSERT_EQ(ids[n], referenceIds[n]) << isaName(isa) << " scene " << scene
                                                       << " variant " << variant << " node " << n;
                }
            }
        }
    }
}

// A child's lattice from a list whose triangles are handed in ready (every triangle offered to the
// nodes) equals the one from the same list without them (the seeded, bounded path), and each
// computed node holds the list's smallest distance, on a tie the smallest id, found by brute
// force: on every instruction set, with the parent's closest triangles as seeds.
TYPED_TEST(LatticeBatch, PreparedListsGiveTheListMinimum)
{
    using Tr = TypeParam;
    using L = TileLattice<Tr>;
    constexpr int N = L::kNodes;
    constexpr int R = Tr::kRatio;
    std::mt19937 rng(11);
    for (int scene = 0; scene < 6; ++scene) {
        TriangleMesh const m = soup(150 + 30 * scene, 300u + unsigned(scene), 0.1f + 0.1f * scene);
        TriangleKernelContext ctx = testsupport::kernelContext<Tr>(m, 0.05f + 0.02f * float(scene));
        std::vector<TriangleBounds> bounds;
        if (scene % 2 == 1) {
            for (auto const& t : m.triangles)
                bounds.push_back(lattice::makeTriangleBounds(m.positions[t.x], m.positions[t.y],
                                                             m.positions[t.z]));
            ctx.bounds = bounds.data();
        }
        std::vector<PreparedTriangle> prepared(m.triangles.size());
        for (std::size_t t = 0; t < m.triangles.size(); ++t)
            prepared[t].prepare(m.positions[m.triangles[t].x], m.positions[m.triangles[t].y],
                                m.positions[m.triangles[t].z]);
        // The parent: a tile at spacing R, computed from the whole soup.
        std::vector<std::int64_t> all(m.triangles.size());
        for (std::size_t t = 0; t < all.size(); ++t)
            all[t] = std::int64_t(t);
        std::int64_t const pi = -R * Tr::kTileWidth / 2, pj = -R, pk = 0;
        float parent[L::kCount];
        std::int64_t parentIds[L::kCount];
        computeTileLattice<Tr>(ctx, pi, pj, pk, R, all.data(), all.data() + all.size(), parent,
                               parentIds, 1e30f, nullptr, nullptr, int3{0, 0, 0}, int3{0, 0, 0},
                               int3{N, N, N}, false, false, true);
        for (int child = 0; child < Tr::kChildCount; ++child) {
            int3 const slot = Tile<Tr>::slotCoordinates(child);
            std::int64_t const ci = pi + slot.x * Tr::kTileWidth, cj = pj + slot.y * Tr::kTileWidth,
                               ck = pk + slot.z * Tr::kTileWidth;
            // A random part of the soup as the child's list, in random order.
            std::vector<std::int64_t> list;
            for (std::int64_t t = 0; t < std::int64_t(m.triangles.size()); ++t)
                if (rng() % 3 != 0)
                    list.push_back(t);
            std::shuffle(list.begin(), list.end(), rng);
            std::vector<PreparedTriangle const*> ready;
            for (std::int64_t t : list)
                ready.push_back(&prepared[std::size_t(t)]);
            int3 const rb{0, child % 2, 0};
            auto run = [&](TriangleBatchIsa isa, bool handIn, float* dist, std::int64_t* ids) {
                std::fill(dist, dist + L::kCount, -3.0f);
                std::fill(ids, ids + L::kCount, std::int64_t(-3));
                TriangleBatchIsa const previous = lattice::setLatticeBatchIsa(isa);
                bool const near = computeTileLattice<Tr>(
                    ctx, ci, cj, ck, 1, list.data(), list.data() + list.size(), dist, ids, 0.3f,
                    parent, parentIds, slot, rb, int3{N, N, N}, false, false, true,
                    handIn ? ready.data() : nullptr);
                lattice::setLatticeBatchIsa(previous);
                return near;
            };
            float reference[L::kCount];
            std::int64_t referenceIds[L::kCount];
            bool const referenceNear =
                run(TriangleBatchIsa::kPortable, false, reference, referenceIds);
            for (int z = rb.z; z < N; ++z)
                for (int y = rb.y; y < N; ++y)
                    for (int x = rb.x; x < N; ++x) {
                        int const n = L::index(x, y, z);
                        if (x % R == 0 && y % R == 0 && z % R == 0)
                            continue;
                        float3 const p{lattice::latticeCoordinate(ci, 1, x, 0.5f, ctx.voxelSize),
                                       lattice::latticeCoordinate(cj, 1, y, 0.5f, ctx.voxelSize),
                                       lattice::latticeCoordinate(ck, 1, z, 0.5f, ctx.voxelSize)};
                        float best = std::numeric_limits<float>::infinity();
                        std::int64_t bestId = -1;
                        for (std::int64_t t : list) {
                            float const d = prepared[std::size_t(t)].distance2(p);
                            if (d < best || (d == best && t < bestId))
                                best = d, bestId = t;
                        }
                        ASSERT_EQ(referenceIds[n], bestId)
                            << "scene " << scene << " child " << child << " node " << n;
                        ASSERT_EQ(bits(reference[n]), bits(std::sqrt(best)))
                            << "scene " << scene << " child " << child << " node " << n;
                    }
            for (TriangleBatchIsa isa : kIsas) {
                if (!lattice::triangleBatchIsaAvailable(isa))
                    continue;
                float dist[L::kCount];
                std::int64_t ids[L::kCount];
                EXPECT_EQ(run(isa, true, dist, ids), referenceNear);
                for (int n = 0; n < L::kCount; ++n) {
                    ASSERT_EQ(bits(dist[n]), bits(reference[n]))
                        << isaName(isa) << " scene " << scene << " child " << child << " node "
                        << n;
                    ASSERT_EQ(ids[n], referenceIds[n]) << isaName(isa) << " scene " << scene
                                                       << " child " << child << " node " << n;
                }
            }
        }
    }
}
