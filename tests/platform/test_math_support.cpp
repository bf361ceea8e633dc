// The cancellation message and the host's cancellation flag. The exception that carries the
// message is thrown by throwIfJobCancelled, tested with the substrate (test_cancel.cpp).
#include <gtest/gtest.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>

TEST(MathSupport, ExceptionMessageIsJobCancelled)
{
    EXPECT_EQ(TVL::exceptionMessage, "Job cancelled.");
}

TEST(MathSupport, CancellationRequestIsSeenAndCleared)
{
    EXPECT_FALSE(Quillon::isJobCancelled());
    Quillon::requestJobCancellation();
    EXPECT_TRUE(Quillon::isJobCancelled());
    Quillon::clearJobCancellation();
    EXPECT_FALSE(Quillon::isJobCancelled());
}
