// The qimra tool as a user runs it: every input and output kind on real
// photographs, standard output carrying a clean stream, and every bad input
// ending with its message and exit code and no output left behind.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <qimra/qimra.hpp>
#include <sstream>

#include "error.h"
#include "output_file.h"
#include "picture.h"

namespace qimra::tool {
namespace {

namespace fs = std::filesystem;

const std::string kTool = QIMRA_TOOL_PATH;
const std::string kMedia = QIMRA_MEDIA_DIR;

std::string read_file(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const fs::path& p, const std::string& bytes) {
    std::ofstream out(p, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

using Frame = std::vector<uint8_t>;

// A Y4M stream checked strictly: one header line, then for each frame
// exactly "FRAME\n" and the frame's bytes, and nothing else.
struct Y4m {
    int width = 0, height = 0;
    std::string header;
    std::vector<Frame> frames;
};

testing::AssertionResult parse_y4m(const std::string& s, Y4m& out) {
    const size_t nl = s.find('\n');
    if (s.rfind("YUV4MPEG2 ", 0) != 0 || nl == std::string::npos) return testing::AssertionFailure() << "no header";
    out.header = s.substr(0, nl);
    std::istringstream tags(out.header);
    for (std::string t; tags >> t;) {
        if (t[0] == 'W') out.width = std::stoi(t.substr(1));
        if (t[0] == 'H') out.height = std::stoi(t.substr(1));
    }
    const size_t frame = frame_bytes(out.width, out.height);
    for (size_t pos = nl + 1; pos < s.size(); pos += 6 + frame) {
        if (s.compare(pos, 6, "FRAME\n") != 0)
            return testing::AssertionFailure() << "no FRAME at byte " << pos << " (frame " << out.frames.size() << ")";
        if (pos + 6 + frame > s.size()) return testing::AssertionFailure() << "short frame " << out.frames.size();
        out.frames.emplace_back(s.begin() + static_cast<long>(pos + 6), s.begin() + static_cast<long>(pos + 6 + frame));
    }
    return testing::AssertionSuccess();
}

std::string y4m_of(int w, int h, const std::vector<Frame>& frames, const std::string& tags = " F25:1") {
    std::string s = "YUV4MPEG2 W" + std::to_string(w) + " H" + std::to_string(h) + tags + "\n";
    for (const Frame& f : frames) s += "FRAME\n" + std::string(f.begin(), f.end());
    return s;
}

// Real photographs, converted to raw I420 by scripts/fetch-media.
Frame media_frame(const std::string& name, int w, int h) {
    const fs::path p = fs::path(kMedia) / "yuv" / (name + "_" + std::to_string(w) + "x" + std::to_string(h) + ".yuv");
    const std::string bytes = read_file(p);
    EXPECT_EQ(bytes.size(), frame_bytes(w, h)) << p << " missing: run scripts/fetch-media";
    return Frame(bytes.begin(), bytes.end());
}

Frame crop_i420(const Frame& f, int w, int h, int cw, int ch) {
    Frame out;
    for (int y = 0; y < ch; ++y) out.insert(out.end(), f.begin() + y * w, f.begin() + y * w + cw);
    for (int plane = 0; plane < 2; ++plane) {
        const size_t base = static_cast<size_t>(w) * h + static_cast<size_t>(plane) * (w / 2) * (h / 2);
        for (int y = 0; y < ch / 2; ++y)
            out.insert(out.end(), f.begin() + static_cast<long>(base + y * (w / 2)),
                       f.begin() + static_cast<long>(base + y * (w / 2) + cw / 2));
    }
    return out;
}

// What the engine makes of the frames, in this process.
std::vector<Frame> enhanced(const std::vector<Frame>& frames, int w, int h, Mode mode, float gamma = 0.5f,
                            ColourFormat format = ColourFormat::i420) {
    std::vector<Frame> out;
    std::optional<Engine> e;
    {
        LibraryMessages quiet(false);
        e.emplace(w, h, gamma, mode, format);
    }
    for (Frame f : frames) {
        e->process(packed_frame(std::span<uint8_t>(f), w, h, format));
        out.push_back(std::move(f));
    }
    LibraryMessages quiet(false);
    e.reset();
    return out;
}

double psnr(const Frame& a, const Frame& b, size_t n) {
    double se = 0.0;
    for (size_t i = 0; i < n; ++i) se += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
    return se == 0.0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * static_cast<double>(n) / se);
}

class ToolTest : public testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qimra-tool-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { fs::remove_all(dir_); }

    fs::path path(const std::string& name) const { return dir_ / name; }

    struct Result {
        int code;
        std::string err;
    };
    // Runs the tool with standard input from `in` and standard output into
    // `out` (files in the test's folder; /dev/null when empty).
    Result run(const std::string& args, const std::string& in = "", const std::string& out = "") const {
        const std::string cmd = "cd " + dir_.string() + " && " + kTool + " " + args + " < " +
                                (in.empty() ? "/dev/null" : in) + " > " + (out.empty() ? "/dev/null" : out) +
                                " 2> stderr.txt";
        const int status = std::system(cmd.c_str());
        std::string err = read_file(path("stderr.txt"));
        fs::remove(path("stderr.txt"));
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, err};
    }
    void shell(const std::string& cmd) const {
        ASSERT_EQ(std::system(("cd " + dir_.string() + " && " + cmd).c_str()), 0) << cmd;
    }
    // Files left in the folder: nothing half-written may remain.
    std::vector<std::string> listing() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir_)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    // Decodes any media file to raw I420 with the ffmpeg program.
    Frame decode_i420(const std::string& file, int frames_wanted = 1) const {
        shell("ffmpeg -nostdin -v error -y -i " + file + " -frames:v " + std::to_string(frames_wanted) +
              " -pix_fmt yuv420p -f rawvideo decoded.yuv");
        const std::string s = read_file(path("decoded.yuv"));
        fs::remove(path("decoded.yuv"));
        return Frame(s.begin(), s.end());
    }

    // Four real photographs at 640x480, as a raw file and a Y4M file.
    std::vector<Frame> four_photos() const {
        std::vector<Frame> frames;
        for (const char* n : {"evening", "path", "darkest", "water"}) frames.push_back(media_frame(n, 640, 480));
        return frames;
    }

    fs::path dir_;
};

// ------------------------------------------------------------ round trips

TEST_F(ToolTest, RawAndY4mGiveTheEngineBitsInEveryLayout) {
    const std::vector<Frame> frames = four_photos();
    std::string raw;
    for (const Frame& f : frames) raw.append(f.begin(), f.end());
    write_file(path("in.yuv"), raw);
    for (int mode : {0, 2}) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        const std::vector<Frame> want = enhanced(frames, 640, 480, static_cast<Mode>(mode), 0.6f);
        const std::string m = " --mode " + std::to_string(mode) + " --gamma 0.6";

        ASSERT_EQ(run("enhance in.yuv --size 640x480 -o out.y4m" + m).code, 0);
        Y4m y;
        ASSERT_TRUE(parse_y4m(read_file(path("out.y4m")), y));
        EXPECT_EQ(y.header, "YUV4MPEG2 W640 H480 F25:1 Ip A0:0 C420jpeg");
        ASSERT_EQ(y.frames.size(), 4u);
        for (size_t i = 0; i < 4; ++i) EXPECT_TRUE(y.frames[i] == want[i]) << "y4m frame " << i;

        // Y4M in, raw out, in each layout named by --format or by the
        // output's extension: the same frames rearranged.
        write_file(path("in.y4m"), y4m_of(640, 480, frames));
        for (ColourFormat f : {ColourFormat::i420, ColourFormat::yv12, ColourFormat::nv12, ColourFormat::nv21}) {
            const std::string name = format_name(f);
            const std::string out = mode == 0 ? "out." + name : "out.yuv";
            ASSERT_EQ(run("enhance in.y4m -o " + out + (mode == 0 ? "" : " --format " + name) + m).code, 0);
            const std::string got = read_file(path(out));
            ASSERT_EQ(got.size(), raw.size());
            for (size_t i = 0; i < 4; ++i) {
                Picture p, q;
                p.reset(640, 480, ColourFormat::i420);
                p.bytes = want[i];
                convert_layout(p, f, q);
                EXPECT_EQ(memcmp(q.bytes.data(), got.data() + i * q.bytes.size(), q.bytes.size()), 0)
                    << format_name(f) << " frame " << i;
            }
        }
    }
    // Raw frames in an interleaved layout run in that layout, and a raw
    // output without a layout of its own keeps it. The layout comes from the
    // name or from --format, which outweighs the name; with --size any name is raw.
    std::vector<Frame> nv21;
    std::string nv21_raw;
    for (const Frame& f : frames) {
        Picture p, q;
        p.reset(640, 480, ColourFormat::i420);
        p.bytes = f;
        convert_layout(p, ColourFormat::nv21, q);
        nv21.push_back(q.bytes);
        nv21_raw.append(q.bytes.begin(), q.bytes.end());
    }
    const std::vector<Frame> want = enhanced(nv21, 640, 480, Mode::fixed, 0.5f, ColourFormat::nv21);
    std::string want_raw;
    for (const Frame& f : want) want_raw.append(f.begin(), f.end());
    for (const char* in : {"in.nv21", "in.nv12 --format nv21", "in.frames --format nv21", "in.YUV --format nv21"}) {
        const std::string file = std::string(in).substr(0, std::string(in).find(' '));
        write_file(path(file), nv21_raw);
        ASSERT_EQ(run(std::string("enhance ") + in + " --size 640x480 -o out21.yuv --mode 0").code, 0) << in;
        EXPECT_TRUE(read_file(path("out21.yuv")) == want_raw) << in;
    }
    // Into a folder, raw results keep their names and layouts.
    ASSERT_EQ(run("enhance in.nv21 in.frames --size 640x480 --format nv21 -o raw/ --mode 0").code, 0);
    for (const char* out : {"raw/in.nv21", "raw/in.frames"}) EXPECT_TRUE(read_file(path(out)) == want_raw) << out;
}

TEST_F(ToolTest, OddPicturesAndVideosKeepTheirSize) {
    // A real photograph cut to odd sizes, beside the even frame made by
    // repeating its last column and row: the odd result is that frame's
    // result cropped back, to the byte.
    const Frame pier = media_frame("pier", 1920, 1080);
    for (auto [w, h] : {std::pair{3, 5}, std::pair{301, 203}, std::pair{640, 479}}) {
        const std::string size = std::to_string(w) + "x" + std::to_string(h);
        const int W = w + w % 2, H = h + h % 2;
        const std::string crop = "crop=" + std::to_string(w) + ":" + std::to_string(h) + ":0:0";
        // A picture (RGB), and its twin with the last column and row repeated.
        shell("ffmpeg -nostdin -v error -y -i " + kMedia + "/photos/pier.jpg -vf " + crop + " -pix_fmt rgb24 odd.png");
        shell("ffmpeg -nostdin -v error -y -i odd.png -vf pad=" + std::to_string(W) + ":" + std::to_string(H) +
              ",fillborders=right=" + std::to_string(w % 2) + ":bottom=" + std::to_string(h % 2) +
              ":mode=smear -pix_fmt rgb24 even.png");
        // A lossless 4:2:0 video cut from an even frame whose last luma
        // column and row repeat the ones before (its chroma is whole already).
        Frame even = crop_i420(pier, 1920, 1080, W, H);
        for (int y = 0; y < H; ++y) even[y * W + W - 1] = even[y * W + w - 1];
        std::copy_n(even.begin() + (h - 1) * W, W, even.begin() + (H - 1) * W);
        write_file(path("even.y4m"), y4m_of(W, H, {even}));
        std::string odd;
        for (int y = 0; y < h; ++y) odd.append(even.begin() + y * W, even.begin() + y * W + w);
        odd.append(even.begin() + W * H, even.end());
        write_file(path("odd.yuv"), odd);
        shell("ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt yuv420p -s " + size + " -i odd.yuv -c:v ffv1 odd.mkv");
        for (const char* kind : {"png", "mkv"}) {
            SCOPED_TRACE(size + " " + kind);
            const std::string even = std::string(kind) == "png" ? "even.png" : "even.y4m";
            ASSERT_EQ(run("enhance odd." + std::string(kind) + " -o odd_out.png --mode 0").code, 0);
            ASSERT_EQ(run("enhance " + even + " -o even_out.png --mode 0").code, 0);
            shell("ffmpeg -nostdin -v error -y -i odd_out.png -f rawvideo -pix_fmt rgb24 odd.rgb");
            shell("ffmpeg -nostdin -v error -y -i even_out.png -vf crop=" + std::to_string(w) + ":" +
                  std::to_string(h) + ":0:0 -f rawvideo -pix_fmt rgb24 even.rgb");
            const std::string got = read_file(path("odd.rgb"));
            EXPECT_EQ(got.size(), static_cast<size_t>(w) * h * 3);
            EXPECT_TRUE(got == read_file(path("even.rgb")));
        }
        // Every picture and video output keeps the size; Y4M cannot hold it.
        for (const char* out : {"out.jpg", "out.mp4", "out.webm"}) {
            ASSERT_EQ(run(std::string("enhance odd.mkv -o ") + out).code, 0) << out;
            shell(std::string("ffprobe -v error -show_entries stream=width,height -of csv=p=0 ") + out +
                  " > probe.txt");
            EXPECT_EQ(read_file(path("probe.txt")), std::to_string(w) + "," + std::to_string(h) + "\n") << out;
        }
        const Result r = run("enhance odd.png -o out.y4m");
        EXPECT_EQ(r.code, 1);
        EXPECT_EQ(r.err.rfind("qimra: out.y4m: cannot hold the " + size + " frames of odd.png", 0), 0u) << r.err;
    }
}

TEST_F(ToolTest, SizesTheCoreCannotTakeComeOutAtTheirOwnSize) {
    // 642x482 and 1366x768 cut from real photographs.
    const std::pair<int, int> sizes[] = {{642, 482}, {1366, 768}};
    for (auto [w, h] : sizes) {
        const Frame src = media_frame("pier", 1920, 1080);
        const std::vector<Frame> frames = {crop_i420(src, 1920, 1080, w, h)};
        write_file(path("odd.y4m"), y4m_of(w, h, frames));
        ASSERT_EQ(run("enhance odd.y4m -o odd_out.y4m --mode 0").code, 0);
        Y4m y;
        ASSERT_TRUE(parse_y4m(read_file(path("odd_out.y4m")), y));
        EXPECT_EQ(y.width, w);
        EXPECT_EQ(y.height, h);
        ASSERT_EQ(y.frames.size(), 1u);
        EXPECT_TRUE(y.frames[0] == enhanced(frames, w, h, Mode::fixed)[0]) << w << "x" << h;
    }
}

TEST_F(ToolTest, StandardOutputCarriesOnlyTheStream) {
    const std::vector<Frame> frames = four_photos();
    write_file(path("in.y4m"), y4m_of(640, 480, frames));
    // --verbose lets the library print its allocation lines: they must go
    // to standard error, never into the stream.
    const Result r = run("enhance in.y4m -o - --mode 0 --verbose", "in.y4m", "piped.y4m");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find("Allocated"), std::string::npos) << "the library's messages were expected on stderr";
    Y4m y;
    ASSERT_TRUE(parse_y4m(read_file(path("piped.y4m")), y));
    ASSERT_EQ(y.frames.size(), 4u);
    const std::vector<Frame> want = enhanced(frames, 640, 480, Mode::fixed);
    for (size_t i = 0; i < 4; ++i) EXPECT_TRUE(y.frames[i] == want[i]) << i;

    // Standard input to standard output, and raw with --to yuv.
    ASSERT_EQ(run("enhance - -o - --mode 0", "in.y4m", "piped2.y4m").code, 0);
    EXPECT_TRUE(read_file(path("piped2.y4m")) == read_file(path("piped.y4m")));
    ASSERT_EQ(run("enhance - -o - --to yuv --mode 0", "in.y4m", "piped.yuv").code, 0);
    std::string want_raw;
    for (const Frame& f : want) want_raw.append(f.begin(), f.end());
    EXPECT_TRUE(read_file(path("piped.yuv")) == want_raw);

    // A pipe straight into ffmpeg reads as a valid stream.
    shell(kTool +
          " enhance in.y4m -o - --quiet 2>/dev/null | ffmpeg -nostdin -v error -f yuv4mpegpipe -i - "
          "-f rawvideo -pix_fmt yuv420p -y decoded.yuv");
    EXPECT_TRUE(read_file(path("decoded.yuv")).size() == 4 * frame_bytes(640, 480));
}

TEST_F(ToolTest, PicturesInAndOut) {
    // A real photograph as PNG: the tool's reading matches ffmpeg's.
    const fs::path png = fs::path(kMedia) / "photos" / "coffee.png";
    ASSERT_TRUE(fs::exists(png)) << png << ": run scripts/fetch-media";
    fs::copy_file(png, path("coffee.png"));
    ASSERT_EQ(run("enhance coffee.png -o coffee.y4m --mode 0").code, 0);
    Y4m y;
    ASSERT_TRUE(parse_y4m(read_file(path("coffee.y4m")), y));
    ASSERT_EQ(y.frames.size(), 1u);
    EXPECT_EQ(y.width, 600);
    EXPECT_EQ(y.height, 400);
    const Frame reference = enhanced({decode_i420("coffee.png")}, 600, 400, Mode::fixed)[0];
    EXPECT_GT(psnr(y.frames[0], reference, 600 * 400), 38.0);

    // Written as PNG and JPEG, the pictures decode to what was enhanced.
    for (const char* ext : {"png", "jpg"}) {
        ASSERT_EQ(run(std::string("enhance coffee.png -o out.") + ext + " --mode 0").code, 0);
        const Frame back = decode_i420(std::string("out.") + ext);
        ASSERT_EQ(back.size(), frame_bytes(600, 400)) << ext;
        EXPECT_GT(psnr(back, y.frames[0], 600 * 400), std::string(ext) == "png" ? 40.0 : 34.0) << ext;
    }
    // JPEG in (the wallpapers are JPEG).
    fs::copy_file(fs::path(kMedia) / "photos" / "autumn.jpg", path("autumn.jpg"));
    ASSERT_EQ(run("enhance autumn.jpg -o autumn.png").code, 0);
    EXPECT_EQ(decode_i420("autumn.png").size(), frame_bytes(2560, 1600));
}

TEST_F(ToolTest, VideoFilesKeepTheirFramesTimingAndAudio) {
    // A short clip of a real photograph with a tone on it.
    shell(
        "ffmpeg -nostdin -v error -y -loop 1 -i " + kMedia +
        "/photos/water.jpg -f lavfi -i sine=frequency=440 "
        "-vf scale=640:360,format=yuv420p -r 25 -t 0.8 -c:v libx264 -preset ultrafast -qp 0 -c:a aac -shortest clip.mp4");
    ASSERT_EQ(run("enhance clip.mp4 -o clip.y4m --mode 0").code, 0);
    Y4m y;
    ASSERT_TRUE(parse_y4m(read_file(path("clip.y4m")), y));
    ASSERT_EQ(y.frames.size(), 20u);
    EXPECT_NE(y.header.find("F25:1"), std::string::npos) << y.header;
    const Frame first = decode_i420("clip.mp4");
    EXPECT_TRUE(y.frames[0] == enhanced({first}, 640, 360, Mode::fixed)[0]) << "lossless input decodes exactly";

    auto probe = [&](const std::string& file, const std::string& what) {
        shell("ffprobe -v error " + what + " -of csv=p=0 " + file +
              " | grep -v '^$' | cut -d, -f1-3 | sed 's/,$//' > probe.txt");
        return read_file(path("probe.txt"));
    };
    const std::string audio_in = probe("clip.mp4", "-select_streams a -show_entries packet=size");
    for (const char* ext : {"mp4", "mkv", "mov"}) {
        const std::string out = std::string("clip_out.") + ext;
        ASSERT_EQ(run("enhance clip.mp4 -o " + out + " --mode 0").code, 0) << ext;
        EXPECT_EQ(probe(out, "-select_streams v -show_entries stream=codec_name,width,height"), "h264,640,360\n")
            << ext;
        EXPECT_EQ(probe(out, "-select_streams v -count_frames -show_entries stream=nb_read_frames"), "20\n") << ext;
        EXPECT_EQ(probe(out, "-select_streams a -show_entries packet=size"), audio_in) << ext << ": audio copied";
        const Frame back = decode_i420(out);
        EXPECT_GT(psnr(back, y.frames[0], 640 * 360), 38.0) << ext;
    }
}

// ------------------------------------------------------------ into a folder

TEST_F(ToolTest, ABatchIntoAFolderEqualsOneByOneRuns) {
    // Real photographs as streams and pictures, and a broken file among them.
    const std::vector<Frame> photos = four_photos();
    write_file(path("a.y4m"), y4m_of(640, 480, photos));
    write_file(path("b.y4m"), y4m_of(640, 480, {photos[3], photos[1]}));
    fs::copy_file(fs::path(kMedia) / "photos" / "coffee.png", path("c.png"));
    fs::copy_file(fs::path(kMedia) / "photos" / "chelsea.png", path("d.png"));
    write_file(path("broken.png"), "not a picture");
    const std::vector<std::string> good = {"a.y4m", "b.y4m", "c.png", "d.png"};
    fs::create_directory(path("one"));
    for (const std::string& f : good) ASSERT_EQ(run("enhance " + f + " -o one/" + f).code, 0) << f;

    for (const char* jobs : {"-j 1", "-j2"}) {
        SCOPED_TRACE(jobs);
        fs::remove_all(path("batch"));
        const Result r = run("enhance a.y4m broken.png b.y4m c.png d.png -o batch/ " + std::string(jobs));
        EXPECT_EQ(r.code, 1);
        EXPECT_NE(r.err.find("qimra: broken.png: cannot read it"), std::string::npos) << r.err;
        EXPECT_TRUE(r.err.ends_with("qimra: 4 written, 1 failed\n")) << r.err;
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(path("batch"))) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        EXPECT_EQ(names, good) << "each result under its input's name, and nothing else";
        for (const std::string& f : good)
            EXPECT_TRUE(read_file(path("batch/" + f)) == read_file(path("one/" + f))) << f;
    }
    // --to names the kind of every result; all good, all written.
    write_file(path("e.y4m"), y4m_of(640, 480, {photos[2]}));
    const Result r = run("enhance e.y4m c.png -o pics --to png --quiet");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(decode_i420("pics/e.png").size(), frame_bytes(640, 480));
    EXPECT_TRUE(fs::exists(path("pics/c.png")));
}

TEST_F(ToolTest, ABatchNeverWritesOverAnInputOrTwiceToOneName) {
    const std::string frame = "YUV4MPEG2 W64 H64\nFRAME\n" + std::string(frame_bytes(64, 64), '\x50');
    fs::create_directories(path("out"));
    fs::create_directories(path("sub"));
    for (const char* f : {"x.y4m", "sub/x.y4m", "out/x.y4m", "x.nv12"}) write_file(path(f), frame);
    write_file(path("x.png"), "stays");
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        // arguments, the failure reported, the summary
        {"x.y4m sub/x.y4m -o out2/", "qimra: sub/x.y4m: its output out2/x.y4m is already the output of x.y4m",
         "1 written, 1 failed"},
        {"out/x.y4m x.y4m -o out",
         "qimra: out/x.y4m: writing out/x.y4m would overwrite the input itself; choose another folder",
         "0 written, 2 failed"},
        {"x.y4m x.png -o pics/ --to y4m", "qimra: x.png: its output pics/x.y4m is already the output of x.y4m",
         "1 written, 1 failed"},
    };
    for (const auto& [args, message, summary] : cases) {
        SCOPED_TRACE(args);
        const Result r = run("enhance " + args + " --mode 0");
        EXPECT_EQ(r.code, 1);
        EXPECT_NE(r.err.find(message + "\n"), std::string::npos) << r.err;
        EXPECT_TRUE(r.err.ends_with("qimra: " + summary + "\n")) << r.err;
        EXPECT_EQ(read_file(path("x.png")), "stays");
        EXPECT_EQ(read_file(path("out/x.y4m")), frame);
    }
    EXPECT_TRUE(fs::exists(path("out2/x.y4m")));
    // Usage errors stop before any work.
    for (const char* args : {"x.y4m sub/x.y4m -o x.png", "x.y4m - -o out/", "x.y4m sub/x.y4m -o out/ --trace t.csv",
                             "x.y4m sub/x.y4m -o out/ --to gif", "x.y4m -o y.y4m -j 2"})
        EXPECT_EQ(run(std::string("enhance ") + args).code, kExitUsage) << args;
}

// ------------------------------------------------------------- bad input

TEST_F(ToolTest, BadInputIsRefusedWithItsReasonAndLeavesNoOutput) {
    const std::string frame(frame_bytes(64, 64), '\x50');
    const std::vector<std::tuple<std::string, std::string, std::string, int, std::string>> cases = {
        // input file, its bytes, arguments, exit code, message
        {"", "", "enhance missing.y4m -o out.y4m", 1, "qimra: missing.y4m: cannot open: No such file or directory"},
        {"in.bmp", "x", "enhance in.bmp -o out.y4m", 1, "qimra: in.bmp: unknown extension '.bmp'"},
        {"in.y4m", "YUV4MPEG2 W64 H64\nFRAME\n" + frame, "enhance in.y4m -o out.gif", 1,
         "qimra: out.gif: unknown extension '.gif'"},
        {"in.y4m", "YUV4MPEG2 W64 Hx\n", "enhance in.y4m -o out.y4m", 1,
         "qimra: in.y4m: malformed Y4M header: H tag 'Hx' is not a number"},
        {"in.y4m", "P5 64 64\n", "enhance in.y4m -o out.y4m", 1, "qimra: in.y4m: not a Y4M stream"},
        {"in.y4m", "YUV4MPEG2 W64 H64 C444\nFRAME\n" + frame + frame, "enhance in.y4m -o out.y4m", 1,
         "qimra: in.y4m: unsupported chroma layout C444"},
        {"in.yuv", frame + "xyz", "enhance in.yuv --size 64x64 -o out.y4m", 1,
         "qimra: in.yuv: 6147 bytes is not a whole number of 64x64 i420 frames (6144 bytes each)"},
        {"in.yuv", frame, "enhance in.yuv -o out.y4m", 2, "qimra: in.yuv: raw YUV has no header"},
        {"in.y4m", "YUV4MPEG2 W63 H64\n", "enhance in.y4m -o out.y4m", 1, "qimra: in.y4m: odd dimensions 63x64"},
        {"in.yuv", frame, "enhance in.yuv --size 64x63 -o out.y4m", 1, "qimra: in.yuv: odd dimensions 64x63"},
        {"in.y4m", "YUV4MPEG2 W1000000 H1000000\n", "enhance in.y4m -o out.y4m", 1,
         "qimra: in.y4m: absurd frame size 1000000x1000000"},
        {"in.y4m", "YUV4MPEG2 W64 H64\n", "enhance in.y4m -o out.y4m", 1, "qimra: in.y4m: holds no frames"},
        {"in.png", "not a picture", "enhance in.png -o out.y4m", 1, "qimra: in.png: cannot read it"},
        {"in.mp4", "not a video either", "enhance in.mp4 -o out.y4m", 1, "qimra: in.mp4: cannot read it"},
        {"in.y4m", "YUV4MPEG2 W64 H64\nFRAME\n" + frame + "FRAME\n" + frame, "enhance in.y4m -o out.png", 1,
         "qimra: out.png: an image holds one picture, but in.y4m has more than one frame"},
        {"in.y4m", "YUV4MPEG2 W64 H64\nFRAME\n" + frame, "enhance in.y4m -o out.y4m --gamma 9", 2,
         "qimra: --gamma '9' is not a number greater than 0 and at most 4"},
        {"in.y4m", "YUV4MPEG2 W64 H64\nFRAME\n" + frame, "enhance in.y4m", 2, "qimra: no output given"},
        {"in.y4m", "YUV4MPEG2 W64 H64\nFRAME\n" + frame, "enhance in.y4m -o out.y4m --loud", 2,
         "qimra: unknown option '--loud'"},
        {"in.y4m", "YUV4MPEG2 W64 H64\nFRAME\n" + frame, "enhance in.y4m -o ./in.y4m", 2,
         "qimra: ./in.y4m: the output would overwrite the input"},
        {"in.y4m", "YUV4MPEG2 W64 H64\nFRAME\n" + frame, "compare in.y4m -o out.png --frame 1", 1,
         "qimra: in.y4m: has 1 frame; --frame 1 is past its end"},
    };
    for (const auto& [file, bytes, args, code, message] : cases) {
        SCOPED_TRACE(args);
        if (!file.empty()) write_file(path(file), bytes);
        // An existing output must survive a failed run untouched.
        write_file(path("out.y4m"), "precious");
        const Result r = run(args);
        EXPECT_EQ(r.code, code);
        EXPECT_EQ(r.err.rfind(message, 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << "one line: " << r.err;
        EXPECT_EQ(read_file(path("out.y4m")), "precious");
        std::vector<std::string> left = listing();
        std::erase(left, "out.y4m");
        if (!file.empty()) std::erase(left, file);
        EXPECT_TRUE(left.empty()) << "left behind: " << left.front();
        fs::remove(path(file.empty() ? "none" : file));
    }
}

TEST_F(ToolTest, ATruncatedLastFrameKeepsTheCompleteFrames) {
    const std::vector<Frame> frames = four_photos();
    std::string y4m = y4m_of(640, 480, frames);
    y4m.resize(y4m.size() - 1000);
    write_file(path("cut.y4m"), y4m);
    const Result r = run("enhance cut.y4m -o out.y4m --mode 0 --trace out.csv");
    EXPECT_EQ(r.code, kExitTruncated);
    EXPECT_EQ(r.err,
              "qimra: cut.y4m: frame 3 is truncated (459800 of 460800 bytes); the 3 complete frames before it "
              "were written\n");
    Y4m y;
    ASSERT_TRUE(parse_y4m(read_file(path("out.y4m")), y));
    ASSERT_EQ(y.frames.size(), 3u);
    const std::vector<Frame> want = enhanced({frames[0], frames[1], frames[2]}, 640, 480, Mode::fixed);
    for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(y.frames[i] == want[i]);
    const std::string csv = read_file(path("out.csv"));
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 4) << "a header and the three frames";

    // The same from a raw stream on standard input.
    std::string raw;
    for (const Frame& f : frames) raw.append(f.begin(), f.end());
    raw.resize(raw.size() - 1000);
    write_file(path("cut.yuv"), raw);
    const Result s = run("enhance - --size 640x480 -o - --to yuv --mode 0", "cut.yuv", "piped.yuv");
    EXPECT_EQ(s.code, kExitTruncated);
    EXPECT_NE(s.err.find("standard input: frame 3 is truncated"), std::string::npos) << s.err;
    EXPECT_EQ(read_file(path("piped.yuv")).size(), 3 * frame_bytes(640, 480));
}

// ------------------------------------------------------ help, trace, compare

TEST_F(ToolTest, EveryCommandHasHelp) {
    const std::pair<const char*, const char*> cases[] = {
        {"--help", "usage: qimra COMMAND"},
        {"enhance --help", "usage: qimra enhance INPUT -o OUTPUT"},
        {"compare --help", "usage: qimra compare INPUT -o FILE.png"},
        {"help enhance", "usage: qimra enhance"},
    };
    for (const auto& [args, usage] : cases) {
        const Result r = run(args, "", "help.txt");
        EXPECT_EQ(r.code, 0) << args;
        EXPECT_EQ(read_file(path("help.txt")).rfind(usage, 0), 0u) << args;
    }
    EXPECT_EQ(run("frobnicate").code, kExitUsage);
    EXPECT_EQ(run("").code, kExitUsage);
}

TEST_F(ToolTest, TraceAndPlotFollowEveryFrame) {
    write_file(path("in.y4m"), y4m_of(640, 480, four_photos()));
    ASSERT_EQ(run("enhance in.y4m -o out.y4m --trace t.csv --plot t.svg --mode 0 --gamma 0.7").code, 0);
    std::istringstream csv(read_file(path("t.csv")));
    std::string line;
    std::getline(csv, line);
    EXPECT_EQ(line, "frame,decision,enhanced,mid,gamma,top_level,chroma_sigma");
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(std::getline(csv, line));
        EXPECT_EQ(line, std::to_string(i) + ",1,1,128,0.7000,230,4.0000");
    }
    EXPECT_FALSE(std::getline(csv, line));
    const std::string svg = read_file(path("t.svg"));
    EXPECT_EQ(svg.rfind("<?xml", 0), 0u);
    EXPECT_NE(svg.find("</svg>"), std::string::npos);
    size_t lines = 0;
    for (size_t p = 0; (p = svg.find("<polyline", p)) != std::string::npos; ++p) ++lines;
    EXPECT_EQ(lines, 4u) << "decision, mid, gamma and top level";
}

TEST_F(ToolTest, CompareDrawsBeforeAfterAndTheCurve) {
    write_file(path("in.y4m"), y4m_of(640, 480, four_photos()));
    ASSERT_EQ(run("compare in.y4m -o cmp.png --frame 2 --mode 0").code, 0);
    const std::string png = read_file(path("cmp.png"));
    ASSERT_GT(png.size(), 24u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    auto be32 = [&](size_t at) {
        return (uint32_t(uint8_t(png[at])) << 24) | (uint32_t(uint8_t(png[at + 1])) << 16) |
               (uint32_t(uint8_t(png[at + 2])) << 8) | uint8_t(png[at + 3]);
    };
    // Two 640-wide panels and a 480-square curve between margins of 16.
    EXPECT_EQ(be32(16), 4u * 16 + 2 * 640 + 480);
    EXPECT_EQ(be32(20), 48u + 480 + 16);
    EXPECT_EQ(run("compare in.y4m -o cmp.jpg").code, kExitUsage);
}

}  // namespace
}  // namespace qimra::tool
