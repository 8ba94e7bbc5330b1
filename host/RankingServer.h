// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_RANKING_SERVER_H
#define CONTEXT_HOST_RANKING_SERVER_H

#include <ContextThread.h>
#include <ContextTimer.h>
#include <Provider/CuratorAgent.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>

#include "AgentName.h"
#include "UsageStore.h"

/// Answers requests for rankings, one client at a time.
///
/// A request and its answer are one frame each. The requests are "rank mru", "rank mfu" and "rank date", each with an
/// optional number of units; "weekly"; and "quit", which ends the connection. Answers are JSON text. The answer to an
/// unknown request is {"error": ...}.
///
/// A client is disconnected at once if it sends a frame that is too long, and at the next tick of the timer if it stays
/// connected for more than five seconds, so that the next client does not wait for long.
///
/// **Threads.** Clients are served on a thread of the server. A timer thread checks once a second for new records and
/// learns the whole store again if there are any.
class RankingServer : public ContextThread {
public:
    /// @param store        must outlive the server.
    /// @param limit        the largest number of units in one ranking.
    /// @param minDuration  seconds; shorter uses are ignored.
    RankingServer(UsageStore& store, int limit, int minDuration);
    ~RankingServer() override;

    /// Listens on the port, on all interfaces, and starts the threads.
    /// @param port  0 lets the system choose one.
    /// @return the port, or -1.
    int Open(int port);

    /// Stops the threads and closes the port. Blocks until the connected client is gone or, if there is none, for up to
    /// a second.
    void Close();

private:
    void OnThread() override;
    void Serve_(int client);
    std::string Answer_(const std::string& request);
    std::string Rank_(ECuratorAgentType type, int count);
    void Relearn_();
    void DisconnectSlowClient_();

    using Agents = std::array<std::unique_ptr<CCuratorAgent>, kAgentCount>;

    UsageStore& m_store;
    int m_limit;
    int m_minDuration;
    int m_listener = -1;
    ContextTimer m_timer;
    TimerId m_timerId = 0;

    GMutex m_mutex;
    Agents m_agents;                                         ///< by type; guarded by m_mutex
    int m_client = -1;                                       ///< the connected client; guarded by m_mutex
    std::chrono::steady_clock::time_point m_clientDeadline;  ///< guarded by m_mutex
    int m_learntRecords = -1;                                ///< used by Relearn_() only
};

#endif  // CONTEXT_HOST_RANKING_SERVER_H
