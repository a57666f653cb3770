// The AVS member and its plugin. No freely licensed AVS bitstream is at hand
// and the ffmpeg tool has no cavs encoder, so the plugin's decoding is covered
// only as far as refusing what is not AVS; binding and fault paths are covered
// through probe plugins of the same shape.
#include <gtest/gtest.h>

#include "AVSDecoder.h"
#include "CodecTestSupport.h"
#include "wait_test_support.h"

namespace {

// The real plugin refuses unusable sizes, and data that is not AVS gives no
// picture, never a crash or an overrun.
TEST(AVSDecoder, PluginRefusesBadSizesAndDataThatIsNotAVS) {
  AVSDecoder decoder;
  EXPECT_FALSE(decoder.Open(351, 288));
  EXPECT_FALSE(decoder.Open(0, 288));
  ASSERT_TRUE(decoder.Open(352, 288));
  const std::vector<uint8_t> h264 = ReadWholeFile(CodecMediaPath("main_352x288.h264"));
  ASSERT_FALSE(h264.empty());
  // A sequence header start code followed by junk.
  const std::vector<uint8_t> header = {0, 0, 1, 0xB0, 0x20, 0xFF, 0xFF, 0xFF, 0x12, 0x34};
  for (const auto& payload : {h264, header})
    EXPECT_EQ(decoder.Decode(payload.data(), int32_t(payload.size()), nullptr), nullptr);
  EXPECT_EQ(decoder.Decode(nullptr, 10, nullptr), nullptr);
  EXPECT_EQ(decoder.Decode(h264.data(), 0, nullptr), nullptr);
  EXPECT_EQ(decoder.Picture(), nullptr);
}

// A library that is missing, or lacks functions, is reported once for each
// function it cannot give, in binding order; without avs_init there is no
// Open, and without avs_decode_one_frame every Decode gives null.
TEST(AVSDecoder, MissingLibraryOrFunctionsAreReportedByName) {
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"NOAVSDEC.dll", {"NOAVSDEC.dll\" called by", "NOAVSDEC.dll\" called by", "NOAVSDEC.dll\" called by"}},
      {"jpgdec.dll", {"avs_init\" in \"jpgdec.dll", "avs_destroy\" in \"jpgdec.dll",
                      "avs_decode_one_frame\" in \"jpgdec.dll"}},
      {"avsnodecode.dll", {"avs_decode_one_frame"}}};
  for (const auto& [library, expected] : cases) {
    DiagnosticsCapture capture;
    AVSDecoder decoder(library);
    const std::vector<std::string> reports = capture.Reports();
    ASSERT_EQ(reports.size(), expected.size()) << library;
    for (size_t i = 0; i < reports.size(); ++i)
      EXPECT_NE(reports[i].find("Can't find \"" + expected[i]), std::string::npos) << reports[i];
    EXPECT_EQ(decoder.Open(32, 16), expected.size() == 1) << library;  // only avsnodecode has avs_init
    const uint8_t value = 0x11;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(decoder.Decode(&value, 1, nullptr), nullptr) << library;
  }
}

// A fault inside the library costs that frame only; the same context decodes
// the next one.
TEST(AVSDecoder, FaultInTheLibraryCostsOneFrame) {
  AVSDecoder decoder("avsprobe.dll");
  ASSERT_TRUE(decoder.Open(32, 16));
  const size_t size = 32 * 16 * 3 / 2;
  for (uint8_t value : {0x11, 0xFF, 0x22, 0xFF, 0xFF, 0x33}) {
    uint8_t* picture = decoder.Decode(&value, 1, nullptr);
    ASSERT_EQ(picture == nullptr, value == 0xFF);
    if (picture != nullptr) {
      EXPECT_EQ(std::vector<uint8_t>(picture, picture + size), std::vector<uint8_t>(size, value));
    }
  }
}

}  // namespace
