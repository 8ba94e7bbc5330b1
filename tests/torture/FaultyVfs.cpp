// SPDX-License-Identifier: Apache-2.0
#include "FaultyVfs.h"

#include <sqlite3.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

using FaultyVfs::Operation;

sqlite3_vfs* g_real = nullptr;
FaultyVfs::Fault g_fault{};
long g_failAt = 0;
bool g_isForGood = false;
std::atomic<bool> g_isArmed{false};
std::atomic<long> g_count{0};
std::atomic<long> g_failed{0};

/// SQLite allocates it together with the real file, which follows it.
struct File {
    sqlite3_file base;

    sqlite3_file* Real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

sqlite3_file* RealOf(sqlite3_file* file) {
    return reinterpret_cast<File*>(file)->Real();
}

bool Fails(Operation operation) {
    if (!g_isArmed || operation != g_fault.operation) {
        return false;
    }
    const long number = ++g_count;
    if (number < g_failAt || (number > g_failAt && !g_isForGood)) {
        return false;
    }
    ++g_failed;
    return true;
}

int Close(sqlite3_file* file) {
    return RealOf(file)->pMethods->xClose(RealOf(file));
}

int Read(sqlite3_file* file, void* bytes, int size, sqlite3_int64 offset) {
    sqlite3_file* real = RealOf(file);
    if (!Fails(Operation::Read)) {
        return real->pMethods->xRead(real, bytes, size, offset);
    }
    if (g_fault.isHalfDone) {
        real->pMethods->xRead(real, bytes, size / 2, offset);
        std::memset(static_cast<char*>(bytes) + size / 2, 0, static_cast<std::size_t>(size - size / 2));
    }
    return g_fault.result;
}

int Write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
    sqlite3_file* real = RealOf(file);
    if (!Fails(Operation::Write)) {
        return real->pMethods->xWrite(real, bytes, size, offset);
    }
    if (g_fault.isHalfDone) {
        real->pMethods->xWrite(real, bytes, size / 2, offset);
    }
    return g_fault.result;
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
    return Fails(Operation::Truncate) ? g_fault.result : RealOf(file)->pMethods->xTruncate(RealOf(file), size);
}

int Sync(sqlite3_file* /*file*/, int /*flags*/) {
    return Fails(Operation::Sync) ? g_fault.result : SQLITE_OK;
}

int FileSize(sqlite3_file* file, sqlite3_int64* size) {
    return Fails(Operation::FileSize) ? g_fault.result : RealOf(file)->pMethods->xFileSize(RealOf(file), size);
}

int Lock(sqlite3_file* file, int level) {
    return Fails(Operation::Lock) ? g_fault.result : RealOf(file)->pMethods->xLock(RealOf(file), level);
}

int Unlock(sqlite3_file* file, int level) {
    return RealOf(file)->pMethods->xUnlock(RealOf(file), level);
}

int CheckReservedLock(sqlite3_file* file, int* result) {
    return RealOf(file)->pMethods->xCheckReservedLock(RealOf(file), result);
}

int FileControl(sqlite3_file* file, int operation, void* argument) {
    return RealOf(file)->pMethods->xFileControl(RealOf(file), operation, argument);
}

int SectorSize(sqlite3_file* file) {
    return RealOf(file)->pMethods->xSectorSize(RealOf(file));
}

int DeviceCharacteristics(sqlite3_file* file) {
    return RealOf(file)->pMethods->xDeviceCharacteristics(RealOf(file));
}

/// Version 1: no shared memory and no mapped files, so that every read and write is seen.
const sqlite3_io_methods kMethods = {1,
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

int Open(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    file->pMethods = nullptr;  // nothing to close
    if (Fails(Operation::Open)) {
        return g_fault.result;
    }
    const int result = g_real->xOpen(g_real, name, RealOf(file), flags, outFlags);
    if (RealOf(file)->pMethods != nullptr) {
        file->pMethods = &kMethods;
    }
    return result;
}

int Delete(sqlite3_vfs* /*vfs*/, const char* name, int syncsFolder) {
    return Fails(Operation::Delete) ? g_fault.result : g_real->xDelete(g_real, name, syncsFolder);
}

int Access(sqlite3_vfs* /*vfs*/, const char* name, int flags, int* result) {
    return Fails(Operation::Access) ? g_fault.result : g_real->xAccess(g_real, name, flags, result);
}

}  // namespace

void FaultyVfs::Install() {
    g_real = sqlite3_vfs_find(nullptr);
    static sqlite3_vfs layer = *g_real;  // all other operations need no file of the layer
    layer.zName = "faulty";
    layer.szOsFile = static_cast<int>(sizeof(File)) + g_real->szOsFile;
    layer.xOpen = Open;
    layer.xDelete = Delete;
    layer.xAccess = Access;
    if (sqlite3_vfs_register(&layer, /*makeDflt=*/1) != SQLITE_OK) {
        std::abort();
    }
}

void FaultyVfs::Arm(const Fault& fault, long failAt, bool isForGood) {
    g_fault = fault;
    g_failAt = failAt;
    g_isForGood = isForGood;
    g_count = 0;
    g_failed = 0;
    g_isArmed = true;
}

long FaultyVfs::Disarm() {
    g_isArmed = false;
    return g_failed;
}
