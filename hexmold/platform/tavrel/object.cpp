/// @file  platform/tavrel/object.cpp
/// @brief Property map and prototype chain of `Tavrel::Object`.
#include <hexmold/platform/tavrel/object.h>

#include <utility>

namespace Tavrel {

Object::Object() = default;
Object::Object(Quillon::Ptr<Object const> prototype) : mPrototype(std::move(prototype)) {}
Object::Object(Object const&) = default;
Object::Object(Object&&) noexcept = default;
Object& Object::operator=(Object const&) = default;
Object& Object::operator=(Object&&) noexcept = default;
Object::~Object() = default;

Quillon::Any const& Object::getProperty(Quillon::StringView name) const
{
    static Quillon::Any const empty;
    Quillon::Any const* value = findProperty(name);
    return value ? *value : empty;
}

Quillon::Any const* Object::findProperty(Quillon::StringView name) const
{
    auto it = mProperties.find(name);
    return it == mProperties.end() ? nullptr : &it->second;
}

bool Object::setProperty(Quillon::String name, Quillon::Any value)
{
    if (name.empty())
        return false;
    mProperties.insert_or_assign(std::move(name), std::move(value));
    return true;
}

bool Object::hasProperty(Quillon::StringView name) const
{
    return findProperty(name) != nullptr;
}

bool Object::removeProperty(Quillon::StringView name)
{
    auto it = mProperties.find(name);
    if (it == mProperties.end())
        return false;
    mProperties.erase(it);
    return true;
}

Quillon::Any Object::extractProperty(Quillon::StringView name)
{
    auto it = mProperties.find(name);
    if (it == mProperties.end())
        return {};
    Quillon::Any value = std::move(it->second);
    mProperties.erase(it);
    return value;
}

Quillon::Array<Quillon::String> Object::propertyNames() const
{
    Quillon::Array<Quillon::String> names;
    names.reserve(mProperties.size());
    for (auto const& entry : mProperties)
        names.push_back(entry.first);
    return names;
}

std::size_t Object::propertyCount() const
{
    return mProperties.size();
}

void Object::clear()
{
    mProperties.clear();
}

bool Object::setComponent(Quillon::String name, std::uint64_t elementCount)
{
    return setProperty(std::move(name), ElementComponent{elementCount});
}

bool Object::isComponent(Quillon::StringView name) const
{
    return getPropertyAs<ElementComponent>(name) != nullptr;
}

std::uint64_t Object::elementCount(Quillon::StringView name) const
{
    ElementComponent const* component = getPropertyAs<ElementComponent>(name);
    return component ? component->elementCount : 0;
}

Quillon::Array<Quillon::String> Object::componentNames() const
{
    Quillon::Array<Quillon::String> names;
    for (auto const& entry : mProperties)
        if (std::any_cast<ElementComponent>(&entry.second))
            names.push_back(entry.first);
    return names;
}

bool Object::setPrototype(Quillon::Ptr<Object const> prototype)
{
    for (Object const* p = prototype.get(); p; p = p->mPrototype.get())
        if (p == this)
            return false;
    mPrototype = std::move(prototype);
    return true;
}

bool Object::isInstanceOf(Object const& prototype) const
{
    for (Object const* p = mPrototype.get(); p; p = p->mPrototype.get())
        if (p == &prototype)
            return true;
    return false;
}

bool Object::isInstanceOf(Quillon::Ptr<Object const> const& prototype) const
{
    return prototype && isInstanceOf(*prototype);
}

} // namespace Tavrel
