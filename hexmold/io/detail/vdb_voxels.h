/// @file  io/detail/vdb_voxels.h
/// @brief Channel elements as OpenVDB grid values, and the per-depth voxel lattices of a tile
///        tree as OpenVDB index coordinates.
/// @details Only for sources built with OpenVDB. The element conversions are exact both ways:
///          integers are widened (unsigned 64-bit values are kept as their bits in an int64),
///          vectors and matrices are cut into parts of three components, padded with zeros.
#pragma once
#include <bit>
#include <cstdint>
#include <cstring>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/type_lists.h>
#include <openvdb/openvdb.h>
#include <string>
#include <type_traits>
#include <vector>

namespace hexmold::io::detail {

/// The scalar type of an element type's components.
template <typename T, typename = void> struct ScalarOf {
    using Type = T;
};
template <typename T> struct ScalarOf<T, std::void_t<typename T::ValueType>> {
    using Type = typename T::ValueType;
};

/// How elements of type T are stored: `Grid` the OpenVDB grid type, `kParts` grids per depth,
/// `encode(value, part)` and `decode(io_value, part, gridValue)` the exact conversions (decode
/// answers false for a grid value the element type cannot hold).
template <typename T> struct ElementStorage {
    using S = typename ScalarOf<T>::Type;
    static constexpr int kComponents = Tavrel::Math::ComponentCount<T>::value;
    static_assert(sizeof(T) == sizeof(S) * kComponents, "elements are packed components");
    static constexpr bool kVector = kComponents > 1;
    static constexpr int kParts = kVector ? (kComponents + 2) / 3 : 1;

    using Grid = std::conditional_t<
        kVector,
        std::conditional_t<
            std::is_same_v<S, float>, openvdb::Vec3SGrid,
            std::conditional_t<std::is_same_v<S, double>, openvdb::Vec3DGrid, openvdb::Vec3IGrid>>,
        std::conditional_t<
            std::is_same_v<S, float>, openvdb::FloatGrid,
            std::conditional_t<std::is_same_v<S, double>, openvdb::DoubleGrid,
                               std::conditional_t<(sizeof(S) < 4 || std::is_same_v<S, int>),
                                                  openvdb::Int32Grid, openvdb::Int64Grid>>>>;
    using Value = typename Grid::ValueType;

    static Value encode(T const& value, int part)
    {
        if constexpr (kVector) {
            S c[kComponents];
            std::memcpy(c, &value, sizeof(T));
            Value v(S(0));
            for (int q = 0; q < 3 && 3 * part + q < kComponents; ++q)
                v[q] = c[3 * part + q];
            return v;
        } else if constexpr (std::is_same_v<S, unsigned long long>) {
            return std::bit_cast<std::int64_t>(value);
        } else {
            return Value(value);
        }
    }

    static bool decode(T& io_value, int part, Value const& v)
    {
        if constexpr (kVector) {
            S c[kComponents];
            std::memcpy(c, &io_value, sizeof(T));
            for (int q = 0; q < 3 && 3 * part + q < kComponents; ++q)
                c[3 * part + q] = v[q];
            std::memcpy(&io_value, c, sizeof(T));
            return true;
        } else if constexpr (std::is_same_v<S, unsigned long long>) {
            io_value = std::bit_cast<unsigned long long>(std::int64_t(v));
            return true;
        } else if constexpr (std::is_integral_v<S>) {
            io_value = static_cast<S>(v);
            return Value(io_value) == v;
        } else {
            io_value = v;
            return true;
        }
    }
};

/// The index coordinates of the voxels of one depth: the voxel with tile-space corner c has
/// index (c + A) / w - A / w + 2116 on each axis (w the depth's voxel width, A the centre offset),
/// exact for both tree instances. The shift puts what lies near the origin in the middle of one
/// node of each level of OpenVDB's tree (4096, 128 and 8 voxels across: 2116 = 2048 + 64 + 4)
/// instead of across eight of each, which cost some 65 KB per grid in the file.
struct DepthLattice {
    std::int64_t centre = 0;     ///< the tree's centre offset A
    std::int64_t voxelWidth = 1; ///< voxel width of the depth in finest voxels
    static constexpr std::int64_t kShift = 2048 + 64 + 4;

    openvdb::Coord index(Tavrel::Math::int3 const& corner) const
    {
        return openvdb::Coord(axis(corner.x), axis(corner.y), axis(corner.z));
    }
    std::int32_t axis(std::int64_t c) const
    {
        return static_cast<std::int32_t>((c + centre) / voxelWidth - centre / voxelWidth + kShift);
    }
    /// Inverse of `axis`.
    std::int64_t corner(std::int32_t index) const
    {
        return (std::int64_t(index) - kShift + centre / voxelWidth) * voxelWidth - centre;
    }
    /// World position of index 0's sample along one axis, for a sample @p offset voxels of
    /// this depth into its voxel (0 or 0.5), in finest voxels.
    double origin(double offset) const { return double(corner(0)) + offset * double(voxelWidth); }
};

/// @brief A grid of type GridT whose active voxels are exactly those of the tiles whose first
///        voxels are @p origins (@p width voxels across), holding @p values in tile order and,
///        within a tile, x fastest; @p background elsewhere.
/// @details Instantiated in the vdb_grid_*.cpp sources, one per grid type of `ElementStorage`.
template <typename GridT>
openvdb::GridBase::Ptr voxelGrid(std::vector<openvdb::Coord> const& origins, int width,
                                 std::vector<typename GridT::ValueType> const& values,
                                 typename GridT::ValueType const& background);

/// @brief The inverse of `voxelGrid`: reads every tile voxel of @p grid into @p out.
/// @return an empty string, or what is wrong ("is a ..., not a ...", "holds N active voxels,
///         not the M of its depth's tiles", "lacks a voxel of its depth's tiles")
template <typename GridT>
std::string readVoxelGrid(openvdb::GridBase const& grid, std::vector<openvdb::Coord> const& origins,
                          int width, std::vector<typename GridT::ValueType>& out);

/// The index of the first voxel of each tile of depth @p depth, in tile order.
template <typename Traits>
std::vector<openvdb::Coord> tileOrigins(TVL::TileTree3D::Container<Traits> const& tree, int depth)
{
    DepthLattice const lattice{Traits::kCentreOffset, Traits::voxelDataWidth(depth)};
    std::vector<openvdb::Coord> out(static_cast<std::size_t>(tree.tileCount(depth)));
    for (std::size_t t = 0; t < out.size(); ++t)
        out[t] = lattice.index(tree.tile(static_cast<std::int64_t>(t), depth).tijk());
    return out;
}

} // namespace hexmold::io::detail
