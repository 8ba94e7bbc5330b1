// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_RANKING_SERVER_H
#define CONTEXT_HOST_RANKING_SERVER_H

#include <ContextThread.h>
#include <ContextTimer.h>
#include <Provider/CuratorAgent.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AgentName.h"
#include "Connection.h"
#include "UsageStore.h"

/// A request to the server.
struct RankingRequest {
    enum class Kind { Rank, Weekly, Quit };

    Kind kind;
    ECuratorAgentType agent;
    std::optional<int> count;  ///< the number of units, if the request has one

    /// @return the request that a text stands for: "rank mru", "rank mfu" or "rank date", each with an optional number
    ///         of units; "weekly"; "quit". Nothing for other texts.
    static std::optional<RankingRequest> Parse(const std::string& text);
};

/// Answers requests for rankings of up to 64 clients at once; further ones wait until one of these is gone.
///
/// A request and its answer are one frame each; RankingRequest describes the requests. After "quit" the connection
/// ends. Answers are JSON text. The answer to an unknown request is {"error": ...}.
///
/// A client is disconnected if it sends a frame that is too long, needs more than five seconds for a request or to
/// receive an answer, or stays connected for thirty seconds. No client waits for another, except while an answer is
/// computed.
///
/// **Threads.** Clients are served on one thread of the server. A timer thread checks once a second for changes of the
/// store and, after a change, learns it again.
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

    /// Stops the threads, disconnects the clients and closes the port. Blocks for up to a second, or longer if the
    /// server is just learning or computing.
    void Close();

private:
    static constexpr std::size_t kMostClients = 64;

    using Clients = std::vector<std::unique_ptr<Connection>>;

    void OnThread() override;
    void ServeReady_();
    void Accept_();
    void Serve_(Connection& client);
    std::string Answer_(const std::string& text);
    std::string Rank_(ECuratorAgentType type, int count);
    void Relearn_();
    void RelearnInBackground_();

    using Agents = std::array<std::unique_ptr<CCuratorAgent>, kAgentCount>;

    UsageStore& m_store;
    int m_limit;
    int m_minDuration;
    int m_listener = -1;
    ContextTimer m_timer;
    TimerId m_timerId = 0;

    Clients m_clients;                           ///< used by the server's thread only
    Connection::Clock::time_point m_nextAccept;  ///< used by the server's thread only

    GMutex m_mutex;
    Agents m_agents;              ///< by type; guarded by m_mutex
    std::string m_learntVersion;  ///< of the store; used by Relearn_() only
};

#endif  // CONTEXT_HOST_RANKING_SERVER_H
