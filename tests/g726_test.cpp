#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <unistd.h>

#include "CodecTestSupport.h"
#include "Decoder.h"
#include "G726.h"
#include "G726Decoder.h"

namespace {

std::vector<int16_t> DecodeRun(int32_t code, int count) {
  G726State state;
  G726Reset(&state);
  std::vector<int16_t> samples;
  for (int i = 0; i < count; ++i) samples.push_back(G726DecodeCode(&state, code));
  return samples;
}

TEST(G726, ResetGivesTheStandardsValues) {
  G726State state;
  G726Reset(&state);
  const int32_t* words = reinterpret_cast<const int32_t*>(&state);
  const int32_t expected[24] = {0, 34816, 544, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                32, 32, 32, 32, 32, 32, 32, 32};
  for (int i = 0; i < 24; ++i) EXPECT_EQ(words[i], expected[i]) << "word " << i + 1;
}

// Code 7 climbs to the clamp and stays there: the clamp acts on the output
// only, and the state keeps the growing signal, which passes 16 bits within
// some fifty codes, without wrapping. (Far beyond that, after some 350 codes
// of nothing but the largest step, the signal outgrows the 15 bits that the
// standard's float form can carry, and the run is no longer defined by it.)
TEST(G726, RunOfCode7ClimbsToTheClampAndStays) {
  const std::vector<int16_t> samples = DecodeRun(7, 300);
  const int16_t expected[] = {88, 104, 128, 192, 260, 416, 640, 1128, 2244, 5008, 14620, 32767};
  for (size_t i = 0; i < std::size(expected); ++i) ASSERT_EQ(samples[i], expected[i]) << "sample " << i;
  for (size_t i = std::size(expected); i < samples.size(); ++i) ASSERT_EQ(samples[i], 32767) << "sample " << i;
}

TEST(G726, RunsOfTheLowestIntervalStaySilent) {
  for (int32_t code : {0, 15})
    for (int16_t sample : DecodeRun(code, 2000)) ASSERT_EQ(sample, 0) << "code " << code;
}

// The low four bits of a byte are decoded first.
TEST(G726, LowNibbleComesFirst) {
  G726State block, single;
  G726Reset(&block);
  G726Reset(&single);
  const uint8_t byte = 0x7F;
  int16_t out[2];
  G726DecodeBlock(&block, &byte, 1, out);
  EXPECT_EQ(out[0], G726DecodeCode(&single, 15));
  EXPECT_EQ(out[1], G726DecodeCode(&single, 7));
  EXPECT_EQ(memcmp(&block, &single, sizeof block), 0);
}

std::vector<uint8_t> RandomCodes(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(count);
  for (auto& byte : bytes) byte = uint8_t(random());
  return bytes;
}

// Any cut into frames gives the same samples, through the member as through
// the module; a frame of 0 bytes changes nothing and still reports 1280.
TEST(G726Decoder, AnyCutIntoFramesGivesTheSameSamples) {
  const std::vector<uint8_t> codes = RandomCodes(4000, 7);
  G726State state;
  G726Reset(&state);
  std::vector<int16_t> whole(codes.size() * 2);
  G726DecodeBlock(&state, codes.data(), int32_t(codes.size()), whole.data());

  Decoder* decoder = CreateDecoder(false, DECODER_KEY_G726);
  std::mt19937 random(11);
  std::vector<int16_t> pieces;
  for (size_t at = 0; at < codes.size();) {
    const size_t length = std::min<size_t>(random() % 513, codes.size() - at);
    int32_t reported = 0;
    const auto* pcm = reinterpret_cast<const int16_t*>(decoder->Decode(codes.data() + at, int32_t(length), &reported));
    ASSERT_NE(pcm, nullptr);
    EXPECT_EQ(reported, 1280);
    pieces.insert(pieces.end(), pcm, pcm + 2 * length);
    at += length;
  }
  EXPECT_EQ(pieces, whole);
  decoder->Release();
}

// A payload above the buffer's 512 bytes is cut there, not written past it.
TEST(G726Decoder, LongPayloadIsCutAtTheBuffer) {
  const std::vector<uint8_t> codes = RandomCodes(2000, 3);
  G726Decoder decoder;
  const auto* pcm = reinterpret_cast<const int16_t*>(decoder.Decode(codes.data(), int32_t(codes.size()), nullptr));
  ASSERT_NE(pcm, nullptr);
  G726State state;
  G726Reset(&state);
  std::vector<int16_t> expected(G726Decoder::PCM_SAMPLES);
  G726DecodeBlock(&state, codes.data(), G726Decoder::MAX_INPUT_BYTES, expected.data());
  EXPECT_EQ(std::vector<int16_t>(pcm, pcm + G726Decoder::PCM_SAMPLES), expected);
}

TEST(G726, DecodeToOneChannelFillsEverySecondPlace) {
  const std::vector<uint8_t> codes = RandomCodes(100, 5);
  G726State a, b;
  G726Reset(&a);
  G726Reset(&b);
  std::vector<int16_t> mono(200), stereo(400, -7);
  G726DecodeBlock(&a, codes.data(), 100, mono.data());
  EXPECT_EQ(G726DecodeBlockToChannel(&b, codes.data(), 199, stereo.data()), 199 * 4);
  for (int i = 0; i < 199; ++i) ASSERT_EQ(stereo[2 * i], mono[i]) << i;
  for (int i = 0; i < 200; ++i) ASSERT_EQ(stereo[2 * i + 1], -7) << i;
  EXPECT_EQ(stereo[398], -7);
}

std::vector<int16_t> TestSignal(size_t count) {
  std::vector<int16_t> samples(count);
  for (size_t i = 0; i < count; ++i) {
    const double t = double(i) / 8000.0;
    samples[i] = int16_t(6000 * std::sin(2 * M_PI * 440 * t) + 2500 * std::sin(2 * M_PI * 1230 * t) +
                         1500 * std::sin(2 * M_PI * 97 * t) * std::sin(2 * M_PI * 3 * t));
  }
  return samples;
}

TEST(G726, EncodeOfOneChannelPicksItsSamples) {
  const std::vector<int16_t> mono = TestSignal(400);
  std::vector<int16_t> stereo(800);
  for (size_t i = 0; i < 400; ++i) {
    stereo[2 * i + 1] = mono[i];
    stereo[2 * i] = int16_t(-mono[i] / 3);
  }
  G726State monoState, channelState;
  G726Reset(&monoState);
  G726Reset(&channelState);
  std::vector<uint8_t> fromMono(200), fromChannel(200);
  EXPECT_EQ(G726EncodeBlock(&monoState, mono.data(), 800, fromMono.data()), 200);
  EXPECT_EQ(G726EncodeChannel(&channelState, stereo.data(), 400, 1, fromChannel.data()), 200);
  EXPECT_EQ(fromMono, fromChannel);
  EXPECT_EQ(G726EncodeChannel(&channelState, stereo.data(), 400, 2, fromChannel.data()), 0);
}

// Our encoder's bytes, decoded by us and by the ffmpeg tool's g726le decoder.
// Both follow the signal that went in. They are not bit-exact: the ffmpeg
// decoder mixes the two scale factors with the slow one untruncated, where
// the standard's mix truncates it and rounds the product's magnitude, so
// their scale factors part by one now and then and the samples drift apart
// by a little; the two decodes still agree to well above 30 dB.
double SignalToNoise(const std::vector<int16_t>& reference, const std::vector<int16_t>& test, size_t from) {
  double signalPower = 0, noisePower = 0;
  for (size_t i = from; i < reference.size(); ++i) {
    signalPower += double(reference[i]) * reference[i];
    noisePower += double(reference[i] - test[i]) * (reference[i] - test[i]);
  }
  return 10 * std::log10(signalPower / noisePower);
}

TEST(G726, RoundTripAgreesWithTheFfmpegDecoder) {
  const std::vector<int16_t> signal = TestSignal(16000);
  G726State encoder;
  G726Reset(&encoder);
  std::vector<uint8_t> codes(signal.size() / 2);
  ASSERT_EQ(G726EncodeBlock(&encoder, signal.data(), int32_t(signal.size() * 2), codes.data()),
            int32_t(codes.size()));

  char path[] = "/tmp/g726_roundtrip_XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, codes.data(), codes.size()), ssize_t(codes.size()));
  close(fd);
  const std::string command = std::string(TQF_FFMPEG) +
                              " -v error -nostdin -f g726le -code_size 4 -sample_rate 8000 -i " + path +
                              " -f s16le -acodec pcm_s16le -";
  std::vector<int16_t> theirs;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    int16_t chunk[4096];
    size_t got;
    while ((got = fread(chunk, sizeof(int16_t), 4096, pipe)) > 0) theirs.insert(theirs.end(), chunk, chunk + got);
    pclose(pipe);
  }
  unlink(path);

  G726State decoder;
  G726Reset(&decoder);
  std::vector<int16_t> ours(signal.size());
  G726DecodeBlock(&decoder, codes.data(), int32_t(codes.size()), ours.data());
  ASSERT_EQ(theirs.size(), ours.size());
  // The first samples are the same in both, before the scale factors part.
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(ours[i], theirs[i]) << "sample " << i;
  EXPECT_GT(SignalToNoise(theirs, ours, 0), 30.0);
  EXPECT_GT(SignalToNoise(signal, ours, 400), 20.0);
  EXPECT_GT(SignalToNoise(signal, theirs, 400), 20.0);
}

}  // namespace
