/// @file  io/detail/check_mesh_file.cpp
/// @brief Structural checks of PLY, OFF and STL files.
#include <hexmold/io/detail/check_mesh_file.h>

#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <vector>

namespace hexmold::io::detail {

namespace {

using Tokens = std::vector<std::string_view>;

/// Lines of a text, without their '\n' or "\r\n"; counts them from 1.
class LineReader {
public:
    /// Lines of @p text from offset @p start, which is line @p linesBefore + 1 of the file.
    explicit LineReader(std::string_view text, std::size_t start = 0, std::size_t linesBefore = 0)
        : mText(text), mPos(start), mLineNumber(linesBefore)
    {
    }

    bool next(std::string_view& out_line)
    {
        if (mPos >= mText.size())
            return false;
        std::size_t end = mText.find('\n', mPos);
        if (end == std::string_view::npos)
            end = mText.size();
        out_line = mText.substr(mPos, end - mPos);
        if (!out_line.empty() && out_line.back() == '\r')
            out_line.remove_suffix(1);
        mPos = end + 1;
        ++mLineNumber;
        return true;
    }
    /// Number of the line `next` gave last.
    std::size_t lineNumber() const { return mLineNumber; }
    /// Offset of the first byte after the line `next` gave last.
    std::size_t position() const { return mPos; }

private:
    std::string_view mText;
    std::size_t mPos;
    std::size_t mLineNumber;
};

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

void tokenize(std::string_view line, Tokens& out_tokens)
{
    out_tokens.clear();
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && isSpace(line[i]))
            ++i;
        std::size_t const start = i;
        while (i < line.size() && !isSpace(line[i]))
            ++i;
        if (i > start)
            out_tokens.push_back(line.substr(start, i - start));
    }
}

std::string_view withoutPlus(std::string_view token)
{
    if (token.size() > 1 && token[0] == '+')
        token.remove_prefix(1);
    return token;
}

/// A decimal number as strtod reads it, "nan" and "inf" included; an overflow still counts as a
/// number (it reads as infinite, which the reader refuses later as a non-finite coordinate).
bool isNumber(std::string_view token)
{
    token = withoutPlus(token);
    double value = 0.0;
    auto const [end, ec] = std::from_chars(token.data(), token.data() + token.size(), value);
    return (ec == std::errc() || ec == std::errc::result_out_of_range) &&
           end == token.data() + token.size();
}

bool parseInteger(std::string_view token, std::int64_t& out_value)
{
    token = withoutPlus(token);
    auto const [end, ec] = std::from_chars(token.data(), token.data() + token.size(), out_value);
    return ec == std::errc() && end == token.data() + token.size();
}

std::string quoted(std::string_view text)
{
    constexpr std::size_t kMaxShown = 60; // a binary file's "line" can be any length
    // Appended piece by piece: GCC 12 warns falsely (-Wrestrict) about "literal" + string.
    std::string out(1, '\'');
    out.append(text.substr(0, kMaxShown));
    out.append(text.size() > kMaxShown ? "...'" : "'");
    return out;
}

std::string lineText(std::size_t lineNumber)
{
    return "line " + std::to_string(lineNumber);
}

// ---- PLY --------------------------------------------------------------------------------------

struct PlyType {
    std::string_view name;
    int size;       ///< bytes in binary files
    bool isInteger; ///< list lengths and indices must be integers
    bool isSigned;
};

constexpr std::array<PlyType, 16> kPlyTypes{{{"char", 1, true, true},
                                             {"int8", 1, true, true},
                                             {"uchar", 1, true, false},
                                             {"uint8", 1, true, false},
                                             {"short", 2, true, true},
                                             {"int16", 2, true, true},
                                             {"ushort", 2, true, false},
                                             {"uint16", 2, true, false},
                                             {"int", 4, true, true},
                                             {"int32", 4, true, true},
                                             {"uint", 4, true, false},
                                             {"uint32", 4, true, false},
                                             {"float", 4, false, true},
                                             {"float32", 4, false, true},
                                             {"double", 8, false, true},
                                             {"float64", 8, false, true}}};

PlyType const* findPlyType(std::string_view name)
{
    for (auto const& type : kPlyTypes)
        if (type.name == name)
            return &type;
    return nullptr;
}

struct PlyProperty {
    PlyType const* type = nullptr;      ///< of the value, or of each list entry
    PlyType const* countType = nullptr; ///< of a list's length; null for a single value
};

struct PlyElement {
    std::string name;
    std::uint64_t count = 0;
    std::vector<PlyProperty> properties;
};

enum class PlyFormat { kNone, kAscii, kBinaryLittleEndian, kBinaryBigEndian };

struct PlyHeader {
    PlyFormat format = PlyFormat::kNone;
    std::vector<PlyElement> elements;
    std::size_t bodyStart = 0;   ///< offset of the first byte after "end_header\n"
    std::size_t headerLines = 0; ///< lines up to and with "end_header"
};

/// Parses the header into @p out_header; answers the problem, or empty.
std::string parsePlyHeader(std::string_view bytes, PlyHeader& out_header)
{
    LineReader lines(bytes);
    std::string_view line;
    Tokens tokens;
    if (!lines.next(line))
        return "malformed PLY: the file is empty";
    tokenize(line, tokens);
    if (tokens.size() != 1 || tokens[0] != "ply")
        return "malformed PLY: the first line is not 'ply'";
    while (lines.next(line)) {
        tokenize(line, tokens);
        std::string const where =
            "malformed PLY header, " + lineText(lines.lineNumber()) + " " + quoted(line) + ": ";
        if (tokens.empty())
            continue;
        std::string_view const keyword = tokens[0];
        // A header line without its newline is where a cut file ends.
        if (lines.position() > bytes.size() && keyword != "end_header")
            break;
        if (keyword == "comment" || keyword == "obj_info")
            continue;
        if (keyword == "end_header") {
            if (out_header.format == PlyFormat::kNone)
                return "malformed PLY: the header has no format line";
            out_header.bodyStart = lines.position();
            out_header.headerLines = lines.lineNumber();
            return {};
        }
        if (keyword == "format") {
            if (tokens.size() != 3)
                return where + "expected 'format <kind> 1.0'";
            if (tokens[1] == "ascii")
                out_header.format = PlyFormat::kAscii;
            else if (tokens[1] == "binary_little_endian")
                out_header.format = PlyFormat::kBinaryLittleEndian;
            else if (tokens[1] == "binary_big_endian")
                out_header.format = PlyFormat::kBinaryBigEndian;
            else
                return where + "unknown format";
        } else if (keyword == "element") {
            std::int64_t count = 0;
            if (tokens.size() != 3 || !parseInteger(tokens[2], count) || count < 0)
                return where + "expected 'element <name> <count>'";
            out_header.elements.push_back(
                {std::string(tokens[1]), static_cast<std::uint64_t>(count), {}});
        } else if (keyword == "property") {
            if (out_header.elements.empty())
                return where + "a property before any element";
            PlyProperty property;
            if (tokens.size() == 5 && tokens[1] == "list") {
                property.countType = findPlyType(tokens[2]);
                property.type = findPlyType(tokens[3]);
                if (!property.countType || !property.countType->isInteger || !property.type)
                    return where + "unknown or non-integer list type";
            } else if (tokens.size() == 3) {
                property.type = findPlyType(tokens[1]);
                if (!property.type)
                    return where + "unknown type";
            } else {
                return where + "expected 'property <type> <name>' or 'property list <type> "
                               "<type> <name>'";
            }
            out_header.elements.back().properties.push_back(property);
        } else {
            return where + "unknown keyword";
        }
    }
    return "truncated PLY: the header has no end_header line";
}

std::int64_t readBinaryInteger(unsigned char const* p, PlyType const& type, bool bigEndian)
{
    std::uint64_t bits = 0;
    for (int i = 0; i < type.size; ++i) {
        int const byte = bigEndian ? i : type.size - 1 - i;
        bits = (bits << 8) | p[byte];
    }
    if (type.isSigned && type.size < 8 && (bits >> (8 * type.size - 1)) != 0)
        return static_cast<std::int64_t>(bits) - (std::int64_t(1) << (8 * type.size));
    return static_cast<std::int64_t>(bits);
}

std::string checkPlyBinaryBody(std::string_view bytes, PlyHeader const& header)
{
    bool const bigEndian = header.format == PlyFormat::kBinaryBigEndian;
    auto const* data = reinterpret_cast<unsigned char const*>(bytes.data());
    std::uint64_t const size = bytes.size();
    std::uint64_t pos = header.bodyStart;
    for (auto const& element : header.elements) {
        auto const truncated = [&](std::uint64_t instance) {
            return "truncated PLY: the binary body ends inside '" + element.name + "' element " +
                   std::to_string(instance) + " of " + std::to_string(element.count);
        };
        bool hasList = false;
        std::uint64_t fixedSize = 0;
        for (auto const& property : element.properties) {
            hasList = hasList || property.countType;
            fixedSize += property.type->size;
        }
        if (!hasList) {
            // Without lists every element has the same size: one multiplication, whatever the
            // count says.
            std::uint64_t const available = size - pos;
            if (fixedSize != 0 && element.count > available / fixedSize)
                return truncated(available / fixedSize);
            pos += element.count * fixedSize;
            continue;
        }
        // Each element holds at least one list length, so the loop ends with the file.
        for (std::uint64_t instance = 0; instance < element.count; ++instance) {
            for (auto const& property : element.properties) {
                if (!property.countType) {
                    if (size - pos < std::uint64_t(property.type->size))
                        return truncated(instance);
                    pos += property.type->size;
                    continue;
                }
                if (size - pos < std::uint64_t(property.countType->size))
                    return truncated(instance);
                std::int64_t const length =
                    readBinaryInteger(data + pos, *property.countType, bigEndian);
                pos += property.countType->size;
                if (length < 0)
                    return "malformed PLY: '" + element.name + "' element " +
                           std::to_string(instance) + " has a list of negative length";
                if (std::uint64_t(length) > (size - pos) / property.type->size)
                    return truncated(instance);
                pos += std::uint64_t(length) * property.type->size;
            }
        }
    }
    return {};
}

std::string checkPlyAsciiBody(std::string_view bytes, PlyHeader const& header)
{
    LineReader lines(bytes, header.bodyStart, header.headerLines);
    std::string_view line;
    Tokens tokens;
    for (auto const& element : header.elements) {
        if (element.properties.empty())
            continue;
        for (std::uint64_t instance = 0; instance < element.count; ++instance) {
            do {
                if (!lines.next(line))
                    return "truncated PLY: the file ends after " + std::to_string(instance) +
                           " of " + std::to_string(element.count) + " '" + element.name +
                           "' elements";
                tokenize(line, tokens);
            } while (tokens.empty());
            auto const where = [&] {
                return "malformed PLY, " + lineText(lines.lineNumber()) + " ('" + element.name +
                       "' element " + std::to_string(instance) + "): ";
            };
            // Too few values on the file's last line: the file was cut there.
            auto const tooFew = [&] {
                if (lines.position() >= bytes.size())
                    return "truncated PLY: the file ends inside '" + element.name + "' element " +
                           std::to_string(instance) + " of " + std::to_string(element.count);
                return where() + "too few values";
            };
            std::size_t t = 0;
            for (auto const& property : element.properties) {
                std::int64_t length = 1;
                if (property.countType) {
                    if (t == tokens.size())
                        return tooFew();
                    if (!parseInteger(tokens[t], length) || length < 0)
                        return where() + "list length " + quoted(tokens[t]) +
                               " is not a non-negative integer";
                    ++t;
                }
                if (std::uint64_t(length) > tokens.size() - t)
                    return tooFew();
                for (std::int64_t i = 0; i < length; ++i, ++t) {
                    std::int64_t integer = 0;
                    bool const valid = property.countType && property.type->isInteger
                                           ? parseInteger(tokens[t], integer)
                                           : isNumber(tokens[t]);
                    if (!valid)
                        return where() + "value " + quoted(tokens[t]) + " is not a number";
                }
            }
            if (t != tokens.size())
                return where() + std::to_string(tokens.size()) + " values where the header gives " +
                       std::to_string(t);
        }
    }
    return {};
}

// ---- OFF --------------------------------------------------------------------------------------

/// Next line with a token, comments ('#' to the end of the line) removed; false at the end.
bool nextOffTokens(LineReader& lines, Tokens& out_tokens)
{
    std::string_view line;
    while (lines.next(line)) {
        std::size_t const hash = line.find('#');
        if (hash != std::string_view::npos)
            line = line.substr(0, hash);
        tokenize(line, out_tokens);
        if (!out_tokens.empty())
            return true;
    }
    return false;
}

} // namespace

std::string plyProblem(std::string_view bytes)
{
    PlyHeader header;
    if (std::string problem = parsePlyHeader(bytes, header); !problem.empty())
        return problem;
    return header.format == PlyFormat::kAscii ? checkPlyAsciiBody(bytes, header)
                                              : checkPlyBinaryBody(bytes, header);
}

std::string offProblem(std::string_view bytes)
{
    LineReader lines(bytes);
    Tokens tokens;
    if (!nextOffTokens(lines, tokens))
        return "malformed OFF: the file has no content";
    // Numbers per vertex line of each variant Assimp reads right: position, then normal, RGBA
    // colour or texture coordinates.
    std::size_t valuesPerVertex = 0;
    std::string_view const keyword = tokens[0];
    if (keyword == "OFF")
        valuesPerVertex = 3;
    else if (keyword == "NOFF")
        valuesPerVertex = 6;
    else if (keyword == "COFF")
        valuesPerVertex = 7;
    else if (keyword == "STOFF")
        valuesPerVertex = 5;
    else if (keyword.size() > 3 && keyword.substr(keyword.size() - 3) == "OFF")
        return "unsupported OFF variant " + quoted(keyword) +
               " (OFF, COFF, NOFF and STOFF are read)";
    else
        return "malformed OFF: the first line is not OFF, COFF, NOFF or STOFF";

    // The counts follow on the keyword's line or on the next one.
    tokens.erase(tokens.begin());
    if (tokens.empty() && !nextOffTokens(lines, tokens))
        return "truncated OFF: the file ends before the vertex, face and edge counts";
    std::int64_t vertexCount = 0;
    std::int64_t faceCount = 0;
    std::int64_t edgeCount = 0;
    if (tokens.size() < 2 || tokens.size() > 3 || !parseInteger(tokens[0], vertexCount) ||
        !parseInteger(tokens[1], faceCount) ||
        (tokens.size() == 3 && !parseInteger(tokens[2], edgeCount)) || vertexCount < 0 ||
        faceCount < 0)
        return "malformed OFF, " + lineText(lines.lineNumber()) +
               ": expected the vertex, face and edge counts";

    for (std::int64_t v = 0; v < vertexCount; ++v) {
        if (!nextOffTokens(lines, tokens))
            return "truncated OFF: the file ends after " + std::to_string(v) + " of " +
                   std::to_string(vertexCount) + " vertices";
        auto const where = [&] {
            return "malformed OFF, " + lineText(lines.lineNumber()) + " (vertex " +
                   std::to_string(v) + "): ";
        };
        if (tokens.size() < valuesPerVertex && lines.position() >= bytes.size())
            return "truncated OFF: the file ends inside vertex " + std::to_string(v) + " of " +
                   std::to_string(vertexCount);
        if (tokens.size() < valuesPerVertex)
            return where() + std::to_string(tokens.size()) + " numbers, " + std::string(keyword) +
                   " needs " + std::to_string(valuesPerVertex);
        for (std::size_t i = 0; i < valuesPerVertex; ++i)
            if (!isNumber(tokens[i]))
                return where() + quoted(tokens[i]) + " is not a number";
    }
    for (std::int64_t f = 0; f < faceCount; ++f) {
        if (!nextOffTokens(lines, tokens))
            return "truncated OFF: the file ends after " + std::to_string(f) + " of " +
                   std::to_string(faceCount) + " faces";
        auto const where = [&] {
            return "malformed OFF, " + lineText(lines.lineNumber()) + " (face " +
                   std::to_string(f) + "): ";
        };
        std::int64_t corners = 0;
        if (!parseInteger(tokens[0], corners) || corners < 0)
            return where() + "the corner count " + quoted(tokens[0]) +
                   " is not a non-negative integer";
        if (std::uint64_t(corners) > tokens.size() - 1 && lines.position() >= bytes.size())
            return "truncated OFF: the file ends inside face " + std::to_string(f) + " of " +
                   std::to_string(faceCount);
        if (std::uint64_t(corners) > tokens.size() - 1)
            return where() + "fewer indices than its corner count " + std::to_string(corners);
        for (std::int64_t i = 1; i <= corners; ++i) {
            std::int64_t index = 0;
            if (!parseInteger(tokens[i], index))
                return where() + "index " + quoted(tokens[i]) + " is not an integer";
            if (index < 0 || index >= vertexCount)
                return "face index out of range, " + lineText(lines.lineNumber()) + ": face " +
                       std::to_string(f) + " refers to vertex " + std::to_string(index) +
                       ", the file has " + std::to_string(vertexCount) + " vertices";
        }
    }
    return {};
}

std::string stlProblem(std::string_view head, std::string_view tail, std::uint64_t size)
{
    constexpr std::uint64_t kHeaderBytes = 84;   // 80 free bytes, then the triangle count
    constexpr std::uint64_t kTriangleBytes = 50; // normal, three corners, attribute word
    // A file is binary when its size is what its triangle count needs; some writers start even
    // binary files with "solid", so that word alone says nothing. A text file has no NUL byte.
    if (size >= kHeaderBytes && head.size() >= kHeaderBytes) {
        std::uint32_t count = 0;
        std::memcpy(&count, head.data() + 80, sizeof(count));
        if (size == kHeaderBytes + kTriangleBytes * count)
            return {};
    }
    std::size_t first = 0;
    while (first < head.size() && (isSpace(head[first]) || head[first] == '\n'))
        ++first;
    bool const isText = head.find('\0') == std::string_view::npos;
    if (isText && head.substr(first, 5) == "solid") {
        std::size_t last = tail.size();
        while (last > 0 && (isSpace(tail[last - 1]) || tail[last - 1] == '\n'))
            --last;
        // The last line is "endsolid" with an optional name.
        std::size_t const lineStart = tail.substr(0, last).rfind('\n');
        std::string_view const lastLine =
            tail.substr(lineStart == std::string_view::npos ? 0 : lineStart + 1);
        std::size_t word = 0;
        while (word < lastLine.size() && isSpace(lastLine[word]))
            ++word;
        if (lastLine.substr(word, 8) != "endsolid")
            return "truncated ASCII STL: its last line is not 'endsolid'";
        return {};
    }
    if (size < kHeaderBytes)
        return "truncated binary STL: " + std::to_string(size) +
               " bytes, shorter than the 84-byte header";
    std::uint32_t count = 0;
    std::memcpy(&count, head.data() + 80, sizeof(count));
    std::uint64_t const expected = kHeaderBytes + kTriangleBytes * count;
    return std::string(size < expected ? "truncated binary STL: " : "malformed binary STL: ") +
           std::to_string(count) + " triangles take " + std::to_string(expected) +
           " bytes, the file has " + std::to_string(size);
}

} // namespace hexmold::io::detail
