#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstring>
#include <random>

#include "CodecTestSupport.h"
#include "Decoder.h"
#include "wait_test_support.h"

namespace {

struct Stream {
  const char* name;  // file stem under media/codecs
  int32_t width;
  int32_t height;
};

constexpr Stream MAIN_352x288 = {"main_352x288", 352, 288};
constexpr Stream BASELINE_320x240 = {"baseline_320x240", 320, 240};
constexpr int KEY_INTERVAL = 25;

struct Media {
  std::vector<std::vector<uint8_t>> units;
  std::vector<uint8_t> reference;  // every picture, packed I420
  size_t pictureSize;

  explicit Media(const Stream& s)
      : units(SplitAccessUnits(ReadWholeFile(CodecMediaPath(std::string(s.name) + ".h264")))),
        reference(ReadWholeFile(CodecMediaPath(std::string(s.name) + ".yuv"))),
        pictureSize(size_t(s.width) * s.height * 3 / 2) {}

  size_t PictureCount() const { return reference.size() / pictureSize; }
  const uint8_t* ReferencePicture(size_t i) const { return reference.data() + i * pictureSize; }
};

struct DecodeCase {
  uint32_t key;
  Stream stream;
};

class H264Reference : public testing::TestWithParam<DecodeCase> {};

// Every payload gives its picture at once, equal byte for byte to the ffmpeg
// tool's decode of the same bitstream.
TEST_P(H264Reference, EveryPayloadGivesTheReferencePicture) {
  const DecodeCase c = GetParam();
  Media media(c.stream);
  ASSERT_GT(media.PictureCount(), 0u);
  ASSERT_EQ(media.units.size(), media.PictureCount());
  Decoder* decoder = CreateDecoder(true, c.key);
  ASSERT_NE(decoder, nullptr);
  ASSERT_TRUE(decoder->Open(c.stream.width, c.stream.height));
  for (size_t i = 0; i < media.units.size(); ++i) {
    uint8_t* picture = decoder->Decode(media.units[i].data(), int32_t(media.units[i].size()), nullptr);
    ASSERT_NE(picture, nullptr) << "payload " << i;
    EXPECT_EQ(decoder->Picture(), picture);
    ASSERT_EQ(memcmp(picture, media.ReferencePicture(i), media.pictureSize), 0) << "picture " << i;
  }
  decoder->Release();
}

INSTANTIATE_TEST_SUITE_P(Streams, H264Reference,
                         testing::Values(DecodeCase{DECODER_KEY_H264, MAIN_352x288},
                                         DecodeCase{DECODER_KEY_H264, BASELINE_320x240},
                                         DecodeCase{DECODER_KEY_G264, MAIN_352x288}));

double Mean(const uint8_t* plane, size_t size) {
  double sum = 0;
  for (size_t i = 0; i < size; ++i) sum += plane[i];
  return sum / double(size);
}

// A stream coded at 320x240 in a decoder opened at 352x288 still gives
// pictures of 352x288, scaled: each plane's mean stays that of the reference.
TEST(H264Decoder, OtherCodedSizeGivesPicturesOfTheOpenSize) {
  Media media(BASELINE_320x240);
  for (uint32_t key : {DECODER_KEY_H264, DECODER_KEY_G264}) {
    Decoder* decoder = CreateDecoder(true, key);
    ASSERT_TRUE(decoder->Open(352, 288));
    const size_t luma = 352 * 288, sourceLuma = 320 * 240;
    for (size_t i = 0; i < media.units.size(); i += 7) {
      uint8_t* picture = decoder->Decode(media.units[i].data(), int32_t(media.units[i].size()), nullptr);
      if (i == 0) {
        ASSERT_NE(picture, nullptr);
      }
      if (picture == nullptr) continue;  // a skipped reference may cost a picture
      const uint8_t* ref = media.ReferencePicture(i);
      EXPECT_NEAR(Mean(picture, luma), Mean(ref, sourceLuma), 3.0);
      EXPECT_NEAR(Mean(picture + luma, luma / 4), Mean(ref + sourceLuma, sourceLuma / 4), 3.0);
      EXPECT_NEAR(Mean(picture + luma * 5 / 4, luma / 4), Mean(ref + sourceLuma * 5 / 4, sourceLuma / 4), 3.0);
    }
    decoder->Release();
  }
}

TEST(H264Decoder, OpenRefusesSizesThatCannotHoldAPicture) {
  const int32_t sizes[][2] = {{0, 288}, {352, 0}, {-352, 288}, {351, 288}, {352, 287}, {16384, 16}};
  for (const auto& size : sizes) {
    Decoder* decoder = CreateDecoder(true, DECODER_KEY_H264);
    EXPECT_FALSE(decoder->Open(size[0], size[1])) << size[0] << "x" << size[1];
    const uint8_t payload[] = {0, 0, 0, 1, 0x09, 0xF0};
    EXPECT_EQ(decoder->Decode(payload, sizeof payload, nullptr), nullptr);
    decoder->Release();
  }
}

// G264 opens whatever the size; with a size that cannot hold a picture it
// gives none rather than a picture of the wrong size.
TEST(G264Decoder, OpensForAnySizeButGivesPicturesOnlyForUsableOnes) {
  Media media(MAIN_352x288);
  const int32_t sizes[][2] = {{0, 0}, {-1, 5}, {351, 288}};
  for (const auto& size : sizes) {
    Decoder* decoder = CreateDecoder(true, DECODER_KEY_G264);
    ASSERT_TRUE(decoder->Open(size[0], size[1]));
    EXPECT_EQ(decoder->Decode(media.units[0].data(), int32_t(media.units[0].size()), nullptr), nullptr);
    decoder->Release();
  }
}

// Damaged payloads of every kind never crash or overrun (the sanitizer build
// watches), nor does a fault inside the decode, and decoding is exact again
// from the next key frame on.
TEST(H264Decoder, RecoversExactlyAtTheKeyFrameAfterDamageAndFaults) {
  Media media(MAIN_352x288);
  ASSERT_GT(media.units.size(), size_t(2 * KEY_INTERVAL));
  std::mt19937 random(20261122);
  std::vector<std::vector<uint8_t>> damaged;
  for (size_t i = 1; i < 12; ++i) {
    const auto& unit = media.units[i];
    damaged.emplace_back(unit.begin(), unit.begin() + unit.size() / 2);  // truncated
    std::vector<uint8_t> flipped = unit;
    for (int k = 0; k < 8; ++k) flipped[random() % flipped.size()] ^= uint8_t(1u << (random() % 8));
    damaged.push_back(flipped);
    std::vector<uint8_t> noise(unit.size());
    for (auto& byte : noise) byte = uint8_t(random());
    damaged.push_back(noise);
  }
  std::vector<uint8_t> firstKey = media.units[0];
  firstKey.resize(firstKey.size() * 3 / 4);
  damaged.push_back(firstKey);
  damaged.push_back({0, 0, 0, 1});

  // libav's complaints reach the debug sink, never the host's stderr.
  DiagnosticsCapture capture;
  testing::internal::CaptureStderr();
  Decoder* decoder = CreateDecoder(true, DECODER_KEY_H264);
  ASSERT_TRUE(decoder->Open(MAIN_352x288.width, MAIN_352x288.height));
  EXPECT_EQ(decoder->Decode(nullptr, 100, nullptr), nullptr);
  EXPECT_EQ(decoder->Decode(media.units[0].data(), 0, nullptr), nullptr);
  EXPECT_EQ(decoder->Decode(media.units[0].data(), -5, nullptr), nullptr);
  const size_t pictureSize = media.pictureSize;
  uint64_t checksum = 0;
  for (const auto& payload : damaged) {
    // Whatever comes out must be a whole picture: read every byte of it.
    if (uint8_t* picture = decoder->Decode(payload.data(), int32_t(payload.size()), nullptr))
      for (size_t b = 0; b < pictureSize; ++b) checksum += picture[b];
  }
  (void)checksum;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(capture.Lines().empty());
  // A fault inside a decode (here a payload in unreadable memory, mid-stream)
  // ends it; the decoder starts afresh and takes the next key frame.
  for (size_t i = 0; i < 3; ++i)
    ASSERT_NE(decoder->Decode(media.units[i].data(), int32_t(media.units[i].size()), nullptr), nullptr);
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  EXPECT_EQ(decoder->Decode(static_cast<uint8_t*>(page), 4096, nullptr), nullptr);
  munmap(page, 4096);
  for (size_t i = KEY_INTERVAL; i < media.units.size(); ++i) {
    uint8_t* picture = decoder->Decode(media.units[i].data(), int32_t(media.units[i].size()), nullptr);
    ASSERT_NE(picture, nullptr) << "payload " << i;
    ASSERT_EQ(memcmp(picture, media.ReferencePicture(i), pictureSize), 0) << "picture " << i;
  }
  decoder->Release();
}

// The stream's payloads come from a buffer that the caller reuses at once: a
// picture must not depend on the payload's memory after the call.
TEST(H264Decoder, KeepsNoPointerIntoThePayload) {
  Media media(MAIN_352x288);
  Decoder* decoder = CreateDecoder(true, DECODER_KEY_H264);
  ASSERT_TRUE(decoder->Open(MAIN_352x288.width, MAIN_352x288.height));
  std::vector<uint8_t> block;
  for (size_t i = 0; i < 5; ++i) {
    block = media.units[i];
    uint8_t* picture = decoder->Decode(block.data(), int32_t(block.size()), nullptr);
    std::fill(block.begin(), block.end(), 0xA5);
    ASSERT_NE(picture, nullptr);
    ASSERT_EQ(memcmp(picture, media.ReferencePicture(i), media.pictureSize), 0) << "picture " << i;
  }
  decoder->Release();
}

}  // namespace
