/// @file  substrate/cancel.h
/// @brief Cancellation of a running operation by the host: the early exit of parallel bodies and
///        the exception that ends the operation.
/// @details The protocol: each parallel body starts with `if (bodyCancelled()) return;`, and the
///          code that started a parallel construct calls `throwIfJobCancelled()` right after the
///          construct returns. The thrown `std::runtime_error` carries `TVL::exceptionMessage`;
///          drivers hold extracted components in scope guards so that they return to the object
///          while the exception unwinds.
#pragma once
#include <hexmold/export.h>

namespace TVL {

/// Bridge from the host's cancellation flag to the running task group.
class HEXMOLD_API Canceller {
public:
    /// When the host has asked the job to stop, cancels the task group of the running task so
    /// that TBB starts no further work in it. @p id names the kind of work (1: a parallel body of
    /// a tile-tree algorithm); it is not interpreted.
    static void cancelID(int id);
};

/// To be called first in each parallel body (and, in long bodies, between units of work):
/// forwards a host request to the task group and says whether the group is cancelled, in which
/// case the body returns without work. Outside a parallel construct it reports the host flag.
HEXMOLD_API bool bodyCancelled();

/// Throws `std::runtime_error(TVL::exceptionMessage)` when the host has asked the job to stop.
/// Called by the code that started a parallel construct, after it returns.
/// @throws std::runtime_error on job cancellation only.
HEXMOLD_API void throwIfJobCancelled();

} // namespace TVL
