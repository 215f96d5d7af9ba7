// The reverb family measured on signals: reflection taps against the room
// tables, the late tail's decay per band against the decay times, the mono
// low end, parameter ranges, Flush and the fade. The calling conventions are
// in the shared family suite.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include "support/signals.h"
#include "voice_harness.h"

namespace {

using namespace QorReverb_API_V1;
using R = QorReverbResult;
using P = QorReverbParameters;
using Stereo = qor::test::Signals;

P defaults() { return qor::test::defaultsOf<qor::test::ReverbApi>(); }

using Reverb = qor::test::Family<qor::test::ReverbApi>;

Stereo impulses(size_t n, float left, float right, size_t at = 0) {
  return {qor::test::impulse(n, at, left), qor::test::impulse(n, at, right)};
}
Stereo noise(size_t n, uint32_t seed) {
  return {qor::test::whiteNoise(n, seed, 0.5), qor::test::whiteNoise(n, seed + 1, 0.5)};
}

// Wet-only settings; with `size` set, the reflections alone: no late tail,
// and a low-pass so open that a tap arrives as one sharp sample.
P wet(int32_t room, float balance, float size = -1.0f) {
  P p = defaults();
  p.roomType = room, p.earlyLateBalance = balance, p.mix = 1.0f;
  if (size > 0) p.roomSize = size, p.reflectionsCutoffHz = 10000.0f;
  return p;
}

// First sample of the one-pole reflection low-pass's impulse response at 10 kHz.
const double kLowPassFirst = [] {
  const double w = 2.0 * std::numbers::pi * 10000.0 / 48000.0;
  return w / (w + 1.0);
}();

int32_t tapDelay(double ms, double size, double rate = 48000) {
  return static_cast<int32_t>(std::floor(ms * size * rate / 1000.0 + 0.5));
}

// ---------------------------------------------------------------- parameters

TEST(ReverbParameters, RangeCodesRefusedUpdatesNanAndClampedRoomType) {
  const struct {
    float P::*field;
    float low, high;
    R code;
  } checks[] = {
      {&P::earlyLateBalance, 0.0f, 1.0f, R::ErrorEarlyLateBalance},
      {&P::reflectionsCutoffHz, 10.0f, 10000.0f, R::ErrorReflectionsCutoff},
      {&P::roomSize, 0.01f, 1.0f, R::ErrorRoomSize},
      {&P::lowDecayMs, 100.0f, 6000.0f, R::ErrorLowDecay},
      {&P::crossoverHz, 100.0f, 10000.0f, R::ErrorCrossover},
      {&P::highDecayMs, 100.0f, 6000.0f, R::ErrorHighDecay},
      {&P::mix, 0.0f, 1.0f, R::ErrorMix},
      {&P::crossfadeTime, 0.0f, 250.0f, R::ErrorCrossfadeTime},
  };
  Reverb r(defaults());
  for (const auto& c : checks) {
    for (float value : {std::nextafter(c.low, -1e9f), c.low, c.high, std::nextafter(c.high, 1e9f)}) {
      const bool inside = value >= c.low && value <= c.high;
      P p = defaults();
      p.*(c.field) = value;
      const QorReverbConfig config{48000, 256, 2, 48000, 256, 2, p};
      size_t size = 0;
      EXPECT_EQ(qorReverbGetInstanceSize(&config, &size), inside ? R::Success : c.code) << value;
      if (!inside) {
        EXPECT_EQ(r.update(p), c.code) << value;
      }
    }
  }
  const P now = r.parameters();
  EXPECT_TRUE(now.roomSize == defaults().roomSize && now.mix == defaults().mix) << "refused updates left traces";

  P p = defaults();
  p.reflectionsCutoffHz = std::nanf("");
  EXPECT_EQ(r.update(p), R::Success);
  // Room types above the table are clamped to the last, not refused.
  P high = defaults(), nine = defaults();
  high.roomType = 42, nine.roomType = 9;
  Reverb a(high), b(nine);
  EXPECT_EQ(a.run(noise(4096, 3)), b.run(noise(4096, 3)));
}

// ---------------------------------------------------------------- mixing

TEST(ReverbMix, DryPathsAreExact) {
  const Stereo in = noise(4096, 11);
  P p = defaults(), off = defaults();
  p.mix = 0.0f, off.enable = 0;
  EXPECT_EQ(Reverb(p).run(in), in) << "mix 0";
  EXPECT_EQ(Reverb(off).run(in), in) << "disabled at Init";
  // Room 0 without a tail is the dry share alone.
  p = wet(0, 0.0f);
  p.mix = 0.3f;
  const Stereo out = Reverb(p).run(in);
  for (int c = 0; c < 2; ++c) {
    for (size_t i = 0; i < in[c].size(); ++i) ASSERT_EQ(out[c][i], 0.7f * in[c][i]) << i;
  }
}

TEST(ReverbMix, BalanceZeroKeepsOnlyTheReflectionsAndOneOnlyTheTail) {
  Reverb r(wet(1, 0.0f, 0.45f));
  const Stereo out = r.run(impulses(4096, 1.0f, 0.0f));
  const int32_t last = tapDelay(25.2, 0.45);
  EXPECT_GT(qor::test::peakAbs(out[0], 0, last + 1), 0.05);
  EXPECT_LT(qor::test::peakAbs(out[0], last + 200), 1e-9) << "a late tail is left";
  EXPECT_LT(qor::test::peakAbs(out[1], last + 200), 1e-9);

  // Rooms 0 and 1 differ only in their reflections at this size: the late
  // pre-delay of room 1 is shorter than the network's first line.
  auto run = [](int32_t room, float balance) { return Reverb(wet(room, balance)).run(noise(4096, 5)); };
  EXPECT_EQ(run(1, 1.0f), run(0, 1.0f));
  EXPECT_NE(run(1, 0.9f), run(0, 0.9f));
}

// ---------------------------------------------------------------- reflections

struct TapCase {
  int32_t room;
  float size;
  std::vector<std::array<double, 3>> taps;  // ms, gain L, gain R (all bus A)
  bool mirror;
};

class ReverbTaps : public ::testing::TestWithParam<TapCase> {};

TEST_P(ReverbTaps, ArriveAtTheTabledTimesScaledByRoomSize) {
  const TapCase& c = GetParam();
  for (int input = 0; input < 2; ++input) {
    Reverb r(wet(c.room, 0.0f, c.size));
    const Stereo out = r.run(impulses(c.taps.back()[0] * c.size * 48 + 512, input == 0, input == 1));
    const bool swap = input == 1 && c.mirror;
    for (const auto& tap : c.taps) {
      const int32_t d = tapDelay(tap[0], c.size);
      for (int ch = 0; ch < 2; ++ch) {
        const double g = tap[(ch == 0) != swap ? 1 : 2];
        EXPECT_NEAR(out[ch][d], g * kLowPassFirst, 1e-4 * g + 1e-7) << "tap at " << tap[0] << " ms, ch " << ch;
      }
      EXPECT_LT(std::fabs(out[0][d - 1]), 1e-6) << "arrives early";
    }
  }
}

const std::vector<std::array<double, 3>> kRoomOne = {{13.4, 0.1776, 0.1776}, {18.0, 0.2512, 0.0447}, {25.2, 0.1259, 0.1259}};
INSTANTIATE_TEST_SUITE_P(
    Rooms, ReverbTaps,
    ::testing::Values(TapCase{1, 0.45f, kRoomOne, false}, TapCase{1, 1.0f, kRoomOne, false},
                      TapCase{8, 0.3f,
                              {{200, 0.5012, 0.0891}, {400, 0.0631, 0.3548}, {600, 0.2512, 0.0447},
                               {800, 0.0316, 0.1776}, {1000, 0.1259, 0.0224}, {1200, 0.0178, 0.1000},
                               {1400, 0.0707, 0.0126}},
                              true}));

TEST(ReverbDiffusedBus, SmearsItsTapsWhileThePlainBusKeepsThemSharp) {
  // Room 2 at full size: plain taps at 26 and 52 ms, diffused at 55 and 80 ms.
  const Stereo out = Reverb(wet(2, 0.0f, 1.0f)).run(impulses(4800, 1.0f, 0.0f));
  auto firstShare = [&](int c, int32_t at) {
    double e = 0.0;
    for (int32_t i = at; i < at + 100; ++i) e += static_cast<double>(out[c][i]) * out[c][i];
    return out[c][at] * out[c][at] / e;
  };
  const int32_t plain = tapDelay(52, 1.0), diffused = tapDelay(55, 1.0);
  EXPECT_GT(firstShare(0, plain), 0.7);
  EXPECT_LT(firstShare(1, diffused), 0.2);
  EXPECT_EQ(out[1][diffused - 1], 0.0f) << "the diffused tap starts at its own time";
  EXPECT_NE(out[1][diffused], 0.0f);
  // The three all-passes have the same coefficient size on both sides, so the
  // first diffused samples keep the tabled left/right ratio.
  EXPECT_NEAR(out[0][diffused] / out[1][diffused], 0.0178 / 0.1000, 1e-3);
}

TEST(ReverbTapChanges, CrossfadeOldToNewDelayAndSurplusTapsFadeOut) {
  Reverb r(wet(1, 0.0f, 0.45f));
  r.run(impulses(256, 0.0f, 0.0f));
  ASSERT_EQ(r.update(wet(1, 0.0f, 0.9f)), R::Success);
  // The impulse enters 64 samples into the 128-sample ramp: half old, half new.
  Stereo out = r.run(impulses(2048, 1.0f, 0.0f, 63));
  for (const auto& tap : kRoomOne) {
    for (double size : {0.45, 0.9}) {
      EXPECT_NEAR(out[0][63 + tapDelay(tap[0], size)], 0.5 * tap[1] * kLowPassFirst, 1e-3 * tap[1]) << tap[0];
    }
  }

  Reverb s(wet(8, 0.0f, 0.3f));
  s.run(impulses(256, 0.0f, 0.0f));
  ASSERT_EQ(s.update(wet(0, 0.0f, 0.3f)), R::Success);
  out = s.run(impulses(24000, 1.0f, 0.0f, 63));
  EXPECT_NEAR(out[0][63 + tapDelay(200, 0.3)], 0.5 * 0.5012 * kLowPassFirst, 1e-3);
  EXPECT_NEAR(out[1][63 + tapDelay(400, 0.3)], 0.5 * 0.3548 * kLowPassFirst, 1e-3);
  out = s.run(impulses(24000, 1.0f, 1.0f));
  EXPECT_EQ(qor::test::peakAbs(out[0]) + qor::test::peakAbs(out[1]), 0.0) << "surplus taps fell silent";
}

// ---------------------------------------------------------------- late tail

// Band-pass (Audio EQ Cookbook, 0 dB peak) run twice, in double precision.
std::vector<double> bandPass(const std::vector<float>& x, double centre, double q) {
  const double w = 2.0 * std::numbers::pi * centre / 48000.0, alpha = std::sin(w) / (2.0 * q), a0 = 1.0 + alpha;
  const double b0 = alpha / a0, a1 = -2.0 * std::cos(w) / a0, a2 = (1.0 - alpha) / a0;
  std::vector<double> y(x.begin(), x.end());
  for (int pass = 0; pass < 2; ++pass) {
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (double& v : y) {
      const double out = b0 * (v - x2) - a1 * y1 - a2 * y2;
      x2 = x1, x1 = v, y2 = y1, y1 = v = out;
    }
  }
  return y;
}

// RT60 from the Schroeder backward integral, fitted between -5 and -25 dB.
double reverberationTime(const std::vector<double>& y) {
  std::vector<double> energy(y.size());
  double acc = 0.0;
  for (size_t i = y.size(); i-- > 0;) energy[i] = acc += y[i] * y[i];
  double n = 0, st = 0, sd = 0, stt = 0, std_ = 0;
  for (size_t i = 0; i < y.size(); ++i) {
    const double db = 10.0 * std::log10(energy[i] / energy[0]), t = static_cast<double>(i) / 48000.0;
    if (db > -5.0) continue;
    if (db < -25.0) break;
    n += 1, st += t, sd += db, stt += t * t, std_ += t * db;
  }
  return -60.0 / ((n * std_ - st * sd) / (n * stt - st * st));
}

TEST(ReverbLateTail, DecaysInEachBandAsItsDecayTimeSays) {
  P p = wet(0, 1.0f);
  p.lowDecayMs = 3000.0f, p.highDecayMs = 1000.0f, p.crossoverHz = 2000.0f;
  const std::vector<float> ir = Reverb(p).run(impulses(3 * 48000, 1.0f, 0.0f))[0];
  const double low = reverberationTime(bandPass(ir, 125.0, 1.41));
  const double mid = reverberationTime(bandPass(ir, 2000.0, 4.3));
  const double high = reverberationTime(bandPass(ir, 8000.0, 1.41));
  EXPECT_NEAR(low, 3.0, 0.15 * 3.0);
  EXPECT_NEAR(high, 1.0, 0.15 * 1.0);
  EXPECT_GT(mid, 0.4);
  EXPECT_LT(mid, 0.85 * std::min(low, 3.0)) << "the fixed 500 ms mid decay dips the crossover";
}

TEST(ReverbLateTail, MonoInputLeavesNoLowEndInTheDifference) {
  const std::vector<float> mono = qor::test::whiteNoise(48000, 21, 0.5);
  const Stereo out = Reverb(wet(0, 1.0f)).run({mono, mono});
  std::vector<float> mid(mono.size()), side(mono.size());
  for (size_t i = 0; i < mono.size(); ++i) mid[i] = out[0][i] + out[1][i], side[i] = out[0][i] - out[1][i];
  auto energy = [](const std::vector<double>& y) {
    double e = 0.0;
    for (size_t i = 4800; i < y.size(); ++i) e += y[i] * y[i];
    return e;
  };
  auto ratioDb = [&](double centre) {
    return 10.0 * std::log10(energy(bandPass(side, centre, 1.41)) / energy(bandPass(mid, centre, 1.41)));
  };
  // Above the side high-pass the two outputs differ about as much as they
  // agree; a second-order Butterworth at 450 Hz takes 26 dB more off the
  // side at 100 Hz.
  const double highBand = ratioDb(4000.0);
  EXPECT_GT(highBand, -10.0);
  EXPECT_LT(ratioDb(100.0), highBand - 18.0);
}

// ---------------------------------------------------------------- state

TEST(ReverbState, FlushSilencesEverythingAndKeepsTheParameters) {
  Reverb r(defaults());
  r.run(noise(9600, 41));
  ASSERT_EQ(r.flush(), R::Success);
  const Stereo out = r.run(impulses(48000, 0.0f, 0.0f));
  EXPECT_EQ(qor::test::peakAbs(out[0]) + qor::test::peakAbs(out[1]), 0.0);
  EXPECT_EQ(r.parameters().roomType, defaults().roomType);
}

TEST(ReverbState, ACompletedFadeOutClearsTheTailAndRetunesAtOnce) {
  P p = wet(1, 0.5f, 0.45f);
  p.crossfadeTime = 0.0f;
  Reverb r(p);
  r.run(noise(9600, 51));
  p.enable = 0;
  ASSERT_EQ(r.update(p), R::Success);
  const Stereo in = noise(512, 53);
  const Stereo passed = r.run(in);
  EXPECT_TRUE(std::equal(passed[0].begin() + 256, passed[0].end(), in[0].begin() + 256)) << "bypassed after the fade";

  p.enable = 1, p.earlyLateBalance = 0.0f, p.roomSize = 0.9f;
  ASSERT_EQ(r.update(p), R::Success);
  // The fade-in's first sample is still dry; the impulse comes after it.
  const Stereo out = r.run(impulses(2048, 1.0f, 0.0f, 8));
  const int32_t d = 8 + tapDelay(13.4, 0.9);
  EXPECT_EQ(qor::test::peakAbs(out[0], 0, d), 0.0) << "the old tail survived the fade-out";
  EXPECT_NEAR(out[0][d], 0.1776 * kLowPassFirst, 1e-5) << "not retuned at once";
}

TEST(ReverbState, BlockSizeDoesNotChangeTheResult) {
  const Stereo in = noise(24576, 71);
  const Stereo a = Reverb(defaults(), 2, 48000, 128).run(in), b = Reverb(defaults(), 2, 48000, 512).run(in);
  for (int c = 0; c < 2; ++c) {
    double worst = 0.0;
    for (size_t i = 0; i < in[c].size(); ++i) worst = std::max(worst, std::fabs(double(a[c][i]) - b[c][i]));
    // Only the order of float sums in the reflection rings differs.
    EXPECT_LT(worst, 1e-4 * qor::test::peakAbs(a[c])) << "channel " << c;
  }
}

}  // namespace
