// Tests of the cancellation exception text.
#include <stdexcept>
#include <gtest/gtest.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>

TEST(MathSupport, ExceptionMessageIsJobCancelled)
{
    EXPECT_EQ(TVL::exceptionMessage, "Job cancelled.");
}

TEST(MathSupport, CancellationErrorCarriesTheMessage)
{
    Quillon::requestJobCancellation();
    try {
        if (Quillon::isJobCancelled()) throw std::runtime_error(TVL::exceptionMessage);
        ADD_FAILURE() << "cancellation not seen";
    } catch (std::runtime_error const& e) {
        EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
    }
    Quillon::clearJobCancellation();
    EXPECT_FALSE(Quillon::isJobCancelled());
}
