/// @file  analysis/analyze_laplacian.cpp
/// @brief `analyze<LaplacianOperator>`, both trees and both precisions.
#include <hexmold/analysis/detail/analyze_impl.h>

namespace VolumeGL::TileTree3D {

template decltype(analyze<Analyze::LaplacianOperator>) analyze<Analyze::LaplacianOperator>;

} // namespace VolumeGL::TileTree3D
