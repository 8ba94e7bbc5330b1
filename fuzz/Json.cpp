// SPDX-License-Identifier: Apache-2.0
#include "Json.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

using Fuzz::Node;

constexpr int kMostLevels = 500;

void AppendHex(std::string& text, std::uint32_t unit) {
    char hex[8];
    std::snprintf(hex, sizeof(hex), "\\u%04x", unit & 0xFFFFU);
    text += hex;
}

std::string Quoted(const std::string& utf8) {
    static const std::string kEscaped = "\"\\\b\f\n\r\t";
    static const std::string kLetters = "\"\\bfnrt";
    const auto characters = Fuzz::CharactersOf(utf8);
    Fuzz::Holds("a text of the model is UTF-8", characters.has_value());
    std::string text = "\"";
    for (const std::uint32_t character : *characters) {
        const std::size_t escape = character < 0x80 ? kEscaped.find(static_cast<char>(character)) : std::string::npos;
        if (escape != std::string::npos) {
            text += std::string("\\") + kLetters[escape];
        } else if (character >= 0x20 && character < 0x80) {
            text += static_cast<char>(character);
        } else if (character < 0x10000) {
            AppendHex(text, character);
        } else {
            AppendHex(text, 0xD800 + ((character - 0x10000) >> 10));
            AppendHex(text, 0xDC00 + ((character - 0x10000) & 0x3FF));
        }
    }
    return text + "\"";
}

std::string RealText(double real) {
    if (!std::isfinite(real)) {
        return std::isnan(real) ? "null" : (real > 0 ? "1e+9999" : "-1e+9999");
    }
    char digits[40];
    std::snprintf(digits, sizeof(digits), "%.17g", real);
    const std::string text = digits;
    return text.find_first_of(".e") == std::string::npos ? text + ".0" : text;
}

/// A parser by recursive descent. The first error ends it.
class Parser {
public:
    explicit Parser(const std::string& text) : m_text(text) {}

    bool Document(Node& node) {
        const bool isValue = Value(node, 0);
        Blanks();
        return isValue && m_at == m_text.size();
    }

private:
    char Next() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

    bool Is(const char* word) {
        const bool is = m_text.compare(m_at, std::strlen(word), word) == 0;
        m_at += is ? std::strlen(word) : 0;
        return is;
    }

    void Blanks() {
        while (Next() != '\0' && std::strchr(" \t\r\n", Next()) != nullptr) {
            ++m_at;
        }
    }

    bool Value(Node& node, int level) {
        Blanks();
        if (level == kMostLevels) {
            return false;
        }
        if (Is("{")) {
            node.kind = Node::Kind::Object;
            return Items(level, "}", [&](int next) { return Member(node, next); });
        }
        if (Is("[")) {
            node.kind = Node::Kind::Array;
            return Items(level, "]", [&](int next) { return Value(node.elements.emplace_back(), next); });
        }
        if (Is("\"")) {
            node.kind = Node::Kind::Text;
            return String(node.text);
        }
        node.isTrue = Is("true");
        if (node.isTrue || Is("false")) {
            node.kind = Node::Kind::Bool;
            return true;
        }
        return Is("null") || Number(node);
    }

    template <class Item>
    bool Items(int level, const char* end, Item item) {
        Blanks();
        if (Is(end)) {
            return true;
        }
        do {
            if (!item(level + 1)) {
                return false;
            }
            Blanks();
        } while (Is(","));
        return Is(end);
    }

    bool Member(Node& object, int level) {
        std::string key;
        Blanks();
        if (!Is("\"") || !String(key)) {
            return false;
        }
        Blanks();
        Node& member = object.members[key] = Node();  // the last of equal keys counts
        return Is(":") && Value(member, level);
    }

    bool Unit(std::uint32_t& unit) {
        const std::string digits = m_text.substr(m_at, 4);
        m_at += digits.size();
        unit = static_cast<std::uint32_t>(std::strtoul(digits.c_str(), nullptr, 16));
        return digits.size() == 4 && digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    }

    bool Escape(std::string& text) {
        static const std::string kLetters = "\"\\/bfnrt";
        static const std::string kEscaped = "\"\\/\b\f\n\r\t";
        const char letter = Next();
        ++m_at;
        const std::size_t known = letter != '\0' ? kLetters.find(letter) : std::string::npos;
        if (known != std::string::npos) {
            text += kEscaped[known];
            return true;
        }
        std::uint32_t first = 0;
        std::uint32_t second = 0;
        if (letter != 'u' || !Unit(first) || (first >= 0xDC00 && first <= 0xDFFF)) {
            return false;
        }
        if (first >= 0xD800 && first <= 0xDBFF) {
            if (!Is("\\u") || !Unit(second) || second < 0xDC00 || second > 0xDFFF) {
                return false;
            }
            first = 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
        }
        Fuzz::AppendUtf8(text, first);
        return true;
    }

    bool String(std::string& text) {
        while (m_at < m_text.size() && Next() != '"') {
            if (static_cast<unsigned char>(Next()) < 0x20) {
                return false;
            }
            if (!Is("\\")) {
                text += m_text[m_at++];
            } else if (!Escape(text)) {
                return false;
            }
        }
        return Is("\"") && Fuzz::CharactersOf(text).has_value();
    }

    bool Digits() {
        const std::size_t from = m_at;
        while (std::isdigit(static_cast<unsigned char>(Next())) != 0) {
            ++m_at;
        }
        return m_at > from;
    }

    /// Reads "e" or "E" and a sign.
    bool HasExponent() {
        const bool begins = Is("e") || Is("E");
        if (begins && !Is("+")) {
            Is("-");
        }
        return begins;
    }

    bool Number(Node& node) {
        const std::size_t from = m_at;
        node.isNegative = Is("-");
        const std::size_t digits = m_at;
        if (!Is("0") && !Digits()) {
            return false;
        }
        errno = 0;
        node.magnitude = std::strtoull(m_text.c_str() + digits, nullptr, 10);
        const bool fits = errno == 0 && (!node.isNegative || node.magnitude <= std::uint64_t{1} << 63);
        const std::size_t whole = m_at;
        if ((Is(".") && !Digits()) || (HasExponent() && !Digits())) {
            return false;
        }
        node.kind = whole == m_at && fits ? Node::Kind::Integer : Node::Kind::Real;
        node.isNegative = node.isNegative && node.magnitude != 0;
        node.real = std::strtod(m_text.substr(from, m_at - from).c_str(), nullptr);
        return std::isfinite(node.real);
    }

    const std::string& m_text;
    std::size_t m_at = 0;
};

}  // namespace

Node Node::Of(const std::string& text) {
    Node node;
    node.kind = Kind::Text;
    node.text = text;
    return node;
}

Node Node::Of(double real) {
    Node node;
    node.kind = Kind::Real;
    node.real = real;
    return node;
}

Node Node::Of(long long number) {
    Node node =
        OfUnsigned(number < 0 ? 0 - static_cast<unsigned long long>(number) : static_cast<unsigned long long>(number));
    node.isNegative = number < 0;
    return node;
}

Node Node::OfUnsigned(unsigned long long number) {
    Node node;
    node.kind = Kind::Integer;
    node.magnitude = number;
    return node;
}

Node& Node::operator[](const std::string& key) {
    kind = kind == Kind::Null ? Kind::Object : kind;
    return members[key];
}

Node& Node::At(std::size_t index) {
    kind = kind == Kind::Null ? Kind::Array : kind;
    elements.resize(std::max(elements.size(), index + 1));
    return elements[index];
}

Node& Node::Append(const Node& element) {
    Node copy = element;  // `element` may be part of this value
    At(elements.size()) = std::move(copy);
    return *this;
}

std::string Fuzz::Write(const Node& node) {
    std::string text;
    switch (node.kind) {
        case Node::Kind::Null:
            return "null";
        case Node::Kind::Bool:
            return node.isTrue ? "true" : "false";
        case Node::Kind::Integer:
            return (node.isNegative ? "-" : "") + std::to_string(node.magnitude);
        case Node::Kind::Real:
            return RealText(node.real);
        case Node::Kind::Text:
            return Quoted(node.text);
        case Node::Kind::Array:
            for (const Node& element : node.elements) {
                text += (text.empty() ? "" : ",") + Write(element);
            }
            return "[" + text + "]";
        case Node::Kind::Object:
            for (const auto& [key, member] : node.members) {
                text += (text.empty() ? "" : ",") + Quoted(key) + ":" + Write(member);
            }
            return "{" + text + "}";
    }
    return text;
}

std::optional<Node> Fuzz::Parse(const std::string& json) {
    Node node;
    return Parser(json).Document(node) ? std::optional<Node>(std::move(node)) : std::nullopt;
}

Node Fuzz::MakeNode(Input& input, int depth) {
    Node node;
    switch (input.Below(depth > 1 ? 8 : 6)) {
        case 0:
            return node;
        case 1:
            node.kind = Node::Kind::Bool;
            node.isTrue = input.Flag();
            return node;
        case 2:
            return Node::Of(static_cast<long long>(input.Take<std::int32_t>()));
        case 3:
            return Node::OfUnsigned(input.Take<std::uint64_t>());
        case 4: {
            const double real = input.Real();
            return std::isfinite(real) ? Node::Of(real) : node;
        }
        case 5:
            return Node::Of(input.Text());
        case 6:
            node.kind = Node::Kind::Array;
            for (std::size_t left = input.Below(4); left > 0; --left) {
                node.Append(MakeNode(input, depth - 1));
            }
            return node;
        default:
            node.kind = Node::Kind::Object;
            for (std::size_t left = input.Below(4); left > 0; --left) {
                node[input.Text()] = MakeNode(input, depth - 1);
            }
            return node;
    }
}
