/// @file  substrate/channel_pool.cpp
/// @brief The memory pool's store and the memory reports.
#include <hexmold/substrate/channel_pool.h>

#include <atomic>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <typeindex>
#include <unistd.h>

namespace TVL::TileTree3D {

namespace {

struct Entry {
    std::type_index type;
    std::size_t bytes;
    std::shared_ptr<void> blocks;
};

struct Store {
    std::mutex mutex;
    std::deque<Entry> entries; ///< oldest first
    std::size_t held = 0;
    std::size_t capacity = std::size_t(1) << 30;
};

// Never destroyed: pooled channels may die during static destruction.
Store& store()
{
    static Store* s = new Store;
    return *s;
}

std::atomic<bool> gMemoryPoolEnabled{true};
std::atomic<bool> gChannelPoolEnabled{true};

/// Drops the oldest entries until @p extra more bytes fit; returns them for freeing outside the
/// lock.
std::vector<std::shared_ptr<void>> evictLocked(Store& s, std::size_t extra)
{
    std::vector<std::shared_ptr<void>> dropped;
    while (!s.entries.empty() && s.held + extra > s.capacity) {
        s.held -= s.entries.front().bytes;
        dropped.push_back(std::move(s.entries.front().blocks));
        s.entries.pop_front();
    }
    return dropped;
}

} // namespace

bool ChannelMemoryPool::enabled()
{
    return gMemoryPoolEnabled.load(std::memory_order_relaxed);
}
void ChannelMemoryPool::setEnabled(bool e)
{
    gMemoryPoolEnabled.store(e, std::memory_order_relaxed);
}

std::size_t ChannelMemoryPool::capacity()
{
    std::lock_guard<std::mutex> lock(store().mutex);
    return store().capacity;
}

void ChannelMemoryPool::setCapacity(std::size_t bytes)
{
    std::vector<std::shared_ptr<void>> dropped;
    {
        std::lock_guard<std::mutex> lock(store().mutex);
        store().capacity = bytes;
        dropped = evictLocked(store(), 0);
    }
}

std::size_t ChannelMemoryPool::heldBytes()
{
    std::lock_guard<std::mutex> lock(store().mutex);
    return store().held;
}

void ChannelMemoryPool::clear()
{
    std::deque<Entry> dropped;
    {
        std::lock_guard<std::mutex> lock(store().mutex);
        dropped.swap(store().entries);
        store().held = 0;
    }
}

void ChannelMemoryPool::giveErased(std::type_info const& type, std::size_t bytes,
                                   std::shared_ptr<void> blocks)
{
    if (!enabled())
        return; // the blocks die with the last reference, outside any lock
    std::vector<std::shared_ptr<void>> dropped;
    std::lock_guard<std::mutex> lock(store().mutex);
    Store& s = store();
    if (bytes > s.capacity)
        return;
    dropped = evictLocked(s, bytes);
    s.entries.push_back(Entry{std::type_index(type), bytes, std::move(blocks)});
    s.held += bytes;
}

std::shared_ptr<void> ChannelMemoryPool::takeErased(std::type_info const& type)
{
    if (!enabled())
        return nullptr;
    std::lock_guard<std::mutex> lock(store().mutex);
    Store& s = store();
    std::type_index const key(type);
    for (auto it = s.entries.rbegin(); it != s.entries.rend(); ++it) {
        if (it->type != key)
            continue;
        std::shared_ptr<void> p = std::move(it->blocks);
        s.held -= it->bytes;
        s.entries.erase(std::next(it).base());
        return p;
    }
    return nullptr;
}

bool ChannelPool::enabled()
{
    return gChannelPoolEnabled.load(std::memory_order_relaxed);
}
void ChannelPool::setEnabled(bool e)
{
    gChannelPoolEnabled.store(e, std::memory_order_relaxed);
}

std::uint64_t ChannelPool::availablePhysicalMemory()
{
    std::ifstream in("/proc/meminfo");
    std::string line;
    while (std::getline(in, line)) {
        // "MemAvailable:   12345678 kB"
        if (line.rfind("MemAvailable:", 0) == 0)
            return std::stoull(line.substr(13)) * 1024;
    }
    long const pages = sysconf(_SC_AVPHYS_PAGES);
    long const size = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || size <= 0)
        return 0;
    return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(size);
}

std::uint64_t ChannelPool::availableMemory()
{
    return availablePhysicalMemory() + ChannelMemoryPool::heldBytes();
}

} // namespace TVL::TileTree3D
