// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TORTURE_FAULTY_VFS_H
#define LUMORA_COMMON_TESTS_TORTURE_FAULTY_VFS_H

/// The file system of SQLite, with faults: a layer over the default one, for every connection of the process.
namespace FaultyVfs {

enum class Operation { Read, Write, Sync, Open, Delete, Lock, Truncate, Access, FileSize };

struct Fault {
    const char* name;     ///< of what happens
    Operation operation;  ///< the operation that fails
    int result;           ///< what it returns
    bool isHalfDone;      ///< reads or writes the first half of the bytes before it fails
};

/// Makes the layer the default. Nothing is synced: a crash is not what it tries.
void Install();

/// Starts to count. The `failAt`-th operation of the fault's kind fails, from 1, and all later ones if `isForGood`.
void Arm(const Fault& fault, long failAt, bool isForGood);

/// Ends it.
/// @return the number of operations that failed.
long Disarm();

}  // namespace FaultyVfs

#endif  // LUMORA_COMMON_TESTS_TORTURE_FAULTY_VFS_H
