/// @file  io/detail/check_mesh_file.h
/// @brief Structural checks of PLY, OFF and STL files, run before Assimp parses them.
/// @details Assimp reads what these formats' files hold without checking that all of it is
///          there: a truncated PLY or OFF body comes back padded with zeros, OFF indices out of
///          range are clamped, a truncated ASCII STL loses its tail, and a PLY header cut short
///          can keep its parser looping. These checks walk the file's structure (header, counts,
///          the values each element needs, OFF indices) without keeping any value, so that
///          only whole, well-formed files reach Assimp. Each answers the reason a file is
///          refused, one line, or the empty string for a file that passes.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace hexmold::io::detail {

/// Problem of the PLY file whose whole content is @p bytes (ASCII or binary of either byte
/// order): an incomplete or malformed header, an element with missing or extra values, a list
/// with a negative length or a non-integer entry, a binary body shorter than its elements.
std::string plyProblem(std::string_view bytes);

/// Problem of the OFF file whose whole content is @p bytes: a variant other than OFF, COFF, NOFF
/// and STOFF, malformed counts, a vertex line with too few numbers, a face line with too few or
/// non-integer indices, an index outside [0, vertex count), fewer lines than the counts give.
/// Comments run from '#' to the end of their line.
std::string offProblem(std::string_view bytes);

/// Problem of the STL file of @p size bytes whose first bytes are @p head (at least 512 of them,
/// or the whole file) and whose last bytes are @p tail (up to 4096): a binary file whose size
/// differs from what its triangle count needs (truncated or with trailing bytes), an ASCII file
/// that does not end with "endsolid".
std::string stlProblem(std::string_view head, std::string_view tail, std::uint64_t size);

} // namespace hexmold::io::detail
