// Engine creation and teardown.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/ctx.h"
#include "engine/log.h"
#include "engine/tables.h"
#include "simd/dispatch.h"

namespace qimra {

AnalysisSize analysis_size(int32_t width, int32_t height) {
    // Both dimensions must reach 720p before analysis and smoothing move to
    // a quarter of the size.
    if (width >= 1280 && height >= 720) return {1, width >> 2, height >> 2};
    return {0, width, height};
}

int32_t slot_stride(int32_t aw) { return aw + 19; }

int32_t slot_rows(int32_t ah, int slot_index) { return coreload[slot_index] * ah / 100 + 39; }

namespace {

// The worker handle, the core counter and the side inputs are process-wide,
// so the library itself admits one engine at a time. The claim lives here,
// in the one copy of the library, rather than in any header a plugin or a
// binding compiles into its own object.
std::atomic<bool> engine_claimed{false};

template <typename T>
bool take(T*& field, int bytes) {
    field = reinterpret_cast<T*>(blc_malloc(bytes));
    return field != nullptr;
}

// The second analysis buffer outlives its engine: teardown never frees it,
// so its allocation is kept in a function of its own that the leak checker
// is told about (tests/lsan.supp) without hiding any other leak.
__attribute__((noinline)) bool take_kept_buffer(uint8_t*& field, int bytes) { return take(field, bytes); }

bool allocate_slot_buffers(ctx* c, int32_t aw, int32_t ah) {
    const int32_t sw = slot_stride(aw);
    for (core = 0; core < 2; ++core) {
        qimra_job& job = c->slot[core].job;
        const int32_t rows = slot_rows(ah, core);
        const int table_bytes = 4 * sw * rows;
        if (!take(job.ii_sum, table_bytes) || !take(job.ii_sqsum, table_bytes) || !take(job.gf_b, table_bytes) ||
            !take(job.gf_a, table_bytes) || !take(job.gf_out, sw * rows) || !take(job.base_full, c->width * c->height))
            return false;
    }
    return true;
}

bool start_worker(ctx* c) {
    worker_slot& slot = c->slot[1];
    slot.job.exit = 0;
    sem_init(&slot.job.sem_start, 0, 0);
    sem_init(&slot.job.sem_done, 0, 0);
    rc = pthread_create(&thrd_hdl[1], nullptr, thread_func1, &slot);
    if (rc != 0) {
        sem_destroy(&slot.job.sem_start);
        sem_destroy(&slot.job.sem_done);
        return false;
    }
    return true;
}

void stop_worker(ctx* c) {
    qimra_job& job = c->slot[1].job;
    job.exit = 1;
    sem_post(&job.sem_start);
    sem_wait(&job.sem_done);
    pthread_join(thrd_hdl[1], nullptr);
    sem_destroy(&job.sem_start);
    sem_destroy(&job.sem_done);
}

// Frees a buffer that teardown expects; a missing one marks the result.
template <typename T>
void release(T* p, int32_t& mark) {
    if (p == nullptr) {
        mark = 1;
        return;
    }
    free(p);
}

int32_t free_buffers(ctx* c) {
    int32_t mark = 0;
    for (int i = 0; i < 2; ++i) {
        qimra_job& job = c->slot[i].job;
        release(job.ii_sum, mark);
        release(job.ii_sqsum, mark);
        free(job.gf_b);
        free(job.gf_a);
        release(job.gf_out, mark);
        release(job.base_full, mark);
    }
    release(c->sigmoid_lut, mark);
    release(c->ds_luma, mark);
    release(c->buf32k, mark);
    release(c->chroma_lut16, mark);
    release(c->sig50p1_f, mark);
    release(c->sig50p1_lut, mark);
    release(c->sig45_f, mark);
    return mark;
}

// An init that ran out of memory gives back everything it took, the second
// analysis buffer included, and reports a null context.
qimra_ctx* abandon_init(ctx* c, bool worker_running) {
    if (worker_running) stop_worker(c);
    free_buffers(c);
    free(c->ds_luma2);
    free(c->gain_map);
    free(c);
    engine_claimed = false;
    return nullptr;
}

}  // namespace
}  // namespace qimra

using namespace qimra;

extern "C" qimra_ctx* qimra_init(int32_t width, int32_t height, float gamma, uint32_t param4, int32_t /*arg5*/,
                                 int32_t /*arg6*/, int32_t /*arg7*/, int32_t /*arg8*/, int32_t adaptive_mode,
                                 int32_t colour_format) {
    // Refused before anything is touched: the live engine's side inputs and
    // counters stay exactly as they are.
    bool free_slot = false;
    if (!engine_claimed.compare_exchange_strong(free_slot, true)) {
        log_line("init refused: an engine already exists in this process; deinit it before creating another");
        return nullptr;
    }
    const AnalysisSize a = analysis_size(width, height);

    ctx* c = reinterpret_cast<ctx*>(blc_malloc(kCtxAllocBytes));
    if (c == nullptr) {
        engine_claimed = false;
        return nullptr;
    }
    // Zeroed so that a partly built engine can always be taken apart.
    memset(c, 0, kCtxAllocBytes);
    c->gamma = gamma;
    c->param4 = param4;
    c->adaptive_mode = adaptive_mode;
    c->colour_format = colour_format;
    c->analyse_ds = 1;
    c->quarter_mode = a.quarter_mode;
    c->ext_hist = nullptr;
    c->in_chroma = nullptr;
    c->out_chroma = nullptr;
    global_cam_params[1] = 0;
    global_cds_params[1] = 0;

    if (!take(c->buf32k, 32768) || !take(c->chroma_lut16, 65536) || !take(c->ds_luma, a.aw * a.ah) ||
        !take_kept_buffer(c->ds_luma2, a.aw * a.ah))
        return abandon_init(c, false);
    c->frame_count = 0;
    c->height = height;
    c->width = width;

    if (!take(c->sigmoid_lut, 256)) return abandon_init(c, false);
    fill_sigmoid_lut(c->sigmoid_lut);

    memset(c->strength_hist, 0, sizeof c->strength_hist);
    memset(c->aux_hist, 0, sizeof c->aux_hist);
    for (float& g : c->gain_f) g = 1.0f;
    c->hist_index = 0;
    c->frames_enhanced = 0;
    c->frames_plain = 0;
    c->decision_word = 0;
    c->on_count = 0;
    c->off_count = 0;
    c->prev_top_level = 255;

    for (int i = 0; i < 2; ++i) c->slot[i].job_ptr = &c->slot[i].job;
    if (!allocate_slot_buffers(c, a.aw, a.ah)) return abandon_init(c, false);
    if (!start_worker(c)) return abandon_init(c, false);

    if (!take(c->sig45_f, 1024) || !take(c->sig50p1_f, 1024) || !take(c->sig50p1_lut, 256))
        return abandon_init(c, true);
    fill_sigmoid_float_tables(c->sig45_f, c->sig50p1_f, c->sig50p1_lut);

    if (!take(c->gain_map, width * height / 2)) return abandon_init(c, true);
    fill_reciprocal_tables(c->recip16_a, c->recip16_b);
    fill_recip_f(c->recip_f);

    printf("Total Memory Allocated %f MB\n", static_cast<double>(static_cast<float>(total_mem) / 1048576.0f));
    fflush(stdout);
    log_line("BLC init with %d cores ht %d wd %d", 2, height, width);
    log_line("V11- CDS supported for 410 chroma format");
    log_line("Adaptive mode:%d", adaptive_mode);
    log_line("USE_1PASS_GUIDED_FILTER:%d", 1);
    log_line("UPSCALE_BY_4:%d", 0);
    log_line("gamma :%f\tcolour_format:%d", static_cast<double>(gamma), colour_format);
    // Which forms the kernels run, so that a report names the path it took.
    log_isa_choice();
    return c;
}

extern "C" int32_t qimra_deinit(qimra_ctx* c) {
    log_line("deinit called ");
    if (c == nullptr) return 1;
    stop_worker(c);
    int32_t mark = free_buffers(c);
    // ds_luma2 is deliberately left allocated: teardown releases exactly the
    // buffers it always has, so a process's memory across engines behaves as
    // integrators have measured it.
    if (c->gain_map == nullptr) {
        mark = 1;
    } else {
        free(c->gain_map);
    }
    free(c);
    engine_claimed = false;
    log_line("deinit done ");
    return mark;
}

extern "C" int32_t qimra_engine_alive(void) { return engine_claimed ? 1 : 0; }
