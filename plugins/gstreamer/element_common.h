// What avpoolsrc and avpoolsink share: the kind property's enumeration and
// the mapping between the pools' wall-clock capture times and the running
// time of a pipeline.
#pragma once

#include "pool_kinds.h"

#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_AVPOOL_KIND (gst_avpool_kind_get_type())
GType gst_avpool_kind_get_type(void);

G_END_DECLS

namespace avpool::gst {

// The running time of element's pipeline and the wall clock, read together.
// Without a clock (not playing) valid is false.
struct ClockPair {
    bool valid = false;
    gint64 runningNs = 0;
    gint64 wallUs = 0;

    explicit ClockPair(GstElement* element);
    // The running time at which the wall clock read wallUs (may be negative).
    gint64 runningAt(gint64 captureUs) const { return runningNs - (wallUs - captureUs) * 1000; }
    // The wall-clock time at running time running.
    gint64 wallAt(gint64 running) const { return wallUs - (runningNs - running) / 1000; }
};

// The properties of both elements can be set until the element starts.
constexpr GParamFlags PROPERTY_FLAGS =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);

// Installs the "kind" and "channel" properties; verb is "read" or "write".
void installPoolProperties(GObjectClass* object, guint kindId, guint channelId, const char* verb);

// Adds the pad template that holds every kind's caps: the source's or the sink's.
void addPadTemplate(GstElementClass* element, GstPadDirection direction);

// caps, or their intersection with filter when there is one (takes caps).
GstCaps* filterCaps(GstCaps* caps, GstCaps* filter);

// Kind as the property's enumeration holds it, and back.
inline gint kindValue(Kind kind) {
    return static_cast<gint>(kind);
}
inline Kind kindOf(gint value) {
    return static_cast<Kind>(value);
}

}  // namespace avpool::gst
