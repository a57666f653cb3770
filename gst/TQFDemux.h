// tqfdemux: TQF in, the video frames and the audio out.
//
// Sink: "video/x-tqf", either pulled (a file: the frames are indexed once by
// the file reader's walk, which gives duration and seeking) or pushed (a
// live byte stream cut anywhere: the header block first, then frames cut by
// the live sync rules, from the first key frame on).
//
// Source pads, made from the header block's records:
//   "video": video/x-h264 or video/x-h265 (byte-stream, one access unit a
//            buffer), image/jpeg or video/x-cavs, by the descriptor's FourCC;
//   "audio": G.726 decoded here to S16LE, 8 kHz mono. TQF packs its codes
//            low nibble first (libavcodec's g726le); GStreamer's G.726 caps
//            name only the other packing, so the stream leaves as PCM.
//
// Times: from the stamps when they are milliseconds, else 40 ms a frame in
// file order (files); 40 ms a frame from the first key frame (live). A seek
// in time (files only) starts at the key frame at or before the target; the
// segment starts there, or at the target itself for an accurate seek.
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define TQF_TYPE_DEMUX (tqf_demux_get_type())
G_DECLARE_FINAL_TYPE(TQFDemux, tqf_demux, TQF, DEMUX, GstElement)
GST_ELEMENT_REGISTER_DECLARE(tqfdemux);

G_END_DECLS
