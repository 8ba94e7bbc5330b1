// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_PROVIDER_RAND_SEED_H
#define LUMORA_COMMON_SRC_PROVIDER_RAND_SEED_H

#include <cstdint>
#include <cstdlib>

/// The `rand_r` state that all variates and agents of the process share. Not guarded by a lock.
extern unsigned int rand_seed;

/// Computes the bits of two `rand_r` results at a time, as uniform variates need them.
///
/// Works on a copy of the state and writes it back when destroyed. The state is then the same as after `rand_r`.
///
/// For one result, the GNU C library takes three steps of a linear congruential generator, and each step waits for the
/// previous one. Here all six states of two results are computed from the current state, independently of each other,
/// which is faster and gives the same bits. With another C library, `rand_r` itself is called.
class RandR {
public:
    explicit RandR(unsigned int& state) : m_origin(state), m_state(state) {}
    ~RandR() { m_origin = m_state; }

    RandR(const RandR&) = delete;
    RandR& operator=(const RandR&) = delete;

    /// @return 52 bits: the upper 26 of one result, a 0, and the upper 25 of the next result.
    std::uint64_t operator()() {
#ifdef __GLIBC__
        // A result joins 11, 10 and 10 bits of three states, each from bit 16 upwards. Its lowest bits are not needed:
        // 5 of the first result, 6 of the second.
        const std::uint64_t high = std::uint64_t{Bits_<1>(0x07FF0000)} << 25 |
                                   std::uint64_t{Bits_<2>(0x03FF0000)} << 15 | std::uint64_t{Bits_<3>(0x03E00000)} << 5;
        const std::uint32_t low = Bits_<4>(0x07FF0000) >> 2 | Bits_<5>(0x03FF0000) >> 12 | Bits_<6>(0x03C00000) >> 22;
        m_state = After_<6>();
        return high | low;
#else
        const auto high = static_cast<std::uint64_t>(rand_r(&m_state) >> 5);
        const auto low = static_cast<std::uint64_t>(rand_r(&m_state) >> 6);
        return high << 26 | low;
#endif
    }

private:
#ifdef __GLIBC__
    struct Jump {
        std::uint32_t multiplier;
        std::uint32_t increment;
    };

    /// @return the steps of the generator combined into one.
    static constexpr Jump JumpBy_(int steps) {
        Jump jump{1, 0};
        for (int i = 0; i < steps; ++i) {
            jump.multiplier = jump.multiplier * 1103515245U;
            jump.increment = jump.increment * 1103515245U + 12345U;
        }
        return jump;
    }

    /// @return the state after `kSteps` steps of the generator.
    template <int kSteps>
    std::uint32_t After_() const {
        constexpr Jump kJump = JumpBy_(kSteps);
        return m_state * kJump.multiplier + kJump.increment;
    }

    template <int kSteps>
    std::uint32_t Bits_(std::uint32_t mask) const {
        return After_<kSteps>() & mask;
    }
#endif

    unsigned int& m_origin;
    unsigned int m_state;
};

#endif  // LUMORA_COMMON_SRC_PROVIDER_RAND_SEED_H
