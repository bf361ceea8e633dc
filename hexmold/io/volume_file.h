/// @file  io/volume_file.h
/// @brief Whole volume objects in .vdb files, lossless: `writeVolume` and `readVolume`.
/// @details A volume file is an OpenVDB archive that any OpenVDB reader opens:
///          - for each channel and each depth that has tiles in the channel's depth range, one
///            grid holding exactly the voxels of that depth's tiles, all of them active, named
///            "<channel>.d<depth>". Its transform has the depth's voxel size
///            (`voxelDataWidth(d) * voxelSize`) and puts each voxel's sample where the topology
///            says it sits (the voxel centre for offset type 7, its minimum corner for 0);
///          - element types OpenVDB has no grid for are widened: 8- and 16-bit integers into
///            int32 grids, 32-bit unsigned and 64-bit integers into int64 grids (unsigned 64-bit
///            values keep their bits), float2, float4 and the matrices into one or more float
///            vector grids of three components each ("<channel>.d<depth>.p<part>", padded with
///            zeros); each grid names the original type in its metadata;
///          - for each depth with tiles, an int32 grid "hexmold_tiles.d<depth>" of one active
///            voxel per tile (voxel size the depth's tile width, centred on the tile) whose value
///            is the tile's place in its depth's tile array, so that tiles whose voxels all hold
///            the background round-trip as well, in the same order;
///          - file metadata ("hexmold.*") for everything else: the format version, the tree
///            instance, voxel size, offset type, refinement error, the names of tree and
///            topology, tile counts per depth and, per channel, its name, element type, default
///            value (its exact bytes), depth range and initialiser;
///          - a 24-byte checksum trailer after the archive (see detail/volume_checksum.h):
///            `readVolume` checks every byte before OpenVDB parses any.
///
///          Only OpenVDB's registered grid types are used, so vdb_print, vdb_view and Houdini
///          read the files; Blosc or zip compression as OpenVDB offers it.
///
///          Without OpenVDB at build time (`volumeFilesAvailable()` false) the functions exist
///          and throw `IoError` saying so.
#pragma once
#include <filesystem>
#include <hexmold/io/export.h>
#include <hexmold/io/io_error.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/substrate/object.h>

namespace hexmold::io {

/// Compression of the grids in a .vdb file.
enum class VolumeCompression : int {
    kBlosc = 0, ///< Blosc (LZ4), falling back to zip when OpenVDB was built without Blosc
    kZip = 1,   ///< zlib
    kNone = 2,  ///< none (fastest to write and read, largest)
};

/// How `writeVolume` writes.
struct VolumeWriteOptions {
    VolumeCompression compression = VolumeCompression::kBlosc;
    /// Store the grids of float channels (float and its vector and matrix forms) as 16-bit
    /// floats: about half the file, no longer lossless. Each value comes back with a relative
    /// error of at most 2^-11 (a distance within 2 voxels of the surface: at most 0.001 voxel).
    /// A grid keeps 32 bits when a value is not finite or beyond the 16-bit range (65504) and is
    /// not plus or minus the channel's default magnitude; those far values come back exactly.
    bool halfFloats = false;
};

/// The version of the volume file layout this build writes and the only one it reads.
inline constexpr int kVolumeFormatVersion = 1;

/// Whether this build has OpenVDB, and with it the .vdb functions of this library.
HEXMOLD_IO_API bool volumeFilesAvailable();

/// @brief Whether @p path is a Hexmold volume file (an OpenVDB file with volume metadata), from
///        its first bytes only: false for a plain OpenVDB file and for anything unreadable. It
///        does not check the file: `readVolume` does.
HEXMOLD_IO_API bool isVolumeFile(std::filesystem::path const& path);

/// @brief Writes the volume object @p object to the .vdb file @p path, losslessly.
/// @details @p object must hold one tree (`Container<Traits<2,4,1>>` or
///          `Container<Traits<5,5,1>>`), one `VoxelTopology` of that tree targeting it, and any
///          number of voxel channels (`VoxelChannel<Traits, T>`, T any of the 18 element types)
///          bound to that topology. Object properties, the channels' pool setting and
///          precomputed tables are not stored. The file is written under a temporary name in
///          the same folder and renamed into place, so that @p path holds either its old content
///          or the whole new file. Reads @p object only; not to be called while another thread
///          changes it.
/// @param path     the file to write (replaced if it exists); the extension is not checked
/// @param object   the volume
/// @param options  compression
/// @throws IoError naming @p path when the object holds anything else (another component
///         type, a second tree, a channel of another form or bound elsewhere, a channel
///         inconsistent with its tree), when the file cannot be written, or when the build has
///         no OpenVDB.
HEXMOLD_IO_API void writeVolume(std::filesystem::path const& path, TVL::Object const& object,
                                VolumeWriteOptions const& options = {});

/// @brief Reads the volume file @p path written by `writeVolume`.
/// @details The object has the same tree (tiles in the same order at every depth), topology and
///          channels, under the same names, with the same bits in every voxel: voxel hashes and
///          `computeObjectInfo` hashes and sizes are equal to those of the object written. The
///          whole file is read and its checksum checked before OpenVDB parses it; the object is
///          built aside and returned only when complete.
/// @param path  the file
/// @return a new object (never null)
/// @throws IoError naming @p path and the reason when the file is missing or unreadable, not an
///         OpenVDB file, a plain OpenVDB file without Hexmold volume data (`importLevelSet`
///         reads level sets from those), truncated, damaged (checksum), of another format
///         version, lacking or contradicting its metadata or grids, or when the build has no
///         OpenVDB.
HEXMOLD_IO_API Quillon::Ptr<TVL::Object> readVolume(std::filesystem::path const& path);

} // namespace hexmold::io
