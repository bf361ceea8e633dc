/// @file  substrate/verify_object.h
/// @brief Checks of a volume object's structure and of channel names: `CoreGL::verifyObject`,
///        `isFuel`, `isEmissionRate`, `isMappable`.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/object.h>

namespace CoreGL {

/// @brief Checks the chain of targets of @p object: the container exists and targets nothing,
///        the topology exists and targets the container, every other component targets the
///        topology.
/// @details Each failed check is reported on the error stream (error verbose level above 0);
///          "verifyObject.begin" and "verifyObject.end (success = ...)" go to the debug stream
///          at verbose level above 2. Checks that need a missing component are skipped.
/// @return whether all checks passed.
HEXMOLD_API bool verifyObject(TVL::Object const& object, Quillon::String const& topologyName,
                              Quillon::String const& containerName);

/// @p name is longer than "voxel_fuel" and begins with it.
HEXMOLD_API bool isFuel(Quillon::String const& name);
/// @p name is longer than "_emission_rate" and ends with it.
HEXMOLD_API bool isEmissionRate(Quillon::String const& name);
/// @p name is longer than "voxel_" and begins with it: the name of a volume channel.
HEXMOLD_API bool isMappable(Quillon::String const& name);

} // namespace CoreGL
