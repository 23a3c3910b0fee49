// The job runner and the worker thread: the one hand-over between the two
// cores. Every parallel stage fills both job records and calls
// run_on_both_cores; nothing else touches the semaphores while frames run.
#include "engine/band.h"
#include "engine/ctx.h"

namespace qimra {
namespace {

// A parallel stage lasts from a few microseconds to a millisecond, while
// waking a thread that sleeps in the kernel costs tens of microseconds (far
// more on a virtual machine). So both sides first poll the semaphore for a
// short while (sem_trywait is an atomic operation, no system call) and only
// then sleep. When the other side is polling, sem_post finds no sleeper and
// makes no system call either. The bound is short on purpose: when another
// process holds the second core, a poller only steals time from the thread
// it waits for. Measured at 1080p on two cores, 2000 polls (some tens of
// microseconds) gain about a fifth on idle cores and cost little on a busy
// one, where 20000 polls made frames three times slower.
constexpr int kPollsBeforeSleep = 2000;

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

void wait_for(sem_t* s) {
    for (int i = 0; i < kPollsBeforeSleep; ++i) {
        if (sem_trywait(s) == 0) return;
        cpu_relax();
    }
    sem_wait(s);
}

}  // namespace

int32_t core0_quarter_rows(int32_t rows) { return (coreload[0] * rows / 100 + 3) >> 2; }

void run_on_both_cores(ctx* c) {
    worker_slot& worker = c->slot[1];
    worker.job_ptr = &worker.job;
    sem_post(&worker.job.sem_start);
    Integral_ContStretch_YUVScale(&c->slot[0].job);
    wait_for(&worker.job.sem_done);
}

}  // namespace qimra

extern "C" void Integral_ContStretch_YUVScale(void* job_record) {
    auto* job = static_cast<qimra_job*>(job_record);
    switch (job->op) {
        case kOpDownscale4: ReSizeImage_downscale4_mc(job); break;
        case kOpDownscaleCount: qimra::downscale_and_count(job); break;
        case kOpColourTable: qimra_col_conv_create_lut_mc(job->ctx, job->core, 2); break;
        case kOpLocalFeatures: blc_local_hist_features(job->ctx, job->seg, job->core, 2); break;
        case qimra::kOpBandFilter: qimra::band_filter(job); break;
        case qimra::kOpBandApply: qimra::band_apply(job); break;
        default:
            qimra::band_filter(job);
            qimra::band_apply(job);
            break;
    }
}

extern "C" void* thread_func1(void* slot_record) {
    auto* slot = static_cast<worker_slot*>(slot_record);
    for (;;) {
        qimra::wait_for(&slot->job.sem_start);
        if (slot->job.exit == 1) break;
        Integral_ContStretch_YUVScale(slot->job_ptr);
        sem_post(&slot->job.sem_done);
    }
    // Teardown waits for this last post to know the worker has left.
    sem_post(&slot->job.sem_done);
    return nullptr;
}
