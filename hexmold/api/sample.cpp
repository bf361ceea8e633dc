/// @file  api/sample.cpp
/// @brief `hexmold::sample`: checks, then one linear sampler copied per range of positions.
#include <cmath>
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/api/sample.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/parallel.h>

namespace hexmold {

namespace {

constexpr std::string_view kEntry = "hexmold::sample";

/// Positions per task: a sampler copy is cheap but its caches pay off over a run of positions.
constexpr std::size_t kGrain = 256;

template <typename Traits>
void sampleIn(Volume const& volume, std::span<Tavrel::Math::double3 const> positions,
              std::string const& channelName, float* out)
{
    using namespace TVL::TileTree3D;
    using Sampler = VoxelSamplerLinear<Traits, float, Traits::kTileWidth, 2, double3>;
    detail::requireChannel<Traits, float>(volume, channelName, "a float channel", kEntry);
    auto const channel = volume.object().component<VoxelChannel<Traits, float>>(channelName);
    Sampler const exemplar(detail::treeOf<Traits>(volume), detail::topologyOf<Traits>(volume),
                           *channel);
    TVL::Parallel::parallel_for(
        TVL::Parallel::blocked_range<std::size_t>(0, positions.size(), kGrain),
        [&](TVL::Parallel::blocked_range<std::size_t> const& range) {
            if (TVL::bodyCancelled())
                return;
            Sampler sampler(exemplar);
            for (std::size_t n = range.begin(); n != range.end(); ++n)
                out[n] = sampler.value(positions[n]);
        });
    TVL::throwIfJobCancelled();
}

} // namespace

std::vector<float> sample(Volume const& volume, std::span<Tavrel::Math::double3 const> positions,
                          SampleOptions const& options)
{
    if (volume.empty())
        detail::fail(kEntry, "the volume is empty (it holds no tile tree)");
    for (std::size_t n = 0; n < positions.size(); ++n) {
        auto const& p = positions[n];
        if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z))
            detail::fail(kEntry, "position " + std::to_string(n) + " (" + std::to_string(p.x) +
                                     ", " + std::to_string(p.y) + ", " + std::to_string(p.z) +
                                     ") is not finite");
    }
    std::vector<float> out(positions.size());
    detail::withTraits(volume.traits(), [&](auto tag) {
        sampleIn<typename decltype(tag)::type>(volume, positions, options.channel, out.data());
    });
    return out;
}

float sample(Volume const& volume, Tavrel::Math::double3 const& position,
             SampleOptions const& options)
{
    return sample(volume, std::span<Tavrel::Math::double3 const>(&position, 1), options).front();
}

} // namespace hexmold
