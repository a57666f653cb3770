// tqfmux: video (H.264 or H.265 as byte-stream access units, or JPEG) and
// optional 8 kHz mono S16 audio in, a TQF byte stream out.
//
// Request pads "video" and "audio" (one of each). The header block goes out
// first, and also as the "streamheader" of the output caps, so that
// tcpserversink gives it to every client that joins: its descriptor record
// comes from the video caps (FourCC, width, height), and a G.726 record
// follows when an audio pad exists. Then come the frames in time order with
// their key flags and millisecond stamps (running time from the first frame
// written). Audio is encoded to G.726 at 32 kbit/s here, 320 bytes (80 ms) a
// frame: libavcodec's g726le encoder would do, but gst-libav's element for it
// gives caps no element can take. Frames other than video key frames are
// marked as delta units, so a sink that starts clients at a key frame can.
#pragma once

#include <gst/base/gstaggregator.h>

G_BEGIN_DECLS

#define TQF_TYPE_MUX (tqf_mux_get_type())
G_DECLARE_FINAL_TYPE(TQFMux, tqf_mux, TQF, MUX, GstAggregator)
GST_ELEMENT_REGISTER_DECLARE(tqfmux);

G_END_DECLS
