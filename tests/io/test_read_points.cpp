// Tests of hexmold::io::readPoints: PLY (ASCII, both binary byte orders) and text clouds written
// here and read back with their properties, and one check per refused file.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <hexmold/io/read_points.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
namespace Geo = Tavrel::Geometry;
using Tavrel::Math::float3;
using Tavrel::Math::float4;

namespace {

/// A folder of its own for the files of one test.
class Folder {
public:
    Folder()
    {
        static int counter = 0;
        mPath = fs::temp_directory_path() / ("hexmold_read_points_" + std::to_string(::getpid()) +
                                             "_" + std::to_string(counter++));
        fs::create_directories(mPath);
    }
    ~Folder() { fs::remove_all(mPath); }
    fs::path file(std::string const& name, std::string const& content) const
    {
        fs::path const p = mPath / name;
        std::ofstream(p, std::ios::binary) << content;
        return p;
    }

private:
    fs::path mPath;
};

/// A cloud to write: positions, a radius, a velocity and a byte colour per point.
struct Points {
    std::vector<float3> p, v;
    std::vector<float> r;
    std::vector<std::uint8_t> rgb;
};

Points points(std::size_t n)
{
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    Points s;
    for (std::size_t i = 0; i < n; ++i) {
        s.p.push_back({u(rng), u(rng), u(rng)});
        s.v.push_back({u(rng), u(rng), u(rng)});
        s.r.push_back(0.5f + 0.1f * float(i));
        for (int c = 0; c < 3; ++c)
            s.rgb.push_back(std::uint8_t((i * 37 + c * 80) % 256));
    }
    return s;
}

std::string plyHeader(char const* format, std::size_t n)
{
    return std::string("ply\nformat ") + format +
           " 1.0\ncomment written by the test\nelement vertex " + std::to_string(n) +
           "\nproperty float x\nproperty float y\nproperty float z\nproperty float "
           "radius\nproperty float vx\n"
           "property float vy\nproperty float vz\nproperty uchar red\nproperty uchar "
           "green\nproperty uchar blue\n"
           "element face 0\nproperty list uchar int vertex_indices\nend_header\n";
}

template <typename T> void put(std::string& out, T value, bool big)
{
    char b[sizeof(T)];
    std::memcpy(b, &value, sizeof(T));
    if (big != (std::endian::native == std::endian::big))
        std::reverse(b, b + sizeof(T));
    out.append(b, sizeof(T));
}

std::string binaryPly(Points const& s, bool big)
{
    std::string out = plyHeader(big ? "binary_big_endian" : "binary_little_endian", s.p.size());
    for (std::size_t i = 0; i < s.p.size(); ++i) {
        for (int a = 0; a < 3; ++a)
            put(out, s.p[i][a], big);
        put(out, s.r[i], big);
        for (int a = 0; a < 3; ++a)
            put(out, s.v[i][a], big);
        for (int c = 0; c < 3; ++c)
            put(out, s.rgb[3 * i + std::size_t(c)], big);
    }
    return out;
}

std::string asciiPly(Points const& s)
{
    std::ostringstream out;
    out.precision(9);
    out << plyHeader("ascii", s.p.size());
    for (std::size_t i = 0; i < s.p.size(); ++i)
        out << s.p[i].x << ' ' << s.p[i].y << ' ' << s.p[i].z << ' ' << s.r[i] << ' ' << s.v[i].x
            << ' ' << s.v[i].y << ' ' << s.v[i].z << ' ' << int(s.rgb[3 * i]) << ' '
            << int(s.rgb[3 * i + 1]) << ' ' << int(s.rgb[3 * i + 2]) << '\n';
    return out.str();
}

void expectCloud(Tavrel::Object const& cloud, Points const& s, bool colours)
{
    auto const* p = Geo::getDataGeoPropertyValues<float3>(cloud, Geo::sPointPosition);
    auto const* r = Geo::getDataGeoPropertyValues<float>(cloud, "radius");
    auto const* v = Geo::getDataGeoPropertyValues<float3>(cloud, "v");
    ASSERT_TRUE(p && r && v);
    ASSERT_EQ(p->size(), s.p.size());
    for (std::size_t i = 0; i < s.p.size(); ++i) {
        for (int a = 0; a < 3; ++a) {
            EXPECT_EQ((*p)[i][a], s.p[i][a]);
            EXPECT_EQ((*v)[i][a], s.v[i][a]);
        }
        EXPECT_EQ((*r)[i], s.r[i]);
    }
    if (!colours)
        return;
    auto const* c = Geo::getDataGeoPropertyValues<float4>(cloud, "point_color");
    ASSERT_TRUE(c);
    for (std::size_t i = 0; i < s.p.size(); ++i) {
        for (int q = 0; q < 3; ++q)
            EXPECT_FLOAT_EQ((*c)[i][q], float(s.rgb[3 * i + std::size_t(q)]) / 255.0f);
        EXPECT_EQ((*c)[i][3], 1.0f);
    }
}

} // namespace

TEST(ReadPoints, PlyAsciiAndBinaryRoundTrip)
{
    Folder const f;
    Points const s = points(50);
    expectCloud(*hexmold::io::readPoints(f.file("a.ply", asciiPly(s))), s, true);
    expectCloud(*hexmold::io::readPoints(f.file("le.PLY", binaryPly(s, false))), s, true);
    expectCloud(*hexmold::io::readPoints(f.file("be.ply", binaryPly(s, true))), s, true);
}

TEST(ReadPoints, TextWithAndWithoutHeaderRoundTrip)
{
    Folder const f;
    Points const s = points(20);
    std::ostringstream plain, csv;
    plain.precision(9);
    csv.precision(9);
    csv << "x,y,z,radius,vx,vy,vz\n";
    for (std::size_t i = 0; i < s.p.size(); ++i) {
        plain << s.p[i].x << ' ' << s.p[i].y << '\t' << s.p[i].z << ' ' << s.r[i]
              << "  # a comment\n";
        csv << s.p[i].x << ',' << s.p[i].y << ',' << s.p[i].z << ',' << s.r[i] << ',' << s.v[i].x
            << ',' << s.v[i].y << ',' << s.v[i].z << '\n';
    }
    auto const a = hexmold::io::readPoints(f.file("p.xyz", "\n" + plain.str()));
    auto const* p = Geo::getDataGeoPropertyValues<float3>(*a, Geo::sPointPosition);
    auto const* r = Geo::getDataGeoPropertyValues<float>(*a, "radius");
    ASSERT_TRUE(p && r);
    ASSERT_EQ(p->size(), s.p.size());
    for (std::size_t i = 0; i < s.p.size(); ++i) {
        EXPECT_EQ((*p)[i].z, s.p[i].z);
        EXPECT_EQ((*r)[i], s.r[i]);
    }
    expectCloud(*hexmold::io::readPoints(f.file("p.csv", csv.str())), s, false);
}

TEST(ReadPoints, MalformedFilesAreRefusedWithTheirReason)
{
    Folder const f;
    Points const s = points(5);
    auto expectError = [](fs::path const& p, std::string const& fragment) {
        try {
            hexmold::io::readPoints(p);
            ADD_FAILURE() << p << " was read";
        } catch (hexmold::io::IoError const& e) {
            EXPECT_EQ(e.file(), p.string());
            EXPECT_NE(e.reason().find(fragment), std::string::npos) << e.what();
        }
    };
    std::string const binary = binaryPly(s, false);
    expectError(f.file("cut.ply", binary.substr(0, binary.size() - 7)), "truncated");
    expectError(f.file("noend.ply", "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\n"),
                "end_header");
    expectError(f.file("notply.ply", "plx\n"), "ply");
    expectError(
        f.file("badnum.ply",
               "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
               "property float z\nend_header\n1 2 zz\n"),
        "not a number");
    expectError(
        f.file(
            "list.ply",
            "ply\nformat ascii 1.0\nelement vertex 1\nproperty list uchar float x\nend_header\n"),
        "list");
    expectError(
        f.file("noz.ply",
               "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
               "end_header\n1 2\n"),
        "\"z\"");
    expectError(f.file("columns.xyz", "1 2 3\n4 5\n"), "line 2");
    expectError(f.file("word.csv", "x,y,z\n1,2,abc\n"), "not a number");
    expectError(f.file("empty.xyz", ""), "empty");
    expectError(f.file("header.csv", "x,y,z\n"), "no point");
    expectError(f.file("points.obj", "v 1 2 3\n"), "extension");
    expectError(f.file("nan.xyz", "1 2 nan\n"), "finite");
    expectError(fs::path("/nonexistent/hexmold/points.ply"), "does not exist");
}
