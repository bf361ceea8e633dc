/// @file  substrate/channel_parser.h
/// @brief `TVL::Utils::ChannelParser`: selects channels by a user's pattern.
/// @details Grammar of a pattern:
///          - "*" selects every name.
///          - Otherwise the pattern is a list of terms separated by commas and/or white space;
///            empty terms are skipped.
///          - A term is a glob: `*` matches any run of characters (also none), `?` exactly one
///            character, every other character itself (case-sensitive).
///          - A term that starts with `^` excludes the names its glob (the rest of the term)
///            matches. `^` elsewhere, or a `^` with nothing after it, is an error.
///          - A name is accepted when it matches at least one including term and no excluding
///            term. A pattern of excluding terms only accepts every name it does not exclude.
///          - The empty pattern (or one of separators only) accepts nothing.
///          Examples: "density, temperature" two names; "voxel_*" all names with that prefix;
///          "* ^voxel_signed_distance" or "^voxel_signed_distance" all but one; "vel?" names of
///          four characters beginning with "vel".
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <vector>

namespace TVL::Utils {

/// Outcome of parsing: success, or an error with a message for the user.
class HEXMOLD_API Status {
public:
    Status() = default;
    static Status success() { return Status(); }
    static Status error(Quillon::String message) { return Status(std::move(message), false); }
    bool ok() const { return mOk; }
    explicit operator bool() const { return mOk; }
    Quillon::String const& message() const { return mMessage; }

private:
    Status(Quillon::String message, bool ok) : mMessage(std::move(message)), mOk(ok) {}
    Quillon::String mMessage;
    bool mOk = true;
};

class HEXMOLD_API ChannelParser {
public:
    /// Parses @p pattern; on error the parser accepts nothing until a pattern parses.
    Status parses(Quillon::StringView pattern);
    /// Whether the last parsed pattern selects @p name.
    bool accepts(Quillon::StringView name) const;

private:
    std::vector<Quillon::String> mInclude;
    std::vector<Quillon::String> mExclude;
    bool mValid = false;
};

/// Whether @p name matches the glob @p pattern (`*`, `?`).
HEXMOLD_API bool globMatch(Quillon::StringView pattern, Quillon::StringView name);

} // namespace TVL::Utils
