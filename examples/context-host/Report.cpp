// SPDX-License-Identifier: Apache-2.0
#include "Report.h"

#include <ContextString.h>
#include <glib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

constexpr std::size_t kPipeWidth = 100;  // columns where standard output is no terminal
constexpr double kSecondsPerHour = 3600.0;
constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

std::size_t OutputWidth() {
    winsize size{};
    if (isatty(STDOUT_FILENO) != 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return kPipeWidth;
}

/// Columns of a terminal that a character takes.
std::size_t WidthOf(gunichar character) {
    return g_unichar_iszerowidth(character) ? 0 : (g_unichar_iswide(character) ? 2 : 1);
}

std::size_t WidthOf(const std::string& text) {
    std::size_t width = 0;
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        width += WidthOf(g_utf8_get_char(at));
    }
    return width;
}

/// A name as it may go to a terminal: no control characters, whatever the history says.
std::string Printable(const std::string& text) {
    std::string result;
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        if (g_unichar_iscntrl(g_utf8_get_char(at))) {
            result += "\uFFFD";
        } else {
            result.append(at, static_cast<const char*>(g_utf8_next_char(at)));
        }
    }
    return result;
}

/// Exactly `width` columns: cut with an ellipsis, or filled with blanks.
std::string Fit(const std::string& text, std::size_t width) {
    if (WidthOf(text) <= width) {
        return text + std::string(width - WidthOf(text), ' ');
    }
    std::string result;
    std::size_t used = 0;
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const std::size_t next = WidthOf(g_utf8_get_char(at));
        if (used + next + 1 > width) {
            break;
        }
        result.append(at, static_cast<const char*>(g_utf8_next_char(at)));
        used += next;
    }
    return result + "…" + std::string(width - used - 1, ' ');
}

std::string FitRight(const std::string& text, std::size_t width) {
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string LocalTime(double seconds) {
    return ContextString::time_to_sqltime(ContextString::ConvertTimeFormat(static_cast<long>(seconds)));
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

}  // namespace

void Report::PrintRanking(const std::list<CuratorBaseData>& ranking, ECuratorAgentType type, int recordCount) {
    const Wording wording = WordingOf(type);
    std::printf("%s, of %d records\n\n", wording.title.c_str(), recordCount);
    if (ranking.empty()) {
        std::puts("Nothing to rank.");
        return;
    }
    std::vector<std::string> names;
    std::vector<std::string> scores;
    std::size_t nameWidth = 4;
    std::size_t scoreWidth = wording.score.size();
    for (const CuratorBaseData& record : ranking) {
        names.push_back(Printable(record.m_strMetaData.empty() ? record.GetUnitId() : record.m_strMetaData));
        scores.push_back(type == CURATOR_AGENT_MRU ? LocalTime(record.m_dScore) : Hours(record.m_dScore));
        nameWidth = std::max(nameWidth, WidthOf(names.back()));
        scoreWidth = std::max(scoreWidth, scores.back().size());
    }
    const std::size_t rankWidth = std::max<std::size_t>(2, std::to_string(ranking.size()).size());
    const std::size_t width = OutputWidth();
    const std::size_t fixed = 1 + rankWidth + 2 + 2 + scoreWidth + 2;
    nameWidth = std::min(nameWidth, std::max<std::size_t>(10, width > fixed + 10 ? width - fixed - 10 : 0));
    const std::size_t deviceWidth =
        std::max<std::size_t>(10, width > fixed + nameWidth ? width - fixed - nameWidth : 0);

    const auto printRow = [&](const std::string& rank, const std::string& name, const std::string& score,
                              const std::string& device) {
        const std::string line = " " + FitRight(rank, rankWidth) + "  " + Fit(name, nameWidth) + "  " +
                                 FitRight(score, scoreWidth) + "  " + Fit(device, deviceWidth);
        std::puts(Trimmed(line).c_str());
    };
    printRow("#", "Name", wording.score, "Latest device");
    std::size_t rank = 0;
    for (const CuratorBaseData& record : ranking) {
        printRow(std::to_string(rank + 1), names[rank], scores[rank], Printable(record.m_strMetaDataSrc));
        ++rank;
    }
}

void Report::PrintWeek(const CuratorBaseData7x24& grid, int recordCount) {
    constexpr std::size_t kHourWidth = 5;
    constexpr std::size_t kNarrowest = 61;  // the hour, and seven cells of eight columns
    std::printf("Usual in each hour of the week, of %d records\n\n", recordCount);
    const std::size_t width = std::max(OutputWidth(), kNarrowest);
    const std::size_t cellWidth = (width - kHourWidth) / 7 - 1;
    std::string line = std::string(kHourWidth, ' ');
    for (const char* day : kDays) {
        line += " " + Fit(day, cellWidth);
    }
    std::puts(Trimmed(line).c_str());
    for (int hour = 0; hour < 24; ++hour) {
        char label[16];
        std::snprintf(label, sizeof(label), "%02d:00", hour);
        line = label;
        for (int day = 0; day < 7; ++day) {
            const std::list<CuratorBaseData>& ranking = grid.m_listData[day][hour];
            const std::string name = ranking.empty()                         ? "-"
                                     : ranking.front().m_strMetaData.empty() ? ranking.front().GetUnitId()
                                                                             : ranking.front().m_strMetaData;
            line += " " + Fit(Printable(name), cellWidth);
        }
        std::puts(Trimmed(line).c_str());
    }
}

void Report::PrintEvaluation(const std::vector<Evaluation::Result>& results, int recordCount) {
    const int tries = results.front().tries;
    std::printf("How often the next use was foreseen: %d uses, the last fifth of %d records\n\n", tries, recordCount);
    if (tries == 0) {
        std::puts("Nothing to foresee.");
        return;
    }
    std::puts(" Ranking by       Top 1   Top 3   Top 5    MRR");
    for (std::size_t row = 0; row < results.size(); ++row) {
        if (row == Evaluation::kRankings) {
            std::puts("\n Choosing among the three\n Bandit agent     Top 1   Top 3   Top 5    MRR");
        }
        const Evaluation::Result& result = results[row];
        const auto percent = [tries](int count) { return 100.0 * count / tries; };
        std::printf(" %-14s %5.1f %%  %4.1f %%  %4.1f %%  %.3f\n", result.name.c_str(), percent(result.first),
                    percent(result.amongThree), percent(result.amongFive), result.inverses / tries);
    }
}

Report::ProgressBar::ProgressBar() : m_isTerminal(isatty(STDERR_FILENO) != 0) {}

Report::ProgressBar::~ProgressBar() {
    if (m_drawn >= 0) {
        std::fputs("\r\033[K", stderr);
    }
}

void Report::ProgressBar::Draw(const char* what, std::size_t done, std::size_t all) {
    constexpr int kSteps = 40;
    const int steps = all == 0 ? kSteps : static_cast<int>(done * kSteps / all);
    if (!m_isTerminal || steps == m_drawn) {
        return;
    }
    m_drawn = steps;
    const std::string bar =
        std::string(static_cast<std::size_t>(steps), '#') + std::string(static_cast<std::size_t>(kSteps - steps), '.');
    std::fprintf(stderr, "\r\033[K[%s] %s: %zu of %zu records", bar.c_str(), what, done, all);
    std::fflush(stderr);
}
