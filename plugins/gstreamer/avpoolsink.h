// avpoolsink: the writer of one pool, fed by a pipeline (an encoder, a parser).
#pragma once

#include <gst/base/gstbasesink.h>

G_BEGIN_DECLS

#define GST_TYPE_AVPOOL_SINK (gst_avpool_sink_get_type())
G_DECLARE_FINAL_TYPE(GstAvpoolSink, gst_avpool_sink, GST, AVPOOL_SINK, GstBaseSink)

G_END_DECLS
