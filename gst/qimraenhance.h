// qimraenhance: enhances dark and backlit video in place, one qimra engine
// per running element (and one per process, as the library allows).
#pragma once

#include <gst/gst.h>
#include <gst/video/gstvideofilter.h>

G_BEGIN_DECLS

#define GST_TYPE_QIMRA_ENHANCE (gst_qimra_enhance_get_type())
G_DECLARE_FINAL_TYPE(GstQimraEnhance, gst_qimra_enhance, GST, QIMRA_ENHANCE, GstVideoFilter)

#define GST_TYPE_QIMRA_ENHANCE_MODE (gst_qimra_enhance_mode_get_type())
GType gst_qimra_enhance_mode_get_type(void);

GST_ELEMENT_REGISTER_DECLARE(qimraenhance);

G_END_DECLS
