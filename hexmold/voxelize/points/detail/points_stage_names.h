/// @file  voxelize/points/detail/points_stage_names.h
/// @brief Timer names and the debug-line prefix shared by the stages of the point voxelizer.
#pragma once
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/string.h>
#include <memory>
#include <mutex>
#include <sstream>
#include <vector>

namespace VolumeGL::TileTree3D::detail {

/// Timer names of the point voxelizer, each built once.
struct PointStageNames {
    static Quillon::String const& name(char const* stage)
    {
        // The stages are few and fixed; a small table keeps each string built once.
        static std::vector<std::unique_ptr<Quillon::String>> table;
        static std::mutex lock;
        std::lock_guard<std::mutex> guard(lock);
        Quillon::String const full =
            Quillon::String("Geometry::Converters::points_to_level_set.") + stage;
        for (auto const& s : table)
            if (*s == full)
                return *s;
        table.push_back(std::make_unique<Quillon::String>(full));
        return *table.back();
    }
};

/// Debug lines of the point voxelizer start with the frame and ": voxelize_points.".
inline Quillon::String pointsDebugPrefix()
{
    std::ostringstream s;
    s << CoreGL::Logger::frame() << ": voxelize_points.";
    return s.str();
}

} // namespace VolumeGL::TileTree3D::detail
