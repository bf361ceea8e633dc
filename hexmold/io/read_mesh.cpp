/// @file  io/read_mesh.cpp
/// @brief Mesh files into mesh objects: format check, Assimp import, the node walk that gathers
///        faces and attributes, and the join of identical points.
#include <hexmold/io/read_mesh.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <assimp/Importer.hpp>
#include <assimp/scene.h>

#include <hexmold/io/detail/check_mesh_file.h>
#include <hexmold/platform/tavrel/geometry.h>

namespace hexmold::io {

Quillon::String const sPointNormal = "point_normal";
Quillon::String const sPointColor = "point_color";
Quillon::String const sPointUv = "point_uv";

namespace {

using Tavrel::Math::float2;
using Tavrel::Math::float3;
using Tavrel::Math::float4;

enum class Format { kObj, kPly, kStl, kOff, kGltf, kGlb };

char const* formatName(Format format)
{
    switch (format) {
    case Format::kObj:
        return "OBJ";
    case Format::kPly:
        return "PLY";
    case Format::kStl:
        return "STL";
    case Format::kOff:
        return "OFF";
    case Format::kGltf:
        return "glTF";
    case Format::kGlb:
        return "GLB";
    }
    return "";
}

[[noreturn]] void fail(std::filesystem::path const& path, std::string const& reason)
{
    throw IoError(path.string(), reason);
}

Format formatOf(std::filesystem::path const& path)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".obj")
        return Format::kObj;
    if (extension == ".ply")
        return Format::kPly;
    if (extension == ".stl")
        return Format::kStl;
    if (extension == ".off")
        return Format::kOff;
    if (extension == ".gltf")
        return Format::kGltf;
    if (extension == ".glb")
        return Format::kGlb;
    fail(path, (extension.empty() ? std::string("no file extension")
                                  : "unknown extension '" + path.extension().string() + "'") +
                   " (mesh files are .obj, .ply, .stl, .off, .gltf or .glb)");
}

/// Size of the regular, readable file @p path; throws for anything else, with the system's
/// reason where it gives one.
std::uint64_t readableFileSize(std::filesystem::path const& path)
{
    std::error_code error;
    auto const status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found)
        fail(path, "no such file");
    if (error)
        fail(path, "cannot access the file: " + error.message());
    if (status.type() == std::filesystem::file_type::directory)
        fail(path, "is a folder, not a file");
    if (status.type() != std::filesystem::file_type::regular)
        fail(path, "not a regular file");
    std::uint64_t const size = std::filesystem::file_size(path, error);
    if (error)
        fail(path, "cannot access the file: " + error.message());
    errno = 0;
    std::ifstream probe(path, std::ios::binary);
    if (!probe)
        fail(path, "cannot open the file for reading" +
                       (errno ? ": " + std::generic_category().message(errno) : std::string()));
    if (size == 0)
        fail(path, "the file is empty");
    return size;
}

/// @p count bytes of @p path from @p offset.
std::string readBytes(std::filesystem::path const& path, std::uint64_t offset, std::uint64_t count)
{
    std::string bytes(count, '\0');
    std::ifstream in(path, std::ios::binary);
    if (!in || !in.seekg(static_cast<std::streamoff>(offset)) ||
        !in.read(bytes.data(), static_cast<std::streamsize>(count)))
        fail(path, "cannot read the file");
    return bytes;
}

/// The structural check of the formats whose Assimp reader trusts the file (see
/// detail/check_mesh_file.h); the content read here is dropped before Assimp reads it again.
void checkStructure(std::filesystem::path const& path, Format format, std::uint64_t size)
{
    std::string problem;
    if (format == Format::kPly) {
        problem = detail::plyProblem(readBytes(path, 0, size));
    } else if (format == Format::kOff) {
        problem = detail::offProblem(readBytes(path, 0, size));
    } else if (format == Format::kStl) {
        constexpr std::uint64_t kHeadBytes = 512;
        constexpr std::uint64_t kTailBytes = 4096;
        std::uint64_t const tailBytes = std::min(size, kTailBytes);
        problem = detail::stlProblem(readBytes(path, 0, std::min(size, kHeadBytes)),
                                     readBytes(path, size - tailBytes, tailBytes), size);
    }
    if (!problem.empty())
        fail(path, problem);
}

// ---- gathering: the faces of every node's meshes, with their points -----------------------------

/// One mesh placed by one node.
struct Instance {
    aiMesh const* mesh;
    aiMatrix4x4 transform; ///< node to file space, accumulated from the root
};

/// A per-point attribute while the points are gathered, one value of `width` floats per point.
struct Attribute {
    std::string name;
    int width = 0; ///< 2, 3 or 4
    enum Kind { kNormal, kColor, kUv } kind = kNormal;
    unsigned set = 0; ///< Assimp's colour or texture coordinate set
    std::vector<float> values;
    bool perFace = false; ///< one value over each whole face
};

/// The gathered faces: every point every face uses, one per (mesh instance, mesh vertex), not
/// joined yet.
struct Gathered {
    std::vector<float3> positions;
    std::vector<Attribute> attributes;
    std::vector<std::uint32_t> faceVertex;
    std::vector<std::uint32_t> faceOffset{0};
};

bool isPolygon(aiFace const& face)
{
    return face.mNumIndices >= 3 && face.mIndices;
}

bool hasPolygon(aiMesh const& mesh)
{
    if (!mesh.mVertices || !mesh.mFaces)
        return false;
    for (unsigned f = 0; f < mesh.mNumFaces; ++f)
        if (isPolygon(mesh.mFaces[f]))
            return true;
    return false;
}

/// Meshes of the node tree in depth-first order, children in order, each with its node's
/// accumulated transform; only meshes with a face of three or more points.
std::vector<Instance> instancesOf(aiScene const& scene, std::filesystem::path const& path)
{
    std::vector<Instance> instances;
    if (!scene.mRootNode)
        return instances;
    std::vector<std::pair<aiNode const*, aiMatrix4x4>> stack{
        {scene.mRootNode, scene.mRootNode->mTransformation}};
    while (!stack.empty()) {
        auto const [node, transform] = stack.back();
        stack.pop_back();
        for (unsigned i = 0; i < node->mNumMeshes; ++i) {
            unsigned const m = node->mMeshes[i];
            if (m >= scene.mNumMeshes || !scene.mMeshes[m])
                fail(path, "malformed file: a node refers to mesh " + std::to_string(m) + " of " +
                               std::to_string(scene.mNumMeshes));
            if (hasPolygon(*scene.mMeshes[m]))
                instances.push_back({scene.mMeshes[m], transform});
        }
        for (unsigned c = node->mNumChildren; c-- > 0;)
            if (node->mChildren[c])
                stack.emplace_back(node->mChildren[c],
                                   transform * node->mChildren[c]->mTransformation);
    }
    return instances;
}

/// The attributes every instance carries, with their names and widths. The normals of STL are
/// facet normals by definition, never the points' own: they are left out.
std::vector<Attribute> commonAttributes(std::vector<Instance> const& instances, Format format)
{
    auto const all = [&](auto const& has) {
        return std::all_of(instances.begin(), instances.end(),
                           [&](Instance const& instance) { return has(*instance.mesh); });
    };
    std::vector<Attribute> attributes;
    if (format != Format::kStl && all([](aiMesh const& mesh) { return mesh.HasNormals(); }))
        attributes.push_back({sPointNormal, 3, Attribute::kNormal, 0, {}, false});
    for (unsigned set = 0; set < AI_MAX_NUMBER_OF_COLOR_SETS; ++set)
        if (all([set](aiMesh const& mesh) { return mesh.HasVertexColors(set); }))
            attributes.push_back({sPointColor + (set ? std::to_string(set) : ""),
                                  4,
                                  Attribute::kColor,
                                  set,
                                  {},
                                  false});
    for (unsigned set = 0; set < AI_MAX_NUMBER_OF_TEXTURECOORDS; ++set) {
        if (!all([set](aiMesh const& mesh) { return mesh.HasTextureCoords(set); }))
            continue;
        unsigned components = 0;
        for (auto const& instance : instances)
            components = std::max(components, instance.mesh->mNumUVComponents[set]);
        attributes.push_back({sPointUv + (set ? std::to_string(set) : ""),
                              components > 2 ? 3 : 2,
                              Attribute::kUv,
                              set,
                              {},
                              false});
    }
    return attributes;
}

bool isExactIdentity(aiMatrix4x4 const& m)
{
    for (unsigned r = 0; r < 4; ++r)
        for (unsigned c = 0; c < 4; ++c)
            if (m[r][c] != (r == c ? 1.0f : 0.0f))
                return false;
    return true;
}

/// Maps positions and normals of one instance into file space. Positions are computed in double
/// and rounded once; normals go through the cofactor matrix of the linear part (the inverse
/// transpose times the determinant, times the determinant's sign), which needs no inverse and
/// so no invertible transform.
class Placement {
public:
    explicit Placement(aiMatrix4x4 const& m) : mIdentity(isExactIdentity(m))
    {
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 4; ++c)
                mAffine[r][c] = m[r][c];
        auto const& a = mAffine;
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                int const r1 = (r + 1) % 3, r2 = (r + 2) % 3, c1 = (c + 1) % 3, c2 = (c + 2) % 3;
                mCofactor[r][c] = a[r1][c1] * a[r2][c2] - a[r1][c2] * a[r2][c1];
            }
        double const det =
            a[0][0] * mCofactor[0][0] + a[0][1] * mCofactor[0][1] + a[0][2] * mCofactor[0][2];
        mMirrors = det < 0;
        if (mMirrors)
            for (auto& row : mCofactor)
                for (double& v : row)
                    v = -v;
    }

    /// True when the transform turns the space inside out (negative determinant).
    bool mirrors() const { return mMirrors; }

    float3 position(aiVector3D const& p) const
    {
        if (mIdentity)
            return {p.x, p.y, p.z};
        float3 out;
        for (int r = 0; r < 3; ++r)
            out[r] = static_cast<float>(mAffine[r][0] * p.x + mAffine[r][1] * p.y +
                                        mAffine[r][2] * p.z + mAffine[r][3]);
        return out;
    }

    float3 normal(aiVector3D const& n) const
    {
        if (mIdentity)
            return {n.x, n.y, n.z};
        double v[3];
        for (int r = 0; r < 3; ++r)
            v[r] = mCofactor[r][0] * n.x + mCofactor[r][1] * n.y + mCofactor[r][2] * n.z;
        double const length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        double const scale =
            length > 0
                ? std::sqrt(double(n.x) * n.x + double(n.y) * n.y + double(n.z) * n.z) / length
                : 0.0;
        return {float(v[0] * scale), float(v[1] * scale), float(v[2] * scale)};
    }

private:
    bool mIdentity;
    bool mMirrors = false;
    double mAffine[3][4];
    double mCofactor[3][3];
};

/// "(x, y, z)", each the shortest text that reads back as the same float.
std::string formatPoint(float3 const& p)
{
    auto const text = [](float v) {
        char digits[32];
        auto const end = std::to_chars(digits, digits + sizeof(digits), v).ptr;
        return std::string(digits, end);
    };
    // Appended piece by piece: GCC 12 warns falsely (-Wrestrict) about "literal" + string.
    std::string out(1, '(');
    out.append(text(p.x)).append(", ").append(text(p.y)).append(", ").append(text(p.z));
    return out.append(")");
}

constexpr std::uint64_t kMaxIndex = std::numeric_limits<std::uint32_t>::max();

/// Appends the polygons of @p instance and the points they use, in the mesh's vertex order.
void gatherInstance(Instance const& instance, std::filesystem::path const& path,
                    Gathered& io_gathered)
{
    aiMesh const& mesh = *instance.mesh;
    constexpr std::uint32_t kUnused = std::numeric_limits<std::uint32_t>::max();
    std::vector<std::uint32_t> local(mesh.mNumVertices, kUnused);
    for (unsigned f = 0; f < mesh.mNumFaces; ++f) {
        aiFace const& face = mesh.mFaces[f];
        if (!isPolygon(face))
            continue;
        for (unsigned i = 0; i < face.mNumIndices; ++i) {
            if (face.mIndices[i] >= mesh.mNumVertices)
                fail(path, "face index out of range: face " + std::to_string(f) +
                               " refers to vertex " + std::to_string(face.mIndices[i]) +
                               ", the mesh has " + std::to_string(mesh.mNumVertices) + " vertices");
            local[face.mIndices[i]] = 0;
        }
    }

    Placement const placement(instance.transform);
    auto& positions = io_gathered.positions;
    for (unsigned v = 0; v < mesh.mNumVertices; ++v) {
        if (local[v] == kUnused)
            continue;
        if (positions.size() >= kMaxIndex)
            fail(path, "too large: more points than 32-bit indices hold");
        float3 const p = placement.position(mesh.mVertices[v]);
        if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z))
            fail(path, "non-finite coordinate " + formatPoint(p) +
                           (mesh.mName.length ? " in mesh '" + std::string(mesh.mName.C_Str()) + "'"
                                              : std::string()));
        local[v] = static_cast<std::uint32_t>(positions.size());
        positions.push_back(p);
        for (auto& attribute : io_gathered.attributes) {
            auto& values = attribute.values;
            if (attribute.kind == Attribute::kNormal) {
                float3 const n = placement.normal(mesh.mNormals[v]);
                values.insert(values.end(), {n.x, n.y, n.z});
            } else if (attribute.kind == Attribute::kColor) {
                aiColor4D const& c = mesh.mColors[attribute.set][v];
                values.insert(values.end(), {c.r, c.g, c.b, c.a});
            } else {
                aiVector3D const& t = mesh.mTextureCoords[attribute.set][v];
                values.insert(values.end(), {t.x, t.y});
                if (attribute.width == 3)
                    values.push_back(t.z);
            }
        }
    }

    for (unsigned f = 0; f < mesh.mNumFaces; ++f) {
        aiFace const& face = mesh.mFaces[f];
        if (!isPolygon(face))
            continue;
        if (io_gathered.faceVertex.size() + face.mNumIndices > kMaxIndex)
            fail(path, "too large: more face corners than 32-bit indices hold");
        // Under a mirror the corners go the other way round, so that the face keeps facing
        // the side it faced in the mesh's own space; the first corner stays first.
        io_gathered.faceVertex.push_back(local[face.mIndices[0]]);
        for (unsigned i = 1; i < face.mNumIndices; ++i) {
            unsigned const corner = placement.mirrors() ? face.mNumIndices - i : i;
            io_gathered.faceVertex.push_back(local[face.mIndices[corner]]);
        }
        io_gathered.faceOffset.push_back(static_cast<std::uint32_t>(io_gathered.faceVertex.size()));
    }
}

Gathered gather(aiScene const& scene, std::filesystem::path const& path, Format format)
{
    std::vector<Instance> const instances = instancesOf(scene, path);
    if (instances.empty())
        fail(path, "no faces: the file has no face of three or more points");
    Gathered gathered;
    gathered.attributes = commonAttributes(instances, format);
    for (auto const& instance : instances)
        gatherInstance(instance, path, gathered);

    // COFF colours are 0 to 255 or 0 to 1, and Assimp hands them on as they are written.
    if (format == Format::kOff)
        for (auto& attribute : gathered.attributes)
            if (attribute.kind == Attribute::kColor &&
                std::any_of(attribute.values.begin(), attribute.values.end(),
                            [](float v) { return v > 1.0f; }))
                for (float& v : attribute.values)
                    v /= 255.0f;
    return gathered;
}

// ---- joining identical points ---------------------------------------------------------------

/// The bits of @p v with -0 taken as +0: equal keys are equal values.
std::uint32_t keyBits(float v)
{
    if (v == 0.0f)
        v = 0.0f;
    std::uint32_t bits;
    std::memcpy(&bits, &v, sizeof(bits));
    return bits;
}

/// True when @p attribute has one value over each whole face.
bool isPerFace(Attribute const& attribute, Gathered const& gathered)
{
    std::size_t const w = attribute.width;
    for (std::size_t f = 0; f + 1 < gathered.faceOffset.size(); ++f) {
        std::size_t const first = gathered.faceVertex[gathered.faceOffset[f]];
        for (std::size_t c = gathered.faceOffset[f] + 1; c < gathered.faceOffset[f + 1]; ++c) {
            std::size_t const other = gathered.faceVertex[c];
            for (std::size_t k = 0; k < w; ++k)
                if (keyBits(attribute.values[first * w + k]) !=
                    keyBits(attribute.values[other * w + k]))
                    return false;
        }
    }
    return true;
}

/// Open-addressing table from point keys (a fixed number of 32-bit words) to point numbers.
/// The numbers go up in order of first insertion, so the result is the same whatever the hash.
class PointTable {
public:
    PointTable(std::size_t keyWords, std::size_t expectedKeys) : mKeyWords(keyWords)
    {
        std::size_t capacity = 16;
        while (capacity < 2 * expectedKeys)
            capacity *= 2;
        mSlots.assign(capacity, 0);
        mKeys.reserve(expectedKeys * keyWords);
    }

    /// Number of the point with key @p key, adding it as the next point when it is new.
    std::uint32_t insert(std::uint32_t const* key)
    {
        std::uint64_t hash = 0x9E3779B97F4A7C15ull;
        for (std::size_t i = 0; i < mKeyWords; ++i) {
            hash = (hash ^ key[i]) * 0xBF58476D1CE4E5B9ull;
            hash ^= hash >> 31;
        }
        std::size_t const mask = mSlots.size() - 1;
        for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
            std::uint32_t const entry = mSlots[slot]; // point number + 1, 0 for empty
            if (entry == 0) {
                auto const point = static_cast<std::uint32_t>(mKeys.size() / mKeyWords);
                mKeys.insert(mKeys.end(), key, key + mKeyWords);
                mSlots[slot] = point + 1;
                return point;
            }
            if (std::memcmp(&mKeys[(entry - 1) * mKeyWords], key,
                            mKeyWords * sizeof(std::uint32_t)) == 0)
                return entry - 1;
        }
    }

private:
    std::size_t mKeyWords;
    std::vector<std::uint32_t> mSlots;
    std::vector<std::uint32_t> mKeys;
};

template <typename T>
Quillon::Array<T> pointValues(Attribute const& attribute, std::vector<std::uint32_t> const& firstOf)
{
    Quillon::Array<T> out(firstOf.size());
    for (std::size_t p = 0; p < firstOf.size(); ++p)
        std::memcpy(&out[p], &attribute.values[std::size_t(firstOf[p]) * attribute.width],
                    sizeof(T));
    return out;
}

template <typename T>
void setPointProperty(Tavrel::Object& io_mesh, Attribute const& attribute,
                      std::vector<std::uint32_t> const& firstOf, T const& defaultValue,
                      std::filesystem::path const& path)
{
    static_assert(sizeof(T) == sizeof(float) * T::kSize);
    if (!Tavrel::Geometry::setDataGeoProperty<T>(io_mesh, attribute.name,
                                                 Tavrel::Geometry::sPointComp,
                                                 pointValues<T>(attribute, firstOf), defaultValue))
        fail(path, "internal error: point property '" + attribute.name + "' was refused");
}

/// Joins the gathered points and builds the mesh object.
Quillon::MutablePtr<Tavrel::Object> buildMesh(Gathered& gathered, std::filesystem::path const& path)
{
    std::size_t keyWords = 3;
    for (auto& attribute : gathered.attributes) {
        attribute.perFace = isPerFace(attribute, gathered);
        if (!attribute.perFace)
            keyWords += attribute.width;
    }

    std::size_t const rawCount = gathered.positions.size();
    PointTable table(keyWords, rawCount);
    std::vector<std::uint32_t> pointOf(rawCount);
    std::vector<std::uint32_t> firstOf; // gathered point that gives each point its values
    std::vector<std::uint32_t> key(keyWords);
    for (std::size_t r = 0; r < rawCount; ++r) {
        float3 const& p = gathered.positions[r];
        std::size_t k = 0;
        key[k++] = keyBits(p.x);
        key[k++] = keyBits(p.y);
        key[k++] = keyBits(p.z);
        for (auto const& attribute : gathered.attributes)
            if (!attribute.perFace)
                for (int i = 0; i < attribute.width; ++i)
                    key[k++] = keyBits(attribute.values[r * attribute.width + i]);
        pointOf[r] = table.insert(key.data());
        if (pointOf[r] == firstOf.size())
            firstOf.push_back(static_cast<std::uint32_t>(r));
    }

    // A per-face attribute stays only where each joined point has a single value of it.
    std::vector<Attribute const*> kept;
    for (auto const& attribute : gathered.attributes) {
        bool single = true;
        std::size_t const w = attribute.width;
        for (std::size_t r = 0; single && attribute.perFace && r < rawCount; ++r)
            for (std::size_t i = 0; i < w; ++i)
                single = single && keyBits(attribute.values[r * w + i]) ==
                                       keyBits(attribute.values[firstOf[pointOf[r]] * w + i]);
        if (single)
            kept.push_back(&attribute);
    }

    Quillon::Array<float3> positions(firstOf.size());
    for (std::size_t p = 0; p < firstOf.size(); ++p)
        positions[p] = gathered.positions[firstOf[p]];
    Quillon::Array<unsigned int> faceVertex(gathered.faceVertex.size());
    for (std::size_t c = 0; c < faceVertex.size(); ++c)
        faceVertex[c] = pointOf[gathered.faceVertex[c]];
    Quillon::Array<unsigned int> faceOffset(gathered.faceOffset.begin(), gathered.faceOffset.end());

    auto mesh = Tavrel::Geometry::createMesh(std::move(positions), std::move(faceVertex),
                                             std::move(faceOffset));
    if (!mesh)
        fail(path, "internal error: the mesh arrays were refused");
    for (Attribute const* attribute : kept) {
        if (attribute->kind == Attribute::kNormal)
            setPointProperty(*mesh, *attribute, firstOf, float3{0, 0, 0}, path);
        else if (attribute->kind == Attribute::kColor)
            setPointProperty(*mesh, *attribute, firstOf, float4{1, 1, 1, 1}, path);
        else if (attribute->width == 2)
            setPointProperty(*mesh, *attribute, firstOf, float2{0, 0}, path);
        else
            setPointProperty(*mesh, *attribute, firstOf, float3{0, 0, 0}, path);
    }
    return mesh;
}

} // namespace

Quillon::MutablePtr<Tavrel::Object> readMesh(std::filesystem::path const& path)
{
    Format const format = formatOf(path);
    std::uint64_t const size = readableFileSize(path);
    checkStructure(path, format, size);

    // No post-processing: triangulation would split the polygons, and Assimp's join of
    // identical vertices compares every attribute, facet normals included, which keeps an STL
    // solid in loose triangles. Assimp logs nothing unless a logger is created, and none is.
    Assimp::Importer importer;
    std::string const failed =
        std::string("Assimp could not read the file as ") + formatName(format) + ": ";
    aiScene const* scene = nullptr;
    try {
        scene = importer.ReadFile(path.string(), 0u);
    } catch (std::exception const& e) {
        fail(path, failed + e.what());
    }
    if (!scene)
        fail(path, failed + importer.GetErrorString());

    Gathered gathered = gather(*scene, path, format);
    importer.FreeScene();
    return buildMesh(gathered, path);
}

} // namespace hexmold::io
