// SPDX-License-Identifier: Apache-2.0
#include <ContextDatabase.h>
#include <ContextString.h>
#include <glib.h>

#include <cstdio>

using Rows = std::vector<std::map<std::string, std::string>>;

constexpr int kFlushInterval = 1;  // seconds
constexpr const char* kCreate =
    "CREATE TABLE IF NOT EXISTS usage (unit TEXT, start INTEGER, seconds INTEGER, UNIQUE (start, unit))";
constexpr const char* kInsert = "INSERT OR IGNORE INTO usage VALUES (?, ?, ?)";

void Store(ContextDatabase& database, const std::string& unit, int start, int seconds) {
    ContextDatabase::ValueList values;
    database.SetQueryValue(values, unit);  // copied: a std::string may be destroyed before the flush
    database.SetQueryValue(values, start);
    database.SetQueryValue(values, seconds);
    database.ExecuteQuery(kInsert, values, /*immediate=*/false);
}

int Count(ContextDatabase& database) {
    Rows rows;
    database.SelectQuery("SELECT COUNT(*) AS n FROM usage", {}, rows);
    return rows.empty() ? 0 : ContextString::string2int(rows.front()["n"]);
}

// Waits for the last flush: writes still deferred when the database object is destroyed are lost.
bool WaitFor(ContextDatabase& database, int count) {
    for (int tries = 0; tries < 1000; ++tries) {
        if (Count(database) == count) {
            return true;
        }
        g_usleep(10000);
    }
    return false;
}

int main() {
    ContextDatabase database("guide.db", kCreate, kFlushInterval);
    for (int hour = 0; hour < 24; ++hour) {
        Store(database, "radio", 1700000000 + hour * 3600, 600);
    }
    std::puts("24 uses deferred");
    const bool isStored = WaitFor(database, 24);
    std::printf("%d uses stored\n", Count(database));
    return isStored ? 0 : 1;
}
