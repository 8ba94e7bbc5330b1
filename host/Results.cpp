// SPDX-License-Identifier: Apache-2.0
#include "Results.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AgentName.h"
#include "Evaluation.h"
#include "Interrupts.h"
#include "Page.h"
#include "Report.h"
#include "Terminal.h"

namespace {

/// The results of one pass over the store.
struct Findings {
    int recordCount = 0;
    std::unique_ptr<CCuratorAgent> agents[kAgentCount];  ///< by type; null if the options do not need it
    std::optional<Evaluation> evaluation;                ///< empty if the options do not need it
};

Findings ReadStore(UsageStore& store, const Options& options) {
    Findings findings;
    findings.recordCount = store.CountRecords();
    for (std::size_t type = 0; type < kAgentCount; ++type) {
        const auto agent = static_cast<ECuratorAgentType>(type);
        if (options.page || (!options.evaluate && agent == options.agent)) {
            findings.agents[type] = std::make_unique<CCuratorAgent>(agent, options.max, options.minDuration);
        }
    }
    if (options.page || options.evaluate) {
        findings.evaluation.emplace();
    }
    const int firstTested = findings.recordCount - findings.recordCount / 5;
    int index = 0;
    store.ForEachBlock([&](const std::vector<CuratorBaseData>& block) {
        for (const auto& agent : findings.agents) {
            if (agent) {
                agent->LearnHistorys(block);
            }
        }
        if (findings.evaluation) {
            for (const CuratorBaseData& record : block) {
                const bool isTested = index++ >= firstTested;
                if (record.m_nDuration >= static_cast<unsigned int>(options.minDuration)) {
                    findings.evaluation->Take(record, isTested);
                }
            }
        }
    });
    return findings;
}

ExitStatus WritePage(const Findings& findings, const std::string& path) {
    const std::string page = Page::Make(
        {findings.agents[CURATOR_AGENT_DATE]->RunCurate7x24(), findings.agents[CURATOR_AGENT_MRU]->RunCurate(),
         findings.agents[CURATOR_AGENT_MFU]->RunCurate(), findings.evaluation->Results(), findings.recordCount});
    Interrupts::Catch();  // a page that is being written is completed
    const std::string problem = Page::Write(path, page);
    Interrupts::Release();
    if (!problem.empty()) {
        return Complain(EXIT_NO_PAGE, "cannot write the page: " + problem);
    }
    std::fprintf(stderr, "wrote %s; open it in a browser\n", Terminal::Escaped(path).c_str());
    return EXIT_OK;
}

void Print(const Findings& findings, const Options& options) {
    if (options.evaluate) {
        Report::PrintEvaluation(findings.evaluation->Results(), findings.recordCount);
        return;
    }
    CCuratorAgent& agent = *findings.agents[options.agent];
    if (options.weekly) {
        const CuratorBaseData7x24 grid = agent.RunCurate7x24();
        if (options.json) {
            std::fputs(CurationResult2JsonData(grid, CuratorData2ContextData).c_str(), stdout);
        } else {
            Report::PrintWeek(grid, findings.recordCount);
        }
        return;
    }
    const std::list<CuratorBaseData> ranking = agent.RunCurate();
    if (options.json) {
        std::fputs(CurationResult2JsonData(ranking, CuratorData2ContextData).c_str(), stdout);
    } else {
        Report::PrintRanking(ranking, options.agent, findings.recordCount);
    }
}

}  // namespace

ExitStatus ShowResults(UsageStore& store, const Options& options) {
    const Findings findings = ReadStore(store, options);
    if (options.page) {
        const ExitStatus status = WritePage(findings, *options.page);
        if (status != EXIT_OK) {
            return status;
        }
    }
    Print(findings, options);
    const std::string problem = Terminal::FinishOutput();
    return problem.empty() ? EXIT_OK : Complain(EXIT_NO_OUTPUT, problem);
}
