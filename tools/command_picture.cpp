// hexmold slice FILE and hexmold render FILE: pictures of a volume file as PNG.
//   slice:  the signed distance in a plane normal to an axis, in a diverging colour map (blue
//           inside, red outside, white at the surface) with the zero contour drawn in black, and
//           optionally the outlines of the tiles coloured by depth;
//   render: the zero level set sphere-traced through the linear sampler along parallel rays,
//           shaded by its normals, the camera looking at the box of the finest tiles from the
//           azimuth and elevation asked for.
// Both print the mapping from pixels to world positions on standard output, so that a reader
// can tell where each pixel lies.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <hexmold/io/volume_file.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/bbox.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#include <stb/stb_image_write.h>

#include "commands.h"

namespace commands {

namespace {

using namespace TVL::TileTree3D;
using Tavrel::Math::float3;

struct PictureArgs {
    std::string file, out, channel = "voxel_signed_distance";
    std::string axis = "z";
    double at = 0.0;
    int size = 512;
    bool tiles = false;
    double azimuth = 30.0, elevation = 20.0;
};

/// The parts of a volume a picture reads.
template <typename Traits> struct Parts {
    Quillon::Ptr<Container<Traits>> tree;
    Quillon::Ptr<VoxelTopology<Traits>> topology;
    Quillon::Ptr<VoxelChannel<Traits, float>> distance;
    double lo[3], hi[3]; ///< box of the finest tiles (the whole tree's leaves when there are none)
};

template <typename Traits>
bool partsOf(TVL::Object const& object, std::string const& channel, Parts<Traits>& p)
{
    for (auto const& name : object.componentRange()) {
        if (auto t = object.component<Container<Traits>>(name))
            p.tree = t;
        if (auto t = object.component<VoxelTopology<Traits>>(name))
            p.topology = t;
    }
    if (!p.tree || !p.topology)
        return false;
    p.distance = object.component<VoxelChannel<Traits, float>>(channel);
    if (!p.distance)
        throw std::runtime_error("the volume has no float voxel channel '" + channel + "'");
    bbox<float3, float> box;
    p.tree->worldSpaceBounds(Traits::kMaxDepth, box);
    if (box.empty()) {
        bbox<Tavrel::Math::double3, double> all;
        p.tree->worldSpaceBounds(all);
        if (all.empty())
            throw std::runtime_error("the volume has no tiles");
        for (int a = 0; a < 3; ++a)
            p.lo[a] = all.min[a], p.hi[a] = all.max[a];
    } else {
        for (int a = 0; a < 3; ++a)
            p.lo[a] = box.min[a], p.hi[a] = box.max[a];
    }
    return true;
}

void writePng(std::string const& path, int w, int h, std::vector<unsigned char> const& rgb)
{
    if (!stbi_write_png(path.c_str(), w, h, 3, rgb.data(), w * 3))
        throw std::runtime_error(path + ": cannot be written");
}

/// A colour per depth, for tile outlines.
std::array<unsigned char, 3> depthColour(int depth)
{
    static unsigned char const table[8][3] = {{230, 159, 0},   {86, 180, 233}, {0, 158, 115},
                                              {240, 228, 66},  {0, 114, 178},  {213, 94, 0},
                                              {204, 121, 167}, {60, 60, 60}};
    auto const& c = table[depth % 8];
    return {c[0], c[1], c[2]};
}

template <typename Traits> void slice(Parts<Traits> const& p, PictureArgs const& a)
{
    int const n = a.axis == "x" ? 0 : a.axis == "y" ? 1 : 2;
    int const u = (n + 1) % 3, v = (n + 2) % 3;
    // The box of the finest tiles with a tenth of margin, in the plane's two axes.
    double lo[3], hi[3];
    for (int k = 0; k < 3; ++k) {
        double const pad = 0.1 * (p.hi[k] - p.lo[k]);
        lo[k] = p.lo[k] - pad;
        hi[k] = p.hi[k] + pad;
    }
    double const span = std::max(hi[u] - lo[u], hi[v] - lo[v]);
    int const w = std::max(1, int(std::lround(a.size * (hi[u] - lo[u]) / span)));
    int const h = std::max(1, int(std::lround(a.size * (hi[v] - lo[v]) / span)));
    double const px = (hi[u] - lo[u]) / w, py = (hi[v] - lo[v]) / h;
    std::printf("slice: %s = %.9g; pixel (i, j) has its centre at %s = %.9g + (i + 0.5) * %.9g, %s "
                "= %.9g - (j + 0.5) * "
                "%.9g; %d x %d pixels\n",
                a.axis.c_str(), a.at,
                u == 0   ? "x"
                : u == 1 ? "y"
                         : "z",
                lo[u], px,
                v == 0   ? "x"
                : v == 1 ? "y"
                         : "z",
                hi[v], py, w, h);
    std::vector<float> values(std::size_t(w) * h);
    VoxelSamplerLinear<Traits, float> const exemplar(*p.tree, *p.topology, *p.distance);
    TVL::Parallel::parallel_for(TVL::Parallel::blocked_range<int>(0, h, 4), [&](auto const& r) {
        VoxelSamplerLinear<Traits, float> sampler(exemplar);
        for (int j = r.begin(); j != r.end(); ++j)
            for (int i = 0; i < w; ++i) {
                float3 q;
                q[n] = float(a.at);
                q[u] = float(lo[u] + (i + 0.5) * px);
                q[v] = float(hi[v] - (j + 0.5) * py);
                values[std::size_t(j) * w + i] = sampler.value(q);
            }
    });
    double const scale = 0.25 * span;
    std::vector<unsigned char> rgb(std::size_t(w) * h * 3);
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
            float const x = values[std::size_t(j) * w + i];
            double const t = std::min(1.0, std::abs(double(x)) / scale);
            unsigned char* c = &rgb[(std::size_t(j) * w + i) * 3];
            // White at the surface, to blue inside and red outside.
            double const fade = 255.0 * (1.0 - 0.8 * std::sqrt(t));
            if (x < 0.0f)
                c[0] = c[1] = (unsigned char)fade, c[2] = 255;
            else
                c[0] = 255, c[1] = c[2] = (unsigned char)fade;
            bool contour = false;
            if (i + 1 < w)
                contour =
                    contour || std::signbit(values[std::size_t(j) * w + i + 1]) != std::signbit(x);
            if (j + 1 < h)
                contour =
                    contour || std::signbit(values[std::size_t(j + 1) * w + i]) != std::signbit(x);
            if (contour)
                c[0] = c[1] = c[2] = 0;
        }
    if (a.tiles) {
        // The outline of every leaf tile the plane cuts.
        for (int d = 0; d <= Traits::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < p.tree->tileCount(d); ++t) {
                auto const& tile = p.tree->tile(t, d);
                if (!tile.isLeaf())
                    continue;
                double const s = p.tree->voxelSize(), tw = double(tile.tileVoxelWidth()) * s;
                double const c0[3] = {tile.ti() * s, tile.tj() * s, tile.tk() * s};
                if (a.at < c0[n] || a.at >= c0[n] + tw)
                    continue;
                auto const col = depthColour(d);
                auto plot = [&](double x, double y) {
                    int const i = int(std::floor((x - lo[u]) / px)),
                              j = int(std::floor((hi[v] - y) / py));
                    if (i < 0 || j < 0 || i >= w || j >= h)
                        return;
                    std::copy(col.begin(), col.end(), &rgb[(std::size_t(j) * w + i) * 3]);
                };
                int const steps = std::max(2, int(tw / std::min(px, py)) + 1);
                for (int q = 0; q <= steps; ++q) {
                    double const f = tw * q / steps;
                    plot(c0[u] + f, c0[v]);
                    plot(c0[u] + f, c0[v] + tw);
                    plot(c0[u], c0[v] + f);
                    plot(c0[u] + tw, c0[v] + f);
                }
            }
    }
    writePng(a.out, w, h, rgb);
    std::printf("wrote %s\n", a.out.c_str());
}

template <typename Traits> void render(Parts<Traits> const& p, PictureArgs const& a)
{
    double centre[3], radius = 0.0;
    for (int k = 0; k < 3; ++k) {
        centre[k] = 0.5 * (p.lo[k] + p.hi[k]);
        radius += 0.25 * (p.hi[k] - p.lo[k]) * (p.hi[k] - p.lo[k]);
    }
    radius = std::sqrt(radius);
    double const az = a.azimuth * M_PI / 180.0, el = a.elevation * M_PI / 180.0;
    // Looking along -dir from the camera side; right and up span the image plane.
    double const dir[3] = {std::cos(el) * std::cos(az), std::cos(el) * std::sin(az), std::sin(el)};
    double right[3] = {-std::sin(az), std::cos(az), 0.0};
    double const up[3] = {dir[1] * right[2] - dir[2] * right[1],
                          dir[2] * right[0] - dir[0] * right[2],
                          dir[0] * right[1] - dir[1] * right[0]};
    double const half = 1.1 * radius, pixel = 2.0 * half / a.size;
    std::printf("render: orthographic, view direction (%.9g, %.9g, %.9g) towards the centre (%.9g, "
                "%.9g, %.9g); pixel "
                "(i, j) is the ray through centre + (-%.9g + (i + 0.5) * %.9g) * right + (%.9g - "
                "(j + 0.5) * %.9g) * up; "
                "right (%.9g, %.9g, %.9g), up (%.9g, %.9g, %.9g); %d x %d pixels\n",
                -dir[0], -dir[1], -dir[2], centre[0], centre[1], centre[2], half, pixel, half,
                pixel, right[0], right[1], right[2], up[0], up[1], up[2], a.size, a.size);
    double const h = p.tree->voxelSize();
    std::vector<unsigned char> rgb(std::size_t(a.size) * a.size * 3);
    VoxelSamplerLinear<Traits, float> const exemplar(*p.tree, *p.topology, *p.distance);
    TVL::Parallel::parallel_for(
        TVL::Parallel::blocked_range<int>(0, a.size, 4), [&](auto const& r) {
            VoxelSamplerLinear<Traits, float> sampler(exemplar);
            auto at = [&](double const q[3]) {
                return double(sampler.value(float3{float(q[0]), float(q[1]), float(q[2])}));
            };
            for (int j = r.begin(); j != r.end(); ++j)
                for (int i = 0; i < a.size; ++i) {
                    double const x = -half + (i + 0.5) * pixel, y = half - (j + 0.5) * pixel;
                    double o[3];
                    for (int k = 0; k < 3; ++k)
                        o[k] = centre[k] + x * right[k] + y * up[k] + 1.5 * radius * dir[k];
                    unsigned char* c = &rgb[(std::size_t(j) * a.size + i) * 3];
                    c[0] = c[1] = c[2] = 40;
                    // Sphere tracing: steps of the distance, at least half a voxel and at most
                    // eight.
                    double t = 0.0, prevT = 0.0, prev = 0.0;
                    bool hit = false;
                    double q[3];
                    for (int s = 0; s < 100000 && t <= 3.0 * radius; ++s) {
                        for (int k = 0; k < 3; ++k)
                            q[k] = o[k] - t * dir[k];
                        double const d = at(q);
                        if (d <= 0.0 && s > 0) {
                            // Bisect between the last point outside and this one.
                            double a0 = prevT, a1 = t, d0 = prev;
                            for (int b = 0; b < 20; ++b) {
                                double const m = 0.5 * (a0 + a1);
                                double qm[3];
                                for (int k = 0; k < 3; ++k)
                                    qm[k] = o[k] - m * dir[k];
                                double const dm = at(qm);
                                if (dm > 0.0)
                                    a0 = m, d0 = dm;
                                else
                                    a1 = m;
                            }
                            (void)d0;
                            t = 0.5 * (a0 + a1);
                            for (int k = 0; k < 3; ++k)
                                q[k] = o[k] - t * dir[k];
                            hit = true;
                            break;
                        }
                        if (d <= 0.0)
                            break; // the ray starts inside: nothing to see
                        prevT = t;
                        prev = d;
                        t += std::clamp(0.9 * d, 0.5 * h, 8.0 * h);
                    }
                    if (!hit)
                        continue;
                    double g[3];
                    for (int k = 0; k < 3; ++k) {
                        double qa[3] = {q[0], q[1], q[2]}, qb[3] = {q[0], q[1], q[2]};
                        qa[k] += 0.5 * h;
                        qb[k] -= 0.5 * h;
                        g[k] = at(qa) - at(qb);
                    }
                    double const len = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]);
                    double const lambert =
                        len > 0.0
                            ? std::max(0.0, (g[0] * dir[0] + g[1] * dir[1] + g[2] * dir[2]) / len)
                            : 0.0;
                    double const shade = 0.15 + 0.85 * lambert;
                    c[0] = (unsigned char)(std::clamp(shade * 235.0, 0.0, 255.0));
                    c[1] = (unsigned char)(std::clamp(shade * 215.0, 0.0, 255.0));
                    c[2] = (unsigned char)(std::clamp(shade * 180.0, 0.0, 255.0));
                }
        });
    writePng(a.out, a.size, a.size, rgb);
    std::printf("wrote %s\n", a.out.c_str());
}

template <typename F> void withParts(PictureArgs const& a, F&& f)
{
    auto const object = hexmold::io::readVolume(a.file);
    Parts<Traits24> p24;
    if (partsOf(*object, a.channel, p24))
        return f(p24);
    Parts<Traits55> p55;
    if (partsOf(*object, a.channel, p55))
        return f(p55);
    throw std::runtime_error(a.file + ": the volume has no tile tree with a voxel topology");
}

void addCommon(CLI::App* cmd, std::shared_ptr<PictureArgs> const& a)
{
    cmd->add_option("FILE", a->file, "Volume file (.vdb written by hexmold)")->required();
    cmd->add_option("-o,--output", a->out, "PNG file to write")->required();
    cmd->add_option("--size", a->size, "Pixels across the longer side (default 512)")
        ->check(CLI::Range(8, 8192));
    cmd->add_option("--channel", a->channel, "Float channel holding the signed distance");
}

} // namespace

CLI::App* addSliceCommand(CLI::App& app)
{
    auto* cmd = app.add_subcommand(
        "slice", "The signed distance in a plane, as a PNG (blue inside, red outside, the "
                 "surface in black)");
    auto a = std::make_shared<PictureArgs>();
    addCommon(cmd, a);
    cmd->add_option("--axis", a->axis, "Axis the plane is normal to")
        ->check(CLI::IsMember({"x", "y", "z"}));
    cmd->add_option("--at", a->at, "Position of the plane on that axis, world units");
    cmd->add_flag("--tiles", a->tiles, "Draw the outlines of the tiles, coloured by depth");
    cmd->callback([a] { withParts(*a, [&](auto const& p) { slice(p, *a); }); });
    return cmd;
}

CLI::App* addRenderCommand(CLI::App& app)
{
    auto* cmd = app.add_subcommand(
        "render", "The surface, sphere-traced and shaded by its normals, as a PNG");
    auto a = std::make_shared<PictureArgs>();
    addCommon(cmd, a);
    cmd->add_option("--azimuth", a->azimuth, "Camera azimuth around z, degrees (default 30)");
    cmd->add_option("--elevation", a->elevation, "Camera elevation, degrees (default 20)")
        ->check(CLI::Range(-89.0, 89.0));
    cmd->callback([a] { withParts(*a, [&](auto const& p) { render(p, *a); }); });
    return cmd;
}

} // namespace commands
