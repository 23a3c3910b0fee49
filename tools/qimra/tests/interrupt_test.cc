// The tool killed in the middle of a run: an existing target survives
// untouched (outputs are only ever renamed into place), and an interrupt
// (SIGINT, SIGTERM) also removes the temporary file. SIGKILL cannot be
// caught: its temporary file stays behind, the target is still intact.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace qimra::tool {
namespace {

namespace fs = std::filesystem;

const std::string kTool = QIMRA_TOOL_PATH;

std::string read_file(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<fs::path> temp_files(const fs::path& dir) {
    std::vector<fs::path> v;
    for (const auto& e : fs::directory_iterator(dir))
        if (e.path().filename().string().find(".qimra-") != std::string::npos) v.push_back(e.path());
    return v;
}

class FaultToolKilled : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        dir_ =
            fs::temp_directory_path() / ("qimra-kill-" + std::to_string(getpid()) + "-" + std::to_string(GetParam()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    fs::path dir_;
};

TEST_P(FaultToolKilled, MidRunLeavesTheTargetIntact) {
    const int sig = GetParam();
    const fs::path target = dir_ / "out.y4m";
    const std::string precious = "an earlier result that must survive\n";
    std::ofstream(target, std::ios::binary) << precious;

    int in_pipe[2];
    ASSERT_EQ(pipe(in_pipe), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        dup2(in_pipe[0], 0);
        close(in_pipe[0]);
        close(in_pipe[1]);
        execl(kTool.c_str(), "qimra", "enhance", "-", "-o", target.c_str(), "--quiet", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(in_pipe[0]);
    // A stream that never ends: the header and enough frames to be written
    // out, then the tool waits for more.
    constexpr int kW = 128, kH = 96;
    std::string stream = "YUV4MPEG2 W128 H96 F25:1 Ip A1:1 C420jpeg\n";
    for (int f = 0; f < 8; ++f) {
        stream += "FRAME\n";
        for (int i = 0; i < kW * kH * 3 / 2; ++i) stream += static_cast<char>((i * 7 + f * 13) & 0xff);
    }
    ASSERT_EQ(write(in_pipe[1], stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));

    // Wait until the tool has written output into its temporary file (a
    // deadline only so that a broken tool fails instead of hanging).
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    bool writing = false;
    while (!writing && std::chrono::steady_clock::now() < deadline) {
        for (const fs::path& t : temp_files(dir_))
            if (fs::file_size(t) > 0) writing = true;
        if (!writing) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(writing) << "the tool never started writing its output";

    ASSERT_EQ(kill(pid, sig), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    close(in_pipe[1]);
    ASSERT_TRUE(WIFSIGNALED(status)) << "status " << status;
    EXPECT_EQ(WTERMSIG(status), sig) << "the tool dies of the signal it got";

    EXPECT_EQ(read_file(target), precious) << "the target was touched";
    const std::vector<fs::path> left = temp_files(dir_);
    if (sig == SIGKILL) {
        EXPECT_EQ(left.size(), 1u) << "SIGKILL leaves exactly the temporary file";
    } else {
        EXPECT_TRUE(left.empty()) << left.size() << " temporary file(s) left, e.g. " << left.front();
    }
}

// A batch interrupted while two workers are writing: the interrupt is passed
// on to them, their temporary files go, and the tool dies of it.
TEST(FaultBatchInterrupted, StopsEveryWorkerAndLeavesNoTemporaryFile) {
    const fs::path dir = fs::temp_directory_path() / ("qimra-batch-int-" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir / "out");
    const std::string precious = "an earlier result that must survive\n";
    std::ofstream(dir / "out" / "a.y4m", std::ios::binary) << precious;
    // Streams that never end: named pipes the test keeps open.
    for (const char* n : {"a.y4m", "b.y4m"}) ASSERT_EQ(mkfifo((dir / n).c_str(), 0600), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const std::string a = (dir / "a.y4m").string(), b = (dir / "b.y4m").string(), out = (dir / "out/").string();
        execl(kTool.c_str(), "qimra", "enhance", a.c_str(), b.c_str(), "-o", out.c_str(), "-j", "2", "--quiet",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    std::string stream = "YUV4MPEG2 W128 H96 F25:1\n";
    for (int f = 0; f < 8; ++f) stream += "FRAME\n" + std::string(128 * 96 * 3 / 2, static_cast<char>(40 + f));
    std::vector<int> writers;
    for (const char* n : {"a.y4m", "b.y4m"}) {
        writers.push_back(open((dir / n).c_str(), O_WRONLY));  // waits for its worker to open it
        ASSERT_EQ(write(writers.back(), stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    auto writing = [&] {
        int n = 0;
        for (const fs::path& t : temp_files(dir / "out")) n += fs::file_size(t) > 0;
        return n;
    };
    while (writing() < 2 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(writing(), 2) << "both workers should be writing";

    ASSERT_EQ(kill(pid, SIGINT), 0);  // to the tool alone, as `kill -INT` would
    int status = 0;
    pid_t ended = 0;
    for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
         (ended = waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < until;)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    for (int fd : writers) close(fd);  // ends the streams of workers that were not stopped
    if (ended == 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        FAIL() << "the tool did not stop its workers";
    }
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << "status " << status;
    EXPECT_TRUE(temp_files(dir / "out").empty());
    EXPECT_EQ(read_file(dir / "out" / "a.y4m"), precious);
    EXPECT_FALSE(fs::exists(dir / "out" / "b.y4m"));
    fs::remove_all(dir);
}

INSTANTIATE_TEST_SUITE_P(Signals, FaultToolKilled, testing::Values(SIGKILL, SIGINT, SIGTERM), [](const auto& i) {
    return std::string(i.param == SIGKILL ? "SIGKILL" : i.param == SIGINT ? "SIGINT" : "SIGTERM");
});

}  // namespace
}  // namespace qimra::tool
