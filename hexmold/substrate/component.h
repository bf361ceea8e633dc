/// @file  substrate/component.h
/// @brief `TVL::Base` (a named thing) and `TVL::Component` (a named part of a volume object with
///        the common virtual interface of trees, topologies and channels).
#pragma once
#include <cstddef>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/tree_index.h>
#include <iosfwd>

namespace TVL {

/// Something with a name.
class HEXMOLD_API Base {
public:
    explicit Base(Quillon::String name = {}) : mName(std::move(name)) {}
    virtual ~Base();
    Quillon::String const& name() const { return mName; }
    void setName(Quillon::String name) { mName = std::move(name); }

private:
    Quillon::String mName;
};

/// A part of a volume object: the tile tree, a topology or a channel. A component may be bound
/// to another by name (`targetName`): channels target the topology, the topology targets the
/// tree, the tree targets nothing.
class HEXMOLD_API Component : public Base {
public:
    explicit Component(Quillon::String name = {}, Quillon::String target = {})
        : Base(std::move(name)), mTargetName(std::move(target))
    {
    }
    ~Component() override;

    /// Prints a description of the component.
    virtual void dump(std::ostream& out) const = 0;
    /// Bytes in use and bytes reserved (capacity) by the component's data.
    virtual void memUse(std::size_t& used, std::size_t& reserved, bool recursive) const = 0;
    /// Sets @p out to a new, independent copy of the component.
    virtual void copyTo(Quillon::Ptr<Component>& out) const = 0;
    /// Element count (tiles for a tree, data elements for a channel).
    virtual std::uint64_t size() const = 0;
    virtual bool empty() const = 0;
    /// Makes the component's per-tile state match @p topology (the component it is bound to).
    virtual void update(Component const& topology) = 0;
    /// Elements at @p depth; -1 means all depths.
    virtual std::uint64_t elementCount(int depth) const = 0;
    /// Elements of one tile.
    virtual std::uint64_t elementCount(TileTree3D::TreeIndex const& tile) const = 0;
    /// Tiles at @p depth; -1 means all depths.
    virtual std::int64_t tileCount(int depth) const = 0;
    /// Shallowest depth with data.
    virtual int minDepth() const = 0;

    Quillon::String const& targetName() const { return mTargetName; }
    void setTargetName(Quillon::String target) { mTargetName = std::move(target); }

private:
    Quillon::String mTargetName;
};

} // namespace TVL
