#include "dsp/voice/vocal_changer.h"
#include "dsp/voice/voice_pitch_shifter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace QorVocalChanger_API_V1;
using R = QorVocalChangerResult;
using Channels = std::vector<std::vector<float>>;

constexpr uint32_t kBlock = 256;

QorVocalChangerParameters defaults() {
  QorVocalChangerParameters p;
  EXPECT_EQ(qorVocalChangerGetDefaultParameters(&p), R::Success);
  return p;
}

QorVocalChangerParameters voices(int32_t type1, float pitch1, int32_t type2 = 0, float pitch2 = 0.0f) {
  QorVocalChangerParameters p = defaults();
  p.voice1Type = type1;
  p.voice1PitchCents = pitch1;
  p.voice2Type = type2;
  p.voice2PitchCents = pitch2;
  return p;
}

QorVocalChangerConfig configFor(uint32_t rate, uint32_t block, uint32_t channels,
                                const QorVocalChangerParameters& p) {
  return {rate, block, channels, rate, block, channels, p};
}

class Changer {
 public:
  explicit Changer(const QorVocalChangerParameters& p, uint32_t channels = 1, uint32_t rate = 48000,
                   uint32_t block = kBlock)
      : config_(configFor(rate, block, channels, p)) {
    size_t size = 0;
    EXPECT_EQ(qorVocalChangerGetInstanceSize(&config_, &size), R::Success);
    memory_ = std::make_unique<qor::test::InstanceMemory>(size);
    EXPECT_EQ(qorVocalChangerInit(inst(), &config_), R::Success);
  }
  ~Changer() { qorVocalChangerRelease(inst()); }

  QorVocalChangerInst* inst() { return memory_->as<QorVocalChangerInst>(); }

  Channels run(const Channels& in) {
    const uint32_t count = config_.inputChannels, block = config_.inputBlockSize;
    qor::test::ChannelBuffers buffers(count, block);
    Channels out(count);
    for (size_t at = 0; at + block <= in[0].size(); at += block) {
      buffers.load(in, at);
      R rc = R::ErrorProcessing;
      EXPECT_NO_ALLOCATION(rc = qorVocalChangerProcess(inst(), buffers.data()));
      EXPECT_EQ(rc, R::Success);
      buffers.appendTo(out);
    }
    return out;
  }
  std::vector<float> run(const std::vector<float>& in) { return run(Channels{in})[0]; }

  R update(QorVocalChangerParameters p) { return qorVocalChangerUpdateParameters(inst(), &p); }
  int latency() {
    int l = -1;
    EXPECT_EQ(qorVocalChangerGetCurrentLatency(inst(), &l), R::Success);
    return l;
  }

 private:
  QorVocalChangerConfig config_;
  std::unique_ptr<qor::test::InstanceMemory> memory_;
};

// Harmonic, speech-like test voice: a 150 Hz glottal-like pulse with
// falling harmonics, a little breath noise and a syllable-rate envelope.
std::vector<float> voiceLike(size_t n, uint32_t rate = 48000) {
  std::vector<float> x(n, 0.0f);
  const auto noise = qor::test::whiteNoise(n, 42, 0.02);
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / rate;
    double v = 0.0;
    for (int k = 1; k <= 40; ++k) v += std::sin(2.0 * 3.14159265358979 * 150.0 * k * t) / (k * 1.5);
    const double envelope = 0.6 + 0.4 * std::sin(2.0 * 3.14159265358979 * 3.0 * t);
    x[i] = static_cast<float>(0.12 * envelope * v) + noise[i];
  }
  return x;
}

void expectSame(const std::vector<float>& a, const std::vector<float>& b, float tolerance = 0.0f) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i) {
    ASSERT_NEAR(a[i], b[i], tolerance) << "sample " << i;
  }
}

// --- configuration, parameters and argument checks ---

TEST(VocalChangerChecks, DefaultsAreTheDocumentedOnes) {
  const QorVocalChangerParameters p = defaults();
  EXPECT_EQ(p.voice1Type, 0);
  EXPECT_EQ(p.voice2Type, 0);
  EXPECT_EQ(p.voice1PitchCents, 0.0f);
  EXPECT_EQ(p.voice2PitchCents, 0.0f);
  EXPECT_EQ(p.voice1LevelDb, 0.0f);
  EXPECT_EQ(p.voice2LevelDb, -3.0f);
  EXPECT_EQ(p.detuneEnable, 1);
  EXPECT_EQ(p.detuneDelayMs, 0.0f);
  EXPECT_EQ(p.detuneDepthPercent, 0.0f);
  EXPECT_EQ(p.detuneRateHz, 0.0f);
  EXPECT_EQ(p.detuneCents, 0.0f);
  EXPECT_EQ(p.detunePitchRateHz, 0.0f);
  EXPECT_EQ(p.enable, 1);
  EXPECT_EQ(p.crossfadeTime, 50.0f);
  EXPECT_EQ(qorVocalChangerGetDefaultParameters(nullptr), R::ErrorNullPointer);
}

struct ConfigCase {
  uint32_t rate, block, in, outRate, outBlock, out;
  R expected;
};

class VocalChangerConfigs : public ::testing::TestWithParam<ConfigCase> {};

TEST_P(VocalChangerConfigs, AreCheckedRateThenBlockThenChannels) {
  const ConfigCase c = GetParam();
  const QorVocalChangerConfig config{c.rate, c.block, c.in, c.outRate, c.outBlock, c.out, defaults()};
  size_t size = 0;
  EXPECT_EQ(qorVocalChangerGetInstanceSize(&config, &size), c.expected);
  if (c.expected == R::Success) {
    qor::test::InstanceMemory memory(size);
    EXPECT_EQ(qorVocalChangerInit(memory.as<QorVocalChangerInst>(), &config), R::Success);
    EXPECT_EQ(qorVocalChangerRelease(memory.as<QorVocalChangerInst>()), R::Success);
  } else {
    qor::test::InstanceMemory memory(1 << 16);
    EXPECT_EQ(qorVocalChangerInit(memory.as<QorVocalChangerInst>(), &config), c.expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, VocalChangerConfigs,
    ::testing::Values(ConfigCase{48000, 256, 2, 48000, 256, 2, R::Success},
                      ConfigCase{44100, 128, 1, 0, 0, 1, R::Success},  // output rate and block unchecked
                      ConfigCase{48000, 4096, 1, 96000, 77, 1, R::Success},
                      ConfigCase{32000, 256, 2, 32000, 256, 2, R::ErrorSampleRate},
                      ConfigCase{96000, 8000, 3, 96000, 256, 2, R::ErrorSampleRate},
                      ConfigCase{48000, 127, 3, 48000, 127, 2, R::ErrorBlockSize},
                      ConfigCase{48000, 4097, 1, 48000, 4097, 1, R::ErrorBlockSize},
                      ConfigCase{48000, 256, 0, 48000, 256, 0, R::ErrorInputChannels},
                      ConfigCase{48000, 256, 3, 48000, 256, 3, R::ErrorInputChannels},
                      ConfigCase{48000, 256, 1, 48000, 256, 2, R::ErrorOutputChannels},
                      ConfigCase{48000, 256, 2, 48000, 256, 0, R::ErrorOutputChannels}));

struct ParameterCase {
  const char* name;
  void (*spoil)(QorVocalChangerParameters&);
  R expected;
};

class VocalChangerParameterChecks : public ::testing::TestWithParam<ParameterCase> {};

TEST_P(VocalChangerParameterChecks, RefuseTheFirstBadFieldAndKeepTheOldRecord) {
  const ParameterCase c = GetParam();
  QorVocalChangerParameters bad = defaults();
  c.spoil(bad);
  const QorVocalChangerConfig config = configFor(48000, kBlock, 1, bad);
  size_t size = 0;
  EXPECT_EQ(qorVocalChangerGetInstanceSize(&config, &size), c.expected);

  Changer changer(voices(2, 300.0f));
  EXPECT_EQ(changer.update(bad), c.expected);
  QorVocalChangerParameters now;
  ASSERT_EQ(qorVocalChangerGetParameters(changer.inst(), &now), R::Success);
  EXPECT_EQ(now.voice1Type, 2);
  EXPECT_EQ(now.voice1PitchCents, 300.0f);
  EXPECT_EQ(now.crossfadeTime, 50.0f);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, VocalChangerParameterChecks,
    ::testing::Values(
        ParameterCase{"Voice1Pitch", [](auto& p) { p.voice1PitchCents = 2400.5f; }, R::ErrorVoice1Pitch},
        ParameterCase{"Voice2Pitch", [](auto& p) { p.voice2PitchCents = -2401.0f; }, R::ErrorVoice2Pitch},
        ParameterCase{"Voice1Level", [](auto& p) { p.voice1LevelDb = 0.1f; }, R::ErrorVoice1Level},
        ParameterCase{"Voice2Level", [](auto& p) { p.voice2LevelDb = -61.0f; }, R::ErrorVoice2Level},
        ParameterCase{"DetuneDelay", [](auto& p) { p.detuneDelayMs = 100.5f; }, R::ErrorDetuneDelay},
        ParameterCase{"DetuneDepth", [](auto& p) { p.detuneDepthPercent = -1.0f; }, R::ErrorDetuneDepth},
        ParameterCase{"DetuneRate", [](auto& p) { p.detuneRateHz = 2.01f; }, R::ErrorDetuneRate},
        ParameterCase{"DetuneCents", [](auto& p) { p.detuneCents = -601.0f; }, R::ErrorDetuneCents},
        ParameterCase{"DetunePitchRate", [](auto& p) { p.detunePitchRateHz = 3.0f; }, R::ErrorDetunePitchRate},
        ParameterCase{"Crossfade", [](auto& p) { p.crossfadeTime = 100.5f; }, R::ErrorCrossfadeTime},
        // Crossfade time is tested last, after every voice and detune field.
        ParameterCase{"CrossfadeAndPitch",
                      [](auto& p) {
                        p.crossfadeTime = -1.0f;
                        p.voice2PitchCents = 9999.0f;
                      },
                      R::ErrorVoice2Pitch},
        ParameterCase{"CrossfadeAndPitchRate",
                      [](auto& p) {
                        p.crossfadeTime = 101.0f;
                        p.detunePitchRateHz = -0.5f;
                      },
                      R::ErrorDetunePitchRate},
        ParameterCase{"LevelsBoth",
                      [](auto& p) {
                        p.voice2LevelDb = 1.0f;
                        p.voice1LevelDb = 1.0f;
                      },
                      R::ErrorVoice1Level}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(VocalChangerChecks, BoundsNaNAndOddVoiceTypesAreAccepted) {
  QorVocalChangerParameters p = defaults();
  p.voice1PitchCents = -2400.0f;
  p.voice2PitchCents = 2400.0f;
  p.voice1LevelDb = -60.0f;
  p.voice2LevelDb = 0.0f;
  p.detuneDelayMs = 100.0f;
  p.detuneDepthPercent = 100.0f;
  p.detuneRateHz = 2.0f;
  p.detuneCents = 600.0f;
  p.detunePitchRateHz = std::nanf("");
  p.crossfadeTime = 100.0f;
  p.voice1Type = -7;
  p.voice2Type = 1000;
  Changer changer(defaults());
  EXPECT_EQ(changer.update(p), R::Success);
  p.detuneCents = -600.0f;
  p.crossfadeTime = std::nanf("");
  EXPECT_EQ(changer.update(p), R::Success);
}

TEST(VocalChangerChecks, CallsInTheWrongStateOrWithBadPointers) {
  const QorVocalChangerConfig config = configFor(48000, kBlock, 2, defaults());
  size_t size = 0;
  ASSERT_EQ(qorVocalChangerGetInstanceSize(&config, &size), R::Success);
  EXPECT_EQ(qorVocalChangerGetInstanceSize(nullptr, &size), R::ErrorNullPointer);
  EXPECT_EQ(qorVocalChangerGetInstanceSize(&config, nullptr), R::ErrorNullPointer);
  qor::test::InstanceMemory memory(size + 32);
  auto* inst = memory.as<QorVocalChangerInst>();
  qor::test::ChannelBuffers buffers(2, kBlock);
  buffers.fill(0.25f);
  int latency = 0;
  QorVocalChangerParameters p = defaults();

  EXPECT_EQ(qorVocalChangerProcess(inst, buffers.data()), R::ErrorNotInitialised);
  EXPECT_EQ(qorVocalChangerUpdateParameters(inst, &p), R::ErrorNotInitialised);
  EXPECT_EQ(qorVocalChangerGetParameters(inst, &p), R::ErrorNotInitialised);
  EXPECT_EQ(qorVocalChangerGetCurrentLatency(inst, &latency), R::ErrorNotInitialised);
  EXPECT_EQ(qorVocalChangerFlush(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorVocalChangerRelease(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorVocalChangerInit(nullptr, &config), R::ErrorNullPointer);
  EXPECT_EQ(qorVocalChangerInit(inst, nullptr), R::ErrorNullPointer);
  auto* shifted = reinterpret_cast<QorVocalChangerInst*>(memory.bytes() + 16);
  EXPECT_EQ(qorVocalChangerInit(shifted, &config), R::ErrorMisaligned);

  ASSERT_EQ(qorVocalChangerInit(inst, &config), R::Success);
  EXPECT_EQ(qorVocalChangerInit(inst, &config), R::ErrorAlreadyInitialised);
  EXPECT_EQ(qorVocalChangerProcess(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorVocalChangerUpdateParameters(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorVocalChangerGetParameters(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorVocalChangerGetCurrentLatency(inst, nullptr), R::ErrorNullPointer);

  // A 16-byte-aligned channel is refused and left as it was.
  qor::test::ChannelBuffers wide(1, kBlock + 8);
  wide.fill(0.5f);
  float* channels[2] = {buffers[0], wide[0] + 4};
  EXPECT_EQ(qorVocalChangerProcess(inst, channels), R::ErrorMisaligned);
  for (uint32_t i = 0; i < kBlock; ++i) ASSERT_EQ(channels[1][i], 0.5f);

  EXPECT_EQ(qorVocalChangerRelease(inst), R::Success);
  EXPECT_EQ(qorVocalChangerProcess(inst, buffers.data()), R::ErrorNotInitialised);
  memory.zero();
  EXPECT_EQ(qorVocalChangerInit(inst, &config), R::Success);
  EXPECT_EQ(qorVocalChangerRelease(inst), R::Success);
}

// --- routing, levels and latency ---

TEST(VocalChangerRouting, DefaultsAndUnknownTypesPassTheInputUnchanged) {
  const auto in = voiceLike(kBlock * 16);
  for (int32_t type : {0, 15, -1, 99}) {
    Changer changer(voices(type, 700.0f, type == 0 ? 0 : -3, 100.0f));
    expectSame(changer.run(in), in);
    EXPECT_EQ(changer.latency(), 0) << type;
  }
}

struct LatencyCase {
  int32_t type;
  int expected;
};

class VocalChangerLatency : public ::testing::TestWithParam<LatencyCase> {};

TEST_P(VocalChangerLatency, FollowsVoiceOnesTypeFromTheNextBlock) {
  const LatencyCase c = GetParam();
  Changer changer(defaults());
  ASSERT_EQ(changer.update(voices(c.type, 0.0f, 3, 500.0f)), R::Success);
  EXPECT_EQ(changer.latency(), 0);  // staged until the next block
  changer.run(std::vector<float>(kBlock, 0.0f));
  EXPECT_EQ(changer.latency(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Types, VocalChangerLatency,
                         ::testing::Values(LatencyCase{0, 0}, LatencyCase{1, 4096}, LatencyCase{2, 2048},
                                           LatencyCase{3, 6144}, LatencyCase{4, 2048}, LatencyCase{5, 2048},
                                           LatencyCase{6, 2048}, LatencyCase{9, 2048}, LatencyCase{13, 2048},
                                           LatencyCase{14, 2048}, LatencyCase{15, 0}));

TEST(VocalChangerRouting, TypeChangeRestartsTheVoiceAtTheNextBlock) {
  const auto in = voiceLike(kBlock * 24);
  const std::vector<float> first(in.begin(), in.begin() + kBlock * 8);
  const std::vector<float> second(in.begin() + kBlock * 8, in.end());
  Changer changer(voices(2, 0.0f));
  changer.run(first);
  ASSERT_EQ(changer.update(voices(4, 0.0f)), R::Success);
  // From the very next block on, exactly as if it had been set up this way:
  // nothing of the old voice's history is left.
  Changer fresh(voices(4, 0.0f));
  expectSame(changer.run(second), fresh.run(second));
}

TEST(VocalChangerRouting, VoiceOneAloneIgnoresItsLevelAndShiftsByAnOctave) {
  const auto tone = qor::test::sine(375.0, 48000.0, 48000, 0.5);
  QorVocalChangerParameters quiet = voices(2, 1200.0f);
  quiet.voice1LevelDb = -60.0f;
  Changer loud(voices(2, 1200.0f)), muted(quiet);
  const auto a = loud.run(tone);
  expectSame(muted.run(tone), a);
  const double octave = qor::test::toneAmplitude(a, 750.0, 48000.0, 12000);
  EXPECT_GT(octave, 0.1);
  EXPECT_LT(qor::test::toneAmplitude(a, 375.0, 48000.0, 12000), 0.05 * octave);
}

TEST(VocalChangerRouting, VoiceTwoIsMixedAtItsLevelOverVoiceOne) {
  const auto in = voiceLike(kBlock * 40);
  Changer alone(voices(2, 1200.0f));  // voice 1 alone is unscaled: the shifted reference
  const auto shifted = alone.run(in);

  QorVocalChangerParameters p = voices(0, 0.0f, 2, 1200.0f);
  p.detuneEnable = 0;
  Changer mixed(p);
  const auto out = mixed.run(in);
  const float g2 = std::pow(10.0f, -3.0f / 20.0f);
  std::vector<float> expected(in.size());
  for (size_t i = 0; i < in.size(); ++i) expected[i] = in[i] + g2 * shifted[i];
  expectSame(out, expected, 1e-5f);
  EXPECT_EQ(mixed.latency(), 0);  // voice 2 is not counted

  p = voices(4, 0.0f, 2, 1200.0f);
  p.detuneEnable = 0;
  p.voice1LevelDb = -6.0f;
  p.voice2LevelDb = -12.0f;
  Changer both(p), first(voices(4, 0.0f));
  const auto voice1 = first.run(in);
  const auto out2 = both.run(in);
  for (size_t i = 0; i < in.size(); ++i) {
    expected[i] = std::pow(10.0f, -6.0f / 20.0f) * voice1[i] + std::pow(10.0f, -12.0f / 20.0f) * shifted[i];
  }
  expectSame(out2, expected, 1e-5f);
  EXPECT_EQ(both.latency(), 2048);
}

TEST(VocalChangerRouting, DetuneStageRunsOnVoiceTwoWhenEnabled) {
  const auto in = voiceLike(kBlock * 60);
  QorVocalChangerParameters p = voices(0, 0.0f, 2, 0.0f);
  p.voice1LevelDb = -60.0f;
  p.voice2LevelDb = 0.0f;
  p.detuneEnable = 0;
  Changer plain(p);
  p.detuneEnable = 1;
  p.detuneDelayMs = 20.0f;
  Changer detuned(p);
  const auto a = plain.run(in);
  const auto b = detuned.run(in);
  // Shifter latency, then half a 50 ms grain, then 20 ms and two samples.
  const int32_t lagA = qor::test::delayByCrossCorrelation(in, a, 6000);
  const int32_t lagB = qor::test::delayByCrossCorrelation(in, b, 6000);
  EXPECT_NEAR(lagA, 2048, 2);
  EXPECT_NEAR(lagB - lagA, 1200 + 960 + 2, 2);
}

TEST(VocalChangerRouting, VoiceOnesPitchDecidesWhetherCarrierVoicesFollowThePitch) {
  const auto in = voiceLike(kBlock * 24);
  // Voice 1 dry with pitch 0: voice 2's own pitch has no effect on a carrier voice.
  Changer flatA(voices(0, 0.0f, 13, 0.0f)), flatB(voices(0, 0.0f, 13, 700.0f));
  const auto a = flatA.run(in);
  expectSame(flatB.run(in), a);
  // Any nonzero voice-1 pitch, even on a dry voice 1, lets voice 2 follow its own.
  Changer following(voices(0, 1.0f, 13, 700.0f));
  const auto c = following.run(in);
  double difference = 0.0;
  for (size_t i = 0; i < a.size(); ++i) difference += std::fabs(a[i] - c[i]);
  EXPECT_GT(difference / a.size(), 1e-3);
}

// The same ratio through a bare pitch shifter, without band limits.
double bareShifterAmplitude(float pitch, double hz) {
  qor::InstanceLayout counting(nullptr);
  counting.take<qor::VoicePitchShifter>();
  qor::VoicePitchShifter::layOut(counting, nullptr, 1);
  auto block = qor::test::alignedBlock(counting.size());
  qor::InstanceLayout placing(block.get());
  auto* shifter = placing.take<qor::VoicePitchShifter>();
  qor::VoicePitchShifter::layOut(placing, shifter, 1);
  EXPECT_EQ(shifter->init(48000.0f), 0);
  shifter->setRatio(std::exp2(pitch / 1200.0f));
  const auto in = qor::test::sine(hz, 48000.0, 48000, 0.5);
  qor::test::ChannelBuffers buffers(1, kBlock);
  Channels out(1);
  for (size_t at = 0; at + kBlock <= in.size(); at += kBlock) {
    buffers.load({in}, at);
    shifter->process(buffers.data(), kBlock, 1);
    buffers.appendTo(out);
  }
  return qor::test::toneAmplitude(out[0], hz * std::exp2(pitch / 1200.0), 48000.0, 12000);
}

TEST(VocalChangerRouting, BandLimitsWidenWithThePitchShift) {
  auto shiftedAmplitude = [](float pitch, double hz) {
    Changer changer(voices(2, pitch));
    const auto out = changer.run(qor::test::sine(hz, 48000.0, 48000, 0.5));
    return qor::test::toneAmplitude(out, hz * std::exp2(pitch / 1200.0), 48000.0, 12000);
  };
  // Second-order Butterworth magnitudes after the bilinear transform.
  auto warped = [](double f) { return std::tan(3.14159265358979 * f / 48000.0); };
  auto highPass = [&](double f, double fc) {
    const double x = std::pow(warped(f) / warped(fc), 2);
    return x / std::sqrt(1.0 + x * x);
  };
  auto lowPass = [&](double f, double fc) { return 1.0 / std::sqrt(1.0 + std::pow(warped(f) / warped(fc), 4)); };
  // Tones on analysis bins (multiples of 48000 / 2048) shift cleanly.
  // +1200 cents: high-pass at 100 Hz, not 50.
  for (double hz : {70.3125, 140.625}) {
    const double measured = shiftedAmplitude(1200.0f, hz) / bareShifterAmplitude(1200.0f, hz);
    EXPECT_NEAR(measured, highPass(hz, 100.0) * lowPass(hz, 6000.0), 0.01) << hz;
  }
  // -1200 cents: low-pass at 6000 Hz, not 12000.
  for (double hz : {3000.0, 7031.25}) {
    const double measured = shiftedAmplitude(-1200.0f, hz) / bareShifterAmplitude(-1200.0f, hz);
    EXPECT_NEAR(measured, highPass(hz, 100.0) * lowPass(hz, 6000.0), 0.01) << hz;
  }
}

// --- every voice type on a voice ---

struct TypeCase {
  int32_t type;
  float pitch;
};

class VocalChangerTypes : public ::testing::TestWithParam<TypeCase> {};

TEST_P(VocalChangerTypes, TurnAVoiceIntoAnotherOfComparableEnergy) {
  const TypeCase c = GetParam();
  const auto in = voiceLike(48000);
  Changer changer(voices(c.type, c.pitch));
  const auto out = changer.run(in);
  const int latency = changer.latency();
  for (float v : out) ASSERT_TRUE(std::isfinite(v));
  const double inLevel = qor::test::rms(in, 8000);
  const double outLevel = qor::test::rms(out, static_cast<size_t>(latency) + 8000);
  EXPECT_GT(outLevel, 0.05 * inLevel) << c.type;
  // The carrier voices' level is set by the carrier processor's fixed output
  // gain, far above the voice's own; the other types keep the level.
  if (c.type <= 5) {
    EXPECT_LT(outLevel, 2.0 * inLevel) << c.type;
  }
  // Something else than the input delayed.
  std::vector<float> aligned(out.begin() + latency, out.end());
  double dot = 0.0, e1 = 0.0, e2 = 0.0;
  for (size_t i = 8000; i < aligned.size(); ++i) {
    dot += static_cast<double>(aligned[i]) * in[i];
    e1 += static_cast<double>(aligned[i]) * aligned[i];
    e2 += static_cast<double>(in[i]) * in[i];
  }
  EXPECT_LT(std::fabs(dot) / std::sqrt(e1 * e2), 0.95) << c.type;
}

INSTANTIATE_TEST_SUITE_P(Types, VocalChangerTypes,
                         ::testing::Values(TypeCase{1, 500.0f}, TypeCase{2, -500.0f}, TypeCase{3, 700.0f},
                                           TypeCase{4, 300.0f}, TypeCase{5, -300.0f}, TypeCase{6, 0.0f},
                                           TypeCase{7, 0.0f}, TypeCase{8, 0.0f}, TypeCase{9, 0.0f},
                                           TypeCase{10, 0.0f}, TypeCase{11, 0.0f}, TypeCase{12, 0.0f},
                                           TypeCase{13, 0.0f}, TypeCase{14, 200.0f}),
                         [](const auto& p) { return "Type" + std::to_string(p.param.type); });

TEST(VocalChangerTypes, FormantWarpAtPitchZeroIsTheInputDelayedAtAboutSixTenths) {
  const auto in = voiceLike(kBlock * 80);
  Changer changer(voices(1, 0.0f));
  const auto out = changer.run(in);
  // The band-limit filters' group delay may add a sample.
  const std::vector<float> head(in.begin(), in.begin() + 8192);
  EXPECT_NEAR(qor::test::delayByCrossCorrelation(head, out, 4200), 4096, 2);
  const double gain = qor::test::rms(out, 8192) / qor::test::rms(in, 8192 - 4096, out.size() - 4096);
  EXPECT_NEAR(gain, 0.6, 0.06);
}

TEST(VocalChangerTypes, PitchTypesMoveAToneByTheRatio) {
  for (int32_t type : {3, 4, 5}) {
    Changer changer(voices(type, 1200.0f));
    const auto out = changer.run(qor::test::sine(375.0, 48000.0, 48000, 0.5));
    const double octave = qor::test::toneAmplitude(out, 750.0, 48000.0, 12000);
    EXPECT_GT(octave, 3.0 * qor::test::toneAmplitude(out, 375.0, 48000.0, 12000)) << type;
  }
}

TEST(VocalChangerTypes, CarrierVoicesFollowTheSpeakerNotTheCarrier) {
  const auto speech = voiceLike(48000);
  for (int32_t type : {6, 8, 13}) {
    Changer talking(voices(type, 0.0f)), silent(voices(type, 0.0f));
    const double spoken = qor::test::rms(talking.run(speech), 8000);
    const double quiet = qor::test::rms(silent.run(std::vector<float>(48000, 0.0f)), 8000);
    EXPECT_GT(spoken, 10.0 * quiet) << type;
  }
}

TEST(VocalChangerTypes, StereoChannelsAreShiftedIndependently) {
  const Channels in{voiceLike(kBlock * 24), qor::test::sine(500.0, 48000.0, kBlock * 24, 0.3)};
  Changer stereo(voices(2, 700.0f), 2), mono(voices(2, 700.0f), 1);
  const auto both = stereo.run(in);
  expectSame(both[0], mono.run(in[0]));
  EXPECT_GT(qor::test::rms(both[1], 4096), 0.05);
}

TEST(VocalChangerTypes, WorksAtFortyFourPointOneKilohertz) {
  Changer changer(voices(2, 1200.0f), 1, 44100, 512);
  const auto out = changer.run(qor::test::sine(344.53125, 44100.0, 44544, 0.5));
  const double octave = qor::test::toneAmplitude(out, 689.0625, 44100.0, 11025);
  EXPECT_GT(octave, 0.1);
  EXPECT_LT(qor::test::toneAmplitude(out, 344.53125, 44100.0, 11025), 0.05 * octave);
}

// --- staged settings, resets and bypass ---

TEST(VocalChangerState, IdenticalOrCrossfadeOnlyUpdatesResetNothing) {
  const auto in = voiceLike(kBlock * 48);
  QorVocalChangerParameters p = voices(3, 400.0f, 9, -200.0f);
  p.detuneDelayMs = 10.0f;
  p.detuneDepthPercent = 50.0f;
  p.detuneRateHz = 1.0f;
  p.detuneCents = 30.0f;
  Changer steady(p), poked(p);
  const auto reference = steady.run(in);
  Channels out(1);
  for (size_t b = 0; b < 48; ++b) {
    if (b % 4 == 1) {
      ASSERT_EQ(poked.update(p), R::Success);
    }
    if (b % 4 == 2) {
      QorVocalChangerParameters q = p;
      q.crossfadeTime = 5.0f;
      ASSERT_EQ(poked.update(q), R::Success);
    }
    if (b % 4 == 3) {
      // A real change withdrawn before the next block never happens.
      QorVocalChangerParameters q = p;
      q.voice1Type = 5;
      ASSERT_EQ(poked.update(q), R::Success);
      ASSERT_EQ(poked.update(p), R::Success);
    }
    const std::vector<float> block(in.begin() + b * kBlock, in.begin() + (b + 1) * kBlock);
    const auto o = poked.run(block);
    out[0].insert(out[0].end(), o.begin(), o.end());
  }
  expectSame(out[0], reference);
}

TEST(VocalChangerState, FlushClearsHistory) {
  QorVocalChangerParameters p = voices(2, -700.0f, 4, 300.0f);
  p.detuneDelayMs = 30.0f;
  Changer changer(p);
  changer.run(voiceLike(kBlock * 16));
  ASSERT_EQ(qorVocalChangerFlush(changer.inst()), R::Success);
  // Both shifters start empty and the detune delay holds nothing.
  const auto out = changer.run(std::vector<float>(kBlock * 8, 0.0f));
  for (float v : out) ASSERT_EQ(v, 0.0f);
  ASSERT_EQ(qorVocalChangerGetParameters(changer.inst(), &p), R::Success);
  EXPECT_EQ(p.voice1PitchCents, -700.0f);
  EXPECT_EQ(changer.latency(), 2048);
}

TEST(VocalChangerBypass, DisabledAtInitPassesUntouchedWithNoLatency) {
  QorVocalChangerParameters p = voices(3, 500.0f, 2, 100.0f);
  p.enable = 0;
  Changer changer(p);
  const auto in = voiceLike(kBlock * 8);
  expectSame(changer.run(in), in);
  EXPECT_EQ(changer.latency(), 0);
}

TEST(VocalChangerBypass, FadeOutFollowsTheOnePoleThenFlushes) {
  QorVocalChangerParameters p = voices(2, 1200.0f);
  p.crossfadeTime = 10.0f;
  const auto in = voiceLike(kBlock * 48);
  Changer fading(p), wet(p);
  const size_t switchAt = kBlock * 16;
  std::vector<float> out = fading.run(std::vector<float>(in.begin(), in.begin() + switchAt));
  const auto reference = wet.run(in);
  QorVocalChangerParameters off = p;
  off.enable = 0;
  ASSERT_EQ(fading.update(off), R::Success);
  const auto rest = fading.run(std::vector<float>(in.begin() + switchAt, in.end()));

  // m starts at 1 and closes all but 1e-5 of the way in 10 ms, per block
  // from the value the previous block reached.
  const double c = 1.0 - std::pow(1e-5, 1.0 / (0.010 * 48000.0));
  double m = 1.0;
  size_t snapped = 0;
  for (size_t i = 0; i < rest.size(); ++i) {
    if (i % kBlock == 0 && m < 1e-5 && snapped == 0) snapped = i;
    const double expected = snapped != 0 ? in[switchAt + i] : (1.0 - m) * in[switchAt + i] + m * reference[switchAt + i];
    ASSERT_NEAR(rest[i], expected, 1e-4) << i;
    m *= 1.0 - c;
  }
  EXPECT_GT(snapped, 0u);
  EXPECT_EQ(fading.latency(), 0);

  // The completed fade flushed: enabling again starts like a fresh instance.
  QorVocalChangerParameters startOff = p;
  startOff.enable = 0;
  Changer fresh(startOff);
  ASSERT_EQ(fading.update(p), R::Success);
  ASSERT_EQ(fresh.update(p), R::Success);
  const auto again = voiceLike(kBlock * 16);
  expectSame(fading.run(again), fresh.run(again));
}

}  // namespace
