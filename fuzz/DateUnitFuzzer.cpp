// SPDX-License-Identifier: Apache-2.0
#include <Provider/CuratorAgent.h>

#include <ctime>

#include "Fuzz.h"
#include "TestClock.h"

namespace {

using Fuzz::Same;

// Changes by an hour, by half an hour, by two hours and by a day; changes of the standard time; rules without a file.
constexpr const char* kZones[] = {"UTC",
                                  "Europe/Berlin",
                                  "America/New_York",
                                  "America/Sao_Paulo",
                                  "Australia/Lord_Howe",
                                  "Asia/Kolkata",
                                  "Asia/Kathmandu",
                                  "Asia/Pyongyang",
                                  "Antarctica/Troll",
                                  "Pacific/Apia",
                                  "Europe/Moscow",
                                  "America/Caracas",
                                  "Africa/Casablanca",
                                  "America/St_Johns",
                                  "<-0330>3:30",
                                  "AAA-3BBB-4:20:13,M3.2.0/1:30:30,M11.1.0/0:15"};
constexpr int kDays = 7;
constexpr int kHours = 24;

/// The seconds that a unit must have learnt.
struct Model {
    double total = 0;
    double hour[kHours] = {};
    double day[kDays] = {};
    double dayHour[kDays][kHours] = {};

    void Credit(const tm& local, double seconds) {
        total += seconds;
        hour[local.tm_hour] += seconds;
        day[local.tm_wday] += seconds;
        dayHour[local.tm_wday][local.tm_hour] += seconds;
    }

    void Learn(const CuratorBaseData& record, double weight);

    double Score(int dayOfWeek, int hourOfDay) const {
        double score = total * 0.1 + 0.0;
        score += hour[hourOfDay] * 1.0;
        score += day[dayOfWeek] * 6.0;
        return score + dayHour[dayOfWeek][hourOfDay] * 11.0;
    }
};

void Model::Learn(const CuratorBaseData& record, double weight) {
    double remaining = std::min(record.m_nDuration, 12000U);
    const time_t start = record.m_nStartTime;
    tm first{};
    localtime_r(&start, &first);
    while (remaining > 0.0) {
        tm second = first;
        ++second.tm_hour;
        second.tm_min = 0;
        second.tm_sec = 0;
        const bool isRepresented = std::mktime(&second) != -1;
        const double piece = std::difftime(std::mktime(&second), std::mktime(&first));
        if (piece > remaining || piece <= 0.0 || !isRepresented) {  // no next hour: the rest counts for this one
            return Credit(first, weight * remaining);
        }
        Credit(first, piece * weight);
        first = second;
        remaining -= piece;
    }
}

/// A unit, opened to the test.
class Unit : public CCuratorDateUnit {
public:
    Unit() : CCuratorDateUnit("unit") {}

    void Compare(const Model& model) const {
        Same("the total", m_dScore, model.total);
        for (int day = 0; day < kDays; ++day) {
            Same("a day", m_dDay[day], model.day[day]);
            for (int hour = 0; hour < kHours; ++hour) {
                Same("an hour", m_dHour[hour], model.hour[hour]);
                Same("an hour of the week", m_dDayHour[day][hour], model.dayHour[day][hour]);
            }
        }
    }
};

/// An agent learns many records of an hour faster, with the same result.
void CheckAgent(const std::vector<CuratorBaseData>& records, const Model& model) {
    CCuratorAgent agent(CURATOR_AGENT_DATE, /*maxResult=*/1, /*minDuration=*/0);
    agent.LearnHistorys(records);
    const CuratorBaseData7x24 grid = agent.RunCurate7x24();
    for (int day = 0; day < kDays; ++day) {
        for (int hour = 0; hour < kHours; ++hour) {
            Same("the score in an agent", grid.m_listData[day][hour].front().m_dScore, model.Score(day, hour));
        }
    }
}

}  // namespace

void Fuzz::Test(Input& input) {
    constexpr unsigned int kDurations[] = {0, 1, 1800, 3599, 3600, 3601, 7200, 11999, 12000, 12001, 4294967295U};
    SetZone(input.OneOf(kZones));
    const double weight = input.Flag() ? input.Real() : 1.0;
    std::vector<CuratorBaseData> records;
    Unit unit;
    Model model;
    Model weighted;
    std::int32_t start = 0;
    for (int count = 0; count < 4 && (count == 0 || input.HasMore()); ++count) {
        const bool isNear = input.Flag() && count > 0;  // in the same hour or in one of the next days
        start = isNear ? static_cast<std::int32_t>(static_cast<std::uint32_t>(start) + input.Take<std::uint16_t>())
                       : input.Take<std::int32_t>();
        CuratorBaseData record;
        record.SetUnitId("unit");
        record.m_nStartTime = start;
        record.m_nDuration = input.Flag() ? input.OneOf(kDurations) : input.Take<std::uint16_t>();
        unit.LearnHistory(record, weight);
        weighted.Learn(record, weight);
        model.Learn(record, 1.0);
        records.push_back(record);
    }
    unit.Compare(weighted);
    const int day = static_cast<int>(input.Below(kDays));
    const int hour = static_cast<int>(input.Below(kHours));
    Same("GetScore", unit.GetScore(day, hour), weighted.Score(day, hour));
    const time_t now = start;
    tm local{};
    localtime_r(&now, &local);
    TestClock::Set(now);
    Same("GetScore of the moment", unit.GetScore(), weighted.Score(local.tm_wday, local.tm_hour));
    if (input.Below(4) == 0) {
        CheckAgent(records, model);
    }
}
