// SPDX-License-Identifier: Apache-2.0
#include <ContextAutoLock.h>
#include <MemoryMgr.h>

#include <cstdio>
#include <cstdlib>

#include "Fuzz.h"

namespace {

using Fuzz::Holds;
using Fuzz::Same;

constexpr std::size_t kMostBlocks = 1000;
constexpr std::size_t kMostSteps = 48;

/// The manager, opened to the test.
class Manager : public CMemoryManager {
public:
    Manager() { SetInstance(this); }

    void Check() {
        ContextAutoLock lock(&m_mutex);
        __CheckMemory();
    }
    int Count() const { return m_nCount; }
    int Total() const { return m_nTotalSize; }
    int Most() const { return m_nMaxSize; }
    const TMemHeader& Slot(std::size_t slot) const { return m_table[slot]; }
};

struct Block {
    char* pointer = nullptr;
    std::string file;
    int line = 0;
    unsigned int size = 0;
    bool isTracked = false;
    std::size_t slot = 0;
};

TMemHeader* HeaderOf(const Block& block) {
    return reinterpret_cast<TMemHeader*>(block.pointer) - 1;
}

/// A manager, the blocks that it must have, and what it must have counted.
class Model {
public:
    ~Model() {
        while (!m_blocks.empty()) {
            Release(0);
        }
    }
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;
    Model() = default;

    std::size_t Size() const { return m_blocks.size(); }

    void Allocate(const std::string& file, int line, unsigned int size) {
        Block block{nullptr, file.c_str(), line, size, m_tracked < kMostBlocks, 0};
        block.pointer = static_cast<char*>(CMemoryManager::Allocate(size, file.c_str(), line));
        Holds("a block is allocated", block.pointer != nullptr);
        std::memset(block.pointer, 'x', size);
        if (block.isTracked) {
            while (m_isTaken[block.slot]) {
                ++block.slot;
            }
            m_isTaken[block.slot] = true;
            ++m_tracked;
            m_total += static_cast<int>(size);
            m_most = std::max(m_most, m_total);
            std::string name = block.file.substr(0, 50);
            Same("the file in the header", std::string(HeaderOf(block)->szFileName, name.size()), name);
            Holds("a short name ends", name.size() == 50 || HeaderOf(block)->szFileName[name.size()] == '\0');
            Same("the line in the header", HeaderOf(block)->nLine, line);
            Same("the size in the header", HeaderOf(block)->nSize, size);
            Same("the copy", std::memcmp(&m_manager.Slot(block.slot), HeaderOf(block), sizeof(TMemHeader)), 0);
        }
        m_blocks.push_back(block);
    }

    void Release(std::size_t index) {
        const Block block = m_blocks[index];
        m_blocks.erase(m_blocks.begin() + static_cast<std::ptrdiff_t>(index));
        std::vector<std::string> lines;
        if (block.isTracked) {
            m_isTaken[block.slot] = false;
            --m_tracked;
            m_total -= static_cast<int>(block.size);
            if (IsDamaged_(block)) {
                lines = {LiveLine_("Delete", block), SlotLine_("List  ", block)};
            }
        }
        Fuzz::LogLines().clear();
        CMemoryManager::Release(block.pointer);
        Same("the log of Release", Fuzz::LogLines(), lines);
    }

    void Damage(std::size_t index, std::size_t at, char byte) {
        if (m_blocks[index].isTracked) {
            reinterpret_cast<char*>(HeaderOf(m_blocks[index]))[at] = byte;
        }
    }

    /// Damaged blocks are logged in the order of their slots.
    void Check() {
        std::vector<const Block*> slots(kMostBlocks);
        for (const Block& block : m_blocks) {
            if (block.isTracked && IsDamaged_(block)) {
                slots[block.slot] = &block;
            }
        }
        std::vector<std::string> lines;
        for (const Block* block : slots) {
            if (block != nullptr) {
                lines.insert(lines.end(), {"4 *********  Memory ERROR *********!!!!!!!!", LiveLine_("Test", *block),
                                           SlotLine_("List", *block)});
            }
        }
        Fuzz::LogLines().clear();
        m_manager.Check();
        Same("the log of the check", Fuzz::LogLines(), lines);
    }

    void CheckCounters() const {
        Same("the number of blocks", m_manager.Count(), static_cast<int>(m_tracked));
        Same("the bytes in use", m_manager.Total(), m_total);
        Same("the most bytes in use", m_manager.Most(), m_most);
    }

private:
    static std::string NameIn_(const TMemHeader& header, std::size_t most) {
        return std::string(header.szFileName, most).c_str();
    }

    bool IsDamaged_(const Block& block) const {
        const TMemHeader& live = *HeaderOf(block);
        return NameIn_(live, 50) != block.file.substr(0, 50) || live.nLine != block.line || live.nSize != block.size;
    }

    static std::string Line_(const char* what, const Block& block, const TMemHeader& header) {
        char text[256];
        std::snprintf(text, sizeof(text), "4 %s Memory..0x%p, Header (0x%p , %s, %d)", what,
                      static_cast<const void*>(block.pointer), static_cast<const void*>(&header),
                      NameIn_(header, 49).c_str(), header.nLine);
        return text;
    }

    std::string LiveLine_(const char* what, const Block& block) const { return Line_(what, block, *HeaderOf(block)); }
    std::string SlotLine_(const char* what, const Block& block) const {
        return Line_(what, block, m_manager.Slot(block.slot));
    }

    Manager m_manager;
    std::vector<Block> m_blocks;
    std::vector<bool> m_isTaken = std::vector<bool>(kMostBlocks);
    std::size_t m_tracked = 0;
    int m_total = 0;
    int m_most = 0;
};

}  // namespace

void Fuzz::Test(Input& input) {
    Model model;
    const bool isFull = input.Below(64) == 63;
    for (std::size_t blocks = isFull ? kMostBlocks - 4 : 0; blocks > 0; --blocks) {
        model.Allocate("full.cpp", 1, 0);
    }
    for (std::size_t steps = 0; steps < kMostSteps && input.HasMore(); ++steps) {
        const std::size_t step = input.Below(8);
        if (step < 3 || model.Size() == 0) {
            const std::string file = input.Flag() ? input.Bytes() : "file.cpp";
            model.Allocate(file, input.Take<std::int32_t>(), input.Take<std::uint8_t>());
        } else if (step < 5) {
            model.Release(input.Take<std::uint16_t>() % model.Size());
        } else if (step == 5) {
            model.Check();
        } else if (step == 6) {
            model.Damage(input.Take<std::uint16_t>() % model.Size(), input.Below(60), input.Take<char>());
        } else {
            CMemoryManager::Release(input.Flag() ? std::malloc(16) : nullptr);
        }
        model.CheckCounters();
    }
    model.Check();
}
