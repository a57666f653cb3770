// The AVS member and its plugin. No freely licensed AVS (cavs) bitstream is
// at hand and the ffmpeg tool has no cavs encoder, so the plugin's real
// decoding is covered only as far as refusing what is not AVS; the binding,
// the contract and the fault paths are covered in full, the latter through
// probe plugins of the same shape.
#include <gtest/gtest.h>

#include "AVSDecoder.h"
#include "CodecTestSupport.h"

namespace {

TEST(AVSDecoder, BindsThePluginBesideTheLibrary) {
  ReportCapture capture;
  Decoder* decoder = CreateDecoder(true, DECODER_KEY_AVS0);
  ASSERT_NE(decoder, nullptr);
  EXPECT_TRUE(capture.reports.empty());
  EXPECT_TRUE(decoder->IsVideo());
  EXPECT_EQ(decoder->Decode(reinterpret_cast<const uint8_t*>("x"), 1, nullptr), nullptr);  // not open
  EXPECT_TRUE(decoder->Open(352, 288));
  decoder->Release();
}

TEST(AVSDecoder, PluginRefusesSizesThatCannotHoldAPicture) {
  AVSDecoder decoder;
  EXPECT_FALSE(decoder.Open(351, 288));
  EXPECT_FALSE(decoder.Open(0, 288));
  EXPECT_TRUE(decoder.Open(704, 576));
}

// Data that is not AVS gives no picture, and never a crash or an overrun.
TEST(AVSDecoder, PluginGivesNullForDataThatIsNotAVS) {
  AVSDecoder decoder;
  ASSERT_TRUE(decoder.Open(352, 288));
  const std::vector<uint8_t> h264 = ReadWholeFile(CodecMediaPath("main_352x288.h264"));
  ASSERT_FALSE(h264.empty());
  std::vector<uint8_t> noise(5000);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint8_t(i * 2654435761u >> 13);
  // A cavs sequence header start code followed by junk.
  std::vector<uint8_t> header = {0, 0, 1, 0xB0, 0x20, 0xFF, 0xFF, 0xFF, 0x12, 0x34};
  const std::vector<uint8_t>* payloads[] = {&h264, &noise, &header};
  for (const auto* payload : payloads)
    EXPECT_EQ(decoder.Decode(payload->data(), int32_t(payload->size()), nullptr), nullptr);
  EXPECT_EQ(decoder.Decode(nullptr, 10, nullptr), nullptr);
  EXPECT_EQ(decoder.Decode(h264.data(), 0, nullptr), nullptr);
  EXPECT_EQ(decoder.Picture(), nullptr);
}

// Without the plugin: one report for each of the three functions, in the
// order avs_init, avs_destroy, avs_decode_one_frame, then Open false.
TEST(AVSDecoder, MissingPluginReportsThreeTimesAndCannotOpen) {
  ReportCapture capture;
  AVSDecoder decoder("NOAVSDEC.dll");
  ASSERT_EQ(capture.reports.size(), 3u);
  for (const std::string& report : capture.reports)
    EXPECT_NE(report.find("Can't find \"NOAVSDEC.dll\" called by"), std::string::npos) << report;
  EXPECT_FALSE(decoder.Open(352, 288));
  const uint8_t byte = 1;
  EXPECT_EQ(decoder.Decode(&byte, 1, nullptr), nullptr);
}

// A library that is there but lacks the functions: the second text, once a
// function.
TEST(AVSDecoder, LibraryWithoutTheFunctionsReportsEachByName) {
  ReportCapture capture;
  AVSDecoder decoder("jpgdec.dll");
  ASSERT_EQ(capture.reports.size(), 3u);
  const char* names[] = {"avs_init", "avs_destroy", "avs_decode_one_frame"};
  for (int i = 0; i < 3; ++i)
    EXPECT_NE(capture.reports[i].find(std::string("Can't find \"") + names[i] + "\" in \"jpgdec.dll\""),
              std::string::npos)
        << capture.reports[i];
  EXPECT_FALSE(decoder.Open(352, 288));
}

// A fault inside the library costs that frame only; the same context decodes
// the next one.
TEST(AVSDecoder, FaultInTheLibraryCostsOneFrame) {
  AVSDecoder decoder("avsprobe.dll");
  ASSERT_TRUE(decoder.Open(32, 16));
  const size_t size = 32 * 16 * 3 / 2;
  const uint8_t values[] = {0x11, 0xFF, 0x22, 0xFF, 0xFF, 0x33};
  for (uint8_t value : values) {
    uint8_t* picture = decoder.Decode(&value, 1, nullptr);
    if (value == 0xFF) {
      EXPECT_EQ(picture, nullptr);
      continue;
    }
    ASSERT_NE(picture, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(picture, picture + size), std::vector<uint8_t>(size, value));
  }
}

// Bound without avs_decode_one_frame: one report, Open works, and every
// Decode gives null as a fault would.
TEST(AVSDecoder, MissingDecodeFunctionGivesNull) {
  ReportCapture capture;
  AVSDecoder decoder("avsnodecode.dll");
  ASSERT_EQ(capture.reports.size(), 1u);
  EXPECT_NE(capture.reports[0].find("avs_decode_one_frame"), std::string::npos);
  ASSERT_TRUE(decoder.Open(32, 16));
  const uint8_t value = 0x11;
  EXPECT_EQ(decoder.Decode(&value, 1, nullptr), nullptr);
  EXPECT_EQ(decoder.Decode(&value, 1, nullptr), nullptr);
}

}  // namespace
