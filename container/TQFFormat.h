// The TQF byte layout: the header block, its records, the frames and every
// limit of the format. One layout serves as a file on disk and as a live
// stream: the header block first, then frames back to back up to the end.
//
//   offset 0                  TQFFileHeader (16 bytes)
//   offset 16                 recordCount records: TQFRecordHead + payload
//   offset headerLength + 8   frames: sync, TQFFrameHeader, payload
//
// All integers are little-endian and nothing is aligned: a frame may start at
// any byte. Record n belongs to stream n.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

static_assert(std::endian::native == std::endian::little,
              "the TQF layouts are read in place as little-endian words");

// The four characters of a FourCC in file order, as a little-endian u32.
constexpr uint32_t MakeFourCC(char a, char b, char c, char d) {
  return static_cast<uint32_t>(static_cast<uint8_t>(a)) |
         static_cast<uint32_t>(static_cast<uint8_t>(b)) << 8 |
         static_cast<uint32_t>(static_cast<uint8_t>(c)) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(d)) << 24;
}

constexpr uint32_t TQF_FILE_MAGIC = MakeFourCC('T', 'Q', 'F', '0');  // "TQF0"
constexpr uint32_t TQF_FRAME_SYNC = 0x5AA5AA55;                       // bytes 55 AA A5 5A

constexpr uint32_t FOURCC_H264 = MakeFourCC('H', '2', '6', '4');  // 0x34363248
constexpr uint32_t FOURCC_G264 = MakeFourCC('G', '2', '6', '4');  // 0x34363247
constexpr uint32_t FOURCC_AVS0 = MakeFourCC('A', 'V', 'S', '0');  // 0x30535641
constexpr uint32_t FOURCC_JPEG = MakeFourCC('J', 'P', 'E', 'G');  // 0x4745504A
static_assert(FOURCC_H264 == 0x34363248 && FOURCC_G264 == 0x34363247 &&
              FOURCC_AVS0 == 0x30535641 && FOURCC_JPEG == 0x4745504A);
// H.265 has two names in the field: "H265" is what the writers here put, and
// "HEVC" is read as the same codec.
constexpr uint32_t FOURCC_H265 = MakeFourCC('H', '2', '6', '5');  // 0x35363248
constexpr uint32_t FOURCC_HEVC = MakeFourCC('H', 'E', 'V', 'C');  // 0x43564548
static_assert(FOURCC_H265 == 0x35363248 && FOURCC_HEVC == 0x43564548);
// The record type of a G.726 audio stream (the payload: a WAVEFORMATEX).
constexpr uint32_t G726_RECORD_TYPE = 100;
// Writers cut G.726 into frames of 320 bytes: 640 samples, 80 ms at 8 kHz.
constexpr uint32_t G726_FRAME_BYTES = 320;

// Sizes of the fixed parts.
constexpr uint32_t TQF_FILE_HEADER_SIZE = 16;
constexpr uint32_t TQF_RECORD_HEAD_SIZE = 8;
constexpr uint32_t TQF_FRAME_HEAD_SIZE = 12;  // sync, info, stamp
constexpr uint32_t TQF_MEDIA_DESCRIPTOR_SIZE = 40;
// headerLength of a header block with no records: it counts from offset 8.
constexpr uint32_t TQF_EMPTY_HEADER_LENGTH = 8;

// Limits of the format. The writer's 15 and the readers' 16 differ on purpose.
constexpr uint32_t TQF_WRITER_MAX_RECORDS = 15;
constexpr uint32_t TQF_READER_MAX_RECORDS = 16;
constexpr int32_t TQF_MAX_RECORD_INDEX = 15;
constexpr uint32_t TQF_STREAM_MAX_RECORD_PAYLOAD = 65536;
constexpr uint32_t TQF_FIRST_RECORD_LENGTH = 40;       // or the long form below
constexpr uint32_t TQF_FIRST_RECORD_LENGTH_LONG = 44;  // 40 bytes and one unread word
constexpr uint32_t TQF_FIRST_RECORD_BUFFER = 256;
constexpr uint32_t TQF_MAX_FRAME_PAYLOAD = 0xFFFFF;             // 20 bits: 1,048,575
constexpr uint32_t TQF_STREAM_MAX_FRAME_PAYLOAD = 524288;       // live stream
constexpr uint32_t TQF_FILE_READ_BUFFER_SIZE = 2097152;         // file playback
constexpr uint32_t TQF_FRAME_DURATION_MS = 40;                  // every frame, by decree
constexpr uint32_t TQF_FRAMES_PER_SECOND = 25;

// The stream numbers the format names.
constexpr uint32_t TQF_STREAM_VIDEO = 0;
constexpr uint32_t TQF_STREAM_AUDIO = 1;

// Bits of a frame's `info` word.
constexpr uint32_t TQF_INFO_LENGTH_SHIFT = 12;    // bits 31..12: payload length
constexpr uint32_t TQF_INFO_KEY_FRAME = 1u << 8;  // bit 8: decoding can begin here
constexpr uint32_t TQF_INFO_STREAM_MASK = 0xF;    // bits 3..0: stream number

// The text TQ_GetDecoderInf gives a host.
constexpr const char TQF_DECODER_INFO[] =
    "Company=Company;BuildTime=20120313;Version=3.0;Protocol=TQ_TQF_V3.0;"
    "Check=0,4,0x54514630;FileHeadLen=20";

struct TQFFileHeader {
  uint32_t magic;         // "TQF0"; looked at only by stream opening
  uint32_t headerLength;  // whole header block minus 8
  uint32_t reserved;      // written 0, never read
  uint32_t recordCount;
};
static_assert(sizeof(TQFFileHeader) == TQF_FILE_HEADER_SIZE);

// The head of a record; `recordLength` payload bytes follow it.
struct TQFRecord {
  uint32_t recordType;  // a FourCC (see IsFourCCRecordType) or another kind
  uint32_t recordLength;
};
static_assert(sizeof(TQFRecord) == TQF_RECORD_HEAD_SIZE);

// The two words behind a frame's sync word; the queues and the writer carry
// this pair and the payload without the sync.
struct TQFFrameHeader {
  uint32_t info;   // length, key flag, stream number
  uint32_t stamp;  // opaque, handed to the host unchanged
};
static_assert(sizeof(TQFFrameHeader) == 8);

// The video stream's record payload, laid out as BITMAPINFOHEADER. Only
// width, height and compression are read; all 40 bytes are carried.
struct MediaDescriptor {
  uint32_t structureSize;
  int32_t width;   // above 0, a multiple of 16
  int32_t height;  // above 0, even
  uint16_t planes;
  uint16_t bitsPerPixel;
  uint32_t compression;  // the video codec's FourCC
  uint32_t imageSize;
  int32_t xPelsPerMeter;
  int32_t yPelsPerMeter;
  uint32_t coloursUsed;
  uint32_t coloursImportant;
};
static_assert(sizeof(MediaDescriptor) == TQF_MEDIA_DESCRIPTOR_SIZE);

// The audio stream's record: a WAVEFORMATEX (format tag, channels, rate,
// bytes a second, block align, bits a sample, extra size).
#pragma pack(push, 1)
struct WaveFormat {
  uint16_t formatTag;
  uint16_t channels;
  uint32_t samplesPerSecond;
  uint32_t bytesPerSecond;
  uint16_t blockAlign;
  uint16_t bitsPerSample;
  uint16_t extraSize;
};
#pragma pack(pop)
static_assert(sizeof(WaveFormat) == 18);

// The record writers give G.726 at 32 kbit/s, 8 kHz mono, four bits a sample.
constexpr WaveFormat G726_WAVE_FORMAT{static_cast<uint16_t>(G726_RECORD_TYPE), 1, 8000, 4000, 1, 4, 0};

// The descriptor writers give a video stream: planar 4:2:0 pictures of
// width x height, coded as `compression`.
constexpr MediaDescriptor MakeMediaDescriptor(uint32_t compression, int32_t width, int32_t height) {
  return MediaDescriptor{TQF_MEDIA_DESCRIPTOR_SIZE, width, height, 1, 12, compression,
                         static_cast<uint32_t>(width) * static_cast<uint32_t>(height) * 3 / 2,
                         0, 0, 0, 0};
}

// A record type is a FourCC, and its record a media descriptor, when its
// upper 16 bits hold at least 0x0080.
constexpr bool IsFourCCRecordType(uint32_t recordType) {
  return (recordType & 0xFFFF0000u) >= 0x00800000u;
}

constexpr uint32_t FramePayloadLength(uint32_t info) { return info >> TQF_INFO_LENGTH_SHIFT; }
constexpr bool IsKeyFrameInfo(uint32_t info) { return (info & TQF_INFO_KEY_FRAME) != 0; }
constexpr uint32_t FrameStreamNumber(uint32_t info) { return info & TQF_INFO_STREAM_MASK; }

// The `info` word of a frame; `length` must fit 20 bits.
constexpr uint32_t MakeFrameInfo(uint32_t length, bool keyFrame, uint32_t stream) {
  return length << TQF_INFO_LENGTH_SHIFT | (keyFrame ? TQF_INFO_KEY_FRAME : 0) |
         (stream & TQF_INFO_STREAM_MASK);
}
static_assert(MakeFrameInfo(1000, true, 0) == 0x003E8100);

// Width and height a player accepts from a media descriptor.
constexpr bool IsPlayablePictureSize(int32_t width, int32_t height) {
  return width > 0 && width % 16 == 0 && height > 0 && height % 2 == 0;
}

// A little-endian u32 at any byte address.
inline uint32_t LoadU32(const uint8_t* bytes) {
  uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// The offset of the first sync word lying wholly inside [position, end), or
// `end` if there is none. A match needs its first byte 0x55, so the search
// runs on memchr.
inline uint64_t FindFrameSync(const uint8_t* data, uint64_t position, uint64_t end) {
  constexpr uint8_t SYNC_FIRST_BYTE = TQF_FRAME_SYNC & 0xFF;
  while (position < end && end - position >= 4) {
    const void* hit = std::memchr(data + position, SYNC_FIRST_BYTE, end - position - 3);
    if (hit == nullptr) break;
    position = static_cast<uint64_t>(static_cast<const uint8_t*>(hit) - data);
    if (LoadU32(data + position) == TQF_FRAME_SYNC) return position;
    ++position;
  }
  return end;
}
