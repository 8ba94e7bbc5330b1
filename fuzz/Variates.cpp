// SPDX-License-Identifier: Apache-2.0
#include "Variates.h"

#include <cmath>
#include <cstdlib>
#include <limits>

unsigned int Variates::state = 1;

namespace {

double SmallGamma(double shape) {
    for (;;) {
        const double u = Variates::Uniform();
        const double v = Variates::Exponential();
        if (u <= 1.0 - shape) {
            const double x = std::pow(u, 1.0 / shape);
            if (x <= v) {
                return x;
            }
        } else {
            const double y = -std::log((1.0 - u) / shape);
            const double x = std::pow(1.0 - shape + shape * y, 1.0 / shape);
            if (x <= v + y) {
                return x;
            }
        }
    }
}

double LargeGamma(double shape) {
    const double b = shape - 0.3333333333333333;
    const double c = 1.0 / std::sqrt(9.0 * b);
    for (;;) {
        double x = 0;
        double v = 0;
        do {
            x = Variates::Normal();
            v = 1.0 + c * x;
        } while (v <= 0.0);
        v = v * v * v;
        const double u = Variates::Uniform();
        if (u < 1.0 - 0.0331 * (x * x) * (x * x) || std::log(u) < 0.5 * x * x + b * (1.0 - v + std::log(v))) {
            return b * v;
        }
    }
}

}  // namespace

double Variates::Uniform() {
    const double a = rand_r(&state) >> 5;
    const double b = rand_r(&state) >> 6;
    return (a * 67108864.0 + b) * 1.1102230246251565e-16;
}

double Variates::Exponential() {
    return -std::log(1.0 - Uniform());
}

double Variates::Normal() {
    double y = 0;
    double square = 0;
    do {
        const double x = 2.0 * Uniform() - 1.0;
        y = 2.0 * Uniform() - 1.0;
        square = x * x + y * y;
    } while (square >= 1.0 || square == 0.0);
    return y * std::sqrt(-2.0 * std::log(square) / square);
}

double Variates::Gamma(double shape) {
    if (std::isnan(shape) || shape < 0) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    shape = std::fabs(shape);  // -0.0 counts as 0.0
    if (shape == 1.0) {
        return Exponential();
    }
    return shape < 1.0 ? SmallGamma(shape) : LargeGamma(shape);
}

double Variates::Beta(double a, double b) {
    if (!(a <= 1.0 && b <= 1.0)) {
        const double x = Gamma(a);
        const double y = Gamma(b);
        return x / (x + y);
    }
    if (a < 0 || b < 0) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    a = std::fabs(a);
    b = std::fabs(b);
    for (;;) {
        const double u = Uniform();
        const double v = Uniform();
        const double x = std::pow(u, 1.0 / a);
        const double y = std::pow(v, 1.0 / b);
        if (x + y > 1.0) {
            continue;
        }
        if (x + y > 0.0) {
            return x / (x + y);
        }
        const double logX = std::log(u) / a;
        const double logY = std::log(v) / b;
        const double most = std::fmax(logX, logY);
        return std::exp(logX - most - std::log(std::exp(logX - most) + std::exp(logY - most)));
    }
}
