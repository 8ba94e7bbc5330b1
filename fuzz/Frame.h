// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_FUZZ_FRAME_H
#define LUMORA_COMMON_FUZZ_FRAME_H

#include <cstdint>
#include <string>

/// The message frame: four bytes with the length of the payload, highest first, and the payload.
namespace Frame {

/// @return the length at the front of a stream of at least four bytes.
inline std::uint32_t LengthIn(const std::string& stream) {
    std::uint32_t length = 0;
    for (std::size_t at = 0; at < 4; ++at) {
        length = length << 8 | static_cast<unsigned char>(stream[at]);
    }
    return length;
}

/// @return a frame whose length may be wrong.
inline std::string Of(std::uint32_t length, const std::string& payload) {
    std::string frame;
    for (int shift = 24; shift >= 0; shift -= 8) {
        frame += static_cast<char>(static_cast<unsigned char>(length >> shift & 0xFF));
    }
    return frame + payload;
}

/// @return the frame of a text and its zero.
inline std::string Of(const std::string& text) {
    return Of(static_cast<std::uint32_t>(text.size()) + 1, text + std::string(1, '\0'));
}

}  // namespace Frame

#endif  // LUMORA_COMMON_FUZZ_FRAME_H
