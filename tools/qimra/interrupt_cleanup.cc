#include "interrupt_cleanup.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

namespace qimra::tool {

namespace {

constexpr int kSlots = 16;
constexpr size_t kPathMax = 4096;

// A slot's path is written before the slot is marked in use, and the mark
// cleared before the path is reused: the handler only reads marked slots.
char g_paths[kSlots][kPathMax];
std::atomic<int> g_in_use[kSlots];
std::atomic<bool> g_installed{false};
constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

void on_interrupt(int sig) {
    for (int i = 0; i < kSlots; ++i)
        if (g_in_use[i].load() != 0) unlink(g_paths[i]);
    // Die of the same signal, so the parent sees what happened.
    signal(sig, SIG_DFL);
    raise(sig);
}

void install_handlers() {
    if (g_installed.exchange(true)) return;
    for (int sig : kSignals) {
        struct sigaction old {};
        if (sigaction(sig, nullptr, &old) != 0 || old.sa_handler == SIG_IGN) continue;  // e.g. under nohup
        struct sigaction sa {};
        sa.sa_handler = on_interrupt;
        sigemptyset(&sa.sa_mask);
        for (int s : kSignals) sigaddset(&sa.sa_mask, s);
        sigaction(sig, &sa, nullptr);
    }
}

}  // namespace

int remove_on_interrupt(const char* path) {
    static_assert(std::atomic<int>::is_always_lock_free, "the handler reads the marks");
    const size_t n = strlen(path);
    if (n >= kPathMax) return -1;
    install_handlers();
    for (int i = 0; i < kSlots; ++i) {
        if (g_in_use[i].load() != 0) continue;
        memcpy(g_paths[i], path, n + 1);
        g_in_use[i].store(1);
        return i;
    }
    return -1;
}

void forget_on_interrupt(int handle) {
    if (handle >= 0 && handle < kSlots) g_in_use[handle].store(0);
}

}  // namespace qimra::tool
