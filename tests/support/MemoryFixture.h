// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_MEMORY_FIXTURE_H
#define LUMORA_COMMON_TESTS_MEMORY_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>

#include "CapturedLog.h"
#include "MemoryMgr.h"

/// Gives access to the protected members.
class OpenManager : public CMemoryManager {
public:
    using CMemoryManager::m_bStarted;
    using CMemoryManager::m_mutex;
    using CMemoryManager::m_nCount;
    using CMemoryManager::m_nMaxSize;
    using CMemoryManager::m_nTotalSize;
    using CMemoryManager::m_pInstance;
    using CMemoryManager::m_table;
};

/// @return the header that lies before a tracked block.
inline TMemHeader* HeaderOf(void* block) {
    return reinterpret_cast<TMemHeader*>(static_cast<char*>(block) - 64);
}

/// @return true if all bytes of a slot are 0.
inline bool IsFree(const TMemHeader& slot) {
    const TMemHeader zero{};
    return std::memcmp(&slot, &zero, sizeof(slot)) == 0;
}

/// Gives each test an empty manager, which is the instance, and an empty log.
class MemoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        CMemoryManager::SetInstance(&m_manager);
        CapturedLog::Clear();
    }

    void TearDown() override { CMemoryManager::SetInstance(nullptr); }

    static void* Allocate(unsigned int size = 10, const char* file = "file.cpp", int line = 5) {
        return CMemoryManager::Allocate(size, file, line);
    }

    void ExpectCounters(int count, int total, int peak) const {
        EXPECT_EQ(m_manager.m_nCount, count);
        EXPECT_EQ(m_manager.m_nTotalSize, total);
        EXPECT_EQ(m_manager.m_nMaxSize, peak);
    }

    OpenManager m_manager;
};

#endif  // LUMORA_COMMON_TESTS_MEMORY_FIXTURE_H
