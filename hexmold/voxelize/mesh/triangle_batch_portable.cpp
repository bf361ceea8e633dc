/// @file  voxelize/mesh/triangle_batch_portable.cpp
/// @brief The point-triangle distance batch in plain C++, one point at a time: the instance for
///        processors without the SIMD sets of the other instances.
#include <hexmold/voxelize/mesh/detail/triangle_batch_kernel.h>

namespace VolumeGL::TileTree3D::detail {

namespace {

struct PortableOps {
    static constexpr int kLanes = 1;
    using V = double;
    using M = bool;
    static V set1(double x) { return x; }
    static V widen(float const* p) { return static_cast<double>(*p); }
    static void storeFloat(float* p, V x) { *p = static_cast<float>(x); }
    static V add(V x, V y) { return x + y; }
    static V sub(V x, V y) { return x - y; }
    static V mul(V x, V y) { return x * y; }
    static V min(V x, V y) { return x < y ? x : y; }
    static V max(V x, V y) { return x > y ? x : y; }
    static M ge(V x, V y) { return x >= y; }
    static M lt(V x, V y) { return x < y; }
    static M eq(V x, V y) { return x == y; }
    static unsigned bits(M x) { return unsigned(x); }
    static M isNan(V x) { return x != x; }
    static M none() { return false; }
    static M all() { return true; }
    static M notM(M x) { return !x; }
    static M both(M x, M y) { return x && y; }
    static M either(M x, M y) { return x || y; }
    static bool allTrue(M x) { return x; }
    static V select(M m, V x, V y) { return m ? x : y; }
};

/// The row test in plain C++, one node at a time.
struct ScalarRowOps {
    static int emit(int* candidate, float* ox, float* oy, float* oz, int first, float const* x,
                    float y, float z, int len, unsigned bits)
    {
        return emitRowNodes(candidate, ox, oy, oz, first, x, y, z, len, bits);
    }
    static unsigned mask(LatticeNodesArgs const& a, int row, int x0, int len, float dyz, double pyz)
    {
        unsigned bits = 0;
        for (int k = 0; k < len; ++k) {
            int const n = row + x0 + k;
            double const plane = a.planeTerm[x0 + k] + pyz;
            float const box = a.boxDistance2[x0 + k] + dyz;
            float const p2 = static_cast<float>(plane * plane);
            float const box2 = box < p2 ? p2 : box;
            bool const keep =
                (a.state[n] == 0) & !(a.best2[n] < a.tolerance * box2) & (a.id[n] != a.triangle);
            bits |= unsigned(keep) << k;
        }
        return bits;
    }
};

} // namespace

int latticeNodesPortable(LatticeNodesArgs const& a)
{
    return latticeNodesBody<ScalarRowOps>(a);
}

void latticeMinPortable(PreparedTriangleData const& t, LatticeMinArgs const& a)
{
    latticeMinBody<PortableOps>(t, a);
}

void triangleBatchPortable(PreparedTriangleData const& t, float const* x, float const* y,
                           float const* z, int count, float* out)
{
    triangleBatchBody<PortableOps>(t, x, y, z, count, out);
}

} // namespace VolumeGL::TileTree3D::detail
