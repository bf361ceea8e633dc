// Tests of the generators that print the trilinear element tables: the printed integrals are
// evaluated here and must give the tables, the printed stencils must read back as the tables.
#include <hexmold/numerics/fem_generators.h>
#include <hexmold/numerics/fem_tables.h>

#include "printed_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using namespace Numerics::FEM;

/// Element side at which the printed integrals are evaluated.
constexpr double kSide = 1.25;

std::string const kIntegratePrefix = "///  Integrate[";
std::string const kDomain = ",{x,0,h},{y,0,h},{z,0,h}] = ";

std::string label(int a, int b)
{
    return "/// [" + std::to_string(a) + "][" + std::to_string(b) + "] = ";
}

/// Checks the 128 lines of an integral generator, label then integral for each node pair in
/// order, and returns the 64 integrals evaluated at kSide.
std::vector<double> evaluateIntegrals(std::string const& printed, std::string const& closing)
{
    std::vector<std::string> const text = printed_text::lines(printed);
    EXPECT_EQ(text.size(), 128u);
    std::vector<double> values;
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b) {
            std::size_t const at = 2 * std::size_t(8 * a + b);
            if (at + 1 >= text.size())
                return values;
            EXPECT_EQ(text[at], label(a, b));
            std::string const& line = text[at + 1];
            EXPECT_EQ(line.rfind(kIntegratePrefix, 0), 0u) << line;
            std::size_t const domain = line.find(kDomain);
            EXPECT_NE(domain, std::string::npos) << line;
            EXPECT_EQ(line.substr(domain + kDomain.size()), closing) << line;
            std::string const integrand =
                line.substr(kIntegratePrefix.size(), domain - kIntegratePrefix.size());
            values.push_back(printed_text::integrateOverCube(integrand, kSide));
        }
    return values;
}

/// Reads "n/36.0f"-style stencil text back into 27 floats, checking the frame of the source text.
std::vector<float> readStencil(std::string const& printed, std::string const& name,
                               std::string const& denominator)
{
    std::string const head = "const float " + name + "[3][3][3] = {\n";
    EXPECT_EQ(printed.rfind(head, 0), 0u) << printed;
    EXPECT_GE(printed.size(), head.size() + 3);
    EXPECT_EQ(printed.substr(printed.size() - 3), "};\n");
    std::vector<float> values;
    for (std::string const& entry : printed_text::braceEntries(
             printed.substr(head.size(), printed.size() - head.size() - 3))) {
        std::size_t const slash = entry.find('/');
        EXPECT_NE(slash, std::string::npos) << entry;
        EXPECT_EQ(entry.substr(slash + 1), denominator) << entry;
        float const numerator = float(std::stoi(entry.substr(0, slash)));
        values.push_back(numerator / std::strtof(denominator.c_str(), nullptr));
    }
    EXPECT_EQ(values.size(), 27u);
    return values;
}

} // namespace

TEST(FemGenerators, MassIntegralsEvaluateToTheMassMatrix)
{
    std::vector<double> const values =
        evaluateIntegrals(printed_text::capture(generateMassElementMatrixIntegrals), "");
    ASSERT_EQ(values.size(), 64u);
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b)
            EXPECT_NEAR(values[8 * a + b] / (kSide * kSide * kSide), massElementMatrix[a][b], 1e-7)
                << a << ", " << b;
}

TEST(FemGenerators, StiffnessIntegralsEvaluateToTheStiffnessMatrix)
{
    std::vector<double> const values =
        evaluateIntegrals(printed_text::capture(generateStiffnessElementMatrixIntegrals), "");
    ASSERT_EQ(values.size(), 64u);
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b)
            EXPECT_NEAR(values[8 * a + b] * 36.0 / kSide, stiffnessElementMatrix[a][b], 1e-9)
                << a << ", " << b;
}

TEST(FemGenerators, GradientIntegralsEvaluateToTheGradientMatrices)
{
    void (*generators[3])(std::ostream&) = {generateGradientXElementMatrixIntegrals,
                                            generateGradientYElementMatrixIntegrals,
                                            generateGradientZElementMatrixIntegrals};
    float const(*tables[3])[8] = {gradientXElementMatrix, gradientYElementMatrix,
                                  gradientZElementMatrix};
    for (int axis = 0; axis < 3; ++axis) {
        std::vector<double> const values =
            evaluateIntegrals(printed_text::capture(generators[axis]), "1.0f/.0f;");
        ASSERT_EQ(values.size(), 64u);
        for (int a = 0; a < 8; ++a)
            for (int b = 0; b < 8; ++b)
                EXPECT_NEAR(values[8 * a + b] / (kSide * kSide), tables[axis][a][b], 1e-7)
                    << "axis " << axis << ": " << a << ", " << b;
    }
}

TEST(FemGenerators, ShapeFunctionsAndDerivativesUseTheStatedForms)
{
    std::vector<std::string> const mass =
        printed_text::lines(printed_text::capture(generateMassElementMatrixIntegrals));
    ASSERT_EQ(mass.size(), 128u);
    // Pair (7, 6) is the 63rd pair, its integral on line 2 * 62 + 1.
    EXPECT_EQ(mass[2 * 62 + 1], "///  Integrate[((x/h)*(y/h)*(z/h))*((x/h)*(y/h)*(1-z/h))"
                                ",{x,0,h},{y,0,h},{z,0,h}] = ");
    std::vector<std::string> const gradient =
        printed_text::lines(printed_text::capture(generateGradientXElementMatrixIntegrals));
    ASSERT_EQ(gradient.size(), 128u);
    EXPECT_EQ(gradient[1], "///  Integrate[((1-x/h)*(1-y/h)*(1-z/h))*(-(((h-y)(h-z))/h^3))"
                           ",{x,0,h},{y,0,h},{z,0,h}] = 1.0f/.0f;");
    EXPECT_EQ(gradient[2 * 7 + 1], "///  Integrate[((1-x/h)*(1-y/h)*(1-z/h))*((y*z)/h^3)"
                                   ",{x,0,h},{y,0,h},{z,0,h}] = 1.0f/.0f;");
}

TEST(FemGenerators, StiffnessStencilPrintsIntegersOverThirtySix)
{
    std::vector<float> const values =
        readStencil(printed_text::capture(generateStiffnessStencil), "stiffnessStencil", "36.0f");
    ASSERT_EQ(values.size(), 27u);
    for (int n = 0; n < 27; ++n)
        EXPECT_EQ(values[n], stiffnessStencil[n / 9][n / 3 % 3][n % 3] / 36.0f) << n;
}

TEST(FemGenerators, GradientStencilsPrintTheGradientStencils)
{
    void (*generators[3])(std::ostream&) = {generateGradientXStencil, generateGradientYStencil,
                                            generateGradientZStencil};
    char const* names[3] = {"gradientXStencil", "gradientYStencil", "gradientZStencil"};
    float const(*tables[3])[3][3] = {gradientXStencil, gradientYStencil, gradientZStencil};
    for (int axis = 0; axis < 3; ++axis) {
        std::vector<float> const values =
            readStencil(printed_text::capture(generators[axis]), names[axis], "72.0f");
        ASSERT_EQ(values.size(), 27u);
        for (int n = 0; n < 27; ++n)
            EXPECT_EQ(values[n], tables[axis][n / 9][n / 3 % 3][n % 3]) << names[axis] << n;
    }
}

TEST(FemGenerators, LumpedMassStencilPrintsOneWithoutError)
{
    EXPECT_EQ(printed_text::capture(generateLumpedMassStencil),
              "const float lumpedMassStencil = 1.0f;\n");
}

TEST(FemGenerators, LumpedMassStencilReportsAMismatchedRow)
{
    float lumped[8];
    for (int a = 0; a < 8; ++a)
        lumped[a] = lumpedMassElementMatrix[a];
    lumped[5] = 0.126f;
    std::string const printed = printed_text::capture(
        [&](std::ostream& out) { detail::printLumpedMassStencil(massElementMatrix, lumped, out); });
    std::vector<std::string> const text = printed_text::lines(printed);
    ASSERT_EQ(text.size(), 2u) << printed;
    EXPECT_EQ(text[0], "Error in massElementMatrix 5");
    EXPECT_EQ(text[1].rfind("const float lumpedMassStencil = ", 0), 0u);
}
