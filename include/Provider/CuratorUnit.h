// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_CURATOR_UNIT_H
#define LUMORA_COMMON_PROVIDER_CURATOR_UNIT_H

#include <ctime>
#include <string>

#include "LumoraApi.h"
#include "Provider/CuratorBaseData.h"

/// @addtogroup curation
/// @{

/// Accumulates the usage of one unit and scores it. CCuratorAgent creates and owns its units; you need this class only
/// to score a single unit without an agent.
///
/// Accumulated usage never decays and is never reset. A unit is a value: a copy has the same id, metadata and usage,
/// and then accumulates on its own.
///
/// **Units.** Scores are seconds, as doubles.
/// **Threads.** Not thread-safe.
/// **Errors.** Nothing is logged. When memory runs out, construction, copies and assignments throw `std::bad_alloc`; an
/// assignment then changes nothing. Learning and scoring throw nothing.
class LUMORA_API CCuratorBaseUnit {
public:
    /// Starts with a score of 0.
    /// @param unitId  id of the unit; copied.
    explicit CCuratorBaseUnit(const std::string& unitId);
    virtual ~CCuratorBaseUnit();

    CCuratorBaseUnit(const CCuratorBaseUnit&) = default;         ///< Copies every field.
    CCuratorBaseUnit& operator=(const CCuratorBaseUnit& other);  ///< Copies every field.

    /// Learns one usage record.
    /// @param record  the usage; its unit id is ignored.
    /// @param weight  factor for the credited seconds; only CCuratorDateUnit uses it. The agent passes 1.0.
    virtual void LearnHistory(const CuratorBaseData& record, double weight) = 0;

    /// Scores the unit for the current time.
    /// @return the score; units with higher scores rank first.
    virtual double GetScore() = 0;

    /// Scores the unit for an hour of the week.
    /// @param dayOfWeek  0 (Sunday) to 6; not checked.
    /// @param hour       0 to 23; not checked.
    /// @return the score; units with higher scores rank first.
    virtual double GetScore(const int& dayOfWeek, const int& hour) = 0;

protected:
    friend class CCuratorAgent;

    std::string m_strUnitId;       ///< id of the unit
    std::string m_strMetaDataSrc;  ///< latest non-empty source of the metadata; set by the agent
    std::string m_strMetaData;     ///< latest non-empty metadata; set by the agent
    double m_dScore;               ///< accumulated score, 0.0 at first; of a date unit, the total seconds
};

/// Scores by recency: the start time of the record learnt *last*, even if an earlier record started later.
class LUMORA_API CCuratorMRUUnit : public CCuratorBaseUnit {
public:
    /// Scores 0 until it learns.
    explicit CCuratorMRUUnit(const std::string& unitId);

    /// Replaces the score.
    /// @param record  its start time, read as unsigned, becomes the score.
    /// @param weight  ignored.
    void LearnHistory(const CuratorBaseData& record, double weight) override;
    double GetScore() override;
    double GetScore(const int& dayOfWeek, const int& hour) override;  ///< the same at any hour
};

/// Scores by total use: the sum of all durations, not the number of records.
class LUMORA_API CCuratorMFUUnit : public CCuratorBaseUnit {
public:
    /// Scores 0 until it learns.
    explicit CCuratorMFUUnit(const std::string& unitId);

    /// Adds to the score.
    /// @param record  its duration is added to the score.
    /// @param weight  ignored.
    void LearnHistory(const CuratorBaseData& record, double weight) override;
    double GetScore() override;
    double GetScore(const int& dayOfWeek, const int& hour) override;  ///< the same at any hour
};

/// Scores by time of the week, in the local time of the process.
///
/// A usage is split at the full hours of local time. Each piece is credited to the total, to its hour of the day, to
/// its day of the week and to its hour of the week. The score for an hour of the week is the sum of
/// - 0.1 times the total seconds,
/// - the seconds at that hour of the day, on any day,
/// - 6 times the seconds on that day of the week, and
/// - 11 times the seconds at that hour of the week.
///
/// Hours follow the calendar calls of the C library: a day on which the clock goes forward or back by an hour for
/// daylight-saving time has 23 or 25 hours. At the end of a 32-bit `time_t`, and where a zone moves its standard time
/// forward over a full hour without a change of the daylight-saving flag, these calls cannot give the next full hour:
/// the rest of the usage is credited to the current hour. The total is always right, but in a usage that covers one of
/// these changes some seconds are credited to a neighbouring hour: where a zone moves its standard time back without a
/// change of that flag, what follows is credited as much too late as the clock was moved; and a change for
/// daylight-saving time at a minute that is no full hour (Pacific/Chatham, 2:45) counts from a full hour.
///
/// LearnHistory() calls `tzset`, so a change of `TZ` takes effect there. If the C library has no memory to read the new
/// zone, it uses UTC instead, at the longest until `TZ` changes again.
class LUMORA_API CCuratorDateUnit : public CCuratorBaseUnit {
public:
    /// Cap on the duration of one usage, in seconds.
    static constexpr unsigned int kMaxLearntSeconds = 12000;

    /// Scores 0 at any hour until it learns.
    explicit CCuratorDateUnit(const std::string& unitId);

    /// Credits the usage to the hours that it covers.
    /// @param record  the usage; only the first #kMaxLearntSeconds of its duration count.
    /// @param weight  factor for the credited seconds.
    void LearnHistory(const CuratorBaseData& record, double weight) override;

    /// Calls the other GetScore() with the current local day and hour.
    double GetScore() override;
    double GetScore(const int& dayOfWeek, const int& hour) override;

protected:
    double m_dHour[24];        ///< seconds by hour of the day
    double m_dDay[7];          ///< seconds by day of the week, 0 = Sunday
    double m_dDayHour[7][24];  ///< seconds by hour of the week
    double m_dWeight[4];       ///< weights of the total, hour, day, and hour of the week

private:
    friend class CCuratorAgent;

    /// Part of one hour of local time in which the clock does not change.
    struct LocalHour {
        time_t begin = 0;
        time_t end = 0;  ///< exclusive: the next full hour
        tm local{};      ///< broken-down time of a moment in it
    };

    void Learn_(const CuratorBaseData& record, double weight, LocalHour& lastHour);
    void LearnAcrossHours_(tm current, double remaining, double weight);
    void Credit_(const tm& hour, double seconds);
    double ScoreOf_(int dayOfWeek, int hour) const;
    void GetScores_(int dayOfWeek, double (&scores)[24]) const;

    static bool FindHour_(time_t start, const tm& local, LocalHour& hour);
};

/// @}

#endif  // LUMORA_COMMON_PROVIDER_CURATOR_UNIT_H
