/// @file  sampling/detail/deterministic_reduce.h
/// @brief The deterministic reduction of TBB, for the sampling folder: its split of a range does
///        not depend on the number of threads, so a reduction that collects tiles gives the same
///        tree on any machine.
#pragma once
#include <hexmold/substrate/parallel.h>
#include <tbb/parallel_reduce.h>

namespace TVL::Parallel {

using tbb::parallel_deterministic_reduce;
using tbb::simple_partitioner;

} // namespace TVL::Parallel
