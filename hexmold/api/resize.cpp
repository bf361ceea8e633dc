/// @file  api/resize.cpp
/// @brief `hexmold::resize`: checks, then one call of `resize`.
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/api/resize.h>
#include <hexmold/levelset/resize.h>
#include <hexmold/logging/logger.h>

namespace hexmold {

void resize(Volume& io_volume, ResizeOptions const& options)
{
    constexpr std::string_view kEntry = "hexmold::resize";
    detail::requireTiles(io_volume, kEntry);
    detail::requireFinite(options.bandVoxels, "bandVoxels", kEntry);
    float const bandwidth = float(options.bandVoxels * double(io_volume.voxelSize()));
    if (!(bandwidth > VolumeGL::TileTree3D::LevelSet::kResizeMinimumBandwidth))
        detail::fail(kEntry, "a band of " + std::to_string(options.bandVoxels) + " voxels is " +
                                 std::to_string(bandwidth) +
                                 " world units; the width must exceed 1.1920929e-7");
    detail::withTraits(io_volume.traits(), [&](auto tag) {
        detail::requireChannel<typename decltype(tag)::type, float>(io_volume, options.channel,
                                                                    "a float channel", kEntry);
    });
    VolumeNames const& names = io_volume.names();
    VolumeGL::TileTree3D::LevelSet::resize(bandwidth, io_volume.object(), names.tree,
                                           names.topology, options.channel, CoreGL::NOPLogger{});
}

} // namespace hexmold
