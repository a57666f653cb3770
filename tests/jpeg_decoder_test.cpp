#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "CodecTestSupport.h"
#include "Decoder.h"
#include "JPEGDecoder.h"

namespace {

std::vector<uint8_t> Jpeg(const std::string& stem) { return ReadWholeFile(CodecMediaPath(stem + ".jpg")); }

uint8_t* Decode(Decoder& decoder, const std::vector<uint8_t>& data) {
  return decoder.Decode(data.data(), int32_t(data.size()), nullptr);
}

// Largest difference between planes of `width` x `rows`, the reference read
// every `step` rows.
int MaxDifference(const uint8_t* ours, const uint8_t* reference, int width, int rows, int step) {
  int worst = 0;
  for (int r = 0; r < rows; ++r)
    for (int x = 0; x < width; ++x)
      worst = std::max(worst, std::abs(int(ours[r * width + x]) - int(reference[r * step * width + x])));
  return worst;
}

class JpegReference : public testing::TestWithParam<const char*> {};

// The two IDCTs may differ by a little, so planes match within 2 per sample;
// 4:2:2 chroma (full height in the reference) comes out as every second row.
// The picture is the work buffer every time.
TEST_P(JpegReference, MatchesTheReferenceWithin2) {
  int format = 0, w = 0, h = 0;
  ASSERT_EQ(sscanf(GetParam(), "picture_%d_%dx%d", &format, &w, &h), 3);
  const std::vector<uint8_t> jpeg = Jpeg(GetParam());
  const std::vector<uint8_t> ref = ReadWholeFile(CodecMediaPath(GetParam() + std::string(".yuv")));
  const int luma = w * h, step = format == 422 ? 2 : 1, refChroma = (w / 2) * (step == 2 ? h : h / 2);
  ASSERT_EQ(ref.size(), size_t(luma + 2 * refChroma));
  JPEGDecoder decoder;
  ASSERT_TRUE(decoder.Open(w, h));
  uint8_t* picture = Decode(decoder, jpeg);
  ASSERT_NE(picture, nullptr);
  EXPECT_LE(MaxDifference(picture, ref.data(), w, h, 1), 2);
  EXPECT_LE(MaxDifference(picture + luma, ref.data() + luma, w / 2, h / 2, step), 2);
  EXPECT_LE(MaxDifference(picture + luma + luma / 4, ref.data() + luma + refChroma, w / 2, h / 2, step), 2);
  EXPECT_EQ(Decode(decoder, jpeg), picture);
}

INSTANTIATE_TEST_SUITE_P(Pictures, JpegReference,
                         testing::Values("picture_420_176x144", "picture_422_176x144", "picture_422_176x143"));

// Another size, another sampling or no data: null, never an overrun (damage is
// the fuzzer's); a good picture after all that decodes again. Sizes the control block cannot
// carry are refused at Open.
TEST(JPEGDecoder, RefusesWhatItCannotHandOutAtTheOpenSize) {
  const std::vector<uint8_t> good = Jpeg("picture_420_176x144"), full = Jpeg("picture_444_176x144");
  ASSERT_FALSE(good.empty());
  JPEGDecoder other;  // a picture larger than the open size
  ASSERT_TRUE(other.Open(96, 64));
  EXPECT_EQ(Decode(other, good), nullptr);
  JPEGDecoder decoder;
  ASSERT_TRUE(decoder.Open(176, 144));
  EXPECT_EQ(Decode(decoder, full), nullptr);
  EXPECT_EQ(decoder.Decode(nullptr, 100, nullptr), nullptr);
  EXPECT_EQ(decoder.Decode(good.data(), 0, nullptr), nullptr);
  EXPECT_NE(Decode(decoder, good), nullptr);
  for (auto [w, h] : {std::pair{0, 16}, {16, -2}, {40000, 16}}) {
    EXPECT_FALSE(decoder.Open(w, h)) << w << "x" << h;
    EXPECT_EQ(Decode(decoder, good), nullptr);
  }
}

}  // namespace
