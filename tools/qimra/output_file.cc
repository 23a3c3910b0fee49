#include "output_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "error.h"
#include "interrupt_cleanup.h"

namespace qimra::tool {

namespace {

int g_data_fd = -1;

std::string errno_text() { return strerror(errno); }

std::string extension_of(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    return path.substr(dot);
}

}  // namespace

void reserve_stdout_for_data() {
    if (g_data_fd >= 0) return;
    fflush(stdout);
    g_data_fd = dup(STDOUT_FILENO);
    if (g_data_fd < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
        throw ToolError("standard output: cannot set it aside for data: " + errno_text());
}

OutputFile::OutputFile(std::string target) : target_(std::move(target)) {
    if (is_stdout()) return;
    // The temporary file keeps the target's extension, so that writers that
    // pick a container by name see the right one.
    const size_t slash = target_.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "" : target_.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target_ : target_.substr(slash + 1);
    const std::string ext = extension_of(base);
    std::string pattern = dir + "." + base + ".qimra-XXXXXX" + ext;
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    // An interrupt between making the file and registering it would leave it behind.
    sigset_t interrupts, old;
    sigemptyset(&interrupts);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&interrupts, sig);
    sigprocmask(SIG_BLOCK, &interrupts, &old);
    fd_ = mkstemps(name.data(), static_cast<int>(ext.size()));
    const int make_error = errno;
    if (fd_ >= 0) {
        temp_ = name.data();
        interrupt_slot_ = remove_on_interrupt(temp_.c_str());
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
    errno = make_error;
    if (fd_ < 0) throw file_error(target_, "cannot write there: " + errno_text());
    // mkstemps makes the file private; the result gets the usual permissions.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd_, 0666 & ~mask);
}

OutputFile::~OutputFile() {
    if (is_stdout()) {
        if (stream_ != nullptr) fflush(stream_);
        return;
    }
    if (stream_ != nullptr)
        fclose(stream_);
    else if (fd_ >= 0)
        close(fd_);
    if (!committed_ && !temp_.empty()) unlink(temp_.c_str());
    forget_on_interrupt(interrupt_slot_);
}

FILE* OutputFile::stream() {
    if (stream_ != nullptr) return stream_;
    if (is_stdout()) {
        if (g_data_fd < 0) reserve_stdout_for_data();
        stream_ = fdopen(g_data_fd, "wb");
    } else {
        stream_ = fdopen(fd_, "wb");
        if (stream_ != nullptr) fd_ = -1;
    }
    if (stream_ == nullptr) throw file_error(target_, "cannot write: " + errno_text());
    return stream_;
}

const std::string& OutputFile::temp_path() {
    // The writer opens the file itself; our descriptor is not needed.
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    return temp_;
}

void OutputFile::commit() {
    if (stream_ != nullptr) {
        const bool failed = fflush(stream_) != 0 || ferror(stream_) != 0;
        if (failed) throw file_error(is_stdout() ? "standard output" : target_, "write failed: " + errno_text());
        if (!is_stdout()) {
            const int closed = fclose(stream_);
            stream_ = nullptr;
            if (closed != 0) throw file_error(target_, "write failed: " + errno_text());
        }
    }
    if (is_stdout()) return;
    if (rename(temp_.c_str(), target_.c_str()) != 0)
        throw file_error(target_, "cannot rename into place: " + errno_text());
    committed_ = true;
    forget_on_interrupt(interrupt_slot_);
    interrupt_slot_ = -1;
}

LibraryMessages::LibraryMessages(bool show) {
    if (show) return;
    fflush(stdout);
    fflush(stderr);
    const int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd < 0) return;
    saved_out_ = dup(STDOUT_FILENO);
    saved_err_ = dup(STDERR_FILENO);
    dup2(null_fd, STDOUT_FILENO);
    dup2(null_fd, STDERR_FILENO);
    close(null_fd);
}

LibraryMessages::~LibraryMessages() {
    if (saved_out_ < 0) return;
    // Anything the library left in stdio's buffer goes to /dev/null too.
    fflush(stdout);
    fflush(stderr);
    dup2(saved_out_, STDOUT_FILENO);
    dup2(saved_err_, STDERR_FILENO);
    close(saved_out_);
    close(saved_err_);
}

}  // namespace qimra::tool
