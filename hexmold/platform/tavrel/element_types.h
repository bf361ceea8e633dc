/// @file  platform/tavrel/element_types.h
/// @brief The 18 element types of data properties and channels, and the name of each, written
///        once: the runtime's data properties, channel dumps, volume files and the api's messages
///        all use these names.
#pragma once
#include <hexmold/platform/tavrel/math.h>

namespace Tavrel::Geometry {

using Int8 = signed char;
using UInt8 = unsigned char;
using Int16 = short;
using UInt16 = unsigned short;
using Int32 = int;
using UInt32 = unsigned int;
using Int64 = long long;
using UInt64 = unsigned long long;

/// Name of element type @p T ("int8", "float3x3", ...); null for a type that is not one of them.
template <typename T> inline constexpr char const* kElementTypeName = nullptr;

} // namespace Tavrel::Geometry

/// X(T, name) for the 18 element types with their names, in the order in which typed lookups try
/// them. T is spelled as the aliases above and the Tavrel::Math vector types.
// clang-format off
#define HEXMOLD_FOR_EACH_NAMED_ELEMENT_TYPE(X) \
    X(Int8, "int8") X(UInt8, "uint8") X(Int16, "int16") X(UInt16, "uint16") X(Int32, "int32") \
    X(UInt32, "uint32") X(float, "float") X(double, "double") X(Int64, "int64") \
    X(UInt64, "uint64") X(float2, "float2") X(float3, "float3") X(float4, "float4") \
    X(float3x3, "float3x3") X(float4x2, "float4x2") X(float4x4, "float4x4") \
    X(double3, "double3") X(int3, "int3")
// clang-format on

namespace Tavrel::Geometry {

using Tavrel::Math::double3;
using Tavrel::Math::float2;
using Tavrel::Math::float3;
using Tavrel::Math::float3x3;
using Tavrel::Math::float4;
using Tavrel::Math::float4x2;
using Tavrel::Math::float4x4;
using Tavrel::Math::int3;

#define HEXMOLD_ELEMENT_TYPE_NAME(T, text)                                                         \
    template <> inline constexpr char const* kElementTypeName<T> = text;
HEXMOLD_FOR_EACH_NAMED_ELEMENT_TYPE(HEXMOLD_ELEMENT_TYPE_NAME)
#undef HEXMOLD_ELEMENT_TYPE_NAME

} // namespace Tavrel::Geometry
