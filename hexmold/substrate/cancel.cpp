/// @file  substrate/cancel.cpp
/// @brief Early exit of parallel bodies and the cancellation exception.
#include <hexmold/substrate/cancel.h>

#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/substrate/parallel.h>
#include <stdexcept>

namespace TVL {

void Canceller::cancelID(int)
{
    if (!Quillon::isJobCancelled())
        return;
    if (Parallel::task_group_context* ctx = Parallel::currentContext())
        ctx->cancel_group_execution();
}

bool bodyCancelled()
{
    Canceller::cancelID(1);
    Parallel::task_group_context* ctx = Parallel::currentContext();
    return ctx ? ctx->is_group_execution_cancelled() : Quillon::isJobCancelled();
}

void throwIfJobCancelled()
{
    if (Quillon::isJobCancelled())
        throw std::runtime_error(TVL::exceptionMessage);
}

} // namespace TVL
