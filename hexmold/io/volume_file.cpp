/// @file  io/volume_file.cpp
/// @brief The entry points of volume files: which tree an object holds, the checks of a file
///        before OpenVDB parses it (magic, trailer, format version, tree instance), and the
///        hand-over to the writer or reader of that tree (detail/volume_file_impl.h).
#include <hexmold/io/volume_file.h>

#if HEXMOLD_HAVE_OPENVDB

#include <algorithm>
#include <fstream>
#include <hexmold/io/detail/volume_checksum.h>
#include <hexmold/io/detail/volume_file_impl.h>
#include <string>

HEXMOLD_IO_VOLUME_FILE_INSTANCES(extern, Traits24)
HEXMOLD_IO_VOLUME_FILE_INSTANCES(extern, Traits55)

namespace hexmold::io {

using namespace TVL::TileTree3D;
using namespace volume_file;
using detail::fail;
using Path = std::filesystem::path;

bool volumeFilesAvailable()
{
    return true;
}

bool isVolumeFile(Path const& path)
{
    std::ifstream in(path, std::ios::binary);
    std::string head(512, '\0');
    in.read(head.data(), std::streamsize(head.size()));
    head.resize(static_cast<std::size_t>(std::max<std::streamsize>(in.gcount(), 0)));
    return detail::hasVdbMagic(head) && detail::looksLikeVolumeFile(head);
}

void writeVolume(Path const& path, TVL::Object const& object, VolumeWriteOptions const& options)
{
    Quillon::Ptr<Container<Traits24>> tree24;
    Quillon::Ptr<Container<Traits55>> tree55;
    int trees = 0;
    for (auto const& name : object.componentRange()) {
        auto c = object.component(name);
        if (auto t = object.component<Container<Traits24>>(name))
            tree24 = t, ++trees;
        if (auto t = object.component<Container<Traits55>>(name))
            tree55 = t, ++trees;
    }
    if (trees == 0)
        fail(path, "the object holds no tile tree to write");
    if (trees > 1)
        fail(path, "the object holds more than one tile tree");
    try {
        if (tree24)
            writeVolumeOf<Traits24>(path, object, *tree24, options);
        else
            writeVolumeOf<Traits55>(path, object, *tree55, options);
    } catch (IoError const&) {
        throw;
    } catch (std::exception const& e) {
        fail(path, std::string("cannot be written: ") + e.what());
    }
}

Quillon::Ptr<TVL::Object> readVolume(Path const& path)
{
    std::string const bytes = detail::readWholeFile(path);
    if (!detail::hasVdbMagic(bytes))
        fail(path, "is not an OpenVDB (.vdb) file");
    switch (detail::checkTrailer(bytes)) {
    case detail::TrailerState::kValid:
        break;
    case detail::TrailerState::kMissing:
        if (detail::looksLikeVolumeFile(bytes))
            fail(path, "is truncated or damaged: its checksum trailer is missing");
        fail(path, "holds no Hexmold volume: it is a plain OpenVDB file (importLevelSet reads "
                   "level-set grids from such files), or a truncated volume file");
    case detail::TrailerState::kLength:
        fail(path, "is truncated or damaged: its length differs from the one its trailer records");
    case detail::TrailerState::kMismatch:
        fail(path, "is damaged: its checksum does not match its content");
    }
    std::string_view const payload(bytes.data(), bytes.size() - detail::kTrailerSize);
    detail::Archive const archive = detail::parseArchive(path, payload);
    MetaReader const meta{path, *archive.metadata};
    if (!(*archive.metadata)[kMetaVersion])
        fail(path,
             "holds no Hexmold volume: it lacks the metadata '" + std::string(kMetaVersion) + "'");
    int const version = meta.integer(kMetaVersion);
    if (version != kVolumeFormatVersion)
        fail(path, "has volume format version " + std::to_string(version) +
                       "; this build reads version " + std::to_string(kVolumeFormatVersion));
    std::string const traits = meta.text(kMetaTraits);
    try {
        if (traits == traitsName<Traits24>())
            return readVolumeOf<Traits24>(path, archive);
        if (traits == traitsName<Traits55>())
            return readVolumeOf<Traits55>(path, archive);
    } catch (IoError const&) {
        throw;
    } catch (std::exception const& e) {
        fail(path, std::string("cannot be read: ") + e.what());
    }
    fail(path, "has the unknown tree instance '" + traits + "' (known: 2,4,1 and 5,5,1)");
}

} // namespace hexmold::io

#else // no OpenVDB

namespace hexmold::io {

namespace {
[[noreturn]] void unavailable(std::filesystem::path const& path)
{
    throw IoError(path.string(),
                  "this build of Hexmold has no OpenVDB, so it cannot read or write .vdb files");
}
} // namespace

bool volumeFilesAvailable()
{
    return false;
}
bool isVolumeFile(std::filesystem::path const&)
{
    return false;
}
void writeVolume(std::filesystem::path const& path, TVL::Object const&, VolumeWriteOptions const&)
{
    unavailable(path);
}
Quillon::Ptr<TVL::Object> readVolume(std::filesystem::path const& path)
{
    unavailable(path);
}

} // namespace hexmold::io

#endif
