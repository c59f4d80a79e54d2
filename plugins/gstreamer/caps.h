// The caps of the pools' streams: what avpoolsrc announces for a stream
// format, what avpoolsink takes, and the stream format a sink's caps give.
#pragma once

#include "pool_reader.h"

#include <gst/gst.h>

namespace avpool::gst {

// What one kind's source gives or sink takes (a new reference).
GstCaps* kindCaps(Kind kind, bool sink);
// Every stream the source can give, or the sink takes: the pad templates.
GstCaps* allCaps(bool sink);

// The fixed caps of a stream; null for a format that has none (a pcm format
// code other than 1, 8 and 16, luminance pictures of an odd width).
GstCaps* capsFor(const StreamFormat& format);

// The stream format a sink's fixed caps describe for kind; false when the
// caps do not belong to that kind.
bool formatFromCaps(Kind kind, const GstCaps* caps, StreamFormat& format);

}  // namespace avpool::gst
