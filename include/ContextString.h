// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_STRING_H
#define LUMORA_COMMON_CONTEXT_STRING_H

#include <ctime>
#include <string>
#include <vector>

#include "LumoraApi.h"

/// Conversions of byte strings: numbers, words, time texts, and UTF-16 text to UTF-8.
///
/// **Units.** Times are whole seconds since the epoch, and broken-down times are **local** ones, in the zone that
/// `tzset(3)` last saw, whatever "UTC" in a name says. Their texts have three forms: the compact one
/// ("20240305140709", `%Y%m%d%H%M%S`), the display one ("2024-03-05 14:07:09+0900", `%Y-%m-%d %H:%M:%S%z`) and the SQL
/// one ("2024-03-05 14:07:09"). 16-bit text is UTF-16 in **big-endian byte order in memory**: of each unit the byte at
/// the lower address is the high one, on every processor. So on a little-endian one the letter A is the unit 0x4100.
/// **Threads.** Static functions without state: any thread, while none changes the time zone.
/// **Errors.** Bad text gives a zero or a partial result, except where an operation says that it throws. Only
/// StringToUTC() and the 16-bit operations log. When memory runs out, the 16-bit operations fail as each of them says;
/// all others throw `std::bad_alloc`.
/// @ingroup base
class LUMORA_API ContextString {
public:
    ContextString() = delete;

    /// @name Numbers and words
    /// @{

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

    /// @}
    /// @name Time texts
    /// The operations that are said to cut a text by position take characters 0-3 as the year, and 4-5, 6-7, 8-9, 10-11
    /// and 12-13 as month, day, hour, minute and second. A piece that is not a number counts as 0, values out of range
    /// carry over ("20240231000000" is 2 March), 12 characters leave the seconds 0, and what follows the 14th character
    /// is ignored. Two things about them are promises:
    /// - Everything else, above all whether daylight saving is in force, is that of the **present moment**: in summer
    ///   the text of a winter's noon is read as noon of daylight-saving time, which is 11 o'clock. When the zone knows
    ///   no such time near the date, the result is the C library's: -1, as a rule.
    /// - A text of fewer than 12 characters throws the `std::out_of_range` of `std::string::substr`.
    /// @{

    /// Writes a time in the compact form.
    /// @param seconds  any time; 0 is the epoch.
    /// @return the text. Years of five digits do not fit: what comes then is a part of the text. A time beyond the
    ///         calendar (64-bit `long` only) gives "19000100000000".
    static std::string ConvertTimeFormat(long seconds);

    /// Writes a time in the display form.
    /// @param seconds  the time; 0 means the present moment.
    /// @return the text, with the same limits as that of ConvertTimeFormat().
    static std::string ConvertUTCToLocaltime(long seconds);

    /// Reads the compact form with `strptime(3)`; whether daylight saving was in force on that date is looked up.
    /// @param text  the text. What follows the seconds is ignored; of a text that ends early or is no time, the fields
    ///              that could be read count, and the others are 0: "" (and null) is the last day of 1899.
    /// @return seconds since the epoch, or -1 when `time_t` cannot hold them. Of two equal local times at the end of
    ///         daylight saving it is the C library's choice.
    static std::time_t ConvertTimeStringToUTC(const char* text);

    /// The same for the characters of a string, up to its first zero byte.
    static std::time_t ConvertTimeStringToUTC(std::string text);

    /// Cuts the compact form by position.
    /// @return seconds since the epoch, or -1 when `time_t` cannot hold them.
    /// @throws std::out_of_range for fewer than 12 characters.
    static std::time_t stringToUTCTime(std::string text);

    /// As stringToUTCTime(), but year and month go into `tm_year` and `tm_mon` **as they are read**, and that is
    /// promised: "20240305140709" is 5 April 3924.
    /// @return seconds since the epoch, or -1 when `time_t` cannot hold them: with 32 bits, for every date of today.
    /// @throws std::out_of_range for fewer than 12 characters.
    static std::time_t time_cal(std::string text);

    /// Writes a broken-down time in the compact form, field by field as it stands: nothing is normalized, month to
    /// second get a zero in front when they are one character long, and the year gets none.
    /// @param time  not null; not changed.
    static std::string time_cal(std::tm* time);

    /// Normalizes the compact form, cut by position, and reads its digits back as **one number**: not seconds since the
    /// epoch, in spite of the name.
    ///
    /// Logs seven info lines: the normalized fields, as `std::tm` holds them, and the result, cut to its low 32 bits.
    /// A date that `time_t` cannot hold is not normalized.
    /// @return 20240305140709 for that text. A `long` of 32 bits holds no such number: it is 2147483647 for every date.
    /// @throws std::out_of_range for fewer than 12 characters, without a log line.
    static long StringToUTC(std::string text);

    /// Rewrites the compact form into the SQL form, character by character: nothing is checked. A text of 12 or 13
    /// characters leaves the seconds short; what follows the 14th is dropped.
    /// @return the SQL form; an empty text for an empty one.
    /// @throws std::out_of_range for 1 to 11 characters.
    static std::string time_to_sqltime(std::string text);

    /// Returns a text unchanged, unless it has exactly 14 characters. Callers rely on that; it does **not** rewrite the
    /// SQL form, which has 19, into the compact one.
    /// @throws std::out_of_range for every text of exactly 14 characters.
    static std::string sqltime_cal(std::string text);

    /// @}
    /// @name 16-bit text
    /// @{

    /// Converts UTF-16 in big-endian byte order into UTF-8. Mind the order of the arguments: the destination is first.
    ///
    /// A zero unit is converted like any other and does not end the text; no terminator is added, and the length of the
    /// result is not reported. Zero the destination beforehand, leave a byte over, and measure the text in it.
    /// @param destination      receives the text.
    /// @param destinationSize  its size in bytes; three for each unit are always enough.
    /// @param source           the units; not changed.
    /// @param sourceSize       their size in **bytes**, terminator included where there is one.
    /// @return false when the system has no converter ("Iconv open failed" is logged), and when the source is not valid
    ///         or ends within a character, or the destination is too small ("iconv failed: %d" with `errno`). What was
    ///         converted before stays in the destination.
    static bool Unicode2Utf8(char* destination, unsigned int destinationSize, char* source, unsigned int sourceSize);

    /// Removes every line feed (bytes 00 0A) and carriage return (00 0D), in place. Each unit is judged alone; units in
    /// little-endian byte order are not recognized.
    /// @param text  ends with a zero unit, now and afterwards. The units between the new end and the old one are zero.
    ///              Null logs the warning "srv Is NUll"; when memory runs out, the text stays as it is and the warning
    ///              "new uint16_t[nLen] failed!" is logged.
    static void TransStrExceptLF(unsigned short* text);

    /// Converts 16-bit text without its line breaks into UTF-8.
    /// @param text  big-endian in memory, up to its first zero unit; but the units behind that have to be valid too. At
    ///              most 2^30 - 1 units.
    /// @return the text; empty for an empty one, when memory runs out, and when the text is not valid UTF-16, which
    ///         logs "convert name failed" behind the message of Unicode2Utf8(). A text that ends in half a surrogate
    ///         pair is not valid.
    static std::string Twstring2String(std::basic_string<unsigned short> text);

    /// @}
};

#endif  // LUMORA_COMMON_CONTEXT_STRING_H
