// Tests of the recording RuntimeServices double.
#include <gtest/gtest.h>
#include <hexmold/platform/testing/recording_services.h>
#include <thread>
#include <vector>

using Quillon::RuntimeMessageCategory;
using Quillon::Testing::RecordingServices;

TEST(RecordingServices, RecordsCategoryAndTextInOrder)
{
    RecordingServices services;
    services.logImpl(RuntimeMessageCategory::kInfo, "one");
    services.logImpl(RuntimeMessageCategory::kError, "two");
    services.logImpl(RuntimeMessageCategory::kWarning, "three");
    auto const messages = services.messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].category, RuntimeMessageCategory::kInfo);
    EXPECT_EQ(messages[0].text, "one");
    EXPECT_EQ(messages[1].category, RuntimeMessageCategory::kError);
    EXPECT_EQ(messages[1].text, "two");
    EXPECT_EQ(messages[2].category, RuntimeMessageCategory::kWarning);
    EXPECT_EQ(messages[2].text, "three");
    EXPECT_EQ(services.count(RuntimeMessageCategory::kWarning), 1u);
    EXPECT_TRUE(services.contains(RuntimeMessageCategory::kError, "tw"));
    EXPECT_FALSE(services.contains(RuntimeMessageCategory::kInfo, "two"));
}

TEST(RecordingServices, DisabledCategoryIsNotRecorded)
{
    RecordingServices services;
    services.setEnabled(RuntimeMessageCategory::kWarning, false);
    EXPECT_FALSE(services.isLogEnabled(RuntimeMessageCategory::kWarning));
    EXPECT_TRUE(services.isLogEnabled(RuntimeMessageCategory::kInfo));
    services.logImpl(RuntimeMessageCategory::kWarning, "dropped");
    services.logImpl(RuntimeMessageCategory::kInfo, "kept");
    EXPECT_EQ(services.size(), 1u);
    EXPECT_EQ(services.ignoredCount(), 1u);
    services.clear();
    EXPECT_EQ(services.size(), 0u);
    EXPECT_EQ(services.ignoredCount(), 0u);
    EXPECT_FALSE(services.isLogEnabled(RuntimeMessageCategory::kWarning));
}

TEST(RecordingServices, AllOffAtConstruction)
{
    RecordingServices services(false);
    for (auto c : {RuntimeMessageCategory::kInfo, RuntimeMessageCategory::kWarning,
                   RuntimeMessageCategory::kError})
        EXPECT_FALSE(services.isLogEnabled(c));
}

TEST(RecordingServices, UnknownCategoryIsIgnored)
{
    RecordingServices services;
    auto const unknown = static_cast<RuntimeMessageCategory>(7);
    EXPECT_FALSE(services.isLogEnabled(unknown));
    services.logImpl(unknown, "x");
    EXPECT_EQ(services.size(), 0u);
    EXPECT_EQ(services.ignoredCount(), 1u);
}

TEST(RecordingServices, ConcurrentLoggingLosesNothing)
{
    RecordingServices services;
    constexpr int kThreads = 4, kPerThread = 1000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&services] {
            for (int i = 0; i < kPerThread; ++i)
                services.logImpl(RuntimeMessageCategory::kInfo, "line");
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(services.size(), static_cast<std::size_t>(kThreads * kPerThread));
}
