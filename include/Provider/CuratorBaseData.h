// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_CURATOR_BASE_DATA_H
#define LUMORA_COMMON_PROVIDER_CURATOR_BASE_DATA_H

#include <list>
#include <string>

#include "ContextData.h"
#include "LumoraApi.h"

/// @addtogroup curation
/// @{

/// One record of the curation engine: a usage on the way in, a ranked unit on the way out.
///
/// A value that is copied freely. In a result only the unit id, the score and the two metadata texts are set.
///
/// **Units.** Times are seconds since the epoch, durations seconds.
/// **Threads.** One at a time, as any value.
class LUMORA_API CuratorBaseData {
public:
    /// Every text empty, every number 0.
    CuratorBaseData() = default;
    virtual ~CuratorBaseData() = default;

    CuratorBaseData(const CuratorBaseData&) = default;             ///< Copies every field.
    CuratorBaseData& operator=(const CuratorBaseData&) = default;  ///< Copies every field.
    CuratorBaseData(CuratorBaseData&&) = default;                  ///< Takes the texts over.
    CuratorBaseData& operator=(CuratorBaseData&&) = default;       ///< Takes the texts over.

    /// Returns to the default-constructed state.
    virtual void clear();

    /// @name Identity
    /// The id is the key under which a history is accumulated; the names are carried for the host.
    /// @{
    void SetUnitId(const std::string& unitId) { m_strUnitId = unitId; }                          ///< Sets the id.
    void SetUnitName(const std::string& unitName) { m_strUnitName = unitName; }                  ///< Sets the name.
    void SetUnitDeviceName(const std::string& deviceName) { m_strUnitDeviceName = deviceName; }  ///< Sets the device.
    std::string GetUnitId() const { return m_strUnitId; }                                        ///< A copy of the id.
    std::string GetUnitName() const { return m_strUnitName; }              ///< A copy of the name.
    std::string GetUnitDeviceName() const { return m_strUnitDeviceName; }  ///< A copy of the device.
    /// @}

    std::string m_strMetaData;     ///< about the unit; in a result the latest that was not empty
    std::string m_strMetaDataSrc;  ///< where the metadata came from; in a result the latest that was not empty
    int m_nStartTime = 0;          ///< start of the usage; read as unsigned where recency is scored
    int m_nAux = 0;                ///< the host's own; carried along
    unsigned int m_nDuration = 0;  ///< length of the usage
    double m_dScore = 0.0;         ///< in a result: the unit's score
    double m_dAux[4] = {};         ///< the host's own; carried along

private:
    friend LUMORA_API bool IsSequenceEqual(const std::list<CuratorBaseData>& a, const std::list<CuratorBaseData>& b);

    std::string m_strUnitId;  ///< the key under which a history is accumulated
    std::string m_strUnitName;
    std::string m_strUnitDeviceName;
};

/// One ranking for each hour of the week: [day, 0 = Sunday][hour, 0 to 23], as `tm_wday` and `tm_hour` count.
struct LUMORA_API CuratorBaseData7x24 {
    std::list<CuratorBaseData> m_listData[7][24];  ///< a ranking each
};

/// Compares two rankings by their unit ids alone: scores and all other fields do not count.
/// @return true when both list the same ids in the same order.
LUMORA_API bool IsSequenceEqual(const std::list<CuratorBaseData>& a, const std::list<CuratorBaseData>& b);

/// Compares two weekly grids, cell by cell, by the unit ids alone.
LUMORA_API bool IsSequenceEqual(const CuratorBaseData7x24& a, const CuratorBaseData7x24& b);

/// The standard writer of one result record: "Id", "Score", and "MetaDataSrc" when it is not empty.
/// @param record  the record to write.
/// @param out     an empty document, which becomes an object.
LUMORA_API void CuratorData2ContextData(const CuratorBaseData& record, ContextData& out);

/// Writes a ranking as JSON text: {"list": [ {...}, ... ], "Size": n} and a line feed. An empty ranking has no "list".
/// @param result  the ranking.
/// @param writer  writes one record into an empty document; CuratorData2ContextData() or the host's own. Not null.
LUMORA_API std::string CurationResult2JsonData(const std::list<CuratorBaseData>& result,
                                               void (*writer)(const CuratorBaseData&, ContextData&));

/// Writes a weekly grid as JSON text and a line feed:
/// {"Sun": [ {"20": [ {"list": [ {...}, ... ], "Size": 3} ]} ], ..., "Size": n}.
///
/// Days are "Sun" to "Sat", hours "0" to "23"; those without a ranking are left out. The outer "Size" counts the days
/// that are present. The arrays of one element around each day and each hour are part of the format.
/// @param result  the grid.
/// @param writer  as above.
LUMORA_API std::string CurationResult2JsonData(const CuratorBaseData7x24& result,
                                               void (*writer)(const CuratorBaseData&, ContextData&));

/// @}

#endif  // LUMORA_COMMON_PROVIDER_CURATOR_BASE_DATA_H
