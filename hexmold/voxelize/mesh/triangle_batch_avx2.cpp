/// @file  voxelize/mesh/triangle_batch_avx2.cpp
/// @brief The point-triangle distance batch with AVX2: four points per register. Compiled with
///        -mavx2 on x86-64 (see CMakeLists.txt; no FMA, which would change the bits); only called
///        where the processor has AVX2.
#include <hexmold/voxelize/mesh/detail/triangle_batch_kernel.h>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace VolumeGL::TileTree3D::detail {

#if defined(__AVX2__)
namespace {

struct Avx2Ops {
    static constexpr int kLanes = 4;
    using V = __m256d;
    using M = __m256d; ///< all ones or all zeros per lane
    static V set1(double x) { return _mm256_set1_pd(x); }
    static V widen(float const* p) { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }
    static void storeFloat(float* p, V x) { _mm_storeu_ps(p, _mm256_cvtpd_ps(x)); }
    static V add(V x, V y) { return _mm256_add_pd(x, y); }
    static V sub(V x, V y) { return _mm256_sub_pd(x, y); }
    static V mul(V x, V y) { return _mm256_mul_pd(x, y); }
    static V min(V x, V y) { return _mm256_min_pd(x, y); }
    static V max(V x, V y) { return _mm256_max_pd(x, y); }
    static M ge(V x, V y) { return _mm256_cmp_pd(x, y, _CMP_GE_OQ); }
    static M isNan(V x) { return _mm256_cmp_pd(x, x, _CMP_UNORD_Q); }
    static M none() { return _mm256_setzero_pd(); }
    static M all() { return _mm256_castsi256_pd(_mm256_set1_epi64x(-1)); }
    static M notM(M x) { return _mm256_xor_pd(x, all()); }
    static M both(M x, M y) { return _mm256_and_pd(x, y); }
    static M either(M x, M y) { return _mm256_or_pd(x, y); }
    static bool allTrue(M x) { return _mm256_movemask_pd(x) == 15; }
    static V select(M m, V x, V y) { return _mm256_blendv_pd(y, x, m); }
};

} // namespace

void triangleBatchAvx2(PreparedTriangleData const& t, float const* x, float const* y,
                       float const* z, int count, float* out)
{
    triangleBatchBody<Avx2Ops>(t, x, y, z, count, out);
}
#else
void triangleBatchAvx2(PreparedTriangleData const& t, float const* x, float const* y,
                       float const* z, int count, float* out)
{
    triangleBatchPortable(t, x, y, z, count, out);
}
#endif

} // namespace VolumeGL::TileTree3D::detail
