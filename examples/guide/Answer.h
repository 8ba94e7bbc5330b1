// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_EXAMPLES_GUIDE_ANSWER_H
#define LUMORA_COMMON_EXAMPLES_GUIDE_ANSWER_H

#include <ContextThread.h>
#include <NetUtil.h>
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

using Network::NetUtil;

/// Answers every request of every client with Answer(), on its worker thread.
///
/// A derived class must call Stop() in its destructor: when this destructor runs, the derived object is already gone.
class AnswerServer : public ContextThread {
public:
    ~AnswerServer() override {
        if (m_listener >= 0) {
            close(m_listener);
        }
    }

    /// Opens a port that the system chooses. Clients may connect from now on; Start() begins to answer them.
    /// @return the port, or -1.
    int Listen() {
        m_listener = NetUtil::BindPort(0);
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        if (m_listener < 0 || listen(m_listener, SOMAXCONN) != 0 ||
            getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            return -1;
        }
        return ntohs(address.sin_port);
    }

protected:
    /// **Called by** the worker, once for each request.
    virtual std::string Answer() = 0;

private:
    void OnThread() override {
        while (IsRuning()) {
            const int client = NetUtil::AcceptNewSocket(m_listener, /*timeoutSeconds=*/1);
            if (client >= 0) {
                AnswerClient_(client);
                close(client);
            }
        }
    }

    void AnswerClient_(int client) {
        char request[64];
        int length = 0;
        while (NetUtil::getMessage(client, request, sizeof(request), length) == 0) {
            std::string answer = Answer();
            if (NetUtil::sendMessage(client, answer.data(), static_cast<int>(answer.size())) != 0) {
                return;
            }
        }
    }

    int m_listener = -1;
};

#endif  // LUMORA_COMMON_EXAMPLES_GUIDE_ANSWER_H
