// SPDX-License-Identifier: Apache-2.0
#include "Provider/ReinforcementLearningAgent.h"

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "Comparison.h"
#include "Provider/RandomSampling.h"

namespace {

constexpr double kBound = 1.20;
constexpr int kMostActions = 1000;
constexpr int kLearntBefore = 16;  ///< rewards of each action
constexpr int kComparedChoices = 1000;

constexpr double kEpsilon = 0.1;
constexpr double kTemperature = 0.5;
constexpr double kPrior = 1.0;
constexpr double kObservationNoise = 1.0;
constexpr double kProcessNoise = 0.01;
constexpr double kInitialMean = 0.0;
constexpr double kInitialVariance = 1.0;

constexpr double kSoftmaxDraw = 0.13153778773876065;

/// The second value of the polar method on the minimal standard generator.
double KalmanDraw() {
    constexpr double kOutputs = 2147483646.0;
    unsigned long long state = 1;
    const auto uniform = [&state] {
        double value = 0.0;
        for (const double weight : {1.0, kOutputs}) {
            state = state * 16807 % 2147483647;
            value += static_cast<double>(state - 1) * weight;
        }
        return value / (kOutputs * kOutputs);
    };
    double y = 0.0;
    double r2 = 0.0;
    do {
        const double x = 2.0 * uniform() - 1.0;
        y = 2.0 * uniform() - 1.0;
        r2 = x * x + y * y;
    } while (r2 > 1.0 || r2 == 0.0);
    return y * std::sqrt(-2.0 * std::log(r2) / r2);
}

template <typename Value>
int Highest(const Value* values, int n) {
    int best = 0;
    Value highest = values[0];
    for (int i = 1; i < n; ++i) {
        if (values[i] > highest) {
            highest = values[i];
            best = i;
        }
    }
    return best;
}

/// The same as the agents do, in bare arrays.
struct BareMeans {
    explicit BareMeans(int size) : n(size) {}

    void Update(int action, int reward) {
        ++count[action];
        q[action] += (1.0 / count[action]) * (reward - q[action]);
    }

    int n;
    int count[kMostActions] = {};
    double q[kMostActions] = {};
};

struct BareEpsilonGreedy : BareMeans {
    using BareMeans::BareMeans;

    int Choose() const {
        const double r = rand_r(&seed) / 2147483647.0;
        const int best = Highest(q, n);
        return kEpsilon > r || q[best] <= 1e-7 ? rand_r(&seed) % n : best;
    }

    static inline unsigned int seed = 1;
};

struct BareSoftmax : BareMeans {
    using BareMeans::BareMeans;

    int Choose() const {
        double sum = 0.0;
        for (int i = 0; i < n; ++i) {
            sum += std::exp(q[i] / kTemperature);
        }
        double cumulative = 0.0;
        for (int i = 0; i < n; ++i) {
            cumulative += std::exp(q[i] / kTemperature) / sum;
            if (cumulative > kSoftmaxDraw) {
                return i;
            }
        }
        return n - 1;
    }
};

/// The two agents above restart the host's generator for every choice, which takes most of a small choice's time.
template <typename Bare>
struct Restarting : Bare {
    using Bare::Bare;

    int Choose() const {
        std::srand(static_cast<unsigned int>(std::time(nullptr)));
        return Bare::Choose();
    }
};

struct BareMostFrequent : BareMeans {
    using BareMeans::BareMeans;

    int Choose() const { return Highest(count, n); }
};

struct BareThompson : BareMeans {
    using BareMeans::BareMeans;

    void Update(int action, int reward) {
        ++(reward == 1 ? success : failure)[action];
        BareMeans::Update(action, reward);
    }
    int Choose() const {
        int best = 0;
        double highest = -1.0;
        for (int i = 0; i < n; ++i) {
            const double theta = RandomBeta(success[i] + kPrior, failure[i] + kPrior);
            if (theta > highest) {
                highest = theta;
                best = i;
            }
        }
        return best;
    }

    int success[kMostActions] = {};
    int failure[kMostActions] = {};
};

struct BareKalman : BareMeans {
    explicit BareKalman(int size) : BareMeans(size) {
        for (int i = 0; i < n; ++i) {
            mean[i] = kInitialMean;
            variance[i] = kInitialVariance;
        }
    }

    void Update(int action, int reward) {
        BareMeans::Update(action, reward);
        for (int i = 0; i < n; ++i) {
            variance[i] += kProcessNoise;
        }
        const double p = variance[action];
        mean[action] = (100.0 * p * reward + kObservationNoise * mean[action]) / (p + kObservationNoise);
        variance[action] = kObservationNoise * p / (p + kObservationNoise);
    }
    int Choose() const {
        int best = 0;
        double highest = 0.0;
        for (int i = 0; i < n; ++i) {
            const double sample = draw * variance[i] + mean[i];
            if (i == 0 || sample > highest) {
                highest = sample;
                best = i;
            }
        }
        return best;
    }

    double draw = KalmanDraw();
    double mean[kMostActions];
    double variance[kMostActions];
};

void Update(ReinforcementLearningAgent& agent, int action, int reward) {
    agent.UpdateQ(action, reward);
}

int Choose(ReinforcementLearningAgent& agent) {
    return agent.ChooseAction();
}

template <typename Bare>
void Update(Bare& bare, int action, int reward) {
    bare.Update(action, reward);
}

template <typename Bare>
int Choose(Bare& bare) {
    return bare.Choose();
}

/// A host's loop: it chooses an action and learns what that brought.
template <typename Agent>
class Host {
public:
    Host(std::unique_ptr<Agent> agent, int n) : m_agent(std::move(agent)) {
        for (int action = 0; action < n; ++action) {
            for (int i = 0; i < kLearntBefore; ++i) {
                Update(*m_agent, action, Reward_(action));
            }
        }
    }

    int Go() {
        const int action = Choose(*m_agent);
        Update(*m_agent, action, Reward_(action));
        return action;
    }

private:
    /// Of some actions every second one succeeds, of others every third.
    int Reward_(int action) { return ++m_given % (2 + action % 2) == 0; }

    std::unique_ptr<Agent> m_agent;
    int m_given = 0;
};

template <typename MakeHost>
Comparison::Body Run(MakeHost makeHost) {
    return [makeHost](benchmark::State& state) {
        auto host = makeHost();
        for ([[maybe_unused]] auto _ : state) {
            benchmark::DoNotOptimize(host.Go());
        }
    };
}

template <typename OurHost, typename BareHost>
void RequireSameChoices(OurHost ours, BareHost bare) {
    for (int i = 0; i < kComparedChoices; ++i) {
        if (ours.Go() != bare.Go()) {
            throw std::runtime_error("these two do not choose the same");
        }
    }
}

template <typename Bare>
struct Unrestarted {
    using Type = void;
};

template <typename Bare>
struct Unrestarted<Restarting<Bare>> {
    using Type = Bare;
};

template <typename Agent, typename Bare, typename... Arguments>
void CompareAgents(const std::string& name, Arguments... arguments) {
    for (const int n : {10, kMostActions}) {
        const auto makeOurs = [=] {
            return Host<ReinforcementLearningAgent>(std::make_unique<Agent>(n, arguments...), n);
        };
        const auto makeBare = [=] { return Host<Bare>(std::make_unique<Bare>(n), n); };
        if constexpr (!std::is_same_v<Bare, BareThompson>) {  // whose draws come from one state for both
            RequireSameChoices(makeOurs(), makeBare());
        }
        using Plain = typename Unrestarted<Bare>::Type;
        constexpr bool kIsRestarting = !std::is_void_v<Plain>;
        Comparison comparison(name + ", choose and update, " + (n == 10 ? "10" : "1 000") + " actions");
        comparison.Ours(Run(makeOurs))
            .Direct(kIsRestarting ? "bare arrays, srand(time)" : "bare arrays", kBound, Run(makeBare));
        if constexpr (kIsRestarting) {
            comparison.Peer("bare arrays alone", Run([=] { return Host<Plain>(std::make_unique<Plain>(n), n); }));
        }
    }
}

}  // namespace

void RegisterComparisons() {
    CompareAgents<EpsilonGreedyAgent, Restarting<BareEpsilonGreedy>>("EpsilonGreedyAgent", kEpsilon);
    CompareAgents<SoftmaxAgent, Restarting<BareSoftmax>>("SoftmaxAgent", kTemperature);
    CompareAgents<MFUAgent, BareMostFrequent>("MFUAgent");
    CompareAgents<ThomsonSamplingAgent, BareThompson>("ThomsonSamplingAgent", kPrior, kPrior);
    CompareAgents<KalmanFilterAgent, BareKalman>("KalmanFilterAgent", kObservationNoise, kProcessNoise, kInitialMean,
                                                 kInitialVariance);
}
