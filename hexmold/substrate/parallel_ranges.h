/// @file  substrate/parallel_ranges.h
/// @brief Cancellable parallel loops over [0, count): the shape of most loops over a depth's
///        tiles, with the cancellation protocol of substrate/cancel.h built in.
/// @details Only for `.cpp` files and `detail/` bodies, as substrate/parallel.h.
#pragma once
#include <algorithm>
#include <cstdint>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/parallel.h>

namespace TVL::Parallel {

/// Runs @p body(begin, end) over [0, count) in parallel, auto-partitioned, in a task group of its
/// own; each worker range makes its scratch once. A range starting after the job was cancelled
/// does no work, and the call throws after the loop.
/// @throws std::runtime_error on job cancellation.
template <typename Body>
void cancellableRanges(std::int64_t count, Body const& body, std::size_t grain = 1)
{
    if (count <= 0)
        return;
    task_group_context context;
    parallel_for(
        blocked_range<std::int64_t>(0, count, grain),
        [&](blocked_range<std::int64_t> const& r) {
            if (bodyCancelled())
                return;
            body(r.begin(), r.end());
        },
        auto_partitioner(), context);
    throwIfJobCancelled();
}

/// The maximum of @p body(begin, end) over [0, count), joined by maximum (0 for no work).
/// @throws std::runtime_error on job cancellation.
template <typename Body>
float cancellableMaximum(std::int64_t count, Body const& body, std::size_t grain = 1)
{
    if (count <= 0)
        return 0.0f;
    task_group_context context;
    float const result = parallel_reduce(
        blocked_range<std::int64_t>(0, count, grain), 0.0f,
        [&](blocked_range<std::int64_t> const& r, float running) {
            if (bodyCancelled())
                return running;
            return std::max(running, body(r.begin(), r.end()));
        },
        [](float a, float b) { return std::max(a, b); }, auto_partitioner(), context);
    throwIfJobCancelled();
    return result;
}

} // namespace TVL::Parallel
