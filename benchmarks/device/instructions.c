// SPDX-License-Identifier: Apache-2.0
// A plugin for the emulator. Counts the instructions that a program executes in all threads, and writes the number to
// the file named by the argument "to". The declarations below are from the emulator's plugin interface, version 1;
// Debian does not ship its header.

#include <inttypes.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_info_t;
struct qemu_plugin_tb;
enum qemu_plugin_cb_flags { QEMU_PLUGIN_CB_NO_REGS };

size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, struct qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* block, void (*call)(unsigned int, void*),
                                          enum qemu_plugin_cb_flags flags, void* data);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, void*), void* data);

#define EXPORTED __attribute__((visibility("default")))

EXPORTED int qemu_plugin_version = 1;

static uint64_t g_executed;
static char g_path[4096];

static void Executed(unsigned int cpu, void* instructions) {
    (void)cpu;
    __atomic_fetch_add(&g_executed, (uintptr_t)instructions, __ATOMIC_RELAXED);
}

static void Translated(qemu_plugin_id_t id, struct qemu_plugin_tb* block) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_cb(block, Executed, QEMU_PLUGIN_CB_NO_REGS,
                                         (void*)qemu_plugin_tb_n_insns(block));
}

static void Ended(qemu_plugin_id_t id, void* data) {
    (void)id;
    (void)data;
    FILE* file = fopen(g_path, "w");
    if (file != NULL) {
        fprintf(file, "%" PRIu64 "\n", g_executed);
        fclose(file);
    }
}

EXPORTED int qemu_plugin_install(qemu_plugin_id_t id, const struct qemu_info_t* info, int count, char** arguments) {
    (void)info;
    if (count != 1 || strncmp(arguments[0], "to=", 3) != 0 || strlen(arguments[0] + 3) >= sizeof(g_path)) {
        fputs("instructions: the argument to=FILE is missing\n", stderr);
        return -1;
    }
    strcpy(g_path, arguments[0] + 3);
    qemu_plugin_register_vcpu_tb_trans_cb(id, Translated);
    qemu_plugin_register_atexit_cb(id, Ended, NULL);
    return 0;
}
