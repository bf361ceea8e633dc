/// @file  voxelize/mesh/triangle_batch_avx512.cpp
/// @brief The point-triangle distance batch with AVX-512: eight points per register. Compiled
///        with -mavx512f on x86-64 (see CMakeLists.txt; the library's -ffp-contract=off keeps the
///        set's fused multiply-adds out, which would change the bits); only called where the
///        processor has AVX-512F.
#include <hexmold/voxelize/mesh/detail/triangle_batch_kernel.h>

#if defined(__AVX512F__)
#include <immintrin.h>
#endif

namespace VolumeGL::TileTree3D::detail {

#if defined(__AVX512F__)
namespace {

struct Avx512Ops {
    static constexpr int kLanes = 8;
    using V = __m512d;
    using M = __mmask8;
    static V set1(double x) { return _mm512_set1_pd(x); }
    static V widen(float const* p) { return _mm512_cvtps_pd(_mm256_loadu_ps(p)); }
    static void storeFloat(float* p, V x) { _mm256_storeu_ps(p, _mm512_cvtpd_ps(x)); }
    static V add(V x, V y) { return _mm512_add_pd(x, y); }
    static V sub(V x, V y) { return _mm512_sub_pd(x, y); }
    static V mul(V x, V y) { return _mm512_mul_pd(x, y); }
    static V min(V x, V y) { return _mm512_min_pd(x, y); }
    static V max(V x, V y) { return _mm512_max_pd(x, y); }
    static M ge(V x, V y) { return _mm512_cmp_pd_mask(x, y, _CMP_GE_OQ); }
    static M isNan(V x) { return _mm512_cmp_pd_mask(x, x, _CMP_UNORD_Q); }
    static M none() { return M(0); }
    static M all() { return M(0xFF); }
    static M notM(M x) { return M(~x); }
    static M both(M x, M y) { return M(x & y); }
    static M either(M x, M y) { return M(x | y); }
    static bool allTrue(M x) { return x == M(0xFF); }
    static V select(M m, V x, V y) { return _mm512_mask_blend_pd(m, y, x); }
};

} // namespace

void triangleBatchAvx512(PreparedTriangleData const& t, float const* x, float const* y,
                         float const* z, int count, float* out)
{
    triangleBatchBody<Avx512Ops>(t, x, y, z, count, out);
}
#else
void triangleBatchAvx512(PreparedTriangleData const& t, float const* x, float const* y,
                         float const* z, int count, float* out)
{
    triangleBatchPortable(t, x, y, z, count, out);
}
#endif

} // namespace VolumeGL::TileTree3D::detail
