// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_REINFORCEMENT_LEARNING_AGENT_H
#define LUMORA_COMMON_PROVIDER_REINFORCEMENT_LEARNING_AGENT_H

#include <vector>

#include "LumoraApi.h"

/// @addtogroup bandits
/// @{

/// Base class of the multi-armed bandits, which choose among n actions and learn from the reward of each choice.
///
/// You call ChooseAction(), perform the action, and call UpdateQ() with the action and its reward. Where an agent
/// chooses the highest of some values, the lowest action wins a tie.
///
/// **Units.** Actions are numbered 0 to n - 1. A reward is any integer; the value of an action is the mean of its
/// rewards.
/// **State.** Statistics last as long as the agent: they are not saved and do not decay. An agent is a value: a copy
/// has the same parameters and statistics, and then learns on its own.
/// **Threads.** Not thread-safe. EpsilonGreedyAgent and ThomsonSamplingAgent also share a random state with all
/// functions of RandomSampling.h, without a lock: use all of these from one thread.
/// **The host's rand().** Every choice of EpsilonGreedyAgent and SoftmaxAgent calls the C library's `srand` with the
/// current time, although no agent calls `rand`. This restarts the host's `rand` sequence, so `rand` repeats its
/// values if two choices fall in the same second. Hosts can observe this, so it stays; use another generator if you
/// need an undisturbed sequence.
/// **Errors.** Nothing is logged. Actions are not checked: an action outside 0 to n - 1 is undefined behaviour. When
/// memory runs out, construction, copies and assignments throw `std::bad_alloc`, and construction throws
/// `std::length_error` if n is more than a vector can hold; an assignment then changes nothing. UpdateQ() and
/// ChooseAction() need no memory and throw nothing.
class LUMORA_API ReinforcementLearningAgent {
public:
    /// Starts without statistics.
    /// @param n  number of actions; a negative number counts as 0. Without actions, UpdateQ() must not be called.
    explicit ReinforcementLearningAgent(const int& n);
    virtual ~ReinforcementLearningAgent();

    ReinforcementLearningAgent(const ReinforcementLearningAgent&) = default;         ///< Copies every field.
    ReinforcementLearningAgent& operator=(const ReinforcementLearningAgent& other);  ///< Copies every field.

    /// Learns the reward of an action.
    virtual void UpdateQ(const int& action, const int& reward);

    /// Chooses the next action.
    /// @return the action; without actions 0, except from SoftmaxAgent.
    virtual int ChooseAction() = 0;

protected:
    int m_nActions;               ///< number of actions
    std::vector<int> m_vecCount;  ///< number of updates of each action
    std::vector<double> m_vecQ;   ///< mean reward of each action
};

/// Chooses the action with the highest mean reward, but explores (chooses at random) with probability epsilon, and
/// always while no mean reward is above 1e-7.
class LUMORA_API EpsilonGreedyAgent : public ReinforcementLearningAgent {
public:
    /// Starts without statistics.
    /// @param n        number of actions.
    /// @param epsilon  probability of exploring, 0 to 1; not checked.
    EpsilonGreedyAgent(const int& n, const double& epsilon);
    ~EpsilonGreedyAgent() override;

    EpsilonGreedyAgent(const EpsilonGreedyAgent&) = default;             ///< Copies every field.
    EpsilonGreedyAgent& operator=(const EpsilonGreedyAgent&) = default;  ///< Copies every field.

    int ChooseAction() override;

protected:
    double m_dEpsilon;  ///< probability of exploring
};

/// Gives each action a probability proportional to exp(mean reward / temperature), and chooses with a fixed draw.
///
/// The draw comes from the minimal standard generator (Park and Miller, 1988), which is seeded with 1 for every choice,
/// so it is always 0.13153778773876065. Unlike in textbooks, chance plays no part: the mean rewards and the temperature
/// determine the choice.
class LUMORA_API SoftmaxAgent : public ReinforcementLearningAgent {
public:
    /// Starts without statistics.
    /// @param n            number of actions.
    /// @param temperature  higher values make the probabilities more equal; 0 or less makes them all equal.
    SoftmaxAgent(const int& n, const double& temperature);
    ~SoftmaxAgent() override;

    SoftmaxAgent(const SoftmaxAgent&) = default;             ///< Copies every field.
    SoftmaxAgent& operator=(const SoftmaxAgent&) = default;  ///< Copies every field.

    /// Chooses by the fixed draw.
    /// @return the first action at which the cumulative probability exceeds the draw, or n - 1 if no action does. This
    ///         happens if there are no actions (the result is -1), if an exponential or the sum of all exponentials
    ///         overflows (as when a mean reward is above about 709 temperatures), or if all of them underflow (every
    ///         mean reward below about -745 temperatures).
    int ChooseAction() override;

protected:
    double m_dTemperature;  ///< divides the mean rewards
};

/// Chooses the action with the most updates; rewards are ignored.
class LUMORA_API MFUAgent : public ReinforcementLearningAgent {
public:
    /// Starts without statistics.
    explicit MFUAgent(const int& n);
    ~MFUAgent() override;

    MFUAgent(const MFUAgent&) = default;             ///< Copies every field.
    MFUAgent& operator=(const MFUAgent&) = default;  ///< Copies every field.

    int ChooseAction() override;
};

/// Draws a beta variate for every action from its successes and failures, and chooses the action with the highest one
/// (Thompson, 1933).
///
/// RandomBeta() draws the variates; their distribution is not the textbook one.
class LUMORA_API ThomsonSamplingAgent : public ReinforcementLearningAgent {
public:
    /// Starts without successes and failures.
    /// @param n      number of actions.
    /// @param alpha  prior: added to the successes of each action. Above 0; not checked.
    /// @param beta   prior: added to the failures of each action. Above 0; not checked.
    ThomsonSamplingAgent(const int& n, const double& alpha, const double& beta);
    ~ThomsonSamplingAgent() override;

    ThomsonSamplingAgent(const ThomsonSamplingAgent&) = default;         ///< Copies every field.
    ThomsonSamplingAgent& operator=(const ThomsonSamplingAgent& other);  ///< Copies every field.

    /// Learns a success or a failure.
    /// @param action  the action that earned the reward.
    /// @param reward  1 counts as a success, any other value as a failure. The mean uses the value itself.
    void UpdateQ(const int& action, const int& reward) override;
    int ChooseAction() override;

protected:
    double m_dAlpha;                ///< added to the successes
    double m_dBeta;                 ///< added to the failures
    std::vector<int> m_vecSuccess;  ///< number of successes of each action
    std::vector<int> m_vecFailure;  ///< number of failures of each action
};

/// Tracks the value of each action with a one-dimensional Kalman filter, and chooses the action with the highest sample
/// of its value.
///
/// Two differences from the textbook are guaranteed. A reward is multiplied by 100 before it enters the filter's mean.
/// Every sample uses the same standard normal value, about -0.121966, and uses the *variance* as the standard
/// deviation: the agent chooses the action with the highest `mean - 0.121966 * variance`, which slightly favours
/// actions with a small variance.
class LUMORA_API KalmanFilterAgent : public ReinforcementLearningAgent {
public:
    /// Starts with the same mean and variance for every action.
    /// @param n                 number of actions.
    /// @param observationNoise  variance of a reward around the value.
    /// @param processNoise      variance that each update adds to every action.
    /// @param initialMean       mean of every action at first.
    /// @param initialVariance   variance of every action at first.
    KalmanFilterAgent(const int& n, const double& observationNoise, const double& processNoise,
                      const double& initialMean, const double& initialVariance);
    ~KalmanFilterAgent() override;

    KalmanFilterAgent(const KalmanFilterAgent&) = default;         ///< Copies every field.
    KalmanFilterAgent& operator=(const KalmanFilterAgent& other);  ///< Copies every field.

    /// Learns the reward of an action, and adds the process noise to the variance of every action.
    void UpdateQ(const int& action, const int& reward) override;
    int ChooseAction() override;

protected:
    double m_dObservationNoise;         ///< variance of a reward around the value
    double m_dProcessNoise;             ///< added to every variance by each update
    double m_dInitialMean;              ///< mean of every action at first
    double m_dInitialVariance;          ///< variance of every action at first
    std::vector<double> m_vecMean;      ///< mean of each action
    std::vector<double> m_vecVariance;  ///< variance of each action
};

/// @}

#endif  // LUMORA_COMMON_PROVIDER_REINFORCEMENT_LEARNING_AGENT_H
