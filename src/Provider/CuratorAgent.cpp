// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorAgent.h"

#include <algorithm>
#include <ctime>
#include <limits>
#include <memory>

#include "Log.h"
#include "Provider/HighestFirst.h"

namespace {

constexpr double kNoScore = -std::numeric_limits<double>::infinity();  ///< ranks a null entry after every unit

}  // namespace

CCuratorAgent::CCuratorAgent(const ECuratorAgentType& type, const int& maxResult, const int& minDuration)
    : m_eType(type), m_nMaxResult(maxResult), m_nMinDuration(minDuration) {}

CCuratorAgent::~CCuratorAgent() {
    for (CCuratorBaseUnit* unit : m_vecUnits) {
        delete unit;
    }
}

void CCuratorAgent::LearnHistory(const CuratorBaseData& record) {
    if (m_eType == CURATOR_AGENT_DATE) {
        tzset();  // localtime_r may miss a change of the time zone
    }
    CCuratorDateUnit::LocalHour unknown;
    Learn_(record, unknown);
}

void CCuratorAgent::LearnHistorys(const std::vector<CuratorBaseData>& records) {
    if (m_eType == CURATOR_AGENT_DATE) {
        tzset();
    }
    CCuratorDateUnit::LocalHour lastHour;
    for (const CuratorBaseData& record : records) {
        Learn_(record, lastHour);
    }
}

std::list<CuratorBaseData> CCuratorAgent::RunCurate() {
    return Rank_(GetAllCandidates_());
}

CuratorBaseData7x24 CCuratorAgent::RunCurate7x24() {
    CuratorBaseData7x24 grid;
    if (m_eType != CURATOR_AGENT_DATE) {
        LMR_LOG_ERROR("7x24 Not support! - Agent type is not DATE");
        return grid;
    }
    std::vector<double> scores[24];
    for (int day = 0; day < 7; ++day) {
        GetAllCandidates_(day, scores);
        for (int hour = 0; hour < 24; ++hour) {
            grid.m_listData[day][hour] = Rank_(scores[hour]);
        }
    }
    return grid;
}

CCuratorBaseUnit* CCuratorAgent::FindUnit_(const std::string& unitId) {
    const auto entry = m_mapUnits.find(unitId);
    return entry == m_mapUnits.end() ? nullptr : entry->second;
}

CCuratorBaseUnit* CCuratorAgent::NewUnit_(const std::string& unitId) {
    switch (m_eType) {
        case CURATOR_AGENT_MRU:
            return new CCuratorMRUUnit(unitId);
        case CURATOR_AGENT_MFU:
            return new CCuratorMFUUnit(unitId);
        case CURATOR_AGENT_DATE:
            return new CCuratorDateUnit(unitId);
    }
    LMR_LOG_ERROR("Error! curator agent type not found! [%d]", static_cast<int>(m_eType));
    return nullptr;
}

CCuratorBaseUnit* CCuratorAgent::GetUnit_(const std::string& unitId) {
    CCuratorBaseUnit* known = FindUnit_(unitId);
    if (known != nullptr) {
        return known;
    }
    // What may fail comes first, so that a unit is in both containers or in neither.
    std::unique_ptr<CCuratorBaseUnit> unit(NewUnit_(unitId));
    if (m_vecUnits.size() == m_vecUnits.capacity()) {
        m_vecUnits.reserve(2 * m_vecUnits.size() + 1);
    }
    if (unit != nullptr) {
        m_mapUnits.emplace(unit->m_strUnitId, unit.get());
    }
    m_vecUnits.push_back(unit.get());
    return unit.release();
}

void CCuratorAgent::Learn_(const CuratorBaseData& record, CCuratorDateUnit::LocalHour& lastHour) {
    if (record.m_nDuration < static_cast<unsigned int>(m_nMinDuration)) {
        return;
    }
    CCuratorBaseUnit* unit = GetUnit_(record.GetUnitId());
    if (unit == nullptr) {
        return;
    }
    // Reserved before the first change: the record is learnt completely or, without memory, not at all.
    unit->m_strMetaDataSrc.reserve(record.m_strMetaDataSrc.size());
    if (!record.m_strMetaData.empty()) {
        unit->m_strMetaData = record.m_strMetaData;
    }
    if (!record.m_strMetaDataSrc.empty()) {
        unit->m_strMetaDataSrc = record.m_strMetaDataSrc;
    }
    if (m_eType == CURATOR_AGENT_DATE) {
        static_cast<CCuratorDateUnit*>(unit)->Learn_(record, /*weight=*/1.0, lastHour);
    } else {
        unit->LearnHistory(record, /*weight=*/1.0);
    }
}

// Returns one score for each entry of m_vecUnits.
std::vector<double> CCuratorAgent::GetAllCandidates_() {
    std::vector<double> scores;
    scores.reserve(m_vecUnits.size());
    for (CCuratorBaseUnit* unit : m_vecUnits) {
        scores.push_back(unit != nullptr ? unit->GetScore() : kNoScore);
    }
    return scores;
}

// Scores a whole day in one pass over the units. A unit is far larger than its 24 scores: a pass for each hour would
// mostly wait for memory.
void CCuratorAgent::GetAllCandidates_(const int& day, std::vector<double> (&scores)[24]) {
    for (std::vector<double>& hourScores : scores) {
        hourScores.resize(m_vecUnits.size());
    }
    double dayScores[24];
    for (std::size_t order = 0; order < m_vecUnits.size(); ++order) {
        static_cast<const CCuratorDateUnit*>(m_vecUnits[order])->GetScores_(day, dayScores);
        for (std::size_t hour = 0; hour < 24; ++hour) {
            scores[hour][order] = dayScores[hour];
        }
    }
}

std::list<CuratorBaseData> CCuratorAgent::Rank_(const std::vector<double>& scores) {
    std::list<CuratorBaseData> ranking;
    for (const Ranked::Score score :
         Ranked::HighestFirst(scores, static_cast<std::size_t>(std::max(m_nMaxResult, 0)))) {
        const auto order = static_cast<std::size_t>(score - scores.begin());
        if (m_vecUnits[order] == nullptr) {
            break;  // only null entries follow
        }
        const CCuratorBaseUnit& unit = *m_vecUnits[order];
        CuratorBaseData& record = ranking.emplace_back();
        record.SetUnitId(unit.m_strUnitId);
        record.m_dScore = *score;
        record.m_strMetaData = unit.m_strMetaData;
        record.m_strMetaDataSrc = unit.m_strMetaDataSrc;
    }
    return ranking;
}
