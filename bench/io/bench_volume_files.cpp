// Volume files: a sphere level set 512 finest voxels across (radius 256, OpenVDB's band of 3
// voxels each side) imported into an adaptive volume of each tree, then written and read by
// writeVolume / readVolume (the whole volume, every depth, Blosc) and written as a plain level
// set by writeLevelSetGrid; against OpenVDB writing and reading its own FloatGrid of the same
// sphere with io::File (Blosc). Medians of interleaved repeats: MB on disk, seconds and MB/s
// (file size over time).
//   bench_io [radius-in-voxels (default 256)] [repeats (default 3)]
// With "armadillo" as the first argument the volume is armadillo.obj voxelized 512 across
// (hexmold::voxelizeMesh, each tree) against OpenVDB's meshToLevelSet grid of the same mesh and
// voxel size (half-width 3):
//   bench_io armadillo [repeats]
#include "bench/support/timing.h"
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <hexmold/io/level_set_grid.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <string>
#include <unistd.h>
#include <vector>

#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/api/voxelize_mesh.h>
#include <hexmold/io/read_mesh.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <openvdb/io/File.h>
#include <openvdb/openvdb.h>
#include <openvdb/tools/LevelSetSphere.h>
#include <openvdb/tools/MeshToVolume.h>
#endif

namespace {

using benchtiming::median;
using benchtiming::msSince;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double megabytes(fs::path const& p)
{
    return double(fs::file_size(p)) / (1024.0 * 1024.0);
}

void row(char const* what, double mb, double seconds)
{
    std::printf("  %-38s %9.2f MB %9.3f s %9.1f MB/s\n", what, mb, seconds, mb / seconds);
}

#if HEXMOLD_HAVE_OPENVDB
template <typename Traits>
void measure(TVL::Object const* volume, fs::path const& folder, openvdb::FloatGrid::Ptr const& grid,
             int repeats);

template <typename Traits>
void runTree(char const* label, hexmold::io::TreeKind kind, fs::path const& folder,
             fs::path const& sphere, openvdb::FloatGrid::Ptr const& grid, int repeats)
{
    auto const t0 = Clock::now();
    hexmold::io::ImportLevelSetOptions options;
    options.tree = kind;
    auto const volume = hexmold::io::importLevelSet(sphere, "sphere", options);
    double const importMs = msSince(t0);
    auto const tree =
        volume->template component<TVL::TileTree3D::Container<Traits>>("voxel_tile_tree");
    std::printf("%s: %lld tiles, %llu voxels (%lld deepest tiles); importLevelSet %.2f s\n", label,
                (long long)tree->tileCount(-1), (unsigned long long)tree->voxelDataCount(-1),
                (long long)tree->tileCount(Traits::kMaxDepth), importMs / 1000.0);
    measure<Traits>(volume.get(), folder, grid, repeats);
}

/// Writes and reads @p volume both ways and OpenVDB's @p grid with io::File, and prints the rows.
template <typename Traits>
void measure(TVL::Object const* volume, fs::path const& folder, openvdb::FloatGrid::Ptr const& grid,
             int repeats)
{
    fs::path const ours = folder / "volume.vdb", plain = folder / "levelset.vdb",
                   peer = folder / "peer.vdb";
    std::vector<double> writeOurs, readOurs, writePlain, writePeer, readPeer;
    for (int r = 0; r < repeats; ++r) {
        auto t = Clock::now();
        hexmold::io::writeVolume(ours, *volume);
        writeOurs.push_back(msSince(t));
        t = Clock::now();
        auto back = hexmold::io::readVolume(ours);
        readOurs.push_back(msSince(t));
        back.reset();
        t = Clock::now();
        hexmold::io::writeLevelSetGrid(plain, *volume, "voxel_signed_distance");
        writePlain.push_back(msSince(t));
        t = Clock::now();
        {
            openvdb::io::File file(peer.string());
            file.setCompression(openvdb::io::COMPRESS_BLOSC | openvdb::io::COMPRESS_ACTIVE_MASK);
            file.write({grid});
            file.close();
        }
        writePeer.push_back(msSince(t));
        t = Clock::now();
        {
            openvdb::io::File file(peer.string());
            file.open(/*delayLoad=*/false);
            auto g = file.readGrid(grid->getName());
            file.close();
        }
        readPeer.push_back(msSince(t));
    }
    double const mbOurs = megabytes(ours), mbPlain = megabytes(plain), mbPeer = megabytes(peer);
    row("writeVolume (all depths)", mbOurs, median(writeOurs) / 1000.0);
    row("readVolume (all depths)", mbOurs, median(readOurs) / 1000.0);
    row("writeLevelSetGrid (finest band)", mbPlain, median(writePlain) / 1000.0);
    row("OpenVDB io::File write, its FloatGrid", mbPeer, median(writePeer) / 1000.0);
    row("OpenVDB io::File read, its FloatGrid", mbPeer, median(readPeer) / 1000.0);
    for (auto [c, name] : {std::pair{hexmold::io::VolumeCompression::kZip, "zip"},
                           std::pair{hexmold::io::VolumeCompression::kNone, "no"}}) {
        fs::path const other = folder / "other.vdb";
        hexmold::io::writeVolume(other, *volume, {c});
        std::printf("  volume file with %s compression: %.2f MB\n", name, megabytes(other));
    }
    // 16-bit floats, both sides: ours through halfFloats, OpenVDB's grid saved as half.
    fs::path const half = folder / "half.vdb", peerHalf = folder / "peer_half.vdb";
    hexmold::io::VolumeWriteOptions halfOptions;
    halfOptions.halfFloats = true;
    hexmold::io::writeVolume(half, *volume, halfOptions);
    {
        auto copy = grid->deepCopy();
        copy->setSaveFloatAsHalf(true);
        openvdb::io::File file(peerHalf.string());
        file.setCompression(openvdb::io::COMPRESS_BLOSC | openvdb::io::COMPRESS_ACTIVE_MASK);
        file.write({copy});
        file.close();
    }
    double const mbHalf = megabytes(half), mbPeerHalf = megabytes(peerHalf);
    std::printf(
        "  volume file with 16-bit floats: %.2f MB; OpenVDB's grid with 16-bit floats: %.2f MB\n",
        mbHalf, mbPeerHalf);
    std::printf("  volume file / OpenVDB file: %.2f; level-set file / OpenVDB file: %.2f; 16-bit "
                "volume file / "
                "OpenVDB file: %.2f; both 16-bit: %.2f\n",
                mbOurs / mbPeer, mbPlain / mbPeer, mbHalf / mbPeer, mbHalf / mbPeerHalf);
    std::printf("  write time ours / OpenVDB: %.2f; read time ours / OpenVDB: %.2f\n\n",
                median(writeOurs) / median(writePeer), median(readOurs) / median(readPeer));
}
#endif

} // namespace

#if HEXMOLD_HAVE_OPENVDB
/// The armadillo voxelized 512 across by each tree, against OpenVDB's meshToLevelSet grid.
int runArmadillo(int repeats)
{
    namespace Geo = Tavrel::Geometry;
    std::string const path = std::string(HEXMOLD_DATA_DIR) + "/armadillo.obj";
    if (!fs::exists(path)) {
        std::printf("bench_io: %s is not there\n", path.c_str());
        return 0;
    }
    fs::path const folder =
        fs::temp_directory_path() / ("hexmold_bench_io_" + std::to_string(::getpid()));
    fs::create_directories(folder);
    openvdb::initialize();
    auto const mesh = hexmold::io::readMesh(path);
    auto const* positions =
        Geo::getDataGeoPropertyValues<Tavrel::Math::float3>(*mesh, Geo::sPointPosition);
    auto const* faceVertex = Geo::getMeshFaceVertices(*mesh);
    auto const* faceOffset = Geo::getMeshFaceOffsets(*mesh);
    float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
    std::vector<openvdb::Vec3s> points;
    std::vector<openvdb::Vec3I> triangles;
    for (auto const& p : *positions) {
        points.emplace_back(p.x, p.y, p.z);
        for (int a = 0; a < 3; ++a)
            lo[a] = std::min(lo[a], p[a]), hi[a] = std::max(hi[a], p[a]);
    }
    for (std::size_t f = 0; f + 1 < faceOffset->size(); ++f)
        for (unsigned k = (*faceOffset)[f] + 2; k < (*faceOffset)[f + 1]; ++k)
            triangles.emplace_back((*faceVertex)[(*faceOffset)[f]], (*faceVertex)[k - 1],
                                   (*faceVertex)[k]);
    double const h = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]}) / 512.0;
    auto grid = openvdb::tools::meshToLevelSet<openvdb::FloatGrid>(
        *openvdb::math::Transform::createLinearTransform(h), points, triangles, 3.0f);
    grid->setName("armadillo");
    std::printf("armadillo.obj, 512 across (voxel %g): OpenVDB meshToLevelSet band %llu active "
                "voxels, %d repeats\n\n",
                h, (unsigned long long)grid->activeVoxelCount(), repeats);
    for (auto kind : {hexmold::TraitsKind::kTraits24, hexmold::TraitsKind::kTraits55}) {
        hexmold::VoxelizeMeshOptions o;
        o.traits = kind;
        o.voxelSize = h;
        hexmold::Volume const v = hexmold::voxelizeMesh(*mesh, o);
        std::printf("%s, voxelizeMesh: %llu voxels\n", hexmold::traitsName(kind),
                    (unsigned long long)v.voxelCount());
        if (kind == hexmold::TraitsKind::kTraits24)
            measure<TVL::TileTree3D::Traits24>(&v.object(), folder, grid, repeats);
        else
            measure<TVL::TileTree3D::Traits55>(&v.object(), folder, grid, repeats);
    }
    fs::remove_all(folder);
    return 0;
}
#endif

int main(int argc, char** argv)
{
#if HEXMOLD_HAVE_OPENVDB
    if (argc > 1 && std::string(argv[1]) == "armadillo")
        return runArmadillo(argc > 2 ? std::max(1, std::atoi(argv[2])) : 3);
    float const radius = argc > 1 ? float(std::atof(argv[1])) : 256.0f;
    int const repeats = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
    if (!(radius >= 8 && radius <= 4096)) {
        std::fprintf(stderr, "usage: bench_io [radius-in-voxels 8..4096] [repeats]\n");
        return 2;
    }
    fs::path const folder =
        fs::temp_directory_path() / ("hexmold_bench_io_" + std::to_string(::getpid()));
    fs::create_directories(folder);
    openvdb::initialize();
    // The world radius is 1; voxels of 1 / radius.
    float const voxel = 1.0f / radius;
    auto grid = openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(
        1.0f, openvdb::Vec3f(0.013f, -0.021f, 0.007f), voxel);
    grid->setName("sphere");
    fs::path const sphere = folder / "sphere.vdb";
    {
        openvdb::io::File file(sphere.string());
        file.write({grid});
        file.close();
    }
    std::printf("sphere level set: radius %g voxels (%g across), OpenVDB band %llu active voxels, "
                "%d repeats\n\n",
                double(radius), 2.0 * radius, (unsigned long long)grid->activeVoxelCount(),
                repeats);
    runTree<TVL::TileTree3D::Traits24>("Traits<2,4,1>", hexmold::io::TreeKind::kTraits24, folder,
                                       sphere, grid, repeats);
    runTree<TVL::TileTree3D::Traits55>("Traits<5,5,1>", hexmold::io::TreeKind::kTraits55, folder,
                                       sphere, grid, repeats);
    fs::remove_all(folder);
    return 0;
#else
    std::printf("bench_io: this build has no OpenVDB\n");
    return 0;
#endif
}
