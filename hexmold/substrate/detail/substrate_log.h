/// @file  substrate/detail/substrate_log.h
/// @brief Error and debug lines of the substrate's own bookkeeping (bad input it ignores).
#pragma once
#include <hexmold/platform/quillon/string.h>

namespace TVL::TileTree3D::detail {

/// Writes @p text as one line to the error stream when the error verbose level is above 0.
void logError(Quillon::StringView text);
/// Writes @p text as one line to the debug stream (the caller tests the verbose level).
void logDebug(Quillon::StringView text);

} // namespace TVL::TileTree3D::detail
