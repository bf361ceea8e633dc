// A mesh file becomes a signed distance volume in a .vdb file.
#include <cstdio>
#include <hexmold/hexmold.h>
#include <hexmold/io/read_mesh.h>
#include <hexmold/io/volume_file.h>

int main(int argc, char** argv)
{
    if (argc != 3)
        return std::fprintf(stderr, "usage: %s <mesh file> <out.vdb>\n", argv[0]), 2;
    auto const mesh = hexmold::io::readMesh(argv[1]); // OBJ, PLY, STL, OFF, glTF
    hexmold::VoxelizeMeshOptions options;
    options.resolution = 128; // voxels across the largest side
    hexmold::Volume const volume = hexmold::voxelizeMesh(*mesh, options);
    hexmold::io::writeVolume(argv[2], volume.object()); // every depth, losslessly
    std::printf("%llu voxels, voxel hash %.17g\n", (unsigned long long)volume.voxelCount(),
                volume.voxelHash());
}
