#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

#include "CodecTestSupport.h"
#include "Decoder.h"
#include "G726.h"
#include "G726Decoder.h"

namespace {

G726State Fresh() {
  G726State state;
  G726Reset(&state);
  return state;
}

std::vector<int16_t> DecodeFresh(const std::vector<uint8_t>& codes) {
  G726State state = Fresh();
  std::vector<int16_t> samples(codes.size() * 2);
  G726DecodeBlock(&state, codes.data(), int32_t(codes.size()), samples.data());
  return samples;
}

std::vector<uint8_t> RandomCodes(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(count);
  for (auto& byte : bytes) byte = uint8_t(random());
  return bytes;
}

// Code 7 climbs to the clamp and stays there without wrapping; codes 0 and 15
// stay silent.
TEST(G726, RunsOfOneCodeClampOrStaySilent) {
  const std::vector<int16_t> climb = DecodeFresh(std::vector<uint8_t>(150, 0x77));
  EXPECT_TRUE(std::is_sorted(climb.begin(), climb.end()));
  EXPECT_EQ(climb.back(), 32767);
  for (uint8_t byte : {0x00, 0xFF}) EXPECT_EQ(DecodeFresh(std::vector<uint8_t>(1000, byte)), std::vector<int16_t>(2000, 0));
}

// Any cut into frames gives the same samples as one block: a frame of 0 bytes
// changes nothing and still reports 1280, and one above the buffer's 512 bytes
// is cut there, not written past it.
TEST(G726Decoder, AnyCutIntoFramesGivesTheSameSamples) {
  const size_t lengths[] = {0, 1, 300, 511, 512, 513, 2000, 77};
  const std::vector<uint8_t> codes = RandomCodes(std::accumulate(std::begin(lengths), std::end(lengths), size_t{0}), 7);
  Decoder* decoder = CreateDecoder(false, DECODER_KEY_G726);
  std::vector<uint8_t> used;
  std::vector<int16_t> pieces;
  size_t at = 0;
  for (size_t length : lengths) {
    const size_t kept = std::min<size_t>(length, 512);
    int32_t reported = 0;
    const auto* pcm =
        reinterpret_cast<const int16_t*>(decoder->Decode(codes.data() + at, int32_t(length), &reported));
    ASSERT_NE(pcm, nullptr);
    EXPECT_EQ(reported, 1280);
    pieces.insert(pieces.end(), pcm, pcm + 2 * kept);
    used.insert(used.end(), codes.begin() + at, codes.begin() + at + kept);
    at += length;
  }
  EXPECT_EQ(pieces, DecodeFresh(used));
  EXPECT_EQ(decoder->Decode(nullptr, 10, nullptr), nullptr);
  decoder->Release();
}

std::vector<int16_t> TestSignal(size_t count) {
  std::vector<int16_t> samples(count);
  for (size_t i = 0; i < count; ++i) {
    const double t = 2 * M_PI * double(i) / 8000.0;
    samples[i] = int16_t(6000 * sin(440 * t) + 2500 * sin(1230 * t) + 1500 * sin(97 * t) * sin(3 * t));
  }
  return samples;
}

// The channel forms read and write every second place of an interleaved pair
// and match the one-channel forms; an odd code count and channel 2 are kept.
TEST(G726, ChannelFormsUseEverySecondPlace) {
  const std::vector<uint8_t> codes = RandomCodes(100, 5);
  const std::vector<int16_t> mono = DecodeFresh(codes), signal = TestSignal(400);
  G726State state = Fresh(), monoState = Fresh(), channelState = Fresh();
  std::vector<int16_t> stereo(800, -7);
  EXPECT_EQ(G726DecodeBlockToChannel(&state, codes.data(), 199, stereo.data()), 199 * 4);
  for (int i = 0; i < 800; ++i) ASSERT_EQ(stereo[i], i % 2 == 0 && i < 398 ? mono[i / 2] : -7) << i;
  for (size_t i = 0; i < 800; ++i) stereo[i] = i % 2 ? signal[i / 2] : int16_t(-signal[i / 2] / 3);
  std::vector<uint8_t> fromMono(200), fromChannel(200);
  EXPECT_EQ(G726EncodeBlock(&monoState, signal.data(), 800, fromMono.data()), 200);
  EXPECT_EQ(G726EncodeChannel(&channelState, stereo.data(), 400, 1, fromChannel.data()), 200);
  EXPECT_EQ(fromMono, fromChannel);
  EXPECT_EQ(G726EncodeChannel(&channelState, stereo.data(), 400, 2, fromChannel.data()), 0);
}

double SignalToNoise(const std::vector<int16_t>& reference, const std::vector<int16_t>& test, size_t from) {
  double signalPower = 0, noisePower = 0;
  for (size_t i = from; i < reference.size(); ++i) {
    signalPower += double(reference[i]) * reference[i];
    noisePower += double(reference[i] - test[i]) * (reference[i] - test[i]);
  }
  return 10 * std::log10(signalPower / noisePower);
}

// Our encoder's bytes decoded by us and by the ffmpeg tool's g726le decoder.
// Not bit-exact: ffmpeg mixes the two scale factors with the slow one
// untruncated, so the scale factors part by one now and then after the first
// samples; the decodes still agree to well above 30 dB.
TEST(G726, RoundTripAgreesWithTheFfmpegDecoder) {
  const std::vector<int16_t> signal = TestSignal(16000);
  G726State encoder = Fresh();
  std::vector<uint8_t> codes(signal.size() / 2);
  ASSERT_EQ(G726EncodeBlock(&encoder, signal.data(), int32_t(signal.size() * 2), codes.data()),
            int32_t(codes.size()));
  const std::string out = CodecMediaPath("roundtrip.s16");
  const std::string args = " -v error -nostdin -y -f g726le -code_size 4 -sample_rate 8000 -i - -f s16le ";
  FILE* ffmpeg = popen((TQF_FFMPEG + args + out).c_str(), "w");
  ASSERT_NE(ffmpeg, nullptr);
  ASSERT_EQ(fwrite(codes.data(), 1, codes.size(), ffmpeg), codes.size());
  ASSERT_EQ(pclose(ffmpeg), 0);
  const std::vector<uint8_t> raw = ReadWholeFile(out);
  const std::vector<int16_t> theirs(reinterpret_cast<const int16_t*>(raw.data()),
                                    reinterpret_cast<const int16_t*>(raw.data() + raw.size() / 2 * 2));
  const std::vector<int16_t> ours = DecodeFresh(codes);
  ASSERT_EQ(theirs.size(), ours.size());
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(ours[i], theirs[i]) << "sample " << i;
  EXPECT_GT(SignalToNoise(theirs, ours, 0), 30.0);
  EXPECT_GT(SignalToNoise(signal, ours, 400), 20.0);
}

}  // namespace
