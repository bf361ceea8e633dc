// A recognisable non-zero value of any element type, for tests that go through every element
// type of the channels.
#pragma once
#include <cstddef>
#include <type_traits>

namespace testsupport {

/// 7 in the first scalar of the element, zero elsewhere.
template <typename T> T sampleElement()
{
    T v{};
    auto* bytes = reinterpret_cast<unsigned char*>(&v);
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bytes[i] = 0;
    if constexpr (std::is_arithmetic_v<T>)
        v = T(7);
    else if constexpr (requires { v.m; })
        v.m[0][0] = 7;
    else
        v[0] = 7;
    return v;
}

} // namespace testsupport
