/// @file  voxelize/mesh/detail/triangle_batch.h
/// @brief The choice of the point-triangle distance batch and node test that the lattice kernel
///        runs: one instance per SIMD instruction set, all giving the same bits.
#pragma once
#include <hexmold/export.h>
#include <hexmold/voxelize/mesh/detail/triangle_batch_kernel.h>

namespace VolumeGL::TileTree3D::detail {

/// The instruction sets of the distance batch.
enum class TriangleBatchIsa : int {
    kBest = 0,     ///< the widest one the processor runs
    kPortable = 1, ///< plain C++, one point at a time
    kSse2 = 2,
    kAvx2 = 3,
    kAvx512 = 4,
};

/// Whether this processor (and build) runs the distance batch with @p isa.
HEXMOLD_API bool triangleBatchIsaAvailable(TriangleBatchIsa isa);

/// The instance for @p isa, which must be available (`kBest`: the widest available).
HEXMOLD_API TriangleBatchFunction triangleBatchFunction(TriangleBatchIsa isa);

/// @brief The distance batch the lattice kernel runs: `kBest` unless set otherwise by
///        `setLatticeBatchIsa`.
HEXMOLD_API TriangleBatchFunction latticeBatchFunction();

/// The node test for @p isa, which must be available (`kBest`: the widest available).
HEXMOLD_API LatticeNodesFunction latticeNodesFunction(TriangleBatchIsa isa);

/// The node test the lattice kernel runs, of the same instruction set as `latticeBatchFunction`.
HEXMOLD_API LatticeNodesFunction latticeNodesFunction();

/// The lattice minimum for @p isa, which must be available (`kBest`: the widest available).
HEXMOLD_API LatticeMinFunction latticeMinFunction(TriangleBatchIsa isa);

/// The lattice minimum the lattice kernel runs, of the same instruction set as
/// `latticeBatchFunction`.
HEXMOLD_API LatticeMinFunction latticeMinFunction();

/// @brief Makes the lattice kernel run the instances for @p isa (available), so that the
///        instances can be compared on whole lattices; `kBest` restores the default. A plain
///        process-wide variable: set it while no voxelization runs. @return the previous choice.
HEXMOLD_API TriangleBatchIsa setLatticeBatchIsa(TriangleBatchIsa isa);

} // namespace VolumeGL::TileTree3D::detail
