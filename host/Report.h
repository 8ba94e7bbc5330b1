// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_REPORT_H
#define CONTEXT_HOST_REPORT_H

#include <Provider/CuratorAgent.h>

#include <cstddef>
#include <list>
#include <string>
#include <vector>

#include "Evaluation.h"

/// What a person reads: tables on standard output, a progress bar on standard error.
///
/// On a terminal the headings are bold and the names are cut to its width; elsewhere the tables are plain and whole.
namespace Report {

/// Prints a ranking as a table: rank, name, score and the device of the latest use.
void PrintRanking(const std::list<CuratorBaseData>& ranking, ECuratorAgentType type, int recordCount);

/// Prints the first unit of every hour of the week: a row for each hour, a column for each day.
void PrintWeek(const CuratorBaseData7x24& grid, int recordCount);

/// Prints how well the rankings, and the bandit agents that choose among them, foresaw the next use.
void PrintEvaluation(const std::vector<Evaluation::Result>& results, int recordCount);

/// A bar that is drawn only where standard error is a terminal that can wipe it, which happens when it goes. A narrow
/// terminal shows the numbers alone.
class ProgressBar {
public:
    ProgressBar();
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void Draw(const char* what, std::size_t done, std::size_t all);

private:
    bool m_isDrawn;
    int m_drawn = -1;  ///< what is on the screen, in steps of the bar; -1 for nothing
};

}  // namespace Report

#endif  // CONTEXT_HOST_REPORT_H
