/// @file  platform/tavrel/math_support.cpp
/// @brief Text of the cancellation exception.
#include <hexmold/platform/tavrel/math_support.h>

namespace TVL {

Quillon::String const exceptionMessage = "Job cancelled.";

} // namespace TVL
