/// @file  voxelize/mesh/triangle_batch_sse2.cpp
/// @brief The point-triangle distance batch with SSE2: two points per register.
#include <hexmold/voxelize/mesh/detail/triangle_batch_kernel.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace VolumeGL::TileTree3D::detail {

// Two doubles per register do not pay for the row test: the plain one serves.
int latticeNodesSse2(LatticeNodesArgs const& a)
{
    return latticeNodesPortable(a);
}

#if defined(__SSE2__)
namespace {

struct Sse2Ops {
    static constexpr int kLanes = 2;
    using V = __m128d;
    using M = __m128d; ///< all ones or all zeros per lane
    static V set1(double x) { return _mm_set1_pd(x); }
    static V widen(float const* p) { return _mm_cvtps_pd(_mm_loadu_ps(p)); }
    static void storeFloat(float* p, V x)
    {
        _mm_storel_pi(reinterpret_cast<__m64*>(p), _mm_cvtpd_ps(x));
    }
    static V add(V x, V y) { return _mm_add_pd(x, y); }
    static V sub(V x, V y) { return _mm_sub_pd(x, y); }
    static V mul(V x, V y) { return _mm_mul_pd(x, y); }
    static V min(V x, V y) { return _mm_min_pd(x, y); }
    static V max(V x, V y) { return _mm_max_pd(x, y); }
    static M ge(V x, V y) { return _mm_cmpge_pd(x, y); }
    static M lt(V x, V y) { return _mm_cmplt_pd(x, y); }
    static M eq(V x, V y) { return _mm_cmpeq_pd(x, y); }
    static unsigned bits(M x) { return unsigned(_mm_movemask_pd(x)); }
    static M isNan(V x) { return _mm_cmpunord_pd(x, x); }
    static M none() { return _mm_setzero_pd(); }
    static M all() { return _mm_castsi128_pd(_mm_set1_epi32(-1)); }
    static M notM(M x) { return _mm_xor_pd(x, all()); }
    static M both(M x, M y) { return _mm_and_pd(x, y); }
    static M either(M x, M y) { return _mm_or_pd(x, y); }
    static bool allTrue(M x) { return _mm_movemask_pd(x) == 3; }
    static V select(M m, V x, V y) { return _mm_or_pd(_mm_and_pd(m, x), _mm_andnot_pd(m, y)); }
};

} // namespace

void latticeMinSse2(PreparedTriangleData const& t, LatticeMinArgs const& a)
{
    latticeMinBody<Sse2Ops>(t, a);
}

void triangleBatchSse2(PreparedTriangleData const& t, float const* x, float const* y,
                       float const* z, int count, float* out)
{
    triangleBatchBody<Sse2Ops>(t, x, y, z, count, out);
}
#else
void latticeMinSse2(PreparedTriangleData const& t, LatticeMinArgs const& a)
{
    latticeMinPortable(t, a);
}

void triangleBatchSse2(PreparedTriangleData const& t, float const* x, float const* y,
                       float const* z, int count, float* out)
{
    triangleBatchPortable(t, x, y, z, count, out);
}
#endif

} // namespace VolumeGL::TileTree3D::detail
