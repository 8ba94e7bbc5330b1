// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_PROVIDER_VARIATES_H
#define LUMORA_COMMON_SRC_PROVIDER_VARIATES_H

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

static_assert(FLT_EVAL_METHOD == 0, "variates are exact to the last bit: compute in double");

/// The random variates. `draw` is the source of random bits: `draw()` returns 52 bits, as RandR does.
///
/// C++ leaves the order of calls within an expression open, so each draw is a statement by itself.
namespace Variates {

/// @return 1 + bits * 2^-52, exactly: the bits are the fraction of the double.
inline double OneToTwo(std::uint64_t bits) {
    bits |= std::uint64_t{0x3FF} << 52;
    double value = 0.0;
    static_assert(sizeof(value) == sizeof(bits) && std::numeric_limits<double>::is_iec559);
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

/// @return bits * 2^-53, exactly.
template <typename Source>
double Uniform(Source& draw) {
    return (OneToTwo(draw()) - 1.0) * 0.5;
}

template <typename Source>
double Exponential(Source& draw) {
    return -std::log(1.0 - Uniform(draw));
}

/// Always inlined, so that the state of the source stays in a register.
template <typename Source>
[[gnu::always_inline]] inline double Normal(Source& draw) {
    double x2 = 0.0;
    double r2 = 0.0;
    do {
        const double x1 = OneToTwo(draw()) - 2.0;  // equals 2 * Uniform() - 1: neither expression rounds
        x2 = OneToTwo(draw()) - 2.0;
        r2 = x1 * x1 + x2 * x2;
    } while (!(r2 < 1.0 && r2 > 0.0));
    return x2 * std::sqrt(-2.0 * std::log(r2) / r2);
}

/// @return 0.0 for -0.0, whose reciprocal is negative: the loops below would never accept a value. Any other value is
///         returned unchanged.
inline double WithoutMinusZero(double parameter) {
    return parameter + 0.0;
}

template <typename Source>
double GammaBelowOne(Source& draw, double shape) {
    const double exponent = 1.0 / shape;
    for (;;) {
        const double u = Uniform(draw);
        const double v = Exponential(draw);
        if (u <= 1.0 - shape) {
            const double x = std::pow(u, exponent);
            if (x <= v) {
                return x;
            }
        } else {
            const double y = -std::log((1.0 - u) / shape);
            const double x = std::pow(1.0 - shape + shape * y, exponent);
            if (x <= v + y) {
                return x;
            }
        }
    }
}

template <typename Source>
double GammaAboveOne(Source& draw, double shape) {
    const double b = shape - 0.3333333333333333;
    const double c = 1.0 / std::sqrt(9.0 * b);
    for (;;) {
        double x = 0.0;
        double v = 0.0;
        do {
            x = Normal(draw);
            v = 1.0 + c * x;
        } while (v <= 0.0);
        v = v * v * v;
        const double u = Uniform(draw);
        const double squared = x * x;
        if (u < 1.0 - 0.0331 * (squared * squared) || std::log(u) < 0.5 * squared + b * (1.0 - v + std::log(v))) {
            return b * v;
        }
    }
}

template <typename Source>
double Gamma(Source& draw, double shape) {
    if (shape == 1.0) {
        return Exponential(draw);
    }
    if (!(shape >= 0.0)) {
        return std::numeric_limits<double>::quiet_NaN();  // the loop would never accept a value
    }
    return shape < 1.0 ? GammaBelowOne(draw, WithoutMinusZero(shape)) : GammaAboveOne(draw, shape);
}

template <typename Source>
double BetaUpToOne(Source& draw, double a, double b) {
    if (a < 0.0 || b < 0.0) {
        return std::numeric_limits<double>::quiet_NaN();  // the loop would never accept a value
    }
    a = WithoutMinusZero(a);
    b = WithoutMinusZero(b);
    const double exponentA = 1.0 / a;
    const double exponentB = 1.0 / b;
    double u = 0.0;
    double v = 0.0;
    double x = 0.0;
    double y = 0.0;
    do {
        u = Uniform(draw);
        v = Uniform(draw);
        x = std::pow(u, exponentA);
        y = std::pow(v, exponentB);
    } while (x + y > 1.0);
    if (x + y > 0.0) {
        return x / (x + y);
    }
    double lx = std::log(u) / a;
    double ly = std::log(v) / b;
    const double m = std::max(lx, ly);
    lx -= m;
    ly -= m;
    return std::exp(lx - std::log(std::exp(lx) + std::exp(ly)));
}

template <typename Source>
double Beta(Source& draw, double a, double b) {
    if (a <= 1.0 && b <= 1.0) {
        return BetaUpToOne(draw, a, b);
    }
    const double ga = Gamma(draw, a);
    const double gb = Gamma(draw, b);
    return ga / (ga + gb);
}

}  // namespace Variates

#endif  // LUMORA_COMMON_SRC_PROVIDER_VARIATES_H
