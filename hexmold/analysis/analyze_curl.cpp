/// @file  analysis/analyze_curl.cpp
/// @brief `analyze<CurlOperator>`, both trees and both precisions.
#include <hexmold/analysis/detail/analyze_impl.h>

namespace VolumeGL::TileTree3D {

template decltype(analyze<Analyze::CurlOperator>) analyze<Analyze::CurlOperator>;

} // namespace VolumeGL::TileTree3D
