// SPDX-License-Identifier: Apache-2.0
#include "Terminal.h"

#include <glib.h>

#include <cstdio>

#include "Fuzz.h"

namespace {

std::size_t WidthOf(std::uint32_t character) {
    return g_unichar_iszerowidth(character) ? 0 : (g_unichar_iswide(character) ? 2 : 1);
}

/// @return whether a character would disturb a terminal: it controls it, breaks the line or changes the direction.
bool Disturbs(std::uint32_t character) {
    return character < 0x20 || (character >= 0x7F && character < 0xA0) || character == 0x2028 || character == 0x2029 ||
           (character >= 0x202A && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069);
}

/// One character of a text; nothing for a byte that is not UTF-8.
struct Piece {
    std::optional<std::uint32_t> character;
    std::string bytes;
};

std::vector<Piece> PiecesOf(const std::string& text) {
    std::vector<Piece> pieces;
    for (std::size_t at = 0; at < text.size();) {
        Piece piece{std::nullopt, text.substr(at, 1)};
        for (std::size_t size = 1; size <= 4 && !piece.character; ++size) {
            const std::string bytes = text.substr(at, size);
            const auto characters = Fuzz::CharactersOf(bytes);
            if (characters && characters->size() == 1) {
                piece = {characters->front(), bytes};
            }
        }
        at += piece.bytes.size();
        pieces.push_back(piece);
    }
    return pieces;
}

/// @param text  as it is printed: every character has a width.
std::string FitOf(const std::string& text, std::size_t columns, std::size_t width) {
    std::string result;
    std::size_t used = 0;
    const bool isCut = columns > width;
    for (const Piece& piece : PiecesOf(text)) {
        const std::size_t next = WidthOf(piece.character.value());
        if (isCut && used + next >= width) {
            break;
        }
        result += piece.bytes;
        used += next;
    }
    return result + (isCut ? "…" : "") + std::string(width - used - (isCut ? 1 : 0), ' ');
}

std::string EscapeOf(const std::string& bytes) {
    std::string result;
    for (const char byte : bytes) {
        char escape[8];
        std::snprintf(escape, sizeof(escape), "\\x%02X", static_cast<unsigned char>(byte));
        result += escape;
    }
    return result;
}

}  // namespace

void Fuzz::Test(Input& input) {
    const std::size_t width = 1 + input.Below(24);
    const std::size_t limit = input.Below(24);
    std::string text = input.Flag() ? input.Rest() : input.Text();
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    text.shrink_to_fit();  // nothing may be read after the end
    std::string printable;
    std::string escaped;
    std::size_t columns = 0;
    std::size_t printableColumns = 0;
    std::size_t count = 0;
    for (const Piece& piece : PiecesOf(text)) {
        const bool isShown = piece.character && !Disturbs(*piece.character);
        printable += isShown ? piece.bytes : "\uFFFD";
        escaped += count < limit ? (isShown ? piece.bytes : EscapeOf(piece.bytes)) : (count == limit ? "..." : "");
        columns += piece.character ? WidthOf(*piece.character) : 1;
        printableColumns += isShown ? WidthOf(*piece.character) : 1;
        ++count;
    }
    Same("Columns", Terminal::Columns(text), columns);
    Same("Printable", Terminal::Printable(text), printable);
    Same("Escaped", Terminal::Escaped(text, limit), escaped);
    Same("Columns of Printable", Terminal::Columns(printable), printableColumns);
    Same("Fit", Terminal::Fit(printable, width), FitOf(printable, printableColumns, width));
    Same("the width of Fit", Terminal::Columns(Terminal::Fit(printable, width)), width);
}
