/// @file  platform/tavrel/geometry.cpp
/// @brief Name constants, prototypes and the checked reads and writes of data geometry
///        properties, point clouds and meshes.
#include <hexmold/platform/tavrel/geometry.h>

#include <hexmold/platform/tavrel/element_types.h>
#include <memory>
#include <utility>

namespace Tavrel::Geometry {

Quillon::String const sVoxelTileTree = "voxel_tile_tree";
Quillon::String const sVoxelComp = "voxel_topology";
Quillon::String const sPointComp = "point";
Quillon::String const sFaceComp = "face";
Quillon::String const sVoxelSignedDistance = "voxel_signed_distance";
Quillon::String const sVoxelFlameLevelSet = "voxel_flame_level_set";
Quillon::String const sVoxelSamplingError = "voxel_sampling_error";
Quillon::String const sVoxelDepth = "voxel_depth";
Quillon::String const sVoxelDegreeOfFreedom = "voxel_degree_of_freedom";
Quillon::String const sPointPosition = "point_position";
Quillon::String const sPointSize = "point_size";
Quillon::String const sGenericDataGeoProp = "generic_data_geo_prop";
Quillon::String const sData = "data";
Quillon::String const sDefault = "default";
Quillon::String const sTarget = "target";
Quillon::String const sFaceVertex = "face_vertex";
Quillon::String const sFaceOffset = "face_offset";

namespace {

using namespace Tavrel::Math;

using IndexArray = Quillon::Array<unsigned int>;
using PropertyPtr = Quillon::Ptr<Object const>;

/// True when @p property is a well-formed data property of element type T for @p object.
template <typename T> bool isValidProperty(Object const& object, Object const& property)
{
    auto const* target = property.getPropertyAs<Quillon::String>(sTarget);
    auto const* data = property.getPropertyAs<Quillon::Ptr<Quillon::Array<T> const>>(sData);
    if (!target || !data || !*data || !property.getPropertyAs<T>(sDefault))
        return false;
    return object.isComponent(*target) && (*data)->size() == object.elementCount(*target);
}

/// One element type: its name, its prototype and its validity test.
struct ElementType {
    Quillon::String name;
    PropertyPtr prototype;
    bool (*isValid)(Object const& object, Object const& property);
};

/// The prototypes, built once on first use.
struct Registry {
    PropertyPtr generic;
    Quillon::Array<ElementType> elementTypes;
    PropertyPtr pointCloud;
    PropertyPtr mesh;
};

PropertyPtr makePrototype(PropertyPtr base, Quillon::String const& typeName)
{
    Object prototype(std::move(base));
    prototype.setProperty(sGenericDataGeoProp, typeName);
    return Quillon::makePtr<Object const>(std::move(prototype));
}

Registry makeRegistry()
{
    Registry r;
    r.generic = makePrototype(nullptr, Quillon::String());
#define HEXMOLD_ADD_ELEMENT_TYPE(T, name)                                                          \
    r.elementTypes.push_back({name, makePrototype(r.generic, name), &isValidProperty<T>});
    HEXMOLD_FOR_EACH_NAMED_ELEMENT_TYPE(HEXMOLD_ADD_ELEMENT_TYPE)
#undef HEXMOLD_ADD_ELEMENT_TYPE
    r.pointCloud = Quillon::makePtr<Object const>();
    r.mesh = Quillon::makePtr<Object const>();
    return r;
}

Registry const& registry()
{
    static Registry const r = makeRegistry();
    return r;
}

/// The element type whose prototype @p property descends from; null for none.
ElementType const* elementTypeOf(Object const& property)
{
    for (Object const* p = property.prototype().get(); p; p = p->prototype().get())
        for (ElementType const& type : registry().elementTypes)
            if (type.prototype.get() == p)
                return &type;
    return nullptr;
}

/// A valid data property and its element type.
struct Resolved {
    PropertyPtr const* property = nullptr;
    ElementType const* type = nullptr;
    explicit operator bool() const { return property != nullptr; }
};

Resolved resolve(Object const& object, Quillon::StringView name)
{
    PropertyPtr const* property = object.getPropertyAs<PropertyPtr>(name);
    if (!property || !*property)
        return {};
    ElementType const* type = elementTypeOf(**property);
    if (!type || !type->isValid(object, **property))
        return {};
    return {property, type};
}

/// True when the face arrays describe faces of a mesh with @p pointCount points.
bool areFaceArraysConsistent(std::uint64_t pointCount, std::uint64_t faceCount,
                             IndexArray const& faceVertex, IndexArray const& faceOffset)
{
    if (faceOffset.size() != faceCount + 1 || faceOffset.front() != 0 ||
        faceOffset.back() != faceVertex.size())
        return false;
    for (std::size_t f = 0; f + 1 < faceOffset.size(); ++f)
        if (faceOffset[f] > faceOffset[f + 1])
            return false;
    for (unsigned int index : faceVertex)
        if (index >= pointCount)
            return false;
    return true;
}

/// The face arrays of @p object if it is a consistent mesh; both null otherwise.
std::pair<IndexArray const*, IndexArray const*> meshFaceArrays(Object const& object)
{
    if (!object.isInstanceOf(registry().mesh))
        return {};
    auto const* faceVertex = object.getPropertyAs<Quillon::Ptr<IndexArray const>>(sFaceVertex);
    auto const* faceOffset = object.getPropertyAs<Quillon::Ptr<IndexArray const>>(sFaceOffset);
    if (!faceVertex || !*faceVertex || !faceOffset || !*faceOffset)
        return {};
    if (!object.isComponent(sPointComp) || !object.isComponent(sFaceComp))
        return {};
    if (!areFaceArraysConsistent(object.elementCount(sPointComp), object.elementCount(sFaceComp),
                                 **faceVertex, **faceOffset))
        return {};
    return {faceVertex->get(), faceOffset->get()};
}

} // namespace

// ---- prototypes -------------------------------------------------------------------------------

Quillon::Ptr<Object const> getGenericDataGeoPropPrototype()
{
    return registry().generic;
}

template <typename T> Quillon::Ptr<Object const> getDataGeoPropPrototype()
{
    static PropertyPtr const prototype = getDataGeoPropPrototype(kElementTypeName<T>);
    return prototype;
}

Quillon::Ptr<Object const> getDataGeoPropPrototype(Quillon::StringView typeName)
{
    for (ElementType const& type : registry().elementTypes)
        if (type.name == typeName)
            return type.prototype;
    return nullptr;
}

Quillon::Ptr<Object const> getPointCloudPrototype()
{
    return registry().pointCloud;
}
Quillon::Ptr<Object const> getMeshPrototype()
{
    return registry().mesh;
}

// ---- writing ----------------------------------------------------------------------------------

template <typename T>
bool setDataGeoProperty(Object& object, Quillon::String const& name, Quillon::String const& target,
                        Quillon::Array<T> values, T const& defaultValue)
{
    return setDataGeoPropertyShared<T>(object, name, target,
                                       Quillon::makePtr<Quillon::Array<T> const>(std::move(values)),
                                       defaultValue);
}

template <typename T>
bool setDataGeoPropertyShared(Object& object, Quillon::String const& name,
                              Quillon::String const& target,
                              Quillon::Ptr<Quillon::Array<T> const> values, T const& defaultValue)
{
    // Refused: a property that would replace a component (its own target included).
    if (name.empty() || !values || object.isComponent(name) || !object.isComponent(target) ||
        values->size() != object.elementCount(target))
        return false;
    Object property(getDataGeoPropPrototype<T>());
    property.setProperty(sData, std::move(values));
    property.setProperty(sDefault, defaultValue);
    property.setProperty(sTarget, target);
    return object.setProperty(name, Quillon::makePtr<Object const>(std::move(property)));
}

// ---- reading ----------------------------------------------------------------------------------

Quillon::Ptr<Object const> getDataGeoProperty(Object const& object, Quillon::StringView name)
{
    Resolved r = resolve(object, name);
    return r ? *r.property : nullptr;
}

template <typename T>
Quillon::Array<T> const* getDataGeoPropertyValues(Object const& object, Quillon::StringView name)
{
    Resolved r = resolve(object, name);
    if (!r)
        return nullptr;
    auto const* values = (*r.property)->getPropertyAs<Quillon::Ptr<Quillon::Array<T> const>>(sData);
    return values ? values->get() : nullptr;
}

template <typename T>
Quillon::Ptr<Quillon::Array<T> const> getDataGeoPropertyValuesPtr(Object const& object,
                                                                  Quillon::StringView name)
{
    Resolved r = resolve(object, name);
    if (!r)
        return nullptr;
    auto const* values = (*r.property)->getPropertyAs<Quillon::Ptr<Quillon::Array<T> const>>(sData);
    return values ? *values : nullptr;
}

template <typename T>
bool getDataGeoPropertyDefault(Object const& object, Quillon::StringView name, T& out_default)
{
    Resolved r = resolve(object, name);
    if (!r)
        return false;
    T const* value = (*r.property)->getPropertyAs<T>(sDefault);
    if (!value)
        return false;
    out_default = *value;
    return true;
}

Quillon::String getDataGeoPropertyTarget(Object const& object, Quillon::StringView name)
{
    Resolved r = resolve(object, name);
    return r ? *(*r.property)->getPropertyAs<Quillon::String>(sTarget) : Quillon::String();
}

Quillon::StringView getDataGeoPropertyTypeName(Object const& object, Quillon::StringView name)
{
    Resolved r = resolve(object, name);
    return r ? Quillon::StringView(r.type->name) : Quillon::StringView();
}

Quillon::Array<Quillon::String> getGeoPropNamesByPrototype(Object const& object,
                                                           Object const& prototype)
{
    Quillon::Array<Quillon::String> names;
    for (Quillon::String const& name : object.propertyNames()) {
        Resolved r = resolve(object, name);
        if (r && (*r.property)->isInstanceOf(prototype))
            names.push_back(name);
    }
    return names;
}

Quillon::Array<Quillon::String>
getGeoPropNamesByPrototype(Object const& object, Quillon::Ptr<Object const> const& prototype)
{
    if (!prototype)
        return {};
    return getGeoPropNamesByPrototype(object, *prototype);
}

Quillon::Array<Quillon::String> getGeoPropNamesByTarget(Object const& object,
                                                        Quillon::StringView target)
{
    Quillon::Array<Quillon::String> names;
    for (Quillon::String const& name : object.propertyNames()) {
        Resolved r = resolve(object, name);
        if (r && *(*r.property)->getPropertyAs<Quillon::String>(sTarget) == target)
            names.push_back(name);
    }
    return names;
}

std::uint64_t getElementCount(Object const& object, Quillon::StringView componentName)
{
    return object.elementCount(componentName);
}

// ---- point clouds and meshes ------------------------------------------------------------------

Quillon::MutablePtr<Object> createPointCloud(Quillon::Array<float3> positions)
{
    auto cloud = Quillon::makeMutablePtr<Object>(getPointCloudPrototype());
    cloud->setComponent(sPointComp, positions.size());
    setDataGeoProperty<float3>(*cloud, sPointPosition, sPointComp, std::move(positions),
                               float3{0.0f, 0.0f, 0.0f});
    return cloud;
}

Quillon::MutablePtr<Object> createMesh(Quillon::Array<float3> positions, IndexArray faceVertex,
                                       IndexArray faceOffset)
{
    if (faceOffset.empty())
        return nullptr;
    std::uint64_t const faceCount = faceOffset.size() - 1;
    if (!areFaceArraysConsistent(positions.size(), faceCount, faceVertex, faceOffset))
        return nullptr;
    auto mesh = Quillon::makeMutablePtr<Object>(getMeshPrototype());
    mesh->setComponent(sPointComp, positions.size());
    mesh->setComponent(sFaceComp, faceCount);
    setDataGeoProperty<float3>(*mesh, sPointPosition, sPointComp, std::move(positions),
                               float3{0.0f, 0.0f, 0.0f});
    mesh->setProperty(sFaceVertex, Quillon::makePtr<IndexArray const>(std::move(faceVertex)));
    mesh->setProperty(sFaceOffset, Quillon::makePtr<IndexArray const>(std::move(faceOffset)));
    return mesh;
}

IndexArray const* getMeshFaceVertices(Object const& object)
{
    return meshFaceArrays(object).first;
}
IndexArray const* getMeshFaceOffsets(Object const& object)
{
    return meshFaceArrays(object).second;
}

// ---- instantiations for the 18 element types -------------------------------------------------
// HEXMOLD_API is repeated on each instantiation: the math value types are not exported, and an
// instantiation over a hidden type would otherwise be hidden too.

#define HEXMOLD_INSTANTIATE(T, name)                                                               \
    template HEXMOLD_API decltype(getDataGeoPropPrototype<T>) getDataGeoPropPrototype<T>;          \
    template HEXMOLD_API decltype(setDataGeoProperty<T>) setDataGeoProperty<T>;                    \
    template HEXMOLD_API decltype(setDataGeoPropertyShared<T>) setDataGeoPropertyShared<T>;        \
    template HEXMOLD_API decltype(getDataGeoPropertyValues<T>) getDataGeoPropertyValues<T>;        \
    template HEXMOLD_API decltype(getDataGeoPropertyValuesPtr<T>) getDataGeoPropertyValuesPtr<T>;  \
    template HEXMOLD_API decltype(getDataGeoPropertyDefault<T>) getDataGeoPropertyDefault<T>;
HEXMOLD_FOR_EACH_NAMED_ELEMENT_TYPE(HEXMOLD_INSTANTIATE)
#undef HEXMOLD_INSTANTIATE

} // namespace Tavrel::Geometry
