// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_HISTORY_PROVIDER_H
#define CONTEXT_HOST_HISTORY_PROVIDER_H

#include <Provider/BaseProvider.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// The error of a history that cannot be used. what() is one line for the user.
class HistoryError : public std::runtime_error {
public:
    enum class Kind { Unreadable, Malformed };

    HistoryError(Kind kind, const std::string& message) : std::runtime_error(message), m_kind(kind) {}
    Kind GetKind() const { return m_kind; }

private:
    Kind m_kind;
};

/// The codes with which a HistoryProvider publishes.
enum HistoryCode : int {
    HISTORY_RECORD = 0,  ///< one usage record, as JSON text
    HISTORY_END = 1,     ///< the history is complete; the text is empty
};

/// Reads the usage history of one device from a CSV file and publishes it, record by record.
///
/// The subject is "usage/" and the name of the file, without folder and extension. The subject identifies the history.
class HistoryProvider : public CBaseProvider {
public:
    struct Record {
        std::string unitId;
        std::string unitName;
        std::string deviceName;
        int startTime;   ///< seconds since the epoch
        int duration;    ///< seconds
        int occurrence;  ///< numbers equal rows of the file from 0, so that each is stored
    };

    /// Reads and checks the whole file: a malformed history is never published in part. A named pipe is waited for,
    /// with a message.
    /// @throws HistoryError if the file cannot be read or is malformed.
    explicit HistoryProvider(const std::string& path);

    const std::string& Subject() const { return m_subject; }
    std::size_t Size() const { return m_records.size(); }

    /// Publishes the records in the order of the file, then HISTORY_END.
    /// @param mayContinue  called before each record. If it returns false, nothing more is published, not even the end.
    void PublishAll(const std::function<bool()>& mayContinue);

private:
    std::string m_subject;
    std::vector<Record> m_records;
};

/// The steps of reading a history.
namespace History {

/// Reads a file or a pipe to its end.
/// @throws HistoryError if it cannot be read or is larger than 512 MiB.
std::string ReadAll(const std::string& path);

/// Converts big-endian UTF-16 without a byte order mark to UTF-8.
/// @param path  named in the error.
/// @throws HistoryError if it is malformed or has a zero character.
std::string FromUtf16(std::string_view bytes, const std::string& path);

/// Parses CSV in UTF-8, or in UTF-16 with a byte order mark.
/// @param path  named in the error.
/// @throws HistoryError if it is malformed.
std::vector<HistoryProvider::Record> Parse(std::string_view bytes, const std::string& path);

}  // namespace History

#endif  // CONTEXT_HOST_HISTORY_PROVIDER_H
