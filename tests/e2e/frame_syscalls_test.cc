// Frames make no system call but the futex calls behind the semaphores that
// hand each parallel stage to the worker and back. A forked child sets up an
// engine and runs warm-up frames, then installs a seccomp filter on both its
// threads that lets futex through and turns every other call into a SIGSYS,
// which it counts (the call is then skipped); it runs frames in every mode,
// in place and to a buffer, and reports the count through a pipe, the one
// other way out. qemu-user does not emulate seccomp and the sanitizers'
// runtimes make calls of their own: there the test skips.
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "support/engine_helpers.h"
#include "support/media.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !(defined(__x86_64__) || defined(__arm__))
#define QIMRA_SECCOMP_TEST 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QIMRA_SECCOMP_TEST 0
#endif
#endif
#ifndef QIMRA_SECCOMP_TEST
#define QIMRA_SECCOMP_TEST 1
#endif

namespace qimra::test {
namespace {

#if QIMRA_SECCOMP_TEST

#if defined(__x86_64__)
constexpr uint32_t kAuditArch = AUDIT_ARCH_X86_64;
#else
constexpr uint32_t kAuditArch = AUDIT_ARCH_ARM;
#endif

volatile sig_atomic_t g_trapped = 0;
volatile long g_first_call = -1;

void on_sigsys(int, siginfo_t* info, void*) {
    if (g_trapped == 0) g_first_call = info->si_syscall;
    g_trapped = g_trapped + 1;
}

// Allows futex, the signal return, exit and writes to report_fd, and traps
// the rest; with strict off it allows everything (the probe).
bool install_filter(int report_fd, bool strict) {
    using F = sock_filter;
    std::vector<F> f = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAuditArch, 1, 0),
                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
                        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    const long allowed[] = {
        __NR_futex,
        __NR_rt_sigreturn,
        __NR_exit,
        __NR_exit_group,
#if defined(__NR_futex_time64)
        __NR_futex_time64,
#endif
#if defined(__NR_sigreturn)
        __NR_sigreturn,
#endif
    };
    for (const long nr : allowed) {
        f.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(nr), 0, 1));
        f.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    // write(report_fd, ...) only.
    const F tail[] = {BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_write, 0, 3),
                      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
                      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(report_fd), 0, 1),
                      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP)};
    f.insert(f.end(), tail, tail + 5);
    if (!strict) f = {BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    sock_fprog prog{static_cast<unsigned short>(f.size()), f.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
    // Synchronised to every thread: the worker gets the same filter.
    return syscall(__NR_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &prog) == 0;
}

// In a forked child: `setup` runs freely and returns the body, which runs
// under the filter. Returns "<trapped calls> <first call number>", or the
// child's failure.
std::string trapped_calls(const std::function<std::function<void()>()>& setup, bool strict = true) {
    int fds[2];
    if (pipe(fds) != 0) return "no pipe";
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        struct sigaction sa {};
        sa.sa_sigaction = on_sigsys;
        sa.sa_flags = SA_SIGINFO;
        if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(2);
        const std::function<void()> body = setup();
        if (sigaction(SIGSYS, &sa, nullptr) != 0 || !install_filter(fds[1], strict)) _exit(3);
        body();
        char line[64];
        const int len = std::snprintf(line, sizeof line, "%d %ld", static_cast<int>(g_trapped), g_first_call);
        _exit(write(fds[1], line, static_cast<size_t>(len)) == len ? 0 : 4);
    }
    close(fds[1]);
    char buf[64] = {};
    const ssize_t got = read(fds[0], buf, sizeof buf - 1);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return code == 0 && got > 0 ? std::string(buf) : "child failed: " + std::to_string(code);
}

TEST(FrameSyscalls, OnlyTheSemaphoresInsideProcess) {
    if (trapped_calls([] { return [] {}; }, false) != "0 -1")
        GTEST_SKIP() << "seccomp filters are not available here (qemu-user does not emulate them)";
    // The filter traps: without this, one that let everything through would pass.
    EXPECT_EQ(trapped_calls([] { return [] { (void)syscall(__NR_getppid); }; }), "1 " + std::to_string(__NR_getppid));
    for (const auto& [w, h, interleaved] : {std::tuple{1280, 720, false}, {1280, 720, true}, {640, 480, false}}) {
        const std::vector<uint8_t> dark = load_frame("path", w, h, interleaved);
        const std::vector<uint8_t> bright = load_frame("autumn", w, h, interleaved);
        for (const int mode : {0, 1, 2}) {
            // Set-up allocates and starts the worker, the warm-up frames bind
            // symbols and touch pages, and the frames are copied before the
            // filter; the engine is never torn down (freeing may unmap).
            const std::string report = trapped_calls([&] {
                reset_globals();
                qimra_ctx* c = qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, mode, interleaved ? 2 : 0);
                auto frames = std::make_shared<std::vector<std::vector<uint8_t>>>(10, dark);
                (*frames)[7] = bright;
                for (int n = 0; n < 3; ++n) qimra_process(c, (*frames)[n].data(), w, h, (*frames)[9].data(), w, h);
                return [=] {
                    for (int n = 3; n < 9; ++n)
                        qimra_process(c, (*frames)[n].data(), w, h, (*frames)[n % 2 ? n : 9].data(), w, h);
                };
            });
            EXPECT_EQ(report.substr(0, 2), "0 ") << w << "x" << h << (interleaved ? " nv12" : " i420") << " mode "
                                                 << mode << ": trapped calls and the first call's number, " << report;
        }
    }
}

#endif  // QIMRA_SECCOMP_TEST

}  // namespace
}  // namespace qimra::test
