// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <iconv.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <locale>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "ContextString.h"
#include "FailingMemory.h"
#include "Surroundings.h"
#include "UnfailingLog.h"

namespace {

using namespace std::string_literals;
using FailingMemory::ForEveryAllocation;
using FailingMemory::Scope;
using Words = std::vector<std::string>;
using Units = std::basic_string<unsigned short>;

/// Longer than what std::string holds without an allocation.
const std::string kLong = "a text longer than a small string&";

std::string Join(const Words& words) {
    std::string text;
    for (const std::string& word : words) {
        text += word + "|";
    }
    return text;
}

TEST(ContextStringOutOfMemoryTest, ThrowsOrGivesTheRightResult) {
    const Surroundings::TimeZone zone("UTC0");
    std::tm farFuture{};
    farFuture.tm_year = 2000000000;
    farFuture.tm_mon = farFuture.tm_mday = -1000000000;
    const struct {
        const char* name;
        std::function<std::string()> call;
        std::string result;
    } rows[] = {
        {"string2int", [] { return std::to_string(ContextString::string2int("12 and no more digits")); }, "12"},
        {"string2double", [] { return std::to_string(ContextString::string2double("2.5")); }, "2.500000"},
        {"remove_chars", [] { return ContextString::remove_chars(kLong, "&"); }, kLong.substr(0, kLong.size() - 1)},
        {"to_word_vector", [] { return Join(ContextString::to_word_vector(kLong + kLong, "&")); },
         Join({kLong.substr(0, kLong.size() - 1), kLong.substr(0, kLong.size() - 1), ""})},
        {"UrlEncode", [] { return ContextString::UrlEncode(kLong); }, kLong.substr(0, kLong.size() - 1) + "%26"},
        {"ConvertTimeStringToUTC",
         [] { return std::to_string(ContextString::ConvertTimeStringToUTC("19700101000001"s + kLong)); }, "1"},
        {"ConvertUTCToLocaltime", [] { return ContextString::ConvertUTCToLocaltime(1); }, "1970-01-01 00:00:01+0000"},
        {"time_cal", [&] { return ContextString::time_cal(&farFuture); }, "2000001900-999999999-1000000000000000"},
        {"time_to_sqltime", [] { return ContextString::time_to_sqltime("20240305140709"); }, "2024-03-05 14:07:09"},
        {"sqltime_cal", [] { return ContextString::sqltime_cal(kLong); }, kLong},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ForEveryAllocation([&](int allowed, int failures) {
            const Scope scope(allowed, failures);
            try {
                const std::string result = row.call();
                const FailingMemory::Pause pause;
                EXPECT_EQ(result, row.result);
            } catch (const std::bad_alloc&) {
                EXPECT_TRUE(Scope::HasFailed());
            }
        });
    }
}

/// Makes the streams created while it lives group digits: then reading an `int` allocates memory too.
class GroupedDigits {
public:
    GroupedDigits() : m_before(std::locale::global(std::locale(std::locale::classic(), new Grouping))) {}
    ~GroupedDigits() { std::locale::global(m_before); }
    GroupedDigits(const GroupedDigits&) = delete;
    GroupedDigits& operator=(const GroupedDigits&) = delete;

private:
    struct Grouping : std::numpunct<char> {
        std::string do_grouping() const override { return "\3"; }
    };

    std::locale m_before;
};

TEST(ContextStringOutOfMemoryTest, ReadingGroupedDigitsThrowsOrSucceeds) {
    const GroupedDigits grouped;
    ForEveryAllocation([](int allowed, int failures) {
        for (const bool isInteger : {true, false}) {
            const Scope scope(allowed, failures);
            try {
                const double number =
                    isInteger ? ContextString::string2int("1,234") : ContextString::string2double("1,234");
                const FailingMemory::Pause pause;
                EXPECT_EQ(number, 1234);
            } catch (const std::bad_alloc&) {
                EXPECT_TRUE(Scope::HasFailed());
            }
        }
    });
}

TEST(ContextStringOutOfMemoryTest, SplittingAddsAllTokensOrNone) {
    const std::string text = kLong + "," + kLong + ",c";
    ForEveryAllocation([&](int allowed, int failures) {
        Words tokens = {kLong, "second"};
        try {
            const Scope scope(allowed, failures);
            const int count = ContextString::SplitStringToken(text, ',', tokens);
            const FailingMemory::Pause pause;
            EXPECT_EQ(count, 5);
            EXPECT_EQ(tokens, (Words{kLong, "second", kLong, kLong, "c"}));
        } catch (const std::bad_alloc&) {
            EXPECT_EQ(tokens, (Words{kLong, "second"}));
        }
    });
}

TEST(ContextStringOutOfMemoryTest, KeepsAllLineBreaksOrNone) {
    const Units before = {0x4100, 0x0A00, 0x4200, 0};
    ForEveryAllocation([&](int allowed, int failures) {
        Units text = before;
        {
            const Scope scope(allowed, failures);
            ContextString::TransStrExceptLF(text.data());
        }
        const Words expected = Scope::HasFailed() ? Words{"new uint16_t[nLen] failed!"} : Words{};
        EXPECT_EQ(UnfailingLog::Take(), expected);
        EXPECT_EQ(text, Scope::HasFailed() ? before : Units({0x4100, 0x4200, 0, 0}));
    });
}

/// What one call of Twstring2String() returned, or that it threw, and what it logged.
struct Conversion {
    Conversion(const Units& text, int allowed, int failures) {
        try {
            Units copy = text;
            const Scope scope(allowed, failures);
            result = ContextString::Twstring2String(std::move(copy));
        } catch (const std::bad_alloc&) {
            result = "out of memory";
        }
        log = UnfailingLog::Take();
    }

    std::string result;
    Words log;
};

TEST(ContextStringOutOfMemoryTest, ConvertsWithoutLineBreaksOrNotAtAll) {
    // Without its cache of converters, glibc 2.36 frees twice when memory runs out while it loads one: keep it loaded.
    const bool hasCache = std::getenv("GCONV_PATH") == nullptr;
    const std::unique_ptr<void, decltype(&iconv_close)> loaded(hasCache ? nullptr : iconv_open("UTF-8", "UTF-16BE"),
                                                               iconv_close);
    Units text;
    std::string utf8;
    for (int i = 0; i < 20; ++i) {
        text += Units{0x4100, 0x0A00};
        utf8 += "A";
    }
    ForEveryAllocation([&](int allowed, int failures) {
        const Conversion conversion(text, allowed, failures);
        const bool isConverted = conversion.result == utf8;
        const bool isEmpty = conversion.result.empty();
        EXPECT_TRUE(isConverted || isEmpty || conversion.result == "out of memory") << conversion.result;
        EXPECT_EQ(conversion.log,
                  isEmpty && allowed > 1 ? (Words{"Iconv open failed", "convert name failed"}) : Words{});
        EXPECT_EQ(isConverted, !Scope::HasFailed());
    });
}

}  // namespace
