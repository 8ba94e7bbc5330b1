// SPDX-License-Identifier: Apache-2.0
#include "RankingServer.h"

#include <ContextAutoLock.h>
#include <ContextData.h>
#include <ContextString.h>
#include <NetUtil.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "ContextHost.h"
#include "HostMemory.h"

namespace {

using Network::NetUtil;

constexpr int kAcceptSeconds = 1;
constexpr int kLearnSeconds = 1;
constexpr std::chrono::seconds kConversation{5};
constexpr std::size_t kLongestRequest = 256;
constexpr std::size_t kLongestAnswer = 204799;  // what GetReply() takes, zero included

const char* const kAgentNames[] = {"mru", "mfu", "date"};

std::string Error(const char* text) {
    ContextData answer;
    answer.SetValue("error", text);
    return answer.MakeStr();
}

}  // namespace

RankingServer::RankingServer(ContextHost& host, int limit, int minDuration)
    : m_host(host), m_limit(limit), m_minDuration(minDuration) {
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
    if (m_listener < 0 || listen(m_listener, SOMAXCONN) != 0 ||  // now, so that nobody who knows the port is refused
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return -1;
    }
    LearnAnew_();
    m_timer.Start();
    m_learnTimer = m_timer.SetTimer(
        kLearnSeconds,
        [](int, void* server) {
            static_cast<RankingServer*>(server)->CutOffLateClient_();
            static_cast<RankingServer*>(server)->LearnAnew_();
        },
        this);
    Start();
    return ntohs(address.sin_port);
}

void RankingServer::Close() {
    if (IsRuning()) {
        Stop();
        m_timer.KillTimer(m_learnTimer);
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
            m_clientEnd = std::chrono::steady_clock::now() + kConversation;
        }
        Converse_(client);
        ContextAutoLock lock(&m_mutex);
        m_client = -1;
        close(client);
    }
}

void RankingServer::Converse_(int client) {
    HostBuffer buffer(kLongestRequest);
    int length = 0;
    while (NetUtil::getMessage(client, buffer.Data(), static_cast<int>(buffer.Size()), length) == 0) {
        const std::string request(buffer.Data(), static_cast<std::size_t>(length < 0 ? 0 : length));
        std::string answer = Answer_(request);
        if (answer.size() >= kLongestAnswer) {
            answer = Error("the answer is too long: start the host with a lower --max");
        }
        if (NetUtil::sendMessage(client, answer.data(), static_cast<int>(answer.size())) != 0 || request == "quit") {
            return;
        }
    }
}

std::string RankingServer::Answer_(const std::string& request) {
    std::vector<std::string> words = ContextString::to_word_vector(request, " ");
    words.resize(3);
    if (words[0] == "rank") {
        return Rank_(words[1], words[2]);
    }
    if (request == "weekly") {
        ContextAutoLock lock(&m_mutex);
        return CurationResult2JsonData(m_agents[CURATOR_AGENT_DATE]->RunCurate7x24(), CuratorData2ContextData);
    }
    if (request == "quit") {
        return "{\"bye\":true}\n";
    }
    return Error("ask: rank mru|mfu|date [N], weekly, or quit");
}

std::string RankingServer::Rank_(const std::string& agentName, const std::string& count) {
    const int wanted = count.empty() ? m_limit : ContextString::string2int(count);
    for (std::size_t type = 0; type < kAgents; ++type) {
        if (agentName == kAgentNames[type] && wanted >= 0) {
            ContextAutoLock lock(&m_mutex);
            std::list<CuratorBaseData> ranking = m_agents[type]->RunCurate();
            ranking.resize(std::min(ranking.size(), static_cast<std::size_t>(wanted)));
            return CurationResult2JsonData(ranking, CuratorData2ContextData);
        }
    }
    return Error("ask: rank mru|mfu|date [N]");
}

void RankingServer::LearnAnew_() {
    const int records = m_host.CountRecords();
    if (records == m_learntRecords) {
        return;
    }
    Agents agents;
    for (std::size_t type = 0; type < kAgents; ++type) {
        agents[type] = std::make_unique<CCuratorAgent>(static_cast<ECuratorAgentType>(type), m_limit, m_minDuration);
    }
    m_host.ForEachPage([&](const std::vector<CuratorBaseData>& page) {
        for (auto& agent : agents) {
            agent->LearnHistorys(page);
        }
    });
    ContextAutoLock lock(&m_mutex);
    m_agents.swap(agents);
    m_learntRecords = records;
}

void RankingServer::CutOffLateClient_() {
    ContextAutoLock lock(&m_mutex);
    if (m_client >= 0 && std::chrono::steady_clock::now() > m_clientEnd) {
        shutdown(m_client, SHUT_RDWR);  // ends the blocking call of the server's thread
    }
}
