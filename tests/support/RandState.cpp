// SPDX-License-Identifier: Apache-2.0
#include "RandState.h"

#include <cstdlib>
#include <deque>
#include <stdexcept>

#include "NextFunction.h"
#include "Provider/ReinforcementLearningAgent.h"

namespace {

constexpr int kMostDraws = 10000000;

bool g_isSearching = false;
unsigned int* g_state = nullptr;
unsigned int g_first = 0;
unsigned int g_set = 0;
std::deque<int> g_fed;

}  // namespace

extern "C" int rand_r(unsigned int* seed) noexcept {
    static const auto original = NextFunction<int(unsigned int*)>("rand_r");
    if (g_isSearching) {
        g_isSearching = false;
        g_state = seed;
        g_first = *seed;
    }
    if (seed != g_state || g_fed.empty()) {
        return original(seed);
    }
    const int integer = g_fed.front();
    g_fed.pop_front();
    return integer;
}

unsigned int RandState::First() {
    if (g_state == nullptr) {
        g_isSearching = true;
        EpsilonGreedyAgent(1, 1.0).ChooseAction();
    }
    return g_first;
}

void RandState::Set(unsigned int seed) {
    First();
    g_fed.clear();
    *g_state = seed;
    g_set = seed;
}

unsigned int RandState::Get() {
    First();
    return *g_state;
}

int RandState::Draws() {
    unsigned int state = g_set;
    int draws = 0;
    while (state != Get()) {
        rand_r(&state);
        if (++draws == kMostDraws) {
            throw std::runtime_error("no draws lead to the state");
        }
    }
    return draws;
}

void RandState::Feed(const std::vector<int>& integers) {
    First();
    g_fed.assign(integers.begin(), integers.end());
}

std::size_t RandState::Left() {
    return g_fed.size();
}
