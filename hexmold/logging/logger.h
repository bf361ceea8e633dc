/// @file  logging/logger.h
/// @brief Loggers, verbose levels, the debug stream and stage timers.
/// @details Algorithms take a logger type as a template parameter: `QuillonLogger` reports to the
///          graph runtime, `ConsoleLogger` to the console, `NOPLogger` compiles to nothing.
///          `Logger` holds the process-wide switches. Their defaults are constants of this file:
///          verbose level 0 (no debug output), error verbose level 1 (errors, no warnings),
///          frame 0, debug stream `std::clog`; the host changes them with the setters.
#pragma once
#include <atomic>
#include <chrono>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/debug_settings.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/platform/quillon/string.h>
#include <iosfwd>
#include <memory>
#include <mutex>

namespace CoreGL {

/// Property name for the scale of the scene.
HEXMOLD_API extern Quillon::String const sceneUnitsInMeters;

/// Process-wide logging switches (the host's debug settings) and the stage timer.
class HEXMOLD_API Logger {
public:
    static constexpr int kDefaultVerboseLevel = 0;
    static constexpr int kDefaultErrorVerboseLevel = 1;

    /// Level of debug output: above 0 begin/end lines, above 1 parameters, above 2 stage numbers.
    static int verboseLevel()
    {
        return Quillon::DebugSettings::verboseLevel.load(std::memory_order_relaxed);
    }
    /// Level of error output: above 0 errors, 2 or more also warnings.
    static int errorVerboseLevel()
    {
        return Quillon::DebugSettings::errorVerboseLevel.load(std::memory_order_relaxed);
    }
    /// Frame number that tags debug lines.
    static float frame() { return Quillon::DebugSettings::frame.load(std::memory_order_relaxed); }
    static void setVerboseLevel(int level)
    {
        Quillon::DebugSettings::verboseLevel.store(level, std::memory_order_relaxed);
    }
    static void setErrorVerboseLevel(int level)
    {
        Quillon::DebugSettings::errorVerboseLevel.store(level, std::memory_order_relaxed);
    }
    static void setFrame(float f)
    {
        Quillon::DebugSettings::frame.store(f, std::memory_order_relaxed);
    }

    /// Shared stream of debug lines; write to it only under a `DebugFileStreamScopedLock`.
    static std::ostream& debugFileStream();
    /// Redirects the debug stream (null restores `std::clog`). The stream must outlive its use.
    static void setDebugFileStream(std::ostream* stream);

    /// Holds the debug stream's mutex while a line is written.
    class HEXMOLD_API DebugFileStreamScopedLock {
    public:
        DebugFileStreamScopedLock();
        ~DebugFileStreamScopedLock();
        DebugFileStreamScopedLock(DebugFileStreamScopedLock const&) = delete;
        DebugFileStreamScopedLock& operator=(DebugFileStreamScopedLock const&) = delete;
    };

    /// A stage timer: starts at construction and reports in its destructor, to the runtime's
    /// info log when @p services is given and enabled, and to the debug stream at verbose level
    /// above 0 as "timer <name> = <ms> ms". A null `services` is allowed.
    class HEXMOLD_API Timer {
    public:
        Timer(Quillon::String name, Quillon::RuntimeServices const* services);
        ~Timer();
        Timer(Timer const&) = delete;
        Timer& operator=(Timer const&) = delete;
        Quillon::String const& name() const { return mName; }
        /// Milliseconds since construction.
        double elapsedMilliseconds() const;

    private:
        Quillon::String mName;
        Quillon::RuntimeServices const* mServices;
        std::chrono::steady_clock::time_point mStart;
    };

    /// A timer for a scope; ends when the returned pointer dies.
    static std::unique_ptr<Timer> timer(Quillon::String const& name,
                                        Quillon::RuntimeServices const* services);
    /// The same, for timers ended by an explicit reset before their block ends.
    static std::unique_ptr<Timer> timerPtr(Quillon::String const& name,
                                           Quillon::RuntimeServices const* services);

    /// Called for every timer report (for tests and profilers); null removes it.
    using TimerObserver = void (*)(Quillon::StringView name, double milliseconds);
    static void setTimerObserver(TimerObserver observer);
};

/// Reports through the graph runtime's log.
class HEXMOLD_API QuillonLogger {
public:
    explicit QuillonLogger(Quillon::RuntimeServices const* services = nullptr) : mServices(services)
    {
    }
    void info(Quillon::StringView text) const;
    void warn(Quillon::StringView text) const;
    void error(Quillon::StringView text) const;
    Quillon::RuntimeServices const* services() const { return mServices; }

private:
    Quillon::RuntimeServices const* mServices;
};

/// Writes to the console: info to standard output, warnings and errors to standard error.
class HEXMOLD_API ConsoleLogger {
public:
    void info(Quillon::StringView text) const;
    void warn(Quillon::StringView text) const;
    void error(Quillon::StringView text) const;
    Quillon::RuntimeServices const* services() const { return nullptr; }
};

/// Does nothing; an algorithm instantiated with it has no logging left in it.
class NOPLogger {
public:
    void info(Quillon::StringView) const {}
    void warn(Quillon::StringView) const {}
    void error(Quillon::StringView) const {}
    Quillon::RuntimeServices const* services() const { return nullptr; }
};

} // namespace CoreGL
