// SPDX-License-Identifier: Apache-2.0
#include "crash-disk.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "NextFunction.h"

namespace {

constexpr std::size_t kSectorSize = 512;
constexpr int kUnnamed = -1;  ///< the number of a temporary file, which is not recorded

CrashDisk* g_disk = nullptr;  ///< the one that records

/// @return the last component of a path.
std::string NameIn(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// A file of the VFS: the file of the system's VFS follows in the same block.
struct RecordedFile {
    sqlite3_file base;
    int number;

    sqlite3_file* System() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};
static_assert(sizeof(RecordedFile) % alignof(sqlite3_int64) == 0);

sqlite3_file* System(sqlite3_file* file) {
    return reinterpret_cast<RecordedFile*>(file)->System();
}

int Number(sqlite3_file* file) {
    return reinterpret_cast<RecordedFile*>(file)->number;
}

int Close(sqlite3_file* file) {
    return System(file)->pMethods->xClose(System(file));
}

int Read(sqlite3_file* file, void* data, int size, sqlite3_int64 offset) {
    return System(file)->pMethods->xRead(System(file), data, size, offset);
}

int Write(sqlite3_file* file, const void* data, int size, sqlite3_int64 offset) {
    g_disk->WriteFile(Number(file), offset, data, static_cast<std::size_t>(size));
    return System(file)->pMethods->xWrite(System(file), data, size, offset);
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
    g_disk->TruncateFile(Number(file), size);
    return System(file)->pMethods->xTruncate(System(file), size);
}

int Sync(sqlite3_file* file, int flags) {
    const int result = System(file)->pMethods->xSync(System(file), flags);
    g_disk->SyncFile(Number(file));
    return result;
}

int FileSize(sqlite3_file* file, sqlite3_int64* size) {
    return System(file)->pMethods->xFileSize(System(file), size);
}

int Lock(sqlite3_file* file, int level) {
    return System(file)->pMethods->xLock(System(file), level);
}

int Unlock(sqlite3_file* file, int level) {
    return System(file)->pMethods->xUnlock(System(file), level);
}

int CheckReservedLock(sqlite3_file* file, int* isReserved) {
    return System(file)->pMethods->xCheckReservedLock(System(file), isReserved);
}

int FileControl(sqlite3_file* file, int operation, void* argument) {
    return System(file)->pMethods->xFileControl(System(file), operation, argument);
}

int SectorSize(sqlite3_file* file) {
    return System(file)->pMethods->xSectorSize(System(file));
}

int DeviceCharacteristics(sqlite3_file* file) {
    return System(file)->pMethods->xDeviceCharacteristics(System(file));
}

// Version 1: without shared memory and memory maps, whose writes this VFS could not see.
const sqlite3_io_methods kMethods = {
    /*iVersion=*/1,
    Close,
    Read,
    Write,
    Truncate,
    Sync,
    FileSize,
    Lock,
    Unlock,
    CheckReservedLock,
    FileControl,
    SectorSize,
    DeviceCharacteristics,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr};

sqlite3_vfs* g_system = nullptr;
sqlite3_vfs g_recorded;

int Open(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* outFlags) {
    auto* recorded = reinterpret_cast<RecordedFile*>(file);
    recorded->base.pMethods = nullptr;
    const int result = g_system->xOpen(g_system, path, recorded->System(), flags, outFlags);
    if (result == SQLITE_OK) {
        recorded->base.pMethods = &kMethods;
        recorded->number = path != nullptr ? g_disk->OpenFile(path, (flags & SQLITE_OPEN_CREATE) != 0) : kUnnamed;
    }
    return result;
}

int Delete(sqlite3_vfs*, const char* path, int syncsFolder) {
    g_disk->RemoveFile(path);
    return g_system->xDelete(g_system, path, syncsFolder);
}

void NoteSync(int descriptor) {
    struct stat status {};
    if (g_disk != nullptr && fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
        g_disk->SyncFolder();
    }
}

void Overwrite(std::string& content, std::size_t offset, const std::string& data) {
    content.resize(std::max(content.size(), offset + data.size()));
    content.replace(offset, data.size(), data);
}

std::string Garbage(std::size_t size, std::mt19937& random) {
    std::string text(size, '\0');
    for (char& byte : text) {
        byte = static_cast<char>(random());
    }
    return text;
}

/// Writes some sectors of the data, and garbage to others if it spoils.
void Tear(std::string& content, std::size_t offset, const std::string& data, bool spoils, std::mt19937& random) {
    std::size_t size = 0;
    for (std::size_t from = 0; from < data.size(); from += size) {
        size = std::min(kSectorSize - (offset + from) % kSectorSize, data.size() - from);
        const unsigned int fate = static_cast<unsigned int>(random() % 3);
        if (fate == 0) {
            Overwrite(content, offset + from, data.substr(from, size));
        } else if (fate == 1 && spoils) {
            Overwrite(content, offset + from, Garbage(size, random));
        }
    }
}

}  // namespace

// SQLite synchronises a folder through the C library, not through its VFS.
extern "C" int fsync(int descriptor) {
    const int result = NextFunction<int(int)>("fsync")(descriptor);
    NoteSync(descriptor);
    return result;
}

extern "C" int fdatasync(int descriptor) {
    const int result = NextFunction<int(int)>("fdatasync")(descriptor);
    NoteSync(descriptor);
    return result;
}

// A reset removes its files through the C library.
extern "C" int remove(const char* path) {
    if (g_disk != nullptr) {
        g_disk->RemoveFile(path);
    }
    return NextFunction<int(const char*)>("remove")(path);
}

CrashDisk::CrashDisk(std::function<Marks()> marks) : m_marks(std::move(marks)) {
    g_disk = this;
    g_system = sqlite3_vfs_find(nullptr);
    g_recorded = *g_system;
    g_recorded.zName = "recorded";
    g_recorded.szOsFile += static_cast<int>(sizeof(RecordedFile));
    g_recorded.pNext = nullptr;
    g_recorded.xOpen = Open;
    g_recorded.xDelete = Delete;
    if (sqlite3_vfs_register(&g_recorded, /*makeDflt=*/1) != SQLITE_OK) {
        std::abort();
    }
}

CrashDisk::~CrashDisk() {
    Stop();
}

void CrashDisk::Stop() {
    if (g_disk == this) {
        sqlite3_vfs_unregister(&g_recorded);
        sqlite3_vfs_register(g_system, /*makeDflt=*/1);
        g_disk = nullptr;
    }
}

std::size_t CrashDisk::FolderSyncs() const {
    return static_cast<std::size_t>(
        std::count_if(m_steps.begin(), m_steps.end(), [](const Step& step) { return step.kind == Kind::SyncFolder; }));
}

int CrashDisk::OpenFile(const std::string& path, bool isCreated) {
    const std::string name = NameIn(path);
    const auto known = m_files.find(name);
    if (known != m_files.end()) {
        return known->second;
    }
    if (!isCreated) {
        return kUnnamed;
    }
    const int file = m_fileCount++;
    m_files[name] = file;
    Add(Kind::Link, file, name);
    return file;
}

void CrashDisk::RemoveFile(const std::string& path) {
    if (m_files.erase(NameIn(path)) != 0) {
        Add(Kind::Unlink, kUnnamed, NameIn(path));
    }
}

void CrashDisk::WriteFile(int file, std::int64_t offset, const void* data, std::size_t size) {
    if (file != kUnnamed) {
        Add(Kind::Write, file, "", offset, std::string(static_cast<const char*>(data), size));
    }
}

void CrashDisk::TruncateFile(int file, std::int64_t size) {
    if (file != kUnnamed) {
        Add(Kind::Truncate, file, "", size);
    }
}

void CrashDisk::SyncFile(int file) {
    if (file != kUnnamed) {
        Add(Kind::SyncFile, file);
    }
}

void CrashDisk::SyncFolder() {
    Add(Kind::SyncFolder, kUnnamed);
}

void CrashDisk::Add(Kind kind, int file, const std::string& name, std::int64_t offset, std::string data) {
    m_steps.push_back({kind, file, name, offset, std::move(data), m_marks()});
}

std::map<std::string, std::string> CrashDisk::FilesAfterLoss(std::size_t step, Loss loss, std::mt19937& random) const {
    std::map<std::string, std::string> files;
    for (const auto& [name, file] : FolderAfterLoss(step, loss, random)) {
        files[name] = ContentAfterLoss(file, step, loss, random);
    }
    return files;
}

std::map<std::string, int> CrashDisk::FolderAfterLoss(std::size_t end, Loss loss, std::mt19937& random) const {
    std::vector<std::size_t> changes;
    std::size_t kept = 0;
    for (std::size_t step = 0; step < end; ++step) {
        if (m_steps[step].kind == Kind::Link || m_steps[step].kind == Kind::Unlink) {
            changes.push_back(step);
        } else if (m_steps[step].kind == Kind::SyncFolder) {
            kept = changes.size();
        }
    }
    const std::size_t pending = changes.size() - kept;
    kept += loss == LOSE_ALL ? 0 : loss == KEEP_ALL ? pending : random() % (pending + 1);
    std::map<std::string, int> folder;
    for (std::size_t change = 0; change < kept; ++change) {
        const Step& step = m_steps[changes[change]];
        if (step.kind == Kind::Link) {
            folder[step.name] = step.file;
        } else {
            folder.erase(step.name);
        }
    }
    return folder;
}

std::string CrashDisk::ContentAfterLoss(int file, std::size_t end, Loss loss, std::mt19937& random) const {
    std::vector<std::size_t> changes;
    std::size_t synced = 0;
    for (std::size_t step = 0; step < end; ++step) {
        if (m_steps[step].file == file) {
            const Kind kind = m_steps[step].kind;
            if (kind == Kind::Write || kind == Kind::Truncate) {
                changes.push_back(step);
            } else if (kind == Kind::SyncFile) {
                synced = changes.size();
            }
        }
    }
    const std::size_t first = loss == KEEP_FIRST ? random() % (changes.size() - synced + 1) : 0;
    std::string content;
    for (std::size_t change = 0; change < changes.size(); ++change) {
        const Step& step = m_steps[changes[change]];
        const bool isKept = change < synced || loss == KEEP_ALL || (loss == KEEP_FIRST && change - synced < first) ||
                            (loss >= LOSE_SOME && random() % 2 == 0);
        if (isKept && step.kind == Kind::Truncate) {
            content.resize(static_cast<std::size_t>(step.offset));
        } else if (isKept) {
            Overwrite(content, static_cast<std::size_t>(step.offset), step.data);
        } else if (step.kind == Kind::Write && (loss == TEAR_SOME || loss == SPOIL_SOME)) {
            Tear(content, static_cast<std::size_t>(step.offset), step.data, loss == SPOIL_SOME, random);
        }
    }
    return content;
}
