// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_STRING_H
#define LUMORA_COMMON_CONTEXT_STRING_H

#include <string>
#include <vector>

#include "LumoraApi.h"

/// Conversions of byte strings: numbers, trimming, splitting, escaping.
///
/// **Threads.** Static functions without state: any thread. None of them logs.
/// **Errors.** Bad text gives a zero or a partial result, but for string2ull(), which throws. Running out of memory
/// throws what the standard library throws.
/// @ingroup base
class LUMORA_API ContextString {
public:
    ContextString() = delete;

    /// Reads an unsigned number as `strtoull` does in base 0: "0x1F" is hexadecimal, "077" octal; leading white
    /// space and a sign are accepted (a negative number wraps around), what follows the number is ignored.
    /// @return the number; 0 for an empty string.
    /// @throws std::invalid_argument("stoull") when the text does not start with a number.
    /// @throws std::out_of_range("stoull") when the number does not fit into 64 bits.
    static unsigned long long string2ull(const std::string& text);

    /// Reads a decimal number as an input stream does: leading white space is skipped, what follows the number is
    /// ignored.
    /// @return the number; 0 when the text does not start with one; the largest or smallest `int` when it does not
    ///         fit. Never throws for bad text.
    static int string2int(const std::string& text);

    /// Reads a floating point number as an input stream does.
    /// @return the number; 0.0 when the text does not start with one or the number cannot be represented. Never
    ///         throws for bad text.
    static double string2double(const std::string& text);

    /// Removes leading and trailing white space (space, \\v, \\f, \\n, \\r, \\t) in place.
    static void Trim(std::string& text);

    /// Copies a text without the characters of a set, with a promise that callers rely on: of two adjacent
    /// characters of the set the second stays, because the search goes on one character behind each removal.
    /// "a,,b" without "," is "a,b", and "xxxx" without "x" is "xx".
    /// @param text        the text to copy.
    /// @param characters  the characters to remove, in any order.
    static std::string remove_chars(const std::string& text, const std::string& characters);

    /// Splits a text at every occurrence of a delimiter. An empty text is one empty word, and a delimiter at the end
    /// is followed by an empty word.
    /// @param text       the text to split.
    /// @param delimiter  one or more characters. An empty delimiter splits nothing: the text is the only word.
    static std::vector<std::string> to_word_vector(const std::string& text, const std::string& delimiter);

    /// Splits a text as `std::getline` with a delimiter does: an empty text has no token, and a delimiter at the end
    /// is not followed by an empty one.
    /// @param text       the text to split; may be an element of `tokens`.
    /// @param delimiter  the character between two tokens.
    /// @param tokens     receives the tokens behind what it already holds.
    /// @return the number of elements in `tokens` afterwards.
    static int SplitStringToken(const std::string& text, char delimiter, std::vector<std::string>& tokens);

    /// Escapes '&' as "%26" and '^' as "%5E". Nothing else is escaped, '%' and space included: the result is not a
    /// general URL encoding.
    static std::string UrlEncode(std::string text);
};

#endif  // LUMORA_COMMON_CONTEXT_STRING_H
