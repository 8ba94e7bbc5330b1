// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_CURATOR_UNIT_H
#define LUMORA_COMMON_PROVIDER_CURATOR_UNIT_H

#include <ctime>
#include <string>

#include "LumoraApi.h"
#include "Provider/CuratorBaseData.h"

/// @addtogroup curation
/// @{

/// Everything learnt about one unit, and its score. CCuratorAgent makes and owns the units; a host needs them only to
/// score a single unit by itself.
///
/// A unit accumulates for its whole life: nothing decays and nothing is forgotten.
///
/// **Units.** Seconds, in double precision.
/// **Threads.** One at a time; no locking.
/// **Errors.** None; nothing is logged.
class LUMORA_API CCuratorBaseUnit {
public:
    /// Knows nothing of the unit but its id.
    /// @param unitId  the unit that this object stands for.
    explicit CCuratorBaseUnit(const std::string& unitId);
    virtual ~CCuratorBaseUnit();

    CCuratorBaseUnit(const CCuratorBaseUnit&) = delete;
    CCuratorBaseUnit& operator=(const CCuratorBaseUnit&) = delete;

    /// Adds one usage record.
    /// @param record  its unit id is not looked at.
    /// @param weight  scales what is credited, where the unit weighs at all; the agent passes 1.0.
    virtual void LearnHistory(const CuratorBaseData& record, double weight) = 0;

    /// Scores the unit as of now.
    /// @return the higher, the further in front.
    virtual double GetScore() = 0;

    /// Scores the unit for an hour of the week.
    /// @param dayOfWeek  0 (Sunday) to 6; not checked.
    /// @param hour       0 to 23; not checked.
    /// @return the score for that hour of the week.
    virtual double GetScore(const int& dayOfWeek, const int& hour) = 0;

protected:
    friend class CCuratorAgent;

    std::string m_strUnitId;       ///< the unit that this object stands for
    std::string m_strMetaDataSrc;  ///< latest that was not empty; written by the agent
    std::string m_strMetaData;     ///< latest that was not empty; written by the agent
    double m_dScore;               ///< what has been accumulated; 0.0 at first
};

/// Scores by recency: the start time of the record that was learnt *last*, even when it is an older one.
class LUMORA_API CCuratorMRUUnit : public CCuratorBaseUnit {
public:
    /// Scores 0 until it learns.
    explicit CCuratorMRUUnit(const std::string& unitId);

    /// Remembers the start of the usage, whatever was there before.
    /// @param record  its start time, read as an unsigned number, becomes the score.
    /// @param weight  ignored.
    void LearnHistory(const CuratorBaseData& record, double weight) override;
    double GetScore() override;
    double GetScore(const int& dayOfWeek, const int& hour) override;  ///< the same at any hour
};

/// Scores by total use: the sum of all durations, not the number of uses.
class LUMORA_API CCuratorMFUUnit : public CCuratorBaseUnit {
public:
    /// Scores 0 until it learns.
    explicit CCuratorMFUUnit(const std::string& unitId);

    /// Adds the usage up.
    /// @param record  its duration is added to the score.
    /// @param weight  ignored.
    void LearnHistory(const CuratorBaseData& record, double weight) override;
    double GetScore() override;
    double GetScore(const int& dayOfWeek, const int& hour) override;  ///< the same at any hour
};

/// Scores by the pattern of the week, in the local time of the process.
///
/// A usage is split at the full hours of local time, and each piece is credited to its hour of the day, its day of the
/// week, and its hour of the week. The score of an hour adds 0.1 of the total, what was used at that hour of any day,
/// 6 times what was used on that day of the week, and 11 times what was used at that hour of the week.
///
/// The hours are the calendar's own: a day on which the clock changes has 23 or 25 of them. Where the calendar cannot
/// tell the next full hour (the end of a 32-bit `time_t`, or a zone whose standard offset changes there while its
/// daylight flag does not), what remains of the usage is credited to the current hour.
class LUMORA_API CCuratorDateUnit : public CCuratorBaseUnit {
public:
    /// The longest part of one usage that counts, in seconds.
    static constexpr unsigned int kMaxLearntSeconds = 12000;

    /// Scores 0 at every hour until it learns.
    explicit CCuratorDateUnit(const std::string& unitId);

    /// Credits the usage to the hours that it covers.
    /// @param record  at most the first #kMaxLearntSeconds of its duration count.
    /// @param weight  scales every credit.
    void LearnHistory(const CuratorBaseData& record, double weight) override;

    /// Scores the unit for the present local hour.
    double GetScore() override;
    double GetScore(const int& dayOfWeek, const int& hour) override;

protected:
    double m_dHour[24];        ///< seconds by hour of day
    double m_dDay[7];          ///< seconds by day of week, 0 = Sunday
    double m_dDayHour[7][24];  ///< seconds by hour of week
    double m_dWeight[4];       ///< of total, hour, day, and hour of week

private:
    friend class CCuratorAgent;

    /// A stretch of time inside one hour of local time, without a change of the clock in it.
    struct LocalHour {
        time_t begin = 0;
        time_t end = 0;  ///< exclusive: the next full hour
        tm local{};      ///< tells the hour and the day
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
