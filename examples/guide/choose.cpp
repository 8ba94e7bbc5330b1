// SPDX-License-Identifier: Apache-2.0
#include <Provider/ReinforcementLearningAgent.h>

#include <cstdio>

// Action 0 pays in one round of four, action 1 in three of four.
int RewardOf(int action, int round) {
    return action == 1 ? round % 4 != 0 : round % 4 == 0;
}

int main() {
    EpsilonGreedyAgent agent(/*n=*/2, /*epsilon=*/0.1);
    int chosen[2] = {};
    int rewards = 0;
    for (int round = 0; round < 1000; ++round) {
        const int action = agent.ChooseAction();
        const int reward = RewardOf(action, round);
        agent.UpdateQ(action, reward);
        ++chosen[action];
        rewards += reward;
    }
    std::printf("action 0: %d times, action 1: %d times, rewards: %d\n", chosen[0], chosen[1], rewards);
}
