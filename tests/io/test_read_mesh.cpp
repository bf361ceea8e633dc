// Tests of hexmold::io::readMesh: each format written here by hand and read back (positions,
// polygons, joined points, attributes), node transforms, and one test per refused file.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <hexmold/io/read_mesh.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <initializer_list>
#include <limits>
#include <map>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using hexmold::io::IoError;
using hexmold::io::readMesh;
using hexmold::io::sPointColor;
using hexmold::io::sPointNormal;
using hexmold::io::sPointUv;
using namespace Tavrel::Geometry;
using Tavrel::Object;
using Tavrel::Math::float2;
using Tavrel::Math::float3;
using Tavrel::Math::float4;
namespace fs = std::filesystem;

namespace {

/// Rotations and the colour scale go through single-precision products: a few ulps.
constexpr float kTransformTol = 1e-6f;

// ---- files -------------------------------------------------------------------------------------

/// A folder of its own for each test, removed afterwards.
class ReadMesh : public ::testing::Test {
protected:
    void SetUp() override
    {
        auto const* info = ::testing::UnitTest::GetInstance()->current_test_info();
        mFolder = fs::temp_directory_path() /
                  ("hexmold_io_" + std::to_string(::getpid()) + "_" + info->name());
        fs::remove_all(mFolder);
        fs::create_directories(mFolder);
    }
    void TearDown() override { fs::remove_all(mFolder); }

    fs::path write(std::string const& name, std::string const& bytes) const
    {
        fs::path const path = mFolder / name;
        std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
        return path;
    }
    fs::path path(std::string const& name) const { return mFolder / name; }

private:
    fs::path mFolder;
};

static_assert(std::endian::native == std::endian::little, "the binary writers below assume it");

template <typename T> void append(std::string& io_bytes, T value, bool bigEndian = false)
{
    char raw[sizeof(T)];
    std::memcpy(raw, &value, sizeof(T));
    if (bigEndian)
        std::reverse(raw, raw + sizeof(T));
    io_bytes.append(raw, sizeof(T));
}

std::string base64(std::string const& bytes)
{
    static char const* const kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        std::uint32_t group = std::uint32_t(std::uint8_t(bytes[i])) << 16;
        if (i + 1 < bytes.size())
            group |= std::uint32_t(std::uint8_t(bytes[i + 1])) << 8;
        if (i + 2 < bytes.size())
            group |= std::uint32_t(std::uint8_t(bytes[i + 2]));
        out += kDigits[(group >> 18) & 63];
        out += kDigits[(group >> 12) & 63];
        out += i + 1 < bytes.size() ? kDigits[(group >> 6) & 63] : '=';
        out += i + 2 < bytes.size() ? kDigits[group & 63] : '=';
    }
    return out;
}

// ---- the meshes written ------------------------------------------------------------------------

/// A unit square (a quad) and a triangle on its right edge, in z = 0; the PLY and OFF files.
std::vector<float3> const kQuadAndTrianglePoints{
    {0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {2, 0, 0}};
std::vector<unsigned> const kQuadAndTriangleFaceVertex{0, 1, 2, 3, 1, 4, 2};
std::vector<unsigned> const kQuadAndTriangleFaceOffset{0, 4, 7};
/// Colours of the PLY files as bytes, and their texture coordinates.
std::array<std::array<int, 4>, 5> const kPlyColorBytes{
    {{255, 0, 0, 255}, {0, 255, 0, 255}, {0, 0, 255, 255}, {255, 255, 255, 128}, {0, 0, 0, 255}}};
std::vector<float2> const kPlyUvs{{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0.5f, 0.5f}};

std::string plyHeader(char const* format)
{
    return std::string("ply\nformat ") + format +
           " 1.0\ncomment written by the io tests\nelement vertex 5\n"
           "property float x\nproperty float y\nproperty float z\n"
           "property float nx\nproperty float ny\nproperty float nz\n"
           "property uchar red\nproperty uchar green\nproperty uchar blue\nproperty uchar alpha\n"
           "property float s\nproperty float t\n"
           "element face 2\nproperty list uchar int vertex_indices\nend_header\n";
}

std::string asciiPly()
{
    std::string ply = plyHeader("ascii");
    for (int v = 0; v < 5; ++v) {
        auto const& p = kQuadAndTrianglePoints[v];
        auto const& c = kPlyColorBytes[v];
        ply += std::to_string(p.x) + " " + std::to_string(p.y) + " " + std::to_string(p.z) +
               " 0 0 1 " + std::to_string(c[0]) + " " + std::to_string(c[1]) + " " +
               std::to_string(c[2]) + " " + std::to_string(c[3]) + " " +
               std::to_string(kPlyUvs[v].x) + " " + std::to_string(kPlyUvs[v].y) + "\n";
    }
    return ply + "4 0 1 2 3\n3 1 4 2\n";
}

std::string binaryPly(bool bigEndian)
{
    std::string ply = plyHeader(bigEndian ? "binary_big_endian" : "binary_little_endian");
    for (int v = 0; v < 5; ++v) {
        auto const& p = kQuadAndTrianglePoints[v];
        for (float x : {p.x, p.y, p.z, 0.0f, 0.0f, 1.0f})
            append(ply, x, bigEndian);
        for (int c : kPlyColorBytes[v])
            append(ply, std::uint8_t(c));
        append(ply, kPlyUvs[v].x, bigEndian);
        append(ply, kPlyUvs[v].y, bigEndian);
    }
    append(ply, std::uint8_t(4));
    for (std::int32_t i : {0, 1, 2, 3})
        append(ply, i, bigEndian);
    append(ply, std::uint8_t(3));
    for (std::int32_t i : {1, 4, 2})
        append(ply, i, bigEndian);
    return ply;
}

std::string const kOff = "OFF\n# a quad and a triangle\n5 2 0\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n"
                         "2 0 0\n4 0 1 2 3\n3 1 4 2\n";

/// The twelve triangles of the unit cube, outward, as corner positions.
std::vector<std::array<float3, 3>> cubeTriangles()
{
    float3 const c[8] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                         {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
    int const quads[6][4] = {{0, 3, 2, 1}, {4, 5, 6, 7}, {0, 1, 5, 4},
                             {1, 2, 6, 5}, {2, 3, 7, 6}, {3, 0, 4, 7}};
    std::vector<std::array<float3, 3>> triangles;
    for (auto const& q : quads) {
        triangles.push_back({c[q[0]], c[q[1]], c[q[2]]});
        triangles.push_back({c[q[0]], c[q[2]], c[q[3]]});
    }
    return triangles;
}

float3 facetNormal(std::array<float3, 3> const& t)
{
    float3 const u{t[1].x - t[0].x, t[1].y - t[0].y, t[1].z - t[0].z};
    float3 const v{t[2].x - t[0].x, t[2].y - t[0].y, t[2].z - t[0].z};
    return {u.y * v.z - u.z * v.y, u.z * v.x - u.x * v.z, u.x * v.y - u.y * v.x};
}

std::string asciiStl(std::vector<std::array<float3, 3>> const& triangles)
{
    std::string stl = "solid cube\n";
    for (auto const& t : triangles) {
        float3 const n = facetNormal(t);
        stl += " facet normal " + std::to_string(n.x) + " " + std::to_string(n.y) + " " +
               std::to_string(n.z) + "\n  outer loop\n";
        for (auto const& p : t)
            stl += "   vertex " + std::to_string(p.x) + " " + std::to_string(p.y) + " " +
                   std::to_string(p.z) + "\n";
        stl += "  endloop\n endfacet\n";
    }
    return stl + "endsolid cube\n";
}

std::string binaryStl(std::vector<std::array<float3, 3>> const& triangles,
                      std::string const& header = "binary cube")
{
    std::string stl = header;
    stl.resize(80, '\0');
    append(stl, std::uint32_t(triangles.size()));
    for (auto const& t : triangles) {
        float3 const n = facetNormal(t);
        for (float x : {n.x, n.y, n.z})
            append(stl, x);
        for (auto const& p : t)
            for (float x : {p.x, p.y, p.z})
                append(stl, x);
        append(stl, std::uint16_t(0));
    }
    return stl;
}

/// The buffer of the glTF files: a unit square of four points in z = 0 (normals, texture
/// coordinates, RGBA colours) as two triangles.
std::string gltfBuffer()
{
    std::string bytes;
    for (float x : {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0})
        append(bytes, x); // POSITION, 48 bytes
    for (int i = 0; i < 4; ++i)
        for (float x : {0, 0, 1})
            append(bytes, x); // NORMAL, 48 bytes
    for (float x : {0, 0, 1, 0, 1, 1, 0, 1})
        append(bytes, x); // TEXCOORD_0, 32 bytes
    for (float x :
         {1.f, 0.f, 0.f, 1.f, 0.f, 1.f, 0.f, 1.f, 0.f, 0.f, 1.f, 1.f, 1.f, 1.f, 1.f, 0.5f})
        append(bytes, x); // COLOR_0, 64 bytes
    for (std::uint32_t i : {0, 1, 2, 0, 2, 3})
        append(bytes, i); // indices, 24 bytes
    return bytes;
}

/// glTF JSON over gltfBuffer(); @p uri empty for the GLB binary chunk.
std::string gltfJson(std::string const& uri, std::string const& nodes, int mode = 4)
{
    std::string const buffer =
        "{\"byteLength\":216" + (uri.empty() ? "" : ",\"uri\":\"" + uri + "\"") + "}";
    std::string nodeList;
    int const nodeCount = int(std::count(nodes.begin(), nodes.end(), '{')); // one brace a node
    for (int n = 0; n < nodeCount; ++n)
        nodeList += (n ? "," : "") + std::to_string(n);
    return "{\"asset\":{\"version\":\"2.0\"},\"scene\":0,\"scenes\":[{\"nodes\":[" + nodeList +
           "]}],\"nodes\":[" + nodes +
           "],\"meshes\":[{\"primitives\":[{\"attributes\":{\"POSITION\":0,\"NORMAL\":1,"
           "\"TEXCOORD_0\":2,\"COLOR_0\":3},\"indices\":4,\"mode\":" +
           std::to_string(mode) + "}]}],\"buffers\":[" + buffer +
           "],\"bufferViews\":["
           "{\"buffer\":0,\"byteOffset\":0,\"byteLength\":48},"
           "{\"buffer\":0,\"byteOffset\":48,\"byteLength\":48},"
           "{\"buffer\":0,\"byteOffset\":96,\"byteLength\":32},"
           "{\"buffer\":0,\"byteOffset\":128,\"byteLength\":64},"
           "{\"buffer\":0,\"byteOffset\":192,\"byteLength\":24}],\"accessors\":["
           "{\"bufferView\":0,\"componentType\":5126,\"count\":4,\"type\":\"VEC3\","
           "\"min\":[0,0,0],\"max\":[1,1,0]},"
           "{\"bufferView\":1,\"componentType\":5126,\"count\":4,\"type\":\"VEC3\"},"
           "{\"bufferView\":2,\"componentType\":5126,\"count\":4,\"type\":\"VEC2\"},"
           "{\"bufferView\":3,\"componentType\":5126,\"count\":4,\"type\":\"VEC4\"},"
           "{\"bufferView\":4,\"componentType\":5125,\"count\":6,\"type\":\"SCALAR\"}]}";
}

std::string embeddedGltf(std::string const& nodes, int mode = 4)
{
    return gltfJson("data:application/octet-stream;base64," + base64(gltfBuffer()), nodes, mode);
}

std::string glb(std::string const& nodes)
{
    std::string json = gltfJson("", nodes);
    json.resize((json.size() + 3) / 4 * 4, ' ');
    std::string bin = gltfBuffer();
    bin.resize((bin.size() + 3) / 4 * 4, '\0');
    std::string out = "glTF";
    append(out, std::uint32_t(2));
    append(out, std::uint32_t(12 + 8 + json.size() + 8 + bin.size()));
    append(out, std::uint32_t(json.size()));
    out += "JSON" + json;
    append(out, std::uint32_t(bin.size()));
    out += std::string("BIN\0", 4) + bin;
    return out;
}

// ---- reading the result ------------------------------------------------------------------------

std::vector<float3> positionsOf(Object const& mesh)
{
    auto const* values = getDataGeoPropertyValues<float3>(mesh, sPointPosition);
    return values ? *values : std::vector<float3>{};
}
std::vector<unsigned> faceVertexOf(Object const& mesh)
{
    auto const* values = getMeshFaceVertices(mesh);
    return values ? *values : std::vector<unsigned>{};
}
std::vector<unsigned> faceOffsetOf(Object const& mesh)
{
    auto const* values = getMeshFaceOffsets(mesh);
    return values ? *values : std::vector<unsigned>{};
}

/// Number of edges not shared by exactly two faces, with each shared edge walked in opposite
/// directions by its two faces (0 for a closed, consistently oriented surface).
std::size_t openOrMisorientedEdges(Object const& mesh)
{
    std::map<std::pair<unsigned, unsigned>, int> directed;
    auto const faceVertex = faceVertexOf(mesh);
    auto const faceOffset = faceOffsetOf(mesh);
    for (std::size_t f = 0; f + 1 < faceOffset.size(); ++f)
        for (unsigned c = faceOffset[f]; c < faceOffset[f + 1]; ++c) {
            unsigned const next = c + 1 < faceOffset[f + 1] ? c + 1 : faceOffset[f];
            ++directed[{faceVertex[c], faceVertex[next]}];
        }
    std::size_t bad = 0;
    for (auto const& [edge, count] : directed) {
        auto const reverse = directed.find({edge.second, edge.first});
        if (count != 1 || reverse == directed.end() || reverse->second != 1)
            ++bad;
    }
    return bad;
}

void expectPoints(std::vector<float3> const& actual, std::vector<float3> const& expected,
                  float tol = 0.0f)
{
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i)
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(actual[i][k], expected[i][k], tol) << "point " << i;
}

template <typename T>
void expectValues(Object const& mesh, std::string const& name, std::vector<T> const& expected,
                  float tol = 0.0f)
{
    auto const* values = getDataGeoPropertyValues<T>(mesh, name);
    ASSERT_NE(values, nullptr) << name;
    EXPECT_EQ(getDataGeoPropertyTarget(mesh, name), sPointComp);
    ASSERT_EQ(values->size(), expected.size()) << name;
    for (std::size_t i = 0; i < expected.size(); ++i)
        for (int k = 0; k < T::kSize; ++k)
            EXPECT_NEAR((*values)[i][k], expected[i][k], tol) << name << " of point " << i;
}

std::vector<float4> plyColors()
{
    std::vector<float4> colors;
    for (auto const& c : kPlyColorBytes)
        colors.push_back({c[0] / 255.0f, c[1] / 255.0f, c[2] / 255.0f, c[3] / 255.0f});
    return colors;
}

void expectQuadAndTriangle(Object const& mesh)
{
    expectPoints(positionsOf(mesh), kQuadAndTrianglePoints);
    EXPECT_EQ(faceVertexOf(mesh), kQuadAndTriangleFaceVertex);
    EXPECT_EQ(faceOffsetOf(mesh), kQuadAndTriangleFaceOffset);
}

void expectPlyContent(Object const& mesh)
{
    expectQuadAndTriangle(mesh);
    expectValues(mesh, sPointNormal, std::vector<float3>(5, float3{0, 0, 1}));
    expectValues(mesh, sPointColor, plyColors(), kTransformTol);
    expectValues(mesh, sPointUv, kPlyUvs);
}

/// Reads @p path expecting an IoError whose message names the file and has every part of
/// @p reasons.
void expectIoError(fs::path const& path, std::initializer_list<char const*> reasons)
{
    try {
        readMesh(path);
        ADD_FAILURE() << "no error for " << path;
    } catch (IoError const& e) {
        std::string const message = e.what();
        EXPECT_EQ(e.file(), path.string());
        EXPECT_NE(message.find(path.string()), std::string::npos) << message;
        for (char const* reason : reasons) {
            EXPECT_NE(message.find(reason), std::string::npos)
                << "'" << reason << "' not in: " << message;
            EXPECT_NE(e.reason().find(reason), std::string::npos) << e.reason();
        }
    } catch (std::exception const& e) {
        ADD_FAILURE() << "not an IoError: " << e.what();
    }
}

fs::path dataFile(char const* name)
{
    char const* fromEnvironment = std::getenv("HEXMOLD_DATA_DIR");
    return fs::path(fromEnvironment ? fromEnvironment : HEXMOLD_DATA_DIR) / name;
}

} // namespace

// ---- formats
// ---------------------------------------------------------------------------------------

TEST_F(ReadMesh, PropertyNamesHaveTheirValues)
{
    EXPECT_EQ(sPointNormal, "point_normal");
    EXPECT_EQ(sPointColor, "point_color");
    EXPECT_EQ(sPointUv, "point_uv");
}

TEST_F(ReadMesh, ObjKeepsQuadAndTriangleAndJoinsSharedCorners)
{
    // Assimp gives one vertex per face corner; the two corners shared by the faces join again.
    auto const mesh =
        readMesh(write("quad.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 2 0 0\n"
                                   "vn 0 0 1\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n"
                                   "f 1/1/1 2/2/1 3/3/1 4/4/1\nf 2/2/1 5/1/1 3/3/1\n"));
    ASSERT_TRUE(mesh);
    EXPECT_TRUE(mesh->isInstanceOf(getMeshPrototype()));
    expectQuadAndTriangle(*mesh);
    EXPECT_EQ(getElementCount(*mesh, sFaceComp), 2u);
    expectValues(*mesh, sPointNormal, std::vector<float3>(5, float3{0, 0, 1}));
    expectValues(*mesh, sPointUv, std::vector<float2>{{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0, 0}});
    EXPECT_EQ(getDataGeoPropertyValues<float4>(*mesh, sPointColor), nullptr);
}

TEST_F(ReadMesh, ObjVertexColoursBecomeOpaqueColours)
{
    auto const mesh =
        readMesh(write("rgb.obj", "v 0 0 0 1 0 0\nv 1 0 0 0 1 0\nv 0 1 0 0 0 1\nf 1 2 3\n"));
    expectValues(*mesh, sPointColor, std::vector<float4>{{1, 0, 0, 1}, {0, 1, 0, 1}, {0, 0, 1, 1}});
}

TEST_F(ReadMesh, CornersWithDifferentUvsStaySeparatePoints)
{
    // Point 2 of the file has another texture coordinate in each face (a seam); point 3 has
    // the same in both.
    auto const mesh = readMesh(write("seam.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 1 0\n"
                                                 "vt 0 0\nvt 1 0\nvt 0 1\nvt 0.5 0.5\n"
                                                 "f 1/1 2/2 3/3\nf 2/4 4/2 3/3\n"));
    expectPoints(positionsOf(*mesh), {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 0, 0}, {1, 1, 0}});
    EXPECT_EQ(faceVertexOf(*mesh), (std::vector<unsigned>{0, 1, 2, 3, 4, 2}));
    expectValues(*mesh, sPointUv,
                 std::vector<float2>{{0, 0}, {1, 0}, {0, 1}, {0.5f, 0.5f}, {1, 0}});
}

TEST_F(ReadMesh, NegativeZeroJoinsPositiveZero)
{
    auto const mesh = readMesh(write("zero.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nv -0 -0 0\nv 0 -1 0\n"
                                                 "f 1 2 3\nf 4 5 2\n"));
    EXPECT_EQ(positionsOf(*mesh).size(), 4u);
    EXPECT_EQ(faceVertexOf(*mesh), (std::vector<unsigned>{0, 1, 2, 0, 3, 1}));
}

TEST_F(ReadMesh, ObjectsOfOneFileBecomeOneMeshJoinedAcrossThem)
{
    // Two objects sharing an edge; only the first has normals, so the mesh has none.
    auto const mesh = readMesh(write("two.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvn 0 0 1\n"
                                                "o first\nf 1//1 2//1 3//1\no second\nf 1 3 4\n"));
    expectPoints(positionsOf(*mesh), {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}});
    EXPECT_EQ(faceVertexOf(*mesh), (std::vector<unsigned>{0, 1, 2, 0, 2, 3}));
    EXPECT_EQ(getDataGeoProperty(*mesh, sPointNormal), nullptr);
}

TEST_F(ReadMesh, PointAndLineFacesAreDropped)
{
    auto const mesh = readMesh(
        write("mixed.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 5 5 5\nv 6 6 6\nf 1 2 3\nl 4 5\np 4\n"));
    expectPoints(positionsOf(*mesh), {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}});
    EXPECT_EQ(faceOffsetOf(*mesh), (std::vector<unsigned>{0, 3}));
}

TEST_F(ReadMesh, AsciiPlyCarriesNormalsColoursAndUvs)
{
    auto const mesh = readMesh(write("quad.ply", asciiPly()));
    expectPlyContent(*mesh);
}

TEST_F(ReadMesh, BinaryLittleEndianPlyReadsLikeAscii)
{
    auto const mesh = readMesh(write("quad.ply", binaryPly(false)));
    expectPlyContent(*mesh);
}

TEST_F(ReadMesh, BinaryBigEndianPlyReadsLikeAscii)
{
    auto const mesh = readMesh(write("quad.ply", binaryPly(true)));
    expectPlyContent(*mesh);
}

TEST_F(ReadMesh, AsciiStlCubeComesOutClosed)
{
    auto const triangles = cubeTriangles();
    auto const mesh = readMesh(write("cube.stl", asciiStl(triangles)));
    // Points in order of first appearance in the file, found here by a linear search.
    std::vector<float3> expected;
    for (auto const& t : triangles)
        for (auto const& p : t)
            if (std::none_of(expected.begin(), expected.end(), [&](float3 const& q) {
                    return q.x == p.x && q.y == p.y && q.z == p.z;
                }))
                expected.push_back(p);
    expectPoints(positionsOf(*mesh), expected);
    EXPECT_EQ(positionsOf(*mesh).size(), 8u);
    EXPECT_EQ(faceOffsetOf(*mesh).size(), 13u);
    EXPECT_EQ(openOrMisorientedEdges(*mesh), 0u);
    EXPECT_EQ(getDataGeoProperty(*mesh, sPointNormal), nullptr);
}

TEST_F(ReadMesh, BinaryStlCubeComesOutClosed)
{
    auto const mesh = readMesh(write("cube.stl", binaryStl(cubeTriangles())));
    EXPECT_EQ(positionsOf(*mesh).size(), 8u);
    EXPECT_EQ(faceOffsetOf(*mesh).size(), 13u);
    EXPECT_EQ(openOrMisorientedEdges(*mesh), 0u);
    EXPECT_EQ(getDataGeoProperty(*mesh, sPointNormal), nullptr);
}

TEST_F(ReadMesh, BinaryStlWhoseHeaderSaysSolidIsBinary)
{
    auto const mesh = readMesh(write("cube.stl", binaryStl(cubeTriangles(), "solid cube")));
    EXPECT_EQ(positionsOf(*mesh).size(), 8u);
    EXPECT_EQ(openOrMisorientedEdges(*mesh), 0u);
}

TEST_F(ReadMesh, StlFacetNormalsAreNeverPointNormals)
{
    // Two coplanar triangles: even where the facet normals agree, they are not kept.
    std::vector<std::array<float3, 3>> const triangles{{{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}}},
                                                       {{{0, 0, 0}, {1, 1, 0}, {0, 1, 0}}}};
    auto const mesh = readMesh(write("square.stl", binaryStl(triangles)));
    EXPECT_EQ(positionsOf(*mesh).size(), 4u);
    EXPECT_EQ(getDataGeoProperty(*mesh, sPointNormal), nullptr);
}

TEST_F(ReadMesh, FlatNormalsAreKeptWhereEachPointHasOne)
{
    // Two coplanar triangles, each with a normal of its own (of equal value).
    auto const mesh = readMesh(write("square.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                                                   "vn 0 0 1\nvn 0 0 1\n"
                                                   "f 1//1 2//1 3//1\nf 1//2 3//2 4//2\n"));
    EXPECT_EQ(positionsOf(*mesh).size(), 4u);
    expectValues(*mesh, sPointNormal, std::vector<float3>(4, float3{0, 0, 1}));
}

TEST_F(ReadMesh, FlatShadedObjCubeComesOutClosedWithoutNormals)
{
    // One normal per side: each corner of the cube has three, so the points join by position
    // and the normals go.
    auto const mesh = readMesh(write("cube.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                                                 "v 0 0 1\nv 1 0 1\nv 1 1 1\nv 0 1 1\n"
                                                 "vn 0 0 -1\nvn 0 0 1\nvn 0 -1 0\n"
                                                 "vn 1 0 0\nvn 0 1 0\nvn -1 0 0\n"
                                                 "f 1//1 4//1 3//1 2//1\nf 5//2 6//2 7//2 8//2\n"
                                                 "f 1//3 2//3 6//3 5//3\nf 2//4 3//4 7//4 6//4\n"
                                                 "f 3//5 4//5 8//5 7//5\nf 4//6 1//6 5//6 8//6\n"));
    EXPECT_EQ(positionsOf(*mesh).size(), 8u);
    EXPECT_EQ(faceOffsetOf(*mesh), (std::vector<unsigned>{0, 4, 8, 12, 16, 20, 24}));
    EXPECT_EQ(openOrMisorientedEdges(*mesh), 0u);
    EXPECT_EQ(getDataGeoProperty(*mesh, sPointNormal), nullptr);
}

TEST_F(ReadMesh, OffKeepsQuadAndTriangle)
{
    auto const mesh = readMesh(write("quad.off", kOff));
    expectQuadAndTriangle(*mesh);
}

TEST_F(ReadMesh, CoffByteColoursAreScaledToOne)
{
    auto const mesh = readMesh(write("rgb.off", "COFF\n3 1 0\n0 0 0 255 0 0 255\n"
                                                "1 0 0 0 255 0 255\n0 1 0 0 0 255 51\n3 0 1 2\n"));
    expectValues(*mesh, sPointColor,
                 std::vector<float4>{{1, 0, 0, 1}, {0, 1, 0, 1}, {0, 0, 1, 0.2f}}, kTransformTol);
}

TEST_F(ReadMesh, ExtensionCaseIsIgnored)
{
    auto const mesh = readMesh(write("CUBE.STL", binaryStl(cubeTriangles())));
    EXPECT_EQ(positionsOf(*mesh).size(), 8u);
}

TEST_F(ReadMesh, GltfWithEmbeddedBufferPlacesEachNode)
{
    // The same square under two nodes, the second moved by 5 along x: one mesh of both copies.
    auto const mesh = readMesh(
        write("squares.gltf", embeddedGltf("{\"mesh\":0},{\"mesh\":0,\"translation\":[5,0,0]}")));
    expectPoints(
        positionsOf(*mesh),
        {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {5, 0, 0}, {6, 0, 0}, {6, 1, 0}, {5, 1, 0}});
    EXPECT_EQ(faceVertexOf(*mesh), (std::vector<unsigned>{0, 1, 2, 0, 2, 3, 4, 5, 6, 4, 6, 7}));
    EXPECT_EQ(faceOffsetOf(*mesh), (std::vector<unsigned>{0, 3, 6, 9, 12}));
    expectValues(*mesh, sPointNormal, std::vector<float3>(8, float3{0, 0, 1}));
    // glTF counts v from the top of the image; the mesh counts it from the bottom.
    std::vector<float2> const uvs{{0, 1}, {1, 1}, {1, 0}, {0, 0}};
    std::vector<float2> uvsTwice(uvs);
    uvsTwice.insert(uvsTwice.end(), uvs.begin(), uvs.end());
    expectValues(*mesh, sPointUv, uvsTwice);
    std::vector<float4> const colors{{1, 0, 0, 1}, {0, 1, 0, 1}, {0, 0, 1, 1}, {1, 1, 1, 0.5f}};
    std::vector<float4> colorsTwice(colors);
    colorsTwice.insert(colorsTwice.end(), colors.begin(), colors.end());
    expectValues(*mesh, sPointColor, colorsTwice);
}

TEST_F(ReadMesh, NodeRotationTurnsPositionsAndNormals)
{
    // A quarter turn about x: (x, y, 0) goes to (x, 0, y) and the normal +z to -y.
    auto const mesh = readMesh(write(
        "turned.gltf", embeddedGltf("{\"mesh\":0,\"rotation\":[0.70710678,0,0,0.70710678]}")));
    expectPoints(positionsOf(*mesh), {{0, 0, 0}, {1, 0, 0}, {1, 0, 1}, {0, 0, 1}}, kTransformTol);
    expectValues(*mesh, sPointNormal, std::vector<float3>(4, float3{0, -1, 0}), kTransformTol);
}

TEST_F(ReadMesh, MirroringNodeReversesFaceCorners)
{
    // x -> -x turns the square over; reversed corners make its faces face +z again, with the
    // normals.
    auto const mesh =
        readMesh(write("mirrored.gltf", embeddedGltf("{\"mesh\":0,\"scale\":[-1,1,1]}")));
    expectPoints(positionsOf(*mesh), {{0, 0, 0}, {-1, 0, 0}, {-1, 1, 0}, {0, 1, 0}});
    EXPECT_EQ(faceVertexOf(*mesh), (std::vector<unsigned>{0, 2, 1, 0, 3, 2}));
    expectValues(*mesh, sPointNormal, std::vector<float3>(4, float3{0, 0, 1}));
    auto const p = positionsOf(*mesh);
    auto const faceVertex = faceVertexOf(*mesh);
    EXPECT_GT(facetNormal({p[faceVertex[0]], p[faceVertex[1]], p[faceVertex[2]]}).z, 0.0f);
}

TEST_F(ReadMesh, GltfWithExternalBufferReads)
{
    write("square.bin", gltfBuffer());
    auto const mesh = readMesh(write("square.gltf", gltfJson("square.bin", "{\"mesh\":0}")));
    expectPoints(positionsOf(*mesh), {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}});
    EXPECT_EQ(faceOffsetOf(*mesh).size(), 3u);
}

TEST_F(ReadMesh, GlbReads)
{
    auto const mesh = readMesh(write("square.glb", glb("{\"mesh\":0}")));
    expectPoints(positionsOf(*mesh), {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}});
    EXPECT_EQ(faceVertexOf(*mesh), (std::vector<unsigned>{0, 1, 2, 0, 2, 3}));
    expectValues(*mesh, sPointNormal, std::vector<float3>(4, float3{0, 0, 1}));
}

TEST_F(ReadMesh, ReadingPrintsNothing)
{
    write("quad.ply", asciiPly());
    write("cube.stl", binaryStl(cubeTriangles()));
    write("squares.gltf", embeddedGltf("{\"mesh\":0}"));
    write("bad.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nf 1 2 x\n");
    write("bad.gltf", embeddedGltf("{\"mesh\":0}").substr(0, 100));
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    for (char const* name : {"quad.ply", "cube.stl", "squares.gltf", "bad.obj", "bad.gltf"}) {
        try {
            readMesh(path(name));
        } catch (IoError const&) {
        }
    }
    std::string const out = ::testing::internal::GetCapturedStdout();
    std::string const err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(ReadMesh, ConcurrentReadsGiveTheSameMesh)
{
    fs::path const file = write("quad.ply", asciiPly());
    constexpr int kThreads = 4;
    std::vector<std::vector<float3>> positions(kThreads);
    std::vector<std::vector<unsigned>> faces(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            auto const mesh = readMesh(file);
            positions[t] = positionsOf(*mesh);
            faces[t] = faceVertexOf(*mesh);
        });
    for (auto& thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; ++t) {
        expectPoints(positions[t], kQuadAndTrianglePoints);
        EXPECT_EQ(faces[t], kQuadAndTriangleFaceVertex);
    }
}

TEST_F(ReadMesh, EveryCutOfAFileIsReadOrRefused)
{
    // A file cut at any byte either still reads or is refused with an IoError: no other
    // exception, no crash, no endless loop. About 50 cuts a file, at odd steps so that they
    // land everywhere in a line or a record; each read costs an Assimp importer.
    std::vector<std::pair<std::string, std::string>> const files{
        {"quad.obj",
         "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvn 0 0 1\nf 1/1/1 2/1/1 3/1/1 4/1/1\n"},
        {"quad.ply", asciiPly()},
        {"quad_le.ply", binaryPly(false)},
        {"cube.stl", asciiStl(cubeTriangles())},
        {"cube_binary.stl", binaryStl(cubeTriangles())},
        {"quad.off", kOff},
        {"square.gltf", embeddedGltf("{\"mesh\":0}")},
        {"square.glb", glb("{\"mesh\":0}")}};
    for (auto const& [name, bytes] : files) {
        int read = 0;
        std::size_t const step = bytes.size() / 50 | 1;
        for (std::size_t cut = 0; cut <= bytes.size() + step; cut += step) {
            std::size_t const size = std::min(cut, bytes.size());
            fs::path const file = write(name, bytes.substr(0, size));
            try {
                readMesh(file);
                ++read;
            } catch (IoError const&) {
            } catch (std::exception const& e) {
                ADD_FAILURE() << name << " cut at " << size << ": " << e.what();
            }
        }
        EXPECT_GE(read, 1) << name; // the whole file at least
    }
}

// ---- refused files -----------------------------------------------------------------------------

TEST_F(ReadMesh, MissingFileIsRefused)
{
    expectIoError(path("absent.obj"), {"no such file"});
}

TEST_F(ReadMesh, FolderIsRefused)
{
    fs::create_directories(path("folder.obj"));
    expectIoError(path("folder.obj"), {"folder"});
}

TEST_F(ReadMesh, EmptyFileIsRefused)
{
    expectIoError(write("empty.ply", ""), {"empty"});
}

TEST_F(ReadMesh, UnknownExtensionIsRefused)
{
    expectIoError(write("mesh.xyz", "v 0 0 0\n"), {"unknown extension '.xyz'"});
}

TEST_F(ReadMesh, MissingExtensionIsRefused)
{
    expectIoError(write("mesh", "v 0 0 0\n"), {"no file extension"});
}

TEST_F(ReadMesh, TruncatedBinaryStlIsRefused)
{
    std::string const stl = binaryStl(cubeTriangles());
    expectIoError(write("cut.stl", stl.substr(0, 500)),
                  {"truncated binary STL", "12 triangles", "684 bytes", "500"});
}

TEST_F(ReadMesh, BinaryStlShorterThanItsHeaderIsRefused)
{
    expectIoError(write("cut.stl", binaryStl(cubeTriangles()).substr(0, 40)),
                  {"truncated binary STL", "84-byte header"});
}

TEST_F(ReadMesh, TruncatedAsciiStlIsRefused)
{
    expectIoError(write("cut.stl", asciiStl(cubeTriangles()).substr(0, 300)),
                  {"truncated ASCII STL"});
}

TEST_F(ReadMesh, TruncatedPlyHeaderIsRefused)
{
    // Cut inside the header: Assimp's own reader does not come back from this one.
    expectIoError(write("cut.ply", asciiPly().substr(0, 200)), {"truncated PLY", "end_header"});
}

TEST_F(ReadMesh, TruncatedAsciiPlyBodyIsRefused)
{
    std::string const ply = asciiPly();
    expectIoError(write("cut.ply", ply.substr(0, ply.size() - 8)),
                  {"truncated PLY", "after 1 of 2 'face' elements"});
}

TEST_F(ReadMesh, AsciiPlyCutInsideItsLastLineIsRefused)
{
    std::string const ply = asciiPly();
    expectIoError(write("cut.ply", ply.substr(0, ply.size() - 4)),
                  {"truncated PLY", "inside 'face' element 1 of 2"});
}

TEST_F(ReadMesh, TruncatedBinaryPlyBodyIsRefused)
{
    std::string const ply = binaryPly(false);
    expectIoError(write("cut.ply", ply.substr(0, ply.size() - 5)),
                  {"truncated PLY", "binary body", "'face' element 1 of 2"});
}

TEST_F(ReadMesh, MalformedObjIsRefused)
{
    expectIoError(write("bad.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nf 1 2 x\n"),
                  {"Assimp could not read the file as OBJ", "Invalid face index"});
}

TEST_F(ReadMesh, MalformedPlyValueIsRefused)
{
    std::string ply = asciiPly();
    ply.replace(ply.find("1.000000 1.000000 0.000000"), 8, "zz");
    expectIoError(write("bad.ply", ply),
                  {"malformed PLY", "line 22", "'vertex' element 2", "'zz' is not a number"});
}

TEST_F(ReadMesh, PlyCountingMoreVerticesThanItHasIsRefused)
{
    std::string ply = asciiPly();
    ply.replace(ply.find("element vertex 5"), 16, "element vertex 6");
    expectIoError(write("bad.ply", ply), {"malformed PLY", "'vertex' element 5"});
}

TEST_F(ReadMesh, MalformedPlyHeaderIsRefused)
{
    std::string ply = asciiPly();
    ply.replace(ply.find("property float s"), 16, "property half s");
    expectIoError(write("bad.ply", ply), {"malformed PLY header", "unknown type"});
}

TEST_F(ReadMesh, MalformedOffIsRefused)
{
    expectIoError(write("bad.off", "OFF\n3 1 0\n0 0 0\n1 x 0\n0 1 0\n3 0 1 2\n"),
                  {"malformed OFF", "line 4", "'x' is not a number"});
}

TEST_F(ReadMesh, TruncatedOffIsRefused)
{
    expectIoError(write("cut.off", kOff.substr(0, kOff.size() - 8)),
                  {"truncated OFF", "after 1 of 2 faces"});
}

TEST_F(ReadMesh, OffCutInsideItsLastLineIsRefused)
{
    expectIoError(write("cut.off", kOff.substr(0, kOff.size() - 4)),
                  {"truncated OFF", "inside face 1 of 2"});
}

TEST_F(ReadMesh, UnsupportedOffVariantIsRefused)
{
    expectIoError(write("normals.off", "CNOFF\n3 1 0\n0 0 0 0 0 1 1 0 0 1\n1 0 0 0 0 1 0 1 0 1\n"
                                       "0 1 0 0 0 1 0 0 1 1\n3 0 1 2\n"),
                  {"unsupported OFF variant 'CNOFF'"});
}

TEST_F(ReadMesh, ObjWithPointsOnlyHasNoFaces)
{
    expectIoError(write("points.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\n"), {"no faces"});
}

TEST_F(ReadMesh, ObjWithLinesOnlyHasNoFaces)
{
    expectIoError(write("lines.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nl 1 2 3\np 1\n"), {"no faces"});
}

TEST_F(ReadMesh, GltfOfPointsHasNoFaces)
{
    expectIoError(write("points.gltf", embeddedGltf("{\"mesh\":0}", 0)), {"no faces"});
}

TEST_F(ReadMesh, StlOfNoTrianglesHasNoFaces)
{
    expectIoError(write("empty.stl", "solid nothing\nendsolid nothing\n"), {"no faces"});
}

TEST_F(ReadMesh, NanCoordinateIsRefused)
{
    expectIoError(write("nan.obj", "v 0 0 0\nv nan 0 0\nv 1 1 0\nf 1 2 3\n"),
                  {"non-finite coordinate (nan, 0, 0)"});
}

TEST_F(ReadMesh, InfiniteCoordinateIsRefused)
{
    auto triangles = cubeTriangles();
    triangles[3][1].y = std::numeric_limits<float>::infinity();
    expectIoError(write("inf.stl", binaryStl(triangles)), {"non-finite coordinate", "inf"});
}

TEST_F(ReadMesh, ObjIndexOutOfRangeIsRefused)
{
    expectIoError(write("far.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nf 1 2 7\n"),
                  {"Assimp could not read the file as OBJ", "index out of range"});
}

TEST_F(ReadMesh, OffIndexOutOfRangeIsRefused)
{
    std::string off = kOff;
    off.replace(off.find("3 1 4 2"), 7, "3 1 9 2");
    expectIoError(write("far.off", off),
                  {"face index out of range", "line 10", "vertex 9", "5 vertices"});
}

TEST_F(ReadMesh, OffNegativeIndexIsRefused)
{
    std::string off = kOff;
    off.replace(off.find("3 1 4 2"), 7, "3 1 -1 2");
    expectIoError(write("neg.off", off), {"face index out of range", "vertex -1"});
}

TEST_F(ReadMesh, PlyIndexOutOfRangeIsRefused)
{
    std::string ply = asciiPly();
    ply.replace(ply.find("3 1 4 2"), 7, "3 1 9 2");
    expectIoError(write("far.ply", ply), {"face index out of range", "vertex 9", "5 vertices"});
}

TEST_F(ReadMesh, PlyNegativeIndexIsRefused)
{
    std::string ply = binaryPly(false);
    std::string minusOne;
    append(minusOne, std::int32_t(-1));
    ply.replace(ply.size() - 8, 4, minusOne); // the triangle's second corner
    expectIoError(write("neg.ply", ply), {"face index out of range"});
}

TEST_F(ReadMesh, TruncatedGltfIsRefused)
{
    expectIoError(write("cut.gltf", embeddedGltf("{\"mesh\":0}").substr(0, 300)),
                  {"Assimp could not read the file as glTF"});
}

TEST_F(ReadMesh, GltfWithMissingBufferFileIsRefused)
{
    expectIoError(write("lost.gltf", gltfJson("lost.bin", "{\"mesh\":0}")),
                  {"Assimp could not read the file as glTF", "lost.bin"});
}

// ---- the shared test meshes
// ----------------------------------------------------------------------

TEST_F(ReadMesh, BunnyHasItsTriangles)
{
    fs::path const file = dataFile("bunny.obj");
    if (!fs::exists(file))
        GTEST_SKIP() << file << " not present";
    auto const mesh = readMesh(file);
    auto const offsets = faceOffsetOf(*mesh);
    ASSERT_EQ(offsets.size(), 3674u + 1);
    for (std::size_t f = 0; f + 1 < offsets.size(); ++f)
        ASSERT_EQ(offsets[f + 1] - offsets[f], 3u) << "face " << f;
    EXPECT_EQ(openOrMisorientedEdges(*mesh), 0u); // the bunny is closed
    // A closed surface of genus 0: V - E + F = 2, with E = 3F / 2.
    EXPECT_EQ(positionsOf(*mesh).size(), 2u + 3674u * 3 / 2 - 3674u);
}

TEST_F(ReadMesh, TorusQuadHasItsQuads)
{
    fs::path const file = dataFile("torus_quad.obj");
    if (!fs::exists(file))
        GTEST_SKIP() << file << " not present";
    auto const mesh = readMesh(file);
    auto const offsets = faceOffsetOf(*mesh);
    ASSERT_EQ(offsets.size(), 25u + 1);
    for (std::size_t f = 0; f + 1 < offsets.size(); ++f)
        EXPECT_EQ(offsets[f + 1] - offsets[f], 4u) << "face " << f;
    EXPECT_EQ(openOrMisorientedEdges(*mesh), 0u);
    // Genus 1: V - E + F = 0, with E = 4F / 2.
    EXPECT_EQ(positionsOf(*mesh).size(), 25u * 2 - 25u);
}
