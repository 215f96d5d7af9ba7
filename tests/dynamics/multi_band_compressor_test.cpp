// The multi-band compressor (two-band dynamic EQ) measured on steady tones.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <tuple>
#include <vector>

#include "block_runner.h"
#include "dsp/dynamics/multi_band_compressor.h"

namespace {

using namespace QorMultiBandCompressor_API_V1;
using R = QorMultiBandCompressorResult;
using P = QorMultiBandCompressorParameters;
using namespace qor::test;

constexpr double kRate = 48000.0;
constexpr float kSilentDb = -758.6f;

// Cookbook biquad (b0, b1, b2) / (a0, a1, a2) with cos(w0) coefficient c at f.
std::complex<double> biquad(double b0, double b1, double b2, double a0, double a1, double a2, double f) {
  const std::complex<double> z = std::polar(1.0, -2.0 * kPi * f / kRate);
  return (b0 + z * (b1 + z * b2)) / (a0 + z * (a1 + z * a2));
}
// All-pass (the band gain is applied through it) and 0 dB-peak band-pass.
std::complex<double> allPass(double f0, double q, double f) {
  const double w = 2.0 * kPi * f0 / kRate, alpha = std::sin(w) / (2.0 * q), c = -2.0 * std::cos(w);
  return biquad(1.0 - alpha, c, 1.0 + alpha, 1.0 + alpha, c, 1.0 - alpha, f);
}
double bandPassDb(double f0, double q, double f) {
  const double w = 2.0 * kPi * f0 / kRate, alpha = std::sin(w) / (2.0 * q), c = -2.0 * std::cos(w);
  return toDb(std::abs(biquad(alpha, 0.0, -alpha, 1.0 + alpha, c, 1.0 - alpha, f)));
}

struct Calls {
  QOR_METERED_CALLS(MultiBandCompressor)
};
struct Compressor : Instance<Calls> {
  using Instance::Instance;
  float lowGainDb() { return reading(0)[0]; }
  float highGainDb() { return reading(1)[0]; }
  const float* curve() { return reading(2); }
};
P defaults() { return defaultParameters<Calls>(); }

// A steady tone at a band's centre: the band-pass passes it at 0 dB, the
// curve gives min(threshold - level, 0) (1 - 1/ratio) above the floor, and
// at the centre the all-pass mix scales the tone by exactly that gain.
// {high band?, threshold, level over it, ratio, floor, gain}: the fifth is
// held at the floor, the last is below the threshold.
TEST(MultiBandCompressor, SteadyToneAtCentreIsReducedByTheCurve) {
  for (auto [high, threshold, overDb, ratio, floor, expectedDb] :
       {std::tuple{false, -20.0f, 10.0f, 4.0f, -20.0f, -7.5}, std::tuple{false, -30.0f, 12.0f, 2.0f, -20.0f, -6.0},
        std::tuple{true, -20.0f, 10.0f, 4.0f, -20.0f, -7.5}, std::tuple{true, -35.0f, 8.0f, 10.0f, -60.0f, -7.2},
        std::tuple{false, -40.0f, 40.0f, 4.0f, -6.0f, -6.0}, std::tuple{true, -20.0f, -6.0f, 4.0f, -20.0f, 0.0}}) {
    P p = defaults();
    p.ratio = ratio;
    (high ? p.highThreshold : p.lowThreshold) = threshold;
    (high ? p.highGainFloor : p.lowGainFloor) = floor;
    const double f = high ? p.highCrossoverFrequency : p.lowCrossoverFrequency;
    Compressor c(p);
    const std::vector<float> in = sine(f, kRate, 48128, std::pow(10.0, (threshold + overDb) / 20.0));
    const std::vector<float> out = c.run(in);
    EXPECT_NEAR(high ? c.highGainDb() : c.lowGainDb(), expectedDb, 0.05) << threshold;
    EXPECT_NEAR(high ? c.lowGainDb() : c.highGainDb(), 0.0, 0.01) << "the other band stays at unity";
    EXPECT_NEAR(toneGainDb(in, out, f, 36000), expectedDb, 0.1) << threshold;
  }
}

TEST(MultiBandCompressor, GainShapesOnlyTheBandAroundItsCentreOnBothChannels) {
  // A loud tone at the low centre on the left sets the gain; quiet probes
  // see 0.5 (1 + g) + 0.5 (1 - g) AP(f). The right channel carries only a
  // quiet centre tone and gets the same gain: one detector per band.
  Compressor c(defaults(), 48000, 256, 2);
  const double probes[] = {60.0, 200.0, 400.0, 1000.0};
  Signal in{sine(120.0, kRate, 96000, 0.5), sine(120.0, kRate, 96000, 0.01)};
  for (size_t k = 0; k < std::size(probes); ++k) {
    const std::vector<float> probe = sine(probes[k], kRate, 96000, 0.003, k);
    for (size_t i = 0; i < probe.size(); ++i) in[0][i] += probe[i];
  }
  const Signal out = c.run(in);
  const double g = std::pow(10.0, c.lowGainDb() / 20.0);
  EXPECT_NEAR(c.lowGainDb(), (-20.0 - toDb(0.5)) * 0.75, 0.1);
  EXPECT_NEAR(toneGainDb(in[1], out[1], 120.0, 48000), c.lowGainDb(), 0.1);
  for (const double f : probes) {
    const double expected = toDb(std::abs(0.5 * (1.0 + g) + 0.5 * (1.0 - g) * allPass(120.0, 0.5, f)));
    EXPECT_NEAR(toneGainDb(in[0], out[0], f, 48000), expected, 0.1) << f << " Hz";
  }
  // A loud tone between the bands passes unchanged, only delayed.
  const std::vector<float> tone = sine(1000.0, kRate, 24064, 0.3), passed = Compressor().run(tone);
  for (size_t i = 12000; i < 24064; ++i) ASSERT_NEAR(passed[i], tone[i - 128], 1e-5) << i;
}

TEST(MultiBandCompressor, ResponseCurveMatchesTheDetectorsMeasuredWithTones) {
  // Each detector's gain at a curve frequency, measured from how much a tone
  // there is compressed: level = threshold - gain / slope.
  P p = defaults();
  p.lowThreshold = p.highThreshold = -50.0f;
  p.lowGainFloor = p.highGainFloor = -60.0f;
  Compressor curve(p);
  for (const int i : {5, 40, 150, 192, 300}) {
    const double f = i * 24000.0 / 1023.0;
    Compressor c(p);
    c.run(sine(f, kRate, 48128, std::pow(10.0, -3.0 / 20.0)));
    ASSERT_LT(c.lowGainDb(), -1.0) << "the tone must reach both thresholds";
    ASSERT_LT(c.highGainDb(), -1.0);
    EXPECT_NEAR(curve.curve()[i], f, 1e-2);
    EXPECT_NEAR(curve.curve()[1024 + i], -94.0 - (c.lowGainDb() + c.highGainDb()) / 0.75, 0.15) << f << " Hz";
    // And the closed form of both band-passes (Q x 2).
    EXPECT_NEAR(curve.curve()[1024 + i], bandPassDb(120.0, 2.0, f) + bandPassDb(4500.0, 2.0, f), 0.01);
  }
}

TEST(MultiBandCompressor, CentreFrequencyGlidesOneStepPerProcess) {
  P p = defaults();
  Compressor c(p);
  p.highCrossoverFrequency = 2000.0f;
  c.update(p);
  const double k = 1.0 - std::exp(-1.0 / (187.0 * 0.050));  // crossfadeTime at block rate
  for (int n = 1; n <= 400; ++n) {
    c.run(std::vector<float>(256, 0.0f));
    double current = 2000.0 + 2500.0 * std::pow(1.0 - k, n);
    if (std::fabs(current - 2000.0) < 0.01) current = 2000.0;
    if (n != 1 && n != 10 && n != 60 && n != 400) continue;
    for (int i = 10; i < 1020; i += 101) {
      const double f = i * 24000.0 / 1023.0;
      EXPECT_NEAR(c.curve()[1024 + i], bandPassDb(120.0, 2.0, f) + bandPassDb(current, 2.0, f), 0.02)
          << "after " << n << " blocks at " << f << " Hz";
    }
  }
}

TEST(MultiBandCompressor, SwitchedOffBandGlidesBackToUnity) {
  P p = defaults();
  Compressor c(p);
  const std::vector<float> tone = sine(120.0, kRate, 48128, 0.5);
  c.run(tone);
  ASSERT_LT(c.lowGainDb(), -5.0);
  p.lowBandEnable = 0;
  c.update(p);
  const std::vector<float> out = c.run(tone);
  EXPECT_NEAR(c.lowGainDb(), kSilentDb, 0.01) << "the meter reads silence for a switched-off band";
  EXPECT_NEAR(toneGainDb(tone, out, 120.0, 36000), 0.0, 0.02);
}

TEST(MultiBandCompressor, BypassedAtRestShowsAFlatCurveAndClearsTheLookAheadAgainAfterFadingIn) {
  P p = defaults();
  p.crossfadeTime = 5.0f;
  Compressor c(p);
  const std::vector<float> tone = sine(120.0, kRate, 256 * 41, 0.5), block(tone.end() - 256, tone.end());
  c.run(tone);
  P off = p;
  off.enable = 0;
  c.update(off);
  c.run(block);
  for (int i = 0; i < 1024; ++i) ASSERT_EQ(c.curve()[1024 + i], 1.0f) << i;
  EXPECT_NEAR(c.curve()[1023], 24000.0f, 1e-2);
  // Back on, the 5 ms fade-in ends within a block and empties the look-ahead
  // again: the next 128 samples come out silent.
  c.update(p);
  c.run(block);
  const std::vector<float> back = c.run(block);
  ASSERT_EQ(peakAbs(back, 0, 128), 0.0);
  EXPECT_GT(peakAbs(back, 128, 256), 0.01);
}

TEST(MultiBandCompressor, BlocksOffTheSubBlockGridFailUnlessBypassed) {
  P p = defaults();
  ChannelBuffers buffers(2, 4096);
  buffers.fill(0.25f);
  EXPECT_EQ(qorMultiBandCompressorProcess(Compressor(p, 48000, 130).inst(), buffers.data()), R::ErrorProcessing);
  EXPECT_EQ(qorMultiBandCompressorProcess(Compressor(p, 96000, 160).inst(), buffers.data()), R::ErrorProcessing)
      << "64-sample sub-blocks at 96 kHz";
  p.enable = 0;
  EXPECT_EQ(qorMultiBandCompressorProcess(Compressor(p, 48000, 130).inst(), buffers.data()), R::Success)
      << "bypassed: no engine run";
}

}  // namespace
