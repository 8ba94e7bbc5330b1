// SPDX-License-Identifier: Apache-2.0
#include "Interrupts.h"

#include <semaphore.h>

#include <csignal>

namespace {

volatile std::sig_atomic_t g_noted = 0;  // the number of the signal
sem_t g_arrival;

void SetAction(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

void Interrupts::Catch() {
    if (g_noted != 0) {
        return;  // the next signal is the second one
    }
    sem_init(&g_arrival, /*pshared=*/0, /*value=*/0);
    SetAction([](int number) {
        g_noted = number;
        sem_post(&g_arrival);
    });
}

void Interrupts::Release() {
    SetAction(SIG_DFL);
    if (g_noted != 0) {
        std::raise(g_noted);
    }
}

bool Interrupts::IsNoted() {
    return g_noted != 0;
}

void Interrupts::Wait() {
    while (g_noted == 0) {
        sem_wait(&g_arrival);
    }
}
