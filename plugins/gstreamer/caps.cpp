#include "caps.h"

#include <cstring>

namespace avpool::gst {

namespace {

// The pools store samples in the machine's byte order.
#if G_BYTE_ORDER == G_LITTLE_ENDIAN
#define AVPOOL_S16 "S16LE"
#define AVPOOL_GRAY16 "GRAY16_LE"
#else
#define AVPOOL_S16 "S16BE"
#define AVPOOL_GRAY16 "GRAY16_BE"
#endif

// One structure per kind, in the order of Kind.
const char* const KIND_CAPS[] = {
    "image/jpeg",
    "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au; "
    "video/mpeg, mpegversion=(int)4, systemstream=(boolean)false",
    "audio/x-raw, format=(string){ " AVPOOL_S16 ", U8 }, layout=(string)interleaved, "
    "rate=(int)[ 1000, 2147483647 ], channels=(int)[ 1, 2147483647 ]",
    "audio/mpeg, mpegversion=(int)4, stream-format=(string){ adts, raw }",
    "audio/x-opus, channel-mapping-family=(int)0",
    "video/x-raw, format=(string)" AVPOOL_GRAY16 ", width=(int)[ 1, 2147483647 ], height=(int)[ 1, 2147483647 ]",
};

// The sink takes AAC in ADTS frames only: that is what the pool's other
// readers expect in an aac fragment.
const char* const SINK_AAC = "audio/mpeg, mpegversion=(int)4, stream-format=(string)adts";

GstBuffer* bufferOf(const std::vector<unsigned char>& bytes) {
    return gst_buffer_new_memdup(bytes.data(), bytes.size());
}

}  // namespace

GstCaps* kindCaps(Kind kind, bool sink) {
    if (sink && kind == Kind::Aac) return gst_caps_from_string(SINK_AAC);
    return gst_caps_from_string(KIND_CAPS[static_cast<int>(kind)]);
}

GstCaps* allCaps(bool sink) {
    GstCaps* caps = gst_caps_new_empty();
    for (Kind kind : {Kind::Jpg, Kind::Mp4, Kind::Pcm, Kind::Aac, Kind::Opus, Kind::Lum})
        if (!sink || kind != Kind::Lum) gst_caps_append(caps, kindCaps(kind, sink));
    return caps;
}

GstCaps* capsFor(const StreamFormat& format) {
    GstCaps* caps = nullptr;
    switch (format.kind) {
        case Kind::Jpg:
            caps = gst_caps_new_simple("image/jpeg", "width", G_TYPE_INT, format.width, "height", G_TYPE_INT,
                                       format.height, "framerate", GST_TYPE_FRACTION, format.fps, 1, nullptr);
            break;
        case Kind::Mp4:
            if (format.codec == VideoCodec::Mpeg4) {
                caps = gst_caps_new_simple("video/mpeg", "mpegversion", G_TYPE_INT, 4, "systemstream",
                                           G_TYPE_BOOLEAN, FALSE, nullptr);
                if (!format.config.empty()) {
                    GstBuffer* config = bufferOf(format.config);
                    gst_caps_set_simple(caps, "codec_data", GST_TYPE_BUFFER, config, nullptr);
                    gst_buffer_unref(config);
                }
            } else {
                caps = gst_caps_new_simple("video/x-h264", "stream-format", G_TYPE_STRING, "byte-stream",
                                           "alignment", G_TYPE_STRING, "au", nullptr);
            }
            gst_caps_set_simple(caps, "width", G_TYPE_INT, format.width, "height", G_TYPE_INT, format.height,
                                "framerate", GST_TYPE_FRACTION, format.fps, 1, nullptr);
            break;
        case Kind::Pcm: {
            const char* sampleFormat = format.bits == 16 ? AVPOOL_S16 : format.bits == 8 ? "U8" : nullptr;
            if (sampleFormat == nullptr || format.channels < 1 || format.rate < 1) return nullptr;
            caps = gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, sampleFormat, "layout",
                                       G_TYPE_STRING, "interleaved", "rate", G_TYPE_INT, format.rate, "channels",
                                       G_TYPE_INT, format.channels, nullptr);
            if (format.channels > 2)  // no positions are known: unpositioned
                gst_caps_set_simple(caps, "channel-mask", GST_TYPE_BITMASK, static_cast<guint64>(0), nullptr);
            break;
        }
        case Kind::Aac:
            caps = gst_caps_new_simple("audio/mpeg", "mpegversion", G_TYPE_INT, 4, "stream-format", G_TYPE_STRING,
                                       format.adts ? "adts" : "raw", "framed", G_TYPE_BOOLEAN, TRUE, "rate",
                                       G_TYPE_INT, format.rate, "channels", G_TYPE_INT, format.channels, nullptr);
            if (!format.adts && !format.config.empty()) {
                GstBuffer* config = bufferOf(format.config);
                gst_caps_set_simple(caps, "codec_data", GST_TYPE_BUFFER, config, nullptr);
                gst_buffer_unref(config);
            }
            break;
        case Kind::Lum:
            // Rows of an odd width would need padding to GStreamer's 4-byte stride.
            if (format.width < 1 || format.height < 1 || format.width % 2 != 0) return nullptr;
            caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, AVPOOL_GRAY16, "width", G_TYPE_INT,
                                       format.width, "height", G_TYPE_INT, format.height, "framerate",
                                       GST_TYPE_FRACTION, format.fps, 1, nullptr);
            break;
        case Kind::Opus:
            caps = gst_caps_new_simple("audio/x-opus", "channel-mapping-family", G_TYPE_INT, 0, "channels",
                                       G_TYPE_INT, format.channels, "rate", G_TYPE_INT, format.rate, nullptr);
            break;
    }
    return caps;
}

namespace {

int intField(const GstStructure* s, const char* name) {
    int value = 0;
    return gst_structure_get_int(s, name, &value) ? value : 0;
}

// Frames per second, rounded; 0 for a variable rate.
int fpsField(const GstStructure* s) {
    int num = 0;
    int den = 1;
    if (!gst_structure_get_fraction(s, "framerate", &num, &den) || den <= 0) return 0;
    return (num + den / 2) / den;
}

}  // namespace

bool formatFromCaps(Kind kind, const GstCaps* caps, StreamFormat& format) {
    GstCaps* allowed = kindCaps(kind, true);
    bool fits = gst_caps_can_intersect(caps, allowed);
    gst_caps_unref(allowed);
    if (!fits || gst_caps_get_size(caps) < 1) return false;
    const GstStructure* s = gst_caps_get_structure(caps, 0);
    format = StreamFormat{};
    format.kind = kind;
    format.width = intField(s, "width");
    format.height = intField(s, "height");
    format.fps = fpsField(s);
    format.channels = intField(s, "channels");
    format.rate = intField(s, "rate");
    if (kind == Kind::Mp4)
        format.codec = gst_structure_has_name(s, "video/mpeg") ? VideoCodec::Mpeg4 : VideoCodec::H264;
    if (kind == Kind::Pcm) {
        const char* sampleFormat = gst_structure_get_string(s, "format");
        format.bits = sampleFormat != nullptr && strcmp(sampleFormat, "U8") == 0 ? 8 : 16;
    }
    if (kind == Kind::Aac) format.adts = true;
    return true;
}

}  // namespace avpool::gst
