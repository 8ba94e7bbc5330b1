// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_DECIMAL_H
#define CONTEXT_HOST_DECIMAL_H

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

/// @return the value of a text of decimal digits; nothing for any other text, such as one with a sign or a blank, and
///         for a value that does not fit.
inline std::optional<int> DecimalIn(std::string_view text) {
    const bool hasOnlyDigits =
        std::all_of(text.begin(), text.end(), [](char character) { return character >= '0' && character <= '9'; });
    int number = 0;
    const bool isNumber = std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc();
    return hasOnlyDigits && isNumber ? std::optional<int>(number) : std::nullopt;
}

#endif  // CONTEXT_HOST_DECIMAL_H
