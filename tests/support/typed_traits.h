// The two tree instances as the type list of typed test suites, with readable names.
#pragma once
#include <gtest/gtest.h>
#include <hexmold/substrate/traits.h>
#include <string>
#include <type_traits>

namespace testtraits {

using TraitsTypes = ::testing::Types<TVL::TileTree3D::Traits24, TVL::TileTree3D::Traits55>;

/// Names the instances "Traits24" and "Traits55" in test names.
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, TVL::TileTree3D::Traits24> ? "Traits24" : "Traits55";
    }
};

} // namespace testtraits
