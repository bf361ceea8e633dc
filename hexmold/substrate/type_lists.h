/// @file  substrate/type_lists.h
/// @brief The instantiation sets, written once as X-macros: the two tree instances and the 18
///        channel element types. Aliases keep commas out of macro arguments.
#pragma once
#include <hexmold/platform/tavrel/element_types.h>
#include <hexmold/substrate/traits.h>

namespace TVL::TileTree3D {

using Tavrel::Geometry::Int16;
using Tavrel::Geometry::Int32;
using Tavrel::Geometry::Int64;
using Tavrel::Geometry::Int8;
using Tavrel::Geometry::UInt16;
using Tavrel::Geometry::UInt32;
using Tavrel::Geometry::UInt64;
using Tavrel::Geometry::UInt8;
using Tavrel::Math::double3;
using Tavrel::Math::float2;
using Tavrel::Math::float3;
using Tavrel::Math::float3x3;
using Tavrel::Math::float4;
using Tavrel::Math::float4x2;
using Tavrel::Math::float4x4;
using Tavrel::Math::int3;

} // namespace TVL::TileTree3D

/// X(Traits) for both tree instances.
#define HEXMOLD_FOR_EACH_TRAITS(X) X(Traits24) X(Traits55)

/// X(Traits, T) for the 18 channel element types, in the order in which typed lookups try them.
// clang-format off
#define HEXMOLD_FOR_EACH_ELEMENT(X, TR) \
    X(TR, Int8) X(TR, UInt8) X(TR, Int16) X(TR, UInt16) X(TR, Int32) X(TR, UInt32) X(TR, float) \
    X(TR, double) X(TR, Int64) X(TR, UInt64) X(TR, float2) X(TR, float3) X(TR, float4) \
    X(TR, float3x3) X(TR, float4x2) X(TR, float4x4) X(TR, double3) X(TR, int3)
// clang-format on

/// X(Traits, T) for both instances and all 18 element types.
// clang-format off
#define HEXMOLD_FOR_EACH_TRAITS_ELEMENT(X)                                                         \
    HEXMOLD_FOR_EACH_ELEMENT(X, Traits24) HEXMOLD_FOR_EACH_ELEMENT(X, Traits55)
// clang-format on

/// X(T) for the 18 element types alone.
// clang-format off
#define HEXMOLD_FOR_EACH_ELEMENT_TYPE(X) \
    X(Int8) X(UInt8) X(Int16) X(UInt16) X(Int32) X(UInt32) X(float) X(double) X(Int64) X(UInt64) \
    X(float2) X(float3) X(float4) X(float3x3) X(float4x2) X(float4x4) X(double3) X(int3)
// clang-format on

/// X(Traits, T) for the first and the second half of the 18 element types, for sharding heavy
/// instantiation sets over two translation units.
// clang-format off
#define HEXMOLD_FOR_EACH_ELEMENT_A(X, TR) \
    X(TR, Int8) X(TR, UInt8) X(TR, Int16) X(TR, UInt16) X(TR, Int32) X(TR, UInt32) X(TR, float) \
    X(TR, double) X(TR, Int64)
// clang-format on
// clang-format off
#define HEXMOLD_FOR_EACH_ELEMENT_B(X, TR) \
    X(TR, UInt64) X(TR, float2) X(TR, float3) X(TR, float4) X(TR, float3x3) X(TR, float4x2) \
    X(TR, float4x4) X(TR, double3) X(TR, int3)
// clang-format on

/// X(Traits, T) for the nine element types of channels with one extra sample per axis (the
/// copies that linear sampling and redistancing read): the arithmetic scalars and vectors.
// clang-format off
#define HEXMOLD_FOR_EACH_HALO_ELEMENT(X, TR) \
    X(TR, UInt8) X(TR, Int16) X(TR, Int32) X(TR, float) X(TR, double) X(TR, float2) \
    X(TR, float3) X(TR, float4) X(TR, double3)
// clang-format on
