// Tests of the version banner: its parts, its text, and when it is written.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <hexmold/diagnostics/version.h>
#include <regex>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

char const* const kVariable = "ZELKOR_DUMP_VERSION_INFO";

/// Sets (or with null, unsets) the banner variable for one test and restores it afterwards.
class ScopedBannerVariable {
public:
    explicit ScopedBannerVariable(char const* value)
    {
        if (char const* old = std::getenv(kVariable))
            mOld = old, mHadOld = true;
        if (value)
            ::setenv(kVariable, value, 1);
        else
            ::unsetenv(kVariable);
    }
    ~ScopedBannerVariable()
    {
        if (mHadOld)
            ::setenv(kVariable, mOld.c_str(), 1);
        else
            ::unsetenv(kVariable);
    }

private:
    std::string mOld;
    bool mHadOld = false;
};

/// The line expected on the stream, built from the accessors with printf's field width.
std::string expectedLine()
{
    char line[512];
    std::snprintf(line, sizeof line,
                  "%16s: %s version %d.%d.%d.%d (%s, build %s, commit %s, branch %s)\n",
                  CoreGL::versionModuleName(), CoreGL::versionProductName(), CoreGL::versionMajor(),
                  CoreGL::versionMinor(), CoreGL::versionPatch(), CoreGL::versionTweak(),
                  CoreGL::versionBuildDate(), CoreGL::versionBuildNumber(), CoreGL::versionCommit(),
                  CoreGL::versionBranch());
    return line;
}

/// Calls dumpVersionInfo on a temporary file; returns what was written.
std::string dumpToTemporaryFile(bool* out_result = nullptr)
{
    std::FILE* file = std::tmpfile();
    EXPECT_NE(file, nullptr);
    if (!file)
        return {};
    bool const result = CoreGL::dumpVersionInfo(file);
    if (out_result)
        *out_result = result;
    std::rewind(file);
    std::string text;
    for (int c; (c = std::fgetc(file)) != EOF;)
        text.push_back(static_cast<char>(c));
    std::fclose(file);
    return text;
}

/// Runs this test program again (listing its tests only) with the banner variable set to
/// @p value (null: unset), and returns what it wrote to standard error.
std::string stderrOfFreshProcess(char const* value)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return "pipe failed";
    pid_t const pid = ::fork();
    if (pid == 0) {
        ::dup2(fds[1], 2);
        ::close(fds[0]);
        ::close(fds[1]);
        int const devNull = ::open("/dev/null", O_WRONLY);
        ::dup2(devNull, 1);
        if (value)
            ::setenv(kVariable, value, 1);
        else
            ::unsetenv(kVariable);
        char arg0[] = "test_diagnostics";
        char arg1[] = "--gtest_list_tests";
        char* argv[] = {arg0, arg1, nullptr};
        ::execv("/proc/self/exe", argv);
        ::_exit(127);
    }
    ::close(fds[1]);
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, n);
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    return text;
}

} // namespace

TEST(Version, ProductAndModuleAreHexmold)
{
    EXPECT_STREQ(CoreGL::versionProductName(), "Hexmold");
    EXPECT_STREQ(CoreGL::versionModuleName(), "Hexmold");
}

TEST(Version, PartsAreTheProjectVersion)
{
    // HEXMOLD_PROJECT_VERSION: the version the build was configured with,
    // "major.minor.patch.tweak".
    std::string const parts =
        std::to_string(CoreGL::versionMajor()) + "." + std::to_string(CoreGL::versionMinor()) +
        "." + std::to_string(CoreGL::versionPatch()) + "." + std::to_string(CoreGL::versionTweak());
    EXPECT_EQ(parts, HEXMOLD_PROJECT_VERSION);
    EXPECT_TRUE(
        std::regex_match(CoreGL::versionBuildDate(), std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}")))
        << CoreGL::versionBuildDate();
}

TEST(Version, SourceRevisionIsKnownInACheckout)
{
    // The "unknown" fallback is for builds outside a git checkout only.
    if (!std::filesystem::exists(std::filesystem::path(HEXMOLD_SOURCE_DIR) / ".git"))
        GTEST_SKIP() << "the sources at " << HEXMOLD_SOURCE_DIR << " are not a git checkout";
    EXPECT_TRUE(std::regex_match(CoreGL::versionCommit(), std::regex("[0-9a-f]{12}")))
        << CoreGL::versionCommit();
    EXPECT_STRNE(CoreGL::versionBranch(), "unknown");
    EXPECT_STRNE(CoreGL::versionBranch(), "");
    EXPECT_TRUE(std::regex_match(CoreGL::versionBuildNumber(), std::regex("[1-9][0-9]*")))
        << CoreGL::versionBuildNumber();
}

TEST(Version, TextHasTheBannerFormat)
{
    std::string const text = CoreGL::versionText();
    EXPECT_TRUE(std::regex_match(
        text, std::regex("Hexmold version [0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+ \\([^,]+, build "
                         "[0-9]+, commit [^,]+, branch [^)]+\\)")))
        << text;
    EXPECT_EQ(CoreGL::versionBannerLine(), expectedLine());
}

TEST(Version, UnsetVariablePrintsNothing)
{
    ScopedBannerVariable variable(nullptr);
    bool result = true;
    EXPECT_EQ(dumpToTemporaryFile(&result), "");
    EXPECT_FALSE(result);
}

TEST(Version, ZeroPrintsNothing)
{
    for (char const* value : {"0", "", "no", "00"}) {
        ScopedBannerVariable variable(value);
        bool result = true;
        EXPECT_EQ(dumpToTemporaryFile(&result), "") << "'" << value << "'";
        EXPECT_FALSE(result);
    }
}

TEST(Version, OnePrintsExactlyTheBannerLine)
{
    ScopedBannerVariable variable("1");
    bool result = false;
    std::string const text = dumpToTemporaryFile(&result);
    EXPECT_TRUE(result);
    EXPECT_EQ(text, expectedLine());
    // Right-aligned in 16 characters: nine spaces before "Hexmold".
    EXPECT_EQ(text.rfind("         Hexmold: Hexmold version ", 0), 0u) << text;
}

TEST(Version, AnyNonZeroNumberPrints)
{
    for (char const* value : {"2", "-1", "7 days"}) {
        ScopedBannerVariable variable(value);
        EXPECT_EQ(dumpToTemporaryFile(), expectedLine()) << value;
    }
}

TEST(Version, NullStreamPrintsNothing)
{
    ScopedBannerVariable variable("1");
    EXPECT_FALSE(CoreGL::dumpVersionInfo(nullptr));
}

TEST(Version, StreamWithoutDescriptorPrintsNothing)
{
    // A stream that is not backed by a file descriptor: fileno gives -1.
    ScopedBannerVariable variable("1");
    static std::string written;
    written.clear();
    cookie_io_functions_t functions{};
    functions.write = [](void*, char const* data, size_t size) -> ssize_t {
        written.append(data, size);
        return static_cast<ssize_t>(size);
    };
    std::FILE* stream = ::fopencookie(nullptr, "w", functions);
    ASSERT_NE(stream, nullptr);
    ASSERT_LT(::fileno(stream), 0);
    EXPECT_FALSE(CoreGL::dumpVersionInfo(stream));
    std::fclose(stream);
    EXPECT_EQ(written, "");
}

TEST(Version, ClosedStderrPrintsNothingAndDoesNotFail)
{
    pid_t const pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::close(2);
        ::setenv(kVariable, "1", 1);
        bool const written = CoreGL::dumpVersionInfo(stderr);
        ::_exit(written ? 3 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Version, BannerAtLoadOnlyWhenAskedFor)
{
    EXPECT_EQ(stderrOfFreshProcess(nullptr), "");
    EXPECT_EQ(stderrOfFreshProcess("0"), "");
    EXPECT_EQ(stderrOfFreshProcess("1"), expectedLine());
}

TEST(Version, BannerAtLoadWithStderrClosedDoesNotFail)
{
    pid_t const pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // /dev/null first: opened after the close it would take descriptor 2.
        int const devNull = ::open("/dev/null", O_WRONLY);
        ::dup2(devNull, 1);
        ::close(devNull);
        ::close(2);
        ::setenv(kVariable, "1", 1);
        char arg0[] = "test_diagnostics";
        char arg1[] = "--gtest_list_tests";
        char* argv[] = {arg0, arg1, nullptr};
        ::execv("/proc/self/exe", argv);
        ::_exit(127);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
