/// @file  api/error.cpp
/// @brief `hexmold::Error`; defined out of line so that its type information lives in the
///        library and a `catch` in a program matches what the library throws.
#include <hexmold/api/error.h>

namespace hexmold {

Error::Error(std::string const& message) : std::runtime_error(message) {}

Error::~Error() = default;

} // namespace hexmold
