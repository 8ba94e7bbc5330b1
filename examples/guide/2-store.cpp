// SPDX-License-Identifier: Apache-2.0
#include <ContextDatabase.h>
#include <ContextString.h>
#include <Provider/CuratorAgent.h>

#include <cstdio>

using Rows = std::vector<std::map<std::string, std::string>>;

// A failed write wipes the file: neither of these statements can fail on a sound disk.
constexpr const char* kCreate =
    "CREATE TABLE IF NOT EXISTS usage (unit TEXT, start INTEGER, seconds INTEGER, UNIQUE (start, unit))";
constexpr const char* kInsert = "INSERT OR IGNORE INTO usage VALUES (?, ?, ?)";

void Store(ContextDatabase& database, const std::string& unit, int start, int seconds) {
    ContextDatabase::ValueList values;
    database.SetQueryValue(values, unit);
    database.SetQueryValue(values, start);
    database.SetQueryValue(values, seconds);
    database.ExecuteQuery(kInsert, values, /*immediate=*/true);
}

void LearnFrom(ContextDatabase& database, CCuratorAgent& agent) {
    Rows rows;
    database.SelectQuery("SELECT unit, start, seconds FROM usage ORDER BY start", {}, rows);
    for (Rows::value_type& row : rows) {
        CuratorBaseData record;
        record.SetUnitId(row["unit"]);
        record.m_nStartTime = ContextString::string2int(row["start"]);
        record.m_nDuration = static_cast<unsigned int>(ContextString::string2int(row["seconds"]));
        agent.LearnHistory(record);
    }
}

int main() {
    ContextDatabase database("guide.db", kCreate);
    if (!database.IsRunning()) {
        std::fputs("the database cannot be opened: see the system log\n", stderr);
        return 1;
    }
    Store(database, "radio", 1700000000, 600);
    Store(database, "camera", 1700003600, 900);
    Store(database, "radio", 1700007200, 1200);
    Store(database, "radio", 1700007200, 1200);  // reported twice, stored once

    CCuratorAgent agent(CURATOR_AGENT_MFU, /*maxResult=*/10, /*minDuration=*/0);
    LearnFrom(database, agent);
    std::fputs(CurationResult2JsonData(agent.RunCurate(), CuratorData2ContextData).c_str(), stdout);
}
