// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_HOST_MEMORY_H
#define CONTEXT_HOST_HOST_MEMORY_H

#include <MemoryMgr.h>

#include <cstddef>
#include <memory>
#include <string>

/// The manager of the host's own buffers while `--track-memory` is on; shows its counters.
class HostMemory : public CMemoryManager {
public:
    HostMemory();
    ~HostMemory() override;

    /// @return one line about blocks and bytes, for a person.
    std::string Counters();
};

/// A buffer of bytes: tracked while there is a manager, an ordinary heap block without one.
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
