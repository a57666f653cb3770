#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "CodecTestSupport.h"
#include "Decoder.h"
#include "JPEGDecoder.h"

namespace {

// Largest difference between two planes of `width` x `rows`, the second read
// with a row step of `step` rows.
int MaxDifference(const uint8_t* ours, const uint8_t* reference, int width, int rows, int step) {
  int worst = 0;
  for (int r = 0; r < rows; ++r)
    for (int x = 0; x < width; ++x)
      worst = std::max(worst, std::abs(int(ours[r * width + x]) - int(reference[r * step * width + x])));
  return worst;
}

struct JpegCase {
  const char* stem;
  int width;
  int height;
  bool chroma422;  // the reference's chroma planes have full height
};

class JpegReference : public testing::TestWithParam<JpegCase> {};

// The two IDCTs may differ by a little, so planes match within 2 per sample.
// A 4:2:2 picture's output chroma row i is the source's row 2 * i, and the
// second chroma plane starts a quarter of the luma size after the first.
TEST_P(JpegReference, MatchesTheReferenceWithin2) {
  const JpegCase c = GetParam();
  const std::vector<uint8_t> jpeg = ReadWholeFile(CodecMediaPath(std::string(c.stem) + ".jpg"));
  const std::vector<uint8_t> ref = ReadWholeFile(CodecMediaPath(std::string(c.stem) + ".yuv"));
  const int w = c.width, h = c.height, luma = w * h;
  const int refChromaRows = c.chroma422 ? h : h / 2;
  ASSERT_EQ(ref.size(), size_t(luma + 2 * (w / 2) * refChromaRows));

  Decoder* decoder = CreateDecoder(true, DECODER_KEY_JPEG);
  ASSERT_TRUE(decoder->Open(w, h));
  uint8_t* picture = decoder->Decode(jpeg.data(), int32_t(jpeg.size()), nullptr);
  ASSERT_NE(picture, nullptr);
  EXPECT_EQ(picture, decoder->Picture());
  const int step = c.chroma422 ? 2 : 1;
  EXPECT_LE(MaxDifference(picture, ref.data(), w, h, 1), 2);
  const uint8_t* refFirst = ref.data() + luma;
  const uint8_t* refSecond = refFirst + (w / 2) * refChromaRows;
  EXPECT_LE(MaxDifference(picture + luma, refFirst, w / 2, h / 2, step), 2);
  EXPECT_LE(MaxDifference(picture + luma + luma / 4, refSecond, w / 2, h / 2, step), 2);
  decoder->Release();
}

INSTANTIATE_TEST_SUITE_P(Pictures, JpegReference,
                         testing::Values(JpegCase{"picture_420_176x144", 176, 144, false},
                                         JpegCase{"picture_422_176x144", 176, 144, true},
                                         JpegCase{"picture_422_176x143", 176, 143, true}));

struct RepackCase {
  int width;
  int height;
};

class Repack : public testing::TestWithParam<RepackCase> {};

// Luma stays; output chroma row i is source row 2 * i of the same plane; the
// second plane lands at luma + luma / 4; nothing beyond the picture is read
// from outside the 4:2:2 planes.
TEST_P(Repack, TakesEverySecondChromaRow) {
  const auto [w, h] = GetParam();
  const int luma = w * h, half = w / 2;
  std::vector<uint8_t> buffer(size_t(3) * luma);
  for (int i = 0; i < luma; ++i) buffer[i] = uint8_t(i * 7);
  for (int r = 0; r < h; ++r)
    for (int x = 0; x < half; ++x) {
      buffer[luma + r * half + x] = uint8_t(0x40 + r);
      buffer[luma + luma / 2 + r * half + x] = uint8_t(0x80 + r);
    }
  const std::vector<uint8_t> before = buffer;
  RepackYUV422To420(buffer.data(), w, h);
  EXPECT_EQ(memcmp(buffer.data(), before.data(), luma), 0);
  for (int r = 0; r < h / 2; ++r)
    for (int x = 0; x < half; ++x) {
      ASSERT_EQ(buffer[luma + r * half + x], uint8_t(0x40 + 2 * r)) << "first chroma row " << r;
      ASSERT_EQ(buffer[luma + luma / 4 + r * half + x], uint8_t(0x80 + 2 * r)) << "second chroma row " << r;
    }
  if (h / 2 == 0) {
    EXPECT_EQ(buffer, before);
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, Repack,
                         testing::Values(RepackCase{16, 4}, RepackCase{16, 5}, RepackCase{16, 1},
                                         RepackCase{176, 143}, RepackCase{2, 2}));

TEST(JPEGDecoder, AFourTwoZeroPictureIsTheWorkBufferEveryTime) {
  const std::vector<uint8_t> jpeg = ReadWholeFile(CodecMediaPath("picture_420_176x144.jpg"));
  Decoder* decoder = CreateDecoder(true, DECODER_KEY_JPEG);
  ASSERT_TRUE(decoder->Open(176, 144));
  uint8_t* first = decoder->Decode(jpeg.data(), int32_t(jpeg.size()), nullptr);
  uint8_t* second = decoder->Decode(jpeg.data(), int32_t(jpeg.size()), nullptr);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  decoder->Release();
}

// Another size, another sampling, damage or no data: null, never an overrun.
// A good picture after all that decodes again.
TEST(JPEGDecoder, RefusesWhatItCannotHandOutAtTheOpenSize) {
  const std::vector<uint8_t> good = ReadWholeFile(CodecMediaPath("picture_420_176x144.jpg"));
  const std::vector<uint8_t> full = ReadWholeFile(CodecMediaPath("picture_444_176x144.jpg"));
  ASSERT_FALSE(good.empty());
  Decoder* small = CreateDecoder(true, DECODER_KEY_JPEG);
  ASSERT_TRUE(small->Open(96, 64));  // smaller than the JPEG: its planes would not fit
  EXPECT_EQ(small->Decode(good.data(), int32_t(good.size()), nullptr), nullptr);
  small->Release();

  Decoder* decoder = CreateDecoder(true, DECODER_KEY_JPEG);
  ASSERT_TRUE(decoder->Open(176, 144));
  EXPECT_EQ(decoder->Decode(full.data(), int32_t(full.size()), nullptr), nullptr);  // 4:4:4
  std::vector<uint8_t> truncated(good.begin(), good.begin() + good.size() / 3);
  decoder->Decode(truncated.data(), int32_t(truncated.size()), nullptr);
  std::vector<uint8_t> noise(good.size());
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint8_t(i * 131 + 17);
  EXPECT_EQ(decoder->Decode(noise.data(), int32_t(noise.size()), nullptr), nullptr);
  EXPECT_EQ(decoder->Decode(nullptr, 100, nullptr), nullptr);
  EXPECT_EQ(decoder->Decode(good.data(), 0, nullptr), nullptr);
  EXPECT_NE(decoder->Decode(good.data(), int32_t(good.size()), nullptr), nullptr);
  decoder->Release();

  Decoder* larger = CreateDecoder(true, DECODER_KEY_JPEG);
  ASSERT_TRUE(larger->Open(352, 288));
  EXPECT_EQ(larger->Decode(good.data(), int32_t(good.size()), nullptr), nullptr);
  larger->Release();
}

TEST(JPEGDecoder, OpenRefusesSizesTheControlBlockCannotCarry) {
  const int32_t sizes[][2] = {{0, 16}, {16, -2}, {40000, 16}};
  for (const auto& size : sizes) {
    JPEGDecoder decoder;
    EXPECT_FALSE(decoder.Open(size[0], size[1]));
    const uint8_t byte = 0xFF;
    EXPECT_EQ(decoder.Decode(&byte, 1, nullptr), nullptr);
  }
}

// Without the plugin: one report when the object is built, Open true, and
// every Decode null with no further report.
TEST(JPEGDecoder, MissingPluginReportsOnceAndDecodesNothing) {
  const std::vector<uint8_t> jpeg = ReadWholeFile(CodecMediaPath("picture_420_176x144.jpg"));
  ReportCapture capture;
  JPEGDecoder decoder("nojpgdec.dll");
  ASSERT_EQ(capture.reports.size(), 1u);
  EXPECT_NE(capture.reports[0].find("Can't find \"nojpgdec.dll\""), std::string::npos)
      << capture.reports[0];
  EXPECT_TRUE(decoder.Open(176, 144));
  EXPECT_EQ(decoder.Decode(jpeg.data(), int32_t(jpeg.size()), nullptr), nullptr);
  EXPECT_EQ(decoder.Decode(jpeg.data(), int32_t(jpeg.size()), nullptr), nullptr);
  EXPECT_EQ(capture.reports.size(), 1u);
}

}  // namespace
