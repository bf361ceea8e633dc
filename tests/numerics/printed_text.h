// Reading back what the table generators print: lines, numbers and integrand expressions.
#pragma once

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace printed_text {

/// Runs @p generator on a string stream and returns what it printed.
inline std::string capture(std::function<void(std::ostream&)> const& generator)
{
    std::ostringstream out;
    generator(out);
    return out.str();
}

/// The lines of @p text without their line ends.
inline std::vector<std::string> lines(std::string const& text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        result.push_back(line);
    return result;
}

/// Evaluator of the integrands written for a computer algebra tool: numbers, the symbols x, y, z
/// and h, + - * / ^, parentheses, and multiplication by juxtaposition as in "(h-y)(h-z)".
class Expression {
public:
    Expression(std::string_view text, double x, double y, double z, double h)
        : mText(text), mX(x), mY(y), mZ(z), mH(h)
    {
    }

    double evaluate()
    {
        double const value = sum();
        if (mPos != mText.size())
            throw std::runtime_error("trailing text in expression");
        return value;
    }

private:
    char peek() const { return mPos < mText.size() ? mText[mPos] : '\0'; }

    double sum()
    {
        double value = product();
        while (peek() == '+' || peek() == '-') {
            char const op = mText[mPos++];
            double const rhs = product();
            value = op == '+' ? value + rhs : value - rhs;
        }
        return value;
    }

    double product()
    {
        double value = unary();
        for (;;) {
            char const c = peek();
            if (c == '*' || c == '/') {
                ++mPos;
                double const rhs = unary();
                value = c == '*' ? value * rhs : value / rhs;
            } else if (c == '(' || std::isalpha(static_cast<unsigned char>(c))) {
                value *= unary(); // juxtaposition
            } else {
                return value;
            }
        }
    }

    double unary()
    {
        if (peek() == '-') {
            ++mPos;
            return -unary();
        }
        double const base = primary();
        if (peek() == '^') {
            ++mPos;
            return std::pow(base, unary());
        }
        return base;
    }

    double primary()
    {
        char const c = peek();
        if (c == '(') {
            ++mPos;
            double const value = sum();
            if (peek() != ')')
                throw std::runtime_error("missing ) in expression");
            ++mPos;
            return value;
        }
        if (std::isdigit(static_cast<unsigned char>(c)) || c == '.') {
            std::size_t end = mPos;
            while (end < mText.size() &&
                   (std::isdigit(static_cast<unsigned char>(mText[end])) || mText[end] == '.'))
                ++end;
            double const value = std::stod(std::string(mText.substr(mPos, end - mPos)));
            mPos = end;
            return value;
        }
        ++mPos;
        switch (c) {
        case 'x':
            return mX;
        case 'y':
            return mY;
        case 'z':
            return mZ;
        case 'h':
            return mH;
        default:
            throw std::runtime_error(std::string("unknown symbol in expression: ") + c);
        }
    }

    std::string_view mText;
    std::size_t mPos = 0;
    double mX, mY, mZ, mH;
};

/// Integral of @p integrand over the cube [0, h]^3 by the 3-point Gauss-Legendre product rule,
/// exact for polynomials of degree up to 5 per axis. Nodes and weights written out here, apart
/// from the library's tables.
inline double integrateOverCube(std::string_view integrand, double h)
{
    double const r = std::sqrt(0.6);
    double const node[3] = {-r, 0.0, r};
    double const weight[3] = {5.0 / 9.0, 8.0 / 9.0, 5.0 / 9.0};
    double sum = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) {
                double const x = 0.5 * h * (node[i] + 1.0);
                double const y = 0.5 * h * (node[j] + 1.0);
                double const z = 0.5 * h * (node[k] + 1.0);
                sum += weight[i] * weight[j] * weight[k] *
                       Expression(integrand, x, y, z, h).evaluate();
            }
    return sum * 0.125 * h * h * h;
}

/// Splits "{ { a, b }, { c } }"-like source text into its comma-separated entries, braces and
/// spaces removed.
inline std::vector<std::string> braceEntries(std::string const& text)
{
    std::vector<std::string> entries;
    std::string current;
    auto flush = [&] {
        if (!current.empty())
            entries.push_back(current);
        current.clear();
    };
    for (char c : text) {
        if (c == '{' || c == '}' || c == ',' || c == '\n')
            flush();
        else if (c != ' ')
            current += c;
    }
    flush();
    return entries;
}

} // namespace printed_text
