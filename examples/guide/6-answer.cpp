// SPDX-License-Identifier: Apache-2.0
#include <ContextAutoLock.h>
#include <Provider/CuratorAgent.h>

#include <csignal>
#include <cstdio>

#include "Answer.h"

/// Answers with the ranking of what it has learnt, as JSON text.
class RankingServer : public AnswerServer {
public:
    RankingServer() { g_mutex_init(&m_mutex); }
    ~RankingServer() override {
        if (IsRuning()) {
            Stop();
        }
        g_mutex_clear(&m_mutex);
    }

    void Learn(const CuratorBaseData& record) {
        ContextAutoLock lock(&m_mutex);
        m_agent.LearnHistory(record);
    }

private:
    std::string Answer() override {
        ContextAutoLock lock(&m_mutex);
        return CurationResult2JsonData(m_agent.RunCurate(), CuratorData2ContextData);
    }

    GMutex m_mutex;
    CCuratorAgent m_agent{CURATOR_AGENT_MRU, /*maxResult=*/10, /*minDuration=*/0};  ///< guarded by m_mutex
};

int main() {
    std::signal(SIGPIPE, SIG_IGN);  // a client may close the connection before the answer is sent
    RankingServer server;
    const int port = server.Listen();
    if (port < 0 || !server.Start()) {
        return 1;
    }
    CuratorBaseData record;
    record.SetUnitId("radio");
    record.m_nStartTime = 1700000000;
    server.Learn(record);

    // The client, which is usually another program.
    const int connection = NetUtil::ConnectNewSocket("127.0.0.1", port);
    std::string request = "rank";
    char answer[1024];
    int length = 0;
    if (connection < 0 || NetUtil::sendMessage(connection, request.data(), static_cast<int>(request.size())) != 0 ||
        NetUtil::getMessage(connection, answer, sizeof(answer), length) != 0) {
        return 1;
    }
    std::printf("%d bytes: %s", length, answer);
    close(connection);
}
