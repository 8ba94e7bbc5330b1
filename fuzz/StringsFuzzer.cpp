// SPDX-License-Identifier: Apache-2.0
#include <ContextString.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <stdexcept>

#include "Fuzz.h"

namespace {

using Fuzz::Same;

bool IsBlank(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

/// @return the value of a character as a digit; 99 if it is none.
int DigitOf(char character) {
    const bool isLetter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
    return character >= '0' && character <= '9' ? character - '0' : (isLetter ? (character | 0x20) - 'a' + 10 : 99);
}

/// Reads a number of a base. @return the position after it.
std::size_t ReadNumber(const std::string& text, std::size_t at, int base, unsigned long long& number, bool& fits) {
    fits = true;
    number = 0;
    for (; at < text.size() && DigitOf(text[at]) < base; ++at) {
        const auto digit = static_cast<unsigned int>(DigitOf(text[at]));
        fits = fits && number <= (ULLONG_MAX - digit) / static_cast<unsigned int>(base);
        number = number * static_cast<unsigned int>(base) + digit;
    }
    return at;
}

std::size_t SkipBlanksAndSign(const std::string& text, bool& isNegative) {
    std::size_t at = 0;
    while (at < text.size() && IsBlank(text[at])) {
        ++at;
    }
    isNegative = at < text.size() && text[at] == '-';
    return at + ((isNegative || (at < text.size() && text[at] == '+')) ? 1 : 0);
}

void CheckUnsigned(const std::string& text) {
    bool isNegative = false;
    std::size_t at = SkipBlanksAndSign(text, isNegative);
    int base = 10;
    if (at < text.size() && text[at] == '0') {
        const bool isHex = at + 2 < text.size() && (text[at + 1] | 0x20) == 'x' && DigitOf(text[at + 2]) < 16;
        base = isHex ? 16 : 8;
        at += isHex ? 2 : 0;
    }
    unsigned long long number = 0;
    bool fits = true;
    const bool isNumber = ReadNumber(text, at, base, number, fits) > at;
    std::string expected = !isNumber ? "invalid" : (fits ? std::to_string(isNegative ? 0 - number : number) : "range");
    expected = text.empty() ? "0" : expected;
    std::string actual;
    errno = ENOTTY;
    try {
        actual = std::to_string(ContextString::string2ull(text));
        Same("errno after string2ull", errno, ENOTTY);
    } catch (const std::invalid_argument& error) {
        actual = "invalid";
        Same("string2ull's error", std::string(error.what()), "stoull");
    } catch (const std::out_of_range& error) {
        actual = "range";
        Same("string2ull's error", std::string(error.what()), "stoull");
    }
    Same("string2ull", actual, expected);
}

int IntOf(const std::string& text) {
    bool isNegative = false;
    bool fits = true;
    unsigned long long number = 0;
    ReadNumber(text, SkipBlanksAndSign(text, isNegative), 10, number, fits);
    const unsigned long long limit = isNegative ? 2147483648U : 2147483647U;
    const auto magnitude = static_cast<long long>(fits ? std::min(number, limit) : limit);
    return static_cast<int>(isNegative ? -magnitude : magnitude);
}

/// A stream takes the longest text that could start a decimal number, and fails if it is not a whole one.
double DoubleOf(const std::string& text) {
    bool isNegative = false;
    std::size_t at = SkipBlanksAndSign(text, isNegative);
    const auto digits = [&] {
        const std::size_t from = at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            ++at;
        }
        return at > from;
    };
    const std::size_t from = at;
    bool hasDigits = digits();
    if (at < text.size() && text[at] == '.') {
        ++at;
        hasDigits = digits() || hasDigits;
    }
    if (!hasDigits) {
        return 0.0;
    }
    if (at < text.size() && (text[at] | 0x20) == 'e') {
        at += at + 1 < text.size() && (text[at + 1] == '+' || text[at + 1] == '-') ? 2 : 1;
        if (!digits()) {
            return 0.0;
        }
    }
    const double number = std::strtod(text.substr(from, at - from).c_str(), nullptr);
    return std::isinf(number) ? 0.0 : (isNegative ? -number : number);
}

std::string Trimmed(std::string text) {
    while (!text.empty() && IsBlank(text.back())) {
        text.pop_back();
    }
    while (!text.empty() && IsBlank(text.front())) {
        text.erase(text.begin());
    }
    return text;
}

std::string Without(const std::string& text, const std::string& characters) {
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool isRemoved = characters.find(text[at]) != std::string::npos;
        at += isRemoved ? 1 : 0;  // the character after a removed one stays
        result += at < text.size() ? text.substr(at, 1) : "";
    }
    return result;
}

std::vector<std::string> Split(const std::string& text, const std::string& delimiter) {
    std::vector<std::string> words(1);
    for (std::size_t at = 0; at < text.size();) {
        if (!delimiter.empty() && text.compare(at, delimiter.size(), delimiter) == 0) {
            words.emplace_back();
            at += delimiter.size();
        } else {
            words.back() += text[at++];
        }
    }
    return words;
}

std::string Escaped(const std::string& text) {
    std::string result;
    for (const char character : text) {
        result += character == '&' ? "%26" : (character == '^' ? "%5E" : std::string(1, character));
    }
    return result;
}

}  // namespace

void Fuzz::Test(Input& input) {
    const std::string set = input.Bytes().substr(0, 4);
    const std::string text = input.Rest();
    CheckUnsigned(text);
    Same("string2int", ContextString::string2int(text), IntOf(text));
    Same("string2double", ContextString::string2double(text), DoubleOf(text));
    std::string trimmed = text;
    ContextString::Trim(trimmed);
    Same("Trim", trimmed, Trimmed(text));
    Same("remove_chars", ContextString::remove_chars(text, set), Without(text, set));
    Same("to_word_vector", ContextString::to_word_vector(text, set), Split(text, set));
    const char delimiter = set.empty() ? ',' : set[0];
    std::vector<std::string> tokens = {"first", text};
    const int count = ContextString::SplitStringToken(tokens[1], delimiter, tokens);
    std::vector<std::string> expected = Split(text, std::string(1, delimiter));
    if (expected.back().empty()) {
        expected.pop_back();
    }
    expected.insert(expected.begin(), {"first", text});
    Same("SplitStringToken", tokens, expected);
    Same("the count of SplitStringToken", count, static_cast<int>(expected.size()));
    Same("UrlEncode", ContextString::UrlEncode(text), Escaped(text));
    Holds("nothing is logged", LogLines().empty());
}
