/// @file  api/analyze.h
/// @brief `hexmold::analyze`: a field operator (gradient, Laplacian, mean curvature, ...) applied
///        to channels of a volume, each result a new channel (`analyze<Operator>` of
///        analysis/analyze.h with named options).
#pragma once
#include <hexmold/api/volume.h>
#include <hexmold/export.h>
#include <string>
#include <vector>

namespace hexmold {

/// The field operators, with the element types they take and give, and the word that names
/// their output:
/// | operator         | input           | output          | word            |
/// |------------------|-----------------|-----------------|-----------------|
/// | kGradient        | float, double   | float3, double3 | "gradient"      |
/// | kLaplacian       | float, double   | float, double   | "laplacian"     |
/// | kMeanCurvature   | float, double   | float, double   | "gradient"      |
/// | kClosestPoint    | float, double   | float3, double3 | "closest_point" |
/// | kDivergence      | float3, double3 | float, double   | "divergence"    |
/// | kCurl            | float3, double3 | float3, double3 | "curl"          |
/// | kMagnitude       | float3, double3 | float, double   | "magnitude"     |
/// | kNormalize       | float3, double3 | float3, double3 | "normalize"     |
/// The mean curvature is named like a gradient: the two replace each other's output.
enum class AnalyzeOperator : int {
    kGradient,
    kLaplacian,
    kDivergence,
    kCurl,
    kMeanCurvature,
    kClosestPoint,
    kMagnitude,
    kNormalize,
};

/// The word that names the output of @p op ("gradient", ...).
HEXMOLD_API char const* analyzeOutputWord(AnalyzeOperator op);

/// Options of `analyze`.
struct AnalyzeOptions {
    /// The input channels: a name, or a selection pattern (substrate/channel_parser.h: "*",
    /// globs such as "voxel_*", "^name" to leave one out). Empty means every channel.
    std::string channels = kDistanceChannel;
    /// Optional float channel: only voxels whose mask value is strictly negative are computed,
    /// the others hold zero. Empty: no mask.
    std::string mask;
    /// The output takes the input's name and replaces it; otherwise it is "<input>_<word>".
    bool replaceInput = false;
};

/// @brief Derives a new channel with @p op from each selected channel of @p io_volume whose
///        element type the operator takes.
/// @details One call of `analyze<Operator>`. Second-order central differences at each tile's
///          own resolution, at every voxel of every tile. A channel of the output's name is
///          replaced. Copies of the volume are not changed.
/// @return the names of the channels written, in the order of their inputs' names.
/// @throws Error for an empty volume, a pattern that does not parse, a selection with no channel
///         the operator takes (a missing name, or channels of other element types), and a mask
///         that is not a float voxel channel; std::runtime_error on job cancellation.
HEXMOLD_API std::vector<std::string> analyze(Volume& io_volume, AnalyzeOperator op,
                                             AnalyzeOptions const& options = {});

} // namespace hexmold
