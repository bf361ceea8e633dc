// Object fingerprints and their comparison: the records, the debug and error lines, the sharing
// rule (a shared component written in place is caught, a cloned one accepted), tolerance.
#include <gtest/gtest.h>

#include "support/linked.h"
#include "support/random_trees.h"
#include <bit>
#include <cmath>
#include <cstdint>
#include <hexmold/diagnostics/object_info.h>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/object.h>
#include <sstream>
#include <string>

using namespace TVL::TileTree3D;
using CoreGL::ComponentInfo;
using CoreGL::ObjectInfo;

namespace {

class LogLevels : public ::testing::Test {
protected:
    void TearDown() override
    {
        CoreGL::Logger::setVerboseLevel(CoreGL::Logger::kDefaultVerboseLevel);
        CoreGL::Logger::setErrorVerboseLevel(CoreGL::Logger::kDefaultErrorVerboseLevel);
        CoreGL::Logger::setDebugFileStream(nullptr);
    }
};

template <typename Tr> class ObjectInfoTest : public LogLevels {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ObjectInfoTest, TraitsTypes, TraitsNames);

/// An object with a random tree and two channels, "density" (float) and "velocity" (float3).
template <typename Tr> Quillon::Ptr<TVL::Object> volume()
{
    using Tavrel::Geometry::sVoxelComp;
    using Tavrel::Geometry::sVoxelTileTree;
    auto object = Command::createVoxelTVL<Tr>(sVoxelTileTree, sVoxelComp, 1.0f, kVoxelOffsetCenter);
    {
        TVL::ComponentGuard<Container<Tr>> tree(*object, sVoxelTileTree);
        TVL::ComponentGuard<VoxelTopology<Tr>> topology(*object, sVoxelComp);
        testtrees::growRandomTree(*tree, 61, 3, 50, Tr::kMaxDepth - 3, 0.3);
        topology->update(*tree);
    }
    auto const& topology = *object->template component<VoxelTopology<Tr>>(sVoxelComp);
    auto density = Command::createChannel<float, Tr::kRatio, Tr::kTileWidth, Tr::kTileWidth, 0>(
        "density", topology, *object, 0.0f, kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
    auto velocity = Command::createChannel<float3, Tr::kRatio, Tr::kTileWidth, Tr::kTileWidth, 0>(
        "velocity", topology, *object, float3{0, 0, 0}, kDataElementInitializerDefaultValue, 0,
        Tr::kMaxDepth);
    float n = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < density->tileCount(d); ++t) {
            for (auto& v : density->tileData(t, d))
                v = (n += 0.25f);
            for (auto& v : velocity->tileData(t, d))
                v = float3{n, -n, 1.0f};
        }
    return object;
}

ObjectInfo info(TVL::Object const& o)
{
    return CoreGL::computeObjectInfo(o, Tavrel::Geometry::sVoxelComp,
                                     Tavrel::Geometry::sVoxelTileTree);
}

/// verifyObjectInfo's result and what it wrote to the error stream.
std::pair<bool, std::string> verify(ObjectInfo const& before, ObjectInfo const& after)
{
    ::testing::internal::CaptureStderr();
    bool const ok = CoreGL::verifyObjectInfo(before, after);
    return {ok, ::testing::internal::GetCapturedStderr()};
}

} // namespace

TYPED_TEST(ObjectInfoTest, RecordsTheTreeTheTopologyAndEveryVoxelChannel)
{
    using Tr = TypeParam;
    using Tavrel::Geometry::sVoxelComp;
    using Tavrel::Geometry::sVoxelTileTree;
    auto object = volume<Tr>();
    ObjectInfo const fp = info(*object);
    ASSERT_EQ(fp.components.size(), 4u);
    EXPECT_EQ(fp.componentsUseCount, 1);

    auto const tree = object->template component<Container<Tr>>(sVoxelTileTree);
    ComponentInfo const& t = fp.components.at(sVoxelTileTree);
    EXPECT_EQ(std::bit_cast<std::int64_t>(t.hash), tree->tileCount(-1));
    EXPECT_EQ(t.size, std::uint64_t(tree->tileCount(-1)));
    EXPECT_EQ(t.useCount, 1u) << "held by the object alone";
    EXPECT_EQ(t.dataUseCount, 1u);
    EXPECT_EQ(t.component, static_cast<void const*>(tree.get()));
    EXPECT_EQ(t.firstElement, static_cast<void const*>(&tree->tile(0, 0)));

    auto const topology = object->component(sVoxelComp);
    ComponentInfo const& p = fp.components.at(sVoxelComp);
    EXPECT_EQ(std::bit_cast<std::int64_t>(p.hash), topology->tileCount(-1));
    EXPECT_EQ(p.size, topology->size());
    EXPECT_EQ(p.firstElement, nullptr);
    EXPECT_EQ(p.dataUseCount, p.useCount);

    auto const density = object->template component<VoxelChannel<Tr, float>>("density");
    ComponentInfo const& d = fp.components.at("density");
    EXPECT_EQ(d.hash, CoreGL::voxelHash(*tree, *density));
    EXPECT_EQ(d.size, density->size());
    EXPECT_EQ(d.useCount, 1u);
    EXPECT_EQ(d.dataUseCount, 1u);
    EXPECT_EQ(d.component, static_cast<void const*>(density.get()));
    EXPECT_EQ(d.firstElement, static_cast<void const*>(density->block(0, 0)->data()));
    EXPECT_TRUE(fp.components.count("velocity"));
}

TYPED_TEST(ObjectInfoTest, DebugLinesNameTheTreeTypesAndChannels)
{
    using Tr = TypeParam;
    auto object = volume<Tr>();
    std::ostringstream out;
    CoreGL::Logger::setDebugFileStream(&out);
    CoreGL::Logger::setVerboseLevel(3);
    info(*object);
    std::string const text = out.str();
    bool const is24 = std::is_same_v<Tr, Traits24>;
    EXPECT_NE(text.find("computeObjectInfo<2, 4, 1>\n"), std::string::npos) << text;
    EXPECT_NE(text.find("computeObjectInfo<5, 5, 1>\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Found no container with this type. Exiting.\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("found channel for 'density'\n"), std::string::npos) << text;
    EXPECT_NE(text.find("found channel for 'velocity'\n"), std::string::npos) << text;
    // The type found reports its channels after its own header.
    std::string const own = is24 ? "computeObjectInfo<2, 4, 1>" : "computeObjectInfo<5, 5, 1>";
    EXPECT_LT(text.find(own), text.find("found channel for 'density'"));
}

TEST_F(LogLevels, AnObjectWithoutTreeHasNoRecords)
{
    auto empty = TVL::createEmptyTVL();
    ::testing::internal::CaptureStderr();
    ObjectInfo const fp = info(*empty);
    std::string const err = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(fp.components.empty());
    EXPECT_EQ(err, "computeObjectInfoHelper.error: unable to compute info about object, it has an "
                   "unsupported traits type\n");
}

TYPED_TEST(ObjectInfoTest, AnUnchangedObjectVerifies)
{
    using Tr = TypeParam;
    auto object = volume<Tr>();
    ObjectInfo const a = info(*object);
    ObjectInfo const b = info(*object);
    std::ostringstream out;
    CoreGL::Logger::setDebugFileStream(&out);
    CoreGL::Logger::setVerboseLevel(3);
    auto const [ok, err] = verify(a, b);
    EXPECT_TRUE(ok);
    EXPECT_EQ(err, "");
    EXPECT_NE(out.str().find("verifyObjectInfo: component 'density' ok\n"), std::string::npos)
        << out.str();
}

TYPED_TEST(ObjectInfoTest, ASharedComponentWrittenInPlaceIsCaught)
{
    using Tr = TypeParam;
    auto object = volume<Tr>();
    TVL::Object const other = *object; // shares the component table: the data is shared
    ObjectInfo const before = info(*object);
    EXPECT_EQ(before.componentsUseCount, 2);
    // Written in place, bypassing extraction.
    auto const density = object->template component<VoxelChannel<Tr, float>>("density");
    density->tileData(0, 0)[0] += 1.0f;
    auto const [ok, err] = verify(before, info(*object));
    EXPECT_FALSE(ok);
    EXPECT_EQ(err, "verifyObjectInfo.error: ref count for component density before is larger than "
                   "one, but data was "
                   "not cloned\n");
    EXPECT_EQ(other.componentCount(), object->componentCount());
}

TYPED_TEST(ObjectInfoTest, ASharedComponentThatWasClonedIsAccepted)
{
    using Tr = TypeParam;
    auto object = volume<Tr>();
    TVL::Object const other = *object;
    ObjectInfo const before = info(*object);
    {
        TVL::ComponentGuard<VoxelChannel<Tr, float>> density(*object, "density"); // a private copy
        density->tileData(0, 0)[0] += 1.0f;
    }
    auto const [ok, err] = verify(before, info(*object));
    EXPECT_TRUE(ok);
    EXPECT_EQ(err, "");
    // The other object still sees the old data.
    ObjectInfo const untouched = info(other);
    EXPECT_EQ(untouched.components.at("density").hash, before.components.at("density").hash);
}

TYPED_TEST(ObjectInfoTest, AnUnsharedComponentMustBeWrittenInPlace)
{
    using Tr = TypeParam;
    auto object = volume<Tr>();
    ObjectInfo const before = info(*object);
    {
        TVL::ComponentGuard<VoxelChannel<Tr, float>> density(*object,
                                                             "density"); // the component itself
        density->tileData(0, 0)[0] += 1.0f;
    }
    auto const [ok, err] = verify(before, info(*object));
    EXPECT_TRUE(ok) << err;
    // Replaced by a copy although nobody else held it.
    ObjectInfo const again = info(*object);
    Quillon::Ptr<TVL::Component> copy;
    object->component("density")->copyTo(copy);
    auto* channel = static_cast<VoxelChannel<Tr, float>*>(copy.get());
    channel->tileData(0, 0)[0] += 1.0f;
    object->addComponent(copy);
    copy.reset();
    auto const [ok2, err2] = verify(again, info(*object));
    EXPECT_FALSE(ok2);
    EXPECT_EQ(err2, "verifyObjectInfo.error: ref count for component density before is one, but "
                    "data was cloned\n");
}

TEST_F(LogLevels, HashesAgreeWithinTheRoundingTolerance)
{
    auto record = [](double hash) {
        ComponentInfo r;
        r.hash = hash;
        r.size = 10;
        r.useCount = 1;
        r.dataUseCount = 1;
        r.component = &r;
        r.firstElement = nullptr;
        return r;
    };
    ObjectInfo a, b;
    a.componentsUseCount = b.componentsUseCount = 2; // shared: a change would be an error here
    a.components["c"] = record(1.0);
    b.components["c"] = record(1.0 + 2.220446049250313e-16);
    EXPECT_TRUE(verify(a, b).first) << "within one rounding unit of the sum";
    b.components["c"] = record(1.0 + 8 * 2.220446049250313e-16);
    b.components["c"].component = a.components["c"].component;
    b.components["c"].useCount = 2;
    a.components["c"].useCount = 2;
    EXPECT_FALSE(verify(a, b).first);
    // Zero against a denormal: below the smallest normal number.
    a.components["c"] = record(0.0);
    b.components["c"] = record(1e-310);
    EXPECT_TRUE(verify(a, b).first);
    // A size change is a change.
    b.components["c"] = record(0.0);
    b.components["c"].size = 11;
    b.components["c"].component = a.components["c"].component;
    a.components["c"].useCount = b.components["c"].useCount = 3;
    EXPECT_FALSE(verify(a, b).first);
}

TEST_F(LogLevels, AComponentMissingBeforeIsAWarningOnly)
{
    ObjectInfo a, b;
    b.components["new"] = ComponentInfo{};
    CoreGL::Logger::setErrorVerboseLevel(1);
    auto const quiet = verify(a, b);
    EXPECT_TRUE(quiet.first);
    EXPECT_EQ(quiet.second, "");
    CoreGL::Logger::setErrorVerboseLevel(2);
    auto const loud = verify(a, b);
    EXPECT_TRUE(loud.first);
    EXPECT_EQ(loud.second,
              "verifyObjectInfo.warning: Component new does not exist in objectInfo struct\n");
}

// A link-time check (support/linked.h): a missing instantiation fails the link.
TEST(ObjectInfoExports, BothFunctionsAreExported)
{
    testlinked::requireLinked(&CoreGL::computeObjectInfo, &CoreGL::verifyObjectInfo);
}
