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

// Five seconds (twenty of the slowest time constants), measured over the last.
double settledGainDb(Dynamics& d, double levelDb) {
  const std::vector<float> x = crestToneDb({{levelDb, 7500}});
  return toneGainDb(x, d.run(x), 750.0, x.size() * 4 / 5, 256);
}

struct GateCase {
  double threshold, floor, level, expectedDb;
};
class GatingCompressorGate : public ::testing::TestWithParam<GateCase> {};

TEST_P(GatingCompressorGate, SteadyToneSettlesAtTheExpanderGain) {
  const GateCase c = GetParam();
  P p = gateOnly();
  p.gateThreshold = static_cast<float>(c.threshold);
  p.gateFloor = static_cast<float>(c.floor);
  Dynamics d(p);
  EXPECT_NEAR(settledGainDb(d, c.level), c.expectedDb, 0.05);
  EXPECT_NEAR(d.reading(0)[0], c.expectedDb, 0.05) << "the gate point reads the applied gain";
}

// 12 dB under is floored, 1 dB under is ratio 20, at and above it is open,
// and a floor of 0 dB never gates.
INSTANTIATE_TEST_SUITE_P(
    LevelsAroundTheThreshold, GatingCompressorGate,
    ::testing::Values(GateCase{-48, -48, -60, -48}, GateCase{-48, -48, -49, -19}, GateCase{-48, -48, -50.5, -47.5},
                      GateCase{-48, -48, -48, 0}, GateCase{-48, -48, -20, 0}, GateCase{-30, -60, -32, -38},
                      GateCase{-30, -60, -40, -60}, GateCase{-30, 0, -70, 0}));

struct CompressorCase {
  double threshold, ratio, inputGain, makeup, level, expectedDb;
};
class GatingCompressorCompressor : public ::testing::TestWithParam<CompressorCase> {};

TEST_P(GatingCompressorCompressor, SteadyToneSettlesAtTheStaticCurve) {
  const CompressorCase c = GetParam();
  P p = compressorOnly();
  p.compressorThreshold = static_cast<float>(c.threshold);
  p.compressorRatio = static_cast<float>(c.ratio);
  p.compressorInputGain = static_cast<float>(c.inputGain);
  p.compressorMakeupGain = static_cast<float>(c.makeup);
  Dynamics d(p);
  EXPECT_NEAR(settledGainDb(d, c.level), c.expectedDb, 0.05);
  for (int i : {0, 1}) {
    EXPECT_NEAR(d.reading(1)[i], c.expectedDb - c.inputGain - c.makeup, 0.05) << "the reduction alone";
  }
}

// Expected: min(threshold - (level + in), 0) * (1 - 1/ratio) + in + makeup,
// lowered so that the output stays under +24 dB (the last case).
INSTANTIATE_TEST_SUITE_P(
    StaticCurve, GatingCompressorCompressor,
    ::testing::Values(CompressorCase{-20, 4, 0, 0, -8, -9}, CompressorCase{-20, 4, 0, 0, -30, 0},
                      CompressorCase{-20, 2, 0, 0, -4, -8}, CompressorCase{-40, 20, 0, 0, -10, -28.5},
                      CompressorCase{-20, 1, 0, 0, -3, 0}, CompressorCase{-20, 4, 6, 3, -14, 0},
                      CompressorCase{-20, 4, -6, 12, -8, 1.5}, CompressorCase{0, 1, 0, 12, 18.0617997, 5.9382003}));

// Both dynamic stages in double precision: the shared level detector feeds a
// static curve, then `follow` moves the followers towards the target gain.
std::vector<double> model(const std::vector<float>& x, const std::function<double(double)>& curve,
                          const std::function<double(double)>& follow) {
  qor::PeakHistory history{};
  qor::peakHistorySetup(history, 48000, 32, 20);
  std::vector<double> t;
  for (size_t start = 0; start + 32 <= x.size(); start += 32) {
    const float* ch = x.data();
    const double peak = qor::peakHistoryUpdate(history, &ch, static_cast<uint32_t>(start), 32, 1);
    t.push_back(follow(std::pow(10.0, curve(20.0 * std::log10(std::max(peak, 1e-300))) / 20.0)));
  }
  return t;
}
double tc(double ms) { return ms > 0 ? 1.0 - std::exp(-1.0 / (1500.0 * ms / 1000.0)) : 1.0; }

std::vector<double> modelGate(const std::vector<float>& x, const P& p) {
  const double open1 = tc(p.gateAttack), close1 = tc(std::max(p.gateRelease * 0.05, 5.0));
  const double open2 = tc(std::max(p.gateAttack * 20.0, 5.0)), close2 = tc(p.gateRelease);
  const int hold = static_cast<int>(p.gateHold * 0.001 * 48000.0 / 32.0);
  double held = 1, y1 = 1, y2 = 1;
  int counter = 0;
  auto curve = [&](double level) {
    level = std::max(level, -120.0);
    return level < p.gateThreshold ? std::max(19.0 * (level - p.gateThreshold), double{p.gateFloor}) : 0.0;
  };
  return model(x, curve, [&](double g) {
    if (g > held || counter >= hold) {
      held = g, counter = 0;
    } else {
      g = held, ++counter;
    }
    y1 += (g > y1 ? open1 : close1) * (g - y1);
    y2 += (g > y2 ? open2 : close2) * (g - y2);
    return std::max(y1, y2);
  });
}

std::vector<double> modelCompressor(const std::vector<float>& x, const P& p) {
  const double a1 = tc(p.compressorAttack), r1 = tc(std::max(p.compressorRelease * 0.2, 5.0));
  const double a2 = tc(std::max(p.compressorAttack * 5.0, 5.0)), r2 = tc(p.compressorRelease);
  double y1 = 1, y2 = 1;
  auto curve = [&](double level) {
    level += p.compressorInputGain;
    const double g = std::min(p.compressorThreshold - level, 0.0) * (1.0 - 1.0 / p.compressorRatio) +
                     p.compressorInputGain + p.compressorMakeupGain;
    return std::max(g - std::max(g + level - 24.0, 0.0), -100.0);
  };
  return model(x, curve, [&](double target) {
    y1 += (y1 > target ? a1 : r1) * (target - y1);
    y2 += (y2 > y1 ? a2 : r2) * (y1 - y2);
    return std::min(y1, y2);
  });
}

// The gain read at the start of output sub-block i + 4 (half a block of
// delay) is the one reached after sub-block i + 3.
void expectGainsFollowTheModel(const P& p, const std::vector<float>& x, const std::vector<double>& model) {
  const std::vector<float> y = Dynamics(p).run(x);
  for (size_t i = 0; 32 * i + 160 <= y.size(); ++i) {
    const double measured = std::fabs(y[32 * i + 128]) / std::fabs(x[32 * i]);
    ASSERT_NEAR(toDb(measured), toDb(model[i + 3]), 0.02) << "sub-block " << i;
  }
}

TEST(GatingCompressorTiming, GateOpensHoldsAndClosesAsTheFollowersPredict) {
  // Quiet, a loud phrase, quiet again, a phrase just under the threshold.
  const std::vector<float> x =
      crestToneDb({{-62, 1500}, {-20, 600}, {-60, 1200}, {-12, 40}, {-49, 900}, {-30, 300}});
  for (auto [attack, release, hold] : {std::array<float, 3>{5, 250, 5}, std::array<float, 3>{0, 50, 0},
                                       std::array<float, 3>{50, 1000, 200}, std::array<float, 3>{200, 120, 30}}) {
    P p = gateOnly();
    p.gateAttack = attack, p.gateRelease = release, p.gateHold = hold;
    SCOPED_TRACE(attack);
    expectGainsFollowTheModel(p, x, modelGate(x, p));
  }
}

TEST(GatingCompressorTiming, CompressorAttackAndReleaseFollowTheTwoFollowersInSeries) {
  const std::vector<float> x = crestToneDb({{-40, 600}, {-6, 600}, {-36, 1800}, {-10, 100}, {-20, 400}});
  for (auto [attack, release] : {std::pair{5.0f, 250.0f}, std::pair{0.0f, 50.0f}, std::pair{80.0f, 900.0f}}) {
    P p = compressorOnly();
    p.compressorThreshold = -30, p.compressorRatio = 6, p.compressorMakeupGain = 4;
    p.compressorAttack = attack, p.compressorRelease = release;
    SCOPED_TRACE(attack);
    expectGainsFollowTheModel(p, x, modelCompressor(x, p));
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
  P on = defaults();
  on.compressorThreshold = -30, on.compressorRatio = 10;
  P off = on;
  off.enable = 0;
  Dynamics d(on), fresh(off);
  d.run(std::vector<float>(x.begin(), x.begin() + 256 * 100));
  d.update(off);
  const double keep = fadeKeep(50.0), compressed = std::pow(10.0, -27.0 * 0.9 / 20.0);
  double mix = 1.0;
  int block = 100;
  for (; block < 130 && mix > 0.0; ++block) {
    const std::vector<float> in(x.begin() + 256 * block, x.begin() + 256 * (block + 1));
    EXPECT_EQ(d.latency(), 256);
    const std::vector<float> out = d.run(in);
    // The tone repeats every 64 samples, so the delayed, compressed copy is in
    // phase with the dry one and the crossfade shows as a plain gain.
    const double m = mix * std::pow(keep, 224);
    EXPECT_NEAR(out[224] / in[224], (1.0 - m) + m * compressed, 0.003) << "block " << block;
    mix *= std::pow(keep, 256);
    if (mix < 1e-5) mix = 0.0;
  }
  EXPECT_LT(block, 130);
  EXPECT_EQ(d.latency(), 0);
  const std::vector<float> in(x.begin() + 256 * block, x.begin() + 256 * (block + 1));
  EXPECT_EQ(d.run(in), in) << "untouched once the fade is over";
  EXPECT_NEAR(d.reading(0)[0], -758.6, 0.1) << "readings fall to the floor while disabled";
  EXPECT_NEAR(d.reading(1)[0], -758.6, 0.1);

  // Re-enabled, it behaves as an instance that never ran.
  d.update(on);
  fresh.update(on);
  const std::vector<float> rest(x.begin() + 256 * 130, x.end());
  EXPECT_EQ(d.run(rest), fresh.run(rest));
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
