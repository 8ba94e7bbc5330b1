// SPDX-License-Identifier: Apache-2.0
#include "MemoryMgr.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

#include "ContextAutoLock.h"
#include "Log.h"

namespace {

constexpr gulong kCheckMicroseconds = 2000000;

void* BlockOf(const TMemHeader& header) {
    const std::uint64_t address = (std::uint64_t{header.nBlockHigh} << 32) | header.nBlockLow;
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(address));  // NOLINT(performance-no-int-to-ptr)
}

TMemHeader MakeHeader(const char* file, int line, unsigned int size, const void* block) {
    TMemHeader header{};
    if (file != nullptr) {
        std::memcpy(header.szFileName, file, strnlen(file, sizeof(header.szFileName)));
    }
    const std::uint64_t address = reinterpret_cast<std::uintptr_t>(block);
    header.nBlockHigh = static_cast<std::uint16_t>(address >> 32);
    header.nLine = line;
    header.nSize = size;
    header.nBlockLow = static_cast<std::uint32_t>(address);
    return header;
}

TMemHeader* LiveHeaderOf(void* block) {
    return static_cast<TMemHeader*>(block) - 1;
}

bool IsDamaged(const TMemHeader& live, const TMemHeader& saved) {
    return std::strncmp(live.szFileName, saved.szFileName, sizeof(live.szFileName)) != 0 || live.nLine != saved.nLine ||
           live.nSize != saved.nSize;
}

/// A copy of a header's file name for the log, cut to fit a terminator.
class LoggedName {
public:
    explicit LoggedName(const TMemHeader& header) {
        std::memcpy(m_text, header.szFileName, sizeof(m_text));
        m_text[sizeof(m_text) - 1] = '\0';
    }
    const char* Text() const { return m_text; }

private:
    char m_text[sizeof(TMemHeader::szFileName)];
};

std::int32_t AddWrapping(std::int32_t total, std::uint32_t size) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(total) + size);
}

}  // namespace

std::atomic<CMemoryManager*> CMemoryManager::m_pInstance{nullptr};
GMutex CMemoryManager::m_mutex;
bool CMemoryManager::m_bStarted = false;

CMemoryManager::CMemoryManager() : m_nCount(0), m_nMaxSize(0), m_nTotalSize(0), m_table{} {}

CMemoryManager::~CMemoryManager() {
    m_pInstance = nullptr;
}

void CMemoryManager::SetInstance(CMemoryManager* manager) {
    m_pInstance = manager;
}

CMemoryManager* CMemoryManager::GetInstance() {
    return m_pInstance;
}

void* CMemoryManager::Allocate(unsigned int size, const char* file, int line) {
    ContextAutoLock lock(&m_mutex);
    CMemoryManager* manager = GetInstance();
    const std::size_t wholeSize = sizeof(TMemHeader) + size;
    if (manager == nullptr || wholeSize < size) {
        return nullptr;
    }
    void* whole = std::malloc(wholeSize);
    if (whole == nullptr) {
        return nullptr;
    }
    void* block = static_cast<TMemHeader*>(whole) + 1;
    const TMemHeader* header = new (whole) TMemHeader(MakeHeader(file, line, size, block));
    // Release() does not find an untracked block in the table and passes the pointer itself to free(), so it has no
    // header. Its last 64 bytes stay unused: a second allocation could fail.
    return manager->AddMemory_(*header) == Added::Stored ? block : whole;
}

void CMemoryManager::Release(void* pointer) {
    ContextAutoLock lock(&m_mutex);
    CMemoryManager* manager = GetInstance();
    if (manager != nullptr && manager->m_nCount > 0 && manager->__RemoveMemory(pointer)) {
        return;
    }
    std::free(pointer);
}

void CMemoryManager::OnThread() {
    while (IsRuning()) {
        if (GetInstance() != nullptr) {
            ContextAutoLock lock(&m_mutex);
            __CheckMemory();
        }
        g_usleep(kCheckMicroseconds);
    }
}

bool CMemoryManager::__AddMemory(TMemHeader* header) {
    return AddMemory_(*header) != Added::No;
}

bool CMemoryManager::__RemoveMemory(void* pointer) {
    TMemHeader* slot = pointer == nullptr ? nullptr : FindSlot_(pointer);
    if (slot == nullptr) {
        return false;
    }
    TMemHeader* live = LiveHeaderOf(pointer);
    if (IsDamaged(*live, *slot)) {
        LMR_LOG_INFO("Delete Memory..0x%p, Header (0x%p , %s, %d)", pointer, static_cast<void*>(live),
                     LoggedName(*live).Text(), live->nLine);
        LMR_LOG_INFO("List   Memory..0x%p, Header (0x%p , %s, %d)", pointer, static_cast<void*>(slot),
                     LoggedName(*slot).Text(), slot->nLine);
    }
    m_nTotalSize = AddWrapping(m_nTotalSize, 0U - slot->nSize);
    *slot = {};
    --m_nCount;
    std::free(live);
    return true;
}

void CMemoryManager::__CheckMemory() {
    if (m_nCount == 0) {
        return;
    }
    for (TMemHeader& slot : m_table) {
        void* block = BlockOf(slot);
        if (block == nullptr) {
            continue;
        }
        TMemHeader* live = LiveHeaderOf(block);
        if (IsDamaged(*live, slot)) {
            LMR_LOG_INFO("*********  Memory ERROR *********!!!!!!!!");
            LMR_LOG_INFO("Test Memory..0x%p, Header (0x%p , %s, %d)", block, static_cast<void*>(live),
                         LoggedName(*live).Text(), live->nLine);
            LMR_LOG_INFO("List Memory..0x%p, Header (0x%p , %s, %d)", block, static_cast<void*>(&slot),
                         LoggedName(slot).Text(), slot.nLine);
        }
    }
}

CMemoryManager::Added CMemoryManager::AddMemory_(const TMemHeader& header) {
    if (m_nCount >= kMaxBlocks) {
        return Added::No;
    }
    ++m_nCount;
    TMemHeader* slot = FindSlot_(nullptr);
    if (slot == nullptr) {
        return Added::Counted;
    }
    *slot = header;
    m_nTotalSize = AddWrapping(m_nTotalSize, header.nSize);
    m_nMaxSize = std::max(m_nMaxSize, m_nTotalSize);
    return Added::Stored;
}

// First slot holding `block`; pass null to find a free slot.
TMemHeader* CMemoryManager::FindSlot_(const void* block) {
    const auto found = std::find_if(std::begin(m_table), std::end(m_table),
                                    [block](const TMemHeader& slot) { return BlockOf(slot) == block; });
    return found == std::end(m_table) ? nullptr : found;
}
