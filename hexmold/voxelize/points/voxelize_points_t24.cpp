/// @file  voxelize/points/voxelize_points_t24.cpp
/// @brief `voxelizePoints` for `Traits<2,4,1>`, both overloads.
#include <hexmold/voxelize/points/detail/voxelize_points_impl.h>

namespace VolumeGL::TileTree3D {
using TVL::TileTree3D::Traits24;
template bool voxelizePoints<Traits24>(Tavrel::Object const&,
                                       Quillon::Array<Tavrel::Math::float3> const&,
                                       Quillon::Array<float> const&, Quillon::Array<float> const*,
                                       Adaptivity const&, float,
                                       Quillon::Array<ResolutionField> const*, float,
                                       Quillon::String const&, Quillon::String const&,
                                       Quillon::String const&, Quillon::String const&, TVL::Object&,
                                       TopologyType, Quillon::RuntimeServices const&);
template bool voxelizePoints<Traits24>(Tavrel::Object const&,
                                       Quillon::Array<Tavrel::Math::float3> const&, float,
                                       Quillon::Array<float> const*, Adaptivity const&, float,
                                       Quillon::Array<ResolutionField> const*, float,
                                       Quillon::String const&, Quillon::String const&,
                                       Quillon::String const&, Quillon::String const&, TVL::Object&,
                                       TopologyType, Quillon::RuntimeServices const&);
} // namespace VolumeGL::TileTree3D
