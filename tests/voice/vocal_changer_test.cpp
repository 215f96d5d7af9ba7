#include "dsp/voice/vocal_changer.h"
#include "dsp/voice/voice_pitch_shifter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <tuple>
#include <vector>

#include "support/signals.h"
#include "voice_harness.h"

namespace {

using namespace QorVocalChanger_API_V1;
using R = QorVocalChangerResult;
using P = QorVocalChangerParameters;
using Channels = std::vector<std::vector<float>>;

constexpr uint32_t kBlock = 256;

P defaults() { return qor::test::defaultsOf<qor::test::VocalChangerApi>(); }

P voices(int32_t type1, float pitch1, int32_t type2 = 0, float pitch2 = 0.0f) {
  P p = defaults();
  p.voice1Type = type1, p.voice1PitchCents = pitch1, p.voice2Type = type2, p.voice2PitchCents = pitch2;
  return p;
}

auto fields(const P& p) {
  return std::make_tuple(p.voice1Type, p.voice1PitchCents, p.voice2Type, p.voice2PitchCents, p.voice1LevelDb,
                         p.voice2LevelDb, p.detuneEnable, p.detuneDelayMs, p.detuneDepthPercent, p.detuneRateHz,
                         p.detuneCents, p.detunePitchRateHz, p.enable, p.crossfadeTime);
}


// Mono unless asked otherwise.
struct Changer : qor::test::Family<qor::test::VocalChangerApi> {
  explicit Changer(const P& p, uint32_t channels = 1, uint32_t rate = 48000, uint32_t block = kBlock)
      : Family(p, channels, rate, block) {}
};

// Speech-like test voice: 150 Hz pulse with falling harmonics, a little
// breath noise and a syllable-rate envelope.
std::vector<float> voiceLike(size_t n) {
  std::vector<float> x = qor::test::whiteNoise(n, 42, 0.02);
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / 48000.0;
    double v = 0.0;
    for (int k = 1; k <= 40; ++k) v += std::sin(2.0 * 3.14159265358979 * 150.0 * k * t) / (k * 1.5);
    x[i] += static_cast<float>(0.12 * (0.6 + 0.4 * std::sin(2.0 * 3.14159265358979 * 3.0 * t)) * v);
  }
  return x;
}

std::vector<float> slice(const std::vector<float>& x, size_t from, size_t to) {
  return std::vector<float>(x.begin() + from, x.begin() + to);
}

void expectSame(const std::vector<float>& a, const std::vector<float>& b, float tolerance = 0.0f) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i) ASSERT_NEAR(a[i], b[i], tolerance) << "sample " << i;
}

// --- parameter checks (the calling conventions are in the shared family suite) ---

TEST(VocalChangerChecks, BadFieldsAreRefusedInOrderAndChangeNothing) {
  struct Case {
    void (*spoil)(P&);
    R expected;
  };
  const Case cases[] = {
      {[](P& p) { p.voice1PitchCents = 2400.5f; }, R::ErrorVoice1Pitch}, {[](P& p) { p.voice2PitchCents = -2401.0f; }, R::ErrorVoice2Pitch},
      {[](P& p) { p.voice1LevelDb = 0.1f; }, R::ErrorVoice1Level},        {[](P& p) { p.voice2LevelDb = -61.0f; }, R::ErrorVoice2Level},
      {[](P& p) { p.detuneDelayMs = 100.5f; }, R::ErrorDetuneDelay},      {[](P& p) { p.detuneDepthPercent = -1.0f; }, R::ErrorDetuneDepth},
      {[](P& p) { p.detuneRateHz = 2.01f; }, R::ErrorDetuneRate},         {[](P& p) { p.detuneCents = -601.0f; }, R::ErrorDetuneCents},
      {[](P& p) { p.detunePitchRateHz = 3.0f; }, R::ErrorDetunePitchRate}, {[](P& p) { p.crossfadeTime = 100.5f; }, R::ErrorCrossfadeTime},
      // Two bad fields: the earlier one in checking order is reported.
      {[](P& p) { p.crossfadeTime = -1.0f, p.voice2PitchCents = 9999.0f; }, R::ErrorVoice2Pitch},
      {[](P& p) { p.crossfadeTime = 101.0f, p.detunePitchRateHz = -0.5f; }, R::ErrorDetunePitchRate},
      {[](P& p) { p.voice2LevelDb = 1.0f, p.voice1LevelDb = 1.0f; }, R::ErrorVoice1Level}};
  const P held = voices(2, 300.0f);
  Changer changer(held);
  for (const Case& c : cases) {
    P bad = defaults();
    c.spoil(bad);
    const QorVocalChangerConfig config{48000, kBlock, 1, 48000, kBlock, 1, bad};
    size_t size = 0;
    EXPECT_EQ(qorVocalChangerGetInstanceSize(&config, &size), c.expected);
    EXPECT_EQ(changer.update(bad), c.expected);
    EXPECT_EQ(fields(changer.parameters()), fields(held));
  }
  // Bounds, NaN and out-of-range voice types are accepted.
  P p{-7, -2400.0f, 1000, 2400.0f, -60.0f, 0.0f, 1, 100.0f, 100.0f, 2.0f, 600.0f, std::nanf(""), 1, 100.0f};
  EXPECT_EQ(changer.update(p), R::Success);
  p.detuneCents = -600.0f, p.crossfadeTime = std::nanf("");
  EXPECT_EQ(changer.update(p), R::Success);
}

// --- routing, levels and latency ---

// Voice 1's type sets the latency from the next block on; dry and unknown
// types (and a changer bypassed from the start) pass the input unchanged.
TEST(VocalChangerRouting, LatencyFollowsVoiceOnesTypeAndDryTypesPassTheInput) {
  const int expected[] = {0, 4096, 2048, 6144, 2048, 2048, 2048, 2048, 2048, 2048, 2048, 2048, 2048, 2048, 2048, 0};
  for (int32_t type = 0; type <= 15; ++type) {
    Changer changer(defaults());
    ASSERT_EQ(changer.update(voices(type, 0.0f, 3, 500.0f)), R::Success);
    EXPECT_EQ(changer.latency(), 0);  // staged until the next block
    changer.run(std::vector<float>(kBlock, 0.0f));
    EXPECT_EQ(changer.latency(), expected[type]) << type;
  }
  const auto in = voiceLike(kBlock * 16);
  for (int32_t type : {0, 15, -1, 99, 3}) {
    P p = voices(type, 700.0f, type == 0 ? 0 : -3, 100.0f);
    if (type == 3) p.enable = 0, p.voice2Type = 2;
    Changer changer(p);
    EXPECT_EQ(changer.run(in), in) << type;
    EXPECT_EQ(changer.latency(), 0) << type;
  }
}

TEST(VocalChangerRouting, TypeChangeRestartsTheVoiceAtTheNextBlock) {
  const auto in = voiceLike(kBlock * 24);
  Changer changer(voices(2, 0.0f)), fresh(voices(4, 0.0f));
  changer.run(slice(in, 0, kBlock * 8));
  ASSERT_EQ(changer.update(voices(4, 0.0f)), R::Success);
  // Nothing of the old voice's history is left.
  const auto second = slice(in, kBlock * 8, in.size());
  expectSame(changer.run(second), fresh.run(second));
}

TEST(VocalChangerRouting, PitchTypesMoveAToneByTheRatioAtBothRates) {
  for (int32_t type : {2, 3, 4, 5}) {
    Changer changer(voices(type, 1200.0f));
    const auto out = changer.run(qor::test::sine(375.0, 48000.0, 48000, 0.5));
    const double octave = qor::test::toneAmplitude(out, 750.0, 48000.0, 12000);
    // Type 2's plain shifter is measured for level too; the others only for the move.
    if (type == 2) {
      EXPECT_GT(octave, 0.1);
    }
    EXPECT_LT(qor::test::toneAmplitude(out, 375.0, 48000.0, 12000), (type == 2 ? 0.05 : 0.33) * octave) << type;
  }
  Changer at441(voices(2, 1200.0f), 1, 44100, 512);
  const auto out = at441.run(qor::test::sine(344.53125, 44100.0, 44544, 0.5));
  const double octave = qor::test::toneAmplitude(out, 689.0625, 44100.0, 11025);
  EXPECT_GT(octave, 0.1);
  EXPECT_LT(qor::test::toneAmplitude(out, 344.53125, 44100.0, 11025), 0.05 * octave);
}

TEST(VocalChangerRouting, VoiceTwoIsMixedAtItsLevelOverVoiceOne) {
  const auto in = voiceLike(kBlock * 40);
  P quiet = voices(2, 1200.0f);
  quiet.voice1LevelDb = -60.0f;
  Changer alone(voices(2, 1200.0f)), muted(quiet);
  const auto shifted = alone.run(in);
  expectSame(muted.run(in), shifted);  // voice 1 alone ignores its level: the shifted reference
  Changer first(voices(4, 0.0f));
  const auto voice4 = first.run(in);
  // Dry voice 1 at its default 0 dB, then voice 4 at -6 dB; voice 2 at -3 or -12 dB.
  for (int32_t type1 : {0, 4}) {
    P p = voices(type1, 0.0f, 2, 1200.0f);
    p.detuneEnable = 0;
    if (type1 == 4) p.voice1LevelDb = -6.0f, p.voice2LevelDb = -12.0f;
    Changer mixed(p);
    const auto out = mixed.run(in);
    const float g1 = std::pow(10.0f, p.voice1LevelDb / 20.0f), g2 = std::pow(10.0f, p.voice2LevelDb / 20.0f);
    std::vector<float> expected(in.size());
    for (size_t i = 0; i < in.size(); ++i) expected[i] = g1 * (type1 == 0 ? in[i] : voice4[i]) + g2 * shifted[i];
    expectSame(out, expected, 1e-5f);
    EXPECT_EQ(mixed.latency(), type1 == 0 ? 0 : 2048);  // voice 2 is not counted
  }
}

TEST(VocalChangerRouting, DetuneStageRunsOnVoiceTwoWhenEnabled) {
  const auto in = voiceLike(kBlock * 60);
  P p = voices(0, 0.0f, 2, 0.0f);
  p.voice1LevelDb = -60.0f, p.voice2LevelDb = 0.0f, p.detuneEnable = 0;
  Changer plain(p);
  p.detuneEnable = 1, p.detuneDelayMs = 20.0f;
  Changer detuned(p);
  // Shifter latency, then half a 50 ms grain, then 20 ms and two samples.
  const int32_t lagA = qor::test::delayByCrossCorrelation(in, plain.run(in), 6000),
                lagB = qor::test::delayByCrossCorrelation(in, detuned.run(in), 6000);
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

TEST(VocalChangerRouting, BandLimitsWidenWithThePitchShift) {
  // Amplitude of the shifted tone through the changer, relative to a bare shifter.
  auto measured = [](float pitch, double hz) {
    const auto in = qor::test::sine(hz, 48000.0, 187 * kBlock, 0.5);  // whole blocks
    const double target = hz * std::exp2(pitch / 1200.0);
    Changer changer(voices(2, pitch));
    qor::test::HeldProcessor<qor::VoicePitchShifter> bare(1);
    bare->setRatio(std::exp2(pitch / 1200.0f));
    return qor::test::toneAmplitude(changer.run(in), target, 48000.0, 12000) /
           qor::test::toneAmplitude(bare.runMono(in), target, 48000.0, 12000);
  };
  // Second-order Butterworth magnitudes after the bilinear transform.
  auto warped = [](double f) { return std::tan(3.14159265358979 * f / 48000.0); };
  auto bands = [&](double f) {
    const double x = std::pow(warped(f) / warped(100.0), 2);
    return x / std::sqrt(1.0 + x * x) / std::sqrt(1.0 + std::pow(warped(f) / warped(6000.0), 4));
  };
  // Tones on analysis bins (multiples of 48000 / 2048) shift cleanly.
  // +1200 cents: high-pass at 100 Hz, not 50; -1200 cents: low-pass at 6 kHz, not 12.
  for (double hz : {70.3125, 140.625}) EXPECT_NEAR(measured(1200.0f, hz), bands(hz), 0.01) << hz;
  for (double hz : {3000.0, 7031.25}) EXPECT_NEAR(measured(-1200.0f, hz), bands(hz), 0.01) << hz;
}

// --- every voice type on a voice ---

class VocalChangerTypes : public ::testing::TestWithParam<int32_t> {};

TEST_P(VocalChangerTypes, TurnAVoiceIntoAnotherOfComparableEnergy) {
  const int32_t type = GetParam();
  const float pitch[] = {0.0f, 500.0f, -500.0f, 700.0f, 300.0f, -300.0f, 0, 0, 0, 0, 0, 0, 0, 0, 200.0f};
  const auto in = voiceLike(48000);
  Changer changer(voices(type, pitch[type]));
  const auto out = changer.run(in);
  const int latency = changer.latency();
  for (float v : out) ASSERT_TRUE(std::isfinite(v));
  const double inLevel = qor::test::rms(in, 8000);
  const double outLevel = qor::test::rms(out, static_cast<size_t>(latency) + 8000);
  EXPECT_GT(outLevel, 0.05 * inLevel);
  // Carrier voices take their level from the carrier processor's fixed gain.
  if (type <= 5) {
    EXPECT_LT(outLevel, 2.0 * inLevel);
  }
  // Something else than the input delayed.
  EXPECT_LT(std::fabs(qor::test::correlation(out, in, latency, latency + 8000)), 0.95);
}

INSTANTIATE_TEST_SUITE_P(Types, VocalChangerTypes, ::testing::Range(1, 15),
                         [](const auto& p) { return "Type" + std::to_string(p.param); });

TEST(VocalChangerTypes, StereoChannelsAreShiftedIndependently) {
  const Channels in{voiceLike(kBlock * 24), qor::test::sine(500.0, 48000.0, kBlock * 24, 0.3)};
  Changer stereo(voices(2, 700.0f), 2), mono(voices(2, 700.0f), 1);
  const auto both = stereo.run(in);
  expectSame(both[0], mono.run(in[0]));
  EXPECT_GT(qor::test::rms(both[1], 4096), 0.05);
}

// --- staged settings, resets and bypass ---

TEST(VocalChangerState, IdenticalOrCrossfadeOnlyUpdatesResetNothing) {
  const auto in = voiceLike(kBlock * 48);
  P p = voices(3, 400.0f, 9, -200.0f);
  p.detuneDelayMs = 10.0f, p.detuneDepthPercent = 50.0f, p.detuneRateHz = 1.0f, p.detuneCents = 30.0f;
  Changer steady(p), poked(p);
  std::vector<float> out;
  for (size_t b = 0; b < 48; ++b) {
    P q = p;
    if (b % 4 == 2) q.crossfadeTime = 5.0f;
    if (b % 4 == 3) {  // a real change withdrawn before the next block never happens
      q.voice1Type = 5;
      ASSERT_EQ(poked.update(q), R::Success);
      q = p;
    }
    if (b % 4 != 0) {
      ASSERT_EQ(poked.update(q), R::Success);
    }
    const auto o = poked.run(slice(in, b * kBlock, (b + 1) * kBlock));
    out.insert(out.end(), o.begin(), o.end());
  }
  expectSame(out, steady.run(in));
}

TEST(VocalChangerState, FlushClearsHistory) {
  P p = voices(2, -700.0f, 4, 300.0f);
  p.detuneDelayMs = 30.0f;
  Changer changer(p);
  changer.run(voiceLike(kBlock * 16));
  ASSERT_EQ(changer.flush(), R::Success);
  // Both shifters start empty and the detune delay holds nothing.
  for (float v : changer.run(std::vector<float>(kBlock * 8, 0.0f))) ASSERT_EQ(v, 0.0f);
  EXPECT_EQ(changer.parameters().voice1PitchCents, -700.0f);
  EXPECT_EQ(changer.latency(), 2048);
}

TEST(VocalChangerBypass, FadeOutFollowsTheOnePoleThenFlushes) {
  P p = voices(2, 1200.0f);
  p.crossfadeTime = 10.0f;
  const auto in = voiceLike(kBlock * 48);
  Changer fading(p), wet(p);
  const size_t switchAt = kBlock * 16;
  fading.run(slice(in, 0, switchAt));
  const auto reference = wet.run(in);
  P off = p;
  off.enable = 0;
  ASSERT_EQ(fading.update(off), R::Success);
  const auto rest = fading.run(slice(in, switchAt, in.size()));

  // m starts at 1 and closes all but 1e-5 of the way in 10 ms, per block
  // from the value the previous block reached.
  const double c = 1.0 - std::pow(1e-5, 1.0 / (0.010 * 48000.0));
  double m = 1.0;
  size_t snapped = 0;
  for (size_t i = 0; i < rest.size(); ++i) {
    if (i % kBlock == 0 && m < 1e-5 && snapped == 0) snapped = i;
    const double dry = in[switchAt + i];
    ASSERT_NEAR(rest[i], snapped != 0 ? dry : (1.0 - m) * dry + m * reference[switchAt + i], 1e-4) << i;
    m *= 1.0 - c;
  }
  EXPECT_GT(snapped, 0u);
  EXPECT_EQ(fading.latency(), 0);

  // The completed fade flushed: enabling again starts like a fresh instance.
  Changer fresh(off);
  ASSERT_EQ(fading.update(p), R::Success);
  ASSERT_EQ(fresh.update(p), R::Success);
  const auto again = voiceLike(kBlock * 16);
  expectSame(fading.run(again), fresh.run(again));
}

}  // namespace
