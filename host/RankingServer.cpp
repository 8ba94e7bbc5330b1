// SPDX-License-Identifier: Apache-2.0
#include "RankingServer.h"

#include <ContextAutoLock.h>
#include <ContextData.h>
#include <NetUtil.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <optional>
#include <sstream>
#include <vector>

#include "Decimal.h"

namespace {

using Network::NetUtil;

constexpr int kTimerSeconds = 1;
constexpr std::chrono::milliseconds kLongestWait{1000};       // then the thread sees that it is to stop
constexpr std::chrono::milliseconds kPauseAfterFailure{100};  // when no descriptor or memory is left for a client

constexpr const char* kUsage = "use: rank mru|mfu|date [N], weekly, or quit";

std::string Error(const char* text) {
    ContextData answer;
    answer.SetValue("error", text);
    return answer.MakeStr();
}

/// @return the time from now to a moment, for poll(); at least 0 and at most kLongestWait.
int MillisecondsTo(Connection::Clock::time_point moment) {
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(moment - Connection::Clock::now()) +
                      std::chrono::milliseconds(1);  // rounded up
    return static_cast<int>(std::clamp(wait, std::chrono::milliseconds(0), kLongestWait).count());
}

}  // namespace

std::optional<RankingRequest> RankingRequest::Parse(const std::string& text) {
    if (text == "weekly") {
        return RankingRequest{Kind::Weekly, CURATOR_AGENT_DATE, std::nullopt};
    }
    if (text == "quit") {
        return RankingRequest{Kind::Quit, CURATOR_AGENT_MRU, std::nullopt};
    }
    std::istringstream words(text);
    std::string command;
    std::string agentName;
    std::string count;
    std::string rest;
    words >> command >> agentName >> count >> rest;
    const std::optional<ECuratorAgentType> agent = AgentNamed(agentName);
    const std::optional<int> number = DecimalIn(count);
    if (command != "rank" || !agent || (!count.empty() && !number) || !rest.empty()) {
        return std::nullopt;
    }
    return RankingRequest{Kind::Rank, *agent, number};
}

RankingServer::RankingServer(UsageStore& store, int limit, int minDuration)
    : m_store(store), m_limit(limit), m_minDuration(minDuration) {
    m_clients.reserve(kMostClients);
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
    // Without O_NONBLOCK, accepting would block if the client has gone in the meantime.
    if (m_listener < 0 || fcntl(m_listener, F_SETFL, O_NONBLOCK) != 0 ||
        listen(m_listener, SOMAXCONN) != 0 ||  // a client may connect as soon as Open() returns
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return -1;
    }
    Relearn_();
    m_timer.Start();
    m_timerId = m_timer.SetTimer(
        kTimerSeconds, [](int, void* server) { static_cast<RankingServer*>(server)->RelearnInBackground_(); }, this);
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
        try {
            ServeReady_();
        } catch (const std::exception&) {
            m_clients.clear();  // no memory is left; further clients may find some
            m_nextAccept = Connection::Clock::now() + kPauseAfterFailure;
        }
    }
    m_clients.clear();
}

/// Waits for any client, at most for a second, and serves those that are ready.
void RankingServer::ServeReady_() {
    const auto now = Connection::Clock::now();
    const bool mayAccept = m_clients.size() < kMostClients && now >= m_nextAccept;
    auto nextStep = now >= m_nextAccept ? now + kLongestWait : m_nextAccept;
    std::array<pollfd, 1 + kMostClients> files{};         // the listener, then the clients
    files[0] = {mayAccept ? m_listener : -1, POLLIN, 0};  // poll() skips negative descriptors
    nfds_t count = 1;
    for (const std::unique_ptr<Connection>& client : m_clients) {
        files[count++] = {client->Socket(), client->IsSending() ? short{POLLOUT} : short{POLLIN}, 0};
        nextStep = std::min(nextStep, client->Deadline());
    }
    if (poll(files.data(), count, MillisecondsTo(nextStep)) > 0) {
        for (std::size_t index = 0; index < m_clients.size(); ++index) {
            if (files[1 + index].revents != 0) {
                Serve_(*m_clients[index]);
            }
        }
    }
    const auto isGone = [end = Connection::Clock::now()](const std::unique_ptr<Connection>& client) {
        return client->IsOver() || client->Deadline() <= end;
    };
    m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(), isGone), m_clients.end());
    if (files[0].revents != 0) {
        Accept_();
    }
}

void RankingServer::Accept_() {
    auto client = std::make_unique<Connection>();
    if (client->Accept(m_listener)) {
        m_clients.push_back(std::move(client));
    } else {
        m_nextAccept = Connection::Clock::now() + kPauseAfterFailure;
    }
}

/// Performs one step of a client that is ready: no client can keep the thread to itself.
void RankingServer::Serve_(Connection& client) {
    if (client.IsSending()) {
        client.Send();
        return;
    }
    const std::optional<std::string> request = client.Receive();
    if (!request) {
        return;
    }
    std::string answer = Answer_(*request);
    if (answer.size() >= std::size_t{NetUtil::kMaxReplySize}) {
        answer = Error("the answer is too long: start context-host with a lower --max");
    }
    client.Answer(answer, /*isLast=*/*request == "quit");
    client.Send();
}

std::string RankingServer::Answer_(const std::string& text) {
    const std::optional<RankingRequest> request = RankingRequest::Parse(text);
    if (!request) {
        return Error(kUsage);
    }
    if (request->kind == RankingRequest::Kind::Quit) {
        return "{\"bye\":true}\n";
    }
    if (request->kind == RankingRequest::Kind::Rank) {
        return Rank_(request->agent, request->count.value_or(m_limit));
    }
    ContextAutoLock lock(&m_mutex);
    return CurationResult2JsonData(m_agents[CURATOR_AGENT_DATE]->RunCurate7x24(), CuratorData2ContextData);
}

std::string RankingServer::Rank_(ECuratorAgentType type, int count) {
    ContextAutoLock lock(&m_mutex);
    std::list<CuratorBaseData> ranking = m_agents[static_cast<std::size_t>(type)]->RunCurate();
    ranking.resize(std::min(ranking.size(), static_cast<std::size_t>(count)));
    return CurationResult2JsonData(ranking, CuratorData2ContextData);
}

void RankingServer::Relearn_() {
    const std::string version = m_store.Version();
    if (version == m_learntVersion) {
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
    m_learntVersion = version;
}

/// Called by the library's timer, which no exception may pass through.
void RankingServer::RelearnInBackground_() {
    try {
        Relearn_();
    } catch (const std::exception& error) {
        // Until the next attempt, answers come from the records learnt before.
        std::fprintf(stderr, "context-host: cannot learn the store again: %s\n", error.what());
    }
}
