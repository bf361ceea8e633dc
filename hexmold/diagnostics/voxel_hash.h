/// @file  diagnostics/voxel_hash.h
/// @brief The voxel hash of a channel: a position-weighted mean of its voxels that two runs can
///        compare number by number, and the debug lines that print it.
/// @details Every voxel of every tile in the channel's depth range gets a pseudo-random weight in
///          [0, 1) from its tile's corner and its place in the tile; the hash is the weighted
///          mean of the voxels' component sums, V / S. So changing a voxel, or swapping two
///          voxels of a tile, changes the hash. The weights depend on the tile only through
///          ti + tj + tk: tiles with equal sums share their sequence of weights, which is how the
///          hash is defined and stays.
///
///          The sums are a parallel reduction over tiles, so the last bits may differ between
///          runs with different splits; compare hashes with the tolerance of `verifyObjectInfo`.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>

namespace CoreGL {

/// Multiplier of the weight's mixing steps.
inline constexpr std::uint64_t kVoxelHashMultiplier = 0xb4ad5a69595ab2adull;
/// 2^-64: turns the 64-bit mix into a weight in [0, 1).
inline constexpr double kVoxelHashScale = 5.421010862427522e-20;

/// @brief Weight of the voxel at position @p counter (k outer, j, i inner, from 0) of the tile
///        with corner (@p ti, @p tj, @p tk); in [0, 1).
/// @details seed = ti + tj + tk as a 32-bit integer (wrapping), sign-extended to 64 bits;
///          a = (rotr(seed, 21) ^ counter) * M; b = rotl(a ^ (a >> 28), 12);
///          d = (b ^ (b >> 32) ^ seed) * M; e = d ^ (d >> 28); r = e ^ (e >> 23);
///          weight = r * 2^-64. All arithmetic is unsigned 64-bit, wrapping.
constexpr double voxelHashWeight(std::int32_t ti, std::int32_t tj, std::int32_t tk,
                                 std::uint64_t counter)
{
    std::uint32_t const sum32 = static_cast<std::uint32_t>(ti) + static_cast<std::uint32_t>(tj) +
                                static_cast<std::uint32_t>(tk);
    std::uint64_t const seed =
        static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<std::int32_t>(sum32)));
    std::uint64_t const a = (((seed >> 21) | (seed << 43)) ^ counter) * kVoxelHashMultiplier;
    std::uint64_t const a2 = a ^ (a >> 28);
    std::uint64_t const b = (a2 << 12) | (a2 >> 52);
    std::uint64_t const d = (b ^ (b >> 32) ^ seed) * kVoxelHashMultiplier;
    std::uint64_t const e = d ^ (d >> 28);
    std::uint64_t const r = e ^ (e >> 23);
    return static_cast<double>(r) * kVoxelHashScale;
}

/// @brief The voxel hash of @p channel: sum(w * componentSum(voxel)) / sum(w) over the voxels of
///        the tiles of the channel's depth range (clamped to the tree's depths); tiles whose block
///        is empty contribute nothing.
/// @details One reduction over the tiles (every tile of the range once, grain 50). Component sums
///          are taken in storage order as doubles (x + y + z for a `float3`; integers converted).
/// @return V / S; NaN (0 / 0) for a channel without voxels.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for both trees and the 18 element types, in the voxel form (W = the tile width,
/// no halo).
template <typename Traits, typename T>
HEXMOLD_API double voxelHash(TVL::TileTree3D::Container<Traits> const& container,
                             TVL::TileTree3D::VoxelChannel<Traits, T> const& channel);

/// @brief Writes the debug line @p prefix, @p suffix, the hash and a newline to
///        `Logger::debugFileStream()` under its lock, when `Logger::verboseLevel()` is above
///        @p aboveLevel. The hash is printed with 17 significant digits.
/// @param suffix  such as ".voxel_hash.after_pruning = "
HEXMOLD_API void writeVoxelHashLine(Quillon::StringView prefix, Quillon::StringView suffix,
                                    double hash, int aboveLevel = 2);

/// @brief As above, hashing @p channel first; nothing is computed when the line is not written.
/// Instantiated as `voxelHash`.
template <typename Traits, typename T>
HEXMOLD_API void writeVoxelHashLine(Quillon::StringView prefix, Quillon::StringView suffix,
                                    TVL::TileTree3D::Container<Traits> const& container,
                                    TVL::TileTree3D::VoxelChannel<Traits, T> const& channel,
                                    int aboveLevel = 2);

} // namespace CoreGL
