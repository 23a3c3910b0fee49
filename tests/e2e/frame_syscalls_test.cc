// The frame path makes no system call except the futex calls behind the
// semaphores that hand each parallel stage to the worker and back.
//
// A forked child sets up an engine, runs a few frames freely, then installs
// a seccomp filter on both of its threads that lets futex through and turns
// every other system call into a SIGSYS, which the child counts (the call
// itself is then skipped). It runs more frames in every adaptive mode, in
// place and to a separate buffer, and reports the count, with the first
// offending call numbers, through a pipe that is the only other way out.
//
// qemu-user does not emulate seccomp and the sanitizers' runtimes make calls
// of their own, so there the test skips; plain builds on x86-64 and on ARM
// hardware run it.
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/engine_helpers.h"
#include "support/media.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QIMRA_SECCOMP_TEST 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QIMRA_SECCOMP_TEST 0
#endif
#endif
#ifndef QIMRA_SECCOMP_TEST
#if defined(__x86_64__) || defined(__arm__)
#define QIMRA_SECCOMP_TEST 1
#else
#define QIMRA_SECCOMP_TEST 0
#endif
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
volatile long g_first_calls[4] = {-1, -1, -1, -1};

void on_sigsys(int, siginfo_t* info, void*) {
    const int n = g_trapped;
    if (n < 4) g_first_calls[n] = info->si_syscall;
    g_trapped = n + 1;
}

// Allows futex, the signal return, exit, and writes to report_fd; traps the
// rest. With strict off, everything is allowed (the probe).
bool install_filter(int report_fd, bool strict) {
    std::vector<sock_filter> f = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAuditArch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    };
    if (strict) {
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
        f.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_write, 0, 3));
        f.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])));
        f.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(report_fd), 0, 1));
        f.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
        f.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP));
    } else {
        f.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    sock_fprog prog{static_cast<unsigned short>(f.size()), f.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
    // Thread synchronisation: the worker thread gets the same filter.
    return syscall(__NR_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &prog) == 0;
}

bool seccomp_available() {
    const pid_t pid = fork();
    if (pid == 0) _exit(install_filter(-1, false) ? 0 : 1);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct Case {
    const char* name;
    int w;
    int h;
    int format;
};

// One engine in one mode: set up and three warm frames outside the filter
// (set-up allocates and starts the worker; first frames bind symbols and
// touch pages), then the filtered frames. The report is one line,
// "<trapped> <first call numbers...>". The engine is never torn down:
// freeing may give memory back to the kernel, and the process ends anyway.
[[noreturn]] void child(const Case& k, int mode, const std::vector<uint8_t>& dark, const std::vector<uint8_t>& bright,
                        int report_fd) {
    struct sigaction sa {};
    sa.sa_sigaction = on_sigsys;
    sa.sa_flags = SA_SIGINFO;
    if (sigaction(SIGSYS, &sa, nullptr) != 0) _exit(2);
    // Set-up messages go nowhere.
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    reset_globals();
    qimra_ctx* c = qimra_init(k.w, k.h, 0.5f, 0, 0, 0, 0, 0, mode, k.format);
    if (c == nullptr) _exit(3);
    std::vector<uint8_t> in(dark.size()), out(dark.size());
    for (int i = 0; i < 3; ++i) {
        in = dark;
        qimra_process(c, in.data(), k.w, k.h, out.data(), k.w, k.h);
    }
    // Frame copies are made before the filter too, so that the loop below
    // does nothing but call the library.
    std::vector<std::vector<uint8_t>> frames;
    for (const bool is_dark : {true, true, true, true, false, true, true}) frames.push_back(is_dark ? dark : bright);
    if (!install_filter(report_fd, true)) _exit(4);
    for (size_t n = 0; n < frames.size(); ++n) {
        uint8_t* target = n % 2 == 1 ? frames[n].data() : out.data();
        qimra_process(c, frames[n].data(), k.w, k.h, target, k.w, k.h);
    }
    char line[96];
    const int len = std::snprintf(line, sizeof line, "%d %ld %ld %ld %ld\n", static_cast<int>(g_trapped),
                                  g_first_calls[0], g_first_calls[1], g_first_calls[2], g_first_calls[3]);
    if (write(report_fd, line, static_cast<size_t>(len)) != len) _exit(5);
    _exit(0);
}

std::string run_child(const Case& k, int mode, const std::vector<uint8_t>& dark, const std::vector<uint8_t>& bright,
                      int* exit_code) {
    int fds[2];
    if (pipe(fds) != 0) return "";
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        child(k, mode, dark, bright, fds[1]);
    }
    close(fds[1]);
    std::string report;
    char buf[128];
    ssize_t got;
    while ((got = read(fds[0], buf, sizeof buf)) > 0) report.append(buf, static_cast<size_t>(got));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    *exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return report;
}

TEST(FrameSyscalls, OnlyTheSemaphoresInsideProcess) {
    if (!seccomp_available())
        GTEST_SKIP() << "seccomp filters are not available here (qemu-user does not emulate them)";
    const Case cases[] = {{"path", 1280, 720, 0}, {"path", 1280, 720, 2}, {"path", 640, 480, 0}};
    for (const Case& k : cases) {
        std::vector<uint8_t> dark = load_i420(k.name, k.w, k.h);
        std::vector<uint8_t> bright = load_i420("autumn", k.w, k.h);
        ASSERT_FALSE(dark.empty());
        ASSERT_FALSE(bright.empty());
        if (k.format == 2) {
            dark = i420_to_nv12(dark, k.w, k.h);
            bright = i420_to_nv12(bright, k.w, k.h);
        }
        for (const int mode : {0, 1, 2}) {
            int exit_code = -1;
            const std::string report = run_child(k, mode, dark, bright, &exit_code);
            SCOPED_TRACE(std::to_string(k.w) + "x" + std::to_string(k.h) + " format " + std::to_string(k.format) +
                         " mode " + std::to_string(mode));
            ASSERT_EQ(exit_code, 0) << "child failed (2 signal set-up, 3 init, 4 filter, 5 report)";
            int trapped = -1;
            long first[4] = {};
            ASSERT_EQ(
                std::sscanf(report.c_str(), "%d %ld %ld %ld %ld", &trapped, &first[0], &first[1], &first[2], &first[3]),
                5)
                << report;
            EXPECT_EQ(trapped, 0) << "system calls other than futex inside qimra_process; first numbers: " << first[0]
                                  << " " << first[1] << " " << first[2] << " " << first[3];
        }
    }
}

// The filter really traps: a system call made under it is counted. Without
// this a filter that let everything through would pass the test above.
TEST(FrameSyscalls, TheFilterSeesAForbiddenCall) {
    if (!seccomp_available())
        GTEST_SKIP() << "seccomp filters are not available here (qemu-user does not emulate them)";
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        struct sigaction sa {};
        sa.sa_sigaction = on_sigsys;
        sa.sa_flags = SA_SIGINFO;
        sigaction(SIGSYS, &sa, nullptr);
        if (!install_filter(fds[1], true)) _exit(4);
        (void)syscall(__NR_getppid);
        char line[64];
        const int len = std::snprintf(line, sizeof line, "%d %ld\n", static_cast<int>(g_trapped), g_first_calls[0]);
        _exit(write(fds[1], line, static_cast<size_t>(len)) == len ? 0 : 5);
    }
    close(fds[1]);
    char buf[64] = {};
    const ssize_t got = read(fds[0], buf, sizeof buf - 1);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_GT(got, 0);
    int trapped = -1;
    long nr = -1;
    ASSERT_EQ(std::sscanf(buf, "%d %ld", &trapped, &nr), 2);
    EXPECT_EQ(trapped, 1);
    EXPECT_EQ(nr, static_cast<long>(__NR_getppid));
}

#endif  // QIMRA_SECCOMP_TEST

}  // namespace
}  // namespace qimra::test
