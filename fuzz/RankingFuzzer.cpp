// SPDX-License-Identifier: Apache-2.0
#include <Provider/CuratorAgent.h>

#include <ctime>
#include <list>

#include "Fuzz.h"
#include "TestClock.h"

namespace {

using Fuzz::Holds;
using Fuzz::Input;
using Fuzz::Same;

/// What an agent must know of a unit. CuratorUnit's own test is DateUnitFuzzer.
struct Unit {
    explicit Unit(const std::string& name) : id(name), date(name) {}

    std::string id;
    std::string metaData;
    std::string source;
    double recency = 0;
    double use = 0;
    CCuratorDateUnit date;
};

/// A ranking as a text, so that one comparison shows all.
std::string TextOf(const std::list<CuratorBaseData>& ranking) {
    std::string text;
    for (const CuratorBaseData& record : ranking) {
        Holds("other fields keep their defaults", record.GetUnitName().empty() && record.GetUnitDeviceName().empty() &&
                                                      record.m_nStartTime == 0 && record.m_nDuration == 0 &&
                                                      record.m_nAux == 0 && record.m_dAux[0] == 0.0);
        text += record.GetUnitId() + "=" + Fuzz::Show(record.m_dScore) + "," + record.m_strMetaData + "," +
                record.m_strMetaDataSrc + ";";
    }
    return text;
}

class Model {
public:
    Model(int type, int most, int shortest) : m_type(type), m_most(most), m_shortest(shortest) {}

    void Learn(const CuratorBaseData& record) {
        if (record.m_nDuration < static_cast<unsigned int>(m_shortest)) {
            return;
        }
        auto unit = std::find_if(m_units.begin(), m_units.end(),
                                 [&](const Unit& known) { return known.id == record.GetUnitId(); });
        unit = unit == m_units.end() ? m_units.emplace(unit, record.GetUnitId()) : unit;
        unit->metaData = record.m_strMetaData.empty() ? unit->metaData : record.m_strMetaData;
        unit->source = record.m_strMetaDataSrc.empty() ? unit->source : record.m_strMetaDataSrc;
        unit->recency = static_cast<unsigned int>(record.m_nStartTime);
        unit->use += record.m_nDuration;
        if (m_type == CURATOR_AGENT_DATE) {
            unit->date.LearnHistory(record, 1.0);
        }
    }

    std::string Ranking(int day, int hour) {
        std::list<CuratorBaseData> ranking;
        for (Unit& unit : m_units) {
            CuratorBaseData record;
            record.SetUnitId(unit.id);
            record.m_strMetaData = unit.metaData;
            record.m_strMetaDataSrc = unit.source;
            const double date = unit.date.GetScore(day, hour);
            record.m_dScore =
                m_type == CURATOR_AGENT_MRU ? unit.recency : (m_type == CURATOR_AGENT_MFU ? unit.use : date);
            ranking.push_back(record);
        }
        ranking.sort([](const CuratorBaseData& a, const CuratorBaseData& b) { return a.m_dScore > b.m_dScore; });
        while (static_cast<long long>(ranking.size()) > std::max(m_most, 0)) {
            ranking.pop_back();
        }
        return TextOf(ranking);
    }

private:
    int m_type;
    int m_most;
    int m_shortest;
    std::list<Unit> m_units;
};

CuratorBaseData MakeRecord(Input& input) {
    constexpr const char* kIds[] = {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", ""};
    constexpr const char* kTexts[] = {"", "one", "two", "", "three"};
    constexpr unsigned int kDurations[] = {0, 1, 60, 3600, 12000, 4294967295U};
    CuratorBaseData record;
    const std::size_t kind = input.Below(16);
    record.SetUnitId(kind == 15 ? input.Bytes() : input.OneOf(kIds));
    record.m_strMetaData = input.OneOf(kTexts);
    record.m_strMetaDataSrc = input.OneOf(kTexts);
    record.m_nStartTime = kind % 2 == 0 ? 1700000000 + input.Take<std::int16_t>() : input.Take<std::int32_t>();
    record.m_nDuration = kind % 4 < 2 ? input.OneOf(kDurations) : input.Take<std::uint16_t>();
    record.SetUnitName("not read");
    record.m_nAux = 7;
    return record;
}

void CheckGrid(CCuratorAgent& agent, Model& model, bool isDate) {
    Fuzz::LogLines().clear();
    const CuratorBaseData7x24 grid = agent.RunCurate7x24();
    for (int day = 0; day < 7; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
            Same("a ranking of the grid", TextOf(grid.m_listData[day][hour]), isDate ? model.Ranking(day, hour) : "");
        }
    }
    Same(
        "the log of the grid", Fuzz::LogLines(),
        isDate ? std::vector<std::string>() : std::vector<std::string>{"6 7x24 Not support! - Agent type is not DATE"});
}

}  // namespace

void Fuzz::Test(Input& input) {
    constexpr int kLimits[] = {10, 3, 1, 0, -1, 2147483647, -2147483647 - 1};
    constexpr int kShortest[] = {0, 1, 60, -1, 2147483647};
    const int type = static_cast<int>(input.Below(4));  // 3 is unknown
    const int most = input.OneOf(kLimits);
    const int shortest = input.OneOf(kShortest);
    const time_t now = input.Take<std::int32_t>();
    const bool hasGrid = input.Below(8) == 0;
    SetZone(input.Flag() ? "UTC" : "America/New_York");
    TestClock::Set(now);
    CCuratorAgent agent(static_cast<ECuratorAgentType>(type), most, shortest);
    Model model(type, most, shortest);
    std::vector<CuratorBaseData> records;
    while (input.HasMore() && records.size() < 32) {
        records.push_back(MakeRecord(input));
    }
    const std::size_t alone = std::min<std::size_t>(records.size(), 3);
    for (std::size_t index = 0; index < alone; ++index) {
        agent.LearnHistory(records[index]);
    }
    agent.LearnHistorys({records.begin() + static_cast<std::ptrdiff_t>(alone), records.end()});
    if (type == 3) {
        for (const std::string& line : LogLines()) {
            Same("the log of an unknown type", line, "6 Error! curator agent type not found! [3]");
        }
        Holds("an unknown type ranks nothing", agent.RunCurate().empty());
        return;
    }
    for (const CuratorBaseData& record : records) {
        model.Learn(record);
    }
    Holds("learning logs nothing", LogLines().empty());
    tm local{};
    localtime_r(&now, &local);
    Same("RunCurate", TextOf(agent.RunCurate()), model.Ranking(local.tm_wday, local.tm_hour));
    if (hasGrid) {
        CheckGrid(agent, model, type == CURATOR_AGENT_DATE);
    }
}
