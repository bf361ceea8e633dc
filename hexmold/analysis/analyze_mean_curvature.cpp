/// @file  analysis/analyze_mean_curvature.cpp
/// @brief `analyze<MeanCurvatureOperator>`, both trees and both precisions.
#include <hexmold/analysis/detail/analyze_impl.h>

namespace VolumeGL::TileTree3D {

template decltype(analyze<Analyze::MeanCurvatureOperator>) analyze<Analyze::MeanCurvatureOperator>;

} // namespace VolumeGL::TileTree3D
