// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorAgent.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

#include "Comparison.h"
#include "ContextDatabase.h"
#include "HeapCount.h"
#include "UsageHistory.h"

namespace {

constexpr int kMaxResult = 10;
constexpr int kDays = 7;
constexpr int kHours = 24;
constexpr std::size_t kRankedUnits = 1000;
constexpr unsigned int kMaxLearntSeconds = CCuratorDateUnit::kMaxLearntSeconds;
constexpr unsigned int kSecondsPerHour = 3600;
constexpr double kMegabyte = 1e6;

using Records = std::vector<CuratorBaseData>;

std::unique_ptr<CCuratorAgent> NewAgent() {
    return std::make_unique<CCuratorAgent>(CURATOR_AGENT_DATE, kMaxResult, /*minDuration=*/0);
}

/// All records of the first thousand units in the history.
Records RankedRecords() {
    std::unordered_set<std::string> units;
    Records records;
    for (const CuratorBaseData& record : UsageHistory::Music()) {
        const std::string id = record.GetUnitId();
        if (units.size() < kRankedUnits) {
            units.insert(id);
        }
        if (units.count(id) != 0) {
            records.push_back(record);
        }
    }
    return records;
}

int SplitAtFullHours(tm current, double remaining) {
    int seen = 0;
    while (remaining > 0.0) {
        tm next = current;
        ++next.tm_hour;
        next.tm_min = 0;
        next.tm_sec = 0;
        mktime(&next);
        const time_t currentTime = mktime(&current);
        const time_t nextTime = mktime(&next);
        seen += current.tm_hour + current.tm_wday;
        remaining -= difftime(nextTime, currentTime);
        current = next;
    }
    return seen;
}

/// Makes the calendar calls that a simple implementation needs for a usage.
int SimpleCalendar(time_t start, unsigned int seconds) {
    tm first{};
    localtime_r(&start, &first);
    return SplitAtFullHours(first, seconds);
}

/// Makes as few calendar calls as possible for a usage: two if it lies within an hour.
int FewestCalendar(time_t start, unsigned int seconds) {
    if (seconds == 0) {
        return 0;
    }
    tm first{};
    localtime_r(&start, &first);
    if (static_cast<unsigned int>(first.tm_min * 60 + first.tm_sec) + seconds >= kSecondsPerHour) {
        return SplitAtFullHours(first, seconds);
    }
    const time_t end = start + static_cast<time_t>(seconds);
    tm last{};
    localtime_r(&end, &last);
    return last.tm_hour + last.tm_wday;
}

void Learn(benchmark::State& state) {
    const Records& records = UsageHistory::Music();
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<CCuratorAgent> agent = NewAgent();
        state.ResumeTiming();
        agent->LearnHistorys(records);
        state.PauseTiming();
        agent.reset();
        state.ResumeTiming();
    }
}

/// Also reads the fields that learning reads: a year of records does not fit in the cache, so reading takes time.
template <int (*Calendar)(time_t, unsigned int)>
void CallCalendar(benchmark::State& state) {
    const Records& records = UsageHistory::Music();
    for ([[maybe_unused]] auto _ : state) {
        std::size_t seen = 0;
        for (const CuratorBaseData& record : records) {
            seen += record.GetUnitId().size() + record.m_strMetaData.size() + record.m_strMetaDataSrc.size();
            seen += static_cast<std::size_t>(
                Calendar(record.m_nStartTime, std::min(record.m_nDuration, kMaxLearntSeconds)));
        }
        benchmark::DoNotOptimize(seen);
    }
}

void CallCalendarAlone(benchmark::State& state) {
    std::vector<std::pair<time_t, unsigned int>> usages;
    for (const CuratorBaseData& record : UsageHistory::Music()) {
        usages.emplace_back(record.m_nStartTime, std::min(record.m_nDuration, kMaxLearntSeconds));
    }
    for ([[maybe_unused]] auto _ : state) {
        int seen = 0;
        for (const auto& [start, seconds] : usages) {
            seen += FewestCalendar(start, seconds);
        }
        benchmark::DoNotOptimize(seen);
    }
}

CCuratorAgent& RankingAgent() {
    static const std::unique_ptr<CCuratorAgent> agent = [] {
        std::unique_ptr<CCuratorAgent> made = NewAgent();
        made->LearnHistorys(RankedRecords());
        return made;
    }();
    return *agent;
}

/// Scores of the units of RankingAgent(), in the same order, for each hour of the week.
std::vector<std::vector<double>> BareScores() {
    std::unordered_map<std::string, CCuratorDateUnit*> unitsById;
    std::vector<std::unique_ptr<CCuratorDateUnit>> units;
    for (const CuratorBaseData& record : RankedRecords()) {
        CCuratorDateUnit*& unit = unitsById[record.GetUnitId()];
        if (unit == nullptr) {
            unit = units.emplace_back(std::make_unique<CCuratorDateUnit>(record.GetUnitId())).get();
        }
        unit->LearnHistory(record, /*weight=*/1.0);
    }
    std::vector<std::vector<double>> scores;
    for (int day = 0; day < kDays; ++day) {
        for (int hour = 0; hour < kHours; ++hour) {
            std::vector<double>& scoresOfHour = scores.emplace_back();
            for (const auto& unit : units) {
                scoresOfHour.push_back(unit->GetScore(day, hour));
            }
        }
    }
    return scores;
}

void Rank(benchmark::State& state) {
    CCuratorAgent& agent = RankingAgent();
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(agent.RunCurate7x24());
    }
}

void SortBareScores(benchmark::State& state) {
    static const std::vector<std::vector<double>> scores = BareScores();
    for ([[maybe_unused]] auto _ : state) {
        for (const std::vector<double>& scoresOfHour : scores) {
            std::vector<double> sorted = scoresOfHour;
            std::partial_sort(sorted.begin(), sorted.begin() + kMaxResult, sorted.end(), std::greater<>());
            benchmark::DoNotOptimize(sorted.data());
        }
    }
}

double PeakHeapOfRanking() {
    CCuratorAgent& agent = RankingAgent();
    HeapCount::Start();
    const CuratorBaseData7x24 grid = agent.RunCurate7x24();
    const std::size_t peak = HeapCount::StopAtPeak();
    if (grid.m_listData[0][0].size() != kMaxResult) {
        throw std::runtime_error("the ranking is short");
    }
    return static_cast<double>(peak);
}

constexpr const char* kDatabase = "usage.db";
constexpr const char* kCreate =
    "CREATE TABLE IF NOT EXISTS usage (unit_id TEXT, unit_name TEXT, start_time INTEGER, duration INTEGER)";

/// A ranking by SQLite alone. It credits a whole usage to the hour in which it starts, and uses no weights.
constexpr const char* kRankInSql =
    "WITH hourly AS (SELECT unit_id, strftime('%w', start_time, 'unixepoch', 'localtime') AS day,"
    " strftime('%H', start_time, 'unixepoch', 'localtime') AS hour, SUM(duration) AS score"
    " FROM usage GROUP BY unit_id, day, hour),"
    " ranked AS (SELECT day, hour, unit_id, score,"
    " ROW_NUMBER() OVER (PARTITION BY day, hour ORDER BY score DESC) AS place FROM hourly)"
    " SELECT day, hour, unit_id, score FROM ranked WHERE place <= 10 ORDER BY day, hour, place";

class StoredUsages {
public:
    StoredUsages() {
        const char* folder = std::getenv("LUMORA_PRIVATE_DATA_DIRECTORY");
        if (folder == nullptr) {
            throw std::runtime_error("run this through scripts/with-data-directory, as scripts/bench does");
        }
        sqlite3_open((std::string(folder) + "/" + kDatabase).c_str(), &m_connection);
        Run(std::string(kCreate) + "; BEGIN");
        for (const CuratorBaseData& record : UsageHistory::Music()) {
            char* insert = sqlite3_mprintf("INSERT INTO usage VALUES (%Q, %Q, %d, %u)", record.GetUnitId().c_str(),
                                           record.GetUnitName().c_str(), record.m_nStartTime, record.m_nDuration);
            Run(insert);
            sqlite3_free(insert);
        }
        Run("COMMIT");
    }
    ~StoredUsages() { sqlite3_close(m_connection); }
    StoredUsages(const StoredUsages&) = delete;
    StoredUsages& operator=(const StoredUsages&) = delete;

    static StoredUsages& Instance() {
        static StoredUsages usages;
        return usages;
    }

    void Run(const std::string& query, sqlite3_callback callback = nullptr, void* data = nullptr) {
        if (sqlite3_exec(m_connection, query.c_str(), callback, data, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errmsg(m_connection));
        }
    }

private:
    sqlite3* m_connection = nullptr;
};

void RankRecords(benchmark::State& state) {
    const Records& records = UsageHistory::Music();
    for ([[maybe_unused]] auto _ : state) {
        const std::unique_ptr<CCuratorAgent> agent = NewAgent();
        agent->LearnHistorys(records);
        benchmark::DoNotOptimize(agent->RunCurate7x24());
    }
}

void RankStoredUsages(benchmark::State& state) {
    StoredUsages::Instance();
    ContextDatabase database(kDatabase, kCreate);
    for ([[maybe_unused]] auto _ : state) {
        std::vector<std::map<std::string, std::string>> rows;
        database.SelectQuery("SELECT unit_id, start_time, duration FROM usage", {}, rows);
        Records records(rows.size());
        for (std::size_t i = 0; i < rows.size(); ++i) {
            records[i].SetUnitId(rows[i]["unit_id"]);
            records[i].m_nStartTime = std::stoi(rows[i]["start_time"]);
            records[i].m_nDuration = static_cast<unsigned int>(std::stoul(rows[i]["duration"]));
        }
        const std::unique_ptr<CCuratorAgent> agent = NewAgent();
        agent->LearnHistorys(records);
        benchmark::DoNotOptimize(agent->RunCurate7x24());
    }
}

void RankInSql(benchmark::State& state) {
    StoredUsages& usages = StoredUsages::Instance();
    for ([[maybe_unused]] auto _ : state) {
        int rows = 0;
        usages.Run(
            kRankInSql, [](void* count, int, char**, char**) { return ++*static_cast<int*>(count), 0; }, &rows);
        if (rows == 0) {
            throw std::runtime_error("no ranking");
        }
    }
}

}  // namespace

void RegisterComparisons() {
    UsageHistory::SetTimeZone();
    Comparison("LearnHistorys, a year of music (54 429 records)")
        .Ours(Learn)
        .Direct("the fewest calendar calls", 1.3, CallCalendar<FewestCalendar>)
        .Peer("the same, without reading records", CallCalendarAlone)
        .Peer("the calendar calls of a simple loop", CallCalendar<SimpleCalendar>);
    Comparison("RunCurate7x24, the best 10 of 1 000 units")
        .Ours(Rank)
        .Direct("168 std::partial_sort of bare scores", 4.0, SortBareScores);
    CompareBytes("  its peak heap", 4 * kMegabyte, PeakHeapOfRanking);
    Comparison("a year of music to weekly rankings, from memory")
        .Repetitions(1)
        .Ours(RankRecords)
        .Peer("SQLite alone, GROUP BY strftime", RankInSql);
    Comparison("a year of music to weekly rankings, from a file")
        .Repetitions(1)
        .Ours(RankStoredUsages)
        .Peer("SQLite alone, GROUP BY strftime", RankInSql);
}
