// The library's timer stages of one run, as the voxelize and points commands report them.
#pragma once
#include <cstddef>
#include <string>

namespace hexmoldtool {

/// While alive: the library's verbose level is @p verbose, and its timers whose names start with
/// @p prefix are recorded under the rest of their names (and shown on standard error when it is
/// a terminal). Afterwards the verbose level and the timer observer return to what they were;
/// the recorded stages stay for `print` until the next recording starts.
class StageTimes {
public:
    StageTimes(std::string prefix, int verbose);
    ~StageTimes();
    StageTimes(StageTimes const&) = delete;
    StageTimes& operator=(StageTimes const&) = delete;

    /// One line per recorded stage: its name and milliseconds.
    static void print();

private:
    int mSavedVerbose;
};

/// Bytes in MiB.
inline double mib(std::size_t bytes)
{
    return double(bytes) / (1024.0 * 1024.0);
}

} // namespace hexmoldtool
