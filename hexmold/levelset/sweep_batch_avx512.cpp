/// @file  levelset/sweep_batch_avx512.cpp
/// @brief The batched tile sweep with AVX-512F: sixteen lanes per register. Compiled with
///        -mavx512f on x86-64 (see CMakeLists.txt); only called where the processor has it.
#include <hexmold/levelset/detail/sweep_batch_kernel.h>

#if defined(__AVX512F__)
#include <immintrin.h>
#endif

namespace VolumeGL::TileTree3D::LevelSet::detail {

#if defined(__AVX512F__)
namespace {

struct Avx512Ops {
    static constexpr int kLanes = 16;
    using V = __m512;
    using M = __mmask16;
    static V set1(float x) { return _mm512_set1_ps(x); }
    static V load(float const* p) { return _mm512_load_ps(p); }
    static void store(float* p, V x) { _mm512_store_ps(p, x); }
    static void storeUnaligned(float* p, V x) { _mm512_storeu_ps(p, x); }
    static M flags(std::uint32_t const* p)
    {
        __m512i const f = _mm512_load_si512(p);
        return _mm512_test_epi32_mask(f, f);
    }
    static V add(V x, V y) { return _mm512_add_ps(x, y); }
    static V sub(V x, V y) { return _mm512_sub_ps(x, y); }
    static V mul(V x, V y) { return _mm512_mul_ps(x, y); }
    static V sqrt(V x) { return _mm512_sqrt_ps(x); }
    static V min(V x, V y) { return _mm512_min_ps(x, y); }
    static V max(V x, V y) { return _mm512_max_ps(x, y); }
    static __m512i signBit() { return _mm512_set1_epi32(std::int32_t(0x80000000u)); }
    static V abs(V x)
    {
        return _mm512_castsi512_ps(_mm512_andnot_si512(signBit(), _mm512_castps_si512(x)));
    }
    static V negateWhere(M m, V x)
    {
        __m512i const xi = _mm512_castps_si512(x);
        return _mm512_castsi512_ps(_mm512_mask_xor_epi32(xi, m, xi, signBit()));
    }
    // Ordered predicates: false where either side is NaN, as the C++ comparisons.
    static M lt(V x, V y) { return _mm512_cmp_ps_mask(x, y, _CMP_LT_OQ); }
    static M le(V x, V y) { return _mm512_cmp_ps_mask(x, y, _CMP_LE_OQ); }
    static M gt(V x, V y) { return _mm512_cmp_ps_mask(x, y, _CMP_GT_OQ); }
    static M ge(V x, V y) { return _mm512_cmp_ps_mask(x, y, _CMP_GE_OQ); }
    static M both(M x, M y) { return M(x & y); }
    static M either(M x, M y) { return M(x | y); }
    static V select(M m, V x, V y) { return _mm512_mask_blend_ps(m, y, x); }
};

} // namespace

void sweepKernelAvx512(SweepKernelArgs const& args)
{
    sweepKernelBody<Avx512Ops>(args);
}

void relaxKernelAvx512(RelaxKernelArgs const& args)
{
    if (args.excluded)
        relaxKernelBody<Avx512Ops, true>(args);
    else
        relaxKernelBody<Avx512Ops, false>(args);
}
#else
void sweepKernelAvx512(SweepKernelArgs const& args)
{
    sweepKernelPortable(args);
}

void relaxKernelAvx512(RelaxKernelArgs const& args)
{
    relaxKernelPortable(args);
}
#endif

} // namespace VolumeGL::TileTree3D::LevelSet::detail
