/// @file  substrate/container.cpp
/// @brief Tile tree: growth, merge, removal, Morton sort, lookups and their acceleration tables.
#include <hexmold/substrate/container.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/parallel_ranges.h>
#include <iostream>
#include <limits>
#include <numeric>

namespace TVL::TileTree3D {

namespace {

/// Ordinal of a corner along an axis at a depth: (corner + offset) / tile width.
template <typename Traits> inline std::uint64_t ordinal(std::int64_t c, int depth)
{
    return static_cast<std::uint64_t>(c + Traits::kCentreOffset) /
           static_cast<std::uint64_t>(WidthTable<Traits>::kTile[depth]);
}

/// Snaps a tile-space coordinate to the corner of its tile at @p depth.
template <typename Traits> inline std::int64_t divTileWidth(std::int64_t x, int depth);
template <typename Traits> inline std::int64_t snapCorner(std::int64_t c, int depth)
{
    std::int64_t const u = c + Traits::kCentreOffset;
    return divTileWidth<Traits>(u, depth) * WidthTable<Traits>::kTile[depth] -
           Traits::kCentreOffset;
}

/// x / tileVoxelWidth(depth) for x >= 0: a shift for ratio 2, a corrected reciprocal otherwise.
template <typename Traits> inline std::int64_t divTileWidth(std::int64_t x, int depth)
{
    if constexpr (Traits::kRatio == 2) {
        return x >> (30 - depth);
    } else {
        static constexpr auto inv = [] {
            std::array<double, Traits::kDepthCount> a{};
            for (int d = 0; d < Traits::kDepthCount; ++d)
                a[d] = 1.0 / double(Traits::tileVoxelWidth(d));
            return a;
        }();
        std::int64_t const w = WidthTable<Traits>::kTile[depth];
        std::int64_t q = static_cast<std::int64_t>(double(x) * inv[depth]);
        if (q * w > x)
            --q;
        else if ((q + 1) * w <= x)
            ++q;
        return q;
    }
}

inline std::uint64_t mix(std::uint64_t h)
{
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ULL;
    h ^= h >> 33;
    return h;
}

inline std::uint64_t hashCorner(std::int64_t i, std::int64_t j, std::int64_t k)
{
    return mix(static_cast<std::uint64_t>(i) * 0x9E3779B97F4A7C15ULL ^
               static_cast<std::uint64_t>(j) * 0xC2B2AE3D27D4EB4FULL ^
               static_cast<std::uint64_t>(k) * 0x165667B19E3779F9ULL);
}

/// Interleaves the bits of three ordinals (up to 30 bits each) into a 90-bit Morton code.
inline unsigned __int128 morton(std::uint64_t x, std::uint64_t y, std::uint64_t z)
{
    auto spread = [](std::uint64_t v) {
        unsigned __int128 r = 0;
        for (int b = 0; b < 31; ++b)
            if (v >> b & 1u)
                r |= static_cast<unsigned __int128>(1) << (3 * b);
        return r;
    };
    return spread(x) | spread(y) << 1 | spread(z) << 2;
}

} // namespace

// ---- construction ----------------------------------------------------------------------------

template <typename TraitsT> Container<TraitsT>::Container() : Component({}, {}) {}

template <typename TraitsT>
Container<TraitsT>::Container(Quillon::String name, float voxelSize)
    : Component(std::move(name), {}), mVoxelSize(voxelSize)
{
}

template <typename TraitsT>
Container<TraitsT>::Container(Container const& other)
    : Component(other), mVoxelSize(other.mVoxelSize),
      mMaxRelativeRefinementError(other.mMaxRelativeRefinementError), mRoots(other.mRoots)
{
    for (int d = 0; d < kDepthCount; ++d)
        mTiles[d] = other.mTiles[d];
}

template <typename TraitsT>
Container<TraitsT>& Container<TraitsT>::operator=(Container const& other)
{
    if (this == &other)
        return *this;
    Component::operator=(other);
    mVoxelSize = other.mVoxelSize;
    mMaxRelativeRefinementError = other.mMaxRelativeRefinementError;
    for (int d = 0; d < kDepthCount; ++d)
        mTiles[d] = other.mTiles[d];
    mRoots = other.mRoots;
    dropTables();
    return *this;
}

template <typename TraitsT> Container<TraitsT>::~Container() = default;

template <typename TraitsT>
typename Container<TraitsT>::TileType const& Container<TraitsT>::sentinel()
{
    static TileType const s = [] {
        TileType t;
        t.mDepth = kSentinelDepth;
        t.mValid = false;
        return t;
    }();
    return s;
}

// ---- counts ----------------------------------------------------------------------------------

template <typename TraitsT> std::int64_t Container<TraitsT>::tileCount(int depth) const
{
    if (depth == -1) {
        std::int64_t n = 0;
        for (int d = 0; d < kDepthCount; ++d)
            n += mTiles[d].size();
        return n;
    }
    if (depth < 0 || depth >= kDepthCount)
        return 0;
    return mTiles[depth].size();
}

template <typename TraitsT> std::uint64_t Container<TraitsT>::voxelDataCount(int depth) const
{
    return static_cast<std::uint64_t>(tileCount(depth)) *
           static_cast<std::uint64_t>(tileDataSize());
}

template <typename TraitsT> std::uint64_t Container<TraitsT>::elementCount(TreeIndex const& t) const
{
    return contains(t) ? static_cast<std::uint64_t>(tileDataSize()) : 0;
}

template <typename TraitsT> int Container<TraitsT>::minDepth() const
{
    for (int d = 0; d < kDepthCount; ++d)
        if (mTiles[d].size() > 0)
            return d;
    return 0;
}

template <typename TraitsT> int Container<TraitsT>::deepestOccupiedDepth() const
{
    for (int d = kDepthCount - 1; d >= 0; --d)
        if (mTiles[d].size() > 0)
            return d;
    return -1;
}

template <typename TraitsT> std::int64_t Container<TraitsT>::tileIndex(TreeIndex const& t) const
{
    if (!contains(t))
        return -1;
    std::int64_t base = 0;
    for (int d = 0; d < t.depth; ++d)
        base += mTiles[d].size();
    return base + t.index;
}

template <typename TraitsT>
typename Container<TraitsT>::TileType const& Container<TraitsT>::tile(std::int64_t flatIndex) const
{
    if (flatIndex < 0)
        return sentinel();
    for (int d = 0; d < kDepthCount; ++d) {
        std::int64_t const n = mTiles[d].size();
        if (flatIndex < n)
            return mTiles[d][flatIndex];
        flatIndex -= n;
    }
    return sentinel();
}

// ---- spaces and bounds -----------------------------------------------------------------------

template <typename TraitsT> float3 Container<TraitsT>::toTileSpace(float3 const& w) const
{
    double3 const r = toTileSpace(double3{w.x, w.y, w.z});
    return {static_cast<float>(r.x), static_cast<float>(r.y), static_cast<float>(r.z)};
}

template <typename TraitsT> float3 Container<TraitsT>::toWorldSpace(float3 const& t) const
{
    double3 const r = toWorldSpace(double3{t.x, t.y, t.z});
    return {static_cast<float>(r.x), static_cast<float>(r.y), static_cast<float>(r.z)};
}

template <typename TraitsT> double3 Container<TraitsT>::toTileSpace(double3 const& w) const
{
    double const inv = 1.0 / static_cast<double>(mVoxelSize);
    double const o = static_cast<double>(kCentreOffset);
    return {w.x * inv + o, w.y * inv + o, w.z * inv + o};
}

template <typename TraitsT> double3 Container<TraitsT>::toWorldSpace(double3 const& t) const
{
    double const h = static_cast<double>(mVoxelSize);
    double const o = static_cast<double>(kCentreOffset);
    return {(t.x - o) * h, (t.y - o) * h, (t.z - o) * h};
}

template <typename TraitsT> int3 Container<TraitsT>::tileCorner(double3 const& p, int depth)
{
    double const w = static_cast<double>(tileVoxelWidth(depth));
    auto corner = [&](double c) {
        double const n = std::floor(c / w) * w - static_cast<double>(kCentreOffset);
        return static_cast<int>(std::clamp(n, double(std::numeric_limits<int>::min()),
                                           double(std::numeric_limits<int>::max())));
    };
    return {corner(p.x), corner(p.y), corner(p.z)};
}

template <typename TraitsT> void Container<TraitsT>::tileSpaceBounds(bbox<int3, int>& out) const
{
    out.min = {std::numeric_limits<int>::max(), std::numeric_limits<int>::max(),
               std::numeric_limits<int>::max()};
    out.max = {std::numeric_limits<int>::min(), std::numeric_limits<int>::min(),
               std::numeric_limits<int>::min()};
    for (int d = 0; d < kDepthCount; ++d) {
        std::int64_t const n = mTiles[d].size();
        int const w = static_cast<int>(tileVoxelWidth(d));
        for (std::int64_t t = 0; t < n; ++t) {
            TileType const& tile = mTiles[d][t];
            if (!tile.isLeaf())
                continue;
            out.min = Tavrel::Math::min(out.min, tile.tijk());
            out.max = Tavrel::Math::max(out.max, tile.tijk() + int3{w, w, w});
        }
    }
}

template <typename TraitsT>
void Container<TraitsT>::worldSpaceBounds(bbox<double3, double>& out) const
{
    bbox<int3, int> b;
    tileSpaceBounds(b);
    if (b.empty()) {
        out.min = {1, 1, 1};
        out.max = {0, 0, 0};
        return;
    }
    double const h = mVoxelSize;
    out.min = {b.min.x * h, b.min.y * h, b.min.z * h};
    out.max = {b.max.x * h, b.max.y * h, b.max.z * h};
}

template <typename TraitsT>
void Container<TraitsT>::worldSpaceBounds(int depth, bbox<float3, float>& out) const
{
    out.min = {1, 1, 1};
    out.max = {0, 0, 0};
    if (depth < 0 || depth >= kDepthCount || mTiles[depth].size() == 0)
        return;
    std::int64_t lo[3] = {std::numeric_limits<std::int64_t>::max(),
                          std::numeric_limits<std::int64_t>::max(),
                          std::numeric_limits<std::int64_t>::max()};
    std::int64_t hi[3] = {std::numeric_limits<std::int64_t>::min(),
                          std::numeric_limits<std::int64_t>::min(),
                          std::numeric_limits<std::int64_t>::min()};
    std::int64_t const w = tileVoxelWidth(depth);
    for (std::int64_t t = 0; t < mTiles[depth].size(); ++t) {
        int3 const c = mTiles[depth][t].tijk();
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min<std::int64_t>(lo[a], c[a]);
            hi[a] = std::max<std::int64_t>(hi[a], c[a] + w);
        }
    }
    float const h = mVoxelSize;
    out.min = {static_cast<float>(lo[0] * double(h)), static_cast<float>(lo[1] * double(h)),
               static_cast<float>(lo[2] * double(h))};
    out.max = {static_cast<float>(hi[0] * double(h)), static_cast<float>(hi[1] * double(h)),
               static_cast<float>(hi[2] * double(h))};
}

// ---- growth ----------------------------------------------------------------------------------

template <typename TraitsT>
typename Container<TraitsT>::TileType& Container<TraitsT>::newTile(int depth, int3 const& corner,
                                                                   std::int64_t parent)
{
    std::int64_t const idx = mTiles[depth].emplace_back();
    TileType& t = mTiles[depth][idx];
    t.mTi = corner.x;
    t.mTj = corner.y;
    t.mTk = corner.z;
    t.mDepth = depth;
    t.mParent = parent;
    t.mValid = true;
    t.mIndex = idx;
    if (parent < 0)
        mRoots.emplace(t.voxelCoord(), TreeIndex{idx, depth});
    return t;
}

template <typename TraitsT>
typename Container<TraitsT>::TileType const*
Container<TraitsT>::findTile(std::int64_t i, std::int64_t j, std::int64_t k, int depth,
                             TileType const* start) const
{
    TileType const* t = start;
    if (!t) {
        if (!inDomain(i, j, k) || mTiles[0].size() == 0)
            return nullptr;
        t = &mTiles[0][0];
    }
    int const target = std::min(depth, kMaxDepth);
    while (t->mDepth < target) {
        int const cd = t->mDepth + 1;
        int const si = static_cast<int>(divTileWidth<Traits>(i - t->mTi, cd));
        int const sj = static_cast<int>(divTileWidth<Traits>(j - t->mTj, cd));
        int const sk = static_cast<int>(divTileWidth<Traits>(k - t->mTk, cd));
        std::int64_t const c = t->mChild[TileType::slotNumber(si, sj, sk)];
        if (c < 0)
            break;
        t = &mTiles[cd][c];
    }
    return t;
}

template <typename TraitsT>
typename Container<TraitsT>::TileType const&
Container<TraitsT>::addTileLocked(std::int64_t i, std::int64_t j, std::int64_t k, int depth,
                                  TileType const* hint)
{
    if (depth < 0 || depth > kMaxDepth || !inDomain(i, j, k)) {
        if (CoreGL::Logger::errorVerboseLevel() > 0)
            std::cerr << "addTile.error: point (" << i << ", " << j << ", " << k << ") at depth "
                      << depth << " lies outside the tree; nothing added\n";
        return sentinel();
    }
    std::lock_guard<SpinLock> lock(mAddLock);
    dropTables();
    // Start from the hint's ancestor holding the point, else from the root.
    TileType* t = nullptr;
    if (hint && hint->mValid && hint->mDepth <= depth) {
        TileType const* a = hint;
        while (a && !a->contains(i, j, k))
            a = a->mParent >= 0 ? &mTiles[a->mDepth - 1][a->mParent] : nullptr;
        // The same tile reached through this (non-const) tree.
        if (a)
            t = &mTiles[a->mDepth][a->mIndex];
    }
    if (!t) {
        if (mTiles[0].size() == 0) {
            std::int64_t const lo = -kCentreOffset;
            newTile(0, int3{int(lo), int(lo), int(lo)}, -1);
        }
        t = &mTiles[0][0];
    }
    while (t->mDepth < depth) {
        int const cd = t->mDepth + 1;
        int const si = static_cast<int>(divTileWidth<Traits>(i - t->mTi, cd));
        int const sj = static_cast<int>(divTileWidth<Traits>(j - t->mTj, cd));
        int const sk = static_cast<int>(divTileWidth<Traits>(k - t->mTk, cd));
        int const slot = TileType::slotNumber(si, sj, sk);
        std::int64_t c = t->mChild[slot];
        if (c < 0) {
            int3 const corner = t->childTIJK(si, sj, sk);
            TileType& child = newTile(cd, corner, t->mIndex);
            c = child.mIndex;
            t->mChild[slot] = c;
        }
        t = &mTiles[cd][c];
    }
    return *t;
}

template <typename TraitsT>
void Container<TraitsT>::refine(Container const& other, TileCornerLists<Traits>* newTiles, bool)
{
    dropTables();
    // Index in this tree of every tile of `other`, depth by depth (parents come first).
    std::vector<std::int64_t> mapPrev, mapCur;
    for (int d = 0; d < kDepthCount; ++d) {
        std::int64_t const n = other.mTiles[d].size();
        mapCur.assign(static_cast<std::size_t>(n), -1);
        for (std::int64_t t = 0; t < n; ++t) {
            TileType const& o = other.mTiles[d][t];
            std::int64_t here = -1;
            if (o.mParent >= 0 && static_cast<std::size_t>(o.mParent) < mapPrev.size() &&
                mapPrev[o.mParent] >= 0) {
                TileType& p = mTiles[d - 1][mapPrev[o.mParent]];
                int3 const s = p.childIJK(o.tijk());
                int const slot = TileType::slotNumber(s.x, s.y, s.z);
                here = p.mChild[slot];
                if (here < 0) {
                    here = newTile(d, o.tijk(), p.mIndex).mIndex;
                    mTiles[d - 1][mapPrev[o.mParent]].mChild[slot] = here;
                    if (newTiles)
                        (*newTiles)[d].push_back(o.tijk());
                }
            } else {
                // A root of `other` (or a tile whose parent is unknown): walk from our root,
                // creating and recording whatever is missing.
                std::int64_t counts[kDepthCount];
                for (int q = 0; q < kDepthCount; ++q)
                    counts[q] = mTiles[q].size();
                TileType const& r = addTileLocked(o.mTi, o.mTj, o.mTk, d, nullptr);
                if (!r.mValid)
                    continue;
                here = r.mIndex;
                if (newTiles)
                    for (int q = 0; q <= d; ++q)
                        for (std::int64_t x = counts[q]; x < mTiles[q].size(); ++x)
                            (*newTiles)[q].push_back(mTiles[q][x].tijk());
            }
            mapCur[t] = here;
        }
        mapPrev.swap(mapCur);
    }
}

// ---- removal ---------------------------------------------------------------------------------

template <typename TraitsT>
std::int64_t Container<TraitsT>::removeTiles(TileIndexLists<Traits> const& toRemove,
                                             TileMoveLists<Traits>& moved, bool)
{
    dropTables();
    for (auto& m : moved)
        m.clear();
    // Mark the listed tiles, then their descendants depth by depth.
    std::vector<std::vector<char>> dead(kDepthCount);
    std::int64_t bad = 0;
    for (int d = 0; d < kDepthCount; ++d) {
        dead[d].assign(static_cast<std::size_t>(mTiles[d].size()), 0);
        for (std::int64_t idx : toRemove[d]) {
            if (idx < 0 || idx >= mTiles[d].size()) {
                ++bad;
                continue;
            }
            dead[d][idx] = 1;
        }
    }
    if (bad && CoreGL::Logger::errorVerboseLevel() > 0)
        std::cerr << "removeTiles.error: " << bad
                  << " tile indices outside their depth's tile array were ignored\n";
    for (int d = 1; d < kDepthCount; ++d)
        for (std::int64_t t = 0; t < mTiles[d].size(); ++t) {
            std::int64_t const p = mTiles[d][t].mParent;
            if (p >= 0 && dead[d - 1][p])
                dead[d][t] = 1;
        }
    // Compact each depth stably and remember where every survivor went.
    std::vector<std::vector<std::int64_t>> remap(kDepthCount);
    std::int64_t removed = 0;
    for (int d = 0; d < kDepthCount; ++d) {
        std::int64_t const n = mTiles[d].size();
        remap[d].assign(static_cast<std::size_t>(n), -1);
        std::int64_t to = 0;
        for (std::int64_t from = 0; from < n; ++from) {
            if (dead[d][from])
                continue;
            remap[d][from] = to;
            if (from != to) {
                mTiles[d][to] = mTiles[d][from];
                moved[d].emplace_back(from, to);
            }
            ++to;
        }
        removed += n - to;
        mTiles[d].truncate(to);
    }
    // Rewrite the links.
    for (int d = 0; d < kDepthCount; ++d)
        for (std::int64_t t = 0; t < mTiles[d].size(); ++t) {
            TileType& tile = mTiles[d][t];
            tile.mIndex = t;
            if (tile.mParent >= 0)
                tile.mParent = remap[d - 1][tile.mParent];
            if (d + 1 < kDepthCount)
                for (int c = 0; c < Traits::kChildCount; ++c)
                    if (tile.mChild[c] >= 0)
                        tile.mChild[c] = remap[d + 1][tile.mChild[c]];
        }
    rebuildRoots();
    return removed;
}

template <typename TraitsT> void Container<TraitsT>::rebuildRoots()
{
    mRoots.clear();
    for (int d = 0; d < kDepthCount; ++d)
        for (std::int64_t t = 0; t < mTiles[d].size(); ++t)
            if (mTiles[d][t].mParent < 0)
                mRoots.emplace(mTiles[d][t].voxelCoord(), TreeIndex{t, d});
}

template <typename TraitsT> void Container<TraitsT>::clear()
{
    dropTables();
    for (auto& s : mTiles)
        s.clear();
    mRoots.clear();
}

// ---- Morton order ----------------------------------------------------------------------------

template <typename TraitsT> TileIndexLists<TraitsT> Container<TraitsT>::sortIntoMortonOrder()
{
    dropTables();
    TileIndexLists<Traits> perm;
    std::vector<std::vector<std::int64_t>> inverse(kDepthCount);
    for (int d = 0; d < kDepthCount; ++d) {
        std::int64_t const n = mTiles[d].size();
        std::vector<unsigned __int128> key(static_cast<std::size_t>(n));
        for (std::int64_t t = 0; t < n; ++t) {
            TileType const& tile = mTiles[d][t];
            key[t] = morton(ordinal<Traits>(tile.mTi, d), ordinal<Traits>(tile.mTj, d),
                            ordinal<Traits>(tile.mTk, d));
        }
        perm[d].resize(static_cast<std::size_t>(n));
        std::iota(perm[d].begin(), perm[d].end(), std::int64_t(0));
        std::sort(perm[d].begin(), perm[d].end(),
                  [&](std::int64_t a, std::int64_t b) { return key[a] < key[b]; });
        inverse[d].assign(static_cast<std::size_t>(n), -1);
        for (std::int64_t m = 0; m < n; ++m)
            inverse[d][perm[d][m]] = m;
        // Apply the permutation through a copy of the tiles of this depth.
        std::vector<TileType> copy(static_cast<std::size_t>(n));
        for (std::int64_t t = 0; t < n; ++t)
            copy[t] = mTiles[d][t];
        for (std::int64_t m = 0; m < n; ++m)
            mTiles[d][m] = copy[perm[d][m]];
    }
    for (int d = 0; d < kDepthCount; ++d)
        for (std::int64_t t = 0; t < mTiles[d].size(); ++t) {
            TileType& tile = mTiles[d][t];
            tile.mIndex = t;
            if (tile.mParent >= 0)
                tile.mParent = inverse[d - 1][tile.mParent];
            if (d + 1 < kDepthCount)
                for (int c = 0; c < Traits::kChildCount; ++c)
                    if (tile.mChild[c] >= 0)
                        tile.mChild[c] = inverse[d + 1][tile.mChild[c]];
        }
    rebuildRoots();
    return perm;
}

// ---- scratch trees ---------------------------------------------------------------------------

template <typename TraitsT> Container<TraitsT>* Container<TraitsT>::threadLocalContainer(int)
{
    auto c = std::make_unique<Container>(name(), mVoxelSize);
    c->mMaxRelativeRefinementError = mMaxRelativeRefinementError;
    Container* raw = c.get();
    mScratch.push_back(std::move(c));
    return raw;
}

template <typename TraitsT> void Container<TraitsT>::freeThreadLocalContainer(Container* scratch)
{
    auto it = std::find_if(mScratch.begin(), mScratch.end(),
                           [&](std::unique_ptr<Container> const& p) { return p.get() == scratch; });
    if (it != mScratch.end())
        mScratch.erase(it);
}

template <typename TraitsT>
void Container<TraitsT>::clearThreadLocalData(TileCornerLists<Traits>& newTiles)
{
    mScratch.clear();
    for (auto& a : newTiles)
        a.clear();
}

// ---- acceleration tables ---------------------------------------------------------------------

template <typename TraitsT> void Container<TraitsT>::dropTables()
{
    mHash.clear();
    mNeighbors.clear();
    mHaloIndex.clear();
    mHaloDepthStep.clear();
}

template <typename TraitsT> void Container<TraitsT>::buildAccessorAccelerationStructure(int depth)
{
    if (depth < -1 || depth >= kDepthCount)
        return;
    if (mHash.empty())
        mHash.resize(kDepthCount);
    int const lo = depth < 0 ? 0 : depth, hi = depth < 0 ? kMaxDepth : depth;
    for (int d = lo; d <= hi; ++d) {
        HashTable& h = mHash[d];
        std::int64_t const n = mTiles[d].size();
        // Buckets of four entries (one cache line); load factor at most 3/4, so that a lookup
        // nearly always ends in its home bucket, and with no data-dependent branch inside it.
        std::uint64_t buckets = 4;
        while (3 * buckets * kBucket < static_cast<std::uint64_t>(4 * n))
            buckets <<= 1;
        HashTable fresh;
        fresh.capacity = buckets * kBucket;
        fresh.entries =
            static_cast<HashEntry*>(detail::allocateLarge(fresh.capacity * sizeof(HashEntry)));
        fresh.mask = buckets - 1;
        for (std::uint64_t e = 0; e < fresh.capacity; ++e)
            fresh.entries[e] = HashEntry{0, 0, 0, -1};
        for (std::int64_t t = 0; t < n; ++t) {
            TileType const& tile = mTiles[d][t];
            std::uint64_t b = hashCorner(tile.mTi, tile.mTj, tile.mTk) & fresh.mask;
            for (;;) {
                HashEntry* bucket = fresh.entries + b * kBucket;
                int s = 0;
                while (s < int(kBucket) && bucket[s].index >= 0)
                    ++s;
                if (s < int(kBucket)) {
                    bucket[s] =
                        HashEntry{tile.mTi, tile.mTj, tile.mTk, static_cast<std::int32_t>(t)};
                    break;
                }
                b = (b + 1) & fresh.mask;
            }
        }
        h = std::move(fresh);
    }
}

template <typename TraitsT>
bool Container<TraitsT>::hasAccessorAccelerationStructure(int depth) const
{
    return depth >= 0 && depth < static_cast<int>(mHash.size()) && mHash[depth].entries != nullptr;
}

template <typename TraitsT>
typename Container<TraitsT>::TileType const*
Container<TraitsT>::hashLookup(std::int64_t i, std::int64_t j, std::int64_t k, int depth,
                               int3& corner) const
{
    HashTable const& h = mHash[depth];
    std::int64_t const ci = snapCorner<Traits>(i, depth), cj = snapCorner<Traits>(j, depth),
                       ck = snapCorner<Traits>(k, depth);
    std::uint64_t b = hashCorner(ci, cj, ck) & h.mask;
    for (;;) {
        HashEntry const* bucket = h.entries + b * kBucket;
        int found = -1;
        bool open = false;
        for (int s = 0; s < int(kBucket); ++s) {
            bool const hit =
                bucket[s].i == ci && bucket[s].j == cj && bucket[s].k == ck && bucket[s].index >= 0;
            found = hit ? s : found;
            open |= bucket[s].index < 0;
        }
        if (found >= 0) {
            corner = {bucket[found].i, bucket[found].j, bucket[found].k};
            return &mTiles[depth][bucket[found].index];
        }
        if (open)
            return nullptr;
        b = (b + 1) & h.mask;
    }
}

template <typename TraitsT> void Container<TraitsT>::precomputeTileNeighbors()
{
    std::vector<std::vector<NeighborRef>> table(kDepthCount);
    mNeighbors.clear();
    constexpr int S = Traits::kSlotsPerAxis;
    for (int d = 0; d < kDepthCount; ++d) {
        std::int64_t const n = mTiles[d].size();
        table[d].resize(static_cast<std::size_t>(n) * 27);
        // A tile's neighbours follow from its parent's, computed one depth earlier: the target
        // slot either lies in the parent or in the parent's neighbour in the direction it leaves
        // it by; that tile's child in the slot is the neighbour, or, where it has none, that tile
        // (or the coarser tile the parent's table already holds) is the closest coarser tile.
        Parallel::isolate([&] {
            Parallel::cancellableRanges(
                n,
                [&](std::int64_t begin, std::int64_t end) {
                    ConstTileAccessor acc(*this);
                    for (std::int64_t t = begin; t != end; ++t) {
                        TileType const& tile = mTiles[d][t];
                        NeighborRef* row = &table[d][t * 27];
                        if (d == 0 || tile.mParent < 0) {
                            for (int dir = 0; dir < 27; ++dir) {
                                TileType const& nb = acc.tileNeighbor(tile, dir);
                                row[dir] = nb.mValid
                                               ? NeighborRef{static_cast<std::int32_t>(nb.mIndex),
                                                             nb.mDepth}
                                               : NeighborRef{-1, -1};
                            }
                            continue;
                        }
                        TileType const& parent = mTiles[d - 1][tile.mParent];
                        NeighborRef const* prow = &table[d - 1][tile.mParent * 27];
                        int3 const s = parent.childIJK(tile.tijk());
                        for (int dir = 0; dir < 27; ++dir) {
                            int const o[3] = {neighborDx(dir), neighborDy(dir), neighborDz(dir)};
                            int slot[3], up[3];
                            for (int a = 0; a < 3; ++a) {
                                int const c = s[a] + o[a];
                                up[a] = c < 0 ? -1 : (c >= S ? 1 : 0);
                                slot[a] = c - up[a] * S;
                            }
                            NeighborRef const q = prow[neighborDirection(up[0], up[1], up[2])];
                            if (q.depth < 0 || q.depth < d - 1) {
                                row[dir] = q;
                                continue;
                            }
                            std::int64_t const c =
                                mTiles[q.depth][q.index]
                                    .mChild[TileType::slotNumber(slot[0], slot[1], slot[2])];
                            row[dir] = c >= 0 ? NeighborRef{static_cast<std::int32_t>(c), d} : q;
                        }
                    }
                },
                256);
        });
    }
    mNeighbors.swap(table);
}

template <typename TraitsT> void Container<TraitsT>::clearPrecomputedTileNeighbors()
{
    mNeighbors.clear();
    mHaloIndex.clear();
    mHaloDepthStep.clear();
}

template <typename TraitsT>
typename Container<TraitsT>::TileType const*
Container<TraitsT>::precomputedNeighbor(TileType const& t, int dir) const
{
    NeighborRef const r = mNeighbors[t.mDepth][t.mIndex * 27 + dir];
    return r.depth < 0 ? &sentinel() : &mTiles[r.depth][r.index];
}

// ---- component interface ---------------------------------------------------------------------

template <typename TraitsT> void Container<TraitsT>::dump(std::ostream& out) const
{
    out << "Container '" << name() << "' voxelSize " << mVoxelSize << " tiles " << tileCount(-1)
        << '\n';
    for (int d = 0; d < kDepthCount; ++d)
        if (mTiles[d].size() > 0)
            out << "  depth " << d << ": " << mTiles[d].size() << " tiles\n";
}

template <typename TraitsT>
void Container<TraitsT>::memUse(std::size_t& used, std::size_t& reserved, bool) const
{
    used = sizeof(*this);
    reserved = sizeof(*this);
    for (int d = 0; d < kDepthCount; ++d) {
        used += static_cast<std::size_t>(mTiles[d].size()) * sizeof(TileType);
        reserved += mTiles[d].capacityBytes();
    }
    for (auto const& h : mHash) {
        used += h.capacity * sizeof(HashEntry);
        reserved += h.capacity * sizeof(HashEntry);
    }
    for (auto const& n : mNeighbors) {
        used += n.size() * sizeof(NeighborRef);
        reserved += n.capacity() * sizeof(NeighborRef);
    }
    for (std::size_t d = 0; d < mHaloIndex.size(); ++d) {
        used += mHaloIndex[d].size() * sizeof(std::int32_t) + mHaloDepthStep[d].size();
        reserved += mHaloIndex[d].capacity() * sizeof(std::int32_t) + mHaloDepthStep[d].capacity();
    }
}

template <typename TraitsT> void Container<TraitsT>::copyTo(Quillon::Ptr<Component>& out) const
{
    out = Quillon::Ptr<Component>(std::make_shared<Container>(*this));
}

// ---- accessors -------------------------------------------------------------------------------

template <typename TraitsT>
template <int Form>
typename Container<TraitsT>::TileType const&
Container<TraitsT>::ConstTileAccessor::tileImpl(std::int64_t i, std::int64_t j, std::int64_t k,
                                                int depth)
{
    if (!mContainer || depth < 0 || !inDomain(i, j, k))
        return sentinel();
    if (depth > kMaxDepth)
        depth = kMaxDepth;
    Container const& c = *mContainer;
    if (c.hasAccessorAccelerationStructure(depth)) {
        int3 corner;
        if (TileType const* t = c.hashLookup(i, j, k, depth, corner)) {
            cache(t, corner, depth);
            return *t;
        }
    }
    TileType const* start = nullptr;
    if (Form == 0 && mTile->mValid) {
        // Climb from the cached tile to the closest ancestor that holds the point.
        TileType const* a = mTile;
        while (a && !(a->mDepth <= depth && a->contains(i, j, k)))
            a = a->mParent >= 0 ? &c.mTiles[a->mDepth - 1][a->mParent] : nullptr;
        start = a;
    }
    TileType const* t = c.findTile(i, j, k, depth, start);
    if (!t)
        return sentinel();
    cache(*t);
    return *t;
}

template <typename TraitsT>
typename Container<TraitsT>::TileType const&
Container<TraitsT>::ConstTileAccessor::tileNeighbor(TileType const& t, int dir)
{
    if (!t.valid() || dir < 0 || dir > 26)
        return sentinel();
    if (mContainer->hasPrecomputedTileNeighbors() &&
        mContainer->mNeighbors.size() > std::size_t(t.mDepth) &&
        &mContainer->mTiles[t.mDepth][t.mIndex] == &t)
        return *mContainer->precomputedNeighbor(t, dir);
    std::int64_t const w = tileVoxelWidth(t.mDepth);
    return tile(t.mTi + neighborDx(dir) * w, t.mTj + neighborDy(dir) * w,
                t.mTk + neighborDz(dir) * w, t.mDepth);
}

template <typename TraitsT>
typename Container<TraitsT>::TileType const&
Container<TraitsT>::ConstTileAccessor::tileNeighbor(TileType const& t, int3 const& off, int depth,
                                                    bool allowCoarser)
{
    if (!t.valid())
        return sentinel();
    std::int64_t const w = tileVoxelWidth(t.mDepth);
    TileType const& r = tile(t.mTi + off.x * w, t.mTj + off.y * w, t.mTk + off.z * w, depth);
    if (!allowCoarser && r.mDepth != depth)
        return sentinel();
    return r;
}

template <typename TraitsT>
void Container<TraitsT>::ConstTileAccessor::tileNeighbors(TileType const& t,
                                                          std::vector<TileType const*>& out,
                                                          int depth, bool allowCoarser)
{
    out.clear();
    if (!t.valid())
        return;
    Container const& c = *mContainer;
    std::int64_t const w = tileVoxelWidth(t.mDepth);
    std::int64_t const lo[3] = {t.mTi, t.mTj, t.mTk};
    // Does box [b, b + bw) touch (closure) the tile's box without lying inside it?
    auto touches = [&](TileType const& n) {
        std::int64_t const nw = tileVoxelWidth(n.mDepth);
        std::int64_t const nb[3] = {n.mTi, n.mTj, n.mTk};
        for (int a = 0; a < 3; ++a)
            if (nb[a] > lo[a] + w || nb[a] + nw < lo[a])
                return false;
        return true;
    };
    auto isAncestorOrSelf = [&](TileType const& n) {
        return n.mDepth <= t.mDepth && n.contains(t.mTi, t.mTj, t.mTk);
    };
    auto push = [&](TileType const* n) {
        if (std::find(out.begin(), out.end(), n) == out.end())
            out.push_back(n);
    };
    std::vector<TileType const*> stack;
    for (int dir = 0; dir < 27; ++dir) {
        if (dir == kNeighborSelf)
            continue;
        TileType const& n = tileNeighbor(t, dir);
        if (!n.valid())
            continue;
        if (n.mDepth < t.mDepth) {
            if (allowCoarser && !isAncestorOrSelf(n))
                push(&n);
            continue;
        }
        stack.push_back(&n);
        while (!stack.empty()) {
            TileType const* m = stack.back();
            stack.pop_back();
            if (m->mDepth > depth || !touches(*m))
                continue;
            push(m);
            if (m->mDepth + 1 > depth || m->mDepth + 1 >= kDepthCount)
                continue;
            for (int s = 0; s < Traits::kChildCount; ++s)
                if (m->mChild[s] >= 0)
                    stack.push_back(&c.mTiles[m->mDepth + 1][m->mChild[s]]);
        }
    }
}

template <typename TraitsT>
std::int64_t Container<TraitsT>::TileAccessor::addTiles(int3 const& min, int3 const& max, int depth)
{
    if (depth < 0 || depth > kMaxDepth)
        return 0;
    std::int64_t const w = tileVoxelWidth(depth);
    std::int64_t const lo = -kCentreOffset, hi = lo + tileVoxelWidth(0) - 1;
    std::int64_t a[3], b[3];
    for (int x = 0; x < 3; ++x) {
        std::int64_t const mn = std::max<std::int64_t>(min[x], lo),
                           mx = std::min<std::int64_t>(max[x], hi);
        if (mn > mx)
            return 0;
        a[x] = snapCorner<Traits>(mn, depth);
        b[x] = snapCorner<Traits>(mx, depth);
    }
    std::int64_t n = 0;
    for (std::int64_t k = a[2]; k <= b[2]; k += w)
        for (std::int64_t j = a[1]; j <= b[1]; j += w)
            for (std::int64_t i = a[0]; i <= b[0]; i += w) {
                addTile(i, j, k, depth);
                ++n;
            }
    return n;
}

template <typename TraitsT>
std::int64_t Container<TraitsT>::TileAccessor::removeTiles(TileIndexLists<TraitsT> const& toRemove,
                                                           TileMoveLists<TraitsT>& moved,
                                                           bool consistent)
{
    this->cache(sentinel());
    return mMutable->removeTiles(toRemove, moved, consistent);
}

template class Container<Traits24>;
template class Container<Traits55>;
template Container<Traits24>::TileType const&
Container<Traits24>::ConstTileAccessor::tileImpl<0>(std::int64_t, std::int64_t, std::int64_t, int);
template Container<Traits24>::TileType const&
Container<Traits24>::ConstTileAccessor::tileImpl<1>(std::int64_t, std::int64_t, std::int64_t, int);
template Container<Traits55>::TileType const&
Container<Traits55>::ConstTileAccessor::tileImpl<0>(std::int64_t, std::int64_t, std::int64_t, int);
template Container<Traits55>::TileType const&
Container<Traits55>::ConstTileAccessor::tileImpl<1>(std::int64_t, std::int64_t, std::int64_t, int);

} // namespace TVL::TileTree3D
