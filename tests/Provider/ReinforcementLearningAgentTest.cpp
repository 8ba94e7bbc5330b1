// SPDX-License-Identifier: Apache-2.0
#include "Provider/ReinforcementLearningAgent.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "Provider/RandomSampling.h"
#include "RandState.h"
#include "TestClock.h"
#include "Vectors.h"

namespace {

constexpr int kLargest = 2147483647;                   ///< largest result of rand_r
constexpr double kFixedUniform = 0.13153778773876065;  ///< draw of a softmax agent
constexpr double kTenMillionth = 1e-7;                 ///< an agent explores up to this mean reward

/// Makes the statistics of an agent public.
template <typename Agent>
class Seen : public Agent {
public:
    using Agent::Agent;
    using Agent::m_nActions;
    using Agent::m_vecCount;
    using Agent::m_vecQ;
};

class SeenThomson : public Seen<ThomsonSamplingAgent> {
public:
    using Seen<ThomsonSamplingAgent>::Seen;
    using ThomsonSamplingAgent::m_dAlpha;
    using ThomsonSamplingAgent::m_dBeta;
    using ThomsonSamplingAgent::m_vecFailure;
    using ThomsonSamplingAgent::m_vecSuccess;
};

class SeenKalman : public Seen<KalmanFilterAgent> {
public:
    using Seen<KalmanFilterAgent>::Seen;
    using KalmanFilterAgent::m_dInitialMean;
    using KalmanFilterAgent::m_dInitialVariance;
    using KalmanFilterAgent::m_dObservationNoise;
    using KalmanFilterAgent::m_dProcessNoise;
    using KalmanFilterAgent::m_vecMean;
    using KalmanFilterAgent::m_vecVariance;
};

class SeenEpsilonGreedy : public Seen<EpsilonGreedyAgent> {
public:
    using Seen<EpsilonGreedyAgent>::Seen;
    using EpsilonGreedyAgent::m_dEpsilon;
};

class SeenSoftmax : public Seen<SoftmaxAgent> {
public:
    using Seen<SoftmaxAgent>::Seen;
    using SoftmaxAgent::m_dTemperature;
};

using SeenMFU = Seen<MFUAgent>;

/// The draw at a fraction of the largest one.
int DrawAt(double share) {
    return static_cast<int>(share * kLargest);
}

class ReinforcementLearningAgentTest : public ::testing::Test {
protected:
    void SetUp() override { RandState::Set(1); }

    template <typename Agent>
    using Maker = std::function<std::unique_ptr<Agent>(int n, const std::vector<double>& parameters)>;

    /// Repeats every recorded run. The final statistics match exactly, because no logarithm or power affects them.
    template <typename Agent>
    static void ExpectVectors(const std::string& name, const Maker<Agent>& make) {
        for (const Vectors::Record& record : Vectors::Read(LUMORA_TEST_DATA "/vectors/agents.txt", name)) {
            const std::vector<int> choices = record.Digits("choices");
            const std::vector<int> updates = record.Digits(record.Has("updates") ? "updates" : "choices");
            const std::vector<int> rewards = record.Digits("rewards");
            ASSERT_GE(choices.size(), 200U);
            const int lowest = record.Integers("lowest").at(0);
            const int n = record.Integers("actions").at(0);
            const std::unique_ptr<Agent> agent = make(n, record.Doubles("parameters"));
            RandState::Set(1);
            for (std::size_t i = 0; i < choices.size(); ++i) {
                ASSERT_EQ(agent->ChooseAction(), choices[i]) << name << " of " << n << ", choice " << i;
                agent->UpdateQ(updates[i], lowest + rewards[i]);
            }
            EXPECT_EQ(agent->m_vecCount, record.Integers("count")) << name << " of " << n;
            EXPECT_EQ(agent->m_vecQ, record.Doubles("q")) << name << " of " << n;
            EXPECT_EQ(RandState::Get(), record.Unsigned("end")) << name << " of " << n;
            if constexpr (std::is_same_v<Agent, SeenThomson>) {
                EXPECT_EQ(agent->m_vecSuccess, record.Integers("success")) << n;
                EXPECT_EQ(agent->m_vecFailure, record.Integers("failure")) << n;
            }
            if constexpr (std::is_same_v<Agent, SeenKalman>) {
                EXPECT_EQ(agent->m_vecMean, record.Doubles("mean")) << n;
                EXPECT_EQ(agent->m_vecVariance, record.Doubles("variance")) << n;
            }
        }
    }
};

// All agents.

TEST_F(ReinforcementLearningAgentTest, WorksThroughItsBaseClass) {
    EXPECT_TRUE(std::is_abstract_v<ReinforcementLearningAgent>);
    const std::unique_ptr<ReinforcementLearningAgent> agents[] = {
        std::make_unique<EpsilonGreedyAgent>(3, 0.1),
        std::make_unique<SoftmaxAgent>(3, 0.1),
        std::make_unique<MFUAgent>(3),
        std::make_unique<ThomsonSamplingAgent>(3, 1.0, 1.0),
        std::make_unique<KalmanFilterAgent>(3, 1.0, 1.0, 0.0, 1.0),
    };
    for (const auto& agent : agents) {
        for (int i = 0; i < 100; ++i) {
            const int action = agent->ChooseAction();
            ASSERT_GE(action, 0);
            ASSERT_LT(action, 3);
            agent->UpdateQ(action, i % 2);
        }
    }
}

TEST_F(ReinforcementLearningAgentTest, StartsWithoutStatistics) {
    const SeenMFU agent(3);
    EXPECT_EQ(agent.m_nActions, 3);
    EXPECT_EQ(agent.m_vecCount, std::vector<int>(3, 0));
    EXPECT_EQ(agent.m_vecQ, std::vector<double>(3, 0.0));
}

TEST_F(ReinforcementLearningAgentTest, KeepsTheMeanRewardOfEachAction) {
    SeenMFU agent(3);
    for (const int reward : {4, -1, 3}) {
        agent.UpdateQ(1, reward);
    }
    agent.UpdateQ(2, 7);
    EXPECT_EQ(agent.m_vecCount, (std::vector<int>{0, 3, 1}));
    EXPECT_EQ(agent.m_vecQ, (std::vector<double>{0.0, 1.5 + (1.0 / 3) * (3 - 1.5), 7.0}));
}

TEST_F(ReinforcementLearningAgentTest, TreatsANegativeNumberOfActionsAsZero) {
    SeenKalman agent(-3, 1.0, 1.0, 0.0, 1.0);
    EXPECT_EQ(agent.m_nActions, 0);
    EXPECT_TRUE(agent.m_vecCount.empty());
    EXPECT_TRUE(agent.m_vecMean.empty());
    EXPECT_EQ(agent.ChooseAction(), 0);
}

TEST_F(ReinforcementLearningAgentTest, ReturnsFixedValuesWithoutActions) {
    EXPECT_EQ(EpsilonGreedyAgent(0, 0.1).ChooseAction(), 0);
    EXPECT_EQ(EpsilonGreedyAgent(0, 2.0).ChooseAction(), 0);
    EXPECT_EQ(SoftmaxAgent(0, 1.0).ChooseAction(), -1);
    EXPECT_EQ(SoftmaxAgent(0, 0.0).ChooseAction(), -1);
    EXPECT_EQ(MFUAgent(0).ChooseAction(), 0);
    EXPECT_EQ(ThomsonSamplingAgent(0, 1.0, 1.0).ChooseAction(), 0);
    EXPECT_EQ(KalmanFilterAgent(0, 1.0, 1.0, 0.0, 1.0).ChooseAction(), 0);
}

TEST_F(ReinforcementLearningAgentTest, EpsilonGreedyAndSoftmaxSeedRandWithTheTime) {
    constexpr time_t kNow = 1700000000;
    const std::unique_ptr<ReinforcementLearningAgent> agents[] = {
        std::make_unique<EpsilonGreedyAgent>(2, 2.0),   // explores
        std::make_unique<EpsilonGreedyAgent>(2, -1.0),  // exploits
        std::make_unique<EpsilonGreedyAgent>(0, 0.5),  std::make_unique<SoftmaxAgent>(2, 0.5),
        std::make_unique<SoftmaxAgent>(2, 0.0),        std::make_unique<SoftmaxAgent>(0, 0.5),
    };
    agents[1]->UpdateQ(1, 1);
    for (const auto& agent : agents) {
        for (const time_t now : {kNow, kNow + 1}) {
            const TestClock::Frozen clock(now);
            srand(static_cast<unsigned int>(now));
            const int first = rand();
            agent->ChooseAction();
            EXPECT_EQ(rand(), first) << &agent - agents << " at " << now;
            agent->ChooseAction();
            EXPECT_EQ(rand(), first) << &agent - agents << " at " << now;
        }
    }
}

TEST_F(ReinforcementLearningAgentTest, OtherAgentsAndLearningDoNotSeedRand) {
    const TestClock::Frozen clock(1700000000);
    srand(42);
    const int first = rand();
    srand(42);
    MFUAgent(2).ChooseAction();
    ThomsonSamplingAgent(2, 1.0, 1.0).ChooseAction();
    KalmanFilterAgent(2, 1.0, 1.0, 0.0, 1.0).ChooseAction();
    EpsilonGreedyAgent(2, 0.5).UpdateQ(0, 1);
    SoftmaxAgent(2, 0.5).UpdateQ(0, 1);
    EXPECT_EQ(rand(), first);
}

TEST_F(ReinforcementLearningAgentTest, SharesOneRandomStateWithTheVariates) {
    EpsilonGreedyAgent(2, 2.0).ChooseAction();
    EXPECT_EQ(RandState::Draws(), 2);
    const double next = RandomDouble();
    RandState::Set(1);
    RandomDouble();
    EXPECT_EQ(RandomDouble(), next);
}

TEST_F(ReinforcementLearningAgentTest, StoresConstructorParameters) {
    const SeenThomson thomson(2, 0.5, 1.5);
    EXPECT_EQ(thomson.m_dAlpha, 0.5);
    EXPECT_EQ(thomson.m_dBeta, 1.5);
    const SeenKalman kalman(2, 1.0, 2.0, 3.0, 4.0);
    EXPECT_EQ(kalman.m_dObservationNoise, 1.0);
    EXPECT_EQ(kalman.m_dProcessNoise, 2.0);
    EXPECT_EQ(kalman.m_dInitialMean, 3.0);
    EXPECT_EQ(kalman.m_dInitialVariance, 4.0);
}

template <class Agent>
void ExpectCopiesGoOnIndependently(const Agent& fresh) {
    Agent original = fresh;
    for (int update = 0; update < 300; ++update) {
        original.UpdateQ(2, 1);
    }
    Agent copy(original);
    Agent assigned = fresh;
    assigned.UpdateQ(0, 5);
    assigned = original;
    Agent& self = assigned;
    assigned = self;
    const std::vector<int> count = original.m_vecCount;
    const std::vector<double> q = original.m_vecQ;
    original.UpdateQ(1, 7);
    for (const Agent* agent : {&copy, &assigned}) {
        EXPECT_EQ(agent->m_nActions, 3);
        EXPECT_EQ(agent->m_vecCount, count);
        EXPECT_EQ(agent->m_vecQ, q);
    }
    copy.UpdateQ(1, 7);
    EXPECT_EQ(copy.m_vecQ, original.m_vecQ);
    EXPECT_EQ(assigned.m_vecQ, q);
    RandState::Set(7);
    const int choice = copy.ChooseAction();
    RandState::Set(7);
    EXPECT_EQ(original.ChooseAction(), choice);
}

TEST_F(ReinforcementLearningAgentTest, CopiesGoOnIndependently) {
    ExpectCopiesGoOnIndependently(SeenEpsilonGreedy(3, 0.0));
    ExpectCopiesGoOnIndependently(SeenSoftmax(3, 0.1));
    ExpectCopiesGoOnIndependently(SeenMFU(3));
    ExpectCopiesGoOnIndependently(SeenThomson(3, 1.0, 1.0));
    ExpectCopiesGoOnIndependently(SeenKalman(3, 1.0, 1.0, 0.0, 1.0));
}

TEST_F(ReinforcementLearningAgentTest, AssignmentChangesTheNumberOfActions) {
    SeenThomson thomson(2, 1.0, 1.0);
    thomson = SeenThomson(5, 1.0, 1.0);
    thomson.UpdateQ(4, 1);
    EXPECT_EQ(thomson.m_nActions, 5);
    EXPECT_EQ(thomson.m_vecSuccess, (std::vector<int>{0, 0, 0, 0, 1}));
    thomson = SeenThomson(1, 1.0, 1.0);
    EXPECT_EQ(thomson.m_vecFailure, std::vector<int>{0});
    EXPECT_EQ(thomson.m_vecQ, std::vector<double>{0.0});
}

TEST_F(ReinforcementLearningAgentTest, CopiesHaveTheParametersOfTheirClass) {
    SeenEpsilonGreedy greedy(2, 0.5);
    greedy = SeenEpsilonGreedy(2, 0.25);
    EXPECT_EQ(SeenEpsilonGreedy(greedy).m_dEpsilon, 0.25);
    SeenSoftmax softmax(2, 0.5);
    softmax = SeenSoftmax(2, 0.25);
    EXPECT_EQ(SeenSoftmax(softmax).m_dTemperature, 0.25);
    SeenThomson thomson(2, 1.0, 1.0);
    SeenThomson other(2, 0.5, 1.5);
    other.UpdateQ(0, 1);
    other.UpdateQ(1, 0);
    thomson = other;
    for (const SeenThomson& agent : {thomson, SeenThomson(other)}) {
        EXPECT_EQ(agent.m_dAlpha, 0.5);
        EXPECT_EQ(agent.m_dBeta, 1.5);
        EXPECT_EQ(agent.m_vecSuccess, (std::vector<int>{1, 0}));
        EXPECT_EQ(agent.m_vecFailure, (std::vector<int>{0, 1}));
    }
    SeenKalman kalman(2, 9.0, 9.0, 9.0, 9.0);
    SeenKalman learnt(2, 1.0, 2.0, 3.0, 4.0);
    learnt.UpdateQ(1, 1);
    kalman = learnt;
    for (const SeenKalman& agent : {kalman, SeenKalman(learnt)}) {
        EXPECT_EQ(agent.m_dObservationNoise, 1.0);
        EXPECT_EQ(agent.m_dProcessNoise, 2.0);
        EXPECT_EQ(agent.m_dInitialMean, 3.0);
        EXPECT_EQ(agent.m_dInitialVariance, 4.0);
        EXPECT_EQ(agent.m_vecMean, learnt.m_vecMean);
        EXPECT_EQ(agent.m_vecVariance, learnt.m_vecVariance);
    }
}

// Epsilon-greedy.

TEST_F(ReinforcementLearningAgentTest, EpsilonGreedyMatchesRecordedRuns) {
    ExpectVectors<SeenEpsilonGreedy>("epsilon-greedy", [](int n, const std::vector<double>& parameters) {
        return std::make_unique<SeenEpsilonGreedy>(n, parameters.at(0));
    });
}

TEST_F(ReinforcementLearningAgentTest, EpsilonGreedyExploresWithoutPositiveMeans) {
    for (const double epsilon : {-1.0, 0.0, 0.5, 2.0}) {
        for (const double q : {-3.0, 0.0, kTenMillionth}) {
            SeenEpsilonGreedy agent(5, epsilon);
            agent.m_vecQ = {-4.0, -5.0, q, -6.0, -7.0};
            RandState::Feed({kLargest, 13, 0});
            EXPECT_EQ(agent.ChooseAction(), 3) << epsilon << " " << q;
            EXPECT_EQ(RandState::Left(), 1U) << epsilon << " " << q;
        }
    }
}

TEST_F(ReinforcementLearningAgentTest, EpsilonGreedyExploresIfEpsilonExceedsTheDraw) {
    const struct {
        const char* name;
        double epsilon;
        int draw;
        bool explores;
    } rows[] = {
        {"well below", 0.5, DrawAt(0.4), true},
        {"well above", 0.5, DrawAt(0.6), false},
        {"one below", 0.5, kLargest / 2, true},
        {"one above", 0.5, kLargest / 2 + 1, false},
        {"epsilon of 0, lowest draw", 0.0, 0, false},
        {"tiny epsilon, lowest draw", 1e-9, 0, true},
        {"epsilon of 1, highest draw", 1.0, kLargest, false},
        {"epsilon of 1, second highest draw", 1.0, kLargest - 1, true},
        {"epsilon above 1", 1.0000001, kLargest, true},
    };
    for (const auto& row : rows) {
        SeenEpsilonGreedy agent(5, row.epsilon);
        agent.m_vecQ = {0.0, std::nextafter(kTenMillionth, 1.0), 0.0, 0.0, 0.0};
        RandState::Feed({row.draw, 13, 0});
        EXPECT_EQ(agent.ChooseAction(), row.explores ? 3 : 1) << row.name;
        EXPECT_EQ(RandState::Left(), row.explores ? 1U : 2U) << row.name;
    }
}

TEST_F(ReinforcementLearningAgentTest, EpsilonGreedyChoosesTheLowestOfEqualMeans) {
    SeenEpsilonGreedy agent(4, 0.0);
    agent.m_vecQ = {1.0, 2.5, 2.5, 0.0};
    EXPECT_EQ(agent.ChooseAction(), 1);
}

/// The stated steps of a choice, one after the other.
int ChooseBySteps(const std::vector<double>& q, double epsilon, int draw, int exploringDraw) {
    const int explored = exploringDraw % static_cast<int>(q.size());
    const double r = draw / 2147483647.0;
    if (epsilon > r) {
        return explored;
    }
    int best = 0;
    double highest = q[0];
    for (std::size_t i = 1; i < q.size(); ++i) {
        if (q[i] > highest) {
            best = static_cast<int>(i);
            highest = q[i];
        }
    }
    if (highest <= kTenMillionth) {
        return explored;
    }
    return best;
}

TEST_F(ReinforcementLearningAgentTest, EpsilonGreedyFollowsTheStepsForAnyMeans) {
    const double infinity = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double values[] = {nan, -nan, infinity,      -infinity,
                             0.0, -0.0, kTenMillionth, std::nextafter(kTenMillionth, 1.0),
                             1.0, -1.0, 1e-320,        2.0};
    const double epsilons[] = {0.0, 0.5, 1.0, -1.0, 2.0, nan, infinity, -infinity};
    std::mt19937 random(5);
    for (int round = 0; round < 20000; ++round) {
        SeenEpsilonGreedy agent(1 + static_cast<int>(random() % 6), epsilons[random() % std::size(epsilons)]);
        for (double& q : agent.m_vecQ) {
            q = values[random() % std::size(values)];
        }
        const int draw = static_cast<int>(random() >> 1);
        const int exploringDraw = static_cast<int>(random() >> 1);
        RandState::Feed({draw, exploringDraw});
        ASSERT_EQ(agent.ChooseAction(), ChooseBySteps(agent.m_vecQ, agent.m_dEpsilon, draw, exploringDraw))
            << ::testing::PrintToString(agent.m_vecQ) << ", epsilon " << agent.m_dEpsilon << ", draw " << draw;
    }
}

// Softmax.

TEST_F(ReinforcementLearningAgentTest, SoftmaxMatchesRecordedRuns) {
    ExpectVectors<SeenSoftmax>("softmax", [](int n, const std::vector<double>& parameters) {
        return std::make_unique<SeenSoftmax>(n, parameters.at(0));
    });
}

TEST_F(ReinforcementLearningAgentTest, SoftmaxUsesTheSameDrawForEveryChoice) {
    const struct { int n, expected; } rows[] = {{1, 0}, {4, 0}, {7, 0}, {8, 1}, {15, 1}, {16, 2}, {100, 13}};
    for (const auto& row : rows) {
        for (const double temperature : {1.0, 0.001, 0.0, -2.0}) {
            SoftmaxAgent agent(row.n, temperature);
            for (int call = 0; call < 3; ++call) {
                EXPECT_EQ(agent.ChooseAction(), row.expected) << row.n << " " << temperature;
            }
        }
    }
    EXPECT_EQ(RandState::Draws(), 0);
}

TEST_F(ReinforcementLearningAgentTest, SoftmaxIgnoresRewardsAtTemperaturesUpToZero) {
    for (const double temperature : {0.0, -1.0}) {
        SeenSoftmax agent(8, temperature);
        agent.m_vecQ = {9.0, 0.0, 0.0, 9.0, 0.0, 0.0, 0.0, 9.0};
        EXPECT_EQ(agent.ChooseAction(), 1) << temperature;
    }
}

TEST_F(ReinforcementLearningAgentTest, SoftmaxWeighsTheRewardsByTheTemperature) {
    SeenSoftmax cold(3, 0.5);
    cold.m_vecQ = {0.0, 1.0, 0.0};  // probabilities 0.106, 0.787, 0.106
    EXPECT_EQ(cold.ChooseAction(), 1);
    SeenSoftmax warm(3, 2.0);
    warm.m_vecQ = {0.0, 1.0, 0.0};  // probabilities 0.274, 0.452, 0.274
    EXPECT_EQ(warm.ChooseAction(), 0);
}

TEST_F(ReinforcementLearningAgentTest, SoftmaxSkipsAProbabilityEqualToTheDraw) {
    SeenSoftmax agent(2, 1.0);
    double& q = agent.m_vecQ[0];
    double& other = agent.m_vecQ[1];
    const auto probability = [&] { return std::exp(q) / (std::exp(q) + std::exp(other)); };
    // For some values of `other`, the probability can equal the draw exactly.
    for (int step = 0; step < 100 && probability() != kFixedUniform; ++step) {
        other = step * 0.01;
        q = other + std::log(kFixedUniform / (1.0 - kFixedUniform)) - 1e-14;
        while (probability() < kFixedUniform) {
            q = std::nextafter(q, 0.0);
        }
    }
    ASSERT_EQ(probability(), kFixedUniform);
    EXPECT_EQ(agent.ChooseAction(), 1);
    while (probability() == kFixedUniform) {
        q = std::nextafter(q, 0.0);
    }
    EXPECT_EQ(agent.ChooseAction(), 0);
}

TEST_F(ReinforcementLearningAgentTest, SoftmaxChoosesTheLastOnOverflowAndUnderflow) {
    SeenSoftmax agent(4, 0.5);
    agent.m_vecQ = {0.0, 354.0, 0.0, 0.0};
    EXPECT_EQ(agent.ChooseAction(), 1);
    agent.m_vecQ = {0.0, 356.0, 0.0, 0.0};
    EXPECT_EQ(agent.ChooseAction(), 3);
    agent.m_vecQ = {-370.0, -370.0, -370.0, -370.0};
    EXPECT_EQ(agent.ChooseAction(), 0);
    agent.m_vecQ = {-374.0, -374.0, -374.0, -374.0};
    EXPECT_EQ(agent.ChooseAction(), 3);
}

// Most frequently chosen.

TEST_F(ReinforcementLearningAgentTest, MFUMatchesRecordedRuns) {
    ExpectVectors<SeenMFU>("mfu",
                           [](int n, const std::vector<double>& /*none*/) { return std::make_unique<SeenMFU>(n); });
}

TEST_F(ReinforcementLearningAgentTest, MFUChoosesTheLowestOfTheMostUpdated) {
    MFUAgent agent(3);
    EXPECT_EQ(agent.ChooseAction(), 0);
    agent.UpdateQ(2, -5);
    EXPECT_EQ(agent.ChooseAction(), 2);
    agent.UpdateQ(1, 100);
    EXPECT_EQ(agent.ChooseAction(), 1);
    agent.UpdateQ(2, -5);
    EXPECT_EQ(agent.ChooseAction(), 2);
    EXPECT_EQ(RandState::Draws(), 0);
}

// Thompson sampling.

TEST_F(ReinforcementLearningAgentTest, ThomsonMatchesRecordedRuns) {
    ExpectVectors<SeenThomson>("thompson", [](int n, const std::vector<double>& parameters) {
        return std::make_unique<SeenThomson>(n, parameters.at(0), parameters.at(1));
    });
}

TEST_F(ReinforcementLearningAgentTest, ThomsonCountsOnlyARewardOfOneAsSuccess) {
    SeenThomson agent(2, 1.0, 1.0);
    agent.UpdateQ(0, 1);
    EXPECT_EQ(agent.m_vecSuccess, (std::vector<int>{1, 0}));
    EXPECT_EQ(agent.m_vecFailure, (std::vector<int>{0, 0}));
    for (const int reward : {2, 0, -1}) {
        agent.UpdateQ(1, reward);
    }
    EXPECT_EQ(agent.m_vecSuccess, (std::vector<int>{1, 0}));
    EXPECT_EQ(agent.m_vecFailure, (std::vector<int>{0, 3}));
    EXPECT_EQ(agent.m_vecCount, (std::vector<int>{1, 3}));
    EXPECT_EQ(agent.m_vecQ[0], 1.0);
    EXPECT_NEAR(agent.m_vecQ[1], 1.0 / 3, 1e-15);
}

TEST_F(ReinforcementLearningAgentTest, ThomsonUsesTheRewardOfAFailureInTheMean) {
    SeenThomson agent(1, 1.0, 1.0);
    agent.UpdateQ(0, 2);
    EXPECT_EQ(agent.m_vecQ[0], 2.0);
    EXPECT_EQ(agent.m_vecFailure[0], 1);
}

TEST_F(ReinforcementLearningAgentTest, ThomsonDrawsForEveryActionInOrder) {
    SeenThomson agent(3, 0.5, 2.0);
    agent.m_vecSuccess = {4, 0, 2};
    agent.m_vecFailure = {1, 0, 3};
    for (int round = 0; round < 100; ++round) {
        const unsigned int start = RandState::Get();
        const double theta[] = {RandomBeta(4.5, 3.0), RandomBeta(0.5, 2.0), RandomBeta(2.5, 5.0)};
        const unsigned int end = RandState::Get();
        const int best = theta[0] >= theta[1] && theta[0] >= theta[2] ? 0 : theta[1] >= theta[2] ? 1 : 2;
        RandState::Set(start);
        ASSERT_EQ(agent.ChooseAction(), best) << round;
        ASSERT_EQ(RandState::Get(), end) << round;
    }
}

TEST_F(ReinforcementLearningAgentTest, ThomsonDrawsForASingleAction) {
    EXPECT_EQ(ThomsonSamplingAgent(1, 1.0, 1.0).ChooseAction(), 0);
    EXPECT_EQ(RandState::Draws(), 4);
}

// Kalman filter.

TEST_F(ReinforcementLearningAgentTest, KalmanMatchesRecordedRuns) {
    ExpectVectors<SeenKalman>("kalman", [](int n, const std::vector<double>& parameters) {
        return std::make_unique<SeenKalman>(n, parameters.at(0), parameters.at(1), parameters.at(2), parameters.at(3));
    });
}

TEST_F(ReinforcementLearningAgentTest, KalmanScalesTheRewardAndWidensOtherVariances) {
    SeenKalman agent(3, /*observationNoise=*/2.0, /*processNoise=*/1.0, /*initialMean=*/10.0, /*initialVariance=*/5.0);
    EXPECT_EQ(agent.m_vecMean, std::vector<double>(3, 10.0));
    EXPECT_EQ(agent.m_vecVariance, std::vector<double>(3, 5.0));
    agent.UpdateQ(1, 3);
    EXPECT_EQ(agent.m_vecCount, (std::vector<int>{0, 1, 0}));
    EXPECT_EQ(agent.m_vecQ, (std::vector<double>{0.0, 3.0, 0.0}));
    EXPECT_EQ(agent.m_vecMean, (std::vector<double>{10.0, (100.0 * 6.0 * 3.0 + 2.0 * 10.0) / 8.0, 10.0}));
    EXPECT_EQ(agent.m_vecVariance, (std::vector<double>{6.0, 2.0 * 6.0 / 8.0, 6.0}));
}

TEST_F(ReinforcementLearningAgentTest, KalmanCalculatesInTheStatedOrder) {
    std::mt19937 random(21);
    std::uniform_real_distribution<double> parameter(0.01, 10.0);
    for (int round = 0; round < 1000; ++round) {
        const double r = parameter(random);
        const double w = parameter(random);
        SeenKalman agent(1, r, w, parameter(random), parameter(random));
        const double mean = agent.m_vecMean[0];
        const double p = agent.m_vecVariance[0] + w;
        const int reward = static_cast<int>(random() % 100) - 50;
        agent.UpdateQ(0, reward);
        ASSERT_EQ(agent.m_vecMean[0], (100.0 * p * reward + r * mean) / (p + r)) << round;
        ASSERT_EQ(agent.m_vecVariance[0], r * p / (p + r)) << round;
    }
}

TEST_F(ReinforcementLearningAgentTest, KalmanChoosesTheLowestOfEqualActions) {
    KalmanFilterAgent agent(4, 1.0, 1.0, 3.0, 7.0);
    EXPECT_EQ(agent.ChooseAction(), 0);
    EXPECT_EQ(agent.ChooseAction(), 0);
    EXPECT_EQ(RandState::Draws(), 0);
}

TEST_F(ReinforcementLearningAgentTest, KalmanSkipsNaNExceptForTheFirstAction) {
    const double notANumber = std::numeric_limits<double>::quiet_NaN();
    SeenKalman agent(4, 1.0, 1.0, 0.0, 0.0);
    agent.m_vecMean = {1.0, notANumber, 2.0, notANumber};
    EXPECT_EQ(agent.ChooseAction(), 2);
    agent.m_vecMean[0] = notANumber;
    EXPECT_EQ(agent.ChooseAction(), 0);
}

TEST_F(ReinforcementLearningAgentTest, KalmanSamplesWithOneNormalVariateAndTheVariance) {
    std::minstd_rand0 engine(1);
    const double normal = std::normal_distribution<double>(0.0, 1.0)(engine);
    EXPECT_NEAR(normal, -0.121966, 1e-6);
    SeenKalman agent(2, 1.0, 1.0, 0.0, 0.0);
    agent.m_vecVariance = {0.0, 4.0};
    agent.m_vecMean[1] = -4.0 * normal;  // exactly equal to the first action
    EXPECT_EQ(agent.ChooseAction(), 0);
    agent.m_vecMean[1] = std::nextafter(agent.m_vecMean[1], 1.0);
    EXPECT_EQ(agent.ChooseAction(), 1);
}

TEST_F(ReinforcementLearningAgentTest, GreedyChoiceOfOneActionDrawsOnce) {
    EpsilonGreedyAgent agent(1, 0.0);
    agent.UpdateQ(0, 1);
    RandState::Set(1);
    EXPECT_EQ(agent.ChooseAction(), 0);
    EXPECT_EQ(RandState::Draws(), 1) << "it explored";
}

}  // namespace
