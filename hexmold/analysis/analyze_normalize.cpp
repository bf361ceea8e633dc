/// @file  analysis/analyze_normalize.cpp
/// @brief `analyze<NormalizeOperator>`, both trees and both precisions.
#include <hexmold/analysis/detail/analyze_impl.h>

namespace VolumeGL::TileTree3D {

template decltype(analyze<Analyze::NormalizeOperator>) analyze<Analyze::NormalizeOperator>;

} // namespace VolumeGL::TileTree3D
