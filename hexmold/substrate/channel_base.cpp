/// @file  substrate/channel_base.cpp
/// @brief Out-of-line anchor of `ChannelBase`, and the substrate's log lines.
#include <hexmold/substrate/channel_base.h>

#include <hexmold/logging/logger.h>
#include <hexmold/substrate/detail/substrate_log.h>
#include <iostream>

namespace TVL::TileTree3D {

ChannelBase::~ChannelBase() = default;

namespace detail {

void logError(Quillon::StringView text)
{
    if (CoreGL::Logger::errorVerboseLevel() > 0)
        std::cerr << text << '\n';
}

void logDebug(Quillon::StringView text)
{
    CoreGL::Logger::DebugFileStreamScopedLock lock;
    CoreGL::Logger::debugFileStream() << text << '\n';
}

} // namespace detail
} // namespace TVL::TileTree3D
