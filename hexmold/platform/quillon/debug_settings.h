/// @file  platform/quillon/debug_settings.h
/// @brief The host runtime's process-wide debug settings: verbose levels and frame number.
/// @details The host owns these values; `CoreGL::Logger` reads them on every test and its setters
///          write them. They sit here, below everything else, so that host-side classes (the
///          stepper) and the library's logger read the same switches without either including
///          the other.
#pragma once
#include <atomic>
#include <hexmold/export.h>

namespace Quillon::DebugSettings {

/// Level of debug output; 0 by default.
HEXMOLD_API extern std::atomic<int> verboseLevel;
/// Level of error output; 1 by default (errors, no warnings).
HEXMOLD_API extern std::atomic<int> errorVerboseLevel;
/// Frame number that tags debug lines; 0 by default.
HEXMOLD_API extern std::atomic<float> frame;

} // namespace Quillon::DebugSettings
