/// @file  substrate/topology.cpp
/// @brief Voxel and point topologies.
#include <hexmold/substrate/topology.h>

#include <algorithm>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/detail/substrate_log.h>
#include <numeric>
#include <ostream>

namespace TVL::TileTree3D {

using Tavrel::Math::double3;
using Tavrel::Math::float3;

// ---- VoxelTopology
// -------------------------------------------------------------------------------

template <typename TraitsT> VoxelTopology<TraitsT>::VoxelTopology() = default;

template <typename TraitsT>
VoxelTopology<TraitsT>::VoxelTopology(Quillon::String name, Quillon::String containerName,
                                      float voxelSize, VoxelOffsetType offsetType)
    : Component(std::move(name), std::move(containerName)), mVoxelSize(voxelSize),
      mOffsetType(offsetType)
{
}

template <typename TraitsT> VoxelTopology<TraitsT>::~VoxelTopology() = default;

template <typename TraitsT> float3 VoxelTopology<TraitsT>::offset() const
{
    int const t = static_cast<int>(mOffsetType);
    return {(t & 1) ? 0.5f : 0.0f, (t & 2) ? 0.5f : 0.0f, (t & 4) ? 0.5f : 0.0f};
}

template <typename TraitsT> double3 VoxelTopology<TraitsT>::toTileSpace(double3 const& world) const
{
    float3 const o = offset();
    double const c = static_cast<double>(Traits::kCentreOffset);
    double const h = static_cast<double>(mVoxelSize);
    return {world.x / h + c - o.x, world.y / h + c - o.y, world.z / h + c - o.z};
}

template <typename TraitsT> double3 VoxelTopology<TraitsT>::toWorldSpace(double3 const& p) const
{
    float3 const o = offset();
    double const c = static_cast<double>(Traits::kCentreOffset);
    double const h = static_cast<double>(mVoxelSize);
    return {(p.x + o.x - c) * h, (p.y + o.y - c) * h, (p.z + o.z - c) * h};
}

template <typename TraitsT> float3 VoxelTopology<TraitsT>::toTileSpace(float3 const& world) const
{
    double3 const p = toTileSpace(double3{world.x, world.y, world.z});
    return {static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z)};
}

template <typename TraitsT> float3 VoxelTopology<TraitsT>::toWorldSpace(float3 const& p) const
{
    double3 const w = toWorldSpace(double3{p.x, p.y, p.z});
    return {static_cast<float>(w.x), static_cast<float>(w.y), static_cast<float>(w.z)};
}

template <typename TraitsT> void VoxelTopology<TraitsT>::update(Component const& container)
{
    if (auto const* c = dynamic_cast<Container<Traits> const*>(&container))
        mVoxelSize = c->voxelSize();
    for (int d = 0; d < kDepthCount; ++d)
        mTileCounts[d] = std::max<std::int64_t>(0, container.tileCount(d));
}

template <typename TraitsT> void VoxelTopology<TraitsT>::setTileCount(int depth, std::int64_t count)
{
    if (depth < 0 || depth >= kDepthCount || count < 0) {
        detail::logError("VoxelTopology::setTileCount.error: depth " + std::to_string(depth) +
                         " or count " + std::to_string(count) + " out of range, ignored");
        return;
    }
    mTileCounts[depth] = count;
}

template <typename TraitsT> void VoxelTopology<TraitsT>::dump(std::ostream& out) const
{
    out << "VoxelTopology '" << name() << "' -> '" << targetName() << "' voxelSize " << mVoxelSize
        << " offsetType " << static_cast<int>(mOffsetType) << " tiles";
    for (int d = 0; d < kDepthCount; ++d)
        if (mTileCounts[d])
            out << ' ' << d << ':' << mTileCounts[d];
    out << '\n';
}

template <typename TraitsT>
void VoxelTopology<TraitsT>::memUse(std::size_t& used, std::size_t& reserved, bool) const
{
    used = sizeof(*this);
    reserved = sizeof(*this);
}

template <typename TraitsT> void VoxelTopology<TraitsT>::copyTo(Quillon::Ptr<Component>& out) const
{
    out = Quillon::Ptr<Component>(Quillon::makePtr<VoxelTopology>(*this));
}

template <typename TraitsT> std::uint64_t VoxelTopology<TraitsT>::elementCount(int depth) const
{
    return static_cast<std::uint64_t>(tileCount(depth)) * kTileSize;
}

template <typename TraitsT>
std::uint64_t VoxelTopology<TraitsT>::elementCount(TreeIndex const& t) const
{
    if (t.depth < 0 || t.depth >= kDepthCount || t.index < 0 || t.index >= mTileCounts[t.depth])
        return 0;
    return kTileSize;
}

template <typename TraitsT> std::int64_t VoxelTopology<TraitsT>::tileCount(int depth) const
{
    if (depth == -1)
        return std::accumulate(mTileCounts.begin(), mTileCounts.end(), std::int64_t(0));
    if (depth < 0 || depth >= kDepthCount)
        return 0;
    return mTileCounts[depth];
}

template <typename TraitsT> int VoxelTopology<TraitsT>::minDepth() const
{
    for (int d = 0; d < kDepthCount; ++d)
        if (mTileCounts[d] > 0)
            return d;
    return 0;
}

// ---- PointTopology
// -------------------------------------------------------------------------------

template <typename TraitsT>
PointTopology<TraitsT>::PointTopology(Quillon::String containerName)
    : Component(Const::TileTreePointTopologyName, std::move(containerName))
{
}

template <typename TraitsT> PointTopology<TraitsT>::~PointTopology() = default;

template <typename TraitsT> void PointTopology<TraitsT>::update(Component const& container)
{
    for (int d = 0; d < kDepthCount; ++d)
        mCounts[d].resize(
            static_cast<std::size_t>(std::max<std::int64_t>(0, container.tileCount(d))), 0);
}

template <typename TraitsT> void PointTopology<TraitsT>::setTileCount(int depth, std::int64_t count)
{
    if (depth < 0 || depth >= kDepthCount || count < 0) {
        detail::logError("PointTopology::setTileCount.error: depth " + std::to_string(depth) +
                         " or count " + std::to_string(count) + " out of range, ignored");
        return;
    }
    mCounts[depth].resize(static_cast<std::size_t>(count), 0);
}

template <typename TraitsT>
void PointTopology<TraitsT>::setElementCount(TreeIndex const& t, std::uint64_t count)
{
    if (t.depth < 0 || t.depth >= kDepthCount || t.index < 0 ||
        t.index >= static_cast<std::int64_t>(mCounts[t.depth].size())) {
        detail::logError("PointTopology::setElementCount.error: no tile (" +
                         std::to_string(t.index) + ", " + std::to_string(t.depth) + "), ignored");
        return;
    }
    mCounts[t.depth][static_cast<std::size_t>(t.index)] = count;
}

template <typename TraitsT>
void PointTopology<TraitsT>::updateTilesRemoved(std::span<TileMoveList const> moved,
                                                Component const& container)
{
    for (int d = 0; d < kDepthCount && d < static_cast<int>(moved.size()); ++d) {
        auto& a = mCounts[d];
        auto const n = static_cast<std::int64_t>(a.size());
        for (auto const& [from, to] : moved[d]) {
            if (from < 0 || from >= n || to < 0 || to >= n)
                continue;
            a[static_cast<std::size_t>(to)] = a[static_cast<std::size_t>(from)];
        }
    }
    for (int d = 0; d < kDepthCount; ++d)
        mCounts[d].resize(
            static_cast<std::size_t>(std::max<std::int64_t>(0, container.tileCount(d))), 0);
}

template <typename TraitsT>
void PointTopology<TraitsT>::updateTilesPermuted(std::span<TilePermutation const> permutation)
{
    for (int d = 0; d < kDepthCount && d < static_cast<int>(permutation.size()); ++d) {
        auto const& p = permutation[d];
        auto& a = mCounts[d];
        if (p.size() != a.size())
            continue;
        std::vector<std::uint64_t> b(a.size());
        std::vector<bool> seen(a.size(), false);
        bool ok = true;
        for (std::size_t n = 0; n < p.size() && ok; ++n) {
            if (p[n] < 0 || p[n] >= static_cast<std::int64_t>(a.size()) || seen[p[n]])
                ok = false;
            else {
                seen[p[n]] = true;
                b[n] = a[p[n]];
            }
        }
        if (ok)
            a.swap(b);
        else
            detail::logError("PointTopology::updateTilesPermuted.error: depth " +
                             std::to_string(d) + " has no valid permutation, left unchanged");
    }
}

template <typename TraitsT> void PointTopology<TraitsT>::dump(std::ostream& out) const
{
    out << "PointTopology '" << name() << "' -> '" << targetName() << "' elements "
        << elementCount(-1) << '\n';
}

template <typename TraitsT>
void PointTopology<TraitsT>::memUse(std::size_t& used, std::size_t& reserved, bool) const
{
    used = reserved = sizeof(*this);
    for (auto const& a : mCounts) {
        used += a.size() * sizeof(std::uint64_t);
        reserved += a.capacity() * sizeof(std::uint64_t);
    }
}

template <typename TraitsT> void PointTopology<TraitsT>::copyTo(Quillon::Ptr<Component>& out) const
{
    out = Quillon::Ptr<Component>(Quillon::makePtr<PointTopology>(*this));
}

template <typename TraitsT> std::uint64_t PointTopology<TraitsT>::elementCount(int depth) const
{
    std::uint64_t n = 0;
    for (int d = 0; d < kDepthCount; ++d)
        if (depth == -1 || depth == d)
            n = std::accumulate(mCounts[d].begin(), mCounts[d].end(), n);
    return n;
}

template <typename TraitsT>
std::uint64_t PointTopology<TraitsT>::elementCount(TreeIndex const& t) const
{
    if (t.depth < 0 || t.depth >= kDepthCount || t.index < 0 ||
        t.index >= static_cast<std::int64_t>(mCounts[t.depth].size()))
        return 0;
    return mCounts[t.depth][static_cast<std::size_t>(t.index)];
}

template <typename TraitsT> std::int64_t PointTopology<TraitsT>::tileCount(int depth) const
{
    std::int64_t n = 0;
    for (int d = 0; d < kDepthCount; ++d)
        if (depth == -1 || depth == d)
            n += static_cast<std::int64_t>(mCounts[d].size());
    return n;
}

template <typename TraitsT> int PointTopology<TraitsT>::minDepth() const
{
    for (int d = 0; d < kDepthCount; ++d)
        if (!mCounts[d].empty())
            return d;
    return 0;
}

template class VoxelTopology<Traits24>;
template class VoxelTopology<Traits55>;
template class PointTopology<Traits24>;
template class PointTopology<Traits55>;

} // namespace TVL::TileTree3D
