/// @file  platform/testing/recording_services.h
/// @brief `Quillon::Testing::RecordingServices`: runtime services that record every message,
///        for tests of what an operation reports.
/// @details Header-only; only tests include it. All operations are thread-safe, since loggers
///          report from any thread.
#pragma once
#include <cstddef>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/platform/quillon/string.h>
#include <mutex>
#include <vector>

namespace Quillon::Testing {

/// One recorded message.
struct RecordedMessage {
    RuntimeMessageCategory category; ///< info, warning or error
    String text;                     ///< the message as logged
};

/// Records every (category, text) pair that reaches `logImpl`. Each category can be switched
/// off, after which `isLogEnabled` says false for it and messages that are still logged to it
/// (by code that does not ask first) are counted in `ignoredCount()` but not recorded.
class RecordingServices : public RuntimeServices {
public:
    /// @param enabled  initial state of all three categories
    explicit RecordingServices(bool enabled = true)
    {
        for (bool& e : mEnabled)
            e = enabled;
    }

    bool isLogEnabled(RuntimeMessageCategory category) const override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        int const i = indexOf(category);
        return i >= 0 && mEnabled[i];
    }

    void logImpl(RuntimeMessageCategory category, StringView text) const override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        int const i = indexOf(category);
        if (i < 0 || !mEnabled[i]) {
            ++mIgnored;
            return;
        }
        mMessages.push_back({category, String(text)});
    }

    /// Switches @p category on or off; unknown categories are ignored.
    void setEnabled(RuntimeMessageCategory category, bool enabled)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        int const i = indexOf(category);
        if (i >= 0)
            mEnabled[i] = enabled;
    }

    /// A copy of all recorded messages, in the order they were logged.
    std::vector<RecordedMessage> messages() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mMessages;
    }

    /// Texts recorded under @p category, in order.
    std::vector<String> texts(RuntimeMessageCategory category) const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        std::vector<String> out;
        for (RecordedMessage const& m : mMessages)
            if (m.category == category)
                out.push_back(m.text);
        return out;
    }

    /// Number of messages recorded under @p category.
    std::size_t count(RuntimeMessageCategory category) const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        std::size_t n = 0;
        for (RecordedMessage const& m : mMessages)
            n += m.category == category;
        return n;
    }

    /// Number of messages recorded in all.
    std::size_t size() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mMessages.size();
    }

    /// Whether a message of @p category contains @p fragment.
    bool contains(RuntimeMessageCategory category, StringView fragment) const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (RecordedMessage const& m : mMessages)
            if (m.category == category && m.text.find(fragment) != String::npos)
                return true;
        return false;
    }

    /// Messages that reached `logImpl` for a switched-off or unknown category.
    std::size_t ignoredCount() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mIgnored;
    }

    /// Forgets all recorded and ignored messages; the switches stay.
    void clear()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mMessages.clear();
        mIgnored = 0;
    }

private:
    /// 0, 1, 2 for info, warning, error; -1 for anything else.
    static int indexOf(RuntimeMessageCategory category)
    {
        int const c = static_cast<int>(category);
        return c >= 1 && c <= 3 ? c - 1 : -1;
    }

    mutable std::mutex mMutex;
    mutable std::vector<RecordedMessage> mMessages;
    mutable std::size_t mIgnored = 0;
    bool mEnabled[3];
};

} // namespace Quillon::Testing
