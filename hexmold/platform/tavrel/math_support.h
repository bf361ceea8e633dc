/// @file  platform/tavrel/math_support.h
/// @brief Text of the exception that a cancelled job ends with.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>

namespace TVL {

/// What `std::runtime_error::what()` says when an operation stops because the host cancelled the
/// job: "Job cancelled.". Drivers throw it after a parallel construct when
/// `Quillon::isJobCancelled()` is true; callers may compare against it to tell a cancellation
/// from other failures. Not for use in static initialisers of other translation units (their
/// order against this one is not fixed).
HEXMOLD_API extern Quillon::String const exceptionMessage;

} // namespace TVL
