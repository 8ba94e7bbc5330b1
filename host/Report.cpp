// SPDX-License-Identifier: Apache-2.0
#include "Report.h"

#include <ContextString.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <vector>

#include "Terminal.h"

namespace {

using Terminal::Columns;
using Terminal::Fit;
using Terminal::Heading;
using Terminal::Printable;

constexpr std::size_t kFewestForName = 4;
constexpr std::size_t kFewestForDevice = 10;  // with less room, the column is left out
constexpr double kSecondsPerHour = 3600.0;
constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

std::string FitRight(const std::string& text, std::size_t width) {
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

/// @param score  the start of a use as the ranking by recency returns it: a time before 1970 is greater by 2^32.
std::string LocalTime(double score) {
    const auto seconds = static_cast<std::int32_t>(static_cast<std::uint32_t>(score));
    return ContextString::time_to_sqltime(ContextString::ConvertTimeFormat(seconds));
}

std::string Hours(double seconds) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.1f h", seconds / kSecondsPerHour);
    return text;
}

struct Wording {
    std::string title;
    std::string score;
};

Wording WordingOf(ECuratorAgentType type) {
    switch (type) {
        case CURATOR_AGENT_MRU:
            return {"Most recently used", "Last used"};
        case CURATOR_AGENT_MFU:
            return {"Most used", "Time used"};
        default: {
            const time_t now = time(nullptr);
            tm local{};
            localtime_r(&now, &local);
            char hour[32];
            std::snprintf(hour, sizeof(hour), "%s at %02d:00", kDays[local.tm_wday], local.tm_hour);
            return {std::string("Usual on ") + hour, "Weighted time"};
        }
    }
}

std::string Trimmed(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::string NameOf(const CuratorBaseData& record) {
    return Printable(record.m_strMetaData.empty() ? record.GetUnitId() : record.m_strMetaData);
}

std::string FirstOf(const std::list<CuratorBaseData>& ranking) {
    return ranking.empty() ? "-" : NameOf(ranking.front());
}

void PrintTitle(const std::string& title) {
    std::printf("%s\n\n", Heading(title).c_str());
}

struct Row {
    std::string rank;
    std::string name;
    std::string score;
    std::string device;
};

/// @return the heading and a row for each unit.
std::vector<Row> RowsOf(const std::list<CuratorBaseData>& ranking, ECuratorAgentType type, const std::string& score) {
    std::vector<Row> rows = {{"#", "Name", score, "Latest device"}};
    for (const CuratorBaseData& record : ranking) {
        rows.push_back({std::to_string(rows.size()), NameOf(record),
                        type == CURATOR_AGENT_MRU ? LocalTime(record.m_dScore) : Hours(record.m_dScore),
                        Printable(record.m_strMetaDataSrc)});
    }
    return rows;
}

/// The columns of a table, in characters.
struct Widths {
    std::size_t rank = 2;
    std::size_t name = 0;
    std::size_t score = 0;
    std::size_t device = 0;  ///< 0 leaves the column out
};

Widths WidthsOf(const std::vector<Row>& rows) {
    Widths widths;
    for (const Row& row : rows) {
        widths.rank = std::max(widths.rank, row.rank.size());
        widths.name = std::max(widths.name, Columns(row.name));
        widths.score = std::max(widths.score, row.score.size());
        widths.device = std::max(widths.device, Columns(row.device));
    }
    return widths;
}

/// Narrows the names and the devices until a line fits. Numbers are never cut.
Widths Narrowed(Widths widths, std::size_t lineWidth) {
    const std::size_t fixed = 1 + widths.rank + 2 + 2 + widths.score;
    const std::size_t room = std::max(fixed + kFewestForName, lineWidth) - fixed;
    const bool hasDevice = room >= kFewestForName + 2 + kFewestForDevice;
    widths.name = std::min(widths.name, hasDevice ? room - 2 - kFewestForDevice : room);
    widths.device = hasDevice ? std::min(widths.device, room - 2 - widths.name) : 0;
    return widths;
}

std::string LineOf(const Row& row, const Widths& widths) {
    std::string line = " " + FitRight(row.rank, widths.rank) + "  " + Fit(row.name, widths.name) + "  " +
                       FitRight(row.score, widths.score);
    if (widths.device > 0) {
        line += "  ";
        line += Fit(row.device, widths.device);
    }
    return Trimmed(line);
}

}  // namespace

void Report::PrintRanking(const std::list<CuratorBaseData>& ranking, ECuratorAgentType type, int recordCount) {
    const Wording wording = WordingOf(type);
    PrintTitle(wording.title + ", of " + std::to_string(recordCount) + " records");
    if (ranking.empty()) {
        std::puts(recordCount > 0
                      ? "Nothing to rank."
                      : "Nothing to rank. Import a history: context-host FILE (--help describes the format)");
        return;
    }
    const std::vector<Row> rows = RowsOf(ranking, type, wording.score);
    const Widths widths = Narrowed(WidthsOf(rows), Terminal::WidthOf(STDOUT_FILENO));
    for (const Row& row : rows) {
        const std::string line = LineOf(row, widths);
        std::puts((&row == &rows.front() ? Heading(line) : line).c_str());
    }
}

void Report::PrintWeek(const CuratorBaseData7x24& grid, int recordCount) {
    constexpr std::size_t kHourWidth = 5;
    constexpr std::size_t kFewestForCell = 3;
    PrintTitle("Top unit of each hour of the week, of " + std::to_string(recordCount) + " records");
    std::size_t cellWidth = kFewestForCell;
    for (const auto& day : grid.m_listData) {
        for (const std::list<CuratorBaseData>& ranking : day) {
            cellWidth = std::max(cellWidth, Columns(FirstOf(ranking)));
        }
    }
    const std::size_t width = Terminal::WidthOf(STDOUT_FILENO);
    const std::size_t room = std::max(kHourWidth + 7 * (1 + kFewestForCell), width) - kHourWidth;
    cellWidth = std::min(cellWidth, room / 7 - 1);
    std::string line = std::string(kHourWidth, ' ');
    for (const char* day : kDays) {
        line += " " + Fit(day, cellWidth);
    }
    std::puts(Heading(Trimmed(line)).c_str());
    for (int hour = 0; hour < 24; ++hour) {
        char label[16];
        std::snprintf(label, sizeof(label), "%02d:00", hour);
        line = label;
        for (const auto& day : grid.m_listData) {
            line += " " + Fit(FirstOf(day[hour]), cellWidth);
        }
        std::puts(Trimmed(line).c_str());
    }
}

void Report::PrintEvaluation(const std::vector<Evaluation::Result>& results, int recordCount) {
    constexpr std::size_t kNameWidth = 14;
    constexpr const char* kColumns = "  Top 1   Top 3   Top 5    MRR";
    constexpr std::size_t kColumnsWidth = 32;
    const int tries = results.front().tries;
    PrintTitle("How often the next use was predicted: " + std::to_string(tries) + " uses, the last fifth of " +
               std::to_string(recordCount) + " records");
    if (tries == 0) {
        std::puts(
            "Nothing to predict: at least five records are needed. Import a history: context-host --evaluate FILE");
        return;
    }
    const std::size_t width = Terminal::WidthOf(STDOUT_FILENO);
    const std::size_t nameWidth = std::min(kNameWidth, std::max(kColumnsWidth + kFewestForName, width) - kColumnsWidth);
    const auto printHead = [&](const char* name) { std::puts(Heading(" " + Fit(name, nameWidth) + kColumns).c_str()); };
    printHead("Ranking by");
    for (std::size_t row = 0; row < results.size(); ++row) {
        if (row == Evaluation::kRankings) {
            std::puts("\n Choosing among the three");
            printHead("Bandit agent");
        }
        const Evaluation::Result& result = results[row];
        const auto percent = [tries](int count) { return 100.0 * count / tries; };
        std::printf(" %s %5.1f %%  %4.1f %%  %4.1f %%  %.3f\n", Fit(result.name, nameWidth).c_str(),
                    percent(result.first), percent(result.amongThree), percent(result.amongFive),
                    result.inverses / tries);
    }
}

Report::ProgressBar::ProgressBar() : m_isEnabled(Terminal::IsSmart(STDERR_FILENO)) {}

Report::ProgressBar::~ProgressBar() {
    if (m_drawnSteps >= 0) {
        std::fputs("\r\033[K", stderr);
    }
}

void Report::ProgressBar::Draw(const char* what, std::size_t done, std::size_t all) {
    constexpr int kSteps = 40;
    const int steps = all == 0 ? kSteps : static_cast<int>(done * kSteps / all);
    if (!m_isEnabled || steps == m_drawnSteps) {
        return;
    }
    m_drawnSteps = steps;
    std::string line = std::string(what) + ": " + std::to_string(done) + " of " + std::to_string(all) + " records";
    if (Terminal::WidthOf(STDERR_FILENO) > kSteps + 3 + line.size()) {
        const auto drawn = static_cast<std::size_t>(steps);
        line = "[" + std::string(drawn, '#') + std::string(kSteps - drawn, '.') + "] " + line;
    }
    std::fprintf(stderr, "\r\033[K%s", line.c_str());
    std::fflush(stderr);
}
