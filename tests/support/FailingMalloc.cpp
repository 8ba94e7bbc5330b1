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

void* Allocate(std::size_t size) noexcept {
#ifdef __SANITIZE_ADDRESS__
    return Counted(AllocateUnlessFailing([size] { return std::malloc(size); }));
#else
    static const auto original = NextFunction<void*(std::size_t)>("malloc");
    return Counted(AllocateUnlessFailing([size] { return original(size); }));
#endif
}

void Release(void* block) noexcept {
    t_live -= block != nullptr ? 1 : 0;
#ifdef __SANITIZE_ADDRESS__
    std::free(block);
#else
    static const auto original = NextFunction<void(void*)>("free");
    original(block);
#endif
}

}  // namespace

// AddressSanitizer replaces malloc itself, before it is ready to call ours.
#ifndef __SANITIZE_ADDRESS__

extern "C" void* malloc(std::size_t size) noexcept {
    return Allocate(size);
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
    Release(block);
}

#endif

void* operator new(std::size_t size) {
    void* block = Allocate(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new[](std::size_t size) {
    return ::operator new(size);
}

void operator delete(void* block) noexcept {
    Release(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    Release(block);
}

void operator delete[](void* block) noexcept {
    Release(block);
}

void operator delete[](void* block, std::size_t /*size*/) noexcept {
    Release(block);
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
