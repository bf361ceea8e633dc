/// @file  diagnostics/version.cpp
/// @brief Version banner parts from the build settings, and the banner written at load.
#include <hexmold/diagnostics/version.h>

#include <cstdlib>
#include <fcntl.h>
#include <hexmold/build_info.h>
#include <string>

namespace CoreGL {

char const* versionProductName()
{
    return "Hexmold";
}
char const* versionModuleName()
{
    return "Hexmold";
}
int versionMajor()
{
    return HEXMOLD_VERSION_MAJOR;
}
int versionMinor()
{
    return HEXMOLD_VERSION_MINOR;
}
int versionPatch()
{
    return HEXMOLD_VERSION_PATCH;
}
int versionTweak()
{
    return HEXMOLD_VERSION_TWEAK;
}
char const* versionBuildDate()
{
    return HEXMOLD_BUILD_DATE;
}
char const* versionBuildNumber()
{
    return HEXMOLD_BUILD_NUMBER;
}
char const* versionCommit()
{
    return HEXMOLD_GIT_COMMIT;
}
char const* versionBranch()
{
    return HEXMOLD_GIT_BRANCH;
}

Quillon::String versionText()
{
    return Quillon::String(versionProductName()) + " version " + std::to_string(versionMajor()) +
           "." + std::to_string(versionMinor()) + "." + std::to_string(versionPatch()) + "." +
           std::to_string(versionTweak()) + " (" + versionBuildDate() + ", build " +
           versionBuildNumber() + ", commit " + versionCommit() + ", branch " + versionBranch() +
           ")";
}

Quillon::String versionBannerLine()
{
    Quillon::String module = versionModuleName();
    if (module.size() < 16)
        module.insert(0, 16 - module.size(), ' ');
    return module + ": " + versionText() + "\n";
}

bool dumpVersionInfo(std::FILE* stream)
{
    char const* value = std::getenv(kDumpVersionInfoVariable);
    if (!value || std::atoi(value) == 0 || !stream)
        return false;
    // A negative descriptor: a stream without a file (e.g. stderr of a program without a
    // console). A closed descriptor: the host closed standard error.
    int const fd = fileno(stream);
    if (fd < 0 || fcntl(fd, F_GETFD) == -1)
        return false;
    Quillon::String const line = versionBannerLine();
    bool const written = std::fwrite(line.data(), 1, line.size(), stream) == line.size();
    return std::fflush(stream) == 0 && written;
}

namespace {

/// Writes the banner once, while the library loads.
struct VersionBannerAtLoad {
    VersionBannerAtLoad() { dumpVersionInfo(stderr); }
};
VersionBannerAtLoad const gVersionBannerAtLoad;

} // namespace

} // namespace CoreGL
