/// @file  numerics/fem_tables.cpp
/// @brief The trilinear element matrices and node stencils, as constants.
#include <hexmold/numerics/fem_tables.h>

namespace Numerics::FEM {

namespace {
/// n / 216 and n / 72 as the float nearest to the exact rational value.
constexpr float m(int n)
{
    return float(n) / 216.0f;
}
constexpr float g(int n)
{
    return float(n) / 72.0f;
}
} // namespace

// Entry for nodes a, b: 2^(3 - d) / 216, d = number of axes on which a and b differ.
float const massElementMatrix[8][8] = {{m(8), m(4), m(4), m(2), m(4), m(2), m(2), m(1)},
                                       {m(4), m(8), m(2), m(4), m(2), m(4), m(1), m(2)},
                                       {m(4), m(2), m(8), m(4), m(2), m(1), m(4), m(2)},
                                       {m(2), m(4), m(4), m(8), m(1), m(2), m(2), m(4)},
                                       {m(4), m(2), m(2), m(1), m(8), m(4), m(4), m(2)},
                                       {m(2), m(4), m(1), m(2), m(4), m(8), m(2), m(4)},
                                       {m(2), m(1), m(4), m(2), m(4), m(2), m(8), m(4)},
                                       {m(1), m(2), m(2), m(4), m(2), m(4), m(4), m(8)}};

// Row sums of massElementMatrix.
float const lumpedMassElementMatrix[8] = {0.125f, 0.125f, 0.125f, 0.125f,
                                          0.125f, 0.125f, 0.125f, 0.125f};

// Sum of the lumped masses of the 8 elements around a node.
float const lumpedMassStencil = 1.0f;

// Integers; the real value is entry * h / 36.
float const stiffnessElementMatrix[8][8] = {
    {12, 0, 0, -3, 0, -3, -3, -3}, {0, 12, -3, 0, -3, 0, -3, -3}, {0, -3, 12, 0, -3, -3, 0, -3},
    {-3, 0, 0, 12, -3, -3, -3, 0}, {0, -3, -3, -3, 12, 0, 0, -3}, {-3, 0, -3, -3, 0, 12, -3, 0},
    {-3, -3, 0, -3, 0, -3, 12, 0}, {-3, -3, -3, 0, -3, 0, 0, 12}};

// Integers; the real value is entry * h / 36.
float const stiffnessStencil[3][3][3] = {{{-3, -6, -3}, {-6, 0, -6}, {-3, -6, -3}},
                                         {{-6, 0, -6}, {0, 96, 0}, {-6, 0, -6}},
                                         {{-3, -6, -3}, {-6, 0, -6}, {-3, -6, -3}}};

// Integral of N_a * dN_b/dx: entry * 72 is an integer.
float const gradientXElementMatrix[8][8] = {{g(-4), g(-2), g(-2), g(-1), g(4), g(2), g(2), g(1)},
                                            {g(-2), g(-4), g(-1), g(-2), g(2), g(4), g(1), g(2)},
                                            {g(-2), g(-1), g(-4), g(-2), g(2), g(1), g(4), g(2)},
                                            {g(-1), g(-2), g(-2), g(-4), g(1), g(2), g(2), g(4)},
                                            {g(-4), g(-2), g(-2), g(-1), g(4), g(2), g(2), g(1)},
                                            {g(-2), g(-4), g(-1), g(-2), g(2), g(4), g(1), g(2)},
                                            {g(-2), g(-1), g(-4), g(-2), g(2), g(1), g(4), g(2)},
                                            {g(-1), g(-2), g(-2), g(-4), g(1), g(2), g(2), g(4)}};

// Integral of N_a * dN_b/dy: entry * 72 is an integer.
float const gradientYElementMatrix[8][8] = {{g(-4), g(-2), g(4), g(2), g(-2), g(-1), g(2), g(1)},
                                            {g(-2), g(-4), g(2), g(4), g(-1), g(-2), g(1), g(2)},
                                            {g(-4), g(-2), g(4), g(2), g(-2), g(-1), g(2), g(1)},
                                            {g(-2), g(-4), g(2), g(4), g(-1), g(-2), g(1), g(2)},
                                            {g(-2), g(-1), g(2), g(1), g(-4), g(-2), g(4), g(2)},
                                            {g(-1), g(-2), g(1), g(2), g(-2), g(-4), g(2), g(4)},
                                            {g(-2), g(-1), g(2), g(1), g(-4), g(-2), g(4), g(2)},
                                            {g(-1), g(-2), g(1), g(2), g(-2), g(-4), g(2), g(4)}};

// Integral of N_a * dN_b/dz: entry * 72 is an integer.
float const gradientZElementMatrix[8][8] = {{g(-4), g(4), g(-2), g(2), g(-2), g(2), g(-1), g(1)},
                                            {g(-4), g(4), g(-2), g(2), g(-2), g(2), g(-1), g(1)},
                                            {g(-2), g(2), g(-4), g(4), g(-1), g(1), g(-2), g(2)},
                                            {g(-2), g(2), g(-4), g(4), g(-1), g(1), g(-2), g(2)},
                                            {g(-2), g(2), g(-1), g(1), g(-4), g(4), g(-2), g(2)},
                                            {g(-2), g(2), g(-1), g(1), g(-4), g(4), g(-2), g(2)},
                                            {g(-1), g(1), g(-2), g(2), g(-2), g(2), g(-4), g(4)},
                                            {g(-1), g(1), g(-2), g(2), g(-2), g(2), g(-4), g(4)}};

// Sum of gradientXElementMatrix over the 8 elements around a node.
float const gradientXStencil[3][3][3] = {
    {{g(-1), g(-4), g(-1)}, {g(-4), g(-16), g(-4)}, {g(-1), g(-4), g(-1)}},
    {{g(0), g(0), g(0)}, {g(0), g(0), g(0)}, {g(0), g(0), g(0)}},
    {{g(1), g(4), g(1)}, {g(4), g(16), g(4)}, {g(1), g(4), g(1)}}};

// Sum of gradientYElementMatrix over the 8 elements around a node.
float const gradientYStencil[3][3][3] = {
    {{g(-1), g(-4), g(-1)}, {g(0), g(0), g(0)}, {g(1), g(4), g(1)}},
    {{g(-4), g(-16), g(-4)}, {g(0), g(0), g(0)}, {g(4), g(16), g(4)}},
    {{g(-1), g(-4), g(-1)}, {g(0), g(0), g(0)}, {g(1), g(4), g(1)}}};

// Sum of gradientZElementMatrix over the 8 elements around a node.
float const gradientZStencil[3][3][3] = {
    {{g(-1), g(0), g(1)}, {g(-4), g(0), g(4)}, {g(-1), g(0), g(1)}},
    {{g(-4), g(0), g(4)}, {g(-16), g(0), g(16)}, {g(-4), g(0), g(4)}},
    {{g(-1), g(0), g(1)}, {g(-4), g(0), g(4)}, {g(-1), g(0), g(1)}}};

} // namespace Numerics::FEM
