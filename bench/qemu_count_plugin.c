/* A qemu TCG plugin for make bench-instructions-armhf: counts every guest
 * instruction executed, by the function (ELF symbol) it belongs to and by
 * frame, over all threads. Built with the host compiler; qemu-user loads it
 * with -plugin.
 *
 * Frames: each execution of the marker function (argument mark=, default
 * qimra_bench_frame_mark, which the driver calls before every frame) starts
 * a new phase; phase 0 is everything before the first mark. At exit the
 * counts go to the file of argument out= (default standard error), one line
 * per phase and function: "PHASE COUNT SYMBOL". Instructions outside any
 * symbol count under "?".
 *
 * Only the handful of plugin calls used here are declared, as the plugin
 * API (version 1, qemu 7.x) defines them, so that no qemu source is needed.
 */
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef uint64_t qemu_plugin_id_t;
typedef struct qemu_info_t qemu_info_t;
struct qemu_plugin_tb;
struct qemu_plugin_insn;
enum qemu_plugin_cb_flags { QEMU_PLUGIN_CB_NO_REGS, QEMU_PLUGIN_CB_R_REGS, QEMU_PLUGIN_CB_RW_REGS };
typedef void (*qemu_plugin_vcpu_tb_trans_cb_t)(qemu_plugin_id_t id, struct qemu_plugin_tb* tb);
typedef void (*qemu_plugin_vcpu_udata_cb_t)(unsigned int vcpu_index, void* userdata);
typedef void (*qemu_plugin_udata_cb_t)(qemu_plugin_id_t id, void* userdata);

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, qemu_plugin_vcpu_tb_trans_cb_t cb);
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* tb, qemu_plugin_vcpu_udata_cb_t cb,
                                          enum qemu_plugin_cb_flags flags, void* userdata);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, qemu_plugin_udata_cb_t cb, void* userdata);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
struct qemu_plugin_insn* qemu_plugin_tb_get_insn(const struct qemu_plugin_tb* tb, size_t idx);
const char* qemu_plugin_insn_symbol(const struct qemu_plugin_insn* insn);
void qemu_plugin_outs(const char* string);

__attribute__((visibility("default"))) int qemu_plugin_version = 1;

enum { kMaxSymbols = 16384, kMaxPhases = 64 };

/* Symbols by the address of their name: qemu hands out one string per
 * symbol of the loaded binary, so equal pointers mean equal functions. */
static const char* symbol_name[kMaxSymbols];
static const char* symbol_key[2 * kMaxSymbols];
static uint32_t symbol_slot[2 * kMaxSymbols];
static uint32_t symbol_count;
static pthread_mutex_t symbol_lock = PTHREAD_MUTEX_INITIALIZER;

static uint64_t counts[kMaxPhases][kMaxSymbols];
static uint32_t phase;
static const char* mark_symbol = "qimra_bench_frame_mark";
static const char* out_path;

/* What one translated block adds when it runs: runs of instructions of one
 * function each (a block rarely spans two). */
struct block {
    int marks;
    uint32_t runs;
    struct {
        uint32_t symbol;
        uint32_t insns;
    } run[];
};

static uint32_t symbol_id(const char* name) {
    if (name == NULL || name[0] == '\0') name = "?";
    size_t h = ((uintptr_t)name >> 3) % (2 * kMaxSymbols);
    while (symbol_key[h] != NULL && symbol_key[h] != name) h = (h + 1) % (2 * kMaxSymbols);
    if (symbol_key[h] == NULL) {
        if (symbol_count == kMaxSymbols) return 0;
        symbol_key[h] = name;
        symbol_slot[h] = symbol_count;
        symbol_name[symbol_count++] = name;
    }
    return symbol_slot[h];
}

static void block_ran(unsigned int vcpu, void* data) {
    (void)vcpu;
    const struct block* b = data;
    uint32_t p = __atomic_load_n(&phase, __ATOMIC_RELAXED);
    if (b->marks) {
        p = p + 1 < kMaxPhases ? p + 1 : p;
        __atomic_store_n(&phase, p, __ATOMIC_RELAXED);
    }
    for (uint32_t i = 0; i < b->runs; ++i)
        __atomic_fetch_add(&counts[p][b->run[i].symbol], b->run[i].insns, __ATOMIC_RELAXED);
}

static void block_translated(qemu_plugin_id_t id, struct qemu_plugin_tb* tb) {
    (void)id;
    const size_t n = qemu_plugin_tb_n_insns(tb);
    struct block* b = calloc(1, sizeof *b + n * sizeof b->run[0]);
    if (b == NULL) abort();
    pthread_mutex_lock(&symbol_lock);
    for (size_t i = 0; i < n; ++i) {
        const char* name = qemu_plugin_insn_symbol(qemu_plugin_tb_get_insn(tb, i));
        const uint32_t s = symbol_id(name);
        if (b->runs == 0 || b->run[b->runs - 1].symbol != s) b->run[b->runs++].symbol = s;
        b->run[b->runs - 1].insns++;
        /* The marker's first instruction starts a block of its own. */
        if (i == 0 && name != NULL && strcmp(name, mark_symbol) == 0) b->marks = 1;
    }
    pthread_mutex_unlock(&symbol_lock);
    qemu_plugin_register_vcpu_tb_exec_cb(tb, block_ran, QEMU_PLUGIN_CB_NO_REGS, b);
}

static void write_counts(qemu_plugin_id_t id, void* data) {
    (void)id;
    (void)data;
    FILE* out = out_path != NULL ? fopen(out_path, "w") : stderr;
    if (out == NULL) {
        qemu_plugin_outs("qimra count plugin: cannot write the counts file\n");
        return;
    }
    const uint32_t phases = __atomic_load_n(&phase, __ATOMIC_RELAXED) + 1;
    for (uint32_t p = 0; p < phases; ++p)
        for (uint32_t s = 0; s < symbol_count; ++s)
            if (counts[p][s] != 0) fprintf(out, "%u %llu %s\n", p, (unsigned long long)counts[p][s], symbol_name[s]);
    if (out != stderr) fclose(out);
}

__attribute__((visibility("default"))) int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t* info,
                                                               int argc, char** argv) {
    (void)info;
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "out=", 4) == 0) {
            out_path = argv[i] + 4;
        } else if (strncmp(argv[i], "mark=", 5) == 0) {
            mark_symbol = argv[i] + 5;
        } else {
            qemu_plugin_outs("qimra count plugin: unknown argument (out=FILE, mark=SYMBOL)\n");
            return -1;
        }
    }
    symbol_id("?");
    qemu_plugin_register_vcpu_tb_trans_cb(id, block_translated);
    qemu_plugin_register_atexit_cb(id, write_counts, NULL);
    return 0;
}
