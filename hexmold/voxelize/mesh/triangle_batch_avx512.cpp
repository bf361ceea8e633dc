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
    static M lt(V x, V y) { return _mm512_cmp_pd_mask(x, y, _CMP_LT_OQ); }
    static M eq(V x, V y) { return _mm512_cmp_pd_mask(x, y, _CMP_EQ_OQ); }
    static unsigned bits(M x) { return unsigned(x); }
    static M isNan(V x) { return _mm512_cmp_pd_mask(x, x, _CMP_UNORD_Q); }
    static M none() { return M(0); }
    static M all() { return M(0xFF); }
    static M notM(M x) { return M(~x); }
    static M both(M x, M y) { return M(x & y); }
    static M either(M x, M y) { return M(x | y); }
    static bool allTrue(M x) { return x == M(0xFF); }
    static V select(M m, V x, V y) { return _mm512_mask_blend_pd(m, y, x); }
};

/// The row test on eight nodes at once.
struct Avx512RowOps {
    /// Compressed in registers, then stored whole: every output has kLatticeOutputPad of room.
    static int emit(int* candidate, float* ox, float* oy, float* oz, int first, float const* x,
                    float y, float z, int, unsigned bits)
    {
        __mmask16 const m = static_cast<__mmask16>(bits);
        __m512i const lanes =
            _mm512_add_epi32(_mm512_set1_epi32(first), _mm512_set_epi32(15, 14, 13, 12, 11, 10, 9,
                                                                        8, 7, 6, 5, 4, 3, 2, 1, 0));
        _mm512_storeu_si512(candidate, _mm512_maskz_compress_epi32(m, lanes));
        _mm512_storeu_ps(ox, _mm512_maskz_compress_ps(m, _mm512_loadu_ps(x)));
        _mm256_storeu_ps(oy, _mm256_set1_ps(y));
        _mm256_storeu_ps(oz, _mm256_set1_ps(z));
        unsigned v = bits - ((bits >> 1) & 0x55u);
        v = (v & 0x33u) + ((v >> 2) & 0x33u);
        return int((v + (v >> 4)) & 0x0Fu);
    }
    static unsigned mask(LatticeNodesArgs const& a, int row, int x0, int, float dyz, double pyz)
    {
        int const n = row + x0;
        __m512d const p = _mm512_add_pd(_mm512_loadu_pd(a.planeTerm + x0), _mm512_set1_pd(pyz));
        __m256 const p2 = _mm512_cvtpd_ps(_mm512_mul_pd(p, p));
        __m256 const box = _mm256_add_ps(_mm256_loadu_ps(a.boxDistance2 + x0), _mm256_set1_ps(dyz));
        // box < p2 ? p2 : box, as std::max(box, p2).
        __m256 const box2 = _mm256_max_ps(p2, box);
        __m256 const limit = _mm256_mul_ps(_mm256_set1_ps(a.tolerance), box2);
        unsigned const below = unsigned(
            _mm256_movemask_ps(_mm256_cmp_ps(_mm256_loadu_ps(a.best2 + n), limit, _CMP_LT_OQ)));
        unsigned const same = unsigned(
            _mm512_cmpeq_epi64_mask(_mm512_loadu_si512(a.id + n), _mm512_set1_epi64(a.triangle)));
        __m256i const state =
            _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<__m128i const*>(a.state + n)));
        unsigned const computed = unsigned(_mm256_movemask_ps(
            _mm256_castsi256_ps(_mm256_cmpeq_epi32(state, _mm256_setzero_si256()))));
        return computed & ~below & ~same & 0xFFu;
    }
};

} // namespace

int latticeNodesAvx512(LatticeNodesArgs const& a)
{
    return latticeNodesBody<Avx512RowOps>(a);
}

void latticeMinAvx512(PreparedTriangleData const& t, LatticeMinArgs const& a)
{
    latticeMinBody<Avx512Ops>(t, a);
}

void triangleBatchAvx512(PreparedTriangleData const& t, float const* x, float const* y,
                         float const* z, int count, float* out)
{
    triangleBatchBody<Avx512Ops>(t, x, y, z, count, out);
}
#else
int latticeNodesAvx512(LatticeNodesArgs const& a)
{
    return latticeNodesPortable(a);
}

void latticeMinAvx512(PreparedTriangleData const& t, LatticeMinArgs const& a)
{
    latticeMinPortable(t, a);
}

void triangleBatchAvx512(PreparedTriangleData const& t, float const* x, float const* y,
                         float const* z, int count, float* out)
{
    triangleBatchPortable(t, x, y, z, count, out);
}
#endif

} // namespace VolumeGL::TileTree3D::detail
