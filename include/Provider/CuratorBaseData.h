// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_CURATOR_BASE_DATA_H
#define LUMORA_COMMON_PROVIDER_CURATOR_BASE_DATA_H

#include <list>
#include <string>

#include "ContextData.h"
#include "LumoraApi.h"

/// @addtogroup curation
/// @{

/// One record of the curation engine: a usage when it is learnt, a ranked unit in a result.
///
/// A value type. In a result, only the unit id, the score and the two metadata texts are set.
///
/// **Units.** Times are seconds since the epoch; durations are seconds.
/// **Threads.** Not thread-safe.
/// **Errors.** Nothing is logged. When memory runs out, copying a record or one of its texts throws `std::bad_alloc`. A
/// setter then changes nothing; an assignment may have copied some of the fields. clear() and moves throw nothing.
class LUMORA_API CuratorBaseData {
public:
    /// Leaves every text empty and every number 0.
    CuratorBaseData() = default;
    virtual ~CuratorBaseData() = default;

    CuratorBaseData(const CuratorBaseData&) = default;             ///< Copies every field.
    CuratorBaseData& operator=(const CuratorBaseData&) = default;  ///< Copies every field.
    CuratorBaseData(CuratorBaseData&&) = default;                  ///< Moves the texts.
    CuratorBaseData& operator=(CuratorBaseData&&) = default;       ///< Moves the texts.

    /// Resets every field to its default.
    virtual void clear();

    /// @name Identity
    /// The engine accumulates a history for each unit id. It does not read the names, and leaves them empty in results.
    /// @{
    void SetUnitId(const std::string& unitId) { m_strUnitId = unitId; }          ///< Sets the id.
    void SetUnitName(const std::string& unitName) { m_strUnitName = unitName; }  ///< Sets the name.
    void SetUnitDeviceName(const std::string& deviceName) {
        m_strUnitDeviceName = deviceName;
    }                                                                      ///< Sets the device name.
    std::string GetUnitId() const { return m_strUnitId; }                  ///< Returns a copy.
    std::string GetUnitName() const { return m_strUnitName; }              ///< Returns a copy.
    std::string GetUnitDeviceName() const { return m_strUnitDeviceName; }  ///< Returns a copy.
    /// @}

    std::string m_strMetaData;     ///< metadata of the unit; in a result the latest non-empty one
    std::string m_strMetaDataSrc;  ///< source of the metadata; in a result the latest non-empty one
    int m_nStartTime = 0;          ///< start of the usage; read as unsigned by CCuratorMRUUnit
    int m_nAux = 0;                ///< for the host; never read, 0 in a result
    unsigned int m_nDuration = 0;  ///< length of the usage
    double m_dScore = 0.0;         ///< in a result: the unit's score
    double m_dAux[4] = {};         ///< for the host; never read, 0 in a result

private:
    friend LUMORA_API bool IsSequenceEqual(const std::list<CuratorBaseData>& a, const std::list<CuratorBaseData>& b);

    std::string m_strUnitId;
    std::string m_strUnitName;
    std::string m_strUnitDeviceName;
};

/// One ranking for each hour of the week, indexed as `tm_wday` (0 = Sunday) and `tm_hour` count.
///
/// **Errors.** When memory runs out, a copy throws `std::bad_alloc`; an assignment may have copied some of the
/// rankings.
struct LUMORA_API CuratorBaseData7x24 {
    std::list<CuratorBaseData> m_listData[7][24];  ///< rankings by day and hour
};

/// Compares two rankings by their unit ids only; scores and all other fields are ignored. Allocates nothing.
/// @return true if both contain the same ids in the same order.
LUMORA_API bool IsSequenceEqual(const std::list<CuratorBaseData>& a, const std::list<CuratorBaseData>& b);

/// Compares two weekly grids cell by cell, by unit ids only. Allocates nothing.
/// @return true if all 168 pairs of rankings compare equal.
LUMORA_API bool IsSequenceEqual(const CuratorBaseData7x24& a, const CuratorBaseData7x24& b);

/// The standard writer for one record of a result: sets "Id", "Score" and, if it is not empty, "MetaDataSrc".
///
/// When memory runs out, it throws `std::bad_alloc` or jsoncpp's `Json::RuntimeError`; `out` may then have some of the
/// members.
/// @param record  the record to write.
/// @param out     an empty document; becomes an object.
LUMORA_API void CuratorData2ContextData(const CuratorBaseData& record, ContextData& out);

/// Serialises a ranking. Throws what the writer throws and, when memory runs out, `std::bad_alloc` or jsoncpp's
/// `Json::RuntimeError`.
/// @param result  the ranking.
/// @param writer  writes one record into an empty document: CuratorData2ContextData() or a function of the host.
///                Not null.
/// @return JSON text, {"list": [ {...}, ... ], "Size": n}, and a line feed. An empty ranking has no "list".
LUMORA_API std::string CurationResult2JsonData(const std::list<CuratorBaseData>& result,
                                               void (*writer)(const CuratorBaseData&, ContextData&));

/// Serialises a weekly grid.
///
/// Days are "Sun" to "Sat", hours are "0" to "23". Hours with an empty ranking are omitted, and so are days without
/// any hour. The outer "Size" is the number of days written. Each day and each hour is wrapped in an array of one
/// element; these arrays are part of the format. Throws as for a ranking.
/// @param result  the grid.
/// @param writer  writes one record, as for a ranking. Not null.
/// @return JSON text, {"Sun": [ {"20": [ {"list": [ {...}, ... ], "Size": 3} ]} ], ..., "Size": n}, and a line feed.
LUMORA_API std::string CurationResult2JsonData(const CuratorBaseData7x24& result,
                                               void (*writer)(const CuratorBaseData&, ContextData&));

/// @}

#endif  // LUMORA_COMMON_PROVIDER_CURATOR_BASE_DATA_H
