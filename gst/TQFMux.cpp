#include "TQFMux.h"

#include <vector>

#include "G726.h"
#include "HeaderBlock.h"
#include "TQFCaps.h"

GST_DEBUG_CATEGORY_STATIC(tqf_mux_debug);
#define GST_CAT_DEFAULT tqf_mux_debug

namespace {

constexpr size_t AUDIO_FRAME_SAMPLES = G726_FRAME_BYTES * 2;

GstStaticPadTemplate SRC_TEMPLATE =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(TQF_CONTAINER_CAPS));
GstStaticPadTemplate AUDIO_TEMPLATE =
    GST_STATIC_PAD_TEMPLATE("audio", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(TQF_AUDIO_CAPS));

}  // namespace

// The muxer's state, the aggregate function's (the source pad's thread);
// the pads are set when requested, before data flows.
struct MuxContext {
  GstAggregatorPad* videoPad = nullptr;
  GstAggregatorPad* audioPad = nullptr;
  bool headerSent = false;
  GstClockTime origin = GST_CLOCK_TIME_NONE;  // running time of stamp 0
  uint32_t lastStamp = 0;
  G726State g726;
  std::vector<int16_t> samples;                    // audio not yet encoded
  GstClockTime samplesTime = GST_CLOCK_TIME_NONE;  // running time of samples[0]

  MuxContext() { Reset(); }
  void Reset() {
    headerSent = false;
    origin = GST_CLOCK_TIME_NONE;
    lastStamp = 0;
    G726Reset(&g726);
    samples.clear();
    samplesTime = GST_CLOCK_TIME_NONE;
  }
};

struct _TQFMux {
  GstAggregator parent;
  MuxContext* context;
};

G_DEFINE_TYPE(TQFMux, tqf_mux, GST_TYPE_AGGREGATOR)
GST_ELEMENT_REGISTER_DEFINE(tqfmux, "tqfmux", GST_RANK_PRIMARY, TQF_TYPE_MUX)

namespace {

GstFlowReturn Fail(GstAggregator* mux, const char* message) {
  GST_ELEMENT_ERROR(mux, STREAM, MUX, ("%s", message), (nullptr));
  return GST_FLOW_ERROR;
}

GstClockTime RunningTime(GstAggregatorPad* pad, GstClockTime time) {
  if (!GST_CLOCK_TIME_IS_VALID(time)) return GST_CLOCK_TIME_NONE;
  return gst_segment_to_running_time(&pad->segment, GST_FORMAT_TIME, time);
}

// When a buffer is due: its decode time, else its presentation time.
GstClockTime DueTime(GstAggregatorPad* pad, GstBuffer* buffer) {
  return RunningTime(pad, GST_BUFFER_DTS_OR_PTS(buffer));
}

// A frame's stamp: milliseconds of running time since the first frame; a
// frame with no time keeps the last stamp.
uint32_t StampOf(MuxContext& c, GstClockTime runningTime) {
  if (!GST_CLOCK_TIME_IS_VALID(runningTime)) return c.lastStamp;
  if (!GST_CLOCK_TIME_IS_VALID(c.origin)) c.origin = runningTime;
  c.lastStamp = runningTime <= c.origin ? 0 : static_cast<uint32_t>((runningTime - c.origin) / GST_MSECOND);
  return c.lastStamp;
}

// Sends one frame: its head, then `payload` (taken), whose memory the
// output shares rather than copies.
GstFlowReturn PushFrame(GstAggregator* mux, uint32_t stream, bool key, uint32_t stamp, GstBuffer* payload,
                        GstClockTime pts, GstClockTime dts) {
  const gsize length = gst_buffer_get_size(payload);
  if (length > TQF_MAX_FRAME_PAYLOAD || length == 0) {
    gst_buffer_unref(payload);
    return length == 0 ? GST_FLOW_OK : Fail(mux, "a frame is larger than TQF allows (1,048,575 bytes)");
  }
  std::vector<uint8_t> head;
  AppendFrame(head, TQFFrameHeader{MakeFrameInfo(static_cast<uint32_t>(length), key, stream), stamp},
              /*payload=*/nullptr, /*length=*/0);
  GstBuffer* buffer = gst_buffer_append(gst_buffer_new_memdup(head.data(), head.size()), payload);
  GST_BUFFER_PTS(buffer) = pts;
  GST_BUFFER_DTS(buffer) = dts;
  if (!key) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  return gst_aggregator_finish_buffer(mux, buffer);
}

// The header block from the video caps, as the first buffer and as the
// caps' stream header.
GstFlowReturn SendHeader(GstAggregator* mux, MuxContext& c) {
  GstCaps* videoCaps = gst_pad_get_current_caps(GST_PAD(c.videoPad));
  if (videoCaps == nullptr) return Fail(mux, "the video arrived without caps");
  const GstStructure* s = gst_caps_get_structure(videoCaps, 0);
  gint width = 0, height = 0;
  const uint32_t fourcc = TQFFourCCForCaps(s);
  const bool sized = gst_structure_get_int(s, "width", &width) && gst_structure_get_int(s, "height", &height);
  gst_caps_unref(videoCaps);
  if (fourcc == 0 || !sized) return Fail(mux, "the video caps give no codec TQF carries or no picture size");
  if (!IsPlayablePictureSize(width, height))
    GST_ELEMENT_WARNING(mux, STREAM, FORMAT, ("%dx%d is a picture size players refuse", width, height),
                        ("the width must be a multiple of 16 and the height even"));
  HeaderBlock block;
  const MediaDescriptor descriptor = MakeMediaDescriptor(fourcc, width, height);
  block.AddRecord(fourcc, &descriptor, sizeof descriptor);
  if (c.audioPad != nullptr) block.AddRecord(G726_RECORD_TYPE, &G726_WAVE_FORMAT, sizeof G726_WAVE_FORMAT);

  GstBuffer* header = gst_buffer_new_memdup(block.bytes.data(), block.bytes.size());
  GST_BUFFER_FLAG_SET(header, GST_BUFFER_FLAG_HEADER);
  GValue array = G_VALUE_INIT, value = G_VALUE_INIT;
  g_value_init(&array, GST_TYPE_ARRAY);
  g_value_init(&value, GST_TYPE_BUFFER);
  gst_value_set_buffer(&value, header);
  gst_value_array_append_value(&array, &value);
  g_value_unset(&value);
  GstCaps* caps = gst_caps_new_empty_simple(TQF_CONTAINER_CAPS);
  gst_structure_take_value(gst_caps_get_structure(caps, 0), "streamheader", &array);
  gst_aggregator_set_src_caps(mux, caps);
  gst_caps_unref(caps);
  c.headerSent = true;
  return gst_aggregator_finish_buffer(mux, header);
}

// Encodes the whole audio frames gathered (and at the end what is left).
GstFlowReturn EncodeAudio(GstAggregator* mux, MuxContext& c, bool atEnd) {
  GstFlowReturn result = GST_FLOW_OK;
  size_t done = 0;
  uint8_t codes[G726_FRAME_BYTES];
  while (result == GST_FLOW_OK && c.samples.size() - done >= (atEnd ? 2 : AUDIO_FRAME_SAMPLES)) {
    const size_t count = std::min(AUDIO_FRAME_SAMPLES, c.samples.size() - done);
    const int32_t length = G726EncodeBlock(&c.g726, c.samples.data() + done,
                                           static_cast<int32_t>(count * sizeof(int16_t)), codes);
    const GstClockTime time = c.samplesTime + gst_util_uint64_scale(done, GST_SECOND, G726_SAMPLE_RATE);
    result = PushFrame(mux, TQF_STREAM_AUDIO, /*key=*/false, StampOf(c, time),
                       gst_buffer_new_memdup(codes, static_cast<gsize>(length)), time, time);
    done += count;
  }
  c.samples.erase(c.samples.begin(), c.samples.begin() + static_cast<std::ptrdiff_t>(done));
  if (done != 0) c.samplesTime += gst_util_uint64_scale(done, GST_SECOND, G726_SAMPLE_RATE);
  return result;
}

GstFlowReturn TakeAudio(GstAggregator* mux, MuxContext& c, GstBuffer* buffer) {
  GstMapInfo map;
  if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) return Fail(mux, "cannot read an audio buffer");
  if (c.samples.empty()) c.samplesTime = DueTime(c.audioPad, buffer);
  const int16_t* pcm = reinterpret_cast<const int16_t*>(map.data);
  c.samples.insert(c.samples.end(), pcm, pcm + map.size / sizeof(int16_t));
  gst_buffer_unmap(buffer, &map);
  return EncodeAudio(mux, c, /*atEnd=*/false);
}

GstFlowReturn TakeVideo(GstAggregator* mux, MuxContext& c, GstBuffer* buffer) {
  const bool key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  // The output runs on running time, as the aggregator's segment does.
  const GstClockTime pts = RunningTime(c.videoPad, GST_BUFFER_PTS(buffer));
  return PushFrame(mux, TQF_STREAM_VIDEO, key, StampOf(c, pts),
                   gst_buffer_copy_region(buffer, GST_BUFFER_COPY_MEMORY, 0, static_cast<gsize>(-1)), pts,
                   RunningTime(c.videoPad, GST_BUFFER_DTS(buffer)));
}

// The pad whose next buffer is due first; null when none has one.
GstAggregatorPad* EarliestPad(MuxContext& c) {
  GstAggregatorPad* earliest = nullptr;
  GstClockTime earliestTime = GST_CLOCK_TIME_NONE;
  for (GstAggregatorPad* pad : {c.videoPad, c.audioPad}) {
    if (pad == nullptr) continue;
    GstBuffer* buffer = gst_aggregator_pad_peek_buffer(pad);
    if (buffer == nullptr) continue;
    const GstClockTime due = DueTime(pad, buffer);
    gst_buffer_unref(buffer);
    if (earliest == nullptr || (GST_CLOCK_TIME_IS_VALID(due) && due < earliestTime)) {
      earliest = pad;
      earliestTime = due;
    }
  }
  return earliest;
}

GstFlowReturn Aggregate(GstAggregator* mux, gboolean) {
  MuxContext& c = *TQF_MUX(mux)->context;
  if (c.videoPad == nullptr) return Fail(mux, "tqfmux needs a video stream");
  if (!c.headerSent) {
    // The descriptor needs the video's caps, which come with its first buffer.
    if (!gst_aggregator_pad_has_buffer(c.videoPad)) {
      if (gst_aggregator_pad_is_eos(c.videoPad)) return Fail(mux, "the video ended before its first frame");
      return GST_FLOW_OK;
    }
    const GstFlowReturn result = SendHeader(mux, c);
    if (result != GST_FLOW_OK) return result;
  }
  GstAggregatorPad* pad = EarliestPad(c);
  if (pad == nullptr) {
    const bool ended = gst_aggregator_pad_is_eos(c.videoPad) &&
                       (c.audioPad == nullptr || gst_aggregator_pad_is_eos(c.audioPad));
    if (!ended) return GST_FLOW_OK;
    const GstFlowReturn result = EncodeAudio(mux, c, /*atEnd=*/true);
    return result == GST_FLOW_OK ? GST_FLOW_EOS : result;
  }
  GstBuffer* buffer = gst_aggregator_pad_pop_buffer(pad);
  gst_aggregator_selected_samples(mux, GST_BUFFER_PTS(buffer), GST_BUFFER_DTS(buffer),
                                  GST_BUFFER_DURATION(buffer), nullptr);
  const GstFlowReturn result = pad == c.videoPad ? TakeVideo(mux, c, buffer) : TakeAudio(mux, c, buffer);
  gst_buffer_unref(buffer);
  return result;
}

GstAggregatorPad* CreateNewPad(GstAggregator* mux, GstPadTemplate* padTemplate, const gchar*, const GstCaps*) {
  MuxContext& c = *TQF_MUX(mux)->context;
  const gchar* name = GST_PAD_TEMPLATE_NAME_TEMPLATE(padTemplate);
  GstAggregatorPad** slot = g_str_equal(name, "video") ? &c.videoPad : &c.audioPad;
  if (*slot != nullptr || c.headerSent) return nullptr;  // one of each, before the header
  *slot = GST_AGGREGATOR_PAD(g_object_new(GST_TYPE_AGGREGATOR_PAD, "name", name, "direction",
                                          GST_PAD_SINK, "template", padTemplate, nullptr));
  return *slot;
}

gboolean Stop(GstAggregator* mux) {
  TQF_MUX(mux)->context->Reset();
  return TRUE;
}

}  // namespace

static void tqf_mux_release_pad(GstElement* element, GstPad* pad) {
  MuxContext& c = *TQF_MUX(element)->context;
  if (pad == GST_PAD(c.videoPad)) c.videoPad = nullptr;
  if (pad == GST_PAD(c.audioPad)) c.audioPad = nullptr;
  GST_ELEMENT_CLASS(tqf_mux_parent_class)->release_pad(element, pad);
}

static void tqf_mux_finalize(GObject* object) {
  delete TQF_MUX(object)->context;
  G_OBJECT_CLASS(tqf_mux_parent_class)->finalize(object);
}

static void tqf_mux_class_init(TQFMuxClass* klass) {
  GST_DEBUG_CATEGORY_INIT(tqf_mux_debug, "tqfmux", 0, "TQF muxer");
  G_OBJECT_CLASS(klass)->finalize = tqf_mux_finalize;
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  element->release_pad = tqf_mux_release_pad;
  GstCaps* video = TQFVideoTemplateCaps();
  gst_element_class_add_pad_template(
      element, gst_pad_template_new_with_gtype("video", GST_PAD_SINK, GST_PAD_REQUEST, video,
                                               GST_TYPE_AGGREGATOR_PAD));
  gst_caps_unref(video);
  gst_element_class_add_static_pad_template_with_gtype(element, &AUDIO_TEMPLATE, GST_TYPE_AGGREGATOR_PAD);
  gst_element_class_add_static_pad_template_with_gtype(element, &SRC_TEMPLATE, GST_TYPE_AGGREGATOR_PAD);
  gst_element_class_set_static_metadata(element, "TQF muxer", "Codec/Muxer",
                                        "Writes video and audio as a TQF file or live TQF stream",
                                        "TQFPlay developers");
  GstAggregatorClass* aggregator = GST_AGGREGATOR_CLASS(klass);
  aggregator->aggregate = Aggregate;
  aggregator->create_new_pad = CreateNewPad;
  aggregator->stop = Stop;
}

static void tqf_mux_init(TQFMux* mux) { mux->context = new MuxContext(); }
