/// @file  substrate/scene_conversion.cpp
/// @brief Moves volume components between `TVL::Object` and `Tavrel::Object`.
#include <hexmold/substrate/scene_conversion.h>

#include <hexmold/substrate/verify_object.h>

namespace Tavrel::Geometry {

namespace {
using ComponentPtr = Quillon::Ptr<TVL::Component>;
}

Quillon::Ptr<Tavrel::Object const> const& getVolumePrototype()
{
    static Quillon::Ptr<Tavrel::Object const> const prototype = [] {
        auto p = std::make_shared<Tavrel::Object>();
        p->setProperty("prototype", Quillon::Any(Quillon::String("tile_tree_volume")));
        return Quillon::Ptr<Tavrel::Object const>(
            std::shared_ptr<Tavrel::Object const>(std::move(p)));
    }();
    return prototype;
}

Tavrel::Object move_tvl_volume_to_object(TVL::Object& volume)
{
    Tavrel::Object out(getVolumePrototype());
    for (Quillon::String const& name : volume.componentRange()) {
        ComponentPtr c = volume.component(name);
        if (!c)
            continue;
        volume.removeComponent(name);
        out.setProperty(name, Quillon::Any(std::move(c)));
    }
    return out;
}

TVL::Object move_object_to_tvl_volume(Tavrel::Object& object)
{
    TVL::Object volume;
    if (!object.isInstanceOf(getVolumePrototype()))
        return volume;
    for (Quillon::String const& name : object.propertyNames()) {
        ComponentPtr const* c = object.getPropertyAs<ComponentPtr>(name);
        if (!c || !*c)
            continue;
        ComponentPtr moved = *c;
        object.removeProperty(name);
        volume.addComponent(std::move(moved));
    }
    return volume;
}

Quillon::Ptr<TVL::Object> shallow_copy_object_to_tvl_volume(Tavrel::Object const& object)
{
    if (!object.isInstanceOf(getVolumePrototype()))
        return nullptr;
    auto volume = Quillon::makePtr<TVL::Object>();
    for (Quillon::String const& name : object.propertyNames())
        if (ComponentPtr const* c = object.getPropertyAs<ComponentPtr>(name); c && *c)
            volume->addComponent(*c);
    return volume;
}

} // namespace Tavrel::Geometry

namespace Tavrel {

Quillon::String mapGeoPropertyNameToTVLVolume(Quillon::String const& name,
                                              Tavrel::Object const& object)
{
    if (name.empty())
        return {};
    if (CoreGL::isMappable(name) || object.isInstanceOf(Geometry::getVolumePrototype()))
        return name;
    return "voxel_" + name;
}

} // namespace Tavrel
