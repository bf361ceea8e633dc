/// @file  voxelize/mesh/triangle_batch.cpp
/// @brief The choice of the point-triangle distance batch and node test from what the processor
///        has.
#include <hexmold/voxelize/mesh/detail/triangle_batch.h>

#include <initializer_list>

namespace VolumeGL::TileTree3D::detail {

namespace {

bool processorHas(TriangleBatchIsa isa)
{
#if defined(__x86_64__) || defined(__i386__)
    switch (isa) {
    case TriangleBatchIsa::kSse2:
        return __builtin_cpu_supports("sse2");
    case TriangleBatchIsa::kAvx2:
        return __builtin_cpu_supports("avx2");
    case TriangleBatchIsa::kAvx512:
        return __builtin_cpu_supports("avx512f");
    default:
        return true;
    }
#else
    return isa == TriangleBatchIsa::kPortable || isa == TriangleBatchIsa::kBest;
#endif
}

/// The widest instruction set that both the build and the processor have, chosen once.
TriangleBatchIsa bestIsa()
{
    static TriangleBatchIsa const best = [] {
        for (TriangleBatchIsa isa :
             {TriangleBatchIsa::kAvx512, TriangleBatchIsa::kAvx2, TriangleBatchIsa::kSse2})
            if (triangleBatchIsaAvailable(isa))
                return isa;
        return TriangleBatchIsa::kPortable;
    }();
    return best;
}

TriangleBatchIsa sLatticeIsa = TriangleBatchIsa::kBest;

/// The one of the four instances that @p isa names (`kBest`: the widest available).
template <typename F> F forIsa(TriangleBatchIsa isa, F portable, F sse2, F avx2, F avx512)
{
    switch (isa == TriangleBatchIsa::kBest ? bestIsa() : isa) {
    case TriangleBatchIsa::kAvx512:
        return avx512;
    case TriangleBatchIsa::kAvx2:
        return avx2;
    case TriangleBatchIsa::kSse2:
        return sse2;
    default:
        return portable;
    }
}

} // namespace

bool triangleBatchIsaAvailable(TriangleBatchIsa isa)
{
    switch (isa) {
    case TriangleBatchIsa::kBest:
    case TriangleBatchIsa::kPortable:
        return true;
#if defined(__SSE2__)
    case TriangleBatchIsa::kSse2:
        return processorHas(isa);
#endif
#if defined(HEXMOLD_TRIANGLE_BATCH_AVX2)
    case TriangleBatchIsa::kAvx2:
        return processorHas(isa);
#endif
#if defined(HEXMOLD_TRIANGLE_BATCH_AVX512)
    case TriangleBatchIsa::kAvx512:
        return processorHas(isa);
#endif
    default:
        return false;
    }
}

TriangleBatchFunction triangleBatchFunction(TriangleBatchIsa isa)
{
    return forIsa(isa, &triangleBatchPortable, &triangleBatchSse2, &triangleBatchAvx2,
                  &triangleBatchAvx512);
}

LatticeNodesFunction latticeNodesFunction(TriangleBatchIsa isa)
{
    return forIsa(isa, &latticeNodesPortable, &latticeNodesSse2, &latticeNodesAvx2,
                  &latticeNodesAvx512);
}

LatticeMinFunction latticeMinFunction(TriangleBatchIsa isa)
{
    return forIsa(isa, &latticeMinPortable, &latticeMinSse2, &latticeMinAvx2, &latticeMinAvx512);
}

LatticeMinFunction latticeMinFunction()
{
    return latticeMinFunction(sLatticeIsa);
}

LatticeNodesFunction latticeNodesFunction()
{
    return latticeNodesFunction(sLatticeIsa);
}

TriangleBatchFunction latticeBatchFunction()
{
    return triangleBatchFunction(sLatticeIsa);
}

TriangleBatchIsa setLatticeBatchIsa(TriangleBatchIsa isa)
{
    TriangleBatchIsa const previous = sLatticeIsa;
    sLatticeIsa = isa;
    return previous;
}

} // namespace VolumeGL::TileTree3D::detail
