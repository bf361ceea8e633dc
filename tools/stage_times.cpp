// The recording behind StageTimes: the library's timer observer is a plain function, so the
// prefix and the stages are the program's.
#include "stage_times.h"

#include <cstdio>
#include <hexmold/logging/logger.h>
#include <mutex>
#include <unistd.h>
#include <utility>
#include <vector>

namespace hexmoldtool {

namespace {

struct Recording {
    std::mutex lock;
    std::string prefix;
    std::vector<std::pair<std::string, double>> stages;
};

Recording& recording()
{
    static Recording r;
    return r;
}

void observe(Quillon::StringView name, double ms)
{
    Recording& r = recording();
    std::lock_guard<std::mutex> g(r.lock);
    std::string n(name);
    if (n.rfind(r.prefix, 0) != 0)
        return; // only the command's own stages
    n = n.substr(r.prefix.size());
    r.stages.push_back({n, ms});
    if (isatty(2))
        std::fprintf(stderr, "\r  %-50s %9.1f ms\033[K", n.c_str(), ms);
}

} // namespace

StageTimes::StageTimes(std::string prefix, int verbose)
    : mSavedVerbose(CoreGL::Logger::verboseLevel())
{
    {
        Recording& r = recording();
        std::lock_guard<std::mutex> g(r.lock);
        r.prefix = std::move(prefix);
        r.stages.clear();
    }
    CoreGL::Logger::setVerboseLevel(verbose);
    CoreGL::Logger::setTimerObserver(&observe);
}

StageTimes::~StageTimes()
{
    CoreGL::Logger::setTimerObserver(nullptr);
    CoreGL::Logger::setVerboseLevel(mSavedVerbose);
    if (isatty(2))
        std::fprintf(stderr, "\r\033[K");
}

void StageTimes::print()
{
    Recording& r = recording();
    std::lock_guard<std::mutex> g(r.lock);
    for (auto const& [stage, ms] : r.stages)
        std::printf("  %-52s %9.1f ms\n", stage.c_str(), ms);
}

} // namespace hexmoldtool
