/// @file  analysis/analyze_gradient.cpp
/// @brief `analyze<GradientOperator>`, both trees and both precisions.
#include <hexmold/analysis/detail/analyze_impl.h>

namespace VolumeGL::TileTree3D {

template decltype(analyze<Analyze::GradientOperator>) analyze<Analyze::GradientOperator>;

} // namespace VolumeGL::TileTree3D
