/// @file  io/read_mesh.h
/// @brief Read a polygon mesh file (OBJ, PLY, STL, OFF, glTF) into a mesh object.
/// @details Files are parsed by Assimp; PLY, OFF and STL files first get a structural check of
///          their own, because Assimp accepts truncated files of these formats, clamps
///          out-of-range OFF indices and can stall on a cut-off PLY header.
#pragma once
#include <filesystem>
#include <hexmold/io/export.h>
#include <hexmold/io/io_error.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/platform/tavrel/object.h>

namespace hexmold::io {

// ---- names of the point properties a read mesh may carry ----------------------------------------
// Float data geometry properties targeting `Tavrel::Geometry::sPointComp`. The first set of
// colours or texture coordinates has the name as it is; a further set has its set index in the
// file appended ("point_color1", "point_uv2"). Globals, not for use in static initialisers.

/// "point_normal": float3 per point, as the file gives it (unit length if the file's are),
/// turned with the node transform of its mesh and renormalised.
HEXMOLD_IO_API extern Quillon::String const sPointNormal;
/// "point_color": float4 (r, g, b, a) per point, 0 to 1 (byte colours of PLY and COFF files are
/// divided by 255); alpha 1 where the file gives none; default (1, 1, 1, 1).
HEXMOLD_IO_API extern Quillon::String const sPointColor;
/// "point_uv": float2 (u, v) per point, or float3 (u, v, w) when the file has three components,
/// with v running upwards from the lower edge of the image (glTF's v is flipped to match).
HEXMOLD_IO_API extern Quillon::String const sPointUv;

/// @brief Reads the polygon mesh in file @p path.
/// @details
/// - Formats, chosen by the extension (any case): .obj, .ply (ASCII and binary), .stl (ASCII and
///   binary), .off (OFF, COFF, NOFF, STOFF), .gltf (embedded base64 or external buffers), .glb.
/// - The result is a `Tavrel::Geometry::createMesh` mesh in the file's units: float3 positions,
///   the faces' point indices `sFaceVertex` and their starts `sFaceOffset`. Polygons stay as
///   they are in the file (a quad stays four points, nothing is triangulated); faces of fewer
///   than three points (points and lines) are dropped, and so are points no face uses.
/// - Several meshes in the file (objects, groups, glTF nodes) become one mesh: each node's meshes
///   are placed by the node's accumulated transform, in depth-first node order, faces in file
///   order. Under a mirroring transform (negative determinant) the corner order of each face is
///   reversed after its first corner, so that faces keep facing the way they did.
/// - Points with the same position and the same attributes are joined into one, the first
///   occurrence giving its place; -0 and +0 are the same coordinate. An attribute that has one
///   value over each whole face (the facet normals of flat-shaded files) does not separate
///   points: they are joined by position and the other attributes, and the attribute is kept
///   only if every joined point then has one value of it. STL normals are facet normals by
///   definition and are never kept. So a closed STL solid, or a flat-shaded closed OBJ, comes
///   out closed, with shared points.
/// - Attributes (see the names above) are kept when every mesh of the file carries them. COFF
///   colours given as 0 to 255 are scaled to 0 to 1.
/// - Reads @p path and the files it names (OBJ material libraries, glTF buffers); writes
///   nothing. Safe to call from several threads at once. Prints nothing.
/// @param path  the file; relative paths are taken from the working folder
/// @return a mesh object (never null) with at least one face
/// @throws IoError naming the file and the reason when the extension is unknown, the file is
///         missing, unreadable, empty, truncated or malformed (with Assimp's message where it
///         gives one), has no face of three or more points, has a non-finite coordinate, has a
///         face index out of range, or has more points or corners than 32-bit indices hold.
HEXMOLD_IO_API Quillon::MutablePtr<Tavrel::Object> readMesh(std::filesystem::path const& path);

} // namespace hexmold::io
