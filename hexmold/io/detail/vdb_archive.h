/// @file  io/detail/vdb_archive.h
/// @brief What the .vdb functions share: reading a whole file, the checks before OpenVDB sees
///        its bytes, parsing an archive from memory, and writing an archive with its checksum
///        trailer under a temporary name.
/// @details Only for sources built with OpenVDB.
#pragma once
#include <filesystem>
#include <hexmold/io/volume_file.h>
#include <openvdb/openvdb.h>
#include <string>
#include <string_view>

namespace hexmold::io::detail {

/// `openvdb::initialize()`, once per process.
void initializeOpenVdb();

/// [[noreturn]] IoError(path, reason).
[[noreturn]] void fail(std::filesystem::path const& path, std::string const& reason);

/// The whole content of the regular file @p path; throws IoError when it is missing, not a
/// regular file, unreadable or empty.
std::string readWholeFile(std::filesystem::path const& path);

/// Whether @p bytes start with OpenVDB's magic number.
bool hasVdbMagic(std::string_view bytes);

/// Whether the bytes look like a Hexmold volume file: its file metadata, which comes right after
/// the archive header, holds "hexmold." names.
bool looksLikeVolumeFile(std::string_view bytes);

/// The grids and file metadata of an archive.
struct Archive {
    openvdb::GridPtrVecPtr grids;
    openvdb::MetaMap::Ptr metadata;
};

/// Parses the OpenVDB archive @p bytes (all grids loaded); any OpenVDB error becomes IoError.
Archive parseArchive(std::filesystem::path const& path, std::string_view bytes);

/// Writes @p grids and @p metadata as an OpenVDB archive followed by the checksum trailer:
/// to a temporary file next to @p path, renamed into place when complete.
void writeArchive(std::filesystem::path const& path, openvdb::GridCPtrVec const& grids,
                  openvdb::MetaMap const& metadata, VolumeCompression compression);

/// The file metadata value @p name of type MetaT, or null when absent or of another type.
template <typename MetaT>
MetaT const* findMeta(openvdb::MetaMap const& map, std::string const& name)
{
    openvdb::Metadata::ConstPtr m = map[name];
    return dynamic_cast<MetaT const*>(m.get());
}

} // namespace hexmold::io::detail
