// SPDX-License-Identifier: Apache-2.0
#include "ContextString.h"

#include <glib.h>
#include <iconv.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Comparison.h"

namespace {

constexpr double kConvertingBound = 1.10;
constexpr double kCuttingBound = 1.00;

constexpr std::size_t kLongText = 100;  ///< number of names

using Units = std::basic_string<unsigned short>;
using Words = std::vector<std::string>;

/// @return `times` copies of a text, in big-endian byte order.
Units BigEndian(std::u16string_view text, std::size_t times) {
    Units units;
    for (std::size_t i = 0; i < times; ++i) {
        for (const char16_t unit : text) {
            units += GUINT16_TO_BE(static_cast<unsigned short>(unit));
        }
    }
    return units;
}

std::string ConvertByIconv(const Units& text) {
    const std::size_t length = text.size();
    const std::unique_ptr<unsigned short[]> units(new unsigned short[length + 1]);
    const std::unique_ptr<char[]> utf8(new char[length * 4]());
    std::copy_n(text.c_str(), length + 1, units.get());

    char* source = reinterpret_cast<char*>(units.get());
    std::size_t sourceSize = (length + 1) * sizeof(unsigned short);
    char* destination = utf8.get();
    std::size_t destinationSize = length * 4;
    iconv_t converter = iconv_open("UTF-8", "UTF-16BE");
    iconv(converter, &source, &sourceSize, &destination, &destinationSize);
    iconv_close(converter);
    return utf8.get();
}

std::string ConvertByGlib(const Units& text) {
    char* utf8 = g_convert(reinterpret_cast<const char*>(text.c_str()),
                           static_cast<gssize>(text.size() * sizeof(unsigned short)), "UTF-8", "UTF-16BE",
                           /*bytes_read=*/nullptr, /*bytes_written=*/nullptr, /*error=*/nullptr);
    std::string result(utf8);
    g_free(utf8);
    return result;
}

Words WordsByFind(const std::string& text, const std::string& delimiter) {
    Words words;
    std::size_t from = 0;
    std::size_t hit = 0;
    while ((hit = text.find(delimiter, from)) != std::string::npos) {
        words.push_back(text.substr(from, hit - from));
        from = hit + delimiter.size();
    }
    words.push_back(text.substr(from));
    return words;
}

int TokensByGetline(const std::string& text, char delimiter, Words& tokens) {
    std::istringstream stream(text);
    std::string token;
    while (std::getline(stream, token, delimiter)) {
        tokens.push_back(token);
    }
    return static_cast<int>(tokens.size());
}

std::string SqlTimeBySubstr(const std::string& text) {
    return text.substr(0, 4) + "-" + text.substr(4, 2) + "-" + text.substr(6, 2) + " " + text.substr(8, 2) + ":" +
           text.substr(10, 2) + ":" + text.substr(12, 2);
}

template <typename Call>
Comparison::Body Repeat(Call call) {
    return [call](benchmark::State& state) {
        for ([[maybe_unused]] auto _ : state) {
            auto result = call();
            benchmark::DoNotOptimize(result);
        }
    };
}

template <typename OurCall, typename PlainCall>
void RequireSame(OurCall ours, PlainCall plain) {
    if (ours() != plain()) {
        throw std::runtime_error("the two calls return different results");
    }
}

void CompareConverting(const std::string& what, const Units& text) {
    const auto ours = [text] { return ContextString::Twstring2String(text); };
    const auto direct = [text] { return ConvertByIconv(text); };
    const auto peer = [text] { return ConvertByGlib(text); };
    RequireSame(ours, direct);
    RequireSame(ours, peer);
    Comparison(what)
        .Ours(Repeat(ours))
        .Direct("iconv", kConvertingBound, Repeat(direct))
        .Peer("g_convert", Repeat(peer));
}

template <typename OurCall, typename PlainCall>
void CompareCutting(const std::string& what, OurCall ours, const std::string& name, PlainCall plain) {
    RequireSame(ours, plain);
    Comparison(what).Ours(Repeat(ours)).Direct(name, kCuttingBound, Repeat(plain));
}

}  // namespace

void RegisterComparisons() {
    constexpr std::u16string_view kName = u"Sigur R\u00F3s, \u00C1g\u00E6tis byrjun \uBC29\uD0C4 ";
    CompareConverting("Twstring2String, one name", BigEndian(kName, 1));
    CompareConverting("Twstring2String, a hundred names", BigEndian(kName, kLongText));

    static const std::string usage =
        "artist-8b6cae39,Tyler The Creator,music,20210508131850,190,4096.5,Call Me If You Get Lost,speaker,1,";
    static const std::string comma = ",";
    CompareCutting(
        "to_word_vector, 10 words", [] { return ContextString::to_word_vector(usage, comma); }, "find and substr",
        [] { return WordsByFind(usage, comma); });
    CompareCutting(
        "SplitStringToken, 9 tokens",
        [] {
            Words tokens;
            ContextString::SplitStringToken(usage, ',', tokens);
            return tokens;
        },
        "std::getline",
        [] {
            Words tokens;
            TokensByGetline(usage, ',', tokens);
            return tokens;
        });
    static const std::string time = "20240305140709";
    CompareCutting(
        "time_to_sqltime", [] { return ContextString::time_to_sqltime(time); }, "substr and +",
        [] { return SqlTimeBySubstr(time); });
}
