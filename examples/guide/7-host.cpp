// SPDX-License-Identifier: Apache-2.0
#include <ContextAutoLock.h>
#include <ContextData.h>
#include <ContextDatabase.h>
#include <ContextString.h>
#include <ContextTimer.h>
#include <Provider/BaseProvider.h>
#include <Provider/CuratorAgent.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>

#include "Answer.h"

using Rows = std::vector<std::map<std::string, std::string>>;

constexpr int kSecond = 1;  // interval of the flush and of learning
constexpr const char* kCreate =
    "CREATE TABLE IF NOT EXISTS usage (unit TEXT, start INTEGER, seconds INTEGER, UNIQUE (start, unit))";
constexpr const char* kInsert = "INSERT OR IGNORE INTO usage VALUES (?, ?, ?)";

/// Stores what providers publish, learns all of it again every second, and answers with the ranking.
class Host : public IProvider, public AnswerServer {
public:
    Host() : m_database("guide.db", kCreate, kSecond) { g_mutex_init(&m_mutex); }
    ~Host() override {
        Close();
        g_mutex_clear(&m_mutex);
    }

    /// Opens the port and starts the threads.
    /// @return the port, or -1.
    int Open() {
        const int port = m_database.IsRunning() ? Listen() : -1;
        if (port < 0) {
            return -1;
        }
        m_timer.Start();
        m_learning = m_timer.SetTimer(
            kSecond, [](int, void* host) { static_cast<Host*>(host)->LearnAgain_(); }, this);
        Start();
        return port;
    }

    /// Stops the threads before the members that they use are destroyed.
    void Close() {
        if (IsRuning()) {
            Stop();
            m_timer.KillTimer(m_learning);
            m_timer.Stop();
        }
    }

    /// Waits until `count` uses are stored and learnt.
    /// @return false after about ten seconds.
    bool WaitForUses(std::size_t count) {
        for (int tries = 0; tries < 1000; ++tries) {
            {
                ContextAutoLock lock(&m_mutex);
                if (m_learntUses == count) {
                    return true;
                }
            }
            g_usleep(10000);
        }
        return false;
    }

    int AddInSubject(CBaseProvider* /*provider*/, const char* /*subject*/) override { return 0; }

    void Publish(const char* subject, int /*code*/, const char* data, IProvider* /*provider*/) override {
        ContextData use;
        if (!use.MakeData(data)) {
            return;  // MakeData() has logged it
        }
        ContextDatabase::ValueList values;
        m_database.SetQueryValue(values, std::string(subject));
        m_database.SetQueryValue(values, use.GetValueInt("start"));
        m_database.SetQueryValue(values, use.GetValueInt("seconds"));
        m_database.ExecuteQuery(kInsert, values, /*immediate=*/false);
    }

    // This host offers nothing else.
    void Publish(const char*, int, void*, IProvider*) override {}
    int ProviderRequest(const char*, const char*, IProvider*, void*) override { return -1; }
    int ProviderResponse(const char*, int, const char*, IProvider*, void*) override { return -1; }
    int ProviderResponse(const char*, int, void*, IProvider*, void*) override { return -1; }
    int ProviderRead(const char*, const char*, char**) override { return -1; }
    int ProviderWrite(const char*, const char*) override { return -1; }
    int SetTimer(int, timer_cb, void*) override { return 0; }
    bool KillTimer(int) override { return false; }

private:
    // Runs on the timer's event thread. Holds the mutex only for the exchange: no client waits for the database.
    void LearnAgain_() {
        Rows rows;
        m_database.SelectQuery("SELECT unit, start, seconds FROM usage ORDER BY start", {}, rows);
        auto agent = std::make_unique<CCuratorAgent>(CURATOR_AGENT_MFU, /*maxResult=*/10, /*minDuration=*/60);
        for (Rows::value_type& row : rows) {
            CuratorBaseData record;
            record.SetUnitId(row["unit"]);
            record.m_nStartTime = ContextString::string2int(row["start"]);
            record.m_nDuration = static_cast<unsigned int>(ContextString::string2int(row["seconds"]));
            agent->LearnHistory(record);
        }
        ContextAutoLock lock(&m_mutex);
        m_agent.swap(agent);
        m_learntUses = rows.size();
    }

    // Runs on the worker.
    std::string Answer() override {
        ContextAutoLock lock(&m_mutex);
        const std::list<CuratorBaseData> ranking = m_agent ? m_agent->RunCurate() : std::list<CuratorBaseData>();
        return CurationResult2JsonData(ranking, CuratorData2ContextData);
    }

    ContextDatabase m_database;
    ContextTimer m_timer;
    TimerId m_learning = 0;
    GMutex m_mutex;
    std::unique_ptr<CCuratorAgent> m_agent;  ///< guarded by m_mutex; null until the timer first fires
    std::size_t m_learntUses = 0;            ///< guarded by m_mutex
};

void PublishDays(IProvider& host, const char* unit, int days, int seconds) {
    CBaseProvider provider(&host);
    provider.AddInSubject(unit);
    for (int day = 0; day < days; ++day) {
        ContextData use;
        use.SetValue("start", 1700000000 + day * 86400);
        use.SetValue("seconds", seconds);
        provider.Publish(unit, 0, use.MakeStr(), nullptr);
    }
}

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    Host host;
    const int port = host.Open();
    if (port < 0) {
        std::fputs("the host cannot be opened: see the system log\n", stderr);
        return 1;
    }
    PublishDays(host, "radio", 7, 1800);
    PublishDays(host, "camera", 3, 5400);
    if (!host.WaitForUses(10)) {
        return 1;
    }

    const int connection = NetUtil::ConnectNewSocket("127.0.0.1", port);
    char request[] = "rank";
    char answer[1024];
    int length = 0;
    if (connection < 0 || NetUtil::sendMessage(connection, request, sizeof(request) - 1) != 0 ||
        NetUtil::getMessage(connection, answer, sizeof(answer), length) != 0) {
        return 1;
    }
    std::fputs(answer, stdout);
    close(connection);
}
