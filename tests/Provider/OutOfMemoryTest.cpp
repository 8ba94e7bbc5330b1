// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <list>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "ContextSubjectFilter.h"
#include "FailingMemory.h"
#include "Provider/BaseProvider.h"
#include "Provider/CuratorAgent.h"
#include "Provider/CuratorBaseData.h"
#include "Provider/CuratorUnit.h"
#include "Provider/ProviderFilter.h"
#include "Provider/RandomSampling.h"
#include "Provider/ReinforcementLearningAgent.h"
#include "Surroundings.h"
#include "SystemLog.h"
#include "TestClock.h"

// Providers, curation and bandits while each of their allocations fails, once and for good.

/// Ignores the log: CapturedLog needs memory.
int lumora_log_print(int /*buffer*/, int /*priority*/, const char* /*tag*/, const char* /*format*/, ...) {
    return 0;
}

namespace {

using Ranking = std::list<CuratorBaseData>;

constexpr int kMonday20h = 1609790400;  // 2021-01-04 20:00 UTC

const ECuratorAgentType kTypes[] = {CURATOR_AGENT_MRU, CURATOR_AGENT_MFU, CURATOR_AGENT_DATE};

/// Runs one action while allocations fail.
class Attempt {
public:
    Attempt(int allowed, int failures) : m_allowed(allowed), m_failures(failures) {}

    /// @return whether the action ended; false if it threw an exception of memory.
    template <class Action>
    bool Succeeds(Action action) const {
        const FailingMemory::Scope failing(m_allowed, m_failures);
        try {
            action();
        } catch (const std::bad_alloc&) {
            return false;
        } catch (const Json::RuntimeError&) {
            return false;
        }
        return true;
    }

private:
    int m_allowed;
    int m_failures;
};

/// Calls `test` with attempts in which each allocation fails in turn, as FailingMemory::ForEveryAllocation() does.
template <class Test>
int WithEachAllocationFailing(Test test) {
    return FailingMemory::ForEveryAllocation([&](int allowed, int failures) { test(Attempt(allowed, failures)); });
}

/// Calls `test` with an attempt that gets no memory, after one that lets libraries allocate at their first use.
/// @return the number of allocations that failed.
template <class Test>
int WithoutMemory(Test test) {
    test(Attempt(INT_MAX, 0));
    const int before = FailingMemory::Failures();
    test(Attempt(0, INT_MAX));
    return FailingMemory::Failures() - before;
}

/// Names the instances of a suite.
struct ClassName {
    template <class Class>
    static std::string GetName(int /*index*/) {
        return typeid(Class).name();
    }
};

/// @return a text that does not fit into a `std::string` without an allocation.
std::string Long(const std::string& text) {
    return text + std::string(40, '.');
}

CuratorBaseData Usage(const std::string& unitId, unsigned int duration = 60) {
    CuratorBaseData record;
    record.SetUnitId(Long(unitId));
    record.m_nStartTime = kMonday20h;
    record.m_nDuration = duration;
    record.m_strMetaData = Long("meta " + unitId);
    record.m_strMetaDataSrc = Long("source " + unitId);
    return record;
}

std::vector<CuratorBaseData> History(int units, bool hasLongIds = true) {
    std::vector<CuratorBaseData> history;
    for (int unit = 0; unit < units; ++unit) {
        const std::string id = "unit " + std::to_string(unit);
        history.push_back(Usage(id, 60 + static_cast<unsigned int>(unit)));
        history.back().SetUnitId(hasLongIds ? Long(id) : id);
    }
    return history;
}

void ExpectEqual(const Ranking& ranking, const Ranking& expected) {
    ASSERT_TRUE(IsSequenceEqual(ranking, expected));
    auto other = expected.begin();
    for (const CuratorBaseData& record : ranking) {
        EXPECT_EQ(record.m_dScore, other->m_dScore);
        EXPECT_EQ(record.m_strMetaData, other->m_strMetaData);
        EXPECT_EQ(record.m_strMetaDataSrc, other->m_strMetaDataSrc);
        ++other;
    }
}

class CurationOutOfMemoryTest : public ::testing::TestWithParam<ECuratorAgentType> {
protected:
    static Ranking Learnt(ECuratorAgentType type, const std::vector<CuratorBaseData>& history) {
        CCuratorAgent agent(type, INT_MAX, 0);
        agent.LearnHistorys(history);
        return agent.RunCurate();
    }

    const Surroundings::TimeZone m_zone{"UTC"};
    const TestClock::Frozen m_clock{kMonday20h};
};

TEST_P(CurationOutOfMemoryTest, ANewUnitIsThereOnceOrNotAtAll) {
    // Both containers of the units grow at some of these sizes. A short id is part of its unit: an entry that outlives
    // the unit still finds it.
    for (int size = 0; size < 2 * 17; ++size) {
        const int known = size / 2;
        const bool hasLongIds = size % 2 != 0;
        const std::vector<CuratorBaseData> all = History(known + 1, hasLongIds);
        const std::vector<CuratorBaseData> before(all.begin(), all.end() - 1);
        const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
            CCuratorAgent agent(GetParam(), INT_MAX, 0);
            agent.LearnHistorys(before);
            if (!attempt.Succeeds([&] { agent.LearnHistory(all.back()); })) {
                Ranking ranking = agent.RunCurate();
                if (ranking.size() == all.size()) {  // the new unit ranks last: it has a score of 0
                    EXPECT_EQ(ranking.back().GetUnitId(), all.back().GetUnitId());
                    EXPECT_EQ(ranking.back().m_dScore, 0.0);
                    EXPECT_EQ(ranking.back().m_strMetaData, "");
                    EXPECT_EQ(ranking.back().m_strMetaDataSrc, "");
                    ranking.pop_back();
                }
                ExpectEqual(ranking, Learnt(GetParam(), before));
                agent.LearnHistory(all.back());
            }
            ExpectEqual(agent.RunCurate(), Learnt(GetParam(), all));
        });
        EXPECT_GE(failed, hasLongIds ? 6 : 4) << "id, unit with its id, entry, two metadata texts";
        ASSERT_FALSE(HasFailure()) << known << " units before";
    }
}

TEST_P(CurationOutOfMemoryTest, AFailedRecordLeavesAKnownUnitUnchanged) {
    CuratorBaseData longer = Usage("unit 1", 500);
    longer.m_strMetaData += std::string(200, 'm');
    longer.m_strMetaDataSrc += std::string(200, 's');
    const std::vector<CuratorBaseData> before = History(3);
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        CCuratorAgent agent(GetParam(), INT_MAX, 0);
        agent.LearnHistorys(before);
        if (!attempt.Succeeds([&] { agent.LearnHistory(longer); })) {
            ExpectEqual(agent.RunCurate(), Learnt(GetParam(), before));
        }
    });
    EXPECT_EQ(failed, 3) << "id, two metadata texts";
}

TEST_P(CurationOutOfMemoryTest, AFailedVectorIsLearntUpToOneRecord) {
    const std::vector<CuratorBaseData> history = History(20);
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        CCuratorAgent agent(GetParam(), INT_MAX, 0);
        std::size_t learnt = history.size();
        if (!attempt.Succeeds([&] { agent.LearnHistorys(history); })) {
            Ranking ranking = agent.RunCurate();
            ranking.remove_if([](const CuratorBaseData& record) { return record.m_dScore == 0.0; });
            learnt = ranking.size();
            ASSERT_LT(learnt, history.size());
            ExpectEqual(ranking, Learnt(GetParam(), {history.begin(), history.begin() + static_cast<int>(learnt)}));
        }
        agent.LearnHistorys({history.begin() + static_cast<int>(learnt), history.end()});
        ExpectEqual(agent.RunCurate(), Learnt(GetParam(), history));
    });
    EXPECT_GE(failed, 20 * 6);
}

TEST_P(CurationOutOfMemoryTest, AFailedRankingChangesNothing) {
    const std::vector<CuratorBaseData> history = History(12);
    const Ranking expected = Learnt(GetParam(), history);
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        CCuratorAgent agent(GetParam(), INT_MAX, 0);
        agent.LearnHistorys(history);
        Ranking ranking;
        if (attempt.Succeeds([&] { ranking = agent.RunCurate(); })) {
            ExpectEqual(ranking, expected);
        }
        ExpectEqual(agent.RunCurate(), expected);
    });
    EXPECT_GE(failed, 12 * 4) << "record and three texts for each unit";
}

INSTANTIATE_TEST_SUITE_P(EachType, CurationOutOfMemoryTest, ::testing::ValuesIn(kTypes),
                         [](const ::testing::TestParamInfo<ECuratorAgentType>& type) {
                             return std::string(type.param == CURATOR_AGENT_MRU   ? "MRU"
                                                : type.param == CURATOR_AGENT_MFU ? "MFU"
                                                                                  : "Date");
                         });

TEST(CuratorOutOfMemoryTest, AFailedWeekChangesNothing) {
    const Surroundings::TimeZone zone("UTC");
    const std::vector<CuratorBaseData> history = History(1);
    CuratorBaseData7x24 expected;
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        CCuratorAgent agent(CURATOR_AGENT_DATE, INT_MAX, 0);
        agent.LearnHistorys(history);
        CuratorBaseData7x24 grid;
        if (!attempt.Succeeds([&] { grid = agent.RunCurate7x24(); })) {
            grid = agent.RunCurate7x24();
        }
        EXPECT_EQ(grid.m_listData[6][23].size(), 1U);
        if (expected.m_listData[0][0].empty()) {
            expected = grid;
        }
        EXPECT_TRUE(IsSequenceEqual(grid, expected));
    });
    EXPECT_GE(failed, 168 * 4);
}

TEST(CuratorOutOfMemoryTest, AnUnknownTypeStillLearnsNothing) {
    const CuratorBaseData usage = Usage("a");
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        CCuratorAgent agent(static_cast<ECuratorAgentType>(3), INT_MAX, 0);
        attempt.Succeeds([&] { agent.LearnHistory(usage); });
        EXPECT_TRUE(agent.RunCurate().empty());
        agent.LearnHistory(usage);
        EXPECT_TRUE(agent.RunCurate().empty());
    });
    EXPECT_GE(failed, 2) << "id, entry";
}

// Records and results.

TEST(CuratorOutOfMemoryTest, AFailedTextOfAListLeaksNothing) {
    const Ranking ranking(3, Usage("a"));
    const std::string expected = CurationResult2JsonData(ranking, CuratorData2ContextData);
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        std::string text;
        if (attempt.Succeeds([&] { text = CurationResult2JsonData(ranking, CuratorData2ContextData); })) {
            EXPECT_EQ(text, expected);
        }
    });
    EXPECT_GE(failed, 3 * 4);
}

TEST(CuratorOutOfMemoryTest, AFailedTextOfAWeekLeaksNothing) {
    CuratorBaseData7x24 grid;
    grid.m_listData[0][3] = {Usage("a"), Usage("b")};
    grid.m_listData[5][23] = {Usage("c")};
    const std::string expected = CurationResult2JsonData(grid, CuratorData2ContextData);
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        std::string text;
        if (attempt.Succeeds([&] { text = CurationResult2JsonData(grid, CuratorData2ContextData); })) {
            EXPECT_EQ(text, expected);
        }
    });
    EXPECT_GE(failed, 3 * 4);
}

TEST(CuratorOutOfMemoryTest, ComparingNeedsNoMemory) {
    CuratorBaseData7x24 grid;
    grid.m_listData[6][23] = {Usage("a"), Usage("b")};
    const CuratorBaseData7x24 same = grid;
    const int failed = WithoutMemory([&](const Attempt& attempt) {
        bool isEqual = false;
        EXPECT_TRUE(attempt.Succeeds([&] { isEqual = IsSequenceEqual(grid, same); }));
        EXPECT_TRUE(isEqual);
    });
    EXPECT_EQ(failed, 0);
}

TEST(CuratorOutOfMemoryTest, AFailedSetterKeepsTheText) {
    const std::string text = Long("new");
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        CuratorBaseData record;
        record.SetUnitId("id");
        record.SetUnitName("name");
        record.SetUnitDeviceName("device");
        bool isSet = attempt.Succeeds([&] { record.SetUnitId(text); });
        EXPECT_EQ(record.GetUnitId(), isSet ? text : "id");
        isSet = attempt.Succeeds([&] { record.SetUnitName(text); });
        EXPECT_EQ(record.GetUnitName(), isSet ? text : "name");
        isSet = attempt.Succeeds([&] { record.SetUnitDeviceName(text); });
        EXPECT_EQ(record.GetUnitDeviceName(), isSet ? text : "device");
    });
    EXPECT_EQ(failed, 1) << "each setter allocates once";
}

TEST(CuratorOutOfMemoryTest, AFailedCopyOfARecordLeavesItUsable) {
    const CuratorBaseData original = Usage("a");
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        CuratorBaseData copy;
        if (attempt.Succeeds([&] { copy = original; })) {
            EXPECT_EQ(copy.m_strMetaDataSrc, original.m_strMetaDataSrc);
        }
        const bool isClear = attempt.Succeeds([&] { copy.clear(); });
        EXPECT_TRUE(isClear) << "clear() needs memory";
        EXPECT_EQ(copy.GetUnitId() + copy.m_strMetaData, "");
        attempt.Succeeds([&] { EXPECT_EQ(CuratorBaseData(original).m_strMetaData, original.m_strMetaData); });
    });
    EXPECT_EQ(failed, 3) << "three texts";
}

// Units.

template <class Unit>
class OpenUnit : public Unit {
public:
    using Unit::m_strMetaData;
    using Unit::m_strMetaDataSrc;
    using Unit::m_strUnitId;
    using Unit::Unit;
};

template <class Unit>
struct UnitOutOfMemoryTest : public ::testing::Test {};
using Units = ::testing::Types<CCuratorMRUUnit, CCuratorMFUUnit, CCuratorDateUnit>;
TYPED_TEST_SUITE(UnitOutOfMemoryTest, Units, ClassName);

TYPED_TEST(UnitOutOfMemoryTest, AFailedAssignmentChangesNothing) {
    using Unit = OpenUnit<TypeParam>;
    const Surroundings::TimeZone zone("UTC");
    Unit original(Long("original"));
    original.m_strMetaData = Long("meta");
    original.m_strMetaDataSrc = Long("source");
    original.LearnHistory(Usage("", 70), 1.0);
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        Unit unit("unit");
        unit.m_strMetaData = "own meta";
        unit.m_strMetaDataSrc = "own source";
        unit.LearnHistory(Usage("", 60), 1.0);
        const double score = unit.GetScore(1, 20);
        const bool isAssigned = attempt.Succeeds([&] { unit = original; });
        EXPECT_EQ(unit.m_strUnitId, isAssigned ? original.m_strUnitId : "unit");
        EXPECT_EQ(unit.m_strMetaData, isAssigned ? original.m_strMetaData : "own meta");
        EXPECT_EQ(unit.m_strMetaDataSrc, isAssigned ? original.m_strMetaDataSrc : "own source");
        EXPECT_EQ(unit.GetScore(1, 20), isAssigned ? original.GetScore(1, 20) : score);
    });
    EXPECT_EQ(failed, 3) << "three texts";
}

TYPED_TEST(UnitOutOfMemoryTest, AFailedConstructionLeaksNothing) {
    const std::string id = Long("unit");
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        std::unique_ptr<TypeParam> unit;
        std::unique_ptr<TypeParam> copy;
        attempt.Succeeds([&] {
            unit = std::make_unique<TypeParam>(id);
            copy = std::make_unique<TypeParam>(*unit);
        });
        EXPECT_TRUE(unit != nullptr || copy == nullptr);
    });
    EXPECT_EQ(failed, 4) << "two units with their ids";
}

TYPED_TEST(UnitOutOfMemoryTest, LearningAndScoringNeedNoMemory) {
    const Surroundings::TimeZone zone("UTC");
    const CuratorBaseData usage = Usage("", 9000);
    const int failed = WithoutMemory([&](const Attempt& attempt) {
        TypeParam unit("unit");
        EXPECT_TRUE(attempt.Succeeds([&] {
            unit.LearnHistory(usage, 1.0);
            unit.GetScore();
            unit.GetScore(0, 0);
        }));
    });
    EXPECT_EQ(failed, 0);
}

TEST(CuratorOutOfMemoryTest, AZoneThatCannotBeReadIsUTC) {
    const CuratorBaseData usage = Usage("", 60);
    const auto learnIn = [&usage](const char* zone, int failures) {
        CCuratorDateUnit unit("unit");
        setenv("TZ", zone, /*overwrite=*/1);
        const FailingMemory::Scope failing(0, failures);
        unit.LearnHistory(usage, 1.0);
        return unit.GetScore(1, 20) > 1000.0 ? "UTC" : "local";
    };
    const Surroundings::TimeZone zone("UTC");
    EXPECT_STREQ(learnIn("Asia/Kolkata", 0), "local");
    EXPECT_STREQ(learnIn("Asia/Kathmandu", INT_MAX), FailingMemory::kIsMallocReplaced ? "UTC" : "local");
    EXPECT_STREQ(learnIn("Asia/Kolkata", 0), "local");
}

// Bandits.

template <class Agent>
std::unique_ptr<Agent> NewAgent(int n);
template <>
std::unique_ptr<EpsilonGreedyAgent> NewAgent(int n) {
    return std::make_unique<EpsilonGreedyAgent>(n, 0.0);
}
template <>
std::unique_ptr<SoftmaxAgent> NewAgent(int n) {
    return std::make_unique<SoftmaxAgent>(n, 0.1);
}
template <>
std::unique_ptr<MFUAgent> NewAgent(int n) {
    return std::make_unique<MFUAgent>(n);
}
template <>
std::unique_ptr<ThomsonSamplingAgent> NewAgent(int n) {
    return std::make_unique<ThomsonSamplingAgent>(n, 1.0, 1.0);
}
template <>
std::unique_ptr<KalmanFilterAgent> NewAgent(int n) {
    return std::make_unique<KalmanFilterAgent>(n, 1.0, 1.0, 0.0, 1.0);
}

template <class Agent>
struct BanditOutOfMemoryTest : public ::testing::Test {
    /// An agent, and two vectors in its base class; two more in the agents with statistics of their own.
    static constexpr int kAllocations =
        std::is_same_v<Agent, ThomsonSamplingAgent> || std::is_same_v<Agent, KalmanFilterAgent> ? 5 : 3;
};
using Bandits = ::testing::Types<EpsilonGreedyAgent, SoftmaxAgent, MFUAgent, ThomsonSamplingAgent, KalmanFilterAgent>;
TYPED_TEST_SUITE(BanditOutOfMemoryTest, Bandits, ClassName);

TYPED_TEST(BanditOutOfMemoryTest, AFailedConstructionLeaksNothing) {
    const int failed = WithEachAllocationFailing([](const Attempt& attempt) {
        std::unique_ptr<TypeParam> agent;
        const bool isConstructed = attempt.Succeeds([&] { agent = NewAgent<TypeParam>(3); });
        EXPECT_EQ(agent != nullptr, isConstructed);
    });
    EXPECT_EQ(failed, this->kAllocations);
}

TYPED_TEST(BanditOutOfMemoryTest, AFailedCopyLeaksNothing) {
    const std::unique_ptr<TypeParam> original = NewAgent<TypeParam>(3);
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        std::unique_ptr<TypeParam> copy;
        const bool isCopied = attempt.Succeeds([&] { copy = std::make_unique<TypeParam>(*original); });
        EXPECT_EQ(copy != nullptr, isCopied);
    });
    EXPECT_EQ(failed, this->kAllocations);
}

TYPED_TEST(BanditOutOfMemoryTest, AFailedAssignmentChangesNothing) {
    // So many failures of the other actions that no agent chooses them by chance.
    const auto makeLastBest = [](TypeParam& agent, int n) {
        for (int update = 0; update < 200; ++update) {
            for (int action = 0; action < n - 1 && update % 2 == 0; ++action) {
                agent.UpdateQ(action, 0);
            }
            agent.UpdateQ(n - 1, 1);
        }
    };
    const std::unique_ptr<TypeParam> original = NewAgent<TypeParam>(5);
    makeLastBest(*original, 5);
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        const std::unique_ptr<TypeParam> agent = NewAgent<TypeParam>(2);
        makeLastBest(*agent, 2);
        const int last = attempt.Succeeds([&] { *agent = *original; }) ? 4 : 1;
        EXPECT_EQ(agent->ChooseAction(), last);
        agent->UpdateQ(last, 1);  // writes out of bounds if the vectors have different sizes
    });
    EXPECT_EQ(failed, this->kAllocations - 1);
}

TYPED_TEST(BanditOutOfMemoryTest, ChoosingAndLearningNeedNoMemory) {
    const int failed = WithoutMemory([](const Attempt& attempt) {
        const std::unique_ptr<TypeParam> agent = NewAgent<TypeParam>(3);
        EXPECT_TRUE(attempt.Succeeds([&] { agent->UpdateQ(agent->ChooseAction(), 1); }));
    });
    EXPECT_EQ(failed, 0);
}

TYPED_TEST(BanditOutOfMemoryTest, TooManyActionsFailToConstruct) {
    const FailingMemory::Scope failing(1);
    EXPECT_TRUE([] {
        try {
            NewAgent<TypeParam>(INT_MAX);
        } catch (const std::bad_alloc&) {
            return true;
        } catch (const std::length_error&) {
            return true;
        }
        return false;
    }());
}

TEST(VariatesOutOfMemoryTest, VariatesNeedNoMemory) {
    const int failed = WithoutMemory([](const Attempt& attempt) {
        EXPECT_TRUE(attempt.Succeeds([] {
            RandomDouble();
            StandardExponential();
            Gauss();
            StandardGamma(2.5);
            RandomBeta(0.5, 0.5);
        }));
    });
    EXPECT_EQ(failed, 0);
}

// Providers and filters.

/// A handler whose operations throw.
class ThrowingHandler : public IProvider {
public:
    int AddInSubject(CBaseProvider*, const char*) override { throw std::bad_alloc(); }
    int ProviderRequest(const char*, const char*, IProvider*, void*) override { throw std::bad_alloc(); }
    int ProviderResponse(const char*, int, const char*, IProvider*, void*) override { throw std::bad_alloc(); }
    int ProviderResponse(const char*, int, void*, IProvider*, void*) override { throw std::bad_alloc(); }
    int ProviderRead(const char*, const char*, char**) override { throw std::bad_alloc(); }
    int ProviderWrite(const char*, const char*) override { throw std::bad_alloc(); }
    void Publish(const char*, int, const char*, IProvider*) override { throw std::bad_alloc(); }
    void Publish(const char*, int, void*, IProvider*) override { throw std::bad_alloc(); }
    int SetTimer(int, timer_cb, void*) override { throw std::bad_alloc(); }
    bool KillTimer(int) override { throw std::bad_alloc(); }
};

TEST(ProviderOutOfMemoryTest, AnExceptionOfTheHandlerPassesThrough) {
    ThrowingHandler handler;
    CBaseProvider provider(&handler);
    EXPECT_THROW(provider.Publish("subject", 0, "text", nullptr), std::bad_alloc);
    EXPECT_THROW(provider.Publish("subject", 0, &handler, nullptr), std::bad_alloc);
    EXPECT_THROW(provider.AddInSubject("subject"), std::bad_alloc);
    EXPECT_THROW(provider.ProviderRequest("subject", "text", nullptr, nullptr), std::bad_alloc);
    EXPECT_THROW(provider.ProviderResponse("subject", 0, "text", nullptr, nullptr), std::bad_alloc);
    EXPECT_THROW(provider.ProviderResponse("subject", 0, &handler, nullptr, nullptr), std::bad_alloc);
    EXPECT_THROW(provider.ProviderRead("subject", "key", nullptr), std::bad_alloc);
    EXPECT_THROW(provider.ProviderWrite("subject", "text"), std::bad_alloc);
    EXPECT_THROW(provider.SetTimer(1, nullptr, nullptr), std::bad_alloc);
    EXPECT_THROW(provider.KillTimer(1), std::bad_alloc);
}

template <class Filter>
struct FilterOutOfMemoryTest : public ::testing::Test {};
using Filters = ::testing::Types<ContextSubjectFilter, ProviderFilter>;
TYPED_TEST_SUITE(FilterOutOfMemoryTest, Filters, ClassName);

TYPED_TEST(FilterOutOfMemoryTest, AFailedRegistrationChangesNothing) {
    const std::string known = Long("known");
    const std::string added = Long("added");
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        TypeParam filter;
        filter.Register(known);
        const bool isRegistered = attempt.Succeeds([&] { filter.Register(added); });
        EXPECT_FALSE(filter.Check());
        filter.Set(known);
        EXPECT_EQ(filter.Check(), !isRegistered);
        EXPECT_TRUE(attempt.Succeeds([&] {
            filter.Register(known);
            filter.Set(known);
            filter.Check();
            filter.Clear();
        })) << "not only a new name needs memory";
    });
    EXPECT_EQ(failed, 2) << "entry and name";
}

TYPED_TEST(FilterOutOfMemoryTest, AFailedAssignmentLeavesAUsableFilter) {
    TypeParam original;
    for (const char* name : {"a", "b", "c"}) {
        original.Register(Long(name));
    }
    const int failed = WithEachAllocationFailing([&](const Attempt& attempt) {
        TypeParam filter;
        filter.Register("own");
        attempt.Succeeds([&] { filter = original; });
        filter = original;
        EXPECT_FALSE(filter.Check());
        for (const char* name : {"a", "b", "c"}) {
            filter.Set(Long(name));
        }
        EXPECT_TRUE(filter.Check());
    });
    EXPECT_GE(failed, 3);
}

}  // namespace
