// The multi-band equaliser measured with sines against closed-form responses.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <numbers>
#include <vector>

#include "block_runner.h"
#include "dsp/dynamics/multi_band_equaliser.h"
#include "support/signals.h"

namespace {

using R = QorMultiBandEqualiserResult;
using P = QorMultiBandEqualiserParameters;
using qor::test::Signal;
using qor::test::toDb;

constexpr double kPi = std::numbers::pi;
constexpr double kRate = 48000.0;

// Cookbook peaking EQ in double precision, |H| in dB at f.
double peakingDb(double f0, double gainDb, double q, double f) {
  const double w = 2.0 * kPi * f0 / kRate, a = std::pow(10.0, gainDb / 40.0);
  const double alpha = std::sin(w) / (2.0 * q), c = -2.0 * std::cos(w);
  const std::complex<double> z = std::polar(1.0, -2.0 * kPi * f / kRate);
  return toDb(std::abs((1.0 + alpha * a + z * (c + z * (1.0 - alpha * a))) /
                       (1.0 + alpha / a + z * (c + z * (1.0 - alpha / a)))));
}

// Bilinear Butterworth: |H|^2 = 1 / (1 + (prewarped frequency ratio)^(2N)).
double butterworthDb(double fc, int order, bool highPass, double f) {
  const double r = std::tan(kPi * f / kRate) / std::tan(kPi * fc / kRate);
  return -10.0 * std::log10(1.0 + std::pow(highPass ? 1.0 / r : r, 2.0 * order));
}

struct Calls {
  QOR_FAMILY_CALLS(MultiBandEqualiser)
};
using Config = Calls::Config;

class MultiBandEqualiserTest : public ::testing::Test {
 protected:
  static P defaults() { return qor::test::defaultParameters<Calls>(); }
  QorMultiBandEqualiserInst* make(const P& p, uint32_t channels = 1, uint32_t block = 256) {
    made.push_back(std::make_unique<qor::test::Instance<Calls>>(
        Config{48000, block, channels, 48000, block, channels, p}));
    config = made.back()->config;
    return made.back()->inst();
  }
  Signal run(QorMultiBandEqualiserInst* inst, const Signal& in) {
    return qor::test::runBlocks([&](float** ch) { return qorMultiBandEqualiserProcess(inst, ch); }, in,
                                config.inputBlockSize);
  }
  // Steady-state gain of a sine at f: settle 0.5 s, measure 0.25 s.
  double gainDb(QorMultiBandEqualiserInst* inst, double f) {
    const Signal in{qor::test::sine(f, kRate, 36096, 0.25)};
    const Signal out = run(inst, in);
    return toDb(qor::test::toneAmplitude(out[0], f, kRate, 24000) /
                qor::test::toneAmplitude(in[0], f, kRate, 24000));
  }
  void update(QorMultiBandEqualiserInst* inst, P p) {
    EXPECT_EQ(qorMultiBandEqualiserUpdateParameters(inst, &p), R::Success);
  }

  Config config{};
  std::vector<std::unique_ptr<qor::test::Instance<Calls>>> made;
};

TEST_F(MultiBandEqualiserTest, FlatIsTransparentAndChannelsAreIndependent) {
  const Signal in{qor::test::whiteNoise(8192, 11, 0.5), qor::test::whiteNoise(8192, 12, 0.5)};
  Signal out = run(make(defaults(), 2), in);
  // Single-precision sections with poles near DC leave only rounding noise.
  std::vector<float> error(in[1].size());
  for (size_t i = 0; i < error.size(); ++i) error[i] = out[1][i] - in[1][i];
  EXPECT_LT(toDb(qor::test::rms(error) / qor::test::rms(in[1])), -75.0);

  P p = defaults();
  p.band1Gain = 8.0f;
  p.band2Gain = -7.0f;
  p.highPassOrder = 2;
  p.lowPassOrder = 1;
  const Signal three{in[0], in[1], qor::test::whiteNoise(8192, 13, 0.5)};
  out = run(make(p, 3, 256), three);
  for (size_t c = 1; c < 3; ++c) {
    EXPECT_EQ(run(make(p, 1, 128), Signal{three[c]})[0], out[c]) << "channel " << c;
  }
  EXPECT_EQ(defaults().crossfadeTime, 50.5f);

  // Pairs leave out switched-off pass sections once their state has run
  // down; a lone channel always runs them. Both must keep agreeing after
  // the sections are switched off mid-stream.
  QorMultiBandEqualiserInst* pair = make(p, 2, 256);
  QorMultiBandEqualiserInst* single = make(p, 1, 256);
  Signal pairOut = run(pair, in);
  Signal singleOut = run(single, Signal{in[1]});
  update(pair, defaults());
  update(single, defaults());
  const Signal more = run(pair, in), moreSingle = run(single, Signal{in[1]});
  pairOut[1].insert(pairOut[1].end(), more[1].begin(), more[1].end());
  singleOut[0].insert(singleOut[0].end(), moreSingle[0].begin(), moreSingle[0].end());
  EXPECT_EQ(pairOut[1], singleOut[0]);
}

struct BandCase {
  int band;
  float frequency, gain, q;
};
class MultiBandEqualiserBandTest : public MultiBandEqualiserTest,
                                   public ::testing::WithParamInterface<BandCase> {};

TEST_P(MultiBandEqualiserBandTest, GainAtAndAroundCentreMatchesPeakingResponse) {
  const BandCase b = GetParam();
  P p = defaults();
  float* fields[3][3] = {{&p.band1Frequency, &p.band1Gain, &p.band1Q},
                         {&p.band2Frequency, &p.band2Gain, &p.band2Q},
                         {&p.band3Frequency, &p.band3Gain, &p.band3Q}};
  *fields[b.band - 1][0] = b.frequency;
  *fields[b.band - 1][1] = b.gain;
  *fields[b.band - 1][2] = b.q;
  auto* inst = make(p);
  for (const double ratio : {1.0, 0.5, 0.8, 1.25, 2.0}) {
    const double f = b.frequency * ratio;
    EXPECT_NEAR(gainDb(inst, f), peakingDb(b.frequency, b.gain, b.q, f), 0.03) << f << " Hz";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Bands, MultiBandEqualiserBandTest,
    ::testing::Values(BandCase{1, 120.0f, 9.0f, 1.0f}, BandCase{1, 300.0f, -12.0f, 4.0f},
                      BandCase{2, 1000.0f, 6.0f, 0.7f}, BandCase{2, 3000.0f, -6.0f, 10.0f},
                      BandCase{3, 6000.0f, 12.0f, 2.0f}, BandCase{3, 10000.0f, -9.0f, 0.5f}));

TEST_F(MultiBandEqualiserTest, HighAndLowPassSectionsAreButterworth) {
  for (const int order : {1, 2}) {
    P p = defaults();
    p.highPassOrder = p.lowPassOrder = order;
    p.highPassFrequency = 200.0f;
    p.lowPassFrequency = 6000.0f;
    auto* inst = make(p);
    for (const double f : {60.0, 200.0, 1500.0, 6000.0, 12000.0}) {
      EXPECT_NEAR(gainDb(inst, f),
                  butterworthDb(200.0, order, true, f) + butterworthDb(6000.0, order, false, f), 0.03)
          << "order " << order << " at " << f;
    }
    p.highPassOrder = 0;  // switches the section off
    update(inst, p);
    EXPECT_NEAR(gainDb(inst, 60.0), butterworthDb(6000.0, order, false, 60.0), 0.03);
  }
}

TEST_F(MultiBandEqualiserTest, CutoffGlidesOneStepPerUpdateOnceTheStageHasRun) {
  P p = defaults();
  p.lowPassOrder = 2;
  auto* inst = make(p);
  const double k = 1.0 - std::exp(-1.0 / (187.0 * 0.010));  // 10 ms at 187 blocks/s
  const double probe = 9000.0;
  const auto expectCutoff = [&](QorMultiBandEqualiserInst* i, double fc) {
    EXPECT_NEAR(gainDb(i, probe), butterworthDb(fc, 2, false, probe), 0.03) << fc;
  };
  expectCutoff(inst, 12000.0);
  p.lowPassFrequency = 4000.0f;
  update(inst, p);
  expectCutoff(inst, 12000.0 - k * 8000.0);
  expectCutoff(inst, 12000.0 - k * 8000.0);  // Process alone does not move it
  for (int i = 0; i < 5; ++i) update(inst, p);
  expectCutoff(inst, 4000.0 + 8000.0 * std::pow(1.0 - k, 6));
  for (int i = 0; i < 200; ++i) update(inst, p);
  expectCutoff(inst, 4000.0);

  // Before the first Process, and again after Flush, a change lands at once.
  auto* fresh = make(defaults());
  update(fresh, p);
  expectCutoff(fresh, 4000.0);
  ASSERT_EQ(qorMultiBandEqualiserFlush(fresh), R::Success);
  p.lowPassFrequency = 6000.0f;
  update(fresh, p);
  expectCutoff(fresh, 6000.0);
}

TEST_F(MultiBandEqualiserTest, BypassCrossfadesToDryAndResetsTheFilters) {
  P p = defaults();
  p.band2Gain = 12.0f;
  p.highPassOrder = 2;
  p.crossfadeTime = 10.0f;
  auto* inst = make(p);
  auto* wetOnly = make(p);
  const Signal in{qor::test::whiteNoise(256 * 12, 31, 0.5)};
  const Signal head{std::vector<float>(in[0].begin(), in[0].end() - 256)};
  const Signal block{std::vector<float>(in[0].end() - 256, in[0].end())};
  run(inst, head);
  run(wetOnly, head);
  P off = p;
  off.enable = 0;
  update(inst, off);
  const Signal faded = run(inst, block), wet = run(wetOnly, block);
  const double c = 1.0 - std::pow(1e-5, 1.0 / (0.010 * kRate));  // -100 dB settle
  double m = 1.0;
  for (size_t i = 0; i < 256; ++i, m *= 1.0 - c) {
    ASSERT_NEAR(faded[0][i], (1.0 - m) * block[0][i] + m * wet[0][i], 1e-5) << i;
  }
  run(inst, head);
  EXPECT_EQ(run(inst, block), block) << "at rest the block passes untouched";

  // Switched back on it matches a fresh instance switched on from bypass:
  // reaching dry cleared the filter history.
  update(inst, p);
  auto* fresh = make(off);
  update(fresh, p);
  EXPECT_EQ(run(inst, in), run(fresh, in));
}

}  // namespace
