#include <gtest/gtest.h>

#include "Decoder.h"
#include "wait_test_support.h"

namespace {

struct FactoryCase {
  bool video;
  uint32_t key;
  bool known;
};

class DecoderFactory : public testing::TestWithParam<FactoryCase> {};

// A member only for the table's pairs, with no report (the plugins lie beside
// the test). Before Open a video member has no picture and decodes nothing;
// the audio member opens for any size and decodes at once.
TEST_P(DecoderFactory, GivesAMemberOnlyForKnownPairs) {
  const FactoryCase c = GetParam();
  DiagnosticsCapture capture;
  Decoder* decoder = CreateDecoder(c.video, c.key);
  ASSERT_EQ(decoder != nullptr, c.known);
  ASSERT_EQ(HasDecoder(c.video, c.key), c.known);
  if (decoder != nullptr) {
    EXPECT_EQ(decoder->IsVideo(), c.video);
    EXPECT_EQ(decoder->Picture(), nullptr);
    const uint8_t payload[4] = {0, 0, 0, 1};
    EXPECT_EQ(decoder->Decode(payload, sizeof payload, nullptr) != nullptr, !c.video);
    EXPECT_TRUE(decoder->Open(c.video ? 352 : -1, c.video ? 288 : 0));
    EXPECT_EQ(decoder->Picture(), nullptr);
  }
  ReleaseDecoder(decoder);
  EXPECT_TRUE(capture.Reports().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Keys, DecoderFactory,
    testing::Values(FactoryCase{true, DECODER_KEY_H264, true}, FactoryCase{true, DECODER_KEY_G264, true},
                    FactoryCase{true, DECODER_KEY_AVS0, true}, FactoryCase{true, DECODER_KEY_JPEG, true},
                    FactoryCase{false, DECODER_KEY_G726, true},
                    // The flag is part of the key: the same numbers the other way are unknown.
                    FactoryCase{true, DECODER_KEY_G726, false}, FactoryCase{false, DECODER_KEY_H264, false},
                    FactoryCase{false, DECODER_KEY_JPEG, false}, FactoryCase{true, 0, false},
                    FactoryCase{true, 0x34363268 /* "h264" */, false}));

}  // namespace
