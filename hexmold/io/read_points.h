/// @file  io/read_points.h
/// @brief Read a point cloud file (PLY, XYZ, CSV) into a point cloud object, with every
///        per-point scalar and vector property of the file.
/// @details A small reader of our own: the mesh reader's library drops the custom vertex
///          properties of PLY files (radii, velocities), which are what point clouds carry.
#pragma once
#include <filesystem>
#include <hexmold/io/export.h>
#include <hexmold/io/io_error.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/tavrel/object.h>

namespace hexmold::io {

/// @brief Reads the point cloud in file @p path.
/// @details
/// - Formats, chosen by the extension (any case): .ply (ascii, binary_little_endian,
///   binary_big_endian; the "vertex" element, other elements are skipped), .xyz, .txt and .csv
///   (one point per line, numbers separated by spaces, tabs or commas; '#' starts a comment).
/// - PLY: the vertex properties x, y, z are the positions. Any other scalar property becomes a
///   float point property of its name, except that names differing only in a last "x", "y", "z"
///   (vx, vy, vz; velocity_x, velocity_y, velocity_z; nx, ny, nz) become one float3 property
///   named by the rest without a trailing '_' ("v", "velocity", "n"), and red, green, blue
///   (alpha) become the float4 "point_color" (0 to 1: integer colours are divided by their
///   type's maximum). List properties of the vertex element are refused.
/// - Text: a first line that is not all numbers is the header and names the columns, which must
///   include x, y and z; the other columns become properties as for PLY. Without a header three
///   columns are x y z, four are x y z radius, more are x y z radius then "c4", "c5", ...
/// - The result is a `Tavrel::Geometry::createPointCloud` cloud in the file's units.
/// @param path  the file; relative paths are taken from the working folder
/// @return a point cloud object (never null) with at least one point
/// @throws IoError naming the file and the reason when the extension is unknown, the file is
///         missing, unreadable, empty, truncated or malformed (a bad header, a line with the wrong
///         number of columns, a word that is not a number), has no x, y or z, or no point.
HEXMOLD_IO_API Quillon::MutablePtr<Tavrel::Object> readPoints(std::filesystem::path const& path);

} // namespace hexmold::io
