/// @file  api/volume.h
/// @brief `hexmold::Volume`: a sparse volume as a value, the handle every `hexmold::` entry
///        takes and returns.
/// @details A `Volume` owns a volume object (`TVL::Object`: one tile tree, its voxel topology and
///          any number of channels) and knows which of the two tree types it holds. Copies are
///          cheap and independent: the object's components are shared until an operation writes
///          one, and writing operations take a private copy first
///          (`TVL::Object::extractComponent`), so a change to one copy never shows in another.
///
///          Operators of the library that work on objects directly are reached through
///          `object()`; a volume object made elsewhere becomes a `Volume` through the constructor
///          or `Volume::adopt`. Code that changes components of `object()` follows the drivers'
///          rule: extract, change, put back, never write a component obtained by `component()`
///          in place.
#pragma once
#include <cstddef>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/object.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hexmold {

/// The two tile-tree types.
enum class TraitsKind : int {
    kTraits24 = 0, ///< `Traits<2,4,1>`: 4 voxels across a tile, refinement 2, depths 0 to 28
    kTraits55 = 1, ///< `Traits<5,5,1>`: 5 voxels across a tile, refinement 5, depths 0 to 12
};

/// "Traits24" or "Traits55".
HEXMOLD_API char const* traitsName(TraitsKind traits);
/// Deepest depth of a tree type: 28 or 12.
HEXMOLD_API int maxDepth(TraitsKind traits);

/// Name of the signed-distance channel that the level-set factories make and that the
/// operations use unless told otherwise (the runtime's standard name for it).
inline constexpr char kDistanceChannel[] = "voxel_signed_distance";

/// Names of the tree and the voxel topology inside the object.
struct VolumeNames {
    std::string tree = TVL::TileTree3D::Command::kDefaultContainerName;
    std::string topology = TVL::TileTree3D::Command::kDefaultTopologyName;
};

/// A channel of a volume, as `Volume::channels` lists it.
struct ChannelInfo {
    std::string name;        ///< component name
    std::string elementType; ///< "float", "double3", ... (the runtime's names of the 18 types)
    int minDepth = 0;        ///< shallowest depth with data
    int maxDepth = 0;        ///< deepest depth with data
    bool voxelForm = false;  ///< one element per voxel, no halo: the form operations read
};

/// A world-space box; empty when a minimum exceeds its maximum.
struct WorldBox {
    Tavrel::Math::double3 min{1.0, 1.0, 1.0};
    Tavrel::Math::double3 max{-1.0, -1.0, -1.0};
    bool empty() const { return max.x < min.x || max.y < min.y || max.z < min.z; }
};

/// A sparse volume: a tile tree with its topology and channels (see the file comment).
class HEXMOLD_API Volume {
public:
    /// An empty volume: holds no object; every query but `empty()` throws `Error`.
    Volume();
    /// @brief Takes @p object, which must hold a tile tree (`Container<Traits<2,4,1>>` or
    ///        `Container<Traits<5,5,1>>`) and a voxel topology of the same type under @p names.
    /// @throws Error when the tree or the topology is missing or of another type.
    explicit Volume(TVL::Object object, VolumeNames names = {});
    /// The object @p object points to, shared with the caller until either side changes it.
    /// @throws Error as the constructor, and for a null pointer.
    static Volume adopt(Quillon::Ptr<TVL::Object> const& object, VolumeNames names = {});

    Volume(Volume const&);
    Volume(Volume&&) noexcept;
    Volume& operator=(Volume const&);
    Volume& operator=(Volume&&) noexcept;
    ~Volume();

    /// Whether the volume holds no object (default-constructed, or moved from).
    bool empty() const { return !mObject.has_value(); }

    /// The tree type. @throws Error for an empty volume (so do all queries below).
    TraitsKind traits() const;
    /// World size of a voxel of the deepest depth.
    float voxelSize() const;
    /// Tiles per depth, one entry for each depth of the tree type (29 or 13).
    std::vector<std::int64_t> tilesPerDepth() const;
    /// Voxels over all tiles of all depths (tiles times 64 or 125), leaf and non-leaf.
    std::uint64_t voxelCount() const;
    /// World box of the leaf tiles (tiles without children); empty for a tree without tiles.
    WorldBox bbox() const;
    /// Every channel of the object, in name order.
    std::vector<ChannelInfo> channels() const;
    /// Bytes in use by the tree, the topology and all channels.
    std::size_t memoryBytes() const;
    /// @brief The voxel hash of @p channel (diagnostics/voxel_hash.h): a position-weighted mean
    ///        of its voxels, for comparing two volumes value by value.
    /// @details A parallel sum: with different thread splits the last bits may differ; compare
    ///          hashes of runs with one thread, or with the tolerance of `verifyObjectInfo`.
    /// @throws Error when @p channel is not a channel of the voxel form of this tree type.
    double voxelHash(std::string_view channel = kDistanceChannel) const;

    /// The volume object, for the operators that take one. @throws Error for an empty volume.
    TVL::Object const& object() const;
    /// Writable access: operators write through `extractComponent`/`putComponent` so that copies
    /// of this volume stay unchanged.
    TVL::Object& object();
    /// Names of the tree and the topology in the object.
    VolumeNames const& names() const { return mNames; }

private:
    std::optional<TVL::Object> mObject;
    VolumeNames mNames;
    TraitsKind mTraits = TraitsKind::kTraits24;
};

} // namespace hexmold
