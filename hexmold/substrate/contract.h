/// @file  substrate/contract.h
/// @brief `HEXMOLD_EXPECTS`: preconditions of the substrate's accessors (index ranges of tiles,
///        tile stores and tile data), checked in builds without NDEBUG or with HEXMOLD_CONTRACTS
///        defined, and free otherwise.
/// @details A broken precondition is a bug of the caller: the check prints the condition and its
///          place on standard error and aborts, so that the sanitizer and debug builds stop at
///          the first wrong index instead of reading past a block.
#pragma once
#include <cstdio>
#include <cstdlib>

namespace TVL::detail {

[[noreturn]] inline void contractFailed(char const* condition, char const* file, int line)
{
    std::fprintf(stderr, "%s:%d: precondition failed: %s\n", file, line, condition);
    std::abort();
}

} // namespace TVL::detail

#if defined(HEXMOLD_CONTRACTS) || !defined(NDEBUG)
#define HEXMOLD_CONTRACTS_ON 1
#define HEXMOLD_EXPECTS(condition)                                                                 \
    ((condition) ? void(0) : ::TVL::detail::contractFailed(#condition, __FILE__, __LINE__))
#else
#define HEXMOLD_CONTRACTS_ON 0
#define HEXMOLD_EXPECTS(condition) void(0)
#endif
