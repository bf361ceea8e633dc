/// @file  voxelize/points/detail/voxelize_points_impl.h
/// @brief Body of `voxelizePoints`, instantiated once per tree type in voxelize_points_t24.cpp
///        and voxelize_points_t55.cpp.
#pragma once
#include <hexmold/voxelize/points/voxelize_points.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/extrapolate_channel.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/channel_parser.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/scene_conversion.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/voxelize/points/detail/points_adaptive.h>
#include <hexmold/voxelize/points/detail/points_driver.h>
#include <hexmold/voxelize/points/detail/points_non_adaptive.h>
#include <hexmold/voxelize/points/detail/points_stage_names.h>
#include <iostream>
#include <limits>
#include <sstream>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

using namespace TVL::TileTree3D;
namespace Geo = Tavrel::Geometry;

/// The weighted hash of an array, as the voxel hash weighs voxels: sum(w_i * componentSum(x_i)) /
/// sum(w_i), w_i the weight of position i of a tile at the origin.
template <typename T> double pointArrayHash(Quillon::Array<T> const& a)
{
    double v = 0.0, w = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        double const wi = CoreGL::voxelHashWeight(0, 0, 0, i);
        v += wi * Tavrel::Math::componentSum(a[i]);
        w += wi;
    }
    return w > 0.0 ? v / w : 0.0;
}

/// Reports refused input on the error stream and through @p runtime.
inline void reportBadPoints(Quillon::RuntimeServices const& runtime, Quillon::String const& why)
{
    Quillon::String const text =
        Quillon::String("voxelizePoints.error: ") + why + "; nothing was built";
    if (CoreGL::Logger::errorVerboseLevel() > 0)
        std::cerr << text << '\n';
    if (runtime.isLogEnabled(Quillon::RuntimeMessageCategory::kError))
        runtime.logImpl(Quillon::RuntimeMessageCategory::kError, text);
}

inline void warnPoints(Quillon::RuntimeServices const& runtime, Quillon::String const& text)
{
    if (runtime.isLogEnabled(Quillon::RuntimeMessageCategory::kWarning))
        runtime.logImpl(Quillon::RuntimeMessageCategory::kWarning, text);
}

// ---- property transfer --------------------------------------------------------------------------

/// What the property transfer reads besides the driver.
template <typename Traits> struct PropertyTransfer {
    PointsDriver<Traits>& m;
    Tavrel::Object const& geometry;
    TVL::Object& volume;
    Quillon::String const& levelName;
    Quillon::RuntimeServices const& runtime;
    std::size_t callerPoints;
    VoxelChannel<Traits, unsigned char>& mask;
    Quillon::String prefix = pointsDebugPrefix();
};

/// Transfers point property @p name when its element type is T; false when it is not.
template <typename Traits, typename T>
bool transferPointProperty(PropertyTransfer<Traits>& x, Quillon::String const& name)
{
    constexpr int kMax = Traits::kMaxDepth;
    constexpr int W = Traits::kTileWidth;
    PointsDriver<Traits>& m = x.m;
    Quillon::Array<T> const* values = Geo::getDataGeoPropertyValues<T>(x.geometry, name);
    if (!values)
        return false;
    T defaultValue{};
    Geo::getDataGeoPropertyDefault<T>(x.geometry, name, defaultValue);
    Quillon::String channelName = Tavrel::mapGeoPropertyNameToTVLVolume(name, x.geometry);
    // A property that would overwrite the level set gets a prefixed channel.
    if (channelName == Geo::sVoxelSignedDistance || channelName == x.levelName)
        channelName = Quillon::String("voxel_") + name;
    if (channelName == x.levelName)
        channelName = Quillon::String("voxel_") + channelName;
    x.volume.removeComponent(channelName);
    Command::createChannel<T, Traits::kRatio, W, W, 0>(
        channelName, m.topology, x.volume, defaultValue, kDataElementInitializerDefaultValue, 0,
        kMax);
    TVL::ComponentGuard<VoxelChannel<Traits, T>> ch(x.volume, channelName);
    if (!ch)
        return true;
    int const verbose = CoreGL::Logger::verboseLevel();
    if (verbose > 1)
        std::cout << "Voxelizing into " << channelName << '\n';
    if (values->empty())
        return true;
    if (values->size() != x.callerPoints) {
        std::ostringstream s;
        s << "voxelizePoints: property '" << name << "' has " << values->size() << " values for "
          << x.callerPoints << " points; its channel keeps the default value.";
        warnPoints(x.runtime, s.str());
        return true;
    }
    int const firstDepth = m.isAdaptive ? 0 : kMax;
    for (int d = 0; d <= kMax; ++d) {
        std::int64_t const n = m.container.tileCount(d);
        Par::parallel_for(Par::blocked_range<std::int64_t>(0, n, 16),
                          [&](Par::blocked_range<std::int64_t> const& r) {
                              if (TVL::bodyCancelled())
                                  return;
                              for (std::int64_t t = r.begin(); t != r.end(); ++t) {
                                  auto known = x.mask.tileData(t, d);
                                  auto out = ch->tileData(t, d);
                                  auto const ids = std::as_const(*m.closest).tileData(t, d);
                                  if (known.empty() || out.empty())
                                      continue;
                                  for (std::size_t v = 0; v < out.size(); ++v) {
                                      std::int64_t const id =
                                          d >= firstDepth && !ids.empty() ? ids[v] : -1;
                                      if (id < 0) {
                                          out[v] = defaultValue;
                                          known[v] = 0;
                                      } else {
                                          out[v] =
                                              (*values)[std::size_t(m.source[std::size_t(id)])];
                                          known[v] = 1;
                                      }
                                  }
                              }
                          });
        TVL::throwIfJobCancelled();
    }
    if (verbose > 0)
        CoreGL::writeVoxelHashLine(x.prefix + channelName,
                                   ".voxel_hash.before_extrapolation = ", m.container, *ch, 0);
    LevelSet::extrapolateChannel<Traits, T>(LevelSet::kExtrapolateFSM, m.container, m.topology,
                                            x.mask, *ch, &m.level, nullptr, 0, kMax, false);
    if (m.isAdaptive && m.isVariedFromProperty && !m.allocateAdaptivelyAlongSurface)
        setNonLeafValueToChildValue(*ch, m.container, m.topology.offsetType(), 0, kMax - 1);
    if (verbose > 0)
        CoreGL::writeVoxelHashLine(x.prefix + channelName,
                                   ".voxel_hash.after_extrapolation = ", m.container, *ch, 0);
    return true;
}

/// Tries the element types in their order of preference; false when none matches.
template <typename Traits>
bool transferPointPropertyAnyType(PropertyTransfer<Traits>& x, Quillon::String const& name)
{
#define HEXMOLD_TRY_POINT_TYPE(T)                                                                  \
    if (transferPointProperty<Traits, T>(x, name))                                                 \
        return true;
    HEXMOLD_TRY_POINT_TYPE(float)
    HEXMOLD_TRY_POINT_TYPE(float2)
    HEXMOLD_TRY_POINT_TYPE(float3)
    HEXMOLD_TRY_POINT_TYPE(float4)
    HEXMOLD_TRY_POINT_TYPE(float3x3)
    HEXMOLD_TRY_POINT_TYPE(float4x2)
    HEXMOLD_TRY_POINT_TYPE(float4x4)
    HEXMOLD_TRY_POINT_TYPE(double)
    HEXMOLD_TRY_POINT_TYPE(double3)
    HEXMOLD_TRY_POINT_TYPE(Int8)
    HEXMOLD_TRY_POINT_TYPE(Int16)
    HEXMOLD_TRY_POINT_TYPE(Int32)
    HEXMOLD_TRY_POINT_TYPE(int3)
    HEXMOLD_TRY_POINT_TYPE(Int64)
    HEXMOLD_TRY_POINT_TYPE(UInt8)
    HEXMOLD_TRY_POINT_TYPE(UInt16)
    HEXMOLD_TRY_POINT_TYPE(UInt32)
    HEXMOLD_TRY_POINT_TYPE(UInt64)
#undef HEXMOLD_TRY_POINT_TYPE
    return false;
}

/// Resets every voxel of @p channel on the depths of its range to its default value.
template <typename Traits, typename T>
void resetToDefault(Container<Traits> const& container, VoxelChannel<Traits, T>& ch)
{
    int const lo = std::max(0, ch.minDepth()), hi = std::min(Traits::kMaxDepth, ch.depth());
    T const value = ch.defaultValue();
    Par::parallel_for(Par::blocked_range<int>(lo, hi + 1, 1),
                      [&](Par::blocked_range<int> const& r) {
                          if (TVL::bodyCancelled())
                              return;
                          for (int d = r.begin(); d != r.end(); ++d)
                              for (std::int64_t t = 0; t < container.tileCount(d); ++t)
                                  ch.tileData(t, d).set(value);
                      });
    TVL::throwIfJobCancelled();
}

} // namespace VolumeGL::TileTree3D::detail

namespace VolumeGL::TileTree3D {

template <typename Traits>
bool voxelizePoints(Tavrel::Object const& geometry,
                    Quillon::Array<Tavrel::Math::float3> const& positions,
                    Quillon::Array<float> const& radii, Quillon::Array<float> const* detailSizes,
                    Adaptivity const& adaptivity, float maxRelativeError,
                    Quillon::Array<ResolutionField> const* resolutionFields, float grading,
                    Quillon::String const& propertyPattern, Quillon::String const& containerName,
                    Quillon::String const& topologyName, Quillon::String const& channelName,
                    TVL::Object& volume, TopologyType topologyType,
                    Quillon::RuntimeServices const& runtime)
{
    using namespace detail;
    using CoreGL::Logger;
    constexpr int kMax = Traits::kMaxDepth;
    auto const mainTimer = Logger::timer(PointStageNames::name("main"), &runtime);
    int const verbose = Logger::verboseLevel();

    // 1. Nothing to do.
    if (positions.empty()) {
        if (runtime.isLogEnabled(Quillon::RuntimeMessageCategory::kWarning))
            runtime.logImpl(Quillon::RuntimeMessageCategory::kWarning, "No points to voxelize.");
        return false;
    }
    std::size_t const n = positions.size();
    if (radii.size() != 1 && radii.size() != n) {
        std::ostringstream s;
        s << "there are " << radii.size() << " radii for " << n
          << " points (give one shared radius or one per point)";
        reportBadPoints(runtime, s.str());
        return false;
    }
    bool const detailMode = adaptivity == AdaptivityDetailSizes;
    if (detailMode && detailSizes && detailSizes->size() != n) {
        std::ostringstream s;
        s << "there are " << detailSizes->size() << " detail sizes for " << n << " points";
        reportBadPoints(runtime, s.str());
        return false;
    }

    // 2. The components.
    TVL::ComponentGuard<Container<Traits>> containerGuard(volume, containerName);
    TVL::ComponentGuard<VoxelTopology<Traits>> topologyGuard(volume, topologyName);
    TVL::ComponentGuard<VoxelChannel<Traits, float>> levelGuard(volume, channelName);
    if (!containerGuard || !topologyGuard || !levelGuard) {
        reportBadPoints(runtime, Quillon::String("the volume lacks the tree '") + containerName +
                                     "', the topology '" + topologyName +
                                     "' or the float channel '" + channelName + "'");
        return false;
    }
    Container<Traits>& container = *containerGuard;
    VoxelTopology<Traits>& topology = *topologyGuard;
    VoxelChannel<Traits, float>& level = *levelGuard;
    float const h = container.voxelSize();
    if (!(h > 0.0f) || !std::isfinite(h)) {
        reportBadPoints(runtime, "the voxel size is not a positive number");
        return false;
    }

    // 3. The cloud, without points that cannot be placed.
    PointsDriver<Traits> m(container, topology, level);
    m.voxelSize = h;
    m.invVoxelSize = 1.0f / h;
    m.hasSingleRadius = radii.size() == 1;
    {
        double const limit = double(Traits::kCentreOffset) - 1.0;
        std::size_t dropped = 0;
        m.centre.reserve(n);
        m.radius.reserve(n);
        m.source.reserve(n);
        bool const keepDetail = detailMode && detailSizes;
        for (std::size_t i = 0; i < n; ++i) {
            float const r = radii[m.hasSingleRadius ? 0 : i];
            auto const& p = positions[i];
            double3 const c{double(p.x) / double(h), double(p.y) / double(h),
                            double(p.z) / double(h)};
            bool const ok = std::isfinite(c.x) && std::isfinite(c.y) && std::isfinite(c.z) &&
                            std::abs(c.x) < limit && std::abs(c.y) < limit &&
                            std::abs(c.z) < limit && std::isfinite(r) && r >= 0.0f &&
                            double(r) / double(h) < limit;
            if (!ok) {
                ++dropped;
                continue;
            }
            m.centre.push_back(c);
            m.radius.push_back(r);
            m.source.push_back(std::int64_t(i));
            if (keepDetail)
                m.detail.push_back((*detailSizes)[i]);
        }
        if (dropped > 0) {
            std::ostringstream s;
            s << "voxelizePoints: " << dropped << " of " << n
              << " points have a non-finite position, a position beyond the tree or a radius that "
                 "is negative or "
                 "not finite; they are left out.";
            warnPoints(runtime, s.str());
        }
        if (m.centre.empty()) {
            if (runtime.isLogEnabled(Quillon::RuntimeMessageCategory::kWarning))
                runtime.logImpl(Quillon::RuntimeMessageCategory::kWarning,
                                "No points to voxelize.");
            return false;
        }
    }
    m.radius0 = m.hasSingleRadius ? m.radius[0] : 0.0f;
    m.grading = std::isfinite(grading) && grading > 0.0f ? grading : 0.0f;
    m.buildTiles = topologyType == TopologyTypeBuildTiles;
    m.defaultValue = level.defaultValue();
    {
        float3 const o = topology.offset();
        m.offset = double3{o.x, o.y, o.z};
    }

    // 4. Keep the tiles: the level set starts from its default value.
    if (!m.buildTiles)
        resetToDefault(container, level);

    // 5. The properties and the derived flags.
    TVL::Utils::ChannelParser parser;
    parser.parses(propertyPattern);
    std::vector<Quillon::String> accepted;
    for (Quillon::String const& name : Geo::getGeoPropNamesByTarget(geometry, Geo::sPointComp))
        if (parser.accepts(name))
            accepted.push_back(name);
    m.hasProperties = !accepted.empty();
    m.isVariedFromProperty = detailMode;
    m.hasDetailSizes = detailMode && detailSizes != nullptr;
    std::size_t const fieldCount = resolutionFields ? resolutionFields->size() : 0;
    m.isAdaptive = !(adaptivity == AdaptivityResolutionFields && fieldCount == 0);
    m.allocateAdaptivelyAlongSurface = m.isAdaptive;
    m.maxVariedRadiusInVoxels = int(std::ceil(double(m.radius0) * double(m.invVoxelSize)));
    m.errorTolerance = adaptivity == AdaptivityMaxRelativeError ? h * maxRelativeError : 0.0f;
    if (!(m.errorTolerance >= 0.0f) || !std::isfinite(m.errorTolerance))
        m.errorTolerance = 0.0f;
    if (m.buildTiles)
        container.setMaxRelativeRefinementError(m.errorTolerance / h);
    m.gradedVoxelSize = h * (m.grading > 1.0f ? m.grading : 1.0f);
    m.surfaceBand = kSqrt3f * h;
    m.deepRadius = 2.0f * m.surfaceBand;
    if (resolutionFields && adaptivity == AdaptivityResolutionFields) {
        for (ResolutionField const& f : *resolutionFields) {
            typename PointsDriver<Traits>::Field w;
            for (int a = 0; a < 3; ++a)
                w.min[a] = f.min[a], w.max[a] = f.max[a];
            w.targetDepth = std::clamp(kMax - int(f.level), 0, kMax);
            m.fieldMinDepth = std::min(m.fieldMinDepth, w.targetDepth);
            m.fields.push_back(w);
        }
        std::stable_sort(m.fields.begin(), m.fields.end(), [](auto const& a, auto const& b) {
            return a.targetDepth > b.targetDepth;
        });
    }
    for (int d = 0; d <= kMax; ++d)
        m.padDepthTS[std::size_t(d)] =
            kSqrt3f * std::max(1.0f, float(Container<Traits>::voxelDataWidth(d)) * m.grading);
    Quillon::String const prefix = pointsDebugPrefix();

    // 6. The route.
    if (!m.isAdaptive) {
        auto const timer = Logger::timer(PointStageNames::name("non_adaptive"), &runtime);
        BandTiles const band = selectBandTiles(m);
        container.precomputeTileNeighbors();
        auto const createClosest = [&] {
            m.closest = scratchChannel<VoxelChannel<Traits, TVL::TileTree3D::Int64>>(
                topology, -1, 0, kMax, "voxelClosestPointChannel");
        };
        // Redistancing keeps only the signs and the zero-crossing values of the stamped level
        // set. Stamped with a reach of at least one voxel beyond each sphere, every voxel inside
        // the union and every outside voxel next to one holds its exact union distance, so that
        // without properties the closest points and their propagation change nothing that is
        // kept. They are still computed when a property needs them, when no voxel is inside
        // (nothing is redistanced then) and for the debug hashes, which see the propagated values.
        // Without them the points stamp the level set directly and need no lists.
        bool const mayShortcut = !m.hasProperties && verbose == 0;
        bool inside = false;
        if (mayShortcut) {
            double const pad = std::max(1.0, double(m.grading));
            inside = stampPointsDirectly(m, band, pad);
        }
        if (!(mayShortcut && inside)) {
            PointLists const lists = binPoints(m, band);
            createClosest();
            stampSpheres(m, lists, double(m.grading), true);
            propagateClosestPoints(m);
        }
        setNonLeafValueToChildValue(level, container, topology.offsetType(), 0, kMax);
    } else {
        auto const timer = Logger::timer(PointStageNames::name("adaptive"), &runtime);
        runAdaptiveRoute(m, runtime);
    }

    // 7. Hash lines.
    if (verbose > 0) {
        std::ostringstream a, b;
        a << "point_position[#" << n << ", " << static_cast<void const*>(&geometry)
          << "].point_hash = ";
        b << "point_radius[#" << radii.size() << ", " << static_cast<void const*>(&geometry)
          << "].point_hash = ";
        CoreGL::writeVoxelHashLine(prefix, a.str(), pointArrayHash(positions), 0);
        CoreGL::writeVoxelHashLine(prefix, b.str(), pointArrayHash(radii), 0);
        CoreGL::writeVoxelHashLine(prefix + channelName,
                                   ".voxel_hash.before_redistance = ", container, level, 0);
    }

    // 8. Redistancing. Without a voxel inside a sphere (radii of zero) there is no surface to
    // measure from, and the stamped distances to the nearest points are kept.
    bool anyInside = false;
    for (int d = 0; d <= kMax && !anyInside; ++d)
        anyInside = Par::parallel_reduce(
            Par::blocked_range<std::int64_t>(0, container.tileCount(d), 64), false,
            [&](Par::blocked_range<std::int64_t> const& r, bool found) {
                for (std::int64_t t = r.begin(); t != r.end() && !found; ++t)
                    for (float x : std::as_const(level).tileData(t, d))
                        if (0.0f > x) {
                            found = true;
                            break;
                        }
                return found;
            },
            [](bool a, bool b) { return a || b; });
    if (anyInside) {
        Quillon::String const name("Volume::LevelSet::redistance");
        if (m.isAdaptive) {
            auto const timer =
                Logger::timer(PointStageNames::name("adaptive.redistance"), &runtime);
            int const passes = m.isVariedFromProperty && !m.allocateAdaptivelyAlongSurface
                                   ? std::max(1, 2 * std::max(0, m.tileDilation - 1)) + 2
                                   : 2;
            auto dofPtr = scratchChannel<VoxelChannel<Traits, short>>(topology, 0, 0, kMax);
            auto& dof = *dofPtr;
            LevelSet::classifyDegreesOfFreedom(container, dof);
            LevelSet::levelSetRedistance<Traits>(container, topology, level, true, true, true, 0,
                                                 kMax, nullptr, nullptr, 1.0f, FLT_MAX, FLT_MAX,
                                                 passes, passes, true, false, &dof, name,
                                                 LevelSet::kRedistanceSweeping);
        } else {
            auto const timer = Logger::timer(PointStageNames::name("redistance"), &runtime);
            LevelSet::levelSetRedistance<Traits>(container, topology, level, true, true, false, 0,
                                                 kMax, nullptr, nullptr, 1.0f, FLT_MAX, FLT_MAX, 2,
                                                 10, false, false, nullptr, name,
                                                 LevelSet::kRedistanceSweeping);
        }
    }
    if (verbose > 0)
        CoreGL::writeVoxelHashLine(prefix + channelName,
                                   ".voxel_hash.after_redistance = ", container, level, 0);

    // 9. Properties through the closest point.
    if (m.hasProperties && m.closest) {
        auto const timer = Logger::timer(PointStageNames::name("assign_properties"), &runtime);
        auto maskPtr = scratchChannel<VoxelChannel<Traits, unsigned char>>(topology, 0, 0, kMax);
        auto& mask = *maskPtr;
        PropertyTransfer<Traits> x{m, geometry, volume, channelName, runtime, n, mask};
        for (Quillon::String const& name : accepted) {
            if (transferPointPropertyAnyType(x, name))
                continue;
            warnPoints(runtime, Quillon::String("Type not supported. Can't create property '") +
                                    name + "' on the volume.");
        }
    }

    // 10. Grading of the adaptive tree; with detail sizes on the per-tile route also coarsening.
    if (m.buildTiles && m.isAdaptive)
        gradeAndCoarsenAdaptiveTree(m, volume,
                                    PointsVolumeGuards<Traits>{containerGuard, topologyGuard,
                                                               levelGuard, containerName,
                                                               topologyName, channelName},
                                    runtime);

    // 11. Neighbour tables of the final tree.
    if (m.buildTiles) {
        auto const timer =
            Logger::timer(PointStageNames::name("adaptive.precompute_tile_neighbors"), &runtime);
        // Every change of the tree drops the tables, so tables still present are those of the
        // final tree.
        if (!container.hasPrecomputedTileNeighbors())
            container.precomputeTileNeighbors();
    }
    // The components go back in the order container, topology, channel.
    containerGuard.restore();
    topologyGuard.restore();
    levelGuard.restore();
    return true;
}

template <typename Traits>
bool voxelizePoints(Tavrel::Object const& geometry,
                    Quillon::Array<Tavrel::Math::float3> const& positions, float radius,
                    Quillon::Array<float> const* detailSizes, Adaptivity const& adaptivity,
                    float maxRelativeError, Quillon::Array<ResolutionField> const* resolutionFields,
                    float grading, Quillon::String const& propertyPattern,
                    Quillon::String const& containerName, Quillon::String const& topologyName,
                    Quillon::String const& channelName, TVL::Object& volume,
                    TopologyType topologyType, Quillon::RuntimeServices const& runtime)
{
    Quillon::Array<float> const radii(1, radius);
    return voxelizePoints<Traits>(geometry, positions, radii, detailSizes, adaptivity,
                                  maxRelativeError, resolutionFields, grading, propertyPattern,
                                  containerName, topologyName, channelName, volume, topologyType,
                                  runtime);
}

} // namespace VolumeGL::TileTree3D
