// Tests of Tavrel::Geometry: names, data properties of all element types, checked reads,
// point clouds and meshes.
#include <gtest/gtest.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <set>
#include <string>

using namespace Tavrel::Geometry;
using Tavrel::Object;
using Tavrel::Math::float3;

namespace {

/// An object with a point component of @p n points.
Object pointsObject(std::uint64_t n)
{
    Object object;
    object.setComponent(sPointComp, n);
    return object;
}

} // namespace

TEST(Geometry, NameConstantsHaveTheirValues)
{
    EXPECT_EQ(sVoxelTileTree, "voxel_tile_tree");
    EXPECT_EQ(sVoxelComp, "voxel_topology");
    EXPECT_EQ(sPointComp, "point");
    EXPECT_EQ(sFaceComp, "face");
    EXPECT_EQ(sVoxelSignedDistance, "voxel_signed_distance");
    EXPECT_EQ(sVoxelFlameLevelSet, "voxel_flame_level_set");
    EXPECT_EQ(sVoxelSamplingError, "voxel_sampling_error");
    EXPECT_EQ(sVoxelDepth, "voxel_depth");
    EXPECT_EQ(sVoxelDegreeOfFreedom, "voxel_degree_of_freedom");
    EXPECT_EQ(sPointPosition, "point_position");
    EXPECT_EQ(sPointSize, "point_size");
    EXPECT_EQ(sGenericDataGeoProp, "generic_data_geo_prop");
    EXPECT_EQ(sData, "data");
    EXPECT_EQ(sDefault, "default");
    EXPECT_EQ(sTarget, "target");
}

TEST(Geometry, VolumeChannelNamesBeginWithVoxelPrefix)
{
    for (auto const* name : {&sVoxelSignedDistance, &sVoxelFlameLevelSet, &sVoxelSamplingError,
                             &sVoxelDepth, &sVoxelDegreeOfFreedom}) {
        EXPECT_EQ(name->rfind("voxel_", 0), 0u) << *name;
        EXPECT_GT(name->size(), std::string("voxel_").size());
    }
    for (auto const* name : {&sPointComp, &sFaceComp, &sPointPosition, &sPointSize})
        EXPECT_NE(name->rfind("voxel_", 0), 0u) << *name;
}

TEST(Geometry, PrototypesAreDistinctAndStable)
{
    std::set<Object const*> seen;
    for (char const* name : {"int8", "uint8", "int16", "uint16", "int32", "uint32", "float",
                             "double", "int64", "uint64", "float2", "float3", "float4", "float3x3",
                             "float4x2", "float4x4", "double3", "int3"}) {
        auto const prototype = getDataGeoPropPrototype(name);
        ASSERT_TRUE(prototype) << name;
        EXPECT_TRUE(prototype->isInstanceOf(getGenericDataGeoPropPrototype())) << name;
        EXPECT_EQ(*prototype->getPropertyAs<Quillon::String>(sGenericDataGeoProp), name);
        seen.insert(prototype.get());
    }
    EXPECT_EQ(seen.size(), 18u);
    EXPECT_EQ(getDataGeoPropPrototype<float>().get(), getDataGeoPropPrototype("float").get());
    EXPECT_EQ(getDataGeoPropPrototype<signed char>().get(), getDataGeoPropPrototype("int8").get());
    EXPECT_EQ(getDataGeoPropPrototype<unsigned long long>().get(),
              getDataGeoPropPrototype("uint64").get());
    EXPECT_EQ(getPointCloudPrototype().get(), getPointCloudPrototype().get());
    EXPECT_NE(getPointCloudPrototype().get(), getMeshPrototype().get());
}

TEST(Geometry, UnknownTypeNameHasNoPrototype)
{
    EXPECT_FALSE(getDataGeoPropPrototype("float5"));
    EXPECT_FALSE(getDataGeoPropPrototype(""));
}

TEST(Geometry, SetAndReadFloatProperty)
{
    Object object = pointsObject(3);
    ASSERT_TRUE(setDataGeoProperty<float>(object, "temperature", sPointComp, {1.f, 2.f, 3.f}, 7.f));
    auto const property = getDataGeoProperty(object, "temperature");
    ASSERT_TRUE(property);
    EXPECT_TRUE(property->isInstanceOf(getDataGeoPropPrototype<float>()));
    EXPECT_TRUE(property->isInstanceOf(getGenericDataGeoPropPrototype()));

    auto const* values = getDataGeoPropertyValues<float>(object, "temperature");
    ASSERT_NE(values, nullptr);
    ASSERT_EQ(values->size(), 3u);
    EXPECT_EQ((*values)[2], 3.f);
    float defaultValue = 0.f;
    EXPECT_TRUE(getDataGeoPropertyDefault<float>(object, "temperature", defaultValue));
    EXPECT_EQ(defaultValue, 7.f);
    EXPECT_EQ(getDataGeoPropertyTarget(object, "temperature"), sPointComp);
    EXPECT_EQ(getDataGeoPropertyTypeName(object, "temperature"), "float");
    // The raw layout: sData holds a shared array, sDefault the value, sTarget the component.
    EXPECT_NE(property->getPropertyAs<Quillon::Ptr<Quillon::Array<float> const>>(sData), nullptr);
    EXPECT_NE(property->getPropertyAs<float>(sDefault), nullptr);
    EXPECT_NE(property->getPropertyAs<Quillon::String>(sTarget), nullptr);
}

TEST(Geometry, WrongElementTypeReadGivesNull)
{
    Object object = pointsObject(2);
    ASSERT_TRUE(setDataGeoProperty<float>(object, "t", sPointComp, {1.f, 2.f}, 0.f));
    EXPECT_EQ(getDataGeoPropertyValues<double>(object, "t"), nullptr);
    EXPECT_EQ(getDataGeoPropertyValues<int>(object, "t"), nullptr);
    EXPECT_FALSE(getDataGeoPropertyValuesPtr<float3>(object, "t"));
    double d = -1.0;
    EXPECT_FALSE(getDataGeoPropertyDefault<double>(object, "t", d));
    EXPECT_EQ(d, -1.0);
}

TEST(Geometry, MissingPropertyGivesNull)
{
    Object object = pointsObject(2);
    EXPECT_FALSE(getDataGeoProperty(object, "absent"));
    EXPECT_EQ(getDataGeoPropertyValues<float>(object, "absent"), nullptr);
    EXPECT_EQ(getDataGeoPropertyTarget(object, "absent"), "");
    EXPECT_EQ(getDataGeoPropertyTypeName(object, "absent"), "");
    float f = 0.f;
    EXPECT_FALSE(getDataGeoPropertyDefault<float>(object, "absent", f));
}

TEST(Geometry, PlainPropertyIsNotADataProperty)
{
    Object object = pointsObject(2);
    object.setProperty("plain", 3);
    object.setProperty("object", Quillon::makePtr<Object const>());
    object.setProperty("null_object", Quillon::Ptr<Object const>());
    EXPECT_FALSE(getDataGeoProperty(object, "plain"));
    EXPECT_FALSE(getDataGeoProperty(object, "object"));
    EXPECT_FALSE(getDataGeoProperty(object, "null_object"));
    EXPECT_FALSE(getDataGeoProperty(object, sPointComp));
    EXPECT_TRUE(getGeoPropNamesByTarget(object, sPointComp).empty());
}

TEST(Geometry, MismatchedLengthIsRefused)
{
    Object object = pointsObject(4);
    EXPECT_FALSE(setDataGeoProperty<float>(object, "t", sPointComp, {1.f, 2.f, 3.f}, 0.f));
    EXPECT_FALSE(object.hasProperty("t"));
    EXPECT_FALSE(setDataGeoProperty<float>(object, "t", sPointComp, {}, 0.f));
}

TEST(Geometry, MissingTargetIsRefused)
{
    Object object = pointsObject(2);
    EXPECT_FALSE(setDataGeoProperty<float>(object, "t", sFaceComp, {1.f, 2.f}, 0.f));
    object.setProperty("plain", 2);
    EXPECT_FALSE(setDataGeoProperty<float>(object, "t", "plain", {1.f, 2.f}, 0.f));
    EXPECT_FALSE(object.hasProperty("t"));
}

TEST(Geometry, PropertyMayNotReplaceAComponent)
{
    Object object = pointsObject(2);
    EXPECT_FALSE(setDataGeoProperty<float>(object, sPointComp, sPointComp, {1.f, 2.f}, 0.f));
    EXPECT_FALSE(setDataGeoProperty<float>(object, "", sPointComp, {1.f, 2.f}, 0.f));
    EXPECT_TRUE(object.isComponent(sPointComp));
}

TEST(Geometry, NullSharedValuesAreRefused)
{
    Object object = pointsObject(0);
    EXPECT_FALSE(setDataGeoPropertyShared<float>(object, "t", sPointComp, nullptr, 0.f));
}

TEST(Geometry, SharedValuesAreNotCopied)
{
    Object object = pointsObject(2);
    auto values = Quillon::makePtr<Quillon::Array<double> const>(Quillon::Array<double>{1.0, 2.0});
    ASSERT_TRUE(setDataGeoPropertyShared<double>(object, "d", sPointComp, values, 0.0));
    EXPECT_EQ(getDataGeoPropertyValues<double>(object, "d"), values.get());
    auto const held = getDataGeoPropertyValuesPtr<double>(object, "d");
    EXPECT_EQ(held.get(), values.get());
    // The object, the caller's pointer and `held`.
    EXPECT_EQ(values.useCount(), 3);
}

TEST(Geometry, EmptyComponentTakesEmptyArrays)
{
    Object object = pointsObject(0);
    ASSERT_TRUE(setDataGeoProperty<int>(object, "i", sPointComp, {}, 5));
    auto const* values = getDataGeoPropertyValues<int>(object, "i");
    ASSERT_NE(values, nullptr);
    EXPECT_TRUE(values->empty());
}

TEST(Geometry, ChangedElementCountInvalidatesProperty)
{
    Object object = pointsObject(2);
    ASSERT_TRUE(setDataGeoProperty<float>(object, "t", sPointComp, {1.f, 2.f}, 0.f));
    object.setComponent(sPointComp, 3);
    EXPECT_FALSE(getDataGeoProperty(object, "t"));
    EXPECT_EQ(getDataGeoPropertyValues<float>(object, "t"), nullptr);
    object.removeProperty(sPointComp);
    EXPECT_FALSE(getDataGeoProperty(object, "t"));
}

TEST(Geometry, HandBuiltPropertyWithWrongEntriesIsRejected)
{
    Object object = pointsObject(2);
    // Instance of the float prototype, but its data is an int array.
    Object bad(getDataGeoPropPrototype<float>());
    bad.setProperty(sData, Quillon::makePtr<Quillon::Array<int> const>(Quillon::Array<int>{1, 2}));
    bad.setProperty(sDefault, 0.f);
    bad.setProperty(sTarget, sPointComp);
    object.setProperty("bad", Quillon::makePtr<Object const>(bad));
    EXPECT_FALSE(getDataGeoProperty(object, "bad"));
    // The right data but a default of another type.
    Object bad2(getDataGeoPropPrototype<float>());
    bad2.setProperty(sData,
                     Quillon::makePtr<Quillon::Array<float> const>(Quillon::Array<float>{1, 2}));
    bad2.setProperty(sDefault, 0.0);
    bad2.setProperty(sTarget, sPointComp);
    object.setProperty("bad2", Quillon::makePtr<Object const>(bad2));
    EXPECT_FALSE(getDataGeoProperty(object, "bad2"));
    // Well formed, with no target entry.
    Object bad3(getDataGeoPropPrototype<float>());
    bad3.setProperty(sData,
                     Quillon::makePtr<Quillon::Array<float> const>(Quillon::Array<float>{1, 2}));
    bad3.setProperty(sDefault, 0.f);
    object.setProperty("bad3", Quillon::makePtr<Object const>(bad3));
    EXPECT_FALSE(getDataGeoProperty(object, "bad3"));
    // No prototype at all.
    Object bad4;
    bad4.setProperty(sData,
                     Quillon::makePtr<Quillon::Array<float> const>(Quillon::Array<float>{1, 2}));
    bad4.setProperty(sDefault, 0.f);
    bad4.setProperty(sTarget, sPointComp);
    object.setProperty("bad4", Quillon::makePtr<Object const>(bad4));
    EXPECT_FALSE(getDataGeoProperty(object, "bad4"));
    EXPECT_TRUE(getGeoPropNamesByPrototype(object, getGenericDataGeoPropPrototype()).empty());
}

TEST(Geometry, NamesByTargetAndByPrototype)
{
    Object object = pointsObject(2);
    object.setComponent(sFaceComp, 1);
    ASSERT_TRUE(setDataGeoProperty<float>(object, "b_float", sPointComp, {1.f, 2.f}, 0.f));
    ASSERT_TRUE(setDataGeoProperty<float>(object, "a_float", sPointComp, {1.f, 2.f}, 0.f));
    ASSERT_TRUE(setDataGeoProperty<int>(object, "face_id", sFaceComp, {9}, 0));
    ASSERT_TRUE(setDataGeoProperty<float3>(object, "velocity", sPointComp,
                                           {float3{1, 0, 0}, float3{0, 1, 0}}, float3{0, 0, 0}));
    object.setProperty("plain", 1);

    auto const onPoints = getGeoPropNamesByTarget(object, sPointComp);
    ASSERT_EQ(onPoints.size(), 3u);
    EXPECT_EQ(onPoints[0], "a_float");
    EXPECT_EQ(onPoints[1], "b_float");
    EXPECT_EQ(onPoints[2], "velocity");
    auto const onFaces = getGeoPropNamesByTarget(object, sFaceComp);
    ASSERT_EQ(onFaces.size(), 1u);
    EXPECT_EQ(onFaces[0], "face_id");
    EXPECT_TRUE(getGeoPropNamesByTarget(object, "absent").empty());

    auto const floats = getGeoPropNamesByPrototype(object, getDataGeoPropPrototype<float>());
    ASSERT_EQ(floats.size(), 2u);
    EXPECT_EQ(floats[0], "a_float");
    EXPECT_EQ(floats[1], "b_float");
    auto const vectors = getGeoPropNamesByPrototype(object, *getDataGeoPropPrototype<float3>());
    ASSERT_EQ(vectors.size(), 1u);
    EXPECT_EQ(vectors[0], "velocity");
    EXPECT_EQ(getGeoPropNamesByPrototype(object, getGenericDataGeoPropPrototype()).size(), 4u);
    EXPECT_TRUE(getGeoPropNamesByPrototype(object, getDataGeoPropPrototype<double>()).empty());
    EXPECT_TRUE(getGeoPropNamesByPrototype(object, Quillon::Ptr<Object const>()).empty());
    EXPECT_TRUE(getGeoPropNamesByPrototype(object, getPointCloudPrototype()).empty());
}

TEST(Geometry, ElementCountOfComponents)
{
    Object object = pointsObject(5);
    object.setProperty("plain", 7);
    EXPECT_EQ(getElementCount(object, sPointComp), 5u);
    EXPECT_EQ(getElementCount(object, sFaceComp), 0u);
    EXPECT_EQ(getElementCount(object, "plain"), 0u);
}

// ---- all 18 element types ---------------------------------------------------------------------

template <typename T> class GeometryElement : public ::testing::Test {
};

namespace {
using ElementTypes =
    ::testing::Types<signed char, unsigned char, short, unsigned short, int, unsigned int, float,
                     double, long long, unsigned long long, Tavrel::Math::float2,
                     Tavrel::Math::float3, Tavrel::Math::float4, Tavrel::Math::float3x3,
                     Tavrel::Math::float4x2, Tavrel::Math::float4x4, Tavrel::Math::double3,
                     Tavrel::Math::int3>;

/// A value of T whose first component is @p v (the rest zero).
template <typename T> T valueOf(int v)
{
    T t{};
    if constexpr (std::is_arithmetic_v<T>) {
        t = static_cast<T>(v);
    } else if constexpr (requires { t.m; }) {
        t.m[0][0] = static_cast<typename T::ValueType>(v);
    } else {
        t[0] = static_cast<typename T::ValueType>(v);
    }
    return t;
}

struct ElementTypeNames {
    template <typename T> static std::string GetName(int)
    {
        Object object = pointsObject(1);
        setDataGeoProperty<T>(object, "p", sPointComp, {valueOf<T>(1)}, valueOf<T>(0));
        return std::string(getDataGeoPropertyTypeName(object, "p"));
    }
};
} // namespace

TYPED_TEST_SUITE(GeometryElement, ElementTypes, ElementTypeNames);

TYPED_TEST(GeometryElement, RoundTripsValuesAndDefault)
{
    using T = TypeParam;
    Object object = pointsObject(3);
    ASSERT_TRUE(setDataGeoProperty<T>(
        object, "p", sPointComp, {valueOf<T>(1), valueOf<T>(2), valueOf<T>(3)}, valueOf<T>(9)));
    auto const* values = getDataGeoPropertyValues<T>(object, "p");
    ASSERT_NE(values, nullptr);
    ASSERT_EQ(values->size(), 3u);
    EXPECT_EQ(Tavrel::Math::componentAsDouble((*values)[1], 0), 2.0);
    T defaultValue = valueOf<T>(0);
    ASSERT_TRUE(getDataGeoPropertyDefault<T>(object, "p", defaultValue));
    EXPECT_EQ(Tavrel::Math::componentAsDouble(defaultValue, 0), 9.0);
    auto const property = getDataGeoProperty(object, "p");
    ASSERT_TRUE(property);
    EXPECT_TRUE(property->isInstanceOf(getDataGeoPropPrototype<T>()));
    auto const names = getGeoPropNamesByPrototype(object, getDataGeoPropPrototype<T>());
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0], "p");
    EXPECT_EQ(getDataGeoPropPrototype(getDataGeoPropertyTypeName(object, "p")).get(),
              getDataGeoPropPrototype<T>().get());
}

TYPED_TEST(GeometryElement, OnlyItsOwnTypeReadsIt)
{
    using T = TypeParam;
    Object object = pointsObject(1);
    ASSERT_TRUE(setDataGeoProperty<T>(object, "p", sPointComp, {valueOf<T>(1)}, valueOf<T>(0)));
    int readable = 0;
    readable += getDataGeoPropertyValues<signed char>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<unsigned char>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<short>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<unsigned short>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<int>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<unsigned int>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<float>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<double>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<long long>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<unsigned long long>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<Tavrel::Math::float2>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<Tavrel::Math::float3>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<Tavrel::Math::float4>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<Tavrel::Math::float3x3>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<Tavrel::Math::float4x2>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<Tavrel::Math::float4x4>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<Tavrel::Math::double3>(object, "p") != nullptr;
    readable += getDataGeoPropertyValues<Tavrel::Math::int3>(object, "p") != nullptr;
    EXPECT_EQ(readable, 1);
    EXPECT_NE(getDataGeoPropertyValues<T>(object, "p"), nullptr);
}

// ---- point clouds and meshes ------------------------------------------------------------------

TEST(Geometry, PointCloudHasPointsAndPositions)
{
    auto cloud = createPointCloud({float3{0, 0, 0}, float3{1, 2, 3}});
    ASSERT_TRUE(cloud);
    EXPECT_TRUE(cloud->isInstanceOf(getPointCloudPrototype()));
    EXPECT_FALSE(cloud->isInstanceOf(getMeshPrototype()));
    EXPECT_EQ(getElementCount(*cloud, sPointComp), 2u);
    auto const* positions = getDataGeoPropertyValues<float3>(*cloud, sPointPosition);
    ASSERT_NE(positions, nullptr);
    EXPECT_EQ((*positions)[1].z, 3.f);
    EXPECT_TRUE(setDataGeoProperty<float>(*cloud, sPointSize, sPointComp, {0.5f, 0.25f}, 1.f));
    EXPECT_EQ(getGeoPropNamesByTarget(*cloud, sPointComp).size(), 2u);
    EXPECT_EQ(getMeshFaceVertices(*cloud), nullptr);
}

TEST(Geometry, EmptyPointCloud)
{
    auto cloud = createPointCloud({});
    ASSERT_TRUE(cloud);
    EXPECT_EQ(getElementCount(*cloud, sPointComp), 0u);
    ASSERT_NE(getDataGeoPropertyValues<float3>(*cloud, sPointPosition), nullptr);
}

TEST(Geometry, MeshHasPointsFacesAndFaceArrays)
{
    // A quad and a triangle sharing an edge.
    auto mesh = createMesh(
        {float3{0, 0, 0}, float3{1, 0, 0}, float3{1, 1, 0}, float3{0, 1, 0}, float3{2, 0, 0}},
        {0, 1, 2, 3, 1, 4, 2}, {0, 4, 7});
    ASSERT_TRUE(mesh);
    EXPECT_TRUE(mesh->isInstanceOf(getMeshPrototype()));
    EXPECT_FALSE(mesh->isInstanceOf(getPointCloudPrototype()));
    EXPECT_EQ(getElementCount(*mesh, sPointComp), 5u);
    EXPECT_EQ(getElementCount(*mesh, sFaceComp), 2u);
    auto const* faceVertex = getMeshFaceVertices(*mesh);
    auto const* faceOffset = getMeshFaceOffsets(*mesh);
    ASSERT_NE(faceVertex, nullptr);
    ASSERT_NE(faceOffset, nullptr);
    EXPECT_EQ(faceVertex->size(), 7u);
    EXPECT_EQ(faceOffset->size(), 3u);
    EXPECT_EQ(getDataGeoPropertyValues<float3>(*mesh, sPointPosition)->size(), 5u);
    // Face topology is not a point property.
    auto const onPoints = getGeoPropNamesByTarget(*mesh, sPointComp);
    ASSERT_EQ(onPoints.size(), 1u);
    EXPECT_EQ(onPoints[0], sPointPosition);
    EXPECT_TRUE(setDataGeoProperty<int>(*mesh, "material", sFaceComp, {1, 2}, 0));
}

TEST(Geometry, MeshWithShortFacesIsKept)
{
    auto mesh = createMesh({float3{0, 0, 0}, float3{1, 0, 0}}, {0, 1}, {0, 2, 2});
    ASSERT_TRUE(mesh);
    EXPECT_EQ(getElementCount(*mesh, sFaceComp), 2u);
}

TEST(Geometry, InconsistentMeshArraysAreRefused)
{
    Quillon::Array<float3> const points{float3{0, 0, 0}, float3{1, 0, 0}, float3{0, 1, 0}};
    EXPECT_FALSE(createMesh(points, {0, 1, 2}, {}));           // no offsets at all
    EXPECT_FALSE(createMesh(points, {0, 1, 2}, {1, 3}));       // does not start at 0
    EXPECT_FALSE(createMesh(points, {0, 1, 2}, {0, 2}));       // does not end at the size
    EXPECT_FALSE(createMesh(points, {0, 1, 2}, {0, 3, 1, 3})); // decreasing
    EXPECT_FALSE(createMesh(points, {0, 1, 3}, {0, 3}));       // index out of range
    EXPECT_TRUE(createMesh(points, {0, 1, 2}, {0, 3}));
    EXPECT_TRUE(createMesh({}, {}, {0})); // no faces
}

TEST(Geometry, DamagedMeshIsNotRead)
{
    auto mesh = createMesh({float3{0, 0, 0}, float3{1, 0, 0}, float3{0, 1, 0}}, {0, 1, 2}, {0, 3});
    ASSERT_TRUE(mesh);
    Object damaged = *mesh;
    damaged.setComponent(sFaceComp, 2);
    EXPECT_EQ(getMeshFaceVertices(damaged), nullptr);
    EXPECT_EQ(getMeshFaceOffsets(damaged), nullptr);
    Object wrongType = *mesh;
    wrongType.setProperty(sFaceVertex, 3);
    EXPECT_EQ(getMeshFaceVertices(wrongType), nullptr);
    Object notMesh = *mesh;
    notMesh.setPrototype(nullptr);
    EXPECT_EQ(getMeshFaceVertices(notMesh), nullptr);
}
