// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_USAGE_STORE_H
#define CONTEXT_HOST_USAGE_STORE_H

#include <Provider/CuratorBaseData.h>

#include <functional>
#include <string>
#include <vector>

/// Read access to the stored usage records.
class UsageStore {
public:
    UsageStore() = default;
    virtual ~UsageStore() = default;
    UsageStore(const UsageStore&) = delete;
    UsageStore& operator=(const UsageStore&) = delete;

    /// @return the number of stored records.
    virtual int CountRecords() = 0;

    /// @return a text that changes whenever the records do.
    virtual std::string Version() { return std::to_string(CountRecords()); }

    /// Reads every record, ordered by start time; records of the same second keep the order in which they were stored.
    /// @param take  called with one block of records at a time, so that a long history need not fit into memory.
    virtual void ForEachBlock(const std::function<void(const std::vector<CuratorBaseData>&)>& take) = 0;
};

#endif  // CONTEXT_HOST_USAGE_STORE_H
