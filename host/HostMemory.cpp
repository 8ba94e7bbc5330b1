// SPDX-License-Identifier: Apache-2.0
#include "HostMemory.h"

#include <ContextAutoLock.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <new>

HostMemory::HostMemory() {
    SetInstance(this);
    Start();
}

HostMemory::~HostMemory() {
    Stop();
}

std::string HostMemory::Counters() {
    ContextAutoLock lock(&m_mutex);
    return std::to_string(m_nCount) + " blocks in use, " + std::to_string(m_nTotalSize) + " bytes; at most " +
           std::to_string(m_nMaxSize) + " bytes at once";
}

HostBuffer::HostBuffer(std::size_t size) : m_data(nullptr), m_size(size) {
    if (CMemoryManager::GetInstance() == nullptr) {
        m_data = static_cast<char*>(std::malloc(std::max<std::size_t>(size, 1)));
    } else if (size <= UINT_MAX) {
        m_data = static_cast<char*>(CMemoryManager::Allocate(static_cast<unsigned int>(size), __FILE_NAME__, __LINE__));
    }
    if (m_data == nullptr) {
        throw std::bad_alloc();
    }
}

HostBuffer::~HostBuffer() {
    CMemoryManager::Release(m_data);
}
