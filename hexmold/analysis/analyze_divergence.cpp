/// @file  analysis/analyze_divergence.cpp
/// @brief `analyze<DivergenceOperator>`, both trees and both precisions.
#include <hexmold/analysis/detail/analyze_impl.h>

namespace VolumeGL::TileTree3D {

template decltype(analyze<Analyze::DivergenceOperator>) analyze<Analyze::DivergenceOperator>;

} // namespace VolumeGL::TileTree3D
