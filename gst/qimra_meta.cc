#include "qimra_meta.h"

namespace qimra::gst {

void register_meta() {
    // No tags: the report does not depend on the pixels' layout or size, so
    // elements that convert, scale or queue the buffer may keep it.
    static const gchar* tags[] = {nullptr};
    static gsize done = 0;
    if (g_once_init_enter(&done)) {
        gst_meta_register_custom(kMetaName, tags, nullptr, nullptr, nullptr);
        g_once_init_leave(&done, 1);
    }
}

void add_meta(GstBuffer* buffer, const GstStructure* report) {
    GstCustomMeta* meta = gst_buffer_add_custom_meta(buffer, kMetaName);
    if (meta == nullptr) return;
    GstStructure* s = gst_custom_meta_get_structure(meta);
    const gint n = gst_structure_n_fields(report);
    for (gint i = 0; i < n; ++i) {
        const gchar* name = gst_structure_nth_field_name(report, i);
        gst_structure_set_value(s, name, gst_structure_get_value(report, name));
    }
}

}  // namespace qimra::gst
