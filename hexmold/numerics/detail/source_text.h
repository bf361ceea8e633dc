/// @file  numerics/detail/source_text.h
/// @brief Formatting of numbers as C++ source text, shared by the table generators.
#pragma once
#include <cstdio>
#include <cstring>
#include <string>

namespace Numerics::detail {

/// @p value as a float literal that reads back to the same float: nine significant digits, a
/// ".0" where the digits alone would read as an integer, and the suffix "f".
inline std::string floatLiteral(float value)
{
    char digits[32];
    std::snprintf(digits, sizeof digits, "%.9g", double(value));
    std::string text = digits;
    if (text.find_first_of(".en") == std::string::npos)
        text += ".0";
    return text + "f";
}

} // namespace Numerics::detail
