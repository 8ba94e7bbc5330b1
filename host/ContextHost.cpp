// SPDX-License-Identifier: Apache-2.0
#include "ContextHost.h"

#include <ContextData.h>
#include <ContextString.h>
#include <glib.h>

#include <chrono>
#include <climits>
#include <map>

#include "HistoryProvider.h"

namespace {

constexpr int kFlushInterval = 1;  // seconds
constexpr int kBlockSize = 4096;   // rows
constexpr std::chrono::minutes kLongestFlush{2};
constexpr gulong kPollMicroseconds = 20000;

// A failed write wipes the database, so these statements are written not to fail on a working disk: the table is
// created only if it is missing, and a record that is already stored is ignored. Equal rows of one history differ in
// their occurrence.
constexpr const char* kTable =
    "usage (history TEXT, unit_id TEXT, unit_name TEXT, device_name TEXT, "
    "start_time INTEGER, duration INTEGER, occurrence INTEGER, "
    "UNIQUE (start_time, unit_id, duration, occurrence, history, device_name, unit_name))";
constexpr const char* kInsert = "INSERT OR IGNORE INTO usage VALUES (?, ?, ?, ?, ?, ?, ?)";
// After each batch, its number is written to the file. The number is 0 in a file that is new or was reset.
constexpr const char* kReadMark = "PRAGMA user_version";
// Another program that reads the store may lock it for a moment.
constexpr const char* kWaitForLocks = "PRAGMA busy_timeout = 5000";
// One journal file for all transactions: a second name can keep it. Changing the mode back removes it.
constexpr const char* kKeepJournal = "PRAGMA journal_mode = TRUNCATE";
constexpr const char* kRemoveJournal = "PRAGMA journal_mode = DELETE";
constexpr const char* kSelectBlock =
    "SELECT rowid, unit_id, unit_name, device_name, start_time, duration FROM usage "
    "WHERE (start_time, rowid) > (?, ?) ORDER BY start_time, rowid LIMIT ?";

}  // namespace

ContextHost::ContextHost(const std::string& databaseName)
    : m_database(databaseName, std::string("CREATE TABLE IF NOT EXISTS ") + kTable, kFlushInterval),
      m_batchNumber(QueryNumber_(kReadMark)) {
    QueryNumber_(kWaitForLocks);
    QueryNumber_(kKeepJournal);
    if (m_batchNumber == 0) {
        WriteMark_(/*immediate=*/true);
    }
}

std::string ContextHost::TableText() {
    return std::string("CREATE TABLE ") + kTable;
}

void ContextHost::BeginBatch() {
    m_database.ExecuteQuery("BEGIN", {}, /*immediate=*/false);
}

void ContextHost::EndBatch() {
    m_database.ExecuteQuery("COMMIT", {}, /*immediate=*/false);
    WriteMark_(/*immediate=*/false);
}

bool ContextHost::WaitForFlush(const std::function<void()>& onWait) {
    const auto end = std::chrono::steady_clock::now() + kLongestFlush;
    while (std::chrono::steady_clock::now() < end) {
        const int reached = QueryNumber_(kReadMark);
        if (reached == m_batchNumber) {
            return true;
        }
        if (reached == 0) {
            return false;  // the database was reset
        }
        onWait();
        g_usleep(kPollMicroseconds);
    }
    return false;
}

void ContextHost::EndWriting() {
    QueryNumber_(kRemoveJournal);
}

int ContextHost::CountRecords() {
    return QueryNumber_("SELECT COUNT(*) FROM usage");
}

std::string ContextHost::Version() {
    // The second number changes with every change by another program, the first with ours: it only adds records.
    return std::to_string(CountRecords()) + " " + std::to_string(QueryNumber_("PRAGMA data_version"));
}

void ContextHost::ForEachBlock(const std::function<void(const std::vector<CuratorBaseData>&)>& take) {
    long lastStart = INT_MIN;
    int lastRow = 0;
    std::vector<std::map<std::string, std::string>> rows;
    do {
        ContextDatabase::ValueList values;
        m_database.SetQueryValue(values, lastStart);
        m_database.SetQueryValue(values, lastRow);
        m_database.SetQueryValue(values, kBlockSize);
        rows.clear();
        m_database.SelectQuery(kSelectBlock, values, rows);

        std::vector<CuratorBaseData> records;
        records.reserve(rows.size());
        for (auto& row : rows) {
            CuratorBaseData& record = records.emplace_back();
            record.SetUnitId(row["unit_id"]);
            record.SetUnitName(row["unit_name"]);
            record.SetUnitDeviceName(row["device_name"]);
            // A ranking returns only the id and the metadata of a unit, so the name and the device are copied there.
            record.m_strMetaData = row["unit_name"];
            record.m_strMetaDataSrc = row["device_name"];
            record.m_nStartTime = ContextString::string2int(row["start_time"]);
            record.m_nDuration = static_cast<unsigned int>(ContextString::string2int(row["duration"]));
            lastStart = record.m_nStartTime;
            lastRow = ContextString::string2int(row["rowid"]);
        }
        take(records);
    } while (rows.size() == kBlockSize);
}

int ContextHost::AddInSubject(CBaseProvider* /*provider*/, const char* subject) {
    m_arrivals.Register(subject);
    return 0;
}

void ContextHost::Publish(const char* subject, int code, const char* data, IProvider* /*provider*/) {
    if (code == HISTORY_END) {
        m_arrivals.Set(subject);
    } else {
        Store_(subject, data);
    }
}

void ContextHost::Store_(const char* subject, const char* text) {
    ContextData data;
    if (!data.MakeData(text)) {
        return;
    }
    ContextDatabase::ValueList values;
    values.reserve(7);
    m_database.SetQueryValue(values, std::string(subject));
    m_database.SetQueryValue(values, data.GetValueStr("unit_id"));
    m_database.SetQueryValue(values, data.GetValueStr("unit_name"));
    m_database.SetQueryValue(values, data.GetValueStr("device_name"));
    m_database.SetQueryValue(values, data.GetValueInt("start_time"));
    m_database.SetQueryValue(values, data.GetValueInt("duration"));
    m_database.SetQueryValue(values, data.GetValueInt("occurrence"));
    m_database.ExecuteQuery(kInsert, values, /*immediate=*/false);
}

void ContextHost::WriteMark_(bool immediate) {
    ++m_batchNumber;
    const std::string mark = "PRAGMA user_version = " + std::to_string(m_batchNumber);
    m_database.ExecuteQuery(mark.c_str(), {}, immediate);
}

int ContextHost::QueryNumber_(const char* query) {
    std::vector<std::map<std::string, std::string>> rows;
    m_database.SelectQuery(query, {}, rows);
    return rows.empty() ? 0 : ContextString::string2int(rows.front().begin()->second);
}
