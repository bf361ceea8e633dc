/// @file  io/detail/vdb_grids_impl.h
/// @brief The bodies of `voxelGrid` and `readVoxelGrid`, instantiated in the vdb_grid_*.cpp
///        sources (OpenVDB's tree templates make each grid type costly to compile, so each of
///        the seven has a unit of its own).
#pragma once
#include <hexmold/io/detail/vdb_voxels.h>

namespace hexmold::io::detail {

template <typename GridT>
openvdb::GridBase::Ptr voxelGrid(std::vector<openvdb::Coord> const& origins, int width,
                                 std::vector<typename GridT::ValueType> const& values,
                                 typename GridT::ValueType const& background)
{
    auto grid = GridT::create(background);
    auto acc = grid->getAccessor();
    std::size_t n = 0;
    for (openvdb::Coord const& o : origins)
        for (int k = 0; k < width; ++k)
            for (int j = 0; j < width; ++j)
                for (int i = 0; i < width; ++i)
                    acc.setValueOn(o.offsetBy(i, j, k), values[n++]);
    return grid;
}

template <typename GridT>
std::string readVoxelGrid(openvdb::GridBase const& base, std::vector<openvdb::Coord> const& origins,
                          int width, std::vector<typename GridT::ValueType>& out)
{
    auto const* grid = dynamic_cast<GridT const*>(&base);
    if (!grid)
        return "is a " + base.type() + ", not a " + GridT::gridType();
    std::size_t const count = origins.size() * std::size_t(width * width * width);
    if (grid->activeVoxelCount() != count)
        return "holds " + std::to_string(grid->activeVoxelCount()) + " active voxels, not the " +
               std::to_string(count) + " of its depth's tiles";
    out.resize(count);
    auto acc = grid->getConstAccessor();
    std::size_t n = 0;
    for (openvdb::Coord const& o : origins)
        for (int k = 0; k < width; ++k)
            for (int j = 0; j < width; ++j)
                for (int i = 0; i < width; ++i)
                    if (!acc.probeValue(o.offsetBy(i, j, k), out[n++]))
                        return "lacks a voxel of its depth's tiles";
    return {};
}

} // namespace hexmold::io::detail

/// Instantiates both functions for the grid type openvdb::G.
#define HEXMOLD_IO_GRID_INSTANCES(G)                                                               \
    template openvdb::GridBase::Ptr voxelGrid<openvdb::G>(                                         \
        std::vector<openvdb::Coord> const&, int, std::vector<openvdb::G::ValueType> const&,        \
        openvdb::G::ValueType const&);                                                             \
    template std::string readVoxelGrid<openvdb::G>(openvdb::GridBase const&,                       \
                                                   std::vector<openvdb::Coord> const&, int,        \
                                                   std::vector<openvdb::G::ValueType>&);
