/// @file  analysis/analyze_closest_point.cpp
/// @brief `analyze<ClosestPointOperator>`, both trees and both precisions.
#include <hexmold/analysis/detail/analyze_impl.h>

namespace VolumeGL::TileTree3D {

template decltype(analyze<Analyze::ClosestPointOperator>) analyze<Analyze::ClosestPointOperator>;

} // namespace VolumeGL::TileTree3D
