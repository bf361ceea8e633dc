/// @file  levelset/sweep_batch_sse2.cpp
/// @brief The batched tile sweep with SSE2: four lanes per register.
#include <hexmold/levelset/detail/sweep_batch_kernel.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace VolumeGL::TileTree3D::LevelSet::detail {

#if defined(__SSE2__)
namespace {

struct Sse2Ops {
    static constexpr int kLanes = 4;
    using V = __m128;
    using M = __m128; ///< all ones or all zeros per lane
    static V set1(float x) { return _mm_set1_ps(x); }
    static V load(float const* p) { return _mm_load_ps(p); }
    static void store(float* p, V x) { _mm_store_ps(p, x); }
    static void storeUnaligned(float* p, V x) { _mm_storeu_ps(p, x); }
    static M flags(std::uint32_t const* p)
    {
        return _mm_load_ps(reinterpret_cast<float const*>(p));
    }
    static V add(V x, V y) { return _mm_add_ps(x, y); }
    static V sub(V x, V y) { return _mm_sub_ps(x, y); }
    static V mul(V x, V y) { return _mm_mul_ps(x, y); }
    static V sqrt(V x) { return _mm_sqrt_ps(x); }
    static V min(V x, V y) { return _mm_min_ps(x, y); }
    static V max(V x, V y) { return _mm_max_ps(x, y); }
    static V signBit() { return _mm_castsi128_ps(_mm_set1_epi32(std::int32_t(0x80000000u))); }
    static V abs(V x) { return _mm_andnot_ps(signBit(), x); }
    static V negateWhere(M m, V x) { return _mm_xor_ps(x, _mm_and_ps(m, signBit())); }
    static M lt(V x, V y) { return _mm_cmplt_ps(x, y); }
    static M le(V x, V y) { return _mm_cmple_ps(x, y); }
    static M gt(V x, V y) { return _mm_cmpgt_ps(x, y); }
    static M ge(V x, V y) { return _mm_cmpge_ps(x, y); }
    static M both(M x, M y) { return _mm_and_ps(x, y); }
    static M either(M x, M y) { return _mm_or_ps(x, y); }
    static V select(M m, V x, V y) { return _mm_or_ps(_mm_and_ps(m, x), _mm_andnot_ps(m, y)); }
};

} // namespace

void sweepKernelSse2(SweepKernelArgs const& args)
{
    sweepKernelBody<Sse2Ops>(args);
}

void relaxKernelSse2(RelaxKernelArgs const& args)
{
    if (args.excluded)
        relaxKernelBody<Sse2Ops, true>(args);
    else
        relaxKernelBody<Sse2Ops, false>(args);
}
#else
void sweepKernelSse2(SweepKernelArgs const& args)
{
    sweepKernelPortable(args);
}

void relaxKernelSse2(RelaxKernelArgs const& args)
{
    relaxKernelPortable(args);
}
#endif

} // namespace VolumeGL::TileTree3D::LevelSet::detail
