/// @file  substrate/detail/element_type_name.h
/// @brief Names of the channel element types in dumps (the names the runtime's data
///        properties use).
#pragma once
#include <type_traits>
#include <hexmold/substrate/type_lists.h>

namespace TVL::TileTree3D::detail {

template <typename T> constexpr char const* elementTypeName()
{
    if constexpr (std::is_same_v<T, Int8>)
        return "int8";
    else if constexpr (std::is_same_v<T, UInt8>)
        return "uint8";
    else if constexpr (std::is_same_v<T, Int16>)
        return "int16";
    else if constexpr (std::is_same_v<T, UInt16>)
        return "uint16";
    else if constexpr (std::is_same_v<T, Int32>)
        return "int32";
    else if constexpr (std::is_same_v<T, UInt32>)
        return "uint32";
    else if constexpr (std::is_same_v<T, float>)
        return "float";
    else if constexpr (std::is_same_v<T, double>)
        return "double";
    else if constexpr (std::is_same_v<T, Int64>)
        return "int64";
    else if constexpr (std::is_same_v<T, UInt64>)
        return "uint64";
    else if constexpr (std::is_same_v<T, float2>)
        return "float2";
    else if constexpr (std::is_same_v<T, float3>)
        return "float3";
    else if constexpr (std::is_same_v<T, float4>)
        return "float4";
    else if constexpr (std::is_same_v<T, float3x3>)
        return "float3x3";
    else if constexpr (std::is_same_v<T, float4x2>)
        return "float4x2";
    else if constexpr (std::is_same_v<T, float4x4>)
        return "float4x4";
    else if constexpr (std::is_same_v<T, double3>)
        return "double3";
    else if constexpr (std::is_same_v<T, int3>)
        return "int3";
    else
        return "unknown";
}

} // namespace TVL::TileTree3D::detail
