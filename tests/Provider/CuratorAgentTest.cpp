// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorAgent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "LogExpectation.h"
#include "Surroundings.h"
#include "TestClock.h"

namespace {

using Ranking = std::list<CuratorBaseData>;
using Surroundings::TimeZone;

constexpr int kMonday20h = 1609790400;  // 2021-01-04 20:00 UTC
constexpr int kHour = 3600;
constexpr int kDay = 24 * kHour;

CuratorBaseData Usage(const std::string& unitId, int startTime, unsigned int duration, const std::string& metaData = "",
                      const std::string& metaDataSrc = "") {
    CuratorBaseData record;
    record.SetUnitId(unitId);
    record.m_nStartTime = startTime;
    record.m_nDuration = duration;
    record.m_strMetaData = metaData;
    record.m_strMetaDataSrc = metaDataSrc;
    return record;
}

std::vector<std::pair<std::string, double>> IdsAndScores(const Ranking& ranking) {
    std::vector<std::pair<std::string, double>> pairs;
    for (const CuratorBaseData& record : ranking) {
        pairs.emplace_back(record.GetUnitId(), record.m_dScore);
    }
    return pairs;
}

std::vector<std::string> Ids(const Ranking& ranking) {
    std::vector<std::string> ids;
    for (const CuratorBaseData& record : ranking) {
        ids.push_back(record.GetUnitId());
    }
    return ids;
}

bool IsEmpty(const CuratorBaseData7x24& grid) {
    return IsSequenceEqual(grid, CuratorBaseData7x24());
}

const ECuratorAgentType kKnownTypes[] = {CURATOR_AGENT_MRU, CURATOR_AGENT_MFU, CURATOR_AGENT_DATE};
const ECuratorAgentType kUnknownTypes[] = {static_cast<ECuratorAgentType>(3), static_cast<ECuratorAgentType>(-1),
                                           static_cast<ECuratorAgentType>(INT_MAX)};

class CuratorAgentTest : public ::testing::Test {
protected:
    void SetUp() override { CapturedLog::Clear(); }

    const TimeZone m_zone{"UTC"};
};

TEST_F(CuratorAgentTest, HasAVirtualDestructorAndIsNotCopyable) {
    EXPECT_TRUE(std::has_virtual_destructor_v<CCuratorAgent>);
    EXPECT_FALSE(std::is_copy_constructible_v<CCuratorAgent>);
    EXPECT_FALSE(std::is_copy_assignable_v<CCuratorAgent>);
}

// Ranking.

TEST_F(CuratorAgentTest, RanksNothingBeforeLearning) {
    for (const ECuratorAgentType type : kKnownTypes) {
        CCuratorAgent agent(type, 10, 0);
        EXPECT_TRUE(agent.RunCurate().empty());
    }
    EXPECT_TRUE(IsEmpty(CCuratorAgent(CURATOR_AGENT_DATE, 10, 0).RunCurate7x24()));
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(CuratorAgentTest, RanksMRUByStartOfTheLastRecord) {
    CCuratorAgent agent(CURATOR_AGENT_MRU, 10, 0);
    agent.LearnHistory(Usage("a", 100, 5));
    agent.LearnHistory(Usage("b", 300, 1));
    agent.LearnHistory(Usage("c", 200, 9));
    agent.LearnHistory(Usage("b", 50, 1));
    agent.LearnHistory(Usage("d", -1, 1));
    EXPECT_EQ(IdsAndScores(agent.RunCurate()), (std::vector<std::pair<std::string, double>>{
                                                   {"d", 4294967295.0}, {"c", 200.0}, {"a", 100.0}, {"b", 50.0}}));
}

TEST_F(CuratorAgentTest, RanksMFUBySecondsOfUse) {
    CCuratorAgent agent(CURATOR_AGENT_MFU, 10, 0);
    agent.LearnHistory(Usage("a", 100, 5));
    agent.LearnHistory(Usage("b", 300, 8));
    agent.LearnHistory(Usage("a", 400, 5));
    agent.LearnHistory(Usage("c", 500, 4000000000U));
    agent.LearnHistory(Usage("c", 500, 4000000000U));
    EXPECT_EQ(IdsAndScores(agent.RunCurate()),
              (std::vector<std::pair<std::string, double>>{{"c", 8000000000.0}, {"a", 10.0}, {"b", 8.0}}));
}

TEST_F(CuratorAgentTest, RanksDateByTheCurrentHourOfTheWeek) {
    CCuratorAgent agent(CURATOR_AGENT_DATE, 10, 0);
    agent.LearnHistory(Usage("morning", kMonday20h - 12 * kHour, 600));
    agent.LearnHistory(Usage("evening", kMonday20h, 300));
    {
        const TestClock::Frozen clock(kMonday20h + 7 * kDay + 60);
        EXPECT_EQ(IdsAndScores(agent.RunCurate()),
                  (std::vector<std::pair<std::string, double>>{{"evening", 30.0 + 300.0 + 1800.0 + 3300.0},
                                                               {"morning", 60.0 + 3600.0}}));
    }
    const TestClock::Frozen clock(kMonday20h + 8 * kDay - 12 * kHour);  // a Tuesday, 8:00
    EXPECT_EQ(IdsAndScores(agent.RunCurate()),
              (std::vector<std::pair<std::string, double>>{{"morning", 60.0 + 600.0}, {"evening", 30.0}}));
}

TEST_F(CuratorAgentTest, LearnsWithAWeightOfOne) {
    CCuratorAgent agent(CURATOR_AGENT_DATE, 10, 0);
    agent.LearnHistory(Usage("a", kMonday20h, 3600));
    EXPECT_EQ(agent.RunCurate7x24().m_listData[1][20].front().m_dScore, 360.0 + 3600.0 + 21600.0 + 39600.0);
}

TEST_F(CuratorAgentTest, OrdersEqualScoresByFirstAppearance) {
    CCuratorAgent agent(CURATOR_AGENT_MFU, 10, 0);
    for (const char* id : {"d", "b", "e", "a", "c"}) {
        agent.LearnHistory(Usage(id, 0, 1));
    }
    EXPECT_EQ(Ids(agent.RunCurate()), (std::vector<std::string>{"d", "b", "e", "a", "c"}));
    agent.LearnHistory(Usage("a", 0, 1));
    agent.LearnHistory(Usage("e", 0, 1));
    EXPECT_EQ(Ids(agent.RunCurate()), (std::vector<std::string>{"e", "a", "d", "b", "c"}));
}

TEST_F(CuratorAgentTest, KeepsOnlyTheHighestScores) {
    const struct {
        int maxResult;
        std::vector<std::string> ids;
    } rows[] = {{3, {"e", "b", "d"}},
                {1, {"e"}},
                {4, {"e", "b", "d", "a"}},
                {5, {"e", "b", "d", "a", "c"}},
                {6, {"e", "b", "d", "a", "c"}},
                {INT_MAX, {"e", "b", "d", "a", "c"}},
                {0, {}},
                {-1, {}},
                {INT_MIN, {}}};
    for (const auto& row : rows) {
        CCuratorAgent agent(CURATOR_AGENT_MFU, row.maxResult, 0);
        agent.LearnHistorys({Usage("d", 0, 2), Usage("a", 0, 2), Usage("b", 0, 3), Usage("c", 0, 1), Usage("e", 0, 9)});
        EXPECT_EQ(Ids(agent.RunCurate()), row.ids) << "at most " << row.maxResult;
        CCuratorAgent dateAgent(CURATOR_AGENT_DATE, row.maxResult, 0);
        dateAgent.LearnHistorys(
            {Usage("d", 0, 2), Usage("a", 0, 2), Usage("b", 0, 3), Usage("c", 0, 1), Usage("e", 0, 9)});
        const CuratorBaseData7x24 grid = dateAgent.RunCurate7x24();
        for (const auto& day : grid.m_listData) {
            for (const Ranking& hour : day) {
                EXPECT_EQ(Ids(hour), row.ids) << "at most " << row.maxResult;
            }
        }
    }
}

// Learning.

TEST_F(CuratorAgentTest, IgnoresRecordsThatAreTooShort) {
    CCuratorAgent agent(CURATOR_AGENT_MFU, 10, 30);
    agent.LearnHistory(Usage("short", 0, 29));
    agent.LearnHistory(Usage("none", 0, 0));
    EXPECT_TRUE(agent.RunCurate().empty());
    agent.LearnHistory(Usage("long enough", 0, 30, "meta", "source"));
    agent.LearnHistory(Usage("long enough", 0, 29, "other meta", "other source"));
    agent.LearnHistory(Usage("short", 0, 31));
    const Ranking ranking = agent.RunCurate();
    EXPECT_EQ(IdsAndScores(ranking),
              (std::vector<std::pair<std::string, double>>{{"short", 31.0}, {"long enough", 30.0}}));
    EXPECT_EQ(ranking.back().m_strMetaData, "meta");
    EXPECT_EQ(ranking.back().m_strMetaDataSrc, "source");
}

TEST_F(CuratorAgentTest, LearnsADurationOf0WhenTheMinimumIs0) {
    for (const ECuratorAgentType type : kKnownTypes) {
        CCuratorAgent agent(type, 10, 0);
        agent.LearnHistory(Usage("a", 0, 0));
        EXPECT_EQ(IdsAndScores(agent.RunCurate()), (std::vector<std::pair<std::string, double>>{{"a", 0.0}}));
    }
}

TEST_F(CuratorAgentTest, ComparesDurationsAsUnsigned) {
    const struct {
        int minDuration;
        unsigned int tooShort;
        unsigned int longEnough;
    } rows[] = {{INT_MAX, 2147483646U, 2147483647U},
                {1, 0U, 4294967295U},
                {INT_MIN, 2147483647U, 2147483648U},
                {-1, 4294967294U, 4294967295U}};
    for (const auto& row : rows) {
        CCuratorAgent agent(CURATOR_AGENT_MFU, 10, row.minDuration);
        agent.LearnHistory(Usage("too short", 0, row.tooShort));
        agent.LearnHistory(Usage("long enough", 0, row.longEnough));
        EXPECT_EQ(Ids(agent.RunCurate()), std::vector<std::string>{"long enough"}) << row.minDuration;
    }
}

TEST_F(CuratorAgentTest, KeepsTheLatestNonEmptyMetadata) {
    for (const ECuratorAgentType type : kKnownTypes) {
        CCuratorAgent agent(type, 10, 0);
        const auto expectMetadata = [&](const char* metaData, const char* metaDataSrc) {
            const Ranking ranking = agent.RunCurate();
            ASSERT_EQ(ranking.size(), 1U);
            EXPECT_EQ(ranking.front().m_strMetaData, metaData);
            EXPECT_EQ(ranking.front().m_strMetaDataSrc, metaDataSrc);
        };
        agent.LearnHistory(Usage("a", 0, 1));
        expectMetadata("", "");
        agent.LearnHistory(Usage("a", 0, 1, "meta 1", "source 1"));
        expectMetadata("meta 1", "source 1");
        agent.LearnHistory(Usage("a", 0, 1));
        expectMetadata("meta 1", "source 1");
        agent.LearnHistory(Usage("a", 0, 1, "meta 2", ""));
        expectMetadata("meta 2", "source 1");
        agent.LearnHistory(Usage("a", 0, 1, "", "source 2"));
        expectMetadata("meta 2", "source 2");
        if (type == CURATOR_AGENT_DATE) {
            const CuratorBaseData7x24 grid = agent.RunCurate7x24();
            EXPECT_EQ(grid.m_listData[6][23].front().m_strMetaData, "meta 2");
            EXPECT_EQ(grid.m_listData[6][23].front().m_strMetaDataSrc, "source 2");
        }
    }
}

TEST_F(CuratorAgentTest, KeepsMetadataPerUnit) {
    CCuratorAgent agent(CURATOR_AGENT_MFU, 10, 0);
    agent.LearnHistorys({Usage("a", 0, 2, "meta a", "source a"), Usage("b", 0, 1, "meta b", "source b")});
    const Ranking ranking = agent.RunCurate();
    EXPECT_EQ(ranking.front().m_strMetaData, "meta a");
    EXPECT_EQ(ranking.front().m_strMetaDataSrc, "source a");
    EXPECT_EQ(ranking.back().m_strMetaData, "meta b");
    EXPECT_EQ(ranking.back().m_strMetaDataSrc, "source b");
}

TEST_F(CuratorAgentTest, LeavesOtherFieldsOfResultsAtTheirDefaults) {
    CuratorBaseData usage = Usage("a", kMonday20h, 60, "meta", "source");
    usage.SetUnitName("name");
    usage.SetUnitDeviceName("device");
    usage.m_nAux = 5;
    usage.m_dScore = 77.0;
    std::fill(std::begin(usage.m_dAux), std::end(usage.m_dAux), 6.0);
    const auto expectDefaults = [](const CuratorBaseData& record) {
        EXPECT_EQ(record.m_nStartTime, 0);
        EXPECT_EQ(record.m_nAux, 0);
        EXPECT_EQ(record.m_nDuration, 0U);
        for (const double aux : record.m_dAux) {
            EXPECT_EQ(aux, 0.0);
        }
        EXPECT_EQ(record.GetUnitName(), "");
        EXPECT_EQ(record.GetUnitDeviceName(), "");
        EXPECT_NE(record.m_dScore, 77.0);
    };
    for (const ECuratorAgentType type : kKnownTypes) {
        CCuratorAgent agent(type, 10, 0);
        agent.LearnHistory(usage);
        expectDefaults(agent.RunCurate().front());
        if (type == CURATOR_AGENT_DATE) {
            expectDefaults(agent.RunCurate7x24().m_listData[1][20].front());
        }
    }
}

TEST_F(CuratorAgentTest, ComparesUnitIdsByteByByte) {
    const std::vector<std::string> ids = {"a",
                                          "A",
                                          "",
                                          "ab",
                                          std::string("a\0", 2),
                                          std::string("a\0b", 3),
                                          std::string("a\0c", 3),
                                          std::string("\0", 1),
                                          "\xC3\xA9",
                                          "e\xCC\x81",
                                          std::string(300, 'x'),
                                          std::string(300, 'x') + "y"};
    for (const ECuratorAgentType type : kKnownTypes) {
        CCuratorAgent agent(type, 100, 0);
        for (int round = 0; round < 2; ++round) {
            for (const std::string& id : ids) {
                agent.LearnHistory(Usage(id, kMonday20h, 60));
            }
        }
        EXPECT_EQ(Ids(agent.RunCurate()), ids);
    }
}

TEST_F(CuratorAgentTest, LearnsAVectorInOrderWithoutChangingIt) {
    const std::vector<CuratorBaseData> history = {Usage("b", 3, 1), Usage("a", 2, 1),
                                                  Usage("b", 1, 1, "meta", "source")};
    std::vector<CuratorBaseData> learnt = history;
    CCuratorAgent agent(CURATOR_AGENT_MRU, 10, 0);
    agent.LearnHistorys({});
    EXPECT_TRUE(agent.RunCurate().empty());
    agent.LearnHistorys(learnt);
    EXPECT_EQ(IdsAndScores(agent.RunCurate()), (std::vector<std::pair<std::string, double>>{{"a", 2.0}, {"b", 1.0}}));
    ASSERT_EQ(learnt.size(), history.size());
    for (std::size_t record = 0; record < history.size(); ++record) {
        EXPECT_EQ(learnt[record].GetUnitId(), history[record].GetUnitId());
        EXPECT_EQ(learnt[record].m_nStartTime, history[record].m_nStartTime);
        EXPECT_EQ(learnt[record].m_strMetaData, history[record].m_strMetaData);
    }
}

TEST_F(CuratorAgentTest, LearnsAVectorLikeItsSingleRecords) {
    std::vector<CuratorBaseData> history(400);
    std::mt19937 random(3);
    for (CuratorBaseData& record : history) {
        record = Usage(std::string(1, static_cast<char>('a' + random() % 20)),
                       kMonday20h + static_cast<int>(random() % 1000000), static_cast<unsigned int>(random() % 9000));
    }
    const TimeZone zone("Europe/Paris");
    for (const ECuratorAgentType type : kKnownTypes) {
        CCuratorAgent atOnce(type, 10, 100);
        CCuratorAgent oneByOne(type, 10, 100);
        atOnce.LearnHistorys(history);
        for (const CuratorBaseData& record : history) {
            oneByOne.LearnHistory(record);
        }
        EXPECT_EQ(IdsAndScores(atOnce.RunCurate()), IdsAndScores(oneByOne.RunCurate()));
        EXPECT_FALSE(atOnce.RunCurate().empty());
    }
}

TEST_F(CuratorAgentTest, KeepsScoresBetweenRankings) {
    CCuratorAgent agent(CURATOR_AGENT_MFU, 1, 0);
    agent.LearnHistory(Usage("a", 0, 5));
    agent.LearnHistory(Usage("b", 0, 4));
    EXPECT_EQ(Ids(agent.RunCurate()), std::vector<std::string>{"a"});
    EXPECT_EQ(Ids(agent.RunCurate()), std::vector<std::string>{"a"});
    agent.LearnHistory(Usage("b", 0, 4));
    EXPECT_EQ(IdsAndScores(agent.RunCurate()), (std::vector<std::pair<std::string, double>>{{"b", 8.0}}));
}

TEST_F(CuratorAgentTest, ReturnsRankingsThatOutliveTheAgent) {
    Ranking ranking;
    CuratorBaseData7x24 grid;
    {
        CCuratorAgent agent(CURATOR_AGENT_DATE, 10, 0);
        agent.LearnHistory(Usage("a unit with a rather long name", kMonday20h, 60, "meta", "source"));
        ranking = agent.RunCurate();
        grid = agent.RunCurate7x24();
    }
    EXPECT_EQ(Ids(ranking), std::vector<std::string>{"a unit with a rather long name"});
    EXPECT_EQ(Ids(grid.m_listData[0][0]), std::vector<std::string>{"a unit with a rather long name"});
}

// Types.

TEST_F(CuratorAgentTest, RefusesTheWeeklyGridForOtherTypes) {
    for (const ECuratorAgentType type : {CURATOR_AGENT_MRU, CURATOR_AGENT_MFU, kUnknownTypes[0]}) {
        CCuratorAgent agent(type, 10, 10);
        agent.LearnHistory(Usage("a", kMonday20h, 60));
        agent.LearnHistory(Usage("a", kMonday20h, 60));
        CapturedLog::Clear();
        EXPECT_TRUE(IsEmpty(agent.RunCurate7x24()));
        ExpectOneLogLine(/*priority=*/6, "CuratorAgent.cpp", "RunCurate7x24",
                         "7x24 Not support! - Agent type is not DATE");
    }
}

TEST_F(CuratorAgentTest, LogsAnUnknownTypeAndRanksNothing) {
    for (const ECuratorAgentType type : kUnknownTypes) {
        CCuratorAgent agent(type, 10, 10);
        CapturedLog::Clear();
        agent.LearnHistory(Usage("too short", 0, 9));
        EXPECT_TRUE(CapturedLog::Lines().empty());
        agent.LearnHistory(Usage("a", 0, 10, "meta", "source"));
        ExpectOneLogLine(/*priority=*/6, "CuratorAgent.cpp", "NewUnit_", "Error! curator agent type not found! [%d]",
                         "Error! curator agent type not found! [" + std::to_string(static_cast<int>(type)) + "]");
        agent.LearnHistorys({Usage("b", 0, 10), Usage("c", 0, 10)});
        EXPECT_EQ(CapturedLog::Lines().size(), 3U) << "not one line for each record";
        EXPECT_TRUE(agent.RunCurate().empty());
        agent.LearnHistory(Usage("a", 0, 10));
        EXPECT_TRUE(agent.RunCurate().empty());
    }
}

// The weekly grid, and time.

TEST_F(CuratorAgentTest, RanksEachHourOfTheWeekByItsScores) {
    CCuratorAgent agent(CURATOR_AGENT_DATE, 10, 0);
    agent.LearnHistory(Usage("monday", kMonday20h, 600));
    agent.LearnHistory(Usage("sunday", kMonday20h - kDay - 20 * kHour, 600));
    const CuratorBaseData7x24 grid = agent.RunCurate7x24();
    for (int day = 0; day < 7; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
            const auto score = [&](int ownDay, int ownHour) {
                return 60.0 + 600.0 * (hour == ownHour) + 3600.0 * (day == ownDay) +
                       6600.0 * (day == ownDay && hour == ownHour);
            };
            std::vector<std::pair<std::string, double>> expected = {{"monday", score(1, 20)}, {"sunday", score(0, 0)}};
            if (expected[1].second > expected[0].second) {
                std::swap(expected[0], expected[1]);
            }
            EXPECT_EQ(IdsAndScores(grid.m_listData[day][hour]), expected) << "day " << day << ", hour " << hour;
        }
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(CuratorAgentTest, LearnsAUsageBeyondTheEndOf32BitTime) {
    const TimeZone zone("UTC");  // the last second is Tuesday, 2038-01-19 03:14:07
    CCuratorAgent agent(CURATOR_AGENT_DATE, 1, 0);
    std::vector<CuratorBaseData> history = {Usage("a", kMonday20h, 60), Usage("a", INT_MAX - 7, 60)};
    agent.LearnHistorys(history);
    const CuratorBaseData7x24 grid = agent.RunCurate7x24();
    const double scoreOfEither = 12.0 + 60.0 + 360.0 + 660.0;
    EXPECT_EQ(grid.m_listData[1][20].front().m_dScore, scoreOfEither);
    EXPECT_EQ(grid.m_listData[2][3].front().m_dScore, scoreOfEither);
}

TEST_F(CuratorAgentTest, FollowsATimeZoneChangeBetweenRecords) {
    // The host changes TZ without calling tzset().
    CCuratorAgent agent(CURATOR_AGENT_DATE, 10, 0);
    agent.LearnHistory(Usage("a", kMonday20h, 60));
    const auto learnIn = [&](const char* zone, const std::string& unitId, bool asVector) {
        const TimeZone before("UTC");
        setenv("TZ", zone, /*overwrite=*/1);
        if (asVector) {
            agent.LearnHistorys({Usage(unitId, kMonday20h, 60)});
        } else {
            agent.LearnHistory(Usage(unitId, kMonday20h, 60));
        }
    };
    learnIn("Asia/Kolkata", "b", /*asVector=*/false);     // Tuesday 1:30
    learnIn("America/New_York", "c", /*asVector=*/true);  // Monday 15:00
    agent.LearnHistory(Usage("d", kMonday20h, 60));
    const CuratorBaseData7x24 grid = agent.RunCurate7x24();
    EXPECT_EQ(Ids(grid.m_listData[1][20]), (std::vector<std::string>{"a", "d", "c", "b"}));
    EXPECT_EQ(Ids(grid.m_listData[2][1]), (std::vector<std::string>{"b", "a", "c", "d"}));
    EXPECT_EQ(Ids(grid.m_listData[1][15]), (std::vector<std::string>{"c", "a", "d", "b"}));
}

// Against a simple reference.

/// A slow reference implementation: searches a list of units, sorts a list of all results and cuts it.
class ReferenceAgent {
public:
    ReferenceAgent(ECuratorAgentType type, int maxResult, int minDuration)
        : m_type(type), m_maxResult(maxResult), m_minDuration(minDuration) {}

    void Learn(const CuratorBaseData& record) {
        if (record.m_nDuration < static_cast<unsigned int>(m_minDuration)) {
            return;
        }
        auto unit = std::find_if(m_units.begin(), m_units.end(),
                                 [&](const Unit& known) { return known.id == record.GetUnitId(); });
        if (unit == m_units.end()) {
            unit = m_units.insert(m_units.end(), {record.GetUnitId(), "", "", MakeScoring()});
        }
        unit->metaData = record.m_strMetaData.empty() ? unit->metaData : record.m_strMetaData;
        unit->metaDataSrc = record.m_strMetaDataSrc.empty() ? unit->metaDataSrc : record.m_strMetaDataSrc;
        unit->scoring->LearnHistory(record, 1.0);
    }

    Ranking Rank() const {
        return Rank([](CCuratorBaseUnit& unit) { return unit.GetScore(); });
    }
    Ranking Rank(int day, int hour) const {
        return Rank([&](CCuratorBaseUnit& unit) { return unit.GetScore(day, hour); });
    }

private:
    struct Unit {
        std::string id;
        std::string metaData;
        std::string metaDataSrc;
        std::unique_ptr<CCuratorBaseUnit> scoring;
    };

    std::unique_ptr<CCuratorBaseUnit> MakeScoring() const {
        switch (m_type) {
            case CURATOR_AGENT_MRU:
                return std::make_unique<CCuratorMRUUnit>("");
            case CURATOR_AGENT_MFU:
                return std::make_unique<CCuratorMFUUnit>("");
            default:
                return std::make_unique<CCuratorDateUnit>("");
        }
    }

    template <class Score>
    Ranking Rank(Score score) const {
        Ranking ranking;
        for (const Unit& unit : m_units) {
            CuratorBaseData record;
            record.SetUnitId(unit.id);
            record.m_dScore = score(*unit.scoring);
            record.m_strMetaData = unit.metaData;
            record.m_strMetaDataSrc = unit.metaDataSrc;
            ranking.push_back(record);
        }
        ranking.sort([](const CuratorBaseData& a, const CuratorBaseData& b) { return a.m_dScore > b.m_dScore; });
        while (static_cast<int>(ranking.size()) > std::max(m_maxResult, 0)) {
            ranking.pop_back();
        }
        return ranking;
    }

    ECuratorAgentType m_type;
    int m_maxResult;
    int m_minDuration;
    std::list<Unit> m_units;
};

void ExpectEqual(const Ranking& ranking, const Ranking& expected) {
    EXPECT_EQ(IdsAndScores(ranking), IdsAndScores(expected));
    ASSERT_EQ(ranking.size(), expected.size());
    for (auto record = ranking.begin(), other = expected.begin(); record != ranking.end(); ++record, ++other) {
        EXPECT_EQ(record->m_strMetaData, other->m_strMetaData);
        EXPECT_EQ(record->m_strMetaDataSrc, other->m_strMetaDataSrc);
    }
}

class RandomAgentTest : public ::testing::TestWithParam<unsigned int> {};

TEST_P(RandomAgentTest, RanksLikeTheReference) {
    const TimeZone zone("Europe/Paris");
    std::mt19937 random(GetParam());
    const auto below = [&](unsigned int bound) { return static_cast<unsigned int>(random() % bound); };
    for (const ECuratorAgentType type : kKnownTypes) {
        const unsigned int unitCount = 1 + below(120);
        const int maxResult = static_cast<int>(below(unitCount + 10)) - 2;
        const int minDuration = static_cast<int>(below(3) * 300);
        CCuratorAgent agent(type, maxResult, minDuration);
        ReferenceAgent reference(type, maxResult, minDuration);
        for (unsigned int record = 0; record < 400; ++record) {
            // Few different durations and starts, so many scores are equal.
            CuratorBaseData usage = Usage("unit " + std::to_string(below(unitCount)),
                                          kMonday20h + static_cast<int>(below(40)) * kHour * 5, below(5) * 300);
            usage.m_strMetaData = below(3) == 0 ? std::to_string(record) : "";
            usage.m_strMetaDataSrc = below(3) == 0 ? std::to_string(record) : "";
            agent.LearnHistory(usage);
            reference.Learn(usage);
        }
        const TestClock::Frozen clock(kMonday20h + static_cast<int>(below(1000000)));
        ExpectEqual(agent.RunCurate(), reference.Rank());
        if (type == CURATOR_AGENT_DATE) {
            const CuratorBaseData7x24 grid = agent.RunCurate7x24();
            for (int day = 0; day < 7; ++day) {
                for (int hour = 0; hour < 24; ++hour) {
                    ExpectEqual(grid.m_listData[day][hour], reference.Rank(day, hour));
                }
            }
        }
        ASSERT_FALSE(HasFailure()) << "type " << type << ", at most " << maxResult << " of " << unitCount;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomAgentTest, ::testing::Range(1U, 9U));

TEST_F(CuratorAgentTest, FindsEachOf5000Units) {
    CCuratorAgent agent(CURATOR_AGENT_MFU, INT_MAX, 0);
    for (int round = 0; round < 3; ++round) {
        for (int unit = 0; unit < 5000; ++unit) {
            agent.LearnHistory(Usage("unit " + std::to_string(unit), 0, 1));
        }
    }
    const Ranking ranking = agent.RunCurate();
    ASSERT_EQ(ranking.size(), 5000U);
    int unit = 0;
    for (const CuratorBaseData& record : ranking) {
        ASSERT_EQ(record.GetUnitId(), "unit " + std::to_string(unit++));
        ASSERT_EQ(record.m_dScore, 3.0);
    }
}

}  // namespace
