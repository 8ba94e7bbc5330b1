// SPDX-License-Identifier: Apache-2.0
#include "Provider/RandomSampling.h"

#include "Provider/RandSeed.h"
#include "Provider/Variates.h"

unsigned int rand_seed = 1;

double RandomDouble() {
    RandR draw(rand_seed);
    return Variates::Uniform(draw);
}

double StandardExponential() {
    RandR draw(rand_seed);
    return Variates::Exponential(draw);
}

double Gauss() {
    RandR draw(rand_seed);
    return Variates::Normal(draw);
}

template <typename T>
T StandardGamma(T shape) {
    RandR draw(rand_seed);
    return Variates::Gamma(draw, shape);
}

template <typename T>
T RandomBeta(const T& a, const T& b) {
    RandR draw(rand_seed);
    return Variates::Beta(draw, a, b);
}

template LUMORA_API double StandardGamma<double>(double shape);
template LUMORA_API double RandomBeta<double>(const double& a, const double& b);
