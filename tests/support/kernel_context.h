// The triangle kernel's context for a test mesh: the settings every kernel test shares.
#pragma once
#include "support/meshes.h"
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>

namespace testsupport {

/// The kernel's context for the mesh @p m with voxels of @p h world units sampled at their
/// centres, and the value @p far where no triangle reaches.
template <typename Tr>
VolumeGL::TileTree3D::TriangleKernelContext kernelContext(testmeshes::TriangleMesh const& m,
                                                          float h, float far = 1e30f)
{
    VolumeGL::TileTree3D::TriangleKernelContext ctx;
    ctx.far = far;
    ctx.far2 = far * far;
    ctx.voxelSize = h;
    ctx.voxelOffset = {0.5f, 0.5f, 0.5f};
    ctx.triangles = &m.triangles;
    ctx.positions = &m.positions;
    ctx.tileWidth = Tr::kTileWidth;
    return ctx;
}

} // namespace testsupport
