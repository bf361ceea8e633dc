/// @file  api/redistance.h
/// @brief `hexmold::redistance`: a level set made a signed distance over the whole tree
///        (`levelSetRedistance` of levelset/level_set_redistance.h with named options).
#pragma once
#include <cfloat>
#include <hexmold/api/volume.h>
#include <hexmold/export.h>
#include <string>

namespace hexmold {

/// The solve `redistance` runs.
enum class RedistanceMethod : int {
    /// Fast sweeping over the depths: the classical recursion, or with `degreesOfFreedom` the
    /// adaptive V-cycle on the degrees of freedom of the tree.
    kSweeping = 0,
    /// Explicit steps of the re-initialization equation on the degrees of freedom (their count
    /// is `preSmoothingPasses + postSmoothingPasses`).
    kReInitialize = 1,
};

/// Options of `redistance`; the defaults recompute both sides and the surface voxels over all
/// depths by the classical sweeping recursion with 10 passes each way.
struct RedistanceOptions {
    std::string channel = kDistanceChannel; ///< the float level set, in place
    bool interior = true;                   ///< recompute voxels with 0 > value
    bool exterior = true;                   ///< recompute voxels with value >= 0
    /// Recompute the zero-crossing voxels as well, from a frozen copy of the input.
    bool overwriteSurface = true;
    int minDepth = 0;  ///< coarsest depth solved
    int maxDepth = -1; ///< finest depth solved; -1: the deepest depth of the tree type
    /// Optional float channel: voxels whose mask value is >= 0 keep their value. Empty: none.
    std::string mask;
    /// Convergence tolerance, a fraction of the voxel spacing of each depth (> 0).
    float tolerance = 0.01f;
    /// Distances (world units, > 0) beyond which inside / outside voxels need not be accurate.
    float interiorBand = FLT_MAX;
    float exteriorBand = FLT_MAX;
    int preSmoothingPasses = 10;      ///< sweeps per depth on the way to the coarsest depth (>= 0)
    int postSmoothingPasses = 10;     ///< sweeps per depth on the way back (>= 0)
    bool haloByExtrapolation = false; ///< the general halo mode instead of the redistance mode
    bool coalesced = false;           ///< `Traits<2,4,1>`: sweep the 8^3 block of a tile's children
    /// Classify the degrees of freedom of the tree first (levelset/dof_classification.h) and pass
    /// them: the adaptive sweep instead of the classical recursion. Re-initialization solves on
    /// them in any case; without them it only interpolates.
    bool degreesOfFreedom = false;
    RedistanceMethod method = RedistanceMethod::kSweeping;
};

/// @brief Recomputes the level set @p options.channel of @p io_volume as a signed distance.
/// @details One call of `levelSetRedistance` on the volume's tree and topology, its timers
///          prefixed "hexmold::redistance". Voxels the sweeps cannot reach keep the background
///          of their sign (the channel's default value). Copies of the volume are not changed.
/// @throws Error for an empty volume or one without tiles, a channel or mask that is not a float
///         voxel channel of the volume, a depth range outside the tree type's, a tolerance or band
///         that is not positive, negative pass counts, or an unknown method;
///         std::runtime_error on job cancellation (the channel then holds the state reached).
HEXMOLD_API void redistance(Volume& io_volume, RedistanceOptions const& options = {});

} // namespace hexmold
