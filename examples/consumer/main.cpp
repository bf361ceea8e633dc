// A sphere's level set through the hexmold:: layer: make it, widen its band, derive its mean
// curvature, read it back at a point, and see a refused input.
#include <cmath>
#include <cstdio>
#include <hexmold/hexmold.h>

int main()
{
    hexmold::LevelSetOptions options;
    options.voxelSize = 0.01; // finest voxels of 1 cm
    hexmold::Volume sphere = hexmold::createLevelSetSphere({0, 0, 0}, 0.3, options);
    hexmold::resize(sphere, {.bandVoxels = 6}); // 6 voxels on either side
    hexmold::analyze(sphere, hexmold::AnalyzeOperator::kMeanCurvature);
    float const d = hexmold::sample(sphere, {0.33, 0, 0}); // 3 cm outside
    std::printf("%llu voxels, %.1f MB, distance at (0.33, 0, 0): %.4f\n",
                (unsigned long long)sphere.voxelCount(), sphere.memoryBytes() / 1e6, d);
    try {
        hexmold::createLevelSetSphere({0, 0, 0}, -1.0);
    } catch (hexmold::Error const& e) {
        std::printf("%s\n", e.what()); // names the entry and the fault
    }
    return std::abs(d - 0.03f) < 0.002f ? 0 : 1;
}
