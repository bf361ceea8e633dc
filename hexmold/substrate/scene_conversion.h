/// @file  substrate/scene_conversion.h
/// @brief Conversion between the volume object (`TVL::Object`) and the runtime's geometry object
///        (`Tavrel::Object`), and the naming of volume channels for geometry properties.
/// @details A geometry object that carries a volume is an instance of `getVolumePrototype()`
///          and holds each component of the volume as a property of the component's name, whose
///          value is a `Quillon::Ptr<TVL::Component>`. Moving keeps the components' identity and
///          reference counts; the shallow copy shares them.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/platform/tavrel/object.h>
#include <hexmold/substrate/object.h>

namespace Tavrel::Geometry {

/// The prototype of geometry objects that carry a volume.
HEXMOLD_API Quillon::Ptr<Tavrel::Object const> const& getVolumePrototype();

/// Gives the runtime's object for @p volume, moving every component into it; @p volume is left
/// without components.
HEXMOLD_API Tavrel::Object move_tvl_volume_to_object(TVL::Object& volume);

/// The reverse: moves the volume components of @p object (properties holding a component) into a
/// new volume object; other properties stay in @p object. An object that is not a volume gives
/// an empty volume object.
HEXMOLD_API TVL::Object move_object_to_tvl_volume(Tavrel::Object& object);

/// A volume object sharing the components of @p object (nothing is copied; writers extract, which
/// copies shared components). Null when @p object carries no volume.
HEXMOLD_API Quillon::Ptr<TVL::Object>
shallow_copy_object_to_tvl_volume(Tavrel::Object const& object);

} // namespace Tavrel::Geometry

namespace Tavrel {

/// The name of the volume channel for the geometry property @p name of @p object: names that
/// already map to the volume (`CoreGL::isMappable`: longer than and beginning with "voxel_") and
/// every name of an object that is itself a volume are kept; other names get the prefix "voxel_".
/// An empty name gives an empty name.
HEXMOLD_API Quillon::String mapGeoPropertyNameToTVLVolume(Quillon::String const& name,
                                                          Tavrel::Object const& object);

} // namespace Tavrel
