/// @file  substrate/parallel.h
/// @brief The one door to Intel TBB: every parallel construct of the library comes through here.
/// @details Library sources include this header instead of any TBB header, so that the set of
///          TBB facilities in use is visible in one place. Public algorithm headers never include
///          it; only `.cpp` files and `detail/` bodies do.
#pragma once
#include <cstddef>
#include <tbb/blocked_range.h>
#include <tbb/concurrent_vector.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_reduce.h>
#include <tbb/parallel_sort.h>
#include <tbb/partitioner.h>
#include <tbb/task.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

namespace TVL::Parallel {

using tbb::auto_partitioner;
using tbb::blocked_range;
using tbb::concurrent_vector;
using tbb::enumerable_thread_specific;
using tbb::global_control;
using tbb::parallel_deterministic_reduce;
using tbb::parallel_for;
using tbb::parallel_reduce;
using tbb::parallel_sort;
using tbb::simple_partitioner;
using tbb::split;
using tbb::task_group;
using tbb::task_group_context;

/// Runs @p f so that, while it waits inside nested parallel constructs, the calling thread takes
/// no unrelated outer work. Traversals run their constructs this way so that a visitor's worker
/// copy is never re-entered by a task stolen from an enclosing traversal.
template <typename F> decltype(auto) isolate(F&& f)
{
    return tbb::this_task_arena::isolate(static_cast<F&&>(f));
}

/// Threads that may work at once: the smaller of the arena's concurrency and the process-wide
/// limit set through `global_control`.
inline int maxConcurrency()
{
    int const arena = tbb::this_task_arena::max_concurrency();
    auto const limit =
        static_cast<int>(global_control::active_value(global_control::max_allowed_parallelism));
    return limit < arena ? limit : arena;
}

/// The task group of the running task, or null outside a parallel construct.
inline task_group_context* currentContext()
{
    return tbb::task::current_context();
}

} // namespace TVL::Parallel
