/// @file  substrate/channel_storage.cpp
/// @brief The block bookkeeping of channels, once per element type.
#include <hexmold/substrate/channel_storage.h>

#include <algorithm>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/substrate/channel_pool.h>
#include <hexmold/substrate/detail/element_type_name.h>
#include <hexmold/substrate/detail/substrate_log.h>
#include <hexmold/substrate/parallel.h>
#include <ostream>
#include <string>
#include <unordered_map>

namespace TVL::TileTree3D::detail {

namespace {
int clampDepth(int d, int lo, int hi)
{
    return d < lo ? lo : (d > hi ? hi : d);
}
} // namespace

template <typename T>
ChannelStorage<T>::ChannelStorage(BlockShape shape, T const& defaultValue,
                                  DataElementInitializerType initializer, bool usePool,
                                  bool callElementConstructor, int minDepth, int depth)
    : mShape(shape), mDefault(defaultValue), mInitializer(initializer),
      mUsePool(usePool && ChannelMemoryPool::enabled()),
      mCallElementConstructor(callElementConstructor),
      mMinDepth(clampDepth(minDepth, 0, shape.depthCount - 1)),
      mDepth(clampDepth(depth, -1, shape.depthCount - 1)),
      mBlocks(static_cast<std::size_t>(shape.depthCount))
{
    if (mUsePool)
        mSpare = ChannelMemoryPool::take<T>();
}

template <typename T>
ChannelStorage<T>::ChannelStorage(ChannelStorage const& o)
    : mShape(o.mShape), mDefault(o.mDefault), mInitializer(o.mInitializer), mUsePool(false),
      mCallElementConstructor(o.mCallElementConstructor), mAllocateEmpty(o.mAllocateEmpty),
      mMinDepth(o.mMinDepth), mDepth(o.mDepth), mBlocks(o.mBlocks)
{
}

template <typename T> ChannelStorage<T>::~ChannelStorage()
{
    if (!mUsePool)
        return;
    std::vector<Block> all = std::move(mSpare);
    std::size_t n = all.size();
    for (auto const& a : mBlocks)
        n += a.size();
    all.reserve(n);
    for (auto& a : mBlocks)
        for (auto& b : a)
            if (b.capacity())
                all.push_back(std::move(b));
    ChannelMemoryPool::give<T>(std::move(all));
}

template <typename T> auto ChannelStorage<T>::blocks(int depth) const -> std::vector<Block> const&
{
    static std::vector<Block> const none;
    if (depth < mMinDepth || depth > mDepth)
        return none;
    return mBlocks[static_cast<std::size_t>(depth)];
}

template <typename T> void ChannelStorage<T>::initBlock(Block& b, std::size_t count)
{
    if (b.capacity() == 0 && !mSpare.empty()) {
        b.swap(mSpare.back());
        mSpare.pop_back();
    }
    if (mAllocateEmpty) {
        b.resize(count); // raw: the caller writes every element
        return;
    }
    switch (mInitializer) {
    case kDataElementInitializerTemporary:
        if (mCallElementConstructor)
            b.assign(count, T{});
        else
            b.resize(count);
        break;
    case kDataElementInitializerConstruct:
        b.assign(count, T{});
        break;
    default:
        b.assign(count, mDefault);
        break;
    }
}

template <typename T>
std::size_t ChannelStorage<T>::newBlockCount(Component const& topology, bool point,
                                             std::int64_t index, int depth) const
{
    if (!point)
        return mShape.voxelCount;
    return static_cast<std::size_t>(topology.elementCount(TreeIndex{index, depth}));
}

template <typename T> void ChannelStorage<T>::releaseDepth(int depth)
{
    auto& a = mBlocks[static_cast<std::size_t>(depth)];
    if (mUsePool)
        for (auto& b : a)
            if (b.capacity())
                mSpare.push_back(std::move(b));
    std::vector<Block>().swap(a);
}

template <typename T>
void ChannelStorage<T>::resizeDepth(int depth, Component const& topology, bool point, bool shrink)
{
    auto& a = mBlocks[static_cast<std::size_t>(depth)];
    auto const n = static_cast<std::size_t>(std::max<std::int64_t>(0, topology.tileCount(depth)));
    if (a.size() > n) {
        if (!shrink)
            return;
        if (mUsePool)
            for (std::size_t i = n; i < a.size(); ++i)
                if (a[i].capacity())
                    mSpare.push_back(std::move(a[i]));
        a.resize(n);
    } else if (a.size() < n) {
        std::size_t const old = a.size();
        a.resize(n);
        // Many voxel blocks are allocated and filled by all workers: the spare storages are
        // handed out first, on this thread, after which no block takes from the shared list.
        constexpr std::size_t kParallelBlocks = 4096;
        if (point || n - old < kParallelBlocks) {
            for (std::size_t i = old; i < n; ++i)
                initBlock(a[i],
                          newBlockCount(topology, point, static_cast<std::int64_t>(i), depth));
            return;
        }
        for (std::size_t i = old; i < n && !mSpare.empty(); ++i) {
            a[i].swap(mSpare.back());
            mSpare.pop_back();
        }
        std::size_t const count = mShape.voxelCount;
        TVL::Parallel::parallel_for(TVL::Parallel::blocked_range<std::size_t>(old, n, 1024),
                                    [&](TVL::Parallel::blocked_range<std::size_t> const& r) {
                                        for (std::size_t i = r.begin(); i != r.end(); ++i)
                                            initBlock(a[i], count);
                                    });
    }
}

template <typename T>
void ChannelStorage<T>::update(Component const& topology, bool point, bool shrink)
{
    for (int d = mMinDepth; d <= mDepth; ++d)
        resizeDepth(d, topology, point, shrink);
    if (point && shrink)
        updateElementResize(topology, point);
}

template <typename T>
void ChannelStorage<T>::setRange(int minDepth, int depth, Component const* topology, bool point)
{
    minDepth = clampDepth(minDepth, 0, mShape.depthCount - 1);
    depth = clampDepth(depth, -1, mShape.depthCount - 1);
    int const oldMin = mMinDepth, oldMax = mDepth;
    for (int d = 0; d < mShape.depthCount; ++d) {
        bool const inOld = d >= oldMin && d <= oldMax;
        bool const inNew = d >= minDepth && d <= depth;
        if (inOld && !inNew)
            releaseDepth(d);
    }
    mMinDepth = minDepth;
    mDepth = depth;
    if (!topology)
        return;
    for (int d = mMinDepth; d <= mDepth; ++d)
        if (!(d >= oldMin && d <= oldMax))
            resizeDepth(d, *topology, point, true);
    if (point)
        updateElementResize(*topology, point);
}

template <typename T>
void ChannelStorage<T>::updateTilesRemoved(std::span<TileMoveList const> moved,
                                           Component const& topology, bool point,
                                           Quillon::String const& channelName)
{
    std::int64_t bad = 0;
    for (int d = mMinDepth; d <= mDepth; ++d) {
        auto& a = mBlocks[static_cast<std::size_t>(d)];
        auto const n = static_cast<std::int64_t>(a.size());
        if (d < static_cast<int>(moved.size())) {
            for (auto const& [from, to] : moved[static_cast<std::size_t>(d)]) {
                if (from < 0 || from >= n || to < 0 || to >= n) {
                    ++bad;
                    continue;
                }
                // A swap moves the block's storage; what lands at `from` is dropped below.
                if (from != to)
                    a[static_cast<std::size_t>(to)].swap(a[static_cast<std::size_t>(from)]);
            }
        }
        resizeDepth(d, topology, point, true);
    }
    if (bad)
        logError("Channel::updateTilesRemoved.error: " + std::to_string(bad) +
                 " (from, to) pairs outside the blocks of channel '" + channelName +
                 "' were ignored");
}

template <typename T>
void ChannelStorage<T>::updateTilesPermuted(std::span<TilePermutation const> permutation,
                                            Quillon::String const& channelName)
{
    for (int d = mMinDepth; d <= mDepth && d < static_cast<int>(permutation.size()); ++d) {
        auto& a = mBlocks[static_cast<std::size_t>(d)];
        auto const& p = permutation[static_cast<std::size_t>(d)];
        if (p.empty() && a.empty())
            continue;
        bool ok = p.size() == a.size();
        std::vector<char> seen(a.size(), 0);
        for (std::size_t n = 0; ok && n < p.size(); ++n) {
            if (p[n] < 0 || p[n] >= static_cast<std::int64_t>(a.size()) || seen[p[n]])
                ok = false;
            else
                seen[p[n]] = 1;
        }
        if (!ok) {
            logError("Channel::updateTilesPermuted.error: depth " + std::to_string(d) +
                     " of channel '" + channelName +
                     "' has no permutation of its blocks; left unchanged");
            continue;
        }
        std::vector<Block> b(a.size());
        for (std::size_t n = 0; n < p.size(); ++n)
            b[n].swap(a[static_cast<std::size_t>(p[n])]);
        a.swap(b);
    }
}

template <typename T>
void ChannelStorage<T>::updateElements(std::vector<std::vector<ElementToFrom>> const& moves,
                                       Quillon::String const& channelName)
{
    std::int64_t bad = 0;
    for (int d = mMinDepth; d <= mDepth && d < static_cast<int>(moves.size()); ++d) {
        auto const& m = moves[static_cast<std::size_t>(d)];
        if (m.empty())
            continue;
        auto& a = mBlocks[static_cast<std::size_t>(d)];
        auto const n = static_cast<std::int64_t>(a.size());
        // Every move reads the blocks as they were: keep a copy of each source block.
        std::unordered_map<std::int64_t, Block> sources;
        for (auto const& e : m)
            if (e.fromTile >= 0 && e.fromTile < n && !sources.count(e.fromTile))
                sources.emplace(e.fromTile, a[static_cast<std::size_t>(e.fromTile)]);
        for (auto const& e : m) {
            auto it = sources.find(e.fromTile);
            if (it == sources.end() || e.fromElement < 0 ||
                e.fromElement >= static_cast<std::int64_t>(it->second.size()) || e.toTile < 0 ||
                e.toTile >= n || e.toElement < 0) {
                ++bad;
                continue;
            }
            Block& to = a[static_cast<std::size_t>(e.toTile)];
            if (e.toElement >= static_cast<std::int64_t>(to.size()))
                to.resize(static_cast<std::size_t>(e.toElement) + 1, mDefault);
            to[static_cast<std::size_t>(e.toElement)] =
                it->second[static_cast<std::size_t>(e.fromElement)];
        }
    }
    if (bad)
        logError("Channel::updateElements.error: " + std::to_string(bad) +
                 " element moves outside the blocks of channel '" + channelName + "' were ignored");
}

template <typename T>
void ChannelStorage<T>::updateElementResize(Component const& topology, bool point)
{
    for (int d = mMinDepth; d <= mDepth; ++d) {
        auto& a = mBlocks[static_cast<std::size_t>(d)];
        for (std::size_t i = 0; i < a.size(); ++i) {
            std::size_t const count =
                newBlockCount(topology, point, static_cast<std::int64_t>(i), d);
            if (a[i].size() != count)
                a[i].resize(count, mDefault);
        }
    }
}

template <typename T>
void ChannelStorage<T>::initializeFromParents(int depth, std::span<TileParentLink const> links,
                                              std::span<int const> parentOf, int slots)
{
    if (depth - 1 < mMinDepth || depth > mDepth)
        return;
    int const w = mShape.width, h = mShape.halo, e = w + 2 * h;
    auto flat = [e, h](int i, int j, int k) {
        return static_cast<std::size_t>((i + h) + e * ((j + h) + e * (k + h)));
    };
    for (TileParentLink const& l : links) {
        Block* child = block(l.tile, depth);
        Block const* parent = block(l.parent, depth - 1);
        if (!child || !parent || child->size() != mShape.voxelCount ||
            parent->size() != mShape.voxelCount)
            continue;
        if (l.slot.x < 0 || l.slot.x >= slots || l.slot.y < 0 || l.slot.y >= slots ||
            l.slot.z < 0 || l.slot.z >= slots)
            continue;
        int const* px = parentOf.data() + l.slot.x * w;
        int const* py = parentOf.data() + l.slot.y * w;
        int const* pz = parentOf.data() + l.slot.z * w;
        T* c = child->data();
        T const* p = parent->data();
        for (int k = 0; k < w; ++k)
            for (int j = 0; j < w; ++j)
                for (int i = 0; i < w; ++i)
                    c[flat(i, j, k)] = p[flat(px[i], py[j], pz[k])];
    }
}

template <typename T> std::uint64_t ChannelStorage<T>::elementCount(int depth) const
{
    std::uint64_t n = 0;
    for (int d = mMinDepth; d <= mDepth; ++d) {
        if (depth != -1 && depth != d)
            continue;
        for (auto const& b : mBlocks[static_cast<std::size_t>(d)])
            n += b.size();
    }
    return n;
}

template <typename T> std::int64_t ChannelStorage<T>::tileCount(int depth) const
{
    std::int64_t n = 0;
    for (int d = mMinDepth; d <= mDepth; ++d)
        if (depth == -1 || depth == d)
            n += static_cast<std::int64_t>(mBlocks[static_cast<std::size_t>(d)].size());
    return n;
}

template <typename T> void ChannelStorage<T>::memUse(std::size_t& used, std::size_t& reserved) const
{
    used = reserved = sizeof(*this);
    for (auto const& a : mBlocks) {
        used += a.size() * sizeof(Block);
        reserved += a.capacity() * sizeof(Block);
        for (auto const& b : a) {
            used += b.size() * sizeof(T);
            reserved += b.capacity() * sizeof(T);
        }
    }
    reserved += mSpare.capacity() * sizeof(Block);
    for (auto const& b : mSpare)
        reserved += b.capacity() * sizeof(T);
}

template <typename T>
std::shared_ptr<void const> ChannelStorage<T>::channelData(unsigned depth) const
{
    if (static_cast<int>(depth) < mMinDepth || static_cast<int>(depth) > mDepth)
        return nullptr;
    auto out = std::make_shared<Quillon::Array<T>>();
    out->reserve(static_cast<std::size_t>(elementCount(static_cast<int>(depth))));
    for (auto const& b : mBlocks[depth])
        out->insert(out->end(), b.begin(), b.end());
    return out;
}

template <typename T>
bool ChannelStorage<T>::setChannelData(unsigned depth, std::shared_ptr<void const> const& data)
{
    if (!data || static_cast<int>(depth) < mMinDepth || static_cast<int>(depth) > mDepth)
        return false;
    auto const& values = *static_cast<Quillon::Array<T> const*>(data.get());
    if (values.size() != elementCount(static_cast<int>(depth)))
        return false;
    auto src = values.begin();
    for (auto& b : mBlocks[depth]) {
        std::copy(src, src + static_cast<std::ptrdiff_t>(b.size()), b.begin());
        src += static_cast<std::ptrdiff_t>(b.size());
    }
    return true;
}

template <typename T>
void ChannelStorage<T>::dump(std::ostream& out, Quillon::String const& name,
                             Quillon::String const& target) const
{
    out << "Channel '" << name << "' -> '" << target << "' " << elementTypeName<T>() << " W "
        << mShape.width << " H " << mShape.halo << " depths [" << mMinDepth << ", " << mDepth
        << "] tiles " << tileCount(-1) << " elements " << elementCount(-1) << " initializer "
        << static_cast<int>(mInitializer) << '\n';
}

#define HEXMOLD_CHANNEL_STORAGE_INSTANTIATE(T) template class ChannelStorage<T>;
HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_CHANNEL_STORAGE_INSTANTIATE)

} // namespace TVL::TileTree3D::detail
