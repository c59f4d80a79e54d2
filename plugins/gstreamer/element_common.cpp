#include "element_common.h"

#include "caps.h"

#include <string>

GType gst_avpool_kind_get_type(void) {
    using avpool::gst::Kind;
    using avpool::gst::kindValue;
    static gsize type = 0;
    if (g_once_init_enter(&type)) {
        static const GEnumValue values[] = {
            {kindValue(Kind::Jpg), "JPEG pictures", "jpg"},
            {kindValue(Kind::Mp4), "H.264 or MPEG-4 video, GOP by GOP", "mp4"},
            {kindValue(Kind::Pcm), "PCM audio (one pool per machine)", "pcm"},
            {kindValue(Kind::Aac), "AAC audio", "aac"},
            {kindValue(Kind::Opus), "Opus audio (one pool per machine)", "opus"},
            {kindValue(Kind::Lum), "Luminance pictures (avpoolsrc only)", "lum"},
            {0, nullptr, nullptr},
        };
        g_once_init_leave(&type, g_enum_register_static("GstAvpoolKind", values));
    }
    return type;
}

namespace avpool::gst {

ClockPair::ClockPair(GstElement* element) {
    GstClock* clock = gst_element_get_clock(element);
    if (clock == nullptr) return;
    GstClockTime now = gst_clock_get_time(clock);
    wallUs = g_get_real_time();
    GstClockTime base = gst_element_get_base_time(element);
    gst_object_unref(clock);
    if (!GST_CLOCK_TIME_IS_VALID(now) || !GST_CLOCK_TIME_IS_VALID(base)) return;
    runningNs = GST_CLOCK_DIFF(base, now);
    valid = true;
}

void installPoolProperties(GObjectClass* object, guint kindId, guint channelId, const char* verb) {
    std::string kindBlurb = std::string("The kind of pool to ") + verb;
    g_object_class_install_property(
        object, kindId,
        g_param_spec_enum("kind", "Kind", g_intern_string(kindBlurb.c_str()), GST_TYPE_AVPOOL_KIND,
                          kindValue(Kind::Jpg), PROPERTY_FLAGS));
    g_object_class_install_property(
        object, channelId,
        g_param_spec_int("channel", "Channel", "The pool's channel (pcm and opus: one pool per machine, 0)", 0, 255,
                         0, PROPERTY_FLAGS));
}

void addPadTemplate(GstElementClass* element, GstPadDirection direction) {
    bool sink = direction == GST_PAD_SINK;
    GstCaps* caps = allCaps(sink);
    gst_element_class_add_pad_template(element,
                                       gst_pad_template_new(sink ? "sink" : "src", direction, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
}

GstCaps* filterCaps(GstCaps* caps, GstCaps* filter) {
    if (filter == nullptr) return caps;
    GstCaps* both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(caps);
    return both;
}

}  // namespace avpool::gst
