#include "batch.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "progress.h"

namespace qimra::tool {

namespace {

namespace fs = std::filesystem;

// A file by its resolved path and, once it exists, by its inode, so that
// links and other spellings of one file are seen as one.
struct Identity {
    fs::path path;
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
};

Identity identify(const std::string& file) {
    Identity id;
    std::error_code error;
    id.path = fs::weakly_canonical(fs::absolute(file, error), error);
    struct stat st {};
    if (stat(file.c_str(), &st) == 0) {
        id.exists = true;
        id.dev = st.st_dev;
        id.ino = st.st_ino;
    }
    return id;
}

bool same_file(const Identity& a, const Identity& b) {
    return a.path == b.path || (a.exists && b.exists && a.dev == b.dev && a.ino == b.ino);
}

// ------------------------------------------------------------ signals

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
struct sigaction g_previous[3];
volatile sig_atomic_t g_signal = 0;
int g_wake[2] = {-1, -1};  // the handler wakes the loop's poll through this pipe

void on_signal(int sig) {
    g_signal = sig;
    const char byte = 1;
    [[maybe_unused]] const ssize_t n = write(g_wake[1], &byte, 1);
}

sigset_t signal_set() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : kSignals) sigaddset(&set, sig);
    return set;
}

void catch_signals() {
    if (pipe2(g_wake, O_CLOEXEC | O_NONBLOCK) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    for (int i = 0; i < 3; ++i) {
        sigaction(kSignals[i], nullptr, &g_previous[i]);
        if (g_previous[i].sa_handler == SIG_IGN) continue;  // e.g. under nohup: stays ignored
        struct sigaction sa {};
        sa.sa_handler = on_signal;
        sa.sa_mask = signal_set();
        sigaction(kSignals[i], &sa, nullptr);
    }
}

void release_signals() {
    for (int i = 0; i < 3; ++i) sigaction(kSignals[i], &g_previous[i], nullptr);
    close(g_wake[0]);
    close(g_wake[1]);
}

// ------------------------------------------------------------ workers

// What a worker sends for each frame: fixed records, written whole.
struct FrameRecord {
    int64_t frames;
    int64_t expected;
};
constexpr int kRecordFd = 3;

[[noreturn]] void worker_main(const BatchItem& item, const BatchWork& work, int record_fd, int error_fd) {
    // The worker's own handlers (which remove its temporary file) replace
    // the batch's; a signal that came meanwhile is taken once unblocked.
    for (int i = 0; i < 3; ++i) sigaction(kSignals[i], &g_previous[i], nullptr);
    dup2(error_fd, STDERR_FILENO);
    if (record_fd != kRecordFd) dup2(record_fd, kRecordFd);
    closefrom(kRecordFd + 1);
    const sigset_t set = signal_set();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);

    FrameRecord last{0, -1};
    auto sent = std::chrono::steady_clock::now();
    auto send = [&] { [[maybe_unused]] const ssize_t n = write(kRecordFd, &last, sizeof last); };
    const int code = work(item, [&](int64_t frames, int64_t expected) {
        last = {frames, expected};
        const auto now = std::chrono::steady_clock::now();
        if (now - sent < std::chrono::milliseconds(100)) return;
        sent = now;
        send();
    });
    send();
    fflush(stdout);
    fflush(stderr);
    _exit(code);
}

struct Worker {
    size_t item = 0;
    pid_t pid = -1;
    int record_fd = -1;
    int error_fd = -1;
    std::string records;  // bytes of a record not yet whole
    std::string errors;   // a line not yet whole
    FrameRecord state{0, -1};
};

Worker start_worker(size_t index, const BatchItem& item, const BatchWork& work) {
    int records[2], errors[2];
    if (pipe(records) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    if (pipe(errors) != 0) {
        close(records[0]);
        close(records[1]);
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    fflush(stdout);
    fflush(stderr);
    // Blocked across the fork, so that the worker takes an interrupt only
    // under its own handlers.
    const sigset_t set = signal_set();
    sigset_t old;
    sigprocmask(SIG_BLOCK, &set, &old);
    const pid_t pid = fork();
    if (pid == 0) {
        close(records[0]);
        close(errors[0]);
        worker_main(item, work, records[1], errors[1]);
    }
    const int fork_error = errno;
    sigprocmask(SIG_SETMASK, &old, nullptr);
    close(records[1]);
    close(errors[1]);
    if (pid < 0) {
        close(records[0]);
        close(errors[0]);
        throw std::system_error(fork_error, std::generic_category(), "cannot start a worker process");
    }
    Worker w;
    w.item = index;
    w.pid = pid;
    w.record_fd = records[0];
    w.error_fd = errors[0];
    return w;
}

// Reads what is waiting on one of a worker's pipes; closes it at its end.
// Returns the bytes read.
std::string drain(int& fd) {
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) return std::string(buffer, static_cast<size_t>(n));
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return "";
    close(fd);
    fd = -1;
    return "";
}

}  // namespace

std::vector<BatchItem> plan_outputs(const std::vector<std::string>& inputs, const std::string& folder,
                                    const std::string& extension) {
    std::vector<Identity> ins;
    for (const std::string& in : inputs) ins.push_back(identify(in));
    std::vector<BatchItem> items;
    std::vector<Identity> outs;
    for (size_t i = 0; i < inputs.size(); ++i) {
        BatchItem item{inputs[i], "", ""};
        fs::path name = fs::path(inputs[i]).filename();
        if (!extension.empty()) name.replace_extension("." + extension);
        item.output = (fs::path(folder) / name).string();
        const Identity out = identify(item.output);
        if (name.empty()) item.refusal = "has no file name to write under";
        for (size_t j = 0; j < inputs.size() && item.refusal.empty(); ++j)
            if (same_file(out, ins[j]))
                item.refusal =
                    "writing " + item.output + " would overwrite " +
                    (j == i ? std::string("the input itself; choose another folder") : "the input " + inputs[j]);
        for (size_t k = 0; k < items.size() && item.refusal.empty(); ++k)
            if (items[k].refusal.empty() && same_file(out, outs[k]))
                item.refusal = "its output " + item.output + " is already the output of " + inputs[k];
        items.push_back(item);
        outs.push_back(out);
    }
    return items;
}

bool same_file(const std::string& a, const std::string& b) { return same_file(identify(a), identify(b)); }

int default_jobs() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    const int cores = sched_getaffinity(0, sizeof cpus, &cpus) == 0 ? CPU_COUNT(&cpus) : 1;
    return std::max(1, cores / 2);
}

int run_batch(const std::vector<BatchItem>& items, int jobs, bool show_progress, bool quiet, const BatchWork& work) {
    Progress progress(show_progress, static_cast<int>(items.size()));
    ProgressStatus status;
    int written = 0, failed = 0, cut_short = 0;
    for (const BatchItem& item : items)
        if (!item.refusal.empty()) {
            fprintf(stderr, "qimra: %s: %s\n", item.input.c_str(), item.refusal.c_str());
            ++failed;
        }
    status.files_done = failed;

    catch_signals();
    std::vector<Worker> running;
    size_t next = 0;
    int64_t frames_done = 0;  // by finished workers
    bool passed_on = false;
    auto relay = [&](std::string& pending, const std::string& text, bool end) {
        pending += text;
        size_t nl;
        while ((nl = pending.find('\n')) != std::string::npos || (end && !pending.empty())) {
            const size_t len = nl == std::string::npos ? pending.size() : nl;
            progress.clear();
            fprintf(stderr, "%s\n", pending.substr(0, len).c_str());
            pending.erase(0, nl == std::string::npos ? len : len + 1);
        }
    };
    for (;;) {
        while (g_signal == 0 && static_cast<int>(running.size()) < jobs && next < items.size()) {
            if (items[next].refusal.empty()) running.push_back(start_worker(next, items[next], work));
            ++next;
        }
        if (running.empty()) break;

        std::vector<pollfd> fds{{g_wake[0], POLLIN, 0}};
        for (const Worker& w : running)
            for (int fd : {w.record_fd, w.error_fd})
                if (fd >= 0) fds.push_back({fd, POLLIN, 0});
        poll(fds.data(), fds.size(), 200);
        for (char wake[64]; fds[0].revents != 0 && read(g_wake[0], wake, sizeof wake) > 0;) {
        }
        if (g_signal != 0 && !passed_on) {
            for (const Worker& w : running) kill(w.pid, g_signal);
            passed_on = true;
        }
        for (size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            for (Worker& w : running) {
                if (fds[i].fd == w.record_fd) {
                    w.records += drain(w.record_fd);
                    for (; w.records.size() >= sizeof(FrameRecord); w.records.erase(0, sizeof(FrameRecord)))
                        memcpy(&w.state, w.records.data(), sizeof(FrameRecord));
                } else if (fds[i].fd == w.error_fd) {
                    const std::string text = drain(w.error_fd);
                    relay(w.errors, text, w.error_fd < 0);
                }
            }
        }
        double share = static_cast<double>(status.files_done);
        int64_t frames = frames_done;
        for (auto w = running.begin(); w != running.end();) {
            if (w->record_fd >= 0 || w->error_fd >= 0) {
                frames += w->state.frames;
                if (w->state.expected > 0)
                    share +=
                        std::min(1.0, static_cast<double>(w->state.frames) / static_cast<double>(w->state.expected));
                ++w;
                continue;
            }
            // Both pipes ended: the worker is exiting.
            int wait_status = 0;
            while (waitpid(w->pid, &wait_status, 0) < 0 && errno == EINTR) {
            }
            const int code = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
            if (code == 0 || code == 3) {
                ++written;
                cut_short += code == 3;
            } else {
                ++failed;
                if (WIFSIGNALED(wait_status) && g_signal == 0) {
                    progress.clear();
                    fprintf(stderr, "qimra: %s: its worker died of %s\n", items[w->item].input.c_str(),
                            strsignal(WTERMSIG(wait_status)));
                }
            }
            frames_done += w->state.frames;
            frames += w->state.frames;
            share += 1.0;
            ++status.files_done;
            w = running.erase(w);
        }
        status.frames = frames;
        status.share = items.empty() ? 1.0 : share / static_cast<double>(items.size());
        progress.update(status);
    }
    release_signals();
    if (g_signal != 0) {
        progress.clear();
        fprintf(stderr, "qimra: interrupted: %d written, %zu not\n", written, items.size() - written);
        signal(g_signal, SIG_DFL);
        raise(g_signal);
    }
    progress.finish(status);
    if (!quiet || failed > 0) fprintf(stderr, "qimra: %d written, %d failed\n", written, failed);
    return failed > 0 ? 1 : cut_short > 0 ? 3 : 0;
}

}  // namespace qimra::tool
