// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TORTURE_CRASH_DISK_H
#define LUMORA_COMMON_TESTS_TORTURE_CRASH_DISK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

/// Records what SQLite and the library write to the files of one folder, and computes what a power loss leaves of it.
///
/// While an object records, it is SQLite's default VFS, and it observes remove(), fsync() and fdatasync(). Every call
/// still has its usual effect.
///
/// **The disk that it models.** What was synchronised is kept. Of the writes to a file after its last synchronisation,
/// any may be kept, lost or torn at any sector; a sector being written may hold garbage; they reach the disk in any
/// order. Changes of the folder (a new file, a removed file) reach the disk in their order, but any number of the last
/// ones may be lost until the folder is synchronised.
class CrashDisk {
public:
    /// A number that the workload keeps up to date, such as how many writes have returned.
    using Marks = std::vector<int>;

    /// How unsynchronised writes end.
    enum Loss : int { LOSE_ALL, KEEP_ALL, KEEP_FIRST, LOSE_SOME, TEAR_SOME, SPOIL_SOME, LOSS_COUNT };

    /// Starts to record.
    /// @param marks  returns the marks; called with each recorded step.
    explicit CrashDisk(std::function<Marks()> marks);
    ~CrashDisk();
    CrashDisk(const CrashDisk&) = delete;
    CrashDisk& operator=(const CrashDisk&) = delete;

    /// Stops to record.
    void Stop();

    std::size_t Steps() const { return m_steps.size(); }
    std::size_t FolderSyncs() const;

    /// Returns the marks at the time of a step: all that was promised before it.
    const Marks& MarksAt(std::size_t step) const { return m_steps.at(step).marks; }

    /// Returns the files, name to content, that a power loss just before a step leaves.
    std::map<std::string, std::string> FilesAfterLoss(std::size_t step, Loss loss, std::mt19937& random) const;

    // Called by the VFS and the observed functions.
    int OpenFile(const std::string& path, bool isCreated);
    void RemoveFile(const std::string& path);
    void WriteFile(int file, std::int64_t offset, const void* data, std::size_t size);
    void TruncateFile(int file, std::int64_t size);
    void SyncFile(int file);
    void SyncFolder();

private:
    enum class Kind { Link, Unlink, SyncFolder, Write, Truncate, SyncFile };

    struct Step {
        Kind kind;
        int file;             ///< for all kinds of files, and Link
        std::string name;     ///< for Link and Unlink
        std::int64_t offset;  ///< for Write; the size for Truncate
        std::string data;     ///< for Write
        Marks marks;
    };

    void Add(Kind kind, int file, const std::string& name = "", std::int64_t offset = 0, std::string data = "");
    std::map<std::string, int> FolderAfterLoss(std::size_t end, Loss loss, std::mt19937& random) const;
    std::string ContentAfterLoss(int file, std::size_t end, Loss loss, std::mt19937& random) const;

    std::function<Marks()> m_marks;
    std::vector<Step> m_steps;
    std::map<std::string, int> m_files;  ///< the folder as it is now: name to number
    int m_fileCount = 0;
};

#endif  // LUMORA_COMMON_TESTS_TORTURE_CRASH_DISK_H
