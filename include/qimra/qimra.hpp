// qimra: the C++ layer over the C ABI of libqimra.so.
//
//   qimra::Engine engine(1366, 768, 0.5f, qimra::Mode::adaptive, qimra::ColourFormat::i420);
//   engine.process(qimra::packed_frame(std::span<const uint8_t>(in), 1366, 768, qimra::ColourFormat::i420),
//                  qimra::packed_frame(std::span<uint8_t>(out), 1366, 768, qimra::ColourFormat::i420));
//   const qimra::FrameReport& r = engine.report();
//
// The engine checks everything the C ABI takes on trust (sizes, strides,
// buffer lengths, the colour format, one engine per process) and throws
// qimra::Error with a message that says what is wrong and what would be
// right. Any even frame size works: sizes and layouts the core cannot take
// as they are go through an internal frame of a size it takes, with the
// edges replicated; sizes it takes pass straight through, with no copy and
// the same bits as the C ABI. Header-only; not thread-safe (one thread
// drives one engine, as with the C ABI).
#pragma once

#include <qimra/qimra.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace qimra {

class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The four 4:2:0 layouts. Planar: a plane of U and one of V, a quarter of
// the luma each (I420 stores U first, YV12 stores V first). Interleaved: one
// plane of chroma pairs, half the luma (NV12 pairs are U,V; NV21 V,U).
enum class ColourFormat : int32_t { i420 = 0, yv12 = 1, nv12 = 2, nv21 = 3 };

// fixed: every frame enhanced with a fixed tone curve built from the gamma.
// mark: every frame analysed, the decision shown as a 64 x 64 square in the
// middle of the frame, nothing enhanced. adaptive: frames enhanced when the
// analysis says so, the tone curve following the scene.
enum class Mode : int32_t { fixed = 0, mark = 1, adaptive = 2 };

// Largest frame side the engine accepts (its buffers are sized in 32-bit
// arithmetic; 16384 x 16384 keeps every one of them far below 2^31).
inline constexpr int kMaxDimension = 16384;

inline bool is_planar(ColourFormat f) { return f == ColourFormat::i420 || f == ColourFormat::yv12; }

inline const char* format_name(ColourFormat f) {
    switch (f) {
        case ColourFormat::i420: return "i420";
        case ColourFormat::yv12: return "yv12";
        case ColourFormat::nv12: return "nv12";
        case ColourFormat::nv21: return "nv21";
    }
    return "unknown";
}

// One plane: rows of `stride` bytes in `data`.
template <class T>
struct BasicPlane {
    std::span<T> data;
    std::ptrdiff_t stride = 0;
};

// A frame as three plane views. c1 is the first chroma plane in memory order
// (U for i420, V for yv12, the pairs for nv12 and nv21); c2 the second planar
// chroma plane, empty for the interleaved formats.
template <class T>
struct BasicFrame {
    BasicPlane<T> y;
    BasicPlane<T> c1;
    BasicPlane<T> c2;

    BasicFrame() = default;
    BasicFrame(BasicPlane<T> y_, BasicPlane<T> c1_, BasicPlane<T> c2_ = {}) : y(y_), c1(c1_), c2(c2_) {}
    // A writable frame can be passed where a read-only one is wanted.
    template <class U>
    requires(std::is_const_v<T>&& std::is_same_v<std::remove_const_t<T>, U>) BasicFrame(const BasicFrame<U>& f)
        : y{f.y.data, f.y.stride}, c1{f.c1.data, f.c1.stride}, c2{f.c2.data, f.c2.stride} {}
};

using Plane = BasicPlane<uint8_t>;
using ConstPlane = BasicPlane<const uint8_t>;
using FrameView = BasicFrame<uint8_t>;
using ConstFrameView = BasicFrame<const uint8_t>;

// Bytes of a frame packed at its width: luma, then chroma.
inline std::size_t frame_bytes(int width, int height) {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3 / 2;
}

namespace detail {

inline std::string size_text(long long w, long long h) { return std::to_string(w) + "x" + std::to_string(h); }

inline void check_dimension(const char* what, long long v) {
    if (v <= 0)
        throw Error(std::string("qimra: ") + what + " " + std::to_string(v) +
                    " is not positive; frames need a width and height of at least 2");
    if (v % 2 != 0)
        throw Error(std::string("qimra: ") + what + " " + std::to_string(v) +
                    " is odd; 4:2:0 frames need an even width and height (e.g. " + std::to_string(v - 1) + " or " +
                    std::to_string(v + 1) + ")");
    if (v > kMaxDimension)
        throw Error(std::string("qimra: ") + what + " " + std::to_string(v) + " is too large; at most " +
                    std::to_string(kMaxDimension) + " is accepted");
}

inline void check_size(int width, int height) {
    check_dimension("width", width);
    check_dimension("height", height);
}

// The core splits the rows between its two cores at 4 * ((rows / 2 + 3) / 4)
// and each filter band reads 10 rows beyond the seam, so both bands must
// hold at least 10 rows. In quarter mode the split is over quarter rows,
// which 720 rows and more always satisfy.
inline constexpr int kSeamContextRows = 10;
inline constexpr bool band_split_fits(int rows) {
    const int seam = 4 * ((50 * rows / 100 + 3) >> 2);
    return seam >= kSeamContextRows && rows - seam >= kSeamContextRows;
}
inline constexpr int smallest_band_split_rows() {
    int rows = 4;
    while (!band_split_fits(rows)) rows += 4;
    return rows;
}

// Smallest frame the core takes as it is. The chroma scalers work on 16
// luma columns at a time; the decision square of the mark mode is 64 x 64
// around the middle of the frame.
inline constexpr int core_min_width(Mode m) { return m == Mode::mark ? 64 : 16; }
inline constexpr int core_min_height(Mode m) {
    return m == Mode::mark && smallest_band_split_rows() < 64 ? 64 : smallest_band_split_rows();
}

inline int round_up(int v, int to) { return (v + to - 1) / to * to; }

template <class T>
const uint8_t* begin_of(const BasicPlane<T>& p) {
    return p.data.data();
}

// Bytes a plane of `rows` rows of `row_bytes` needs at its stride (in 64
// bits, so that no stride can wrap it on a 32-bit target).
inline unsigned long long plane_extent(std::ptrdiff_t stride, int rows, int row_bytes) {
    return static_cast<unsigned long long>(stride) * static_cast<unsigned long long>(rows - 1) +
           static_cast<unsigned long long>(row_bytes);
}

template <class T>
void check_plane(const char* frame, const char* plane, const BasicPlane<T>& p, int rows, int row_bytes) {
    const std::string name = std::string("qimra: ") + frame + " " + plane + " plane";
    if (p.data.data() == nullptr)
        throw Error(name + " is empty; it needs " + std::to_string(rows) + " rows of " + std::to_string(row_bytes) +
                    " bytes");
    if (p.stride < row_bytes)
        throw Error(name + " stride " + std::to_string(p.stride) + " is less than its row of " +
                    std::to_string(row_bytes) + " bytes; the stride must be at least " + std::to_string(row_bytes));
    // A stride longer than the whole span cannot hold two rows; past that
    // check the extent cannot overflow.
    const bool bounded = rows < 2 || static_cast<unsigned long long>(p.stride) <= p.data.size();
    const unsigned long long need = bounded ? plane_extent(p.stride, rows, row_bytes) : 0;
    if (!bounded || p.data.size() < need)
        throw Error(name + " holds " + std::to_string(p.data.size()) + " bytes; " + std::to_string(rows) +
                    " rows at stride " + std::to_string(p.stride) + " need " +
                    (bounded ? std::to_string(need) : std::string("more than that")));
}

struct Range {
    uintptr_t begin;
    uintptr_t end;
};

template <class T>
Range range_of(const BasicPlane<T>& p, int rows, int row_bytes) {
    // Checked planes lie within their spans, so the end fits in an address.
    const auto b = reinterpret_cast<uintptr_t>(p.data.data());
    return {b, b + static_cast<uintptr_t>(plane_extent(p.stride, rows, row_bytes))};
}

inline bool overlap(Range a, Range b) { return a.begin < b.end && b.begin < a.end; }

}  // namespace detail

// A frame packed at its width in one buffer (luma, then chroma), as the
// layout `format` stores it.
template <class T>
BasicFrame<T> packed_frame(std::span<T> buffer, int width, int height, ColourFormat format) {
    detail::check_size(width, height);
    const std::size_t need = frame_bytes(width, height);
    if (buffer.size() < need)
        throw Error("qimra: a packed " + detail::size_text(width, height) + " frame needs " + std::to_string(need) +
                    " bytes; the buffer holds " + std::to_string(buffer.size()));
    const std::size_t luma = static_cast<std::size_t>(width) * height;
    BasicFrame<T> f;
    f.y = {buffer.subspan(0, luma), width};
    if (is_planar(format)) {
        f.c1 = {buffer.subspan(luma, luma / 4), width / 2};
        f.c2 = {buffer.subspan(luma + luma / 4, luma / 4), width / 2};
    } else {
        f.c1 = {buffer.subspan(luma, luma / 2), width};
    }
    return f;
}

// What the engine did with one frame.
struct FrameReport {
    int frame = -1;             // index of the frame, counted from 0
    bool decision = false;      // the scene was judged worth enhancing
    bool enhanced = false;      // the frame was enhanced (never in Mode::mark)
    int mid = 0;                // normalisation point of the tone curve (the strength)
    float gamma = 0.0f;         // exponent of the tone curve
    int top_level = 0;          // the decision's top output level, 230-255
    float chroma_sigma = 0.0f;  // width of the chroma gain curve
    std::array<uint8_t, 256> tone_curve{};
};

class Engine {
public:
    Engine(int width, int height, float gamma = 0.5f, Mode mode = Mode::adaptive,
           ColourFormat format = ColourFormat::i420)
        : width_(width), height_(height), gamma_(gamma), mode_(mode), format_(format) {
        detail::check_size(width, height);
        if (!std::isfinite(gamma) || gamma <= 0.0f || gamma > 4.0f)
            throw Error("qimra: gamma " + std::to_string(gamma) +
                        " is out of range; it must be a number greater than 0 and at most 4 "
                        "(below 1 lifts the shadows; 0.5 is usual)");
        const auto m = static_cast<int32_t>(mode);
        if (m < 0 || m > 2)
            throw Error("qimra: adaptive mode " + std::to_string(m) +
                        " is unknown; use 0 (fixed), 1 (mark the decision) or 2 (adaptive)");
        const auto f = static_cast<int32_t>(format);
        if (f < 0 || f > 3)
            throw Error("qimra: colour format " + std::to_string(f) +
                        " is unknown; use 0 (i420), 1 (yv12), 2 (nv12) or 3 (nv21)");

        // The core takes widths in steps of 16 and heights in steps of 4, and
        // no less than its band split needs; anything else runs in a frame of
        // the next size it takes.
        core_width_ = std::max(detail::round_up(width, 16), detail::core_min_width(mode));
        core_height_ = std::max(detail::round_up(height, 4), detail::core_min_height(mode));

        try {
            if (!takes_size_directly()) staging_.resize(frame_bytes(core_width_, core_height_));
        } catch (const std::bad_alloc&) {
            throw Error("qimra: out of memory for the " + detail::size_text(core_width_, core_height_) +
                        " working frame of a " + detail::size_text(width, height) + " engine");
        }
        // The library keeps the one-engine rule for the whole process (every
        // module that includes this header shares it), and says which of its
        // two refusals this was.
        ctx_ = qimra_init(core_width_, core_height_, gamma, 0, 0, 0, 0, 0, m, f);
        if (ctx_ == nullptr && qimra_engine_alive() != 0)
            throw Error(
                "qimra: another engine is alive in this process; the library runs one engine at a time, so "
                "destroy the first before creating a second");
        if (ctx_ == nullptr) {
            throw Error("qimra: out of memory while creating the engine for " +
                        detail::size_text(core_width_, core_height_) +
                        " frames; free memory or use a smaller frame size");
        }
    }

    ~Engine() { release(); }

    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    Engine(Engine&& o) noexcept { take(o); }
    Engine& operator=(Engine&& o) noexcept {
        if (this != &o) {
            release();
            take(o);
        }
        return *this;
    }

    int width() const { return width_; }
    int height() const { return height_; }
    float gamma() const { return gamma_; }
    Mode mode() const { return mode_; }
    ColourFormat format() const { return format_; }
    // The frame size the core runs at: the frame's own size when the core
    // takes it directly.
    int core_width() const { return core_width_; }
    int core_height() const { return core_height_; }
    bool takes_size_directly() const { return core_width_ == width_ && core_height_ == height_; }

    // Enhance one frame from `in` into `out`. Each output plane is either the
    // input plane itself (in place) or apart from every input plane.
    void process(const ConstFrameView& in, const FrameView& out) {
        if (ctx_ == nullptr) throw Error("qimra: this engine was moved from; process frames with the one it moved to");
        validate(in, out);
        if (direct_layout(in, out)) {
            // The core reads the input only, whatever its pointer type says.
            qimra_register_chroma_bufs(ctx_, const_cast<uint8_t*>(in.c1.data.data()), out.c1.data.data());
            qimra_process(ctx_, const_cast<uint8_t*>(in.y.data.data()), width_, height_, out.y.data.data(), width_,
                          height_);
        } else {
            if (staging_.empty()) {
                try {
                    staging_.resize(frame_bytes(core_width_, core_height_));
                } catch (const std::bad_alloc&) {
                    throw Error("qimra: out of memory for the " + detail::size_text(core_width_, core_height_) +
                                " working frame");
                }
            }
            stage_in(in);
            qimra_process(ctx_, staging_.data(), core_width_, core_height_, staging_.data(), core_width_, core_height_);
            stage_out(out);
        }
        qimra_frame_report r;
        if (qimra_get_frame_report(ctx_, &r) == 0) {
            report_.frame = r.frame;
            report_.decision = r.decision != 0;
            report_.enhanced = r.enhanced != 0;
            report_.mid = r.mid;
            report_.gamma = r.gamma;
            report_.top_level = r.top_level;
            report_.chroma_sigma = r.chroma_sigma;
            std::memcpy(report_.tone_curve.data(), r.tone_curve, report_.tone_curve.size());
        }
    }

    // Enhance one frame in place.
    void process(const FrameView& frame) { process(ConstFrameView(frame), frame); }

    // The report of the last frame processed.
    const FrameReport& report() const {
        if (report_.frame < 0) throw Error("qimra: no frame has been processed yet; call process() first");
        return report_;
    }

private:
    void release() noexcept {
        if (ctx_ == nullptr) return;
        qimra_deinit(ctx_);
        ctx_ = nullptr;
    }

    void take(Engine& o) noexcept {
        width_ = o.width_;
        height_ = o.height_;
        gamma_ = o.gamma_;
        mode_ = o.mode_;
        format_ = o.format_;
        core_width_ = o.core_width_;
        core_height_ = o.core_height_;
        ctx_ = std::exchange(o.ctx_, nullptr);
        staging_ = std::move(o.staging_);
        report_ = o.report_;
    }

    int chroma_rows() const { return height_ / 2; }
    int chroma_row_bytes() const { return is_planar(format_) ? width_ / 2 : width_; }

    void validate(const ConstFrameView& in, const FrameView& out) const {
        check_frame("input", in);
        check_frame("output", out);
        const detail::Range ins[3] = {detail::range_of(in.y, height_, width_),
                                      detail::range_of(in.c1, chroma_rows(), chroma_row_bytes()),
                                      detail::range_of(in.c2, chroma_rows(), chroma_row_bytes())};
        const detail::Range outs[3] = {detail::range_of(out.y, height_, width_),
                                       detail::range_of(out.c1, chroma_rows(), chroma_row_bytes()),
                                       detail::range_of(out.c2, chroma_rows(), chroma_row_bytes())};
        const int planes = is_planar(format_) ? 3 : 2;
        static const char* names[3] = {"luma", "first chroma", "second chroma"};
        const std::ptrdiff_t in_strides[3] = {in.y.stride, in.c1.stride, in.c2.stride};
        const std::ptrdiff_t out_strides[3] = {out.y.stride, out.c1.stride, out.c2.stride};
        for (int o = 0; o < planes; ++o) {
            for (int o2 = o + 1; o2 < planes; ++o2)
                if (detail::overlap(outs[o], outs[o2]))
                    throw Error(std::string("qimra: the output ") + names[o] + " and " + names[o2] +
                                " planes overlap; each plane needs its own bytes");
            for (int i = 0; i < planes; ++i) {
                const bool same = i == o && ins[i].begin == outs[o].begin && in_strides[i] == out_strides[o];
                if (!same && detail::overlap(ins[i], outs[o]))
                    throw Error(std::string("qimra: the output ") + names[o] + " plane overlaps the input " + names[i] +
                                " plane; pass the very same planes to enhance in place, or "
                                "separate buffers");
            }
        }
    }

    template <class T>
    void check_frame(const char* which, const BasicFrame<T>& f) const {
        detail::check_plane(which, "luma", f.y, height_, width_);
        if (is_planar(format_)) {
            detail::check_plane(which, "first chroma", f.c1, chroma_rows(), chroma_row_bytes());
            detail::check_plane(which, "second chroma", f.c2, chroma_rows(), chroma_row_bytes());
        } else {
            detail::check_plane(which, "interleaved chroma", f.c1, chroma_rows(), chroma_row_bytes());
            if (f.c2.data.data() != nullptr)
                throw Error(std::string("qimra: the ") + which + " frame has a second chroma plane, but " +
                            format_name(format_) + " keeps its chroma pairs in one plane; leave c2 empty");
        }
    }

    // Whether the core can work on the caller's planes as they are: a size it
    // takes, strides equal to the rows (the core walks packed planes), the
    // second planar chroma plane right behind the first (the core finds it
    // there), 4 readable bytes behind the input luma (the filter loads its
    // last pixels eight at a time), and in mark mode the output chroma right
    // behind the output luma (the decision square is drawn there).
    bool direct_layout(const ConstFrameView& in, const FrameView& out) const {
        if (!takes_size_directly()) return false;
        const std::size_t luma = static_cast<std::size_t>(width_) * height_;
        auto packed = [&](const auto& f) {
            if (f.y.stride != width_ || f.c1.stride != chroma_row_bytes()) return false;
            if (!is_planar(format_)) return true;
            return f.c2.stride == width_ / 2 && detail::begin_of(f.c2) == detail::begin_of(f.c1) + luma / 4;
        };
        if (!packed(in) || !packed(out)) return false;
        const bool slack_behind_luma =
            detail::begin_of(in.c1) == detail::begin_of(in.y) + luma || in.y.data.size() >= luma + 4;
        if (!slack_behind_luma) return false;
        if (mode_ == Mode::mark && detail::begin_of(out.c1) != detail::begin_of(out.y) + luma) return false;
        return true;
    }

    // Copies a plane into the working frame and replicates its last column
    // (of `unit`-byte samples) and last row out to the working size.
    static void copy_in(const ConstPlane& p, int rows, int row_bytes, uint8_t* dst, int dst_rows, int dst_row_bytes,
                        int unit) {
        for (int r = 0; r < rows; ++r) {
            uint8_t* d = dst + static_cast<std::size_t>(r) * dst_row_bytes;
            std::memcpy(d, p.data.data() + static_cast<std::size_t>(r) * p.stride, row_bytes);
            for (int x = row_bytes; x < dst_row_bytes; x += unit) std::memcpy(d + x, d + row_bytes - unit, unit);
        }
        for (int r = rows; r < dst_rows; ++r)
            std::memcpy(dst + static_cast<std::size_t>(r) * dst_row_bytes,
                        dst + static_cast<std::size_t>(rows - 1) * dst_row_bytes, dst_row_bytes);
    }

    static void copy_out(const uint8_t* src, int src_row_bytes, const Plane& p, int rows, int row_bytes) {
        for (int r = 0; r < rows; ++r)
            std::memcpy(p.data.data() + static_cast<std::size_t>(r) * p.stride,
                        src + static_cast<std::size_t>(r) * src_row_bytes, row_bytes);
    }

    uint8_t* staging_chroma(int plane) {
        const std::size_t luma = static_cast<std::size_t>(core_width_) * core_height_;
        return staging_.data() + luma + (plane == 2 ? luma / 4 : 0);
    }

    void stage_in(const ConstFrameView& in) {
        copy_in(in.y, height_, width_, staging_.data(), core_height_, core_width_, 1);
        if (is_planar(format_)) {
            copy_in(in.c1, chroma_rows(), width_ / 2, staging_chroma(1), core_height_ / 2, core_width_ / 2, 1);
            copy_in(in.c2, chroma_rows(), width_ / 2, staging_chroma(2), core_height_ / 2, core_width_ / 2, 1);
        } else {
            copy_in(in.c1, chroma_rows(), width_, staging_chroma(1), core_height_ / 2, core_width_, 2);
        }
    }

    void stage_out(const FrameView& out) {
        copy_out(staging_.data(), core_width_, out.y, height_, width_);
        if (is_planar(format_)) {
            copy_out(staging_chroma(1), core_width_ / 2, out.c1, chroma_rows(), width_ / 2);
            copy_out(staging_chroma(2), core_width_ / 2, out.c2, chroma_rows(), width_ / 2);
        } else {
            copy_out(staging_chroma(1), core_width_, out.c1, chroma_rows(), width_);
        }
    }

    int width_ = 0;
    int height_ = 0;
    float gamma_ = 0.0f;
    Mode mode_ = Mode::adaptive;
    ColourFormat format_ = ColourFormat::i420;
    int core_width_ = 0;
    int core_height_ = 0;
    qimra_ctx* ctx_ = nullptr;
    std::vector<uint8_t> staging_;
    FrameReport report_;
};

}  // namespace qimra
