/// @file  levelset/sweep_batch_portable.cpp
/// @brief The batched tile sweep in plain C++, one lane at a time: the instance for processors
///        without the SIMD sets of the other instances.
#include <cmath>
#include <hexmold/levelset/detail/sweep_batch_kernel.h>

namespace VolumeGL::TileTree3D::LevelSet::detail {

namespace {

struct PortableOps {
    static constexpr int kLanes = 1;
    using V = float;
    using M = bool;
    static V set1(float x) { return x; }
    static V load(float const* p) { return *p; }
    static void store(float* p, V x) { *p = x; }
    static void storeUnaligned(float* p, V x) { *p = x; }
    static M flags(std::uint32_t const* p) { return *p != 0u; }
    static V add(V x, V y) { return x + y; }
    static V sub(V x, V y) { return x - y; }
    static V mul(V x, V y) { return x * y; }
    static V sqrt(V x) { return std::sqrt(x); }
    static V min(V x, V y) { return x < y ? x : y; }
    static V max(V x, V y) { return x > y ? x : y; }
    static V abs(V x) { return std::fabs(x); }
    static V negateWhere(M m, V x) { return m ? -x : x; }
    static M lt(V x, V y) { return x < y; }
    static M le(V x, V y) { return x <= y; }
    static M gt(V x, V y) { return x > y; }
    static M ge(V x, V y) { return x >= y; }
    static M both(M x, M y) { return x && y; }
    static M either(M x, M y) { return x || y; }
    static V select(M m, V x, V y) { return m ? x : y; }
};

} // namespace

void sweepKernelPortable(SweepKernelArgs const& args)
{
    sweepKernelBody<PortableOps>(args);
}

void relaxKernelPortable(RelaxKernelArgs const& args)
{
    if (args.excluded)
        relaxKernelBody<PortableOps, true>(args);
    else
        relaxKernelBody<PortableOps, false>(args);
}

} // namespace VolumeGL::TileTree3D::LevelSet::detail
