// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorUnit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "Surroundings.h"
#include "TestClock.h"

namespace {

using Surroundings::TimeZone;

constexpr unsigned int kCap = CCuratorDateUnit::kMaxLearntSeconds;
constexpr int kMonday20h = 1609790400;  // 2021-01-04 20:00 UTC

enum Day { kSunday, kMonday, kTuesday, kWednesday, kThursday, kFriday, kSaturday };

CuratorBaseData Usage(int startTime, unsigned int duration) {
    CuratorBaseData record;
    record.SetUnitId("unit");
    record.m_nStartTime = startTime;
    record.m_nDuration = duration;
    return record;
}

/// The accumulated seconds of a date unit.
struct Sums {
    double total = 0.0;
    double hour[24] = {};
    double day[7] = {};
    double dayHour[7][24] = {};

    void Add(const tm& piece, double credit) {
        total += credit;
        hour[piece.tm_hour] += credit;
        day[piece.tm_wday] += credit;
        dayHour[piece.tm_wday][piece.tm_hour] += credit;
    }

    bool operator==(const Sums& other) const {
        return total == other.total && std::equal(std::begin(hour), std::end(hour), std::begin(other.hour)) &&
               std::equal(std::begin(day), std::end(day), std::begin(other.day)) &&
               std::equal(std::begin(dayHour), std::end(dayHour), std::begin(other.dayHour),
                          [](const auto& a, const auto& b) { return std::equal(std::begin(a), std::end(a), b); });
    }
};

std::ostream& operator<<(std::ostream& out, const Sums& sums) {
    out << "total " << sums.total;
    for (int day = 0; day < 7; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
            if (sums.dayHour[day][hour] != 0.0) {
                out << ", (" << day << ", " << hour << ") " << sums.dayHour[day][hour];
            }
        }
    }
    return out;
}

/// Makes the protected members of a unit public.
template <class Unit>
class Open : public Unit {
public:
    using Unit::m_dScore;
    using Unit::m_strMetaData;
    using Unit::m_strMetaDataSrc;
    using Unit::m_strUnitId;
    using Unit::Unit;
};

class OpenDateUnit : public Open<CCuratorDateUnit> {
public:
    OpenDateUnit() : Open<CCuratorDateUnit>("unit") {}

    using CCuratorDateUnit::m_dDay;
    using CCuratorDateUnit::m_dDayHour;
    using CCuratorDateUnit::m_dHour;
    using CCuratorDateUnit::m_dWeight;

    Sums Read() const {
        Sums sums;
        sums.total = m_dScore;
        std::memcpy(sums.hour, m_dHour, sizeof(sums.hour));
        std::memcpy(sums.day, m_dDay, sizeof(sums.day));
        std::memcpy(sums.dayHour, m_dDayHour, sizeof(sums.dayHour));
        return sums;
    }
};

/// Splits a usage with calendar calls for every step. A step that does not advance the time ends the loop; the rest is
/// then credited to the current hour.
/// @return false if such a step ended the loop.
bool SplitByCalendar(const CuratorBaseData& record, double weight, Sums& sums) {
    double remaining = std::min(record.m_nDuration, kCap);
    const time_t start = record.m_nStartTime;
    tm tm1{};
    localtime_r(&start, &tm1);
    if (!(remaining > 0.0)) {
        return true;
    }
    do {
        tm tm2 = tm1;
        tm2.tm_hour += 1;
        tm2.tm_min = 0;
        tm2.tm_sec = 0;
        mktime(&tm2);
        const time_t t1 = mktime(&tm1);
        const time_t t2 = mktime(&tm2);
        const double piece = difftime(t2, t1);
        if (piece <= 0.0) {
            sums.Add(tm1, weight * remaining);
            return false;
        }
        const double credit = piece > remaining ? weight * remaining : piece * weight;
        sums.Add(tm1, credit);
        tm1 = tm2;
        remaining = remaining - piece;
    } while (remaining > 0.0);
    return true;
}

struct UnitName {
    template <class Unit>
    static std::string GetName(int /*index*/) {
        return std::is_same_v<Unit, CCuratorMRUUnit> ? "MRU" : std::is_same_v<Unit, CCuratorMFUUnit> ? "MFU" : "Date";
    }
};

template <class Unit>
struct WithoutWeekTest : public ::testing::Test {};
using UnitsWithoutWeek = ::testing::Types<CCuratorMRUUnit, CCuratorMFUUnit>;
TYPED_TEST_SUITE(WithoutWeekTest, UnitsWithoutWeek, UnitName);

template <class Unit>
struct CuratorUnitTest : public ::testing::Test {};
using AllUnits = ::testing::Types<CCuratorMRUUnit, CCuratorMFUUnit, CCuratorDateUnit>;
TYPED_TEST_SUITE(CuratorUnitTest, AllUnits, UnitName);

// All units.

TYPED_TEST(CuratorUnitTest, StartsWithItsIdAndAScoreOfZero) {
    for (const std::string& id : {std::string("unit"), std::string(), std::string("a\0b", 3)}) {
        Open<TypeParam> unit(id);
        EXPECT_EQ(unit.m_strUnitId, id);
        EXPECT_EQ(unit.m_strMetaData, "");
        EXPECT_EQ(unit.m_strMetaDataSrc, "");
        EXPECT_EQ(unit.m_dScore, 0.0);
        EXPECT_EQ(unit.GetScore(), 0.0);
        EXPECT_EQ(unit.GetScore(0, 0), 0.0);
        EXPECT_EQ(unit.GetScore(6, 23), 0.0);
    }
}

TYPED_TEST(CuratorUnitTest, IgnoresTheIdAndMetadataOfARecord) {
    Open<TypeParam> unit("unit");
    CuratorBaseData record = Usage(1000, 10);
    record.SetUnitId("another unit");
    record.m_strMetaData = "meta";
    record.m_strMetaDataSrc = "source";
    unit.LearnHistory(record, 1.0);
    EXPECT_EQ(unit.m_strUnitId, "unit");
    EXPECT_EQ(unit.m_strMetaData, "");
    EXPECT_EQ(unit.m_strMetaDataSrc, "");
    EXPECT_GT(unit.m_dScore, 0.0) << "a record with a different id was not learnt";
}

TYPED_TEST(CuratorUnitTest, WorksThroughItsBaseClass) {
    const TimeZone zone("UTC");
    std::unique_ptr<CCuratorBaseUnit> unit = std::make_unique<TypeParam>("unit");
    EXPECT_TRUE(std::has_virtual_destructor_v<CCuratorBaseUnit>);
    EXPECT_TRUE(std::is_abstract_v<CCuratorBaseUnit>);
    unit->LearnHistory(Usage(8 * 3600, 100), 1.0);  // a Thursday
    const double at8 = unit->GetScore(kThursday, 8);
    EXPECT_GT(at8, 0.0);
    const TestClock::Frozen clock(8 * 3600 + 60);
    EXPECT_EQ(unit->GetScore(), at8);
}

TYPED_TEST(CuratorUnitTest, ACopyGoesOnIndependently) {
    const TimeZone zone("UTC");
    Open<TypeParam> original("unit");
    original.m_strMetaData = "meta";
    original.m_strMetaDataSrc = "source";
    original.LearnHistory(Usage(kMonday20h, 100), 1.0);
    const double score = original.GetScore(kMonday, 20);

    Open<TypeParam> copy(original);
    Open<TypeParam> assigned("another unit");
    assigned.LearnHistory(Usage(kMonday20h, 900), 1.0);
    assigned = original;
    Open<TypeParam>& self = assigned;
    assigned = self;
    original.m_strMetaData = "new meta";
    original.m_strMetaDataSrc = "new source";
    original.LearnHistory(Usage(kMonday20h + 7, 7), 1.0);
    for (Open<TypeParam>* unit : {&copy, &assigned}) {
        EXPECT_EQ(unit->m_strUnitId, "unit");
        EXPECT_EQ(unit->m_strMetaData, "meta");
        EXPECT_EQ(unit->m_strMetaDataSrc, "source");
        EXPECT_EQ(unit->GetScore(kMonday, 20), score);
    }
    copy.LearnHistory(Usage(kMonday20h + 7, 7), 1.0);
    EXPECT_EQ(copy.GetScore(kMonday, 20), original.GetScore(kMonday, 20));
    EXPECT_NE(copy.GetScore(kMonday, 20), score);
    EXPECT_EQ(assigned.GetScore(kMonday, 20), score);
}

// MRU and MFU units.

TYPED_TEST(WithoutWeekTest, ScoresTheSameAtAnyHour) {
    Open<TypeParam> unit("unit");
    unit.LearnHistory(Usage(1234567, 89), 1.0);
    const double score = unit.GetScore();
    EXPECT_EQ(score, unit.m_dScore);
    for (int day = -1; day <= 7; ++day) {
        for (int hour = -1; hour <= 24; ++hour) {
            EXPECT_EQ(unit.GetScore(day, hour), score);
        }
    }
}

TYPED_TEST(WithoutWeekTest, IgnoresTheWeight) {
    for (const double weight : {0.0, 0.5, -3.0, 1e300}) {
        TypeParam weighted("unit");
        TypeParam plain("unit");
        for (const CuratorBaseData& record : {Usage(5000, 7), Usage(4000, 9)}) {
            weighted.LearnHistory(record, weight);
            plain.LearnHistory(record, 1.0);
        }
        EXPECT_EQ(weighted.GetScore(), plain.GetScore());
    }
}

TEST(CuratorMRUUnitTest, ScoresTheLastRecordEvenIfItIsOlder) {
    CCuratorMRUUnit unit("unit");
    unit.LearnHistory(Usage(2000, 5), 1.0);
    EXPECT_EQ(unit.GetScore(), 2000.0);
    unit.LearnHistory(Usage(1000, 6), 1.0);
    EXPECT_EQ(unit.GetScore(), 1000.0);
    unit.LearnHistory(Usage(0, 7), 1.0);
    EXPECT_EQ(unit.GetScore(), 0.0);
}

TEST(CuratorMRUUnitTest, ReadsTheStartAsUnsigned) {
    const struct {
        int startTime;
        double score;
    } rows[] = {{0, 0.0},           {1, 1.0},           {INT_MAX, 2147483647.0},   {INT_MIN, 2147483648.0},
                {-2, 4294967294.0}, {-1, 4294967295.0}, {1700000000, 1700000000.0}};
    for (const auto& row : rows) {
        CCuratorMRUUnit unit("unit");
        unit.LearnHistory(Usage(row.startTime, 1), 1.0);
        EXPECT_EQ(unit.GetScore(), row.score);
    }
}

TEST(CuratorMFUUnitTest, ScoresSecondsNotRecords) {
    CCuratorMFUUnit often("often");
    CCuratorMFUUnit once("once");
    for (int use = 0; use < 10; ++use) {
        often.LearnHistory(Usage(use, 5), 1.0);
    }
    once.LearnHistory(Usage(0, 51), 1.0);
    EXPECT_EQ(often.GetScore(), 50.0);
    EXPECT_EQ(once.GetScore(), 51.0);
    often.LearnHistory(Usage(0, 0), 1.0);
    EXPECT_EQ(often.GetScore(), 50.0);
}

TEST(CuratorMFUUnitTest, SumsUncappedDurationsBeyond32Bits) {
    CCuratorMFUUnit unit("unit");
    unit.LearnHistory(Usage(0, kCap + 1), 1.0);
    EXPECT_EQ(unit.GetScore(), kCap + 1.0);
    unit.LearnHistory(Usage(0, UINT_MAX), 1.0);
    EXPECT_EQ(unit.GetScore(), kCap + 1.0 + 4294967295.0);
    unit.LearnHistory(Usage(0, 2147483648U), 1.0);
    EXPECT_EQ(unit.GetScore(), kCap + 1.0 + 4294967295.0 + 2147483648.0);
}

// Date units: splitting a usage.

TEST(CuratorDateUnitTest, StartsEmptyWithTheFourWeights) {
    OpenDateUnit unit;
    EXPECT_EQ(unit.Read(), Sums());
    EXPECT_EQ(std::vector<double>(std::begin(unit.m_dWeight), std::end(unit.m_dWeight)),
              (std::vector<double>{0.1, 1.0, 6.0, 11.0}));
    unit.LearnHistory(Usage(0, 3600), 1.0);
    unit.GetScore();
    EXPECT_EQ(std::vector<double>(std::begin(unit.m_dWeight), std::end(unit.m_dWeight)),
              (std::vector<double>{0.1, 1.0, 6.0, 11.0}));
}

/// A usage and the seconds expected in each hour of the week.
struct SplitRow {
    const char* name;
    const char* zone;
    int startTime;
    unsigned int duration;
    struct Part {
        int day;
        int hour;
        double seconds;
    };
    std::vector<Part> parts;
};

Sums Expected(const SplitRow& row) {
    Sums sums;
    for (const SplitRow::Part& part : row.parts) {
        tm piece{};
        piece.tm_wday = part.day;
        piece.tm_hour = part.hour;
        sums.Add(piece, part.seconds);
    }
    return sums;
}

void ExpectSplits(const std::vector<SplitRow>& rows) {
    for (const SplitRow& row : rows) {
        SCOPED_TRACE(row.name);
        const TimeZone zone(row.zone);
        OpenDateUnit unit;
        unit.LearnHistory(Usage(row.startTime, row.duration), 1.0);
        EXPECT_EQ(unit.Read(), Expected(row));
    }
}

TEST(CuratorDateUnitTest, SplitsAUsageAtFullHours) {
    constexpr int kSaturday23h = 1610233200;  // 2021-01-09 23:00 UTC
    const std::vector<SplitRow> rows = {
        {"nothing", "UTC", kMonday20h, 0, {}},
        {"one second", "UTC", kMonday20h, 1, {{kMonday, 20, 1}}},
        {"20:40 and 3000 s", "UTC", kMonday20h + 2400, 3000, {{kMonday, 20, 1200}, {kMonday, 21, 1800}}},
        {"a full hour", "UTC", kMonday20h, 3600, {{kMonday, 20, 3600}}},
        {"up to the full hour", "UTC", kMonday20h + 3000, 600, {{kMonday, 20, 600}}},
        {"one short of the full hour", "UTC", kMonday20h + 3000, 599, {{kMonday, 20, 599}}},
        {"one beyond the full hour", "UTC", kMonday20h + 3000, 601, {{kMonday, 20, 600}, {kMonday, 21, 1}}},
        {"the last second of an hour", "UTC", kMonday20h + 3599, 2, {{kMonday, 20, 1}, {kMonday, 21, 1}}},
        {"two full hours", "UTC", kMonday20h, 7200, {{kMonday, 20, 3600}, {kMonday, 21, 3600}}},
        {"out of Saturday", "UTC", kSaturday23h + 1800, 3600, {{kSaturday, 23, 1800}, {kSunday, 0, 1800}}},
        {"just below the cap",
         "UTC",
         kMonday20h,
         11999,
         {{kMonday, 20, 3600}, {kMonday, 21, 3600}, {kMonday, 22, 3600}, {kMonday, 23, 1199}}},
        {"the cap",
         "UTC",
         kMonday20h,
         12000,
         {{kMonday, 20, 3600}, {kMonday, 21, 3600}, {kMonday, 22, 3600}, {kMonday, 23, 1200}}},
        {"beyond the cap",
         "UTC",
         kMonday20h,
         20000,
         {{kMonday, 20, 3600}, {kMonday, 21, 3600}, {kMonday, 22, 3600}, {kMonday, 23, 1200}}},
        {"the cap compares as unsigned",
         "UTC",
         kMonday20h + 3000,
         UINT_MAX,
         {{kMonday, 20, 600}, {kMonday, 21, 3600}, {kMonday, 22, 3600}, {kMonday, 23, 3600}, {kTuesday, 0, 600}}},
        {"across the end of a year", "UTC", 1609459200 - 60, 120, {{kThursday, 23, 60}, {kFriday, 0, 60}}},
        {"across a leap day", "UTC", 1582934400 - 1, 2, {{kFriday, 23, 1}, {kSaturday, 0, 1}}},
        {"the epoch", "UTC", 0, 10, {{kThursday, 0, 10}}},
        {"across the epoch", "UTC", -10, 20, {{kWednesday, 23, 10}, {kThursday, 0, 10}}},
        {"long before the epoch", "UTC", -1000000000, 3600, {{kSunday, 22, 2800}, {kSunday, 23, 800}}},
        {"the earliest start", "UTC", INT_MIN, 3600, {{kFriday, 20, 848}, {kFriday, 21, 2752}}},
    };
    ExpectSplits(rows);
}

TEST(CuratorDateUnitTest, SplitsAUsageByTheClockOfItsZone) {
    const std::vector<SplitRow> rows = {
        {"a zone half an hour off", "Asia/Kolkata", kMonday20h, 3600, {{kTuesday, 1, 1800}, {kTuesday, 2, 1800}}},
        {"a zone a quarter off", "Asia/Kathmandu", kMonday20h, 3600, {{kTuesday, 1, 900}, {kTuesday, 2, 2700}}},
        {"the clock goes forward",
         "America/New_York",
         1615705200 - 1800,
         3600,
         {{kSunday, 1, 1800}, {kSunday, 3, 1800}}},
        {"the clock goes back",
         "America/New_York",
         1636264800 - 1800,
         7200,
         {{kSunday, 1, 1800}, {kSunday, 1, 3600}, {kSunday, 2, 1800}}},
        {"back by half an hour",
         "Australia/Lord_Howe",
         1617462000 - 900,
         3600,
         {{kSunday, 1, 900}, {kSunday, 1, 1800}, {kSunday, 2, 900}}},
        {"back over midnight",
         "America/Sao_Paulo",
         1550368800 - 600,
         4800,
         {{kSaturday, 23, 600}, {kSaturday, 23, 3600}, {kSunday, 0, 600}}},
        {"forward over midnight",
         "America/Sao_Paulo",
         1541300400 - 600,
         1200,
         {{kSaturday, 23, 600}, {kSunday, 1, 600}}},
        {"forward in the middle of an hour",
         "Asia/Pyongyang",
         1525446000 - 600,
         1200,
         {{kFriday, 23, 600}, {kSaturday, 0, 600}}},
    };
    ExpectSplits(rows);
}

TEST(CuratorDateUnitTest, CreditsRestToCurrentHourIfTimeDoesNotAdvance) {
    // Standard time moves forward over the full hour, and the daylight-saving flag does not change.
    const std::vector<SplitRow> rows = {
        {"within the hour", "Europe/Moscow", 1301180400 - 1800, 60, {{kSunday, 1, 60}}},
        {"over the change", "Europe/Moscow", 1301180400 - 1800, 3600, {{kSunday, 1, 3600}}},
        {"capped", "Europe/Moscow", 1301180400 - 1800, 20000, {{kSunday, 1, kCap}}},
        {"from the hour before", "Europe/Moscow", 1301180400 - 5400, 7200, {{kSunday, 0, 1800}, {kSunday, 1, 5400}}},
        {"a skipped day", "Pacific/Kiritimati", 788868000 - 60, 120, {{kFriday, 23, 120}}},
    };
    ExpectSplits(rows);
}

TEST(CuratorDateUnitTest, LearnsStartsUpToTheEndOf32BitTime) {
    // The last second is Tuesday, 2038-01-19 03:14:07 UTC; 32 bits cannot hold the next full hour.
    constexpr bool kIsTimeShort = sizeof(time_t) == 4;
    using Parts = decltype(SplitRow::parts);
    const std::vector<SplitRow> rows = {
        {"within the hour", "UTC", INT_MAX - 7, 60, {{kTuesday, 3, 60}}},
        {"over the hour", "UTC", INT_MAX, 4000,
         kIsTimeShort ? Parts{{kTuesday, 3, 4000}} : Parts{{kTuesday, 3, 2753}, {kTuesday, 4, 1247}}},
        {"from the hour before", "UTC", INT_MAX - 3600, 10000,
         kIsTimeShort ? Parts{{kTuesday, 2, 2753}, {kTuesday, 3, 7247}}
                      : Parts{{kTuesday, 2, 2753}, {kTuesday, 3, 3600}, {kTuesday, 4, 3600}, {kTuesday, 5, 47}}},
        {"a zone half an hour off", "Asia/Kolkata", INT_MAX, 1000,
         kIsTimeShort ? Parts{{kTuesday, 8, 1000}} : Parts{{kTuesday, 8, 953}, {kTuesday, 9, 47}}},
    };
    ExpectSplits(rows);
}

TEST(CuratorDateUnitTest, ACopyHasAllSumsAndWeights) {
    const TimeZone zone("UTC");
    OpenDateUnit original;
    original.LearnHistory(Usage(kMonday20h, 9000), 1.0);
    original.m_dWeight[3] = 12.0;
    OpenDateUnit copy(original);
    OpenDateUnit assigned;
    assigned = original;
    const Sums sums = original.Read();
    original.LearnHistory(Usage(kMonday20h, 9000), 1.0);
    for (const OpenDateUnit* unit : {&copy, &assigned}) {
        EXPECT_EQ(unit->Read(), sums);
        EXPECT_EQ(std::vector<double>(std::begin(unit->m_dWeight), std::end(unit->m_dWeight)),
                  (std::vector<double>{0.1, 1.0, 6.0, 12.0}));
    }
}

TEST(CuratorDateUnitTest, FollowsAChangeOfTheZoneWithoutAnAgent) {
    // The host changes TZ without calling tzset().
    const TimeZone before("UTC");
    OpenDateUnit unit;
    Sums expected;
    const auto learnIn = [&](const char* zone, int day, int hour) {
        setenv("TZ", zone, /*overwrite=*/1);
        unit.LearnHistory(Usage(kMonday20h, 60), 1.0);
        tm piece{};
        piece.tm_wday = day;
        piece.tm_hour = hour;
        expected.Add(piece, 60.0);
        EXPECT_EQ(unit.Read(), expected) << zone;
    };
    learnIn("UTC", kMonday, 20);
    learnIn("Asia/Kolkata", kTuesday, 1);
    learnIn("America/New_York", kMonday, 15);
    learnIn("UTC", kMonday, 20);
}

TEST(CuratorDateUnitTest, AccumulatesRecords) {
    const TimeZone zone("UTC");
    OpenDateUnit unit;
    Sums expected;
    for (int record = 0; record < 500; ++record) {
        const CuratorBaseData usage = Usage(kMonday20h + record * 4321, static_cast<unsigned int>(record * 31));
        EXPECT_TRUE(SplitByCalendar(usage, 1.0, expected));
        unit.LearnHistory(usage, 1.0);
        ASSERT_EQ(unit.Read(), expected);
    }
}

TEST(CuratorDateUnitTest, ADurationOfZeroChangesNothingAtAnyWeight) {
    const TimeZone zone("UTC");
    OpenDateUnit unit;
    unit.LearnHistory(Usage(kMonday20h, 60), 1.0);
    const Sums before = unit.Read();
    unit.LearnHistory(Usage(kMonday20h, 0), HUGE_VAL);
    EXPECT_EQ(unit.Read(), before);
}

TEST(CuratorDateUnitTest, WeighsPiecesAndAddsThemInOrder) {
    const TimeZone zone("Europe/Paris");
    for (const double weight : {0.1, 1.0 / 3.0, 0.7, 2.5, 0.0, -1.0, 1e15 + 0.3}) {
        OpenDateUnit unit;
        Sums expected;
        std::mt19937 random(7);
        for (int record = 0; record < 300; ++record) {
            const CuratorBaseData usage =
                Usage(kMonday20h + static_cast<int>(random() % 2000000), static_cast<unsigned int>(random() % 13000));
            SplitByCalendar(usage, weight, expected);
            unit.LearnHistory(usage, weight);
            ASSERT_EQ(unit.Read(), expected) << "weight " << weight << ", record " << record;
        }
    }
}

// Date units: splitting at changes of the clock.

/// A zone and a moment, at which its clock usually changes.
struct ChangeRow {
    const char* zone;
    int change;
    long before;  ///< seconds east of Greenwich
    long after;
};

std::ostream& operator<<(std::ostream& out, const ChangeRow& row) {
    return out << row.zone << " at " << row.change;
}

const ChangeRow kChanges[] = {
    {"America/New_York", 1615705200, -18000, -14400},
    {"America/New_York", 1636264800, -14400, -18000},
    {"Europe/Paris", 1616893200, 3600, 7200},
    {"Europe/Paris", 1635642000, 7200, 3600},
    // at midnight
    {"America/Sao_Paulo", 1541300400, -10800, -7200},
    {"America/Sao_Paulo", 1550368800, -7200, -10800},
    // by half an hour, and by two hours
    {"Australia/Lord_Howe", 1617462000, 39600, 37800},
    {"Australia/Lord_Howe", 1633188600, 37800, 39600},
    {"Antarctica/Troll", 1616893200, 0, 7200},
    {"Antarctica/Troll", 1635642000, 7200, 0},
    // offsets that are not full hours
    {"Asia/Kolkata", -872058600, 23400, 19800},
    {"Asia/Kolkata", -862637400, 19800, 23400},
    {"Asia/Kathmandu", 504901800, 19800, 20700},
    {"Africa/Monrovia", 63593070, -2670, 0},
    // at one minute past midnight, once by two hours
    {"America/St_Johns", 576041460, -12600, -5400},
    {"America/St_Johns", 594178260, -5400, -12600},
    {"America/St_Johns", 1268537460, -12600, -9000},
    {"America/St_Johns", 1289097060, -9000, -12600},
    // a day is skipped
    {"Pacific/Apia", 1325239200, -36000, 50400},
    {"Pacific/Apia", 1333202400, 50400, 46800},
    {"Pacific/Kiritimati", 788868000, -36000, 50400},
    // the daylight-saving flag changes, the offset does not
    {"Europe/Moscow", 670374000, 10800, 10800},
    // the offset changes, the daylight-saving flag does not
    {"Europe/Moscow", 695779200, 7200, 10800},
    {"Europe/Moscow", 1301180400, 10800, 14400},
    {"Europe/Moscow", 1414274400, 14400, 10800},
    {"America/Caracas", 1197183600, -14400, -16200},
    {"America/Caracas", 1462086000, -16200, -14400},
    {"Asia/Pyongyang", 1439564400, 32400, 30600},
    {"Asia/Pyongyang", 1525446000, 30600, 32400},
    // negative daylight saving
    {"Africa/Casablanca", 1557021600, 3600, 0},
    {"Africa/Casablanca", 1560045600, 0, 3600},
    {"Europe/Dublin", 1616893200, 0, 3600},
    {"Europe/Dublin", 1635642000, 3600, 0},
    // in the middle of an hour
    {"AAA0BBB,M3.2.0/2:30,M11.1.0/2:30", 1615689000, 0, 3600},
    {"AAA0BBB,M3.2.0/2:30,M11.1.0/2:30", 1636248600, 3600, 0},
    {"AAA0BBB-0:15,M3.2.0/2:50,M11.1.0/3:05", 1615690200, 0, 900},
    {"AAA0BBB-0:15,M3.2.0/2:50,M11.1.0/3:05", 1636253400, 900, 0},
    {"AAA0BBB0,M3.2.0/2:30,M11.1.0/2:30", 1615689000, 0, 0},
    // the clock does not change: the turn of a year, and the epoch
    {"UTC", 1609459200, 0, 0},
    {"UTC", 0, 0, 0},
    {"Asia/Kolkata", 1609459200, 19800, 19800},
};

class CuratorDateUnitAroundTest : public ::testing::TestWithParam<ChangeRow> {
protected:
    void SetUp() override {
        ASSERT_EQ(OffsetAt(GetParam().change - 1), GetParam().before) << "is the time zone database installed?";
        ASSERT_EQ(OffsetAt(GetParam().change), GetParam().after);
    }

    static long OffsetAt(time_t moment) {
        tm local{};
        localtime_r(&moment, &local);
        return local.tm_gmtoff;
    }

    const TimeZone m_zone{GetParam().zone};
};

TEST_P(CuratorDateUnitAroundTest, SplitsEveryUsageLikeTheCalendar) {
    constexpr int kSpan = 5 * 3600;
    for (int distance = -kSpan; distance <= kSpan; distance += 300) {
        for (const int seconds : {-1, 0, 1, 137}) {
            for (const unsigned int duration :
                 {1U, 59U, 60U, 599U, 1800U, 3599U, 3600U, 3601U, 7200U, kCap - 1, kCap, kCap + 8000}) {
                const CuratorBaseData usage = Usage(GetParam().change + distance + seconds, duration);
                Sums expected;
                SplitByCalendar(usage, 1.0, expected);
                OpenDateUnit unit;
                unit.LearnHistory(usage, 1.0);
                ASSERT_EQ(unit.Read(), expected) << "start " << usage.m_nStartTime << ", duration " << duration;
                ASSERT_EQ(unit.m_dScore, std::min(duration, kCap)) << "start " << usage.m_nStartTime;
            }
        }
    }
}

TEST_P(CuratorDateUnitAroundTest, SplitsAHistoryLikeTheCalendar) {
    std::mt19937 random(static_cast<std::mt19937::result_type>(GetParam().change));
    std::vector<CuratorBaseData> history;
    for (int record = 0; record < 3000; ++record) {
        const int span = record % 2 == 0 ? 6 * 3600 : 5000000;  // near the change, and further away
        history.push_back(Usage(GetParam().change - span + static_cast<int>(random()) % span + span / 2,
                                static_cast<unsigned int>(random() % (record % 3 == 0 ? 600 : 13000))));
    }
    Sums expected;
    for (const CuratorBaseData& usage : history) {
        SplitByCalendar(usage, 0.1, expected);
    }
    OpenDateUnit unit;
    for (const CuratorBaseData& usage : history) {
        unit.LearnHistory(usage, 0.1);
    }
    EXPECT_EQ(unit.Read(), expected);
}

INSTANTIATE_TEST_SUITE_P(EachChange, CuratorDateUnitAroundTest, ::testing::ValuesIn(kChanges),
                         [](const ::testing::TestParamInfo<ChangeRow>& row) {
                             std::ostringstream name;
                             name << row.param;
                             std::string identifier = name.str();
                             std::replace_if(
                                 identifier.begin(), identifier.end(),
                                 [](unsigned char character) { return std::isalnum(character) == 0; }, '_');
                             return identifier;
                         });

TEST(CuratorDateUnitTest, SplitsExtremeStartsLikeTheCalendar) {
    for (const char* name : {"UTC", "America/New_York", "Pacific/Kiritimati", "Asia/Kolkata"}) {
        const TimeZone zone(name);
        for (int distance = 0; distance < 13000; distance += 61) {
            for (const int startTime : {INT_MAX - distance, INT_MIN + distance, -distance, distance}) {
                for (const unsigned int duration : {1U, 60U, 3599U, 3600U, kCap, UINT_MAX}) {
                    const CuratorBaseData usage = Usage(startTime, duration);
                    Sums expected;
                    SplitByCalendar(usage, 1.0, expected);
                    OpenDateUnit unit;
                    unit.LearnHistory(usage, 1.0);
                    ASSERT_EQ(unit.Read(), expected) << name << ", start " << startTime << ", duration " << duration;
                    ASSERT_EQ(unit.m_dScore, std::min(duration, kCap));
                }
            }
        }
    }
}

// Date units: scoring.

TEST(CuratorDateUnitTest, WeighsTotalHourDayAndHourOfWeek) {
    OpenDateUnit unit;
    unit.m_dScore = 1000.0;
    unit.m_dHour[5] = 100.0;
    unit.m_dDay[2] = 10.0;
    unit.m_dDayHour[2][5] = 1.0;
    EXPECT_EQ(unit.GetScore(2, 5), 100.0 + 100.0 + 60.0 + 11.0);
    EXPECT_EQ(unit.GetScore(2, 6), 100.0 + 60.0);
    EXPECT_EQ(unit.GetScore(3, 5), 100.0 + 100.0);
    EXPECT_EQ(unit.GetScore(3, 6), 100.0);
}

TEST(CuratorDateUnitTest, AddsTheTermsOfTheScoreInOrder) {
    std::mt19937 random(11);
    std::uniform_real_distribution<double> seconds(0.0, 1e6);
    OpenDateUnit unit;
    for (int round = 0; round < 20; ++round) {
        unit.m_dScore = seconds(random);
        for (int day = 0; day < 7; ++day) {
            unit.m_dDay[day] = seconds(random);
            for (int hour = 0; hour < 24; ++hour) {
                unit.m_dHour[hour] = seconds(random);
                unit.m_dDayHour[day][hour] = seconds(random);
            }
        }
        for (double& weight : unit.m_dWeight) {
            weight = round == 0 ? weight : seconds(random);
        }
        for (int day = 0; day < 7; ++day) {
            for (int hour = 0; hour < 24; ++hour) {
                volatile double score = unit.m_dScore * unit.m_dWeight[0];
                score = score + 0.0;
                volatile double term = unit.m_dHour[hour] * unit.m_dWeight[1];
                score = score + term;
                term = unit.m_dDay[day] * unit.m_dWeight[2];
                score = score + term;
                term = unit.m_dDayHour[day][hour] * unit.m_dWeight[3];
                score = score + term;
                ASSERT_EQ(unit.GetScore(day, hour), score) << "day " << day << ", hour " << hour;
            }
        }
    }
}

/// Records the hours of the week for which GetScore() is called.
class AskedUnit : public CCuratorDateUnit {
public:
    AskedUnit() : CCuratorDateUnit("unit") {}
    using CCuratorDateUnit::GetScore;
    double GetScore(const int& dayOfWeek, const int& hour) override {
        m_asked.emplace_back(dayOfWeek, hour);
        return 0.25;
    }

    std::vector<std::pair<int, int>> m_asked;
};

TEST(CuratorDateUnitTest, ScoresTheCurrentHourOfTheWeekByDefault) {
    const struct {
        const char* zone;
        time_t now;
        std::pair<int, int> hourOfWeek;
    } rows[] = {
        {"UTC", kMonday20h, {kMonday, 20}},
        {"UTC", 1609790399, {kMonday, 19}},
        {"UTC", 1610236800, {kSunday, 0}},
        {"UTC", 0, {kThursday, 0}},
        {"UTC", -1, {kWednesday, 23}},
        {"Asia/Kolkata", kMonday20h, {kTuesday, 1}},
        {"America/New_York", 1615705199, {kSunday, 1}},
        {"America/New_York", 1615705200, {kSunday, 3}},
    };
    AskedUnit unit;
    for (const auto& row : rows) {
        const TimeZone zone(row.zone);
        const TestClock::Frozen clock(row.now);
        EXPECT_EQ(static_cast<CCuratorBaseUnit&>(unit).GetScore(), 0.25);
        EXPECT_EQ(unit.m_asked, (std::vector<std::pair<int, int>>{row.hourOfWeek})) << row.zone << " at " << row.now;
        unit.m_asked.clear();
    }
}

TEST(CuratorDateUnitTest, ScoresTheCurrentHourWithTheWeights) {
    const TimeZone zone("UTC");
    CCuratorDateUnit unit("unit");
    unit.LearnHistory(Usage(kMonday20h, 3600), 1.0);
    unit.LearnHistory(Usage(kMonday20h + 86400, 600), 1.0);
    const auto scoreAt = [&](time_t now) {
        const TestClock::Frozen clock(now);
        return unit.GetScore();
    };
    EXPECT_EQ(scoreAt(kMonday20h), 420.0 + 4200.0 + 21600.0 + 39600.0);
    EXPECT_EQ(scoreAt(kMonday20h + 7 * 86400 + 3599), 420.0 + 4200.0 + 21600.0 + 39600.0);
    EXPECT_EQ(scoreAt(kMonday20h + 3600), 420.0 + 21600.0);
    EXPECT_EQ(scoreAt(kMonday20h + 86400), 420.0 + 4200.0 + 3600.0 + 6600.0);
    EXPECT_EQ(scoreAt(kMonday20h + 2 * 86400), 420.0 + 4200.0);
    EXPECT_EQ(scoreAt(kMonday20h + 2 * 86400 + 3600), 420.0);
}

TEST(CuratorDateUnitTest, LeavesTheBufferOfLocaltimeUnchanged) {
    const TimeZone zone("UTC");
    const time_t moment = kMonday20h;
    const tm* buffer = localtime(&moment);
    const auto buffered = [buffer] {
        tm copy = *buffer;
        return timegm(&copy);
    };
    CCuratorDateUnit unit("unit");
    unit.LearnHistory(Usage(0, 60), 1.0);
    EXPECT_EQ(buffered(), moment) << "changed by learning within an hour";
    unit.LearnHistory(Usage(3599, 7200), 1.0);
    EXPECT_EQ(buffered(), moment) << "changed by learning across hours";
    unit.GetScore();
    EXPECT_EQ(buffered(), moment) << "changed by scoring";
}

TEST(CuratorDateUnitTest, LogsNothing) {
    const TimeZone zone("Europe/Moscow");
    CapturedLog::Clear();
    CCuratorDateUnit unit("unit");
    unit.LearnHistory(Usage(1301180400 - 1800, UINT_MAX), 1.0);
    unit.GetScore();
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

}  // namespace
