// Cancellation requested from inside a run: when a stage timer whose name ends with a given
// suffix reports, the job is asked to stop, so that the next parallel construct throws.
#pragma once
#include <atomic>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <string>

namespace testcancel {

namespace detail {
inline std::string& suffix()
{
    static std::string s;
    return s;
}
inline std::atomic<int>& reports()
{
    static std::atomic<int> n{0};
    return n;
}
inline void observe(Quillon::StringView name, double)
{
    std::string const& end = suffix();
    if (!end.empty() && name.size() >= end.size() &&
        name.compare(name.size() - end.size(), end.size(), end) == 0) {
        ++reports();
        Quillon::requestJobCancellation();
    }
}
} // namespace detail

/// While it lives, a stage timer whose name ends with @p suffix requests cancellation of the
/// job when it reports. Clears the host's cancellation flag on entry and on exit.
class CancelOnTimer {
public:
    explicit CancelOnTimer(std::string suffix)
    {
        Quillon::clearJobCancellation();
        detail::suffix() = std::move(suffix);
        detail::reports() = 0;
        CoreGL::Logger::setTimerObserver(&detail::observe);
    }
    ~CancelOnTimer()
    {
        CoreGL::Logger::setTimerObserver(nullptr);
        detail::suffix().clear();
        Quillon::clearJobCancellation();
    }
    CancelOnTimer(CancelOnTimer const&) = delete;
    CancelOnTimer& operator=(CancelOnTimer const&) = delete;
    /// How often the timer reported (and cancellation was requested).
    int reports() const { return detail::reports().load(); }
};

} // namespace testcancel
