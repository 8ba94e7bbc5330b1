// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_TERMINAL_H
#define CONTEXT_HOST_TERMINAL_H

#include <cstddef>
#include <string>

/// How text comes out in columns: on a terminal, which has a width and can show bold, or in a pipe, which has neither.
namespace Terminal {

/// @return the columns of a terminal: COLUMNS if it is set, else what the terminal says; without a terminal, so many
///         that nothing is cut.
std::size_t WidthOf(int file);

/// @return whether a file is a terminal that understands control sequences (not TERM=dumb).
bool IsSmart(int file);

/// @return the text in bold where standard output is such a terminal and NO_COLOR does not forbid it, else as it is.
std::string Heading(const std::string& text);

/// @return the columns that UTF-8 text takes: two for a wide character, none for a combining one.
std::size_t Columns(const std::string& text);

/// @return a name that cannot disturb its surroundings: U+FFFD for what controls a terminal, a line or a direction.
std::string Printable(const std::string& text);

/// @return exactly `width` columns: cut with an ellipsis, or filled with blanks. The width is at least 1.
std::string Fit(const std::string& text, std::size_t width);

/// Opens what of the three standard files is closed, so that none of the files opened later takes its place; what is
/// then written there fails.
void GuardStandardFiles();

/// Writes what standard output still holds.
/// @return what went wrong, for a person; empty when nothing did. A reader who has gone, such as `head`, wants no more:
///         that is nothing wrong. Needs SIGPIPE ignored.
std::string FinishOutput();

}  // namespace Terminal

#endif  // CONTEXT_HOST_TERMINAL_H
