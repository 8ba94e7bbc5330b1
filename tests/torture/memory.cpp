// SPDX-License-Identifier: Apache-2.0
//
// Fails allocations inside the library's public functions.

#include <new>
#include <string>

#include "ContextString.h"
#include "Torture.h"

namespace {

bool g_fails = false;

}  // namespace

void* operator new(std::size_t size) {
    void* block = g_fails ? nullptr : std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}

int main(int argc, char** argv) {
    Torture torture("memory", argc, argv);
    const std::string text(100, '&');
    bool hasThrown = false;
    g_fails = true;
    try {
        ContextString::UrlEncode(text);
    } catch (const std::bad_alloc&) {
        hasThrown = true;
    }
    g_fails = false;
    torture.Count(hasThrown, "ContextString::UrlEncode");
    return torture.End();
}
