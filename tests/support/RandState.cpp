// SPDX-License-Identifier: Apache-2.0
#include "RandState.h"

#include <dlfcn.h>

#include <cstdlib>
#include <deque>

#include "Provider/RandomSampling.h"

namespace {

unsigned int* g_state = nullptr;
unsigned int g_first = 0;
int g_draws = 0;
std::deque<int> g_fed;

}  // namespace

extern "C" int rand_r(unsigned int* seed) noexcept {
    static const auto original = reinterpret_cast<int (*)(unsigned int*)>(dlsym(RTLD_NEXT, "rand_r"));
    if (g_state == nullptr) {
        g_state = seed;
        g_first = *seed;
    }
    ++g_draws;
    if (g_fed.empty()) {
        return original(seed);
    }
    const int integer = g_fed.front();
    g_fed.pop_front();
    return integer;
}

unsigned int RandState::First() {
    if (g_state == nullptr) {
        RandomDouble();
    }
    return g_first;
}

void RandState::Set(unsigned int seed) {
    First();
    g_fed.clear();
    *g_state = seed;
    g_draws = 0;
}

unsigned int RandState::Get() {
    First();
    return *g_state;
}

int RandState::Draws() {
    return g_draws;
}

void RandState::Feed(const std::vector<int>& integers) {
    First();
    g_fed.assign(integers.begin(), integers.end());
    g_draws = 0;
}
