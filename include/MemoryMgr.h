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

/// The 64 bytes before every tracked block; the same on every architecture.
///
/// The block pointer is the address that Allocate() returned, stored in 48 bits; on 32-bit systems its high part is 0.
struct TMemHeader {
    char szFileName[50];       ///< the caller's source file; 50 or more characters leave no terminator
    std::uint16_t nBlockHigh;  ///< bits 32 to 47 of the block pointer
    std::int32_t nLine;        ///< source line of the allocation
    std::uint32_t nSize;       ///< bytes requested
    std::uint32_t nBlockLow;   ///< bits 0 to 31 of the block pointer
};

static_assert(sizeof(TMemHeader) == 64 && offsetof(TMemHeader, nBlockHigh) == 50 && offsetof(TMemHeader, nLine) == 52 &&
                  offsetof(TMemHeader, nSize) == 56 && offsetof(TMemHeader, nBlockLow) == 60,
              "the layout is a promise to tools that read a process's memory");

/// Finds heap damage: allocates blocks with a header before each, and checks the headers. Its counters of live blocks
/// and bytes let a derived class find leaks.
///
/// The host creates one manager, registers it with SetInstance() and starts its checker with Start(). From then on
/// Allocate() and Release() work from any thread. The manager keeps a copy of every live block's header in a table.
/// Every 2 seconds the checker logs each block whose header differs from its copy: either the block was underrun, or
/// the memory before it was overrun. Release() makes the same comparison. The file name up to its terminator, the line
/// and the size are compared; the block pointer is not.
///
/// **Limits.** At most 1000 blocks are tracked at a time; further blocks are plain heap blocks without a header, 64
/// bytes longer than requested. The totals have 32 bits and wrap around.
/// **Ownership.** The host owns the manager. The destructor sets the instance to null, even if it is another manager;
/// it neither stops the checker nor frees a block. Call Stop() first, which takes up to 2 seconds. Release every
/// tracked block while its manager is the instance: afterwards Release() would wrongly pass it to `free` as a plain
/// heap block.
/// **Threads.** Allocate(), Release() and GetInstance() may be called from any thread. Allocate(), Release() and the
/// checker hold one process-wide mutex. SetInstance() and the destructor take no lock and must not run at the same time
/// as Allocate(), Release() or the checker.
/// **Errors.** Damage is logged as info; nothing is repaired. Only Allocate() needs memory of the heap, one block for
/// each call; without it, nothing is counted and null is returned. Nothing is thrown. Start() is ContextThread's, and
/// GLib aborts the process when it cannot create the thread.
class LUMORA_API CMemoryManager : public ContextThread {
public:
    /// Creates a manager that tracks nothing and is not the instance.
    CMemoryManager();

    /// Sets the instance to null, even if it is another manager. Does not stop the checker.
    ~CMemoryManager() override;

    /// Sets the instance, the manager that Allocate() and Release() use.
    /// @param manager  the manager, not owned; null for none.
    static void SetInstance(CMemoryManager* manager);

    /// Returns the instance, or null. Takes no lock.
    static CMemoryManager* GetInstance();

    /// Allocates a block that the instance tracks, with the alignment of `malloc`.
    /// @param size  bytes; 0 returns a block too.
    /// @param file  the caller's source file; the first 50 characters are stored. Null counts as "".
    /// @param line  the caller's source line.
    /// @return a block for Release(); null without an instance or without memory.
    static void* Allocate(unsigned int size, const char* file, int line);

    /// Frees a block. A damaged header logs two info lines: "Delete Memory..0x%p, Header (0x%p , %s, %d)" for the
    /// header and "List   Memory..0x%p, Header (0x%p , %s, %d)" for its copy.
    /// @param pointer  from Allocate(), or any other block of the C library's heap, which is passed to `free`. May be
    ///                 null.
    static void Release(void* pointer);

    /// The checker, run on the worker thread: checks at the start and then every 2 seconds, as long as an instance is
    /// set. Stop() waits until the current pause ends.
    void OnThread() override;

    /// @name The table
    /// Called with m_mutex held.
    /// @{

    /// Copies a header into the lowest free slot and counts its block. If the count is below 1000 but no slot is free,
    /// which only a derived class that changes the count or the table can cause, the block is counted but not stored.
    /// @param header  copied, not kept.
    /// @return false, without counting, when the count is 1000 already.
    bool __AddMemory(TMemHeader* header);

    /// Finds a block by its pointer, compares its header with the copy, and frees block and header. The size in the
    /// copy is subtracted from the total.
    /// @return false when the pointer is not in the table; nothing is freed then.
    bool __RemoveMemory(void* pointer);

    /// Compares every live block's header with its copy. Each difference logs three info lines:
    /// "*********  Memory ERROR *********!!!!!!!!", "Test Memory..0x%p, Header (0x%p , %s, %d)" for the header and
    /// "List Memory..0x%p, Header (0x%p , %s, %d)" for its copy. File names are logged up to 49 characters.
    void __CheckMemory();
    /// @}

protected:
    static constexpr int kMaxBlocks = 1000;  ///< blocks tracked at a time

    static std::atomic<CMemoryManager*> m_pInstance;  ///< read without a lock
    static GMutex m_mutex;                            ///< guards the fields of the instance
    static bool m_bStarted;                           ///< false; unused

    std::int32_t m_nCount;           ///< live tracked blocks; guarded by m_mutex
    std::int32_t m_nMaxSize;         ///< highest m_nTotalSize so far; guarded by m_mutex
    std::int32_t m_nTotalSize;       ///< bytes in live blocks; guarded by m_mutex
    TMemHeader m_table[kMaxBlocks];  ///< a slot with a null block pointer is free; guarded by m_mutex

private:
    enum class Added { No, Counted, Stored };

    Added AddMemory_(const TMemHeader& header);
    TMemHeader* FindSlot_(const void* block);
};

/// @}

#endif  // LUMORA_COMMON_MEMORY_MGR_H
