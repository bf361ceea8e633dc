/// @file  diagnostics/object_info.h
/// @brief Fingerprints of a volume object and their comparison: `computeObjectInfo` before an
///        operation, `verifyObjectInfo` after it, to check that shared data was never written in
///        place.
/// @details The graph runtime shares components between objects; a node that writes must first
///          take a private copy (`extractComponent` does). A fingerprint records per component
///          a hash of its data, its size, its owners and the addresses of the component and of
///          its first element. Comparing two fingerprints tells, for each component whose data
///          changed, whether it was shared before (then it must be a different component, with
///          different storage, afterwards) or not (then it must have been written in place).
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <map>

namespace TVL {
class Object;
}

namespace CoreGL {

/// The fingerprint of one component.
struct ComponentInfo {
    /// Channels: the voxel hash (diagnostics/voxel_hash.h). Tree and topology: the bits of
    /// `tileCount(-1)` read as a double.
    double hash = 0.0;
    /// The component's `size()`: tiles of a tree, voxels of a topology, elements of a channel.
    std::uint64_t size = 0;
    /// Owners of the component, the reference held while the fingerprint was taken not counted.
    std::uint64_t useCount = 0;
    /// Channels: `dataUseCount()`; tree and topology: `useCount`.
    std::uint64_t dataUseCount = 0;
    /// Address of the component.
    void const* component = nullptr;
    /// Address of the first element of the first tile of depth 0 (the tile itself for a tree);
    /// null when there is no such tile, and for a topology.
    void const* firstElement = nullptr;
};

/// The fingerprint of a volume object: one record per component, by name.
struct ObjectInfo {
    std::map<Quillon::String, ComponentInfo> components;
    /// The object's `componentsUseCount()`: owners of its component table.
    std::int64_t componentsUseCount = 0;
};

/// @brief Takes the fingerprint of @p object, for the tree named @p containerName (a
///        `Container<Traits<2,4,1>>`, else a `Container<Traits<5,5,1>>`), the topology named
///        @p topologyName and every channel of the voxel form of that tree.
/// @details For each tree type in turn: at verbose level above 2 the line
///          "computeObjectInfo<R, W, E>"; without a tree of that type "Found no container with
///          this type. Exiting."; else the records of the tree, the topology (when present) and,
///          for every other component that is a voxel channel of one of the 18 element types
///          (tried in a fixed order), "found channel for '<name>'" and its record. Components
///          of no such type get no record. When neither tree type is found it reports
///          "computeObjectInfoHelper.error: unable to compute info about object, it has an
///          unsupported traits type" on the error stream (error verbose level above 0).
/// @return the fingerprint; no records when no tree was found.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only (the hashes are
///         parallel reductions).
HEXMOLD_API ObjectInfo computeObjectInfo(TVL::Object const& object,
                                         Quillon::String const& topologyName,
                                         Quillon::String const& containerName);

/// @brief Compares the fingerprints of an object before and after an operation.
/// @details For each record of @p after, in name order: a name missing in @p before is a warning
///          (error verbose level 2 or more), "verifyObjectInfo.warning: Component <name> does not
///          exist in objectInfo struct", and does not change the result. Equal sizes and hashes
///          agreeing within 2.220446049250313e-16 relative (or differing by less than
///          2.2250738585072014e-308) mean unchanged data ("verifyObjectInfo: component '<name>'
///          ok" at verbose level 3 or more). Changed data that was shared before (more than one
///          owner of the component or of its data, or of the object's component table) must not
///          have kept its first element's storage nor, unless the component had a single owner,
///          the component's address:
///          "verifyObjectInfo.error: ref count for component <name> before is larger than one,
///          but data was not cloned". Changed data that was not shared must have kept its
///          storage: "verifyObjectInfo.error: ref count for component <name> before is one, but
///          data was cloned". Errors go to the error stream (error verbose level above 0).
/// @return false when any error was found.
HEXMOLD_API bool verifyObjectInfo(ObjectInfo const& before, ObjectInfo const& after);

} // namespace CoreGL
