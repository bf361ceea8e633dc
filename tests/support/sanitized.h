// Whether this test program is built with AddressSanitizer, which makes heavy checks several
// times slower: such checks then run on smaller inputs (the same properties, fewer voxels).
#pragma once

namespace testbuild {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

/// @p full in a normal build, @p reduced under the sanitizers.
template <typename T> constexpr T unlessSanitized(T full, T reduced)
{
    return kSanitized ? reduced : full;
}

} // namespace testbuild
