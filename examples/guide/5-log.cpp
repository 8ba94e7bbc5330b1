// SPDX-License-Identifier: Apache-2.0
#include <ContextDatabase.h>
#include <SystemLog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

using Rows = std::vector<std::map<std::string, std::string>>;

// The host's own log call takes the place of the library's. It may be called from any thread, with locks held: it
// writes, and calls nothing back. The text behind the prefix of file, function and line is what it shows.
int lumora_log_print(int /*buffer*/, int priority, const char* /*tag*/, const char* format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    const char* text = std::strstr(line, " > ");
    std::printf("  %s %s\n", priority == LUMORA_LOG_ERROR ? "error" : "info ", text != nullptr ? text + 3 : line);
    return length;
}

std::size_t CountRows(ContextDatabase& database) {
    Rows rows;
    database.SelectQuery("SELECT unit FROM usage", {}, rows);
    return rows.size();
}

int main() {
    ContextDatabase database("guide.db", "CREATE TABLE IF NOT EXISTS usage (unit TEXT UNIQUE)");
    database.ExecuteQuery("INSERT OR IGNORE INTO usage VALUES ('radio')", {}, /*immediate=*/true);
    database.ExecuteQuery("INSERT OR IGNORE INTO usage VALUES ('radio')", {}, /*immediate=*/true);
    std::printf("%zu row\n", CountRows(database));

    std::puts("INSERT without OR IGNORE:");
    database.ExecuteQuery("INSERT INTO usage VALUES ('radio')", {}, /*immediate=*/true);
    std::printf("%zu rows\n", CountRows(database));
}
