// SPDX-License-Identifier: Apache-2.0
#include "Provider/RandomSampling.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "Provider/RandSeed.h"

static_assert(FLT_EVAL_METHOD == 0, "the variates are promised to the last bit: calculate in double");

unsigned int rand_seed = 1;

// Calls inside one expression have no order: every draw stands in a statement of its own. The exported functions only
// wrap these, so that the compiler may inline them into one another.
namespace {

double Uniform() {
    const int a = rand_r(&rand_seed) >> 5;
    const int b = rand_r(&rand_seed) >> 6;
    return (a * 67108864.0 + b) * 1.1102230246251565e-16;  // 2^26, 2^-53
}

double Exponential() {
    return -std::log(1.0 - Uniform());
}

double Normal() {
    double x2 = 0.0;
    double r2 = 0.0;
    do {
        const double x1 = 2.0 * Uniform() - 1.0;
        x2 = 2.0 * Uniform() - 1.0;
        r2 = x1 * x1 + x2 * x2;
    } while (r2 >= 1.0 || r2 == 0.0);
    return x2 * std::sqrt(-2.0 * std::log(r2) / r2);
}

double GammaBelowOne(double shape) {
    const double exponent = 1.0 / shape;
    for (;;) {
        const double u = Uniform();
        const double v = Exponential();
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

double GammaAboveOne(double shape) {
    const double b = shape - 0.3333333333333333;
    const double c = 1.0 / std::sqrt(9.0 * b);
    for (;;) {
        double x = 0.0;
        double v = 0.0;
        do {
            x = Normal();
            v = 1.0 + c * x;
        } while (v <= 0.0);
        v = v * v * v;
        const double u = Uniform();
        const double squared = x * x;
        if (u < 1.0 - 0.0331 * (squared * squared) || std::log(u) < 0.5 * squared + b * (1.0 - v + std::log(v))) {
            return b * v;
        }
    }
}

double Gamma(double shape) {
    if (shape == 1.0) {
        return Exponential();
    }
    if (!(shape >= 0.0)) {
        return std::numeric_limits<double>::quiet_NaN();  // nothing would ever be accepted
    }
    return shape < 1.0 ? GammaBelowOne(shape) : GammaAboveOne(shape);
}

double BetaUpToOne(double a, double b) {
    if (a < 0.0 || b < 0.0) {
        return std::numeric_limits<double>::quiet_NaN();  // nothing would ever be accepted
    }
    const double exponentA = 1.0 / a;
    const double exponentB = 1.0 / b;
    double u = 0.0;
    double v = 0.0;
    double x = 0.0;
    double y = 0.0;
    do {
        u = Uniform();
        v = Uniform();
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

}  // namespace

double RandomDouble() {
    return Uniform();
}

double StandardExponential() {
    return Exponential();
}

double Gauss() {
    return Normal();
}

template <typename T>
T StandardGamma(T shape) {
    return Gamma(shape);
}

template <typename T>
T RandomBeta(const T& a, const T& b) {
    if (a <= 1.0 && b <= 1.0) {
        return BetaUpToOne(a, b);
    }
    const double ga = Gamma(a);
    const double gb = Gamma(b);
    return ga / (ga + gb);
}

template LUMORA_API double StandardGamma<double>(double shape);
template LUMORA_API double RandomBeta<double>(const double& a, const double& b);
