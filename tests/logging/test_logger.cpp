// Tests of the loggers, the verbose levels and the stage timers.
#include <gtest/gtest.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/testing/recording_services.h>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

using Quillon::RuntimeMessageCategory;
using Quillon::Testing::RecordingServices;

namespace {

/// Restores every process-wide logging switch after a test; named after the family, as the
/// suite is.
class Logger : public ::testing::Test {
protected:
    void TearDown() override
    {
        CoreGL::Logger::setVerboseLevel(mVerbose);
        CoreGL::Logger::setErrorVerboseLevel(mErrorVerbose);
        CoreGL::Logger::setFrame(mFrame);
        CoreGL::Logger::setDebugFileStream(nullptr);
        CoreGL::Logger::setTimerObserver(nullptr);
    }

private:
    int mVerbose = CoreGL::Logger::verboseLevel();
    int mErrorVerbose = CoreGL::Logger::errorVerboseLevel();
    float mFrame = CoreGL::Logger::frame();
};

std::vector<std::string> gObservedTimers;
void observeTimer(Quillon::StringView name, double milliseconds)
{
    EXPECT_GE(milliseconds, 0.0);
    gObservedTimers.emplace_back(name);
}

} // namespace

TEST_F(Logger, DefaultsAreTheDocumentedConstants)
{
    EXPECT_EQ(CoreGL::Logger::kDefaultVerboseLevel, 0);
    EXPECT_EQ(CoreGL::Logger::kDefaultErrorVerboseLevel, 1);
}

TEST_F(Logger, VerboseLevelsAreSettable)
{
    CoreGL::Logger::setVerboseLevel(3);
    CoreGL::Logger::setErrorVerboseLevel(2);
    CoreGL::Logger::setFrame(12.5f);
    EXPECT_EQ(CoreGL::Logger::verboseLevel(), 3);
    EXPECT_EQ(CoreGL::Logger::errorVerboseLevel(), 2);
    EXPECT_EQ(CoreGL::Logger::frame(), 12.5f);
    CoreGL::Logger::setVerboseLevel(-1);
    EXPECT_EQ(CoreGL::Logger::verboseLevel(), -1);
}

TEST_F(Logger, VerboseLevelIsReadAtEachUse)
{
    std::ostringstream debug;
    CoreGL::Logger::setDebugFileStream(&debug);
    CoreGL::Logger::setVerboseLevel(0);
    {
        auto timer = CoreGL::Logger::timer("stage.quiet", nullptr);
    }
    EXPECT_EQ(debug.str(), "");
    // Changed between two uses: the second one sees the new level.
    CoreGL::Logger::setVerboseLevel(1);
    {
        auto timer = CoreGL::Logger::timer("stage.loud", nullptr);
    }
    EXPECT_EQ(debug.str().rfind("timer stage.loud = ", 0), 0u) << debug.str();
    CoreGL::Logger::setVerboseLevel(0);
    debug.str("");
    {
        auto timer = CoreGL::Logger::timer("stage.quiet_again", nullptr);
    }
    EXPECT_EQ(debug.str(), "");
}

TEST_F(Logger, TimerWithNullServicesDoesNotCrash)
{
    CoreGL::Logger::setVerboseLevel(0);
    {
        auto timer = CoreGL::Logger::timer("null.services", nullptr);
    }
    auto timer = CoreGL::Logger::timerPtr("null.services.ptr", nullptr);
    EXPECT_EQ(timer->name(), "null.services.ptr");
    EXPECT_GE(timer->elapsedMilliseconds(), 0.0);
    timer.reset();
    std::ostringstream debug;
    CoreGL::Logger::setDebugFileStream(&debug);
    CoreGL::Logger::setVerboseLevel(3);
    {
        CoreGL::Logger::Timer direct("null.services.direct", nullptr);
    }
    EXPECT_NE(debug.str().find("null.services.direct"), std::string::npos);
}

TEST_F(Logger, TimerReportsToServicesAsInfo)
{
    CoreGL::Logger::setVerboseLevel(0);
    RecordingServices services;
    {
        auto timer = CoreGL::Logger::timer("Volume::analyze_volume.compute", &services);
    }
    auto const infos = services.texts(RuntimeMessageCategory::kInfo);
    ASSERT_EQ(infos.size(), 1u);
    EXPECT_EQ(infos[0].rfind("timer Volume::analyze_volume.compute = ", 0), 0u) << infos[0];
    EXPECT_EQ(services.count(RuntimeMessageCategory::kWarning), 0u);
    EXPECT_EQ(services.count(RuntimeMessageCategory::kError), 0u);
}

TEST_F(Logger, TimerSkipsServicesWithInfoOff)
{
    RecordingServices services;
    services.setEnabled(RuntimeMessageCategory::kInfo, false);
    {
        auto timer = CoreGL::Logger::timer("stage", &services);
    }
    EXPECT_EQ(services.size(), 0u);
    EXPECT_EQ(services.ignoredCount(), 0u);
}

TEST_F(Logger, TimerObserverSeesEveryTimer)
{
    gObservedTimers.clear();
    CoreGL::Logger::setTimerObserver(&observeTimer);
    {
        auto outer = CoreGL::Logger::timer("op.total", nullptr);
        {
            auto inner = CoreGL::Logger::timer("op.stage", nullptr);
        }
    }
    ASSERT_EQ(gObservedTimers.size(), 2u);
    EXPECT_EQ(gObservedTimers[0], "op.stage");
    EXPECT_EQ(gObservedTimers[1], "op.total");
}

TEST_F(Logger, QuillonLoggerReachesServicesWithTheRightCategories)
{
    RecordingServices services;
    CoreGL::QuillonLogger const logger(&services);
    logger.info("an info");
    logger.warn("a warning");
    logger.error("an error");
    auto const messages = services.messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].category, RuntimeMessageCategory::kInfo);
    EXPECT_EQ(messages[0].text, "an info");
    EXPECT_EQ(messages[1].category, RuntimeMessageCategory::kWarning);
    EXPECT_EQ(static_cast<int>(messages[1].category), 2);
    EXPECT_EQ(messages[1].text, "a warning");
    EXPECT_EQ(messages[2].category, RuntimeMessageCategory::kError);
    EXPECT_EQ(messages[2].text, "an error");
    EXPECT_EQ(logger.services(), &services);
}

TEST_F(Logger, QuillonLoggerAsksBeforeLogging)
{
    RecordingServices services;
    services.setEnabled(RuntimeMessageCategory::kWarning, false);
    CoreGL::QuillonLogger const logger(&services);
    logger.warn("dropped");
    logger.info("kept");
    EXPECT_EQ(services.size(), 1u);
    // The logger tested isLogEnabled first, so nothing reached logImpl for the warning.
    EXPECT_EQ(services.ignoredCount(), 0u);
}

TEST_F(Logger, QuillonLoggerWithNullServicesDoesNothing)
{
    CoreGL::QuillonLogger const logger(nullptr);
    logger.info("x");
    logger.warn("y");
    logger.error("z");
    EXPECT_EQ(logger.services(), nullptr);
}

TEST_F(Logger, ConsoleLoggerWritesToTheConsole)
{
    CoreGL::ConsoleLogger const logger;
    ::testing::internal::CaptureStdout();
    logger.info("to stdout");
    std::string const out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "to stdout\n");
    ::testing::internal::CaptureStderr();
    logger.warn("careful");
    logger.error("broken");
    std::string const err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "warning: careful\nerror: broken\n");
}

TEST_F(Logger, NopLoggerHasNoState)
{
    static_assert(std::is_empty_v<CoreGL::NOPLogger>);
    CoreGL::NOPLogger const logger;
    logger.info("x");
    logger.warn("y");
    logger.error("z");
    EXPECT_EQ(logger.services(), nullptr);
}

TEST_F(Logger, DebugStreamRedirectsAndRestores)
{
    std::ostringstream debug;
    CoreGL::Logger::setDebugFileStream(&debug);
    {
        CoreGL::Logger::DebugFileStreamScopedLock lock;
        CoreGL::Logger::debugFileStream() << "line";
    }
    EXPECT_EQ(debug.str(), "line");
    CoreGL::Logger::setDebugFileStream(nullptr);
    EXPECT_EQ(&CoreGL::Logger::debugFileStream(), &std::clog);
}

TEST_F(Logger, SceneUnitsPropertyName)
{
    EXPECT_EQ(CoreGL::sceneUnitsInMeters, "scene_units_in_meters");
}
