// The AVS member and its plugin. No freely licensed AVS bitstream is at hand
// and the ffmpeg tool has no cavs encoder, so the plugin's decoding is covered
// only as far as refusing what is not AVS; binding and fault paths are covered
// through probe plugins of the same shape.
#include <gtest/gtest.h>

#include <algorithm>

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

// A missing library or function is reported (the binding's own reports are
// checked with the binding): without avs_init there is no Open, without
// avs_decode_one_frame every Decode gives null. A fault inside the library
// costs that frame only; the same context decodes the next one.
TEST(AVSDecoder, MissingFunctionsAndFaultsInTheLibrary) {
  const uint8_t one = 0x11;
  for (const char* library : {"NOAVSDEC.dll", "jpgdec.dll", "avsnodecode.dll"}) {
    DiagnosticsCapture capture;
    AVSDecoder decoder(library);
    EXPECT_EQ(capture.Reports().size(), std::string(library) == "avsnodecode.dll" ? 1u : 3u) << library;
    EXPECT_EQ(decoder.Open(32, 16), std::string(library) == "avsnodecode.dll") << library;
    EXPECT_EQ(decoder.Decode(&one, 1, nullptr), nullptr) << library;
  }
  AVSDecoder decoder("avsprobe.dll");
  ASSERT_TRUE(decoder.Open(32, 16));
  const size_t size = 32 * 16 * 3 / 2;
  for (uint8_t value : {0x11, 0xFF, 0x22, 0xFF, 0xFF, 0x33}) {
    uint8_t* picture = decoder.Decode(&value, 1, nullptr);
    ASSERT_EQ(picture == nullptr, value == 0xFF);
    EXPECT_TRUE(picture == nullptr || size_t(std::count(picture, picture + size, value)) == size);
  }
}

}  // namespace
