// SPDX-License-Identifier: Apache-2.0
#include <ContextEventThread.h>

#include <cstdio>

enum Event : int { EVENT_WORK = 1 };

class Worker : public ContextEventThread {
    void OnEvent(int eventId, void* data) override {
        if (eventId == EVENT_WORK) {
            std::puts(static_cast<const char*>(data));
        }
    }
};

int main() {
    static char sweep[] = "sweep";
    static char cook[] = "cook";
    static char ring[] = "answer the door";

    Worker worker;
    worker.PushEvent(EVENT_WORK, cook, /*priority=*/10);
    worker.PushEvent(EVENT_WORK, sweep, /*priority=*/10);
    worker.PushEvent(EVENT_WORK, ring, /*priority=*/1);
    worker.Start();
    worker.Stop();  // serves the queued events, then joins
}
