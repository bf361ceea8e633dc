// Tests of Tavrel::Math::Stepper: step counts, equal increments, invalid input, logging.
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/stepper.h>
#include <hexmold/platform/testing/recording_services.h>
#include <limits>

using Tavrel::Math::Stepper;

namespace {

/// Runs a stepper to its end; returns the number of steps taken, at most @p limit.
std::uint64_t runToEnd(Stepper& stepper, std::uint64_t limit = 1000000)
{
    CoreGL::NOPLogger logger;
    std::uint64_t steps = 0;
    while (stepper && steps < limit) {
        stepper.step(logger);
        ++steps;
    }
    return steps;
}

/// Restores the verbose level when a test ends.
struct VerboseLevelGuard {
    int saved = CoreGL::Logger::verboseLevel();
    ~VerboseLevelGuard() { CoreGL::Logger::setVerboseLevel(saved); }
};

} // namespace

TEST(Stepper, FiveVoxelsAtCflOneSevenTakeThreeEqualSteps)
{
    float const voxelSize = 0.1f;
    float const cfl = voxelSize * 1.7f;
    Stepper stepper(5.0f * voxelSize, cfl);
    EXPECT_EQ(stepper.stepCount(), 3u);
    EXPECT_LE(stepper.increment(), cfl);
    EXPECT_NEAR(stepper.increment(), 5.0f * voxelSize / 3.0f, 1e-7f);
    EXPECT_EQ(runToEnd(stepper), 3u);
    EXPECT_NEAR(stepper.covered(), 0.5, 1e-6);
}

TEST(Stepper, StepCountIsCeilingOfQuotient)
{
    struct Case {
        float total, maximum;
        std::uint64_t steps;
    };
    // The quotient is that of the two floats as stored: 0.3f / 0.1f is 3.00000007 and
    // 100 / 0.01f is 10000.0002, so both need one step more than their decimal reading.
    Case const cases[] = {{1.0f, 1.0f, 1}, {1.0f, 0.5f, 2},       {1.0f, 0.3f, 4},
                          {3.4f, 1.7f, 2}, {0.3f, 0.1f, 4},       {10.0f, 3.0f, 4},
                          {0.1f, 7.0f, 1}, {100.0f, 0.01f, 10001}};
    for (Case const& c : cases) {
        Stepper stepper(c.total, c.maximum);
        double const exact = std::ceil(static_cast<double>(c.total) / c.maximum);
        EXPECT_EQ(stepper.stepCount(), c.steps) << c.total << " / " << c.maximum;
        EXPECT_EQ(static_cast<double>(stepper.stepCount()), exact);
        EXPECT_EQ(runToEnd(stepper), c.steps);
    }
}

TEST(Stepper, IncrementsAreEqualAndNeverAboveMaximum)
{
    for (int i = 1; i < 2000; ++i) {
        float const total = 0.013f * static_cast<float>(i);
        float const maximum = 0.17f;
        Stepper stepper(total, maximum);
        ASSERT_GT(stepper.stepCount(), 0u);
        EXPECT_LE(stepper.increment(), maximum);
        EXPECT_GT(stepper.increment(), 0.0f);
        // n increments cover the total up to single-precision rounding.
        double const sum = static_cast<double>(stepper.increment()) * stepper.stepCount();
        EXPECT_NEAR(sum, total, 4e-7 * total) << total;
        // One step fewer would need an increment above the maximum.
        EXPECT_GT(static_cast<double>(total) / (stepper.stepCount() - 1.0), maximum);
    }
}

TEST(Stepper, ZeroTotalGivesNoStep)
{
    Stepper stepper(0.0f, 0.17f);
    EXPECT_FALSE(static_cast<bool>(stepper));
    EXPECT_EQ(stepper.stepCount(), 0u);
    EXPECT_EQ(stepper.increment(), 0.0f);
}

TEST(Stepper, NegativeOrNonFiniteTotalGivesNoStep)
{
    float const nan = std::numeric_limits<float>::quiet_NaN();
    float const inf = std::numeric_limits<float>::infinity();
    for (float total : {-1.0f, -0.0f, nan, inf, -inf}) {
        Stepper stepper(total, 0.5f);
        EXPECT_FALSE(static_cast<bool>(stepper)) << total;
        EXPECT_EQ(runToEnd(stepper, 10), 0u);
        EXPECT_EQ(stepper.increment(), 0.0f);
    }
}

TEST(Stepper, ZeroNegativeOrNanMaximumGivesNoStep)
{
    float const nan = std::numeric_limits<float>::quiet_NaN();
    for (float maximum : {0.0f, -0.0f, -1.0f, nan, -std::numeric_limits<float>::infinity()}) {
        Stepper stepper(1.0f, maximum);
        EXPECT_FALSE(static_cast<bool>(stepper)) << maximum;
        EXPECT_EQ(runToEnd(stepper, 10), 0u);
        EXPECT_EQ(stepper.increment(), 0.0f);
    }
}

TEST(Stepper, InfiniteMaximumGivesOneStepOfTheTotal)
{
    Stepper stepper(2.5f, std::numeric_limits<float>::infinity());
    EXPECT_EQ(stepper.stepCount(), 1u);
    EXPECT_EQ(stepper.increment(), 2.5f);
}

TEST(Stepper, HugeStepCountIsRefused)
{
    // 1e30 / 1e-30 steps would never end: refused rather than looping.
    Stepper stepper(1e30f, 1e-30f);
    EXPECT_FALSE(static_cast<bool>(stepper));
    EXPECT_EQ(stepper.stepCount(), 0u);
}

TEST(Stepper, SubnormalMaximumStillGivesBoundedIncrements)
{
    float const tiny = std::numeric_limits<float>::denorm_min();
    Stepper stepper(8.0f * tiny, tiny);
    EXPECT_EQ(stepper.stepCount(), 8u);
    EXPECT_EQ(stepper.increment(), tiny);
}

TEST(Stepper, StepAfterTheLastDoesNothing)
{
    Stepper stepper(1.0f, 0.5f);
    CoreGL::NOPLogger logger;
    stepper.step(logger);
    stepper.step(logger);
    EXPECT_FALSE(static_cast<bool>(stepper));
    stepper.step(logger);
    EXPECT_EQ(stepper.stepsTaken(), 2u);
    EXPECT_EQ(stepper.stepsRemaining(), 0u);
}

TEST(Stepper, LogsEachStepOnlyAboveVerboseLevelTwo)
{
    VerboseLevelGuard guard;
    Quillon::Testing::RecordingServices services;
    CoreGL::QuillonLogger logger(&services);

    CoreGL::Logger::setVerboseLevel(2);
    Stepper quiet(1.0f, 0.5f);
    while (quiet)
        quiet.step(logger);
    EXPECT_EQ(services.size(), 0u);

    CoreGL::Logger::setVerboseLevel(3);
    Stepper loud(1.0f, 0.5f);
    while (loud)
        loud.step(logger);
    auto const infos = services.texts(Quillon::RuntimeMessageCategory::kInfo);
    ASSERT_EQ(infos.size(), 2u);
    EXPECT_EQ(infos[0].rfind("Stepper: step 1 of 2, increment 0.5", 0), 0u) << infos[0];
    EXPECT_EQ(infos[1].rfind("Stepper: step 2 of 2, increment 0.5", 0), 0u) << infos[1];
    EXPECT_EQ(services.count(Quillon::RuntimeMessageCategory::kWarning), 0u);
}
