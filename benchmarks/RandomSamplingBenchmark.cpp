// SPDX-License-Identifier: Apache-2.0
#include "Provider/RandomSampling.h"

#include <gsl/gsl_randist.h>
#include <gsl/gsl_rng.h>

#include <memory>
#include <random>
#include <string>

#include "Comparison.h"

namespace {

constexpr double kBound = 1.00;

/// Calls the draw that `makeDraw` returns in a loop. Each repetition makes a new draw.
template <typename MakeDraw>
Comparison::Body Draw(MakeDraw makeDraw) {
    return [makeDraw](benchmark::State& state) {
        auto draw = makeDraw();
        for ([[maybe_unused]] auto _ : state) {
            benchmark::DoNotOptimize(draw());
        }
    };
}

template <typename Call>
Comparison::Body DrawOurs(Call call) {
    return Draw([call] { return call; });
}

template <typename Distribution, typename... Parameters>
Comparison::Body DrawStandard(Parameters... parameters) {
    return Draw([=] {
        return [engine = std::minstd_rand0(), distribution = Distribution(parameters...)]() mutable {
            return distribution(engine);
        };
    });
}

Comparison::Body DrawStandardBeta(double a, double b) {
    using Gamma = std::gamma_distribution<double>;
    return Draw([a, b] {
        return [engine = std::minstd_rand0(), gammaA = Gamma(a), gammaB = Gamma(b)]() mutable {
            const double ga = gammaA(engine);
            const double gb = gammaB(engine);
            return ga / (ga + gb);
        };
    });
}

template <typename... Parameters>
Comparison::Body DrawGsl(double (*call)(const gsl_rng*, Parameters...), Parameters... parameters) {
    return Draw([=] {
        return [=, generator = std::shared_ptr<gsl_rng>(gsl_rng_alloc(gsl_rng_minstd), gsl_rng_free)] {
            return call(generator.get(), parameters...);
        };
    });
}

void CompareBeta(const std::string& what, double a, double b) {
    Comparison(what)
        .Ours(DrawOurs([a, b] { return RandomBeta(a, b); }))
        .Direct("two std::gamma_distribution", kBound, DrawStandardBeta(a, b))
        .Peer("gsl_ran_beta", DrawGsl(gsl_ran_beta, a, b));
}

void CompareGamma(const std::string& what, double shape) {
    Comparison(what)
        .Ours(DrawOurs([shape] { return StandardGamma(shape); }))
        .Direct("std::gamma_distribution", kBound, DrawStandard<std::gamma_distribution<double>>(shape))
        .Peer("gsl_ran_gamma", DrawGsl(gsl_ran_gamma, shape, /*scale=*/1.0));
}

}  // namespace

// The other libraries draw from a linear congruential generator, too.
void RegisterComparisons() {
    CompareBeta("RandomBeta, neither parameter above 1", 0.5, 0.75);
    CompareBeta("RandomBeta, parameters above 1", 2.5, 7.0);
    CompareGamma("StandardGamma, shape 0.5", 0.5);
    CompareGamma("StandardGamma, shape 2.5", 2.5);
    Comparison("Gauss")
        .Ours(DrawOurs(Gauss))
        .Direct("std::normal_distribution", kBound, DrawStandard<std::normal_distribution<double>>())
        .Peer("gsl_ran_gaussian", DrawGsl(gsl_ran_gaussian, /*sigma=*/1.0));
}
