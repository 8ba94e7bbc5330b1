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

/// How a CCuratorAgent scores units.
enum ECuratorAgentType : int {
    CURATOR_AGENT_MRU = 0,   ///< most recently used: by the start time of the record learnt last
    CURATOR_AGENT_MFU = 1,   ///< most frequently used: by total seconds of use
    CURATOR_AGENT_DATE = 2,  ///< by time of the week
};

/// The curation engine: learns a usage history and ranks its units.
///
/// The agent keeps one scoring unit for each unit id. A ranking lists the units by score, highest first; units with
/// equal scores are listed in the order in which they were first learnt. No unit is removed until the agent is
/// destroyed.
///
/// A date agent works in the local time of the process. It calls `tzset` in LearnHistory() and LearnHistorys(), so a
/// change of `TZ` takes effect there; see CCuratorDateUnit.
///
/// **Units.** Durations are seconds. Scores are seconds: since the epoch (MRU), of use (MFU), or of weighted use
/// (date).
/// **Ownership.** The agent owns its units. It copies records in and out.
/// **Threads.** Not thread-safe.
/// **Errors.** Logged, as stated for each method. When memory runs out, every method throws `std::bad_alloc`, and the
/// agent stays usable. A method that ranks then changes nothing. One that learns skips the record that it was learning:
/// if the id is new, its unit may exist from then on, without use or metadata and with a score of 0.
class LUMORA_API CCuratorAgent {
public:
    /// Starts without units.
    /// @param type         how units are scored.
    /// @param maxResult    maximum number of records in a ranking; if it is 0 or negative, every ranking is empty.
    /// @param minDuration  seconds; shorter records are ignored. Compared as unsigned, so a negative value excludes
    ///                     nearly every record.
    CCuratorAgent(const ECuratorAgentType& type, const int& maxResult, const int& minDuration);
    virtual ~CCuratorAgent();

    CCuratorAgent(const CCuratorAgent&) = delete;
    CCuratorAgent& operator=(const CCuratorAgent&) = delete;

    /// Learns one usage record.
    ///
    /// Creates the unit if its id is new. Non-empty metadata replaces the metadata of the unit; empty metadata is
    /// ignored. An agent of an unknown type logs "Error! curator agent type not found! [%d]" and learns nothing.
    void LearnHistory(const CuratorBaseData& record);

    /// Learns records in vector order, each as LearnHistory() does. If it throws, it has learnt the records before the
    /// one that failed; to know which one it was, learn them one by one.
    void LearnHistorys(const std::vector<CuratorBaseData>& records);

    /// Ranks all units by their scores for the current time.
    /// @return at most `maxResult` records. The unit id, the score and the metadata are set; all other fields have
    ///         their defaults.
    std::list<CuratorBaseData> RunCurate();

    /// Ranks all units for each hour of the week.
    /// @return one ranking for each hour, with records as from RunCurate(). An agent of any other type than date logs
    ///         "7x24 Not support! - Agent type is not DATE" and returns an empty grid.
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
    std::vector<CCuratorBaseUnit*> m_vecUnits;  ///< owned; in order of first appearance; null for an unknown agent type
    std::unordered_map<std::string_view, CCuratorBaseUnit*>
        m_mapUnits;  ///< index of m_vecUnits; the units own the keys
};

/// @}

#endif  // LUMORA_COMMON_PROVIDER_CURATOR_AGENT_H
