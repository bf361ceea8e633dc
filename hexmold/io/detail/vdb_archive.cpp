/// @file  io/detail/vdb_archive.cpp
/// @brief Whole-file reads, the checks before OpenVDB, in-memory parsing and checksummed writes.
#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/io/detail/vdb_archive.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <hexmold/io/detail/volume_checksum.h>
#include <mutex>
#include <openvdb/io/File.h>
#include <openvdb/io/Stream.h>
#include <random>
#include <streambuf>
#include <system_error>

namespace hexmold::io::detail {

namespace {

/// An input stream buffer over bytes in memory, with the seeks OpenVDB's readers use.
class MemoryBuffer : public std::streambuf {
public:
    MemoryBuffer(char const* data, std::size_t size)
    {
        char* p = const_cast<char*>(data);
        setg(p, p, p + size);
    }

protected:
    pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode) override
    {
        char* const target = dir == std::ios_base::beg   ? eback() + off
                             : dir == std::ios_base::cur ? gptr() + off
                                                         : egptr() + off;
        if (target < eback() || target > egptr())
            return pos_type(off_type(-1));
        setg(eback(), target, egptr());
        return pos_type(target - eback());
    }
    pos_type seekpos(pos_type pos, std::ios_base::openmode mode) override
    {
        return seekoff(off_type(pos), std::ios_base::beg, mode);
    }
};

std::string systemReason(std::error_code const& error)
{
    return error ? error.message() : std::string("unknown error");
}

} // namespace

void initializeOpenVdb()
{
    static std::once_flag once;
    std::call_once(once, [] { openvdb::initialize(); });
}

void fail(std::filesystem::path const& path, std::string const& reason)
{
    throw IoError(path.string(), reason);
}

std::string readWholeFile(std::filesystem::path const& path)
{
    std::error_code error;
    auto const status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found)
        fail(path, "no such file");
    if (error)
        fail(path, "cannot be examined: " + systemReason(error));
    if (status.type() == std::filesystem::file_type::directory)
        fail(path, "is a folder, not a file");
    if (status.type() != std::filesystem::file_type::regular)
        fail(path, "is not a regular file");
    std::ifstream in(path, std::ios::binary);
    if (!in)
        fail(path, std::string("cannot be opened: ") + std::strerror(errno));
    std::string bytes;
    in.seekg(0, std::ios::end);
    std::streamoff const size = in.tellg();
    if (size < 0)
        fail(path, "cannot be read");
    bytes.resize(static_cast<std::size_t>(size));
    in.seekg(0, std::ios::beg);
    in.read(bytes.data(), size);
    if (in.gcount() != size)
        fail(path, "cannot be read to its end");
    if (bytes.empty())
        fail(path, "is empty");
    return bytes;
}

bool hasVdbMagic(std::string_view bytes)
{
    // OpenVDB's magic number, the int64 0x56444220, little-endian.
    static constexpr char kMagic[8] = {0x20, 0x42, 0x44, 0x56, 0, 0, 0, 0};
    return bytes.size() >= 8 && std::memcmp(bytes.data(), kMagic, 8) == 0;
}

bool looksLikeVolumeFile(std::string_view bytes)
{
    // The header is some 60 bytes; the first metadata name follows it.
    return bytes.substr(0, 512).find("hexmold.") != std::string_view::npos;
}

Archive parseArchive(std::filesystem::path const& path, std::string_view bytes)
{
    initializeOpenVdb();
    MemoryBuffer buffer(bytes.data(), bytes.size());
    std::istream in(&buffer);
    try {
        openvdb::io::Stream stream(in, /*delayLoad=*/false);
        Archive archive{stream.getGrids(), stream.getMetadata()};
        if (!archive.grids || !archive.metadata)
            fail(path, "OpenVDB found no grids in it");
        return archive;
    } catch (IoError const&) {
        throw;
    } catch (openvdb::Exception const& e) {
        fail(path, std::string("OpenVDB cannot read it: ") + e.what());
    } catch (std::exception const& e) {
        fail(path, std::string("OpenVDB cannot read it: ") + e.what());
    }
}

void writeArchive(std::filesystem::path const& path, openvdb::GridCPtrVec const& grids,
                  openvdb::MetaMap const& metadata, VolumeCompression compression)
{
    initializeOpenVdb();
    // A name of our own in the target's folder, so that the rename stays on one file system.
    static std::atomic<unsigned> counter{0};
    std::random_device random;
    std::filesystem::path temp = path;
    temp += ".tmp-" + std::to_string(random()) + "-" + std::to_string(counter++);
    auto removeTemp = [&] {
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
    };
    try {
        openvdb::io::File file(temp.string());
        std::uint32_t flags = openvdb::io::COMPRESS_ACTIVE_MASK;
        if (compression == VolumeCompression::kBlosc)
            flags |= openvdb::io::Archive::hasBloscCompression() ? openvdb::io::COMPRESS_BLOSC
                                                                 : openvdb::io::COMPRESS_ZIP;
        else if (compression == VolumeCompression::kZip)
            flags |= openvdb::io::COMPRESS_ZIP;
        file.setCompression(flags);
        file.write(grids, metadata);
        file.close();
    } catch (openvdb::Exception const& e) {
        removeTemp();
        fail(path, std::string("cannot be written: ") + e.what());
    }
    // The trailer: the hash of everything OpenVDB wrote.
    std::string archive;
    {
        std::ifstream in(temp, std::ios::binary);
        if (!in) {
            removeTemp();
            fail(path, "cannot be written: the temporary file cannot be read back");
        }
        archive.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    {
        std::ofstream out(temp, std::ios::binary | std::ios::app);
        std::string const trailer = makeTrailer(archive);
        out.write(trailer.data(), static_cast<std::streamsize>(trailer.size()));
        out.close();
        if (!out) {
            removeTemp();
            fail(path, std::string("cannot be written: ") + std::strerror(errno));
        }
    }
    std::error_code error;
    std::filesystem::rename(temp, path, error);
    if (error) {
        removeTemp();
        fail(path, "cannot be written: " + systemReason(error));
    }
}

} // namespace hexmold::io::detail

#endif // HEXMOLD_HAVE_OPENVDB
