// qimraenhance in a GstHarness: its frames, reports and metas against
// qimra::Engine run directly on the same real frames, across formats,
// buffer layouts, renegotiations and property changes while playing.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <optional>
#include <qimra/qimra.hpp>
#include <string>
#include <vector>

#include "support/media.h"

namespace qimra::test {
namespace {

using Bytes = std::vector<uint8_t>;

struct Format {
    const char* caps;
    ColourFormat qimra;
};
constexpr Format kFormats[] = {{"I420", ColourFormat::i420},
                               {"YV12", ColourFormat::yv12},
                               {"NV12", ColourFormat::nv12},
                               {"NV21", ColourFormat::nv21}};

const char* caps_format(ColourFormat f) {
    for (const Format& k : kFormats)
        if (k.qimra == f) return k.caps;
    return "";
}

void init_gstreamer() {
    static const bool ready = [] {
        gst_init(nullptr, nullptr);
        gst_registry_scan_path(gst_registry_get(), QIMRA_GST_PLUGIN_DIR);
        return true;
    }();
    (void)ready;
}

// A real photograph cropped to w x h from its 1080p frame, in `f`'s layout
// packed at the width.
Bytes real_frame(int index, int w, int h, ColourFormat f) {
    static const char* names[] = {"path", "evening", "pier", "darkest", "water", "autumn"};
    static std::map<int, Bytes> cache;
    const int k = index % 6;
    if (!cache.count(k)) cache[k] = load_i420(names[k], 1920, 1080);
    const Bytes& src = cache[k];
    Bytes out(frame_bytes(w, h));
    const size_t luma = static_cast<size_t>(w) * h, src_luma = 1920 * 1080;
    for (int y = 0; y < h; ++y) std::memcpy(&out[static_cast<size_t>(y) * w], &src[static_cast<size_t>(y) * 1920], w);
    for (int y = 0; y < h / 2; ++y)
        for (int x = 0; x < w / 2; ++x) {
            const uint8_t u = src[src_luma + y * 960 + x], v = src[src_luma + src_luma / 4 + y * 960 + x];
            const size_t q = static_cast<size_t>(y) * (w / 2) + x;
            switch (f) {
                case ColourFormat::i420: out[luma + q] = u, out[luma + luma / 4 + q] = v; break;
                case ColourFormat::yv12: out[luma + q] = v, out[luma + luma / 4 + q] = u; break;
                case ColourFormat::nv12: out[luma + 2 * q] = u, out[luma + 2 * q + 1] = v; break;
                case ColourFormat::nv21: out[luma + 2 * q] = v, out[luma + 2 * q + 1] = u; break;
            }
        }
    return out;
}

// Rows and row bytes of each plane of a packed frame.
struct PlaneShape {
    size_t offset;
    int rows, row_bytes;
};
std::vector<PlaneShape> planes_of(int w, int h, ColourFormat f) {
    const size_t luma = static_cast<size_t>(w) * h;
    if (is_planar(f)) return {{0, h, w}, {luma, h / 2, w / 2}, {luma + luma / 4, h / 2, w / 2}};
    return {{0, h, w}, {luma, h / 2, w}};
}

// How a buffer lays out its planes: as GstVideoInfo does by default (rows
// padded to 4 bytes), or each plane in a memory of its own at a wide stride,
// described by a GstVideoMeta.
enum class Layout { video_info, strided_meta };

GstCaps* caps_for(int w, int h, ColourFormat f) {
    return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, caps_format(f), "width", G_TYPE_INT, w, "height",
                               G_TYPE_INT, h, "framerate", GST_TYPE_FRACTION, 25, 1, nullptr);
}

// Copies each plane between a frame packed at its width and a buffer's
// mapped planes (at their strides, through the video meta if any).
void copy_planes(GstBuffer* buf, int w, int h, ColourFormat f, Bytes& packed, bool into_buffer) {
    GstVideoInfo info;
    gst_video_info_set_format(&info, gst_video_format_from_string(caps_format(f)), w, h);
    GstVideoFrame frame;
    ASSERT_TRUE(gst_video_frame_map(&frame, &info, buf, into_buffer ? GST_MAP_WRITE : GST_MAP_READ));
    const auto shapes = planes_of(w, h, f);
    for (size_t p = 0; p < shapes.size(); ++p)
        for (int r = 0; r < shapes[p].rows; ++r) {
            uint8_t* mapped = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, p)) +
                              static_cast<size_t>(r) * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, p);
            uint8_t* flat = &packed[shapes[p].offset + static_cast<size_t>(r) * shapes[p].row_bytes];
            std::memcpy(into_buffer ? mapped : flat, into_buffer ? flat : mapped, shapes[p].row_bytes);
        }
    gst_video_frame_unmap(&frame);
}

GstBuffer* make_buffer(Bytes packed, int w, int h, ColourFormat f, Layout layout) {
    GstVideoInfo info;
    gst_video_info_set_format(&info, gst_video_format_from_string(caps_format(f)), w, h);
    const auto shapes = planes_of(w, h, f);
    GstBuffer* buf = gst_buffer_new();
    if (layout == Layout::strided_meta) {
        gsize offsets[GST_VIDEO_MAX_PLANES] = {};
        gint strides[GST_VIDEO_MAX_PLANES] = {};
        for (size_t p = 0; p < shapes.size(); ++p) {
            strides[p] = shapes[p].row_bytes + 96;
            offsets[p] = p == 0 ? 0 : offsets[p - 1] + static_cast<gsize>(strides[p - 1]) * shapes[p - 1].rows;
            gst_buffer_append_memory(
                buf, gst_allocator_alloc(nullptr, static_cast<gsize>(strides[p]) * shapes[p].rows, nullptr));
        }
        gst_buffer_add_video_meta_full(buf, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info), w, h,
                                       static_cast<guint>(shapes.size()), offsets, strides);
    } else {
        gst_buffer_append_memory(buf, gst_allocator_alloc(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr));
    }
    copy_planes(buf, w, h, f, packed, true);
    return buf;
}

Bytes read_back(GstBuffer* buf, int w, int h, ColourFormat f) {
    Bytes out(frame_bytes(w, h));
    copy_planes(buf, w, h, f, out, false);
    return out;
}

// One run of frames with the element set up one way.
struct Step {
    int w, h;
    ColourFormat format;
    Mode mode;
    float gamma;
    bool bypass, post;
    int frames;
    Layout layout = Layout::video_info;
};

struct Expected {
    Bytes in, out;
    std::optional<FrameReport> report;  // when a message and a meta are due
};

// What the element should do: a new engine whenever the size, format, mode
// or gamma change, buffers untouched in bypass.
std::vector<Expected> expected_run(const std::vector<Step>& steps) {
    std::vector<Expected> all;
    std::optional<Engine> engine;
    std::tuple<int, int, ColourFormat, Mode, float> key{};
    int index = 0;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    for (const Step& s : steps)
        for (int i = 0; i < s.frames; ++i, ++index) {
            Expected e{real_frame(index, s.w, s.h, s.format), {}, {}};
            e.out = e.in;
            if (!s.bypass) {
                const auto k = std::tuple{s.w, s.h, s.format, s.mode, s.gamma};
                if (!engine || k != key) {
                    engine.reset();
                    engine.emplace(s.w, s.h, s.gamma, s.mode, s.format);
                    key = k;
                }
                engine->process(packed_frame(std::span<uint8_t>(e.out), s.w, s.h, s.format));
                if (s.post) e.report = engine->report();
            }
            all.push_back(std::move(e));
        }
    engine.reset();
    testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    return all;
}

void expect_report(const GstStructure* s, const FrameReport& r, GstClockTime pts, const std::string& where) {
    SCOPED_TRACE(where);
    guint64 frame = 0, ts = 0, running = 0;
    gboolean decision = FALSE, enhanced = FALSE;
    gint mid = 0, top = 0;
    gdouble gamma = 0, sigma = 0;
    ASSERT_TRUE(gst_structure_get(s, "frame", G_TYPE_UINT64, &frame, "timestamp", G_TYPE_UINT64, &ts, "running-time",
                                  G_TYPE_UINT64, &running, "decision", G_TYPE_BOOLEAN, &decision, "enhanced",
                                  G_TYPE_BOOLEAN, &enhanced, "mid", G_TYPE_INT, &mid, "gamma", G_TYPE_DOUBLE, &gamma,
                                  "top-level", G_TYPE_INT, &top, "chroma-sigma", G_TYPE_DOUBLE, &sigma, nullptr));
    EXPECT_EQ(frame, static_cast<guint64>(r.frame));
    EXPECT_EQ(ts, pts);
    EXPECT_EQ(running, pts);  // the segment starts at 0
    EXPECT_EQ(decision, r.decision);
    EXPECT_EQ(enhanced, r.enhanced);
    EXPECT_EQ(mid, r.mid);
    EXPECT_EQ(static_cast<float>(gamma), r.gamma);
    EXPECT_EQ(top, r.top_level);
    EXPECT_EQ(static_cast<float>(sigma), r.chroma_sigma);
}

// Runs the steps through the element and checks every frame, message and
// meta against expected_run.
void run_and_check(const std::vector<Step>& steps) {
    init_gstreamer();
    const std::vector<Expected> expected = expected_run(steps);
    GstHarness* h = gst_harness_new("qimraenhance");
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(h->element, bus);
    int index = 0;
    std::tuple<int, int, ColourFormat> caps{};
    for (const Step& s : steps) {
        g_object_set(h->element, "mode", static_cast<gint>(s.mode), "gamma", s.gamma, "bypass", s.bypass,
                     "post-messages", s.post, nullptr);
        if (caps != std::tuple{s.w, s.h, s.format}) {
            gst_harness_set_src_caps(h, caps_for(s.w, s.h, s.format));
            caps = {s.w, s.h, s.format};
        }
        for (int i = 0; i < s.frames; ++i, ++index) {
            const std::string where = "frame " + std::to_string(index) + " (" + caps_format(s.format) + " " +
                                      std::to_string(s.w) + "x" + std::to_string(s.h) + ")";
            const Expected& e = expected[index];
            GstBuffer* in = make_buffer(e.in, s.w, s.h, s.format, s.layout);
            const GstClockTime pts = static_cast<GstClockTime>(index) * 40 * GST_MSECOND;
            GST_BUFFER_PTS(in) = pts;
            GST_BUFFER_DURATION(in) = 40 * GST_MSECOND;
            ASSERT_EQ(gst_harness_push(h, in), GST_FLOW_OK) << where;
            GstBuffer* out = gst_harness_pull(h);
            ASSERT_NE(out, nullptr) << where;
            EXPECT_TRUE(read_back(out, s.w, s.h, s.format) == e.out) << where;
            GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ELEMENT);
            GstCustomMeta* meta = gst_buffer_get_custom_meta(out, "GstQimraMeta");
            if (e.report) {
                ASSERT_NE(msg, nullptr) << where;
                ASSERT_NE(meta, nullptr) << where;
                const GstStructure* s_msg = gst_message_get_structure(msg);
                EXPECT_TRUE(gst_structure_has_name(s_msg, "qimra"));
                expect_report(s_msg, *e.report, pts, where + ", message");
                expect_report(gst_custom_meta_get_structure(meta), *e.report, pts, where + ", meta");
            } else {
                EXPECT_EQ(msg, nullptr) << where;
                EXPECT_EQ(meta, nullptr) << where;
            }
            if (msg) gst_message_unref(msg);
            gst_buffer_unref(out);
        }
    }
    gst_element_set_bus(h->element, nullptr);
    gst_object_unref(bus);
    gst_harness_teardown(h);
    EXPECT_EQ(qimra_engine_alive(), 0);
}

// Every format at a size the core takes (no copy), at a padded size (rows
// padded by GstVideoInfo, through the working frame), and with each plane
// in its own memory at a wide stride, described by a video meta.
TEST(QimraEnhanceHarness, EveryFormatAndLayoutMatchesTheEngine) {
    for (const Format& f : kFormats)
        for (auto [w, h, layout] :
             {std::tuple{1280, 720, Layout::video_info}, std::tuple{1366, 768, Layout::video_info},
              std::tuple{640, 480, Layout::strided_meta}}) {
            SCOPED_TRACE(std::string(f.caps) + " " + std::to_string(w) + "x" + std::to_string(h));
            run_and_check({{w, h, f.qimra, Mode::adaptive, 0.5f, false, true, 3, layout}});
        }
}

// Caps change mid-stream (size and format, and back), and the mode, gamma,
// bypass and post-messages change while playing: each frame is treated by
// an engine made for what was set before it arrived.
TEST(QimraEnhanceHarness, RenegotiationAndPropertyChangesWhilePlaying) {
    constexpr auto i420 = ColourFormat::i420, nv12 = ColourFormat::nv12;
    run_and_check({
        {640, 480, i420, Mode::adaptive, 0.5f, false, true, 3},
        {1280, 720, nv12, Mode::adaptive, 0.5f, false, true, 2},  // renegotiated: a new engine
        {1280, 720, nv12, Mode::fixed, 0.8f, false, false, 2},    // mode and gamma, no messages
        {1280, 720, nv12, Mode::fixed, 0.8f, true, true, 2},      // bypass: untouched, no report
        {1280, 720, nv12, Mode::fixed, 0.8f, false, true, 1},     // the same engine carries on
        {640, 480, i420, Mode::mark, 0.8f, false, true, 2},       // back to the first caps, marked
    });
}

// Refusals, as an application sees them on the bus: caps the core cannot
// take, when they are set; a second running element, when it starts. An
// instance that never starts holds no engine, and nothing stays claimed.
TEST(QimraEnhancePipeline, RefusalsAreErrorsThatSayWhy) {
    init_gstreamer();
    const struct {
        const char* launch;
        GQuark domain;
        int code;
        const char* says;
    } cases[] = {
        {"videotestsrc ! video/x-raw,format=I420,width=640,height=480 ! "
         "capssetter caps=video/x-raw,interlace-mode=interleaved ! qimraenhance ! fakesink",
         GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT, "progressive frames only"},
        {"videotestsrc ! video/x-raw,format=NV12,width=642,height=481 ! qimraenhance ! fakesink", GST_STREAM_ERROR,
         GST_STREAM_ERROR_FORMAT, "even width and height; 642x481"},
        {"videotestsrc ! qimraenhance ! qimraenhance ! fakesink", GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_BUSY,
         "one qimraenhance already runs in this process"},
    };
    GstElement* idle = gst_element_factory_make("qimraenhance", nullptr);
    EXPECT_EQ(qimra_engine_alive(), 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.launch);
        GstElement* pipeline = gst_parse_launch(c.launch, nullptr);
        ASSERT_NE(pipeline, nullptr);
        GstBus* bus = gst_element_get_bus(pipeline);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstMessage* msg = gst_bus_timed_pop_filtered(bus, 10 * GST_SECOND, GST_MESSAGE_ERROR);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
        ASSERT_NE(msg, nullptr);
        GError* err = nullptr;
        gst_message_parse_error(msg, &err, nullptr);
        EXPECT_TRUE(g_error_matches(err, c.domain, c.code)) << err->message;
        EXPECT_NE(std::string(err->message).find(c.says), std::string::npos) << err->message;
        g_error_free(err);
        gst_message_unref(msg);
        gst_object_unref(bus);
        gst_object_unref(pipeline);
        EXPECT_EQ(qimra_engine_alive(), 0);
    }
    gst_object_unref(idle);
}

}  // namespace
}  // namespace qimra::test
