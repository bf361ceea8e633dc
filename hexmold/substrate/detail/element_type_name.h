/// @file  substrate/detail/element_type_name.h
/// @brief Names of the channel element types in dumps (the names the runtime's data
///        properties use).
#pragma once
#include <hexmold/substrate/type_lists.h>

namespace TVL::TileTree3D::detail {

template <typename T> constexpr char const* elementTypeName()
{
    char const* name = Tavrel::Geometry::kElementTypeName<T>;
    return name ? name : "unknown";
}

} // namespace TVL::TileTree3D::detail
