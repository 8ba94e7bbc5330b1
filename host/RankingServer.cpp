// SPDX-License-Identifier: Apache-2.0
#include "RankingServer.h"

#include <ContextAutoLock.h>
#include <ContextData.h>
#include <NetUtil.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <sstream>
#include <vector>

#include "HostMemory.h"

namespace {

using Network::NetUtil;

constexpr int kAcceptSeconds = 1;
constexpr int kTimerSeconds = 1;
constexpr std::chrono::seconds kLongestConnection{5};
constexpr std::size_t kRequestBuffer = 256;  // bytes; a request and its zero must be shorter

constexpr const char* kUsage = "use: rank mru|mfu|date [N], weekly, or quit";

std::string Error(const char* text) {
    ContextData answer;
    answer.SetValue("error", text);
    return answer.MakeStr();
}

/// @return the value of a text that is a whole number of at least 0, else nothing.
std::optional<int> NumberIn(const std::string& text) {
    int number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data(), end, number);
    return fault == std::errc() && stop == end && number >= 0 ? std::optional<int>(number) : std::nullopt;
}

}  // namespace

RankingServer::RankingServer(UsageStore& store, int limit, int minDuration)
    : m_store(store), m_limit(limit), m_minDuration(minDuration) {
    g_mutex_init(&m_mutex);
}

RankingServer::~RankingServer() {
    Close();
    g_mutex_clear(&m_mutex);
}

int RankingServer::Open(int port) {
    m_listener = NetUtil::BindPort(port);
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    if (m_listener < 0 || listen(m_listener, SOMAXCONN) != 0 ||  // a client may connect as soon as Open() returns
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return -1;
    }
    Relearn_();
    m_timer.Start();
    m_timerId = m_timer.SetTimer(
        kTimerSeconds,
        [](int, void* server) {
            static_cast<RankingServer*>(server)->DisconnectSlowClient_();
            static_cast<RankingServer*>(server)->Relearn_();
        },
        this);
    Start();
    return ntohs(address.sin_port);
}

void RankingServer::Close() {
    if (IsRuning()) {
        Stop();
        m_timer.KillTimer(m_timerId);
        m_timer.Stop();
    }
    if (m_listener >= 0) {
        close(m_listener);
        m_listener = -1;
    }
}

void RankingServer::OnThread() {
    while (IsRuning()) {
        const int client = NetUtil::AcceptNewSocket(m_listener, kAcceptSeconds);
        if (client < 0) {
            continue;
        }
        {
            ContextAutoLock lock(&m_mutex);
            m_client = client;
            m_clientDeadline = std::chrono::steady_clock::now() + kLongestConnection;
        }
        Serve_(client);
        ContextAutoLock lock(&m_mutex);
        m_client = -1;
        close(client);
    }
}

void RankingServer::Serve_(int client) {
    HostBuffer buffer(kRequestBuffer);
    int length = 0;
    while (NetUtil::getMessage(client, buffer.Data(), static_cast<int>(buffer.Size()), length) == 0) {
        const std::string request(buffer.Data(), static_cast<std::size_t>(length < 0 ? 0 : length));
        std::string answer = Answer_(request);
        if (answer.size() >= std::size_t{NetUtil::kMaxReplySize}) {
            answer = Error("the answer is too long: start context-host with a lower --max");
        }
        if (NetUtil::sendMessage(client, answer.data(), static_cast<int>(answer.size())) != 0 || request == "quit") {
            return;
        }
    }
}

std::string RankingServer::Answer_(const std::string& request) {
    if (request == "weekly") {
        ContextAutoLock lock(&m_mutex);
        return CurationResult2JsonData(m_agents[CURATOR_AGENT_DATE]->RunCurate7x24(), CuratorData2ContextData);
    }
    if (request == "quit") {
        return "{\"bye\":true}\n";
    }
    std::istringstream words(request);
    std::string command;
    std::string agentName;
    std::string count;
    std::string rest;
    words >> command >> agentName >> count >> rest;
    const std::optional<ECuratorAgentType> agent = AgentNamed(agentName);
    const std::optional<int> limit = count.empty() ? m_limit : NumberIn(count);
    return command == "rank" && agent && limit && rest.empty() ? Rank_(*agent, *limit) : Error(kUsage);
}

std::string RankingServer::Rank_(ECuratorAgentType type, int count) {
    ContextAutoLock lock(&m_mutex);
    std::list<CuratorBaseData> ranking = m_agents[static_cast<std::size_t>(type)]->RunCurate();
    ranking.resize(std::min(ranking.size(), static_cast<std::size_t>(count)));
    return CurationResult2JsonData(ranking, CuratorData2ContextData);
}

void RankingServer::Relearn_() {
    const int records = m_store.CountRecords();
    if (records == m_learntRecords) {
        return;
    }
    Agents agents;
    for (std::size_t type = 0; type < kAgentCount; ++type) {
        agents[type] = std::make_unique<CCuratorAgent>(static_cast<ECuratorAgentType>(type), m_limit, m_minDuration);
    }
    m_store.ForEachBlock([&](const std::vector<CuratorBaseData>& block) {
        for (auto& agent : agents) {
            agent->LearnHistorys(block);
        }
    });
    ContextAutoLock lock(&m_mutex);
    m_agents.swap(agents);
    m_learntRecords = records;
}

void RankingServer::DisconnectSlowClient_() {
    ContextAutoLock lock(&m_mutex);
    if (m_client >= 0 && std::chrono::steady_clock::now() > m_clientDeadline) {
        shutdown(m_client, SHUT_RDWR);  // unblocks the server's thread
    }
}
