/// @file  io/detail/volume_checksum.h
/// @brief The checksum trailer of Hexmold volume files: a 64-bit hash of every byte before it,
///        checked before any byte is handed to OpenVDB.
/// @details OpenVDB trusts the counts and sizes its files give, so that a damaged file can make
///          it read out of bounds or loop; a volume file is therefore whole-file checked first.
///          The trailer is 24 bytes after the OpenVDB archive, which OpenVDB readers never
///          reach, so other tools still open the file:
///          - 8 bytes: the tag "HXMDSUM1";
///          - 8 bytes: the length of the archive before the trailer, little-endian;
///          - 8 bytes: `contentHash` of the archive, little-endian.
///          Exported so that tests can make files whose checksum is right but whose content is not.
#pragma once
#include <cstdint>
#include <hexmold/io/export.h>
#include <string>
#include <string_view>

namespace hexmold::io::detail {

/// Bytes of the trailer.
inline constexpr std::size_t kTrailerSize = 24;
/// The first eight bytes of the trailer.
inline constexpr std::string_view kTrailerTag{"HXMDSUM1", 8};

/// A 64-bit hash of @p bytes: four multiply-rotate lanes over 32-byte stripes, then the tail
/// and a final avalanche, so that any change of a byte, of the length or of the order of
/// stripes changes the result. Not cryptographic: it catches damage, not forgery.
HEXMOLD_IO_API std::uint64_t contentHash(std::string_view bytes);

/// The trailer for the archive @p archive.
HEXMOLD_IO_API std::string makeTrailer(std::string_view archive);

/// What the end of a file says.
enum class TrailerState {
    kValid,    ///< the trailer is there and matches the bytes before it
    kMissing,  ///< no trailer tag at the end (a plain OpenVDB file, or a truncated one)
    kLength,   ///< a trailer whose length is not that of the bytes before it
    kMismatch, ///< a trailer whose hash differs from the bytes before it
};

/// Checks the trailer of the whole file content @p bytes.
HEXMOLD_IO_API TrailerState checkTrailer(std::string_view bytes);

} // namespace hexmold::io::detail
