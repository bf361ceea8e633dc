/// @file  substrate/scope_guard.h
/// @brief `ScopeGuard`: runs an action when a scope ends, normally or by an exception.
#pragma once
#include <utility>

namespace TVL {

/// Calls the stored action once, when the guard dies, unless `dismiss()` was called. The action
/// must not throw: it also runs while an exception unwinds.
template <typename F> class ScopeGuard {
public:
    explicit ScopeGuard(F action) : mAction(std::move(action)) {}
    ScopeGuard(ScopeGuard const&) = delete;
    ScopeGuard& operator=(ScopeGuard const&) = delete;
    ~ScopeGuard()
    {
        if (mActive)
            mAction();
    }
    /// The action will not run.
    void dismiss() { mActive = false; }

private:
    F mAction;
    bool mActive = true;
};

/// `auto guard = onScopeExit([&] { ... });`
template <typename F> ScopeGuard<F> onScopeExit(F action)
{
    return ScopeGuard<F>(std::move(action));
}

} // namespace TVL
