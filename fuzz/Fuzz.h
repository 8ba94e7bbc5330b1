// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_FUZZ_FUZZ_H
#define LUMORA_COMMON_FUZZ_FUZZ_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

/// What the fuzz targets share. A target defines Test(), which takes values from an input, gives them to the library
/// and compares every result with its own calculation.
namespace Fuzz {

/// Takes values from the bytes of an input, front to back. After its end, numbers are 0 and texts are empty.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_at(data), m_left(size) {}

    bool HasMore() const { return m_left > 0; }

    /// Takes the bytes of a number.
    template <class Number>
    Number Take() {
        Number number{};
        const std::size_t size = std::min(sizeof(number), m_left);
        std::memcpy(&number, m_at, size);
        Skip_(size);
        return number;
    }

    /// Takes one byte and returns a number below `limit`, which is at most 256.
    std::size_t Below(std::size_t limit) { return Take<std::uint8_t>() % limit; }

    bool Flag() { return (Take<std::uint8_t>() & 1) != 0; }

    template <class Value, std::size_t size>
    const Value& OneOf(const Value (&values)[size]) {
        static_assert(size <= 256);
        return values[Below(size)];
    }

    /// Takes one byte and at most that many further bytes, zero bytes included.
    std::string Bytes() {
        const std::size_t size = Take<std::uint8_t>();
        return Take_(size);
    }

    /// Like Bytes(), but valid UTF-8: a byte above 0x7F and the two after it give one character of any plane.
    std::string Text();

    /// Takes a number that is special in floating point, a small one or any other, NaN included.
    double Real();

    std::string Rest() { return Take_(m_left); }

private:
    std::string Take_(std::size_t most) {
        const std::size_t size = std::min(most, m_left);
        std::string bytes(reinterpret_cast<const char*>(m_at), size);
        Skip_(size);
        return bytes;
    }

    void Skip_(std::size_t size) {
        m_at += size;
        m_left -= size;
    }

    const std::uint8_t* m_at;
    std::size_t m_left;
};

/// Tests one input. Every target defines it.
void Test(Input& input);

/// @return the messages that the library has logged since the test of this input began, without prefix, each after its
///         priority: "6 input is null".
std::vector<std::string>& LogLines();

/// Prints the message and aborts.
[[noreturn]] void Fail(const std::string& message);

std::string Show(const std::string& text);
std::string Show(double number);

template <class Number, std::enable_if_t<std::is_integral_v<Number> || std::is_enum_v<Number>, int> = 0>
std::string Show(Number number) {
    return std::to_string(static_cast<long long>(number));
}

template <class Value>
std::string Show(const std::vector<Value>& values) {
    std::string text = std::to_string(values.size()) + " values:";
    for (const Value& value : values) {
        text += " " + Show(value);
    }
    return text;
}

template <class Value>
std::string Show(const std::optional<Value>& value) {
    return value ? Show(*value) : "nothing";
}

template <class Value>
bool IsSame(const Value& a, const Value& b) {
    return a == b;
}

/// Compares bit by bit; only the kinds of NaN are alike.
inline bool IsSame(const double& a, const double& b) {
    return (std::isnan(a) && std::isnan(b)) || (a == b && std::signbit(a) == std::signbit(b));
}

/// Fails unless two texts are equal, and shows where they differ.
void SameText(const char* what, const std::string& actual, const std::string& expected);

/// Fails unless the library's result is the expected one.
template <class Value>
void Same(const char* what, const Value& actual, const std::common_type_t<Value>& expected) {
    if constexpr (std::is_same_v<Value, std::string>) {
        SameText(what, actual, expected);
    } else if (!IsSame(actual, expected)) {
        Fail(std::string(what) + "\n  library:  " + Show(actual) + "\n  expected: " + Show(expected));
    }
}

/// Fails unless the condition is true.
inline void Holds(const char* what, bool condition) {
    if (!condition) {
        Fail(std::string(what) + " does not hold");
    }
}

/// Appends a character in UTF-8.
void AppendUtf8(std::string& text, std::uint32_t character);

/// @return the characters of a text, or nothing if the text is not valid UTF-8.
std::optional<std::vector<std::uint32_t>> CharactersOf(const std::string& utf8);

/// Sets the time zone of the process, if it is not set already.
void SetZone(const std::string& zone);

}  // namespace Fuzz

#endif  // LUMORA_COMMON_FUZZ_FUZZ_H
