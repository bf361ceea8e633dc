// Reads a mesh file (OBJ, PLY, STL, OFF, glTF) and prints its point and face counts and the point
// properties it carries.
#include <cstdio>
#include <hexmold/io/read_mesh.h>
#include <hexmold/platform/tavrel/geometry.h>

int main(int argc, char** argv)
{
    using namespace Tavrel::Geometry;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <mesh file>\n", argv[0]);
        return 2;
    }
    try {
        auto const mesh = hexmold::io::readMesh(argv[1]);
        std::printf("%llu points, %llu faces;",
                    (unsigned long long)getElementCount(*mesh, sPointComp),
                    (unsigned long long)getElementCount(*mesh, sFaceComp));
        for (auto const& name : getGeoPropNamesByTarget(*mesh, sPointComp))
            std::printf(" %s", name.c_str());
        std::printf("\n");
    } catch (hexmold::io::IoError const& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
