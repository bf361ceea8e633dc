/// @file  api/error.h
/// @brief `hexmold::Error`: the exception every entry of the `hexmold::` layer throws for input
///        it refuses.
/// @details The operators underneath report bad input by doing nothing and writing a log line;
///          the `hexmold::` layer checks its arguments first and throws instead, so that a caller
///          learns at once what was wrong. Job cancellation still arrives as the
///          `std::runtime_error` of the operators, which `Error` derives from as well.
#pragma once
#include <hexmold/export.h>
#include <stdexcept>
#include <string>

namespace hexmold {

/// Refused input of a `hexmold::` entry. The message names the entry and what was wrong, such
/// as `hexmold::redistance: channel "phi" is not in the volume (channels: voxel_signed_distance)`.
class HEXMOLD_API Error : public std::runtime_error {
public:
    explicit Error(std::string const& message);
    ~Error() override;
};

} // namespace hexmold
