// avpoolsrc: a live source that reads one pool in place, one buffer per
// element (picture, access unit, audio fragment).
#pragma once

#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

#define GST_TYPE_AVPOOL_SRC (gst_avpool_src_get_type())
G_DECLARE_FINAL_TYPE(GstAvpoolSrc, gst_avpool_src, GST, AVPOOL_SRC, GstPushSrc)

G_END_DECLS
