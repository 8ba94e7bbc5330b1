// SPDX-License-Identifier: Apache-2.0
#include "ContextEventThread.h"

#include <sched.h>
#include <semaphore.h>

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "Comparison.h"

namespace {

constexpr double kBound = 1.15;
constexpr int kPriority = 10;
constexpr int kStop = -1;
constexpr int kPlain = 0;
constexpr int kLast = 1;

/// Makes the pushing thread wait until the last event is processed.
class Served {
public:
    Served() { sem_init(&m_semaphore, /*pshared=*/0, /*value=*/0); }
    ~Served() { sem_destroy(&m_semaphore); }
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;

    void Note(int event) {
        if (event == kLast) {
            sem_post(&m_semaphore);
        }
    }
    void Wait() { sem_wait(&m_semaphore); }

private:
    sem_t m_semaphore;
};

class Ours : public ContextEventThread {
public:
    Ours() { Start(); }
    ~Ours() override { Stop(); }

    void Push(int event) { PushEvent(event, nullptr, kPriority); }
    void Wait() { m_served.Wait(); }

private:
    void OnEvent(int event, void* /*data*/) override { m_served.Note(event); }

    Served m_served;
};

/// The same work with GLib only.
class BareQueue {
public:
    using PushCall = void (*)(GAsyncQueue*, void*);

    explicit BareQueue(PushCall push)
        : m_push(push), m_queue(g_async_queue_new()), m_thread(g_thread_new(nullptr, Run_, this)) {}
    ~BareQueue() {
        Push(kStop);
        g_thread_join(m_thread);
        g_async_queue_unref(m_queue);
    }
    BareQueue(const BareQueue&) = delete;
    BareQueue& operator=(const BareQueue&) = delete;

    void Push(int event) {
        auto* message = static_cast<Message*>(std::malloc(sizeof(Message)));
        *message = {event, nullptr, kPriority};
        m_push(m_queue, message);
    }
    void Wait() { m_served.Wait(); }

    static void PushByPriority(GAsyncQueue* queue, void* message) {
        g_async_queue_push_sorted(queue, message, Compare_, nullptr);
    }

private:
    struct Message {
        int event;
        void* data;
        int priority;
    };

    static int Compare_(const void* a, const void* b, void* /*userData*/) {
        const int first = static_cast<const Message*>(a)->priority;
        const int second = static_cast<const Message*>(b)->priority;
        return first < second ? -1 : first > second;
    }

    static void* Run_(void* self) {
        auto* queue = static_cast<BareQueue*>(self);
        int event = kPlain;
        while (event != kStop) {
            void* message = g_async_queue_pop(queue->m_queue);
            event = static_cast<Message*>(message)->event;
            queue->m_served.Note(event);
            std::free(message);
        }
        return nullptr;
    }

    PushCall m_push;
    Served m_served;
    GAsyncQueue* m_queue;
    GThread* m_thread;
};

/// The same work with the standard library, without priorities.
class StandardQueue {
public:
    StandardQueue() : m_thread([this] { Run_(); }) {}
    ~StandardQueue() {
        Push(kStop);
        m_thread.join();
    }
    StandardQueue(const StandardQueue&) = delete;
    StandardQueue& operator=(const StandardQueue&) = delete;

    void Push(int event) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_events.push_back(event);
        }
        m_arrived.notify_one();
    }
    void Wait() { m_served.Wait(); }

private:
    void Run_() {
        int event = kPlain;
        while (event != kStop) {
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_arrived.wait(lock, [this] { return !m_events.empty(); });
                event = m_events.front();
                m_events.pop_front();
            }
            m_served.Note(event);
        }
    }

    Served m_served;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<int> m_events;  ///< guarded by m_mutex
    std::thread m_thread;
};

/// Processors that the program may use; at least one.
std::vector<int> Processors() {
    cpu_set_t set;
    sched_getaffinity(/*pid=*/0, sizeof set, &set);
    std::vector<int> processors;
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &set)) {
            processors.push_back(processor);
        }
    }
    return processors;
}

/// Moves the calling thread to a processor; threads that it starts later inherit the placement.
void MoveTo(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    sched_setaffinity(/*pid=*/0, sizeof set, &set);
}

struct Placement {
    int pusher;
    int worker;
};

/// Pushes events while the worker processes them, and waits for the last one.
template <typename Queue, typename... Arguments>
Comparison::Body PushAndServe(int count, Placement placement, Arguments... arguments) {
    return [=](benchmark::State& state) {
        MoveTo(placement.worker);
        Queue queue(arguments...);
        MoveTo(placement.pusher);
        for ([[maybe_unused]] auto _ : state) {
            for (int i = 1; i < count; ++i) {
                queue.Push(kPlain);
            }
            queue.Push(kLast);
            queue.Wait();
        }
    };
}

void CompareQueues(const std::string& what, int count, Placement placement) {
    Comparison row(what);
    if (placement.pusher == placement.worker) {
        row.OfAllThreads();
    } else {
        row.InRealTime();
    }
    row.Ours(PushAndServe<Ours>(count, placement))
        .Direct("GAsyncQueue by priority", kBound, PushAndServe<BareQueue>(count, placement, BareQueue::PushByPriority))
        .Peer("GAsyncQueue, first in first out", PushAndServe<BareQueue>(count, placement, g_async_queue_push))
        .Peer("std::deque", PushAndServe<StandardQueue>(count, placement));
}

}  // namespace

// The placement of the two threads affects the times most, so each placement has its own rows.
void RegisterComparisons() {
    const std::vector<int> processors = Processors();
    const Placement together{processors.front(), processors.front()};
    CompareQueues("1 000 events, on one processor", 1000, together);
    CompareQueues("one event, pushed and processed, on one processor", 1, together);
    if (processors.size() > 1) {
        const Placement apart{processors[0], processors[1]};
        CompareQueues("1 000 events, on two processors", 1000, apart);
        CompareQueues("one event, pushed and processed, on two processors", 1, apart);
    }
}
