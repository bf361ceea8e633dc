/// @file  numerics/fem_generators.cpp
/// @brief Printing of the trilinear element integrals and the assembled node stencils.
#include <hexmold/numerics/fem_generators.h>

#include <hexmold/numerics/detail/source_text.h>
#include <hexmold/numerics/fem_tables.h>

#include <cmath>
#include <string>

namespace Numerics::FEM {

namespace {

constexpr char kAxisName[3] = {'x', 'y', 'z'};

/// Coordinate index (0 or 1) of @p node along @p axis; node = 4*ix + 2*iy + iz.
constexpr int nodeIndex(int node, int axis)
{
    return (node >> (2 - axis)) & 1;
}

/// Shape function of @p node, e.g. "(x/h)*(y/h)*(1-z/h)".
std::string shapeFunctionText(int node)
{
    std::string text;
    for (int axis = 0; axis < 3; ++axis) {
        if (axis > 0)
            text += '*';
        text += nodeIndex(node, axis) ? "(" : "(1-";
        text += kAxisName[axis];
        text += "/h)";
    }
    return text;
}

/// Derivative of the shape function of @p node along @p axis: the product of the two other
/// factors times h, over h^3, e.g. "(y*z)/h^3" or "-(((h-y)(h-z))/h^3)". Two plain symbols are
/// joined by "*" (juxtaposed they would read as one name); a parenthesised factor is juxtaposed.
std::string shapeDerivativeText(int node, int axis)
{
    std::string factors[2];
    int count = 0;
    for (int other = 0; other < 3; ++other) {
        if (other == axis)
            continue;
        factors[count++] = nodeIndex(node, other) ? std::string(1, kAxisName[other])
                                                  : std::string("(h-") + kAxisName[other] + ")";
    }
    bool const bothPlain = factors[0].size() == 1 && factors[1].size() == 1;
    std::string const body = "(" + factors[0] + (bothPlain ? "*" : "") + factors[1] + ")/h^3";
    return nodeIndex(node, axis) ? body : "-(" + body + ")";
}

constexpr char const* kDomain = "),{x,0,h},{y,0,h},{z,0,h}] = ";

void printLabel(std::ostream& out, int a, int b)
{
    out << "/// [" << a << "][" << b << "] = \n";
}

void printGradientIntegrals(std::ostream& out, int axis)
{
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b) {
            printLabel(out, a, b);
            out << "///  Integrate[(" << shapeFunctionText(a) << ")*("
                << shapeDerivativeText(b, axis) << kDomain << "1.0f/.0f;\n";
        }
}

/// Sums @p matrix over the 8 elements around a centre node: in each element the row of the
/// centre node goes to the stencil positions of the element's nodes.
void assembleStencil(float const (&matrix)[8][8], double (&stencil)[3][3][3])
{
    for (auto& slab : stencil)
        for (auto& row : slab)
            for (double& entry : row)
                entry = 0.0;
    // Element with lower corner at offset (ex, ey, ez) from the centre, each -1 or 0.
    for (int ex = -1; ex <= 0; ++ex)
        for (int ey = -1; ey <= 0; ++ey)
            for (int ez = -1; ez <= 0; ++ez) {
                int const centre = 4 * -ex + 2 * -ey + -ez;
                for (int node = 0; node < 8; ++node)
                    stencil[ex + nodeIndex(node, 0) + 1][ey + nodeIndex(node, 1) + 1]
                           [ez + nodeIndex(node, 2) + 1] += matrix[centre][node];
            }
}

/// Prints a stencil as source text; each entry is @p scale times its value, printed as an
/// integer, followed by @p suffix (the division by @p scale).
void printStencil(std::ostream& out, char const* name, double const (&stencil)[3][3][3],
                  double scale, char const* suffix)
{
    out << "const float " << name << "[3][3][3] = {\n";
    for (int i = 0; i < 3; ++i) {
        out << "{ ";
        for (int j = 0; j < 3; ++j) {
            out << "{ ";
            for (int k = 0; k < 3; ++k) {
                out << std::lround(stencil[i][j][k] * scale) << suffix;
                if (k < 2)
                    out << ", ";
            }
            out << " }";
            if (j < 2)
                out << ", ";
        }
        out << " }";
        if (i < 2)
            out << ",";
        out << "\n";
    }
    out << "};\n";
}

void printGradientStencil(std::ostream& out, char const* name, float const (&matrix)[8][8])
{
    double stencil[3][3][3];
    assembleStencil(matrix, stencil);
    printStencil(out, name, stencil, 72.0, "/72.0f");
}

} // namespace

void generateMassElementMatrixIntegrals(std::ostream& out)
{
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b) {
            printLabel(out, a, b);
            out << "///  Integrate[(" << shapeFunctionText(a) << ")*(" << shapeFunctionText(b)
                << kDomain << "\n";
        }
}

void generateStiffnessElementMatrixIntegrals(std::ostream& out)
{
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b) {
            printLabel(out, a, b);
            out << "///  Integrate[";
            for (int axis = 0; axis < 3; ++axis) {
                if (axis > 0)
                    out << ")+";
                out << "(" << shapeDerivativeText(a, axis) << ")*(" << shapeDerivativeText(b, axis);
            }
            out << kDomain << "\n";
        }
}

void generateGradientXElementMatrixIntegrals(std::ostream& out)
{
    printGradientIntegrals(out, 0);
}
void generateGradientYElementMatrixIntegrals(std::ostream& out)
{
    printGradientIntegrals(out, 1);
}
void generateGradientZElementMatrixIntegrals(std::ostream& out)
{
    printGradientIntegrals(out, 2);
}

void generateStiffnessStencil(std::ostream& out)
{
    double stencil[3][3][3];
    assembleStencil(stiffnessElementMatrix, stencil);
    printStencil(out, "stiffnessStencil", stencil, 1.0, "/36.0f");
}

void generateGradientXStencil(std::ostream& out)
{
    printGradientStencil(out, "gradientXStencil", gradientXElementMatrix);
}

void generateGradientYStencil(std::ostream& out)
{
    printGradientStencil(out, "gradientYStencil", gradientYElementMatrix);
}

void generateGradientZStencil(std::ostream& out)
{
    printGradientStencil(out, "gradientZStencil", gradientZElementMatrix);
}

void generateLumpedMassStencil(std::ostream& out)
{
    detail::printLumpedMassStencil(massElementMatrix, lumpedMassElementMatrix, out);
}

namespace detail {

void printLumpedMassStencil(float const (&mass)[8][8], float const (&lumped)[8], std::ostream& out)
{
    // The float entries of the mass matrix are rounded from n / 216, so the row sum is compared
    // with a tolerance well above that rounding and far below any real difference.
    constexpr double kRowSumTolerance = 1e-6;
    for (int a = 0; a < 8; ++a) {
        double rowSum = 0.0;
        for (int b = 0; b < 8; ++b)
            rowSum += mass[a][b];
        if (std::fabs(rowSum - lumped[a]) > kRowSumTolerance)
            out << "Error in massElementMatrix " << a << "\n";
    }
    // Every node of the 8 elements around a node contributes its lumped mass once.
    float stencil = 0.0f;
    for (int ex = -1; ex <= 0; ++ex)
        for (int ey = -1; ey <= 0; ++ey)
            for (int ez = -1; ez <= 0; ++ez)
                stencil += lumped[4 * -ex + 2 * -ey + -ez];
    out << "const float lumpedMassStencil = " << Numerics::detail::floatLiteral(stencil) << ";\n";
}

} // namespace detail

} // namespace Numerics::FEM
