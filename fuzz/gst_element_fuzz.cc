// The GStreamer element qimraenhance in a GstHarness, as any upstream
// element could drive it: caps from the input (format, size, interlacing,
// framerate), buffers of the input's length with and without a video meta,
// with strides and offsets from the input and in one or several memories,
// property changes between buffers, renegotiations. Each buffer's bytes are
// one allocation of exactly its length, so a read past its end is caught.
// The element may refuse anything (an error, a flow error, caps refused); it
// must not crash, leak or touch memory it was not given.
//
// The harness (and the element's engine) is kept between inputs, as one
// stream, and made anew when an input asks (one in sixteen: the element's
// start and stop). Engines are made sparingly: each is costly, and each
// leaves its second analysis buffer allocated when it goes (the library's
// design), which a run of millions of inputs would otherwise pile up.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "bytes.h"

G_BEGIN_DECLS
GST_PLUGIN_STATIC_DECLARE(qimra);  // the plugin, linked into this program
G_END_DECLS

namespace {

using qimra::fuzz::Bytes;

// The formats the element takes, and one it does not (refused at caps).
constexpr GstVideoFormat kFormats[] = {GST_VIDEO_FORMAT_I420, GST_VIDEO_FORMAT_YV12, GST_VIDEO_FORMAT_NV12,
                                       GST_VIDEO_FORMAT_NV21, GST_VIDEO_FORMAT_Y42B};
constexpr const char* kInterlace[] = {"progressive", "interleaved", "mixed"};

GstHarness* g_harness = nullptr;
GstVideoInfo g_info;  // the caps last set
bool g_has_info = false;

bool g_segment_sent = false;  // by the first caps of each harness

// A warning or critical from GStreamer or GLib is a misuse of their API (by
// the element, or by this harness): a finding, ended as a crash so that
// libFuzzer keeps the input.
void log_or_abort(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer data) {
    g_log_default_handler(domain, level, message, data);
    if (level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) abort();
}

void drain() {
    while (GstBuffer* b = gst_harness_try_pull(g_harness)) gst_buffer_unref(b);
    while (GstEvent* e = gst_harness_try_pull_event(g_harness)) gst_event_unref(e);
    while (GstEvent* e = gst_harness_try_pull_upstream_event(g_harness)) gst_event_unref(e);
}

void teardown() {
    if (g_harness == nullptr) return;
    drain();
    gst_harness_teardown(g_harness);
    g_harness = nullptr;
    g_has_info = false;
    g_segment_sent = false;
}

// Sizes mostly small (fast); now and then at or past the caps' limits.
int side(Bytes& b, int small) {
    const uint8_t k = b.u8();
    if (k < 240) return k % small;
    constexpr int kEdges[] = {0, 1, 2, 3, 16383, 16384, 16385, 4096};
    return kEdges[k % 8];
}

void set_caps(Bytes& b) {
    const GstVideoFormat format = kFormats[b.u8() % 5];
    int w = side(b, 96), h = side(b, 72);
    if (static_cast<long long>(w) * h > 1 << 17) h = 2 + h % 4;  // the wide ones thin
    const char* interlace = kInterlace[b.u8() % 3];
    const int num = b.u16(), den = 1 + b.u8();
    GstCaps* caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, gst_video_format_to_string(format),
                                        "width", G_TYPE_INT, w, "height", G_TYPE_INT, h, "interlace-mode",
                                        G_TYPE_STRING, interlace, "framerate", GST_TYPE_FRACTION, num, den, nullptr);
    gst_harness_set_src_caps(g_harness, caps);  // takes the caps, sends a segment the first time
    g_segment_sent = true;
    // Buffers follow what the element took (its previous caps when it
    // refused these), so that their video meta agrees with its format.
    GstPad* sink = gst_element_get_static_pad(g_harness->element, "sink");
    GstCaps* current = gst_pad_get_current_caps(sink);
    g_has_info = current != nullptr && gst_video_info_from_caps(&g_info, current);
    if (current != nullptr) gst_caps_unref(current);
    gst_object_unref(sink);
}

void set_property(Bytes& b) {
    GstElement* e = g_harness->element;
    switch (b.u8() % 4) {
        case 0: g_object_set(e, "mode", b.u8() % 3, nullptr); break;
        case 1: {
            constexpr float kEdges[] = {FLT_MIN, 4.0f, 1e-6f, 3.9999998f};
            const uint8_t g = b.u8();
            g_object_set(e, "gamma", g < 200 ? 0.02f * (1 + g) : kEdges[g % 4], nullptr);
            break;
        }
        case 2: g_object_set(e, "bypass", b.u8() & 1, nullptr); break;
        case 3: g_object_set(e, "post-messages", b.u8() & 1, nullptr); break;
    }
}

void free_block(gpointer p) { g_free(p); }

// A memory of exactly `n` bytes of the input (its own allocation).
GstMemory* exact_memory(Bytes& b, size_t n, bool readonly) {
    auto* p = static_cast<uint8_t*>(g_malloc(n ? n : 1));
    b.fill(p, n);
    return gst_memory_new_wrapped(readonly ? GST_MEMORY_FLAG_READONLY : static_cast<GstMemoryFlags>(0), p, n ? n : 1, 0,
                                  n, p, free_block);
}

// A buffer for the caps last set: its length the frame's, a little short or
// long, or anything; in one memory or cut in up to three; with a video meta
// of the caps' format and size whose strides and offsets come from the input.
GstBuffer* make_buffer(Bytes& b) {
    const uint8_t shape = b.u8();
    const size_t frame = g_has_info ? GST_VIDEO_INFO_SIZE(&g_info) : 64;
    size_t n;
    switch (shape % 4) {
        case 0: n = frame; break;
        case 1: n = frame > 8 ? frame - 1 - b.u8() % 8 : 0; break;
        case 2: n = frame + b.u8(); break;
        default: n = static_cast<size_t>(b.u16()) % (frame + 1); break;
    }
    const bool readonly = (shape >> 2) % 8 == 0;
    const int pieces = 1 + (shape >> 5) % 3;
    GstBuffer* buf = gst_buffer_new();
    size_t left = n;
    for (int i = 0; i < pieces; ++i) {
        const size_t k = i + 1 == pieces ? left : std::min(left, static_cast<size_t>(b.u16()) % (n + 1));
        gst_buffer_append_memory(buf, exact_memory(b, k, readonly));
        left -= k;
    }
    if (g_has_info && (shape & 0x80)) {
        gsize offsets[GST_VIDEO_MAX_PLANES] = {};
        gint strides[GST_VIDEO_MAX_PLANES] = {};
        const guint planes = GST_VIDEO_INFO_N_PLANES(&g_info);
        for (guint p = 0; p < planes; ++p) {
            // The default layout, or a stride moved by up to +-64 bytes and
            // the plane put anywhere in the buffer.
            const uint8_t how = b.u8();
            strides[p] = GST_VIDEO_INFO_PLANE_STRIDE(&g_info, p) + (how % 2 ? static_cast<int>(b.u8()) - 64 : 0);
            offsets[p] = how / 2 % 2 ? static_cast<gsize>(b.u16()) % (n + 1) : GST_VIDEO_INFO_PLANE_OFFSET(&g_info, p);
        }
        gst_buffer_add_video_meta_full(buf, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&g_info),
                                       GST_VIDEO_INFO_WIDTH(&g_info), GST_VIDEO_INFO_HEIGHT(&g_info), planes, offsets,
                                       strides);
    }
    static GstClockTime pts = 0;
    GST_BUFFER_PTS(buf) = pts;
    GST_BUFFER_DURATION(buf) = 40 * GST_MSECOND;
    pts += 40 * GST_MSECOND;
    return buf;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Only the element itself: no scan of the plugins installed here.
    setenv("GST_REGISTRY_DISABLE", "yes", 0);
    gst_init(nullptr, nullptr);
    GST_PLUGIN_STATIC_REGISTER(qimra);
    GstElementFactory* factory = gst_element_factory_find("qimraenhance");
    if (factory == nullptr) abort();
    gst_object_unref(factory);
    g_log_set_default_handler(log_or_abort, nullptr);
    atexit(teardown);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes b(data, size);
    if (b.u8() % 16 == 0) teardown();  // a new element: start and stop again
    if (g_harness == nullptr) g_harness = gst_harness_new("qimraenhance");
    // Up to 4 steps: caps, a buffer, a property, in any order; mostly
    // buffers, as in a stream (new caps or properties make a new engine).
    // Longer sequences are the inputs that follow on the same harness.
    for (int step = 0; step < 4 && !b.empty(); ++step) {
        switch (b.u8() % 8) {
            case 0: set_caps(b); break;
            case 1: set_property(b); break;
            default:
                if (g_segment_sent) (void)gst_harness_push(g_harness, make_buffer(b));
                break;
        }
    }
    drain();
    return 0;
}
