/// @file  substrate/object.h
/// @brief `TVL::Object`: a volume as a named collection of components (one tree, one topology,
///        any number of channels), with extract/put ownership, and the scope guard drivers use.
/// @details Components are held through `Quillon::Ptr` and may be shared between objects. Copying
///          an object is shallow: the copy shares the component table (`componentsUseCount()`
///          counts its owners) until either side changes it, when the changing side takes its
///          own table first. Components themselves stay shared until written: `extractComponent`
///          hands the caller a private copy (`copyTo`) when anything else still holds the
///          component, so writes never show in another object.
///
///          A driver that writes takes its components out with `extractComponent` (or a
///          `ComponentGuard`), becoming their only owner, and puts them back with
///          `putComponent`; while a component is out, the object's free update functions do not
///          reach it.
///
///          Objects are not touched from parallel code. The conversion to and from the runtime's
///          geometry objects builds on `componentRange`, `getProperty`/`setProperty` and the
///          channels' `channelData`/`setChannelData`.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/any.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/component.h>
#include <map>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace TVL {

/// Whether @p c is a T: the exact type for a concrete T, any derived type for an abstract T
/// (so `ChannelBase` matches every channel and `Component` everything).
template <typename T> bool componentIsA(Component const& c)
{
    if constexpr (std::is_abstract_v<T>)
        return dynamic_cast<T const*>(&c) != nullptr;
    else
        return typeid(c) == typeid(T);
}

class HEXMOLD_API Object {
public:
    Object();
    /// Shallow copy: shares the component table until either object changes it.
    Object(Object const&) = default;
    Object(Object&&) noexcept = default;
    Object& operator=(Object const&) = default;
    Object& operator=(Object&&) noexcept = default;
    ~Object();

    /// The component named @p name, or null.
    Quillon::Ptr<Component> component(Quillon::String const& name) const;
    /// The component named @p name if it is a T (see `componentIsA`), else null. This typed
    /// lookup is how code finds a channel's element type.
    template <typename T> Quillon::Ptr<T> component(Quillon::String const& name) const
    {
        Quillon::Ptr<Component> c = component(name);
        if (!c || !componentIsA<T>(*c))
            return nullptr;
        return Quillon::Ptr<T>(std::static_pointer_cast<T>(c.shared()));
    }
    bool hasComponentFromName(Quillon::String const& name) const;
    /// Presence with a type test; `ChannelBase` as T means any channel.
    template <typename T> bool hasComponentFromName(Quillon::String const& name) const
    {
        Quillon::Ptr<Component> c = component(name);
        return c && componentIsA<T>(*c);
    }

    /// @brief Takes the component named @p name out of the object, as its only owner.
    /// @return the component (a private copy when it was shared), or null when it is absent
    ///         or not a T; in that case the object keeps whatever it had.
    template <typename T> Quillon::MutablePtr<T> extractComponent(Quillon::String const& name)
    {
        Quillon::Ptr<Component> c = component(name);
        if (!c || !componentIsA<T>(*c))
            return nullptr;
        c.reset();
        Quillon::MutablePtr<Component> m = extractComponent(name);
        return Quillon::MutablePtr<T>::adoptUnique(
            std::static_pointer_cast<T>(std::move(m).releaseShared()));
    }
    /// Untyped form of `extractComponent`.
    Quillon::MutablePtr<Component> extractComponent(Quillon::String const& name);
    /// Brings an extracted component back under its own name (replacing any component of that
    /// name). Null is ignored.
    void putComponent(Quillon::MutablePtr<Component> component);
    template <typename T> void putComponent(Quillon::MutablePtr<T>&& component)
    {
        putComponent(Quillon::MutablePtr<Component>(std::move(component)));
    }
    /// Adds @p component under its name, replacing any component of that name. Null is ignored.
    void addComponent(Quillon::Ptr<Component> component);
    /// Removes the component named @p name if there is one. @p topology, the topology it was
    /// bound to, is accepted for symmetry with the runtime's interface and not needed here.
    void removeComponent(Quillon::String const& name, Component const* topology = nullptr);

    /// @brief A writable component for in-place changes: the component itself when nobody else
    ///        holds it, else a private copy that replaces it in this object. Null when absent.
    Component* mutableComponent(Quillon::String const& name);

    /// The names of the components, in name order.
    Quillon::Array<Quillon::String> componentRange() const;
    /// The same as a shared array.
    Quillon::Ptr<Quillon::Array<Quillon::String>> keys() const;
    std::size_t componentCount() const;

    /// A property of the object (empty when absent).
    Quillon::Any getProperty(Quillon::String const& name) const;
    void setProperty(Quillon::String const& name, Quillon::Any value);
    bool hasProperty(Quillon::String const& name) const;

    /// Owners of this object's component table (1 when no shallow copy shares it).
    long componentsUseCount() const;

private:
    struct Table {
        std::map<Quillon::String, Quillon::Ptr<Component>> components;
        std::map<Quillon::String, Quillon::Any> properties;
    };
    /// Makes the table this object's own before a change.
    Table& ownTable();

    std::shared_ptr<Table> mTable;
};

/// @brief Scope guard of an extracted component: extracts at construction and puts the
///        component back when it ends, also during unwinding.
template <typename T> class ComponentGuard {
public:
    ComponentGuard(Object& object, Quillon::String const& name)
        : mObject(&object), mName(name), mComponent(object.extractComponent<T>(name))
    {
    }
    ComponentGuard(ComponentGuard const&) = delete;
    ComponentGuard& operator=(ComponentGuard const&) = delete;
    ~ComponentGuard() { restore(); }

    T* get() const { return mComponent.get(); }
    T* operator->() const { return mComponent.get(); }
    T& operator*() const { return *mComponent; }
    /// Whether a component was extracted.
    explicit operator bool() const { return static_cast<bool>(mComponent); }

    /// Puts the component back now.
    void restore()
    {
        if (mComponent)
            mObject->putComponent(std::move(mComponent));
        mComponent.reset();
    }
    /// Takes the component out again after `restore` (for a driver that hands its components to
    /// a call working on the object by name). The object being the only other owner, this is
    /// the same component as before. @return whether a component was extracted.
    bool extractAgain()
    {
        if (!mComponent)
            mComponent = mObject->extractComponent<T>(mName);
        return static_cast<bool>(mComponent);
    }
    /// Gives the component to the caller; nothing is put back.
    Quillon::MutablePtr<T> release() { return std::move(mComponent); }

private:
    Object* mObject;
    Quillon::String mName;
    Quillon::MutablePtr<T> mComponent;
};

/// An empty object.
HEXMOLD_API Quillon::Ptr<Object> createEmptyTVL();

} // namespace TVL
