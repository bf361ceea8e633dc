// Cancellation: throwIfJobCancelled throws the shared message only when the host asked, and
// bodyCancelled reports the host's flag outside a parallel construct.
#include <gtest/gtest.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/substrate/cancel.h>
#include <stdexcept>
#include <string>

TEST(Cancel, NothingIsThrownWithoutARequest)
{
    Quillon::clearJobCancellation();
    EXPECT_NO_THROW(TVL::throwIfJobCancelled());
    EXPECT_FALSE(TVL::bodyCancelled());
}

TEST(Cancel, ARequestThrowsTheSharedMessage)
{
    Quillon::requestJobCancellation();
    EXPECT_TRUE(TVL::bodyCancelled());
    std::string message;
    try {
        TVL::throwIfJobCancelled();
    } catch (std::runtime_error const& e) {
        message = e.what();
    }
    Quillon::clearJobCancellation();
    EXPECT_EQ(message, TVL::exceptionMessage);
    EXPECT_NO_THROW(TVL::throwIfJobCancelled());
}
