// A volume object for operator tests: a tree (graded towards a sphere, or a uniform band around
// it), its topology, and channels filled from analytic functions at every voxel of every depth.
#pragma once
#include "fixtures/trees.h"
#include <cmath>
#include <cstdint>
#include <functional>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/object.h>
#include <vector>

namespace testscene {

using namespace TVL::TileTree3D;
using Tavrel::Math::Vec3;

template <typename Tr> class Scene {
public:
    static constexpr int W = Tr::kTileWidth;
    Quillon::Ptr<TVL::Object> object;

    explicit Scene(float voxelSize)
        : object(Command::createVoxelTVL<Tr>(Tavrel::Geometry::sVoxelTileTree,
                                             Tavrel::Geometry::sVoxelComp, voxelSize,
                                             kVoxelOffsetCenter))
    {
    }

    /// Tiles of every depth within @p bandTiles of their own widths of a sphere of radius @p r
    /// finest voxels, down to the deepest depth: resolution jumps near the surface.
    void buildGradedSphere(double r, double bandTiles)
    {
        build([&](Container<Tr>& c) {
            testtrees::buildGradedSphere(c, r, Tr::kMaxDepth, bandTiles);
        });
    }
    /// The deepest tiles within @p band finest voxels of the sphere, with their ancestors only.
    void buildUniformBand(double r, double band)
    {
        build([&](Container<Tr>& c) {
            testtrees::refineWhere<Tr>(c, Tr::kMaxDepth, [&](int3 const& corner, int depth) {
                return testtrees::boxSphereDistance<Tr>(corner, depth, r) <= band;
            });
        });
    }
    template <typename F> void build(F const& grow)
    {
        TVL::ComponentGuard<Container<Tr>> tree(*object, Tavrel::Geometry::sVoxelTileTree);
        TVL::ComponentGuard<VoxelTopology<Tr>> topology(*object, Tavrel::Geometry::sVoxelComp);
        grow(*tree);
        topology->update(*tree);
    }

    Container<Tr> const& tree() const
    {
        return *object->template component<Container<Tr>>(Tavrel::Geometry::sVoxelTileTree);
    }
    VoxelTopology<Tr> const& topology() const
    {
        return *object->template component<VoxelTopology<Tr>>(Tavrel::Geometry::sVoxelComp);
    }

    /// World position of voxel (i, j, k) of @p t: its centre, or its corner.
    Vec3<double> position(Tile<Tr> const& t, int i, int j, int k, bool corner) const
    {
        double const w = double(t.voxelDataWidth()), h = tree().voxelSize(), o = corner ? 0.0 : 0.5;
        return {(t.ti() + (i + o) * w) * h, (t.tj() + (j + o) * w) * h, (t.tk() + (k + o) * w) * h};
    }

    template <typename T, int H = 0, typename F> void add(char const* name, F const& value)
    {
        auto ch = Command::createChannel<T, Tr::kRatio, W, W, H>(
            name, topology(), *object, T{}, kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
        Container<Tr> const& c = tree();
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
                auto td = ch->tileData(t, d);
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            td(i, j, k) = value(c.tile(t, d), i, j, k);
            }
    }
    template <typename S, typename F> void addScalar(char const* name, F const& f, bool corner)
    {
        add<S>(name, [&](Tile<Tr> const& t, int i, int j, int k) {
            auto const p = position(t, i, j, k, corner);
            return static_cast<S>(f(p.x, p.y, p.z));
        });
    }
    template <typename S, typename F> void addScalarWithHalo(char const* name, F const& f)
    {
        add<S, 1>(name, [&](Tile<Tr> const& t, int i, int j, int k) {
            auto const p = position(t, i, j, k, false);
            return static_cast<S>(f(p.x, p.y, p.z));
        });
    }
    template <typename S, typename F> void addVector(char const* name, F const& f, bool corner)
    {
        add<Vec3<S>>(name, [&](Tile<Tr> const& t, int i, int j, int k) {
            auto const p = position(t, i, j, k, corner);
            auto const v = f(p.x, p.y, p.z);
            return Vec3<S>{static_cast<S>(v.x), static_cast<S>(v.y), static_cast<S>(v.z)};
        });
    }
    void addInt(char const* name)
    {
        add<int>(name, [](Tile<Tr> const&, int i, int, int) { return i; });
    }

    template <typename T> Channel<Tr, T, W, 0, 0> const& channel(char const* name) const
    {
        auto ch = object->template component<Channel<Tr, T, W, 0, 0>>(name);
        if (!ch)
            throw std::logic_error(std::string("no channel ") + name + " of that type");
        return *ch;
    }

    /// @p fn(value, h, position) for every voxel of every tile; h is the voxel's world size.
    template <typename T, typename F>
    void forEachVoxel(char const* name, F const& fn, bool corner = false) const
    {
        auto const& ch = channel<T>(name);
        Container<Tr> const& c = tree();
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
                Tile<Tr> const& tile = c.tile(t, d);
                auto const td = ch.tileData(t, d);
                double const h = double(tile.voxelDataWidth()) * c.voxelSize();
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            fn(td(i, j, k), h, position(tile, i, j, k, corner));
            }
    }

    /// As `forEachVoxel`, for the voxels whose stencil (the axis neighbours up to @p reach, with
    /// the in-plane diagonals when @p reach is 2) lies in tiles of the voxel's own depth.
    template <typename T, typename F>
    void forEachInteriorVoxel(char const* name, int reach, bool corner, F const& fn) const
    {
        auto const& ch = channel<T>(name);
        Container<Tr> const& c = tree();
        auto acc = c.tileAccessor();
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
                Tile<Tr> const& tile = c.tile(t, d);
                auto const td = ch.tileData(t, d);
                std::int64_t const w = tile.voxelDataWidth();
                double const h = double(w) * c.voxelSize();
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i) {
                            bool ok = true;
                            for (int a = -1; a <= 1 && ok; ++a)
                                for (int b = -1; b <= 1 && ok; ++b)
                                    for (int e = -1; e <= 1 && ok; ++e) {
                                        int const n = (a != 0) + (b != 0) + (e != 0);
                                        if (n == 0 || n > reach || n == 3)
                                            continue;
                                        std::int64_t const x = tile.ti() + (i + a) * w,
                                                           y = tile.tj() + (j + b) * w,
                                                           z = tile.tk() + (k + e) * w;
                                        ok = acc.tile(x, y, z, d).depth() == d;
                                    }
                            if (ok)
                                fn(td(i, j, k), h, position(tile, i, j, k, corner));
                        }
            }
    }

    /// @p fn(value, i) for every voxel, with its local x coordinate.
    template <typename T, typename F> void forEachLocalVoxel(char const* name, F const& fn) const
    {
        auto const& ch = channel<T>(name);
        Container<Tr> const& c = tree();
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
                auto const td = ch.tileData(t, d);
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            fn(td(i, j, k), i);
            }
    }

    /// @p fn(TileData&) for every tile's block of a channel.
    template <typename T, typename F> void forEachTileData(char const* name, F const& fn)
    {
        auto ch = object->template component<Channel<Tr, T, W, 0, 0>>(name);
        Container<Tr> const& c = tree();
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
                auto td = ch->tileData(t, d);
                fn(td);
            }
    }

    /// All voxels of a channel, tile after tile.
    template <typename T> std::vector<T> values(char const* name) const
    {
        std::vector<T> out;
        forEachVoxel<T>(name, [&](T const& v, double, auto const&) { out.push_back(v); });
        return out;
    }
};

} // namespace testscene
