// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_HOST_MEMORY_H
#define CONTEXT_HOST_HOST_MEMORY_H

#include <MemoryMgr.h>

#include <cstddef>
#include <memory>
#include <string>

/// Tracks the host's own buffers for `--track-memory`. At most one exists at a time.
class HostMemory : public CMemoryManager {
public:
    HostMemory();
    ~HostMemory() override;

    /// @return the numbers of blocks and bytes as one line for the user.
    std::string Counters();
};

/// A buffer of bytes, tracked if a HostMemory exists. It must not outlive that HostMemory.
class HostBuffer {
public:
    explicit HostBuffer(std::size_t size);
    ~HostBuffer();
    HostBuffer(const HostBuffer&) = delete;
    HostBuffer& operator=(const HostBuffer&) = delete;

    char* Data() { return m_data; }
    std::size_t Size() const { return m_size; }

private:
    char* m_data;
    std::size_t m_size;
};

#endif  // CONTEXT_HOST_HOST_MEMORY_H
