// The plugin libgstqimra.so: the element qimraenhance and its buffer meta.
#include <gst/gst.h>

#include "qimra_meta.h"
#include "qimraenhance.h"

static gboolean plugin_init(GstPlugin* plugin) {
    qimra::gst::register_meta();
    return GST_ELEMENT_REGISTER(qimraenhance, plugin);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, qimra,
                  "Real-time enhancement of dark and backlit YUV 4:2:0 video", plugin_init, QIMRA_VERSION,
                  QIMRA_GST_LICENSE, QIMRA_GST_PACKAGE, QIMRA_GST_ORIGIN)
