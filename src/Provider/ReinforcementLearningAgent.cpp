// SPDX-License-Identifier: Apache-2.0
#include "Provider/ReinforcementLearningAgent.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <ctime>

#include "Provider/MinimalStandardEngine.h"
#include "Provider/RandSeed.h"
#include "Provider/RandomSampling.h"

namespace {

constexpr double kLargestDraw = 2147483647.0;  ///< largest result of `rand_r`
constexpr double kNothingPositiveYet = 1e-7;   ///< explores while no mean reward is above this
constexpr double kRewardScale = 100.0;         ///< factor of a reward in the Kalman mean

/// Calls `valueOf` once for each action, in order.
/// @return the lowest action with the highest value; 0 if there are no actions.
template <typename ValueOf>
std::size_t Highest(std::size_t n, ValueOf valueOf) {
    if (n == 0) {
        return 0;
    }
    std::size_t best = 0;
    auto highest = valueOf(0);
    for (std::size_t i = 1; i < n; ++i) {
        const auto value = valueOf(i);
        // The hint makes GCC emit a branch: a conditional move would make each comparison wait for the previous one.
        if (__builtin_expect(value > highest, false)) {
            best = i;
            highest = value;
        }
    }
    return best;
}

/// @return a normal variate by the polar method, from a new minimal standard generator: always the same value.
double FixedNormal() {
    MinimalStandardEngine engine;
    double y = 0.0;
    double r2 = 0.0;
    do {
        const double x = 2.0 * engine.Canonical() - 1.0;
        y = 2.0 * engine.Canonical() - 1.0;
        r2 = x * x + y * y;
    } while (r2 > 1.0 || r2 == 0.0);
    return y * std::sqrt(-2.0 * std::log(r2) / r2);
}

std::size_t SizeOf(int n) {
    return static_cast<std::size_t>(std::max(n, 0));
}

constexpr double FixedUniform() {
    MinimalStandardEngine engine;
    return engine.Canonical();
}

constexpr double kFixedUniform = FixedUniform();
static_assert(kFixedUniform == 0.13153778773876065, "the softmax agent's draw is fixed");

/// Reseeds the C library's `rand`, which no agent uses. Hosts can observe the effect, so it is kept.
void ReseedHostGenerator() {
    std::srand(static_cast<unsigned int>(std::time(nullptr)));
}

}  // namespace

ReinforcementLearningAgent::ReinforcementLearningAgent(const int& n)
    : m_nActions(std::max(n, 0)), m_vecCount(SizeOf(n), 0), m_vecQ(SizeOf(n), 0.0) {}

ReinforcementLearningAgent::~ReinforcementLearningAgent() = default;

// In each assignment, the copies that can throw come before the first change.
ReinforcementLearningAgent& ReinforcementLearningAgent::operator=(const ReinforcementLearningAgent& other) {
    std::vector<int> count = other.m_vecCount;
    std::vector<double> q = other.m_vecQ;
    m_vecCount.swap(count);
    m_vecQ.swap(q);
    m_nActions = other.m_nActions;
    return *this;
}

void ReinforcementLearningAgent::UpdateQ(const int& action, const int& reward) {
    const auto i = static_cast<std::size_t>(action);
    ++m_vecCount[i];
    m_vecQ[i] += (1.0 / m_vecCount[i]) * (reward - m_vecQ[i]);
}

EpsilonGreedyAgent::EpsilonGreedyAgent(const int& n, const double& epsilon)
    : ReinforcementLearningAgent(n), m_dEpsilon(epsilon) {}

EpsilonGreedyAgent::~EpsilonGreedyAgent() = default;

int EpsilonGreedyAgent::ChooseAction() {
    ReseedHostGenerator();
    const double r = rand_r(&rand_seed) / kLargestDraw;
    const std::size_t best = Highest(m_vecQ.size(), [this](std::size_t i) { return m_vecQ[i]; });
    if (m_nActions > 0 && !(m_dEpsilon > r) && !(m_vecQ[best] <= kNothingPositiveYet)) {
        return static_cast<int>(best);
    }
    const int draw = rand_r(&rand_seed);
    return m_nActions > 0 ? draw % m_nActions : 0;
}

SoftmaxAgent::SoftmaxAgent(const int& n, const double& temperature)
    : ReinforcementLearningAgent(n), m_dTemperature(temperature) {}

SoftmaxAgent::~SoftmaxAgent() = default;

int SoftmaxAgent::ChooseAction() {
    ReseedHostGenerator();
    const auto weightOf = [this](double q) { return m_dTemperature > 0.0 ? std::exp(q / m_dTemperature) : 1.0; };
    double sum = 0.0;
    for (const double q : m_vecQ) {
        sum += weightOf(q);
    }
    double cumulative = 0.0;
    for (std::size_t i = 0; i < m_vecQ.size(); ++i) {
        cumulative += weightOf(m_vecQ[i]) / sum;
        if (cumulative > kFixedUniform) {
            return static_cast<int>(i);
        }
    }
    return m_nActions - 1;
}

MFUAgent::MFUAgent(const int& n) : ReinforcementLearningAgent(n) {}

MFUAgent::~MFUAgent() = default;

int MFUAgent::ChooseAction() {
    return static_cast<int>(Highest(m_vecCount.size(), [this](std::size_t i) { return m_vecCount[i]; }));
}

ThomsonSamplingAgent::ThomsonSamplingAgent(const int& n, const double& alpha, const double& beta)
    : ReinforcementLearningAgent(n),
      m_dAlpha(alpha),
      m_dBeta(beta),
      m_vecSuccess(SizeOf(n), 0),
      m_vecFailure(SizeOf(n), 0) {}

ThomsonSamplingAgent::~ThomsonSamplingAgent() = default;

ThomsonSamplingAgent& ThomsonSamplingAgent::operator=(const ThomsonSamplingAgent& other) {
    std::vector<int> success = other.m_vecSuccess;
    std::vector<int> failure = other.m_vecFailure;
    ReinforcementLearningAgent::operator=(other);
    m_dAlpha = other.m_dAlpha;
    m_dBeta = other.m_dBeta;
    m_vecSuccess.swap(success);
    m_vecFailure.swap(failure);
    return *this;
}

void ThomsonSamplingAgent::UpdateQ(const int& action, const int& reward) {
    ++(reward == 1 ? m_vecSuccess : m_vecFailure)[static_cast<std::size_t>(action)];
    ReinforcementLearningAgent::UpdateQ(action, reward);
}

int ThomsonSamplingAgent::ChooseAction() {
    const auto thetaOf = [this](std::size_t i) {
        return RandomBeta<double>(m_vecSuccess[i] + m_dAlpha, m_vecFailure[i] + m_dBeta);
    };
    return static_cast<int>(Highest(m_vecSuccess.size(), thetaOf));
}

KalmanFilterAgent::KalmanFilterAgent(const int& n, const double& observationNoise, const double& processNoise,
                                     const double& initialMean, const double& initialVariance)
    : ReinforcementLearningAgent(n),
      m_dObservationNoise(observationNoise),
      m_dProcessNoise(processNoise),
      m_dInitialMean(initialMean),
      m_dInitialVariance(initialVariance),
      m_vecMean(SizeOf(n), initialMean),
      m_vecVariance(SizeOf(n), initialVariance) {}

KalmanFilterAgent::~KalmanFilterAgent() = default;

KalmanFilterAgent& KalmanFilterAgent::operator=(const KalmanFilterAgent& other) {
    std::vector<double> mean = other.m_vecMean;
    std::vector<double> variance = other.m_vecVariance;
    ReinforcementLearningAgent::operator=(other);
    m_dObservationNoise = other.m_dObservationNoise;
    m_dProcessNoise = other.m_dProcessNoise;
    m_dInitialMean = other.m_dInitialMean;
    m_dInitialVariance = other.m_dInitialVariance;
    m_vecMean.swap(mean);
    m_vecVariance.swap(variance);
    return *this;
}

void KalmanFilterAgent::UpdateQ(const int& action, const int& reward) {
    ReinforcementLearningAgent::UpdateQ(action, reward);
    for (double& variance : m_vecVariance) {
        variance += m_dProcessNoise;
    }
    const auto i = static_cast<std::size_t>(action);
    const double p = m_vecVariance[i];
    const double r = m_dObservationNoise;
    m_vecMean[i] = (kRewardScale * p * reward + r * m_vecMean[i]) / (p + r);
    m_vecVariance[i] = r * p / (p + r);
}

int KalmanFilterAgent::ChooseAction() {
    static const double normal = FixedNormal();
    const auto sampleOf = [this](std::size_t i) { return normal * m_vecVariance[i] + m_vecMean[i]; };
    return static_cast<int>(Highest(m_vecMean.size(), sampleOf));
}
