/// @file  platform/quillon/string.h
/// @brief The host runtime's string types: an owning string and a non-owning view.
#pragma once
#include <string>
#include <string_view>

namespace Quillon {

/// Owning UTF-8 string; joins with operator+ as the timer names do.
using String = std::string;
/// Non-owning view of a string; what the loggers take.
using StringView = std::string_view;

} // namespace Quillon
