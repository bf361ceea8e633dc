/// @file  io/detail/volume_checksum.cpp
/// @brief The whole-file hash and the trailer of volume files.
#include <hexmold/io/detail/volume_checksum.h>

#include <bit>
#include <cstring>

namespace hexmold::io::detail {

namespace {

constexpr std::uint64_t kP1 = 0x9E3779B185EBCA87ull;
constexpr std::uint64_t kP2 = 0xC2B2AE3D27D4EB4Full;
constexpr std::uint64_t kP3 = 0x165667B19E3779F9ull;

std::uint64_t load64(char const* p)
{
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    if constexpr (std::endian::native == std::endian::big)
        v = __builtin_bswap64(v);
    return v;
}

void store64(char* p, std::uint64_t v)
{
    if constexpr (std::endian::native == std::endian::big)
        v = __builtin_bswap64(v);
    std::memcpy(p, &v, 8);
}

std::uint64_t round(std::uint64_t lane, std::uint64_t word)
{
    return std::rotl(lane + word * kP2, 31) * kP1;
}

} // namespace

std::uint64_t contentHash(std::string_view bytes)
{
    char const* p = bytes.data();
    std::size_t n = bytes.size();
    std::uint64_t h;
    if (n >= 32) {
        std::uint64_t v[4] = {kP1 + kP2, kP2, 0, 0 - kP1};
        for (; n >= 32; n -= 32, p += 32)
            for (int l = 0; l < 4; ++l)
                v[l] = round(v[l], load64(p + 8 * l));
        h = std::rotl(v[0], 1) + std::rotl(v[1], 7) + std::rotl(v[2], 12) + std::rotl(v[3], 18);
        for (int l = 0; l < 4; ++l)
            h = (h ^ round(0, v[l])) * kP1 + kP3;
    } else {
        h = kP3;
    }
    h += bytes.size();
    for (; n >= 8; n -= 8, p += 8)
        h = std::rotl(h ^ round(0, load64(p)), 27) * kP1 + kP3;
    for (; n > 0; --n, ++p)
        h = std::rotl(h ^ (std::uint64_t(static_cast<unsigned char>(*p)) * kP3), 11) * kP1;
    h ^= h >> 33;
    h *= kP2;
    h ^= h >> 29;
    h *= kP3;
    h ^= h >> 32;
    return h;
}

std::string makeTrailer(std::string_view archive)
{
    std::string t(kTrailerSize, '\0');
    std::memcpy(t.data(), kTrailerTag.data(), 8);
    store64(t.data() + 8, archive.size());
    store64(t.data() + 16, contentHash(archive));
    return t;
}

TrailerState checkTrailer(std::string_view bytes)
{
    if (bytes.size() < kTrailerSize)
        return TrailerState::kMissing;
    char const* t = bytes.data() + bytes.size() - kTrailerSize;
    if (std::string_view(t, 8) != kTrailerTag)
        return TrailerState::kMissing;
    std::string_view const archive = bytes.substr(0, bytes.size() - kTrailerSize);
    if (load64(t + 8) != archive.size())
        return TrailerState::kLength;
    if (load64(t + 16) != contentHash(archive))
        return TrailerState::kMismatch;
    return TrailerState::kValid;
}

} // namespace hexmold::io::detail
