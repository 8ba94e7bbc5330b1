// SPDX-License-Identifier: Apache-2.0
#include <Provider/IProvider.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>

#include "HistoryProvider.h"
#include "Json.h"

namespace {

using Fuzz::Holds;
using Fuzz::Node;
using Fuzz::Same;

const std::vector<std::string> kFields = {"unit_id", "unit_name", "device_name", "start_time", "duration"};

struct Row {
    std::vector<std::string> fields;
    int line = 0;
};

/// The rows of CSV (RFC 4180) whose rows may also end with a single CR or LF. Empty lines are no rows.
struct Table {
    std::vector<Row> rows;
    int faultLine = 0;  ///< the row, after these rows, in which a quote is misplaced or never closed
};

Table TableOf(const std::string& csv) {
    Table table;
    int line = 1;
    for (std::size_t at = 0; at < csv.size();) {
        if (csv[at] == '\n' || csv[at] == '\r') {
            line += csv[at++] == '\n' ? 1 : 0;
            continue;
        }
        Row row{{""}, line};
        bool isQuoted = false;
        bool wasQuoted = false;
        for (; at < csv.size() && (isQuoted || (csv[at] != '\n' && csv[at] != '\r')); ++at) {
            const char character = csv[at];
            line += character == '\n' ? 1 : 0;
            const bool isDouble = isQuoted && character == '"' && at + 1 < csv.size() && csv[at + 1] == '"';
            if (character == '"' && !isDouble) {
                if (!isQuoted && (wasQuoted || !row.fields.back().empty())) {
                    table.faultLine = row.line;
                    return table;
                }
                isQuoted = !isQuoted;
                wasQuoted = true;
            } else if (character == ',' && !isQuoted) {
                row.fields.emplace_back();
                wasQuoted = false;
            } else if (wasQuoted && !isQuoted) {
                table.faultLine = row.line;
                return table;
            } else {
                row.fields.back() += character;
                at += isDouble ? 1 : 0;
            }
        }
        if (isQuoted) {
            table.faultLine = row.line;
            return table;
        }
        table.rows.push_back(row);
    }
    return table;
}

std::optional<long long> SecondsOf(const std::string& text) {
    const std::size_t digits = text.empty() || text[0] != '-' ? 0 : 1;
    if (text.size() == digits || text.find_first_not_of("0123456789", digits) != std::string::npos) {
        return std::nullopt;
    }
    errno = 0;
    const long long seconds = std::strtoll(text.c_str(), nullptr, 10);
    return errno == 0 && seconds >= INT_MIN && seconds <= INT_MAX ? std::optional<long long>(seconds) : std::nullopt;
}

/// @return the record of a row as JSON, without its number; nothing if the row is malformed.
std::optional<Node> RecordOf(const Row& row) {
    if (row.fields.size() != kFields.size() || row.fields[0].empty()) {
        return std::nullopt;
    }
    Node record;
    for (std::size_t field = 0; field < kFields.size(); ++field) {
        const std::string& text = row.fields[field];
        const std::optional<long long> seconds = SecondsOf(text);
        if (!Fuzz::CharactersOf(text) || text.find('\0') != std::string::npos || (field >= 3 && !seconds)) {
            return std::nullopt;
        }
        record[kFields[field]] = field < 3 ? Node::Of(text) : Node::Of(*seconds);
    }
    return record["duration"].isNegative ? std::nullopt : std::optional<Node>(record);
}

/// What an import must give.
struct Expected {
    std::vector<std::string> records;
    std::optional<int> errorLine;  ///< nothing if the history is well formed
};

Expected ExpectedOf(const std::string& csv) {
    const Table table = TableOf(csv);
    Expected expected;
    std::map<std::string, long long> equals;
    if (table.rows.empty()) {
        expected.errorLine = 1;
    }
    for (const Row& row : table.rows) {
        const bool isHeader = &row == &table.rows.front();
        std::optional<Node> record = isHeader ? std::nullopt : RecordOf(row);
        if (isHeader ? row.fields != kFields : !record) {
            expected.errorLine = row.line;
            return expected;
        }
        if (record) {
            (*record)["occurrence"] = Node::Of(equals[Write(*record)]++);
            expected.records.push_back(Write(*record) + "\n");
        }
    }
    if (table.faultLine > 0) {
        expected.errorLine = table.faultLine;
    }
    return expected;
}

/// Keeps what a provider publishes.
class Host : public IProvider {
public:
    std::vector<std::string> records;
    bool hasEnd = false;

    void Publish(const char* /*subject*/, int code, const char* data, IProvider* /*provider*/) override {
        Holds("nothing follows the end", !hasEnd);
        hasEnd = code == HISTORY_END;
        if (!hasEnd) {
            records.emplace_back(data);
        }
    }
    void Publish(const char* /*subject*/, int /*code*/, void* /*data*/, IProvider* /*provider*/) override {}
    int AddInSubject(CBaseProvider* /*provider*/, const char* /*subject*/) override { return 0; }
    int ProviderRequest(const char*, const char*, IProvider*, void*) override { return 0; }
    int ProviderResponse(const char*, int, const char*, IProvider*, void*) override { return 0; }
    int ProviderResponse(const char*, int, void*, IProvider*, void*) override { return 0; }
    int ProviderRead(const char*, const char*, char**) override { return 0; }
    int ProviderWrite(const char*, const char*) override { return 0; }
    int SetTimer(int, timer_cb, void*) override { return 0; }
    bool KillTimer(int) override { return false; }
};

std::string Utf16Of(const std::string& utf8) {
    std::string bytes = "\xFE\xFF";
    const auto append = [&](std::uint32_t unit) {
        bytes += static_cast<char>(static_cast<unsigned char>(unit >> 8));
        bytes += static_cast<char>(static_cast<unsigned char>(unit & 0xFF));
    };
    const auto characters = Fuzz::CharactersOf(utf8);
    for (const std::uint32_t character : characters.value()) {
        if (character >= 0x10000) {
            append(0xD800 + ((character - 0x10000) >> 10));
        }
        append(character < 0x10000 ? character : 0xDC00 + ((character - 0x10000) & 0x3FF));
    }
    return bytes;
}

/// @return nothing if the bytes are not UTF-16 without a zero.
std::optional<std::string> FromUtf16(const std::string& bytes) {
    std::string text;
    std::uint32_t high = 0;
    for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
        const auto unit = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at]) << 8 |
                                                     static_cast<unsigned char>(bytes[at + 1]));
        const bool isLow = unit >= 0xDC00 && unit <= 0xDFFF;
        if (unit == 0 || isLow != (high != 0)) {
            return std::nullopt;
        }
        const bool isHigh = unit >= 0xD800 && unit <= 0xDBFF;
        if (!isHigh) {
            Fuzz::AppendUtf8(text, isLow ? 0x10000 + ((high - 0xD800) << 10) + (unit - 0xDC00) : unit);
        }
        high = isHigh ? unit : 0;
    }
    return bytes.size() % 2 == 0 && high == 0 ? std::optional<std::string>(text) : std::nullopt;
}

bool StartsWith(const std::string& text, const char* start) {
    return text.compare(0, std::strlen(start), start) == 0;
}

void CheckImport(const std::string& bytes, const Expected& expected, bool isLineKnown) {
    static const int file = memfd_create("history", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    Holds("the file is written",
          ftruncate(file, 0) == 0 && pwrite(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    Host host;
    try {
        HistoryProvider provider(path);
        Holds("a malformed history is refused", !expected.errorLine);
        provider.SetProviderHandler(&host);
        provider.PublishAll([] { return true; });
    } catch (const HistoryError& error) {
        const std::string message = error.what();
        Holds(("a well-formed history is taken: " + message).c_str(), expected.errorLine.has_value());
        Holds("it is called malformed", error.GetKind() == HistoryError::Kind::Malformed);
        const std::string place = path + ":";
        Holds("the error names the file", StartsWith(message, place.c_str()));
        if (isLineKnown) {
            Same("the line of the error", std::atoi(message.c_str() + place.size()), *expected.errorLine);
        }
        return;
    }
    Same("the records", host.records, expected.records);
    Holds("the end is published", host.hasEnd);
}

}  // namespace

void Fuzz::Test(Input& input) {
    const std::size_t kind = input.Below(4);
    std::string csv = input.Rest();
    if (kind == 1) {
        csv = "unit_id,unit_name,device_name,start_time,duration\n" + csv;
    }
    // Rows that end with a single CR share a line.
    const bool isLineKnown = csv.find('\r') == std::string::npos;
    const std::optional<std::string> text = StartsWith(csv, "\xFE\xFF") ? FromUtf16(csv.substr(2)) : csv;
    if (kind == 2 && CharactersOf(csv) && csv.find('\0') == std::string::npos) {
        return CheckImport(Utf16Of(csv), ExpectedOf(csv), isLineKnown);
    }
    if (!text) {
        Expected expected;
        expected.errorLine = 1;
        return CheckImport(csv, expected, /*isLineKnown=*/false);
    }
    CheckImport(csv, ExpectedOf(StartsWith(csv, "\xEF\xBB\xBF") ? csv.substr(3) : *text), isLineKnown);
}
