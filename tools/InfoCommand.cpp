// tqfplay info: the header, the records and the frames of a TQF file. Frame
// counts are those of the player's index; the one scan of the reader also
// tells what the index leaves out (streams 2 to 15, the bytes skipped as
// damage, the unindexed tail).
#include "InfoCommand.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "InputProblem.h"
#include "MediaSource.h"
#include "Options.h"
#include "TQFFormat.h"
#include "TQFReader.h"
#include "VideoCodec.h"

namespace {

constexpr const char NAME[] = "info";
constexpr uint32_t STREAM_COUNT = 16;
constexpr size_t KEY_POSITIONS_SHOWN = 16;  // in the text form; JSON lists all
constexpr size_t DAMAGE_OFFSETS_KEPT = 64;

struct RecordInfo {
  uint32_t type;
  int32_t length;
  bool hasPicture;  // a FourCC record long enough for a MediaDescriptor
  MediaDescriptor descriptor;
};

struct StreamInfo {
  uint32_t frames = 0;
  std::vector<uint32_t> keyFrames;  // frame numbers within the stream
  uint64_t payloadBytes = 0;
  uint32_t firstStamp = 0;
  uint32_t lastStamp = 0;
};

// A stretch of bytes between frames that the scan stepped over.
struct Damage {
  uint64_t offset;
  uint64_t length;
};

struct FileInfo {
  const char* path;
  uint64_t fileSize;
  TQFFileHeader header;
  std::vector<RecordInfo> records;
  StreamInfo streams[STREAM_COUNT];
  FrameScanSummary scan;
  uint64_t indexedEnd;  // end of the last frame the scan kept
  std::vector<Damage> damage;  // the first DAMAGE_OFFSETS_KEPT stretches
  uint64_t damageCount;
};

bool CountFrame(const ScannedFrame& frame, void* context) {
  auto* info = static_cast<FileInfo*>(context);
  const uint64_t expected = info->indexedEnd != 0 ? info->indexedEnd : info->scan.recordsEnd;
  if (frame.syncOffset > expected) {
    if (info->damage.size() < DAMAGE_OFFSETS_KEPT)
      info->damage.push_back(Damage{expected, frame.syncOffset - expected});
    ++info->damageCount;
  }
  const uint32_t number = FrameStreamNumber(frame.entry.info);
  StreamInfo& stream = info->streams[number];
  // Audio frames all carry the key flag: only video key frames are listed.
  if (number == TQF_STREAM_VIDEO && IsKeyFrameInfo(frame.entry.info))
    stream.keyFrames.push_back(stream.frames);
  if (stream.frames == 0) stream.firstStamp = frame.entry.stamp;
  stream.lastStamp = frame.entry.stamp;
  ++stream.frames;
  uint32_t length = FramePayloadLength(frame.entry.info);
  stream.payloadBytes += length;
  info->indexedEnd = uint64_t{frame.entry.payloadOffset} + length;
  return true;
}

// The records by the reader's GetRecord: first the length, then the payload.
bool ReadRecords(TQFReader& reader, FileInfo& info) {
  for (uint32_t i = 0; i < info.header.recordCount; ++i) {
    RecordInfo record{};
    record.length = INT32_MAX;
    if (!reader.GetRecord(static_cast<int32_t>(i), &record.type, nullptr, &record.length))
      return false;
    std::vector<uint8_t> payload(static_cast<size_t>(record.length));
    if (!reader.GetRecord(static_cast<int32_t>(i), &record.type, payload.data(), &record.length))
      return false;
    record.hasPicture = IsFourCCRecordType(record.type) &&
                        payload.size() >= sizeof(MediaDescriptor);
    if (record.hasPicture) std::memcpy(&record.descriptor, payload.data(), sizeof record.descriptor);
    info.records.push_back(record);
  }
  return true;
}

// A FourCC as its four characters when they are printable, else as hex.
// The length of the well-formed UTF-8 sequence at `p`, or 0.
size_t Utf8Length(const unsigned char* p) {
  const size_t length = p[0] < 0x80 ? 1 : (p[0] >> 5) == 0x6 ? 2 : (p[0] >> 4) == 0xE ? 3
                                                                  : (p[0] >> 3) == 0x1E ? 4 : 0;
  for (size_t i = 1; i < length; ++i)
    if ((p[i] >> 6) != 0x2) return 0;
  return length;
}

// A JSON string of `text`; a byte that is not part of well-formed UTF-8 (a
// file name in another encoding) is escaped as the code point of its value.
std::string JsonString(const char* text) {
  std::string out = "\"";
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != '\0';) {
    const size_t length = Utf8Length(p);
    if (*p == '"' || *p == '\\') {
      out += '\\';
      out += static_cast<char>(*p++);
    } else if (*p < 0x20 || length == 0) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", *p++);
      out += escaped;
    } else {
      out.append(reinterpret_cast<const char*>(p), length);
      p += length;
    }
  }
  return out + "\"";
}

uint64_t BitRate(const FileInfo& info);

// Smallest and largest distance between successive key frames; 0 if fewer
// than two.
void KeySpacing(const std::vector<uint32_t>& keys, uint32_t* smallest, uint32_t* largest) {
  *smallest = 0;
  *largest = 0;
  for (size_t i = 1; i < keys.size(); ++i) {
    uint32_t gap = keys[i] - keys[i - 1];
    if (i == 1 || gap < *smallest) *smallest = gap;
    if (gap > *largest) *largest = gap;
  }
}

uint64_t DurationMs(const FileInfo& info) {
  return uint64_t{info.streams[TQF_STREAM_VIDEO].frames} * TQF_FRAME_DURATION_MS;
}

// All payload bytes over the video's duration at 40 ms a frame.
uint64_t BitRate(const FileInfo& info) {
  const uint64_t ms = DurationMs(info);
  uint64_t bytes = 0;
  for (const StreamInfo& stream : info.streams) bytes += stream.payloadBytes;
  return ms == 0 ? 0 : bytes * 8 * 1000 / ms;
}

uint64_t TailBytes(const FileInfo& info) {
  uint64_t end = info.indexedEnd != 0 ? info.indexedEnd : info.scan.recordsEnd;
  return info.fileSize > end ? info.fileSize - end : 0;
}

void PrintText(const FileInfo& info) {
  const TQFFileHeader& h = info.header;
  std::printf("file %s: %" PRIu64 " bytes\n", info.path, info.fileSize);
  std::printf("header: magic \"%s\", headerLength %" PRIu32 ", %s, frames from offset %" PRIu64
              "\n",
              FourCCText(h.magic).c_str(), h.headerLength, Count(h.recordCount, "record").c_str(),
              info.scan.recordsEnd);
  for (size_t i = 0; i < info.records.size(); ++i) {
    const RecordInfo& r = info.records[i];
    std::printf("record %zu: type %s, %" PRId32 " bytes", i,
                IsFourCCRecordType(r.type) ? ("\"" + FourCCText(r.type) + "\"").c_str()
                                           : std::to_string(r.type).c_str(),
                r.length);
    const VideoCodec* codec = r.hasPicture ? FindVideoCodec(r.descriptor.compression) : nullptr;
    if (r.hasPicture)
      std::printf(", %" PRId32 "x%" PRId32 ", compression \"%s\"%s%s", r.descriptor.width,
                  r.descriptor.height, FourCCText(r.descriptor.compression).c_str(),
                  codec != nullptr ? (std::string(" (") + codec->name + ")").c_str() : "",
                  IsPlayablePictureSize(r.descriptor.width, r.descriptor.height)
                      ? ""
                      : " (a size players refuse)");
    if (r.type == G726_RECORD_TYPE)
      std::printf(", G.726 audio at %d Hz, 32 kbit/s", G726_SAMPLE_RATE);
    std::printf("\n");
  }
  for (uint32_t s = 0; s < STREAM_COUNT; ++s) {
    const StreamInfo& stream = info.streams[s];
    if (stream.frames == 0 && s > TQF_STREAM_AUDIO) continue;
    const char* kind = s == TQF_STREAM_VIDEO ? "video" : s == TQF_STREAM_AUDIO ? "audio" : "not indexed";
    std::printf("stream %" PRIu32 " (%s): %s, %" PRIu64 " payload bytes, stamps %" PRIu32
                " to %" PRIu32,
                s, kind, Count(stream.frames, "frame").c_str(), stream.payloadBytes,
                stream.firstStamp, stream.lastStamp);
    if (s == TQF_STREAM_VIDEO) std::printf(", %s", Count(stream.keyFrames.size(), "key frame").c_str());
    uint32_t smallest, largest;
    KeySpacing(stream.keyFrames, &smallest, &largest);
    if (stream.keyFrames.size() >= 2)
      std::printf(", spacing %" PRIu32 " to %" PRIu32 " frames", smallest, largest);
    if (!stream.keyFrames.empty()) {
      std::printf(", at");
      for (size_t k = 0; k < stream.keyFrames.size() && k < KEY_POSITIONS_SHOWN; ++k)
        std::printf(" %" PRIu32, stream.keyFrames[k]);
      if (stream.keyFrames.size() > KEY_POSITIONS_SHOWN) std::printf(" ...");
    }
    std::printf("\n");
  }
  uint64_t ms = DurationMs(info);
  std::printf("duration: %" PRIu64 ".%03" PRIu64 " s (%" PRIu32 " video frames of 40 ms)\n",
              ms / 1000, ms % 1000, info.streams[TQF_STREAM_VIDEO].frames);
  std::printf("bit rate: %" PRIu64 " bit/s\n", BitRate(info));
  std::printf("damage: %" PRIu64 " bytes skipped between frames", info.scan.skippedBytes);
  for (size_t d = 0; d < info.damage.size() && d < KEY_POSITIONS_SHOWN; ++d)
    std::printf("%s %" PRIu64 " (%" PRIu64 " bytes)", d ? "," : ", at", info.damage[d].offset,
                info.damage[d].length);
  std::printf("\n");
  std::printf("tail: %" PRIu64 " bytes after the last indexed frame (the last frame is never indexed)\n",
              TailBytes(info));
}

void PrintJson(const FileInfo& info) {
  const TQFFileHeader& h = info.header;
  std::printf("{\"file\":%s,\"size\":%" PRIu64 ",", JsonString(info.path).c_str(), info.fileSize);
  std::printf("\"header\":{\"magic\":%s,\"headerLength\":%" PRIu32 ",\"recordCount\":%" PRIu32
              ",\"framesOffset\":%" PRIu64 "},",
              JsonString(FourCCText(h.magic).c_str()).c_str(), h.headerLength, h.recordCount,
              info.scan.recordsEnd);
  std::printf("\"records\":[");
  for (size_t i = 0; i < info.records.size(); ++i) {
    const RecordInfo& r = info.records[i];
    std::printf("%s{\"type\":%" PRIu32 ",\"fourcc\":%s,\"length\":%" PRId32, i ? "," : "", r.type,
                IsFourCCRecordType(r.type) ? JsonString(FourCCText(r.type).c_str()).c_str() : "null",
                r.length);
    if (r.hasPicture)
      std::printf(",\"width\":%" PRId32 ",\"height\":%" PRId32 ",\"compression\":%s",
                  r.descriptor.width, r.descriptor.height,
                  JsonString(FourCCText(r.descriptor.compression).c_str()).c_str());
    const VideoCodec* codec = r.hasPicture ? FindVideoCodec(r.descriptor.compression) : nullptr;
    if (codec != nullptr) std::printf(",\"codec\":%s", JsonString(codec->name).c_str());
    if (r.type == G726_RECORD_TYPE)
      std::printf(",\"codec\":\"G.726\",\"sampleRate\":%d,\"bitRate\":32000", G726_SAMPLE_RATE);
    std::printf("}");
  }
  std::printf("],\"streams\":[");
  bool first = true;
  for (uint32_t s = 0; s < STREAM_COUNT; ++s) {
    const StreamInfo& stream = info.streams[s];
    if (stream.frames == 0 && s > TQF_STREAM_AUDIO) continue;
    uint32_t smallest, largest;
    KeySpacing(stream.keyFrames, &smallest, &largest);
    std::printf("%s{\"stream\":%" PRIu32 ",\"indexed\":%s,\"frames\":%" PRIu32
                ",\"payloadBytes\":%" PRIu64 ",\"firstStamp\":%" PRIu32 ",\"lastStamp\":%" PRIu32
                ",\"keyFrames\":[",
                first ? "" : ",", s, s <= TQF_STREAM_AUDIO ? "true" : "false", stream.frames,
                stream.payloadBytes, stream.firstStamp, stream.lastStamp);
    for (size_t k = 0; k < stream.keyFrames.size(); ++k)
      std::printf("%s%" PRIu32, k ? "," : "", stream.keyFrames[k]);
    std::printf("],\"keySpacingMin\":%" PRIu32 ",\"keySpacingMax\":%" PRIu32 "}", smallest, largest);
    first = false;
  }
  std::printf("],\"durationMs\":%" PRIu64 ",\"bitRate\":%" PRIu64 ",\"skippedBytes\":%" PRIu64
              ",\"damageCount\":%" PRIu64 ",\"damage\":[",
              DurationMs(info), BitRate(info), info.scan.skippedBytes, info.damageCount);
  for (size_t d = 0; d < info.damage.size(); ++d)
    std::printf("%s{\"offset\":%" PRIu64 ",\"length\":%" PRIu64 "}", d ? "," : "",
                info.damage[d].offset, info.damage[d].length);
  std::printf("],\"tailBytes\":%" PRIu64 "}\n", TailBytes(info));
}

int RunInfo(int argc, char** argv) {
  const char* path = nullptr;
  bool json = false;
  const OptionSpec specs[] = {{"--json", OptionKind::FLAG, &json}};
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), &path, 1, 1)) return EXIT_USAGE;
  TQFReader reader;
  if (!reader.Open(path)) return CommandError(NAME, "%s", DescribeInputProblem(path).c_str());
  FileInfo info{};
  info.path = path;
  info.fileSize = reader.fileSize;
  if (!reader.Read(0, &info.header, sizeof info.header))
    return CommandError(NAME, "%s: the file was cut short while it was read", path);
  if (!ReadRecords(reader, info)) return CommandError(NAME, "%s: unreadable records", path);
  TQFReader::ScanFrames(static_cast<const uint8_t*>(reader.view), reader.fileSize, CountFrame,
                        &info, &info.scan);
  if (json)
    PrintJson(info);
  else
    PrintText(info);
  if (std::fflush(stdout) != 0 || std::ferror(stdout))
    return CommandError(NAME, "writing the report failed: %s", std::strerror(errno));
  return 0;
}

}  // namespace

const Command INFO_COMMAND = {
    "info",
    "show the header, records, frames and damage of a TQF file",
    "info FILE [--json]",
    "Shows the header and records of a TQF file (types, FourCC and the codec it\n"
    "names, picture size), the frames of each stream as the player indexes them,\n"
    "the key frames (by their number in the stream) and their spacing, the\n"
    "duration at 40 ms a video frame, and the bytes skipped as damage.\n"
    "\n"
    "  --json   print one JSON object instead of text\n",
    RunInfo,
};
