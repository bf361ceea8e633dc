// The hexmold program end to end: convert a plain OpenVDB level set to a volume file and back,
// info on it, voxelize a mesh file the test writes, and the exit code and one-line message of
// each error.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/substrate/container.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#if defined(HEXMOLD_TOOL) && HEXMOLD_HAVE_OPENVDB
#include <hexmold/api/create_level_set.h>
#include <openvdb/io/File.h>
#include <openvdb/openvdb.h>
#include <openvdb/tools/LevelSetSphere.h>
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#include <stb/stb_image.h>

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int code = -1;
    std::string out; ///< standard output and standard error together
};

Outcome run(std::string const& args)
{
    std::string const command = std::string(HEXMOLD_TOOL) + " " + args + " 2>&1";
    Outcome r;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe)
        return r;
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        r.out.append(buffer, n);
    int const status = ::pclose(pipe);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

class CommandLine : public ::testing::Test {
protected:
    void SetUp() override
    {
        mFolder = fs::temp_directory_path() / ("hexmold_cli_" + std::to_string(::getpid()));
        fs::create_directories(mFolder);
    }
    void TearDown() override { fs::remove_all(mFolder); }
    std::string path(char const* name) const { return (mFolder / name).string(); }

    fs::path mFolder;
};

TEST_F(CommandLine, ConvertsALevelSetToAVolumeAndBack)
{
    openvdb::initialize();
    auto sphere =
        openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(1.0f, openvdb::Vec3f(0), 0.1f);
    sphere->setName("ball");
    {
        openvdb::io::File file(path("sphere.vdb"));
        file.write({sphere});
        file.close();
    }
    Outcome const in =
        run("convert " + path("sphere.vdb") + " " + path("volume.vdb") + " --tree 55");
    ASSERT_EQ(in.code, 0) << in.out;
    auto const volume = hexmold::io::readVolume(path("volume.vdb"));
    bool found = false;
    for (auto const& name : volume->componentRange())
        found = found || volume->component<TVL::TileTree3D::Container<TVL::TileTree3D::Traits55>>(
                             name) != nullptr;
    EXPECT_TRUE(found);

    Outcome const info = run("--threads 1 info " + path("volume.vdb"));
    ASSERT_EQ(info.code, 0) << info.out;
    EXPECT_NE(info.out.find("Traits<5,5,1>"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("voxel_signed_distance"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("voxel hash"), std::string::npos) << info.out;

    Outcome const out =
        run("convert " + path("volume.vdb") + " " + path("back.vdb") + " --grid surface");
    ASSERT_EQ(out.code, 0) << out.out;
    openvdb::io::File back(path("back.vdb"));
    back.open();
    auto const grid = openvdb::gridPtrCast<openvdb::FloatGrid>(back.readGrid("surface"));
    ASSERT_TRUE(grid != nullptr);
    EXPECT_EQ(grid->getGridClass(), openvdb::GRID_LEVEL_SET);
    EXPECT_GT(grid->activeVoxelCount(), sphere->activeVoxelCount() / 2);
}

TEST_F(CommandLine, DemoStillRuns)
{
    Outcome const demo = run("--threads 2 demo 8");
    ASSERT_EQ(demo.code, 0) << demo.out;
    EXPECT_NE(demo.out.find("Traits<5,5,1>"), std::string::npos) << demo.out;
    Outcome const version = run("--version");
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out.rfind("Hexmold version", 0), 0u) << version.out;
}

TEST_F(CommandLine, ErrorsExitNonZeroWithOneLine)
{
    Outcome const missing = run("info " + path("missing.vdb"));
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.out, "hexmold: " + path("missing.vdb") + ": no such file\n");
    Outcome const noArgs = run("convert");
    EXPECT_EQ(noArgs.code, 2) << noArgs.out;
    Outcome const badTree = run("convert a.vdb b.vdb --tree 33");
    EXPECT_EQ(badTree.code, 2) << badTree.out;
    Outcome const none = run("");
    EXPECT_EQ(none.code, 2) << none.out;
    Outcome const help = run("info --help");
    EXPECT_EQ(help.code, 0);
    EXPECT_NE(help.out.find("FILE"), std::string::npos) << help.out;
}

/// An octahedron-like closed mesh written as OBJ: a cube of quads.
void writeCube(std::string const& file)
{
    FILE* f = std::fopen(file.c_str(), "w");
    std::fputs(
        "v -1 -1 -1\nv 1 -1 -1\nv 1 1 -1\nv -1 1 -1\nv -1 -1 1\nv 1 -1 1\nv 1 1 1\nv -1 1 1\n"
        "f 1 4 3 2\nf 5 6 7 8\nf 1 2 6 5\nf 2 3 7 6\nf 3 4 8 7\nf 4 1 5 8\n",
        f);
    std::fclose(f);
}

TEST_F(CommandLine, VoxelizesAMeshFileAndWritesTheVolume)
{
    writeCube(path("cube.obj"));
    Outcome const v =
        run("--threads 2 voxelize " + path("cube.obj") + " --resolution 32 -o " + path("cube.vdb") +
            " --level-set-grid " + path("cube_ls.vdb") + " --exact-error");
    ASSERT_EQ(v.code, 0) << v.out;
    for (char const* line : {"mesh: 8 points, 6 faces", "depth      tiles        voxels",
                             "finest voxels within 3 voxels", "memory:", "create_distance",
                             "voxel hash: ", "error against the exact distance"})
        EXPECT_NE(v.out.find(line), std::string::npos) << line << "\n" << v.out;
    auto const volume = hexmold::io::readVolume(path("cube.vdb"));
    EXPECT_TRUE(volume->component<TVL::TileTree3D::Container<TVL::TileTree3D::Traits24>>(
        "voxel_tile_tree"));
    openvdb::initialize();
    openvdb::io::File grid(path("cube_ls.vdb"));
    grid.open();
    EXPECT_FALSE(grid.getGrids()->empty());
    Outcome const info = run("info " + path("cube.vdb"));
    EXPECT_EQ(info.code, 0) << info.out;
    // 16-bit floats: a smaller file of the same tiles.
    Outcome const half =
        run("voxelize " + path("cube.obj") + " --resolution 32 --half -o " + path("cube_half.vdb"));
    ASSERT_EQ(half.code, 0) << half.out;
    EXPECT_LT(std::filesystem::file_size(path("cube_half.vdb")),
              std::filesystem::file_size(path("cube.vdb")));
    auto const halfVolume = hexmold::io::readVolume(path("cube_half.vdb"));
    using Tree24 = TVL::TileTree3D::Container<TVL::TileTree3D::Traits24>;
    EXPECT_EQ(halfVolume->component<Tree24>("voxel_tile_tree")->tileCount(-1),
              volume->component<Tree24>("voxel_tile_tree")->tileCount(-1));
    // The other tree, a shell, the sparse build.
    Outcome const shell = run("voxelize " + path("cube.obj") +
                              " --traits 55 --shell --thicken 1 --adaptivity sparse "
                              "--resolution 16 --threads 1");
    EXPECT_EQ(shell.code, 0) << shell.out;
    EXPECT_NE(shell.out.find("Traits<5,5,1>"), std::string::npos) << shell.out;
}

TEST_F(CommandLine, VoxelizeErrorsExitNonZeroWithOneLine)
{
    Outcome const missing = run("voxelize " + path("missing.obj"));
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.out, "hexmold: " + path("missing.obj") + ": no such file\n");
    {
        FILE* f = std::fopen(path("broken.obj").c_str(), "w");
        std::fputs("v 0 0 0\nv 1 0 0\nf 1 2 7\n", f);
        std::fclose(f);
    }
    Outcome const corrupt = run("voxelize " + path("broken.obj"));
    EXPECT_EQ(corrupt.code, 1) << corrupt.out;
    EXPECT_EQ(corrupt.out.rfind("hexmold: " + path("broken.obj"), 0), 0u) << corrupt.out;
    EXPECT_EQ(std::count(corrupt.out.begin(), corrupt.out.end(), '\n'), 1) << corrupt.out;
    writeCube(path("cube.obj"));
    Outcome const badOption = run("voxelize " + path("cube.obj") + " --traits 33");
    EXPECT_EQ(badOption.code, 2) << badOption.out;
    Outcome const both = run("voxelize " + path("cube.obj") + " --resolution 8 --voxel-size 0.1");
    EXPECT_EQ(both.code, 2) << both.out;
    Outcome const negative = run("voxelize " + path("cube.obj") + " --hole-radius -1");
    EXPECT_EQ(negative.code, 2) << negative.out;
    Outcome const help = run("voxelize --help");
    EXPECT_EQ(help.code, 0);
    EXPECT_NE(help.out.find("--resolution"), std::string::npos) << help.out;
}

/// A sphere of radius 1 around the origin, voxel 0.05, written as a volume file.
void writeSphere(std::string const& file)
{
    hexmold::LevelSetOptions o;
    o.voxelSize = 0.05;
    hexmold::io::writeVolume(file, hexmold::createLevelSetSphere({0.0, 0.0, 0.0}, 1.0, o).object());
}

struct Image {
    int w = 0, h = 0;
    std::vector<unsigned char> rgb;
    unsigned char const* at(int i, int j) const { return &rgb[(std::size_t(j) * w + i) * 3]; }
};

Image readPng(std::string const& file)
{
    Image im;
    int n = 0;
    unsigned char* data = stbi_load(file.c_str(), &im.w, &im.h, &n, 3);
    if (!data)
        return im;
    im.rgb.assign(data, data + std::size_t(im.w) * im.h * 3);
    stbi_image_free(data);
    return im;
}

TEST_F(CommandLine, SliceShowsInsideAndOutsideWhereTheExactDistanceSays)
{
    writeSphere(path("sphere.vdb"));
    Outcome const r =
        run("slice " + path("sphere.vdb") + " --axis z --at 0 --size 200 -o " + path("slice.png"));
    ASSERT_EQ(r.code, 0) << r.out;
    double x0 = 0, dx = 0, y0 = 0, dy = 0;
    int w = 0, h = 0;
    ASSERT_EQ(std::sscanf(r.out.c_str(),
                          "slice: z = %*g; pixel (i, j) has its centre at x = %lf + (i + 0.5) * "
                          "%lf, y = %lf - (j + 0.5) * "
                          "%lf; %d x %d pixels",
                          &x0, &dx, &y0, &dy, &w, &h),
              6)
        << r.out;
    Image const im = readPng(path("slice.png"));
    ASSERT_EQ(im.w, w);
    ASSERT_EQ(im.h, h);
    EXPECT_EQ(std::max(w, h), 200);
    int inside = 0, outside = 0, wrong = 0;
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
            double const x = x0 + (i + 0.5) * dx, y = y0 - (j + 0.5) * dy;
            double const d = std::sqrt(x * x + y * y) - 1.0;
            unsigned char const* c = im.at(i, j);
            if (d < -2.0 * dx)
                ++inside, wrong += !(c[2] > c[0]);
            if (d > 2.0 * dx)
                ++outside, wrong += !(c[0] > c[2]);
        }
    EXPECT_GT(inside, 1000);
    EXPECT_GT(outside, 1000);
    EXPECT_EQ(wrong, 0);
}

TEST_F(CommandLine, RenderOfASphereFillsTheAnalyticDisc)
{
    writeSphere(path("sphere.vdb"));
    Outcome const r = run("render " + path("sphere.vdb") +
                          " --size 128 --azimuth 40 --elevation 25 -o " + path("view.png"));
    ASSERT_EQ(r.code, 0) << r.out;
    double dir[3], c[3], half, px, half2, px2, right[3], up[3];
    int w = 0, h = 0;
    ASSERT_EQ(std::sscanf(r.out.c_str(),
                          "render: orthographic, view direction (%lf, %lf, %lf) towards the centre "
                          "(%lf, %lf, %lf); pixel "
                          "(i, j) is the ray through centre + (-%lf + (i + 0.5) * %lf) * right + "
                          "(%lf - (j + 0.5) * %lf) * "
                          "up; right (%lf, %lf, %lf), up (%lf, %lf, %lf); %d x %d pixels",
                          &dir[0], &dir[1], &dir[2], &c[0], &c[1], &c[2], &half, &px, &half2, &px2,
                          &right[0], &right[1], &right[2], &up[0], &up[1], &up[2], &w, &h),
              18)
        << r.out;
    Image const im = readPng(path("view.png"));
    ASSERT_EQ(im.w, 128);
    ASSERT_EQ(im.h, 128);
    int lit = 0, wrong = 0;
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
            double const x = -half + (i + 0.5) * px, y = half2 - (j + 0.5) * px2;
            double q[3];
            for (int k = 0; k < 3; ++k)
                q[k] = c[k] + x * right[k] + y * up[k];
            double const along = q[0] * dir[0] + q[1] * dir[1] + q[2] * dir[2];
            double rr = 0.0;
            for (int k = 0; k < 3; ++k)
                rr += (q[k] - along * dir[k]) * (q[k] - along * dir[k]);
            double const off = std::sqrt(rr) - 1.0; // distance of the ray from the silhouette
            bool const isLit = im.at(i, j)[0] != 40 || im.at(i, j)[1] != 40 || im.at(i, j)[2] != 40;
            lit += isLit;
            if (off < -px && !isLit)
                ++wrong;
            if (off > px && isLit)
                ++wrong;
        }
    EXPECT_GT(lit, 1000);
    EXPECT_EQ(wrong, 0) << "pixels more than one pixel off the analytic disc";
    Outcome const missing = run("render " + path("nothing.vdb") + " -o " + path("x.png"));
    EXPECT_EQ(missing.code, 1) << missing.out;
    Outcome const badAxis = run("slice " + path("sphere.vdb") + " --axis w -o " + path("x.png"));
    EXPECT_EQ(badAxis.code, 2) << badAxis.out;
}

} // namespace

#endif

TEST_F(CommandLine, PointsWritesTheVolumeOfACloudAndRefusesBadFiles)
{
    {
        std::FILE* f = std::fopen(path("cloud.xyz").c_str(), "w");
        ASSERT_TRUE(f);
        std::fprintf(f, "x y z r vx vy vz\n");
        for (int i = 0; i < 200; ++i) {
            double const a = 0.1 * i;
            std::fprintf(f, "%g %g %g %g %g %g %g\n", std::cos(a), std::sin(a), 0.01 * i, 0.05, 1.0,
                         0.0, double(i));
        }
        std::fclose(f);
    }
    Outcome const made =
        run("points " + path("cloud.xyz") + " --radius-property r --resolution 48 --properties v " +
            "--threads 2 -o " + path("cloud.vdb"));
    EXPECT_EQ(made.code, 0) << made.out;
    EXPECT_NE(made.out.find("points: 200"), std::string::npos) << made.out;
    EXPECT_NE(made.out.find("voxel_v (float3)"), std::string::npos) << made.out;
    EXPECT_NE(made.out.find("voxel hash: "), std::string::npos) << made.out;
    EXPECT_TRUE(fs::exists(path("cloud.vdb")));
    Outcome const both = run("points " + path("cloud.xyz") + " --radius 0.1 --radius-property r");
    EXPECT_EQ(both.code, 2) << both.out;
    Outcome const missing = run("points " + path("none.ply"));
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.out, "hexmold: " + path("none.ply") + ": does not exist\n");
    Outcome const noProperty =
        run("points " + path("cloud.xyz") + " --radius-property q --resolution 16");
    EXPECT_EQ(noProperty.code, 1);
    EXPECT_NE(noProperty.out.find("\"q\""), std::string::npos) << noProperty.out;
}
