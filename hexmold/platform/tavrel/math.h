/// @file  platform/tavrel/math.h
/// @brief Plain value types of the geometry runtime: small vectors and matrices with the
///        arithmetic the volume algorithms use.
/// @details All types are trivially copyable aggregates; vectors store x, y, z, w in order and
///          matrices store rows in order (row-major), so a `float3x3` is nine floats.
#pragma once
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <hexmold/export.h>
#include <type_traits>

namespace Tavrel::Math {

template <typename T> struct HEXMOLD_API Vec2 {
    using ValueType = T;
    static constexpr int kSize = 2;
    T x, y;
    constexpr T& operator[](int i) { return i == 0 ? x : y; }
    constexpr T const& operator[](int i) const { return i == 0 ? x : y; }
};

template <typename T> struct HEXMOLD_API Vec3 {
    using ValueType = T;
    static constexpr int kSize = 3;
    T x, y, z;
    constexpr T& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
    constexpr T const& operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }
};

template <typename T> struct HEXMOLD_API Vec4 {
    using ValueType = T;
    static constexpr int kSize = 4;
    T x, y, z, w;
    constexpr T& operator[](int i) { return i == 0 ? x : (i == 1 ? y : (i == 2 ? z : w)); }
    constexpr T const& operator[](int i) const
    {
        return i == 0 ? x : (i == 1 ? y : (i == 2 ? z : w));
    }
};

/// R x C matrix stored by rows.
template <typename T, int R, int C> struct HEXMOLD_API Mat {
    using ValueType = T;
    static constexpr int kRows = R;
    static constexpr int kCols = C;
    static constexpr int kSize = R * C;
    T m[R][C];
    constexpr T* operator[](int r) { return m[r]; }
    constexpr T const* operator[](int r) const { return m[r]; }
    static constexpr Mat identity()
    {
        Mat r{};
        for (int i = 0; i < (R < C ? R : C); ++i)
            r.m[i][i] = T(1);
        return r;
    }
};

using float2 = Vec2<float>;
using float3 = Vec3<float>;
using float4 = Vec4<float>;
using double3 = Vec3<double>;
using int3 = Vec3<int>;
using ulong3 = Vec3<std::uint64_t>;
using float3x3 = Mat<float, 3, 3>;
using float4x2 = Mat<float, 4, 2>;
using float4x4 = Mat<float, 4, 4>;

// ---- element-wise arithmetic -------------------------------------------------------------------

#define HEXMOLD_VEC_BINARY(Vec, op)                                                                \
    template <typename T> constexpr Vec<T> operator op(Vec<T> const& a, Vec<T> const& b)           \
    {                                                                                              \
        Vec<T> r{};                                                                                \
        for (int i = 0; i < Vec<T>::kSize; ++i)                                                    \
            r[i] = a[i] op b[i];                                                                   \
        return r;                                                                                  \
    }                                                                                              \
    template <typename T> constexpr Vec<T> operator op(Vec<T> const& a, T s)                       \
    {                                                                                              \
        Vec<T> r{};                                                                                \
        for (int i = 0; i < Vec<T>::kSize; ++i)                                                    \
            r[i] = a[i] op s;                                                                      \
        return r;                                                                                  \
    }                                                                                              \
    template <typename T> constexpr Vec<T>& operator op##=(Vec<T>& a, Vec<T> const& b)             \
    {                                                                                              \
        for (int i = 0; i < Vec<T>::kSize; ++i)                                                    \
            a[i] = a[i] op b[i];                                                                   \
        return a;                                                                                  \
    }                                                                                              \
    template <typename T> constexpr Vec<T>& operator op##=(Vec<T>& a, T s)                         \
    {                                                                                              \
        for (int i = 0; i < Vec<T>::kSize; ++i)                                                    \
            a[i] = a[i] op s;                                                                      \
        return a;                                                                                  \
    }

#define HEXMOLD_VEC_ALL(Vec)                                                                       \
    HEXMOLD_VEC_BINARY(Vec, +)                                                                     \
    HEXMOLD_VEC_BINARY(Vec, -)                                                                     \
    HEXMOLD_VEC_BINARY(Vec, *)                                                                     \
    HEXMOLD_VEC_BINARY(Vec, /)                                                                     \
    template <typename T> constexpr Vec<T> operator*(T s, Vec<T> const& a)                         \
    {                                                                                              \
        return a * s;                                                                              \
    }                                                                                              \
    template <typename T> constexpr Vec<T> operator-(Vec<T> const& a)                              \
    {                                                                                              \
        Vec<T> r{};                                                                                \
        for (int i = 0; i < Vec<T>::kSize; ++i)                                                    \
            r[i] = -a[i];                                                                          \
        return r;                                                                                  \
    }                                                                                              \
    template <typename T> constexpr bool operator==(Vec<T> const& a, Vec<T> const& b)              \
    {                                                                                              \
        for (int i = 0; i < Vec<T>::kSize; ++i)                                                    \
            if (!(a[i] == b[i]))                                                                   \
                return false;                                                                      \
        return true;                                                                               \
    }                                                                                              \
    template <typename T> constexpr bool operator!=(Vec<T> const& a, Vec<T> const& b)              \
    {                                                                                              \
        return !(a == b);                                                                          \
    }                                                                                              \
    template <typename T> constexpr T dot(Vec<T> const& a, Vec<T> const& b)                        \
    {                                                                                              \
        T s = T(0);                                                                                \
        for (int i = 0; i < Vec<T>::kSize; ++i)                                                    \
            s += a[i] * b[i];                                                                      \
        return s;                                                                                  \
    }                                                                                              \
    template <typename T> constexpr Vec<T> min(Vec<T> const& a, Vec<T> const& b)                   \
    {                                                                                              \
        Vec<T> r{};                                                                                \
        for (int i = 0; i < Vec<T>::kSize; ++i)                                                    \
            r[i] = b[i] < a[i] ? b[i] : a[i];                                                      \
        return r;                                                                                  \
    }                                                                                              \
    template <typename T> constexpr Vec<T> max(Vec<T> const& a, Vec<T> const& b)                   \
    {                                                                                              \
        Vec<T> r{};                                                                                \
        for (int i = 0; i < Vec<T>::kSize; ++i)                                                    \
            r[i] = a[i] < b[i] ? b[i] : a[i];                                                      \
        return r;                                                                                  \
    }

HEXMOLD_VEC_ALL(Vec2)
HEXMOLD_VEC_ALL(Vec3)
HEXMOLD_VEC_ALL(Vec4)
#undef HEXMOLD_VEC_ALL
#undef HEXMOLD_VEC_BINARY

template <typename T> constexpr Vec3<T> cross(Vec3<T> const& a, Vec3<T> const& b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

template <typename V> inline auto lengthSquared(V const& a)
{
    return dot(a, a);
}
template <typename V> inline auto length(V const& a)
{
    return std::sqrt(dot(a, a));
}

/// Unit vector along @p a; the zero vector stays zero.
template <typename V> inline V normalize(V const& a)
{
    auto l = length(a);
    using T = typename V::ValueType;
    return l > T(0) ? a / T(l) : a;
}

template <typename To, typename From> constexpr Vec3<To> convert(Vec3<From> const& a)
{
    return {static_cast<To>(a.x), static_cast<To>(a.y), static_cast<To>(a.z)};
}

// ---- matrices --------------------------------------------------------------------------------

template <typename T, int R, int C>
constexpr Mat<T, R, C> operator+(Mat<T, R, C> const& a, Mat<T, R, C> const& b)
{
    Mat<T, R, C> r{};
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < C; ++j)
            r.m[i][j] = a.m[i][j] + b.m[i][j];
    return r;
}
template <typename T, int R, int C>
constexpr Mat<T, R, C> operator-(Mat<T, R, C> const& a, Mat<T, R, C> const& b)
{
    Mat<T, R, C> r{};
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < C; ++j)
            r.m[i][j] = a.m[i][j] - b.m[i][j];
    return r;
}
template <typename T, int R, int C> constexpr Mat<T, R, C> operator*(Mat<T, R, C> const& a, T s)
{
    Mat<T, R, C> r{};
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < C; ++j)
            r.m[i][j] = a.m[i][j] * s;
    return r;
}
template <typename T, int R, int C> constexpr Mat<T, R, C> operator*(T s, Mat<T, R, C> const& a)
{
    return a * s;
}
template <typename T, int R, int C> constexpr Mat<T, R, C> operator/(Mat<T, R, C> const& a, T s)
{
    Mat<T, R, C> r{};
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < C; ++j)
            r.m[i][j] = a.m[i][j] / s;
    return r;
}
template <typename T, int R, int C> constexpr Mat<T, R, C> operator-(Mat<T, R, C> const& a)
{
    return a * T(-1);
}
template <typename T, int R, int C>
constexpr Mat<T, R, C>& operator+=(Mat<T, R, C>& a, Mat<T, R, C> const& b)
{
    return a = a + b;
}
template <typename T, int R, int C>
constexpr Mat<T, R, C>& operator-=(Mat<T, R, C>& a, Mat<T, R, C> const& b)
{
    return a = a - b;
}
template <typename T, int R, int C> constexpr Mat<T, R, C>& operator*=(Mat<T, R, C>& a, T s)
{
    return a = a * s;
}
template <typename T, int R, int C>
constexpr bool operator==(Mat<T, R, C> const& a, Mat<T, R, C> const& b)
{
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < C; ++j)
            if (!(a.m[i][j] == b.m[i][j]))
                return false;
    return true;
}
template <typename T, int R, int C>
constexpr bool operator!=(Mat<T, R, C> const& a, Mat<T, R, C> const& b)
{
    return !(a == b);
}
/// Matrix product.
template <typename T, int R, int K, int C>
constexpr Mat<T, R, C> operator*(Mat<T, R, K> const& a, Mat<T, K, C> const& b)
{
    Mat<T, R, C> r{};
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < C; ++j) {
            T s = T(0);
            for (int k = 0; k < K; ++k)
                s += a.m[i][k] * b.m[k][j];
            r.m[i][j] = s;
        }
    return r;
}
/// Matrix times column vector.
template <typename T> constexpr Vec3<T> operator*(Mat<T, 3, 3> const& a, Vec3<T> const& v)
{
    return {a.m[0][0] * v.x + a.m[0][1] * v.y + a.m[0][2] * v.z,
            a.m[1][0] * v.x + a.m[1][1] * v.y + a.m[1][2] * v.z,
            a.m[2][0] * v.x + a.m[2][1] * v.y + a.m[2][2] * v.z};
}
template <typename T> constexpr Vec4<T> operator*(Mat<T, 4, 4> const& a, Vec4<T> const& v)
{
    Vec4<T> r{};
    for (int i = 0; i < 4; ++i)
        r[i] = a.m[i][0] * v.x + a.m[i][1] * v.y + a.m[i][2] * v.z + a.m[i][3] * v.w;
    return r;
}
/// Affine transform of a point by a 4x4 matrix (column-vector convention, last row ignored).
template <typename T> constexpr Vec3<T> transformPoint(Mat<T, 4, 4> const& a, Vec3<T> const& p)
{
    return {a.m[0][0] * p.x + a.m[0][1] * p.y + a.m[0][2] * p.z + a.m[0][3],
            a.m[1][0] * p.x + a.m[1][1] * p.y + a.m[1][2] * p.z + a.m[1][3],
            a.m[2][0] * p.x + a.m[2][1] * p.y + a.m[2][2] * p.z + a.m[2][3]};
}
template <typename T, int R, int C> constexpr Mat<T, C, R> transpose(Mat<T, R, C> const& a)
{
    Mat<T, C, R> r{};
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < C; ++j)
            r.m[j][i] = a.m[i][j];
    return r;
}

// ---- generic element helpers ------------------------------------------------------------------

/// Number of scalar components of an element type (1 for scalars).
template <typename T> struct ComponentCount {
    static constexpr int value = 1;
};
template <typename T> struct ComponentCount<Vec2<T>> {
    static constexpr int value = 2;
};
template <typename T> struct ComponentCount<Vec3<T>> {
    static constexpr int value = 3;
};
template <typename T> struct ComponentCount<Vec4<T>> {
    static constexpr int value = 4;
};
template <typename T, int R, int C> struct ComponentCount<Mat<T, R, C>> {
    static constexpr int value = R * C;
};

/// Component @p i of an element as double (scalars have the one component 0).
template <typename T> inline double componentAsDouble(T const& v, int)
{
    return static_cast<double>(v);
}
template <typename T> inline double componentAsDouble(Vec2<T> const& v, int i)
{
    return static_cast<double>(v[i]);
}
template <typename T> inline double componentAsDouble(Vec3<T> const& v, int i)
{
    return static_cast<double>(v[i]);
}
template <typename T> inline double componentAsDouble(Vec4<T> const& v, int i)
{
    return static_cast<double>(v[i]);
}
template <typename T, int R, int C> inline double componentAsDouble(Mat<T, R, C> const& v, int i)
{
    return static_cast<double>(v.m[i / C][i % C]);
}

/// Sum of the components of an element as doubles, in storage order (x + y + z for a float3).
template <typename T> inline double componentSum(T const& v)
{
    double s = componentAsDouble(v, 0);
    for (int i = 1; i < ComponentCount<T>::value; ++i)
        s += componentAsDouble(v, i);
    return s;
}

} // namespace Tavrel::Math
