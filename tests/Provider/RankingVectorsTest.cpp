// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Provider/CuratorAgent.h"
#include "Surroundings.h"
#include "TestClock.h"

// Compares the sums and rankings of real histories with those that tests/data/vectors/rankings.py computes.

namespace {

/// Splits CSV text (RFC 4180) into records and fields.
std::vector<std::vector<std::string>> ReadCsv(const std::string& text) {
    std::vector<std::vector<std::string>> records;
    std::vector<std::string> record(1);
    bool isQuoted = false;
    for (std::size_t position = 0; position < text.size(); ++position) {
        const char character = text[position];
        if (character == '"' && isQuoted && text.compare(position + 1, 1, "\"") == 0) {
            record.back() += text[++position];
        } else if (character == '"') {
            isQuoted = !isQuoted;
        } else if (character == ',' && !isQuoted) {
            record.emplace_back();
        } else if (character == '\n' && !isQuoted) {
            records.push_back(record);
            record.assign(1, "");
        } else {
            record.back() += character;
        }
    }
    return records;
}

std::vector<CuratorBaseData> ReadHistory(const std::string& name) {
    std::vector<CuratorBaseData> history;
    const auto rows = ReadCsv(Surroundings::ReadFile(LUMORA_TEST_DATA "/histories/" + name + ".csv"));
    if (rows.empty() ||
        rows[0] != std::vector<std::string>{"unit_id", "unit_name", "device_name", "start_time", "duration"}) {
        throw std::runtime_error("no history: " + name);
    }
    for (std::size_t row = 1; row < rows.size(); ++row) {
        CuratorBaseData& record = history.emplace_back();
        record.SetUnitId(rows[row].at(0));
        record.SetUnitName(rows[row].at(1));
        record.SetUnitDeviceName(rows[row].at(2));
        record.m_nStartTime = std::stoi(rows[row].at(3));
        record.m_nDuration = static_cast<unsigned int>(std::stoul(rows[row].at(4)));
    }
    return history;
}

/// Reads the words of a vector file; throws at the end of the file.
class Words {
public:
    explicit Words(const std::string& fileName) : m_file(LUMORA_TEST_DATA "/vectors/" + fileName) {}

    bool AtEnd() { return (m_file >> std::ws).eof(); }

    std::string Text() {
        std::string word;
        if (!(m_file >> word)) {
            throw std::runtime_error("a vector ends too early");
        }
        return word;
    }
    int Number() { return std::stoi(Text()); }
    double Score() {
        const std::string word = Text();
        return std::strtod(word.c_str(), nullptr);
    }

    /// Reads a count and as many pairs of id and score.
    std::vector<std::pair<std::string, double>> Ranking() {
        std::vector<std::pair<std::string, double>> ranking(static_cast<std::size_t>(Number()));
        for (auto& entry : ranking) {
            entry.first = Text();
            entry.second = Score();
        }
        return ranking;
    }

    std::string Line() {
        std::string line;
        std::getline(m_file, line);
        return line;
    }

private:
    std::ifstream m_file;
};

std::vector<std::pair<std::string, double>> IdsAndScores(const std::list<CuratorBaseData>& ranking) {
    std::vector<std::pair<std::string, double>> pairs;
    for (const CuratorBaseData& record : ranking) {
        pairs.emplace_back(record.GetUnitId(), record.m_dScore);
    }
    return pairs;
}

/// A unit that writes its sums in the format of the vectors.
class WrittenUnit : public CCuratorDateUnit {
public:
    using CCuratorDateUnit::CCuratorDateUnit;

    std::string Write() const {
        std::ostringstream out;
        out.precision(17);
        out << m_strUnitId << " total " << m_dScore << " hour";
        for (int hour = 0; hour < 24; ++hour) {
            WriteSum(out, std::to_string(hour), m_dHour[hour]);
        }
        out << " day";
        for (int day = 0; day < 7; ++day) {
            WriteSum(out, std::to_string(day), m_dDay[day]);
        }
        out << " week";
        for (int day = 0; day < 7; ++day) {
            for (int hour = 0; hour < 24; ++hour) {
                WriteSum(out, std::to_string(day) + "." + std::to_string(hour), m_dDayHour[day][hour]);
            }
        }
        return out.str();
    }

private:
    static void WriteSum(std::ostream& out, const std::string& key, double seconds) {
        if (seconds != 0.0) {
            out << " " << key << ":" << seconds;
        }
    }
};

struct HistoryRow {
    const char* name;
    const char* zone;
    std::size_t records;
    std::size_t units;
};

void PrintTo(const HistoryRow& row, std::ostream* out) {
    *out << row.name;
}

class RankingVectorsTest : public ::testing::TestWithParam<HistoryRow> {
protected:
    void SetUp() override { ASSERT_EQ(m_history.size(), GetParam().records); }

    const std::vector<CuratorBaseData> m_history = ReadHistory(GetParam().name);
    const Surroundings::TimeZone m_zone{GetParam().zone};
};

TEST_P(RankingVectorsTest, AccumulatesTheSecondsOfEveryUnit) {
    std::vector<std::unique_ptr<WrittenUnit>> units;
    std::map<std::string, WrittenUnit*> unitsById;
    for (const CuratorBaseData& record : m_history) {
        WrittenUnit*& unit = unitsById[record.GetUnitId()];
        if (unit == nullptr) {
            unit = units.emplace_back(std::make_unique<WrittenUnit>(record.GetUnitId())).get();
        }
        unit->LearnHistory(record, 1.0);
    }
    ASSERT_EQ(units.size(), GetParam().units);
    Words vectors(GetParam().name + std::string(".sums"));
    for (const auto& unit : units) {
        ASSERT_EQ(unit->Write(), vectors.Line());
    }
    EXPECT_TRUE(vectors.AtEnd());
}

TEST_P(RankingVectorsTest, RanksAndScoresEachRequestExactly) {
    const std::map<std::string, ECuratorAgentType> types = {
        {"mru", CURATOR_AGENT_MRU}, {"mfu", CURATOR_AGENT_MFU}, {"date", CURATOR_AGENT_DATE}};
    Words vectors(GetParam().name + std::string(".rankings"));
    ASSERT_EQ(vectors.Text(), "zone");
    ASSERT_EQ(vectors.Text(), GetParam().zone);
    std::map<std::string, std::unique_ptr<CCuratorAgent>> agents;
    std::map<std::string, CuratorBaseData7x24> grids;
    int rankingCount = 0;
    int cellCount = 0;
    while (!vectors.AtEnd()) {
        const bool isCell = vectors.Text() == "cell";
        const std::string type = isCell ? "date" : vectors.Text();
        const int minDuration = vectors.Number();
        const int maxResult = vectors.Number();
        const std::string key = type + " " + std::to_string(minDuration) + " " + std::to_string(maxResult);
        SCOPED_TRACE(key);
        std::unique_ptr<CCuratorAgent>& agent = agents[key];
        if (agent == nullptr) {
            agent = std::make_unique<CCuratorAgent>(types.at(type), maxResult, minDuration);
            agent->LearnHistorys(m_history);
            if (isCell) {
                grids[key] = agent->RunCurate7x24();
            }
        }
        if (isCell) {
            const int day = vectors.Number();
            const int hour = vectors.Number();
            ASSERT_EQ(IdsAndScores(grids.at(key).m_listData[day][hour]), vectors.Ranking())
                << "day " << day << ", hour " << hour;
            ++cellCount;
        } else {
            const int now = vectors.Number();
            const TestClock::Frozen clock(now);
            ASSERT_EQ(IdsAndScores(agent->RunCurate()), vectors.Ranking()) << "at " << now;
            ++rankingCount;
        }
    }
    EXPECT_EQ(rankingCount, 2 * (1 + 1 + 4));
    EXPECT_EQ(cellCount, 2 * 7 * 24);
}

INSTANTIATE_TEST_SUITE_P(RealHistories, RankingVectorsTest,
                         ::testing::Values(HistoryRow{"tv_a", "America/Sao_Paulo", 2121, 119},
                                           HistoryRow{"music_d", "Europe/Copenhagen", 54429, 2169}),
                         [](const ::testing::TestParamInfo<HistoryRow>& row) { return std::string(row.param.name); });

}  // namespace
