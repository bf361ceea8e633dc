/// @file  voxelize/mesh/detail/voxelize_mesh_impl.h
/// @brief Body of `voxelizeMesh`, instantiated once per tree type in voxelize_mesh_t24.cpp and
///        voxelize_mesh_t55.cpp.
#pragma once
#include <hexmold/voxelize/mesh/voxelize_mesh.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <hexmold/analysis/channel_coarsen.h>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/extrapolate_channel.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/spatial_query.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/channel_parser.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/scene_conversion.h>
#include <hexmold/substrate/scope_guard.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/voxelize/mesh/detail/mesh_stage_names.h>
#include <hexmold/voxelize/mesh/mesh_distance_field.h>
#include <iomanip>
#include <iostream>
#include <limits>
#include <memory>
#include <span>
#include <sstream>
#include <type_traits>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

using namespace TVL::TileTree3D;
namespace Par = TVL::Parallel;
namespace Geo = Tavrel::Geometry;

/// The weighted hash of an array, as the voxel hash weighs voxels: sum(w_i * componentSum(x_i)) /
/// sum(w_i), w_i the weight of position i of a tile at the origin.
template <typename T> double arrayHash(Quillon::Array<T> const& a)
{
    double v = 0.0, w = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        double const wi = CoreGL::voxelHashWeight(0, 0, 0, i);
        v += wi * Tavrel::Math::componentSum(a[i]);
        w += wi;
    }
    return v / w;
}

// ---- elements from components -------------------------------------------------------------------

/// An integer or float from a double: floats round, integers truncate toward zero within their
/// range (NaN gives 0).
template <typename S> S fromDouble(double x)
{
    if constexpr (std::is_floating_point_v<S>) {
        return static_cast<S>(x);
    } else {
        if (!(x == x))
            return S(0);
        double const lo = double(std::numeric_limits<S>::lowest()),
                     hi = double(std::numeric_limits<S>::max());
        if (x <= lo)
            return std::numeric_limits<S>::lowest();
        if (x >= hi)
            return std::numeric_limits<S>::max();
        return static_cast<S>(x);
    }
}
template <typename T> void setComponent(T& v, int, double x)
{
    v = fromDouble<T>(x);
}
template <typename S> void setComponent(Tavrel::Math::Vec2<S>& v, int i, double x)
{
    v[i] = fromDouble<S>(x);
}
template <typename S> void setComponent(Tavrel::Math::Vec3<S>& v, int i, double x)
{
    v[i] = fromDouble<S>(x);
}
template <typename S> void setComponent(Tavrel::Math::Vec4<S>& v, int i, double x)
{
    v[i] = fromDouble<S>(x);
}
template <typename S, int R, int C>
void setComponent(Tavrel::Math::Mat<S, R, C>& v, int i, double x)
{
    v.m[i / C][i % C] = fromDouble<S>(x);
}

/// A zeroed element.
template <typename T> T zeroElement()
{
    T v{};
    for (int i = 0; i < Tavrel::Math::ComponentCount<T>::value; ++i)
        setComponent(v, i, 0.0);
    return v;
}

// ---- the driver's state -------------------------------------------------------------------------

template <typename Traits> struct MeshDriver {
    static constexpr int kMax = Traits::kMaxDepth;
    static constexpr int W = Traits::kTileWidth;
    Tavrel::Object const& mesh;
    Quillon::Array<Tavrel::Math::float3> const& positions;
    Quillon::Array<Tavrel::Math::ulong3> triangles;
    Container<Traits>& container;
    VoxelTopology<Traits>& topology;
    VoxelChannel<Traits, float>& distance;
    TVL::Object& volume;
    Quillon::RuntimeServices const& services;
    Quillon::Ptr<VoxelChannel<Traits, TriangleId>> closest;
    bool adaptiveBuild = true;
    int minDepth = 0;
    float bboxMaxSideLength = 0.0f;
    Quillon::String prefix = meshDebugPrefix();

    /// Removes the listed tiles and lets the topology, the distance and closest-triangle channels
    /// and the volume's channels follow.
    void removeTiles(TileIndexLists<Traits> const& lists)
    {
        bool any = false;
        for (auto const& l : lists)
            any = any || !l.empty();
        if (!any)
            return;
        TileMoveLists<Traits> moved;
        container.removeTiles(lists, moved, true);
        topology.update(container);
        std::span<TileMoveList const> const span(moved.data(), moved.size());
        distance.updateTilesRemoved(span, topology);
        if (closest)
            closest->updateTilesRemoved(span, topology);
        updateTilesRemoved(span, topology, volume);
    }
};

/// Checks the face arrays; says what is wrong, or nothing.
inline Quillon::String checkFaces(Quillon::Array<Tavrel::Math::float3> const& positions,
                                  Quillon::Array<unsigned int> const& faceVertex,
                                  Quillon::Array<unsigned int> const& faceOffset)
{
    std::ostringstream why;
    if (faceOffset.empty())
        return {};
    if (faceOffset[0] != 0) {
        why << "the first face offset is " << faceOffset[0] << ", not 0";
        return why.str();
    }
    for (std::size_t f = 1; f < faceOffset.size(); ++f)
        if (faceOffset[f] < faceOffset[f - 1]) {
            why << "face offset " << f << " (" << faceOffset[f] << ") is below the one before ("
                << faceOffset[f - 1] << ")";
            return why.str();
        }
    if (faceOffset.back() > faceVertex.size()) {
        why << "the face offsets run to " << faceOffset.back() << " but there are "
            << faceVertex.size() << " face vertices";
        return why.str();
    }
    for (std::size_t q = 0; q < faceOffset.back(); ++q)
        if (faceVertex[q] >= positions.size()) {
            why << "face vertex " << q << " is point " << faceVertex[q] << " of "
                << positions.size();
            return why.str();
        }
    return {};
}

/// Fan triangulation in face order: a face a, b, c, d, ... gives (a, b, c), (a, c, d), ...
inline Quillon::Array<Tavrel::Math::ulong3>
triangulate(Quillon::Array<unsigned int> const& faceVertex,
            Quillon::Array<unsigned int> const& faceOffset)
{
    Quillon::Array<Tavrel::Math::ulong3> out;
    if (faceOffset.size() < 2)
        return out;
    std::size_t count = 0;
    for (std::size_t f = 0; f + 1 < faceOffset.size(); ++f) {
        std::size_t const n = faceOffset[f + 1] - faceOffset[f];
        if (n >= 3)
            count += n - 2;
    }
    out.reserve(count);
    for (std::size_t f = 0; f + 1 < faceOffset.size(); ++f) {
        std::size_t const first = faceOffset[f], n = faceOffset[f + 1] - faceOffset[f];
        for (std::size_t q = 2; q < n; ++q)
            out.push_back({faceVertex[first], faceVertex[first + q - 1], faceVertex[first + q]});
    }
    return out;
}

// ---- pruning ------------------------------------------------------------------------------------

/// Drops the tiles that thickening or hole closing left far from the zero level: a tile stays
/// when one of its voxels lies within 1.15 diagonals of its voxel of the surface, or when a child
/// stays.
template <typename Traits> void prune(MeshDriver<Traits>& m)
{
    constexpr int kMax = Traits::kMaxDepth;
    int const verbose = CoreGL::Logger::verboseLevel();
    int const channelMin = m.distance.minDepth(), channelMax = std::min(m.distance.depth(), kMax);
    int const begin = std::min(channelMax, std::max(m.minDepth + 1, channelMin));
    int const end = channelMax;
    float const h = m.container.voxelSize();
    std::vector<std::vector<std::uint8_t>> keep(Traits::kDepthCount);
    for (int d = 0; d < Traits::kDepthCount; ++d)
        keep[d].assign(std::size_t(std::max<std::int64_t>(0, m.container.tileCount(d))), 0);
    for (int d = begin; d <= end; ++d) {
        std::int64_t const n = m.container.tileCount(d);
        float const limit = float(Container<Traits>::voxelDataWidth(d)) * 1.7320508f * h * 1.15f;
        Par::parallel_for(Par::blocked_range<std::int64_t>(0, n, 64),
                          [&](Par::blocked_range<std::int64_t> const& r) {
                              if (TVL::bodyCancelled())
                                  return;
                              for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                                  auto const dd = std::as_const(m.distance).tileData(t, d);
                                  for (float v : dd)
                                      if (std::abs(v) < limit) {
                                          keep[d][t] = 1;
                                          break;
                                      }
                              }
                          });
        TVL::throwIfJobCancelled();
    }
    TileIndexLists<Traits> lists;
    // Children before parents: a tile with a kept child is kept.
    for (int d = end; d >= begin; --d) {
        std::int64_t const n = m.container.tileCount(d);
        for (std::int64_t t = 0; t < n; ++t) {
            if (d != kMax && !keep[d][t]) {
                Tile<Traits> const& tile = m.container.tile(t, d);
                for (int s = 0; s < Traits::kChildCount && !keep[d][t]; ++s) {
                    std::int64_t const c = tile.childIndex(s);
                    if (c >= 0 && keep[d + 1][c])
                        keep[d][t] = 1;
                }
            }
            if (!keep[d][t])
                lists[d].push_back(t);
        }
    }
    if (verbose > 1)
        for (int d = 0; d <= kMax; ++d)
            if (!lists[d].empty())
                std::cout << "Removing " << lists[d].size() << " out of "
                          << m.container.tileCount(d) << " tiles at depth " << d << '\n';
    m.removeTiles(lists);
    if (verbose > 1)
        std::cout << "numVoxels after pruning = " << m.container.voxelDataCount(-1) << '\n';
}

// ---- property transfer --------------------------------------------------------------------------

/// Fills channel @p ch of one property, of element type T, from the closest triangles, and
/// extends it by extrapolation.
template <typename Traits, typename T>
void fillProperty(MeshDriver<Traits>& m, Quillon::Array<T> const& values,
                  VoxelChannel<Traits, T>& ch, VoxelChannel<Traits, unsigned char>& mask,
                  Quillon::String const& channelName)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    constexpr int N = Tavrel::Math::ComponentCount<T>::value;
    int const verbose = CoreGL::Logger::verboseLevel();
    int const firstDepth = m.adaptiveBuild ? m.minDepth : kMax;
    Tavrel::Math::float3 const offset = m.topology.offset();
    for (int d = firstDepth; d <= kMax; ++d) {
        std::int64_t const n = m.container.tileCount(d);
        std::int64_t const w = Container<Traits>::voxelDataWidth(d);
        Par::parallel_for(
            Par::blocked_range<std::int64_t>(0, n, 16),
            [&](Par::blocked_range<std::int64_t> const& r) {
                if (TVL::bodyCancelled())
                    return;
                for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                    Tile<Traits> const& tile = m.container.tile(t, d);
                    auto const ids = std::as_const(*m.closest).tileData(t, d);
                    auto out = ch.tileData(t, d);
                    if (ids.empty() || out.empty())
                        continue;
                    for (int k = 0, v = 0; k < W; ++k)
                        for (int j = 0; j < W; ++j)
                            for (int i = 0; i < W; ++i, ++v) {
                                TriangleId const id = ids[std::size_t(v)];
                                if (id < 0 || std::size_t(id) >= m.triangles.size())
                                    continue;
                                // The voxel's sample, where the distance was measured.
                                double const hh = m.container.voxelSize();
                                Tavrel::Math::double3 const p{
                                    (double(tile.ti()) + double(i * w) + offset.x) * hh,
                                    (double(tile.tj()) + double(j * w) + offset.y) * hh,
                                    (double(tile.tk()) + double(k * w) + offset.z) * hh};
                                auto const& tri = m.triangles[std::size_t(id)];
                                auto dbl = [&](std::uint64_t q) {
                                    auto const& x = m.positions[q];
                                    return Tavrel::Math::double3{x.x, x.y, x.z};
                                };
                                Tavrel::Math::double3 bc;
                                Tavrel::SpatialQuery::pointTriangleBC(p, dbl(tri.x), dbl(tri.y),
                                                                      dbl(tri.z), bc);
                                T value{};
                                for (int c = 0; c < N; ++c) {
                                    double const blend =
                                        bc.x * Tavrel::Math::componentAsDouble(values[tri.x], c) +
                                        bc.y * Tavrel::Math::componentAsDouble(values[tri.y], c) +
                                        bc.z * Tavrel::Math::componentAsDouble(values[tri.z], c);
                                    setComponent(value, c, blend);
                                }
                                out[std::size_t(v)] = value;
                            }
                }
            });
        TVL::throwIfJobCancelled();
    }
    if (verbose > 0)
        CoreGL::writeVoxelHashLine(m.prefix + channelName,
                                   ".voxel_hash.before_extrapolation = ", m.container, ch, 0);

    // The filled depths are known; extrapolation carries them to the rest of the tree.
    int const lastDepth = m.adaptiveBuild ? m.minDepth : kMax;
    for (int d = 0; d <= kMax; ++d) {
        std::int64_t const n = m.container.tileCount(d);
        unsigned char const known = d >= firstDepth ? 1 : 0;
        Par::parallel_for(Par::blocked_range<std::int64_t>(0, n, 64),
                          [&](Par::blocked_range<std::int64_t> const& r) {
                              for (std::int64_t t = r.begin(); t != r.end(); ++t)
                                  for (unsigned char& b : mask.tileData(t, d))
                                      b = known;
                          });
    }
    int extrapolateTo = kMax;
    if (enableVoxelizeMeshOptimizations() && lastDepth > 0) {
        setNonLeafValueToChildValue(mask, m.container, m.topology.offsetType(), 0, lastDepth - 1);
        setNonLeafValueToChildValue(ch, m.container, m.topology.offsetType(), 0, lastDepth - 1);
        extrapolateTo = lastDepth - 1;
    }
    if (!(enableVoxelizeMeshOptimizations() && lastDepth <= 0))
        LevelSet::extrapolateChannel<Traits, T>(LevelSet::kExtrapolateFSM, m.container, m.topology,
                                                mask, ch, &m.distance, nullptr, 0, extrapolateTo,
                                                false);
    if (verbose > 0)
        CoreGL::writeVoxelHashLine(m.prefix + channelName,
                                   ".voxel_hash.after_extrapolation = ", m.container, ch, 0);
    setNonLeafValueToChildValue(ch, m.container, m.topology.offsetType(), 0, kMax - 1);
}

/// Transfers point property @p name when its element type is T; false when it is not.
template <typename Traits, typename T>
bool transferIfType(MeshDriver<Traits>& m, Quillon::String const& name,
                    VoxelChannel<Traits, unsigned char>& mask)
{
    constexpr int kMax = Traits::kMaxDepth;
    Quillon::Array<T> const* values = Geo::getDataGeoPropertyValues<T>(m.mesh, name);
    if (!values)
        return false;
    Quillon::String channelName = Tavrel::mapGeoPropertyNameToTVLVolume(name, m.mesh);
    // The distance's own name is taken: the property's channel gets the prefix (once more when
    // the prefixed name is still the distance's, as for a property "signed_distance").
    if (channelName == Geo::sVoxelSignedDistance)
        channelName = Quillon::String("voxel_") + name;
    if (channelName == Geo::sVoxelSignedDistance)
        channelName = Quillon::String("voxel_") + channelName;
    m.volume.removeComponent(channelName);
    Command::createChannel<T, Traits::kRatio, Traits::kTileWidth, Traits::kTileWidth, 0>(
        channelName, m.topology, m.volume, zeroElement<T>(), kDataElementInitializerDefaultValue, 0,
        kMax);
    TVL::ComponentGuard<VoxelChannel<Traits, T>> ch(m.volume, channelName);
    if (!ch)
        return true;
    if (!values->empty() && CoreGL::Logger::verboseLevel() > 1) {
        std::ostringstream line;
        line << name << "[#" << values->size() << "].point_hash = ";
        CoreGL::writeVoxelHashLine(m.prefix, line.str(), arrayHash(*values), 0);
    }
    // A property with fewer values than points cannot be read at every triangle: it keeps the
    // default.
    if (m.closest && values->size() >= m.positions.size() && !values->empty())
        fillProperty(m, *values, *ch, mask, channelName);
    return true;
}

template <typename Traits>
bool transferProperty(MeshDriver<Traits>& m, Quillon::String const& name,
                      VoxelChannel<Traits, unsigned char>& mask)
{
#define HEXMOLD_TRY_TYPE(T)                                                                        \
    if (transferIfType<Traits, T>(m, name, mask))                                                  \
        return true;
    HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_TRY_TYPE)
#undef HEXMOLD_TRY_TYPE
    return false;
}

} // namespace VolumeGL::TileTree3D::detail

namespace VolumeGL::TileTree3D {

template <typename Traits>
void voxelizeMesh(Tavrel::Object const& mesh, Quillon::Array<Tavrel::Math::float3> const& positions,
                  Quillon::Array<unsigned int> const& faceVertex,
                  Quillon::Array<unsigned int> const& faceOffset, Quillon::String const& properties,
                  Quillon::Array<float> const* detailSizes, bool computeInterior,
                  Adaptivity const& adaptivity, float in_maxRelativeError, float minHoleRadius,
                  float thickeningRadius, Quillon::Array<ResolutionField> const* resolutionFields,
                  TVL::TileTree3D::Container<Traits>& container,
                  TVL::TileTree3D::VoxelTopology<Traits>& topology,
                  TVL::TileTree3D::Channel<Traits, float, Traits::kTileWidth, 0, 0>& distance,
                  TVL::Object& volumeObject, Quillon::RuntimeServices const& services)
{
    using namespace detail;
    using CoreGL::Logger;
    constexpr int kMax = Traits::kMaxDepth;
    int const verbose = Logger::verboseLevel();
    float const h = container.voxelSize();

    // Derived values.
    bool const adaptiveBuild = !(adaptivity == AdaptivityResolutionFields &&
                                 (resolutionFields == nullptr || resolutionFields->empty()));
    float maxRelativeError = computeInterior ? in_maxRelativeError : 0.0f;
    float const holeRadius = minHoleRadius > 0.0f ? std::max(minHoleRadius, h) : 0.0f;
    float const thickeningDistance = thickeningRadius * h;
    std::uint64_t const numFaces = Geo::getElementCount(mesh, Geo::sFaceComp);
    constexpr int kNarrowBandHalfWidth = 5;

    Quillon::String const problem = checkFaces(positions, faceVertex, faceOffset);
    if (!problem.empty()) {
        Quillon::String const text =
            Quillon::String("voxelizeMesh.error: ") + problem + "; nothing was built";
        if (Logger::errorVerboseLevel() > 0)
            std::cerr << text << '\n';
        if (services.isLogEnabled(Quillon::RuntimeMessageCategory::kError))
            services.logImpl(Quillon::RuntimeMessageCategory::kError, text);
        return;
    }

    // 1. The parameters.
    if (verbose > 0) {
        std::ios::fmtflags const flags = std::cout.flags();
        std::streamsize const precision = std::cout.precision(20);
        std::cout << "VoxelizeMesh input parameters:\n"
                  << " adaptivity = " << int(adaptivity)
                  << "\n in_maxRelativeError = " << in_maxRelativeError
                  << "\n maxRelativeError = " << maxRelativeError
                  << "\n #resolutionFields = " << (resolutionFields ? resolutionFields->size() : 0)
                  << "\n detailSizes = " << static_cast<void const*>(detailSizes)
                  << "\n computeInterior = " << computeInterior
                  << "\n minHoleRadius = " << minHoleRadius
                  << "\n thickeningRadius = " << thickeningRadius << "\n numFaces = " << numFaces
                  << "\n voxelSize = " << h << '\n';
        std::cout.precision(precision);
        std::cout.flags(flags);
    }

    MeshDriver<Traits> m{mesh,     positions,    {},       container, topology,
                         distance, volumeObject, services, {}};
    m.adaptiveBuild = adaptiveBuild;
    // The adaptive build tabulates the tiles' neighbours for the walks after it. The table is
    // about as large as the tree, so it does not outlive the call unless the caller had one.
    bool const callerNeighbors = container.hasPrecomputedTileNeighbors();
    TVL::ScopeGuard const neighbors([&] {
        if (adaptiveBuild && !callerNeighbors)
            container.clearPrecomputedTileNeighbors();
    });

    // 2. Triangles.
    {
        auto const timer = Logger::timer(MeshStageNames::name("triangulate"), nullptr);
        m.triangles = triangulate(faceVertex, faceOffset);
        if (verbose > 0) {
            std::ostringstream a, b;
            a << "point_position[#" << positions.size() << "].point_hash = ";
            b << "triangles[#" << m.triangles.size() << "].hash = ";
            CoreGL::writeVoxelHashLine(m.prefix, a.str(), arrayHash(positions), 0);
            CoreGL::writeVoxelHashLine(m.prefix, b.str(), arrayHash(m.triangles), 0);
        }
    }

    // 3. The properties to carry.
    std::vector<Quillon::String> accepted;
    {
        TVL::Utils::ChannelParser parser;
        parser.parses(properties);
        if (verbose > 1)
            std::cout << "properties = " << properties << '\n';
        for (Quillon::String const& name : Geo::getGeoPropNamesByTarget(mesh, Geo::sPointComp)) {
            if (verbose > 1)
                std::cout << "checking property " << name << '\n';
            if (parser.accepts(name)) {
                if (verbose > 1)
                    std::cout << "OK\n";
                accepted.push_back(name);
            }
        }
    }

    // 4. The distance field and its signs.
    bool const wantClosest = !accepted.empty() || !adaptiveBuild;
    {
        auto const timer = Logger::timer(MeshStageNames::name("create_distance"), nullptr);
        auto build = [&] {
            return createMeshDistanceField<Traits>(
                container, topology, distance, wantClosest ? &m.closest : nullptr, m.triangles,
                positions, detailSizes, computeInterior, holeRadius, thickeningDistance, false,
                kNarrowBandHalfWidth, 0, 0, adaptiveBuild, adaptivity, maxRelativeError,
                resolutionFields, &m.minDepth, &m.bboxMaxSideLength);
        };
        if (!build()) {
            // The error-driven tree hides a crossing: build again without the error test.
            maxRelativeError = 0.0f;
            build();
        }
        if (m.closest && verbose > 0)
            for (int d = 0; d <= kMax; ++d) {
                std::ostringstream line;
                line << "(closestTriangleChannel).voxel_hash[d=" << d << "] = ";
                VoxelChannel<Traits, TriangleId> const& c = *m.closest;
                // The voxel hash of this depth's tiles alone.
                double v = 0.0, w = 0.0;
                for (std::int64_t t = 0; t < container.tileCount(d); ++t) {
                    auto const& tile = container.tile(t, d);
                    auto const ids = c.tileData(t, d);
                    for (std::size_t q = 0; q < ids.size(); ++q) {
                        double const wi =
                            CoreGL::voxelHashWeight(tile.ti(), tile.tj(), tile.tk(), q);
                        v += wi * double(ids[q]);
                        w += wi;
                    }
                }
                CoreGL::writeVoxelHashLine(m.prefix, line.str(), v / w, 0);
            }
    }
    bool const built = container.tileCount(-1) > 0 && !m.triangles.empty();

    if (verbose > 0)
        CoreGL::writeVoxelHashLine(m.prefix, ".voxel_hash.before_redistancing = ", container,
                                   distance, 0);

    // 6. Redistancing.
    // The coarsest depth the build reached: the adaptive build's coarse depth (the tiles above
    // it hold no distances yet), 0 for the sparse build.
    int const coarsest = adaptiveBuild ? m.minDepth : 0;
    if (built && (coarsest > 0 || !computeInterior) && (!adaptiveBuild || !(holeRadius > 0.0f))) {
        auto const timer = Logger::timer(MeshStageNames::name("levelSetRedistance"), nullptr);
        bool const opt = enableVoxelizeMeshOptimizations();
        int const redistanceDepth =
            computeInterior ? (opt ? coarsest - 1 : coarsest) : (opt ? kMax - 1 : kMax);
        int const lowestFillDepth = opt ? 0 : (computeInterior ? coarsest : 0);
        Quillon::String const name("Volume::LevelSet::redistance");
        setNonLeafValueToChildValue(distance, container, topology.offsetType(), lowestFillDepth,
                                    kMax);
        if (!opt) {
            LevelSet::levelSetRedistance<Traits>(container, topology, distance, true, true, false,
                                                 0, redistanceDepth, nullptr, nullptr, 1.0f,
                                                 FLT_MAX, FLT_MAX, 2, 10, false, false, nullptr,
                                                 name, LevelSet::kRedistanceSweeping);
            setNonLeafValueToChildValue(distance, container, topology.offsetType(), 0, kMax);
        } else if (redistanceDepth >= 0) {
            auto typesPtr = scratchChannel<VoxelChannel<Traits, unsigned char>>(
                topology, (unsigned char)LevelSet::kValueTypeUnknown, 0,
                std::min(kMax, redistanceDepth + 1));
            auto& types = *typesPtr;
            // Known voxels keep their values. The adaptive build measured every depth from its
            // coarse depth down, and the tiles above hold only the covered voxels' values: all
            // known. The dense build measured only the finest tiles: the finest depth is known
            // and the coarser ones are computed, so that the leaves next to the finest tiles get
            // their distances.
            bool const onlyFinest = m.minDepth == kMax;
            int const firstKnown = onlyFinest ? std::min(kMax, redistanceDepth + 1) : 0;
            for (int d = firstKnown; d <= std::min(kMax, redistanceDepth + 1); ++d)
                Par::parallel_for(Par::blocked_range<std::int64_t>(0, container.tileCount(d), 64),
                                  [&](Par::blocked_range<std::int64_t> const& r) {
                                      for (std::int64_t t = r.begin(); t != r.end(); ++t)
                                          for (unsigned char& b : types.tileData(t, d))
                                              b = 1;
                                  });
            setNonLeafValueToChildValue(types, container, topology.offsetType(), redistanceDepth,
                                        redistanceDepth);
            auto dofPtr = scratchChannel<VoxelChannel<Traits, short>>(topology, 0, 0, kMax);
            auto& dof = *dofPtr;
            LevelSet::classifyDegreesOfFreedom(container, dof);
            LevelSet::levelSetRedistance<Traits>(container, topology, distance, true, true, true, 0,
                                                 redistanceDepth, nullptr, &types, 1.0f, FLT_MAX,
                                                 FLT_MAX, 10, 10, true, false, &dof, name,
                                                 LevelSet::kRedistanceSweeping);
            // The depths below the redistanced ones hold exact distances from the build: only
            // the redistanced depths take their non-DOF values from the DOFs.
            LevelSet::setNonDOFValues(0, redistanceDepth, container, dof, distance, 2);
        }
    }
    if (verbose > 0)
        CoreGL::writeVoxelHashLine(m.prefix, ".voxel_hash.after_redistancing = ", container,
                                   distance, 0);

    // 8. Coarsening and pruning.
    if (built && adaptiveBuild && (holeRadius > 0.0f || thickeningDistance > 0.0f)) {
        if (verbose > 1)
            std::cout << "numVoxels before pruning = " << container.voxelDataCount(-1) << '\n';
        if (holeRadius > 0.0f && maxRelativeError > 0.0f) {
            auto lists = LevelSet::levelSetCoarsen<Traits>(h, maxRelativeError, container, topology,
                                                           distance, nullptr, m.bboxMaxSideLength);
            TileIndexLists<Traits> typed;
            for (int d = 0; d < Traits::kDepthCount && d < int(lists.size()); ++d)
                typed[d] = std::move(lists[d]);
            m.removeTiles(typed);
        }
        prune(m);
        if (verbose > 0) {
            CoreGL::writeVoxelHashLine(m.prefix, ".voxel_hash.after_pruning = ", container,
                                       distance, 0);
            if (m.closest)
                CoreGL::writeVoxelHashLine(
                    m.prefix, "(closestTriangleChannel).voxel_hash = ", container, *m.closest, 0);
        }
    }

    // 9. Properties.
    if (!accepted.empty()) {
        auto const timer = Logger::timer(MeshStageNames::name("properties"), nullptr);
        auto maskPtr = scratchChannel<VoxelChannel<Traits, unsigned char>>(topology, 0, 0, kMax);
        auto& mask = *maskPtr;
        for (Quillon::String const& name : accepted) {
            if (transferProperty(m, name, mask))
                continue;
            if (services.isLogEnabled(Quillon::RuntimeMessageCategory::kWarning))
                services.logImpl(Quillon::RuntimeMessageCategory::kWarning,
                                 Quillon::String("Type not supported. Can't create property '") +
                                     name + "' on the volume.");
        }
    }
}

} // namespace VolumeGL::TileTree3D
