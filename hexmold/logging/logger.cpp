/// @file  logging/logger.cpp
/// @brief Process-wide logging switches, the debug stream and timers.
#include <hexmold/logging/logger.h>

#include <iostream>
#include <mutex>

namespace CoreGL {

Quillon::String const sceneUnitsInMeters = "scene_units_in_meters";

static_assert(Logger::kDefaultVerboseLevel == 0 && Logger::kDefaultErrorVerboseLevel == 1,
              "the defaults are the initial values of Quillon::DebugSettings");

namespace {
std::mutex& debugMutex()
{
    static std::mutex m;
    return m;
}
std::atomic<std::ostream*> gDebugStream{nullptr};
std::atomic<Logger::TimerObserver> gTimerObserver{nullptr};
} // namespace

std::ostream& Logger::debugFileStream()
{
    std::ostream* s = gDebugStream.load(std::memory_order_acquire);
    return s ? *s : std::clog;
}

void Logger::setDebugFileStream(std::ostream* stream)
{
    gDebugStream.store(stream, std::memory_order_release);
}

Logger::DebugFileStreamScopedLock::DebugFileStreamScopedLock()
{
    debugMutex().lock();
}
Logger::DebugFileStreamScopedLock::~DebugFileStreamScopedLock()
{
    debugMutex().unlock();
}

Logger::Timer::Timer(Quillon::String name, Quillon::RuntimeServices const* services)
    : mName(std::move(name)), mServices(services), mStart(std::chrono::steady_clock::now())
{
}

double Logger::Timer::elapsedMilliseconds() const
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - mStart)
        .count();
}

Logger::Timer::~Timer()
{
    double const ms = elapsedMilliseconds();
    if (TimerObserver observer = gTimerObserver.load(std::memory_order_acquire))
        observer(mName, ms);
    bool const toServices =
        mServices && mServices->isLogEnabled(Quillon::RuntimeMessageCategory::kInfo);
    if (!toServices && verboseLevel() <= 0)
        return;
    Quillon::String line = "timer " + mName + " = " + std::to_string(ms) + " ms";
    if (toServices)
        mServices->logImpl(Quillon::RuntimeMessageCategory::kInfo, line);
    if (verboseLevel() > 0) {
        DebugFileStreamScopedLock lock;
        debugFileStream() << line << '\n';
    }
}

std::unique_ptr<Logger::Timer> Logger::timer(Quillon::String const& name,
                                             Quillon::RuntimeServices const* services)
{
    return std::make_unique<Timer>(name, services);
}

std::unique_ptr<Logger::Timer> Logger::timerPtr(Quillon::String const& name,
                                                Quillon::RuntimeServices const* services)
{
    return std::make_unique<Timer>(name, services);
}

void Logger::setTimerObserver(TimerObserver observer)
{
    gTimerObserver.store(observer, std::memory_order_release);
}

namespace {
void toServices(Quillon::RuntimeServices const* s, Quillon::RuntimeMessageCategory c,
                Quillon::StringView text)
{
    if (s && s->isLogEnabled(c))
        s->logImpl(c, text);
}
} // namespace

void QuillonLogger::info(Quillon::StringView text) const
{
    toServices(mServices, Quillon::RuntimeMessageCategory::kInfo, text);
}
void QuillonLogger::warn(Quillon::StringView text) const
{
    toServices(mServices, Quillon::RuntimeMessageCategory::kWarning, text);
}
void QuillonLogger::error(Quillon::StringView text) const
{
    toServices(mServices, Quillon::RuntimeMessageCategory::kError, text);
}

void ConsoleLogger::info(Quillon::StringView text) const
{
    std::cout << text << '\n';
}
void ConsoleLogger::warn(Quillon::StringView text) const
{
    std::cerr << "warning: " << text << '\n';
}
void ConsoleLogger::error(Quillon::StringView text) const
{
    std::cerr << "error: " << text << '\n';
}

} // namespace CoreGL
