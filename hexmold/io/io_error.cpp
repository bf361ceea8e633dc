/// @file  io/io_error.cpp
/// @brief The error of the file readers.
#include <hexmold/io/io_error.h>

namespace hexmold::io {

IoError::IoError(std::string const& file, std::string const& reason)
    : std::runtime_error(file + ": " + reason),
      mParts(std::make_shared<Parts const>(Parts{file, reason}))
{
}

// Defined here so that the type information lives in the io library alone, which is what lets
// callers catch the error by type across the library boundary.
IoError::~IoError() = default;

std::string const& IoError::file() const noexcept
{
    return mParts->file;
}
std::string const& IoError::reason() const noexcept
{
    return mParts->reason;
}

} // namespace hexmold::io
