/// @file  analysis/detail/stencil_ops.h
/// @brief The per-voxel kernels of the analyze operators: second-order central differences on a
///        block with a one-voxel halo, at the block's own resolution.
/// @details Each kernel reads `s(a, b, c)`, the block at (i + a, j + b, k + c), in the element type
///          of the input, and evaluates its formula in the written order (the library is built
///          without fused multiply-adds, so results are reproducible bit for bit). The kernels
///          are stateless; the driver hands them the voxel's world size `h` and, for the closest
///          point, the voxel's corner.
#pragma once
#include <cmath>
#include <cstdint>
#include <hexmold/platform/tavrel/math.h>

namespace VolumeGL::TileTree3D::Analyze::detail {

using Tavrel::Math::Vec3;

/// Thresholds that change with the precision; the difference between them is intended and kept:
/// single precision uses the smallest normal float for normalisation and the float epsilon for
/// the curvature, double precision uses the double epsilon for both.
template <typename T> struct Thresholds;
template <> struct Thresholds<float> {
    static constexpr double kNormalize = 1.1754944e-38;
    static constexpr float kCurvature = 1.1920929e-7f;
};
template <> struct Thresholds<double> {
    static constexpr double kNormalize = 2.220446049250313e-16;
    static constexpr double kCurvature = 2.220446049250313e-16;
};

/// v / |v| when |v| exceeds the threshold of the precision, else v unchanged. The length is
/// formed in double, so that a single-precision vector as short as 1e-37 (whose squares would
/// vanish in float) is still scaled, while one below the smallest normal float is not.
template <typename T> inline Vec3<T> normalized(Vec3<T> const& v)
{
    double const n = std::sqrt(double(v.x) * double(v.x) + double(v.y) * double(v.y) +
                               double(v.z) * double(v.z));
    if (std::abs(n) > Thresholds<T>::kNormalize) {
        T const inv = static_cast<T>(1.0 / n);
        return {v.x * inv, v.y * inv, v.z * inv};
    }
    return v;
}

struct Gradient {
    template <typename S, typename T> static Vec3<T> apply(S const& s, T h)
    {
        return {(s(1, 0, 0) - s(-1, 0, 0)) * T(0.5) / h, (s(0, 1, 0) - s(0, -1, 0)) * T(0.5) / h,
                (s(0, 0, 1) - s(0, 0, -1)) * T(0.5) / h};
    }
};

struct Laplacian {
    template <typename S, typename T> static T apply(S const& s, T h)
    {
        return (s(1, 0, 0) - T(6) * s(0, 0, 0) + s(-1, 0, 0) + s(0, 1, 0) + s(0, -1, 0) +
                s(0, 0, 1) + s(0, 0, -1)) /
               (h * h);
    }
};

struct Divergence {
    template <typename S, typename T> static T apply(S const& s, T h)
    {
        return ((s(0, 1, 0).y - s(0, -1, 0).y) * T(0.5) + (s(1, 0, 0).x - s(-1, 0, 0).x) * T(0.5) +
                (s(0, 0, 1).z - s(0, 0, -1).z) * T(0.5)) /
               h;
    }
};

struct Curl {
    template <typename S, typename T> static Vec3<T> apply(S const& s, T h)
    {
        auto diff = [](Vec3<T> const& p, Vec3<T> const& m) {
            return Vec3<T>{(p.x - m.x) * T(0.5), (p.y - m.y) * T(0.5), (p.z - m.z) * T(0.5)};
        };
        Vec3<T> const dx = diff(s(1, 0, 0), s(-1, 0, 0));
        Vec3<T> const dy = diff(s(0, 1, 0), s(0, -1, 0));
        Vec3<T> const dz = diff(s(0, 0, 1), s(0, 0, -1));
        return {(dy.z - dz.y) / h, (dz.x - dx.z) / h, (dx.y - dy.x) / h};
    }
};

struct Magnitude {
    template <typename S, typename T> static T apply(S const& s, T)
    {
        Vec3<T> const v = s(0, 0, 0);
        T sum = T(0);
        sum = sum + v.x * v.x;
        sum = sum + v.y * v.y;
        sum = sum + v.z * v.z;
        return std::sqrt(sum);
    }
};

struct Normalize {
    template <typename S, typename T> static Vec3<T> apply(S const& s, T)
    {
        return normalized(s(0, 0, 0));
    }
};

/// One projection step onto the zero level of a signed distance: the voxel's corner (tile
/// coordinates scaled by the voxel size, no voxel offset: the output is in tile-aligned world
/// units) minus the unit normal times the distance. Not iterated.
struct ClosestPoint {
    template <typename S, typename T> static Vec3<T> apply(S const& s, Vec3<T> const& position)
    {
        Vec3<T> const g{(s(1, 0, 0) - s(-1, 0, 0)) * T(0.5), (s(0, 1, 0) - s(0, -1, 0)) * T(0.5),
                        (s(0, 0, 1) - s(0, 0, -1)) * T(0.5)};
        Vec3<T> const n = normalized(g);
        T const phi = s(0, 0, 0);
        return {position.x - n.x * phi, position.y - n.y * phi, position.z - n.z * phi};
    }
};

/// Half the divergence of the unit normal, in voxel units, divided by h once at the end.
struct MeanCurvature {
    /// @param out_g  when not null, receives |grad| in voxel units (0 below the threshold)
    template <typename S, typename T> static T apply(S const& s, T h, double* out_g = nullptr)
    {
        T const px = (s(1, 0, 0) - s(-1, 0, 0)) * T(0.5);
        T const py = (s(0, 1, 0) - s(0, -1, 0)) * T(0.5);
        T const pz = (s(0, 0, 1) - s(0, 0, -1)) * T(0.5);
        T const G = py * py + px * px + pz * pz;
        if (G <= Thresholds<T>::kCurvature) {
            if (out_g)
                *out_g = 0.0;
            return T(0) / h;
        }
        T const c = s(0, 0, 0);
        T const xx = s(-1, 0, 0) + s(1, 0, 0) - T(2) * c;
        T const yy = s(0, -1, 0) + s(0, 1, 0) - T(2) * c;
        T const zz = s(0, 0, -1) + s(0, 0, 1) - T(2) * c;
        T const xy = (s(-1, -1, 0) + s(1, 1, 0) - s(1, -1, 0) - s(-1, 1, 0)) * T(0.25);
        T const xz = (s(-1, 0, -1) + s(1, 0, 1) - s(1, 0, -1) - s(-1, 0, 1)) * T(0.25);
        T const yz = (s(0, -1, -1) + s(0, 1, 1) - s(0, 1, -1) - s(0, -1, 1)) * T(0.25);
        T const A = (zz + yy) * px * px + (zz + xx) * py * py + (yy + xx) * pz * pz;
        T const B = yz * (pz * py) + (pz * px * xz + py * px * xy);
        double const g = std::sqrt(static_cast<double>(G));
        if (out_g)
            *out_g = g;
        T const value = static_cast<T>(static_cast<double>(A - T(2) * B) / (2.0 * g * g * g));
        return value / h;
    }
};

} // namespace VolumeGL::TileTree3D::Analyze::detail
