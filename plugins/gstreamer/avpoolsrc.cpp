// avpoolsrc follows a pool as a live source: it starts at the newest element
// (for mp4 at the I frame of the GOP being written), waits for each next one
// on its slot lock, and pushes it as one buffer stamped with its capture time
// in running time (the whole stream later by the age of its first element
// when that was captured before the pipeline started). When the writer overtakes it, the next buffer carries the
// DISCONT flag and an "avpool-gap" element message tells what was lost. When
// the writer removes its pool or dies, it waits for a new writer (or ends the
// stream, with reattach=false).

#include "avpoolsrc.h"

#include "caps.h"
#include "element_common.h"
#include "pool_reader.h"
#include "slot_wait.h"

#include <avpool/common.h>

#include <atomic>
#include <memory>
#include <string>

using avpool::gst::Element;
using avpool::gst::Kind;
using avpool::gst::Next;
using avpool::gst::PoolReader;
using avpool::gst::StreamFormat;

GST_DEBUG_CATEGORY_STATIC(avpool_src_debug);
#define GST_CAT_DEFAULT avpool_src_debug

namespace {

constexpr int DEFAULT_MAX_AGE = 3;
constexpr int ATTACH_POLL_MS = 100;
constexpr GstClockTime DEFAULT_LATENCY = 40 * GST_MSECOND;

enum { PROP_0, PROP_KIND, PROP_CHANNEL, PROP_ZERO_COPY, PROP_MAX_AGE, PROP_REATTACH };

struct Settings {
    Kind kind = Kind::Jpg;
    int channel = 0;
    bool zeroCopy = false;
    int maxAge = DEFAULT_MAX_AGE;
    bool reattach = true;
};

// What the element keeps between buffers; the streaming thread owns all but
// the properties and stop.
struct SrcState {
    Settings properties;  // under the object lock
    Settings running;     // taken at start
    std::atomic<bool> stop{false};
    std::shared_ptr<PoolReader> reader;
    StreamFormat format;
    bool haveFormat = false;
    bool discont = true;
    bool lost = false;  // the writer went away and is waited for
    // An element dropped because it was overwritten while being copied.
    unsigned long long droppedFrom = 0;
    GstClockTime lastPts = GST_CLOCK_TIME_NONE;
    // Added to the running time of every capture time: the first element may
    // have been captured before the pipeline started (a GOP's I frame), and
    // the stream then begins at 0 with the elements' spacing kept.
    gint64 shift = -1;
    std::atomic<GstClockTime> latency{DEFAULT_LATENCY};
};

// Keeps the reader, and with it the segment's attachment, alive while a
// buffer that wraps its bytes exists.
void releaseReader(gpointer holder) {
    delete static_cast<std::shared_ptr<PoolReader>*>(holder);
}

}  // namespace

struct _GstAvpoolSrc {
    GstPushSrc parent;
    SrcState* state;
};

G_DEFINE_TYPE(GstAvpoolSrc, gst_avpool_src, GST_TYPE_PUSH_SRC)

static void gst_avpool_src_init(GstAvpoolSrc* self) {
    self->state = new SrcState();
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
    gst_base_src_set_do_timestamp(GST_BASE_SRC(self), FALSE);
}

static void gst_avpool_src_finalize(GObject* object) {
    delete GST_AVPOOL_SRC(object)->state;
    G_OBJECT_CLASS(gst_avpool_src_parent_class)->finalize(object);
}

static void gst_avpool_src_set_property(GObject* object, guint id, const GValue* value, GParamSpec* property) {
    GstAvpoolSrc* self = GST_AVPOOL_SRC(object);
    GST_OBJECT_LOCK(self);
    Settings& settings = self->state->properties;
    switch (id) {
        case PROP_KIND: settings.kind = avpool::gst::kindOf(g_value_get_enum(value)); break;
        case PROP_CHANNEL: settings.channel = g_value_get_int(value); break;
        case PROP_ZERO_COPY: settings.zeroCopy = g_value_get_boolean(value); break;
        case PROP_MAX_AGE: settings.maxAge = g_value_get_int(value); break;
        case PROP_REATTACH: settings.reattach = g_value_get_boolean(value); break;
        default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void gst_avpool_src_get_property(GObject* object, guint id, GValue* value, GParamSpec* property) {
    GstAvpoolSrc* self = GST_AVPOOL_SRC(object);
    GST_OBJECT_LOCK(self);
    const Settings& settings = self->state->properties;
    switch (id) {
        case PROP_KIND: g_value_set_enum(value, avpool::gst::kindValue(settings.kind)); break;
        case PROP_CHANNEL: g_value_set_int(value, settings.channel); break;
        case PROP_ZERO_COPY: g_value_set_boolean(value, settings.zeroCopy); break;
        case PROP_MAX_AGE: g_value_set_int(value, settings.maxAge); break;
        case PROP_REATTACH: g_value_set_boolean(value, settings.reattach); break;
        default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
    GST_OBJECT_UNLOCK(self);
}

// The pool must be there when the source starts; later absences are waited out.
static gboolean gst_avpool_src_start(GstBaseSrc* base) {
    GstAvpoolSrc* self = GST_AVPOOL_SRC(base);
    SrcState& state = *self->state;
    GST_OBJECT_LOCK(self);
    state.running = state.properties;
    GST_OBJECT_UNLOCK(self);
    const Settings& settings = state.running;
    pid_t creator = 0;
    avpool::gst::Presence presence = avpool::gst::probePool(settings.kind, settings.channel, creator);
    if (presence != avpool::gst::Presence::Live) {
        std::string text = avpool::gst::absenceText(settings.kind, settings.channel, presence, creator);
        text[0] = g_ascii_toupper(text[0]);
        GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND, ("%s", text.c_str()),
                          ("kind=%s channel=%d", avpool::gst::kindName(settings.kind), settings.channel));
        return FALSE;
    }
    state.reader.reset();
    state.haveFormat = false;
    state.discont = true;
    state.lost = false;
    state.droppedFrom = 0;
    state.lastPts = GST_CLOCK_TIME_NONE;
    state.shift = -1;
    return TRUE;
}

static gboolean gst_avpool_src_stop(GstBaseSrc* base) {
    SrcState& state = *GST_AVPOOL_SRC(base)->state;
    state.reader.reset();
    state.haveFormat = false;
    return TRUE;
}

static gboolean gst_avpool_src_unlock(GstBaseSrc* base) {
    GST_AVPOOL_SRC(base)->state->stop = true;
    return TRUE;
}

static gboolean gst_avpool_src_unlock_stop(GstBaseSrc* base) {
    GST_AVPOOL_SRC(base)->state->stop = false;
    return TRUE;
}

// Caps come from the pool's elements: they are set with the first buffer
// and whenever the stream's format changes.
static gboolean gst_avpool_src_negotiate(GstBaseSrc*) {
    return TRUE;
}

static GstCaps* gst_avpool_src_get_caps(GstBaseSrc* base, GstCaps* filter) {
    GstAvpoolSrc* self = GST_AVPOOL_SRC(base);
    GstCaps* caps = gst_pad_get_current_caps(GST_BASE_SRC_PAD(base));
    if (caps == nullptr) {
        GST_OBJECT_LOCK(self);
        Kind kind = self->state->properties.kind;
        GST_OBJECT_UNLOCK(self);
        caps = avpool::gst::kindCaps(kind, false);
    }
    return avpool::gst::filterCaps(caps, filter);
}

static gboolean gst_avpool_src_query(GstBaseSrc* base, GstQuery* query) {
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY) {
        // Buffers are stamped with their capture time and arrive about one
        // element later.
        gst_query_set_latency(query, TRUE, GST_AVPOOL_SRC(base)->state->latency.load(), GST_CLOCK_TIME_NONE);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(gst_avpool_src_parent_class)->query(base, query);
}

// Waits until a reader is attached; FLUSHING when stopped first.
static GstFlowReturn attachReader(GstAvpoolSrc* self) {
    SrcState& state = *self->state;
    const Settings& settings = state.running;
    std::string why;
    for (;;) {
        state.reader = avpool::gst::attachReader(settings.kind, settings.channel, settings.maxAge, why);
        if (state.reader) {
            if (state.lost) GST_ELEMENT_INFO(self, RESOURCE, NOT_FOUND, ("The writer is back"), (nullptr));
            state.lost = false;
            return GST_FLOW_OK;
        }
        GST_DEBUG_OBJECT(self, "not attached: %s", why.c_str());
        if (!avpool::gst::pause(ATTACH_POLL_MS, state.stop)) return GST_FLOW_FLUSHING;
    }
}

static void postGap(GstAvpoolSrc* self, unsigned long long from, const Element& element, const char* reason) {
    const Settings& settings = self->state->running;
    GST_INFO_OBJECT(self, "overtaken (%s): elements %" G_GUINT64_FORMAT " to %" G_GUINT64_FORMAT " lost", reason,
                    static_cast<guint64>(from), static_cast<guint64>(element.id - 1));
    GstStructure* s = gst_structure_new("avpool-gap", "kind", G_TYPE_STRING, avpool::gst::kindName(settings.kind),
                                        "channel", G_TYPE_INT, settings.channel, "first-lost", G_TYPE_UINT64,
                                        static_cast<guint64>(from), "resumed-at", G_TYPE_UINT64,
                                        static_cast<guint64>(element.id), "reason", G_TYPE_STRING, reason, nullptr);
    gst_element_post_message(GST_ELEMENT(self), gst_message_new_element(GST_OBJECT(self), s));
}

// The element's bytes as a buffer: a copy, or with zero-copy a buffer that
// wraps the slot. Either way the frame-ID prefix (or the fragment's number)
// is checked after the bytes were taken; null when they were overwritten.
// Audio fragments are at most 2 KiB and always copied.
static GstBuffer* bufferOf(SrcState& state, const Element& element) {
    bool wrap = state.running.zeroCopy && (state.running.kind == Kind::Jpg || state.running.kind == Kind::Mp4);
    GstBuffer* buffer = nullptr;
    if (wrap) {
        if (!state.reader->intact(element)) return nullptr;
        buffer = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, const_cast<unsigned char*>(element.data),
                                             element.size, 0, element.size,
                                             new std::shared_ptr<PoolReader>(state.reader), releaseReader);
    } else {
        buffer = gst_buffer_new_allocate(nullptr, element.size, nullptr);
        gst_buffer_fill(buffer, 0, element.data, element.size);
        if (!state.reader->intact(element)) {
            gst_buffer_unref(buffer);
            return nullptr;
        }
    }
    return buffer;
}

static void stamp(GstAvpoolSrc* self, GstBuffer* buffer, const Element& element) {
    SrcState& state = *self->state;
    avpool::gst::ClockPair clock(GST_ELEMENT(self));
    GstClockTime pts = GST_CLOCK_TIME_NONE;
    if (clock.valid) {
        gint64 running = clock.runningAt(element.captureUs);
        if (state.shift < 0) state.shift = running < 0 ? -running : 0;
        running += state.shift;
        pts = running > 0 ? static_cast<GstClockTime>(running) : 0;
        // A capture time the wall clock has since left behind (a step of the
        // wall clock) must not make the stream go back.
        if (GST_CLOCK_TIME_IS_VALID(state.lastPts) && pts < state.lastPts) pts = state.lastPts;
        state.lastPts = pts;
    }
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DTS(buffer) = pts;
    if (element.durationNs > 0) {
        GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(element.durationNs);
        state.latency = static_cast<GstClockTime>(element.durationNs);
    }
    GST_BUFFER_OFFSET(buffer) = element.id;
    if (!element.key) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    if (state.discont) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    state.discont = false;
}

static bool updateCaps(GstAvpoolSrc* self, const StreamFormat& format) {
    SrcState& state = *self->state;
    if (state.haveFormat && format == state.format) return true;
    GstCaps* caps = avpool::gst::capsFor(format);
    if (caps == nullptr) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("The %s holds a format with no caps",
                                                 avpool::gst::poolName(format.kind, state.running.channel).c_str()),
                          ("bits %d, channels %d, rate %d", format.bits, format.channels, format.rate));
        return false;
    }
    GST_DEBUG_OBJECT(self, "caps %" GST_PTR_FORMAT, caps);
    bool set = gst_base_src_set_caps(GST_BASE_SRC(self), caps);
    gst_caps_unref(caps);
    if (!set) return false;
    state.format = format;
    state.haveFormat = true;
    return true;
}

static GstFlowReturn gst_avpool_src_create(GstPushSrc* push, GstBuffer** out) {
    GstAvpoolSrc* self = GST_AVPOOL_SRC(push);
    SrcState& state = *self->state;
    for (;;) {
        if (!state.reader) {
            GstFlowReturn attached = attachReader(self);
            if (attached != GST_FLOW_OK) return attached;
        }
        Element element;
        Next next = Next::Gone;
        try {
            next = state.reader->next(state.stop, element);
        } catch (const avpool::PoolError& error) {
            // A getter that refuses what the segment holds now: the pool is
            // taken as gone, and attached anew.
            GST_WARNING_OBJECT(self, "the pool cannot be read: %s", error.what());
        }
        if (next == Next::Stopped) return GST_FLOW_FLUSHING;
        if (next == Next::Gone) {
            state.reader.reset();
            state.discont = true;
            if (!state.running.reattach) return GST_FLOW_EOS;
            GST_ELEMENT_WARNING(self, RESOURCE, NOT_FOUND,
                                ("The writer of the %s went away; waiting for it",
                                 avpool::gst::poolName(state.running.kind, state.running.channel).c_str()),
                                (nullptr));
            state.lost = true;
            continue;
        }
        GstBuffer* buffer = bufferOf(state, element);
        if (buffer == nullptr) {
            GST_DEBUG_OBJECT(self, "element %" G_GUINT64_FORMAT " overwritten while taken",
                             static_cast<guint64>(element.id));
            if (state.droppedFrom == 0) state.droppedFrom = element.id;
            continue;
        }
        if (state.droppedFrom != 0) {
            postGap(self, state.droppedFrom, element, "overwritten");
            state.discont = true;
        } else if (element.gapReason != nullptr) {
            postGap(self, element.gapFrom, element, element.gapReason);
            state.discont = true;
        }
        state.droppedFrom = 0;
        if (!updateCaps(self, state.reader->format(element))) {
            gst_buffer_unref(buffer);
            return GST_FLOW_NOT_NEGOTIATED;
        }
        stamp(self, buffer, element);
        *out = buffer;
        return GST_FLOW_OK;
    }
}

static void gst_avpool_src_class_init(GstAvpoolSrcClass* klass) {
    GObjectClass* object = G_OBJECT_CLASS(klass);
    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    GstBaseSrcClass* base = GST_BASE_SRC_CLASS(klass);
    GstPushSrcClass* push = GST_PUSH_SRC_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(avpool_src_debug, "avpoolsrc", 0, "avpool pool source");

    object->set_property = gst_avpool_src_set_property;
    object->get_property = gst_avpool_src_get_property;
    object->finalize = gst_avpool_src_finalize;
    GParamFlags flags = avpool::gst::PROPERTY_FLAGS;
    avpool::gst::installPoolProperties(object, PROP_KIND, PROP_CHANNEL, "read");
    g_object_class_install_property(
        object, PROP_ZERO_COPY,
        g_param_spec_boolean("zero-copy", "Zero copy",
                             "jpg, mp4: push buffers that wrap the frame in shared memory instead of a copy. The "
                             "frame-ID prefix is checked before each push, but the writer may reuse the bytes while "
                             "a buffer is still held downstream: only for pipelines that use each buffer at once",
                             FALSE, flags));
    g_object_class_install_property(
        object, PROP_MAX_AGE,
        g_param_spec_int("max-age", "Maximum age",
                         "Seconds an element may be older than now before the source counts itself overtaken and "
                         "goes to the newest (mp4: plus a GOP)",
                         1, 3600, DEFAULT_MAX_AGE, flags));
    g_object_class_install_property(
        object, PROP_REATTACH,
        g_param_spec_boolean("reattach", "Reattach",
                             "When the writer removes its pool or dies, wait for a new one (otherwise end the stream)",
                             TRUE, flags));

    gst_element_class_set_static_metadata(element, "avpool source", "Source/Video;Source/Audio",
                                          "Reads a media pool in System V shared memory", "avpool");
    avpool::gst::addPadTemplate(element, GST_PAD_SRC);

    base->start = gst_avpool_src_start;
    base->stop = gst_avpool_src_stop;
    base->unlock = gst_avpool_src_unlock;
    base->unlock_stop = gst_avpool_src_unlock_stop;
    base->negotiate = gst_avpool_src_negotiate;
    base->get_caps = gst_avpool_src_get_caps;
    base->query = gst_avpool_src_query;
    push->create = gst_avpool_src_create;
    gst_type_mark_as_plugin_api(GST_TYPE_AVPOOL_KIND, static_cast<GstPluginAPIFlags>(0));
}
