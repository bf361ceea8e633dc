/// @file  levelset/sweep_batch_avx2.cpp
/// @brief The batched tile sweep with AVX2: eight lanes per register. Compiled with -mavx2 on
///        x86-64 (see CMakeLists.txt); only called where the processor has AVX2.
#include <hexmold/levelset/detail/sweep_batch_kernel.h>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace VolumeGL::TileTree3D::LevelSet::detail {

#if defined(__AVX2__)
namespace {

struct Avx2Ops {
    static constexpr int kLanes = 8;
    using V = __m256;
    using M = __m256; ///< all ones or all zeros per lane
    static V set1(float x) { return _mm256_set1_ps(x); }
    static V load(float const* p) { return _mm256_load_ps(p); }
    static void store(float* p, V x) { _mm256_store_ps(p, x); }
    static void storeUnaligned(float* p, V x) { _mm256_storeu_ps(p, x); }
    static M flags(std::uint32_t const* p)
    {
        return _mm256_load_ps(reinterpret_cast<float const*>(p));
    }
    static V add(V x, V y) { return _mm256_add_ps(x, y); }
    static V sub(V x, V y) { return _mm256_sub_ps(x, y); }
    static V mul(V x, V y) { return _mm256_mul_ps(x, y); }
    static V sqrt(V x) { return _mm256_sqrt_ps(x); }
    static V min(V x, V y) { return _mm256_min_ps(x, y); }
    static V max(V x, V y) { return _mm256_max_ps(x, y); }
    static V signBit() { return _mm256_castsi256_ps(_mm256_set1_epi32(std::int32_t(0x80000000u))); }
    static V abs(V x) { return _mm256_andnot_ps(signBit(), x); }
    static V negateWhere(M m, V x) { return _mm256_xor_ps(x, _mm256_and_ps(m, signBit())); }
    // Ordered predicates: false where either side is NaN, as the C++ comparisons.
    static M lt(V x, V y) { return _mm256_cmp_ps(x, y, _CMP_LT_OQ); }
    static M le(V x, V y) { return _mm256_cmp_ps(x, y, _CMP_LE_OQ); }
    static M gt(V x, V y) { return _mm256_cmp_ps(x, y, _CMP_GT_OQ); }
    static M ge(V x, V y) { return _mm256_cmp_ps(x, y, _CMP_GE_OQ); }
    static M both(M x, M y) { return _mm256_and_ps(x, y); }
    static M either(M x, M y) { return _mm256_or_ps(x, y); }
    static V select(M m, V x, V y) { return _mm256_blendv_ps(y, x, m); }
};

} // namespace

void sweepKernelAvx2(SweepKernelArgs const& args)
{
    sweepKernelBody<Avx2Ops>(args);
}

void relaxKernelAvx2(RelaxKernelArgs const& args)
{
    if (args.excluded)
        relaxKernelBody<Avx2Ops, true>(args);
    else
        relaxKernelBody<Avx2Ops, false>(args);
}
#else
void sweepKernelAvx2(SweepKernelArgs const& args)
{
    sweepKernelPortable(args);
}

void relaxKernelAvx2(RelaxKernelArgs const& args)
{
    relaxKernelPortable(args);
}
#endif

} // namespace VolumeGL::TileTree3D::LevelSet::detail
