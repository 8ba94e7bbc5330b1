// SPDX-License-Identifier: Apache-2.0
#include <ContextFileUtil.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Fuzz.h"

namespace {

using Fuzz::Same;
namespace fs = std::filesystem;

/// A folder that exists as long as the program, in memory if possible.
class Folder {
public:
    Folder() {
        std::string name = fs::is_directory("/dev/shm") ? "/dev/shm/lumora-fuzz-XXXXXX"
                                                        : (fs::temp_directory_path() / "lumora-fuzz-XXXXXX").string();
        Fuzz::Holds("a temporary folder", mkdtemp(name.data()) != nullptr);
        m_path = name;
    }
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    fs::path operator/(const char* name) const { return m_path / name; }

private:
    fs::path m_path;
};

enum class Kind { Missing, File, Link, DanglingLink, Directory };

void Put(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::optional<std::string> ContentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file || fs::is_directory(path)) {
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

/// Makes `path` of a kind. @return its content, if it has one.
std::optional<std::string> Make(const fs::path& path, Kind kind, const std::string& content) {
    const fs::path target = path.string() + ".target";
    fs::remove_all(path);
    fs::remove_all(target);
    switch (kind) {
        case Kind::Missing:
            return std::nullopt;
        case Kind::File:
            Put(path, content);
            return content;
        case Kind::Link:
            Put(target, content);
            fs::create_symlink(target, path);
            return content;
        case Kind::DanglingLink:
            fs::create_symlink(target, path);
            return std::nullopt;
        case Kind::Directory:
            fs::create_directory(path);
            return std::nullopt;
    }
    return std::nullopt;
}

void CheckLink(const fs::path& path, Kind kind) {
    errno = 0;
    Same("IsSymbolicLink", ContextFileUtil::IsSymbolicLink(path.c_str()),
         kind == Kind::Link || kind == Kind::DanglingLink);
    Same("its error number", errno, kind == Kind::Missing ? ENOENT : 0);
}

}  // namespace

void Fuzz::Test(Input& input) {
    static const Folder folder;
    constexpr Kind kKinds[] = {Kind::File, Kind::Missing, Kind::Link, Kind::DanglingLink, Kind::Directory};
    const Kind sourceKind = input.OneOf(kKinds);
    const Kind destinationKind = input.OneOf(kKinds);
    const bool isItself = input.Below(8) == 7;
    const std::size_t oldSize = std::size_t{16} * input.Take<std::uint8_t>();
    const std::size_t repeats = input.Below(16) == 15 ? 300 : 1;  // beyond the buffers of streams
    const std::string piece = input.Rest();
    std::string content;
    for (std::size_t count = 0; count < repeats; ++count) {
        content += piece;
    }
    const fs::path source = folder / "source";
    const fs::path destination = isItself ? source : folder / "destination";
    const std::string old(oldSize, 'o');
    const std::optional<std::string> copied = Make(source, sourceKind, content);
    if (!isItself) {
        Make(destination, destinationKind, old);
    }
    CheckLink(source, sourceKind);
    CheckLink(destination, isItself ? sourceKind : destinationKind);
    ContextFileUtil::Copy(source.c_str(), destination.c_str());
    const bool isDirectory = (isItself ? sourceKind : destinationKind) == Kind::Directory;
    Same("the destination", ContentOf(destination),
         isDirectory ? std::nullopt : std::optional<std::string>(isItself ? "" : copied.value_or("")));
    if (!isItself) {
        Same("the source", ContentOf(source), copied);
    }
    ContextFileUtil::Copy(nullptr, destination.c_str());
    Same("the copy of null", ContentOf(destination), isDirectory ? std::nullopt : std::optional<std::string>(""));
    ContextFileUtil::Copy(source.c_str(), nullptr);
    Holds("null is no link", !ContextFileUtil::IsSymbolicLink(nullptr) && !ContextFileUtil::IsSymbolicLink(""));
}
