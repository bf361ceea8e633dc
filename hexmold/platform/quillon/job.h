/// @file  platform/quillon/job.h
/// @brief Cancellation of the current job, as the host runtime reports it.
#pragma once
#include <hexmold/export.h>

namespace Quillon {

/// True once the host asked the running job to stop. Cheap: one relaxed atomic load.
HEXMOLD_API bool isJobCancelled();
/// Host side: ask the running job to stop.
HEXMOLD_API void requestJobCancellation();
/// Host side: clear a request (before the next job starts).
HEXMOLD_API void clearJobCancellation();

} // namespace Quillon
