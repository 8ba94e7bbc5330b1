// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_REINFORCEMENT_LEARNING_AGENT_H
#define LUMORA_COMMON_PROVIDER_REINFORCEMENT_LEARNING_AGENT_H

#include <vector>

#include "LumoraApi.h"

/// @addtogroup bandits
/// @{

/// Base of the multi-armed bandits: chooses among n actions and learns from the reward of each choice.
///
/// The host calls ChooseAction(), performs the action, and calls UpdateQ() with the action and its reward. Every
/// choice of a highest value gives the lowest of the actions that share it.
///
/// **Units.** Actions are numbered 0 to n - 1. Rewards are any integers; the value of an action is their mean.
/// **State.** Kept for the agent's whole life: nothing is saved and nothing decays.
/// **Threads.** One thread per agent. EpsilonGreedyAgent and ThomsonSamplingAgent also draw from the state that all
/// random variates of the process share without a lock: these, and RandomSampling.h, belong to one thread.
/// **The host's rand().** EpsilonGreedyAgent and SoftmaxAgent begin every choice with the C library's `srand` and the
/// current time, although no agent draws from `rand`. The sequence of a host that does so starts anew: choices within
/// one second make it repeat itself. This is kept on purpose; a host that needs a sequence of its own takes another
/// generator.
/// **Errors.** None; nothing is logged. Actions are not checked: one outside 0 to n - 1 writes where it must not.
class LUMORA_API ReinforcementLearningAgent {
public:
    /// Knows nothing of the actions but their number.
    /// @param n  how many actions; a negative number counts as 0. With none, there is nothing to choose and nothing may
    ///           be learnt.
    explicit ReinforcementLearningAgent(const int& n);
    virtual ~ReinforcementLearningAgent();

    ReinforcementLearningAgent(const ReinforcementLearningAgent&) = delete;
    ReinforcementLearningAgent& operator=(const ReinforcementLearningAgent&) = delete;

    /// Learns that an action brought a reward.
    virtual void UpdateQ(const int& action, const int& reward);

    /// Chooses.
    /// @return the action to perform next; 0 without actions, unless the agent says otherwise.
    virtual int ChooseAction() = 0;

protected:
    int m_nActions;               ///< n
    std::vector<int> m_vecCount;  ///< how often each action was updated
    std::vector<double> m_vecQ;   ///< mean reward of each action
};

/// Exploits the best mean reward, but explores with probability epsilon, and while no mean is above 1e-7.
class LUMORA_API EpsilonGreedyAgent : public ReinforcementLearningAgent {
public:
    /// Begins without a preference.
    /// @param n        how many actions.
    /// @param epsilon  the probability, 0 to 1; not checked.
    EpsilonGreedyAgent(const int& n, const double& epsilon);
    ~EpsilonGreedyAgent() override;

    int ChooseAction() override;

protected:
    double m_dEpsilon;  ///< the probability of exploring
};

/// Chooses with probabilities that grow with the exponential of the mean rewards, against one fixed draw.
///
/// The draw comes from the minimal standard generator (Park and Miller, 1988), begun anew for every choice, so it is
/// 0.13153778773876065 every time: unlike the textbook's, the choice is a function of the mean rewards alone.
class LUMORA_API SoftmaxAgent : public ReinforcementLearningAgent {
public:
    /// Begins without a preference.
    /// @param n            how many actions.
    /// @param temperature  the higher, the more alike are the probabilities; 0 or less makes them equal.
    SoftmaxAgent(const int& n, const double& temperature);
    ~SoftmaxAgent() override;

    /// Chooses against the fixed draw.
    /// @return the first action at which the cumulative probability exceeds the draw. The last one, n - 1, when there
    ///         is none: so without actions (-1), and when the exponentials overflow or vanish, with a mean reward above
    ///         some 709 temperatures or all of them below -745.
    int ChooseAction() override;

protected:
    double m_dTemperature;  ///< how alike the probabilities are
};

/// Chooses what was updated most often, whatever the rewards.
class LUMORA_API MFUAgent : public ReinforcementLearningAgent {
public:
    /// Begins with every count at 0.
    explicit MFUAgent(const int& n);
    ~MFUAgent() override;

    int ChooseAction() override;
};

/// Draws a beta variate for every action, from its successes and failures, and chooses the highest (Thompson, 1933).
///
/// The variates are those of RandomBeta(), whose ranges are not the textbook's.
class LUMORA_API ThomsonSamplingAgent : public ReinforcementLearningAgent {
public:
    /// Begins with the prior alone.
    /// @param n      how many actions.
    /// @param alpha  added to the successes; with beta the prior. Above 0.
    /// @param beta   added to the failures. Above 0.
    ThomsonSamplingAgent(const int& n, const double& alpha, const double& beta);
    ~ThomsonSamplingAgent() override;

    /// Learns a success or a failure.
    /// @param action  the action that brought it.
    /// @param reward  exactly 1 is a success; any other is a failure, and counts in the mean all the same.
    void UpdateQ(const int& action, const int& reward) override;
    int ChooseAction() override;

protected:
    double m_dAlpha;                ///< added to the successes
    double m_dBeta;                 ///< added to the failures
    std::vector<int> m_vecSuccess;  ///< of each action
    std::vector<int> m_vecFailure;  ///< of each action
};

/// Follows the value of each action with a Kalman filter of one dimension, and chooses by value less a share of its
/// uncertainty.
///
/// Two things differ from the textbook, and are promises. A reward enters the mean 100 times. A choice draws the same
/// standard normal value for every action every time, about -0.121966, and takes the *variance* as the spread: the
/// choice is the highest `mean - 0.121966 * variance`, so it slightly favours what is better known.
class LUMORA_API KalmanFilterAgent : public ReinforcementLearningAgent {
public:
    /// Begins with the same value for every action.
    /// @param n                 how many actions.
    /// @param observationNoise  variance of a reward around the value.
    /// @param processNoise      variance that every update adds to the value of every action.
    /// @param initialMean       of every action.
    /// @param initialVariance   of every action.
    KalmanFilterAgent(const int& n, const double& observationNoise, const double& processNoise,
                      const double& initialMean, const double& initialVariance);
    ~KalmanFilterAgent() override;

    /// Also widens the uncertainty of all other actions.
    void UpdateQ(const int& action, const int& reward) override;
    int ChooseAction() override;

protected:
    double m_dObservationNoise;         ///< variance of a reward around the value
    double m_dProcessNoise;             ///< what every update adds to each variance
    double m_dInitialMean;              ///< of every action
    double m_dInitialVariance;          ///< of every action
    std::vector<double> m_vecMean;      ///< of each action
    std::vector<double> m_vecVariance;  ///< of each action
};

/// @}

#endif  // LUMORA_COMMON_PROVIDER_REINFORCEMENT_LEARNING_AGENT_H
