#include "element_common.h"

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

}  // namespace avpool::gst
