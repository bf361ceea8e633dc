/// @file  diagnostics/version.h
/// @brief The version banner: the library's version, build and source identity, and the line
///        written to standard error at load when the host asks for it.
/// @details All parts are constants fixed when the library is built. The banner line is the
///          module name right-aligned in a field of 16 characters, ": ", the version text and a
///          newline; the version text reads
///          "<product> version <major>.<minor>.<patch>.<tweak> (<build date>, build <number>,
///          commit <hash>, branch <branch>)". The commit is the first 12 hex digits of the
///          source revision. At load the library writes the line to standard error when the
///          environment variable "ZELKOR_DUMP_VERSION_INFO" holds a number other than 0.
#pragma once
#include <cstdio>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>

namespace CoreGL {

/// The product word of the version text: "Hexmold".
HEXMOLD_API char const* versionProductName();
/// The module name of the banner line: "Hexmold".
HEXMOLD_API char const* versionModuleName();
HEXMOLD_API int versionMajor();
HEXMOLD_API int versionMinor();
HEXMOLD_API int versionPatch();
HEXMOLD_API int versionTweak();
/// Date of the build, "YYYY-MM-DD" (UTC).
HEXMOLD_API char const* versionBuildDate();
/// Build number: the count of revisions in the source history.
HEXMOLD_API char const* versionBuildNumber();
/// Start of the source revision's hash (12 hex digits); "unknown" outside a repository.
HEXMOLD_API char const* versionCommit();
/// Source branch; "unknown" outside a repository.
HEXMOLD_API char const* versionBranch();

/// The version text (see the file comment), without a newline.
HEXMOLD_API Quillon::String versionText();
/// The banner line, newline included.
HEXMOLD_API Quillon::String versionBannerLine();

/// Name of the environment variable that switches the banner on.
inline constexpr char const* kDumpVersionInfoVariable = "ZELKOR_DUMP_VERSION_INFO";

/// @brief Writes the banner line to @p stream if the environment asks for it.
/// @details Writes when "ZELKOR_DUMP_VERSION_INFO" is set and `atoi` of it is not 0, and
///          @p stream is an open stream on an open file descriptor (`fileno` not negative and the
///          descriptor valid). The variable is read at every call. A failing write is ignored.
/// @param stream  where to write; null writes nothing
/// @return true when the line was written in full.
HEXMOLD_API bool dumpVersionInfo(std::FILE* stream);

} // namespace CoreGL
