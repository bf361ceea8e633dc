/// @file  platform/quillon/any.h
/// @brief The host runtime's type-erased value.
#pragma once
#include <any>

namespace Quillon {

/// Holds one value of any copyable type; `std::any_cast` reads it back.
using Any = std::any;

} // namespace Quillon
