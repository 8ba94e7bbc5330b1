// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_LOCAL_SYMBOL_H
#define LUMORA_COMMON_TESTS_LOCAL_SYMBOL_H

#include <elf.h>
#include <link.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

/// Finds variables of a loaded library that are not exported, by the symbol table of the library's file.
///
/// **Errors.** Throws an exception, which fails the test, if the library is not loaded, its file cannot be read or is
/// stripped, or no variable has the name.
namespace LocalSymbol {

/// The file of a loaded library and its place in memory.
struct LoadedLibrary {
    std::string name;  ///< the start of the file name, without its directory
    std::string path;
    ElfW(Addr) base = 0;  ///< what is added to the addresses in the file
};

/// The contents of an ELF file with the word width of this program.
class ElfFile {
public:
    explicit ElfFile(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        m_bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        if (m_bytes.compare(0, SELFMAG, ELFMAG) != 0) {
            throw std::runtime_error(path + " cannot be read as an ELF file");
        }
    }

    /// @return a copy of the structure at `offset` bytes from the start.
    template <class T>
    T At(std::size_t offset) const {
        T value;
        if (offset > m_bytes.size() || sizeof(value) > m_bytes.size() - offset) {
            throw std::runtime_error("the ELF file is too short");
        }
        std::memcpy(&value, m_bytes.data() + offset, sizeof(value));
        return value;
    }

    /// @return true if the terminated text at `offset` is `text`.
    bool HasTextAt(std::size_t offset, const std::string& text) const {
        return m_bytes.compare(offset, text.size() + 1, text.c_str(), text.size() + 1) == 0;
    }

    ElfW(Shdr) Section(std::size_t index) const {
        const auto header = At<ElfW(Ehdr)>(0);
        return At<ElfW(Shdr)>(header.e_shoff + index * header.e_shentsize);
    }

    std::size_t SectionCount() const { return At<ElfW(Ehdr)>(0).e_shnum; }

private:
    std::string m_bytes;
};

/// @param name  start of the file name, such as "liblumora-common.so".
inline LoadedLibrary FindLibrary(const std::string& name) {
    LoadedLibrary library{name, "", 0};
    const auto compare = [](dl_phdr_info* info, std::size_t, void* data) {
        auto* wanted = static_cast<LoadedLibrary*>(data);
        const std::string path = info->dlpi_name;
        if (path.compare(path.rfind('/') + 1, wanted->name.size(), wanted->name) != 0) {
            return 0;
        }
        wanted->path = path;
        wanted->base = info->dlpi_addr;
        return 1;
    };
    if (dl_iterate_phdr(compare, &library) == 0) {
        throw std::runtime_error(name + " is not loaded");
    }
    return library;
}

/// @return the entry of the variable `name` in the symbol table of `file`.
inline ElfW(Sym) FindEntry(const ElfFile& file, const std::string& name) {
    for (std::size_t index = 0; index < file.SectionCount(); ++index) {
        const ElfW(Shdr) table = file.Section(index);
        if (table.sh_type != SHT_SYMTAB) {
            continue;
        }
        const ElfW(Shdr) names = file.Section(table.sh_link);
        for (std::size_t entry = 0; entry < table.sh_size; entry += sizeof(ElfW(Sym))) {
            const auto symbol = file.At<ElfW(Sym)>(table.sh_offset + entry);
            if ((symbol.st_info & 0xf) == STT_OBJECT && file.HasTextAt(names.sh_offset + symbol.st_name, name)) {
                return symbol;
            }
        }
    }
    throw std::runtime_error("no symbol table has the variable " + name);
}

/// @param library  start of the file name, such as "liblumora-common.so".
/// @param name     mangled name of the variable, which must be of type T.
template <class T>
T& Find(const std::string& library, const std::string& name) {
    const LoadedLibrary loaded = FindLibrary(library);
    const ElfW(Sym) symbol = FindEntry(ElfFile(loaded.path), name);
    if (symbol.st_size < sizeof(T)) {
        throw std::runtime_error(name + " is smaller than expected");
    }
    return *reinterpret_cast<T*>(loaded.base + symbol.st_value);  // NOLINT(performance-no-int-to-ptr)
}

}  // namespace LocalSymbol

#endif  // LUMORA_COMMON_TESTS_LOCAL_SYMBOL_H
