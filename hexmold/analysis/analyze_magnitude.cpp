/// @file  analysis/analyze_magnitude.cpp
/// @brief `analyze<MagnitudeOperator>`, both trees and both precisions.
#include <hexmold/analysis/detail/analyze_impl.h>

namespace VolumeGL::TileTree3D {

template decltype(analyze<Analyze::MagnitudeOperator>) analyze<Analyze::MagnitudeOperator>;

} // namespace VolumeGL::TileTree3D
