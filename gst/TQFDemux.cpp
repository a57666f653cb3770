#include "TQFDemux.h"

#include <gst/base/gstflowcombiner.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "FrameSplitter.h"
#include "G726.h"
#include "StreamHeader.h"
#include "TQFCaps.h"
#include "TQFReader.h"
#include "VideoTimeline.h"

GST_DEBUG_CATEGORY_STATIC(tqf_demux_debug);
#define GST_CAT_DEFAULT tqf_demux_debug

namespace {

// A file is indexed a window at a time; most frame heads of a window lie in it.
constexpr uint64_t INDEX_WINDOW_BYTES = 2048;
// The header block of any TQF file fits here: 16 records of at most 64 KiB.
constexpr uint64_t HEADER_BLOCK_LIMIT =
    TQF_FILE_HEADER_SIZE + TQF_READER_MAX_RECORDS * (TQF_RECORD_HEAD_SIZE + TQF_STREAM_MAX_RECORD_PAYLOAD);
// A file is read this much at a time, or a frame's payload when longer.
constexpr uint64_t READ_CHUNK_BYTES = 1048576;
// Live bytes not yet parsed, at most: the stream player's parse buffer.
constexpr size_t LIVE_PENDING_LIMIT = 4194304;
constexpr GstClockTime FRAME_DURATION = TQF_FRAME_DURATION_MS * GST_MSECOND;

// A frame of a file, as indexed: where its payload lies and when it plays.
struct IndexedFrame {
  uint64_t payloadOffset;
  uint32_t info;
  GstClockTime pts;
  GstClockTime dts;
  GstClockTime duration;
};

GstStaticPadTemplate SINK_TEMPLATE =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(TQF_CONTAINER_CAPS));
GstStaticPadTemplate AUDIO_TEMPLATE =
    GST_STATIC_PAD_TEMPLATE("audio", GST_PAD_SRC, GST_PAD_SOMETIMES, GST_STATIC_CAPS(TQF_AUDIO_CAPS));

GstClockTime MsToTime(int64_t ms) { return ms < 0 ? GST_CLOCK_TIME_NONE : ms * GST_MSECOND; }
GstClockTime SamplesToTime(uint64_t samples) {
  return gst_util_uint64_scale(samples, GST_SECOND, G726_SAMPLE_RATE);
}

}  // namespace

// The demuxer's state. The streaming thread (the pull task or the chain)
// owns it; a seek changes it only while it holds the sink pad's stream lock,
// with the task paused.
struct DemuxContext {
  GstElement* element;
  GstPad* sinkpad;
  GstPad* videoPad = nullptr;
  GstPad* audioPad = nullptr;
  GstFlowCombiner* combiner = gst_flow_combiner_new();
  bool started = false;  // the header block was read and the pads made
  bool pull = false;
  GstSegment segment;
  bool segmentPending = true;
  guint32 segmentSeqnum = GST_SEQNUM_INVALID;
  bool videoDiscont = true;
  bool audioDiscont = true;
  G726State g726;

  // Live: bytes not yet cut into frames, and the clock of what was cut.
  std::vector<uint8_t> pending;
  FrameSplitter splitter;
  bool awaitKey = true;
  uint64_t liveVideoFrames = 0;
  uint64_t liveAudioSamples = 0;

  // File: every frame of streams 0 and 1 in file order, the video frames'
  // places among them, and the next frame to push.
  std::vector<IndexedFrame> frames;
  std::vector<size_t> videoFrames;
  size_t next = 0;
  uint64_t fileSize = 0;
  GstBuffer* chunk = nullptr;  // the part of the file read last
  uint64_t chunkOffset = 0;
  GstClockTime duration = GST_CLOCK_TIME_NONE;
  int rateNumerator = TQF_FRAMES_PER_SECOND;
  int rateDenominator = 1;

  DemuxContext(GstElement* owner, GstPad* sink) : element(owner), sinkpad(sink) { Reset(); }
  ~DemuxContext() {
    Reset();
    gst_flow_combiner_free(combiner);
  }
  void Reset();

  // Header block and pads.
  bool MakePads(const uint8_t* block, uint64_t size);
  GstPad* MakePad(GstPadTemplate* padTemplate, const char* name, GstCaps* caps);

  // Pushing.
  void SendPendingSegment();
  GstFlowReturn PushVideo(GstBuffer* buffer, bool key, GstClockTime pts, GstClockTime dts,
                          GstClockTime duration);
  GstFlowReturn PushAudio(const uint8_t* payload, uint32_t length, GstClockTime pts);
  void PushToSources(GstEvent* event);

  // Live.
  GstFlowReturn Chain(GstBuffer* buffer);
  GstFlowReturn TakeLiveHeader();
  GstFlowReturn CutLiveFrames();
  GstFlowReturn DispatchLive(uint32_t info, const uint8_t* payload);

  // File.
  GstFlowReturn OpenFile();
  GstFlowReturn IndexFile(uint64_t recordsEnd, std::vector<ScannedFrame>* scanned);
  bool IndexMappedFile(std::vector<ScannedFrame>* scanned);
  void TimeFrames(const std::vector<ScannedFrame>& scanned);
  GstFlowReturn PushNextFrame();
  GstBuffer* ReadPayload(uint64_t offset, uint32_t length, GstFlowReturn* result);
  void DropChunk();
  void Loop();
  void PauseTask(GstFlowReturn result);
  bool Seek(GstEvent* event);
  size_t FirstFrameAt(GstClockTime target) const;

  GstFlowReturn Fail(const char* message) {
    GST_ELEMENT_ERROR(element, STREAM, DEMUX, ("%s", message), (nullptr));
    return GST_FLOW_ERROR;
  }
};

struct _TQFDemux {
  GstElement parent;
  GstPad* sinkpad;
  DemuxContext* context;
};

G_DEFINE_TYPE(TQFDemux, tqf_demux, GST_TYPE_ELEMENT)
GST_ELEMENT_REGISTER_DEFINE(tqfdemux, "tqfdemux", GST_RANK_PRIMARY, TQF_TYPE_DEMUX)

namespace {

DemuxContext* ContextOf(GstObject* parent) { return TQF_DEMUX(parent)->context; }

gboolean SrcEvent(GstPad* pad, GstObject* parent, GstEvent* event);
gboolean SrcQuery(GstPad* pad, GstObject* parent, GstQuery* query);

}  // namespace

// ---- Header block and pads -------------------------------------------------

void DemuxContext::Reset() {
  for (GstPad** pad : {&videoPad, &audioPad}) {
    if (*pad == nullptr) continue;
    gst_flow_combiner_remove_pad(combiner, *pad);
    gst_element_remove_pad(element, *pad);
    *pad = nullptr;
  }
  started = false;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  segmentPending = true;
  segmentSeqnum = GST_SEQNUM_INVALID;
  videoDiscont = audioDiscont = true;
  G726Reset(&g726);
  pending.clear();
  splitter = FrameSplitter{};
  awaitKey = true;
  liveVideoFrames = liveAudioSamples = 0;
  frames.clear();
  videoFrames.clear();
  next = 0;
  fileSize = 0;
  DropChunk();
  duration = GST_CLOCK_TIME_NONE;
  rateNumerator = TQF_FRAMES_PER_SECOND;
  rateDenominator = 1;
}

GstPad* DemuxContext::MakePad(GstPadTemplate* padTemplate, const char* name, GstCaps* caps) {
  GstPad* pad = gst_pad_new_from_template(padTemplate, name);
  gst_pad_set_event_function(pad, SrcEvent);
  gst_pad_set_query_function(pad, SrcQuery);
  gst_pad_use_fixed_caps(pad);
  gst_pad_set_active(pad, TRUE);
  gchar* streamId = gst_pad_create_stream_id(pad, element, name);
  gst_pad_push_event(pad, gst_event_new_stream_start(streamId));
  g_free(streamId);
  gst_pad_push_event(pad, gst_event_new_caps(caps));
  gst_caps_unref(caps);
  gst_element_add_pad(element, pad);
  gst_flow_combiner_add_pad(combiner, pad);
  return pad;
}

// The pads of the header block's records: video for the first FourCC record
// (of a codec the caps table knows), audio for a G.726 record.
bool DemuxContext::MakePads(const uint8_t* block, uint64_t size) {
  const uint32_t recordCount = LoadU32(block + offsetof(TQFFileHeader, recordCount));
  bool haveDescriptor = false, haveAudio = false;
  MediaDescriptor descriptor{};
  RecordSpan span;
  for (uint32_t i = 0; i < recordCount && TQFReader::FindRecord(block, size, i, &span); ++i) {
    if (IsFourCCRecordType(span.type) && !haveDescriptor) {
      std::memcpy(&descriptor, block + span.head + TQF_RECORD_HEAD_SIZE,
                  std::min<size_t>(span.length, sizeof descriptor));
      haveDescriptor = true;
    }
    haveAudio = haveAudio || span.type == G726_RECORD_TYPE;
  }
  GstElementClass* klass = GST_ELEMENT_GET_CLASS(element);
  if (haveDescriptor) {
    GstCaps* caps = TQFVideoCaps(descriptor, rateNumerator, rateDenominator);
    if (caps != nullptr)
      videoPad = MakePad(gst_element_class_get_pad_template(klass, "video"), "video", caps);
    else
      GST_ELEMENT_WARNING(element, STREAM, CODEC_NOT_FOUND,
                          ("video coded as %" GST_FOURCC_FORMAT " is not supported",
                           GST_FOURCC_ARGS(descriptor.compression)), (nullptr));
  }
  if (haveAudio)
    audioPad = MakePad(gst_static_pad_template_get(&AUDIO_TEMPLATE), "audio",
                       gst_caps_from_string(TQF_AUDIO_CAPS));
  gst_element_no_more_pads(element);
  started = true;
  return videoPad != nullptr || audioPad != nullptr;
}

// ---- Pushing ---------------------------------------------------------------

void DemuxContext::PushToSources(GstEvent* event) {
  for (GstPad* pad : {videoPad, audioPad})
    if (pad != nullptr) gst_pad_push_event(pad, gst_event_ref(event));
  gst_event_unref(event);
}

void DemuxContext::SendPendingSegment() {
  if (!segmentPending) return;
  segmentPending = false;
  GstEvent* event = gst_event_new_segment(&segment);
  if (segmentSeqnum != GST_SEQNUM_INVALID) gst_event_set_seqnum(event, segmentSeqnum);
  PushToSources(event);
}

// Takes `buffer`, the frame's payload.
GstFlowReturn DemuxContext::PushVideo(GstBuffer* buffer, bool key, GstClockTime pts, GstClockTime dts,
                                      GstClockTime frameDuration) {
  if (videoPad == nullptr) {
    gst_buffer_unref(buffer);
    return GST_FLOW_OK;
  }
  SendPendingSegment();
  GST_BUFFER_PTS(buffer) = pts;
  GST_BUFFER_DTS(buffer) = dts;
  GST_BUFFER_DURATION(buffer) = frameDuration;
  if (!key) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  if (videoDiscont) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
  videoDiscont = false;
  return gst_flow_combiner_update_pad_flow(combiner, videoPad, gst_pad_push(videoPad, buffer));
}

// G.726 leaves decoded: two samples a byte.
GstFlowReturn DemuxContext::PushAudio(const uint8_t* payload, uint32_t length, GstClockTime pts) {
  if (audioPad == nullptr || !GST_CLOCK_TIME_IS_VALID(pts)) return GST_FLOW_OK;
  SendPendingSegment();
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, length * 2 * sizeof(int16_t), nullptr);
  GstMapInfo map;
  gst_buffer_map(buffer, &map, GST_MAP_WRITE);
  G726DecodeBlock(&g726, payload, static_cast<int32_t>(length), reinterpret_cast<int16_t*>(map.data));
  gst_buffer_unmap(buffer, &map);
  GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = pts;
  GST_BUFFER_DURATION(buffer) = SamplesToTime(uint64_t{length} * 2);
  if (audioDiscont) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
  audioDiscont = false;
  return gst_flow_combiner_update_pad_flow(combiner, audioPad, gst_pad_push(audioPad, buffer));
}

// ---- Live ------------------------------------------------------------------

GstFlowReturn DemuxContext::Chain(GstBuffer* buffer) {
  GstMapInfo map;
  if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    gst_buffer_unref(buffer);
    return Fail("cannot read the input buffer");
  }
  if (pending.size() + map.size > LIVE_PENDING_LIMIT) {
    // As the stream player does: the backlog goes and the parse resyncs.
    GST_WARNING_OBJECT(element, "dropping %zu unparsed bytes", pending.size());
    pending.clear();
    splitter.lostSync = started;
  }
  pending.insert(pending.end(), map.data, map.data + map.size);
  gst_buffer_unmap(buffer, &map);
  gst_buffer_unref(buffer);
  if (!started) {
    const GstFlowReturn result = TakeLiveHeader();
    if (result != GST_FLOW_OK || !started) return result;
  }
  return CutLiveFrames();
}

// The header block comes first; frames are cut only once it is whole.
GstFlowReturn DemuxContext::TakeLiveHeader() {
  if (pending.size() < TQF_FILE_HEADER_SIZE) return GST_FLOW_OK;
  if (LoadU32(pending.data()) != TQF_FILE_MAGIC) return Fail("not a TQF stream: no \"TQF0\" header block");
  const uint64_t size = uint64_t{LoadU32(pending.data() + 4)} + 8;
  if (size > HEADER_BLOCK_LIMIT) return Fail("not a TQF stream: the header block is too long");
  if (pending.size() < size) return GST_FLOW_OK;
  StreamHeader header;
  if (!header.Parse(pending.data(), static_cast<uint32_t>(size)))
    return Fail("not a TQF stream: the header block is malformed");
  if (!MakePads(pending.data(), size)) return Fail("the TQF stream carries nothing this demuxer plays");
  pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(size));
  return GST_FLOW_OK;
}

GstFlowReturn DemuxContext::CutLiveFrames() {
  GstFlowReturn result = GST_FLOW_OK;
  size_t position = 0;
  while (result == GST_FLOW_OK) {
    int32_t skip = 0;
    const FrameSplitter::Step step =
        splitter.Next(pending.data() + position, static_cast<int32_t>(pending.size() - position), &skip);
    position += static_cast<size_t>(skip);
    if (step == FrameSplitter::Step::MORE) break;
    const uint8_t* frame = pending.data() + position;
    const uint32_t info = LoadU32(frame + 4);
    result = DispatchLive(info, frame + TQF_FRAME_HEAD_SIZE);
    position += TQF_FRAME_HEAD_SIZE + FramePayloadLength(info);
  }
  pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(position));
  return result;
}

// As the stream player queues: nothing before the first key frame, no empty
// frames, no streams past audio.
GstFlowReturn DemuxContext::DispatchLive(uint32_t info, const uint8_t* payload) {
  const uint32_t length = FramePayloadLength(info);
  const uint32_t stream = FrameStreamNumber(info);
  if (length == 0 || stream > TQF_STREAM_AUDIO) return GST_FLOW_OK;
  if (awaitKey && !IsKeyFrameInfo(info)) return GST_FLOW_OK;
  awaitKey = false;
  if (stream == TQF_STREAM_AUDIO) {
    const GstClockTime pts = SamplesToTime(liveAudioSamples);
    liveAudioSamples += uint64_t{length} * 2;
    return PushAudio(payload, length, pts);
  }
  const GstClockTime pts = liveVideoFrames++ * FRAME_DURATION;
  return PushVideo(gst_buffer_new_memdup(payload, length), IsKeyFrameInfo(info), pts, pts, FRAME_DURATION);
}

// ---- File ------------------------------------------------------------------

namespace {

// A range of the file, pulled; null with `*result` set when it cannot be had.
GstBuffer* PullRange(GstPad* sinkpad, uint64_t offset, uint64_t length, GstFlowReturn* result) {
  GstBuffer* buffer = nullptr;
  *result = gst_pad_pull_range(sinkpad, offset, static_cast<guint>(length), &buffer);
  return *result == GST_FLOW_OK ? buffer : nullptr;
}

}  // namespace

GstFlowReturn DemuxContext::OpenFile() {
  gint64 size = 0;
  if (!gst_pad_peer_query_duration(sinkpad, GST_FORMAT_BYTES, &size) || size <= 0)
    return Fail("the size of the TQF file is unknown");
  fileSize = static_cast<uint64_t>(size);
  GstFlowReturn result;
  GstBuffer* head = PullRange(sinkpad, 0, std::min(fileSize, HEADER_BLOCK_LIMIT), &result);
  if (head == nullptr) return result;
  GstMapInfo map;
  gst_buffer_map(head, &map, GST_MAP_READ);
  const uint64_t recordsEnd = TQFReader::RecordsEnd(map.data, map.size);
  const bool isTQF = map.size >= TQF_FILE_HEADER_SIZE && LoadU32(map.data) == TQF_FILE_MAGIC;
  std::vector<ScannedFrame> scanned;
  if (!isTQF || recordsEnd == 0) {
    result = Fail("not a TQF file: no usable header block");
  } else {
    result = IndexFile(recordsEnd, &scanned);
    if (result == GST_FLOW_OK) {
      TimeFrames(scanned);
      if (!MakePads(map.data, recordsEnd)) result = Fail("the TQF file carries nothing this demuxer plays");
    }
  }
  gst_buffer_unmap(head, &map);
  gst_buffer_unref(head);
  return result;
}

namespace {

bool KeepFrame(const ScannedFrame& frame, void* context) {
  if (FrameStreamNumber(frame.entry.info) <= TQF_STREAM_AUDIO)
    static_cast<std::vector<ScannedFrame>*>(context)->push_back(frame);
  return true;
}

}  // namespace

// The file reader's walk: the same frames, the same numbers. When upstream
// reads a local file of the size it gives, the walk runs over a mapping of
// it, as the library's reader does, and touches only the frame heads;
// otherwise it pulls a window at each frame head.
GstFlowReturn DemuxContext::IndexFile(uint64_t recordsEnd, std::vector<ScannedFrame>* scanned) {
  if (IndexMappedFile(scanned)) {
    GST_DEBUG_OBJECT(element, "indexed %zu frames through a mapping", scanned->size());
    return GST_FLOW_OK;
  }
  scanned->clear();
  // One buffer serves every window: the source fills it in place.
  GstBuffer* window = gst_buffer_new_allocate(nullptr, INDEX_WINDOW_BYTES, nullptr);
  GstFlowReturn result = GST_FLOW_OK;
  FrameWalk walk{recordsEnd, false};
  while (!walk.finished && result == GST_FLOW_OK) {
    const uint64_t before = walk.position;
    gst_buffer_set_size(window, static_cast<gssize>(std::min(INDEX_WINDOW_BYTES, fileSize - before)));
    result = gst_pad_pull_range(sinkpad, before, static_cast<guint>(gst_buffer_get_size(window)), &window);
    if (result != GST_FLOW_OK) break;
    GstMapInfo map;
    gst_buffer_map(window, &map, GST_MAP_READ);
    walk = TQFReader::WalkWindow(map.data, before, map.size, fileSize, before, KeepFrame, scanned, nullptr);
    gst_buffer_unmap(window, &map);
    // A source that gives less than asked near the end is a file that ended.
    if (!walk.finished && walk.position == before) break;
  }
  gst_buffer_unref(window);
  GST_DEBUG_OBJECT(element, "indexed %zu frames by pulling", scanned->size());
  return result;
}

bool DemuxContext::IndexMappedFile(std::vector<ScannedFrame>* scanned) {
  GstQuery* query = gst_query_new_uri();
  gchar* uri = nullptr;
  if (gst_pad_peer_query(sinkpad, query)) gst_query_parse_uri(query, &uri);
  gst_query_unref(query);
  gchar* path = uri != nullptr ? g_filename_from_uri(uri, nullptr, nullptr) : nullptr;
  g_free(uri);
  MappedFile file;
  const bool mapped = path != nullptr &&
                      file.Open(path, MAPPED_READ, /*offset=*/0, MAPPED_WHOLE_FILE, MAPPED_PRIVATE,
                                /*mappingName=*/nullptr, /*readOnly=*/0) &&
                      file.view != nullptr && file.fileSize == fileSize;
  g_free(path);
  return mapped && TQFReader::ScanFrames(static_cast<const uint8_t*>(file.view), file.fileSize, KeepFrame,
                                         scanned, nullptr);
}

// Times every frame: the video by the export's timeline (stamps when they are
// milliseconds, else 40 ms a frame), the audio by its stamps on the same
// clock, or else by its samples.
void DemuxContext::TimeFrames(const std::vector<ScannedFrame>& scanned) {
  std::vector<uint32_t> stamps;
  for (const ScannedFrame& frame : scanned)
    if (FrameStreamNumber(frame.entry.info) == TQF_STREAM_VIDEO) stamps.push_back(frame.entry.stamp);
  const VideoTimeline timeline(stamps, 0);
  if (!stamps.empty()) {
    rateNumerator = static_cast<int>(timeline.RateNumerator());
    rateDenominator = static_cast<int>(timeline.RateDenominator());
  }
  uint64_t audioSamples = 0;
  GstClockTime end = 0;
  for (const ScannedFrame& frame : scanned) {
    IndexedFrame indexed{frame.entry.payloadOffset, frame.entry.info, 0, 0, 0};
    if (FrameStreamNumber(frame.entry.info) == TQF_STREAM_VIDEO) {
      const size_t i = videoFrames.size();
      videoFrames.push_back(frames.size());
      indexed.pts = MsToTime(timeline.Pts(i));
      indexed.dts = MsToTime(timeline.Dts(i));
      indexed.duration = MsToTime(timeline.Duration(i));
    } else {
      indexed.pts = timeline.FromStamps()
                        ? MsToTime(int64_t{frame.entry.stamp} - timeline.OriginMs())
                        : SamplesToTime(audioSamples);
      audioSamples += uint64_t{FramePayloadLength(frame.entry.info)} * 2;
      indexed.duration = SamplesToTime(uint64_t{FramePayloadLength(frame.entry.info)} * 2);
    }
    if (GST_CLOCK_TIME_IS_VALID(indexed.pts)) end = std::max(end, indexed.pts + indexed.duration);
    frames.push_back(indexed);
  }
  duration = end;
  segment.duration = duration;
  // Playback starts at the first key frame, as the file player's does.
  next = FirstFrameAt(0);
}

// Where playing from `target` starts: the key frame at or before the last
// video frame shown at or before `target`, or the first key frame.
size_t DemuxContext::FirstFrameAt(GstClockTime target) const {
  if (videoFrames.empty()) return 0;
  size_t last = 0;
  for (size_t i = 0; i < videoFrames.size(); ++i)
    if (frames[videoFrames[i]].pts <= target) last = i;
  size_t key = last;
  while (key > 0 && !IsKeyFrameInfo(frames[videoFrames[key]].info)) --key;
  if (!IsKeyFrameInfo(frames[videoFrames[key]].info)) {
    // Nothing at or before: the first key frame after, or frame 0 in a file without one.
    while (key < videoFrames.size() && !IsKeyFrameInfo(frames[videoFrames[key]].info)) ++key;
    if (key == videoFrames.size()) key = 0;
  }
  return videoFrames[key];
}

GstFlowReturn DemuxContext::PushNextFrame() {
  if (next >= frames.size()) return GST_FLOW_EOS;
  const IndexedFrame& frame = frames[next];
  const uint32_t stream = FrameStreamNumber(frame.info);
  if (stream == TQF_STREAM_VIDEO && GST_CLOCK_TIME_IS_VALID(segment.stop) &&
      IsKeyFrameInfo(frame.info) && frame.dts > segment.stop)
    return GST_FLOW_EOS;
  ++next;
  const uint32_t length = FramePayloadLength(frame.info);
  if (length == 0) return GST_FLOW_OK;
  GstFlowReturn result;
  GstBuffer* payload = ReadPayload(frame.payloadOffset, length, &result);
  if (payload == nullptr) return result;
  if (stream == TQF_STREAM_VIDEO)
    return PushVideo(payload, IsKeyFrameInfo(frame.info), frame.pts, frame.dts, frame.duration);
  GstMapInfo map;
  gst_buffer_map(payload, &map, GST_MAP_READ);
  result = PushAudio(map.data, length, frame.pts);
  gst_buffer_unmap(payload, &map);
  gst_buffer_unref(payload);
  return result;
}

// The file is read a chunk at a time; the payloads inside a chunk leave as
// buffers that share its memory.
GstBuffer* DemuxContext::ReadPayload(uint64_t offset, uint32_t length, GstFlowReturn* result) {
  if (chunk == nullptr || offset < chunkOffset || offset + length > chunkOffset + gst_buffer_get_size(chunk)) {
    DropChunk();
    const uint64_t wanted = std::min(std::max<uint64_t>(length, READ_CHUNK_BYTES), fileSize - offset);
    chunk = PullRange(sinkpad, offset, wanted, result);
    if (chunk == nullptr) return nullptr;
    chunkOffset = offset;
    if (gst_buffer_get_size(chunk) < length) {
      *result = GST_FLOW_EOS;  // the file was cut short under the payload
      return nullptr;
    }
  }
  return gst_buffer_copy_region(chunk, GST_BUFFER_COPY_MEMORY, offset - chunkOffset, length);
}

void DemuxContext::DropChunk() {
  if (chunk != nullptr) gst_buffer_unref(chunk);
  chunk = nullptr;
}

void DemuxContext::Loop() {
  GstFlowReturn result = started ? GST_FLOW_OK : OpenFile();
  if (result == GST_FLOW_OK) result = PushNextFrame();
  if (result != GST_FLOW_OK) PauseTask(result);
}

void DemuxContext::PauseTask(GstFlowReturn result) {
  GST_DEBUG_OBJECT(element, "pausing: %s", gst_flow_get_name(result));
  gst_pad_pause_task(sinkpad);
  if (result == GST_FLOW_FLUSHING) return;
  if (result == GST_FLOW_EOS && (segment.flags & GST_SEGMENT_FLAG_SEGMENT) != 0) {
    const gint64 stop = GST_CLOCK_TIME_IS_VALID(segment.stop) ? segment.stop : duration;
    gst_element_post_message(element, gst_message_new_segment_done(GST_OBJECT(element), GST_FORMAT_TIME, stop));
    PushToSources(gst_event_new_segment_done(GST_FORMAT_TIME, stop));
    return;
  }
  if (result == GST_FLOW_NOT_LINKED || result < GST_FLOW_EOS) GST_ELEMENT_FLOW_ERROR(element, result);
  GstEvent* eos = gst_event_new_eos();
  if (segmentSeqnum != GST_SEQNUM_INVALID) gst_event_set_seqnum(eos, segmentSeqnum);
  PushToSources(eos);
}

namespace {

void LoopTask(gpointer pad) { ContextOf(GST_OBJECT_PARENT(pad))->Loop(); }

}  // namespace

bool DemuxContext::Seek(GstEvent* event) {
  gdouble rate;
  GstFormat format;
  GstSeekFlags flags;
  GstSeekType startType, stopType;
  gint64 start, stop;
  gst_event_parse_seek(event, &rate, &format, &flags, &startType, &start, &stopType, &stop);
  if (!pull || format != GST_FORMAT_TIME || rate <= 0.0) return false;
  const bool flush = (flags & GST_SEEK_FLAG_FLUSH) != 0;
  const guint32 seqnum = gst_event_get_seqnum(event);
  if (flush) {
    GstEvent* flushStart = gst_event_new_flush_start();
    gst_event_set_seqnum(flushStart, seqnum);
    gst_pad_push_event(sinkpad, gst_event_ref(flushStart));
    PushToSources(flushStart);
  } else {
    gst_pad_pause_task(sinkpad);
  }
  GST_PAD_STREAM_LOCK(sinkpad);
  bool done = started;
  if (done) {
    GstSegment seeking = segment;
    gboolean update;
    done = gst_segment_do_seek(&seeking, rate, format, flags, startType, start, stopType, stop, &update);
    if (done) {
      next = FirstFrameAt(seeking.position);
      DropChunk();
      const GstClockTime keyTime = frames[next].pts;
      // An accurate seek keeps the target as the start; the frames from the
      // key frame up to it are decoded and clipped downstream.
      if ((flags & GST_SEEK_FLAG_ACCURATE) == 0 && GST_CLOCK_TIME_IS_VALID(keyTime))
        seeking.start = seeking.position = seeking.time = keyTime;
      GST_DEBUG_OBJECT(element, "seek to %" GST_TIME_FORMAT ": frame %zu at %" GST_TIME_FORMAT,
                       GST_TIME_ARGS(seeking.position), next, GST_TIME_ARGS(keyTime));
      segment = seeking;
      segmentPending = true;
      segmentSeqnum = seqnum;
      videoDiscont = audioDiscont = true;
      G726Reset(&g726);
      gst_flow_combiner_reset(combiner);
    }
  }
  if (flush) {
    GstEvent* flushStop = gst_event_new_flush_stop(TRUE);
    gst_event_set_seqnum(flushStop, seqnum);
    gst_pad_push_event(sinkpad, gst_event_ref(flushStop));
    PushToSources(flushStop);
  }
  gst_pad_start_task(sinkpad, LoopTask, sinkpad, nullptr);
  GST_PAD_STREAM_UNLOCK(sinkpad);
  return done;
}

// ---- Pad functions ---------------------------------------------------------

namespace {

gboolean SrcEvent(GstPad* pad, GstObject* parent, GstEvent* event) {
  DemuxContext* context = ContextOf(parent);
  if (GST_EVENT_TYPE(event) != GST_EVENT_SEEK) return gst_pad_event_default(pad, parent, event);
  const gboolean done = context->pull ? context->Seek(event) : gst_pad_push_event(context->sinkpad, gst_event_ref(event));
  gst_event_unref(event);
  return done;
}

gboolean SrcQuery(GstPad* pad, GstObject* parent, GstQuery* query) {
  DemuxContext* context = ContextOf(parent);
  GstFormat format;
  switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_DURATION:
      gst_query_parse_duration(query, &format, nullptr);
      if (format != GST_FORMAT_TIME || !context->pull || !GST_CLOCK_TIME_IS_VALID(context->duration)) break;
      gst_query_set_duration(query, GST_FORMAT_TIME, context->duration);
      return TRUE;
    case GST_QUERY_SEEKING:
      gst_query_parse_seeking(query, &format, nullptr, nullptr, nullptr);
      if (format != GST_FORMAT_TIME) break;
      gst_query_set_seeking(query, GST_FORMAT_TIME, context->pull, 0,
                            context->pull ? static_cast<gint64>(context->duration) : -1);
      return TRUE;
    default:
      break;
  }
  return gst_pad_query_default(pad, parent, query);
}

GstFlowReturn SinkChain(GstPad*, GstObject* parent, GstBuffer* buffer) {
  return ContextOf(parent)->Chain(buffer);
}

gboolean SinkEvent(GstPad* pad, GstObject* parent, GstEvent* event) {
  DemuxContext* context = ContextOf(parent);
  switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_CAPS:
    case GST_EVENT_SEGMENT:  // in bytes; the demuxer sends its own in time
    case GST_EVENT_STREAM_START:
      gst_event_unref(event);
      return TRUE;
    case GST_EVENT_EOS:
      if (!context->started) {
        GST_ELEMENT_ERROR(context->element, STREAM, DEMUX,
                          ("the stream ended before a whole TQF header block"), (nullptr));
        gst_event_unref(event);
        return FALSE;
      }
      break;
    case GST_EVENT_FLUSH_STOP:
      // The bytes after a flush start anywhere: cut from the next proved frame.
      context->pending.clear();
      context->splitter.lostSync = context->started;
      context->segmentPending = true;
      context->videoDiscont = context->audioDiscont = true;
      gst_flow_combiner_reset(context->combiner);
      break;
    default:
      break;
  }
  return gst_pad_event_default(pad, parent, event);
}

gboolean SinkActivate(GstPad* pad, GstObject*) {
  GstQuery* query = gst_query_new_scheduling();
  bool pull = gst_pad_peer_query(pad, query) &&
              gst_query_has_scheduling_mode_with_flags(query, GST_PAD_MODE_PULL, GST_SCHEDULING_FLAG_SEEKABLE);
  gst_query_unref(query);
  return gst_pad_activate_mode(pad, pull ? GST_PAD_MODE_PULL : GST_PAD_MODE_PUSH, TRUE);
}

gboolean SinkActivateMode(GstPad* pad, GstObject* parent, GstPadMode mode, gboolean active) {
  DemuxContext* context = ContextOf(parent);
  if (mode == GST_PAD_MODE_PUSH) {
    context->pull = false;
    return TRUE;
  }
  if (mode != GST_PAD_MODE_PULL) return FALSE;
  context->pull = active;
  return active ? gst_pad_start_task(pad, LoopTask, pad, nullptr) : gst_pad_stop_task(pad);
}

}  // namespace

// ---- The element -----------------------------------------------------------

static GstStateChangeReturn tqf_demux_change_state(GstElement* element, GstStateChange transition) {
  const GstStateChangeReturn result =
      GST_ELEMENT_CLASS(tqf_demux_parent_class)->change_state(element, transition);
  if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) TQF_DEMUX(element)->context->Reset();
  return result;
}

static void tqf_demux_finalize(GObject* object) {
  delete TQF_DEMUX(object)->context;
  G_OBJECT_CLASS(tqf_demux_parent_class)->finalize(object);
}

static void tqf_demux_class_init(TQFDemuxClass* klass) {
  GST_DEBUG_CATEGORY_INIT(tqf_demux_debug, "tqfdemux", 0, "TQF demuxer");
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  G_OBJECT_CLASS(klass)->finalize = tqf_demux_finalize;
  element->change_state = tqf_demux_change_state;
  gst_element_class_add_static_pad_template(element, &SINK_TEMPLATE);
  GstCaps* video = TQFVideoTemplateCaps();
  gst_element_class_add_pad_template(element, gst_pad_template_new("video", GST_PAD_SRC, GST_PAD_SOMETIMES, video));
  gst_caps_unref(video);
  gst_element_class_add_static_pad_template(element, &AUDIO_TEMPLATE);
  gst_element_class_set_static_metadata(element, "TQF demuxer", "Codec/Demuxer",
                                        "Splits a TQF file or live TQF stream into its video and audio",
                                        "TQFPlay developers");
}

static void tqf_demux_init(TQFDemux* demux) {
  demux->sinkpad = gst_pad_new_from_static_template(&SINK_TEMPLATE, "sink");
  gst_pad_set_activate_function(demux->sinkpad, SinkActivate);
  gst_pad_set_activatemode_function(demux->sinkpad, SinkActivateMode);
  gst_pad_set_chain_function(demux->sinkpad, SinkChain);
  gst_pad_set_event_function(demux->sinkpad, SinkEvent);
  gst_element_add_pad(GST_ELEMENT(demux), demux->sinkpad);
  demux->context = new DemuxContext(GST_ELEMENT(demux), demux->sinkpad);
}
