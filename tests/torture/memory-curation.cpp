// SPDX-License-Identifier: Apache-2.0
#include <memory>
#include <optional>

#include "MemoryCases.h"
#include "Provider/CuratorAgent.h"

namespace {

constexpr int kStart = 1700000000;
const std::string kPrefix(30, 'u');  ///< makes an id too long for the string object itself

CuratorBaseData Usage(const std::string& id, unsigned int seconds = 600) {
    CuratorBaseData usage;
    usage.SetUnitId(kPrefix + id);
    usage.m_nStartTime = kStart;
    usage.m_nDuration = seconds;
    usage.m_strMetaData = kPrefix + "data";
    usage.m_strMetaDataSrc = kPrefix + "source";
    return usage;
}

std::vector<CuratorBaseData> ThreeUsages() {
    return {Usage("a", 100), Usage("b", 300), Usage("c", 200)};
}

/// Returns the last letters of the ids, in order.
std::string Ids(const std::list<CuratorBaseData>& ranking) {
    std::string ids;
    for (const CuratorBaseData& record : ranking) {
        ids += record.GetUnitId().back();
    }
    return ids;
}

std::list<CuratorBaseData> Ranking() {
    std::list<CuratorBaseData> ranking;
    for (const CuratorBaseData& usage : ThreeUsages()) {
        ranking.push_back(usage);
    }
    return ranking;
}

/// An agent that knows three units.
class Agent : public CCuratorAgent {
public:
    explicit Agent(ECuratorAgentType type = CURATOR_AGENT_MFU, bool isTaught = true) : CCuratorAgent(type, 10, 0) {
        if (isTaught) {
            LearnHistorys(ThreeUsages());
        }
    }
};

/// Demands that every unit is ranked once, and that the agent still learns.
void HoldsRanking(Try& tried, CCuratorAgent& agent) {
    const std::string before = Ids(agent.RunCurate());
    for (const char id : {'a', 'b', 'c'}) {
        tried.Holds(std::count(before.begin(), before.end(), id) <= 1, "ranks a unit twice");
    }
    agent.LearnHistorys(ThreeUsages());
    CuratorBaseData latest = Usage("b", 10000);
    latest.m_nStartTime += 100000;
    agent.LearnHistory(latest);
    const std::string ids = Ids(agent.RunCurate());
    tried.Holds(ids.size() == 3 && ids[0] == 'b', "does not learn any more");
}

void TryAgentLife(Try& tried) {
    tried.Call([] { const CCuratorAgent agent(CURATOR_AGENT_DATE, 10, 0); });
    tried.Returns();
}

void TryLearn(Try& tried, ECuratorAgentType type) {
    Agent agent(type, /*isTaught=*/false);
    const CuratorBaseData usage = Usage("a");
    tried.Call([&] { agent.LearnHistory(usage); });
    const std::list<CuratorBaseData> ranking = agent.RunCurate();
    tried.Holds(!tried.HasPassed() || (ranking.size() == 1 && ranking.front().m_strMetaData == kPrefix + "data" &&
                                       ranking.front().m_strMetaDataSrc == kPrefix + "source"),
                "has not learnt");
    HoldsRanking(tried, agent);
}

template <class Unit>
void TryUnitLife(Try& tried) {
    tried.Call([] {
        const std::unique_ptr<CCuratorBaseUnit> unit = std::make_unique<Unit>(kPrefix);
        (void)unit->GetScore();
    });
}

/// Calls a method of a unit that has learnt one usage. None allocates.
template <class Unit, class Function>
void TryUnit(Try& tried, Function function) {
    Unit unit(kPrefix);
    const CuratorBaseData usage = Usage("a");
    unit.LearnHistory(usage, 1.0);
    double result = -1.0;
    tried.Call([&] { result = function(unit); });
    tried.Returns();
    tried.Holds(result >= 0.0, "wrong result");
}

void TryUnitCopy(Try& tried) {
    CCuratorDateUnit unit(kPrefix);
    unit.LearnHistory(Usage("a"), 1.0);
    tried.Call([&] {
        CCuratorDateUnit copy(unit);
        tried.Holds(copy.GetScore(2, 23) == unit.GetScore(2, 23), "another copy");
    });
}

/// A failed assignment changes nothing.
void TryUnitAssign(Try& tried) {
    CCuratorMFUUnit unit(kPrefix);
    unit.LearnHistory(Usage("a", 100), 1.0);
    CCuratorMFUUnit other("other");
    other.LearnHistory(Usage("b", 200), 1.0);
    tried.Call([&] { other = unit; });
    tried.Holds(other.GetScore() == (tried.HasPassed() ? 100.0 : 200.0), "another value");
}

template <class Unit>
void TryUnitLearn(Try& tried) {
    const CuratorBaseData usage = Usage("a");
    TryUnit<Unit>(tried, [&](Unit& unit) {
        unit.LearnHistory(usage, 1.0);
        return 0.0;
    });
}

template <class Unit>
void TryUnitScore(Try& tried) {
    TryUnit<Unit>(tried, [](Unit& unit) { return unit.GetScore(); });
}

template <class Unit>
void TryUnitScoreOfHour(Try& tried) {
    TryUnit<Unit>(tried, [](Unit& unit) { return unit.GetScore(2, 23); });
}

/// Calls a function that reads or writes one text of a record; unless it throws, it returns true.
template <class Function>
void TryRecord(Try& tried, Function function) {
    CuratorBaseData record = Usage("a");
    bool isRight = false;
    tried.Call([&] { isRight = function(record); });
    tried.Holds(!tried.HasPassed() || isRight, "wrong result");
    record = Usage("b");
    tried.Holds(record.GetUnitId() == kPrefix + "b", "not usable any more");
}

/// Calls a writer; unless it throws, its text is that of a call with memory.
template <class Result>
void TryWriting(Try& tried, const Result& result) {
    const std::string expected = CurationResult2JsonData(result, CuratorData2ContextData);
    std::string text;
    tried.Call([&] { text = CurationResult2JsonData(result, CuratorData2ContextData); });
    tried.AllowJsonError();
    tried.Holds(!tried.HasPassed() || text == expected, "wrong text");
}

template <class Result>
void TryComparing(Try& tried, const Result& a, const Result& b) {
    bool isEqual = false;
    tried.Call([&] { isEqual = IsSequenceEqual(a, b); });
    tried.Returns();
    tried.Holds(isEqual, "wrong result");
}

CuratorBaseData7x24 Week() {
    CuratorBaseData7x24 week;
    week.m_listData[0][20] = Ranking();
    week.m_listData[6][0] = Ranking();
    return week;
}

constexpr Case kCases[] = {
    {"CCuratorAgent::CCuratorAgent(ECuratorAgentType const&, int const&, int const&)", TryAgentLife},
    {"CCuratorAgent::~CCuratorAgent()",
     [](Try& tried) {
         std::optional<Agent> agent(CURATOR_AGENT_DATE);
         tried.Call([&] { agent.reset(); });
         tried.Returns();
     }},
    {"CCuratorAgent::LearnHistory(CuratorBaseData const&)", [](Try& tried) { TryLearn(tried, CURATOR_AGENT_MRU); }},
    {"CCuratorAgent::LearnHistory(CuratorBaseData const&)", [](Try& tried) { TryLearn(tried, CURATOR_AGENT_MFU); }},
    {"CCuratorAgent::LearnHistory(CuratorBaseData const&)", [](Try& tried) { TryLearn(tried, CURATOR_AGENT_DATE); }},
    {"CCuratorAgent::LearnHistorys(std::vector<CuratorBaseData> const&)",
     [](Try& tried) {
         Agent agent(CURATOR_AGENT_DATE, /*isTaught=*/false);
         const std::vector<CuratorBaseData> usages = ThreeUsages();
         tried.Call([&] { agent.LearnHistorys(usages); });
         tried.Holds(!tried.HasPassed() || Ids(agent.RunCurate()) == "bca", "has not learnt");
         HoldsRanking(tried, agent);
     }},
    {"CCuratorAgent::RunCurate()",
     [](Try& tried) {
         Agent agent;
         std::list<CuratorBaseData> ranking;
         tried.Call([&] { ranking = agent.RunCurate(); });
         tried.Holds(!tried.HasPassed() || Ids(ranking) == "bca", "wrong ranking");
         HoldsRanking(tried, agent);
     }},
    {"CCuratorAgent::RunCurate7x24()",
     [](Try& tried) {
         Agent agent(CURATOR_AGENT_DATE);
         CuratorBaseData7x24 week;
         tried.Call([&] { week = agent.RunCurate7x24(); });
         tried.Holds(!tried.HasPassed() || Ids(week.m_listData[2][23]) == "bca", "wrong ranking");
         HoldsRanking(tried, agent);
     }},
    {"CCuratorBaseUnit::CCuratorBaseUnit(std::string const&)", TryUnitLife<CCuratorMFUUnit>},
    {"CCuratorBaseUnit::CCuratorBaseUnit(const CCuratorBaseUnit&)", TryUnitCopy},
    {"CCuratorBaseUnit::operator=(CCuratorBaseUnit const&)", TryUnitAssign},
    {"CCuratorBaseUnit::~CCuratorBaseUnit()", TryUnitLife<CCuratorDateUnit>},
    {"CCuratorMRUUnit::CCuratorMRUUnit(std::string const&)", TryUnitLife<CCuratorMRUUnit>},
    {"CCuratorMRUUnit::LearnHistory(CuratorBaseData const&, double)", TryUnitLearn<CCuratorMRUUnit>},
    {"CCuratorMRUUnit::GetScore()", TryUnitScore<CCuratorMRUUnit>},
    {"CCuratorMRUUnit::GetScore(int const&, int const&)", TryUnitScoreOfHour<CCuratorMRUUnit>},
    {"CCuratorMFUUnit::CCuratorMFUUnit(std::string const&)", TryUnitLife<CCuratorMFUUnit>},
    {"CCuratorMFUUnit::LearnHistory(CuratorBaseData const&, double)", TryUnitLearn<CCuratorMFUUnit>},
    {"CCuratorMFUUnit::GetScore()", TryUnitScore<CCuratorMFUUnit>},
    {"CCuratorMFUUnit::GetScore(int const&, int const&)", TryUnitScoreOfHour<CCuratorMFUUnit>},
    {"CCuratorDateUnit::CCuratorDateUnit(std::string const&)", TryUnitLife<CCuratorDateUnit>},
    {"CCuratorDateUnit::LearnHistory(CuratorBaseData const&, double)", TryUnitLearn<CCuratorDateUnit>},
    {"CCuratorDateUnit::GetScore()", TryUnitScore<CCuratorDateUnit>},
    {"CCuratorDateUnit::GetScore(int const&, int const&)", TryUnitScoreOfHour<CCuratorDateUnit>},
    {"CuratorBaseData::CuratorBaseData()",
     [](Try& tried) {
         tried.Call([] { const CuratorBaseData record; });
         tried.Returns();
     }},
    {"CuratorBaseData::~CuratorBaseData()",
     [](Try& tried) {
         std::optional<CuratorBaseData> record(Usage("a"));
         tried.Call([&] { record.reset(); });
         tried.Returns();
     }},
    {"CuratorBaseData::CuratorBaseData(const CuratorBaseData&)",
     [](Try& tried) {
         TryRecord(tried, [](CuratorBaseData& record) {
             const CuratorBaseData copy(record);
             return copy.m_strMetaData == record.m_strMetaData;
         });
     }},
    {"CuratorBaseData::CuratorBaseData(CuratorBaseData&&)",
     [](Try& tried) {
         TryRecord(tried, [](CuratorBaseData& record) {
             const CuratorBaseData moved(std::move(record));
             return moved.m_nDuration == 600;
         });
         tried.Returns();
     }},
    {"CuratorBaseData::operator=(const CuratorBaseData&)",
     [](Try& tried) {
         TryRecord(tried, [](CuratorBaseData& record) {
             CuratorBaseData copy;
             copy = record;
             return copy.m_strMetaData == record.m_strMetaData;
         });
     }},
    {"CuratorBaseData::operator=(CuratorBaseData&&)",
     [](Try& tried) {
         TryRecord(tried, [](CuratorBaseData& record) {
             CuratorBaseData moved;
             moved = std::move(record);
             return moved.m_nDuration == 600;
         });
         tried.Returns();
     }},
    {"CuratorBaseData::clear()",
     [](Try& tried) {
         TryRecord(tried, [](CuratorBaseData& record) {
             record.clear();
             return record.m_strMetaData.empty() && record.m_nDuration == 0;
         });
         tried.Returns();
     }},
    {"CuratorBaseData::SetUnitId(const std::string&)",
     [](Try& tried) {
         const std::string text(100, 'x');
         TryRecord(tried, [&](CuratorBaseData& record) {
             record.SetUnitId(text);
             return record.GetUnitId() == text;
         });
     }},
    {"CuratorBaseData::SetUnitName(const std::string&)",
     [](Try& tried) {
         const std::string text(100, 'x');
         TryRecord(tried, [&](CuratorBaseData& record) {
             record.SetUnitName(text);
             return record.GetUnitName() == text;
         });
     }},
    {"CuratorBaseData::SetUnitDeviceName(const std::string&)",
     [](Try& tried) {
         const std::string text(100, 'x');
         TryRecord(tried, [&](CuratorBaseData& record) {
             record.SetUnitDeviceName(text);
             return record.GetUnitDeviceName() == text;
         });
     }},
    {"CuratorBaseData::GetUnitId()",
     [](Try& tried) { TryRecord(tried, [](CuratorBaseData& record) { return record.GetUnitId().back() == 'a'; }); }},
    {"CuratorBaseData::GetUnitName()",
     [](Try& tried) { TryRecord(tried, [](CuratorBaseData& record) { return record.GetUnitName().empty(); }); }},
    {"CuratorBaseData::GetUnitDeviceName()",
     [](Try& tried) { TryRecord(tried, [](CuratorBaseData& record) { return record.GetUnitDeviceName().empty(); }); }},
    {"IsSequenceEqual(std::list<CuratorBaseData> const&, std::list<CuratorBaseData> const&)",
     [](Try& tried) { TryComparing(tried, Ranking(), Ranking()); }},
    {"IsSequenceEqual(CuratorBaseData7x24 const&, CuratorBaseData7x24 const&)",
     [](Try& tried) { TryComparing(tried, Week(), Week()); }},
    {"CuratorData2ContextData(CuratorBaseData const&, ContextData&)",
     [](Try& tried) {
         const CuratorBaseData record = Usage("a");
         ContextData out;
         tried.Call([&] { CuratorData2ContextData(record, out); });
         tried.AllowJsonError();
         tried.Holds(!tried.HasPassed() || out.GetValueStr("Id") == kPrefix + "a", "wrong text");
     }},
    {"CurationResult2JsonData(std::list<CuratorBaseData> const&, void (*)(CuratorBaseData const&, ContextData&))",
     [](Try& tried) { TryWriting(tried, Ranking()); }},
    {"CurationResult2JsonData(CuratorBaseData7x24 const&, void (*)(CuratorBaseData const&, ContextData&))",
     [](Try& tried) { TryWriting(tried, Week()); }},
};

}  // namespace

Cases CurationCases() {
    return {std::begin(kCases), std::end(kCases)};
}
