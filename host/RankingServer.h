// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_RANKING_SERVER_H
#define CONTEXT_HOST_RANKING_SERVER_H

#include <ContextThread.h>
#include <ContextTimer.h>
#include <Provider/CuratorAgent.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>

class ContextHost;

/// Answers requests about the store, one client after the other, on a thread of its own; learns anew, on a timer, when
/// records have been added.
///
/// A request and its answer are one frame each. Requests: "rank mru", "rank mfu", "rank date", each with a number of
/// units behind it if less than the limit is wanted; "weekly"; "quit", which ends the conversation. Answers are JSON
/// text; a request that is not understood is answered with {"error": ...}.
///
/// A conversation that lasts longer than five seconds, or a frame that is too long, is cut off; the next client waits
/// for no longer than that.
class RankingServer : public ContextThread {
public:
    /// @param host   outlives the server.
    /// @param limit  the largest number of units in one ranking.
    RankingServer(ContextHost& host, int limit, int minDuration);
    ~RankingServer() override;

    /// Opens the port, on all interfaces, and starts to serve.
    /// @param port  0 lets the system choose one.
    /// @return the port, or -1.
    int Open(int port);

    /// Ends the service, which takes up to a second, or up to five with a client who keeps silent.
    void Close();

private:
    void OnThread() override;
    void Converse_(int client);
    std::string Answer_(const std::string& request);
    std::string Rank_(const std::string& agentName, const std::string& count);
    void LearnAnew_();
    void CutOffLateClient_();

    static constexpr int kAgents = 3;
    using Agents = std::array<std::unique_ptr<CCuratorAgent>, kAgents>;

    ContextHost& m_host;
    int m_limit;
    int m_minDuration;
    int m_listener = -1;
    ContextTimer m_timer;
    TimerId m_learnTimer = 0;

    GMutex m_mutex;
    Agents m_agents;                                    ///< guarded by m_mutex
    int m_client = -1;                                  ///< whom the server talks to; guarded by m_mutex
    std::chrono::steady_clock::time_point m_clientEnd;  ///< of that conversation; guarded by m_mutex
    int m_learntRecords = -1;                           ///< touched where LearnAnew_() runs only
};

#endif  // CONTEXT_HOST_RANKING_SERVER_H
