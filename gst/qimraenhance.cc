// qimraenhance: a GstVideoFilter that runs each frame through qimra::Engine
// in place.
//
// The engine is made for one size, format, mode and gamma; the element
// keeps one for what it runs now and makes a new one (the old one gone
// first: the library admits one engine per process) when caps or the mode
// or gamma change. The library's claim is taken in start(), so that a
// second running element fails there with a clear error, while instances
// that never start (gst-inspect-1.0, the plugin scanner) take nothing.
#include "qimraenhance.h"

#include <gst/video/video.h>

#include <cfloat>
#include <optional>
#include <qimra/qimra.hpp>
#include <string>

#include "qimra_meta.h"

GST_DEBUG_CATEGORY_STATIC(qimra_enhance_debug);
#define GST_CAT_DEFAULT qimra_enhance_debug

namespace {

constexpr qimra::Mode kDefaultMode = qimra::Mode::adaptive;
constexpr float kDefaultGamma = 0.5f;

enum Property { PROP_0, PROP_MODE, PROP_GAMMA, PROP_BYPASS, PROP_POST_MESSAGES };

// What an engine is made for.
struct EngineKey {
    int width = 0;
    int height = 0;
    qimra::ColourFormat format = qimra::ColourFormat::i420;
    qimra::Mode mode = kDefaultMode;
    float gamma = kDefaultGamma;
    bool operator==(const EngineKey&) const = default;
};

// The size the claim is taken at in start(), before caps are known.
constexpr int kClaimSide = 64;

std::optional<qimra::ColourFormat> colour_format_of(GstVideoFormat f) {
    switch (f) {
        case GST_VIDEO_FORMAT_I420: return qimra::ColourFormat::i420;
        case GST_VIDEO_FORMAT_YV12: return qimra::ColourFormat::yv12;
        case GST_VIDEO_FORMAT_NV12: return qimra::ColourFormat::nv12;
        case GST_VIDEO_FORMAT_NV21: return qimra::ColourFormat::nv21;
        default: return std::nullopt;
    }
}

}  // namespace

struct _GstQimraEnhance {
    GstVideoFilter parent;

    // Properties, under the object lock: the application sets them from
    // any thread while frames flow.
    qimra::Mode mode;
    float gamma;
    gboolean post_messages;

    // Streaming state: touched by start/stop and the streaming thread only.
    qimra::Engine* engine;
    EngineKey key;
};

G_DEFINE_TYPE(GstQimraEnhance, gst_qimra_enhance, GST_TYPE_VIDEO_FILTER)
GST_ELEMENT_REGISTER_DEFINE(qimraenhance, "qimraenhance", GST_RANK_NONE, GST_TYPE_QIMRA_ENHANCE)

GType gst_qimra_enhance_mode_get_type(void) {
    static gsize type = 0;
    static const GEnumValue values[] = {
        {static_cast<gint>(qimra::Mode::fixed), "Enhance every frame with a fixed tone curve from the gamma", "fixed"},
        {static_cast<gint>(qimra::Mode::mark), "Analyse every frame and mark the decision as a square, enhance nothing",
         "mark"},
        {static_cast<gint>(qimra::Mode::adaptive), "Enhance when the scene calls for it, the curve following the scene",
         "adaptive"},
        {0, nullptr, nullptr}};
    if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("GstQimraEnhanceMode", values));
    return type;
}

namespace {

void drop_engine(GstQimraEnhance* self) {
    delete self->engine;
    self->engine = nullptr;
}

// Reports a failed engine creation as the element's error: the library's
// one-engine refusal as busy, anything else (memory) as such.
void report_engine_error(GstQimraEnhance* self, const qimra::Error& e) {
    if (qimra_engine_alive() != 0)
        GST_ELEMENT_ERROR(self, RESOURCE, BUSY,
                          ("one qimraenhance already runs in this process (or another user of the qimra library); "
                           "qimra runs one engine per process, so run one qimraenhance at a time"),
                          ("%s", e.what()));
    else
        GST_ELEMENT_ERROR(self, RESOURCE, FAILED, ("could not create the qimra engine: %s", e.what()), (nullptr));
}

// Makes the engine `key` describes, unless it runs already. The old engine
// goes first, so that the library's claim passes from one to the next.
bool ensure_engine(GstQimraEnhance* self, const EngineKey& key) {
    if (self->engine != nullptr && self->key == key) return true;
    drop_engine(self);
    try {
        self->engine = new qimra::Engine(key.width, key.height, key.gamma, key.mode, key.format);
    } catch (const qimra::Error& e) {
        report_engine_error(self, e);
        return false;
    }
    self->key = key;
    GST_DEBUG_OBJECT(self, "engine for %dx%d %s, mode %d, gamma %f", key.width, key.height,
                     qimra::format_name(key.format), static_cast<int>(key.mode), static_cast<double>(key.gamma));
    return true;
}

// The key with the properties as they are now.
EngineKey current_key(GstQimraEnhance* self, EngineKey key) {
    GST_OBJECT_LOCK(self);
    key.mode = self->mode;
    key.gamma = self->gamma;
    GST_OBJECT_UNLOCK(self);
    return key;
}

gboolean qimra_start(GstBaseTransform* trans) {
    auto* self = GST_QIMRA_ENHANCE(trans);
    EngineKey key = current_key(self, {kClaimSide, kClaimSide, qimra::ColourFormat::i420});
    return ensure_engine(self, key) ? TRUE : FALSE;
}

gboolean qimra_stop(GstBaseTransform* trans) {
    drop_engine(GST_QIMRA_ENHANCE(trans));
    return TRUE;
}

gboolean qimra_set_info(GstVideoFilter* filter, GstCaps*, GstVideoInfo* in_info, GstCaps*, GstVideoInfo*) {
    auto* self = GST_QIMRA_ENHANCE(filter);
    const int w = GST_VIDEO_INFO_WIDTH(in_info), h = GST_VIDEO_INFO_HEIGHT(in_info);
    if (GST_VIDEO_INFO_IS_INTERLACED(in_info)) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT,
                          ("qimraenhance takes progressive frames only; the stream is interlaced (%s): put a "
                           "deinterlace element before it",
                           gst_video_interlace_mode_to_string(GST_VIDEO_INFO_INTERLACE_MODE(in_info))),
                          (nullptr));
        return FALSE;
    }
    if (w % 2 != 0 || h % 2 != 0) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT,
                          ("qimraenhance takes 4:2:0 frames of even width and height; %dx%d has an odd side: crop "
                           "or scale to an even size first",
                           w, h),
                          (nullptr));
        return FALSE;
    }
    const auto format = colour_format_of(GST_VIDEO_INFO_FORMAT(in_info));
    if (!format) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT,
                          ("qimraenhance takes I420, YV12, NV12 or NV21, not %s",
                           gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(in_info))),
                          (nullptr));
        return FALSE;
    }
    return ensure_engine(self, current_key(self, {w, h, *format})) ? TRUE : FALSE;
}

// The bytes of a mapped plane from its first byte to the end of its memory.
std::size_t plane_bytes(const GstVideoFrame* frame, int plane) {
    // With a video meta each plane is mapped from its own memory; without,
    // the whole buffer is one map.
    const GstMapInfo& map = frame->meta != nullptr ? frame->map[plane] : frame->map[0];
    const auto* p = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(frame, plane));
    return static_cast<std::size_t>(map.data + map.size - p);
}

qimra::Plane plane_of(GstVideoFrame* frame, int plane) {
    auto* p = static_cast<guint8*>(GST_VIDEO_FRAME_PLANE_DATA(frame, plane));
    return {std::span<uint8_t>(p, plane_bytes(frame, plane)), GST_VIDEO_FRAME_PLANE_STRIDE(frame, plane)};
}

qimra::FrameView view_of(GstVideoFrame* frame) {
    if (GST_VIDEO_FRAME_N_PLANES(frame) == 3) return {plane_of(frame, 0), plane_of(frame, 1), plane_of(frame, 2)};
    return {plane_of(frame, 0), plane_of(frame, 1)};
}

// The frame's report with its times, in the manner of the level element.
GstStructure* report_structure(GstQimraEnhance* self, GstBuffer* buffer, const qimra::FrameReport& r) {
    const GstSegment& segment = GST_BASE_TRANSFORM(self)->segment;
    const GstClockTime ts = GST_BUFFER_PTS(buffer);
    return gst_structure_new(
        "qimra",                                                                                    //
        "frame", G_TYPE_UINT64, static_cast<guint64>(r.frame),                                      //
        "timestamp", G_TYPE_UINT64, ts,                                                             //
        "stream-time", G_TYPE_UINT64, gst_segment_to_stream_time(&segment, GST_FORMAT_TIME, ts),    //
        "running-time", G_TYPE_UINT64, gst_segment_to_running_time(&segment, GST_FORMAT_TIME, ts),  //
        "duration", G_TYPE_UINT64, GST_BUFFER_DURATION(buffer),                                     //
        "decision", G_TYPE_BOOLEAN, r.decision ? TRUE : FALSE,                                      //
        "enhanced", G_TYPE_BOOLEAN, r.enhanced ? TRUE : FALSE,                                      //
        "mid", G_TYPE_INT, r.mid,                                                                   //
        "gamma", G_TYPE_DOUBLE, static_cast<double>(r.gamma),                                       //
        "top-level", G_TYPE_INT, r.top_level,                                                       //
        "chroma-sigma", G_TYPE_DOUBLE, static_cast<double>(r.chroma_sigma), nullptr);
}

GstFlowReturn qimra_transform_frame_ip(GstVideoFilter* filter, GstVideoFrame* frame) {
    auto* self = GST_QIMRA_ENHANCE(filter);
    // Mode and gamma set while playing take effect here, on the next frame.
    if (!ensure_engine(self, current_key(self, self->key))) return GST_FLOW_ERROR;
    try {
        self->engine->process(view_of(frame));
    } catch (const qimra::Error& e) {
        GST_ELEMENT_ERROR(self, STREAM, FAILED, ("qimraenhance could not process a frame: %s", e.what()), (nullptr));
        return GST_FLOW_ERROR;
    }
    GST_OBJECT_LOCK(self);
    const bool post = self->post_messages;
    GST_OBJECT_UNLOCK(self);
    if (post) {
        GstStructure* s = report_structure(self, frame->buffer, self->engine->report());
        qimra::gst::add_meta(frame->buffer, s);
        gst_element_post_message(GST_ELEMENT(self), gst_message_new_element(GST_OBJECT(self), s));
    }
    return GST_FLOW_OK;
}

void qimra_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
    auto* self = GST_QIMRA_ENHANCE(object);
    switch (id) {
        case PROP_MODE:
            GST_OBJECT_LOCK(self);
            self->mode = static_cast<qimra::Mode>(g_value_get_enum(value));
            GST_OBJECT_UNLOCK(self);
            break;
        case PROP_GAMMA:
            GST_OBJECT_LOCK(self);
            self->gamma = g_value_get_float(value);
            GST_OBJECT_UNLOCK(self);
            break;
        case PROP_BYPASS:
            gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), g_value_get_boolean(value));
            break;
        case PROP_POST_MESSAGES:
            GST_OBJECT_LOCK(self);
            self->post_messages = g_value_get_boolean(value);
            GST_OBJECT_UNLOCK(self);
            break;
        default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec); break;
    }
}

void qimra_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
    auto* self = GST_QIMRA_ENHANCE(object);
    switch (id) {
        case PROP_MODE:
            GST_OBJECT_LOCK(self);
            g_value_set_enum(value, static_cast<gint>(self->mode));
            GST_OBJECT_UNLOCK(self);
            break;
        case PROP_GAMMA:
            GST_OBJECT_LOCK(self);
            g_value_set_float(value, self->gamma);
            GST_OBJECT_UNLOCK(self);
            break;
        case PROP_BYPASS:
            g_value_set_boolean(value, gst_base_transform_is_passthrough(GST_BASE_TRANSFORM(self)));
            break;
        case PROP_POST_MESSAGES:
            GST_OBJECT_LOCK(self);
            g_value_set_boolean(value, self->post_messages);
            GST_OBJECT_UNLOCK(self);
            break;
        default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec); break;
    }
}

void qimra_finalize(GObject* object) {
    drop_engine(GST_QIMRA_ENHANCE(object));
    G_OBJECT_CLASS(gst_qimra_enhance_parent_class)->finalize(object);
}

constexpr char kCaps[] =
    "video/x-raw, format = (string) { I420, YV12, NV12, NV21 }, width = (int) [ 2, 16384 ], "
    "height = (int) [ 2, 16384 ], framerate = (fraction) [ 0/1, 2147483647/1 ]";

}  // namespace

static void gst_qimra_enhance_class_init(GstQimraEnhanceClass* klass) {
    GST_DEBUG_CATEGORY_INIT(qimra_enhance_debug, "qimraenhance", 0, "qimra enhancement");
    auto* gobject_class = G_OBJECT_CLASS(klass);
    auto* element_class = GST_ELEMENT_CLASS(klass);
    auto* trans_class = GST_BASE_TRANSFORM_CLASS(klass);
    auto* filter_class = GST_VIDEO_FILTER_CLASS(klass);

    gobject_class->set_property = qimra_set_property;
    gobject_class->get_property = qimra_get_property;
    gobject_class->finalize = qimra_finalize;

    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(
        gobject_class, PROP_MODE,
        g_param_spec_enum("mode", "Mode", "How frames are treated: fixed, mark or adaptive",
                          GST_TYPE_QIMRA_ENHANCE_MODE, static_cast<gint>(kDefaultMode), flags));
    g_object_class_install_property(
        gobject_class, PROP_GAMMA,
        g_param_spec_float("gamma", "Gamma",
                           "Gamma of the tone curve, greater than 0 and at most 4 (below 1 lifts the shadows); in "
                           "adaptive mode the lowest gamma allowed",
                           FLT_MIN, 4.0f, kDefaultGamma, flags));
    g_object_class_install_property(
        gobject_class, PROP_BYPASS,
        g_param_spec_boolean("bypass", "Bypass", "Pass buffers through untouched", FALSE, flags));
    g_object_class_install_property(
        gobject_class, PROP_POST_MESSAGES,
        g_param_spec_boolean("post-messages", "Post messages",
                             "Post a \"qimra\" element message per frame with the engine's decision, and attach the "
                             "same report to the buffer as a GstQimraMeta",
                             FALSE, flags));

    GstCaps* caps = gst_caps_from_string(kCaps);
    gst_element_class_add_pad_template(element_class, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_element_class_add_pad_template(element_class, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
    gst_element_class_set_static_metadata(
        element_class, "qimra enhancement", "Filter/Effect/Video",
        "Lifts dark and backlit regions of YUV 4:2:0 video in place, deciding per frame whether the scene needs it",
        "the qimra developers");

    // Bypass is passthrough, where the base class would still show each
    // buffer to transform_frame_ip (read-only): it must not see them.
    trans_class->transform_ip_on_passthrough = FALSE;
    trans_class->start = qimra_start;
    trans_class->stop = qimra_stop;
    filter_class->set_info = qimra_set_info;
    filter_class->transform_frame_ip = qimra_transform_frame_ip;

    gst_type_mark_as_plugin_api(GST_TYPE_QIMRA_ENHANCE_MODE, static_cast<GstPluginAPIFlags>(0));
}

static void gst_qimra_enhance_init(GstQimraEnhance* self) {
    self->mode = kDefaultMode;
    self->gamma = kDefaultGamma;
    self->post_messages = FALSE;
    self->engine = nullptr;
    self->key = EngineKey{};
}
