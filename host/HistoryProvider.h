// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_HISTORY_PROVIDER_H
#define CONTEXT_HOST_HISTORY_PROVIDER_H

#include <Provider/BaseProvider.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

/// A history that cannot be used; what() is the one line that the user reads.
class HistoryError : public std::runtime_error {
public:
    enum class Kind { Unreadable, Malformed };

    HistoryError(Kind kind, const std::string& message) : std::runtime_error(message), m_kind(kind) {}
    Kind GetKind() const { return m_kind; }

private:
    Kind m_kind;
};

/// The codes that a HistoryProvider publishes with.
enum HistoryCode : int {
    HISTORY_RECORD = 0,  ///< one usage record, as JSON text
    HISTORY_END = 1,     ///< the history is complete; the text is empty
};

/// Reads the usage history of one device from a CSV file and publishes it, record by record, under a subject of its
/// own.
///
/// A history is known by the name of its file, without folder and extension: that is the device's name, too.
class HistoryProvider : public CBaseProvider {
public:
    struct Record {
        std::string unitId;
        std::string unitName;
        std::string deviceName;
        int startTime;   ///< seconds since the epoch
        int duration;    ///< seconds
        int occurrence;  ///< counts equal rows of the file from 0, so that every one of them is a record of its own
    };

    /// Reads and checks the whole file, so that a history with a malformed row is never published in part.
    /// @throws HistoryError
    explicit HistoryProvider(const std::string& path);

    const std::string& Subject() const { return m_subject; }
    std::size_t Size() const { return m_records.size(); }

    /// Publishes the records in the order of the file and, after the last one, the end.
    /// @param mayGoOn  asked before each record; publishing ends, without the end, when it returns false.
    void PublishAll(const std::function<bool()>& mayGoOn);

private:
    std::string m_subject;
    std::vector<Record> m_records;
};

#endif  // CONTEXT_HOST_HISTORY_PROVIDER_H
