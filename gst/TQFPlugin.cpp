// The TQF plugin: a typefinder for TQF, tqfdemux and tqfmux.
#include <gst/gst.h>

#include "StreamHeader.h"
#include "TQFCaps.h"
#include "TQFDemux.h"
#include "TQFMux.h"

namespace {

// Header blocks longer than this are not looked at (16 records of 64 KiB fit).
constexpr uint32_t TYPEFIND_HEADER_LIMIT = 1114112;

// TQF is the "TQF0" magic and a header block that a stream player accepts:
// a length word that fits, 1 to 16 records, a video descriptor among them.
void TypeFind(GstTypeFind* find, gpointer) {
  const guint8* head = gst_type_find_peek(find, 0, TQF_FILE_HEADER_SIZE);
  if (head == nullptr || LoadU32(head) != TQF_FILE_MAGIC) return;
  const uint64_t size = uint64_t{LoadU32(head + 4)} + 8;
  if (size < TQF_FILE_HEADER_SIZE || size > TYPEFIND_HEADER_LIMIT) return;
  const guint8* block = gst_type_find_peek(find, 0, static_cast<guint>(size));
  StreamHeader header;
  if (block == nullptr || !header.Parse(block, static_cast<uint32_t>(size)) || !header.hasVideo) return;
  GstCaps* caps = gst_caps_new_empty_simple(TQF_CONTAINER_CAPS);
  gst_type_find_suggest(find, GST_TYPE_FIND_MAXIMUM, caps);
  gst_caps_unref(caps);
}

gboolean TypeFindRegister(GstPlugin* plugin) {
  GstCaps* caps = gst_caps_new_empty_simple(TQF_CONTAINER_CAPS);
  const gboolean done =
      gst_type_find_register(plugin, "video/x-tqf", GST_RANK_PRIMARY, TypeFind, "tqf", caps, nullptr, nullptr);
  gst_caps_unref(caps);
  return done;
}

gboolean PluginInit(GstPlugin* plugin) {
  return TypeFindRegister(plugin) && GST_ELEMENT_REGISTER(tqfdemux, plugin) &&
         GST_ELEMENT_REGISTER(tqfmux, plugin);
}

}  // namespace

#define PACKAGE "tqfplay"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, tqf, "TQF: typefinder, demuxer and muxer",
                  PluginInit, TQF_VERSION, "Proprietary", "TQFPlay", "TQFPlay")
