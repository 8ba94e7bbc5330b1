// SPDX-License-Identifier: Apache-2.0
#include "MemoryCases.h"
#include "Provider/RandomSampling.h"
#include "Provider/ReinforcementLearningAgent.h"

namespace {

constexpr int kActions = 5;

struct Epsilon : EpsilonGreedyAgent {
    Epsilon() : EpsilonGreedyAgent(kActions, 0.5) {}
};
struct Softmax : SoftmaxAgent {
    Softmax() : SoftmaxAgent(kActions, 1.0) {}
};
struct Mfu : MFUAgent {
    Mfu() : MFUAgent(kActions) {}
};
struct Thomson : ThomsonSamplingAgent {
    Thomson() : ThomsonSamplingAgent(kActions, 1.0, 1.0) {}
};
struct Kalman : KalmanFilterAgent {
    Kalman() : KalmanFilterAgent(kActions, 1.0, 0.1, 0.0, 1.0) {}
};

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
    tried.Holds(!tried.HasPassed() || (action >= 0 && action < kActions), "no action");
    agent.UpdateQ(1, 1);
    action = agent.ChooseAction();
    tried.Holds(action >= 0 && action < kActions, "not usable any more");
}

template <class Agent>
void TryUpdate(Try& tried) {
    Agent agent;
    tried.Call([&] { agent.UpdateQ(3, 1); });
    const int action = agent.ChooseAction();
    tried.Holds(action >= 0 && action < kActions, "not usable any more");
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

}  // namespace

Cases BanditCases() {
    return {
        {"RandomDouble()", TryVariate<RandomDouble>},
        {"StandardExponential()", TryVariate<StandardExponential>},
        {"Gauss()", TryVariate<Gauss>},
        {"StandardGamma<double>(double)", TryVariate<Gamma>},
        {"RandomBeta<double>(double const&, double const&)", TryVariate<Beta>},
        {"ReinforcementLearningAgent::ReinforcementLearningAgent(int const&)", TryLife<Mfu>},
        {"ReinforcementLearningAgent::~ReinforcementLearningAgent()", TryLife<Softmax>},
        {"ReinforcementLearningAgent::UpdateQ(int const&, int const&)", TryUpdate<Mfu>},
        {"EpsilonGreedyAgent::EpsilonGreedyAgent(int const&, double const&)", TryLife<Epsilon>},
        {"EpsilonGreedyAgent::~EpsilonGreedyAgent()", TryLife<Epsilon>},
        {"EpsilonGreedyAgent::ChooseAction()", TryChoose<Epsilon>},
        {"SoftmaxAgent::SoftmaxAgent(int const&, double const&)", TryLife<Softmax>},
        {"SoftmaxAgent::~SoftmaxAgent()", TryLife<Softmax>},
        {"SoftmaxAgent::ChooseAction()", TryChoose<Softmax>},
        {"MFUAgent::MFUAgent(int const&)", TryLife<Mfu>},
        {"MFUAgent::~MFUAgent()", TryLife<Mfu>},
        {"MFUAgent::ChooseAction()", TryChoose<Mfu>},
        {"ThomsonSamplingAgent::ThomsonSamplingAgent(int const&, double const&, double const&)", TryLife<Thomson>},
        {"ThomsonSamplingAgent::~ThomsonSamplingAgent()", TryLife<Thomson>},
        {"ThomsonSamplingAgent::UpdateQ(int const&, int const&)", TryUpdate<Thomson>},
        {"ThomsonSamplingAgent::ChooseAction()", TryChoose<Thomson>},
        {"KalmanFilterAgent::KalmanFilterAgent(int const&, double const&, double const&, double const&, double const&)",
         TryLife<Kalman>},
        {"KalmanFilterAgent::~KalmanFilterAgent()", TryLife<Kalman>},
        {"KalmanFilterAgent::UpdateQ(int const&, int const&)", TryUpdate<Kalman>},
        {"KalmanFilterAgent::ChooseAction()", TryChoose<Kalman>},
    };
}
