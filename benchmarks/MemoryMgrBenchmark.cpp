// SPDX-License-Identifier: Apache-2.0
#include "MemoryMgr.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "Comparison.h"

namespace {

constexpr unsigned int kSize = 64;
constexpr std::size_t kStride = 7;  ///< visits all blocks, but not in order

struct Tracked {
    static void* Allocate() { return CMemoryManager::Allocate(kSize, __FILE__, __LINE__); }
    static void Release(void* block) { CMemoryManager::Release(block); }
};

struct Plain {
    static void* Allocate() { return std::malloc(kSize); }
    static void Release(void* block) { std::free(block); }
};

/// Releases one of the blocks and allocates a new one in a loop.
template <typename Heap>
Comparison::Body Exchange(std::size_t count) {
    return [count](benchmark::State& state) {
        CMemoryManager manager;
        CMemoryManager::SetInstance(&manager);
        std::vector<void*> blocks(count);
        for (void*& block : blocks) {
            block = Heap::Allocate();
            if (block == nullptr) {
                throw std::runtime_error("out of memory");
            }
        }
        std::size_t next = 0;
        for ([[maybe_unused]] auto _ : state) {
            Heap::Release(blocks[next]);
            blocks[next] = Heap::Allocate();
            benchmark::DoNotOptimize(blocks[next]);
            next = (next + kStride) % count;
        }
        for (void* block : blocks) {
            Heap::Release(block);
        }
    };
}

void CompareExchange(const std::string& what, std::size_t count) {
    Comparison(what).Ours(Exchange<Tracked>(count)).Peer("free and malloc", Exchange<Plain>(count));
}

}  // namespace

// There are no bounds: the rows show the cost of tracking, which searches a table.
void RegisterComparisons() {
    CompareExchange("Release and Allocate, 10 live blocks", 10);
    CompareExchange("Release and Allocate, 500 live blocks", 500);
    CompareExchange("Release and Allocate, 1 000 live blocks", 1000);
}
