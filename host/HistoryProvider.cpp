// SPDX-License-Identifier: Apache-2.0
#include "HistoryProvider.h"

#include <ContextData.h>
#include <ContextString.h>
#include <csv.h>
#include <glib.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numeric>
#include <string_view>
#include <tuple>

#include "HostMemory.h"

namespace {

const std::vector<std::string> kHeader = {"unit_id", "unit_name", "device_name", "start_time", "duration"};
constexpr const char* kUtf8Mark = "\xEF\xBB\xBF";
constexpr const char* kUtf16Mark = "\xFE\xFF";  // big-endian

bool StartsWith(const std::string& text, const char* start) {
    return text.compare(0, std::strlen(start), start) == 0;
}

/// Parses one file. Its errors name the file and the line.
class Reader {
public:
    explicit Reader(const std::string& path) : m_path(path) {
        if (csv_init(&m_parser, CSV_STRICT | CSV_STRICT_FINI) != 0) {
            throw std::bad_alloc();
        }
        csv_set_space_func(&m_parser, [](unsigned char) { return 0; });  // keeps the blanks around a name
    }
    ~Reader() { csv_free(&m_parser); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    std::vector<HistoryProvider::Record> Read() {
        const std::unique_ptr<HostBuffer> buffer = Buffered(Content());
        const std::string_view text(buffer->Data(), buffer->Size());
        // Parses line by line, to know the line at which each row starts: a quoted name may span several lines.
        for (std::size_t from = 0; from < text.size();) {
            const std::size_t end = std::min(text.find('\n', from), text.size() - 1) + 1;
            ++m_line;
            if (m_rowLine == 0) {
                m_rowLine = m_line;
            }
            Parse(text.data() + from, end - from);
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
    static std::unique_ptr<HostBuffer> Buffered(const std::string& text) {
        auto buffer = std::make_unique<HostBuffer>(text.size());
        text.copy(buffer->Data(), text.size());
        return buffer;
    }

    std::string Content() const {
        char* content = nullptr;
        gsize size = 0;
        GError* error = nullptr;
        if (g_file_get_contents(m_path.c_str(), &content, &size, &error) == FALSE) {
            const std::string message = error->message;
            g_error_free(error);
            throw HistoryError(HistoryError::Kind::Unreadable, message);
        }
        const std::unique_ptr<char, decltype(&g_free)> owner(content, g_free);
        const std::string text(content, size);
        if (StartsWith(text, kUtf16Mark)) {
            return FromUtf16(text.substr(std::strlen(kUtf16Mark)));
        }
        return StartsWith(text, kUtf8Mark) ? text.substr(std::strlen(kUtf8Mark)) : text;
    }

    /// Converts line by line, because the conversion drops line breaks and errors name the line.
    std::string FromUtf16(const std::string& bytes) const {
        const auto fail = [this](int line) {
            throw HistoryError(HistoryError::Kind::Malformed,
                               m_path + ":" + std::to_string(line) + ": is not UTF-16 text");
        };
        std::basic_string<unsigned short> units(bytes.size() / sizeof(unsigned short), 0);
        std::memcpy(units.data(), bytes.data(), units.size() * sizeof(unsigned short));
        const auto lineFeed = static_cast<unsigned short>(GUINT16_TO_BE('\n'));
        const auto carriageReturn = static_cast<unsigned short>(GUINT16_TO_BE('\r'));
        std::string text;
        int line = 1;
        for (std::size_t from = 0; from < units.size(); ++line) {
            const std::size_t end = std::min(units.find(lineFeed, from), units.size());
            const auto content = units.substr(from, end - from);
            const std::string converted = ContextString::Twstring2String(content);
            const bool isBlank = content.find_first_not_of(carriageReturn) == std::string::npos;
            if ((converted.empty() && !isBlank) || content.find(static_cast<unsigned short>(0)) != std::string::npos) {
                fail(line);
            }
            text += converted + "\n";
            from = end + 1;
        }
        if (bytes.size() % sizeof(unsigned short) != 0) {
            fail(line);
        }
        return text;
    }

    void Parse(const char* line, std::size_t length) {
        const std::size_t parsed = csv_parse(&m_parser, line, length, OnField, OnRow, this);
        Rethrow();
        if (parsed != length) {
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
            Fail("duration is negative: " + m_fields[4]);
        }
    }

    int Seconds(std::size_t field) const {
        const std::string& text = m_fields[field];
        int seconds = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
        if (error != std::errc() || end != text.data() + text.size()) {
            Fail(kHeader[field] + " is not a whole number of seconds that fits into 32 bits: \"" + text + "\"");
        }
        return seconds;
    }

    static std::string Header() {
        return std::accumulate(std::next(kHeader.begin()), kHeader.end(), kHeader.front(),
                               [](const std::string& all, const std::string& name) { return all + "," + name; });
    }

    [[noreturn]] void Fail(const std::string& what) const {
        throw HistoryError(HistoryError::Kind::Malformed, m_path + ":" + std::to_string(m_rowLine) + ": " + what);
    }

    std::string m_path;
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

HistoryProvider::HistoryProvider(const std::string& path)
    : m_subject("usage/" + std::filesystem::path(path).stem().string()), m_records(Reader(path).Read()) {
    NumberEqualRecords(m_records);
}

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
