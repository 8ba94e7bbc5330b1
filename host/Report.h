// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_REPORT_H
#define CONTEXT_HOST_REPORT_H

#include <Provider/CuratorAgent.h>

#include <cstddef>
#include <list>
#include <string>
#include <vector>

#include "Evaluation.h"

/// Prints tables on standard output and a progress bar on standard error.
///
/// On a terminal, headings are bold and names are cut to fit its width. Other output is plain and complete.
namespace Report {

/// Prints a ranking as a table: rank, name, score and latest device.
void PrintRanking(const std::list<CuratorBaseData>& ranking, ECuratorAgentType type, int recordCount);

/// Prints the top unit of every hour of the week: a row for each hour, a column for each day.
void PrintWeek(const CuratorBaseData7x24& grid, int recordCount);

/// Prints how well the rankings, and the bandit agents that choose among them, predicted the next use.
void PrintEvaluation(const std::vector<Evaluation::Result>& results, int recordCount);

/// A progress bar on standard error.
///
/// It is drawn only on a terminal that understands control sequences. A narrow terminal shows only the numbers. The
/// destructor erases it.
class ProgressBar {
public:
    ProgressBar();
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void Draw(const char* what, std::size_t done, std::size_t all);

private:
    bool m_isEnabled;
    int m_drawnSteps = -1;  ///< length of the bar on the screen; -1 before the first Draw()
};

}  // namespace Report

#endif  // CONTEXT_HOST_REPORT_H
