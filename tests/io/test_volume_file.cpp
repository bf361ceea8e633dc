// Tests of writeVolume / readVolume: lossless round trips of both trees with channels of all 18
// element types, files that OpenVDB itself opens, and every kind of bad file refused with a
// message naming the file, never a crash.
#if HEXMOLD_HAVE_OPENVDB
#include "fixtures/trees.h"
#include "support/random_trees.h"
#include "support/typed_traits.h"
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <hexmold/diagnostics/object_info.h>
#include <hexmold/io/detail/volume_checksum.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/type_lists.h>
#include <iostream>
#include <openvdb/io/File.h>
#include <openvdb/openvdb.h>
#include <openvdb/tools/LevelSetSphere.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace TVL::TileTree3D;
using hexmold::io::IoError;

constexpr char kTree[] = "tree";
constexpr char kTopology[] = "topology";

/// A folder of its own for each test, removed afterwards.
class TempFolder {
public:
    TempFolder()
    {
        auto const* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = std::string(info->test_suite_name()) + "_" + info->name();
        std::replace(name.begin(), name.end(), '/', '_');
        mPath =
            fs::temp_directory_path() / ("hexmold_io_" + std::to_string(::getpid()) + "_" + name);
        fs::remove_all(mPath);
        fs::create_directories(mPath);
    }
    ~TempFolder() { fs::remove_all(mPath); }
    fs::path operator/(char const* name) const { return mPath / name; }

private:
    fs::path mPath;
};

std::string readBytes(fs::path const& p)
{
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeBytes(fs::path const& p, std::string const& bytes)
{
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
}

/// The message of the IoError that @p fn throws, or "no IoError" / "other exception: ...".
std::string ioErrorOf(std::function<void()> const& fn)
{
    try {
        fn();
    } catch (IoError const& e) {
        return e.what();
    } catch (std::exception const& e) {
        return std::string("other exception: ") + e.what();
    }
    return "no IoError";
}

std::string readError(fs::path const& p)
{
    return ioErrorOf([&] { hexmold::io::readVolume(p); });
}

// ---- volumes ----------------------------------------------------------------------------------

template <typename T, typename = void> struct ScalarOf {
    using Type = T;
};
template <typename T> struct ScalarOf<T, std::void_t<typename T::ValueType>> {
    using Type = typename T::ValueType;
};

template <typename T> T randomElement(std::mt19937_64& rng, bool finite)
{
    T v{};
    if (!finite) {
        // Any bits, NaN payloads and infinities of floating-point components included.
        unsigned char bytes[sizeof(T)];
        for (auto& b : bytes)
            b = static_cast<unsigned char>(rng());
        std::memcpy(&v, bytes, sizeof(T));
        return v;
    }
    using S = typename ScalarOf<T>::Type;
    constexpr int K = Tavrel::Math::ComponentCount<T>::value;
    S c[K];
    for (auto& x : c) {
        if constexpr (std::is_floating_point_v<S>)
            x = S(std::uniform_real_distribution<double>(-100, 100)(rng));
        else
            x = static_cast<S>(rng());
    }
    std::memcpy(&v, c, sizeof(T));
    return v;
}

/// Adds a voxel channel of element type T named "c<n>": depth ranges and initialisers vary with
/// @p n; a third of the tiles keep the default value throughout.
template <typename Tr, typename T>
void addChannel(TVL::Object& object, VoxelTopology<Tr> const& topology, int n, bool finite)
{
    std::mt19937_64 rng(1000 + n);
    int const minDepth = n % 3 == 1 ? 3 : 0;
    int const depth = n % 3 == 2 ? Tr::kMaxDepth - 1 : Tr::kMaxDepth;
    auto const init =
        n % 4 == 3 ? kDataElementInitializerTemporary : kDataElementInitializerDefaultValue;
    T const def = randomElement<T>(rng, finite);
    auto channel = Quillon::makePtr<VoxelChannel<Tr, T>>("c" + std::to_string(n), &def, init, false,
                                                         n % 2 == 0, minDepth, depth);
    channel->setTargetName(topology.name());
    channel->update(topology);
    for (int d = minDepth; d <= depth; ++d)
        for (std::int64_t t = 0; t < channel->tileCount(d); ++t) {
            auto data = channel->tileData(t, d);
            bool const background = t % 3 == 1;
            for (int v = 0; v < Tr::kTileSize; ++v)
                data[v] = background ? def : randomElement<T>(rng, finite);
        }
    object.addComponent(channel);
}

/// A random adaptive tree (resolution jumps of any size, tiles in no particular order), its
/// topology and one channel of each of the 18 element types (with @p allTypes false, four of
/// them: int8, float2, float4x2 and int3, channels "c0", "c5", "c10" and "c15").
/// Every depth with tiles costs each channel a grid in the file, so the trees are kept small.
template <typename Tr>
Quillon::Ptr<TVL::Object> makeVolume(std::uint32_t seed, bool finite, VoxelOffsetType offset,
                                     bool allTypes = true)
{
    auto object = Command::createVoxelTVL<Tr>(kTree, kTopology, 0.0625f, offset);
    {
        auto tree = object->template extractComponent<Container<Tr>>(kTree);
        testtrees::growRandomTree<Tr>(*tree, seed, 6, 200, 2, 0.3);
        tree->setMaxRelativeRefinementError(0.125f);
        auto topology = object->template extractComponent<VoxelTopology<Tr>>(kTopology);
        topology->update(*tree);
        object->putComponent(std::move(topology));
        object->putComponent(std::move(tree));
    }
    auto topology = object->template component<VoxelTopology<Tr>>(kTopology);
    int n = 0;
#define HEXMOLD_TEST_ADD(TR, T)                                                                    \
    if (allTypes || n % 5 == 0)                                                                    \
        addChannel<Tr, T>(*object, *topology, n, finite);                                          \
    ++n;
    HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_TEST_ADD, Tr)
#undef HEXMOLD_TEST_ADD
    return object;
}

/// Counts the differences of two channels of type T: settings, and tiles whose blocks differ
/// in any bit.
template <typename Tr, typename T>
bool compareChannel(TVL::Object const& a, TVL::Object const& b, std::string const& name,
                    int& checked)
{
    auto ca = a.component<VoxelChannel<Tr, T>>(name);
    if (!ca)
        return false;
    ++checked;
    auto cb = b.component<VoxelChannel<Tr, T>>(name);
    EXPECT_TRUE(cb != nullptr) << name << " lost its element type";
    if (!cb)
        return true;
    T const da = ca->defaultValue(), db = cb->defaultValue();
    EXPECT_EQ(std::memcmp(&da, &db, sizeof(T)), 0) << name;
    EXPECT_EQ(ca->minDepth(), cb->minDepth()) << name;
    EXPECT_EQ(ca->depth(), cb->depth()) << name;
    EXPECT_EQ(ca->dataElementInitializerType(), cb->dataElementInitializerType()) << name;
    EXPECT_EQ(ca->callElementConstructor(), cb->callElementConstructor()) << name;
    EXPECT_EQ(ca->targetName(), cb->targetName()) << name;
    EXPECT_EQ(ca->size(), cb->size()) << name;
    long long differing = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        auto const& ba = ca->blocks(d);
        auto const& bb = cb->blocks(d);
        EXPECT_EQ(ba.size(), bb.size()) << name << " depth " << d;
        for (std::size_t t = 0; t < std::min(ba.size(), bb.size()); ++t)
            differing += ba[t].size() != bb[t].size() ||
                         std::memcmp(ba[t].data(), bb[t].data(), ba[t].size() * sizeof(T)) != 0;
    }
    EXPECT_EQ(differing, 0) << name << ": tiles whose bits differ";
    return true;
}

/// Expects @p b to be @p a: the same tree (tiles in the same order, same links), topology and
/// channels, bit for bit.
template <typename Tr> void expectSameVolume(TVL::Object const& a, TVL::Object const& b)
{
    EXPECT_EQ(a.componentRange(), b.componentRange());
    auto ta = a.component<Container<Tr>>(kTree);
    auto tb = b.component<Container<Tr>>(kTree);
    ASSERT_TRUE(ta != nullptr);
    ASSERT_TRUE(tb != nullptr);
    EXPECT_EQ(ta->voxelSize(), tb->voxelSize());
    EXPECT_EQ(ta->maxRelativeRefinementError(), tb->maxRelativeRefinementError());
    long long differing = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        ASSERT_EQ(ta->tileCount(d), tb->tileCount(d)) << "depth " << d;
        for (std::int64_t t = 0; t < ta->tileCount(d); ++t) {
            auto const& x = ta->tile(t, d);
            auto const& y = tb->tile(t, d);
            bool same = x.ti() == y.ti() && x.tj() == y.tj() && x.tk() == y.tk() &&
                        x.parent() == y.parent();
            for (int s = 0; s < Tr::kChildCount; ++s)
                same = same && x.childIndex(s) == y.childIndex(s);
            differing += !same;
        }
    }
    EXPECT_EQ(differing, 0) << "tiles that differ";
    auto pa = a.component<VoxelTopology<Tr>>(kTopology);
    auto pb = b.component<VoxelTopology<Tr>>(kTopology);
    ASSERT_TRUE(pb != nullptr);
    EXPECT_EQ(pa->offsetType(), pb->offsetType());
    EXPECT_EQ(pa->voxelSize(), pb->voxelSize());
    EXPECT_EQ(pa->targetName(), pb->targetName());
    int checked = 0;
    for (auto const& name : a.componentRange()) {
        if (name == kTree || name == kTopology)
            continue;
        bool found = false;
#define HEXMOLD_TEST_CMP(TR, T) found = found || compareChannel<Tr, T>(a, b, name, checked);
        HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_TEST_CMP, Tr)
#undef HEXMOLD_TEST_CMP
        EXPECT_TRUE(found) << name;
    }
    EXPECT_EQ(checked, int(a.componentRange().size()) - 2);
}

template <typename Tr> class VolumeFile : public ::testing::Test {
};
TYPED_TEST_SUITE(VolumeFile, testtraits::TraitsTypes, testtraits::TraitsNames);

TYPED_TEST(VolumeFile, AllElementTypesRoundTripBitForBit)
{
    using Tr = TypeParam;
    TempFolder folder;
    auto const volume = makeVolume<Tr>(7, /*finite=*/false, kVoxelOffsetFaceY);
    ASSERT_EQ(volume->componentRange().size(), 20u);
    fs::path const file = folder / "volume.vdb";
    hexmold::io::writeVolume(file, *volume);
    auto const back = hexmold::io::readVolume(file);
    ASSERT_TRUE(back != nullptr);
    expectSameVolume<Tr>(*volume, *back);
}

TYPED_TEST(VolumeFile, ObjectInfoAndVoxelHashesAreEqual)
{
    using Tr = TypeParam;
    TempFolder folder;
    auto const volume = makeVolume<Tr>(11, /*finite=*/true, kVoxelOffsetCenter);
    fs::path const file = folder / "volume.vdb";
    hexmold::io::writeVolume(file, *volume);
    auto const back = hexmold::io::readVolume(file);
    auto const before = CoreGL::computeObjectInfo(*volume, kTopology, kTree);
    auto const after = CoreGL::computeObjectInfo(*back, kTopology, kTree);
    ASSERT_EQ(before.components.size(), 20u);
    ASSERT_EQ(after.components.size(), before.components.size());
    for (auto const& [name, info] : before.components) {
        auto const it = after.components.find(name);
        ASSERT_NE(it, after.components.end()) << name;
        EXPECT_EQ(it->second.size, info.size) << name;
        // The hash is a parallel sum whose rounding may follow the split of the work.
        EXPECT_NEAR(it->second.hash, info.hash, 1e-12 * std::abs(info.hash)) << name;
    }
    EXPECT_TRUE(CoreGL::verifyObjectInfo(before, after));
}

TYPED_TEST(VolumeFile, TilesHoldingOnlyTheBackgroundRoundTrip)
{
    using Tr = TypeParam;
    TempFolder folder;
    // Tiles at several depths, one channel left at its default everywhere.
    auto object = Command::createVoxelTVL<Tr>(kTree, kTopology, 0.5f, kVoxelOffsetCenter);
    {
        auto tree = object->template extractComponent<Container<Tr>>(kTree);
        testtrees::growRandomTree<Tr>(*tree, 3, 6, 100, 1, 0.5);
        auto topology = object->template extractComponent<VoxelTopology<Tr>>(kTopology);
        topology->update(*tree);
        object->putComponent(std::move(topology));
        object->putComponent(std::move(tree));
    }
    float const background = 3.0f;
    Command::createChannel<float, Tr::kRatio, Tr::kTileWidth, Tr::kTileWidth, 0>(
        "distance", *object->template component<VoxelTopology<Tr>>(kTopology), *object, background,
        kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
    fs::path const file = folder / "background.vdb";
    hexmold::io::writeVolume(file, *object);
    auto const back = hexmold::io::readVolume(file);
    auto const a = object->template component<Container<Tr>>(kTree);
    auto const b = back->template component<Container<Tr>>(kTree);
    ASSERT_TRUE(b != nullptr);
    EXPECT_GT(a->tileCount(-1), 10);
    EXPECT_EQ(b->tileCount(-1), a->tileCount(-1));
    EXPECT_EQ(testtrees::tileSet<Tr>(*b), testtrees::tileSet<Tr>(*a));
    auto const channel = back->template component<VoxelChannel<Tr, float>>("distance");
    ASSERT_TRUE(channel != nullptr);
    EXPECT_EQ(channel->size(), b->voxelDataCount(-1));
}

TYPED_TEST(VolumeFile, EmptyTreeRoundTrips)
{
    using Tr = TypeParam;
    TempFolder folder;
    auto object = Command::createVoxelTVL<Tr>(kTree, kTopology, 0.25f, kVoxelOffsetCenter);
    fs::path const file = folder / "empty.vdb";
    hexmold::io::writeVolume(file, *object);
    EXPECT_TRUE(hexmold::io::isVolumeFile(file));
    EXPECT_FALSE(hexmold::io::isVolumeFile(folder / "absent.vdb"));
    auto const back = hexmold::io::readVolume(file);
    auto const tree = back->template component<Container<Tr>>(kTree);
    ASSERT_TRUE(tree != nullptr);
    EXPECT_EQ(tree->tileCount(-1), 0);
    EXPECT_EQ(tree->voxelSize(), 0.25f);
}

TYPED_TEST(VolumeFile, EveryCompressionRoundTrips)
{
    using Tr = TypeParam;
    TempFolder folder;
    auto const volume = makeVolume<Tr>(5, /*finite=*/false, kVoxelOffsetCorner, /*allTypes=*/false);
    for (auto c : {hexmold::io::VolumeCompression::kBlosc, hexmold::io::VolumeCompression::kZip,
                   hexmold::io::VolumeCompression::kNone}) {
        SCOPED_TRACE(int(c));
        fs::path const file = folder / "volume.vdb";
        hexmold::io::writeVolume(file, *volume, {c});
        expectSameVolume<Tr>(*volume, *hexmold::io::readVolume(file));
    }
}

/// Compares channel @p name of type T in two volumes: float-based channels within the 16-bit
/// rounding (relative 2^-11, or 2^-25 near zero where 16-bit floats are subnormal), all others
/// bit for bit; returns whether the channel is of type T.
template <typename Tr, typename T>
bool compareWithinHalf(TVL::Object const& a, TVL::Object const& b, std::string const& name,
                       double& worst)
{
    auto ca = a.component<VoxelChannel<Tr, T>>(name);
    if (!ca)
        return false;
    if constexpr (!std::is_same_v<typename ScalarOf<T>::Type, float>) {
        int checked = 0;
        compareChannel<Tr, T>(a, b, name, checked);
    } else {
        auto cb = b.component<VoxelChannel<Tr, T>>(name);
        EXPECT_TRUE(cb != nullptr) << name;
        if (!cb)
            return true;
        constexpr int K = Tavrel::Math::ComponentCount<T>::value;
        for (int d = ca->minDepth(); d <= ca->depth(); ++d)
            for (std::int64_t t = 0; t < ca->tileCount(d); ++t) {
                auto const x = ca->tileData(t, d);
                auto const y = cb->tileData(t, d);
                for (int v = 0; v < Tr::kTileSize; ++v) {
                    float p[K], q[K];
                    std::memcpy(p, &x[v], sizeof(T));
                    std::memcpy(q, &y[v], sizeof(T));
                    for (int c = 0; c < K; ++c) {
                        double const err = std::abs(double(p[c]) - double(q[c]));
                        double const bound =
                            std::ldexp(std::abs(double(p[c])), -11) + std::ldexp(1.0, -25);
                        worst = std::max(worst, err / bound);
                    }
                }
            }
    }
    return true;
}

TYPED_TEST(VolumeFile, HalfFloatsKeepTheValuesWithinTheirRoundingAndFarValuesExact)
{
    using Tr = TypeParam;
    TempFolder folder;
    auto volume = makeVolume<Tr>(13, /*finite=*/true, kVoxelOffsetCenter);
    auto const topology = volume->template component<VoxelTopology<Tr>>(kTopology);
    // A distance channel: small values near the surface, plus and minus a far default elsewhere.
    float const far = 8589934592.0f;
    auto distance = Quillon::makePtr<VoxelChannel<Tr, float>>(
        "distance", &far, kDataElementInitializerDefaultValue, false, false, 0, Tr::kMaxDepth);
    distance->setTargetName(topology->name());
    distance->update(*topology);
    // A channel with one large value that is not its default: its grids stay 32-bit.
    float const zero = 0.0f;
    auto large = Quillon::makePtr<VoxelChannel<Tr, float>>(
        "large", &zero, kDataElementInitializerDefaultValue, false, false, 0, Tr::kMaxDepth);
    large->setTargetName(topology->name());
    large->update(*topology);
    std::mt19937_64 rng(5);
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < distance->tileCount(d); ++t) {
            auto data = distance->tileData(t, d);
            auto big = large->tileData(t, d);
            for (int v = 0; v < Tr::kTileSize; ++v) {
                data[v] = t % 3 == 0 ? far : (t % 3 == 1 ? -far : u(rng) * 0.0625f);
                big[v] = u(rng) * 1e6f;
            }
        }
    volume->addComponent(distance);
    volume->addComponent(large);

    fs::path const exact = folder / "exact.vdb";
    fs::path const half = folder / "half.vdb";
    hexmold::io::VolumeWriteOptions options;
    options.compression = hexmold::io::VolumeCompression::kNone;
    hexmold::io::writeVolume(exact, *volume, options);
    options.halfFloats = true;
    hexmold::io::writeVolume(half, *volume, options);
    auto const back = hexmold::io::readVolume(half);
    ASSERT_TRUE(back != nullptr);
    EXPECT_EQ(testtrees::tileSet<Tr>(*back->template component<Container<Tr>>(kTree)),
              testtrees::tileSet<Tr>(*volume->template component<Container<Tr>>(kTree)));

    double worst = 0.0;
    for (auto const& name : volume->componentRange()) {
        if (name == kTree || name == kTopology)
            continue;
        bool found = false;
#define HEXMOLD_TEST_HALF(TR, T)                                                                   \
    found = found || compareWithinHalf<Tr, T>(*volume, *back, name, worst);
        HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_TEST_HALF, Tr)
#undef HEXMOLD_TEST_HALF
        EXPECT_TRUE(found) << name;
    }
    std::cout << "[ half ] " << fs::file_size(half) << " bytes against " << fs::file_size(exact)
              << " lossless; largest error " << worst << " of the 16-bit bound\n";
    EXPECT_LE(worst, 1.0);
    EXPECT_GT(worst, 0.0); // the float grids really were rounded
    // The far values exactly, and the channel beyond the 16-bit range bit for bit.
    auto const d = back->template component<VoxelChannel<Tr, float>>("distance");
    long long farWrong = 0, farCount = 0;
    for (int dd = 0; dd <= Tr::kMaxDepth; ++dd)
        for (std::int64_t t = 0; t < distance->tileCount(dd); ++t)
            for (int v = 0; v < Tr::kTileSize; ++v)
                if (std::abs(distance->tileData(t, dd)[v]) == far) {
                    ++farCount;
                    farWrong += d->tileData(t, dd)[v] != distance->tileData(t, dd)[v];
                }
    EXPECT_GT(farCount, 0);
    EXPECT_EQ(farWrong, 0);
    int checked = 0;
    compareChannel<Tr, float>(*volume, *back, "large", checked);
    EXPECT_EQ(checked, 1);

    // OpenVDB sees which grids are 16-bit: the distance's, not those of the large values.
    openvdb::initialize();
    openvdb::io::File vdb(half.string());
    ASSERT_NO_THROW(vdb.open());
    int halfGrids = 0, fullGrids = 0;
    for (auto name = vdb.beginName(); name != vdb.endName(); ++name) {
        auto const grid = vdb.readGridMetadata(name.gridName());
        bool const saved = grid->saveFloatAsHalf();
        if (name.gridName().rfind("distance.", 0) == 0)
            halfGrids += saved ? 1 : -1000;
        if (name.gridName().rfind("large.", 0) == 0)
            fullGrids += saved ? -1000 : 1;
    }
    vdb.close();
    EXPECT_GT(halfGrids, 0);
    EXPECT_GT(fullGrids, 0);
}

TYPED_TEST(VolumeFile, OpenVdbOpensTheFile)
{
    using Tr = TypeParam;
    TempFolder folder;
    auto const volume = makeVolume<Tr>(9, /*finite=*/true, kVoxelOffsetCenter);
    fs::path const file = folder / "volume.vdb";
    hexmold::io::writeVolume(file, *volume);

    openvdb::initialize();
    openvdb::io::File vdb(file.string());
    ASSERT_NO_THROW(vdb.open());
    auto const meta = vdb.getMetadata();
    ASSERT_TRUE(meta->template getMetadata<openvdb::Int32Metadata>("hexmold.format_version"));
    EXPECT_EQ(meta->template metaValue<openvdb::Int32>("hexmold.format_version"),
              hexmold::io::kVolumeFormatVersion);
    auto const tree = volume->template component<Container<Tr>>(kTree);
    int depth = Tr::kMaxDepth;
    while (tree->tileCount(depth) == 0)
        --depth;
    // Channel 6 is the float channel (the sixth element type of the list, counting from 0).
    auto const base = vdb.readGrid("c6.d" + std::to_string(depth));
    auto const grid = openvdb::gridPtrCast<openvdb::FloatGrid>(base);
    ASSERT_TRUE(grid != nullptr);
    EXPECT_EQ(grid->activeVoxelCount(), openvdb::Index64(tree->tileCount(depth) * Tr::kTileSize));
    EXPECT_NEAR(grid->voxelSize()[0], double(Tr::voxelDataWidth(depth)) * tree->voxelSize(), 1e-12);
    // A widened type names its original.
    auto const widened = vdb.readGrid("c0.d" + std::to_string(depth));
    ASSERT_TRUE(openvdb::gridPtrCast<openvdb::Int32Grid>(widened) != nullptr);
    EXPECT_EQ(widened->template metaValue<std::string>("hexmold.element_type"), "int8");
    // A float4x4 is six three-component grids per depth.
    EXPECT_TRUE(vdb.hasGrid("c15.d" + std::to_string(depth) + ".p5"));
    vdb.close();
}

// ---- refusals ---------------------------------------------------------------------------------

/// A small volume file: a few tiles, a float and an int3 channel.
fs::path writeSmallVolume(TempFolder const& folder)
{
    auto object = Command::createVoxelTVL<Traits24>(kTree, kTopology, 0.5f, kVoxelOffsetCenter);
    {
        auto tree = object->extractComponent<Container<Traits24>>(kTree);
        auto acc = tree->tileAccessor();
        acc.addTile(0, 0, 0, Traits24::kMaxDepth);
        acc.addTile(4, 0, 0, Traits24::kMaxDepth);
        acc.addTile(-64, 8, 0, Traits24::kMaxDepth - 2);
        auto topology = object->extractComponent<VoxelTopology<Traits24>>(kTopology);
        topology->update(*tree);
        object->putComponent(std::move(topology));
        object->putComponent(std::move(tree));
    }
    auto topology = object->component<VoxelTopology<Traits24>>(kTopology);
    addChannel<Traits24, float>(*object, *topology, 0, true);
    addChannel<Traits24, int3>(*object, *topology, 1, true);
    fs::path const file = folder / "small.vdb";
    hexmold::io::writeVolume(file, *object, {hexmold::io::VolumeCompression::kNone});
    return file;
}

/// Rewrites the volume file @p in as @p out after @p edit changed its metadata or grids, with
/// a valid checksum, so that the reader's checks behind the checksum are reached.
void doctor(fs::path const& in, fs::path const& out,
            std::function<void(openvdb::MetaMap&, openvdb::GridPtrVec&)> const& edit)
{
    openvdb::initialize();
    openvdb::io::File vdb(in.string());
    vdb.open();
    auto meta = vdb.getMetadata();
    auto grids = vdb.getGrids();
    vdb.close();
    edit(*meta, *grids);
    openvdb::io::File w(out.string());
    w.write(*grids, *meta);
    w.close();
    std::string bytes = readBytes(out);
    writeBytes(out, bytes + hexmold::io::detail::makeTrailer(bytes));
}

TEST(VolumeFileErrors, MissingFileNamesTheFile)
{
    std::string const message = readError("/nonexistent/folder/volume.vdb");
    EXPECT_NE(message.find("/nonexistent/folder/volume.vdb"), std::string::npos) << message;
    EXPECT_NE(message.find("no such file"), std::string::npos) << message;
}

TEST(VolumeFileErrors, FolderEmptyAndTextFilesAreRefused)
{
    TempFolder folder;
    EXPECT_NE(readError(folder / "").find("folder"), std::string::npos);
    writeBytes(folder / "empty.vdb", "");
    EXPECT_NE(readError(folder / "empty.vdb").find("is empty"), std::string::npos);
    writeBytes(folder / "text.vdb", "solid cube\nfacet normal 0 0 1\n");
    std::string const message = readError(folder / "text.vdb");
    EXPECT_NE(message.find("not an OpenVDB"), std::string::npos) << message;
    EXPECT_NE(message.find("text.vdb"), std::string::npos) << message;
}

TEST(VolumeFileErrors, PlainOpenVdbFileIsRefusedClearly)
{
    TempFolder folder;
    openvdb::initialize();
    auto sphere =
        openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(1.0f, openvdb::Vec3f(0), 0.1f);
    sphere->setName("sphere");
    openvdb::io::File vdb((folder / "sphere.vdb").string());
    vdb.write({sphere});
    vdb.close();
    EXPECT_FALSE(hexmold::io::isVolumeFile(folder / "sphere.vdb"));
    std::string const message = readError(folder / "sphere.vdb");
    EXPECT_NE(message.find("plain OpenVDB file"), std::string::npos) << message;
    EXPECT_NE(message.find("importLevelSet"), std::string::npos) << message;
    // With a valid trailer but no volume metadata it is refused as well.
    doctor(folder / "sphere.vdb", folder / "sphere_trailer.vdb",
           [](openvdb::MetaMap&, openvdb::GridPtrVec&) {});
    std::string const second = readError(folder / "sphere_trailer.vdb");
    EXPECT_NE(second.find("holds no Hexmold volume"), std::string::npos) << second;
}

TEST(VolumeFileErrors, EveryTruncationIsRefused)
{
    TempFolder folder;
    fs::path const file = writeSmallVolume(folder);
    std::string const bytes = readBytes(file);
    ASSERT_GT(bytes.size(), 200u);
    std::vector<std::size_t> lengths;
    for (std::size_t n = 0; n < 128; ++n)
        lengths.push_back(n);
    for (std::size_t n = 128; n < bytes.size() - 128; n += (bytes.size() - 256) / 64 + 1)
        lengths.push_back(n);
    for (std::size_t n = bytes.size() - 128; n < bytes.size(); ++n)
        lengths.push_back(n);
    fs::path const cut = folder / "cut.vdb";
    int refused = 0;
    for (std::size_t n : lengths) {
        writeBytes(cut, bytes.substr(0, n));
        std::string const message = readError(cut);
        bool const ok = message.rfind(cut.string() + ": ", 0) == 0;
        refused += ok;
        EXPECT_TRUE(ok) << "length " << n << ": " << message;
    }
    EXPECT_EQ(refused, int(lengths.size()));
    // A byte too many is damage too.
    writeBytes(cut, bytes + "x");
    EXPECT_NE(readError(cut).find("cut.vdb: "), std::string::npos);
}

TEST(VolumeFileErrors, RandomByteFlipsAreRefused)
{
    TempFolder folder;
    fs::path const file = writeSmallVolume(folder);
    std::string const bytes = readBytes(file);
    std::mt19937 rng(42);
    fs::path const bad = folder / "flipped.vdb";
    int refused = 0;
    constexpr int kFlips = 300;
    for (int n = 0; n < kFlips; ++n) {
        std::string b = bytes;
        std::size_t const at = rng() % b.size();
        b[at] = static_cast<char>(b[at] ^ (1 + rng() % 255));
        writeBytes(bad, b);
        std::string const message = readError(bad);
        bool const ok = message.rfind(bad.string() + ": ", 0) == 0;
        refused += ok;
        EXPECT_TRUE(ok) << "byte " << at << ": " << message;
    }
    EXPECT_EQ(refused, kFlips);
}

TEST(VolumeFileErrors, UnknownFormatVersionIsRefused)
{
    TempFolder folder;
    fs::path const file = writeSmallVolume(folder);
    doctor(file, folder / "v99.vdb", [](openvdb::MetaMap& meta, openvdb::GridPtrVec&) {
        meta.removeMeta("hexmold.format_version");
        meta.insertMeta("hexmold.format_version", openvdb::Int32Metadata(99));
    });
    std::string const message = readError(folder / "v99.vdb");
    EXPECT_NE(message.find("format version 99"), std::string::npos) << message;
}

TEST(VolumeFileErrors, MissingOrWrongMetadataIsRefused)
{
    TempFolder folder;
    fs::path const file = writeSmallVolume(folder);
    struct Case {
        char const* key;
        char const* expected;
    };
    for (Case c : {Case{"hexmold.voxel_size", "lacks the metadata 'hexmold.voxel_size'"},
                   Case{"hexmold.tile_counts", "lacks the metadata 'hexmold.tile_counts'"},
                   Case{"hexmold.channel.1.element_type",
                        "lacks the metadata 'hexmold.channel.1.element_type'"},
                   Case{"hexmold.traits", "lacks the metadata 'hexmold.traits'"}}) {
        doctor(file, folder / "bad.vdb",
               [&](openvdb::MetaMap& meta, openvdb::GridPtrVec&) { meta.removeMeta(c.key); });
        std::string const message = readError(folder / "bad.vdb");
        EXPECT_NE(message.find(c.expected), std::string::npos) << message;
    }
    doctor(file, folder / "bad.vdb", [](openvdb::MetaMap& meta, openvdb::GridPtrVec&) {
        meta.removeMeta("hexmold.traits");
        meta.insertMeta("hexmold.traits", openvdb::StringMetadata("3,3,1"));
    });
    EXPECT_NE(readError(folder / "bad.vdb").find("unknown tree instance '3,3,1'"),
              std::string::npos);
    doctor(file, folder / "bad.vdb", [](openvdb::MetaMap& meta, openvdb::GridPtrVec&) {
        meta.removeMeta("hexmold.channel.0.element_type");
        meta.insertMeta("hexmold.channel.0.element_type", openvdb::StringMetadata("float5"));
    });
    EXPECT_NE(readError(folder / "bad.vdb").find("unknown element type 'float5'"),
              std::string::npos);
    doctor(file, folder / "bad.vdb", [](openvdb::MetaMap& meta, openvdb::GridPtrVec&) {
        meta.removeMeta("hexmold.voxel_size");
        meta.insertMeta("hexmold.voxel_size", openvdb::StringMetadata("big"));
    });
    EXPECT_NE(readError(folder / "bad.vdb").find("'hexmold.voxel_size' is not a float"),
              std::string::npos);
}

TEST(VolumeFileErrors, MissingOrAlteredGridsAreRefused)
{
    TempFolder folder;
    fs::path const file = writeSmallVolume(folder);
    std::string const finest = std::to_string(Traits24::kMaxDepth);
    auto without = [&](std::string const& name) {
        doctor(file, folder / "bad.vdb", [&](openvdb::MetaMap&, openvdb::GridPtrVec& grids) {
            grids.erase(std::remove_if(grids.begin(), grids.end(),
                                       [&](auto const& g) { return g->getName() == name; }),
                        grids.end());
        });
        return readError(folder / "bad.vdb");
    };
    EXPECT_NE(without("c0.d" + finest).find("lacks the grid of channel 'c0' at depth " + finest),
              std::string::npos);
    EXPECT_NE(without("hexmold_tiles.d" + finest).find("lacks its tile layout of depth " + finest),
              std::string::npos);
    // A voxel switched off: the grid no longer holds exactly its depth's tile voxels.
    doctor(file, folder / "bad.vdb", [&](openvdb::MetaMap&, openvdb::GridPtrVec& grids) {
        for (auto& g : grids)
            if (g->getName() == "c0.d" + finest) {
                auto f = openvdb::gridPtrCast<openvdb::FloatGrid>(g);
                f->tree().setValueOff(f->cbeginValueOn().getCoord());
            }
    });
    std::string const message = readError(folder / "bad.vdb");
    EXPECT_NE(message.find("active voxels"), std::string::npos) << message;
    // A tile moved out of its parent.
    doctor(file, folder / "bad.vdb", [&](openvdb::MetaMap&, openvdb::GridPtrVec& grids) {
        for (auto& g : grids)
            if (g->getName() == "hexmold_tiles.d" + finest) {
                auto f = openvdb::gridPtrCast<openvdb::Int32Grid>(g);
                auto it = f->cbeginValueOn();
                openvdb::Coord const c = it.getCoord();
                int const v = *it;
                f->tree().setValueOff(c);
                f->tree().setValueOn(c.offsetBy(1000, 0, 0), v);
            }
    });
    std::string const moved = readError(folder / "bad.vdb");
    EXPECT_NE(moved.find("has no parent"), std::string::npos) << moved;
}

TEST(VolumeFileErrors, WritingRefusesWhatItCannotStore)
{
    TempFolder folder;
    fs::path const file = folder / "out.vdb";
    auto const none = TVL::createEmptyTVL();
    EXPECT_NE(ioErrorOf([&] { hexmold::io::writeVolume(file, *none); }).find("no tile tree"),
              std::string::npos);

    auto object = Command::createVoxelTVL<Traits24>(kTree, kTopology, 0.5f, kVoxelOffsetCenter);
    auto topology = object->component<VoxelTopology<Traits24>>(kTopology);
    float const zero = 0;
    auto halo = Quillon::makePtr<Channel<Traits24, float, 4, 1, 0>>(
        "halo", &zero, kDataElementInitializerDefaultValue, false, true, 0, Traits24::kMaxDepth);
    halo->setTargetName(kTopology);
    object->addComponent(halo);
    std::string const message = ioErrorOf([&] { hexmold::io::writeVolume(file, *object); });
    EXPECT_NE(message.find("'halo' cannot be stored"), std::string::npos) << message;
    EXPECT_FALSE(fs::exists(file));

    object->removeComponent("halo");
    std::string const unwritable =
        ioErrorOf([&] { hexmold::io::writeVolume("/nonexistent/folder/out.vdb", *object); });
    EXPECT_EQ(unwritable.rfind("/nonexistent/folder/out.vdb: cannot be written", 0), 0u)
        << unwritable;
}

TEST(VolumeFileErrors, AFailedWriteKeepsTheOldFile)
{
    TempFolder folder;
    fs::path const file = writeSmallVolume(folder);
    std::string const before = readBytes(file);
    auto const none = TVL::createEmptyTVL();
    EXPECT_THROW(hexmold::io::writeVolume(file, *none), IoError);
    EXPECT_EQ(readBytes(file), before);
    EXPECT_NO_THROW(hexmold::io::readVolume(file));
}

} // namespace

#else // no OpenVDB: the functions exist and say why they cannot work

#include <gtest/gtest.h>
#include <hexmold/io/volume_file.h>

TEST(VolumeFile, WithoutOpenVdbEveryFunctionThrowsIoError)
{
    EXPECT_FALSE(hexmold::io::volumeFilesAvailable());
    EXPECT_THROW(hexmold::io::readVolume("any.vdb"), hexmold::io::IoError);
    EXPECT_THROW(hexmold::io::writeVolume("any.vdb", *TVL::createEmptyTVL()), hexmold::io::IoError);
}

#endif // HEXMOLD_HAVE_OPENVDB
