// A long run at every host rate while random valid settings arrive between
// blocks: the output stays finite, the limiter holds full scale and the audio
// path never allocates.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "chain/chain_fixture.h"
#include "support/signals.h"

namespace {

using namespace qor::test;
using R = QorCalvera2Result;

// Sanitizer builds run slower; they still cover every rate.
#if defined(__SANITIZE_ADDRESS__)
constexpr double kSeconds = 6.0;
#else
constexpr double kSeconds = 60.0;
#endif

// Band-limited interpolation of a signal limited sample by sample shows
// inter-sample peaks above the limit; for programme material they stay within
// a few dB.
constexpr float kConverterOvershoot = 1.5f;

float uniform(std::mt19937& gen, float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(gen); }
int32_t pick(std::mt19937& gen, int32_t lo, int32_t hi) { return std::uniform_int_distribution<int32_t>(lo, hi)(gen); }
uint8_t coin(std::mt19937& gen) { return static_cast<uint8_t>(gen() % 2); }

// A random record inside every stage's valid ranges, the limiter always on.
QorCalvera2Parameters randomParameters(std::mt19937& gen) {
  QorCalvera2Parameters p = chainDefaults();
  p.outputGain = uniform(gen, -20.0f, 0.0f);
  p.crossfadeTime = uniform(gen, 0.0f, 100.0f);
  p.enable = gen() % 8 != 0;
  p.highPassFilter.order = static_cast<uint32_t>(pick(gen, 1, 2));
  p.highPassFilter.cutoffFrequency = uniform(gen, 20.0f, 400.0f);
  p.highPassFilter.enable = coin(gen);
  p.noiseReduction.maxExpansionDb = uniform(gen, 0.0f, 40.0f);
  p.noiseReduction.expansionRatio = uniform(gen, 0.0f, 5.0f);
  p.noiseReduction.reductionFloorDb = uniform(gen, -60.0f, 0.0f);
  p.noiseReduction.enable = coin(gen);
  p.gatingCompressor.gateThreshold = uniform(gen, -80.0f, -6.0f);
  p.gatingCompressor.compressorThreshold = uniform(gen, -40.0f, 0.0f);
  p.gatingCompressor.compressorRatio = uniform(gen, 1.0f, 20.0f);
  p.gatingCompressor.compressorMakeupGain = uniform(gen, -12.0f, 12.0f);
  p.gatingCompressor.enable = coin(gen);
  p.multiBandEqualiser.band1Gain = uniform(gen, -12.0f, 12.0f);
  p.multiBandEqualiser.band2Gain = uniform(gen, -12.0f, 12.0f);
  p.multiBandEqualiser.band3Gain = uniform(gen, -12.0f, 12.0f);
  p.multiBandEqualiser.highPassOrder = pick(gen, 0, 2);
  p.multiBandEqualiser.lowPassOrder = pick(gen, 0, 2);
  p.multiBandEqualiser.enable = coin(gen);
  p.multiBandCompressor.lowThreshold = uniform(gen, -50.0f, 0.0f);
  p.multiBandCompressor.highThreshold = uniform(gen, -50.0f, 0.0f);
  p.multiBandCompressor.ratio = uniform(gen, 1.0f, 20.0f);
  p.multiBandCompressor.enable = coin(gen);
  p.vocalChanger.voice1Type = pick(gen, 0, 14);
  p.vocalChanger.voice2Type = pick(gen, 0, 14);
  p.vocalChanger.voice1PitchCents = uniform(gen, -2400.0f, 2400.0f);
  p.vocalChanger.voice2PitchCents = uniform(gen, -2400.0f, 2400.0f);
  p.vocalChanger.detuneEnable = coin(gen);
  p.vocalChanger.detuneDelayMs = uniform(gen, 0.0f, 100.0f);
  p.vocalChanger.detuneDepthPercent = uniform(gen, 0.0f, 100.0f);
  p.vocalChanger.detuneRateHz = uniform(gen, 0.0f, 2.0f);
  p.vocalChanger.detuneCents = uniform(gen, -600.0f, 600.0f);
  p.vocalChanger.enable = coin(gen);
  p.flangerPhaser.mode = pick(gen, 0, 5);
  p.flangerPhaser.depth = uniform(gen, 0.0f, 1.0f);
  p.flangerPhaser.rate = uniform(gen, 0.0f, 5.0f);
  p.flangerPhaser.enable = coin(gen);
  p.ringModulator.waveform = pick(gen, 0, 4);
  p.ringModulator.frequency = uniform(gen, 1.0f, 2000.0f);
  p.ringModulator.mix = uniform(gen, 0.0f, 1.0f);
  p.ringModulator.enable = coin(gen);
  p.delay.routing = pick(gen, 0, 3);
  p.delay.pingPong = pick(gen, 0, 1);
  p.delay.filterPreset = pick(gen, 0, 2);
  p.delay.delayTimeLeftMs = uniform(gen, 10.0f, 2000.0f);
  p.delay.delayTimeRightMs = uniform(gen, 10.0f, 2000.0f);
  p.delay.feedback = uniform(gen, 0.0f, 0.6f);
  p.delay.enable = coin(gen);
  p.reverb.roomType = pick(gen, 0, 9);
  p.reverb.roomSize = uniform(gen, 0.01f, 1.0f);
  p.reverb.mix = uniform(gen, 0.0f, 1.0f);
  p.reverb.enable = coin(gen);
  p.hardLimiter.inputGain = uniform(gen, -20.0f, 20.0f);
  p.hardLimiter.enable = 1;
  return p;
}

class Calvera2Soak : public ::testing::TestWithParam<uint32_t> {};

TEST_P(Calvera2Soak, RandomSettingsAtEveryHostRate) {
  const uint32_t rate = GetParam();
  const uint32_t block = rate / 100;
  const uint32_t seed = 20261122u + rate;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937 gen(seed);
  Chain chain(rate, block, 2, randomParameters(gen));
  ASSERT_EQ(chain.status(), R::Success);

  // Speech-like material: a gliding tone in noise with syllable-rate bursts.
  const size_t blocks = static_cast<size_t>(kSeconds * rate / block);
  ChannelBuffers& io = chain.io();
  double phase = 0.0;
  std::normal_distribution<float> noise(0.0f, 0.05f);
  size_t sample = 0;
  for (size_t b = 0; b < blocks; ++b) {
    if (b % 50 == 0) {
      QorCalvera2Parameters p = randomParameters(gen);
      ASSERT_EQ(qorCalvera2UpdateParameters(chain.inst(), &p), R::Success) << "block " << b;
    }
    for (uint32_t i = 0; i < block; ++i, ++sample) {
      const double t = static_cast<double>(sample) / rate;
      phase += 2.0 * 3.141592653589793 * (150.0 + 80.0 * std::sin(2.0 * t)) / rate;
      const float envelope = 0.5f + 0.5f * static_cast<float>(std::sin(2.0 * 3.141592653589793 * 4.0 * t));
      const float v = 0.8f * envelope * static_cast<float>(std::sin(phase)) + noise(gen);
      io[0][i] = v;
      io[1][i] = -0.7f * v;
    }
    R rc;
    EXPECT_NO_ALLOCATION(rc = qorCalvera2Process(chain.inst(), io.data()));
    ASSERT_EQ(rc, R::Success) << "block " << b;
    QorCalvera2Parameters now{};
    ASSERT_EQ(qorCalvera2GetParameters(chain.inst(), &now), R::Success);
    // The limiter bounds the processed signal; the output gain is at most 0 dB
    // and the bypass crossfade only mixes with the (bounded) input. At other
    // rates the output converter comes after the limiter and brings out the
    // limited signal's inter-sample peaks.
    const float bound = rate == 48000 ? 1.0f : kConverterOvershoot;
    for (uint32_t c = 0; c < 2; ++c) {
      for (uint32_t i = 0; i < block; ++i) {
        ASSERT_TRUE(std::isfinite(io[c][i])) << "block " << b << " channel " << c;
        ASSERT_LE(std::fabs(io[c][i]), bound) << "block " << b << " channel " << c;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(HostRates, Calvera2Soak,
                         ::testing::Values(22050u, 44100u, 48000u, 88200u, 96000u, 176400u, 192000u));

}  // namespace
