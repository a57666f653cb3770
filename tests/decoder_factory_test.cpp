#include <gtest/gtest.h>

#include "CodecTestSupport.h"
#include "Decoder.h"

namespace {

struct FactoryCase {
  bool video;
  uint32_t key;
  bool expectObject;
};

class DecoderFactory : public testing::TestWithParam<FactoryCase> {};

TEST_P(DecoderFactory, GivesAMemberOnlyForTheTablesKeys) {
  const FactoryCase c = GetParam();
  ReportCapture capture;  // the plugins lie beside the test: nothing to report
  Decoder* decoder = CreateDecoder(c.video, c.key);
  EXPECT_EQ(decoder != nullptr, c.expectObject);
  if (decoder != nullptr) {
    EXPECT_EQ(decoder->IsVideo(), c.video);
    // Before Open a video member has nothing to decode with; the audio
    // member decodes at once.
    const uint8_t payload[4] = {0, 0, 0, 1};
    uint8_t* result = decoder->Decode(payload, sizeof payload, nullptr);
    EXPECT_EQ(result != nullptr, !c.video);
  }
  ReleaseDecoder(decoder);
  EXPECT_TRUE(capture.reports.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Keys, DecoderFactory,
    testing::Values(FactoryCase{true, DECODER_KEY_H264, true}, FactoryCase{true, DECODER_KEY_G264, true},
                    FactoryCase{true, DECODER_KEY_AVS0, true}, FactoryCase{true, DECODER_KEY_JPEG, true},
                    FactoryCase{false, DECODER_KEY_G726, true},
                    // The flag is part of the key: the same numbers the other way are unknown.
                    FactoryCase{true, DECODER_KEY_G726, false}, FactoryCase{false, DECODER_KEY_H264, false},
                    FactoryCase{false, DECODER_KEY_JPEG, false}, FactoryCase{true, 0, false},
                    FactoryCase{true, 0x47504A4D /* "MJPG" */, false},
                    FactoryCase{true, 0x34363268 /* "h264" */, false}));

TEST(DecoderFactory, KeysAreTheFourCCsReadLittleEndian) {
  auto fourcc = [](const char* text) {
    return uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 | uint32_t(uint8_t(text[2])) << 16 |
           uint32_t(uint8_t(text[3])) << 24;
  };
  EXPECT_EQ(DECODER_KEY_H264, fourcc("H264"));
  EXPECT_EQ(DECODER_KEY_G264, fourcc("G264"));
  EXPECT_EQ(DECODER_KEY_AVS0, fourcc("AVS0"));
  EXPECT_EQ(DECODER_KEY_JPEG, fourcc("JPEG"));
}

TEST(DecoderFactory, AudioMemberOpensForAnySizeAndHasNoPicture) {
  Decoder* decoder = CreateDecoder(false, DECODER_KEY_G726);
  ASSERT_NE(decoder, nullptr);
  EXPECT_TRUE(decoder->Open(-1, 0));
  EXPECT_TRUE(decoder->Open(704, 576));
  EXPECT_EQ(decoder->Picture(), nullptr);
  decoder->Release();
}

TEST(DecoderFactory, VideoMembersHaveNoPictureBeforeTheirFirstDecode) {
  for (uint32_t key : {DECODER_KEY_H264, DECODER_KEY_G264, DECODER_KEY_AVS0, DECODER_KEY_JPEG}) {
    Decoder* decoder = CreateDecoder(true, key);
    ASSERT_NE(decoder, nullptr);
    EXPECT_EQ(decoder->Picture(), nullptr) << std::hex << key;
    ASSERT_TRUE(decoder->Open(352, 288)) << std::hex << key;
    EXPECT_EQ(decoder->Picture(), nullptr) << std::hex << key;
    decoder->Release();
  }
}

}  // namespace
