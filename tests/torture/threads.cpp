// SPDX-License-Identifier: Apache-2.0
//
// Eight threads use everything that any thread may call, at the same time. At the end every event was served once,
// every block released, and every row stored that a write has acknowledged.

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "ContextDatabase.h"
#include "ContextEventThread.h"
#include "ContextLockData.h"
#include "ContextString.h"
#include "ContextTimer.h"
#include "MemoryMgr.h"
#include "SystemLog.h"
#include "Torture.h"

namespace {

using Rows = std::vector<std::map<std::string, std::string>>;

constexpr int kThreads = 8;
constexpr unsigned int kBoundSeconds = 120;  ///< for the end, after the time of the run
constexpr const char* kCreate = "CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY)";

std::atomic<long> g_logged{0};
std::atomic<long> g_damage{0};  ///< lines about damaged blocks
std::atomic<long> g_resets{0};  ///< resets of a database
std::atomic<long> g_lost{0};    ///< lines about lost requests

class EventCounter : public ContextEventThread {
public:
    ~EventCounter() override { Stop(); }
    void OnEvent(int eventId, void* /*data*/) override {
        ++m_served;
        m_sum += eventId;
    }
    std::atomic<long> m_served{0};
    std::atomic<long> m_sum{0};
};

class Manager : public CMemoryManager {
public:
    int Count() const { return m_nCount; }
    int Bytes() const { return m_nTotalSize; }
};

/// What the threads share, and what they have done.
struct Shared {
    ContextDatabase stored{"stored.db", kCreate, /*interval=*/1};
    ContextDatabase wiped{"wiped.db", kCreate, /*interval=*/1};
    ContextLockData data;
    EventCounter events;
    ContextTimer timer;
    std::unique_ptr<Manager> manager = std::make_unique<Manager>();
    std::atomic<int> nextId{1};
    std::atomic<long> pushed{0};
    std::atomic<long> pushedSum{0};
    std::atomic<long> calls{0};
    std::atomic<long> badStrings{0};
    std::atomic<long> fired{0};
    std::atomic<long> badRows{0};
    std::atomic<long> badBlocks{0};
};

/// One thread's own state: a static message may be queued again only by its owner.
struct Own {
    std::mt19937 random;
    TEventMessage message{1000000, nullptr, false, false, 5};
    std::vector<void*> blocks;
    std::vector<TimerId> timers;

    int Below(int bound) { return std::uniform_int_distribution<>(0, bound - 1)(random); }
};

std::string Insert(int id) {
    return "INSERT OR IGNORE INTO t VALUES (" + std::to_string(id) + ")";
}

void UseStoredDatabase(Shared& shared, Own& own) {
    if (own.Below(4) != 0) {
        shared.stored.ExecuteQuery(Insert(shared.nextId++).c_str(), {}, /*immediate=*/own.Below(8) == 0);
        return;
    }
    Rows rows;
    ContextDatabase::ValueList values;
    shared.stored.SetQueryValue(values, own.Below(1000));
    shared.badRows += shared.stored.SelectQuery("SELECT id FROM t WHERE id = ?", values, rows) ? 0 : 1;
    shared.badRows += rows.size() > 1 || !shared.stored.IsRunning() ? 1 : 0;
}

/// Its writes may fail, and it is reset.
void UseWipedDatabase(Shared& shared, Own& own) {
    switch (own.Below(8)) {
        case 0:
            shared.wiped.ResetDatabase();
            break;
        case 1:
            shared.wiped.ExecuteQuery("INSERT INTO t VALUES (abs(-9223372036854775807 - 1))", {}, /*immediate=*/true);
            break;
        case 2:
            shared.wiped.IsRunning();
            break;
        case 3: {
            Rows rows;
            shared.wiped.SelectQuery("SELECT count(*) AS n FROM t", {}, rows);
            break;
        }
        default:
            shared.wiped.ExecuteQuery(Insert(own.Below(100)).c_str(), {}, /*immediate=*/own.Below(2) == 0);
            break;
    }
}

/// The string is one of those that were set: one letter, repeated.
void UseLockData(Shared& shared, Own& own) {
    if (own.Below(2) == 0) {
        shared.data.SetData(
            std::string(static_cast<std::size_t>(1 + own.Below(50)), static_cast<char>('a' + own.Below(26))).c_str());
    } else if (own.Below(8) == 0) {
        shared.data.ResetData();
    }
    shared.data.IsEmpty();
    char* text = shared.data.GetData();
    if (text != nullptr && (*text == '\0' || std::strspn(text, std::string(1, *text).c_str()) != std::strlen(text))) {
        ++shared.badStrings;
    }
    free(text);
}

void UseMemory(Shared& shared, Own& own) {
    if (own.blocks.empty() || own.Below(2) == 0) {
        const int size = 1 + own.Below(100);
        void* block = CMemoryManager::Allocate(static_cast<unsigned int>(size), __FILE__, __LINE__);
        shared.badBlocks += block == nullptr || CMemoryManager::GetInstance() != shared.manager.get() ? 1 : 0;
        std::memset(block, size, static_cast<std::size_t>(size));
        own.blocks.push_back(block);
    } else {
        CMemoryManager::Release(own.blocks.back());
        own.blocks.pop_back();
    }
}

void PushEvents(Shared& shared, Own& own) {
    const int id = own.Below(1000);
    const bool isStatic = own.Below(4) == 0;
    if (isStatic ? shared.events.PushStaticEvent(&own.message) : shared.events.PushEvent(id, nullptr, own.Below(10))) {
        ++shared.pushed;
        shared.pushedSum += isStatic ? own.message.nEventId : id;
    }
}

void UseTimers(Shared& shared, Own& own) {
    const auto count = [](int /*timerId*/, void* data) { ++*static_cast<std::atomic<long>*>(data); };
    if (own.timers.size() < 20) {
        own.timers.push_back(shared.timer.SetTimer(static_cast<unsigned int>(own.Below(3)), count, &shared.fired));
    } else {
        shared.timer.KillTimer(own.timers.back());
        own.timers.pop_back();
    }
}

void UseStrings(Shared& shared, Own& own) {
    const long moment = 1000000000 + own.Below(1000000);
    const std::string text = ContextString::ConvertTimeFormat(moment);
    shared.badStrings += ContextString::ConvertTimeStringToUTC(text) == moment ? 0 : 1;
    lumora_log_print(LUMORA_LOG_BUFFER_MAIN, LUMORA_LOG_DEBUG, "torture", "%s: %s(%d) > %s", "", "", 0, text.c_str());
}

void RunThread(Shared& shared, Own& own, const Torture& torture, std::chrono::milliseconds shortForm) {
    void (*const uses[])(Shared&, Own&) = {UseStoredDatabase, UseWipedDatabase, UseLockData, UseMemory,
                                           PushEvents,        UseTimers,        UseStrings};
    while (torture.HasTime(shortForm)) {
        uses[own.Below(static_cast<int>(std::size(uses)))](shared, own);
        ++shared.calls;
    }
    for (void* block : own.blocks) {
        CMemoryManager::Release(block);
    }
    for (const TimerId id : own.timers) {
        shared.timer.KillTimer(id);
    }
}

/// Returns how many of the ids from 1 to `last` a file has.
long StoredIds(int last) {
    ContextDatabase database("stored.db", kCreate);
    Rows rows;
    database.SelectQuery("SELECT id FROM t", {}, rows);
    std::set<int> ids;
    for (const auto& row : rows) {
        ids.insert(std::stoi(row.at("id")));
    }
    return static_cast<long>(ids.size()) == last && (last == 0 || *ids.rbegin() == last) ? last : -1;
}

/// Waits until the flush timer has run everything that was deferred.
void WaitForFlush(Shared& shared, int last) {
    Rows rows;
    const std::string count = "SELECT count(*) AS n FROM t";
    do {
        rows.clear();
        usleep(10000);
        shared.stored.SelectQuery(count.c_str(), {}, rows);
    } while (rows.empty() || rows[0].at("n") != std::to_string(last));  // bounded by the alarm
}

}  // namespace

/// Counts the lines: none is stored.
int lumora_log_print(int /*buffer*/, int /*priority*/, const char* /*tag*/, const char* format, ...) {
    ++g_logged;
    g_damage +=
        std::strstr(format, "Memory ERROR") != nullptr || std::strstr(format, "Delete Memory") != nullptr ? 1 : 0;
    g_resets += std::strstr(format, "reset database") != nullptr ? 1 : 0;
    g_lost += std::strstr(format, "Memory Allocation Fail") != nullptr ? 1 : 0;
    return 0;
}

// Durability is not what this program tries: without it the threads meet more often.
extern "C" {

int fsync(int /*descriptor*/) {
    return 0;
}

int fdatasync(int /*descriptor*/) {
    return 0;
}

/// The C library guards the time zone by a lock of its own, which ThreadSanitizer does not see.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name
const char* __tsan_default_suppressions() {
    return "race:tzset_internal\n";
}

}  // extern "C"

int main(int argc, char** argv) {
    Torture torture("threads", argc, argv);
    constexpr std::chrono::seconds kShortForm{5};
    for (const auto& entry : std::filesystem::directory_iterator(ContextDatabase::kDataDirectory)) {
        std::filesystem::remove_all(entry.path());
    }
    auto shared = std::make_unique<Shared>();
    CMemoryManager::SetInstance(shared->manager.get());
    shared->manager->Start();
    shared->events.Start();
    shared->timer.Start();
    std::vector<Own> owns(kThreads);
    std::vector<std::thread> threads;
    for (Own& own : owns) {
        own.random.seed(static_cast<std::uint32_t>(torture.Random()()));
        threads.emplace_back([&] { RunThread(*shared, own, torture, kShortForm); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    alarm(kBoundSeconds);
    const int last = shared->nextId - 1;
    WaitForFlush(*shared, last);
    shared->events.Stop();
    shared->timer.Stop();
    shared->manager->Stop();
    std::printf("%ld calls, %d rows, %ld events, %ld firings, %ld resets, %ld log lines\n", shared->calls.load(), last,
                shared->pushed.load(), shared->fired.load(), g_resets.load(), g_logged.load());
    torture.Count(shared->events.m_served == shared->pushed, "each event is served once");
    torture.Count(shared->events.m_sum == shared->pushedSum, "the events are those that were pushed");
    torture.Count(shared->fired > 0, "timers fire");
    torture.Count(shared->manager->Count() == 0 && shared->manager->Bytes() == 0, "every block is released");
    torture.Count(g_damage == 0 && shared->badBlocks == 0, "no block is damaged");
    torture.Count(shared->badStrings == 0, "no string is torn");
    torture.Count(shared->badRows == 0, "every read succeeds");
    torture.Count(g_lost == 0, "no request is lost");
    shared->wiped.ResetDatabase();
    torture.Count(shared->wiped.IsRunning(), "the database that is reset works at the end");
    shared.reset();
    torture.Count(StoredIds(last) == last, "every acknowledged row is stored");
    return torture.End();
}
