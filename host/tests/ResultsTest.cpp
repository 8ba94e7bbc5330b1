// SPDX-License-Identifier: Apache-2.0
#include "Results.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

/// Ten records of two units in two blocks. Counts how often they are read.
class CountingStore : public UsageStore {
public:
    int CountRecords() override { return 10; }

    void ForEachBlock(const std::function<void(const std::vector<CuratorBaseData>&)>& take) override {
        ++reads;
        for (int block = 0; block < 2; ++block) {
            std::vector<CuratorBaseData> records;
            for (int index = 0; index < 5; ++index) {
                CuratorBaseData& record = records.emplace_back();
                record.SetUnitId(index == 4 ? "rare" : "often");
                record.m_strMetaData = index == 4 ? "Seldom <used>" : "Often used";
                record.m_nStartTime = 1000 * (5 * block + index);
                record.m_nDuration = 60;
            }
            take(records);
        }
    }

    int reads = 0;
};

class ResultsTest : public testing::Test {
protected:
    ResultsTest() : m_folder(std::filesystem::temp_directory_path() / ("ResultsTest." + std::to_string(getpid()))) {
        std::filesystem::create_directory(m_folder);
    }
    ~ResultsTest() override { std::filesystem::remove_all(m_folder); }

    /// @return the text printed on standard output.
    std::string Show(const Options& options) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const ExitStatus status = ShowResults(m_store, options);
        const std::string messages = testing::internal::GetCapturedStderr();
        EXPECT_EQ(status, EXIT_OK) << messages;
        return testing::internal::GetCapturedStdout();
    }

    std::string PagePath() const { return m_folder / "page.html"; }

    CountingStore m_store;
    std::filesystem::path m_folder;
};

struct Case {
    const char* name;
    ECuratorAgentType agent;
    bool weekly;
    bool json;
    bool evaluate;
    const char* output;  ///< must be part of the printed text

    Options AsOptions() const {
        Options options;
        options.agent = agent;
        options.weekly = weekly;
        options.json = json;
        options.evaluate = evaluate;
        return options;
    }
};

constexpr Case kCases[] = {
    {"recency", CURATOR_AGENT_MRU, false, true, false, R"("list":[{"Id":"rare","Score":9000.0})"},
    {"total use", CURATOR_AGENT_MFU, false, true, false, R"("list":[{"Id":"often","Score":480.0})"},
    {"current hour", CURATOR_AGENT_DATE, false, true, false, R"("list":[{"Id":"often")"},
    {"table", CURATOR_AGENT_MFU, false, false, false, "Most used, of 10 records"},
    {"week", CURATOR_AGENT_DATE, true, false, false, "Top unit of each hour of the week, of 10 records"},
    {"week as JSON", CURATOR_AGENT_DATE, true, true, false, R"("Size":7)"},
    {"evaluation", CURATOR_AGENT_MFU, false, false, true, "2 uses, the last fifth of 10 records"},
};

}  // namespace

TEST_F(ResultsTest, ReadsTheStoreOnceForEachOutput) {
    for (const Case& row : kCases) {
        SCOPED_TRACE(row.name);
        m_store.reads = 0;
        const std::string output = Show(row.AsOptions());
        EXPECT_NE(output.find(row.output), std::string::npos) << output;
        EXPECT_EQ(m_store.reads, 1);
    }
}

TEST_F(ResultsTest, ReadsTheStoreOnceForAPageAndTheOutput) {
    for (const Case& row : kCases) {
        SCOPED_TRACE(row.name);
        Options options = row.AsOptions();
        const std::string plain = Show(options);
        m_store.reads = 0;
        options.page = PagePath();
        EXPECT_EQ(Show(options), plain);
        EXPECT_EQ(m_store.reads, 1);
    }
}

TEST_F(ResultsTest, WritesRankingsNamesAndEvaluationToThePage) {
    Options options;
    options.page = PagePath();
    Show(options);
    std::ifstream file(PagePath());
    const std::string page{std::istreambuf_iterator<char>(file), {}};
    for (const char* part :
         {R"({"Id":"rare","Name":"Seldom \u003cused>","Score":9000.0})",
          R"({"Id":"often","Name":"Often used","Score":480.0})", R"("Tries":2)", R"("Records":10)"}) {
        EXPECT_NE(page.find(part), std::string::npos) << part;
    }
}

TEST_F(ResultsTest, PrintsNothingWhenThePageCannotBeWritten) {
    Options options;
    options.page = m_folder / "missing" / "page.html";
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(ShowResults(m_store, options), EXIT_NO_PAGE);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("does not exist"), std::string::npos);
}
