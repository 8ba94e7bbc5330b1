// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_CONTEXT_HOST_H
#define CONTEXT_HOST_CONTEXT_HOST_H

#include <ContextDatabase.h>
#include <ContextSubjectFilter.h>
#include <Provider/CuratorBaseData.h>
#include <Provider/IProvider.h>

#include <functional>
#include <string>
#include <vector>

/// The service: stores what its providers publish, and has an agent learn what is stored.
///
/// One thread imports; any may count and read meanwhile. The database flushes on its own.
class ContextHost : public IProvider {
public:
    /// @param databaseName  a file name in the data directory.
    explicit ContextHost(const std::string& databaseName);

    bool IsOpen() const { return m_database.IsRunning(); }

    /// What is published between the two calls commits at once. The calls come in pairs.
    void BeginBatch();
    void EndBatch();

    /// Waits until the last batch has reached the file.
    /// @param onWait  called now and then meanwhile.
    /// @return false when it was lost, because a write failed, or when it takes longer than two minutes.
    bool WaitForFlush(const std::function<void()>& onWait);

    /// @return whether every subject that a provider has offered is complete.
    bool HasEverythingArrived() { return m_arrivals.Check(); }

    /// @return how many records are stored.
    int CountRecords();

    /// Reads all that is stored, in the order of time and, within a second, of arrival; page by page, since a whole
    /// history at once would need ten times the memory of what is learnt from it.
    void ForEachPage(const std::function<void(const std::vector<CuratorBaseData>&)>& take);

    int AddInSubject(CBaseProvider* provider, const char* subject) override;
    void Publish(const char* subject, int code, const char* data, IProvider* provider) override;

    // What this host does not offer.
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
    int m_batchNumber;  ///< of the last batch that was begun or, at first, of the last one in the file
};

#endif  // CONTEXT_HOST_CONTEXT_HOST_H
