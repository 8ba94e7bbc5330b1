// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Tests every file of the folders with a fuzz target that is built without a fuzzing engine.
int main(int argc, char** argv) {
    int count = 0;
    for (int argument = 1; argument < argc; ++argument) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[argument])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
            std::fprintf(stderr, "%s\n", entry.path().c_str());  // the last line names the input that fails
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            ++count;
        }
    }
    std::fprintf(stderr, "%d inputs passed\n", count);
    return count > 0 ? 0 : 1;
}
