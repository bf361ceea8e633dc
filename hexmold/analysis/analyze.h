/// @file  analysis/analyze.h
/// @brief Field operators on the channels of a volume: gradient, Laplacian, divergence, curl, mean
///        curvature, closest point, magnitude and normalisation.
/// @details Each selected channel gives one new channel, computed tile by tile with second-order
///          central differences at every tile's own resolution; the rim of each tile comes from
///          its neighbours across tile borders and resolution jumps (see substrate/halo.h). Every
///          tile at every depth is computed, non-leaf voxels included.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>

namespace TVL {
class Object;
}

namespace VolumeGL::TileTree3D::Analyze {

/// Operator tags. Input and output elements, and the word that names the output:
/// | tag                     | input            | output            | word            |
/// |-------------------------|------------------|-------------------|-----------------|
/// | GradientOperator        | float, double    | float3, double3   | "gradient"      |
/// | LaplacianOperator       | float, double    | float, double     | "laplacian"     |
/// | MeanCurvatureOperator   | float, double    | float, double     | "gradient"      |
/// | ClosestPointOperator    | float, double    | float3, double3   | "closest_point" |
/// | DivergenceOperator      | float3, double3  | float, double     | "divergence"    |
/// | CurlOperator            | float3, double3  | float3, double3   | "curl"          |
/// | MagnitudeOperator       | float3, double3  | float, double     | "magnitude"     |
/// | NormalizeOperator       | float3, double3  | float3, double3   | "normalize"     |
/// The mean curvature output is named like a gradient output; that is kept as it is.
struct HEXMOLD_API GradientOperator {};
struct HEXMOLD_API LaplacianOperator {};
struct HEXMOLD_API DivergenceOperator {};
struct HEXMOLD_API CurlOperator {};
struct HEXMOLD_API MeanCurvatureOperator {};
struct HEXMOLD_API ClosestPointOperator {};
struct HEXMOLD_API MagnitudeOperator {};
struct HEXMOLD_API NormalizeOperator {};

} // namespace VolumeGL::TileTree3D::Analyze

namespace VolumeGL::TileTree3D {

/// @brief Derives a new channel with operator @p Op from each selected channel of @p io_object.
/// @param channels      channel selection pattern ("*" or empty: every channel); names of
///                      element types the operator does not take are passed over
/// @param maskName      optional `float` channel: only voxels whose mask value is strictly
///                      negative are computed, the others keep zero. A name that is not such a
///                      channel means no mask
/// @param replaceInput  true: the output takes the input's name and replaces it; false: the
///                      output is named "<input>_<word>" (the word alone for an unnamed input)
/// @param io_object     the volume; its tree and topology are used for `Traits<2,4,1>` and then
///                      for `Traits<5,5,1>`, wherever present. A channel of the output's name is
///                      replaced. The tree keeps its neighbour and halo tables afterwards
/// @return true when the object holds a tile tree and a voxel topology for at least one tree
///         type, whether or not a channel matched.
/// @throws std::runtime_error(TVL::exceptionMessage) when the host cancels the job; the object
///         then holds every component it held before, under the same names.
/// Threading: parallel over tiles inside; the object must not be used by others meanwhile.
/// Instantiated for the eight operator tags.
template <typename Op>
HEXMOLD_API bool analyze(Quillon::String const& channels, Quillon::String const& maskName,
                         bool replaceInput, TVL::Object& io_object);

} // namespace VolumeGL::TileTree3D
