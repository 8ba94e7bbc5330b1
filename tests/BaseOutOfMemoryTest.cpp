// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "ContextLockData.h"
#include "FailingMemory.h"
#include "MemoryMgr.h"
#include "NetUtil.h"
#include "UnfailingLog.h"

// Classes with few allocations, which fail one by one.

namespace {

using FailingMemory::ForEveryAllocation;
using FailingMemory::Scope;
using Messages = std::vector<std::string>;
using Network::NetUtil;

TEST(ContextLockDataOutOfMemoryTest, HoldsTheNewStringOrNothing) {
    ForEveryAllocation([](int allowed, int failures) {
        ContextLockData data;
        data.SetData("abc");
        char* copy = nullptr;
        {
            const Scope scope(allowed, failures);
            data.SetData("de");
            copy = data.GetData();
        }
        const bool isHeld = allowed > 0 || !Scope::HasFailed();  // SetData() makes the first allocation
        EXPECT_EQ(data.IsEmpty(), !isHeld);
        EXPECT_STREQ(copy, isHeld && !Scope::HasFailed() ? "de" : nullptr);
        std::free(copy);
        data.SetData("again");
        EXPECT_FALSE(data.IsEmpty());
    });
    EXPECT_TRUE(UnfailingLog::Take().empty());
}

class OpenManager : public CMemoryManager {
public:
    using CMemoryManager::m_nCount;
    using CMemoryManager::m_nTotalSize;
};

class MemoryMgrOutOfMemoryTest : public ::testing::Test {
protected:
    void SetUp() override { CMemoryManager::SetInstance(&m_manager); }
    void TearDown() override { CMemoryManager::SetInstance(nullptr); }

    OpenManager m_manager;
};

TEST_F(MemoryMgrOutOfMemoryTest, CountsNoBlockThatItCannotAllocate) {
    ForEveryAllocation([&](int allowed, int failures) {
        void* block = nullptr;
        {
            const Scope scope(allowed, failures);
            block = CMemoryManager::Allocate(10, "file.cpp", 5);
        }
        EXPECT_EQ(block == nullptr, Scope::HasFailed());
        EXPECT_EQ(m_manager.m_nCount, block == nullptr ? 0 : 1);
        EXPECT_EQ(m_manager.m_nTotalSize, block == nullptr ? 0 : 10);
        CMemoryManager::Release(block);
    });
}

TEST_F(MemoryMgrOutOfMemoryTest, NeedsOneAllocationOnceTheTableIsFull) {
    m_manager.m_nCount = 1000;
    EXPECT_LE(ForEveryAllocation([](int allowed, int failures) {
                  void* block = nullptr;
                  {
                      const Scope scope(allowed, failures);
                      block = CMemoryManager::Allocate(10, "file.cpp", 5);
                  }
                  EXPECT_EQ(block == nullptr, Scope::HasFailed());
                  CMemoryManager::Release(block);
              }),
              1);
    m_manager.m_nCount = 0;
}

class NetUtilOutOfMemoryTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends), 0); }
    void TearDown() override {
        close(m_ends[0]);
        close(m_ends[1]);
    }

    /// @return the bytes that wait at one end, and removes them.
    static std::string Drain(int end) {
        char bytes[100];
        const ssize_t count = recv(end, bytes, sizeof(bytes), MSG_DONTWAIT);
        return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : "";
    }

    int m_ends[2] = {-1, -1};
};

TEST_F(NetUtilOutOfMemoryTest, SendsTheWholeLineOrNothing) {
    const std::string text(40, 'x');
    ForEveryAllocation([&](int allowed, int failures) {
        try {
            const Scope scope(allowed, failures);
            EXPECT_TRUE(NetUtil::SendStringData(m_ends[0], text.c_str()));
        } catch (const std::bad_alloc&) {
            EXPECT_EQ(Drain(m_ends[1]), "");
            return;
        }
        EXPECT_EQ(Drain(m_ends[1]), text + "\n");
    });
    EXPECT_TRUE(UnfailingLog::Take().empty());
}

TEST_F(NetUtilOutOfMemoryTest, SendsAndReceivesFramesWithoutMemory) {
    char text[] = "abc";
    char buffer[10];
    int length = 0;
    const Scope scope;
    const int sent = NetUtil::sendMessage(m_ends[0], text, 3);
    const int received = NetUtil::getMessage(m_ends[1], buffer, sizeof(buffer), length);
    const bool isRawSent = NetUtil::SendRawData(m_ends[0], text, 3);
    const FailingMemory::Pause pause;
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(received, 0);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_TRUE(isRawSent);
    EXPECT_FALSE(Scope::HasFailed());
}

TEST_F(NetUtilOutOfMemoryTest, LeavesReplyThatItHasNoMemoryFor) {
    const std::string frame("\0\0\0\2x\0", 6);
    ForEveryAllocation([&](int allowed, int failures) {
        ASSERT_EQ(write(m_ends[1], frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
        {
            const Scope scope(allowed, failures);
            NetUtil::GetReply(m_ends[0], "Answer");
        }
        EXPECT_EQ(UnfailingLog::Take(), Messages{Scope::HasFailed() ? "Error getting a message" : "%s [%d] : %s"});
        EXPECT_EQ(Drain(m_ends[0]), Scope::HasFailed() ? frame : "");
    });
}

}  // namespace
