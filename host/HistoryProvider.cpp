// SPDX-License-Identifier: Apache-2.0
#include "HistoryProvider.h"

#include <ContextData.h>
#include <csv.h>
#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numeric>
#include <string_view>
#include <tuple>

#include "HostMemory.h"
#include "Terminal.h"

namespace {

const std::vector<std::string> kHeader = {"unit_id", "unit_name", "device_name", "start_time", "duration"};
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kUtf16Mark = "\xFE\xFF";  // big-endian
constexpr std::size_t kLargestFile = std::size_t{512} * 1024 * 1024;
constexpr std::size_t kPiece = 65536;
constexpr int kPatienceMilliseconds = 200;
constexpr std::size_t kLongestShown = 60;  // characters of a wrong field

bool StartsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

[[noreturn]] void FailUnreadable(const std::string& path, const std::string& reason) {
    throw HistoryError(HistoryError::Kind::Unreadable, "cannot read " + path + ": " + reason);
}

/// A file that is open for reading.
class File {
public:
    explicit File(const std::string& path) : m_path(path) {
        struct stat status {};
        const bool isPipe = stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
        m_file = open(path.c_str(), O_RDONLY | O_CLOEXEC | (isPipe ? O_NONBLOCK : 0));
        if (m_file < 0) {
            FailUnreadable(path, g_strerror(errno));
        }
        if (isPipe) {
            WaitForWriter();
        }
    }
    ~File() { close(m_file); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    /// @return the number of bytes; 0 at the end.
    std::size_t Read(char* buffer, std::size_t size) const {
        const ssize_t count = read(m_file, buffer, size);
        if (count < 0) {
            FailUnreadable(m_path, g_strerror(errno));
        }
        return static_cast<std::size_t>(count);
    }

private:
    // Reading a pipe that no program has opened for writing would return its end.
    void WaitForWriter() const {
        pollfd input{m_file, POLLIN, 0};
        if (poll(&input, 1, kPatienceMilliseconds) == 0) {
            std::fprintf(stderr, "waiting for the pipe %s\n", Terminal::Escaped(m_path).c_str());
            poll(&input, 1, /*timeout=*/-1);
        }
        fcntl(m_file, F_SETFL, 0);  // from here on, reading blocks
    }

    const std::string& m_path;
    int m_file = -1;
};

/// Parses one file. Its errors name the file and the line.
class Reader {
public:
    explicit Reader(const std::string& path) : m_path(path) {
        csv_init(&m_parser, CSV_STRICT | CSV_STRICT_FINI);               // fails only for a null pointer
        csv_set_space_func(&m_parser, [](unsigned char) { return 0; });  // keeps the blanks around a name
    }
    ~Reader() { csv_free(&m_parser); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    std::vector<HistoryProvider::Record> Read(std::string_view text) {
        const char lineEnd = text.find('\n') != std::string_view::npos ? '\n' : '\r';
        // Parses line by line, to know the line at which each row starts: a quoted name may span several lines.
        for (std::size_t from = 0; from < text.size();) {
            const std::size_t end = std::min(text.find(lineEnd, from), text.size() - 1) + 1;
            const std::string_view line = text.substr(from, end - from);
            ++m_line;
            if (m_rowLine == 0 && line.find_first_not_of("\r\n") != std::string_view::npos) {
                m_rowLine = m_line;
            }
            Parse(line);
            from = end;
        }
        if (csv_fini(&m_parser, OnField, OnRow, this) != 0) {
            Fail("this row has a quote that is never closed");
        }
        Rethrow();
        if (!m_hasHeader) {
            m_rowLine = 1;
            Fail("the file is empty; its first line must be " + Header());
        }
        return std::move(m_records);
    }

private:
    void Parse(std::string_view line) {
        const std::size_t parsed = csv_parse(&m_parser, line.data(), line.size(), OnField, OnRow, this);
        Rethrow();
        if (parsed != line.size()) {
            Fail("misplaced quote (a quote inside a quoted field is written twice)");
        }
    }

    // Callbacks of a C library: exceptions must not pass through it.
    static void OnField(void* field, std::size_t length, void* self) {
        auto* reader = static_cast<Reader*>(self);
        reader->Guard([&] { reader->m_fields.emplace_back(static_cast<const char*>(field), length); });
    }

    static void OnRow(int /*terminator*/, void* self) {
        auto* reader = static_cast<Reader*>(self);
        reader->Guard([&] { reader->TakeRow(); });
        reader->m_fields.clear();
        reader->m_rowLine = 0;
    }

    template <class Step>
    void Guard(Step step) noexcept {
        if (m_error) {
            return;
        }
        try {
            step();
        } catch (...) {
            m_error = std::current_exception();
        }
    }

    void Rethrow() const {
        if (m_error) {
            std::rethrow_exception(m_error);
        }
    }

    void TakeRow() {
        if (!m_hasHeader) {
            if (m_fields != kHeader) {
                Fail("the first line must be " + Header());
            }
            m_hasHeader = true;
            return;
        }
        if (m_fields.size() != kHeader.size()) {
            Fail("expected " + std::to_string(kHeader.size()) + " fields, found " + std::to_string(m_fields.size()));
        }
        for (std::size_t field = 0; field < m_fields.size(); ++field) {
            const std::string& text = m_fields[field];
            if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
                Fail(kHeader[field] + " is not UTF-8 text");
            }
        }
        if (m_fields[0].empty()) {
            Fail("unit_id is empty");
        }
        m_records.push_back({m_fields[0], m_fields[1], m_fields[2], Seconds(3), Seconds(4), /*occurrence=*/0});
        if (m_records.back().duration < 0) {
            Fail("duration is negative: " + Shown(m_fields[4]));
        }
    }

    int Seconds(std::size_t field) const {
        const std::string& text = m_fields[field];
        int seconds = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
        if (error != std::errc() || end != text.data() + text.size()) {
            Fail(kHeader[field] + " is not a whole number of seconds that fits into 32 bits: \"" + Shown(text) + "\"");
        }
        return seconds;
    }

    static std::string Shown(const std::string& field) { return Terminal::Escaped(field, kLongestShown); }

    static std::string Header() {
        return std::accumulate(std::next(kHeader.begin()), kHeader.end(), kHeader.front(),
                               [](const std::string& all, const std::string& name) { return all + "," + name; });
    }

    [[noreturn]] void Fail(const std::string& what) const {
        const int line = m_rowLine != 0 ? m_rowLine : m_line;  // a line has several rows if a lone "\r" ends one
        throw HistoryError(HistoryError::Kind::Malformed, m_path + ":" + std::to_string(line) + ": " + what);
    }

    const std::string& m_path;
    csv_parser m_parser{};
    std::vector<std::string> m_fields;
    std::vector<HistoryProvider::Record> m_records;
    std::exception_ptr m_error;
    bool m_hasHeader = false;
    int m_line = 0;
    int m_rowLine = 0;  ///< where the current row starts; 0 between two rows
};

void NumberEqualRecords(std::vector<HistoryProvider::Record>& records) {
    std::vector<std::size_t> order(records.size());
    std::iota(order.begin(), order.end(), 0U);
    const auto content = [&](std::size_t index) {
        const HistoryProvider::Record& record = records[index];
        return std::tie(record.startTime, record.duration, record.unitId, record.unitName, record.deviceName);
    };
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return content(a) < content(b); });
    for (std::size_t next = 1; next < order.size(); ++next) {
        if (content(order[next - 1]) == content(order[next])) {
            records[order[next]].occurrence = records[order[next - 1]].occurrence + 1;
        }
    }
}

}  // namespace

std::string History::ReadAll(const std::string& path) {
    const File file(path);
    std::string content;
    for (;;) {
        const std::size_t size = content.size();
        content.resize(size + kPiece);
        const std::size_t count = file.Read(content.data() + size, kPiece);
        content.resize(size + count);
        if (count == 0) {
            return content;
        }
        if (content.size() > kLargestFile) {
            FailUnreadable(path, "it is larger than 512 MiB; split it");
        }
    }
}

std::string History::FromUtf16(std::string_view bytes, const std::string& path) {
    const std::size_t count = bytes.size() / sizeof(gunichar2);
    std::vector<gunichar2> units(count + 1);  // and a zero
    std::memcpy(units.data(), bytes.data(), count * sizeof(gunichar2));
    std::transform(units.begin(), units.end(), units.begin(), [](gunichar2 unit) { return GUINT16_FROM_BE(unit); });
    const auto length = std::find(units.begin(), units.end(), 0) - units.begin();
    glong readUnits = 0;
    glong size = 0;
    GError* error = nullptr;
    const std::unique_ptr<char, decltype(&g_free)> text(
        g_utf16_to_utf8(units.data(), static_cast<glong>(length), &readUnits, &size, &error), g_free);
    const bool hasNoMemory = g_error_matches(error, G_CONVERT_ERROR, G_CONVERT_ERROR_NO_MEMORY) != FALSE;
    g_clear_error(&error);
    if (hasNoMemory) {
        throw std::bad_alloc();
    }
    const bool isWhole = static_cast<std::size_t>(readUnits) == count && bytes.size() % sizeof(gunichar2) == 0;
    if (text == nullptr || !isWhole) {
        const auto line = 1 + std::count(units.begin(), units.begin() + readUnits, '\n');
        throw HistoryError(HistoryError::Kind::Malformed, path + ":" + std::to_string(line) + ": is not UTF-16 text");
    }
    return {text.get(), static_cast<std::size_t>(size)};
}

std::vector<HistoryProvider::Record> History::Parse(std::string_view bytes, const std::string& path) {
    std::string converted;
    if (StartsWith(bytes, kUtf16Mark)) {
        converted = FromUtf16(bytes.substr(kUtf16Mark.size()), path);
        bytes = converted;
    } else if (StartsWith(bytes, kUtf8Mark)) {
        bytes.remove_prefix(kUtf8Mark.size());
    }
    HostBuffer buffer(bytes.size());
    bytes.copy(buffer.Data(), bytes.size());
    std::vector<HistoryProvider::Record> records = Reader(path).Read({buffer.Data(), buffer.Size()});
    NumberEqualRecords(records);
    return records;
}

HistoryProvider::HistoryProvider(const std::string& path)
    : m_subject("usage/" + std::filesystem::path(path).stem().string()),
      m_records(History::Parse(History::ReadAll(path), path)) {}

void HistoryProvider::PublishAll(const std::function<bool()>& mayContinue) {
    for (const Record& record : m_records) {
        if (!mayContinue()) {
            return;
        }
        ContextData data;
        data.SetValue("unit_id", record.unitId);
        data.SetValue("unit_name", record.unitName);
        data.SetValue("device_name", record.deviceName);
        data.SetValue("start_time", record.startTime);
        data.SetValue("duration", record.duration);
        data.SetValue("occurrence", record.occurrence);
        Publish(m_subject.c_str(), HISTORY_RECORD, data.MakeStr(), /*provider=*/nullptr);
    }
    Publish(m_subject.c_str(), HISTORY_END, "", /*provider=*/nullptr);
}
