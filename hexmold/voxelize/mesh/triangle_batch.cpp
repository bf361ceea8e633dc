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
    switch (isa == TriangleBatchIsa::kBest ? bestIsa() : isa) {
    case TriangleBatchIsa::kAvx512:
        return &triangleBatchAvx512;
    case TriangleBatchIsa::kAvx2:
        return &triangleBatchAvx2;
    case TriangleBatchIsa::kSse2:
        return &triangleBatchSse2;
    default:
        return &triangleBatchPortable;
    }
}

LatticeNodesFunction latticeNodesFunction(TriangleBatchIsa isa)
{
    switch (isa == TriangleBatchIsa::kBest ? bestIsa() : isa) {
    case TriangleBatchIsa::kAvx512:
        return &latticeNodesAvx512;
    case TriangleBatchIsa::kAvx2:
        return &latticeNodesAvx2;
    case TriangleBatchIsa::kSse2:
        return &latticeNodesSse2;
    default:
        return &latticeNodesPortable;
    }
}

LatticeMinFunction latticeMinFunction(TriangleBatchIsa isa)
{
    switch (isa == TriangleBatchIsa::kBest ? bestIsa() : isa) {
    case TriangleBatchIsa::kAvx512:
        return &latticeMinAvx512;
    case TriangleBatchIsa::kAvx2:
        return &latticeMinAvx2;
    case TriangleBatchIsa::kSse2:
        return &latticeMinSse2;
    default:
        return &latticeMinPortable;
    }
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
