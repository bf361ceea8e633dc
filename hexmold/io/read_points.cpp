/// @file  io/read_points.cpp
/// @brief `readPoints`: PLY and text point clouds, read by a small parser of our own.
#include <hexmold/io/read_points.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <hexmold/platform/tavrel/geometry.h>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace hexmold::io {

namespace {

namespace Geo = Tavrel::Geometry;

[[noreturn]] void fail(std::filesystem::path const& path, std::string const& reason)
{
    throw IoError(path.string(), reason);
}

/// One column of per-point numbers, with the largest value of its integer type (0: a float type).
struct Column {
    std::string name;
    std::vector<double> values;
    double integerMax = 0.0;
};

std::string lower(std::string s)
{
    for (char& c : s)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool parseNumber(std::string const& word, double& out)
{
    if (word.empty())
        return false;
    char* end = nullptr;
    out = std::strtod(word.c_str(), &end);
    return end == word.c_str() + word.size();
}

/// The cloud from its columns: x, y, z the positions, the rest as float, float3 or colour
/// properties.
Quillon::MutablePtr<Tavrel::Object> makeCloud(std::filesystem::path const& path,
                                              std::vector<Column>& columns)
{
    std::map<std::string, std::size_t> byName;
    for (std::size_t c = 0; c < columns.size(); ++c)
        byName[columns[c].name] = c;
    for (char const* axis : {"x", "y", "z"})
        if (!byName.count(axis))
            fail(path, std::string("there is no \"") + axis + "\" column of positions");
    std::size_t const n = columns[byName["x"]].values.size();
    if (n == 0)
        fail(path, "there is no point");
    Quillon::Array<Tavrel::Math::float3> positions(n);
    for (std::size_t i = 0; i < n; ++i) {
        positions[i] = {float(columns[byName["x"]].values[i]),
                        float(columns[byName["y"]].values[i]),
                        float(columns[byName["z"]].values[i])};
        if (!std::isfinite(positions[i].x) || !std::isfinite(positions[i].y) ||
            !std::isfinite(positions[i].z))
            fail(path,
                 "point " + std::to_string(i) + " has a coordinate that is not a finite number");
    }
    auto cloud = Geo::createPointCloud(positions);
    std::vector<char> used(columns.size(), 0);
    used[byName["x"]] = used[byName["y"]] = used[byName["z"]] = 1;
    // Colours.
    if (byName.count("red") && byName.count("green") && byName.count("blue")) {
        Column const* rgba[4] = {&columns[byName["red"]], &columns[byName["green"]],
                                 &columns[byName["blue"]],
                                 byName.count("alpha") ? &columns[byName["alpha"]] : nullptr};
        Quillon::Array<Tavrel::Math::float4> colour(n);
        for (std::size_t i = 0; i < n; ++i)
            for (int c = 0; c < 4; ++c) {
                double v = 1.0;
                if (rgba[c])
                    v = rgba[c]->integerMax > 0.0 ? rgba[c]->values[i] / rgba[c]->integerMax
                                                  : rgba[c]->values[i];
                colour[i][c] = float(v);
            }
        Geo::setDataGeoProperty<Tavrel::Math::float4>(*cloud, "point_color", Geo::sPointComp,
                                                      colour, Tavrel::Math::float4{1, 1, 1, 1});
        for (char const* c : {"red", "green", "blue", "alpha"})
            if (byName.count(c))
                used[byName[c]] = 1;
    }
    // Vectors: names that differ only in a last x, y, z.
    for (std::size_t c = 0; c < columns.size(); ++c) {
        std::string const& name = columns[c].name;
        if (used[c] || name.size() < 2 || name.back() != 'x')
            continue;
        std::string const stem = name.substr(0, name.size() - 1);
        if (!byName.count(stem + "y") || !byName.count(stem + "z"))
            continue;
        std::size_t const cy = byName[stem + "y"], cz = byName[stem + "z"];
        if (used[cy] || used[cz])
            continue;
        std::string vector = stem;
        if (!vector.empty() && vector.back() == '_')
            vector.pop_back();
        if (vector.empty())
            continue;
        Quillon::Array<Tavrel::Math::float3> values(n);
        for (std::size_t i = 0; i < n; ++i)
            values[i] = {float(columns[c].values[i]), float(columns[cy].values[i]),
                         float(columns[cz].values[i])};
        Geo::setDataGeoProperty<Tavrel::Math::float3>(*cloud, vector, Geo::sPointComp, values,
                                                      Tavrel::Math::float3{0, 0, 0});
        used[c] = used[cy] = used[cz] = 1;
    }
    for (std::size_t c = 0; c < columns.size(); ++c) {
        if (used[c])
            continue;
        Quillon::Array<float> values(n);
        for (std::size_t i = 0; i < n; ++i)
            values[i] = float(columns[c].values[i]);
        Geo::setDataGeoProperty<float>(*cloud, columns[c].name, Geo::sPointComp, values, 0.0f);
    }
    return cloud;
}

// ---- PLY
// -------------------------------------------------------------------------------------------

struct PlyProperty {
    std::string name;
    int bytes = 0; ///< of the value, or of the list's elements
    bool isFloat = false;
    bool isSigned = false;
    bool list = false;
    int countBytes = 0; ///< of a list's count
};
struct PlyElement {
    std::string name;
    std::uint64_t count = 0;
    std::vector<PlyProperty> properties;
};

bool plyType(std::string const& t, int& bytes, bool& isFloat, bool& isSigned)
{
    static std::map<std::string, std::tuple<int, bool, bool>> const types = {
        {"char", {1, false, true}},    {"int8", {1, false, true}},    {"uchar", {1, false, false}},
        {"uint8", {1, false, false}},  {"short", {2, false, true}},   {"int16", {2, false, true}},
        {"ushort", {2, false, false}}, {"uint16", {2, false, false}}, {"int", {4, false, true}},
        {"int32", {4, false, true}},   {"uint", {4, false, false}},   {"uint32", {4, false, false}},
        {"float", {4, true, true}},    {"float32", {4, true, true}},  {"double", {8, true, true}},
        {"float64", {8, true, true}}};
    auto it = types.find(t);
    if (it == types.end())
        return false;
    std::tie(bytes, isFloat, isSigned) = it->second;
    return true;
}

double integerMax(PlyProperty const& p)
{
    if (p.isFloat)
        return 0.0;
    int const bits = 8 * p.bytes - (p.isSigned ? 1 : 0);
    return std::ldexp(1.0, bits) - 1.0;
}

/// One binary value of @p p, in the file's byte order.
bool readBinary(std::istream& in, int bytes, bool isFloat, bool isSigned, bool bigEndian,
                double& out)
{
    unsigned char b[8];
    if (!in.read(reinterpret_cast<char*>(b), bytes))
        return false;
    if (bigEndian != (std::endian::native == std::endian::big))
        std::reverse(b, b + bytes);
    switch (bytes) {
    case 1:
        out = isSigned ? double(std::int8_t(b[0])) : double(b[0]);
        return true;
    case 2: {
        std::uint16_t u;
        std::memcpy(&u, b, 2);
        out = isSigned ? double(std::int16_t(u)) : double(u);
        return true;
    }
    case 4: {
        if (isFloat) {
            float f;
            std::memcpy(&f, b, 4);
            out = f;
        } else {
            std::uint32_t u;
            std::memcpy(&u, b, 4);
            out = isSigned ? double(std::int32_t(u)) : double(u);
        }
        return true;
    }
    default: {
        double d;
        std::memcpy(&d, b, 8);
        out = d;
        return true;
    }
    }
}

Quillon::MutablePtr<Tavrel::Object> readPly(std::filesystem::path const& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        fail(path, "cannot be opened");
    std::string line;
    if (!std::getline(in, line))
        fail(path, "is empty");
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    if (line != "ply")
        fail(path, "does not start with \"ply\"");
    std::string format;
    std::vector<PlyElement> elements;
    bool ended = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::istringstream words(line);
        std::string key;
        words >> key;
        if (key == "format") {
            std::string version;
            words >> format >> version;
        } else if (key == "element") {
            PlyElement e;
            if (!(words >> e.name >> e.count))
                fail(path, "bad header line \"" + line + "\"");
            elements.push_back(e);
        } else if (key == "property") {
            if (elements.empty())
                fail(path, "a property before any element in the header");
            PlyProperty p;
            std::string type;
            words >> type;
            if (type == "list") {
                std::string countType, itemType;
                words >> countType >> itemType >> p.name;
                bool f, s;
                if (!plyType(countType, p.countBytes, f, s) ||
                    !plyType(itemType, p.bytes, p.isFloat, p.isSigned))
                    fail(path, "unknown property type in \"" + line + "\"");
                p.list = true;
            } else {
                words >> p.name;
                if (!plyType(type, p.bytes, p.isFloat, p.isSigned))
                    fail(path, "unknown property type \"" + type + "\"");
            }
            if (p.name.empty())
                fail(path, "bad header line \"" + line + "\"");
            elements.back().properties.push_back(p);
        } else if (key == "end_header") {
            ended = true;
            break;
        } else if (key != "comment" && key != "obj_info" && !key.empty()) {
            fail(path, "unknown header line \"" + line + "\"");
        }
    }
    if (!ended)
        fail(path, "the header has no end_header line");
    bool const ascii = format == "ascii";
    bool const big = format == "binary_big_endian";
    if (!ascii && !big && format != "binary_little_endian")
        fail(path, "unknown format \"" + format + "\"");
    std::vector<Column> columns;
    for (PlyElement const& e : elements) {
        bool const vertex = e.name == "vertex";
        if (vertex)
            for (PlyProperty const& p : e.properties) {
                if (p.list)
                    fail(path, "the vertex property \"" + p.name + "\" is a list");
                Column c;
                c.name = p.name;
                c.integerMax = integerMax(p);
                c.values.reserve(std::size_t(std::min<std::uint64_t>(e.count, 1u << 24)));
                columns.push_back(std::move(c));
            }
        for (std::uint64_t r = 0; r < e.count; ++r) {
            if (ascii) {
                if (!std::getline(in, line))
                    fail(path, "is truncated in element \"" + e.name + "\"");
                if (!vertex)
                    continue;
                std::istringstream words(line);
                for (std::size_t q = 0; q < e.properties.size(); ++q) {
                    std::string w;
                    double v;
                    if (!(words >> w))
                        fail(path, "vertex " + std::to_string(r) + " has too few values");
                    if (!parseNumber(w, v))
                        fail(path,
                             "vertex " + std::to_string(r) + ": \"" + w + "\" is not a number");
                    columns[q].values.push_back(v);
                }
            } else {
                for (std::size_t q = 0; q < e.properties.size(); ++q) {
                    PlyProperty const& p = e.properties[q];
                    double v = 0.0;
                    if (p.list) {
                        double count;
                        if (!readBinary(in, p.countBytes, false, false, big, count))
                            fail(path, "is truncated in element \"" + e.name + "\"");
                        in.seekg(std::streamoff(count) * p.bytes, std::ios::cur);
                        continue;
                    }
                    if (!readBinary(in, p.bytes, p.isFloat, p.isSigned, big, v))
                        fail(path, "is truncated in element \"" + e.name + "\"");
                    if (vertex)
                        columns[q].values.push_back(v);
                }
            }
        }
        if (vertex)
            break;
    }
    if (columns.empty())
        fail(path, "has no vertex element");
    return makeCloud(path, columns);
}

// ---- text
// ------------------------------------------------------------------------------------------

std::vector<std::string> splitWords(std::string const& line)
{
    std::vector<std::string> out;
    std::string w;
    for (char c : line) {
        if (c == ' ' || c == '\t' || c == ',' || c == '\r' || c == ';') {
            if (!w.empty())
                out.push_back(std::move(w)), w.clear();
        } else {
            w.push_back(c);
        }
    }
    if (!w.empty())
        out.push_back(std::move(w));
    return out;
}

Quillon::MutablePtr<Tavrel::Object> readText(std::filesystem::path const& path)
{
    std::ifstream in(path);
    if (!in)
        fail(path, "cannot be opened");
    std::vector<Column> columns;
    std::string line;
    std::size_t lineNumber = 0;
    bool first = true;
    while (std::getline(in, line)) {
        ++lineNumber;
        if (auto hash = line.find('#'); hash != std::string::npos)
            line.resize(hash);
        std::vector<std::string> const words = splitWords(line);
        if (words.empty())
            continue;
        std::vector<double> numbers(words.size());
        bool allNumbers = true;
        for (std::size_t q = 0; q < words.size(); ++q)
            allNumbers = allNumbers && parseNumber(words[q], numbers[q]);
        if (first) {
            first = false;
            if (!allNumbers) {
                for (std::string const& w : words)
                    columns.push_back(Column{lower(w), {}, 0.0});
                continue;
            }
            if (words.size() < 3)
                fail(path, "line " + std::to_string(lineNumber) + " has fewer than three numbers");
            char const* names[] = {"x", "y", "z", "radius"};
            for (std::size_t q = 0; q < words.size(); ++q)
                columns.push_back(
                    Column{q < 4 ? names[q] : std::string("c").append(std::to_string(q)), {}, 0.0});
        }
        if (words.size() != columns.size())
            fail(path, "line " + std::to_string(lineNumber) + " has " +
                           std::to_string(words.size()) + " values, not " +
                           std::to_string(columns.size()));
        if (!allNumbers)
            for (std::size_t q = 0; q < words.size(); ++q)
                if (!parseNumber(words[q], numbers[q]))
                    fail(path, "line " + std::to_string(lineNumber) + ": \"" + words[q] +
                                   "\" is not a number");
        for (std::size_t q = 0; q < words.size(); ++q)
            columns[q].values.push_back(numbers[q]);
    }
    if (in.bad())
        fail(path, "cannot be read");
    if (columns.empty())
        fail(path, "is empty");
    return makeCloud(path, columns);
}

} // namespace

Quillon::MutablePtr<Tavrel::Object> readPoints(std::filesystem::path const& path)
{
    std::error_code ec;
    if (!std::filesystem::exists(path, ec))
        fail(path, "does not exist");
    if (std::filesystem::is_directory(path, ec))
        fail(path, "is a folder");
    std::string const ext = lower(path.extension().string());
    if (ext == ".ply")
        return readPly(path);
    if (ext == ".xyz" || ext == ".txt" || ext == ".csv" || ext == ".pts")
        return readText(path);
    fail(path, "has an unknown extension \"" + path.extension().string() +
                   "\" (.ply, .xyz, .txt, .csv, .pts)");
}

} // namespace hexmold::io
