/*
 * A plug-in for qemu's user-mode emulation: counts the instructions that a program
 * executes and writes the number to standard error when it ends. A program that is run
 * again gives the same number.
 *
 * No header is packaged with the emulator; these are the parts of its documented plug-in
 * interface, version 1, that are used here.
 */
#include <inttypes.h>
#include <stddef.h>
#include <stdio.h>

#define EXPORT __attribute__((visibility("default")))

struct qemu_plugin_tb; /* a block of instructions, translated at once */
struct qemu_info_t;

enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };

typedef uint64_t qemu_plugin_id_t;

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*translated)(qemu_plugin_id_t id,
                                                              struct qemu_plugin_tb* tb));
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* tb, enum qemu_plugin_op op,
                                              void* number, uint64_t added);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id,
                                    void (*ended)(qemu_plugin_id_t id, void* data), void* data);

EXPORT int qemu_plugin_version = 1;
EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const struct qemu_info_t* info, int argc,
                               char** argv);

static uint64_t instructions;

static void translated(qemu_plugin_id_t id, struct qemu_plugin_tb* tb)
{
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &instructions,
                                             qemu_plugin_tb_n_insns(tb));
}

static void ended(qemu_plugin_id_t id, void* data)
{
    (void)id;
    (void)data;
    fprintf(stderr, "%" PRIu64 "\n", instructions);
}

int qemu_plugin_install(qemu_plugin_id_t id, const struct qemu_info_t* info, int argc, char** argv)
{
    (void)info;
    (void)argc;
    (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, translated);
    qemu_plugin_register_atexit_cb(id, ended, NULL);
    return 0;
}
