// The hard limiter measured on tones, bursts and noise through Process.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "block_runner.h"
#include "dsp/core/peak_detector.h"
#include "dsp/dynamics/hard_limiter.h"

namespace {

using namespace QorHardLimiter_API_V1;
using namespace qor::test;
using P = QorHardLimiterParameters;

struct Calls {
  QOR_METERED_CALLS(HardLimiter)
};
using Limiter = Instance<Calls>;
P with(float attack, float release, float inputGain) {
  P p = defaultParameters<Calls>();
  p.attack = attack, p.release = release, p.inputGain = inputGain;
  return p;
}

TEST(HardLimiterTone, FullScaleSineSettlesAtTheCeilingStereoLinkedAndNeverExceedsFullScale) {
  for (const double f : {110.0, 1000.0, 4000.0}) {
    Limiter limiter(with(5, 250, 0), 48000, 256, 2);
    const Signal y = limiter.run(Signal{sine(f, 48000.0, 48000, 1.0), sine(f, 48000.0, 48000, 0.5, 1.0)});
    for (const auto& channel : y) EXPECT_LE(peakAbs(channel), 1.0);
    // After several attack constants the louder channel peaks at the ceiling
    // and both share one gain, which the meter reads (about 0.8).
    EXPECT_NEAR(peakAbs(y[0], 24000), 0.8, 0.01) << f << " Hz";
    EXPECT_NEAR(peakAbs(y[1], 24000), 0.4, 0.006) << f << " Hz";
    EXPECT_NEAR(limiter.reading()[0], -1.94, 0.1);
  }
}

TEST(HardLimiterLevels, QuietPassesAtUnityDelayedAndInputGainComesBeforeTheCeiling) {
  const std::vector<float> x = whiteNoise(256 * 100, 31, 0.7);
  Limiter limiter;
  const std::vector<float> y = limiter.run(x);
  for (size_t i = 0; i < 128; ++i) ASSERT_EQ(y[i], 0.0f) << "the look-ahead starts empty";
  for (size_t i = 128; i < x.size(); ++i) ASSERT_NEAR(y[i], x[i - 128], 2e-7) << i;
  EXPECT_NEAR(limiter.reading()[0], 0.0, 1e-5);
  // +20 dB on -30 dBFS peaks near -10 dBFS; on -10 dBFS it is held at the ceiling.
  EXPECT_NEAR(peakAbs(Limiter(with(5, 250, 20)).run(crestTone({{std::pow(10.0, -1.5), 1500}})), 24000),
              std::pow(10.0, -0.5), 0.002);
  const std::vector<float> z = Limiter(with(5, 250, 20)).run(crestTone({{std::pow(10.0, -0.5), 1500}}));
  EXPECT_NEAR(peakAbs(z, 24000), 0.8, 0.01);
  EXPECT_LE(peakAbs(z), 1.0);
}

// Limiter model in double precision: the shared level detector, then the
// three followers and the smoothed input gain (applied before the ceiling)
// written out directly. Returns the gain at the first sample of every output
// sub-block.
std::vector<double> modelStartGains(const std::vector<float>& x, const P& p) {
  auto tc = [](double ms) { return ms > 0 ? 1.0 - std::exp(-1.0 / (1.5 * ms)) : 1.0; };
  const double a1 = tc(p.attack), b1 = tc(p.release * 0.2), a2 = tc(p.attack * 5.0), b2 = tc(p.release);
  const double a3 = tc(16.0 / 1500.0 * 355.0), b3 = tc(0.5);
  const double hysteresis = std::pow(10.0, -1.0 / 20.0), target = std::pow(10.0, p.inputGain / 20.0);
  qor::PeakHistory history{};
  qor::peakHistorySetup(history, 48000, 32, 20);
  double g = 1, gain = 1, y1 = 1, y2 = 1, y3 = 1;
  std::vector<double> start;
  for (size_t s = 0; s + 32 <= x.size(); s += 32) {
    g = 0.9672161 * g + 0.0327839 * target;
    start.push_back(gain * g);
    const float* ch = x.data();
    const double peak = qor::peakHistoryUpdate(history, &ch, static_cast<uint32_t>(s), 32, 1);
    const double r = std::min(0.8 / std::max(peak * g, 3.051851e-5), 1.0);
    y1 += (y1 > r ? a1 : b1) * (r - y1);
    y2 += (y2 * hysteresis > r ? a2 : b2) * (r - y2);
    const double q = 1.0 / std::max(qor::peakHistoryRecentMax(history, 5) * g, 1.0);
    y3 += (y3 > q ? a3 : b3) * (q - y3);
    gain = std::min({y1, y2, y3});
  }
  return start;
}

TEST(HardLimiterTiming, GainFollowsTheAttackAndReleaseOfTheThreePaths) {
  const std::vector<float> x =
      crestTone({{0.2, 300}, {0.95, 400}, {0.3, 1200}, {0.99, 20}, {0.5, 600}, {0.85, 300}, {0.1, 900}});
  for (auto [a, r, in] : {std::array<float, 3>{5, 250, 0}, std::array<float, 3>{0, 10, 0},
                          std::array<float, 3>{10, 500, -6}, std::array<float, 3>{1, 60, 4}}) {
    const P p = with(a, r, in);
    const std::vector<float> y = Limiter(p).run(x);
    const std::vector<double> model = modelStartGains(x, p);
    for (size_t b = 4; b < model.size(); ++b) {
      const double measured = std::fabs(y[32 * b]) / std::fabs(x[32 * (b - 4)]);
      ASSERT_NEAR(toDb(measured), toDb(model[b]), 0.02) << "attack " << a << ", sub-block " << b;
    }
    EXPECT_LE(peakAbs(y), 1.0);
  }
}

TEST(HardLimiterBurst, LoudBurstIsHeldUnderFullScaleFromItsFirstSampleAndOffGridBlocksPass) {
  std::vector<float> x = whiteNoise(256 * 60, 41, 0.2);
  const std::vector<float> burst = whiteNoise(256 * 20, 42, 3.0);
  std::copy(burst.begin(), burst.end(), x.begin() + 256 * 20);
  const std::vector<float> y = Limiter().run(x);
  EXPECT_LE(peakAbs(y), 1.0) << "the clip stage catches what the look-ahead lets through";
  // Some 40 ms in (several attack constants) the burst sits at the ceiling.
  const size_t settled = 256 * 20 + 128 + 32 * 60, end = 256 * 40 + 128;
  EXPECT_LT(peakAbs(y, settled, end), 0.82);
  EXPECT_GT(peakAbs(y, settled, end), 0.7);
  const std::vector<float> odd(burst.begin(), burst.begin() + 130 * 8);
  EXPECT_EQ(Limiter(with(5, 250, 0), 48000, 130).run(odd), odd) << "unclipped off the sub-block grid";
}

}  // namespace
