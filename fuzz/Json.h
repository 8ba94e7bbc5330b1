// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_FUZZ_JSON_H
#define LUMORA_COMMON_FUZZ_JSON_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Fuzz.h"

namespace Fuzz {

/// A JSON value, written and parsed without the library that is tested and without jsoncpp.
struct Node {
    enum class Kind { Null, Bool, Integer, Real, Text, Array, Object };

    Kind kind = Kind::Null;
    bool isTrue = false;
    bool isNegative = false;      ///< of an integer
    std::uint64_t magnitude = 0;  ///< of an integer
    double real = 0;
    std::string text;
    std::vector<Node> elements;
    std::map<std::string, Node> members;

    static Node Of(const std::string& text);
    static Node Of(double real);
    static Node Of(long long number);
    static Node OfUnsigned(unsigned long long number);

    /// Accesses a member of an object, which it may create; null becomes an object.
    Node& operator[](const std::string& key);

    /// Accesses an element of an array, which it may extend with nulls; null becomes an array.
    Node& At(std::size_t index);

    Node& Append(const Node& element);
};

/// Writes a value in the compact form of the document class, without the line feed at the end. The texts must be UTF-8.
std::string Write(const Node& node);

/// Parses strict JSON (RFC 8259) of at most 500 levels and with numbers in the range of a double.
std::optional<Node> Parse(const std::string& json);

/// Makes a value of at most `depth` levels from an input.
Node MakeNode(Input& input, int depth);

}  // namespace Fuzz

#endif  // LUMORA_COMMON_FUZZ_JSON_H
