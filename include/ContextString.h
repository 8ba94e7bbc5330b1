// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_STRING_H
#define LUMORA_COMMON_CONTEXT_STRING_H

#include <ctime>
#include <string>
#include <vector>

#include "LumoraApi.h"

/// Conversions of byte strings: numbers, words, time texts, and UTF-16 text to UTF-8.
///
/// **Units.** Times are whole seconds since the epoch. Broken-down times are **local**, even where a name says "UTC";
/// the zone is the one that `tzset(3)` last read; parsing a time text reads it again, for the whole process. A time
/// text has one of three forms: compact ("20240305140709", `%Y%m%d%H%M%S`), display ("2024-03-05 14:07:09+0900",
/// `%Y-%m-%d %H:%M:%S%z`) or SQL ("2024-03-05 14:07:09"). 16-bit text is UTF-16, **big-endian in memory**: the byte at
/// the lower address is the high byte, on every processor. On a little-endian processor the letter A is therefore the
/// unit 0x4100.
/// **Threads.** Static functions without state: any thread, as long as no thread changes the time zone.
/// **Errors.** Bad text throws only where documented; elsewhere it gives the result that the function states, mostly
/// zero or a partial result. Only StringToUTC() and the 16-bit functions log.
///
/// Without memory Unicode2Utf8() and TransStrExceptLF() fail as documented there; all other functions may throw
/// `std::bad_alloc`. A function that fails changes none of its arguments, except that Unicode2Utf8() may have filled a
/// part of its destination, and it leaks nothing. The C library reads the time zone's file at the first use of the
/// zone; **without memory it silently takes UTC**, and keeps it until `TZ` changes. Call `tzset(3)` when the process
/// starts. glibc 2.36 aborts the process when memory runs out while `iconv` loads a converter, unless the system has
/// the file gconv-modules.cache.
/// @ingroup base
class LUMORA_API ContextString {
public:
    ContextString() = delete;

    /// @name Numbers and words
    /// @{

    /// Parses an unsigned number as `strtoull` does with base 0: "0x1F" is hexadecimal and "077" octal. Leading white
    /// space and a sign are accepted; a negative number wraps around. Text after the number is ignored.
    /// @return the number; 0 for an empty string.
    /// @throws std::invalid_argument("stoull") when the text does not start with a number.
    /// @throws std::out_of_range("stoull") when the number does not fit into 64 bits.
    static unsigned long long string2ull(const std::string& text);

    /// Parses a decimal number as an input stream does: skips leading white space and ignores text after the number.
    /// The global C++ locale decides how digits may be grouped; by default they may not.
    /// @return the number; 0 when the text does not start with one; the largest or smallest `int` when it does not fit.
    static int string2int(const std::string& text);

    /// Parses a floating point number as an input stream does, with the decimal point of the global C++ locale: by
    /// default a point.
    /// @return the number; 0.0 whenever the stream fails: on text that does not start with a number, on a number out of
    ///         range, and on an exponent without digits ("3em").
    static double string2double(const std::string& text);

    /// Removes leading and trailing white space (space, \\v, \\f, \\n, \\r, \\t) in place.
    static void Trim(std::string& text);

    /// Copies a text without the characters of a set. The character after each removed one is kept without being
    /// examined, so the second of two adjacent characters of the set stays; this is a promise. "a,,b" without "," is
    /// "a,b", and "xxxx" without "x" is "xx".
    /// @param text        the text to copy.
    /// @param characters  the characters to remove, in any order.
    static std::string remove_chars(const std::string& text, const std::string& characters);

    /// Splits a text at every occurrence of a delimiter. An empty text gives one empty word; a delimiter at the end
    /// gives a last empty word.
    /// @param text       the text to split.
    /// @param delimiter  one or more characters. An empty delimiter splits nothing: the text is the only word.
    static std::vector<std::string> to_word_vector(const std::string& text, const std::string& delimiter);

    /// Splits a text as `std::getline` with a delimiter does: an empty text has no tokens, and a delimiter at the end
    /// adds no empty token.
    /// @param text       the text to split; may be an element of `tokens`.
    /// @param delimiter  the character between two tokens.
    /// @param tokens     the tokens are appended: all, or none when memory runs out.
    /// @return the size of `tokens` afterwards.
    static int SplitStringToken(const std::string& text, char delimiter, std::vector<std::string>& tokens);

    /// Escapes '&' as "%26" and '^' as "%5E". Nothing else is escaped, not even '%' or a space: this is not a general
    /// URL encoder.
    static std::string UrlEncode(std::string text);

    /// @}
    /// @name Time texts
    /// "Cut by position" means: characters 0-3 are the year, and 4-5, 6-7, 8-9, 10-11 and 12-13 the month, day, hour,
    /// minute and second. Each piece is read with `strtol`, so a piece that does not start with a number counts as 0.
    /// Values out of range carry over ("20240231000000" is 2 March). With 12 characters the seconds are 0; characters
    /// after the 14th are ignored. Two results are promises:
    /// - All other fields, above all the daylight-saving flag, are those of the **present moment**. In summer, noon on
    ///   a winter day is read as noon of daylight-saving time, which is 11 o'clock. If the zone has no such time near
    ///   that date, the C library decides.
    /// - A text of fewer than 12 characters throws the `std::out_of_range` of `std::string::substr`.
    /// @{

    /// Formats a time in the compact form.
    /// @param seconds  any time; 0 is the epoch.
    /// @return the text; its end is missing if the year has more than four characters. A year that does not fit into an
    ///         `int` (64-bit `long` only) gives "19000100000000".
    static std::string ConvertTimeFormat(long seconds);

    /// Formats a time in the display form.
    /// @param seconds  the time; 0 means the present moment.
    /// @return the text; its end is missing if the year has more than four characters. A year that does not fit into an
    ///         `int` gives "1900-01-00 00:00:00+0000".
    static std::string ConvertUTCToLocaltime(long seconds);

    /// Parses the compact form with `strptime(3)` and looks up whether daylight saving was in force on that date.
    /// @param text  the text. Characters after the seconds are ignored. If parsing stops early, the fields read so far
    ///              count and the others are 0, so "" and null mean the last day of 1899.
    /// @return seconds since the epoch, or -1 when `time_t` cannot hold them. When daylight saving ends, one local hour
    ///         occurs twice; the C library chooses.
    static std::time_t ConvertTimeStringToUTC(const char* text);

    /// The same for the characters of a string, up to its first zero byte.
    static std::time_t ConvertTimeStringToUTC(std::string text);

    /// Parses the compact form, cut by position.
    /// @return seconds since the epoch, or -1 when `time_t` cannot hold them.
    /// @throws std::out_of_range for fewer than 12 characters.
    static std::time_t stringToUTCTime(std::string text);

    /// Parses like stringToUTCTime(), but stores year and month in `tm_year` and `tm_mon` **unadjusted**. This is a
    /// promise: "20240305140709" is 5 April 3924.
    /// @return seconds since the epoch, or -1 when `time_t` cannot hold them: with 32 bits, for every present-day date.
    /// @throws std::out_of_range for fewer than 12 characters.
    static std::time_t time_cal(std::string text);

    /// Formats a broken-down time in the compact form, without normalizing it. A field of one character, except the
    /// year, is padded with a zero.
    /// @param time  not null; not modified.
    static std::string time_cal(std::tm* time);

    /// Normalizes the compact form, cut by position, and returns its digits as **one number**. Despite the name, the
    /// result is not seconds since the epoch.
    ///
    /// Logs seven info lines: the six normalized fields of `std::tm`, then the low 32 bits of the result. A date that
    /// `time_t` cannot hold is not normalized.
    /// @return the digits, for example 20240305140709 for "20240305140709" if the present daylight-saving flag applies
    ///         to that date too. A 32-bit `long` saturates: every present-day date gives 2147483647.
    /// @throws std::out_of_range for fewer than 12 characters; nothing is logged then.
    static long StringToUTC(std::string text);

    /// Converts the compact form to the SQL form, character by character, without any check. A text of 12 or 13
    /// characters leaves the seconds short; characters after the 14th are dropped.
    /// @return the SQL form; empty for an empty text.
    /// @throws std::out_of_range for 1 to 11 characters.
    static std::string time_to_sqltime(std::string text);

    /// Returns a text unchanged unless it has exactly 14 characters. This is a promise: it does **not** convert the SQL
    /// form, which has 19 characters, to the compact form.
    /// @throws std::out_of_range for every text of exactly 14 characters.
    static std::string sqltime_cal(std::string text);

    /// @}
    /// @name 16-bit text
    /// @{

    /// Converts big-endian UTF-16 to UTF-8. Note the argument order: the destination comes first.
    ///
    /// A zero unit is converted like any other and does not end the text. No terminator is added, and the length of the
    /// result is not returned: zero the destination first, make it one byte larger than the text can be, and measure
    /// the text afterwards.
    /// @param destination      receives the text.
    /// @param destinationSize  its size in bytes; three bytes per unit are always enough.
    /// @param source           the units; not modified.
    /// @param sourceSize       their size in **bytes**. A terminator that is included in the size is converted too.
    /// @return false when the converter cannot be opened ("Iconv open failed" is logged), because the system has none
    ///         or because memory or descriptors have run out. Also false when the source is invalid, ends within a
    ///         character, or does not fit into the destination ("iconv failed: %d" with `errno`). Bytes written before
    ///         the failure stay in the destination.
    static bool Unicode2Utf8(char* destination, unsigned int destinationSize, char* source, unsigned int sourceSize);

    /// Removes every line feed (bytes 00 0A) and carriage return (00 0D) in place. Each unit is examined alone; line
    /// breaks in little-endian byte order are not recognized.
    /// @param text  ends with a zero unit before and after the call. The units between the new end and the old one
    ///              become zero. Null logs the warning "srv Is NUll". Without memory the text stays unchanged and the
    ///              warning "new uint16_t[nLen] failed!" is logged.
    static void TransStrExceptLF(unsigned short* text);

    /// Removes the line breaks of 16-bit text, as TransStrExceptLF() does but without a scratch array, and converts the
    /// text to UTF-8.
    /// @param text  only the part before its first zero unit is returned, but the units after it must be valid too. At
    ///              most 2^30 - 1 units.
    /// @return the text; empty for an empty text, and without memory for its two buffers, which is not logged. Also
    ///         empty when Unicode2Utf8() fails: it cannot open the converter, or the text is not valid UTF-16, for
    ///         example with half a surrogate pair at the end. "convert name failed" is logged then, after the message
    ///         of Unicode2Utf8().
    /// @throws std::bad_alloc without memory for the copies of the argument or of the result.
    static std::string Twstring2String(std::basic_string<unsigned short> text);

    /// @}
};

#endif  // LUMORA_COMMON_CONTEXT_STRING_H
