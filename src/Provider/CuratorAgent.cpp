// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorAgent.h"

#include <algorithm>
#include <ctime>

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
    Learn_(record);
}

void CCuratorAgent::LearnHistorys(const std::vector<CuratorBaseData>& records) {
    if (m_eType == CURATOR_AGENT_DATE) {
        tzset();
    }
    for (const CuratorBaseData& record : records) {
        Learn_(record);
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
    for (int day = 0; day < 7; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
            grid.m_listData[day][hour] = Rank_(GetAllCandidates_(day, hour));
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

void CCuratorAgent::Learn_(const CuratorBaseData& record) {
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
    unit->LearnHistory(record, /*weight=*/1.0);
}

std::vector<CCuratorAgent::Candidate> CCuratorAgent::GetAllCandidates_() {
    std::vector<Candidate> candidates;
    candidates.reserve(m_vecUnits.size());
    for (std::size_t order = 0; order < m_vecUnits.size(); ++order) {
        if (m_vecUnits[order] != nullptr) {
            candidates.push_back({m_vecUnits[order]->GetScore(), order});
        }
    }
    return candidates;
}

std::vector<CCuratorAgent::Candidate> CCuratorAgent::GetAllCandidates_(const int& day, const int& hour) {
    std::vector<Candidate> candidates;
    candidates.reserve(m_vecUnits.size());
    for (std::size_t order = 0; order < m_vecUnits.size(); ++order) {
        if (m_vecUnits[order] != nullptr) {
            candidates.push_back({m_vecUnits[order]->GetScore(day, hour), order});
        }
    }
    return candidates;
}

std::list<CuratorBaseData> CCuratorAgent::Rank_(std::vector<Candidate> candidates) {
    // The order of first appearance decides between equal scores: what a stable sort of everything would give, while
    // only the head of the ranking is sorted.
    const auto ranksBefore = [](const Candidate& a, const Candidate& b) {
        return a.dScore > b.dScore || (a.dScore == b.dScore && a.nOrder < b.nOrder);
    };
    const auto kept = std::min(static_cast<std::ptrdiff_t>(candidates.size()),
                               static_cast<std::ptrdiff_t>(std::max(m_nMaxResult, 0)));
    const auto end = candidates.begin() + kept;
    std::partial_sort(candidates.begin(), end, candidates.end(), ranksBefore);

    std::list<CuratorBaseData> ranking;
    for (auto candidate = candidates.begin(); candidate != end; ++candidate) {
        const CCuratorBaseUnit& unit = *m_vecUnits[candidate->nOrder];
        CuratorBaseData& record = ranking.emplace_back();
        record.SetUnitId(unit.m_strUnitId);
        record.m_dScore = candidate->dScore;
        record.m_strMetaData = unit.m_strMetaData;
        record.m_strMetaDataSrc = unit.m_strMetaDataSrc;
    }
    return ranking;
}
