// The gating compressor measured on tones and noise through Process.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include "block_runner.h"
#include "dsp/core/peak_detector.h"
#include "dsp/dynamics/gating_compressor.h"
#include "support/signals.h"

namespace {

using namespace QorGatingCompressor_API_V1;
using R = QorGatingCompressorResult;
using qor::test::Signal;

struct Calls {
  QOR_FAMILY_CALLS(GatingCompressor)
};
QorGatingCompressorParameters defaults() { return qor::test::defaultParameters<Calls>(); }

struct Dynamics : qor::test::Instance<Calls> {
  explicit Dynamics(QorGatingCompressorParameters p = defaults(), uint32_t rate = 48000,
                    uint32_t block = 256, uint32_t channels = 1, uint8_t metering = 1)
      : Instance({rate, block, channels, rate, block, channels, p, metering}) {}
  const float* reading(int point) {
    const QorGatingCompressorMeteringPoints* points = nullptr;
    EXPECT_EQ(qorGatingCompressorGetMeteringPoints(inst(), &points), R::Success);
    EXPECT_EQ(points->points[point]->count, 1u);
    return points->points[point]->data;
  }
};

QorGatingCompressorParameters gateOnly(QorGatingCompressorParameters p = defaults()) {
  p.compressorEnable = 0;
  return p;
}
QorGatingCompressorParameters compressorOnly(QorGatingCompressorParameters p = defaults()) {
  p.gateEnable = 0;
  return p;
}

// The crest tone with segment levels in dB.
std::vector<float> crestTone(std::vector<std::pair<double, int>> segments) {
  for (auto& s : segments) s.first = std::pow(10.0, s.first / 20.0);
  return qor::test::crestTone(segments);
}

// Gain applied at the start of every output sub-block, given the delay.
std::vector<double> appliedGains(const std::vector<float>& x, const std::vector<float>& y, int delay) {
  std::vector<double> g;
  for (size_t j = static_cast<size_t>(delay); j + 32 <= y.size(); j += 32) {
    g.push_back(std::fabs(y[j]) / std::fabs(x[j - delay]));
  }
  return g;
}

double settledGainDb(Dynamics& d, double levelDb) {
  // Five seconds: twenty of the slowest (250 ms) time constants, then measure
  // the last second.
  const std::vector<float> x = crestTone({{levelDb, 7500}});
  const std::vector<float> y = d.run(x);
  const size_t from = x.size() * 4 / 5;
  return qor::test::toDb(qor::test::toneAmplitude(y, 750.0, 48000.0, from) /
                         qor::test::toneAmplitude(x, 750.0, 48000.0, from - 256, x.size() - 256));
}

struct GateCase {
  double threshold, floor, level, expectedDb;
};
class GatingCompressorGate : public ::testing::TestWithParam<GateCase> {};

TEST_P(GatingCompressorGate, SteadyToneSettlesAtTheExpanderGain) {
  const GateCase c = GetParam();
  QorGatingCompressorParameters p = gateOnly();
  p.gateThreshold = static_cast<float>(c.threshold);
  p.gateFloor = static_cast<float>(c.floor);
  Dynamics d(p);
  EXPECT_NEAR(settledGainDb(d, c.level), c.expectedDb, 0.05);
  EXPECT_NEAR(d.reading(0)[0], c.expectedDb, 0.05) << "the gate point reads the applied gain";
}

INSTANTIATE_TEST_SUITE_P(
    LevelsAroundTheThreshold, GatingCompressorGate,
    ::testing::Values(GateCase{-48, -48, -60, -48},       // 12 dB under: 228 dB of expansion, floored
                      GateCase{-48, -48, -49, -19},       // 1 dB under: ratio 20
                      GateCase{-48, -48, -50.5, -47.5},   // just above the floor
                      GateCase{-48, -48, -48, 0},         // at and above the threshold: open
                      GateCase{-48, -48, -20, 0},
                      GateCase{-30, -60, -32, -38},       // deeper floor
                      GateCase{-30, -60, -40, -60},
                      GateCase{-30, 0, -70, 0}));         // a floor of 0 dB never gates

struct CompressorCase {
  double threshold, ratio, inputGain, makeup, level, expectedDb;
};
class GatingCompressorCompressor : public ::testing::TestWithParam<CompressorCase> {};

TEST_P(GatingCompressorCompressor, SteadyToneSettlesAtTheStaticCurve) {
  const CompressorCase c = GetParam();
  QorGatingCompressorParameters p = compressorOnly();
  p.compressorThreshold = static_cast<float>(c.threshold);
  p.compressorRatio = static_cast<float>(c.ratio);
  p.compressorInputGain = static_cast<float>(c.inputGain);
  p.compressorMakeupGain = static_cast<float>(c.makeup);
  Dynamics d(p);
  EXPECT_NEAR(settledGainDb(d, c.level), c.expectedDb, 0.05);
  EXPECT_NEAR(d.reading(1)[0], c.expectedDb - c.inputGain - c.makeup, 0.05)
      << "the compressor point reads the gain reduction alone";
  EXPECT_NEAR(d.reading(1)[1], c.expectedDb - c.inputGain - c.makeup, 0.05);
}

// Expected: min(threshold - (level + in), 0) * (1 - 1/ratio) + in + makeup,
// lowered so that the output stays under +24 dB.
INSTANTIATE_TEST_SUITE_P(
    StaticCurve, GatingCompressorCompressor,
    ::testing::Values(CompressorCase{-20, 4, 0, 0, -8, -9},
                      CompressorCase{-20, 4, 0, 0, -30, 0},     // below threshold
                      CompressorCase{-20, 2, 0, 0, -4, -8},
                      CompressorCase{-40, 20, 0, 0, -10, -28.5},
                      CompressorCase{-20, 1, 0, 0, -3, 0},      // ratio 1 never compresses
                      CompressorCase{-20, 4, 6, 3, -14, 0},     // (-20 - -8) * .75 + 9
                      CompressorCase{-20, 4, -6, 12, -8, 1.5},  // (-20 - -14) * .75 + 6
                      CompressorCase{0, 1, 0, 12, 18.0617997, 5.9382003}));  // ceiling

// Gate model in double precision: the same level detector primitive, then
// the expander, hold and the two followers written out directly.
std::vector<double> modelGate(const std::vector<float>& x, const QorGatingCompressorParameters& p) {
  const double rs = 1500.0;
  auto tc = [&](double ms) { return ms > 0 ? 1.0 - std::exp(-1.0 / (rs * ms / 1000.0)) : 1.0; };
  const double open1 = tc(p.gateAttack), close1 = tc(std::max(p.gateRelease * 0.05, 5.0));
  const double open2 = tc(std::max(p.gateAttack * 20.0, 5.0)), close2 = tc(p.gateRelease);
  const int hold = static_cast<int>(p.gateHold * 0.001 * 48000.0 / 32.0);
  qor::PeakHistory history{};
  qor::peakHistorySetup(history, 48000, 32, 20);
  double held = 1, y1 = 1, y2 = 1;
  int counter = 0;
  std::vector<double> t;
  for (size_t start = 0; start + 32 <= x.size(); start += 32) {
    const float* ch = x.data();
    const double peak = qor::peakHistoryUpdate(history, &ch, static_cast<uint32_t>(start), 32, 1);
    const double level = std::max(20.0 * std::log10(std::max(peak, 1e-300)), -120.0);
    const double gainDb = level < p.gateThreshold ? std::max(19.0 * (level - p.gateThreshold),
                                                             static_cast<double>(p.gateFloor))
                                                  : 0.0;
    double g = std::pow(10.0, gainDb / 20.0);
    if (g > held) {
      held = g, counter = 0;
    } else if (counter < hold) {
      g = held, ++counter;
    } else {
      held = g, counter = 0;
    }
    y1 += (g > y1 ? open1 : close1) * (g - y1);
    y2 += (g > y2 ? open2 : close2) * (g - y2);
    t.push_back(std::max(y1, y2));
  }
  return t;
}

void expectGainsFollowTheModel(const std::vector<double>& measured, const std::vector<double>& model) {
  // measured[i] is read at the start of absolute sub-block i + 4, whose ramp
  // starts from the gain reached after sub-block i + 3.
  ASSERT_GT(measured.size(), model.size() / 2);
  for (size_t i = 0; i < measured.size() && i + 3 < model.size(); ++i) {
    ASSERT_NEAR(qor::test::toDb(measured[i]), qor::test::toDb(model[i + 3]), 0.02) << "sub-block " << i;
  }
}

class GatingCompressorGateTiming : public ::testing::TestWithParam<std::array<float, 3>> {};

TEST_P(GatingCompressorGateTiming, OpensHoldsAndClosesAsTheFollowersPredict) {
  QorGatingCompressorParameters p = gateOnly();
  p.gateAttack = GetParam()[0];
  p.gateRelease = GetParam()[1];
  p.gateHold = GetParam()[2];
  // Quiet, a loud phrase, quiet again, a phrase just under the threshold.
  const std::vector<float> x =
      crestTone({{-62, 1500}, {-20, 600}, {-60, 1200}, {-12, 40}, {-49, 900}, {-30, 300}});
  Dynamics d(p);
  const std::vector<float> y = d.run(x);
  expectGainsFollowTheModel(appliedGains(x, y, 128), modelGate(x, p));
}

INSTANTIATE_TEST_SUITE_P(AttackReleaseHold, GatingCompressorGateTiming,
                         ::testing::Values(std::array<float, 3>{5, 250, 5}, std::array<float, 3>{0, 50, 0},
                                           std::array<float, 3>{50, 1000, 200},
                                           std::array<float, 3>{200, 120, 30}));

std::vector<double> modelCompressor(const std::vector<float>& x, const QorGatingCompressorParameters& p) {
  const double rs = 1500.0;
  auto tc = [&](double ms) { return ms > 0 ? 1.0 - std::exp(-1.0 / (rs * ms / 1000.0)) : 1.0; };
  const double a1 = tc(p.compressorAttack), r1 = tc(std::max(p.compressorRelease * 0.2, 5.0));
  const double a2 = tc(std::max(p.compressorAttack * 5.0, 5.0)), r2 = tc(p.compressorRelease);
  const double slope = 1.0 - 1.0 / p.compressorRatio;
  qor::PeakHistory history{};
  qor::peakHistorySetup(history, 48000, 32, 20);
  double y1 = 1, y2 = 1;
  std::vector<double> t;
  for (size_t start = 0; start + 32 <= x.size(); start += 32) {
    const float* ch = x.data();
    const double peak = qor::peakHistoryUpdate(history, &ch, static_cast<uint32_t>(start), 32, 1);
    const double level = 20.0 * std::log10(std::max(peak, 1e-300)) + p.compressorInputGain;
    double g = std::min(p.compressorThreshold - level, 0.0) * slope + p.compressorInputGain +
               p.compressorMakeupGain;
    g = std::max(g - std::max(g + level - 24.0, 0.0), -100.0);
    const double target = std::pow(10.0, g / 20.0);
    y1 += (y1 > target ? a1 : r1) * (target - y1);
    y2 += (y2 > y1 ? a2 : r2) * (y1 - y2);
    t.push_back(std::min(y1, y2));
  }
  return t;
}

TEST(GatingCompressorCompressorTiming, AttackAndReleaseFollowTheTwoFollowersInSeries) {
  for (auto [attack, release] : {std::pair{5.0f, 250.0f}, std::pair{0.0f, 50.0f}, std::pair{80.0f, 900.0f}}) {
    QorGatingCompressorParameters p = compressorOnly();
    p.compressorThreshold = -30;
    p.compressorRatio = 6;
    p.compressorMakeupGain = 4;
    p.compressorAttack = attack;
    p.compressorRelease = release;
    const std::vector<float> x = crestTone({{-40, 600}, {-6, 600}, {-36, 1800}, {-10, 100}, {-20, 400}});
    Dynamics d(p);
    SCOPED_TRACE(attack);
    expectGainsFollowTheModel(appliedGains(x, d.run(x), 128), modelCompressor(x, p));
  }
}

TEST(GatingCompressorLatency, ReportIsFixedWhileTheRealDelayVariesAndMeteringIsOptional) {
  // The report is a fixed figure: the real delay depends on the rate and on
  // which sections run.
  const std::vector<float> x = qor::test::whiteNoise(256 * 188, 21, 0.1);
  Dynamics gate(gateOnly());
  EXPECT_EQ(qor::test::delayByCrossCorrelation(x, gate.run(x), 1024), 128);
  EXPECT_EQ(gate.latency(), 256);
  Dynamics fast(defaults(), 96000);
  EXPECT_EQ(qor::test::delayByCrossCorrelation(x, fast.run(x), 1024), 512);
  EXPECT_EQ(fast.latency(), 256);
  Dynamics unmetered(defaults(), 48000, 256, 1, 0);
  const QorGatingCompressorMeteringPoints* points = nullptr;
  EXPECT_EQ(qorGatingCompressorGetMeteringPoints(unmetered.inst(), &points), R::ErrorMeteringDisabled);
  EXPECT_EQ(points, nullptr) << "no metering unless configured";
}

TEST(GatingCompressorOddBlock, BlocksOffTheSubBlockGridPassButTheMixStillFades) {
  QorGatingCompressorParameters p = defaults();
  p.compressorThreshold = -30;
  Dynamics d(p, 48000, 130);
  const std::vector<float> x = qor::test::whiteNoise(130 * 10, 4, 0.5);
  EXPECT_EQ(d.run(x), x);
  p.enable = 0;
  d.update(p);
  const std::vector<float> one(x.begin(), x.begin() + 130);
  int blocks = 0;
  while (d.latency() != 0 && blocks < 100) {
    const std::vector<float> y = d.run(one);
    for (size_t i = 0; i < one.size(); ++i) ASSERT_NEAR(y[i], one[i], 1e-6f);
    ++blocks;
  }
  EXPECT_NEAR(blocks * 130, 2400 + 65, 130) << "the mixes reach 0 after about 50 ms";
}

class GatingCompressorBypass : public ::testing::Test {
 protected:
  // Loud enough to be compressed, so processed and dry differ.
  std::vector<float> x = crestTone({{-3, 2000}});
  QorGatingCompressorParameters squeeze() {
    QorGatingCompressorParameters p = defaults();
    p.compressorThreshold = -30;
    p.compressorRatio = 10;
    return p;
  }
};

TEST_F(GatingCompressorBypass, DisablingFadesToTheDrySignalAndClearsTheState) {
  Dynamics d(squeeze());
  const std::vector<float> first(x.begin(), x.begin() + 256 * 100);
  d.run(first);
  QorGatingCompressorParameters off = squeeze();
  off.enable = 0;
  d.update(off);
  const double keep = std::pow(1e-5, 1.0 / 2400.0);
  double mix = 1.0;
  int block = 100;
  for (; block < 130; ++block) {
    const std::vector<float> in(x.begin() + 256 * block, x.begin() + 256 * (block + 1));
    EXPECT_EQ(d.latency(), mix == 0.0 ? 0 : 256);
    const std::vector<float> out = d.run(in);
    if (mix == 0.0) {
      EXPECT_EQ(out, in) << "untouched once the fade is over";
      EXPECT_EQ(d.latency(), 0);
      break;
    }
    // The tone repeats every 64 samples, so the delayed, compressed copy is in
    // phase with the dry one and the crossfade shows as a plain gain.
    const double m = mix * std::pow(keep, 224);
    const double compressed = std::pow(10.0, -27.0 * 0.9 / 20.0);
    EXPECT_NEAR(out[224] / in[224], (1.0 - m) + m * compressed, 0.003) << "block " << block;
    mix *= std::pow(keep, 256);
    if (mix < 1e-5) mix = 0.0;
  }
  EXPECT_LT(block, 130);
  EXPECT_NEAR(d.reading(0)[0], -758.6, 0.1) << "readings fall to the floor while disabled";
  EXPECT_NEAR(d.reading(1)[0], -758.6, 0.1);

  // Re-enabled, it behaves as an instance that never ran.
  QorGatingCompressorParameters on = squeeze();
  QorGatingCompressorParameters offAtInit = squeeze();
  offAtInit.enable = 0;
  Dynamics fresh(offAtInit);
  d.update(on);
  fresh.update(on);
  const std::vector<float> rest(x.begin() + 256 * 130, x.end());
  EXPECT_EQ(d.run(rest), fresh.run(rest));
}

TEST_F(GatingCompressorBypass, GateSwitchedOffKeepsItsLastReadingWhileTheStageIsOn) {
  QorGatingCompressorParameters p = defaults();
  Dynamics d(p);
  d.run(crestTone({{-55, 6000}}));
  const float closed = d.reading(0)[0];
  EXPECT_NEAR(closed, -48.0, 0.1);
  p.gateEnable = 0;
  d.update(p);
  d.run(crestTone({{-55, 1000}}));
  EXPECT_EQ(d.latency(), 256) << "the compressor still runs";
  EXPECT_NEAR(d.reading(0)[0], 0.0, 1e-6) << "the completed fade reset the gate to unity";
  d.run(crestTone({{-20, 1000}}));
  EXPECT_NEAR(d.reading(0)[0], 0.0, 1e-6) << "and it stays there while the gate is off";
}

TEST(GatingCompressorState, StereoChannelsShareOneGain) {
  QorGatingCompressorParameters p = defaults();
  p.compressorThreshold = -30;
  Dynamics d(p, 48000, 256, 2);
  const std::vector<float> loud = crestTone({{-6, 600}}), quiet = crestTone({{-40, 600}});
  const Signal y = d.run(Signal{loud, quiet});
  for (size_t i = 256 * 20; i < loud.size(); i += 97) {
    ASSERT_NEAR(y[0][i] / loud[i - 256], y[1][i] / quiet[i - 256], 1e-4) << i;
  }
}

}  // namespace
