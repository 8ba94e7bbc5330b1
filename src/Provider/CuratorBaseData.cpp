// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorBaseData.h"

#include <algorithm>

namespace {

constexpr int kDays = 7;
constexpr int kHours = 24;
constexpr const char* kDayKeys[kDays] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

using Writer = void (*)(const CuratorBaseData&, ContextData&);

void WriteRanking(const std::list<CuratorBaseData>& ranking, Writer writer, ContextData& out) {
    for (const CuratorBaseData& record : ranking) {
        ContextData item;
        writer(record, item);
        out.SetValue("list", item);
    }
    out.SetValue("Size", static_cast<unsigned int>(ranking.size()));
}

}  // namespace

void CuratorBaseData::clear() {
    *this = CuratorBaseData();
}

bool IsSequenceEqual(const std::list<CuratorBaseData>& a, const std::list<CuratorBaseData>& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](const CuratorBaseData& first, const CuratorBaseData& second) {
               return first.m_strUnitId == second.m_strUnitId;
           });
}

bool IsSequenceEqual(const CuratorBaseData7x24& a, const CuratorBaseData7x24& b) {
    for (int day = 0; day < kDays; ++day) {
        for (int hour = 0; hour < kHours; ++hour) {
            if (!IsSequenceEqual(a.m_listData[day][hour], b.m_listData[day][hour])) {
                return false;
            }
        }
    }
    return true;
}

void CuratorData2ContextData(const CuratorBaseData& record, ContextData& out) {
    out.SetValue("Id", record.GetUnitId());
    out.SetValue("Score", record.m_dScore);
    if (!record.m_strMetaDataSrc.empty()) {
        out.SetValue("MetaDataSrc", record.m_strMetaDataSrc);
    }
}

std::string CurationResult2JsonData(const std::list<CuratorBaseData>& result, Writer writer) {
    ContextData document;
    WriteRanking(result, writer, document);
    return document.MakeStr();
}

std::string CurationResult2JsonData(const CuratorBaseData7x24& result, Writer writer) {
    ContextData document;
    int dayCount = 0;
    for (int day = 0; day < kDays; ++day) {
        bool hasData = false;
        for (int hour = 0; hour < kHours; ++hour) {
            const std::list<CuratorBaseData>& ranking = result.m_listData[day][hour];
            if (ranking.empty()) {
                continue;
            }
            hasData = true;
            // Views into the document: appending complete sub-documents would copy every ranking twice.
            ContextData dayDocument = document.GetValuePtr(kDayKeys[day], 0);
            ContextData hourDocument = dayDocument.GetValuePtr(std::to_string(hour).c_str(), 0);
            WriteRanking(ranking, writer, hourDocument);
        }
        dayCount += hasData ? 1 : 0;
    }
    document.SetValue("Size", dayCount);
    return document.MakeStr();
}
