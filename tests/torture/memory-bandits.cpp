// SPDX-License-Identifier: Apache-2.0
#include "MemoryCases.h"
#include "Provider/RandomSampling.h"
#include "Provider/ReinforcementLearningAgent.h"

namespace {

constexpr int kActions = 5;

/// An agent whose statistics can be seen.
template <class Base>
struct Counting : Base {
    using Base::Base;
    int Updates(int action) const { return this->m_vecCount[static_cast<std::size_t>(action)]; }
};

struct Epsilon : Counting<EpsilonGreedyAgent> {
    Epsilon() : Counting(kActions, 0.5) {}
};
struct Softmax : Counting<SoftmaxAgent> {
    Softmax() : Counting(kActions, 1.0) {}
};
struct Mfu : Counting<MFUAgent> {
    Mfu() : Counting(kActions) {}
};
struct Thomson : Counting<ThomsonSamplingAgent> {
    Thomson() : Counting(kActions, 1.0, 1.0) {}
};
struct Kalman : Counting<KalmanFilterAgent> {
    Kalman() : Counting(kActions, 1.0, 0.1, 0.0, 1.0) {}
};

/// Demands that the agent chooses and learns.
template <class Agent>
void HoldsLearning(Try& tried, Agent& agent) {
    const int before = agent.Updates(1);
    agent.UpdateQ(1, 1);
    const int action = agent.ChooseAction();
    tried.Holds(action >= 0 && action < kActions && agent.Updates(1) == before + 1, "not usable any more");
}

template <class Agent>
void TryLife(Try& tried) {
    tried.Call([] { const Agent agent; });
}

template <class Agent>
void TryChoose(Try& tried) {
    Agent agent;
    agent.UpdateQ(3, 1);
    int action = -1;
    tried.Call([&] { action = agent.ChooseAction(); });
    tried.Returns();
    tried.Holds(action >= 0 && action < kActions, "no action");
    HoldsLearning(tried, agent);
}

template <class Agent>
void TryUpdate(Try& tried) {
    Agent agent;
    tried.Call([&] { agent.UpdateQ(3, 1); });
    tried.Returns();
    tried.Holds(agent.Updates(3) == 1, "has not learnt");
    HoldsLearning(tried, agent);
}

template <class Agent>
void TryCopy(Try& tried) {
    Agent agent;
    agent.UpdateQ(3, 1);
    tried.Call([&] {
        Agent copy(agent);
        copy.UpdateQ(3, 1);
        tried.Holds(copy.Updates(3) == 2 && agent.Updates(3) == 1, "another copy");
    });
    HoldsLearning(tried, agent);
}

/// A failed assignment changes nothing.
template <class Agent>
void TryAssign(Try& tried) {
    Agent agent;
    agent.UpdateQ(3, 1);
    Agent other;
    other.UpdateQ(2, 1);
    tried.Call([&] { other = agent; });
    tried.Holds(other.Updates(3) == (tried.HasPassed() ? 1 : 0), "another value");
    tried.Holds(other.Updates(2) == (tried.HasPassed() ? 0 : 1), "half of a value");
    HoldsLearning(tried, other);
}

template <double (*Draw)()>
void TryVariate(Try& tried) {
    double variate = 0.0;
    tried.Call([&] { variate = Draw(); });
    tried.Returns();
    tried.Holds(variate > -100.0 && variate < 100.0, "no variate");
}

double Gamma() {
    return StandardGamma(0.5);
}

double Beta() {
    return RandomBeta(2.0, 3.0);
}

constexpr Case kCases[] = {
    {"RandomDouble()", TryVariate<RandomDouble>},
    {"StandardExponential()", TryVariate<StandardExponential>},
    {"Gauss()", TryVariate<Gauss>},
    {"StandardGamma<double>(double)", TryVariate<Gamma>},
    {"RandomBeta<double>(double const&, double const&)", TryVariate<Beta>},
    {"ReinforcementLearningAgent::ReinforcementLearningAgent(int const&)", TryLife<Mfu>},
    {"ReinforcementLearningAgent::ReinforcementLearningAgent(const ReinforcementLearningAgent&)", TryCopy<Mfu>},
    {"ReinforcementLearningAgent::operator=(ReinforcementLearningAgent const&)", TryAssign<Mfu>},
    {"ReinforcementLearningAgent::~ReinforcementLearningAgent()", TryLife<Softmax>},
    {"ReinforcementLearningAgent::UpdateQ(int const&, int const&)", TryUpdate<Mfu>},
    {"EpsilonGreedyAgent::EpsilonGreedyAgent(int const&, double const&)", TryLife<Epsilon>},
    {"EpsilonGreedyAgent::EpsilonGreedyAgent(const EpsilonGreedyAgent&)", TryCopy<Epsilon>},
    {"EpsilonGreedyAgent::operator=(const EpsilonGreedyAgent&)", TryAssign<Epsilon>},
    {"EpsilonGreedyAgent::~EpsilonGreedyAgent()", TryLife<Epsilon>},
    {"EpsilonGreedyAgent::ChooseAction()", TryChoose<Epsilon>},
    {"SoftmaxAgent::SoftmaxAgent(int const&, double const&)", TryLife<Softmax>},
    {"SoftmaxAgent::SoftmaxAgent(const SoftmaxAgent&)", TryCopy<Softmax>},
    {"SoftmaxAgent::operator=(const SoftmaxAgent&)", TryAssign<Softmax>},
    {"SoftmaxAgent::~SoftmaxAgent()", TryLife<Softmax>},
    {"SoftmaxAgent::ChooseAction()", TryChoose<Softmax>},
    {"MFUAgent::MFUAgent(int const&)", TryLife<Mfu>},
    {"MFUAgent::MFUAgent(const MFUAgent&)", TryCopy<Mfu>},
    {"MFUAgent::operator=(const MFUAgent&)", TryAssign<Mfu>},
    {"MFUAgent::~MFUAgent()", TryLife<Mfu>},
    {"MFUAgent::ChooseAction()", TryChoose<Mfu>},
    {"ThomsonSamplingAgent::ThomsonSamplingAgent(int const&, double const&, double const&)", TryLife<Thomson>},
    {"ThomsonSamplingAgent::ThomsonSamplingAgent(const ThomsonSamplingAgent&)", TryCopy<Thomson>},
    {"ThomsonSamplingAgent::operator=(ThomsonSamplingAgent const&)", TryAssign<Thomson>},
    {"ThomsonSamplingAgent::~ThomsonSamplingAgent()", TryLife<Thomson>},
    {"ThomsonSamplingAgent::UpdateQ(int const&, int const&)", TryUpdate<Thomson>},
    {"ThomsonSamplingAgent::ChooseAction()", TryChoose<Thomson>},
    {"KalmanFilterAgent::KalmanFilterAgent(int const&, double const&, double const&, double const&, double const&)",
     TryLife<Kalman>},
    {"KalmanFilterAgent::KalmanFilterAgent(const KalmanFilterAgent&)", TryCopy<Kalman>},
    {"KalmanFilterAgent::operator=(KalmanFilterAgent const&)", TryAssign<Kalman>},
    {"KalmanFilterAgent::~KalmanFilterAgent()", TryLife<Kalman>},
    {"KalmanFilterAgent::UpdateQ(int const&, int const&)", TryUpdate<Kalman>},
    {"KalmanFilterAgent::ChooseAction()", TryChoose<Kalman>},
};

}  // namespace

Cases BanditCases() {
    return {std::begin(kCases), std::end(kCases)};
}
