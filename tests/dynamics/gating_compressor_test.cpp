// The gating compressor measured on tones and noise through Process.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "block_runner.h"
#include "dsp/core/peak_detector.h"
#include "dsp/dynamics/gating_compressor.h"

namespace {

using namespace QorGatingCompressor_API_V1;
using namespace qor::test;
using P = QorGatingCompressorParameters;

struct Calls {
  QOR_METERED_CALLS(GatingCompressor)
};
using Dynamics = Instance<Calls>;
P defaults() { return defaultParameters<Calls>(); }
P gateOnly(P p = defaults()) { return p.compressorEnable = 0, p; }
P compressorOnly(P p = defaults()) { return p.gateEnable = 0, p; }

// The crest tone with segment levels in dB.
std::vector<float> crestToneDb(std::vector<std::pair<double, int>> segments) {
  for (auto& s : segments) s.first = std::pow(10.0, s.first / 20.0);
  return crestTone(segments);
}

// {gate?, threshold, floor (gate) or ratio, input gain, makeup, level, gain}.
// Compressor: min(threshold - (level + in), 0) (1 - 1/ratio) + in + makeup,
// lowered so that the output stays under +24 dB (the last case). Gate: ratio
// 20 below the threshold down to the floor; a floor of 0 dB never gates.
struct CurveCase {
  bool gate;
  float threshold, floorOrRatio, inputGain, makeup, level, expectedDb;
};
class GatingCompressorCurve : public ::testing::TestWithParam<CurveCase> {};

TEST_P(GatingCompressorCurve, SteadyToneSettlesOnTheStaticCurveAndTheMeterReadsIt) {
  const CurveCase c = GetParam();
  P p = c.gate ? gateOnly() : compressorOnly();
  (c.gate ? p.gateThreshold : p.compressorThreshold) = c.threshold;
  (c.gate ? p.gateFloor : p.compressorRatio) = c.floorOrRatio;
  p.compressorInputGain = c.inputGain, p.compressorMakeupGain = c.makeup;
  Dynamics d(p);
  // Five seconds (twenty of the slowest time constants), measured over the last.
  const std::vector<float> x = crestToneDb({{c.level, 7500}});
  EXPECT_NEAR(toneGainDb(x, d.run(x), 750.0, x.size() * 4 / 5, 256), c.expectedDb, 0.05);
  // The gate point reads the applied gain, the compressor point the reduction alone.
  for (int i = 0; i < (c.gate ? 1 : 2); ++i) {
    EXPECT_NEAR(d.reading(c.gate ? 0 : 1)[i], c.expectedDb - c.inputGain - c.makeup, 0.05);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Levels, GatingCompressorCurve,
    ::testing::Values(CurveCase{true, -48, -48, 0, 0, -60, -48}, CurveCase{true, -48, -48, 0, 0, -49, -19},
                      CurveCase{true, -48, -48, 0, 0, -50.5f, -47.5f}, CurveCase{true, -48, -48, 0, 0, -48, 0},
                      CurveCase{true, -48, -48, 0, 0, -20, 0}, CurveCase{true, -30, -60, 0, 0, -32, -38},
                      CurveCase{true, -30, -60, 0, 0, -40, -60}, CurveCase{true, -30, 0, 0, 0, -70, 0},
                      CurveCase{false, -20, 4, 0, 0, -8, -9}, CurveCase{false, -20, 4, 0, 0, -30, 0},
                      CurveCase{false, -20, 2, 0, 0, -4, -8}, CurveCase{false, -40, 20, 0, 0, -10, -28.5f},
                      CurveCase{false, -20, 1, 0, 0, -3, 0}, CurveCase{false, -20, 4, 6, 3, -14, 0},
                      CurveCase{false, -20, 4, -6, 12, -8, 1.5f},
                      CurveCase{false, 0, 1, 0, 12, 18.0617997f, 5.9382003f}));

// Both dynamic stages in double precision: the shared level detector feeds a
// static curve (in dB), then `follow` moves the followers towards its gain.
// The gain read at the start of output sub-block i + 4 (half a block of
// delay) is the one reached after sub-block i + 3.
void expectGainsFollowTheModel(const P& p, const std::vector<float>& x, const std::function<double(double)>& curve,
                               const std::function<double(double)>& follow) {
  qor::PeakHistory history{};
  qor::peakHistorySetup(history, 48000, 32, 20);
  std::vector<double> model;
  for (size_t start = 0; start + 32 <= x.size(); start += 32) {
    const float* ch = x.data();
    const double peak = qor::peakHistoryUpdate(history, &ch, static_cast<uint32_t>(start), 32, 1);
    model.push_back(follow(std::pow(10.0, curve(20.0 * std::log10(std::max(peak, 1e-300))) / 20.0)));
  }
  const std::vector<float> y = Dynamics(p).run(x);
  for (size_t i = 0; 32 * i + 160 <= y.size(); ++i) {
    ASSERT_NEAR(toDb(std::fabs(y[32 * i + 128]) / std::fabs(x[32 * i])), toDb(model[i + 3]), 0.02) << i;
  }
}
double tc(double ms) { return ms > 0 ? 1.0 - std::exp(-1.0 / (1.5 * ms)) : 1.0; }

TEST(GatingCompressorTiming, GateOpensHoldsAndClosesAsTheFollowersPredict) {
  // Quiet, a loud phrase, quiet again, a phrase just under the threshold.
  const std::vector<float> x =
      crestToneDb({{-62, 1500}, {-20, 600}, {-60, 1200}, {-12, 40}, {-49, 900}, {-30, 300}});
  for (auto [attack, release, hold] : {std::array<float, 3>{5, 250, 5}, std::array<float, 3>{0, 50, 0},
                                       std::array<float, 3>{50, 1000, 200}, std::array<float, 3>{200, 120, 30}}) {
    P p = gateOnly();
    p.gateAttack = attack, p.gateRelease = release, p.gateHold = hold;
    const double open1 = tc(attack), close1 = tc(std::max(release * 0.05, 5.0));
    const double open2 = tc(std::max(attack * 20.0, 5.0)), close2 = tc(release);
    const int holdBlocks = static_cast<int>(hold * 0.001 * 48000.0 / 32.0);
    double held = 1, y1 = 1, y2 = 1;
    int counter = 0;
    SCOPED_TRACE(attack);
    expectGainsFollowTheModel(
        p, x,
        [&](double level) {
          level = std::max(level, -120.0);
          return level < p.gateThreshold ? std::max(19.0 * (level - p.gateThreshold), double{p.gateFloor}) : 0.0;
        },
        [&](double g) {
          if (g > held || counter >= holdBlocks) {
            held = g, counter = 0;
          } else {
            g = held, ++counter;
          }
          y1 += (g > y1 ? open1 : close1) * (g - y1);
          y2 += (g > y2 ? open2 : close2) * (g - y2);
          return std::max(y1, y2);
        });
  }
}

TEST(GatingCompressorTiming, CompressorAttackAndReleaseFollowTheTwoFollowersInSeries) {
  const std::vector<float> x = crestToneDb({{-40, 600}, {-6, 600}, {-36, 1800}, {-10, 100}, {-20, 400}});
  for (auto [attack, release] : {std::pair{5.0f, 250.0f}, std::pair{0.0f, 50.0f}, std::pair{80.0f, 900.0f}}) {
    P p = compressorOnly();
    p.compressorThreshold = -30, p.compressorRatio = 6, p.compressorMakeupGain = 4;
    p.compressorAttack = attack, p.compressorRelease = release;
    const double a1 = tc(attack), r1 = tc(std::max(release * 0.2, 5.0));
    const double a2 = tc(std::max(attack * 5.0, 5.0)), r2 = tc(release);
    double y1 = 1, y2 = 1;
    SCOPED_TRACE(attack);
    expectGainsFollowTheModel(
        p, x,
        [&](double level) {
          const double g = std::min(-30.0 - level, 0.0) * (1.0 - 1.0 / 6.0) + 4.0;
          return std::max(g - std::max(g + level - 24.0, 0.0), -100.0);
        },
        [&](double target) {
          y1 += (y1 > target ? a1 : r1) * (target - y1);
          y2 += (y2 > y1 ? a2 : r2) * (y1 - y2);
          return std::min(y1, y2);
        });
  }
}

TEST(GatingCompressorBlocks, GateAloneDelaysHalfABlockAndOffGridBlocksPassButStillFade) {
  // The reported latency stays fixed whichever sections run.
  const std::vector<float> noise = whiteNoise(256 * 188, 21, 0.1);
  Dynamics gate(gateOnly());
  EXPECT_EQ(delayByCrossCorrelation(noise, gate.run(noise), 1024), 128);
  EXPECT_EQ(gate.latency(), 256);

  P p = defaults();
  p.compressorThreshold = -30;
  Dynamics d(p, 48000, 130);
  const std::vector<float> x = whiteNoise(130 * 10, 4, 0.5), one(x.begin(), x.begin() + 130);
  EXPECT_EQ(d.run(x), x);
  p.enable = 0;
  d.update(p);
  int blocks = 0;
  for (; d.latency() != 0 && blocks < 100; ++blocks) {
    const std::vector<float> y = d.run(one);
    for (size_t i = 0; i < one.size(); ++i) ASSERT_NEAR(y[i], one[i], 1e-6f);
  }
  EXPECT_NEAR(blocks * 130, 2400 + 65, 130) << "the mixes reach 0 after about 50 ms";
}

TEST(GatingCompressorBypass, DisablingFadesToTheDrySignalAndClearsTheState) {
  // Loud enough to be compressed, so processed and dry differ.
  const std::vector<float> x = crestToneDb({{-3, 2000}});
  auto block = [&](int k) { return std::vector<float>(x.begin() + 256 * k, x.begin() + 256 * (k + 1)); };
  P on = defaults();
  on.compressorThreshold = -30, on.compressorRatio = 10;
  P off = on;
  off.enable = 0;
  Dynamics d(on);
  d.run(std::vector<float>(x.begin(), x.begin() + 256 * 100));
  d.update(off);
  // The tone repeats every 64 samples, so the delayed, compressed copy is in
  // phase with the dry one and the crossfade shows as a plain gain.
  const double keep = fadeKeep(50.0), compressed = std::pow(10.0, -27.0 * 0.9 / 20.0);
  int k = 100;
  for (double mix = 1.0; mix >= 1e-5; mix *= std::pow(keep, 256), ++k) {
    EXPECT_EQ(d.latency(), 256);
    const double m = mix * std::pow(keep, 224);
    EXPECT_NEAR(d.run(block(k))[224] / block(k)[224], (1.0 - m) + m * compressed, 0.003) << "block " << k;
  }
  EXPECT_EQ(d.latency(), 0);
  EXPECT_NEAR(d.reading(1)[0], -758.6, 0.1) << "the compressor reading falls to the floor too";
}

TEST(GatingCompressorBypass, GateSwitchedOffKeepsUnityReadingWhileTheStageIsOn) {
  P p = defaults();
  Dynamics d(p);
  d.run(crestToneDb({{-55, 6000}}));
  EXPECT_NEAR(d.reading(0)[0], -48.0, 0.1);
  p.gateEnable = 0;
  d.update(p);
  d.run(crestToneDb({{-55, 1000}}));
  EXPECT_EQ(d.latency(), 256) << "the compressor still runs";
  EXPECT_NEAR(d.reading(0)[0], 0.0, 1e-6) << "the completed fade reset the gate to unity";
  d.run(crestToneDb({{-20, 1000}}));
  EXPECT_NEAR(d.reading(0)[0], 0.0, 1e-6) << "and it stays there while the gate is off";
}

TEST(GatingCompressorState, StereoChannelsShareOneGain) {
  P p = defaults();
  p.compressorThreshold = -30;
  const std::vector<float> loud = crestToneDb({{-6, 600}}), quiet = crestToneDb({{-40, 600}});
  const Signal y = Dynamics(p, 48000, 256, 2).run(Signal{loud, quiet});
  for (size_t i = 256 * 20; i < loud.size(); i += 97) {
    ASSERT_NEAR(y[0][i] / loud[i - 256], y[1][i] / quiet[i - 256], 1e-4) << i;
  }
}

}  // namespace
