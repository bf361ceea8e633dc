/// @file  diagnostics/voxel_hash.cpp
/// @brief The voxel hash debug line.
#include <hexmold/diagnostics/voxel_hash.h>

#include <hexmold/logging/logger.h>
#include <iomanip>
#include <ios>
#include <ostream>

namespace CoreGL {

void writeVoxelHashLine(Quillon::StringView prefix, Quillon::StringView suffix, double hash,
                        int aboveLevel)
{
    if (Logger::verboseLevel() <= aboveLevel)
        return;
    Logger::DebugFileStreamScopedLock lock;
    std::ostream& out = Logger::debugFileStream();
    std::streamsize const precision = out.precision(17);
    out << prefix << suffix << hash << '\n';
    out.precision(precision);
}

} // namespace CoreGL
