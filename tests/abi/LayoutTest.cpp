// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "ContextAutoLock.h"
#include "ContextData.h"
#include "ContextDatabase.h"
#include "ContextEventThread.h"
#include "ContextLockData.h"
#include "ContextSubjectFilter.h"
#include "ContextThread.h"
#include "ContextTimer.h"
#include "MemoryMgr.h"
#include "Provider/BaseProvider.h"
#include "Provider/CuratorAgent.h"
#include "Provider/CuratorBaseData.h"
#include "Provider/CuratorUnit.h"
#include "Provider/IProvider.h"
#include "Provider/ProviderFilter.h"
#include "Provider/ReinforcementLearningAgent.h"

// The layout of every class that a host derives from, embeds or copies: the order of its fields, with no other field
// between them or after the last one; its size on the device; and the slots of its virtual functions. The program is
// compiled with -fno-access-control, to see private fields.

namespace {

struct Field {
    std::string name;
    std::size_t offset;
    std::size_t size;
    std::size_t alignment;
};

/// Shows the alignment of T as a member. On 32-bit x86 `alignof` differs: it reports that of a variable.
template <class T>
struct AfterByte {
    char byte;
    T field;
};

template <class T>
constexpr std::size_t kAlignment = sizeof(AfterByte<T>) - sizeof(T);

/// @return the offset, rounded up to the alignment.
std::size_t Aligned(std::size_t offset, std::size_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

/// Expects the fields of a class in the given order, without others.
/// @param name        the class, for messages.
/// @param size        its size here.
/// @param first       the offset of its first field: 0, or after the base class or the virtual table pointer.
/// @param deviceSize  its size on the device, which is checked on 32-bit ARM only.
/// @param fields      its fields.
void ExpectFields(const std::string& name, std::size_t size, std::size_t first, std::size_t deviceSize,
                  const std::vector<Field>& fields) {
    std::size_t offset = first;
    std::size_t alignment = first == 0 ? 1 : alignof(void*);
    for (const Field& field : fields) {
        offset = Aligned(offset, field.alignment);
        alignment = std::max(alignment, field.alignment);
        EXPECT_EQ(field.offset, offset) << name << "::" << field.name;
        offset += field.size;
    }
    EXPECT_EQ(size, Aligned(offset, alignment)) << name << " has more fields";
#ifdef __arm__
    EXPECT_EQ(size, deviceSize) << name;
#else
    static_cast<void>(deviceSize);
#endif
}

constexpr std::size_t kNone = 0;
constexpr std::size_t kTable = sizeof(void*);  ///< after the virtual table pointer
/// After the last field of ContextThread: a derived class reuses the padding at the end of its base.
constexpr std::size_t kEndOfThread = 2 * sizeof(void*) + 1;

template <class T>
Field FieldAt(const char* name, std::size_t offset) {
    return {name, offset, sizeof(T), kAlignment<T>};  // NOLINT(bugprone-sizeof-expression): of a pointer, too
}

#define FIELD(type, field) FieldAt<decltype(type::field)>(#field, offsetof(type, field))

#define EXPECT_FIELDS(type, first, deviceSize, ...) \
    ExpectFields(#type, sizeof(type), first, deviceSize, std::vector<Field>{__VA_ARGS__})

TEST(LayoutTest, KeepsFieldsOfLocksAndLockedData) {
    EXPECT_FIELDS(ContextAutoLock, kNone, 4, FIELD(ContextAutoLock, m_pMutex));
    EXPECT_FIELDS(ContextLockData, kNone, 12, FIELD(ContextLockData, m_pszData), FIELD(ContextLockData, m_mutex));
    EXPECT_TRUE((std::is_same_v<decltype(ContextLockData::m_mutex), GMutex>))
        << "the mutex must be a member, not a pointer";
}

TEST(LayoutTest, KeepsFieldsOfDocument) {
    EXPECT_FALSE(std::is_polymorphic_v<ContextData>);
    EXPECT_FIELDS(ContextData, kNone, sizeof(Json::Value) + 32, FIELD(ContextData, m_value),
                  FIELD(ContextData, m_pValue), FIELD(ContextData, m_strJson));
}

TEST(LayoutTest, KeepsFieldsOfTrackedMemory) {
    EXPECT_FIELDS(TMemHeader, kNone, 64, FIELD(TMemHeader, szFileName), FIELD(TMemHeader, nBlockHigh),
                  FIELD(TMemHeader, nLine), FIELD(TMemHeader, nSize), FIELD(TMemHeader, nBlockLow));
    EXPECT_EQ(sizeof(TMemHeader), 64U);
    EXPECT_EQ(offsetof(TMemHeader, nLine), 52U);
    EXPECT_EQ(offsetof(TMemHeader, nSize), 56U);
    EXPECT_EQ(offsetof(TMemHeader, nBlockLow), 60U);  // on the device, the whole address of the block
    EXPECT_TRUE((std::is_base_of_v<ContextThread, CMemoryManager>));
    EXPECT_FIELDS(CMemoryManager, kEndOfThread, 64024, FIELD(CMemoryManager, m_nCount),
                  FIELD(CMemoryManager, m_nMaxSize), FIELD(CMemoryManager, m_nTotalSize),
                  FIELD(CMemoryManager, m_table));
    EXPECT_EQ(sizeof(CMemoryManager::m_table), 1000U * 64U);
}

TEST(LayoutTest, KeepsFieldsOfThreads) {
    EXPECT_FIELDS(ContextThread, kTable, 12, FIELD(ContextThread, m_pThread), FIELD(ContextThread, m_bRunning));
    EXPECT_EQ(sizeof(ContextThread::m_bRunning), 1U);
    EXPECT_FIELDS(TEventMessage, kNone, 16, FIELD(TEventMessage, nEventId), FIELD(TEventMessage, pData),
                  FIELD(TEventMessage, bStop), FIELD(TEventMessage, bStatic), FIELD(TEventMessage, nPriority));
    EXPECT_FIELDS(ContextEventThread, kTable, 28, FIELD(ContextEventThread, m_pThread),
                  FIELD(ContextEventThread, m_bRunning), FIELD(ContextEventThread, m_mutex),
                  FIELD(ContextEventThread, m_pQueue), FIELD(ContextEventThread, m_nPreStartCount));
}

TEST(LayoutTest, KeepsFieldsOfTimer) {
    EXPECT_FIELDS(CTimerData, kNone, 20, FIELD(CTimerData, timerId), FIELD(CTimerData, interval),
                  FIELD(CTimerData, expireTime), FIELD(CTimerData, callback), FIELD(CTimerData, userData));
    EXPECT_EQ(sizeof(CTimerData::expireTime), 4U);
    const std::size_t bases = sizeof(ContextThread) + sizeof(ContextEventThread);
    EXPECT_FIELDS(ContextTimer, bases, 72, FIELD(ContextTimer, m_timerList), FIELD(ContextTimer, m_lastCheckTime),
                  FIELD(ContextTimer, m_checkMessage));
    EXPECT_EQ(sizeof(ContextTimer::m_lastCheckTime), 4U);
}

TEST(LayoutTest, KeepsFieldsOfDatabase) {
    EXPECT_FIELDS(struct_sql_value, kNone, 48, FIELD(struct_sql_value, nValue), FIELD(struct_sql_value, lValue),
                  FIELD(struct_sql_value, strValue), FIELD(struct_sql_value, pszValue),
                  FIELD(struct_sql_value, llValue));
    EXPECT_EQ(sizeof(struct_sql_value::nValue), 4U);
    EXPECT_EQ(sizeof(struct_sql_value::llValue), 8U);
    EXPECT_FIELDS(struct_query_set, kNone, 36, FIELD(struct_query_set, strQuery),
                  FIELD(struct_query_set, vecSqlQueryValue));
    EXPECT_FIELDS(ContextDatabase, kTable, 184, FIELD(ContextDatabase, m_pDB), FIELD(ContextDatabase, m_pTimer),
                  FIELD(ContextDatabase, m_strDBName), FIELD(ContextDatabase, m_strCreateTableQuery),
                  FIELD(ContextDatabase, m_vecQuerySet), FIELD(ContextDatabase, m_bResetting),
                  FIELD(ContextDatabase, m_nInterval), FIELD(ContextDatabase, m_timerId),
                  FIELD(ContextDatabase, m_strPath), FIELD(ContextDatabase, m_strJournalPath),
                  FIELD(ContextDatabase, m_strWalPath), FIELD(ContextDatabase, m_strShmPath));
    EXPECT_EQ(sizeof(ContextDatabase::m_pDB), sizeof(void*));
    EXPECT_EQ(sizeof(ContextDatabase::m_bResetting), 1U);
    EXPECT_EQ(sizeof(ContextDatabase::m_timerId), 4U);
}

TEST(LayoutTest, KeepsFieldsOfProviderBaseAndFilters) {
    EXPECT_FALSE(std::is_polymorphic_v<CBaseProvider>);
    EXPECT_FIELDS(CBaseProvider, kNone, 4, FIELD(CBaseProvider, m_pIProviderHandler));
    EXPECT_TRUE((std::is_same_v<decltype(ContextSubjectFilter::m_filterMap), std::map<std::string, bool>>));
    EXPECT_TRUE((std::is_same_v<decltype(ProviderFilter::m_filterMap), std::map<std::string, bool>>));
    EXPECT_FIELDS(ContextSubjectFilter, kNone, 24, FIELD(ContextSubjectFilter, m_filterMap));
    EXPECT_FIELDS(ProviderFilter, kNone, 24, FIELD(ProviderFilter, m_filterMap));
}

TEST(LayoutTest, KeepsFieldsOfCurationClasses) {
    EXPECT_FIELDS(CuratorBaseData, kTable, 176, FIELD(CuratorBaseData, m_strMetaData),
                  FIELD(CuratorBaseData, m_strMetaDataSrc), FIELD(CuratorBaseData, m_nStartTime),
                  FIELD(CuratorBaseData, m_nAux), FIELD(CuratorBaseData, m_nDuration), FIELD(CuratorBaseData, m_dScore),
                  FIELD(CuratorBaseData, m_dAux), FIELD(CuratorBaseData, m_strUnitId),
                  FIELD(CuratorBaseData, m_strUnitName), FIELD(CuratorBaseData, m_strUnitDeviceName));
    EXPECT_EQ(sizeof(CuratorBaseData::m_nStartTime), 4U);
    EXPECT_FIELDS(CuratorBaseData7x24, kNone, 2016, FIELD(CuratorBaseData7x24, m_listData));
    EXPECT_FIELDS(CCuratorBaseUnit, kTable, 88, FIELD(CCuratorBaseUnit, m_strUnitId),
                  FIELD(CCuratorBaseUnit, m_strMetaDataSrc), FIELD(CCuratorBaseUnit, m_strMetaData),
                  FIELD(CCuratorBaseUnit, m_dScore));
    EXPECT_EQ(sizeof(CCuratorMRUUnit), sizeof(CCuratorBaseUnit));
    EXPECT_EQ(sizeof(CCuratorMFUUnit), sizeof(CCuratorBaseUnit));
    EXPECT_FIELDS(CCuratorDateUnit, sizeof(CCuratorBaseUnit), 1712, FIELD(CCuratorDateUnit, m_dHour),
                  FIELD(CCuratorDateUnit, m_dDay), FIELD(CCuratorDateUnit, m_dDayHour),
                  FIELD(CCuratorDateUnit, m_dWeight));
    // The look-up table follows the fields whose order is fixed.
    EXPECT_FIELDS(CCuratorAgent, kTable, 56, FIELD(CCuratorAgent, m_eType), FIELD(CCuratorAgent, m_nMaxResult),
                  FIELD(CCuratorAgent, m_nMinDuration), FIELD(CCuratorAgent, m_vecUnits),
                  FIELD(CCuratorAgent, m_mapUnits));
}

TEST(LayoutTest, KeepsFieldsOfBanditAgents) {
    EXPECT_FIELDS(ReinforcementLearningAgent, kTable, 32, FIELD(ReinforcementLearningAgent, m_nActions),
                  FIELD(ReinforcementLearningAgent, m_vecCount), FIELD(ReinforcementLearningAgent, m_vecQ));
    const std::size_t base = sizeof(ReinforcementLearningAgent);
    EXPECT_FIELDS(EpsilonGreedyAgent, base, 40, FIELD(EpsilonGreedyAgent, m_dEpsilon));
    EXPECT_FIELDS(SoftmaxAgent, base, 40, FIELD(SoftmaxAgent, m_dTemperature));
    EXPECT_EQ(sizeof(MFUAgent), base);
    EXPECT_FIELDS(ThomsonSamplingAgent, base, 72, FIELD(ThomsonSamplingAgent, m_dAlpha),
                  FIELD(ThomsonSamplingAgent, m_dBeta), FIELD(ThomsonSamplingAgent, m_vecSuccess),
                  FIELD(ThomsonSamplingAgent, m_vecFailure));
    EXPECT_FIELDS(KalmanFilterAgent, base, 88, FIELD(KalmanFilterAgent, m_dObservationNoise),
                  FIELD(KalmanFilterAgent, m_dProcessNoise), FIELD(KalmanFilterAgent, m_dInitialMean),
                  FIELD(KalmanFilterAgent, m_dInitialVariance), FIELD(KalmanFilterAgent, m_vecMean),
                  FIELD(KalmanFilterAgent, m_vecVariance));
}

/// @return the slot of a virtual function in its table. Slots 0 and 1 hold the two destructors.
template <class Operation>
std::size_t SlotOf(Operation operation) {
    std::uintptr_t offset = 0;
    std::memcpy(&offset, &operation, sizeof(offset));  // in bytes; plus 1 where functions have even addresses
    return offset / sizeof(void*);
}

TEST(LayoutTest, VirtualFunctionsFollowDestructors) {
    EXPECT_EQ(SlotOf(&ContextThread::OnThread), 2U);
    EXPECT_EQ(SlotOf(&ContextEventThread::OnEvent), 2U);
    EXPECT_EQ(SlotOf(&ContextTimer::OnThread), 2U);
    EXPECT_EQ(SlotOf(&ContextTimer::OnEvent), 3U);
    EXPECT_EQ(SlotOf(&CMemoryManager::OnThread), 2U);
    EXPECT_EQ(SlotOf(&CuratorBaseData::clear), 2U);
    EXPECT_EQ(SlotOf(&CCuratorBaseUnit::LearnHistory), 2U);
    EXPECT_EQ(SlotOf<double (CCuratorBaseUnit::*)()>(&CCuratorBaseUnit::GetScore), 3U);
    EXPECT_EQ(SlotOf<double (CCuratorBaseUnit::*)(const int&, const int&)>(&CCuratorBaseUnit::GetScore), 4U);
    EXPECT_EQ(SlotOf(&ReinforcementLearningAgent::UpdateQ), 2U);
    EXPECT_EQ(SlotOf(&ReinforcementLearningAgent::ChooseAction), 3U);

    EXPECT_EQ(SlotOf(&IProvider::AddInSubject), 2U);
    EXPECT_EQ(SlotOf(&IProvider::ProviderRequest), 3U);
    EXPECT_EQ(
        SlotOf<int (IProvider::*)(const char*, int, const char*, IProvider*, void*)>(&IProvider::ProviderResponse), 4U);
    EXPECT_EQ(SlotOf<int (IProvider::*)(const char*, int, void*, IProvider*, void*)>(&IProvider::ProviderResponse), 5U);
    EXPECT_EQ(SlotOf(&IProvider::ProviderRead), 6U);
    EXPECT_EQ(SlotOf(&IProvider::ProviderWrite), 7U);
    EXPECT_EQ(SlotOf<void (IProvider::*)(const char*, int, const char*, IProvider*)>(&IProvider::Publish), 8U);
    EXPECT_EQ(SlotOf<void (IProvider::*)(const char*, int, void*, IProvider*)>(&IProvider::Publish), 9U);
    EXPECT_EQ(SlotOf(&IProvider::SetTimer), 10U);
    EXPECT_EQ(SlotOf(&IProvider::KillTimer), 11U);
}

/// Records which of its virtual functions were called.
class NumberedAgent : public ReinforcementLearningAgent {
public:
    explicit NumberedAgent(int& destroyed) : ReinforcementLearningAgent(1), m_destroyed(destroyed) {}
    ~NumberedAgent() override { ++m_destroyed; }
    void UpdateQ(const int& action, const int& reward) override { m_updated = 10 * action + reward; }
    int ChooseAction() override { return 7; }

    int m_updated = 0;

private:
    int& m_destroyed;
};

TEST(LayoutTest, VirtualTableHoldsFunctionsInTheirSlots) {
    int destroyed = 0;
    auto* agent = new NumberedAgent(destroyed);
    void** table = *reinterpret_cast<void***>(agent);
    reinterpret_cast<void (*)(void*, const int&, const int&)>(table[2])(agent, 4, 2);
    EXPECT_EQ(agent->m_updated, 42);
    EXPECT_EQ(reinterpret_cast<int (*)(void*)>(table[3])(agent), 7);
    reinterpret_cast<void (*)(void*)>(table[1])(agent);  // destroys and frees, or LeakSanitizer reports the object
    EXPECT_EQ(destroyed, 1);

    alignas(NumberedAgent) unsigned char memory[sizeof(NumberedAgent)];
    agent = new (memory) NumberedAgent(destroyed);
    reinterpret_cast<void (*)(void*)>((*reinterpret_cast<void***>(agent))[0])(agent);  // destroys without freeing
    EXPECT_EQ(destroyed, 2);
}

TEST(LayoutTest, OnlyPromisedClassesHaveVirtualFunctions) {
    EXPECT_TRUE(std::has_virtual_destructor_v<ContextDatabase>);
    EXPECT_TRUE(std::has_virtual_destructor_v<CCuratorAgent>);
    EXPECT_TRUE(std::has_virtual_destructor_v<IProvider>);
    EXPECT_TRUE(std::is_abstract_v<IProvider>);
    EXPECT_FALSE(std::is_polymorphic_v<ContextSubjectFilter>);
    EXPECT_FALSE(std::is_polymorphic_v<ProviderFilter>);
    EXPECT_FALSE(std::is_polymorphic_v<CuratorBaseData7x24>);
    EXPECT_FALSE(std::is_polymorphic_v<ContextLockData>);
}

TEST(LayoutTest, KeepsEnumeratorValues) {
    EXPECT_EQ(SQL_INT, 0);
    EXPECT_EQ(SQL_LONG, 1);
    EXPECT_EQ(SQL_STRING, 2);
    EXPECT_EQ(SQL_CSTRING, 3);
    EXPECT_EQ(CURATOR_AGENT_MRU, 0);
    EXPECT_EQ(CURATOR_AGENT_MFU, 1);
    EXPECT_EQ(CURATOR_AGENT_DATE, 2);
    EXPECT_EQ(sizeof(enum_sql_type), 4U);
    EXPECT_EQ(sizeof(ECuratorAgentType), 4U);
}

}  // namespace
