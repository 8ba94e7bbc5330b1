// SPDX-License-Identifier: Apache-2.0
#include "ContextString.h"

#include <sstream>
#include <utility>

namespace {

constexpr const char* kWhiteSpace = " \v\f\n\r\t";

}  // namespace

unsigned long long ContextString::string2ull(const std::string& text) {
    return text.empty() ? 0 : std::stoull(text, nullptr, /*base=*/0);
}

int ContextString::string2int(const std::string& text) {
    int number = 0;
    std::istringstream(text) >> number;
    return number;
}

double ContextString::string2double(const std::string& text) {
    double number = 0.0;
    std::istringstream stream(text);
    stream >> number;
    return stream.fail() ? 0.0 : number;
}

void ContextString::Trim(std::string& text) {
    text.erase(0, text.find_first_not_of(kWhiteSpace));
    text.erase(text.find_last_not_of(kWhiteSpace) + 1);
}

std::string ContextString::remove_chars(const std::string& text, const std::string& characters) {
    std::string result;
    result.reserve(text.size());
    std::string::size_type from = 0;
    for (auto hit = text.find_first_of(characters); hit != std::string::npos;
         hit = text.find_first_of(characters, from + 1)) {
        result.append(text, from, hit - from);
        from = hit + 1;  // what stands here slides into the gap and is kept unexamined
    }
    if (from < text.size()) {
        result.append(text, from, std::string::npos);
    }
    return result;
}

std::vector<std::string> ContextString::to_word_vector(const std::string& text, const std::string& delimiter) {
    std::vector<std::string> words;
    std::string::size_type from = 0;
    if (!delimiter.empty()) {
        for (auto hit = text.find(delimiter); hit != std::string::npos; hit = text.find(delimiter, from)) {
            words.emplace_back(text, from, hit - from);
            from = hit + delimiter.size();
        }
    }
    words.emplace_back(text, from);
    return words;
}

int ContextString::SplitStringToken(const std::string& text, char delimiter, std::vector<std::string>& tokens) {
    const std::string source(text);  // the text may be an element of the vector that grows
    std::string::size_type from = 0;
    while (from < source.size()) {
        const auto hit = source.find(delimiter, from);
        if (hit == std::string::npos) {
            tokens.emplace_back(source, from);
            break;
        }
        tokens.emplace_back(source, from, hit - from);
        from = hit + 1;
    }
    return static_cast<int>(tokens.size());
}

std::string ContextString::UrlEncode(std::string text) {
    std::string result;
    result.reserve(text.size());
    for (const char character : text) {
        if (character == '&') {
            result += "%26";
        } else if (character == '^') {
            result += "%5E";
        } else {
            result += character;
        }
    }
    return result;
}
