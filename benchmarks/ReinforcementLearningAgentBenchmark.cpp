// SPDX-License-Identifier: Apache-2.0
#include "Provider/ReinforcementLearningAgent.h"

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include "Comparison.h"
#include "Provider/RandomSampling.h"

namespace {

constexpr double kBound = 1.20;
constexpr int kLearntBefore = 16;  ///< rewards of each action before the measurement
constexpr int kComparedChoices = 1000;

constexpr double kEpsilon = 0.1;
constexpr double kTemperature = 0.5;
constexpr double kPrior = 1.0;
constexpr double kObservationNoise = 1.0;
constexpr double kProcessNoise = 0.01;
constexpr double kInitialMean = 0.0;
constexpr double kInitialVariance = 1.0;

constexpr double kSoftmaxDraw = 0.13153778773876065;

/// Gives the reward of an action: 1 if the number of rewards given so far, with this one, is a multiple of 2 for an
/// even action or of 3 for an odd one, else 0.
class Rewards {
public:
    int Next(int action) { return ++m_given % (2 + action % 2) == 0; }

    /// Calls `update` with the first rewards of each action.
    template <typename Update>
    void TeachBefore(int n, Update update) {
        for (int action = 0; action < n; ++action) {
            for (int i = 0; i < kLearntBefore; ++i) {
                update(action, Next(action));
            }
        }
    }

private:
    int m_given = 0;
};

/// Replaces benchmark::State in a loop: runs a fixed number of steps and records their actions.
class Recording {
public:
    struct Iterator {
        int left;
        bool operator!=(const Iterator& other) const { return left != other.left; }
        void operator++() { --left; }
        int operator*() const { return left; }
    };

    Iterator begin() const { return {kComparedChoices}; }
    Iterator end() const { return {0}; }

    std::vector<int> actions;
};

void Keep(benchmark::State& /*steps*/, int action) {
    benchmark::DoNotOptimize(action);
}

void Keep(Recording& steps, int action) {
    steps.actions.push_back(action);
}

/// A host's loop: chooses an action and learns its reward.
template <typename Steps>
void RunAgent(Steps& steps, int n, ReinforcementLearningAgent& agent) {
    Rewards rewards;
    rewards.TeachBefore(n, [&agent](int action, int reward) { agent.UpdateQ(action, reward); });
    for ([[maybe_unused]] auto _ : steps) {
        const int action = agent.ChooseAction();
        agent.UpdateQ(action, rewards.Next(action));
        Keep(steps, action);
    }
}

// The same loops with arrays instead of agents.

std::size_t Index(int action) {
    return static_cast<std::size_t>(action);
}

struct Means {
    explicit Means(int n) : count(Index(n)), q(Index(n)) {}

    void Update(int action, int reward) {
        const std::size_t i = Index(action);
        ++count[i];
        q[i] += (1.0 / count[i]) * (reward - q[i]);
    }

    std::vector<int> count;
    std::vector<double> q;
};

/// @return the lowest index of the highest value; `values` must not be empty.
template <typename Value>
int Highest(const std::vector<Value>& values) {
    std::size_t best = 0;
    Value highest = values[0];
    for (std::size_t i = 1; i < values.size(); ++i) {
        if (values[i] > highest) {
            highest = values[i];
            best = i;
        }
    }
    return static_cast<int>(best);
}

/// Seeds `rand` as epsilon-greedy and softmax agents do before each choice. With few actions, this takes most of the
/// time.
void SeedRand() {
    std::srand(static_cast<unsigned int>(std::time(nullptr)));
}

template <typename Steps>
void RunEpsilonGreedy(Steps& steps, int n, bool seedsRand) {
    static unsigned int seed = 1;
    Means means(n);
    Rewards rewards;
    rewards.TeachBefore(n, [&means](int action, int reward) { means.Update(action, reward); });
    for ([[maybe_unused]] auto _ : steps) {
        if (seedsRand) {
            SeedRand();
        }
        const double r = rand_r(&seed) / 2147483647.0;
        int action = Highest(means.q);
        if (kEpsilon > r || means.q[Index(action)] <= 1e-7) {
            action = rand_r(&seed) % n;
        }
        means.Update(action, rewards.Next(action));
        Keep(steps, action);
    }
}

int ChooseSoftmax(const std::vector<double>& q) {
    double sum = 0.0;
    for (const double mean : q) {
        sum += std::exp(mean / kTemperature);
    }
    double cumulative = 0.0;
    for (std::size_t i = 0; i < q.size(); ++i) {
        cumulative += std::exp(q[i] / kTemperature) / sum;
        if (cumulative > kSoftmaxDraw) {
            return static_cast<int>(i);
        }
    }
    return static_cast<int>(q.size()) - 1;
}

template <typename Steps>
void RunSoftmax(Steps& steps, int n, bool seedsRand) {
    Means means(n);
    Rewards rewards;
    rewards.TeachBefore(n, [&means](int action, int reward) { means.Update(action, reward); });
    for ([[maybe_unused]] auto _ : steps) {
        if (seedsRand) {
            SeedRand();
        }
        const int action = ChooseSoftmax(means.q);
        means.Update(action, rewards.Next(action));
        Keep(steps, action);
    }
}

template <typename Steps>
void RunMostFrequent(Steps& steps, int n) {
    Means means(n);
    Rewards rewards;
    rewards.TeachBefore(n, [&means](int action, int reward) { means.Update(action, reward); });
    for ([[maybe_unused]] auto _ : steps) {
        const int action = Highest(means.count);
        means.Update(action, rewards.Next(action));
        Keep(steps, action);
    }
}

template <typename Steps>
void RunThompson(Steps& steps, int n) {
    Means means(n);
    std::vector<int> success(Index(n));
    std::vector<int> failure(Index(n));
    const auto update = [&](int action, int reward) {
        ++(reward == 1 ? success : failure)[Index(action)];
        means.Update(action, reward);
    };
    Rewards rewards;
    rewards.TeachBefore(n, update);
    for ([[maybe_unused]] auto _ : steps) {
        int action = 0;
        double highest = -1.0;
        for (int i = 0; i < n; ++i) {
            const double theta = RandomBeta(success[Index(i)] + kPrior, failure[Index(i)] + kPrior);
            if (theta > highest) {
                highest = theta;
                action = i;
            }
        }
        update(action, rewards.Next(action));
        Keep(steps, action);
    }
}

/// A normal variate by the polar method, from the minimal standard generator with state 1.
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

template <typename Steps>
void RunKalman(Steps& steps, int n) {
    Means means(n);
    std::vector<double> mean(Index(n), kInitialMean);
    std::vector<double> variance(Index(n), kInitialVariance);
    const auto update = [&](int action, int reward) {
        means.Update(action, reward);
        for (double& value : variance) {
            value += kProcessNoise;
        }
        const std::size_t i = Index(action);
        const double p = variance[i];
        mean[i] = (100.0 * p * reward + kObservationNoise * mean[i]) / (p + kObservationNoise);
        variance[i] = kObservationNoise * p / (p + kObservationNoise);
    };
    Rewards rewards;
    rewards.TeachBefore(n, update);
    const double draw = KalmanDraw();
    for ([[maybe_unused]] auto _ : steps) {
        std::size_t best = 0;
        double highest = draw * variance[0] + mean[0];
        for (std::size_t i = 1; i < mean.size(); ++i) {
            const double sample = draw * variance[i] + mean[i];
            if (sample > highest) {
                highest = sample;
                best = i;
            }
        }
        const int action = static_cast<int>(best);
        update(action, rewards.Next(action));
        Keep(steps, action);
    }
}

template <typename OurLoop, typename BareLoop>
void RequireSameChoices(OurLoop ours, BareLoop bare) {
    Recording ourSteps;
    Recording bareSteps;
    ours(ourSteps);
    bare(bareSteps);
    if (ourSteps.actions != bareSteps.actions) {
        throw std::runtime_error("the agent and the bare loop choose different actions");
    }
}

std::string RowName(const std::string& agent, int n) {
    return agent + ", choose and update, " + (n == 10 ? "10" : "1 000") + " actions";
}

template <typename OurLoop, typename BareLoop>
void Compare(const std::string& agent, int n, OurLoop ours, BareLoop bare) {
    Comparison(RowName(agent, n)).Ours(ours).Direct("bare arrays", kBound, bare);
}

/// Compares with a bare loop that seeds `rand` as the agent does, and shows the time of the loop without seeding.
template <typename OurLoop, typename BareLoop>
void CompareSeeding(const std::string& agent, int n, OurLoop ours, BareLoop bare) {
    const auto seeding = [bare](auto& steps) { bare(steps, /*seedsRand=*/true); };
    const auto alone = [bare](auto& steps) { bare(steps, /*seedsRand=*/false); };
    RequireSameChoices(ours, seeding);
    Comparison(RowName(agent, n))
        .Ours(ours)
        .Direct("bare arrays, srand(time)", kBound, seeding)
        .Peer("bare arrays alone", alone);
}

void CompareEpsilonGreedy(int n) {
    const auto ours = [n](auto& steps) {
        EpsilonGreedyAgent agent(n, kEpsilon);
        RunAgent(steps, n, agent);
    };
    CompareSeeding("EpsilonGreedyAgent", n, ours,
                   [n](auto& steps, bool seedsRand) { RunEpsilonGreedy(steps, n, seedsRand); });
}

void CompareSoftmax(int n) {
    const auto ours = [n](auto& steps) {
        SoftmaxAgent agent(n, kTemperature);
        RunAgent(steps, n, agent);
    };
    CompareSeeding("SoftmaxAgent", n, ours, [n](auto& steps, bool seedsRand) { RunSoftmax(steps, n, seedsRand); });
}

void CompareMostFrequent(int n) {
    const auto ours = [n](auto& steps) {
        MFUAgent agent(n);
        RunAgent(steps, n, agent);
    };
    const auto bare = [n](auto& steps) { RunMostFrequent(steps, n); };
    RequireSameChoices(ours, bare);
    Compare("MFUAgent", n, ours, bare);
}

// The choices are not compared: both loops draw from one random state.
void CompareThompson(int n) {
    const auto ours = [n](auto& steps) {
        ThomsonSamplingAgent agent(n, kPrior, kPrior);
        RunAgent(steps, n, agent);
    };
    Compare("ThomsonSamplingAgent", n, ours, [n](auto& steps) { RunThompson(steps, n); });
}

void CompareKalman(int n) {
    const auto ours = [n](auto& steps) {
        KalmanFilterAgent agent(n, kObservationNoise, kProcessNoise, kInitialMean, kInitialVariance);
        RunAgent(steps, n, agent);
    };
    const auto bare = [n](auto& steps) { RunKalman(steps, n); };
    RequireSameChoices(ours, bare);
    Compare("KalmanFilterAgent", n, ours, bare);
}

}  // namespace

void RegisterComparisons() {
    for (const auto compare :
         {CompareEpsilonGreedy, CompareSoftmax, CompareMostFrequent, CompareThompson, CompareKalman}) {
        compare(10);
        compare(1000);
    }
}
