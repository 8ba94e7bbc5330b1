// SPDX-License-Identifier: Apache-2.0
#include "FailingMalloc.h"

#include <cerrno>
#include <cstdlib>
#include <new>

#include "NextFunction.h"

namespace {

thread_local int t_allowed = 0;   ///< allocations left that succeed before the first failure
thread_local int t_failures = 0;  ///< failures left
thread_local int t_failed = 0;    ///< failures so far
thread_local long t_live = 0;     ///< blocks that are not freed

/// @return what `allocate` returns, or null if it is this allocation's turn to fail.
template <class Allocate>
void* AllocateUnlessFailing(Allocate allocate) noexcept {
    if (t_failures > 0 && t_allowed-- <= 0) {
        --t_failures;
        ++t_failed;
        errno = ENOMEM;
        return nullptr;
    }
    return allocate();
}

void* Counted(void* block) noexcept {
    t_live += block != nullptr ? 1 : 0;
    return block;
}

}  // namespace

extern "C" void* malloc(std::size_t size) noexcept {
    static const auto original = NextFunction<void*(std::size_t)>("malloc");
    return Counted(AllocateUnlessFailing([size] { return original(size); }));
}

extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
    static const auto original = NextFunction<void*(std::size_t, std::size_t)>("calloc");
    return Counted(AllocateUnlessFailing([=] { return original(count, size); }));
}

extern "C" void* realloc(void* block, std::size_t size) noexcept {
    static const auto original = NextFunction<void*(void*, std::size_t)>("realloc");
    void* moved = AllocateUnlessFailing([=] { return original(block, size); });
    return block == nullptr ? Counted(moved) : moved;
}

extern "C" void free(void* block) noexcept {
    static const auto original = NextFunction<void(void*)>("free");
    t_live -= block != nullptr ? 1 : 0;
    original(block);
}

// A sanitizer's operators do not call malloc.
void* operator new(std::size_t size) {
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new[](std::size_t size) {
    return ::operator new(size);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}

void operator delete[](void* block) noexcept {
    std::free(block);
}

void operator delete[](void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}

FailingMalloc::FailingMalloc(int allowed, int failures) {
    t_allowed = allowed;
    t_failures = failures;
}

FailingMalloc::~FailingMalloc() {
    t_failures = 0;
}

int FailingMalloc::Failed() {
    return t_failed;
}

long FailingMalloc::Live() {
    return t_live;
}
