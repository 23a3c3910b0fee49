// qimra-bench: milliseconds per frame at 1280x720, 1920x1080 and 3840x2160,
// the cost of each stage alone, and the cost of merely copying the frame.
//
// Whole frames: qimra_process in adaptive mode 0 (every frame enhanced) and
// mode 2 (analysis and decision included, on a dark scene it enhances),
// planar chroma (format 0) and interleaved chroma (format 2), in place and
// to a separate buffer. Each iteration copies one cold frame and then
// processes another, so the ratio of the two ("x_copy") comes from the same
// run. Cold means: frames are taken round-robin from copies laid end to end
// that together are several times larger than the largest cache.
//
// Stages: each alone, on the data it sees in a frame of that size (the
// analysis and the filter work on the quarter-size image), the whole frame
// on one thread: downscale, histogram, region features and decision (the
// analysis of adaptive mode 2), integral images, guided filter, upscale,
// luma and chroma scaling, and the two tables.
//
// The bare table pass ("table_pass"): a plain scalar loop over the luma and
// the half-size base through the 64 KiB colour table, one byte out per
// pixel, on one thread: the per-pixel core of the luma scaling with nothing
// around it, the reference for what that stage adds. The stage itself is
// scalar too; walking two rows per base row (one base load and one gain
// store per 2 x 2 block) it comes out faster than this row-by-row pass.
//
// Frames are real photographs from .cache/media/yuv/<name>_<W>x<H>.yuv (raw
// I420, written by scripts/fetch-media; --media-dir=DIR looks in DIR/yuv
// instead) where present, else a smooth synthetic gradient with noise.
//
// By default every benchmark is repeated 5 times (at least 0.2 s each) and
// only the aggregates are shown; any Google Benchmark flag overrides this.
// With console output a summary table of the medians closes the run.
//
// Where Google Benchmark is missing, as for the static ARMv7 build (make
// bench-armhf), this builds on bench/minibench: same flags, same reports.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/colour_lut.h"
#include "engine/ctx.h"
#include "qimra/qimra.h"

namespace {

struct FrameSize {
    int32_t w;
    int32_t h;
    bool operator==(const FrameSize&) const = default;
};
constexpr FrameSize kSizes[] = {{1280, 720}, {1920, 1080}, {3840, 2160}};

std::string size_name(FrameSize s) { return std::to_string(s.w) + "x" + std::to_string(s.h); }
size_t luma_bytes(FrameSize s) { return static_cast<size_t>(s.w) * s.h; }
size_t frame_bytes(FrameSize s) { return luma_bytes(s) * 3 / 2; }

std::string g_media_dir = QIMRA_BENCH_MEDIA_DIR;

// The library reports every allocation on standard output and its set-up on
// standard error; neither belongs among the results.
class Silenced {
public:
    Silenced() {
        fflush(stdout);
        fflush(stderr);
        saved_out_ = dup(STDOUT_FILENO);
        saved_err_ = dup(STDERR_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~Silenced() {
        fflush(stdout);
        fflush(stderr);
        dup2(saved_out_, STDOUT_FILENO);
        dup2(saved_err_, STDERR_FILENO);
        close(saved_out_);
        close(saved_err_);
    }
    Silenced(const Silenced&) = delete;
    Silenced& operator=(const Silenced&) = delete;

private:
    int saved_out_;
    int saved_err_;
};

// One engine at a time, as the library requires; kept while consecutive
// benchmarks share its size and format.
class EngineSlot {
public:
    qimra_ctx* get(FrameSize s, int32_t format, int32_t mode = 0) {
        if (c_ != nullptr && s == size_ && format == format_ && mode == mode_) return c_;
        release();
        Silenced quiet;
        c_ = qimra_init(s.w, s.h, 0.5f, 0, 0, 0, 0, 0, mode, format);
        size_ = s;
        format_ = format;
        mode_ = mode;
        return c_;
    }
    void release() {
        if (c_ == nullptr) return;
        Silenced quiet;
        qimra_deinit(c_);
        c_ = nullptr;
    }

private:
    qimra_ctx* c_ = nullptr;
    FrameSize size_{0, 0};
    int32_t format_ = -1;
    int32_t mode_ = -1;
};
EngineSlot g_engine;

// ---------------------------------------------------------------------------
// Frames

struct SourceFrame {
    std::vector<uint8_t> i420;
    std::string origin;
};

uint8_t clamp_byte(int v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

// A smooth diagonal gradient from dark to mid-bright with mild noise, and
// gently varying colour: something for the table lookups to chew on.
std::vector<uint8_t> synthetic_frame(FrameSize s) {
    std::vector<uint8_t> f(frame_bytes(s));
    uint32_t state = 0x2545F491u;
    auto noise = [&state](int amplitude) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return static_cast<int>((state >> 8) % static_cast<uint32_t>(2 * amplitude + 1)) - amplitude;
    };
    for (int32_t y = 0; y < s.h; ++y)
        for (int32_t x = 0; x < s.w; ++x)
            f[static_cast<size_t>(y) * s.w + x] = clamp_byte(16 + 170 * x / s.w + 50 * y / s.h + noise(6));
    const int32_t cw = s.w / 2, ch = s.h / 2;
    uint8_t* u = f.data() + luma_bytes(s);
    uint8_t* v = u + luma_bytes(s) / 4;
    for (int32_t y = 0; y < ch; ++y)
        for (int32_t x = 0; x < cw; ++x) {
            u[static_cast<size_t>(y) * cw + x] = clamp_byte(108 + 40 * x / cw + noise(3));
            v[static_cast<size_t>(y) * cw + x] = clamp_byte(148 - 40 * y / ch + noise(3));
        }
    return f;
}

// The first frame of the first <name>_<W>x<H>.yuv (by name) that holds one.
std::optional<SourceFrame> media_frame(FrameSize s) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::path(g_media_dir) / "yuv";
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) return std::nullopt;
    const std::string suffix = "_" + size_name(s) + ".yuv";
    std::vector<fs::path> candidates;
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        const std::string name = entry.path().filename().string();
        if (entry.is_regular_file(ec) && name.size() > suffix.size() &&
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
            candidates.push_back(entry.path());
    }
    // The dark forest path first: a scene that adaptive mode 2 decides to
    // enhance, so both modes measure the full frame path.
    std::sort(candidates.begin(), candidates.end(), [](const fs::path& a, const fs::path& b) {
        const bool a_path = a.filename().string().rfind("path_", 0) == 0;
        const bool b_path = b.filename().string().rfind("path_", 0) == 0;
        return a_path != b_path ? a_path : a < b;
    });
    for (const fs::path& p : candidates) {
        if (fs::file_size(p, ec) < frame_bytes(s)) continue;
        SourceFrame frame{std::vector<uint8_t>(frame_bytes(s)), p.string()};
        std::ifstream in(p, std::ios::binary);
        if (in.read(reinterpret_cast<char*>(frame.i420.data()), static_cast<std::streamsize>(frame.i420.size())))
            return frame;
    }
    return std::nullopt;
}

const SourceFrame& source_frame(FrameSize s) {
    static std::map<std::pair<int32_t, int32_t>, SourceFrame> frames;
    const auto key = std::make_pair(s.w, s.h);
    auto it = frames.find(key);
    if (it == frames.end()) {
        std::optional<SourceFrame> real = media_frame(s);
        SourceFrame frame = real ? std::move(*real)
                                 : SourceFrame{synthetic_frame(s), "synthetic gradient plus noise (no " + g_media_dir +
                                                                       "/yuv/*_" + size_name(s) + ".yuv)"};
        it = frames.emplace(key, std::move(frame)).first;
    }
    return it->second;
}

std::vector<uint8_t> to_nv12(const std::vector<uint8_t>& i420, FrameSize s) {
    std::vector<uint8_t> nv12(i420.size());
    const size_t luma = luma_bytes(s), quarter = luma / 4;
    std::copy(i420.begin(), i420.begin() + static_cast<ptrdiff_t>(luma), nv12.begin());
    for (size_t k = 0; k < quarter; ++k) {
        nv12[luma + 2 * k] = i420[luma + k];
        nv12[luma + 2 * k + 1] = i420[luma + quarter + k];
    }
    return nv12;
}

// ---------------------------------------------------------------------------
// Cold buffers

// The largest cache this core sees. sysfs gives the slice a core actually
// uses; sysconf may report a whole package's last level (hundreds of MB).
size_t largest_cache_bytes() {
    size_t largest = 0;
    for (int index = 0; index < 8; ++index) {
        std::ifstream in("/sys/devices/system/cpu/cpu0/cache/index" + std::to_string(index) + "/size");
        size_t kib = 0;
        if (in >> kib) largest = std::max(largest, kib * 1024);
    }
    if (largest == 0)
        for (int level : {_SC_LEVEL2_CACHE_SIZE, _SC_LEVEL3_CACHE_SIZE})
            largest = std::max(largest, static_cast<size_t>(std::max(0L, sysconf(level))));
    return largest;
}

size_t cold_bytes() {
    static const size_t bytes = std::clamp<size_t>(4 * largest_cache_bytes(), size_t{64} << 20, size_t{1} << 30);
    return bytes;
}

// Copies of one frame laid end to end, together larger than the caches:
// taking them in turn touches memory that no cache holds any more.
class FrameRing {
public:
    explicit FrameRing(const std::vector<uint8_t>& frame)
        : bytes_(frame.size()), count_(std::max<size_t>(2, (cold_bytes() + bytes_ - 1) / bytes_)),
          data_(bytes_ * count_) {
        for (size_t k = 0; k < count_; ++k) std::memcpy(data_.data() + k * bytes_, frame.data(), bytes_);
    }
    uint8_t* next() {
        uint8_t* p = data_.data() + position_ * bytes_;
        position_ = (position_ + 1) % count_;
        return p;
    }

private:
    size_t bytes_;
    size_t count_;
    size_t position_ = 0;
    std::vector<uint8_t> data_;
};

// ---------------------------------------------------------------------------
// Per-size data, for one size at a time (the rings are large).

struct StageData {
    std::vector<uint8_t> quarter;  // analysis image, w/4 x h/4 (+16 readable)
    std::vector<uint8_t> quarter_out;
    std::vector<uint32_t> ii_sum, ii_sqsum;
    std::vector<float> gf_a, gf_b;
    std::vector<uint8_t> half;  // half-size base, w/2 x h/2
    std::vector<uint8_t> luma_out;
    std::vector<uint8_t> gain;  // one byte per 2 x 2 block
    std::vector<uint8_t> chroma_out;
};

class SizeData {
public:
    explicit SizeData(FrameSize s) : size_(s) {}

    FrameRing& copy_source() { return ring(copy_source_, frame(0)); }
    FrameRing& copy_target() { return ring(copy_target_, frame(0)); }
    FrameRing& input(int32_t format) { return format == 2 ? ring(input_nv12_, frame(2)) : ring(input_i420_, frame(0)); }
    FrameRing& output() { return ring(output_, frame(0)); }
    const std::vector<uint8_t>& frame(int32_t format) {
        if (format != 2) return source_frame(size_).i420;
        if (nv12_.empty()) nv12_ = to_nv12(source_frame(size_).i420, size_);
        return nv12_;
    }
    StageData& stages();

private:
    static FrameRing& ring(std::unique_ptr<FrameRing>& r, const std::vector<uint8_t>& frame) {
        if (!r) r = std::make_unique<FrameRing>(frame);
        return *r;
    }

    FrameSize size_;
    std::vector<uint8_t> nv12_;
    std::unique_ptr<FrameRing> copy_source_, copy_target_, input_i420_, input_nv12_, output_;
    std::unique_ptr<StageData> stages_;
};

StageData& SizeData::stages() {
    if (stages_) return *stages_;
    stages_ = std::make_unique<StageData>();
    StageData& d = *stages_;
    const FrameSize s = size_;
    const uint8_t* y = source_frame(s).i420.data();
    const int32_t qw = s.w / 4, qh = s.h / 4, hw = s.w / 2, hh = s.h / 2;
    // Plausible inputs: block means of the frame.
    d.quarter.assign(static_cast<size_t>(qw) * qh + 16, 0);
    for (int32_t r = 0; r < qh; ++r)
        for (int32_t c = 0; c < qw; ++c) {
            int sum = 0;
            for (int dy = 0; dy < 4; ++dy)
                for (int dx = 0; dx < 4; ++dx) sum += y[static_cast<size_t>(4 * r + dy) * s.w + 4 * c + dx];
            d.quarter[static_cast<size_t>(r) * qw + c] = static_cast<uint8_t>(sum / 16);
        }
    d.half.assign(static_cast<size_t>(hw) * hh, 0);
    for (int32_t r = 0; r < hh; ++r)
        for (int32_t c = 0; c < hw; ++c) {
            const size_t p = static_cast<size_t>(2 * r) * s.w + 2 * c;
            d.half[static_cast<size_t>(r) * hw + c] =
                static_cast<uint8_t>((y[p] + y[p + 1] + y[p + s.w] + y[p + s.w + 1]) / 4);
        }
    const size_t table = static_cast<size_t>(qw + 17) * (qh + 17);
    d.ii_sum.assign(table, 0);
    d.ii_sqsum.assign(table, 0);
    d.gf_a.assign(table, 0.0f);
    d.gf_b.assign(table, 0.0f);
    d.quarter_out.assign(std::max(static_cast<size_t>(qw) * qh + 4, static_cast<size_t>(hw) * hh), 0);
    d.luma_out.assign(luma_bytes(s), 0);
    d.gain.assign(static_cast<size_t>(hw) * hh, 32);
    d.chroma_out.assign(luma_bytes(s) / 2, 0);
    return d;
}

SizeData& size_data(FrameSize s) {
    static std::unique_ptr<SizeData> current;
    static FrameSize current_size{0, 0};
    if (!current || !(current_size == s)) {
        current.reset();
        current = std::make_unique<SizeData>(s);
        current_size = s;
    }
    return *current;
}

// An engine of this size whose tone table and colour table are built as in
// an enhanced frame of adaptive mode 0.
qimra_ctx* engine_with_tables(FrameSize s) {
    qimra_ctx* c = g_engine.get(s, 0);
    create_gamma_tab(c->gamma_lut, c->gamma_hist, 0.5f, 128, 230);
    c->chroma_sigma = 4.0f;
    qimra_col_conv_create_lut_mc(c, 0, 1);
    return c;
}

using Clock = std::chrono::steady_clock;
double seconds_between(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

// ---------------------------------------------------------------------------
// Whole frames and the copy

void bm_copy(benchmark::State& state, FrameSize s) {
    SizeData& d = size_data(s);
    FrameRing& source = d.copy_source();
    FrameRing& target = d.copy_target();
    const size_t n = frame_bytes(s);
    for (auto _ : state) {
        std::memcpy(target.next(), source.next(), n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

// Only the table lookup of the luma scaling: each pixel indexes the table by
// its luma and its base pixel, (luma << 7) | (base >> 1), and keeps the low
// byte. Scalar C++ on purpose; nothing of qimra's runs inside the loop.
// Frame widths are even: each base pixel serves the two luma pixels above it.
// Kept out of line and on a cache-line boundary so that its code and its
// placement do not depend on the benchmark library around it: inlined, the
// harness's registers changed its time by 70%, and the loop's alignment by
// 20%, on the same x86-64 machine.
[[gnu::noinline, gnu::aligned(64)]] void table_pass(const uint8_t* y, const uint8_t* half, const uint16_t* table,
                                                    uint8_t* out, FrameSize s) {
    const size_t w = static_cast<size_t>(s.w), hw = w / 2;
    for (size_t r = 0; r < static_cast<size_t>(s.h); ++r) {
        const uint8_t* luma = y + r * w;
        const uint8_t* base = half + r / 2 * hw;
        uint8_t* row = out + r * w;
        for (size_t c = 0; c < hw; ++c) {
            const uint32_t b = base[c] >> 1;
            row[2 * c] = static_cast<uint8_t>(table[(uint32_t{luma[2 * c]} << 7) | b]);
            row[2 * c + 1] = static_cast<uint8_t>(table[(uint32_t{luma[2 * c + 1]} << 7) | b]);
        }
    }
}

// On the luma scaling's inputs: the frame's luma, the half-size base and
// the colour table.
void bm_table_pass(benchmark::State& state, FrameSize s) {
    StageData& d = size_data(s).stages();
    const uint8_t* y = size_data(s).frame(0).data();
    const uint16_t* table = engine_with_tables(s)->chroma_lut16;
    for (auto _ : state) {
        table_pass(y, d.half.data(), table, d.luma_out.data(), s);
        benchmark::ClobberMemory();
    }
}

void bm_process(benchmark::State& state, FrameSize s, int32_t format, bool in_place, int32_t mode) {
    SizeData& d = size_data(s);
    FrameRing& input = d.input(format);
    FrameRing& output = d.output();
    FrameRing& copy_source = d.copy_source();
    FrameRing& copy_target = d.copy_target();
    qimra_ctx* c = g_engine.get(s, format, mode);
    const size_t n = frame_bytes(s);
    // Past the decision's hold-off (fifteen frames) before timing, so that
    // mode 2 measures frames it enhances, analysis included.
    const std::vector<uint8_t>& pristine = d.frame(format);
    for (int warm = 0; warm < 20; ++warm) {
        uint8_t* in = input.next();
        qimra_process(c, in, s.w, s.h, in_place ? in : output.next(), s.w, s.h);
        if (in_place) std::memcpy(in, pristine.data(), n);
    }
    double process_s = 0.0, copy_s = 0.0;
    for (auto _ : state) {
        uint8_t* in = input.next();
        uint8_t* out = in_place ? in : output.next();
        const Clock::time_point t0 = Clock::now();
        std::memcpy(copy_target.next(), copy_source.next(), n);
        benchmark::ClobberMemory();
        const Clock::time_point t1 = Clock::now();
        qimra_process(c, in, s.w, s.h, out, s.w, s.h);
        benchmark::ClobberMemory();
        const Clock::time_point t2 = Clock::now();
        const double p = seconds_between(t1, t2);
        state.SetIterationTime(p);
        process_s += p;
        copy_s += seconds_between(t0, t1);
        // Put the original frame back (untimed): enhancing the ring's frames
        // again and again would brighten them until mode 2 left them alone.
        // The ring is larger than the caches, so the frame is cold again by
        // the time it comes round.
        if (in_place) std::memcpy(in, pristine.data(), n);
    }
    if (copy_s > 0.0) state.counters["x_copy"] = process_s / copy_s;
    if (state.iterations() > 0) state.counters["copy_ms"] = copy_s * 1e3 / static_cast<double>(state.iterations());
}

// ---------------------------------------------------------------------------
// Stages alone

void bm_downscale4(benchmark::State& state, FrameSize s) {
    StageData& d = size_data(s).stages();
    const uint8_t* y = size_data(s).frame(0).data();
    qimra_job job[2] = {};
    for (int core = 0; core < 2; ++core) {
        job[core].core = core;
        job[core].rs_src = const_cast<uint8_t*>(y);
        job[core].rs_src_height = s.h;
        job[core].rs_src_width = s.w;
        job[core].rs_src_stride = s.w;
        job[core].rs_dst = d.quarter_out.data();
        job[core].rs_dst_width = s.w / 4;
        job[core].rs_dst_height = s.h / 4;
        job[core].rs_dst_stride = s.w / 4;
    }
    for (auto _ : state) {
        ReSizeImage_downscale4_mc(&job[0]);
        ReSizeImage_downscale4_mc(&job[1]);
        benchmark::ClobberMemory();
    }
}

void bm_histogram(benchmark::State& state, FrameSize s) {
    StageData& d = size_data(s).stages();
    auto c = std::make_unique<ctx>();
    for (auto _ : state) {
        blc_gen_hist(d.quarter.data(), s.w / 4, s.h / 4, s.w / 4, c.get(), 1, 0);
        benchmark::ClobberMemory();
    }
}

// The analysis of adaptive mode 2 on the frame's reduced image: an engine in
// mode 2 processes the frame once (reduced image and histogram in place),
// then the region features of both cores' shares, or the decision alone.
qimra_ctx* analysed_engine(FrameSize s, segment* reduced) {
    qimra_ctx* c = g_engine.get(s, 0, 2);
    std::vector<uint8_t> in = size_data(s).frame(0), out(in.size());
    qimra_process(c, in.data(), s.w, s.h, out.data(), s.w, s.h);
    *reduced = segment{c->ds_luma, nullptr, s.w / 4, s.h / 4, s.w / 4, s.h / 4};
    return c;
}

void bm_local_features(benchmark::State& state, FrameSize s) {
    segment reduced{};
    qimra_ctx* c = analysed_engine(s, &reduced);
    for (auto _ : state) {
        blc_local_hist_features(c, &reduced, 0, 2);
        blc_local_hist_features(c, &reduced, 1, 2);
        benchmark::ClobberMemory();
    }
}

void bm_decision(benchmark::State& state, FrameSize s) {
    segment reduced{};
    qimra_ctx* c = analysed_engine(s, &reduced);
    blc_local_hist_features(c, &reduced, 0, 2);
    blc_local_hist_features(c, &reduced, 1, 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(blc_decide_quality(c, &reduced));
        benchmark::ClobberMemory();
    }
}

void bm_integral_images(benchmark::State& state, FrameSize s) {
    StageData& d = size_data(s).stages();
    const int32_t qw = s.w / 4, qh = s.h / 4;
    for (auto _ : state) {
        blc_gen_ii_pad(d.quarter.data(), qw, qw + 1, qw, qh, d.ii_sum.data(), d.ii_sqsum.data());
        benchmark::ClobberMemory();
    }
}

void bm_guided_filter(benchmark::State& state, FrameSize s) {
    StageData& d = size_data(s).stages();
    const int32_t qw = s.w / 4, qh = s.h / 4;
    blc_gen_ii_pad(d.quarter.data(), qw, qw + 1, qw, qh, d.ii_sum.data(), d.ii_sqsum.data());
    for (auto _ : state) {
        blc_self_guided_filter_1pass(d.quarter.data(), qw, d.ii_sum.data(), d.ii_sqsum.data(), 8, 0.04f,
                                     d.quarter_out.data(), qw, qh, d.gf_b.data(), d.gf_a.data(), nullptr, nullptr);
        benchmark::ClobberMemory();
    }
}

void bm_upscale2(benchmark::State& state, FrameSize s) {
    StageData& d = size_data(s).stages();
    qimra_job job = {};
    job.rs_src = d.quarter.data();
    job.rs_src_width = s.w / 4;
    job.rs_src_stride = s.w / 4;
    job.rs_src_height = s.h / 4;
    job.rs_dst = d.quarter_out.data();
    job.rs_dst_width = s.w / 2;
    job.rs_dst_stride = s.w / 2;
    job.rs_dst_height = s.h / 2;
    for (auto _ : state) {
        ReSizeImage_upscale2_mc(&job);
        benchmark::ClobberMemory();
    }
}

void bm_luma_scaling(benchmark::State& state, FrameSize s) {
    StageData& d = size_data(s).stages();
    const uint8_t* y = size_data(s).frame(0).data();
    qimra_ctx* c = engine_with_tables(s);
    for (auto _ : state) {
        blc_scale_y_2x2nn(y, s.w, d.luma_out.data(), s.w, d.half.data(), d.gain.data(), s.w, s.h, c);
        benchmark::ClobberMemory();
    }
}

// The gain plane as the luma scaling would leave it: the table's gain at
// the top-left pixel of each 2 x 2 block.
void fill_gain_plane(StageData& d, FrameSize s, const uint8_t* y, const qimra_ctx* c) {
    const int32_t hw = s.w / 2, hh = s.h / 2;
    for (int32_t r = 0; r < hh; ++r)
        for (int32_t col = 0; col < hw; ++col) {
            const uint8_t luma = y[static_cast<size_t>(2 * r) * s.w + 2 * col];
            const uint8_t base = d.half[static_cast<size_t>(r) * hw + col];
            d.gain[static_cast<size_t>(r) * hw + col] =
                static_cast<uint8_t>(c->chroma_lut16[(luma << 7) | (base >> 1)] >> 8);
        }
}

void bm_chroma_scaling(benchmark::State& state, FrameSize s, int32_t format) {
    SizeData& sd = size_data(s);
    StageData& d = sd.stages();
    const std::vector<uint8_t>& frame = sd.frame(format);
    fill_gain_plane(d, s, frame.data(), engine_with_tables(s));
    const uint8_t* chroma = frame.data() + luma_bytes(s);
    uint8_t* out = d.chroma_out.data();
    const size_t plane = luma_bytes(s) / 4;
    for (auto _ : state) {
        if (format == 2)
            blc_scale_uv_nv(chroma, chroma + 1, out, out + 1, d.gain.data(), s.w, s.h);
        else
            blc_scale_uv_planar(chroma, chroma + plane, out, out + plane, d.gain.data(), s.w, s.h);
        benchmark::ClobberMemory();
    }
}

// Size-independent tables.

void bm_gamma_table(benchmark::State& state) {
    uint8_t table[256];
    for (auto _ : state) {
        create_gamma_tab(table, nullptr, 0.5f, 128, 230);
        benchmark::DoNotOptimize(table);
        benchmark::ClobberMemory();
    }
}

void bm_colour_table(benchmark::State& state) {
    qimra_ctx* c = engine_with_tables(kSizes[0]);
    for (auto _ : state) {
        qimra_col_conv_create_lut_mc(c, 0, 1);
        benchmark::ClobberMemory();
    }
}

// The same table through the per-pixel form only: what the vector form saves.
void bm_colour_table_per_pixel(benchmark::State& state) {
    qimra_ctx* c = engine_with_tables(kSizes[0]);
    int32_t gain[qimra::kGainCurveEntries];
    for (auto _ : state) {
        qimra::build_bounded_gain_curve(c->chroma_sigma, gain);
        const qimra::ColourLutInputs in{c->gamma_lut, c->sig45_f, c->sig50p1_f, c->recip16_a, gain};
        for (int32_t i = 0; i < 256; ++i)
            qimra::colour_lut_row_c(in, i, c->chroma_lut16 + i * qimra::kColourLutRowEntries, 0,
                                    qimra::kColourLutRowEntries);
        benchmark::ClobberMemory();
    }
}

// ---------------------------------------------------------------------------
// Registration and the summary

struct Row {
    std::string key;               // benchmark name without the size
    std::string label;             // summary line
    std::string ratio_label = "";  // line of the ratio below it, if any
};

// The process rows carry the ratio to the copy timed in their own loop; the
// table pass's ratio is of two medians (a warm pass over a cold copy).
constexpr const char* kSameLoop = "  / copy in the same loop";
const Row kFrameRows[] = {
    {"copy", "frame copy (cold memcpy)", ""},
    {"table_pass", "bare table pass (one thread)", "  / frame copy"},
    {"process/mode0/I420/in_place", "mode 0, I420 in place", kSameLoop},
    {"process/mode0/I420/to_buffer", "mode 0, I420 to buffer", kSameLoop},
    {"process/mode0/NV12/in_place", "mode 0, NV12 in place", kSameLoop},
    {"process/mode0/NV12/to_buffer", "mode 0, NV12 to buffer", kSameLoop},
    {"process/mode2/I420/in_place", "mode 2, I420 in place", kSameLoop},
    {"process/mode2/I420/to_buffer", "mode 2, I420 to buffer", kSameLoop},
    {"process/mode2/NV12/in_place", "mode 2, NV12 in place", kSameLoop},
    {"process/mode2/NV12/to_buffer", "mode 2, NV12 to buffer", kSameLoop},
};
const Row kStageRows[] = {
    {"stage/downscale4", "downscale by four"},
    {"stage/histogram", "histogram (quarter image)"},
    {"stage/local_features", "region features (quarter)"},
    {"stage/decision", "decision"},
    {"stage/integral_images", "integral images (quarter)"},
    {"stage/guided_filter", "guided filter (quarter)"},
    {"stage/upscale2", "upscale by two (to half)"},
    {"stage/luma_scaling", "luma scaling"},
    {"stage/chroma_scaling/I420", "chroma scaling I420"},
    {"stage/chroma_scaling/NV12", "chroma scaling NV12"},
};
const Row kTableRows[] = {
    {"stage/gamma_table", "gamma table"},
    {"stage/colour_table", "colour table (one core)"},
    {"stage/colour_table/per_pixel_form", "colour table, per-pixel form"},
};

std::string full_name(const std::string& key, FrameSize s) { return key + "/" + size_name(s); }

template <typename Fn>
void add(const std::string& name, Fn&& fn, bool manual_time = false) {
    benchmark::internal::Benchmark* b = benchmark::RegisterBenchmark(name.c_str(), std::forward<Fn>(fn));
    b->Unit(benchmark::kMillisecond);
    if (manual_time)
        b->UseManualTime();
    else
        b->UseRealTime();
}

void register_benchmarks() {
    for (const FrameSize s : kSizes) {
        add(full_name("copy", s), [s](benchmark::State& st) { bm_copy(st, s); });
        add(full_name("table_pass", s), [s](benchmark::State& st) { bm_table_pass(st, s); });
        for (const int32_t mode : {0, 2})
            for (const auto& [format, fname] : {std::pair{0, "I420"}, std::pair{2, "NV12"}})
                for (const bool in_place : {true, false})
                    add(
                        full_name(std::string("process/mode") + std::to_string(mode) + "/" + fname +
                                      (in_place ? "/in_place" : "/to_buffer"),
                                  s),
                        [s, format = format, in_place, mode](benchmark::State& st) {
                            bm_process(st, s, format, in_place, mode);
                        },
                        true);
        add(full_name("stage/downscale4", s), [s](benchmark::State& st) { bm_downscale4(st, s); });
        add(full_name("stage/histogram", s), [s](benchmark::State& st) { bm_histogram(st, s); });
        add(full_name("stage/local_features", s), [s](benchmark::State& st) { bm_local_features(st, s); });
        add(full_name("stage/decision", s), [s](benchmark::State& st) { bm_decision(st, s); });
        add(full_name("stage/integral_images", s), [s](benchmark::State& st) { bm_integral_images(st, s); });
        add(full_name("stage/guided_filter", s), [s](benchmark::State& st) { bm_guided_filter(st, s); });
        add(full_name("stage/upscale2", s), [s](benchmark::State& st) { bm_upscale2(st, s); });
        add(full_name("stage/luma_scaling", s), [s](benchmark::State& st) { bm_luma_scaling(st, s); });
        add(full_name("stage/chroma_scaling/I420", s), [s](benchmark::State& st) { bm_chroma_scaling(st, s, 0); });
        add(full_name("stage/chroma_scaling/NV12", s), [s](benchmark::State& st) { bm_chroma_scaling(st, s, 2); });
    }
    add("stage/gamma_table", bm_gamma_table);
    add("stage/colour_table", bm_colour_table);
    add("stage/colour_table/per_pixel_form", bm_colour_table_per_pixel);
}

// The console output, then one table of medians (or of the single run when
// repetitions are turned off) in milliseconds per call.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    using benchmark::ConsoleReporter::ConsoleReporter;

    void ReportRuns(const std::vector<Run>& runs) override {
        benchmark::ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.error_occurred) continue;
            const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            const bool single = r.run_type == Run::RT_Iteration && r.repetitions <= 1;
            if (!median && !single) continue;
            Result& result = results_[r.run_name.function_name];
            result.ms = r.GetAdjustedRealTime();  // every benchmark reports in milliseconds
            const auto ratio = r.counters.find("x_copy");
            if (ratio != r.counters.end()) result.ratio = ratio->second.value;
            if (median) result.repetitions = r.repetitions;
        }
    }

    void Finalize() override {
        benchmark::ConsoleReporter::Finalize();
        if (results_.empty()) return;
        std::ostream& out = GetOutputStream();
        int64_t repetitions = 1;
        for (const auto& [name, result] : results_) repetitions = std::max(repetitions, result.repetitions);
        char line[256];
        out << "\nqimra-bench summary: "
            << (repetitions > 1 ? "median of " + std::to_string(repetitions) + " repetitions" : std::string("one run"))
            << ", milliseconds per call\n";
        std::snprintf(line, sizeof line, "%-34s", "");
        out << line;
        for (const FrameSize s : kSizes) {
            std::snprintf(line, sizeof line, "%12s", size_name(s).c_str());
            out << line;
        }
        out << "\n";
        auto print_row = [&](const Row& row, bool ratio) {
            bool any = false;
            std::string text;
            std::snprintf(line, sizeof line, "%-34s", (ratio ? row.ratio_label : row.label).c_str());
            text += line;
            for (const FrameSize s : kSizes) {
                const auto it = results_.find(full_name(row.key, s));
                if (it == results_.end() || (ratio && it->second.ratio < 0)) {
                    std::snprintf(line, sizeof line, "%12s", "-");
                } else {
                    any = true;
                    std::snprintf(line, sizeof line, ratio ? "%11.2fx" : "%12.3f",
                                  ratio ? it->second.ratio : it->second.ms);
                }
                text += line;
            }
            if (any) out << text << "\n";
        };
        for (const FrameSize s : kSizes) {
            const auto pass = results_.find(full_name("table_pass", s));
            const auto copy = results_.find(full_name("copy", s));
            if (pass != results_.end() && copy != results_.end() && copy->second.ms > 0.0)
                pass->second.ratio = pass->second.ms / copy->second.ms;
        }
        for (const Row& row : kFrameRows) {
            print_row(row, false);
            if (!row.ratio_label.empty()) print_row(row, true);
        }
        out << "stages alone, whole frame on one thread:\n";
        for (const Row& row : kStageRows) print_row({row.key, "  " + row.label}, false);
        for (const Row& row : kTableRows) {
            const auto it = results_.find(row.key);
            if (it == results_.end()) continue;
            std::snprintf(line, sizeof line, "  %-32s%12.4f  (any frame size)\n", row.label.c_str(), it->second.ms);
            out << line;
        }
        out << "frames:\n";
        for (const FrameSize s : kSizes) out << "  " << size_name(s) << ": " << source_frame(s).origin << "\n";
        out.flush();
    }

private:
    struct Result {
        double ms = 0.0;
        double ratio = -1.0;
        int64_t repetitions = 1;
    };
    std::map<std::string, Result> results_;
};

bool has_flag(const std::vector<char*>& args, const char* prefix) {
    return std::any_of(args.begin() + 1, args.end(),
                       [prefix](const char* a) { return std::strncmp(a, prefix, std::strlen(prefix)) == 0; });
}

}  // namespace

int main(int argc, char** argv) {
    // Our own option: --media-dir=DIR (default: the checkout's .cache/media).
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (i > 0 && std::strncmp(argv[i], "--media-dir=", 12) == 0)
            g_media_dir = argv[i] + 12;
        else
            args.push_back(argv[i]);
    }
    // Medians of repeated runs unless asked otherwise.
    static char repetitions[] = "--benchmark_repetitions=5";
    static char aggregates_only[] = "--benchmark_report_aggregates_only=true";
    static char min_time[] = "--benchmark_min_time=0.2";
    std::vector<char*> defaults;
    if (!has_flag(args, "--benchmark_repetitions")) defaults.push_back(repetitions);
    if (!has_flag(args, "--benchmark_report_aggregates_only") && !has_flag(args, "--benchmark_display_aggregates_only"))
        defaults.push_back(aggregates_only);
    if (!has_flag(args, "--benchmark_min_time")) defaults.push_back(min_time);
    args.insert(args.begin() + 1, defaults.begin(), defaults.end());
    const bool console = !has_flag(args, "--benchmark_format=") || has_flag(args, "--benchmark_format=console");
    args.push_back(nullptr);

    int n = static_cast<int>(args.size()) - 1;
    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 1;

    for (const FrameSize s : kSizes) {
        const std::string& origin = source_frame(s).origin;
        if (origin.rfind("synthetic", 0) == 0)
            std::fprintf(stderr, "qimra-bench: %s: %s; scripts/fetch-media provides real photographs\n",
                         size_name(s).c_str(), origin.c_str());
    }
    register_benchmarks();
    if (console) {
        SummaryReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                                       : benchmark::ConsoleReporter::OO_Tabular);
        benchmark::RunSpecifiedBenchmarks(&reporter);
    } else {
        benchmark::RunSpecifiedBenchmarks();
    }
    g_engine.release();
    benchmark::Shutdown();
    return 0;
}
