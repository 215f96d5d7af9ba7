// Ring modulator: carrier spectra and gain sequences measured on signals,
// the bypass fade, and the calling conventions.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numbers>

#include "block_runner.h"
#include "dsp/core/instance.h"
#include "dsp/voice/ring_modulator.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace QorRingModulator_API_V1;
using R = QorRingModulatorResult;
using qor::test::Signals;
constexpr double kPi = std::numbers::pi;

double shaped(double mix) { return 1.0 / (std::pow(10.0, -5.0 * (mix - 0.5)) + 1.0); }

class RingModulatorTest : public ::testing::Test {
 protected:
  void make(QorRingModulatorParameters p, uint32_t channels = 2, uint32_t rate = 48000,
            uint32_t block = 256) {
    config = QorRingModulatorConfig{rate, block, channels, rate, block, channels, p};
    size_t size = 0;
    ASSERT_EQ(qorRingModulatorGetInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<qor::test::InstanceMemory>(size);
    inst = memory->as<QorRingModulatorInst>();
    ASSERT_EQ(qorRingModulatorInit(inst, &config), R::Success);
  }
  static QorRingModulatorParameters params(float mix, int32_t waveform, float hz,
                                           float fadeMs = 50.0f, uint8_t enable = 1) {
    return {mix, waveform, hz, fadeMs, enable};
  }
  Signals run(const Signals& in) {
    return qor::test::runBlocks(in, config.inputBlockSize,
                                [&](float** ch) { return qorRingModulatorProcess(inst, ch); });
  }
  void update(QorRingModulatorParameters p) {
    ASSERT_EQ(qorRingModulatorUpdateParameters(inst, &p), R::Success);
  }
  // The carrier phase after n steps of `hz` from phase 0, in cycles.
  static double cycles(double hz, size_t n, double rate = 48000.0) {
    const double inc = std::trunc(static_cast<float>(hz) * 256.0f / static_cast<float>(rate) *
                                  16777216.0f);
    return std::fmod(inc * static_cast<double>(n) / 4294967296.0, 1.0);
  }

  QorRingModulatorConfig config{};
  std::unique_ptr<qor::test::InstanceMemory> memory;
  QorRingModulatorInst* inst = nullptr;
};

TEST_F(RingModulatorTest, DefaultsAreAudibleSineAt400Hz) {
  QorRingModulatorParameters p{};
  ASSERT_EQ(qorRingModulatorGetDefaultParameters(&p), R::Success);
  EXPECT_FLOAT_EQ(p.mix, 0.7f);
  EXPECT_EQ(p.waveform, 0);
  EXPECT_FLOAT_EQ(p.frequency, 400.0f);
  EXPECT_FLOAT_EQ(p.crossfadeTime, 50.0f);
  EXPECT_EQ(p.enable, 1);
}

TEST_F(RingModulatorTest, SineCarrierMovesTheVoiceToTheSidebands) {
  make(params(1.0f, QorRingModulatorSine, 400.0f));
  const auto voice = qor::test::sine(1000.0, 48000.0, 48000, 0.8);
  const Signals out = run({voice, voice});
  for (const auto& ch : out) {
    EXPECT_NEAR(qor::test::toneAmplitude(ch, 600.0, 48000.0), 0.4, 2e-3);
    EXPECT_NEAR(qor::test::toneAmplitude(ch, 1400.0, 48000.0), 0.4, 2e-3);
    EXPECT_LT(qor::test::toneAmplitude(ch, 1000.0, 48000.0), 1e-3) << "no voice left";
    EXPECT_LT(qor::test::toneAmplitude(ch, 400.0, 48000.0), 1e-3) << "no carrier leak";
  }
}

TEST_F(RingModulatorTest, ShapedMixKeepsPartOfTheVoice) {
  make(params(0.7f, QorRingModulatorSine, 300.0f));
  const auto voice = qor::test::sine(1200.0, 48000.0, 48000);
  const Signals out = run({voice, voice});
  const double m = shaped(0.7);
  ASSERT_NEAR(m, 0.909, 1e-3);
  EXPECT_NEAR(qor::test::toneAmplitude(out[0], 1200.0, 48000.0), 1.0 - m, 2e-3);
  EXPECT_NEAR(qor::test::toneAmplitude(out[0], 900.0, 48000.0), m / 2, 2e-3);
  EXPECT_NEAR(qor::test::toneAmplitude(out[0], 1500.0, 48000.0), m / 2, 2e-3);
}

TEST_F(RingModulatorTest, FullMixIsExactlyVoiceTimesCarrier) {
  make(params(1.0f, QorRingModulatorSine, 777.0f), 1);
  const auto voice = qor::test::whiteNoise(24000, 7);
  const Signals out = run({voice});
  for (size_t n = 0; n < voice.size(); ++n) {
    const double carrier = std::sin(2 * kPi * cycles(777.0, n));
    ASSERT_NEAR(out[0][n], voice[n] * carrier, 1e-4) << n;
  }
}

TEST_F(RingModulatorTest, ZeroMixLeavesTheVoiceUntouched) {
  make(params(0.0f, QorRingModulatorSquare, 100.0f), 3);
  const Signals in{qor::test::whiteNoise(4096, 1), qor::test::whiteNoise(4096, 2),
                   qor::test::whiteNoise(4096, 3)};
  EXPECT_EQ(run(in), in);
}

TEST_F(RingModulatorTest, TinyMixIsShapedAwayFromZero) {
  make(params(0.00002f, QorRingModulatorSquare, 1.0f), 1);
  // Constant input reads the gain; the square carrier starts at +1, later -1.
  const Signals out = run({std::vector<float>(30000, 1.0f)});
  const double m = shaped(0.00002);
  EXPECT_NEAR(m, 0.0032, 1e-4);
  EXPECT_NEAR(out[0][28000], 1.0 - 2.0 * m, 1e-6);
}

class RingModulatorSquare : public RingModulatorTest,
                            public ::testing::WithParamInterface<float> {};

TEST_P(RingModulatorSquare, GainAlternatesEveryHalfSecond) {
  const float mix = GetParam();
  make(params(mix, QorRingModulatorSquare, 1.0f), 2);
  const Signals out = run({std::vector<float>(96000, 1.0f), std::vector<float>(96000, -0.5f)});
  const double m = mix > 0.00001 && mix < 0.99999 ? shaped(mix) : mix;
  const double low = 1.0 - 2.0 * m;
  // Away from the interpolated edges the gain sits on +1 or 1 - 2m'.
  for (size_t n = 0; n < 96000; n += 100) {
    const double t = cycles(1.0, n) * 256.0;  // table position
    double expected;
    if (t <= 127.0) expected = 1.0;
    else if (t >= 128.0 && t <= 255.0) expected = low;
    else continue;
    ASSERT_NEAR(out[0][n], expected, 1e-5) << n;
    ASSERT_NEAR(out[1][n], -0.5 * expected, 1e-5) << n;
  }
}

INSTANTIATE_TEST_SUITE_P(Mixes, RingModulatorSquare, ::testing::Values(1.0f, 0.7f, 0.5f));

TEST_F(RingModulatorTest, WaveformsMapToTheirCarrierShapes) {
  struct Case { int32_t waveform; double (*shape)(double); };
  const Case cases[] = {
      {QorRingModulatorTriangle, [](double c) { return c < 0.25 ? 4 * c : c < 0.75 ? 2 - 4 * c : 4 * c - 4; }},
      {QorRingModulatorRisingRamp, [](double c) { return -1.0 + 2.0 * c * 256.0 / 255.0; }},
      {QorRingModulatorRectifiedCosine, [](double c) { return std::max(std::cos(2 * kPi * c), 0.0); }},
      {17, [](double c) { return std::sin(2 * kPi * c); }},
  };
  for (const Case& k : cases) {
    make(params(1.0f, k.waveform, 50.0f), 1);
    const Signals out = run({std::vector<float>(4800, 1.0f)});
    for (size_t n = 0; n < 4800; n += 7) {
      const double c = cycles(50.0, n);
      if (k.waveform == QorRingModulatorRisingRamp && c * 256.0 > 254.9) continue;  // wrap edge
      ASSERT_NEAR(out[0][n], k.shape(c), 2e-3) << "waveform " << k.waveform << " sample " << n;
    }
  }
}

TEST_F(RingModulatorTest, WaveformChangeKeepsTheCarrierPhase) {
  make(params(1.0f, QorRingModulatorSine, 60.0f), 1);
  run({std::vector<float>(1024, 1.0f)});
  update(params(1.0f, QorRingModulatorRectifiedCosine, 60.0f));
  const Signals out = run({std::vector<float>(2560, 1.0f)});
  const size_t done = 1024;  // four blocks already ran
  for (size_t n = 0; n < out[0].size(); n += 11) {
    const double c = cycles(60.0, done + n);
    ASSERT_NEAR(out[0][n], std::max(std::cos(2 * kPi * c), 0.0), 2e-3) << n;
  }
}

TEST_F(RingModulatorTest, FlushAndFadeOutReturnTheCarrierToItsStart) {
  make(params(1.0f, QorRingModulatorSine, 440.0f, 0.0f), 1);
  const Signals in{qor::test::whiteNoise(2560, 11)};
  const Signals first = run(in);
  run(in);
  ASSERT_EQ(qorRingModulatorFlush(inst), R::Success);
  EXPECT_EQ(run(in), first);

  // Switch off: with no fade time the mix snaps to 0 after one sample, the
  // rest is dry and the carrier is back at its start.
  update(params(1.0f, QorRingModulatorSine, 440.0f, 0.0f, 0));
  const Signals off = run(in);
  for (size_t n = 256; n < in[0].size(); ++n) ASSERT_EQ(off[0][n], in[0][n]) << n;
  update(params(1.0f, QorRingModulatorSine, 440.0f, 0.0f, 1));
  const Signals on = run(in);
  EXPECT_EQ(on[0][0], in[0][0]) << "the first sample still uses the old mix";
  for (size_t n = 1; n < in[0].size(); ++n) ASSERT_EQ(on[0][n], first[0][n]) << n;
}

TEST_F(RingModulatorTest, SwitchingOffFadesOverTheCrossfadeTime) {
  make(params(1.0f, QorRingModulatorSquare, 1.0f, 20.0f), 1);
  // In the carrier's -1 half the processed signal is the inverted input.
  run({std::vector<float>(25600, 1.0f)});
  update(params(1.0f, QorRingModulatorSquare, 1.0f, 20.0f, 0));
  const Signals out = run({std::vector<float>(4800, 1.0f)});
  // Output = (1 - m) * 1 + m * (-1) with m decaying by (1 - c) per sample.
  const double c = 1.0 - std::pow(1e-5, 1.0 / (0.020 * 48000.0));
  double m = 1.0;
  for (size_t n = 0; n < 960; ++n) {
    ASSERT_NEAR(out[0][n], 1.0 - 2.0 * m, 2e-4) << n;
    m = (1.0 - c) * m;
  }
  EXPECT_EQ(out[0][4799], 1.0f) << "fully dry after the fade";
}

TEST(RingModulatorSize, IsTheDryBufferPlusAFixedState) {
  for (uint32_t block : {32u, 100u, 256u, 4096u}) {
    for (uint32_t channels : {1u, 2u, 5u}) {
      QorRingModulatorConfig c{48000, block, channels, 48000, block, channels, {}};
      qorRingModulatorGetDefaultParameters(&c.parameters);
      size_t size = 0;
      ASSERT_EQ(qorRingModulatorGetInstanceSize(&c, &size), R::Success);
      EXPECT_EQ(size, qor::roundUp32(block * channels * 4) + 2176) << block << "x" << channels;
    }
  }
}

TEST(RingModulatorChecks, ConfigurationAndParameterCodes) {
  QorRingModulatorConfig good{48000, 256, 2, 48000, 256, 2, {}};
  qorRingModulatorGetDefaultParameters(&good.parameters);
  size_t size = 0;
  auto code = [&](QorRingModulatorConfig c) {
    return qorRingModulatorGetInstanceSize(&c, &size);
  };
  auto with = [&](auto change) { QorRingModulatorConfig c = good; change(c); return code(c); };
  EXPECT_EQ(with([](auto& c) { c.outputSampleRate = 44100; }), R::ErrorSampleRate);
  EXPECT_EQ(with([](auto& c) { c.outputBlockSize = 128; }), R::ErrorBlockSize);
  EXPECT_EQ(with([](auto& c) { c.outputChannels = 1; }), R::ErrorOutputChannels);
  EXPECT_EQ(with([](auto& c) { c.inputSampleRate = c.outputSampleRate = 8000; }), R::Success);
  EXPECT_EQ(with([](auto& c) { c.parameters.mix = 1.01f; }), R::ErrorMix);
  EXPECT_EQ(with([](auto& c) { c.parameters.mix = -0.01f; }), R::ErrorMix);
  EXPECT_EQ(with([](auto& c) { c.parameters.frequency = 0.5f; }), R::ErrorFrequency);
  EXPECT_EQ(with([](auto& c) { c.parameters.frequency = 2000.0f; }), R::Success);
  EXPECT_EQ(with([](auto& c) { c.parameters.frequency = 2000.5f; }), R::ErrorFrequency);
  EXPECT_EQ(with([](auto& c) { c.parameters.crossfadeTime = 250.5f; }), R::ErrorCrossfadeTime);
  EXPECT_EQ(with([](auto& c) { c.parameters.waveform = -9; }), R::Success);
  EXPECT_EQ(with([](auto& c) { c.parameters.mix = std::nanf(""); }), R::Success);
  EXPECT_EQ(static_cast<int32_t>(R::ErrorMix), -1005000);
  EXPECT_EQ(static_cast<int32_t>(R::ErrorFrequency), -1005002);
  EXPECT_EQ(static_cast<int32_t>(R::ErrorCrossfadeTime), -1005003);
  EXPECT_EQ(qorRingModulatorGetInstanceSize(nullptr, &size), R::ErrorNullPointer);
  EXPECT_EQ(qorRingModulatorGetInstanceSize(&good, nullptr), R::ErrorNullPointer);
}

TEST_F(RingModulatorTest, RefusedUpdateKeepsTheOldRecordAndSound) {
  make(params(1.0f, QorRingModulatorSine, 400.0f));
  QorRingModulatorParameters bad = params(0.5f, QorRingModulatorSquare, 0.5f);
  EXPECT_EQ(qorRingModulatorUpdateParameters(inst, &bad), R::ErrorFrequency);
  QorRingModulatorParameters now{};
  ASSERT_EQ(qorRingModulatorGetParameters(inst, &now), R::Success);
  EXPECT_EQ(now.mix, 1.0f);
  EXPECT_EQ(now.waveform, QorRingModulatorSine);
  const auto voice = qor::test::sine(1000.0, 48000.0, 48000);
  const Signals out = run({voice, voice});
  EXPECT_LT(qor::test::toneAmplitude(out[0], 1000.0, 48000.0), 1e-3);
}

TEST_F(RingModulatorTest, LifecycleAndPointerChecks) {
  make(params(0.7f, 0, 400.0f));
  EXPECT_EQ(qorRingModulatorInit(inst, &config), R::ErrorAlreadyInitialised);
  int latency = -1;
  EXPECT_EQ(qorRingModulatorGetCurrentLatency(inst, &latency), R::Success);
  EXPECT_EQ(latency, 0);
  EXPECT_EQ(qorRingModulatorGetCurrentLatency(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorRingModulatorGetParameters(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorRingModulatorUpdateParameters(nullptr, &config.parameters), R::ErrorNullPointer);

  // A channel that is 16- but not 32-byte aligned is refused untouched.
  qor::test::ChannelBuffers buffers(2, 257);
  buffers.fill(0.25f);
  float* skewed[2] = {buffers[0], buffers[1] + 4};
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorRingModulatorProcess(inst, skewed), R::ErrorMisaligned));
  EXPECT_EQ(skewed[1][0], 0.25f);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorRingModulatorProcess(inst, nullptr), R::ErrorNullPointer));
  auto* misaligned = reinterpret_cast<QorRingModulatorInst*>(memory->bytes() + 16);
  EXPECT_NO_ALLOCATION(
      EXPECT_EQ(qorRingModulatorProcess(misaligned, buffers.data()), R::ErrorMisaligned));

  ASSERT_EQ(qorRingModulatorRelease(inst), R::Success);
  EXPECT_EQ(qorRingModulatorRelease(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorRingModulatorFlush(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorRingModulatorGetCurrentLatency(inst, &latency), R::ErrorNotInitialised);
  EXPECT_NO_ALLOCATION(
      EXPECT_EQ(qorRingModulatorProcess(inst, buffers.data()), R::ErrorNotInitialised));
  EXPECT_EQ(buffers[0][0], 0.25f);
  EXPECT_EQ(qorRingModulatorInit(inst, &config), R::Success) << "released blocks init again";

  // A failing Init leaves the block not initialised.
  memory->zero();
  QorRingModulatorConfig bad = config;
  bad.parameters.crossfadeTime = 300.0f;
  EXPECT_EQ(qorRingModulatorInit(inst, &bad), R::ErrorCrossfadeTime);
  EXPECT_NO_ALLOCATION(
      EXPECT_EQ(qorRingModulatorProcess(inst, buffers.data()), R::ErrorNotInitialised));
}

}  // namespace
