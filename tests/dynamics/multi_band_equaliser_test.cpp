// The multi-band equaliser measured with sines against closed-form responses.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <tuple>
#include <vector>

#include "block_runner.h"
#include "dsp/dynamics/multi_band_equaliser.h"

namespace {

using R = QorMultiBandEqualiserResult;
using P = QorMultiBandEqualiserParameters;
using namespace qor::test;

// Cookbook peaking EQ in double precision, |H| in dB at f.
double peakingDb(double f0, double gainDb, double q, double f) {
  const double w = 2.0 * kPi * f0 / 48000.0, a = std::pow(10.0, gainDb / 40.0);
  const double alpha = std::sin(w) / (2.0 * q), c = -2.0 * std::cos(w);
  const std::complex<double> z = std::polar(1.0, -2.0 * kPi * f / 48000.0);
  return toDb(std::abs((1.0 + alpha * a + z * (c + z * (1.0 - alpha * a))) /
                       (1.0 + alpha / a + z * (c + z * (1.0 - alpha / a)))));
}

// Bilinear Butterworth: |H|^2 = 1 / (1 + (prewarped frequency ratio)^(2N)).
double butterworthDb(double fc, int order, bool highPass, double f) {
  const double r = std::tan(kPi * f / 48000.0) / std::tan(kPi * fc / 48000.0);
  return -10.0 * std::log10(1.0 + std::pow(highPass ? 1.0 / r : r, 2.0 * order));
}

struct Calls {
  QOR_FAMILY_CALLS(MultiBandEqualiser)
};
struct Equaliser : Instance<Calls> {
  explicit Equaliser(const P& p = defaultParameters<Calls>(), uint32_t channels = 1, uint32_t block = 256)
      : Instance(p, 48000, block, channels) {}
  // Steady-state gain of a sine at f: settle 0.5 s, measure 0.25 s.
  double gainDb(double f) {
    const std::vector<float> in = sine(f, 48000.0, 36096, 0.25);
    return toneGainDb(in, run(in), f, 24000);
  }
};
P defaults() { return defaultParameters<Calls>(); }

TEST(MultiBandEqualiser, FlatIsTransparentAndChannelsAreIndependent) {
  const Signal in{whiteNoise(8192, 11, 0.5), whiteNoise(8192, 12, 0.5)};
  // Flat, the bands are identities and the stage does not compute them.
  Signal out = Equaliser(defaults(), 2).run(in);
  EXPECT_EQ(out, in);

  P p = defaults();
  p.band1Gain = 8.0f, p.band2Gain = -7.0f, p.highPassOrder = 2, p.lowPassOrder = 1;
  const Signal three{in[0], in[1], whiteNoise(8192, 13, 0.5)};
  out = Equaliser(p, 3).run(three);
  for (size_t c = 1; c < 3; ++c) EXPECT_EQ(Equaliser(p, 1, 128).run(three[c]), out[c]) << "channel " << c;

  // Pairs leave out switched-off pass sections once their state has run
  // down; a lone channel always runs them. Both must keep agreeing after
  // the sections are switched off mid-stream.
  Equaliser pair(p, 2), single(p);
  std::vector<float> pairOut = pair.run(in)[1], singleOut = single.run(in[1]);
  pair.update(defaults());
  single.update(defaults());
  const std::vector<float> more = pair.run(in)[1], moreSingle = single.run(in[1]);
  pairOut.insert(pairOut.end(), more.begin(), more.end());
  singleOut.insert(singleOut.end(), moreSingle.begin(), moreSingle.end());
  EXPECT_EQ(pairOut, singleOut);
}

// A band switched on after a flat stretch continues from the history the
// flat stage left, as after a stage that computed its bands all along (a
// hair off flat); a cleared history would show as a transient.
TEST(MultiBandEqualiser, ABandSwitchedOnAfterAFlatStretchStartsWithoutAStep) {
  const std::vector<float> x = sine(80.0, 48000.0, 8192, 0.5),
                           y = sine(80.0, 48000.0, 8192, 0.5, 2.0 * kPi * 80.0 * 8192 / 48000.0);
  P hair = defaults(), boost = defaults();
  hair.band1Gain = 0.001f;
  boost.band1Gain = 8.0f;
  Equaliser flat, computed(hair);
  EXPECT_EQ(flat.run(x), x);
  computed.run(x);
  flat.update(boost);
  computed.update(boost);
  const std::vector<float> a = flat.run(y), b = computed.run(y);
  for (size_t i = 0; i < a.size(); ++i) ASSERT_NEAR(a[i], b[i], 1e-3) << i;
}

TEST(MultiBandEqualiser, GainAtAndAroundEachBandCentreMatchesThePeakingResponse) {
  for (auto [band, f0, gain, q] : {std::tuple{0, 120.0f, 9.0f, 1.0f}, std::tuple{0, 300.0f, -12.0f, 4.0f},
                                   std::tuple{1, 1000.0f, 6.0f, 0.7f}, std::tuple{1, 3000.0f, -6.0f, 10.0f},
                                   std::tuple{2, 6000.0f, 12.0f, 2.0f}, std::tuple{2, 10000.0f, -9.0f, 0.5f}}) {
    P p = defaults();
    float* fields[3][3] = {{&p.band1Frequency, &p.band1Gain, &p.band1Q},
                           {&p.band2Frequency, &p.band2Gain, &p.band2Q},
                           {&p.band3Frequency, &p.band3Gain, &p.band3Q}};
    *fields[band][0] = f0, *fields[band][1] = gain, *fields[band][2] = q;
    Equaliser eq(p);
    for (const double ratio : {1.0, 0.5, 0.8, 1.25, 2.0}) {
      EXPECT_NEAR(eq.gainDb(f0 * ratio), peakingDb(f0, gain, q, f0 * ratio), 0.03) << f0 * ratio << " Hz";
    }
  }
}

TEST(MultiBandEqualiser, HighAndLowPassSectionsAreButterworth) {
  for (const int order : {1, 2}) {
    P p = defaults();
    p.highPassOrder = p.lowPassOrder = order;
    p.highPassFrequency = 200.0f, p.lowPassFrequency = 6000.0f;
    Equaliser eq(p);
    for (const double f : {60.0, 200.0, 1500.0, 6000.0, 12000.0}) {
      EXPECT_NEAR(eq.gainDb(f), butterworthDb(200.0, order, true, f) + butterworthDb(6000.0, order, false, f), 0.03)
          << "order " << order << " at " << f;
    }
    p.highPassOrder = 0;  // switches the section off
    eq.update(p);
    EXPECT_NEAR(eq.gainDb(60.0), butterworthDb(6000.0, order, false, 60.0), 0.03);
  }
}

TEST(MultiBandEqualiser, CutoffGlidesOneStepPerUpdateOnceTheStageHasRun) {
  P p = defaults();
  p.lowPassOrder = 2;
  Equaliser eq(p), fresh;
  const double k = 1.0 - std::exp(-1.0 / (187.0 * 0.010));  // 10 ms at 187 blocks/s
  const auto expectCutoff = [](Equaliser& e, double fc) {
    EXPECT_NEAR(e.gainDb(9000.0), butterworthDb(fc, 2, false, 9000.0), 0.03) << fc;
  };
  expectCutoff(eq, 12000.0);
  p.lowPassFrequency = 4000.0f;
  eq.update(p);
  expectCutoff(eq, 12000.0 - k * 8000.0);
  expectCutoff(eq, 12000.0 - k * 8000.0);  // Process alone does not move it
  for (int i = 0; i < 5; ++i) eq.update(p);
  expectCutoff(eq, 4000.0 + 8000.0 * std::pow(1.0 - k, 6));
  for (int i = 0; i < 200; ++i) eq.update(p);
  expectCutoff(eq, 4000.0);

  // Before the first Process, and again after Flush, a change lands at once.
  fresh.update(p);
  expectCutoff(fresh, 4000.0);
  ASSERT_EQ(qorMultiBandEqualiserFlush(fresh.inst()), R::Success);
  p.lowPassFrequency = 6000.0f;
  fresh.update(p);
  expectCutoff(fresh, 6000.0);
}

}  // namespace
