// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_CONTEXT_HOST_H
#define CONTEXT_HOST_CONTEXT_HOST_H

#include <ContextDatabase.h>
#include <ContextSubjectFilter.h>
#include <Provider/IProvider.h>

#include <functional>
#include <string>
#include <vector>

#include "UsageStore.h"

/// The handler of the providers: stores the records that they publish, and reads them back.
///
/// Writes are deferred. The database flushes them about once a second, on its own thread.
///
/// **Threads.** One thread publishes; any thread may count and read meanwhile.
class ContextHost : public IProvider, public UsageStore {
public:
    /// @param databaseName  a file name in the data directory.
    explicit ContextHost(const std::string& databaseName);

    /// @return the statement by which SQLite remembers the table of a store.
    static std::string TableText();

    bool IsOpen() const { return m_database.IsRunning(); }

    /// Encloses a batch: the records published between the two calls commit in one transaction.
    void BeginBatch();
    void EndBatch();

    /// Blocks until the last batch is in the file.
    /// @param onWait  called about every 20 ms while waiting.
    /// @return false if a write failed, which loses the batch, or after two minutes.
    bool WaitForFlush(const std::function<void()>& onWait);

    /// Removes the journal, which would otherwise stay as an empty file. Call it when nothing more is written.
    void EndWriting();

    /// @return whether every history has been published to its end.
    bool HasEverythingArrived() { return m_arrivals.Check(); }

    int CountRecords() override;
    std::string Version() override;
    void ForEachBlock(const std::function<void(const std::vector<CuratorBaseData>&)>& take) override;

    int AddInSubject(CBaseProvider* provider, const char* subject) override;
    void Publish(const char* subject, int code, const char* data, IProvider* provider) override;

    // Not offered by this host.
    int ProviderRequest(const char*, const char*, IProvider*, void*) override { return kNotOffered; }
    int ProviderResponse(const char*, int, const char*, IProvider*, void*) override { return kNotOffered; }
    int ProviderResponse(const char*, int, void*, IProvider*, void*) override { return kNotOffered; }
    int ProviderRead(const char*, const char*, char**) override { return kNotOffered; }
    int ProviderWrite(const char*, const char*) override { return kNotOffered; }
    void Publish(const char*, int, void*, IProvider*) override {}
    int SetTimer(int, timer_cb, void*) override { return 0; }
    bool KillTimer(int) override { return false; }

private:
    static constexpr int kNotOffered = -1;

    void Store_(const char* subject, const char* text);
    void WriteMark_(bool immediate);
    int QueryNumber_(const char* query);

    ContextDatabase m_database;
    ContextSubjectFilter m_arrivals;
    int m_batchNumber;  ///< number of the last batch that ended; initially the one in the file
};

#endif  // CONTEXT_HOST_CONTEXT_HOST_H
