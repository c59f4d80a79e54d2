// avpoolsink creates the pool of its kind and channel with the first caps and
// puts every buffer into it as one element, stamped with the wall-clock time
// of its running time. H.264 comes as byte-stream access units and MPEG-4
// video as frames, a buffer without DELTA_UNIT starting a GOP; AAC as ADTS
// frames; Opus as packets; PCM as samples, gathered into fragments. The pool
// goes when the sink stops. A pool whose creator still runs is not taken over.

#include "avpoolsink.h"

#include "caps.h"
#include "element_common.h"
#include "pool_writer.h"

#include <avpool/common.h>

#include <memory>
#include <string>
#include <unistd.h>

using avpool::gst::Kind;
using avpool::gst::PoolGeometry;
using avpool::gst::PoolWriter;
using avpool::gst::Put;

GST_DEBUG_CATEGORY_STATIC(avpool_sink_debug);
#define GST_CAT_DEFAULT avpool_sink_debug

namespace {

constexpr int DEFAULT_QUALITY = 80;

enum { PROP_0, PROP_KIND, PROP_CHANNEL, PROP_SLOTS, PROP_GOP_FRAMES, PROP_MAX_FRAME_SIZE, PROP_DATA_SIZE, PROP_QUALITY };

struct SinkSettings {
    Kind kind = Kind::Jpg;
    PoolGeometry geometry;
};

struct SinkState {
    SinkSettings properties;  // under the object lock
    SinkSettings running;     // taken at start
    std::unique_ptr<PoolWriter> writer;
    guint64 refused = 0;  // elements the pool could not take, for the log
};

}  // namespace

struct _GstAvpoolSink {
    GstBaseSink parent;
    SinkState* state;
};

G_DEFINE_TYPE(GstAvpoolSink, gst_avpool_sink, GST_TYPE_BASE_SINK)

static void gst_avpool_sink_init(GstAvpoolSink* self) {
    self->state = new SinkState();
    self->state->properties.geometry.quality = DEFAULT_QUALITY;
    gst_base_sink_set_sync(GST_BASE_SINK(self), TRUE);
}

static void gst_avpool_sink_finalize(GObject* object) {
    delete GST_AVPOOL_SINK(object)->state;
    G_OBJECT_CLASS(gst_avpool_sink_parent_class)->finalize(object);
}

static int* geometryField(PoolGeometry& geometry, guint id) {
    switch (id) {
        case PROP_CHANNEL: return &geometry.channel;
        case PROP_SLOTS: return &geometry.slots;
        case PROP_GOP_FRAMES: return &geometry.gopFrames;
        case PROP_MAX_FRAME_SIZE: return &geometry.maxFrameSize;
        case PROP_DATA_SIZE: return &geometry.dataSize;
        case PROP_QUALITY: return &geometry.quality;
        default: return nullptr;
    }
}

static void gst_avpool_sink_set_property(GObject* object, guint id, const GValue* value, GParamSpec* property) {
    GstAvpoolSink* self = GST_AVPOOL_SINK(object);
    GST_OBJECT_LOCK(self);
    SinkSettings& settings = self->state->properties;
    if (id == PROP_KIND)
        settings.kind = avpool::gst::kindOf(g_value_get_enum(value));
    else if (int* field = geometryField(settings.geometry, id))
        *field = g_value_get_int(value);
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property);
    GST_OBJECT_UNLOCK(self);
}

static void gst_avpool_sink_get_property(GObject* object, guint id, GValue* value, GParamSpec* property) {
    GstAvpoolSink* self = GST_AVPOOL_SINK(object);
    GST_OBJECT_LOCK(self);
    SinkSettings& settings = self->state->properties;
    if (id == PROP_KIND)
        g_value_set_enum(value, avpool::gst::kindValue(settings.kind));
    else if (int* field = geometryField(settings.geometry, id))
        g_value_set_int(value, *field);
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property);
    GST_OBJECT_UNLOCK(self);
}

static gboolean gst_avpool_sink_start(GstBaseSink* base) {
    GstAvpoolSink* self = GST_AVPOOL_SINK(base);
    SinkState& state = *self->state;
    GST_OBJECT_LOCK(self);
    state.running = state.properties;
    GST_OBJECT_UNLOCK(self);
    Kind kind = state.running.kind;
    int channel = state.running.geometry.channel;
    pid_t creator = 0;
    if (avpool::gst::probePool(kind, channel, creator) == avpool::gst::Presence::Live && creator != getpid()) {
        GST_ELEMENT_ERROR(self, RESOURCE, BUSY,
                          ("The %s is in use by process %d", avpool::gst::poolName(kind, channel).c_str(),
                           static_cast<int>(creator)),
                          (nullptr));
        return FALSE;
    }
    state.writer = avpool::gst::createWriter(kind, state.running.geometry);
    if (!state.writer) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("avpoolsink does not write %s pools", avpool::gst::kindName(kind)),
                          (nullptr));
        return FALSE;
    }
    state.refused = 0;
    return TRUE;
}

static gboolean gst_avpool_sink_stop(GstBaseSink* base) {
    GST_AVPOOL_SINK(base)->state->writer.reset();  // removes the pool
    return TRUE;
}

static GstCaps* gst_avpool_sink_get_caps(GstBaseSink* base, GstCaps* filter) {
    GstAvpoolSink* self = GST_AVPOOL_SINK(base);
    GST_OBJECT_LOCK(self);
    Kind kind = self->state->properties.kind;
    GST_OBJECT_UNLOCK(self);
    return avpool::gst::filterCaps(avpool::gst::kindCaps(kind, true), filter);
}

static gboolean gst_avpool_sink_set_caps(GstBaseSink* base, GstCaps* caps) {
    GstAvpoolSink* self = GST_AVPOOL_SINK(base);
    SinkState& state = *self->state;
    avpool::gst::StreamFormat format;
    if (!avpool::gst::formatFromCaps(state.running.kind, caps, format)) return FALSE;
    try {
        state.writer->configure(format);
    } catch (const avpool::PoolError& error) {
        GST_ELEMENT_ERROR(self, RESOURCE, OPEN_WRITE,
                          ("Cannot create the %s",
                           avpool::gst::poolName(state.running.kind, state.running.geometry.channel).c_str()),
                          ("%s", error.what()));
        return FALSE;
    }
    return TRUE;
}

// The wall-clock time at which the buffer is due, as the pool's readers
// expect a capture time; the time now when it has no timestamp or the
// pipeline no clock.
static long long captureUs(GstBaseSink* base, GstBuffer* buffer) {
    GstClockTime ts = GST_BUFFER_PTS_IS_VALID(buffer) ? GST_BUFFER_PTS(buffer) : GST_BUFFER_DTS(buffer);
    avpool::gst::ClockPair clock(GST_ELEMENT(base));
    if (!GST_CLOCK_TIME_IS_VALID(ts) || !clock.valid) return g_get_real_time();
    GST_OBJECT_LOCK(base);
    GstClockTime running = gst_segment_to_running_time(&base->segment, GST_FORMAT_TIME, ts);
    GST_OBJECT_UNLOCK(base);
    if (!GST_CLOCK_TIME_IS_VALID(running)) return g_get_real_time();
    return clock.wallAt(static_cast<gint64>(running));
}

static const char* refusal(Put put) {
    switch (put) {
        case Put::TooLarge: return "longer than the pool's largest frame (max-frame-size)";
        case Put::GopFull: return "past the last frame slot of its GOP (gop-frames)";
        case Put::NoKeyFrame: return "a P frame without its I frame";
        default: return nullptr;
    }
}

static GstFlowReturn gst_avpool_sink_render(GstBaseSink* base, GstBuffer* buffer) {
    GstAvpoolSink* self = GST_AVPOOL_SINK(base);
    SinkState& state = *self->state;
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) return GST_FLOW_ERROR;
    bool key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    Put put = Put::Written;
    try {
        put = state.writer->put(map.data, map.size, key, captureUs(base, buffer));
    } catch (const avpool::PoolError& error) {
        gst_buffer_unmap(buffer, &map);
        GST_ELEMENT_ERROR(self, RESOURCE, WRITE, ("Cannot write to the pool"), ("%s", error.what()));
        return GST_FLOW_ERROR;
    }
    gst_buffer_unmap(buffer, &map);
    if (const char* why = refusal(put)) {
        // The first refusal is a warning on the bus; later ones only go to the log.
        if (state.refused++ == 0)
            GST_ELEMENT_WARNING(self, STREAM, ENCODE, ("Element of %" G_GSIZE_FORMAT " bytes dropped: %s", map.size, why),
                                (nullptr));
        else
            GST_DEBUG_OBJECT(self, "element of %" G_GSIZE_FORMAT " bytes dropped: %s", map.size, why);
    }
    return GST_FLOW_OK;
}

static gboolean gst_avpool_sink_event(GstBaseSink* base, GstEvent* event) {
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS && GST_AVPOOL_SINK(base)->state->writer) {
        try {
            GST_AVPOOL_SINK(base)->state->writer->finish();
        } catch (const avpool::PoolError& error) {
            GST_WARNING_OBJECT(base, "last fragment lost: %s", error.what());
        }
    }
    return GST_BASE_SINK_CLASS(gst_avpool_sink_parent_class)->event(base, event);
}

static void installInt(GObjectClass* object, guint id, const char* name, const char* blurb, int max, int value) {
    g_object_class_install_property(object, id,
                                    g_param_spec_int(name, name, blurb, 0, max, value, avpool::gst::PROPERTY_FLAGS));
}

static void gst_avpool_sink_class_init(GstAvpoolSinkClass* klass) {
    GObjectClass* object = G_OBJECT_CLASS(klass);
    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    GstBaseSinkClass* base = GST_BASE_SINK_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(avpool_sink_debug, "avpoolsink", 0, "avpool pool sink");

    object->set_property = gst_avpool_sink_set_property;
    object->get_property = gst_avpool_sink_get_property;
    object->finalize = gst_avpool_sink_finalize;
    avpool::gst::installPoolProperties(object, PROP_KIND, PROP_CHANNEL, "write");
    installInt(object, PROP_SLOTS, "slots", "jpg: frames in the ring (0: 10, at most 30); mp4: GOPs in the ring (0: 8)",
               1000, 0);
    installInt(object, PROP_GOP_FRAMES, "gop-frames", "mp4: frame slots per GOP, the longest GOP taken (0: 60)", 1000,
               0);
    installInt(object, PROP_MAX_FRAME_SIZE, "max-frame-size",
               "jpg, mp4: the largest frame taken in bytes (0: 512 KiB for jpg, 1 MiB for mp4)", G_MAXINT, 0);
    installInt(object, PROP_DATA_SIZE, "data-size",
               "jpg, mp4: bytes of the data ring (0: room for every jpg slot; 8 MiB for mp4)", G_MAXINT, 0);
    installInt(object, PROP_QUALITY, "quality", "jpg: the quality recorded with the pictures", 100, DEFAULT_QUALITY);

    gst_element_class_set_static_metadata(element, "avpool sink", "Sink/Video;Sink/Audio",
                                          "Writes a media pool in System V shared memory", "avpool");
    avpool::gst::addPadTemplate(element, GST_PAD_SINK);

    base->start = gst_avpool_sink_start;
    base->stop = gst_avpool_sink_stop;
    base->get_caps = gst_avpool_sink_get_caps;
    base->set_caps = gst_avpool_sink_set_caps;
    base->render = gst_avpool_sink_render;
    base->event = gst_avpool_sink_event;
}
