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
    static M lt(V x, V y) { return _mm256_cmp_pd(x, y, _CMP_LT_OQ); }
    static M eq(V x, V y) { return _mm256_cmp_pd(x, y, _CMP_EQ_OQ); }
    static unsigned bits(M x) { return unsigned(_mm256_movemask_pd(x)); }
    static M isNan(V x) { return _mm256_cmp_pd(x, x, _CMP_UNORD_Q); }
    static M none() { return _mm256_setzero_pd(); }
    static M all() { return _mm256_castsi256_pd(_mm256_set1_epi64x(-1)); }
    static M notM(M x) { return _mm256_xor_pd(x, all()); }
    static M both(M x, M y) { return _mm256_and_pd(x, y); }
    static M either(M x, M y) { return _mm256_or_pd(x, y); }
    static bool allTrue(M x) { return _mm256_movemask_pd(x) == 15; }
    static V select(M m, V x, V y) { return _mm256_blendv_pd(y, x, m); }
};

/// The row test on eight nodes at once: floats in one register, doubles in two.
struct Avx2RowOps {
    static int emit(int* candidate, float* ox, float* oy, float* oz, int first, float const* x,
                    float y, float z, int len, unsigned bits)
    {
        return emitRowNodes(candidate, ox, oy, oz, first, x, y, z, len, bits);
    }
    static unsigned mask(LatticeNodesArgs const& a, int row, int x0, int, float dyz, double pyz)
    {
        int const n = row + x0;
        __m256d const vpyz = _mm256_set1_pd(pyz);
        __m256d const p0 = _mm256_add_pd(_mm256_loadu_pd(a.planeTerm + x0), vpyz);
        __m256d const p1 = _mm256_add_pd(_mm256_loadu_pd(a.planeTerm + x0 + 4), vpyz);
        __m256 const p2 =
            _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(_mm256_mul_pd(p0, p0))),
                                 _mm256_cvtpd_ps(_mm256_mul_pd(p1, p1)), 1);
        __m256 const box = _mm256_add_ps(_mm256_loadu_ps(a.boxDistance2 + x0), _mm256_set1_ps(dyz));
        // box < p2 ? p2 : box, as std::max(box, p2).
        __m256 const box2 = _mm256_max_ps(p2, box);
        __m256 const limit = _mm256_mul_ps(_mm256_set1_ps(a.tolerance), box2);
        unsigned const below = unsigned(
            _mm256_movemask_ps(_mm256_cmp_ps(_mm256_loadu_ps(a.best2 + n), limit, _CMP_LT_OQ)));
        __m256i const t = _mm256_set1_epi64x(a.triangle);
        __m256i const id0 = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(a.id + n));
        __m256i const id1 = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(a.id + n + 4));
        unsigned const same =
            unsigned(_mm256_movemask_pd(_mm256_castsi256_pd(_mm256_cmpeq_epi64(id0, t)))) |
            (unsigned(_mm256_movemask_pd(_mm256_castsi256_pd(_mm256_cmpeq_epi64(id1, t)))) << 4);
        __m256i const state =
            _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<__m128i const*>(a.state + n)));
        unsigned const computed = unsigned(_mm256_movemask_ps(
            _mm256_castsi256_ps(_mm256_cmpeq_epi32(state, _mm256_setzero_si256()))));
        return computed & ~below & ~same & 0xFFu;
    }
};

} // namespace

int latticeNodesAvx2(LatticeNodesArgs const& a)
{
    return latticeNodesBody<Avx2RowOps>(a);
}

void latticeMinAvx2(PreparedTriangleData const& t, LatticeMinArgs const& a)
{
    latticeMinBody<Avx2Ops>(t, a);
}

void triangleBatchAvx2(PreparedTriangleData const& t, float const* x, float const* y,
                       float const* z, int count, float* out)
{
    triangleBatchBody<Avx2Ops>(t, x, y, z, count, out);
}
#else
int latticeNodesAvx2(LatticeNodesArgs const& a)
{
    return latticeNodesPortable(a);
}

void latticeMinAvx2(PreparedTriangleData const& t, LatticeMinArgs const& a)
{
    latticeMinPortable(t, a);
}

void triangleBatchAvx2(PreparedTriangleData const& t, float const* x, float const* y,
                       float const* z, int count, float* out)
{
    triangleBatchPortable(t, x, y, z, count, out);
}
#endif

} // namespace VolumeGL::TileTree3D::detail
