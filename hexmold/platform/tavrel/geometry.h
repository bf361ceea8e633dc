/// @file  platform/tavrel/geometry.h
/// @brief `Tavrel::Geometry`: the standard component and property names, generic data geometry
///        properties, point-cloud and mesh objects, and the reads on them.
/// @details A generic data geometry property is a property of the geometry object whose value is
///          a `Quillon::Ptr<Object const>`: an instance of the prototype of its element type
///          (`getDataGeoPropPrototype<T>()`), holding three entries:
///          - `sData`: `Quillon::Ptr<Quillon::Array<T> const>`, one value per element;
///          - `sDefault`: `T`, the value of an element without data;
///          - `sTarget`: `Quillon::String`, the name of the component the values belong to.
///          It is valid when the target is a component of the geometry object and the array has
///          exactly that component's element count. All reads check this and answer null,
///          false, zero or an empty list for anything else (absent, another kind of property,
///          another element type, mismatched lengths); none of them throws.
///          The element types are the 18 channel element types; their names, as
///          `getDataGeoPropPrototype(typeName)` takes them, are "int8", "uint8", "int16",
///          "uint16", "int32", "uint32", "float", "double", "int64", "uint64", "float2",
///          "float3", "float4", "float3x3", "float4x2", "float4x4", "double3", "int3".
///          The typed templates are instantiated for exactly these 18 types.
///          Names of volume channels begin with "voxel_"; that prefix is what marks a property
///          name as one that maps to a volume channel.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/platform/tavrel/object.h>

namespace Tavrel::Geometry {

// ---- names ------------------------------------------------------------------------------------
// Global constants; like all globals of other translation units, not for use in static
// initialisers.

HEXMOLD_API extern Quillon::String const sVoxelTileTree;       ///< "voxel_tile_tree": the tile tree
HEXMOLD_API extern Quillon::String const sVoxelComp;           ///< "voxel_topology": voxel topology
HEXMOLD_API extern Quillon::String const sPointComp;           ///< "point": point component
HEXMOLD_API extern Quillon::String const sFaceComp;            ///< "face": face component of a mesh
HEXMOLD_API extern Quillon::String const sVoxelSignedDistance; ///< "voxel_signed_distance"
HEXMOLD_API extern Quillon::String const sVoxelFlameLevelSet;  ///< "voxel_flame_level_set"
HEXMOLD_API extern Quillon::String const sVoxelSamplingError;  ///< "voxel_sampling_error"
HEXMOLD_API extern Quillon::String const sVoxelDepth;          ///< "voxel_depth"
HEXMOLD_API extern Quillon::String const sVoxelDegreeOfFreedom; ///< "voxel_degree_of_freedom"
HEXMOLD_API extern Quillon::String const sPointPosition; ///< "point_position": float3 per point
HEXMOLD_API extern Quillon::String const sPointSize;     ///< "point_size": float per point
/// "generic_data_geo_prop": key under which each data property prototype holds the name of its
/// element type (the empty string in the common prototype of all of them).
HEXMOLD_API extern Quillon::String const sGenericDataGeoProp;
HEXMOLD_API extern Quillon::String const sData;    ///< "data": the values of a data property
HEXMOLD_API extern Quillon::String const sDefault; ///< "default": its default value
HEXMOLD_API extern Quillon::String const sTarget;  ///< "target": the component it belongs to
/// "face_vertex": `Quillon::Ptr<Quillon::Array<unsigned int> const>`, the point indices of all
/// faces of a mesh, face after face.
HEXMOLD_API extern Quillon::String const sFaceVertex;
/// "face_offset": `Quillon::Ptr<Quillon::Array<unsigned int> const>`, where each face starts in
/// the face-vertex array, with the one-past-the-end entry (face count + 1 entries).
HEXMOLD_API extern Quillon::String const sFaceOffset;

// ---- prototypes -------------------------------------------------------------------------------

/// The common prototype of all data properties (of every element type).
HEXMOLD_API Quillon::Ptr<Object const> getGenericDataGeoPropPrototype();
/// Prototype of data properties of element type T; an instance of the generic one.
template <typename T> HEXMOLD_API Quillon::Ptr<Object const> getDataGeoPropPrototype();
/// @brief Prototype of data properties of the element type named @p typeName (see the names
///        above); null for an unknown name.
HEXMOLD_API Quillon::Ptr<Object const> getDataGeoPropPrototype(Quillon::StringView typeName);
/// Prototype of point clouds (points with `sPointPosition`).
HEXMOLD_API Quillon::Ptr<Object const> getPointCloudPrototype();
/// Prototype of polygon meshes (points, faces, `sFaceVertex`, `sFaceOffset`). A mesh is not a
/// point cloud.
HEXMOLD_API Quillon::Ptr<Object const> getMeshPrototype();

// ---- writing data properties ---------------------------------------------------------------

/// @brief Sets data property @p name of @p object.
/// @param object        receives the property (replacing any property of that name)
/// @param name          property name; not empty
/// @param target        name of a component of @p object
/// @param values        one value per element of @p target
/// @param defaultValue  value of an element without data
/// @return false, and @p object unchanged, when @p name is empty, @p target is not a component
///         of @p object or the number of values differs from its element count.
template <typename T>
HEXMOLD_API bool setDataGeoProperty(Object& object, Quillon::String const& name,
                                    Quillon::String const& target, Quillon::Array<T> values,
                                    T const& defaultValue);
/// As `setDataGeoProperty`, sharing @p values instead of taking them (null is refused).
template <typename T>
HEXMOLD_API bool
setDataGeoPropertyShared(Object& object, Quillon::String const& name, Quillon::String const& target,
                         Quillon::Ptr<Quillon::Array<T> const> values, T const& defaultValue);

// ---- reading data properties ---------------------------------------------------------------

/// @brief The data property @p name of @p object, as its property object.
/// @return null unless the property exists and is a valid data property (see above).
HEXMOLD_API Quillon::Ptr<Object const> getDataGeoProperty(Object const& object,
                                                          Quillon::StringView name);
/// Values of data property @p name if it is valid and of element type T; else null. The pointer
/// lives as long as the property is neither replaced nor removed.
template <typename T>
HEXMOLD_API Quillon::Array<T> const* getDataGeoPropertyValues(Object const& object,
                                                              Quillon::StringView name);
/// As `getDataGeoPropertyValues`, as a shared pointer that keeps the values alive.
template <typename T>
HEXMOLD_API Quillon::Ptr<Quillon::Array<T> const>
getDataGeoPropertyValuesPtr(Object const& object, Quillon::StringView name);
/// @brief Default value of data property @p name.
/// @param out_default  receives the default; untouched on failure
/// @return false unless the property is valid and of element type T.
template <typename T>
HEXMOLD_API bool getDataGeoPropertyDefault(Object const& object, Quillon::StringView name,
                                           T& out_default);
/// Target component of data property @p name; empty unless the property is valid.
HEXMOLD_API Quillon::String getDataGeoPropertyTarget(Object const& object,
                                                     Quillon::StringView name);
/// Element type name of data property @p name (see above); empty unless the property is valid.
HEXMOLD_API Quillon::StringView getDataGeoPropertyTypeName(Object const& object,
                                                           Quillon::StringView name);

/// Names, in ascending order, of the valid data properties of @p object that are instances of
/// @p prototype: `getDataGeoPropPrototype<T>()` selects element type T,
/// `getGenericDataGeoPropPrototype()` all of them.
HEXMOLD_API Quillon::Array<Quillon::String> getGeoPropNamesByPrototype(Object const& object,
                                                                       Object const& prototype);
/// As above; a null @p prototype gives an empty list.
HEXMOLD_API Quillon::Array<Quillon::String>
getGeoPropNamesByPrototype(Object const& object, Quillon::Ptr<Object const> const& prototype);
/// Names, in ascending order, of the valid data properties of @p object that target component
/// @p target.
HEXMOLD_API Quillon::Array<Quillon::String> getGeoPropNamesByTarget(Object const& object,
                                                                    Quillon::StringView target);
/// Element count of component @p componentName of @p object; 0 when it is absent or is not a
/// component.
HEXMOLD_API std::uint64_t getElementCount(Object const& object, Quillon::StringView componentName);

// ---- point clouds and meshes ---------------------------------------------------------------

/// @brief A point cloud: an instance of `getPointCloudPrototype()` with the component `sPointComp`
///        of positions.size() points and the float3 data property `sPointPosition` (default 0).
///        Further point properties (e.g. `sPointSize`) are added with `setDataGeoProperty`.
HEXMOLD_API Quillon::MutablePtr<Object> createPointCloud(Quillon::Array<Math::float3> positions);

/// @brief A polygon mesh: an instance of `getMeshPrototype()` with the components `sPointComp`
///        and `sFaceComp`, the float3 data property `sPointPosition`, and `sFaceVertex`,
///        `sFaceOffset`.
/// @param positions   world-space points
/// @param faceVertex  point indices of all faces, face after face; each below positions.size()
/// @param faceOffset  start of each face in @p faceVertex, then faceVertex.size(); starts at 0
///                    and never decreases. Faces of fewer than three points are kept.
/// @return null when the arrays are inconsistent.
HEXMOLD_API Quillon::MutablePtr<Object> createMesh(Quillon::Array<Math::float3> positions,
                                                   Quillon::Array<unsigned int> faceVertex,
                                                   Quillon::Array<unsigned int> faceOffset);
/// Point indices of the faces of mesh @p object; null unless it is a mesh whose face arrays
/// agree with its face count.
HEXMOLD_API Quillon::Array<unsigned int> const* getMeshFaceVertices(Object const& object);
/// Face starts of mesh @p object (face count + 1 entries); null as for `getMeshFaceVertices`.
HEXMOLD_API Quillon::Array<unsigned int> const* getMeshFaceOffsets(Object const& object);

} // namespace Tavrel::Geometry
