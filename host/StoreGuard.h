// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_STORE_GUARD_H
#define CONTEXT_HOST_STORE_GUARD_H

#include <string>

/// Protects a store from other processes and from ContextDatabase, which wipes a file that it cannot open or write.
///
/// Take() locks the store, refuses a file that is no sound store, and gives the file and its journal second names,
/// NAME.kept and NAME.kept-journal. A reset of the database removes only the first names. Release() then puts the file
/// back, as the last complete transaction left it. If the program ends before that, the next Take() does it.
///
/// The journal must be one file for all transactions, as with `PRAGMA journal_mode = TRUNCATE`: when the disk is full,
/// a reset leaves half of a transaction in the file, and only the journal can roll it back.
///
/// **Threads.** One thread.
/// **Errors.** Returned as one line for the user; empty if there is none.
class StoreGuard {
public:
    /// @param name  a file name in the data directory.
    explicit StoreGuard(std::string name);

    /// Calls Release(), and unlocks the store.
    ~StoreGuard();
    StoreGuard(const StoreGuard&) = delete;
    StoreGuard& operator=(const StoreGuard&) = delete;

    /// Call it before the database is opened. After an error, nothing has been changed.
    std::string Take();

    /// @return whether the store is still the file that was taken: no reset has removed it.
    bool IsIntact() const;

    /// Removes the second name, or puts the store back. Does nothing if the store is not taken.
    ///
    /// If the store may not be intact, close the database first: a later write to it could remove the store again.
    std::string Release();

    /// @return whether a name may be given to a store: it must not be the name of a file that SQLite or this class puts
    ///         beside another store.
    static bool IsName(const std::string& name);

private:
    std::string Lock_();
    std::string Recover_();
    std::string Keep_();
    std::string RemoveKept_() const;
    std::string PutBack_() const;

    std::string m_name;
    std::string m_path;
    std::string m_journalPath;
    std::string m_keptPath;
    std::string m_keptJournalPath;
    int m_lock = -1;  ///< descriptor of the lock file
    bool m_isTaken = false;
};

#endif  // CONTEXT_HOST_STORE_GUARD_H
