// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <endian.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "ContextAutoLock.h"
#include "ContextFileUtil.h"
#include "ContextLockData.h"
#include "ContextString.h"
#include "MemoryCases.h"
#include "SystemLog.h"

namespace {

using Words = std::vector<std::string>;
using Utf16 = std::basic_string<unsigned short>;

const std::string kPadding(40, ' ');  ///< makes a text too long for the string object itself
const char* const kCompact = "20240305140709 and more than fits";
constexpr std::time_t kMoment = 1709644029;  // 2024-03-05 14:07:09 in Berlin

/// Calls a function that returns the right result or throws.
template <class Function, class Result>
void ReturnsOrThrows(Try& tried, Function function, const Result& expected) {
    Result result{};
    tried.Call([&] { result = function(); });
    tried.Holds(!tried.HasPassed() || result == expected, "wrong result");
}

/// "<text> line", with a line feed between the words, in UTF-16.
Utf16 Text16() {
    Utf16 text;
    for (const char character : std::string("a text\nof two lines")) {
        text += htobe16(static_cast<std::uint16_t>(character));
    }
    return text;
}

std::string FileText(const char* path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// Demands that the string is one of two, and that another thread can use the object.
void HoldsEither(Try& tried, ContextLockData& data, const char* first, const char* second) {
    tried.Elsewhere([&] {
        char* copy = data.GetData();
        const bool isEmpty = data.IsEmpty();
        const auto isText = [&](const char* text) {
            return text == nullptr ? copy == nullptr && isEmpty
                                   : copy != nullptr && !isEmpty && std::strcmp(copy, text) == 0;
        };
        tried.Holds(isText(first) || isText(second), "holds another string");
        free(copy);
        data.SetData("new");
        copy = data.GetData();
        tried.Holds(isText("new") || (copy != nullptr && std::strcmp(copy, "new") == 0), "cannot be set any more");
        free(copy);
    });
}

void TryAutoLock(Try& tried) {
    GMutex mutex;
    g_mutex_init(&mutex);
    tried.Call([&] { const ContextAutoLock lock(&mutex); });
    tried.Returns();
    tried.Elsewhere([&] { const ContextAutoLock lock(&mutex); });
    g_mutex_clear(&mutex);
}

void TryLockDataLife(Try& tried) {
    tried.Call([] { const ContextLockData data; });
    tried.Returns();
}

void TryCopy(Try& tried) {
    const std::string folder = "/tmp/torture-memory-" + std::to_string(getpid());
    const std::string source = folder + "-source";
    const std::string copy = folder + "-copy";
    const std::string text(20000, 'x');
    std::ofstream(source) << text;
    tried.Call([&] { ContextFileUtil::Copy(source.c_str(), copy.c_str()); });
    tried.Returns();
    tried.Holds(FileText(copy.c_str()) == text, "copies other bytes");
    std::remove(source.c_str());
    std::remove(copy.c_str());
}

constexpr Case kCases[] = {
    {"lumora_log_print",
     [](Try& tried) {
         using Print = int (*)(int, int, const char*, const char*, ...);
         static const auto print = reinterpret_cast<Print>(dlsym(RTLD_NEXT, "lumora_log_print"));
         const std::string text(3000, 'x');
         int length = 0;
         tried.Call([&] { length = print(0, LUMORA_LOG_DEBUG, "torture", "%s", text.c_str()); });
         tried.Returns();
         tried.Holds(length == 3000, "wrong length");
     }},
    {"ContextAutoLock::ContextAutoLock(GMutex*)", TryAutoLock},
    {"ContextAutoLock::~ContextAutoLock()", TryAutoLock},
    {"ContextLockData::ContextLockData()", TryLockDataLife},
    {"ContextLockData::~ContextLockData()", TryLockDataLife},
    {"ContextLockData::SetData(char const*)",
     [](Try& tried) {
         ContextLockData data;
         data.SetData("old");
         tried.Call([&] { data.SetData("text"); });
         tried.Returns();
         HoldsEither(tried, data, "text", nullptr);
     }},
    {"ContextLockData::GetData()",
     [](Try& tried) {
         ContextLockData data;
         data.SetData("text");
         char* copy = nullptr;
         tried.Call([&] { copy = data.GetData(); });
         tried.Returns();
         tried.Holds(copy == nullptr ? !tried.IsUntouched() : std::strcmp(copy, "text") == 0, "wrong copy");
         free(copy);
         HoldsEither(tried, data, "text", "text");
     }},
    {"ContextLockData::ResetData()",
     [](Try& tried) {
         ContextLockData data;
         data.SetData("text");
         tried.Call([&] { data.ResetData(); });
         tried.Returns();
         HoldsEither(tried, data, nullptr, nullptr);
     }},
    {"ContextLockData::IsEmpty()",
     [](Try& tried) {
         ContextLockData data;
         data.SetData("text");
         bool isEmpty = true;
         tried.Call([&] { isEmpty = data.IsEmpty(); });
         tried.Returns();
         tried.Holds(!isEmpty, "is empty");
         HoldsEither(tried, data, "text", "text");
     }},
    {"ContextString::string2ull(std::string const&)",
     [](Try& tried) {
         const std::string text = kPadding + "12345678901";
         ReturnsOrThrows(
             tried, [&] { return ContextString::string2ull(text); }, 12345678901ULL);
     }},
    {"ContextString::string2int(std::string const&)",
     [](Try& tried) {
         const std::string text = kPadding + "-12345";
         ReturnsOrThrows(
             tried, [&] { return ContextString::string2int(text); }, -12345);
     }},
    {"ContextString::string2double(std::string const&)",
     [](Try& tried) {
         const std::string text = kPadding + "12.5" + std::string(40, '0');
         ReturnsOrThrows(
             tried, [&] { return ContextString::string2double(text); }, 12.5);
     }},
    {"ContextString::Trim(std::string&)",
     [](Try& tried) {
         std::string text = kPadding + "word" + kPadding;
         tried.Call([&] { ContextString::Trim(text); });
         tried.Holds(!tried.HasPassed() || text == "word", "wrong result");
     }},
    {"ContextString::remove_chars(std::string const&, std::string const&)",
     [](Try& tried) {
         const std::string text = "a,,b" + kPadding;
         ReturnsOrThrows(
             tried, [&] { return ContextString::remove_chars(text, ","); }, "a,b" + kPadding);
     }},
    {"ContextString::to_word_vector(std::string const&, std::string const&)",
     [](Try& tried) {
         const std::string text = kPadding + "," + kPadding + ",";
         ReturnsOrThrows(
             tried, [&] { return ContextString::to_word_vector(text, ","); }, Words{kPadding, kPadding, ""});
     }},
    {"ContextString::SplitStringToken(std::string const&, char, std::vector<std::string>&)",
     [](Try& tried) {
         const std::string text = kPadding + ",2," + kPadding;
         const Words all = {"old", kPadding, "2", kPadding};
         Words tokens = {"old"};
         int count = 0;
         tried.Call([&] { count = ContextString::SplitStringToken(text, ',', tokens); });
         tried.Holds(!tried.HasPassed() || (count == 4 && tokens == all), "wrong result");
         tried.Holds(tried.HasPassed() || tokens == Words{"old"}, "appends some of the tokens");
     }},
    {"ContextString::UrlEncode(std::string)",
     [](Try& tried) {
         const std::string text = kPadding + "&^";
         ReturnsOrThrows(
             tried, [&] { return ContextString::UrlEncode(text); }, kPadding + "%26%5E");
     }},
    {"ContextString::ConvertTimeFormat(long)",
     [](Try& tried) {
         ReturnsOrThrows(
             tried, [] { return ContextString::ConvertTimeFormat(kMoment); }, std::string("20240305140709"));
     }},
    {"ContextString::ConvertUTCToLocaltime(long)",
     [](Try& tried) {
         ReturnsOrThrows(
             tried, [] { return ContextString::ConvertUTCToLocaltime(kMoment); },
             std::string("2024-03-05 14:07:09+0100"));
     }},
    {"ContextString::ConvertTimeStringToUTC(char const*)",
     [](Try& tried) {
         ReturnsOrThrows(
             tried, [] { return ContextString::ConvertTimeStringToUTC(kCompact); }, kMoment);
     }},
    {"ContextString::ConvertTimeStringToUTC(std::string)",
     [](Try& tried) {
         const std::string text(kCompact);
         ReturnsOrThrows(
             tried, [&] { return ContextString::ConvertTimeStringToUTC(text); }, kMoment);
     }},
    {"ContextString::stringToUTCTime(std::string)",
     [](Try& tried) {
         static const std::time_t expected = ContextString::stringToUTCTime(kCompact);
         const std::string text(kCompact);
         ReturnsOrThrows(
             tried, [&] { return ContextString::stringToUTCTime(text); }, expected);
     }},
    {"ContextString::time_cal(std::string)",
     [](Try& tried) {
         static const std::time_t expected = ContextString::time_cal(kCompact);
         const std::string text(kCompact);
         ReturnsOrThrows(
             tried, [&] { return ContextString::time_cal(text); }, expected);
     }},
    {"ContextString::time_cal(tm*)",
     [](Try& tried) {
         std::tm time{};
         time.tm_year = 2000000000;  // a text too long for the string object itself
         ReturnsOrThrows(
             tried, [&] { return ContextString::time_cal(&time); }, std::string("20000019000100000000"));
     }},
    {"ContextString::StringToUTC(std::string)",
     [](Try& tried) {
         static const long expected = ContextString::StringToUTC(kCompact);
         const std::string text(kCompact);
         ReturnsOrThrows(
             tried, [&] { return ContextString::StringToUTC(text); }, expected);
     }},
    {"ContextString::time_to_sqltime(std::string)",
     [](Try& tried) {
         const std::string text(kCompact);
         ReturnsOrThrows(
             tried, [&] { return ContextString::time_to_sqltime(text); }, std::string("2024-03-05 14:07:09"));
     }},
    {"ContextString::sqltime_cal(std::string)",
     [](Try& tried) {
         ReturnsOrThrows(
             tried, [&] { return ContextString::sqltime_cal(kPadding); }, kPadding);
     }},
    {"ContextString::Unicode2Utf8(char*, unsigned int, char*, unsigned int)",
     [](Try& tried) {
         Utf16 text = Text16();
         char result[100] = {};
         bool isOk = false;
         tried.Call([&] {
             isOk = ContextString::Unicode2Utf8(result, sizeof(result), reinterpret_cast<char*>(text.data()),
                                                static_cast<unsigned int>(text.size() * sizeof(text[0])));
         });
         tried.Returns();
         tried.Holds(isOk ? std::strcmp(result, "a text\nof two lines") == 0 : MemoryLog::Has("conv"), "wrong result");
     }},
    {"ContextString::TransStrExceptLF(unsigned short*)",
     [](Try& tried) {
         Utf16 text = Text16();
         const Utf16 before = text;
         tried.Call([&] { ContextString::TransStrExceptLF(text.data()); });
         tried.Returns();
         tried.Holds(text == before ? MemoryLog::Has("new uint16_t[nLen] failed!") : text[6] == before[7],
                     "wrong result");
     }},
    {"ContextString::Twstring2String(std::basic_string<unsigned short>)",
     [](Try& tried) {
         const Utf16 text = Text16();
         std::string result;
         tried.Call([&] { result = ContextString::Twstring2String(text); });
         tried.Holds(!tried.HasPassed() || result == "a textof two lines" || (result.empty() && !tried.IsUntouched()),
                     "wrong result");
     }},
    {"ContextFileUtil::IsSymbolicLink(char const*)",
     [](Try& tried) {
         bool isLink = false;
         tried.Call([&] { isLink = ContextFileUtil::IsSymbolicLink("/proc/self/exe"); });
         tried.Returns();
         tried.Holds(isLink, "wrong result");
     }},
    {"ContextFileUtil::Sync()",
     [](Try& tried) {
         tried.Call([] { ContextFileUtil::Sync(); });
         tried.Returns();
     }},
    {"ContextFileUtil::Copy(char const*, char const*)", TryCopy},
};

}  // namespace

Cases BaseCases() {
    return {std::begin(kCases), std::end(kCases)};
}
