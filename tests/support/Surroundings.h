// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_SURROUNDINGS_H
#define LUMORA_COMMON_TESTS_SURROUNDINGS_H

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

/// The surroundings of a test: a temporary folder, the local time zone, files, the library's data directory.
namespace Surroundings {

/// A new empty folder; the destructor removes it with its content.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = std::filesystem::temp_directory_path() / "lumora-test-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot create a temporary folder");
        }
        m_path = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string operator/(const std::string& name) const { return m_path / name; }
    const std::filesystem::path& Path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

/// Sets the local time zone for one scope. `name` is a value of the environment variable TZ.
class TimeZone {
public:
    explicit TimeZone(const std::string& name) {
        const char* before = std::getenv("TZ");
        m_hadZone = before != nullptr;
        m_before = m_hadZone ? before : "";
        setenv("TZ", name.c_str(), /*overwrite=*/1);
        tzset();
    }
    ~TimeZone() {
        if (m_hadZone) {
            setenv("TZ", m_before.c_str(), /*overwrite=*/1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    bool m_hadZone;
    std::string m_before;
};

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

/// @return the path of the library's data directory in the test's mount namespace, with a slash at the end.
/// @throws std::runtime_error when the test does not run through scripts/with-data-directory, as ctest runs it.
inline std::string DataDirectory() {
    const char* path = std::getenv("LUMORA_PRIVATE_DATA_DIRECTORY");
    if (path == nullptr) {
        throw std::runtime_error("run this test through scripts/with-data-directory, as ctest does");
    }
    return std::string(path) + "/";
}

}  // namespace Surroundings

#endif  // LUMORA_COMMON_TESTS_SURROUNDINGS_H
