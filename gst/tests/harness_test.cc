// qimraenhance in a GstHarness against qimra::Engine run directly on the same real frames.
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <qimra/qimra.hpp>

#include "support/media.h"

namespace qimra::test {
namespace {

using Bytes = std::vector<uint8_t>;
using CF = ColourFormat;

void init_gstreamer() {
    static const bool ready =
        (gst_init(nullptr, nullptr), gst_registry_scan_path(gst_registry_get(), QIMRA_GST_PLUGIN_DIR));
    (void)ready;
}

// A real photograph packed at the width. The same bytes serve every layout: an interleaved one reads the planar
// chroma as its pairs.
Bytes real_frame(int index, int w, int h) { return load_i420(index % 2 ? "path" : "darkest", w, h); }

// Copies each plane between a frame packed at its width and a buffer, at the buffer's strides (through its video
// meta if any).
void copy_planes(GstBuffer* buf, GstVideoInfo* info, Bytes& packed, bool into_buffer) {
    GstVideoFrame frame;
    ASSERT_TRUE(gst_video_frame_map(&frame, info, buf, into_buffer ? GST_MAP_WRITE : GST_MAP_READ));
    const int w = GST_VIDEO_INFO_WIDTH(info), h = GST_VIDEO_INFO_HEIGHT(info), n = GST_VIDEO_INFO_N_PLANES(info);
    uint8_t* flat = packed.data();
    for (int p = 0; p < n; ++p)
        for (int r = 0, row = p == 0 || n == 2 ? w : w / 2; r < (p == 0 ? h : h / 2); ++r, flat += row) {
            uint8_t* mapped = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, p)) +
                              static_cast<ptrdiff_t>(r) * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, p);
            std::memcpy(into_buffer ? mapped : flat, into_buffer ? flat : mapped, row);
        }
    gst_video_frame_unmap(&frame);
}

// A buffer as GstVideoInfo lays it out, or each plane in a memory of its own, 96 bytes wider, told by a video meta.
GstBuffer* make_buffer(Bytes packed, GstVideoInfo* info, bool strided) {
    GstBuffer* buf = gst_buffer_new();
    const guint n = GST_VIDEO_INFO_N_PLANES(info);
    gsize offsets[GST_VIDEO_MAX_PLANES] = {};
    gint strides[GST_VIDEO_MAX_PLANES] = {};
    for (guint p = 0; strided && p < n; ++p) {
        const gsize rows = GST_VIDEO_INFO_HEIGHT(info) / (p ? 2 : 1);
        strides[p] = GST_VIDEO_INFO_PLANE_STRIDE(info, p) + 96;
        if (p + 1 < n) offsets[p + 1] = offsets[p] + strides[p] * rows;
        gst_buffer_append_memory(buf, gst_allocator_alloc(nullptr, strides[p] * rows, nullptr));
    }
    if (strided)
        gst_buffer_add_video_meta_full(buf, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(info),
                                       GST_VIDEO_INFO_WIDTH(info), GST_VIDEO_INFO_HEIGHT(info), n, offsets, strides);
    else
        gst_buffer_append_memory(buf, gst_allocator_alloc(nullptr, GST_VIDEO_INFO_SIZE(info), nullptr));
    copy_planes(buf, info, packed, true);
    return buf;
}

// The fields of a message or meta, and those a report calls for (running time is the timestamp: the segment starts
// at 0).
std::string fields(const GstStructure* s) {
    guint64 frame = 0, ts = 0, running = 0;
    gboolean decision = FALSE, enhanced = FALSE;
    gint mid = 0, top = 0;
    gdouble gamma = 0, sigma = 0;
    if (!gst_structure_get(s, "frame", G_TYPE_UINT64, &frame, "timestamp", G_TYPE_UINT64, &ts, "running-time",
                           G_TYPE_UINT64, &running, "decision", G_TYPE_BOOLEAN, &decision, "enhanced", G_TYPE_BOOLEAN,
                           &enhanced, "mid", G_TYPE_INT, &mid, "gamma", G_TYPE_DOUBLE, &gamma, "top-level", G_TYPE_INT,
                           &top, "chroma-sigma", G_TYPE_DOUBLE, &sigma, nullptr))
        return "fields missing";
    return testing::PrintToString(std::tuple{frame, ts, running, decision, enhanced, mid, gamma, top, sigma});
}
std::string fields(const FrameReport& r, guint64 pts) {
    return testing::PrintToString(std::tuple{guint64(r.frame), pts, pts, gboolean(r.decision), gboolean(r.enhanced),
                                             r.mid, double(r.gamma), r.top_level, double(r.chroma_sigma)});
}

// Every format, direct and strided (each caps change renegotiates), then property changes while playing: each
// frame meets an engine made for what was set before it, anew when the size, format, mode or gamma change.
TEST(QimraEnhanceHarness, EveryFormatLayoutAndPropertyChangeMatchesTheEngine) {
    struct Step {
        int w, h;
        CF format;
        Mode mode;
        float gamma;
        bool bypass, post, strided;
        int frames;
    };
    std::vector<Step> steps;
    for (CF f : {CF::i420, CF::yv12, CF::nv12, CF::nv21})
        for (auto [w, h, strided] : {std::tuple{1280, 720, false}, {640, 480, true}})
            steps.push_back({w, h, f, Mode::adaptive, 0.5f, false, true, strided, 2});
    steps.insert(steps.end(), {{1280, 720, CF::nv12, Mode::fixed, 0.8f, false, false, false, 2},  // no messages
                               {1280, 720, CF::nv12, Mode::fixed, 0.8f, true, true, false, 2},    // bypass: untouched
                               {1280, 720, CF::nv12, Mode::fixed, 0.8f, false, true, false, 1},   // the same engine
                               {640, 480, CF::i420, Mode::mark, 0.8f, false, true, false, 2}});
    // The library admits one engine at a time: the expected frames and reports are made first.
    std::vector<std::pair<Bytes, std::string>> expected;
    std::optional<Engine> engine;
    std::tuple<int, int, CF, Mode, float> key{};
    testing::internal::CaptureStdout();  // the library's notes
    for (const Step& s : steps)
        for (int i = 0; i < s.frames; ++i) {
            Bytes frame = real_frame(static_cast<int>(expected.size()), s.w, s.h);
            if (!s.bypass && (!engine || key != std::tuple{s.w, s.h, s.format, s.mode, s.gamma}))
                engine.reset(), engine.emplace(s.w, s.h, s.gamma, s.mode, s.format),
                    key = {s.w, s.h, s.format, s.mode, s.gamma};
            if (!s.bypass) engine->process(packed_frame(std::span<uint8_t>(frame), s.w, s.h, s.format));
            const guint64 pts = expected.size() * 40 * GST_MSECOND;
            expected.emplace_back(std::move(frame), s.bypass || !s.post ? "" : fields(engine->report(), pts));
        }
    engine.reset();
    init_gstreamer();
    GstHarness* h = gst_harness_new("qimraenhance");
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(h->element, bus);
    int index = 0;
    for (const Step& s : steps) {
        static const char* kCaps[] = {"I420", "YV12", "NV12", "NV21"};
        const char* caps = kCaps[static_cast<int>(s.format)];
        g_object_set(h->element, "mode", s.mode, "gamma", s.gamma, "bypass", s.bypass, "post-messages", s.post,
                     nullptr);
        gst_harness_set_src_caps_str(h, (std::string("video/x-raw,framerate=25/1,format=") + caps +
                                         ",width=" + std::to_string(s.w) + ",height=" + std::to_string(s.h))
                                            .c_str());
        GstVideoInfo info;
        gst_video_info_set_format(&info, gst_video_format_from_string(caps), s.w, s.h);
        for (int i = 0; i < s.frames; ++i, ++index) {
            GstBuffer* in = make_buffer(real_frame(index, s.w, s.h), &info, s.strided);
            GST_BUFFER_PTS(in) = static_cast<GstClockTime>(index) * 40 * GST_MSECOND;
            GST_BUFFER_DURATION(in) = 40 * GST_MSECOND;
            ASSERT_EQ(gst_harness_push(h, in), GST_FLOW_OK);
            GstBuffer* out = gst_harness_pull(h);
            Bytes got(expected[index].first.size());
            copy_planes(out, &info, got, false);
            EXPECT_TRUE(got == expected[index].first) << "frame " << index;
            // A report is due unless in bypass or with messages off: as a message named qimra and as a meta.
            GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ELEMENT);
            const GstStructure* posted = msg ? gst_message_get_structure(msg) : nullptr;
            GstCustomMeta* meta = gst_buffer_get_custom_meta(out, "GstQimraMeta");
            EXPECT_EQ(posted && gst_structure_has_name(posted, "qimra") ? fields(posted) : "", expected[index].second);
            EXPECT_EQ(meta ? fields(gst_custom_meta_get_structure(meta)) : "", expected[index].second) << index;
            if (msg) gst_message_unref(msg);
            gst_buffer_unref(out);
        }
    }
    gst_element_set_bus(h->element, nullptr);
    gst_object_unref(bus);
    gst_harness_teardown(h);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(qimra_engine_alive(), 0);
}

}  // namespace
}  // namespace qimra::test
