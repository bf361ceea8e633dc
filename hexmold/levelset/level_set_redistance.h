/// @file  levelset/level_set_redistance.h
/// @brief `levelSetRedistance`: turns a float channel that is right only near its zero crossing
///        into a signed distance over the whole tile tree, and the re-initialization solve.
/// @details Three algorithms stand behind the one entry point, chosen by the arguments:
///          - the DOF-driven adaptive sweep (a DOF channel is given and the scheme is sweeping),
///            a V-cycle over the depths with restriction and interpolation at resolution jumps;
///          - the classical recursion (no DOF channel): fine-to-coarse injection, pre-smoothing,
///            recursion, post-smoothing, on each depth a red-black Gauss-Seidel of fast sweeps
///            over the tiles (Zhao 2005, "A fast sweeping method for eikonal equations");
///          - re-initialization, a first-order explicit solve of phi_t + S(phi)(|grad phi| - 1) = 0
///            over the DOFs (Sussman, Smereka & Osher 1994).
///          Value types steer the sweeps: known voxels (1) are boundary conditions, unknown ones
///          (2) are solved, excluded ones (3) are never read and keep plus or minus the
///          background. The zero crossing is the set of voxels with a face neighbour of the
///          other sign under the test 0 > value, so that 0 counts as positive.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>

namespace VolumeGL::TileTree3D::LevelSet {

/// Value types of the redistancing solves, one `unsigned char` per voxel.
enum ValueType : unsigned char {
    kValueTypeKnown = 1,    ///< final: a boundary condition of the sweeps
    kValueTypeUnknown = 2,  ///< to be computed; the default of a value-type channel
    kValueTypeExcluded = 3, ///< cut off: never read, stays at plus or minus the background
};

/// Which solve `levelSetRedistance` runs. Any other value behaves as `kRedistanceSweeping`
/// without a DOF channel.
enum RedistancingScheme : int {
    kRedistanceSweeping = 0,
    kRedistanceReInitialize = 1,
};

/// @brief Recomputes @p io_distance as the signed distance to its zero crossing.
/// @param container          the tile tree; unchanged
/// @param topology           the voxel topology of @p io_distance (gives the sample offset)
/// @param io_distance        in: a level set (world units); out: signed distance. Its default
///                           value's magnitude is the background: what unreached voxels hold
/// @param redistanceInterior recompute voxels with 0 > value
/// @param redistanceExterior recompute voxels with value >= 0
/// @param overwriteSurface   recompute the zero-crossing voxels too, from a frozen copy of the
///                           input (distance to the surface by Newton steps on its trilinear
///                           interpolation)
/// @param minDepth, maxDepth inclusive range of depths solved
/// @param mask               optional: voxels whose mask value is >= 0 keep their value
/// @param io_valueType       optional value types of the caller (`ValueType`); left with the
///                           final type of each voxel, so that a second call may reuse them
/// @param tolerance          convergence tolerance, a fraction of the spacing of each depth
/// @param interiorBand, exteriorBand  distances (world units) beyond which inside / outside
///                           voxels need not be accurate; `FLT_MAX` for none
/// @param maxNumPreSmoothingPasses, maxNumPostSmoothingPasses  sweeps per depth on the way to
///                           the coarsest depth and back (their sum is the pass count of
///                           re-initialization)
/// @param haloByExtrapolation  halo mode of the sweeps: general (4) rather than redistance (2)
/// @param performCoalescedRedistance  allows, for `Traits<2,4,1>`, the sweep over the 8^3 block
///                           of the eight children of a tile
/// @param dof                optional DOF flags (see dof_classification.h); selects the adaptive
///                           sweep
/// @param name               prefix of every timer name
/// @param scheme             sweeping or re-initialization
/// @details No argument is validated and there is no error result: a voxel the sweeps cannot
///          reach keeps the background of its sign. Runs on the calling thread and fans out over
///          the tiles of one depth and colour.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; temporaries are
///         released, the distance channel holds the state reached.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void levelSetRedistance(
    TVL::TileTree3D::Container<Traits> const& container,
    TVL::TileTree3D::VoxelTopology<Traits> const& topology,
    TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance, bool redistanceInterior,
    bool redistanceExterior, bool overwriteSurface, int minDepth, int maxDepth,
    TVL::TileTree3D::VoxelChannel<Traits, float> const* mask,
    TVL::TileTree3D::VoxelChannel<Traits, unsigned char>* io_valueType, float tolerance,
    float interiorBand, float exteriorBand, int maxNumPreSmoothingPasses,
    int maxNumPostSmoothingPasses, bool haloByExtrapolation, bool performCoalescedRedistance,
    TVL::TileTree3D::VoxelChannel<Traits, short> const* dof, Quillon::String const& name,
    RedistancingScheme scheme);

/// @brief Gives the voxels that are not degrees of freedom their values from the DOFs, as
///        `levelSetRedistance` ends with a DOF channel: covered voxels (flag 2) take the child
///        voxel at the low corner of their region, finer depths first, over depths [minDepth,
///        maxDepth]; then hanging voxels (flag 4) take the linear, bilinear or trilinear mix of the
///        coarser lattice around them, coarser depths first.
/// @param haloMode  accepted for the callers; the fill does not depend on it
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void
setNonDOFValues(int minDepth, int maxDepth, TVL::TileTree3D::Container<Traits> const& container,
                TVL::TileTree3D::VoxelChannel<Traits, short> const& dof,
                TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance, int haloMode);

/// @brief Re-initialization: @p passes explicit first-order steps of
///        phi_t + S(phi)(|grad phi| - 1) = 0 on the DOF voxels (flag 1) of depths
///        [minDepth, maxDepth], with the time step the finest voxel size at every depth.
/// @param dof        DOF flags; without one nothing is solved and only interpolation runs
/// @param interiorBand, exteriorBand  voxels beyond them (world units) are copied unchanged
///                   whenever the background exceeds one of them
/// @param passes     number of steps; an odd count still leaves the result in @p io_distance
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void levelSetReInitialize(TVL::TileTree3D::Container<Traits> const& container,
                                      TVL::TileTree3D::VoxelTopology<Traits> const& topology,
                                      TVL::TileTree3D::VoxelChannel<Traits, short> const* dof,
                                      int minDepth, int maxDepth, float interiorBand,
                                      float exteriorBand, int passes, Quillon::String const& name,
                                      TVL::TileTree3D::VoxelChannel<Traits, float>& io_distance);

} // namespace VolumeGL::TileTree3D::LevelSet
