// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_CURATOR_AGENT_H
#define LUMORA_COMMON_PROVIDER_CURATOR_AGENT_H

#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "LumoraApi.h"
#include "Provider/CuratorBaseData.h"
#include "Provider/CuratorUnit.h"

/// @addtogroup curation
/// @{

/// What a CCuratorAgent ranks by.
enum ECuratorAgentType : int {
    CURATOR_AGENT_MRU = 0,   ///< most recently used: by the start of the record learnt last
    CURATOR_AGENT_MFU = 1,   ///< most frequently used: by total seconds of use
    CURATOR_AGENT_DATE = 2,  ///< by the pattern of the week
};

/// The curation engine: learns a usage history and ranks the units in it.
///
/// It keeps one scoring unit for each unit id, in the order in which the ids first appeared. A ranking lists the units
/// by score, highest first; equal scores keep that order.
///
/// **Units.** Durations are seconds; scores are seconds (since the epoch for the MRU type; of use, weighted for the
/// date type).
/// **Ownership.** The agent owns its units; records are copied in and out. It forgets nothing until it is destroyed.
/// **Threads.** One at a time; no locking.
/// **Errors.** Logged, as stated below. A date agent reads the time zone of the process whenever it learns.
class LUMORA_API CCuratorAgent {
public:
    /// Starts without units.
    /// @param type         what to rank by.
    /// @param maxResult    largest number of records in one ranking; a negative one cuts every ranking to nothing.
    /// @param minDuration  seconds; shorter records are not learnt and make no unit. Compared as unsigned: with a
    ///                     negative one next to nothing is learnt.
    CCuratorAgent(const ECuratorAgentType& type, const int& maxResult, const int& minDuration);
    virtual ~CCuratorAgent();

    CCuratorAgent(const CCuratorAgent&) = delete;
    CCuratorAgent& operator=(const CCuratorAgent&) = delete;

    /// Learns one usage record.
    ///
    /// Metadata that is not empty replaces what is known of the unit; empty metadata erases nothing. An agent of an
    /// unknown type logs "Error! curator agent type not found! [%d]" and learns nothing.
    void LearnHistory(const CuratorBaseData& record);

    /// Learns records in the order of the vector.
    void LearnHistorys(const std::vector<CuratorBaseData>& records);

    /// Ranks all units as of now.
    /// @return the ranking, at most `maxResult` records. Each carries the unit id, the score and the metadata;
    ///         all other fields are at their defaults.
    std::list<CuratorBaseData> RunCurate();

    /// Ranks all units for the whole week.
    /// @return one ranking, as above, for each hour of the week. An agent that is not of the date type returns an empty
    ///         grid and logs "7x24 Not support! - Agent type is not DATE".
    CuratorBaseData7x24 RunCurate7x24();

private:
    CCuratorBaseUnit* FindUnit_(const std::string& unitId);
    CCuratorBaseUnit* NewUnit_(const std::string& unitId);
    CCuratorBaseUnit* GetUnit_(const std::string& unitId);
    void Learn_(const CuratorBaseData& record, CCuratorDateUnit::LocalHour& lastHour);
    std::vector<double> GetAllCandidates_();
    void GetAllCandidates_(const int& day, std::vector<double> (&scores)[24]);
    std::list<CuratorBaseData> Rank_(const std::vector<double>& scores);

    ECuratorAgentType m_eType;
    int m_nMaxResult;
    int m_nMinDuration;
    std::vector<CCuratorBaseUnit*> m_vecUnits;  ///< owned; in order of first appearance; may hold null
    std::unordered_map<std::string_view, CCuratorBaseUnit*> m_mapUnits;  ///< finds in m_vecUnits; keys lie in the units
};

/// @}

#endif  // LUMORA_COMMON_PROVIDER_CURATOR_AGENT_H
