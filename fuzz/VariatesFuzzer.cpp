// SPDX-License-Identifier: Apache-2.0
#include "Variates.h"

#include <Provider/RandomSampling.h>

#include "Fuzz.h"
#include "RandState.h"

namespace {

/// @return a parameter for which a result is promised: any number, but not infinity.
double Parameter(Fuzz::Input& input) {
    const double parameter = input.Real();
    return std::isinf(parameter) ? 1e308 : parameter;
}

}  // namespace

void Fuzz::Test(Input& input) {
    const auto seed = input.Take<std::uint32_t>();
    RandState::Set(seed);
    Variates::state = seed;
    for (int count = 0; count < 16 && input.HasMore(); ++count) {
        const std::size_t kind = input.Below(8);
        if (kind == 0) {
            Same("RandomDouble", RandomDouble(), Variates::Uniform());
        } else if (kind == 1) {
            Same("StandardExponential", StandardExponential(), Variates::Exponential());
        } else if (kind == 2) {
            const double normal = Gauss();
            Same("Gauss", normal, Variates::Normal());
            Holds("Gauss is below 0", normal < 0);
        } else if (kind < 5) {
            const double shape = Parameter(input);
            Same(("StandardGamma of " + Show(shape)).c_str(), StandardGamma<double>(shape), Variates::Gamma(shape));
        } else {
            const double a = Parameter(input);
            const double b = Parameter(input);
            const double beta = RandomBeta<double>(a, b);
            Same(("RandomBeta of " + Show(a) + " and " + Show(b)).c_str(), beta, Variates::Beta(a, b));
            Holds("RandomBeta is 0 to 1", std::isnan(beta) || (beta >= 0 && beta <= 1));
        }
        Same("the state of rand_r", RandState::Get(), Variates::state);
    }
}
