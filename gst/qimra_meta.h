// The per-frame report carried on buffers, for applications that read
// buffers (appsink, pad probes) rather than bus messages.
//
// It is a GstCustomMeta named "GstQimraMeta": read it with
//   GstCustomMeta* m = gst_buffer_get_custom_meta(buffer, "GstQimraMeta");
//   const GstStructure* s = gst_custom_meta_get_structure(m);
// The structure holds the same fields as the element's "qimra" message.
#pragma once

#include <gst/gst.h>

namespace qimra::gst {

inline constexpr const char* kMetaName = "GstQimraMeta";

// Registers the meta once per process (safe to call again).
void register_meta();

// Attaches a meta to `buffer` (writable) holding a copy of `report`'s fields.
void add_meta(GstBuffer* buffer, const GstStructure* report);

}  // namespace qimra::gst
