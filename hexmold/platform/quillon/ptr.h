/// @file  platform/quillon/ptr.h
/// @brief Shared (`Ptr`) and unique (`MutablePtr`) owning pointers of the host runtime.
/// @details `Ptr` is reference counted and reports its use count: components of volume objects are
///          shared through it. `MutablePtr` is the sole owner of an object that may be written; it
///          turns into a `Ptr` when it is handed back.
#pragma once
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

namespace Quillon {

template <typename T> class MutablePtr;

/// Shared, reference-counted pointer.
template <typename T> class Ptr {
public:
    Ptr() = default;
    Ptr(std::nullptr_t) {}
    explicit Ptr(T* raw) : mPtr(raw) {}
    explicit Ptr(std::shared_ptr<T> p) : mPtr(std::move(p)) {}
    template <typename U> Ptr(Ptr<U> const& other) : mPtr(other.shared()) {}
    template <typename U> Ptr(MutablePtr<U>&& other) : mPtr(std::move(other).releaseShared()) {}

    T* get() const { return mPtr.get(); }
    T* operator->() const { return mPtr.get(); }
    std::add_lvalue_reference_t<T> operator*() const { return *mPtr; }
    explicit operator bool() const { return static_cast<bool>(mPtr); }
    /// Number of `Ptr`s sharing the object (0 for a null pointer).
    long useCount() const { return mPtr.use_count(); }
    void reset() { mPtr.reset(); }

    std::shared_ptr<T> const& shared() const { return mPtr; }

    friend bool operator==(Ptr const& a, Ptr const& b) { return a.mPtr == b.mPtr; }
    friend bool operator==(Ptr const& a, std::nullptr_t) { return !a.mPtr; }

private:
    std::shared_ptr<T> mPtr;
};

/// Unique owner of a writable object. Move-only.
template <typename T> class MutablePtr {
public:
    MutablePtr() = default;
    MutablePtr(std::nullptr_t) {}
    explicit MutablePtr(T* raw) : mPtr(raw) {}
    explicit MutablePtr(std::unique_ptr<T> p) : mPtr(std::move(p)) {}
    template <typename U> MutablePtr(MutablePtr<U>&& other) : mPtr(std::move(other).releaseShared())
    {
    }
    MutablePtr(MutablePtr&&) noexcept = default;
    MutablePtr& operator=(MutablePtr&&) noexcept = default;
    MutablePtr(MutablePtr const&) = delete;
    MutablePtr& operator=(MutablePtr const&) = delete;

    T* get() const { return mPtr.get(); }
    T* operator->() const { return mPtr.get(); }
    std::add_lvalue_reference_t<T> operator*() const { return *mPtr; }
    explicit operator bool() const { return static_cast<bool>(mPtr); }
    void reset() { mPtr.reset(); }

    /// Gives up ownership as a shared pointer (used when the object is handed back).
    std::shared_ptr<T> releaseShared() && { return std::move(mPtr); }

    /// Adopts the object of a shared pointer that nobody else holds; null otherwise.
    static MutablePtr adoptUnique(std::shared_ptr<T> p)
    {
        MutablePtr r;
        if (p && p.use_count() == 1)
            r.mPtr = std::move(p);
        return r;
    }

private:
    std::shared_ptr<T> mPtr;
};

/// Downcast of a shared pointer; null when the object is not a U.
template <typename U, typename T> Ptr<U> dynamicPtrCast(Ptr<T> const& p)
{
    return Ptr<U>(std::dynamic_pointer_cast<U>(p.shared()));
}

/// Downcast of a unique pointer; on failure the object stays with @p p and the result is null.
template <typename U, typename T> MutablePtr<U> dynamicPtrCast(MutablePtr<T>&& p)
{
    if (!dynamic_cast<U*>(p.get()))
        return MutablePtr<U>();
    return MutablePtr<U>::adoptUnique(std::static_pointer_cast<U>(std::move(p).releaseShared()));
}

template <typename T, typename... Args> Ptr<T> makePtr(Args&&... args)
{
    return Ptr<T>(std::make_shared<T>(std::forward<Args>(args)...));
}

template <typename T, typename... Args> MutablePtr<T> makeMutablePtr(Args&&... args)
{
    return MutablePtr<T>::adoptUnique(std::make_shared<T>(std::forward<Args>(args)...));
}

} // namespace Quillon
