// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorAgent.h"

#include <algorithm>
#include <ctime>
#include <limits>

#include "Log.h"

CCuratorAgent::CCuratorAgent(const ECuratorAgentType& type, const int& maxResult, const int& minDuration)
    : m_eType(type), m_nMaxResult(maxResult), m_nMinDuration(minDuration) {}

CCuratorAgent::~CCuratorAgent() {
    for (CCuratorBaseUnit* unit : m_vecUnits) {
        delete unit;
    }
}

void CCuratorAgent::LearnHistory(const CuratorBaseData& record) {
    if (m_eType == CURATOR_AGENT_DATE) {
        tzset();  // localtime_r need not notice that the time zone has changed
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
    CCuratorBaseUnit* unit = FindUnit_(unitId);
    if (unit == nullptr) {
        unit = NewUnit_(unitId);
        m_vecUnits.push_back(unit);
        if (unit != nullptr) {
            m_mapUnits.emplace(unit->m_strUnitId, unit);
        }
    }
    return unit;
}

void CCuratorAgent::Learn_(const CuratorBaseData& record, CCuratorDateUnit::LocalHour& lastHour) {
    if (record.m_nDuration < static_cast<unsigned int>(m_nMinDuration)) {
        return;
    }
    CCuratorBaseUnit* unit = GetUnit_(record.GetUnitId());
    if (unit == nullptr) {
        return;
    }
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

// One score for each entry of m_vecUnits, null entries included.
std::vector<double> CCuratorAgent::GetAllCandidates_() {
    std::vector<double> scores;
    scores.reserve(m_vecUnits.size());
    for (CCuratorBaseUnit* unit : m_vecUnits) {
        scores.push_back(unit != nullptr ? unit->GetScore() : 0.0);
    }
    return scores;
}

// A whole day at once: a unit is far larger than its scores of a day, so that going through all units for every hour
// would wait for memory most of the time.
void CCuratorAgent::GetAllCandidates_(const int& day, std::vector<double> (&scores)[24]) {
    for (std::vector<double>& ofHour : scores) {
        ofHour.resize(m_vecUnits.size());
    }
    double ofDay[24];
    for (std::size_t order = 0; order < m_vecUnits.size(); ++order) {
        static_cast<const CCuratorDateUnit*>(m_vecUnits[order])->GetScores_(day, ofDay);
        for (std::size_t hour = 0; hour < 24; ++hour) {
            scores[hour][order] = ofDay[hour];
        }
    }
}

std::list<CuratorBaseData> CCuratorAgent::Rank_(const std::vector<double>& scores) {
    struct Candidate {
        double dScore;
        std::size_t nOrder;  // position in m_vecUnits
    };
    // The order of first appearance decides between equal scores: what a stable sort of everything would give. Of the
    // best so far, `best` is a heap with the one that would have to go in front.
    const auto ranksBefore = [](const Candidate& a, const Candidate& b) {
        return a.dScore > b.dScore || (a.dScore == b.dScore && a.nOrder < b.nOrder);
    };
    const std::size_t kept = std::min(scores.size(), static_cast<std::size_t>(std::max(m_nMaxResult, 0)));
    std::vector<Candidate> best;
    best.reserve(kept);
    std::size_t order = 0;
    for (; order < scores.size() && best.size() < kept; ++order) {
        if (m_vecUnits[order] != nullptr) {
            best.push_back({scores[order], order});
        }
    }
    std::make_heap(best.begin(), best.end(), ranksBefore);
    double lowest = best.empty() ? std::numeric_limits<double>::infinity() : best.front().dScore;
    for (; order < scores.size(); ++order) {
        if (scores[order] > lowest && m_vecUnits[order] != nullptr) {
            std::pop_heap(best.begin(), best.end(), ranksBefore);
            best.back() = {scores[order], order};
            std::push_heap(best.begin(), best.end(), ranksBefore);
            lowest = best.front().dScore;
        }
    }
    std::sort_heap(best.begin(), best.end(), ranksBefore);

    std::list<CuratorBaseData> ranking;
    for (const Candidate& candidate : best) {
        const CCuratorBaseUnit& unit = *m_vecUnits[candidate.nOrder];
        CuratorBaseData& record = ranking.emplace_back();
        record.SetUnitId(unit.m_strUnitId);
        record.m_dScore = candidate.dScore;
        record.m_strMetaData = unit.m_strMetaData;
        record.m_strMetaDataSrc = unit.m_strMetaDataSrc;
    }
    return ranking;
}
