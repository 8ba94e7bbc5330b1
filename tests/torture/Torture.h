// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TORTURE_H
#define LUMORA_COMMON_TESTS_TORTURE_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

/// What the torture programs share: their options and their closing line.
class Torture {
public:
    /// Reads `--minutes N` and `--seed N`, and prints the seed. Anything else ends the program with status 2.
    Torture(std::string name, int argc, char** argv) : m_name(std::move(name)) {
        m_seed = std::random_device{}();
        for (int i = 1; i < argc; i += 2) {
            const bool isMinutes = std::strcmp(argv[i], "--minutes") == 0;
            if (i + 1 == argc || (!isMinutes && std::strcmp(argv[i], "--seed") != 0)) {
                std::fprintf(stderr, "usage: torture-%s [--minutes N] [--seed N]\n", m_name.c_str());
                std::exit(2);
            }
            if (isMinutes) {
                m_minutes = std::atof(argv[i + 1]);
            } else {
                m_seed = static_cast<std::uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
            }
        }
        m_random.seed(m_seed);
        std::printf("seed %u\n", static_cast<unsigned int>(m_seed));
        std::fflush(stdout);
    }

    /// Returns whether `--minutes` was given.
    bool IsLong() const { return m_minutes > 0; }

    /// Returns whether the program should try more: until `--minutes` have passed, or `shortForm` without them.
    bool HasTime(std::chrono::milliseconds shortForm) const {
        const auto bound =
            IsLong() ? std::chrono::milliseconds(static_cast<std::int64_t>(m_minutes * 60000)) : shortForm;
        return std::chrono::steady_clock::now() - m_start < bound;
    }

    /// Returns the generator of every random choice, which `--seed` repeats.
    std::mt19937& Random() { return m_random; }

    /// Counts one try. A try that was not as promised is printed at once.
    void Count(bool isAsPromised, const std::string& what) {
        ++m_tried;
        if (isAsPromised) {
            ++m_asPromised;
            return;
        }
        std::printf("NOT AS PROMISED: %s\n", what.c_str());
        std::fflush(stdout);
    }

    /// Prints the closing line.
    /// @return the exit status.
    int End() const {
        std::printf("%s: %ld tried, %ld as promised\n", m_name.c_str(), m_tried, m_asPromised);
        return m_tried == m_asPromised && m_tried != 0 ? 0 : 1;
    }

private:
    std::string m_name;
    double m_minutes = 0;
    std::uint32_t m_seed = 0;
    std::mt19937 m_random;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    long m_tried = 0;
    long m_asPromised = 0;
};

#endif  // LUMORA_COMMON_TESTS_TORTURE_H
