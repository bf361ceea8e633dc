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

/// @brief The squared distances from the points of the lanes (@p qx, @p qy, @p qz) to @p t, in
///        double precision, before their rounding to float.
/// @details `Ops` gives the vector type `V` of `Ops::kLanes` doubles, the comparison result `M`,
///          and: `min(x, y)` is x < y ? x : y and `max(x, y)` is x > y ? x : y (the scalar
///          std::min and std::max with their arguments swapped); `widen` loads `kLanes` floats
///          as doubles; `ge` is false for NaN as in C++; `lt` and `eq` likewise;
///          `isNan` is true for NaN; `storeFloat` rounds each lane to float as a cast does;
///          `bits` gives lane k of a comparison as bit k.
template <typename Ops>
inline typename Ops::V triangleDistanceLanes(PreparedTriangleData const& t, typename Ops::V qx,
                                             typename Ops::V qy, typename Ops::V qz)
{
    using V = typename Ops::V;
    using M = typename Ops::M;
    double const* v[3] = {t.a, t.b, t.c};
    V const zero = Ops::set1(0.0);
    M inside = Ops::none();
    V faceValue = zero;
    if (t.face) {
        inside = Ops::all();
        for (int i = 0; i < 3; ++i) {
            V const w =
                Ops::add(Ops::add(Ops::mul(Ops::sub(qx, Ops::set1(v[i][0])), Ops::set1(t.m[i][0])),
                                  Ops::mul(Ops::sub(qy, Ops::set1(v[i][1])), Ops::set1(t.m[i][1]))),
                         Ops::mul(Ops::sub(qz, Ops::set1(v[i][2])), Ops::set1(t.m[i][2])));
            inside = Ops::both(inside, Ops::ge(w, zero));
        }
        V const h = Ops::add(Ops::add(Ops::mul(Ops::sub(qx, Ops::set1(t.a[0])), Ops::set1(t.n[0])),
                                      Ops::mul(Ops::sub(qy, Ops::set1(t.a[1])), Ops::set1(t.n[1]))),
                             Ops::mul(Ops::sub(qz, Ops::set1(t.a[2])), Ops::set1(t.n[2])));
        faceValue = Ops::mul(Ops::mul(h, h), Ops::set1(t.invNN));
        if (Ops::allTrue(inside))
            return faceValue;
    }
    // The nearest edge; the first NaN, should an edge give one, is the result.
    V const one = Ops::set1(1.0);
    V best = Ops::set1(__builtin_huge_val());
    V firstNan = zero;
    M haveNan = Ops::none();
    for (int i = 0; i < 3; ++i) {
        V const e0 = Ops::set1(t.e[i][0]), e1 = Ops::set1(t.e[i][1]), e2 = Ops::set1(t.e[i][2]);
        V const ap0 = Ops::sub(qx, Ops::set1(v[i][0]));
        V const ap1 = Ops::sub(qy, Ops::set1(v[i][1]));
        V const ap2 = Ops::sub(qz, Ops::set1(v[i][2]));
        V s = Ops::mul(Ops::add(Ops::add(Ops::mul(ap0, e0), Ops::mul(ap1, e1)), Ops::mul(ap2, e2)),
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
    V const result = Ops::select(haveNan, firstNan, best);
    return Ops::select(inside, faceValue, result);
}

/// @brief The batch for all lanes (see `triangleDistanceLanes` for `Ops`).
template <typename Ops>
inline void triangleBatchBody(PreparedTriangleData const& t, float const* x, float const* y,
                              float const* z, int count, float* out)
{
    for (int q = 0; q < count; q += Ops::kLanes)
        Ops::storeFloat(out + q, triangleDistanceLanes<Ops>(t, Ops::widen(x + q), Ops::widen(y + q),
                                                            Ops::widen(z + q)));
}

/// @brief What the lattice minimum of one triangle reads and writes (see `latticeMinBody`).
struct LatticeMinArgs {
    float const *x, *y, *z; ///< the nodes, padded to a multiple of kTriangleBatchPad
    float* best2;           ///< per node: the best squared distance (padding: negative)
    std::int64_t* id;       ///< per node: the best triangle
    int count;              ///< the number of nodes
    float const* boxLo;     ///< [3] the triangle's box
    float const* boxHi;     ///< [3]
    float const* origin;    ///< [3] a point of the triangle's plane
    double const* normal;   ///< [3] the plane's unit normal, or zero
    double tolerance;       ///< the bounds' margin: a bound is trusted to this factor
    std::int64_t triangle;  ///< the triangle's id
};

/// @brief Offers one prepared triangle to every node: each node keeps the smaller squared
///        distance, and on a tie the smaller triangle id, as the lattice kernel's `take`.
/// @details A register of nodes is measured only when the triangle's lower bounds (the distance
///          to its box, and to its plane) leave one of them room to improve; the measurement is
///          `triangleDistanceLanes`, rounded to float, so a node's result is the same whether
///          or not its register was measured. Padding nodes hold a negative best and never
///          change.
using LatticeMinFunction = void (*)(PreparedTriangleData const& t, LatticeMinArgs const& a);

void latticeMinPortable(PreparedTriangleData const& t, LatticeMinArgs const& a);
void latticeMinSse2(PreparedTriangleData const& t, LatticeMinArgs const& a);
void latticeMinAvx2(PreparedTriangleData const& t, LatticeMinArgs const& a);
void latticeMinAvx512(PreparedTriangleData const& t, LatticeMinArgs const& a);

/// The minimum for all lanes (see `triangleDistanceLanes` for `Ops`).
template <typename Ops>
inline void latticeMinBody(PreparedTriangleData const& t, LatticeMinArgs const& a)
{
    using V = typename Ops::V;
    constexpr int L = Ops::kLanes;
    V const zero = Ops::set1(0.0);
    V const lo0 = Ops::set1(a.boxLo[0]), lo1 = Ops::set1(a.boxLo[1]), lo2 = Ops::set1(a.boxLo[2]);
    V const hi0 = Ops::set1(a.boxHi[0]), hi1 = Ops::set1(a.boxHi[1]), hi2 = Ops::set1(a.boxHi[2]);
    V const o0 = Ops::set1(a.origin[0]), o1 = Ops::set1(a.origin[1]), o2 = Ops::set1(a.origin[2]);
    V const n0 = Ops::set1(a.normal[0]), n1 = Ops::set1(a.normal[1]), n2 = Ops::set1(a.normal[2]);
    V const tolerance = Ops::set1(a.tolerance);
    unsigned const lanes = (1u << L) - 1u;
    // (`widen` may read a whole register of floats, more than the lanes.)
    alignas(64) float rounded[16] = {};
    for (int q = 0; q < a.count; q += L) {
        V const qx = Ops::widen(a.x + q);
        V const qy = Ops::widen(a.y + q);
        V const qz = Ops::widen(a.z + q);
        V const best = Ops::widen(a.best2 + q);
        // Lower bounds: the box distance and the plane distance, both exact to double rounding.
        V const dx = Ops::max(Ops::max(Ops::sub(lo0, qx), Ops::sub(qx, hi0)), zero);
        V const dy = Ops::max(Ops::max(Ops::sub(lo1, qy), Ops::sub(qy, hi1)), zero);
        V const dz = Ops::max(Ops::max(Ops::sub(lo2, qz), Ops::sub(qz, hi2)), zero);
        V const box = Ops::add(Ops::mul(dx, dx), Ops::add(Ops::mul(dy, dy), Ops::mul(dz, dz)));
        V const p =
            Ops::add(Ops::mul(n0, Ops::sub(qx, o0)),
                     Ops::add(Ops::mul(n1, Ops::sub(qy, o1)), Ops::mul(n2, Ops::sub(qz, o2))));
        V const bound = Ops::max(box, Ops::mul(p, p));
        if ((Ops::bits(Ops::lt(best, Ops::mul(tolerance, bound))) & lanes) == lanes)
            continue;
        Ops::storeFloat(rounded, triangleDistanceLanes<Ops>(t, qx, qy, qz));
        V const measured = Ops::widen(rounded);
        unsigned const better = Ops::bits(Ops::lt(measured, best)) & lanes;
        unsigned const same = Ops::bits(Ops::eq(measured, best)) & lanes;
        if ((better | same) == 0)
            continue;
        for (int k = 0; k < L; ++k) {
            if ((better >> k) & 1u) {
                a.best2[q + k] = rounded[k];
                a.id[q + k] = a.triangle;
            } else if (((same >> k) & 1u) && a.triangle < a.id[q + k]) {
                a.id[q + k] = a.triangle;
            }
        }
    }
}

} // namespace VolumeGL::TileTree3D::detail
