// The noise reduction family on signals (noise, tones, fades), its metering
// and latency reports, and its calling conventions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <numbers>
#include <vector>

#include "dsp/noise/noise_band_table.h"
#include "dsp/noise/noise_reduction.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace QorNoiseReduction_API_V1;
using R = QorNoiseReductionResult;

constexpr double kRate = 48000.0;
constexpr float kSilentDb = -758.6f;

QorNoiseReductionConfig defaultConfig(uint32_t channels = 1, uint32_t block = 256,
                                      uint32_t rate = 48000, uint8_t metering = 1) {
  QorNoiseReductionConfig c{rate, block, channels, rate, block, channels, {}, metering};
  qorNoiseReductionGetDefaultParameters(&c.parameters);
  return c;
}

class NoiseReductionTest : public ::testing::Test {
 protected:
  void make(const QorNoiseReductionConfig& c) {
    config = c;
    size_t size = 0;
    ASSERT_EQ(qorNoiseReductionGetInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<qor::test::InstanceMemory>(size);
    inst = memory->as<QorNoiseReductionInst>();
    ASSERT_EQ(qorNoiseReductionInit(inst, &config), R::Success);
    audio = std::make_unique<qor::test::ChannelBuffers>(config.inputChannels, config.inputBlockSize);
  }
  void update(const QorNoiseReductionParameters& p) {
    QorNoiseReductionParameters copy = p;
    ASSERT_EQ(qorNoiseReductionUpdateParameters(inst, &copy), R::Success);
  }
  // Runs `x` through every channel (same signal) block by block; returns channel 0.
  std::vector<float> run(const std::vector<float>& x) {
    const uint32_t block = config.inputBlockSize;
    std::vector<float> y;
    for (size_t at = 0; at + block <= x.size(); at += block) {
      for (uint32_t c = 0; c < audio->channels(); ++c) {
        std::copy(x.begin() + static_cast<ptrdiff_t>(at), x.begin() + static_cast<ptrdiff_t>(at + block), (*audio)[c]);
      }
      EXPECT_NO_ALLOCATION(EXPECT_EQ(qorNoiseReductionProcess(inst, audio->data()), R::Success));
      y.insert(y.end(), (*audio)[0], (*audio)[0] + block);
    }
    return y;
  }
  int latency() {
    int l = -1;
    EXPECT_EQ(qorNoiseReductionGetCurrentLatency(inst, &l), R::Success);
    return l;
  }
  const QorMeteringPoint* meter() {
    const QorNoiseReductionMeteringPoints* points = nullptr;
    EXPECT_EQ(qorNoiseReductionGetMeteringPoints(inst, &points), R::Success);
    return points->points[0];
  }
  float meteredGainDb(int band) { return meter()->data[3 * band + 1]; }

  QorNoiseReductionConfig config{};
  std::unique_ptr<qor::test::InstanceMemory> memory;
  QorNoiseReductionInst* inst = nullptr;
  std::unique_ptr<qor::test::ChannelBuffers> audio;
};

// ---- signals ----

// Quiet hiss: band levels of roughly -85..-65 dB, below the -60 dB start.
constexpr double kHiss = 0.002;

double reductionDb(const std::vector<float>& x, const std::vector<float>& y, double seconds) {
  const size_t from = y.size() - static_cast<size_t>(seconds * kRate);
  return qor::test::toDb(qor::test::rms(y, from) / qor::test::rms(x, from - 768, y.size() - 768));
}

TEST_F(NoiseReductionTest, StationaryNoiseIsPushedTowardTheFloorGain) {
  make(defaultConfig());
  const std::vector<float> x = qor::test::whiteNoise(12 * 48000, 21, kHiss);
  const std::vector<float> y = run(x);
  // Mostly at the -20 dB floor; level fluctuations open a band now and then.
  const double r = reductionDb(x, y, 4.0);
  EXPECT_LT(r, -12.0);
  EXPECT_GT(r, -20.5);
  double sum = 0.0;
  for (int b = 0; b < 32; ++b) {
    EXPECT_LT(meteredGainDb(b), -8.0f) << "band " << b;
    EXPECT_GE(meteredGainDb(b), -20.01f) << "band " << b;
    sum += meteredGainDb(b);
  }
  EXPECT_LT(sum / 32.0, -12.0);
}

TEST_F(NoiseReductionTest, DeeperFloorReducesMore) {
  const std::vector<float> x = qor::test::whiteNoise(12 * 48000, 22, kHiss);
  make(defaultConfig());
  const double standard = reductionDb(x, run(x), 4.0);
  memory.reset();
  make(defaultConfig());
  QorNoiseReductionParameters p = config.parameters;
  p.reductionFloorDb = -40.0f;
  update(p);
  EXPECT_LT(reductionDb(x, run(x), 4.0), standard - 4.0);
}

TEST_F(NoiseReductionTest, ZeroExpansionRatioPutsTheThresholdOnTheFloorAndOpensNoise) {
  const std::vector<float> x = qor::test::whiteNoise(12 * 48000, 23, kHiss);
  make(defaultConfig());
  const double standard = reductionDb(x, run(x), 4.0);
  memory.reset();
  make(defaultConfig());
  QorNoiseReductionParameters p = config.parameters;
  p.expansionRatio = 0.0f;
  update(p);
  const double opened = reductionDb(x, run(x), 4.0);
  EXPECT_GT(opened, standard + 4.0);
  EXPECT_LT(opened, -3.0) << "noise still sits at or below its own floor part of the time";
}

TEST_F(NoiseReductionTest, ToneRisingOutOfNoiseOpensItsBandWithinAbout100ms) {
  make(defaultConfig());
  const size_t onset = 6 * 48000;
  std::vector<float> x = qor::test::whiteNoise(onset + 48000, 24, kHiss);
  const std::vector<float> tone = qor::test::sine(1000.0, kRate, x.size(), 0.1);
  for (size_t i = onset; i < x.size(); ++i) x[i] += tone[i];
  const std::vector<float> y = run(x);

  const size_t outOnset = onset + 768;
  auto toneGain = [&](double fromMs, double toMs) {
    const size_t a = outOnset + static_cast<size_t>(fromMs * 48.0);
    const size_t b = outOnset + static_cast<size_t>(toMs * 48.0);
    return qor::test::toneAmplitude(y, 1000.0, kRate, a, b) / 0.1;
  };
  EXPECT_LT(toneGain(-150.0, -50.0), 0.01) << "no tone before the onset";
  // The slow gain smoother rises with a 100 ms time constant from 0.1.
  EXPECT_GT(toneGain(90.0, 110.0), 0.6);
  EXPECT_GT(toneGain(200.0, 300.0), 0.85);
  EXPECT_LT(toneGain(200.0, 300.0), 1.05);
  // Band 7 holds 1 kHz (bin 21.3); bands away from it stay down.
  EXPECT_GT(meteredGainDb(7), -1.0f);
  for (int b : {12, 16, 20, 24, 28}) EXPECT_LT(meteredGainDb(b), -8.0f) << "band " << b;
  // Hiss well away from the tone is still reduced in the output.
  const size_t from = y.size() - 24000;
  double hissOut = 0.0, hissIn = 0.0;
  for (double f : {9000.0, 12000.0, 15000.0}) {
    hissOut += qor::test::toneAmplitude(y, f, kRate, from, y.size());
    hissIn += qor::test::toneAmplitude(x, f, kRate, from - 768, y.size() - 768);
  }
  EXPECT_LT(hissOut, 0.4 * hissIn);
}

// Reference for a 0 dB floor: the delayed input less, per analysis frame, the
// windowed projection onto (-1)^n that the removed Nyquist bin carried.
std::vector<double> withoutNyquist(const std::vector<float>& x, size_t outLength) {
  constexpr size_t n = 1024, hop = 512, prime = 768;
  std::vector<double> padded(prime + x.size(), 0.0), w(n), y(outLength, 0.0);
  std::copy(x.begin(), x.end(), padded.begin() + prime);
  for (size_t k = 0; k < n; ++k) w[k] = std::sin(std::numbers::pi * (k + 0.5) / n);
  for (size_t i = 0; i < outLength; ++i) y[i] = padded[i];
  for (size_t f = 0; f * hop + n <= padded.size(); ++f) {
    double c = 0.0;
    for (size_t k = 0; k < n; ++k) c += padded[f * hop + k] * w[k] * (k % 2 == 0 ? 1.0 : -1.0);
    c /= n;
    for (size_t k = 0; k < n && f * hop + k < outLength; ++k) {
      y[f * hop + k] -= w[k] * c * (k % 2 == 0 ? 1.0 : -1.0);
    }
  }
  return y;
}

TEST_F(NoiseReductionTest, ZeroFloorPassesTheDelayedInputLessItsNyquistComponent) {
  for (uint32_t channels : {1u, 2u}) {
    make(defaultConfig(channels));
    QorNoiseReductionParameters p = config.parameters;
    p.reductionFloorDb = 0.0f;
    update(p);
    std::vector<float> x = qor::test::whiteNoise(48000, 25, 0.3);
    for (size_t i = 0; i < x.size(); ++i) x[i] += (i % 2 == 0 ? 0.2f : -0.2f);  // Nyquist tone
    const std::vector<float> y = run(x);
    const std::vector<double> ref = withoutNyquist(x, y.size());
    double worst = 0.0, removed = 0.0;
    for (size_t i = 1024; i < y.size(); ++i) {
      worst = std::max(worst, std::fabs(y[i] - ref[i]));
      removed = std::max(removed, static_cast<double>(std::fabs(y[i] - x[i - 768])));
    }
    EXPECT_LT(worst, 1e-4);
    EXPECT_GT(removed, 0.1) << "the Nyquist tone is gone";
    EXPECT_EQ(qor::test::delayByCrossCorrelation(x, y, 2000), 768);
    for (uint32_t c = 1; c < channels; ++c) {
      for (uint32_t i = 0; i < 256; ++i) ASSERT_EQ((*audio)[c][i], (*audio)[0][i]);
    }
    memory.reset();
  }
}

TEST_F(NoiseReductionTest, RunsAt44100WithHalfMillisecondBlocks) {
  make(defaultConfig(1, 512, 44100));
  EXPECT_EQ(latency(), 512);
  const std::vector<float> x = qor::test::whiteNoise(12 * 44100, 26, kHiss);
  const std::vector<float> y = run(x);
  const size_t from = y.size() - 4 * 44100;
  EXPECT_LT(qor::test::toDb(qor::test::rms(y, from) / qor::test::rms(x, from - 512, y.size() - 512)), -12.0);
}

// ---- bypass, fade-in wait, latency ----

TEST_F(NoiseReductionTest, LatencyFollowsTheBlockSizeAndTheBypassState) {
  make(defaultConfig(1, 256));
  EXPECT_EQ(latency(), 768);
  memory.reset();
  make(defaultConfig(1, 512));
  EXPECT_EQ(latency(), 512);
  memory.reset();
  QorNoiseReductionConfig off = defaultConfig(1, 256);
  off.parameters.enable = 0;
  make(off);
  EXPECT_EQ(latency(), 0);
  const std::vector<float> x = qor::test::whiteNoise(4096, 27, 0.5);
  EXPECT_EQ(run(x), x) << "bypassed blocks pass untouched";
}

class FadeInWait : public NoiseReductionTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(FadeInWait, EnablingWaitsUntilTheFramesHoldRealSignal) {
  const uint32_t block = GetParam();
  QorNoiseReductionConfig c = defaultConfig(1, block);
  c.parameters.enable = 0;
  make(c);
  QorNoiseReductionParameters p = config.parameters;
  p.enable = 1;
  update(p);
  const uint32_t waitBlocks = 1024 / block + 1;  // counter 0, B, ..., 1024
  const std::vector<float> x = qor::test::whiteNoise(block * (waitBlocks + 4), 28, 0.5);
  for (uint32_t k = 0; k < waitBlocks + 4; ++k) {
    const std::vector<float> in(x.begin() + k * block, x.begin() + (k + 1) * block);
    const std::vector<float> out = run(in);
    if (k < waitBlocks) {
      EXPECT_EQ(out, in) << "block " << k << " is still dry";
      EXPECT_EQ(latency(), 0);
    } else {
      EXPECT_NE(out, in) << "block " << k << " fades in";
      EXPECT_EQ(latency(), static_cast<int>(1024 - block));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Blocks, FadeInWait, ::testing::Values(256u, 512u));

TEST_F(NoiseReductionTest, FadeOutTimeIsFixedAtInitAndEndsInAReset) {
  auto blocksToBypass = [&](float initMs, float updateMs) {
    QorNoiseReductionConfig c = defaultConfig();
    c.parameters.crossfadeTime = initMs;
    make(c);
    const std::vector<float> x = qor::test::whiteNoise(256 * 20, 29, 0.3);
    run(x);
    QorNoiseReductionParameters p = config.parameters;
    p.enable = 0;
    p.crossfadeTime = updateMs;
    update(p);
    int blocks = 0;
    while (latency() != 0 && blocks < 100) {
      run(std::vector<float>(x.begin(), x.begin() + 256));
      ++blocks;
    }
    memory.reset();
    return blocks;
  };
  // 50 ms closes all but 1e-5 after 2400 samples: the tenth 256-sample block.
  EXPECT_EQ(blocksToBypass(50.0f, 100.0f), 10);
  EXPECT_EQ(blocksToBypass(100.0f, 100.0f), 19);
}

TEST_F(NoiseReductionTest, CompletedFadeOutBypassesAndRestartsTheWait) {
  make(defaultConfig());
  const std::vector<float> x = qor::test::whiteNoise(256 * 40, 30, 0.3);
  run(x);
  QorNoiseReductionParameters p = config.parameters;
  p.enable = 0;
  update(p);
  run(x);  // 40 blocks: long past the 50 ms fade
  EXPECT_EQ(latency(), 0);
  EXPECT_EQ(run(x), x);
  p.enable = 1;
  update(p);
  // The counter was zeroed by the completed fade: five dry blocks again.
  const std::vector<float> first(x.begin(), x.begin() + 5 * 256);
  EXPECT_EQ(run(first), first);
  EXPECT_EQ(latency(), 0);
}

TEST_F(NoiseReductionTest, FlushClearsFramesButKeepsTheMix) {
  make(defaultConfig());
  run(qor::test::whiteNoise(256 * 20, 31, 0.3));
  ASSERT_EQ(qorNoiseReductionFlush(inst), R::Success);
  EXPECT_EQ(latency(), 768);
  const std::vector<float> silence(768, 0.0f);
  EXPECT_EQ(run(silence), silence) << "no tail from before the flush";
  // The floors restarted at -60 dB and have seen two silent (-144 dB)
  // frames through the 50 ms fall coefficient at 92 frames per second.
  const double fall = 1.0 - std::exp(-1.0 / (92.0 * 0.05));
  const double expected = -144.0 + 84.0 * (1.0 - fall) * (1.0 - fall);
  for (int b = 0; b < 32; ++b) EXPECT_NEAR(meter()->data[3 * b], expected, 0.01) << "band " << b;
}

// ---- metering ----

TEST_F(NoiseReductionTest, MeteringReportsChannelZeroFloorsAndGains) {
  make(defaultConfig(2));
  const QorMeteringPoint* point = meter();
  ASSERT_EQ(point->count, 32u);
  for (int b = 0; b < 32; ++b) {
    EXPECT_EQ(point->data[3 * b], -60.0f);
    EXPECT_EQ(point->data[3 * b + 1], 0.0f);
    EXPECT_EQ(point->data[3 * b + 2], 0.0f);
  }
  // Channel 0 carries noise, channel 1 silence: the floors follow channel 0.
  const std::vector<float> x = qor::test::whiteNoise(10 * 48000, 32, 0.05);
  for (size_t at = 0; at < x.size(); at += 256) {
    std::copy(x.begin() + static_cast<ptrdiff_t>(at), x.begin() + static_cast<ptrdiff_t>(at + 256), (*audio)[0]);
    std::fill((*audio)[1], (*audio)[1] + 256, 0.0f);
    EXPECT_NO_ALLOCATION(ASSERT_EQ(qorNoiseReductionProcess(inst, audio->data()), R::Success));
  }
  for (int b = 0; b < 32; ++b) {
    EXPECT_GT(point->data[3 * b], -90.0f) << "floor of the noisy channel, not the silent one (-144)";
    EXPECT_LT(point->data[3 * b], -20.0f);
    EXPECT_LE(point->data[3 * b + 1], 0.0f);
    EXPECT_GE(point->data[3 * b + 1], -20.5f);
  }
  for (uint32_t i = 0; i < 256; ++i) ASSERT_EQ((*audio)[1][i], 0.0f) << "silence stays silent";

  QorNoiseReductionParameters p = config.parameters;
  p.enable = 0;
  update(p);
  run(std::vector<float>(256, 0.0f));
  for (int b = 0; b < 32; ++b) {
    EXPECT_NEAR(point->data[3 * b], kSilentDb, 0.1f);
    EXPECT_NEAR(point->data[3 * b + 1], kSilentDb, 0.1f);
  }
}

TEST_F(NoiseReductionTest, MeteringAbsentWhenNotConfigured) {
  make(defaultConfig(1, 256, 48000, 0));
  const QorNoiseReductionMeteringPoints* points = nullptr;
  EXPECT_EQ(qorNoiseReductionGetMeteringPoints(inst, &points), R::ErrorMeteringDisabled);
  EXPECT_EQ(points, nullptr);
  run(qor::test::whiteNoise(4096, 33, 0.1));  // processes without a record
  size_t with = 0, without = 0;
  QorNoiseReductionConfig c = defaultConfig(1, 256, 48000, 1);
  ASSERT_EQ(qorNoiseReductionGetInstanceSize(&c, &with), R::Success);
  c.meteringEnabled = 0;
  ASSERT_EQ(qorNoiseReductionGetInstanceSize(&c, &without), R::Success);
  EXPECT_EQ(with - without, 32u + 96u * 4u);
}

// ---- configuration, parameters, conventions ----

TEST(NoiseReductionApi, DefaultParameters) {
  QorNoiseReductionParameters p{};
  ASSERT_EQ(qorNoiseReductionGetDefaultParameters(&p), R::Success);
  EXPECT_EQ(p.reservedLevel, 75.0f);
  EXPECT_EQ(p.maxExpansionDb, 25.0f);
  EXPECT_EQ(p.expansionRatio, 2.5f);
  EXPECT_EQ(p.reductionFloorDb, -20.0f);
  EXPECT_EQ(p.enable, 1);
  EXPECT_EQ(p.crossfadeTime, 50.0f);
  EXPECT_EQ(qorNoiseReductionGetDefaultParameters(nullptr), R::ErrorNullPointer);
}

TEST(NoiseReductionApi, ConfigurationChecks) {
  auto sizeOf = [](QorNoiseReductionConfig c) {
    size_t s = 0;
    return qorNoiseReductionGetInstanceSize(&c, &s);
  };
  QorNoiseReductionConfig c = defaultConfig(2);
  EXPECT_EQ(sizeOf(c), R::Success);
  c.inputSampleRate = 96000;
  EXPECT_EQ(sizeOf(c), R::ErrorSampleRate);
  c.inputBlockSize = 128;
  EXPECT_EQ(sizeOf(c), R::ErrorSampleRate) << "rate is checked first";
  c = defaultConfig(2);
  c.inputBlockSize = 1024;
  EXPECT_EQ(sizeOf(c), R::ErrorBlockSize);
  c = defaultConfig(2);
  c.inputChannels = 0;
  EXPECT_EQ(sizeOf(c), R::ErrorInputChannels);
  c = defaultConfig(2);
  c.outputChannels = 1;
  EXPECT_EQ(sizeOf(c), R::ErrorOutputChannels);
  c.outputChannels = 0;
  EXPECT_EQ(sizeOf(c), R::ErrorOutputChannels);
  c = defaultConfig(2);
  c.outputBlockSize = 999;
  c.outputSampleRate = 12345;
  EXPECT_EQ(sizeOf(c), R::Success) << "output rate and block are not checked";
  c = defaultConfig(7);
  EXPECT_EQ(sizeOf(c), R::Success) << "no upper channel limit";
  size_t one = 0, two = 0;
  c = defaultConfig(1);
  qorNoiseReductionGetInstanceSize(&c, &one);
  c = defaultConfig(2);
  qorNoiseReductionGetInstanceSize(&c, &two);
  EXPECT_GE(two - one, 2u * 4096u * sizeof(float)) << "two frames of 4096 per extra channel";
  EXPECT_EQ(qorNoiseReductionGetInstanceSize(nullptr, &one), R::ErrorNullPointer);
  EXPECT_EQ(qorNoiseReductionGetInstanceSize(&c, nullptr), R::ErrorNullPointer);
}

struct BadField {
  const char* name;
  void (*spoil)(QorNoiseReductionParameters&);
  R code;
};

class NoiseReductionParameterChecks : public NoiseReductionTest,
                                      public ::testing::WithParamInterface<BadField> {};

TEST_P(NoiseReductionParameterChecks, RefusedWithItsCodeAndNothingChanges) {
  make(defaultConfig());
  QorNoiseReductionParameters bad = config.parameters;
  GetParam().spoil(bad);
  EXPECT_EQ(qorNoiseReductionUpdateParameters(inst, &bad), GetParam().code);
  QorNoiseReductionParameters now{};
  ASSERT_EQ(qorNoiseReductionGetParameters(inst, &now), R::Success);
  // Field by field: the record has padding after `enable`.
  const QorNoiseReductionParameters& was = config.parameters;
  EXPECT_EQ(now.reservedLevel, was.reservedLevel);
  EXPECT_EQ(now.maxExpansionDb, was.maxExpansionDb);
  EXPECT_EQ(now.expansionRatio, was.expansionRatio);
  EXPECT_EQ(now.reductionFloorDb, was.reductionFloorDb);
  EXPECT_EQ(now.enable, was.enable);
  EXPECT_EQ(now.crossfadeTime, was.crossfadeTime);
  QorNoiseReductionConfig c = defaultConfig();
  c.parameters = bad;
  size_t size = 0;
  EXPECT_EQ(qorNoiseReductionGetInstanceSize(&c, &size), GetParam().code);
  qor::test::InstanceMemory other(memory->size());
  EXPECT_EQ(qorNoiseReductionInit(other.as<QorNoiseReductionInst>(), &c), GetParam().code);
  int l = 0;
  EXPECT_EQ(qorNoiseReductionGetCurrentLatency(other.as<QorNoiseReductionInst>(), &l), R::ErrorNotInitialised);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, NoiseReductionParameterChecks,
    ::testing::Values(
        BadField{"reservedLevel", [](QorNoiseReductionParameters& p) { p.reservedLevel = 1000.1f; }, R::ErrorReservedLevel},
        BadField{"reservedLevelLow", [](QorNoiseReductionParameters& p) { p.reservedLevel = -0.1f; }, R::ErrorReservedLevel},
        BadField{"maxExpansionDb", [](QorNoiseReductionParameters& p) { p.maxExpansionDb = 40.5f; }, R::ErrorMaxExpansionDb},
        BadField{"expansionRatio", [](QorNoiseReductionParameters& p) { p.expansionRatio = -0.01f; }, R::ErrorExpansionRatio},
        BadField{"reductionFloorDb", [](QorNoiseReductionParameters& p) { p.reductionFloorDb = 0.5f; }, R::ErrorReductionFloorDb},
        BadField{"reductionFloorDbLow", [](QorNoiseReductionParameters& p) { p.reductionFloorDb = -61.0f; }, R::ErrorReductionFloorDb},
        BadField{"crossfadeTime", [](QorNoiseReductionParameters& p) { p.crossfadeTime = 101.0f; }, R::ErrorCrossfadeTime},
        // Fields are tested in order, so the earliest bad field decides.
        BadField{"crossfadeAndReserved", [](QorNoiseReductionParameters& p) { p.crossfadeTime = 101.0f; p.reservedLevel = 2000.0f; }, R::ErrorReservedLevel},
        BadField{"ratioAndFloor", [](QorNoiseReductionParameters& p) { p.expansionRatio = 9.0f; p.reductionFloorDb = 3.0f; }, R::ErrorExpansionRatio}),
    [](const ::testing::TestParamInfo<BadField>& field) { return std::string(field.param.name); });

TEST_F(NoiseReductionTest, CodesMatchTheirNumbers) {
  EXPECT_EQ(static_cast<int32_t>(R::ErrorCrossfadeTime), -1005000);
  EXPECT_EQ(static_cast<int32_t>(R::ErrorReservedLevel), -1005001);
  EXPECT_EQ(static_cast<int32_t>(R::ErrorReductionFloorDb), -1005004);
  make(defaultConfig());
  QorNoiseReductionParameters p = config.parameters;
  p.reservedLevel = 1000.0f;
  p.maxExpansionDb = 0.0f;
  p.expansionRatio = 5.0f;
  p.reductionFloorDb = -60.0f;
  p.crossfadeTime = std::nanf("");
  EXPECT_EQ(qorNoiseReductionUpdateParameters(inst, &p), R::Success) << "bounds inclusive, NaN passes";
  QorNoiseReductionParameters back{};
  ASSERT_EQ(qorNoiseReductionGetParameters(inst, &back), R::Success);
  EXPECT_EQ(back.reservedLevel, 1000.0f);
  EXPECT_TRUE(std::isnan(back.crossfadeTime));
}

TEST_F(NoiseReductionTest, CallingConventions) {
  make(defaultConfig(2));
  EXPECT_EQ(qorNoiseReductionInit(inst, &config), R::ErrorAlreadyInitialised);
  EXPECT_EQ(qorNoiseReductionInit(nullptr, &config), R::ErrorNullPointer);
  EXPECT_EQ(qorNoiseReductionProcess(inst, nullptr), R::ErrorNullPointer);

  // A 16-byte-aligned channel is refused and left alone.
  qor::test::ChannelBuffers wide(2, 256 + 8);
  wide.fill(0.25f);
  float* channels[2] = {wide[0], wide[1] + 4};
  EXPECT_EQ(qorNoiseReductionProcess(inst, channels), R::ErrorMisaligned);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(channels[1][i], 0.25f);
  qor::test::InstanceMemory misaligned(memory->size() + 64);
  auto* shifted = reinterpret_cast<QorNoiseReductionInst*>(misaligned.bytes() + 16);
  EXPECT_EQ(qorNoiseReductionInit(shifted, &config), R::ErrorMisaligned);

  ASSERT_EQ(qorNoiseReductionRelease(inst), R::Success);
  audio->fill(0.5f);
  EXPECT_EQ(qorNoiseReductionProcess(inst, audio->data()), R::ErrorNotInitialised);
  for (int i = 0; i < 256; ++i) ASSERT_EQ((*audio)[0][i], 0.5f);
  QorNoiseReductionParameters p{};
  EXPECT_EQ(qorNoiseReductionGetParameters(inst, &p), R::ErrorNotInitialised);
  EXPECT_EQ(qorNoiseReductionUpdateParameters(inst, &p), R::ErrorNotInitialised);
  EXPECT_EQ(qorNoiseReductionFlush(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorNoiseReductionRelease(inst), R::ErrorNotInitialised);
  const QorNoiseReductionMeteringPoints* points = nullptr;
  EXPECT_EQ(qorNoiseReductionGetMeteringPoints(inst, &points), R::ErrorNotInitialised);
  EXPECT_EQ(qorNoiseReductionGetMeteringPoints(inst, nullptr), R::ErrorNullPointer);
  // Released memory initialises again.
  EXPECT_EQ(qorNoiseReductionInit(inst, &config), R::Success);
  EXPECT_EQ(latency(), 768);
}

TEST(NoiseBands, FirstAndLastBinsAndWeightsFollowTheMelLayout) {
  const int first[32] = {0, 2, 4, 7, 9, 12, 15, 18, 22, 26, 31, 36, 42, 48, 55, 63,
                         72, 82, 93, 105, 118, 133, 150, 168, 189, 211, 237, 265, 296, 331, 369, 412};
  const int last[32] = {3, 6, 8, 11, 14, 17, 21, 25, 30, 35, 41, 47, 54, 62, 71, 81,
                        92, 104, 117, 132, 149, 167, 188, 210, 236, 264, 295, 330, 368, 411, 459, 511};
  const qor::NoiseBandTable& t = qor::noiseBandTable();
  const double melMax = 2595.0 * std::log10(1.0 + 22050.0 / 700.0);
  double c[34];
  for (int k = 0; k < 32; ++k) {
    c[k + 1] = 700.0 * (std::pow(10.0, ((k + 1) * melMax / 33.0) / 2595.0) - 1.0) * 1024.0 / 44100.0;
  }
  c[0] = -1e9;
  c[33] = 1e9;
  std::vector<double> sum(512, 0.0);
  for (int k = 0; k < 32; ++k) {
    EXPECT_EQ(t.first[k], first[k]) << "band " << k;
    EXPECT_EQ(t.last[k], last[k]) << "band " << k;
    for (int j = t.first[k]; j <= t.last[k]; ++j) {
      const double lo = c[k], mid = c[k + 1], hi = c[k + 2];
      double w = j <= mid ? (k == 0 ? 1.0 : (j - lo) / (mid - lo)) : (k == 31 ? 1.0 : (hi - j) / (hi - mid));
      ASSERT_NEAR(t.weights[k][j - t.first[k]], w, 1e-6) << "band " << k << " bin " << j;
      sum[static_cast<size_t>(j)] += t.weights[k][j - t.first[k]];
    }
  }
  for (int j = 0; j < 512; ++j) ASSERT_NEAR(sum[static_cast<size_t>(j)], 1.0, 1e-6) << "bin " << j;
}

}  // namespace
