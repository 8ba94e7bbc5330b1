// SPDX-License-Identifier: Apache-2.0
#include "HeapCount.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

bool g_isOn = false;
std::ptrdiff_t g_live = 0;
std::ptrdiff_t g_peak = 0;

void Count(void* block, int sign) {
    if (g_isOn) {
        g_live += sign * static_cast<std::ptrdiff_t>(malloc_usable_size(block));
        g_peak = std::max(g_peak, g_live);
    }
}

}  // namespace

void HeapCount::Start() {
    g_live = 0;
    g_peak = 0;
    g_isOn = true;
}

std::size_t HeapCount::StopAtPeak() {
    g_isOn = false;
    return static_cast<std::size_t>(g_peak);
}

void* operator new(std::size_t size) {
    void* block = std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    Count(block, +1);
    return block;
}

void operator delete(void* block) noexcept {
    Count(block, -1);
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    Count(block, -1);
    std::free(block);
}
