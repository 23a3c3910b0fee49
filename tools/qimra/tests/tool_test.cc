// The qimra tool as a user runs it, on real photographs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <qimra/qimra.hpp>

#include "output_file.h"
#include "support/media.h"

namespace qimra::tool {
namespace {

namespace fs = std::filesystem;
using std::string;
using CF = ColourFormat;
using Names = std::vector<string>;
const string kTool = QIMRA_TOOL_PATH, kMedia = QIMRA_MEDIA_DIR, kVgaY4m = "YUV4MPEG2 W640 H480\n",
             kPlain = "YUV4MPEG2 W640 H480 F25:1 Ip A0:0 C420jpeg\n";  // for untagged input
const size_t kVga = frame_bytes(640, 480);

string read_file(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return string(std::istreambuf_iterator<char>(in), {});
}
void write_file(const fs::path& p, const string& bytes) { std::ofstream(p, std::ios::binary) << bytes; }

string photos() {
    string s;
    for (const char* n : {"evening", "path", "darkest", "water"}) {
        const std::vector<uint8_t> f = test::load_i420(n, 640, 480);
        s.append(f.begin(), f.end());
    }
    return s;
}

string y4m(const string& header, const string& frames, size_t frame = kVga) {
    string s = header;
    for (size_t at = 0; at < frames.size(); at += frame) s += "FRAME\n" + frames.substr(at, frame);
    return s;
}

// 640x480 I420 frames in another layout, rearranged here, not by the conversion under test.
string as(const string& i420, CF f) {
    string out;
    for (size_t at = 0, luma = 640 * 480, q = luma / 4; at < i420.size(); at += luma + 2 * q) {
        const char *u = &i420[at + luma], *v = u + q;
        out.append(i420, at, luma);
        if (f == CF::yv12 || f == CF::nv21) std::swap(u, v);
        if (is_planar(f)) out.append(u, q).append(v, q);
        for (size_t i = 0; !is_planar(f) && i < q; ++i) out += {u[i], v[i]};
    }
    return out;
}

// The engine's result in this process, at the best instruction set level.
string enhanced(string frames, int mode, float gamma = 0.5f) {
    LibraryMessages quiet(false);
    Engine e(640, 480, gamma, static_cast<Mode>(mode), CF::i420);
    for (size_t at = 0; at < frames.size(); at += kVga)
        e.process(packed_frame(std::span(reinterpret_cast<uint8_t*>(&frames[at]), kVga), 640, 480, CF::i420));
    return frames;
}

double mse(const string& a, const string& b, size_t n) {  // over the first n bytes (the luma)
    double se = 0.0;
    for (size_t i = 0; i < n; ++i) se += std::pow(double(uint8_t(a[i])) - uint8_t(b[i]), 2);
    return se / n;
}

class Tool : public testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qimra-tool-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { fs::remove_all(dir_); }
    fs::path path(const string& name) const { return dir_ / name; }

    // The tool's exit status (args may redirect its streams); err_: what it said.
    int run(const string& args, const string& env = "") {
        const int status = std::system(("cd " + dir_.string() + " && " + env + kTool + " " + args + " 2>e").c_str());
        err_ = read_file(path("e"));
        fs::remove(path("e"));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    bool said(const string& text) const { return err_.find(text) != string::npos; }
    string ff(const string& args, const string& out = "-f rawvideo ff.out",
              const string& program = "ffmpeg -nostdin -v error -y ") const {
        const string cmd = "cd " + dir_.string() + " && " + program + args + " " + out;
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
        return read_file(path(out.substr(out.rfind(' ') + 1)));
    }
    string decode_i420(const string& file) const { return ff("-i " + file + " -frames:v 1 -pix_fmt yuv420p"); }
    string probe(const string& file, const string& what) const {
        return ff(what + " -of csv=p=0 " + file, "| grep -v '^$' | cut -d, -f1-5 | sed 's/,$//' > p",
                  "ffprobe -v error ");
    }
    Names listing(const string& sub = "") const {
        Names names;
        for (const auto& e : fs::directory_iterator(dir_ / sub)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path dir_;
    string err_;
};

TEST_F(Tool, EveryInputAndOutputLayoutGivesTheEngineBytes) {
    const string i420 = photos(), tags = "YUV4MPEG2 W640 H480 F30000:1001 It A4:3 C420mpeg2 XYSCSS=420MPEG2\n";
    string in = y4m(tags, i420);
    write_file(path("in.y4m"), in.insert(tags.size() + 6 + kVga + 5, " Ixyz"));  // parameters after FRAME are allowed
    write_file(path("in.yuv"), i420);
    for (const char* f : {"in.nv21", "in.frames"}) write_file(path(f), as(i420, CF::nv21));
    const std::tuple<string, string, CF, string> rows[] = {
        // arguments, the output, its layout and Y4M header (a stream's own tags are kept)
        {"in.y4m -o out.y4m", "out.y4m", CF::i420, tags},
        {"in.y4m -o out.nv21", "out.nv21", CF::nv21, ""},
        {"in.y4m -o out.yuv --format yv12", "out.yuv", CF::yv12, ""},
        {"in.nv21 --size 640x480 -o out.yuv", "out.yuv", CF::nv21, ""},  // a raw output keeps the input's layout
        {"in.nv21 --size 640x480 -o out.y4m", "out.y4m", CF::i420, kPlain},
        {"in.frames --size 640x480 --format nv21 -o out.yuv", "out.yuv", CF::nv21, ""},  // any name is raw
        {"in.nv21 --size 640x480 -o folder/", "folder/in.nv21", CF::nv21, ""},
        // --verbose: the library's notes go to standard error, never into the stream.
        {"- -o - --verbose < in.y4m > piped", "piped", CF::i420, tags},
        {"- -o - --to nv12 < in.y4m > piped", "piped", CF::nv12, ""},
        {"- --size 640x480 -o - --to yuv < in.yuv > piped", "piped", CF::i420, ""},
    };
    // Mode 0 at the lowest instruction set level: every level gives the same bytes.
    for (auto [mode, env] : {std::pair{0, "QIMRA_ISA=c "}, {2, ""}}) {
        const string want = enhanced(i420, mode, 0.6f);
        for (const auto& [args, out, layout, header] : rows) {
            ASSERT_EQ(run("enhance --gamma 0.6 --mode " + std::to_string(mode) + " " + args, env), 0) << err_;
            EXPECT_EQ(args.find("--verbose") != string::npos, said("Allocated")) << args;
            EXPECT_TRUE(!said("Allocated") || !*env || said("instruction set: c\n")) << err_;
            EXPECT_TRUE(read_file(path(out)) == (header.empty() ? as(want, layout) : y4m(header, as(want, layout))))
                << args << " --mode " << mode;
        }
    }
    // An unknown level is named with the accepted ones, and the run goes on at the best level.
    ASSERT_EQ(run("enhance in.y4m -o out.y4m --verbose", "QIMRA_ISA=sse9 "), 0) << err_;
    EXPECT_TRUE(said("\"sse9\" is not an instruction set (accepted: c, ")) << err_;
    ASSERT_EQ(run("compare in.y4m -o c.png"), 0) << err_;
    EXPECT_EQ(read_file(path("c.png")).substr(0, 4), "\x89PNG");
}

TEST_F(Tool, BadInputIsRefusedWithItsReasonAndLeavesNoOutput) {
    const string frame(frame_bytes(64, 64), 'P'), one = "YUV4MPEG2 W64 H64\nFRAME\n" + frame;
    const std::tuple<string, string, int, string> cases[] = {
        // arguments (in.* holds the bytes), the bytes, exit status, message
        {"enhance in.y4m -o out.gif", one, 1, "out.gif: unknown extension '.gif'"},
        {"enhance in.y4m -o out.y4m", "YUV4MPEG2 W6x4 H64\n", 1, "in.y4m: malformed Y4M header: W tag 'W6x4' is not"},
        {"enhance in.y4m -o out.y4m", "YUV4MPEG2 W64 H64 F25:0\n", 1, "in.y4m: malformed Y4M header: frame rate"},
        {"enhance in.y4m -o out.y4m", "YUV4MPEG2 W64 H64 C444\n", 1, "in.y4m: unsupported chroma layout C444"},
        {"enhance in.y4m -o out.y4m", "YUV4MPEG2 W1000000 H1000000\nFRAME\n", 1, "in.y4m: absurd frame size"},
        {"enhance in.y4m -o out.y4m", "YUV4MPEG2 W64 H64\n", 1, "in.y4m: holds no frames"},
        // Garbage after a written frame: its temporary file must go.
        {"enhance in.y4m -o out.y4m", one + "FRAMX\n" + frame, 1, "in.y4m: malformed Y4M stream: frame 1 does not"},
        {"enhance in.yuv --size 64x64 -o out.y4m", frame + "xyz", 1,
         "in.yuv: 6147 bytes is not a whole number of 64x64 i420 frames (6144 bytes each)"},
        {"enhance in.yuv -o out.y4m", frame, 2, "in.yuv: raw YUV has no header"},
        {"enhance in.yuv --size 64x63 -o out.y4m", frame, 1, "in.yuv: odd dimensions 64x63"},
        {"enhance in.yuv --size 64x64p -o out.y4m", frame, 2, "--size '64x64p' is not a frame size"},
        {"enhance in.y4m -o out.png", one + "FRAME\n" + frame, 1, "out.png: an image holds one picture, but in.y4m"},
        {"enhance in.y4m -o ./in.y4m", one, 2, "./in.y4m: the output would overwrite the input"},
        {"enhance a.y4m b.y4m -o in.png", "", 2, "in.png is a file; several inputs are written into a folder"},
    };
    for (const auto& [args, bytes, code, message] : cases) {
        const size_t at = args.find("in.");
        const string file = at == string::npos ? "" : args.substr(at, args.find(' ', at) - at);
        if (!file.empty()) write_file(path(file), bytes);
        write_file(path("out.y4m"), "precious");  // an existing output survives a failed run untouched
        EXPECT_EQ(run(args + " </dev/null"), code) << args;
        EXPECT_EQ(err_, "qimra: " + message + err_.substr(std::min(err_.size(), 7 + message.size())));
        EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), 1) << "one line: " << err_;
        EXPECT_EQ(read_file(path("out.y4m")), "precious");
        Names left = listing();
        std::erase(left, file);
        EXPECT_EQ(left, Names{"out.y4m"}) << "nothing left behind by " << args;
        if (!file.empty()) fs::remove(path(file));
    }
}

TEST_F(Tool, ATruncatedLastFrameKeepsTheCompleteFrames) {
    const string i420 = photos(), want = enhanced(i420.substr(0, 3 * kVga), 0), cut = y4m(kVgaY4m, i420);
    write_file(path("cut.y4m"), cut.substr(0, cut.size() - 1000));
    write_file(path("cut.yuv"), i420.substr(0, i420.size() - 1000));
    const std::pair<string, string> cases[] = {
        {"cut.y4m -o out.y4m --trace out.csv",
         "cut.y4m: frame 3 is truncated (459800 of 460800 bytes); the 3 complete frames before it were written\n"},
        {"- --size 640x480 -o - --to yuv <cut.yuv >out.yuv", "standard input: frame 3 is truncated (459800 of"},
    };
    for (const auto& [args, message] : cases) {
        EXPECT_EQ(run("enhance --mode 0 " + args), 3) << args;
        EXPECT_EQ(err_.rfind("qimra: " + message, 0), 0u) << err_;
        EXPECT_TRUE(args[0] == '-' ? read_file(path("out.yuv")) == want
                                   : read_file(path("out.y4m")) == y4m(kPlain, want));
    }
    const string csv = read_file(path("out.csv"));
    EXPECT_EQ(csv.substr(0, csv.find('\n')), "frame,decision,enhanced,mid,gamma,top_level,chroma_sigma");
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 4) << "a header and the three frames";
}

TEST_F(Tool, OddPicturesAndVideosKeepTheirSize) {
    // An odd cut of a real photograph gives the result of its even twin (last column and row repeated) cropped back.
    for (auto [w, h] : {std::pair{3, 5}, std::pair{301, 203}, std::pair{640, 479}}) {
        const string sw = std::to_string(w), sh = std::to_string(h), crop = " -vf crop=" + sw + ":" + sh + ":0:0";
        ff("-i " + kMedia + "/photos/darkest.jpg" + crop + " -pix_fmt rgb24", "odd.png");
        ff("-i odd.png -vf pad=" + std::to_string(w + w % 2) + ":" + std::to_string(h + h % 2) + ",fillborders=right=" +
               std::to_string(w % 2) + ":bottom=" + std::to_string(h % 2) + ":mode=smear -pix_fmt rgb24",
           "even.png");
        ASSERT_EQ(run("enhance odd.png -o odd_out.png --mode 0") + run("enhance even.png -o even_out.png --mode 0"), 0);
        const string got = ff("-i odd_out.png -pix_fmt rgb24");
        EXPECT_EQ(got.size(), static_cast<size_t>(w) * h * 3);
        EXPECT_TRUE(got == ff("-i even_out.png -pix_fmt rgb24" + crop)) << sw << "x" << sh;
        // As a 20-frame video with sound, each output keeps the size, rate, frames and sound, holding that result.
        ff("-loop 1 -i odd.png -f lavfi -i sine -t 0.8 -r 25 -pix_fmt yuv420p -c:v ffv1 -c:a aac -shortest", "odd.mkv");
        const string audio = probe("odd.mkv", "-select_streams a -show_entries packet=size"), size = sw + "," + sh;
        for (const string out : {"out.mp4", "out.mkv", "out.mov"}) {
            ASSERT_EQ(run("enhance --mode 0 odd.mkv -o " + out), 0) << out;
            EXPECT_EQ(probe(out,
                            "-select_streams v -count_frames -show_entries stream=codec_name,width,height,"
                            "r_frame_rate,nb_read_frames"),
                      "h264," + size + ",25/1,20\n");
            EXPECT_EQ(probe(out, "-select_streams a -show_entries packet=size"), audio) << out << ": sound copied";
            EXPECT_LT(mse(decode_i420(out), decode_i420("odd_out.png"), w * h), 6.5) << out;  // the input's: over 65
        }
        for (const string out : {"out.jpg", "out.webm"}) {
            ASSERT_EQ(run("enhance odd.png -o " + out), 0) << out;
            EXPECT_EQ(probe(out, "-show_entries stream=width,height"), size + "\n") << out;
        }
        EXPECT_EQ(run("enhance odd.png -o out.y4m"), 1);
        EXPECT_TRUE(said("qimra: out.y4m: cannot hold the " + sw + "x" + sh + " frames of odd.png")) << err_;
    }
}

TEST_F(Tool, ABatchIsWrittenWhateverFailsAndNeverOverAnInputOrTwiceToOneName) {
    const string i420 = photos();
    for (int k : {0, 1, 2}) write_file(path(string(1, "abe"[k]) + ".y4m"), y4m(kVgaY4m, i420.substr(k * kVga)));
    write_file(path("broken.png"), "not a picture");
    for (const char* jobs : {"-j 1", "-j2"}) {
        EXPECT_EQ(run("enhance a.y4m broken.png b.y4m -o batch/ " + string(jobs)), 1);
        EXPECT_TRUE(said("qimra: broken.png: cannot read it") && err_.ends_with("qimra: 2 written, 1 failed\n"));
        EXPECT_EQ(listing("batch"), (Names{"a.y4m", "b.y4m"}))
            << "each result under its input's name, and nothing else";
        for (int k : {0, 1})
            EXPECT_TRUE(read_file(path(string("batch/") + "ab"[k] + ".y4m")) ==
                        y4m(kPlain, enhanced(i420.substr(k * kVga), 2)));
        fs::remove_all(path("batch"));
    }
    fs::create_directories(path("sub"));
    fs::copy_file(path("e.y4m"), path("sub/e.y4m"));
    fs::copy_file(kMedia + "/photos/coffee.png", path("e.png"));
    const std::pair<string, string> cases[] = {
        {"e.y4m sub/e.y4m -o two/", "sub/e.y4m: its output two/e.y4m is already the output of e.y4m\nqimra: 1 written"},
        {"sub/e.y4m e.y4m -o sub", "sub/e.y4m: writing sub/e.y4m would overwrite the input itself"},
        {"e.y4m e.png -o pics/ --to y4m", "e.png: its output pics/e.y4m is already the output of e.y4m"},  // --to: kind
    };
    for (const auto& [args, message] : cases) {
        EXPECT_EQ(run("enhance --mode 0 " + args), 1) << args;
        EXPECT_TRUE(said("qimra: " + message)) << err_;
        EXPECT_TRUE(read_file(path("sub/e.y4m")) == read_file(path("e.y4m")));
    }
    EXPECT_EQ(listing("two"), Names{"e.y4m"});
}

// Killed while writing, the tool leaves the target intact (outputs are renamed into place); an interrupt removes the
// temporary files too, in every worker of a batch.
TEST_F(Tool, AnInterruptLeavesTheTargetIntactAndNoTemporaryFile) {
    auto temp_files = [&](bool written) {
        int n = 0;
        for (const auto& e : fs::recursive_directory_iterator(dir_))
            n += e.path().filename().string().find(".qimra-") != string::npos && (!written || fs::file_size(e));
        return n;
    };
    // Endless streams into pipes a.y4m..., `sig` once as many temporary files hold output: the signal the tool died
    // of (0: alive 30 s later).
    auto interrupted = [&](const string& args, int inputs, int sig) {
        const pid_t pid = fork();
        if (pid == 0) {
            const string cmd = "cd " + dir_.string() + " && exec " + kTool + " enhance --quiet " + args;
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        const string stream = y4m("YUV4MPEG2 W128 H96\n", string(8 * 18432, 'Z'), 18432);
        std::vector<int> fds;
        for (int i = 0; i < inputs; ++i) {
            fds.push_back(open(path(string(1, 'a' + i) + ".y4m").c_str(), O_WRONLY));  // waits for the reader
            EXPECT_EQ(write(fds.back(), stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
        }
        for (int t = 0; temp_files(true) < inputs && t < 6000; ++t) usleep(10000);
        EXPECT_EQ(temp_files(true), inputs) << "the tool should be writing";
        kill(pid, sig);
        int status = 0, ended = 0;
        for (int t = 0; (ended = waitpid(pid, &status, WNOHANG)) == 0 && t < 3000; ++t) usleep(10000);
        for (int fd : fds) close(fd);  // ends the streams of workers that were not stopped
        if (ended == 0) kill(pid, SIGKILL), waitpid(pid, &status, 0);
        return ended != 0 && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    };
    const string precious = "an earlier result that must survive\n";
    for (const char* n : {"a.y4m", "b.y4m"}) ASSERT_EQ(mkfifo(path(n).c_str(), 0600), 0);
    for (int sig : {SIGKILL, SIGINT, SIGTERM}) {
        write_file(path("out.y4m"), precious);
        EXPECT_EQ(interrupted("a.y4m -o out.y4m", 1, sig), sig);
        EXPECT_EQ(read_file(path("out.y4m")), precious);
        EXPECT_EQ(temp_files(false), sig == SIGKILL ? 1 : 0) << sig;
        for (const string& f : listing())
            if (f.find(".qimra-") != string::npos) fs::remove(path(f));
    }
    fs::create_directory(path("out"));
    write_file(path("out/a.y4m"), precious);
    EXPECT_EQ(interrupted("a.y4m b.y4m -o out/ -j 2", 2, SIGINT), SIGINT);
    EXPECT_EQ(temp_files(false), 0);
    EXPECT_EQ(listing("out"), Names{"a.y4m"});
    EXPECT_EQ(read_file(path("out/a.y4m")), precious);
}

}  // namespace
}  // namespace qimra::tool
