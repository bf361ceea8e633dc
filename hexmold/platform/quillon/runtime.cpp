/// @file  platform/quillon/runtime.cpp
/// @brief Process-wide state of the host-runtime stand-ins: job cancellation flag and debug
/// settings.
#include <atomic>
#include <hexmold/platform/quillon/debug_settings.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/quillon/runtime_services.h>

namespace Quillon {

RuntimeServices::~RuntimeServices() = default;

namespace {
std::atomic<bool> gJobCancelled{false};
}

bool isJobCancelled()
{
    return gJobCancelled.load(std::memory_order_relaxed);
}
void requestJobCancellation()
{
    gJobCancelled.store(true, std::memory_order_relaxed);
}
void clearJobCancellation()
{
    gJobCancelled.store(false, std::memory_order_relaxed);
}

} // namespace Quillon

namespace Quillon::DebugSettings {

std::atomic<int> verboseLevel{0};
std::atomic<int> errorVerboseLevel{1};
std::atomic<float> frame{0.0f};

} // namespace Quillon::DebugSettings
