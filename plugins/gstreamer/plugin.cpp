// The avpool GStreamer plugin: avpoolsrc and avpoolsink.

#include "avpoolsink.h"
#include "avpoolsrc.h"

#ifndef AVPOOL_VERSION
#define AVPOOL_VERSION "0"
#endif

static gboolean plugin_init(GstPlugin* plugin) {
    return gst_element_register(plugin, "avpoolsrc", GST_RANK_NONE, GST_TYPE_AVPOOL_SRC) &&
           gst_element_register(plugin, "avpoolsink", GST_RANK_NONE, GST_TYPE_AVPOOL_SINK);
}

#define PACKAGE "avpool"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, avpool, "Media pools in System V shared memory", plugin_init,
                  AVPOOL_VERSION, GST_LICENSE_UNKNOWN, "avpool", "avpool")
