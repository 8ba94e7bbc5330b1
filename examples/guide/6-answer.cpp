// SPDX-License-Identifier: Apache-2.0
#include <ContextAutoLock.h>
#include <ContextThread.h>
#include <NetUtil.h>
#include <Provider/CuratorAgent.h>
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

using Network::NetUtil;

/// Answers every request with the ranking, as JSON text, on a thread of its own.
class RankingServer : public ContextThread {
public:
    RankingServer() { g_mutex_init(&m_mutex); }
    ~RankingServer() override {
        if (IsRuning()) {
            Stop();  // the base does not: while OnThread() runs, this object has to be there
        }
        close(m_listener);
        g_mutex_clear(&m_mutex);
    }

    /// @return the port, of the system's choice, or -1.
    int Open() {
        m_listener = NetUtil::BindPort(0);
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        if (m_listener < 0 || listen(m_listener, SOMAXCONN) != 0 ||  // now: whoever knows the port may come
            getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0 || !Start()) {
            return -1;
        }
        return ntohs(address.sin_port);
    }

    void Learn(const CuratorBaseData& record) {
        ContextAutoLock lock(&m_mutex);
        m_agent.LearnHistory(record);
    }

private:
    void OnThread() override {
        while (IsRuning()) {
            const int client = NetUtil::AcceptNewSocket(m_listener, /*timeoutSeconds=*/1);
            if (client >= 0) {
                Answer_(client);
                close(client);
            }
        }
    }

    void Answer_(int client) {
        char request[64];
        int length = 0;
        while (NetUtil::getMessage(client, request, sizeof(request), length) == 0) {
            std::string answer = Ranking_();
            if (NetUtil::sendMessage(client, answer.data(), static_cast<int>(answer.size())) != 0) {
                return;
            }
        }
    }

    std::string Ranking_() {
        ContextAutoLock lock(&m_mutex);
        return CurationResult2JsonData(m_agent.RunCurate(), CuratorData2ContextData);
    }

    int m_listener = -1;
    GMutex m_mutex;
    CCuratorAgent m_agent{CURATOR_AGENT_MRU, /*maxResult=*/10, /*minDuration=*/0};  ///< guarded by m_mutex
};

int main() {
    std::signal(SIGPIPE, SIG_IGN);  // a client may go before its answer comes
    RankingServer server;
    const int port = server.Open();
    CuratorBaseData record;
    record.SetUnitId("radio");
    record.m_nStartTime = 1700000000;
    server.Learn(record);

    // The other end, which is another program as a rule.
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
