/// @file  platform/tavrel/object.h
/// @brief `Tavrel::Object`: the geometry runtime's object, a set of named `Quillon::Any`
///        properties with an optional prototype.
/// @details Geometry is stored as properties. A component (the points or the faces of a mesh) is
///          a property holding an `ElementComponent`, its element count; a geometry property
///          holds an object of its own that names the component it targets (see
///          platform/tavrel/geometry.h). Volumes store their tree, topology and channels in
///          properties as shared pointers. The prototype says what kind of object this is
///          (a point cloud, a mesh, a property of a given element type); it is shared and never
///          written through the object.
#pragma once
#include <any>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/any.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <map>

namespace Tavrel {

/// Value of a component property: the number of elements (points, faces) it has.
struct ElementComponent {
    std::uint64_t elementCount = 0; ///< number of elements; properties targeting the component
                                    ///< hold this many values
};

/// @brief Named properties of any copyable type, plus a prototype.
/// @details Properties are kept sorted by name, so every listing is in ascending byte order of
///          the names, whatever the order of insertion. Reads of a const object may run on many
///          threads at once; writes need exclusive access. Copies share the values that are
///          shared pointers and copy all others.
class HEXMOLD_API Object {
public:
    Object();
    /// An instance of @p prototype (null: no prototype).
    explicit Object(Quillon::Ptr<Object const> prototype);
    Object(Object const&);
    Object(Object&&) noexcept;
    Object& operator=(Object const&);
    Object& operator=(Object&&) noexcept;
    ~Object();

    // ---- properties -----------------------------------------------------------------------

    /// @brief The property @p name; an empty `Quillon::Any` when there is none.
    /// @details The reference stays valid until the property is set or removed.
    Quillon::Any const& getProperty(Quillon::StringView name) const;
    /// The property @p name, or null when there is none (tells an absent property from a
    /// property that holds an empty Any).
    Quillon::Any const* findProperty(Quillon::StringView name) const;
    /// The value of property @p name if it holds exactly a T, else null.
    template <typename T> T const* getPropertyAs(Quillon::StringView name) const
    {
        return std::any_cast<T>(findProperty(name));
    }
    /// @brief Sets (adds or replaces) property @p name.
    /// @return false, and nothing changes, when @p name is empty.
    bool setProperty(Quillon::String name, Quillon::Any value);
    bool hasProperty(Quillon::StringView name) const;
    /// Removes property @p name; false when there was none.
    bool removeProperty(Quillon::StringView name);
    /// Removes property @p name and returns its value; an empty Any when there was none.
    Quillon::Any extractProperty(Quillon::StringView name);
    /// Names of all properties (components included), in ascending order.
    Quillon::Array<Quillon::String> propertyNames() const;
    std::size_t propertyCount() const;
    /// Removes all properties; the prototype stays.
    void clear();

    // ---- components -----------------------------------------------------------------------

    /// @brief Sets property @p name to a component of @p elementCount elements.
    /// @return false, and nothing changes, when @p name is empty.
    bool setComponent(Quillon::String name, std::uint64_t elementCount);
    /// True when property @p name holds an `ElementComponent`.
    bool isComponent(Quillon::StringView name) const;
    /// Element count of component @p name; 0 when it is absent or not a component.
    std::uint64_t elementCount(Quillon::StringView name) const;
    /// Names of the component properties, in ascending order.
    Quillon::Array<Quillon::String> componentNames() const;

    // ---- prototype ------------------------------------------------------------------------

    Quillon::Ptr<Object const> const& prototype() const { return mPrototype; }
    /// @brief Makes this object an instance of @p prototype (null: of nothing).
    /// @return false, and nothing changes, when this object is in the prototype chain of
    ///         @p prototype (which would make the chain a loop).
    bool setPrototype(Quillon::Ptr<Object const> prototype);
    /// True when @p prototype is this object's prototype or, recursively, a prototype of it.
    /// An object is not an instance of itself.
    bool isInstanceOf(Object const& prototype) const;
    /// As above; false for a null @p prototype.
    bool isInstanceOf(Quillon::Ptr<Object const> const& prototype) const;

private:
    std::map<Quillon::String, Quillon::Any, std::less<>> mProperties;
    Quillon::Ptr<Object const> mPrototype;
};

} // namespace Tavrel
