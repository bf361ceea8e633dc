/// @file  numerics/fem_generators.h
/// @brief Generators that print the trilinear element tables of numerics/fem_tables.h again, as
///        source text or as integrals for a computer algebra tool.
/// @details Shape functions are written as "(x/h)*(y/h)*(1-z/h)" (node 6), their derivatives as
///          "(y*z)/h^3" (d/dx of node 7) or "-(((h-y)(h-z))/h^3)" (d/dx of node 0). Every
///          generator writes to @p out, standard output unless a stream is given, and has no other
///          effect. Not thread-safe with respect to @p out only.
#pragma once
#include <hexmold/export.h>

#include <iostream>

namespace Numerics::FEM {

/// For every node pair (a, b) the label "/// [a][b] = " and the line
/// "///  Integrate[(N_a)*(N_b),{x,0,h},{y,0,h},{z,0,h}] = ".
HEXMOLD_API void generateMassElementMatrixIntegrals(std::ostream& out = std::cout);

/// As the mass form, with the integrand
/// (dN_a/dx)*(dN_b/dx)+(dN_a/dy)*(dN_b/dy)+(dN_a/dz)*(dN_b/dz).
HEXMOLD_API void generateStiffnessElementMatrixIntegrals(std::ostream& out = std::cout);

/// As the mass form, with the integrand (N_a)*(dN_b/dx) and the line closing with
/// "),{x,0,h},{y,0,h},{z,0,h}] = 1.0f/.0f;", a fraction to be completed.
HEXMOLD_API void generateGradientXElementMatrixIntegrals(std::ostream& out = std::cout);
HEXMOLD_API void generateGradientYElementMatrixIntegrals(std::ostream& out = std::cout); ///< d/dy
HEXMOLD_API void generateGradientZElementMatrixIntegrals(std::ostream& out = std::cout); ///< d/dz

/// Assembles the stiffness stencil from stiffnessElementMatrix over the 8 elements around a node
/// and prints it as "const float stiffnessStencil[3][3][3] = {" ... "};", every entry an integer
/// followed by "/36.0f".
HEXMOLD_API void generateStiffnessStencil(std::ostream& out = std::cout);

/// Assembles the gradient stencils from the gradient element matrices and prints them as
/// "const float gradientXStencil[3][3][3] = {" ... "};", entries as integer "/72.0f".
HEXMOLD_API void generateGradientXStencil(std::ostream& out = std::cout);
HEXMOLD_API void generateGradientYStencil(std::ostream& out = std::cout); ///< along y
HEXMOLD_API void generateGradientZStencil(std::ostream& out = std::cout); ///< along z

/// Checks every entry of lumpedMassElementMatrix against the row sum of massElementMatrix, printing
/// "Error in massElementMatrix " and the row on a mismatch, then prints
/// "const float lumpedMassStencil = " and the lumped mass at a node.
HEXMOLD_API void generateLumpedMassStencil(std::ostream& out = std::cout);

namespace detail {

/// generateLumpedMassStencil on given tables.
/// @param mass    mass element matrix in units of h^3
/// @param lumped  lumped mass matrix to check against the row sums of @p mass
HEXMOLD_API void printLumpedMassStencil(float const (&mass)[8][8], float const (&lumped)[8],
                                        std::ostream& out);

} // namespace detail

} // namespace Numerics::FEM
