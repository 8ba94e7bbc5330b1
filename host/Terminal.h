// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_TERMINAL_H
#define CONTEXT_HOST_TERMINAL_H

#include <cstddef>
#include <string>

/// Formats text for a terminal, which has a width and may show bold text, or for a pipe or file, which has neither.
namespace Terminal {

/// @return the width of a terminal in columns: COLUMNS if it is set, else what the terminal reports, else 80. For other
///         files, the largest number, so that nothing is cut.
std::size_t WidthOf(int file);

/// @return true if the file is a terminal that understands control sequences: TERM is set and not "dumb".
bool IsSmart(int file);

/// @return the text, in bold if IsSmart() is true for standard output and NO_COLOR is empty or not set.
std::string Heading(const std::string& text);

/// @return the columns that UTF-8 text takes: two for a wide character, none for a combining one. A byte that is not
///         UTF-8 counts as one.
std::size_t Columns(const std::string& text);

/// @return the text with U+FFFD instead of each control character, line separator and change of direction, and of each
///         byte that is not UTF-8.
std::string Printable(const std::string& text);

/// @return the text with "\\xNN" for each byte of what Printable() replaces. Of a longer text, the first `limit`
///         characters and "...".
std::string Escaped(const std::string& text, std::size_t limit = std::string::npos);

/// @return the text, which must be Printable(), cut with an ellipsis or filled with blanks to exactly `width` columns.
/// @param width  at least 1.
std::string Fit(const std::string& text, std::size_t width);

/// Reopens closed standard streams on /dev/null for reading, so that no file opened later takes their place. Writing to
/// such a stream fails.
void GuardStandardFiles();

/// Flushes standard output. SIGPIPE must be ignored.
/// @return the error, for the user; empty if there is none. A reader that ends early, such as `head`, is no error.
std::string FinishOutput();

}  // namespace Terminal

#endif  // CONTEXT_HOST_TERMINAL_H
