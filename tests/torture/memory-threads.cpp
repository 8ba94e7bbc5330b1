// SPDX-License-Identifier: Apache-2.0
#include <glib.h>

#include <atomic>
#include <memory>

#include "ContextEventThread.h"
#include "ContextThread.h"
#include "ContextTimer.h"
#include "MemoryCases.h"
#include "MemoryMgr.h"
#include "Waiting.h"

namespace {

constexpr const char* kNoMemory = "Memory Allocation Fail";

class Worker : public ContextThread {
public:
    ~Worker() override {
        if (IsRuning()) {
            Stop();
        }
    }
    void OnThread() override {
        ++m_runs;
        while (IsRuning()) {
            g_usleep(1000);
        }
    }
    std::atomic<int> m_runs{0};
};

class Server : public ContextEventThread {
public:
    /// Stops the worker, as a host must. The queue may hold events that no worker has served.
    ~Server() override {
        if (!IsRuning()) {
            Start();
        }
        Stop();
    }
    void OnEvent(int /*eventId*/, void* /*data*/) override { ++m_served; }

    /// Makes _Run() serve the queue on the calling thread and return.
    void QueueStopMessage() {
        m_bRunning = true;
        auto* message = new TEventMessage{};
        message->bStop = true;
        message->nPriority = 100;
        g_async_queue_push(m_pQueue, message);
    }
    std::atomic<int> m_served{0};
};

/// Has no worker, and so nothing to stop.
class IdleServer : public ContextEventThread {
    void OnEvent(int /*eventId*/, void* /*data*/) override {}
};

class Timer : public ContextTimer {
public:
    explicit Timer(bool isStarted = true) {
        if (isStarted) {
            Start();
        }
    }
    ~Timer() override {
        if (!ContextEventThread::IsRuning()) {
            Start();
        }
        Stop();
        for (CTimerData* timer : m_timerList) {
            delete timer;
        }
    }
    std::size_t Timers() const { return m_timerList.size(); }
    static void Count(int /*timerId*/, void* count) { ++*static_cast<std::atomic<int>*>(count); }
};

class Manager : public CMemoryManager {
public:
    Manager() { SetInstance(this); }
    GMutex* Mutex() { return &m_mutex; }
    int Count() const { return m_nCount; }
    int Bytes() const { return m_nTotalSize; }
};

/// Demands that the event thread serves an event that another thread pushes.
void HoldsServing(Try& tried, Server& server) {
    const int before = server.m_served;
    tried.Elsewhere([&] {
        tried.Holds(server.PushEvent(1, nullptr, 0), "no event can be pushed");
        tried.Holds(!server.IsRuning() || Waiting::Until([&] { return server.m_served > before; }), "serves no event");
    });
}

/// Demands that a new timer fires.
void HoldsFiring(Try& tried, ContextTimer& timer) {
    std::atomic<int> fired{0};
    tried.Elsewhere([&] {
        const TimerId id = timer.SetTimer(0, Timer::Count, &fired);
        tried.Holds(Waiting::Until([&] { return fired > 0; }), "a later timer does not fire");
        timer.KillTimer(id);
        const int after = fired + 3;
        tried.Holds(!Waiting::Until([&] { return fired > after; }, std::chrono::milliseconds(30)),
                    "a later timer is not killed");
    });
}

/// Demands that another thread can allocate and release a block.
void HoldsTracking(Try& tried, Manager& manager) {
    tried.Elsewhere([&] {
        const int count = manager.Count();
        void* block = CMemoryManager::Allocate(10, __FILE__, __LINE__);
        tried.Holds(block != nullptr && manager.Count() == count + 1, "allocates no block");
        CMemoryManager::Release(block);
        tried.Holds(manager.Count() == count, "releases no block");
    });
}

template <class Made>
void TryLife(Try& tried) {
    tried.Call([] { const Made made; });
    tried.Returns();
}

void TryRun(Try& tried, void (*run)(Server&)) {
    Server server;
    server.PushEvent(1, nullptr, 0);
    server.QueueStopMessage();
    tried.Call([&] { run(server); });
    tried.Returns();
    tried.Holds(server.m_served == 1 && !server.IsRuning(), "does not serve the event");
}

void TryTimerLife(Try& tried) {
    tried.Call([] { const ContextTimer timer; });
    tried.Returns();
}

void TryManagerLife(Try& tried) {
    tried.Call([] { std::make_unique<Manager>(); });
    tried.Holds(CMemoryManager::GetInstance() == nullptr, "the instance outlives its manager");
}

void TryChecker(Try& tried) {
    Manager manager;
    void* block = CMemoryManager::Allocate(10, __FILE__, __LINE__);
    tried.CallEverywhere([&] {
        manager.Start();
        manager.Stop();
    });
    tried.Returns();
    CMemoryManager::Release(block);
    HoldsTracking(tried, manager);
}

/// Sets a timer of a running object. It fires, or its loss is logged.
void TrySetTimer(Try& tried) {
    Timer timer;
    std::atomic<int> fired{0};
    TimerId id = 0;
    tried.CallEverywhere([&] {
        id = timer.SetTimer(0, Timer::Count, &fired);
        tried.Holds(Waiting::Until([&] { return fired > 0 || MemoryLog::Has(kNoMemory); }), "lost without a log line");
    });
    tried.Returns();
    tried.Holds(id > 0, "no id");
    HoldsFiring(tried, timer);
}

void TrySetTimerBeforeStart(Try& tried) {
    Timer timer(/*isStarted=*/false);
    std::atomic<int> fired{0};
    tried.Call([&] { timer.SetTimer(0, Timer::Count, &fired); });
    tried.Returns();
    timer.Start();
    tried.Holds(MemoryLog::Has(kNoMemory) || Waiting::Until([&] { return fired > 0; }), "lost without a log line");
}

void TryKillTimer(Try& tried) {
    Timer timer;
    std::atomic<int> fired{0};
    const TimerId id = timer.SetTimer(0, Timer::Count, &fired);
    Waiting::Until([&] { return fired > 0; });
    bool isKilled = false;
    tried.CallEverywhere([&] { isKilled = timer.KillTimer(id); });
    tried.Returns();
    tried.Holds(isKilled, "must return true");
    HoldsFiring(tried, timer);
    tried.Holds(MemoryLog::Has(kNoMemory) || timer.Timers() == 0, "lost without a log line");
}

void TryTimerEvent(Try& tried) {
    Timer timer(/*isStarted=*/false);
    ContextEventThread& events = timer;
    std::atomic<int> fired{0};
    auto* record = new CTimerData{1, 0, 0, Timer::Count, &fired};
    tried.Call([&] { events.OnEvent(TIMER_EVENT_ADD, record); });
    tried.Returns();
    tried.Holds(timer.Timers() == 1 || MemoryLog::Has(kNoMemory), "lost without a log line");
    tried.Call([&] { events.OnEvent(TIMER_EVENT_CHECK, nullptr); });
    tried.Returns();
    auto* id = new int(1);
    tried.Call([&] { events.OnEvent(TIMER_EVENT_REMOVE, id); });
    tried.Holds(timer.Timers() == 0, "not removed");
}

void TryAllocate(Try& tried) {
    Manager manager;
    void* block = nullptr;
    tried.Call([&] { block = CMemoryManager::Allocate(10, __FILE__, __LINE__); });
    tried.Returns();
    tried.Holds(block != nullptr || !tried.IsUntouched(), "null");
    tried.Holds(manager.Count() == (block != nullptr ? 1 : 0), "wrong count");
    CMemoryManager::Release(block);
    tried.Holds(manager.Count() == 0 && manager.Bytes() == 0, "wrong count");
    HoldsTracking(tried, manager);
}

/// The table is full: the block is a plain one.
void TryAllocateInFullTable(Try& tried) {
    constexpr int kMaxBlocks = 1000;
    Manager manager;
    void* blocks[kMaxBlocks];
    for (void*& tracked : blocks) {
        tracked = CMemoryManager::Allocate(1, __FILE__, __LINE__);
    }
    void* block = nullptr;
    tried.Call([&] { block = CMemoryManager::Allocate(10, __FILE__, __LINE__); });
    tried.Returns();
    tried.Holds(manager.Count() == kMaxBlocks, "counts a plain block");
    CMemoryManager::Release(block);
    for (void* tracked : blocks) {
        CMemoryManager::Release(tracked);
    }
    tried.Holds(manager.Count() == 0, "wrong count");
    HoldsTracking(tried, manager);
}

/// Calls a function that works on one tracked block.
template <class Function>
void TryTable(Try& tried, Function function) {
    Manager manager;
    void* block = CMemoryManager::Allocate(10, __FILE__, __LINE__);
    tried.Call([&] { function(manager, block); });
    tried.Returns();
    CMemoryManager::Release(block);
    HoldsTracking(tried, manager);
}

constexpr Case kCases[] = {
    {"ContextThread::ContextThread()", TryLife<Worker>},
    {"ContextThread::~ContextThread()", TryLife<Worker>},
    {"ContextThread::Start()",
     [](Try& tried) {
         Worker worker;
         bool isStarted = false;
         tried.CallEverywhere([&] { isStarted = worker.Start(); });
         tried.Returns();
         tried.Holds(isStarted && worker.Stop() && worker.m_runs == 1, "does not run");
     }},
    {"ContextThread::Stop()",
     [](Try& tried) {
         Worker worker;
         worker.Start();
         bool isStopped = false;
         tried.CallEverywhere([&] { isStopped = worker.Stop(); });
         tried.Returns();
         tried.Holds(isStopped && worker.Start() && worker.Stop(), "does not stop and start again");
     }},
    {"ContextThread::IsRuning()",
     [](Try& tried) {
         Worker worker;
         bool isRunning = true;
         tried.Call([&] { isRunning = worker.IsRuning(); });
         tried.Returns();
         tried.Holds(!isRunning, "runs");
     }},
    {"ContextThread::_Thread(void*)",
     [](Try& tried) {
         Worker worker;  // not running: the body returns at once
         tried.Call([&] { ContextThread::_Thread(static_cast<ContextThread*>(&worker)); });
         tried.Returns();
         tried.Holds(worker.m_runs == 1, "does not run the body");
     }},
    {"ContextEventThread::ContextEventThread()", TryLife<IdleServer>},
    {"ContextEventThread::~ContextEventThread()", TryLife<IdleServer>},
    {"ContextEventThread::Start()",
     [](Try& tried) {
         Server server;
         server.PushEvent(1, nullptr, 0);
         bool isStarted = false;
         tried.CallEverywhere([&] { isStarted = server.Start(); });
         tried.Returns();
         tried.Holds(isStarted && Waiting::Until([&] { return server.m_served == 1; }), "does not serve");
         HoldsServing(tried, server);
     }},
    {"ContextEventThread::Stop()",
     [](Try& tried) {
         Server server;
         server.Start();
         server.PushEvent(1, nullptr, 0);
         bool isStopped = false;
         tried.CallEverywhere([&] { isStopped = server.Stop(); });
         tried.Returns();
         tried.Holds(
             isStopped ? server.m_served == 1 && !server.IsRuning() : server.IsRuning() && MemoryLog::Has(kNoMemory),
             "wrong result");
         HoldsServing(tried, server);
     }},
    {"ContextEventThread::IsRuning()",
     [](Try& tried) {
         Server server;
         server.Start();
         bool isRunning = false;
         tried.Call([&] { isRunning = server.IsRuning(); });
         tried.Returns();
         tried.Holds(isRunning, "does not run");
     }},
    {"ContextEventThread::PushEvent(int, void*, int)",
     [](Try& tried) {
         Server server;
         server.Start();
         bool isPushed = false;
         tried.CallEverywhere([&] { isPushed = server.PushEvent(1, nullptr, 0); });
         tried.Returns();
         tried.Holds(isPushed || MemoryLog::Has(kNoMemory), "fails without a log line");
         server.Stop();
         tried.Holds(server.m_served == (isPushed ? 1 : 0), "serves another number of events");
         server.Start();
         HoldsServing(tried, server);
     }},
    {"ContextEventThread::PushStaticEvent(TEventMessage*)",
     [](Try& tried) {
         TEventMessage message{1, nullptr, false, false, 0};
         Server server;
         server.Start();
         bool isPushed = false;
         tried.CallEverywhere([&] { isPushed = server.PushStaticEvent(&message); });
         tried.Returns();
         server.Stop();
         tried.Holds(isPushed && server.m_served == 1, "is not served");
         server.Start();
         HoldsServing(tried, server);
     }},
    {"ContextEventThread::_ComparePriority(void const*, void const*, void*)",
     [](Try& tried) {
         const TEventMessage first{};
         int order = 1;
         tried.Call([&] { order = ContextEventThread::_ComparePriority(&first, &first, nullptr); });
         tried.Returns();
         tried.Holds(order == 0, "wrong order");
     }},
    {"ContextEventThread::_Run()", [](Try& tried) { TryRun(tried, [](Server& server) { server._Run(); }); }},
    {"ContextEventThread::_Thread(void*)",
     [](Try& tried) {
         TryRun(tried, [](Server& server) { ContextEventThread::_Thread(static_cast<ContextEventThread*>(&server)); });
     }},
    {"ContextTimer::ContextTimer()", TryTimerLife},
    {"ContextTimer::~ContextTimer()", TryTimerLife},
    {"ContextTimer::Start()",
     [](Try& tried) {
         Timer timer(/*isStarted=*/false);
         bool isStarted = false;
         tried.CallEverywhere([&] { isStarted = timer.Start(); });
         tried.Returns();
         tried.Holds(isStarted, "does not start");
         HoldsFiring(tried, timer);
     },
     ""},
    {"ContextTimer::Stop()",
     [](Try& tried) {
         Timer timer;
         bool isStopped = false;
         tried.CallEverywhere([&] { isStopped = timer.Stop(); });
         tried.Returns();
         tried.Holds(isStopped || MemoryLog::Has("Stop Error"), "fails without a log line");
         if (!isStopped) {  // the tick thread has stopped already
             tried.Holds(timer.ContextEventThread::Stop(), "the event thread cannot be stopped later");
         }
         tried.Holds(timer.Start(), "does not start again");
         HoldsFiring(tried, timer);
     },
     ""},
    {"ContextTimer::SetTimer(unsigned int, void (*)(int, void*), void*)", TrySetTimer, "timerData != __null"},
    {"ContextTimer::SetTimer(unsigned int, void (*)(int, void*), void*)", TrySetTimerBeforeStart,
     "timerData != __null"},
    {"ContextTimer::KillTimer(int)", TryKillTimer, "ptimerId != __null"},
    {"ContextTimer::OnEvent(int, void*)", TryTimerEvent, ""},
    {"ContextTimer::OnThread()",
     [](Try& tried) {
         Timer timer(/*isStarted=*/false);
         ContextThread& tick = timer;
         tried.Call([&] { tick.OnThread(); });  // not running: returns at once
         tried.Returns();
     }},
    {"CMemoryManager::CMemoryManager()", TryManagerLife},
    {"CMemoryManager::~CMemoryManager()", TryManagerLife},
    {"CMemoryManager::SetInstance(CMemoryManager*)",
     [](Try& tried) {
         TryTable(tried, [](Manager& manager, void* /*block*/) { CMemoryManager::SetInstance(&manager); });
     }},
    {"CMemoryManager::GetInstance()",
     [](Try& tried) {
         TryTable(tried, [&](Manager& manager, void* /*block*/) {
             tried.Holds(CMemoryManager::GetInstance() == &manager, "wrong instance");
         });
     }},
    {"CMemoryManager::Allocate(unsigned int, char const*, int)", TryAllocate},
    {"CMemoryManager::Allocate(unsigned int, char const*, int)", TryAllocateInFullTable},
    {"CMemoryManager::Release(void*)",
     [](Try& tried) {
         Manager manager;
         void* block = CMemoryManager::Allocate(10, __FILE__, __LINE__);
         tried.Call([&] { CMemoryManager::Release(block); });
         tried.Returns();
         HoldsTracking(tried, manager);
     }},
    {"CMemoryManager::OnThread()", TryChecker},
    {"CMemoryManager::__AddMemory(TMemHeader*)",
     [](Try& tried) {
         TryTable(tried, [&](Manager& manager, void* /*block*/) {
             TMemHeader header{};
             tried.Holds(manager.__AddMemory(&header) && manager.Count() == 2, "not counted");
         });
     }},
    {"CMemoryManager::__RemoveMemory(void*)",
     [](Try& tried) {
         TryTable(tried, [&](Manager& manager, void*& block) {
             tried.Holds(manager.__RemoveMemory(block) && manager.Count() == 0, "not removed");
             block = nullptr;
         });
     }},
    {"CMemoryManager::__CheckMemory()",
     [](Try& tried) {
         TryTable(tried, [](Manager& manager, void* /*block*/) { manager.__CheckMemory(); });
         tried.Holds(!MemoryLog::Has("Memory ERROR"), "finds damage");
     }},
};

}  // namespace

Cases ThreadCases() {
    return {std::begin(kCases), std::end(kCases)};
}
