// SPDX-License-Identifier: Apache-2.0
#include <Provider/ReinforcementLearningAgent.h>

#include <cstdlib>
#include <memory>
#include <numeric>

#include "Fuzz.h"
#include "RandState.h"
#include "Variates.h"

namespace {

using Fuzz::Input;
using Fuzz::Same;

constexpr double kDraw = 0.13153778773876065;  // of the softmax agent
constexpr int kMostSteps = 64;

template <class Value>
int Argmax(const std::vector<Value>& values) {
    std::size_t best = 0;
    for (std::size_t action = 1; action < values.size(); ++action) {
        best = values[action] > values[best] ? action : best;
    }
    return static_cast<int>(best);
}

/// What every agent must have counted.
struct Model {
    explicit Model(std::size_t n) : counts(n), means(n), successes(n), failures(n) {}

    void Update(std::size_t action, int reward) {
        ++counts[action];
        means[action] += (1.0 / counts[action]) * (static_cast<double>(reward) - means[action]);
        ++(reward == 1 ? successes : failures)[action];
    }

    std::vector<int> counts;
    std::vector<double> means;
    std::vector<int> successes;
    std::vector<int> failures;
};

int ChooseGreedy(const Model& model, double epsilon) {
    const double draw = rand_r(&Variates::state) / 2147483647.0;
    const double most = *std::max_element(model.means.begin(), model.means.end());
    if (epsilon > draw || most <= 1e-7) {
        return rand_r(&Variates::state) % static_cast<int>(model.means.size());
    }
    return Argmax(model.means);
}

int ChooseSoftly(const Model& model, double temperature) {
    double sum = 0;
    for (const double mean : model.means) {
        sum += temperature > 0.0 ? std::exp(mean / temperature) : 1.0;
    }
    double cumulated = 0;
    for (std::size_t action = 0; action < model.means.size(); ++action) {
        cumulated += (temperature > 0.0 ? std::exp(model.means[action] / temperature) : 1.0) / sum;
        if (cumulated > kDraw) {
            return static_cast<int>(action);
        }
    }
    return static_cast<int>(model.means.size()) - 1;
}

int ChooseByBeta(const Model& model, double alpha, double beta) {
    std::vector<double> draws;
    for (std::size_t action = 0; action < model.means.size(); ++action) {
        draws.push_back(Variates::Beta(model.successes[action] + alpha, model.failures[action] + beta));
    }
    return Argmax(draws);
}

/// The normal value that every draw of the Kalman agent gives: the polar method over the minimal standard generator.
double NormalValue() {
    std::uint64_t state = 1;
    const auto draw = [&] { return state = state * 16807 % 2147483647; };
    const auto uniform = [&] {
        const auto low = static_cast<double>(draw() - 1);
        const auto high = static_cast<double>(draw() - 1);
        return (low + high * 2147483646.0) / (2147483646.0 * 2147483646.0);
    };
    for (;;) {
        const double x = 2.0 * uniform() - 1.0;
        const double y = 2.0 * uniform() - 1.0;
        const double square = x * x + y * y;
        if (square <= 1.0 && square != 0.0) {
            return y * std::sqrt(-2.0 * std::log(square) / square);
        }
    }
}

/// What a Kalman agent must have learnt.
struct Kalman {
    double observationNoise;
    double processNoise;
    std::vector<double> means;
    std::vector<double> variances;

    void Update(std::size_t action, int reward) {
        for (std::size_t other = 0; other < means.size(); ++other) {
            const double variance = variances[other] + processNoise;
            variances[other] = variance;
            if (other == action) {
                const double sum = variance + observationNoise;
                means[other] = (100.0 * variance * reward + observationNoise * means[other]) / sum;
                variances[other] = observationNoise * variance / sum;
            }
        }
    }

    int Choose() const {
        static const double normal = NormalValue();
        std::vector<double> samples;
        for (std::size_t action = 0; action < means.size(); ++action) {
            samples.push_back(normal * variances[action] + means[action]);
        }
        return Argmax(samples);
    }
};

/// An agent, opened to the test.
class Opened {
public:
    virtual ~Opened() = default;
    virtual ReinforcementLearningAgent& Agent() = 0;
    virtual void Compare(const Model& model, const Kalman& kalman) = 0;
};

template <class Base>
class OpenedAgent : public Base, public Opened {
public:
    using Base::Base;

    ReinforcementLearningAgent& Agent() override { return *this; }

    void Compare(const Model& model, const Kalman& kalman) override {
        Same("the counts", this->m_vecCount, model.counts);
        SameNumbers("the mean rewards", this->m_vecQ, model.means);
        if constexpr (std::is_same_v<Base, ThomsonSamplingAgent>) {
            Same("the successes", this->m_vecSuccess, model.successes);
            Same("the failures", this->m_vecFailure, model.failures);
        }
        if constexpr (std::is_same_v<Base, KalmanFilterAgent>) {
            SameNumbers("the means", this->m_vecMean, kalman.means);
            SameNumbers("the variances", this->m_vecVariance, kalman.variances);
        }
    }

private:
    static void SameNumbers(const char* what, const std::vector<double>& actual, const std::vector<double>& expected) {
        Same("the number of actions", actual.size(), expected.size());
        for (std::size_t action = 0; action < actual.size(); ++action) {
            Same(what, actual[action], expected[action]);
        }
    }
};

double Above0(Input& input) {
    const double parameter = std::fabs(input.Real());
    return parameter > 0 && parameter <= 1e300 ? parameter : 1.0;
}

}  // namespace

void Fuzz::Test(Input& input) {
    const std::size_t kind = input.Below(5);
    const std::size_t n = input.Below(9) + (kind == 0 ? 1 : 0);  // the greedy agent draws an action even from none
    const auto seed = input.Take<std::uint32_t>();
    const double first = kind == 3 ? Above0(input) : input.Real();
    const double second = kind == 3 ? Above0(input) : input.Real();
    const double mean = input.Real();
    const double variance = input.Real();
    Model model(n);
    Kalman kalman{first, second, std::vector<double>(n, mean), std::vector<double>(n, variance)};
    const int size = static_cast<int>(n);
    std::unique_ptr<Opened> agents[5];
    agents[0] = std::make_unique<OpenedAgent<EpsilonGreedyAgent>>(size, first);
    agents[1] = std::make_unique<OpenedAgent<SoftmaxAgent>>(size, first);
    agents[2] = std::make_unique<OpenedAgent<MFUAgent>>(size);
    agents[3] = std::make_unique<OpenedAgent<ThomsonSamplingAgent>>(size, first, second);
    agents[4] = std::make_unique<OpenedAgent<KalmanFilterAgent>>(size, first, second, mean, variance);
    RandState::Set(seed);
    Variates::state = seed;
    for (int step = 0; step < kMostSteps; ++step) {
        const int choice = agents[kind]->Agent().ChooseAction();
        const int expected[] = {kind == 0 ? ChooseGreedy(model, first) : 0, ChooseSoftly(model, first),
                                Argmax(model.counts), kind == 3 ? ChooseByBeta(model, first, second) : 0,
                                kalman.Choose()};
        Same("ChooseAction", choice, expected[kind]);
        Same("the state of rand_r", RandState::Get(), Variates::state);
        if (!input.HasMore() || n == 0) {
            return;
        }
        const std::size_t action = input.Below(n);
        const int reward = input.Flag() ? static_cast<int>(input.Below(3)) : input.Take<std::int32_t>();
        agents[kind]->Agent().UpdateQ(static_cast<int>(action), reward);
        model.Update(action, reward);
        kalman.Update(action, reward);
        agents[kind]->Compare(model, kalman);
    }
}
