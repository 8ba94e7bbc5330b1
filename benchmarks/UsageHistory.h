// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_BENCHMARKS_USAGE_HISTORY_H
#define LUMORA_COMMON_BENCHMARKS_USAGE_HISTORY_H

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Provider/CuratorBaseData.h"

/// The usage history for the benchmarks: one person's music during a year.
namespace UsageHistory {

/// Splits a line of comma-separated fields; fields may be quoted.
inline std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields(1);
    bool isQuoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"') {
            if (isQuoted && i + 1 < line.size() && line[i + 1] == '"') {
                fields.back() += line[++i];
            } else {
                isQuoted = !isQuoted;
            }
        } else if (line[i] == ',' && !isQuoted) {
            fields.emplace_back();
        } else {
            fields.back() += line[i];
        }
    }
    return fields;
}

inline std::vector<CuratorBaseData> Read(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);  // the header
    std::vector<CuratorBaseData> records;
    while (std::getline(file, line)) {
        const std::vector<std::string> fields = Fields(line);
        CuratorBaseData& record = records.emplace_back();
        record.SetUnitId(fields.at(0));
        record.SetUnitName(fields.at(1));
        record.SetUnitDeviceName(fields.at(2));
        record.m_nStartTime = std::stoi(fields.at(3));
        record.m_nDuration = static_cast<unsigned int>(std::stoul(fields.at(4)));
    }
    if (records.empty()) {
        throw std::runtime_error("no records in " + path);
    }
    return records;
}

/// 54429 records of 2169 units, ordered by start time.
inline const std::vector<CuratorBaseData>& Music() {
    static const std::vector<CuratorBaseData> records = Read(LUMORA_HISTORIES "/music_d.csv");
    return records;
}

/// Sets the time zone of the process to that of the history.
inline void SetTimeZone() {
    setenv("TZ", "Europe/Copenhagen", /*overwrite=*/1);
    tzset();
}

}  // namespace UsageHistory

#endif  // LUMORA_COMMON_BENCHMARKS_USAGE_HISTORY_H
