/// @file  api/redistance.cpp
/// @brief `hexmold::redistance`: checks, then one call of `levelSetRedistance`.
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/api/redistance.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/scratch_channel.h>

namespace hexmold {

namespace {

constexpr std::string_view kEntry = "hexmold::redistance";

template <typename Traits>
void run(Volume& io_volume, RedistanceOptions const& o, int minDepth, int maxDepth)
{
    using namespace TVL::TileTree3D;
    using namespace VolumeGL::TileTree3D::LevelSet;
    detail::requireChannel<Traits, float>(io_volume, o.channel, "a float channel", kEntry);
    if (!o.mask.empty())
        detail::requireChannel<Traits, float>(io_volume, o.mask, "a float mask channel", kEntry);
    TVL::Object& object = io_volume.object();
    auto const tree = object.component<Container<Traits>>(io_volume.names().tree);
    auto const topology = object.component<VoxelTopology<Traits>>(io_volume.names().topology);
    // Read before the distance is taken out: the mask may be the distance channel itself.
    auto const mask =
        o.mask.empty() ? nullptr : object.component<VoxelChannel<Traits, float>>(o.mask);
    Quillon::Ptr<VoxelChannel<Traits, short>> dof;
    if (o.degreesOfFreedom) {
        dof = scratchChannel<VoxelChannel<Traits, short>>(*topology, 0, 0, Traits::kMaxDepth);
        classifyDegreesOfFreedom<Traits>(*tree, *dof);
    }
    TVL::ComponentGuard<VoxelChannel<Traits, float>> distance(object, o.channel);
    levelSetRedistance<Traits>(
        *tree, *topology, *distance, o.interior, o.exterior, o.overwriteSurface, minDepth, maxDepth,
        mask.get(), nullptr, o.tolerance, o.interiorBand, o.exteriorBand, o.preSmoothingPasses,
        o.postSmoothingPasses, o.haloByExtrapolation, o.coalesced, dof.get(), std::string(kEntry),
        o.method == RedistanceMethod::kReInitialize ? kRedistanceReInitialize
                                                    : kRedistanceSweeping);
}

} // namespace

void redistance(Volume& io_volume, RedistanceOptions const& options)
{
    detail::requireTiles(io_volume, kEntry);
    auto const [minDepth, maxDepth] =
        detail::depthRange(options.minDepth, options.maxDepth, io_volume.traits(), kEntry);
    detail::requirePositive(options.tolerance, "the tolerance", kEntry);
    detail::requirePositive(options.interiorBand, "the interior band", kEntry);
    detail::requirePositive(options.exteriorBand, "the exterior band", kEntry);
    if (options.preSmoothingPasses < 0 || options.postSmoothingPasses < 0)
        detail::fail(kEntry, "the pass counts (" + std::to_string(options.preSmoothingPasses) +
                                 ", " + std::to_string(options.postSmoothingPasses) +
                                 ") must not be negative");
    if (options.method != RedistanceMethod::kSweeping &&
        options.method != RedistanceMethod::kReInitialize)
        detail::fail(kEntry, "unknown method " + std::to_string(int(options.method)));
    detail::withTraits(io_volume.traits(), [&](auto tag) {
        run<typename decltype(tag)::type>(io_volume, options, minDepth, maxDepth);
    });
}

} // namespace hexmold
