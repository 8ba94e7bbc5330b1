// SPDX-License-Identifier: Apache-2.0
// Performs a fixed amount of work and exits, so that an emulator can count its instructions.
//
//   device-workload STEP
//
// Steps that process a history of 54429 records: read, learn, rank, weekly, json. Each includes the steps before it.
// Other steps: nothing; events (10 000 events); database (opens a database); writes (opens it and makes 1 000 deferred
// writes).

#include <semaphore.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "ContextDatabase.h"
#include "ContextEventThread.h"
#include "Provider/CuratorAgent.h"
#include "UsageHistory.h"

namespace {

constexpr int kEvents = 10000;
constexpr int kWrites = 1000;
constexpr int kRanked = 10;
constexpr int kPriority = 10;

void Curate(const std::string& step) {
    UsageHistory::SetTimeZone();
    const auto& records = UsageHistory::Music();
    if (step == "read") {
        return;
    }
    std::size_t length = 0;
    for (const ECuratorAgentType type : {CURATOR_AGENT_MRU, CURATOR_AGENT_MFU, CURATOR_AGENT_DATE}) {
        CCuratorAgent agent(type, kRanked, /*minDuration=*/0);
        agent.LearnHistorys(records);
        if (step == "learn") {
            continue;
        }
        const auto ranking = agent.RunCurate();
        if (step == "rank") {
            continue;
        }
        const CuratorBaseData7x24 grid = type == CURATOR_AGENT_DATE ? agent.RunCurate7x24() : CuratorBaseData7x24();
        if (step == "weekly") {
            continue;
        }
        length += CurationResult2JsonData(ranking, CuratorData2ContextData).size();
        length += CurationResult2JsonData(grid, CuratorData2ContextData).size();
    }
    if (step == "json") {
        std::printf("%zu characters of JSON\n", length);
    }
}

class Counter : public ContextEventThread {
public:
    Counter() { sem_init(&m_last, /*pshared=*/0, /*value=*/0); }
    ~Counter() override { sem_destroy(&m_last); }

    void OnEvent(int eventId, void* /*data*/) override {
        if (eventId == kEvents) {
            sem_post(&m_last);
        }
    }

    void ServeAll() {
        Start();
        for (int event = 1; event <= kEvents; ++event) {
            PushEvent(event, nullptr, kPriority);
        }
        sem_wait(&m_last);
        Stop();
    }

private:
    sem_t m_last{};
};

int Write(int writes) {
    ContextDatabase database("device.db", "CREATE TABLE IF NOT EXISTS usage (unit TEXT, start INTEGER)", 1);
    for (int write = 0; write < writes; ++write) {
        ContextDatabase::ValueList values;
        database.SetQueryValue(values, "a unit of usual length");
        database.SetQueryValue(values, 1600000000 + write);
        database.ExecuteQuery("INSERT INTO usage VALUES (?, ?)", values, /*immediate=*/false);
    }
    const std::string expected = std::to_string(writes);
    for (int second = 0; second < 60; ++second) {
        std::vector<std::map<std::string, std::string>> rows;
        database.SelectQuery("SELECT COUNT(*) AS count FROM usage", {}, rows);
        if (rows.size() == 1 && rows[0].at("count") == expected) {
            return EXIT_SUCCESS;
        }
        g_usleep(G_USEC_PER_SEC);
    }
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string step = argc == 2 ? argv[1] : "";
    if (step == "nothing") {
        return EXIT_SUCCESS;
    }
    if (step == "events") {
        Counter().ServeAll();
        return EXIT_SUCCESS;
    }
    if (step == "database" || step == "writes") {
        return Write(step == "writes" ? kWrites : 0);
    }
    for (const char* each : {"read", "learn", "rank", "weekly", "json"}) {
        if (step == each) {
            Curate(step);
            return EXIT_SUCCESS;
        }
    }
    std::fputs("usage: device-workload nothing|read|learn|rank|weekly|json|events|database|writes\n", stderr);
    return 2;
}
