// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_MEMORY_MGR_H
#define LUMORA_COMMON_MEMORY_MGR_H

#include <glib.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "ContextThread.h"
#include "LumoraApi.h"

/// @addtogroup threads
/// @{

/// What stands in the 64 bytes in front of every tracked block; the same on every architecture.
///
/// The block pointer is the address handed to the caller, cut to the 48 bits that addresses have; on 32-bit systems
/// its high part is 0.
struct TMemHeader {
    char szFileName[50];       ///< of the caller; without a terminator when the name has 50 characters or more
    std::uint16_t nBlockHigh;  ///< bits 32 to 47 of the block pointer
    std::int32_t nLine;        ///< source line of the allocation
    std::uint32_t nSize;       ///< bytes that the caller asked for
    std::uint32_t nBlockLow;   ///< bits 0 to 31 of the block pointer
};

static_assert(sizeof(TMemHeader) == 64 && offsetof(TMemHeader, nBlockHigh) == 50 && offsetof(TMemHeader, nLine) == 52 &&
                  offsetof(TMemHeader, nSize) == 56 && offsetof(TMemHeader, nBlockLow) == 60,
              "the layout is a promise to tools that read a process's memory");

/// Finds heap damage and leaks: hands out blocks with a guarded header in front of each, and checks the headers.
///
/// The host creates one manager, registers it with SetInstance() and starts its checker with Start(); from then on
/// Allocate() and Release() work from any thread. A copy of every live block's header is kept in a table inside the
/// manager. Every 2 seconds the checker logs each block whose header no longer is what its copy says, because what
/// lies in front of it was overrun or the block itself underrun; releasing a block makes the same comparison.
/// Compared are the file name, up to its terminator, the line and the size.
///
/// **Limits.** 1000 blocks are tracked at a time; further ones work, but are plain heap blocks without a header. All
/// sizes are kept in 32 bits and wrap around beyond them.
/// **Ownership.** The manager stays the host's. Its destructor clears the instance, whichever that is, but neither
/// stops the checker nor frees a block: the host calls Stop() first, which takes up to 2 seconds. A tracked block must
/// be released while its manager is the instance: afterwards it would be taken for a plain heap block.
/// **Threads.** Allocate(), Release() and GetInstance() may be called from any thread. The first two and the checker
/// hold one process-wide mutex; SetInstance() and the destructor do not, and must not run beside them.
/// **Errors.** Damage is logged, as info; nothing is repaired.
class LUMORA_API CMemoryManager : public ContextThread {
public:
    /// Tracks nothing; does not become the instance.
    CMemoryManager();

    /// Clears the instance, whichever that is. Does not stop the checker.
    ~CMemoryManager() override;

    /// Makes a manager the instance, or takes the instance away.
    /// @param manager  the one that Allocate() and Release() use from now on, or null. Not owned.
    static void SetInstance(CMemoryManager* manager);

    /// Gives the instance. Takes no lock.
    /// @return what SetInstance() was given, or null.
    static CMemoryManager* GetInstance();

    /// Hands out a block that the instance tracks, aligned as `malloc` aligns.
    /// @param size  bytes; 0 gives a block too.
    /// @param file  the caller's source file; the first 50 characters are kept. Null counts as "".
    /// @param line  the caller's source line.
    /// @return a block that the caller gives to Release(); null without an instance, or when no memory is left.
    static void* Allocate(unsigned int size, const char* file, int line);

    /// Frees a block. A damaged header is logged, in the two info lines "Delete Memory..0x%p, Header (0x%p , %s, %d)"
    /// for the header itself and "List   Memory..0x%p, Header (0x%p , %s, %d)" for its copy.
    /// @param pointer  from Allocate(), or any other block of the C library's heap, which is simply freed. May be null.
    static void Release(void* pointer);

    /// The checker; runs on the worker thread, once at the start and then every 2 seconds. A stop waits for the pause
    /// to end.
    void OnThread() override;

    /// @name The table
    /// Called with m_mutex held.
    /// @{

    /// Copies a header into the lowest free slot and counts its block.
    ///
    /// When every slot is taken although fewer than 1000 blocks are counted, the block is counted but not stored.
    /// @param header  filled in; not kept.
    /// @return false when 1000 blocks are counted already.
    bool __AddMemory(TMemHeader* header);

    /// Finds a block by its pointer, compares its header with the copy, and frees it with its header. The size that
    /// the copy holds comes off the total.
    /// @return false when the table does not hold the pointer; nothing is freed then.
    bool __RemoveMemory(void* pointer);

    /// Compares every live block's header with its copy and logs each that differs in the three info lines
    /// "*********  Memory ERROR *********!!!!!!!!", "Test Memory..0x%p, Header (0x%p , %s, %d)" for the header itself
    /// and "List Memory..0x%p, Header (0x%p , %s, %d)" for its copy. File names are logged up to 49 characters.
    void __CheckMemory();
    /// @}

protected:
    static constexpr int kMaxBlocks = 1000;  ///< tracked at a time

    static std::atomic<CMemoryManager*> m_pInstance;  ///< read without a lock
    static GMutex m_mutex;                            ///< guards the fields of the instance
    static bool m_bStarted;                           ///< false; not used

    std::int32_t m_nCount;           ///< live tracked blocks; guarded by m_mutex
    std::int32_t m_nMaxSize;         ///< the highest m_nTotalSize so far; guarded by m_mutex
    std::int32_t m_nTotalSize;       ///< bytes in live blocks; guarded by m_mutex
    TMemHeader m_table[kMaxBlocks];  ///< a slot with a null block pointer is free; guarded by m_mutex

private:
    enum class Added { No, Counted, Stored };

    Added AddMemory_(const TMemHeader& header);
    TMemHeader* FindSlot_(const void* block);
};

/// @}

#endif  // LUMORA_COMMON_MEMORY_MGR_H
