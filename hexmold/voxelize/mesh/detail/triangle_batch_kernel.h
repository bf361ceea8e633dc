/// @file  voxelize/mesh/detail/triangle_batch_kernel.h
/// @brief The lattice kernel's inner loops, written once over a SIMD instruction set, and the
///        entry points of their instances (plain C++, SSE2, AVX2, AVX-512): the node test of a
///        triangle (which nodes its bounds cannot rule out) and the exact squared distance from
///        those nodes to the prepared triangle.
/// @details Each lane of the distance runs the double-precision operations of
///          `PreparedTriangle::distance2` in the same order, its branches turned into selections
///          (the face case and the nearest edge), then rounds once to float; the node test runs
///          the scalar test's operations per node. Every instance gives the same bits as the
///          scalar code, NaN included.
///
///          This header is included by sources compiled for wider instruction sets than the
///          rest of the library. It therefore defines nothing but plain data and the body
///          template, whose instances are local to each source (their `Ops` types live in
///          anonymous namespaces), and calls no function of any other header: an inline
///          function emitted there could be picked by the linker for every caller in the library.
#pragma once
#include <cstdint>

namespace VolumeGL::TileTree3D::detail {

/// @brief A triangle made ready for many distance queries, as plain data: the vertices, edges,
///        normal and the inward normals of the edges, in double precision.
struct PreparedTriangleData {
    double a[3], b[3], c[3];
    double e[3][3];     ///< edges a->b, b->c, c->a
    double invLen2[3];  ///< 1 / squared edge lengths (0 for a point edge)
    double n[3];        ///< face normal (|n| = twice the area)
    double m[3][3];     ///< n x edge: inward normals of the edges
    double invNN = 0.0; ///< 1 / |n|^2
    bool face = false;  ///< not a sliver: the face case is taken
};

/// Points of one batch: the instances read and write whole registers, so the arrays hold
/// `count` rounded up to a multiple of this many elements.
inline constexpr int kTriangleBatchPad = 8;

/// @brief Squared distances from the points (x[q], y[q], z[q]), q < @p count, to @p t, rounded
///        to float, into @p out. The arrays hold @p count rounded up to `kTriangleBatchPad`
///        elements; the padding of @p out is overwritten.
using TriangleBatchFunction = void (*)(PreparedTriangleData const& t, float const* x,
                                       float const* y, float const* z, int count, float* out);

/// The instances; each one is present on every build, and runs only where the processor has its
/// instruction set (the dispatch checks before handing one out).
void triangleBatchPortable(PreparedTriangleData const& t, float const* x, float const* y,
                           float const* z, int count, float* out);
void triangleBatchSse2(PreparedTriangleData const& t, float const* x, float const* y,
                       float const* z, int count, float* out);
void triangleBatchAvx2(PreparedTriangleData const& t, float const* x, float const* y,
                       float const* z, int count, float* out);
void triangleBatchAvx512(PreparedTriangleData const& t, float const* x, float const* y,
                         float const* z, int count, float* out);

/// Room per axis of the per-axis node arrays the node test reads: a row is read as a whole
/// register of up to eight nodes from its first node to test.
inline constexpr int kLatticeStride = 16;
/// Room after the last node of the per-node arrays the node test reads.
inline constexpr int kLatticeTail = 16;
/// Room the node test's outputs need past the nodes it lists: it may write whole registers.
inline constexpr int kLatticeOutputPad = 16;

/// @brief What the node test of one triangle reads and writes (see `latticeNodesBody`).
struct LatticeNodesArgs {
    int nodes;                  ///< nodes per axis (at most 8)
    int lo[3], hi[3];           ///< the window of nodes, per axis, [lo, hi)
    float const* boxDistance2;  ///< [3][kLatticeStride]: squared distance to the box per axis
    double const* planeTerm;    ///< [3][kLatticeStride]: the plane distance's terms per axis
    float const* coordinate;    ///< [3][kLatticeStride]: node world coordinates per axis
    float const* best2;         ///< per node (x fastest, padded): the best squared distance
    std::int64_t const* id;     ///< per node (padded): the best triangle
    unsigned char const* state; ///< per node (padded): 0 where the node is computed
    float const* rowWorst2;     ///< per row (y + nodes z): the largest best of its nodes
    float const* slabWorst2;    ///< per slab z: the largest best of its nodes
    std::int64_t triangle;      ///< the triangle's id
    float tolerance;            ///< the box test's margin
    int* candidate;             ///< out: the nodes to measure
    float *x, *y, *z;           ///< out: their coordinates
};

/// @brief The nodes of the window that a triangle's box and plane bounds cannot rule out, in
///        x-fastest order, into the outputs of @p a (each with room for every node of the window
///        plus kLatticeOutputPad); @return their number.
using LatticeNodesFunction = int (*)(LatticeNodesArgs const& a);

int latticeNodesPortable(LatticeNodesArgs const& a);
int latticeNodesSse2(LatticeNodesArgs const& a);
int latticeNodesAvx2(LatticeNodesArgs const& a);
int latticeNodesAvx512(LatticeNodesArgs const& a);

/// @brief The node test, one row of x at a time.
/// @details A node is kept when it is computed, its best is not below the tolerance times its
///          lower bound, the larger of the box distance (dx + (dy + dz), in float) and the
///          square of the plane distance (px + (py + pz), in double, squared, rounded to float),
///          and the triangle is not already its best. `RowOps::mask(a, row, x0, len, dyz, pyz)`
///          gives that test for the nodes x0 + k of the row, k < 8, as bit k (bits at k >= len are
///          ignored); `RowOps::emit` lists the nodes of the set bits (as `emitRowNodes`). A slab or
///          row whose largest best is below the tolerance times its own box distance along y and z
///          is skipped: each of its nodes would fail.
template <typename RowOps> inline int latticeNodesBody(LatticeNodesArgs const& a)
{
    int const N = a.nodes;
    float const* __restrict dd = a.boxDistance2;
    double const* __restrict pd = a.planeTerm;
    float const* __restrict c = a.coordinate;
    int* __restrict candidate = a.candidate;
    float* __restrict ox = a.x;
    float* __restrict oy = a.y;
    float* __restrict oz = a.z;
    int const x0 = a.lo[0];
    int const len = a.hi[0] - a.lo[0];
    unsigned const window = (1u << len) - 1u;
    int count = 0;
    for (int z = a.lo[2]; z < a.hi[2]; ++z) {
        if (a.slabWorst2[z] < a.tolerance * dd[2 * kLatticeStride + z])
            continue;
        for (int y = a.lo[1]; y < a.hi[1]; ++y) {
            float const dyz = dd[kLatticeStride + y] + dd[2 * kLatticeStride + z];
            if (a.rowWorst2[y + N * z] < a.tolerance * dyz)
                continue;
            double const pyz = pd[kLatticeStride + y] + pd[2 * kLatticeStride + z];
            int const row = N * (y + N * z);
            unsigned const bits = RowOps::mask(a, row, x0, len, dyz, pyz) & window;
            if (bits == 0)
                continue;
            count +=
                RowOps::emit(candidate + count, ox + count, oy + count, oz + count, row + x0,
                             c + x0, c[kLatticeStride + y], c[2 * kLatticeStride + z], len, bits);
        }
    }
    return count;
}

/// The nodes of a row whose bit is set (k < @p len, node @p first + k at x coordinate
/// @p x[k]), in order; @return their number. Of internal linkage, so that each source keeps the
/// copy compiled for its instruction set.
static inline int emitRowNodes(int* __restrict candidate, float* __restrict ox,
                               float* __restrict oy, float* __restrict oz, int first,
                               float const* __restrict x, float y, float z, int len, unsigned bits)
{
    int count = 0;
    for (int k = 0; k < len; ++k) {
        candidate[count] = first + k;
        ox[count] = x[k];
        oy[count] = y;
        oz[count] = z;
        count += int((bits >> k) & 1u);
    }
    return count;
}

/// @brief The batch for all lanes.
/// @details `Ops` gives the vector type `V` of `Ops::kLanes` doubles, the comparison result `M`,
///          and: `min(x, y)` is x < y ? x : y and `max(x, y)` is x > y ? x : y (the scalar
///          std::min and std::max with their arguments swapped); `widen` loads `kLanes` floats
///          as doubles; `ge` is false for NaN as in C++;
///          `isNan` is true for NaN; `storeFloat` rounds each lane to float as a cast does.
template <typename Ops>
inline void triangleBatchBody(PreparedTriangleData const& t, float const* x, float const* y,
                              float const* z, int count, float* out)
{
    using V = typename Ops::V;
    using M = typename Ops::M;
    constexpr int L = Ops::kLanes;
    double const* v[3] = {t.a, t.b, t.c};
    V const zero = Ops::set1(0.0);
    V const one = Ops::set1(1.0);
    V const inf = Ops::set1(__builtin_huge_val());
    for (int q = 0; q < count; q += L) {
        V const qx = Ops::widen(x + q);
        V const qy = Ops::widen(y + q);
        V const qz = Ops::widen(z + q);
        M inside = Ops::none();
        V faceValue = zero;
        if (t.face) {
            inside = Ops::all();
            for (int i = 0; i < 3; ++i) {
                V const w = Ops::add(
                    Ops::add(Ops::mul(Ops::sub(qx, Ops::set1(v[i][0])), Ops::set1(t.m[i][0])),
                             Ops::mul(Ops::sub(qy, Ops::set1(v[i][1])), Ops::set1(t.m[i][1]))),
                    Ops::mul(Ops::sub(qz, Ops::set1(v[i][2])), Ops::set1(t.m[i][2])));
                inside = Ops::both(inside, Ops::ge(w, zero));
            }
            V const h =
                Ops::add(Ops::add(Ops::mul(Ops::sub(qx, Ops::set1(t.a[0])), Ops::set1(t.n[0])),
                                  Ops::mul(Ops::sub(qy, Ops::set1(t.a[1])), Ops::set1(t.n[1]))),
                         Ops::mul(Ops::sub(qz, Ops::set1(t.a[2])), Ops::set1(t.n[2])));
            faceValue = Ops::mul(Ops::mul(h, h), Ops::set1(t.invNN));
            if (Ops::allTrue(inside)) {
                Ops::storeFloat(out + q, faceValue);
                continue;
            }
        }
        // The nearest edge; the first NaN, should an edge give one, is the result.
        V best = inf;
        V firstNan = zero;
        M haveNan = Ops::none();
        for (int i = 0; i < 3; ++i) {
            V const e0 = Ops::set1(t.e[i][0]), e1 = Ops::set1(t.e[i][1]), e2 = Ops::set1(t.e[i][2]);
            V const ap0 = Ops::sub(qx, Ops::set1(v[i][0]));
            V const ap1 = Ops::sub(qy, Ops::set1(v[i][1]));
            V const ap2 = Ops::sub(qz, Ops::set1(v[i][2]));
            V s = Ops::mul(
                Ops::add(Ops::add(Ops::mul(ap0, e0), Ops::mul(ap1, e1)), Ops::mul(ap2, e2)),
                Ops::set1(t.invLen2[i]));
            s = Ops::min(one, Ops::max(zero, s));
            V const d0 = Ops::sub(ap0, Ops::mul(e0, s));
            V const d1 = Ops::sub(ap1, Ops::mul(e1, s));
            V const d2 = Ops::sub(ap2, Ops::mul(e2, s));
            V const dd = Ops::add(Ops::add(Ops::mul(d0, d0), Ops::mul(d1, d1)), Ops::mul(d2, d2));
            best = Ops::min(dd, best);
            M const nan = Ops::isNan(dd);
            firstNan = Ops::select(Ops::both(nan, Ops::notM(haveNan)), dd, firstNan);
            haveNan = Ops::either(haveNan, nan);
        }
        V result = Ops::select(haveNan, firstNan, best);
        result = Ops::select(inside, faceValue, result);
        Ops::storeFloat(out + q, result);
    }
}

} // namespace VolumeGL::TileTree3D::detail
