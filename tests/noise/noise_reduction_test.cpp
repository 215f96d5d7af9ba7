// The noise reduction family on signals (noise, tones, fades), its metering
// and latency reports, its calling conventions, and its band table.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <tuple>
#include <vector>

#include "dsp/noise/noise_band_table.h"
#include "dsp/noise/noise_reduction.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace QorNoiseReduction_API_V1;
using R = QorNoiseReductionResult;
using Parameters = QorNoiseReductionParameters;
using Config = QorNoiseReductionConfig;

// Quiet hiss: band levels of roughly -85..-65 dB, below the -60 dB start.
constexpr double kHiss = 0.002;

Config defaultConfig(uint32_t channels = 1, uint32_t block = 256, uint32_t rate = 48000, uint8_t metering = 1) {
  Config c{rate, block, channels, rate, block, channels, {}, metering};
  qorNoiseReductionGetDefaultParameters(&c.parameters);
  return c;
}

// Field by field: the record has padding after `enable`.
auto fields(const Parameters& p) {
  return std::make_tuple(p.reservedLevel, p.maxExpansionDb, p.expansionRatio, p.reductionFloorDb, int{p.enable}, p.crossfadeTime);
}

class NoiseReductionTest : public ::testing::Test {
 protected:
  void make(const Config& c) {
    config = c;
    size_t size = 0;
    ASSERT_EQ(qorNoiseReductionGetInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<qor::test::InstanceMemory>(size);
    inst = memory->as<QorNoiseReductionInst>();
    ASSERT_EQ(qorNoiseReductionInit(inst, &config), R::Success);
    audio = std::make_unique<qor::test::ChannelBuffers>(config.inputChannels, config.inputBlockSize);
  }
  // Applies `change` to the parameters in force.
  void update(void (*change)(Parameters&)) {
    Parameters p{};
    ASSERT_EQ(qorNoiseReductionGetParameters(inst, &p), R::Success);
    change(p);
    ASSERT_EQ(qorNoiseReductionUpdateParameters(inst, &p), R::Success);
  }
  // Runs one signal per channel (the last one repeats) block by block;
  // returns channel 0.
  std::vector<float> run(const std::vector<std::vector<float>>& x) {
    const uint32_t block = config.inputBlockSize;
    std::vector<float> y;
    for (size_t at = 0; at + block <= x[0].size(); at += block) {
      audio->load(x, at);
      EXPECT_NO_ALLOCATION(EXPECT_EQ(qorNoiseReductionProcess(inst, audio->data()), R::Success));
      y.insert(y.end(), (*audio)[0], (*audio)[0] + block);
    }
    return y;
  }
  // Output level of channel 0 against its input over the last four seconds, in dB.
  double reductionDb(const std::vector<std::vector<float>>& x) {
    const std::vector<float> y = run(x);
    const size_t delay = 1024 - config.inputBlockSize, from = y.size() - 4 * config.inputSampleRate;
    return qor::test::toDb(qor::test::rms(y, from) / qor::test::rms(x[0], from - delay, y.size() - delay));
  }
  int latency() {
    int l = -1;
    EXPECT_EQ(qorNoiseReductionGetCurrentLatency(inst, &l), R::Success);
    return l;
  }
  // Triples per band: noise floor in dB, applied gain in dB, 0.
  const float* meter() {
    const QorNoiseReductionMeteringPoints* points = nullptr;
    EXPECT_EQ(qorNoiseReductionGetMeteringPoints(inst, &points), R::Success);
    EXPECT_EQ(points->points[0]->count, 32u);
    return points->points[0]->data;
  }

  Config config{};
  std::unique_ptr<qor::test::InstanceMemory> memory;
  QorNoiseReductionInst* inst = nullptr;
  std::unique_ptr<qor::test::ChannelBuffers> audio;
};

TEST_F(NoiseReductionTest, StationaryNoiseFallsTowardTheFloorAsFloorAndRatioSay) {
  make(defaultConfig(2));
  for (int b = 0; b < 32; ++b) EXPECT_EQ(std::make_tuple(meter()[3 * b], meter()[3 * b + 1]), std::make_tuple(-60.0f, 0.0f));
  // Channel 0 carries hiss, channel 1 silence: the meter follows channel 0.
  const std::vector<float> x = qor::test::whiteNoise(12 * 48000, 21, kHiss);
  // Mostly at the -20 dB floor; level fluctuations open a band now and then.
  const double standard = reductionDb({x, std::vector<float>(x.size(), 0.0f)});
  EXPECT_LT(standard, -12.0);
  EXPECT_GT(standard, -20.5);
  for (int b = 0; b < 32; ++b) {
    EXPECT_GT(meter()[3 * b], -90.0f) << "floor of the noisy channel, not the silent one (-144)";
    EXPECT_LT(meter()[3 * b], -60.0f);
    EXPECT_LT(meter()[3 * b + 1], -8.0f) << "band " << b;
    EXPECT_GE(meter()[3 * b + 1], -20.01f) << "band " << b;
  }
  for (uint32_t i = 0; i < 256; ++i) ASSERT_EQ((*audio)[1][i], 0.0f) << "silence stays silent";

  make(defaultConfig());
  update([](Parameters& p) { p.reductionFloorDb = -40.0f; });
  EXPECT_LT(reductionDb({x}), standard - 4.0) << "a deeper floor reduces more";
  // A zero ratio puts the threshold on the floor: noise opens, yet still
  // sits at or below its own floor part of the time.
  make(defaultConfig());
  update([](Parameters& p) { p.expansionRatio = 0.0f; });
  const double opened = reductionDb({x});
  EXPECT_GT(opened, standard + 4.0);
  EXPECT_LT(opened, -3.0);

  make(defaultConfig(1, 512, 44100));
  EXPECT_LT(reductionDb({qor::test::whiteNoise(12 * 44100, 26, kHiss)}), -12.0) << "44.1 kHz";
}

TEST_F(NoiseReductionTest, ToneRisingOutOfNoiseOpensItsBandWithinAbout100ms) {
  make(defaultConfig());
  const size_t onset = 6 * 48000, outOnset = onset + 768;
  std::vector<float> x = qor::test::whiteNoise(onset + 48000, 24, kHiss);
  const std::vector<float> tone = qor::test::sine(1000.0, 48000.0, x.size(), 0.1);
  for (size_t i = onset; i < x.size(); ++i) x[i] += tone[i];
  const std::vector<float> y = run({x});
  auto toneGain = [&](double fromMs, double toMs) {
    return qor::test::toneAmplitude(y, 1000.0, 48000.0, outOnset + static_cast<size_t>(fromMs * 48.0),
                                    outOnset + static_cast<size_t>(toMs * 48.0)) / 0.1;
  };
  EXPECT_LT(toneGain(-150.0, -50.0), 0.01) << "no tone before the onset";
  // The slow gain smoother rises with a 100 ms time constant from 0.1.
  EXPECT_GT(toneGain(90.0, 110.0), 0.6);
  EXPECT_GT(toneGain(200.0, 300.0), 0.85);
  EXPECT_LT(toneGain(200.0, 300.0), 1.05);
  // Band 7 holds 1 kHz (bin 21.3); bands away from it stay down.
  EXPECT_GT(meter()[3 * 7 + 1], -1.0f);
  for (int b : {12, 16, 20, 24, 28}) EXPECT_LT(meter()[3 * b + 1], -8.0f) << "band " << b;
  // Hiss well away from the tone is still reduced in the output.
  const size_t from = y.size() - 24000;
  double hissOut = 0.0, hissIn = 0.0;
  for (double f : {9000.0, 12000.0, 15000.0}) {
    hissOut += qor::test::toneAmplitude(y, f, 48000.0, from, y.size());
    hissIn += qor::test::toneAmplitude(x, f, 48000.0, from - 768, y.size() - 768);
  }
  EXPECT_LT(hissOut, 0.4 * hissIn);
}

// Reference for a 0 dB floor: the delayed input less, per analysis frame, the
// windowed projection onto (-1)^n that the removed Nyquist bin carried.
std::vector<double> withoutNyquist(const std::vector<float>& x, size_t outLength) {
  constexpr size_t n = 1024, hop = 512, prime = 768;
  std::vector<double> padded(prime + x.size(), 0.0), w(n);
  std::copy(x.begin(), x.end(), padded.begin() + prime);
  for (size_t k = 0; k < n; ++k) w[k] = std::sin(std::numbers::pi * (k + 0.5) / n) * (k % 2 == 0 ? 1.0 : -1.0);
  std::vector<double> y(padded.begin(), padded.begin() + static_cast<ptrdiff_t>(outLength));
  for (size_t f = 0; f * hop + n <= padded.size(); ++f) {
    double c = 0.0;
    for (size_t k = 0; k < n; ++k) c += padded[f * hop + k] * w[k] / n;
    for (size_t k = 0; k < n && f * hop + k < outLength; ++k) y[f * hop + k] -= w[k] * c;
  }
  return y;
}

TEST_F(NoiseReductionTest, ZeroFloorPassesTheDelayedInputLessItsNyquistComponent) {
  std::vector<float> x = qor::test::whiteNoise(48000, 25, 0.3);
  for (size_t i = 0; i < x.size(); ++i) x[i] += (i % 2 == 0 ? 0.2f : -0.2f);  // Nyquist tone
  for (uint32_t channels : {1u, 2u}) {
    make(defaultConfig(channels));
    update([](Parameters& p) { p.reductionFloorDb = 0.0f; });
    const std::vector<float> y = run({x});
    const std::vector<double> ref = withoutNyquist(x, y.size());
    double worst = 0.0, removed = 0.0;
    for (size_t i = 1024; i < y.size(); ++i) {
      worst = std::max(worst, std::fabs(y[i] - ref[i]));
      removed = std::max(removed, static_cast<double>(std::fabs(y[i] - x[i - 768])));
    }
    EXPECT_LT(worst, 1e-4);
    EXPECT_GT(removed, 0.1) << "the Nyquist tone is gone";
    EXPECT_EQ(qor::test::delayByCrossCorrelation(x, y, 2000), 768);
    for (uint32_t c = 1; c < channels; ++c) EXPECT_TRUE(std::equal((*audio)[c], (*audio)[c] + 256, (*audio)[0]));
  }
}

// Bypassed blocks pass untouched with no latency; enabling waits until the
// frames hold real signal, then reports 1024 - B.
TEST_F(NoiseReductionTest, EnablingWaitsUntilTheFramesHoldRealSignal) {
  for (uint32_t block : {256u, 512u}) {
    Config c = defaultConfig(1, block);
    c.parameters.enable = 0;
    make(c);
    const std::vector<float> x = qor::test::whiteNoise(block * 16, 28, 0.5);
    EXPECT_EQ(run({x}), x);
    EXPECT_EQ(latency(), 0);
    update([](Parameters& p) { p.enable = 1; });
    const uint32_t waitBlocks = 1024 / block + 1;  // counter 0, B, ..., 1024
    for (uint32_t k = 0; k < waitBlocks + 4; ++k) {
      const std::vector<float> in(x.begin() + k * block, x.begin() + (k + 1) * block);
      EXPECT_EQ(run({in}) == in, k < waitBlocks) << "block " << k << " of " << block << " dry until the wait ends";
      EXPECT_EQ(latency(), k < waitBlocks ? 0 : static_cast<int>(1024 - block)) << "block " << k;
    }
  }
}

TEST_F(NoiseReductionTest, FadeOutTimeIsFixedAtInitAndACompletedFadeRestartsTheWait) {
  const std::vector<float> x = qor::test::whiteNoise(256 * 20, 29, 0.3);
  const std::vector<float> block(x.begin(), x.begin() + 256), five(x.begin(), x.begin() + 5 * 256);
  // 50 ms closes all but 1e-5 after 2400 samples: the tenth 256-sample block.
  for (const auto& [initMs, blocks] : {std::pair{50.0f, 10}, std::pair{100.0f, 19}}) {
    Config c = defaultConfig();
    c.parameters.crossfadeTime = initMs;
    make(c);
    run({x});
    // The new time is not in force before the next Init.
    update([](Parameters& p) { p.enable = 0, p.crossfadeTime = 100.0f; });
    int n = 0;
    for (; latency() != 0 && n < 100; ++n) run({block});
    EXPECT_EQ(n, blocks) << initMs << " ms";
    EXPECT_EQ(run({x}), x) << "bypassed";
    for (int b = 0; b < 32; ++b) {
      EXPECT_NEAR(meter()[3 * b], -758.6f, 0.1f) << "floor and gain read silent while bypassed";
      EXPECT_NEAR(meter()[3 * b + 1], -758.6f, 0.1f);
    }
    update([](Parameters& p) { p.enable = 1; });
    EXPECT_EQ(run({five}), five) << "the completed fade zeroed the wait counter";
  }
}

TEST_F(NoiseReductionTest, FlushClearsFramesButKeepsTheMix) {
  make(defaultConfig());
  run({qor::test::whiteNoise(256 * 20, 31, 0.3)});
  ASSERT_EQ(qorNoiseReductionFlush(inst), R::Success);
  EXPECT_EQ(latency(), 768);
  const std::vector<float> silence(768, 0.0f);
  EXPECT_EQ(run({silence}), silence) << "no tail from before the flush";
  // The floors restarted at -60 dB and have seen two silent (-144 dB)
  // frames through the 50 ms fall coefficient at 92 frames per second.
  const double fall = 1.0 - std::exp(-1.0 / (92.0 * 0.05));
  for (int b = 0; b < 32; ++b) EXPECT_NEAR(meter()[3 * b], -144.0 + 84.0 * (1 - fall) * (1 - fall), 0.01) << b;
}

TEST(NoiseReductionApi, DefaultsAndConfigurationChecksInOrder) {
  Parameters p{};
  ASSERT_EQ(qorNoiseReductionGetDefaultParameters(&p), R::Success);
  EXPECT_EQ(fields(p), std::make_tuple(75.0f, 25.0f, 2.5f, -20.0f, 1, 50.0f));
  EXPECT_EQ(qorNoiseReductionGetDefaultParameters(nullptr), R::ErrorNullPointer);
  const struct { const char* what; void (*spoil)(Config&); R code; } cases[] = {
      {"rate", [](Config& c) { c.inputSampleRate = 96000; }, R::ErrorSampleRate},
      {"rate before block", [](Config& c) { c.inputSampleRate = 96000; c.inputBlockSize = 128; }, R::ErrorSampleRate},
      {"block", [](Config& c) { c.inputBlockSize = 1024; }, R::ErrorBlockSize},
      {"no input channels", [](Config& c) { c.inputChannels = 0; }, R::ErrorInputChannels},
      {"channel counts differ", [](Config& c) { c.outputChannels = 1; }, R::ErrorOutputChannels},
      {"output rate, block unchecked", [](Config& c) { c.outputBlockSize = 999; c.outputSampleRate = 12345; }, R::Success},
      {"no upper channel limit", [](Config& c) { c.inputChannels = c.outputChannels = 7; }, R::Success},
  };
  size_t size = 0;
  for (const auto& t : cases) {
    Config c = defaultConfig(2);
    t.spoil(c);
    EXPECT_EQ(qorNoiseReductionGetInstanceSize(&c, &size), t.code) << t.what;
  }
  const Config c = defaultConfig();
  EXPECT_EQ(qorNoiseReductionGetInstanceSize(nullptr, &size), R::ErrorNullPointer);
  EXPECT_EQ(qorNoiseReductionGetInstanceSize(&c, nullptr), R::ErrorNullPointer);
}

TEST_F(NoiseReductionTest, BadParametersAreRefusedInFieldOrderAndChangeNothing) {
  make(defaultConfig());
  const struct { void (*spoil)(Parameters&); R code; } cases[] = {
      {[](Parameters& p) { p.reservedLevel = 1000.1f; }, R::ErrorReservedLevel},
      {[](Parameters& p) { p.reservedLevel = -0.1f; }, R::ErrorReservedLevel},
      {[](Parameters& p) { p.maxExpansionDb = 40.5f; }, R::ErrorMaxExpansionDb},
      {[](Parameters& p) { p.expansionRatio = -0.01f; }, R::ErrorExpansionRatio},
      {[](Parameters& p) { p.reductionFloorDb = 0.5f; }, R::ErrorReductionFloorDb},
      {[](Parameters& p) { p.reductionFloorDb = -61.0f; }, R::ErrorReductionFloorDb},
      {[](Parameters& p) { p.crossfadeTime = 101.0f; }, R::ErrorCrossfadeTime},
      // The earliest bad field decides.
      {[](Parameters& p) { p.crossfadeTime = 101.0f; p.reservedLevel = 2000.0f; }, R::ErrorReservedLevel},
      {[](Parameters& p) { p.expansionRatio = 9.0f; p.reductionFloorDb = 3.0f; }, R::ErrorExpansionRatio},
  };
  for (const auto& t : cases) {
    SCOPED_TRACE(&t - cases);
    Config c = defaultConfig();
    t.spoil(c.parameters);
    Parameters bad = c.parameters, now{};
    EXPECT_EQ(qorNoiseReductionUpdateParameters(inst, &bad), t.code);
    ASSERT_EQ(qorNoiseReductionGetParameters(inst, &now), R::Success);
    EXPECT_EQ(fields(now), fields(config.parameters));
    size_t size = 0;
    EXPECT_EQ(qorNoiseReductionGetInstanceSize(&c, &size), t.code);
    qor::test::InstanceMemory other(memory->size());
    EXPECT_EQ(qorNoiseReductionInit(other.as<QorNoiseReductionInst>(), &c), t.code);
    int l = 0;
    EXPECT_EQ(qorNoiseReductionGetCurrentLatency(other.as<QorNoiseReductionInst>(), &l), R::ErrorNotInitialised);
  }
  // Bounds are inclusive and NaN passes the checks.
  Parameters edge{1000.0f, 0.0f, 5.0f, -60.0f, 1, std::nanf("")}, back{};
  EXPECT_EQ(qorNoiseReductionUpdateParameters(inst, &edge), R::Success);
  ASSERT_EQ(qorNoiseReductionGetParameters(inst, &back), R::Success);
  EXPECT_EQ(back.reservedLevel, 1000.0f);
  EXPECT_TRUE(std::isnan(back.crossfadeTime));
}

TEST_F(NoiseReductionTest, CallingConventions) {
  make(defaultConfig(2));
  EXPECT_EQ(qorNoiseReductionInit(inst, &config), R::ErrorAlreadyInitialised);
  EXPECT_EQ(qorNoiseReductionInit(nullptr, &config), R::ErrorNullPointer);
  EXPECT_EQ(qorNoiseReductionProcess(inst, nullptr), R::ErrorNullPointer);
  // A channel only 16-byte aligned is refused and left alone; so is such an instance.
  qor::test::ChannelBuffers wide(2, 256 + 8);
  wide.fill(0.25f);
  float* channels[2] = {wide[0], wide[1] + 4};
  EXPECT_EQ(qorNoiseReductionProcess(inst, channels), R::ErrorMisaligned);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(channels[1][i], 0.25f);
  qor::test::InstanceMemory misaligned(memory->size() + 64);
  EXPECT_EQ(qorNoiseReductionInit(reinterpret_cast<QorNoiseReductionInst*>(misaligned.bytes() + 16), &config),
            R::ErrorMisaligned);

  ASSERT_EQ(qorNoiseReductionRelease(inst), R::Success);
  audio->fill(0.5f);
  EXPECT_EQ(qorNoiseReductionProcess(inst, audio->data()), R::ErrorNotInitialised);
  for (int i = 0; i < 256; ++i) ASSERT_EQ((*audio)[0][i], 0.5f);
  Parameters p{};
  const QorNoiseReductionMeteringPoints* points = nullptr;
  EXPECT_EQ(qorNoiseReductionGetParameters(inst, &p), R::ErrorNotInitialised);
  EXPECT_EQ(qorNoiseReductionUpdateParameters(inst, &p), R::ErrorNotInitialised);
  EXPECT_EQ(qorNoiseReductionFlush(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorNoiseReductionRelease(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorNoiseReductionGetMeteringPoints(inst, &points), R::ErrorNotInitialised);
  EXPECT_EQ(qorNoiseReductionGetMeteringPoints(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorNoiseReductionInit(inst, &config), R::Success) << "released memory initialises again";

  make(defaultConfig(1, 256, 48000, 0));
  EXPECT_EQ(qorNoiseReductionGetMeteringPoints(inst, &points), R::ErrorMeteringDisabled);
  EXPECT_EQ(points, nullptr);
  run({qor::test::whiteNoise(4096, 33, 0.1)});  // processes without a record
}

// Triangles between mel-spaced centres (in bins of a 1024-point frame at
// 44.1 kHz), flat below the first and above the last, summing to one.
TEST(NoiseBands, WeightsAreTheMelTriangles) {
  const qor::NoiseBandTable& t = qor::noiseBandTable();
  const double melMax = 2595.0 * std::log10(1.0 + 22050.0 / 700.0);
  double c[34] = {-1e9};
  c[33] = 1e9;
  for (int k = 1; k <= 32; ++k) c[k] = 700.0 * (std::pow(10.0, (k * melMax / 33.0) / 2595.0) - 1.0) * 1024.0 / 44100.0;
  for (int j = 0; j < 512; ++j) {
    double sum = 0.0;
    for (int k = 0; k < 32; ++k) {
      const double lo = c[k], mid = c[k + 1], hi = c[k + 2];
      double w = j <= mid ? (k == 0 ? 1.0 : (j - lo) / (mid - lo)) : (k == 31 ? 1.0 : (hi - j) / (hi - mid));
      const bool inside = j >= t.first[k] && j <= t.last[k];
      ASSERT_NEAR(inside ? t.weights[k][j - t.first[k]] : 0.0, std::max(w, 0.0), 1e-6) << "band " << k << " bin " << j;
      sum += inside ? t.weights[k][j - t.first[k]] : 0.0;
    }
    ASSERT_NEAR(sum, 1.0, 1e-6) << "bin " << j;
  }
}

}  // namespace
