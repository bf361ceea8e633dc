/// @file  analysis/level_set_sampler.cpp
/// @brief The per-worker reader of the level-set sampler and its tile criterion.
#include <hexmold/analysis/level_set_sampler.h>

#include <cmath>
#include <hexmold/substrate/type_lists.h>

namespace CoreGL::TileTree3D {

using namespace TVL::TileTree3D;

template <typename Traits>
LevelSetSamplerReader<Traits>::LevelSetSamplerReader(LevelSetSampler const& description,
                                                     Container<Traits> const& container,
                                                     VoxelTopology<Traits> const& topology,
                                                     VoxelChannel<Traits, float> const& channel,
                                                     bbox<float3, float> const* box)
    : mDescription(description), mBox(box ? *box : bbox<float3, float>{}),
      mHasBox(box != nullptr && !box->empty()), mVoxelSize(container.voxelSize()),
      mLinear(container, topology, channel)
{
}

template <typename Traits> float LevelSetSamplerReader<Traits>::distance(double3 const& world)
{
    return mLinear.value(world);
}

template <typename Traits>
bool LevelSetSamplerReader<Traits>::outsideBox(int3 const& corner, int depth) const
{
    double const w = double(Traits::tileVoxelWidth(depth));
    auto outside = [&](bbox<float3, float> const& b) {
        for (int a = 0; a < 3; ++a) {
            double const lo = corner[a] * mVoxelSize, hi = (corner[a] + w) * mVoxelSize;
            if (hi < double(b.min[a]) - double(kLevelSetSamplerBoxSlack) ||
                lo > double(b.max[a]) + double(kLevelSetSamplerBoxSlack))
                return true;
        }
        return false;
    };
    return (mHasBox && outside(mBox)) ||
           (!mDescription.bounds.empty() && outside(mDescription.bounds));
}

template <typename Traits>
bool LevelSetSamplerReader<Traits>::wantsTile(int3 const& corner, int depth, float offset)
{
    if (depth > mDescription.deepestDepth || outsideBox(corner, depth))
        return false;
    double const w = double(Traits::tileVoxelWidth(depth));
    double3 const centre{(corner.x + 0.5 * w) * mVoxelSize, (corner.y + 0.5 * w) * mVoxelSize,
                         (corner.z + 0.5 * w) * mVoxelSize};
    float const d = distance(centre);
    return std::abs(d) <= float(w * mVoxelSize) * mDescription.bandFactorAt(depth - 1) + offset;
}

template class HEXMOLD_API LevelSetSamplerReader<Traits24>;
template class HEXMOLD_API LevelSetSamplerReader<Traits55>;

} // namespace CoreGL::TileTree3D
