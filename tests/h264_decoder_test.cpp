#include <gtest/gtest.h>

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <set>

#include "CodecTestSupport.h"
#include "Decoder.h"
#include "wait_test_support.h"

namespace {

// A stream under media/codecs, cut into payloads, with the ffmpeg tool's
// decode of it (every picture, packed I420); its member's key, and how far a picture may differ.
struct Media {
  int32_t width, height;
  uint32_t key;
  int tolerance;
  std::vector<std::vector<uint8_t>> units;
  std::vector<uint8_t> reference;
  size_t pictureSize = size_t(width) * height * 3 / 2;

  Media(const std::string& file, int32_t w, int32_t h, uint32_t k = DECODER_KEY_H264, int most = 0)
      : width(w), height(h), key(k), tolerance(most), units(SplitAccessUnits(ReadWholeFile(CodecMediaPath(file)))),
        reference(ReadWholeFile(CodecMediaPath(file.substr(0, file.rfind('.')) + ".yuv"))) {}
  const uint8_t* Reference(size_t i) const { return reference.data() + i * pictureSize; }
  uint8_t* Decode(Decoder* decoder, size_t i) const {
    return decoder->Decode(units[i].data(), int32_t(units[i].size()), nullptr);
  }
};

enum Stream { MAIN, BASELINE, IN_PLACE, HEVC, HEVC_IN_PLACE, HEVC_MAIN10 };
const Media& Get(Stream stream) {
  // Main 10: libswscale's 10-to-8-bit rounding, set up apart in library and ffmpeg tool, may differ by one.
  static const Media media[] = {
      {"main_352x288.h264", 352, 288}, {"baseline_320x240.h264", 320, 240}, {"main_640x480.h264", 640, 480},
      {"hevc_352x288.h265", 352, 288, DECODER_KEY_H265}, {"hevc_640x480.h265", 640, 480, DECODER_KEY_HEVC},
      {"hevc10_352x288.h265", 352, 288, DECODER_KEY_H265, 1}};
  return media[stream];
}
constexpr size_t KEY_INTERVAL = 25;

// A stream coded at 320x240 in a decoder opened at 352x288 gives pictures of
// 352x288, scaled: each plane's mean stays that of the reference.
TEST(H264Decoder, OtherCodedSizeGivesPicturesOfTheOpenSize) {
  const Media& media = Get(BASELINE);
  auto mean = [](const uint8_t* plane, size_t size) { return std::accumulate(plane, plane + size, 0.0) / size; };
  const size_t luma = 352 * 288, sourceLuma = 320 * 240;
  const size_t planes[3][2] = {{0, 0}, {luma, sourceLuma}, {luma * 5 / 4, sourceLuma * 5 / 4}};
  Decoder* decoder = CreateDecoder(true, DECODER_KEY_H264);
  ASSERT_TRUE(decoder->Open(352, 288));
  for (size_t i = 0; i < media.units.size(); i += 7) {
    uint8_t* picture = media.Decode(decoder, i);
    ASSERT_TRUE(picture != nullptr || i > 0);
    if (picture == nullptr) continue;  // a skipped reference may cost a picture
    for (int p = 0; p < 3; ++p)
      EXPECT_NEAR(mean(picture + planes[p][0], p ? luma / 4 : luma),
                  mean(media.Reference(i) + planes[p][1], p ? sourceLuma / 4 : sourceLuma), 3.0);
  }
  decoder->Release();
}

// H264 refuses sizes that cannot hold a picture; G264 (third field 1) opens
// whatever the size but gives no picture rather than one of the wrong size.
TEST(H264Decoder, UnusableSizesGiveNoPicture) {
  const int32_t sizes[][3] = {{0, 288, 0}, {-352, 288, 0}, {351, 288, 0}, {16384, 16, 0}, {0, 0, 1}, {351, 288, 1}};
  for (const auto& s : sizes) {
    Decoder* decoder = CreateDecoder(true, s[2] ? DECODER_KEY_G264 : DECODER_KEY_H264);
    EXPECT_EQ(decoder->Open(s[0], s[1]), s[2] == 1) << s[0] << "x" << s[1];
    EXPECT_EQ(Get(MAIN).Decode(decoder, 0), nullptr) << s[0] << "x" << s[1];
    decoder->Release();
  }
}

// Every payload gives its picture at once, byte for byte the ffmpeg tool's,
// and the picture keeps nothing of the payload's memory, which the caller
// reuses at once. Damaged payloads never crash or overrun (the sanitizer build
// watches), nor does a fault inside the decode, and decoding is exact again
// from the next key frame on. libav's complaints reach the debug sink only.
// 352x288 is copied out of libavcodec's frames, 640x480 decoded in place.
class LibavExact : public testing::TestWithParam<Stream> {};
INSTANTIATE_TEST_SUITE_P(Layouts, LibavExact, testing::Values(MAIN, IN_PLACE, HEVC, HEVC_IN_PLACE, HEVC_MAIN10));
TEST_P(LibavExact, ExactPicturesAndRecoveryAtTheKeyFrameAfterDamageAndFaults) {
  const Media& media = Get(GetParam());
  ASSERT_EQ(media.units.size() * media.pictureSize, media.reference.size());
  ASSERT_GT(media.units.size(), 2 * KEY_INTERVAL);
  DiagnosticsCapture capture;
  Decoder* decoder = CreateDecoder(true, media.key);
  ASSERT_TRUE(decoder->Open(media.width, media.height));
  std::set<const uint8_t*> addresses;  // one buffer when copied, the decoder's frames in place
  auto exactFrom = [&](size_t first) {
    for (size_t i = first; i < media.units.size(); ++i) {
      std::vector<uint8_t> block = media.units[i];
      uint8_t* picture = decoder->Decode(block.data(), int32_t(block.size()), nullptr);
      std::fill(block.begin(), block.end(), 0xA5);
      ASSERT_NE(picture, nullptr) << "payload " << i;
      EXPECT_EQ(decoder->Picture(), picture);
      ASSERT_TRUE(std::equal(picture, picture + media.pictureSize, media.Reference(i),
                             [&](int a, int b) { return std::abs(a - b) <= media.tolerance; })) << "picture " << i;
      addresses.insert(picture);
    }
  };
  exactFrom(0);
  EXPECT_EQ(addresses.size() > 1, media.width == 640);
  std::mt19937 random(20261122);
  std::vector<std::vector<uint8_t>> damaged = {{0, 0, 0, 1}};
  for (size_t i = 0; i < 12; ++i) {
    std::vector<uint8_t> unit = media.units[i], noise(unit.size());
    damaged.emplace_back(unit.begin(), unit.begin() + unit.size() * (i ? 2 : 3) / 4);  // truncated
    for (int k = 0; k < 8; ++k) unit[random() % unit.size()] ^= uint8_t(1u << (random() % 8));
    for (auto& byte : noise) byte = uint8_t(random());
    damaged.insert(damaged.end(), {unit, noise});
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(decoder->Decode(nullptr, 100, nullptr), nullptr);
  EXPECT_EQ(decoder->Decode(media.units[0].data(), 0, nullptr), nullptr);
  uint64_t checksum = 0;  // whatever comes out must be a whole picture: read every byte
  for (const auto& payload : damaged)
    if (uint8_t* picture = decoder->Decode(payload.data(), int32_t(payload.size()), nullptr))
      checksum += std::accumulate(picture, picture + media.pictureSize, uint64_t{0});
  (void)checksum;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(capture.Lines().empty());
  // A fault inside a decode (a payload in unreadable memory, mid-stream) ends
  // it; the decoder starts afresh and takes the next key frame.
  for (size_t i = 0; i < 3; ++i) ASSERT_NE(media.Decode(decoder, i), nullptr);
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  EXPECT_EQ(decoder->Decode(static_cast<uint8_t*>(page), 4096, nullptr), nullptr);
  munmap(page, 4096);
  exactFrom(KEY_INTERVAL);
  decoder->Release();
}

// The factory gives a member only for the table's pairs (the flag is part of
// the key), with no report. Before Open a video member decodes nothing; the
// audio member decodes at once and opens for any size.
TEST(DecoderFactory, GivesAMemberOnlyForKnownPairs) {
  const struct {
    bool video;
    uint32_t key;
    bool known;
  } cases[] = {{true, DECODER_KEY_H264, true},  {true, DECODER_KEY_G264, true},   {true, DECODER_KEY_AVS0, true},
               {true, DECODER_KEY_JPEG, true},  {false, DECODER_KEY_G726, true},  {true, DECODER_KEY_G726, false},
               {false, DECODER_KEY_H264, false}, {true, 0x34363268 /* "h264" */, false}};
  DiagnosticsCapture capture;
  for (const auto& c : cases) {
    Decoder* decoder = CreateDecoder(c.video, c.key);
    ASSERT_EQ(decoder != nullptr, c.known) << c.key;
    EXPECT_EQ(HasDecoder(c.video, c.key), c.known) << c.key;
    if (decoder == nullptr) continue;
    EXPECT_EQ(decoder->IsVideo(), c.video);
    const uint8_t payload[4] = {0, 0, 0, 1};
    EXPECT_EQ(decoder->Decode(payload, sizeof payload, nullptr) != nullptr, !c.video) << c.key;
    EXPECT_TRUE(decoder->Open(c.video ? 352 : -1, c.video ? 288 : 0));
    EXPECT_EQ(decoder->Picture(), nullptr);
    ReleaseDecoder(decoder);
  }
  EXPECT_TRUE(capture.Reports().empty());
}

}  // namespace
