/// @file  substrate/object.cpp
/// @brief The component table of volume objects.
#include <hexmold/substrate/object.h>

namespace TVL {

Object::Object() : mTable(std::make_shared<Table>()) {}
Object::~Object() = default;

Object::Table& Object::ownTable()
{
    if (!mTable)
        mTable = std::make_shared<Table>();
    else if (mTable.use_count() > 1)
        mTable = std::make_shared<Table>(*mTable);
    return *mTable;
}

Quillon::Ptr<Component> Object::component(Quillon::String const& name) const
{
    if (!mTable)
        return nullptr;
    auto it = mTable->components.find(name);
    return it == mTable->components.end() ? nullptr : it->second;
}

bool Object::hasComponentFromName(Quillon::String const& name) const
{
    return mTable && mTable->components.count(name) != 0;
}

Quillon::MutablePtr<Component> Object::extractComponent(Quillon::String const& name)
{
    if (!hasComponentFromName(name))
        return nullptr;
    Table& t = ownTable();
    auto it = t.components.find(name);
    std::shared_ptr<Component> c = it->second.shared();
    t.components.erase(it);
    if (c.use_count() > 1) {
        // Someone else still holds it: the caller writes a private copy.
        Quillon::Ptr<Component> copy;
        c->copyTo(copy);
        c = copy.shared();
    }
    return Quillon::MutablePtr<Component>::adoptUnique(std::move(c));
}

void Object::putComponent(Quillon::MutablePtr<Component> component)
{
    if (!component)
        return;
    Quillon::Ptr<Component> p(std::move(component));
    Quillon::String const name = p->name();
    ownTable().components[name] = std::move(p);
}

void Object::addComponent(Quillon::Ptr<Component> component)
{
    if (!component)
        return;
    Quillon::String const name = component->name();
    ownTable().components[name] = std::move(component);
}

void Object::removeComponent(Quillon::String const& name, Component const*)
{
    if (!hasComponentFromName(name))
        return;
    ownTable().components.erase(name);
}

Component* Object::mutableComponent(Quillon::String const& name)
{
    if (!hasComponentFromName(name))
        return nullptr;
    Table& t = ownTable();
    Quillon::Ptr<Component>& p = t.components[name];
    if (p.useCount() > 1) {
        Quillon::Ptr<Component> copy;
        p->copyTo(copy);
        p = std::move(copy);
    }
    return p.get();
}

Quillon::Array<Quillon::String> Object::componentRange() const
{
    Quillon::Array<Quillon::String> names;
    if (!mTable)
        return names;
    names.reserve(mTable->components.size());
    for (auto const& [name, c] : mTable->components)
        names.push_back(name);
    return names;
}

Quillon::Ptr<Quillon::Array<Quillon::String>> Object::keys() const
{
    return Quillon::makePtr<Quillon::Array<Quillon::String>>(componentRange());
}

std::size_t Object::componentCount() const
{
    return mTable ? mTable->components.size() : 0;
}

Quillon::Any Object::getProperty(Quillon::String const& name) const
{
    if (!mTable)
        return {};
    auto it = mTable->properties.find(name);
    return it == mTable->properties.end() ? Quillon::Any() : it->second;
}

void Object::setProperty(Quillon::String const& name, Quillon::Any value)
{
    ownTable().properties[name] = std::move(value);
}

bool Object::hasProperty(Quillon::String const& name) const
{
    return mTable && mTable->properties.count(name) != 0;
}

long Object::componentsUseCount() const
{
    return mTable ? mTable.use_count() : 0;
}

Quillon::Ptr<Object> createEmptyTVL()
{
    return Quillon::makePtr<Object>();
}

} // namespace TVL
