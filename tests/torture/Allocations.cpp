// SPDX-License-Identifier: Apache-2.0
#include "Allocations.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#ifdef LUMORA_TORTURE_HAS_ASAN
#include <sanitizer/common_interface_defs.h>
#define REAL_NAME(name) "__interceptor_" name
#else
#define REAL_NAME(name) "__libc_" name
#endif

// The functions that this file replaces.
extern "C" {
void* RealMalloc(std::size_t size) noexcept __asm__(REAL_NAME("malloc"));
void* RealCalloc(std::size_t count, std::size_t size) noexcept __asm__(REAL_NAME("calloc"));
void* RealRealloc(void* block, std::size_t size) noexcept __asm__(REAL_NAME("realloc"));
void* RealMemalign(std::size_t alignment, std::size_t size) noexcept __asm__(REAL_NAME("memalign"));
void RealFree(void* block) noexcept __asm__(REAL_NAME("free"));
}

namespace {

struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

    bool Has(const void* address) const {
        const auto value = reinterpret_cast<std::uintptr_t>(address);
        return value >= begin && value < end;
    }
};

Range g_glib;
Range g_loader;
Allocations::Plan g_plan{};
std::atomic<bool> g_isArmed{false};
std::atomic<long> g_count{0};
std::atomic<long> g_failed{0};
std::atomic<long> g_live{0};
thread_local bool t_isArmed = false;
thread_local bool t_isExempt = false;

int FindLibraries(dl_phdr_info* info, std::size_t /*size*/, void* /*data*/) {
    Range* range = std::strstr(info->dlpi_name, "/libglib-2.0.so") != nullptr ? &g_glib
                   : std::strstr(info->dlpi_name, "/ld-linux") != nullptr     ? &g_loader
                                                                              : nullptr;
    for (int i = 0; range != nullptr && i < info->dlpi_phnum; ++i) {
        const auto& header = info->dlpi_phdr[i];
        if (header.p_type == PT_LOAD) {
            const std::uintptr_t begin = info->dlpi_addr + header.p_vaddr;
            range->begin = range->begin == 0 ? begin : range->begin;
            range->end = begin + header.p_memsz;
        }
    }
    return 0;
}

/// Tells whether the plan lets an allocation fail, by its number.
bool IsPlanned(long number) {
    if (g_plan.permille > 0) {
        constexpr std::uint32_t kMixer = 2654435761U;  // Knuth's multiplicative hash
        const std::uint32_t hash = ((static_cast<std::uint32_t>(number) ^ g_plan.seed) * kMixer) >> 8;
        return static_cast<int>(hash % 1000) < g_plan.permille;
    }
    return g_plan.failAt > 0 && (number == g_plan.failAt || (g_plan.isForGood && number > g_plan.failAt));
}

bool Fails(const void* caller) {
    if (!g_isArmed || t_isExempt || (!t_isArmed && !g_plan.isOnEveryThread) || g_glib.Has(caller) ||
        g_loader.Has(caller) || !IsPlanned(++g_count)) {
        return false;
    }
#ifdef LUMORA_TORTURE_HAS_ASAN
    if (g_plan.isShown) {
        t_isExempt = true;
        __sanitizer_print_stack_trace();
        t_isExempt = false;
    }
#endif
    ++g_failed;
    errno = ENOMEM;
    return true;
}

void* Counted(void* block) {
    if (block != nullptr) {
        ++g_live;
    }
    return block;
}

void* Duplicate(const char* text, std::size_t length, const void* caller) {
    auto* copy = static_cast<char*>(Fails(caller) ? nullptr : Counted(RealMalloc(length + 1)));
    if (copy != nullptr) {
        std::memcpy(copy, text, length);
        copy[length] = '\0';
    }
    return copy;
}

void* New(std::size_t size, const void* caller) {
    void* block = Fails(caller) ? nullptr : Counted(RealMalloc(size == 0 ? 1 : size));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* NewOrNull(std::size_t size, const void* caller) noexcept {
    return Fails(caller) ? nullptr : Counted(RealMalloc(size == 0 ? 1 : size));
}

}  // namespace

#define CALLER __builtin_return_address(0)

extern "C" {

void* malloc(std::size_t size) noexcept {
    return Fails(CALLER) ? nullptr : Counted(RealMalloc(size));
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    return Fails(CALLER) ? nullptr : Counted(RealCalloc(count, size));
}

void* realloc(void* block, std::size_t size) noexcept {
    if (Fails(CALLER)) {
        return nullptr;
    }
    void* moved = RealRealloc(block, size);
    if (block == nullptr) {
        return Counted(moved);
    }
    g_live -= moved == nullptr && size == 0 ? 1 : 0;
    return moved;
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    return Fails(CALLER) ? nullptr : Counted(RealMemalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return Fails(CALLER) ? nullptr : Counted(RealMemalign(alignment, size));
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
    void* made = Fails(CALLER) ? nullptr : Counted(RealMemalign(alignment, size));
    if (made == nullptr) {
        return ENOMEM;
    }
    *block = made;
    return 0;
}

char* strdup(const char* text) noexcept {
    return static_cast<char*>(Duplicate(text, std::strlen(text), CALLER));
}

char* __strdup(const char* text) noexcept {  // NOLINT(bugprone-reserved-identifier): the C library's own name
    return static_cast<char*>(Duplicate(text, std::strlen(text), CALLER));
}

char* strndup(const char* text, std::size_t length) noexcept {
    return static_cast<char*>(Duplicate(text, strnlen(text, length), CALLER));
}

/// AddressSanitizer calls this on every new thread and ends the process when it fails.
int pthread_getattr_np(pthread_t thread, pthread_attr_t* attributes) noexcept {
    static const auto real = reinterpret_cast<decltype(&pthread_getattr_np)>(dlsym(RTLD_NEXT, "pthread_getattr_np"));
    t_isExempt = true;
    const int result = real(thread, attributes);
    t_isExempt = false;
    return result;
}

void free(void* block) noexcept {
    g_live -= block != nullptr ? 1 : 0;
    RealFree(block);
}

}  // extern "C"

void* operator new(std::size_t size) {
    return New(size, CALLER);
}

void* operator new[](std::size_t size) {
    return New(size, CALLER);
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return NewOrNull(size, CALLER);
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return NewOrNull(size, CALLER);
}

void operator delete(void* block) noexcept {
    free(block);
}

void operator delete[](void* block) noexcept {
    free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    free(block);
}

void operator delete[](void* block, std::size_t /*size*/) noexcept {
    free(block);
}

void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept {
    free(block);
}

void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept {
    free(block);
}

void Allocations::Arm(const Plan& plan) {
    if (g_glib.end == 0) {
        dl_iterate_phdr(FindLibraries, nullptr);
    }
    g_plan = plan;
    g_count = 0;
    t_isArmed = true;
    g_isArmed = true;
}

long Allocations::Disarm() {
    g_isArmed = false;
    t_isArmed = false;
    return g_failed.exchange(0);
}

void Allocations::ExemptThread() {
    t_isExempt = true;
}

long Allocations::Live() {
    return g_live;
}
