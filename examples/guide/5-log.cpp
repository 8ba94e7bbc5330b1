// SPDX-License-Identifier: Apache-2.0
#include <ContextDatabase.h>
#include <SystemLog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

using Rows = std::vector<std::map<std::string, std::string>>;

// Replaces the library's log call. It may be called from any thread, with locks held: it writes, and does not call
// the library. It prints the text after the prefix of file, function and line.
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
