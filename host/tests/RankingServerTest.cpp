// SPDX-License-Identifier: Apache-2.0
#include "RankingServer.h"

#include <NetUtil.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "NextFunction.h"
#include "Waiting.h"

namespace {

using Network::NetUtil;

const char* g_failing = "";                     // the name of the call that fails
std::atomic<std::size_t> g_mostSent{SIZE_MAX};  // bytes that a socket accepts at once

template <class Call>
int UnlessFailing(const char* name, Call call) {
    if (std::strcmp(g_failing, name) != 0) {
        return call();
    }
    errno = EINVAL;
    return -1;
}

/// One use of a unit. Learning it fails once the memory is gone.
class Store : public UsageStore {
public:
    int CountRecords() override { return count; }

    void ForEachBlock(const std::function<void(const std::vector<CuratorBaseData>&)>& take) override {
        ++reads;
        if (isMemoryGone) {
            throw std::bad_alloc();
        }
        CuratorBaseData record;
        record.SetUnitId("unit " + std::to_string(count));
        record.m_nStartTime = 100;
        record.m_nDuration = 5;
        take({record});
    }

    std::atomic<int> count{1};
    std::atomic<int> reads{0};
    std::atomic<bool> isMemoryGone{false};
};

std::string Ask(int port, std::string request) {
    const int socket = NetUtil::ConnectNewSocket("127.0.0.1", port);
    std::vector<char> answer(4096);
    int length = 0;
    const bool isAnswered = NetUtil::sendMessage(socket, request.data(), static_cast<int>(request.size())) == 0 &&
                            NetUtil::getMessage(socket, answer.data(), static_cast<int>(answer.size()), length) == 0;
    close(socket);
    return isAnswered ? answer.data() : "no answer";
}

}  // namespace

extern "C" int listen(int file, int backlog) noexcept {
    static const auto original = NextFunction<int(int, int)>("listen");
    return UnlessFailing("listen", [&] { return original(file, backlog); });
}

extern "C" int getsockname(int file, sockaddr* address, socklen_t* size) noexcept {
    static const auto original = NextFunction<int(int, sockaddr*, socklen_t*)>("getsockname");
    return UnlessFailing("getsockname", [&] { return original(file, address, size); });
}

extern "C" ssize_t send(int file, const void* bytes, std::size_t size, int flags) {
    static const auto original = NextFunction<ssize_t(int, const void*, std::size_t, int)>("send");
    return original(file, bytes, std::min<std::size_t>(size, g_mostSent), flags);
}

TEST(RankingServerTest, SendsTheRestOfAnAnswerLater) {
    Store store;
    RankingServer server(store, 10, 0);
    const int port = server.Open(0);
    ASSERT_GT(port, 0);
    g_mostSent = 7;
    EXPECT_EQ(Ask(port, "rank mfu"), R"({"Size":1,"list":[{"Id":"unit 1","Score":5.0}]})"
                                     "\n");
    g_mostSent = SIZE_MAX;
}

TEST(RankingServerTest, DoesNotOpenAPortThatItCannotServe) {
    for (const char* call : {"listen", "getsockname"}) {
        SCOPED_TRACE(call);
        Store store;
        const int lowest = open("/dev/null", O_RDONLY);
        close(lowest);
        {
            RankingServer server(store, 10, 0);
            g_failing = call;
            EXPECT_EQ(server.Open(0), -1);
            g_failing = "";
        }
        EXPECT_EQ(store.reads, 0);
        const int after = open("/dev/null", O_RDONLY);
        EXPECT_EQ(after, lowest) << "the socket was not closed";
        close(after);
    }
}

TEST(RankingServerTest, AnswersFromTheLastStoreWhenLearningFails) {
    Store store;
    RankingServer server(store, 10, 0);
    const int port = server.Open(0);
    ASSERT_GT(port, 0);
    const std::string first = R"({"Size":1,"list":[{"Id":"unit 1","Score":5.0}]})";
    EXPECT_EQ(Ask(port, "rank mfu"), first + "\n");

    testing::internal::CaptureStderr();
    store.isMemoryGone = true;
    store.count = 2;
    EXPECT_TRUE(Waiting::Until([&] { return store.reads >= 3; })) << "it never tried again";
    EXPECT_EQ(Ask(port, "rank mfu"), first + "\n");
    store.isMemoryGone = false;
    const std::string second = R"({"Size":1,"list":[{"Id":"unit 2","Score":5.0}]})";
    EXPECT_TRUE(Waiting::Until([&] { return Ask(port, "rank mfu") == second + "\n"; }));
    server.Close();
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("context-host: cannot learn the store again: "), 0U);
}
