/// @file  platform/quillon/runtime_services.h
/// @brief The host runtime's message services, as the loggers use them.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>

namespace Quillon {

/// Category of a message for the runtime's log. Warnings for the user use category 2.
enum class RuntimeMessageCategory : int { kInfo = 1, kWarning = 2, kError = 3 };

/// Services of the graph runtime passed to an operation. The runtime implements them; a test
/// double that records messages lives in platform/testing.
class HEXMOLD_API RuntimeServices {
public:
    virtual ~RuntimeServices();
    /// Whether messages of @p category reach the log at all; callers test this before formatting.
    virtual bool isLogEnabled(RuntimeMessageCategory category) const = 0;
    /// Writes one message.
    virtual void logImpl(RuntimeMessageCategory category, StringView text) const = 0;
};

} // namespace Quillon
