/// @file  io/io_error.h
/// @brief `hexmold::io::IoError`: the one error of the file readers.
#pragma once
#include <hexmold/io/export.h>
#include <memory>
#include <stdexcept>
#include <string>

namespace hexmold::io {

/// @brief A file could not be read: missing, unreadable, truncated, malformed or holding nothing
///        usable.
/// @details `what()` is "<file>: <reason>", so a message shown as it is names both; `file()` and
///          `reason()` give the two parts. Copies share the strings and never throw.
class HEXMOLD_IO_API IoError : public std::runtime_error {
public:
    /// @param file    the path as the caller gave it
    /// @param reason  what is wrong with it, one line without a trailing period
    IoError(std::string const& file, std::string const& reason);
    ~IoError() override;

    /// The path of the file, as the caller gave it.
    std::string const& file() const noexcept;
    /// What is wrong with the file.
    std::string const& reason() const noexcept;

private:
    struct Parts {
        std::string file;
        std::string reason;
    };
    std::shared_ptr<Parts const> mParts;
};

} // namespace hexmold::io
