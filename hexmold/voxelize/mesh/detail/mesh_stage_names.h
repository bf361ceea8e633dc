/// @file  voxelize/mesh/detail/mesh_stage_names.h
/// @brief Timer names and the debug-line prefix shared by the stages of the mesh voxelizer.
#pragma once
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/string.h>
#include <memory>
#include <mutex>
#include <sstream>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

/// Timer names of the build, made once.
struct MeshStageNames {
    static Quillon::String const& name(char const* stage)
    {
        // The stages are few and fixed; a small table keeps each string built once.
        static std::vector<std::unique_ptr<Quillon::String>> table;
        static std::mutex lock;
        std::lock_guard<std::mutex> guard(lock);
        Quillon::String const full =
            Quillon::String("Geometry::Converters::mesh_to_level_set.") + stage;
        for (auto const& s : table)
            if (*s == full)
                return *s;
        table.push_back(std::make_unique<Quillon::String>(full));
        return *table.back();
    }
};

/// Debug lines of the build start with the frame and ": mesh_volume.".
inline Quillon::String meshDebugPrefix()
{
    std::ostringstream s;
    s << CoreGL::Logger::frame() << ": mesh_volume.";
    return s.str();
}

} // namespace VolumeGL::TileTree3D::detail
