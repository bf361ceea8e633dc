/// @file  levelset/detail/adaptive_sweep_kernels.h
/// @brief Per-voxel kernels of the DOF-driven adaptive sweep: which voxels a depth solves, how a
///        voxel starts the sweeps, and the copy of a relaxed tile back into its block.
#pragma once
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/level_set_redistance.h>

namespace VolumeGL::TileTree3D::LevelSet::detail {

/// @brief Whether a voxel of DOF flags @p f is solved by the sweeps of its depth.
/// @details Degrees of freedom are; a hanging voxel is as well, since the finer data next to it
///          know its value better than the coarser lattice, which only fills in where the sweeps
///          of this depth leave it unreached. At the finest depth treated (@p finest), a voxel
///          covered by a child is solved too, as nothing finer is.
inline bool solvedByAdaptiveSweep(short f, bool finest)
{
    bool const hanging = (f & kDOFHanging) && !(f & kDOFNotInterpolated);
    return (f & kDOFSolved) || hanging || (finest && (f & kDOFFromChild));
}

/// The sides the sweeps solve, and their backgrounds.
struct SweepSides {
    bool interior, exterior;
    float background;

    /// Whether the side of @p v is solved.
    bool solves(float v) const { return 0.0f > v ? interior : exterior; }
    /// @p v set to the background of its side when that side is solved.
    void reset(float& v) const
    {
        if (interior && v < 0.0f)
            v = -background;
        if (exterior && v >= 0.0f)
            v = background;
    }
};

/// @brief Copies relaxed tile @p u (with its rim) into @p values and tells whether an unknown
///        voxel (@p types) is still unreached: at or beyond the background.
template <int W, typename Halo, typename Block, typename Types>
bool copyBackAndFindUnreached(Halo const& u, Block& values, Types const& types, float background)
{
    bool unreached = false;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i) {
                float const x = u(i, j, k);
                values(i, j, k) = x;
                if (!unreached && types(i, j, k) == kValueTypeUnknown &&
                    !(x > -background && x < background))
                    unreached = true;
            }
    return unreached;
}

} // namespace VolumeGL::TileTree3D::LevelSet::detail
