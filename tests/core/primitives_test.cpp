// DSP primitives against closed forms and straightforward models.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

#include "dsp/core/biquad_cascade.h"
#include "dsp/core/block_ops.h"
#include "dsp/core/butterworth.h"
#include "dsp/core/cookbook_biquad.h"
#include "dsp/core/crossfade.h"
#include "dsp/core/follower.h"
#include "dsp/core/hann_window.h"
#include "dsp/core/levels.h"
#include "dsp/core/peak_detector.h"
#include "dsp/core/phase_wrap.h"
#include "dsp/core/primes.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace qor;
using qor::test::toneAmplitude;

constexpr double kRate = 48000.0;
constexpr double kButterworthQ = 0.70710678118654752;

TEST(Levels, ConversionsMatchTheirDefinitions) {
  EXPECT_FLOAT_EQ(dbToLinear(-6.0f), std::pow(10.0f, -0.3f));
  EXPECT_FLOAT_EQ(dbToLinear(0.0f), 1.0f);
  EXPECT_NEAR(linearToDb(0.5f), -6.0206, 1e-4);
  EXPECT_NEAR(linearToDb(0.0f), -758.6, 0.05);
  EXPECT_TRUE(std::isfinite(linearToDb(-1.0f)));
  EXPECT_NEAR(powerToDb(0.25f), -6.0206, 1e-4);
  EXPECT_NEAR(powerToDb(0.0f), -379.3, 0.05);
  EXPECT_FLOAT_EQ(centsToRatio(1200.0f), 2.0f);
  EXPECT_NEAR(centsToRatio(-700.0f), std::pow(2.0, -700.0 / 1200.0), 1e-6);
  const float db[] = {-20.0f, 0.0f, 6.0f};
  float lin[3];
  dbToLinearArray(db, lin, 3);
  EXPECT_NEAR(lin[0], 0.1f, 1e-7);
  EXPECT_NEAR(lin[2], 1.9953f, 1e-4);
}

TEST(Coefficients, SettleClosesAllButTheTargetAfterTheTime) {
  EXPECT_NEAR(settleCoefficient(48000.0f, 50.0f, -100.0f), 0.0047856, 1e-6);
  EXPECT_EQ(settleCoefficient(48000.0f, 0.0f, -100.0f), 1.0f);
  EXPECT_EQ(settleCoefficient(0.0f, 50.0f, -100.0f), 1.0f);
  // A one-pole driven by a step is within 1e-5 of it after 50 ms.
  const float c = settleCoefficient(48000.0f, 50.0f, -100.0f);
  double y = 0.0;
  for (int i = 0; i < 2400; ++i) y = (1.0 - c) * y + c * 1.0;
  EXPECT_NEAR(1.0 - y, 1e-5, 1e-6);
}

TEST(Coefficients, TimeConstantAndItsGuards) {
  EXPECT_NEAR(timeConstantCoefficient(48000.0f, 10.0f), 1.0 - std::exp(-1.0 / 480.0), 1e-7);
  EXPECT_EQ(timeConstantCoefficient(48000.0f, 0.0f), 1.0f);
  EXPECT_EQ(timeConstantCoefficient(48000.0f, -3.0f), 1.0f);
  EXPECT_EQ(timeConstantCoefficient(48000.0f, std::nanf("")), 1.0f);
  EXPECT_EQ(scaleForRate(32, 44100), 32u);
  EXPECT_EQ(scaleForRate(32, 96000), 64u);
  EXPECT_EQ(scaleForRate(32, 88200), 64u);
  EXPECT_EQ(scaleForRate(32, 192000), 128u);
  EXPECT_EQ(scaleForRate(32, 22050), 32u);
}

TEST(BlockOps, MatchElementwiseDefinitionsIncludingTails) {
  for (uint32_t n : {0u, 1u, 3u, 16u, 37u}) {
    std::vector<float> a(n + 1, 7.0f), b(n + 1, 7.0f), out(n + 1, 7.0f);
    for (uint32_t i = 0; i < n; ++i) {
      a[i] = 0.5f * i - 3.0f;
      b[i] = 1.0f / (i + 1.0f);
    }
    multiplyBlocks(a.data(), b.data(), out.data(), n);
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(out[i], a[i] * b[i]);
    EXPECT_EQ(out[n], 7.0f) << "wrote past the end";
    scaleBlock(a.data(), out.data(), -0.25f, n);
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(out[i], a[i] * -0.25f);
    copyBlock(a.data(), out.data(), n);
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(out[i], a[i]);
    scaleBlockInPlace(out.data(), 3.0f, n);
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(out[i], a[i] * 3.0f);
    zeroBlock(out.data(), n);
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(out[i], 0.0f);
    EXPECT_EQ(out[n], 7.0f);
  }
}

TEST(Crossfade, FollowsTheOnePoleFromTheIncomingMix) {
  std::vector<float> wet(100, 1.0f), dry(100, -1.0f), out(100);
  float m = 0.0f;
  crossfade(wet.data(), dry.data(), out.data(), m, 1.0f, 0.1f, 100);
  EXPECT_EQ(out[0], -1.0f) << "first sample uses the incoming mix";
  double model = 0.0;
  for (int i = 0; i < 100; ++i) {
    EXPECT_NEAR(out[i], (1.0 - model) * -1.0 + model, 1e-5);
    model = 0.9 * model + 0.1;
  }
  EXPECT_NEAR(m, model, 1e-5);
  // In place over the wet buffer.
  float m2 = 1.0f;
  crossfade(wet.data(), dry.data(), wet.data(), m2, 0.0f, 1.0f, 100);
  EXPECT_EQ(wet[0], 1.0f);
  EXPECT_EQ(wet[1], -1.0f);
  EXPECT_EQ(m2, 0.0f);
}

TEST(Follower, RulesPickTheirCoefficientAndCarryAcrossCalls) {
  Follower f;
  followerSetup(f, 1000.0f, 6.0f, 10.0f, 100.0f);
  EXPECT_NEAR(f.ratio, std::pow(10.0, -0.3), 1e-6);
  EXPECT_NEAR(f.coefficientA, 1.0 - std::exp(-0.1), 1e-6);
  EXPECT_NEAR(f.coefficientB, 1.0 - std::exp(-0.01), 1e-6);

  // Falling-first: a drop well below y*k uses A, a rise uses B.
  std::vector<float> x(8, 0.0f), y(8, 0.0f);
  y[7] = 1.0f;
  followFallingFirst(f, x.data(), y.data(), 8);
  double model = 1.0;
  for (int i = 0; i < 8; ++i) {
    model = (1.0 - f.coefficientA) * model;
    EXPECT_NEAR(y[i], model, 1e-6);
  }
  // The next call continues from y[7]; rising-first uses A while x * k is
  // above the state and B once the state is within the ratio of the input.
  std::vector<float> up(40, 1.0f);
  std::vector<float> y2(40, 0.0f);
  y2[39] = y[7];
  followRisingFirst(f, up.data(), y2.data(), 40);
  int usedA = 0, usedB = 0;
  for (int i = 0; i < 40; ++i) {
    const bool a = 1.0 * f.ratio > model;
    const double c = a ? f.coefficientA : f.coefficientB;
    (a ? usedA : usedB)++;
    model = (1.0 - c) * model + c;
    EXPECT_NEAR(y2[i], model, 1e-6) << i;
  }
  EXPECT_GT(usedA, 0);
  EXPECT_GT(usedB, 0);
}

TEST(PeakDetector, BlockPeakOverChannelsAndSpan) {
  qor::test::ChannelBuffers ch(2, 64);
  ch.fill(0.1f);
  ch[1][40] = -0.9f;
  ch[0][10] = 0.5f;
  EXPECT_FLOAT_EQ(blockPeak(ch.data(), 0, 64, 2), 0.9f);
  EXPECT_FLOAT_EQ(blockPeak(ch.data(), 0, 32, 2), 0.5f);
  EXPECT_FLOAT_EQ(blockPeak(ch.data(), 0, 64, 1), 0.5f);
  EXPECT_EQ(blockPeak(ch.data(), 0, 64, 0), 0.0f);
}

TEST(PeakDetector, HistoryLengthFromRate) {
  PeakHistory h;
  peakHistorySetup(h, 48000, 32, 1);
  EXPECT_EQ(h.length, 150);  // 750 clamped
  peakHistorySetup(h, 48000, 32, 8);
  EXPECT_EQ(h.length, 93);
  peakHistorySetup(h, 100, 32, 4);
  EXPECT_EQ(h.length, 1);
}

TEST(PeakDetector, LengthOneReturnsTheBlockPeak) {
  PeakHistory h;
  peakHistorySetup(h, 100, 32, 4);
  qor::test::ChannelBuffers ch(1, 32);
  for (float v : {0.3f, 0.9f, 0.1f, 0.0f, 0.7f}) {
    ch.fill(v);
    EXPECT_FLOAT_EQ(peakHistoryUpdate(h, ch.data(), 0, 32, 1), v);
  }
}

TEST(PeakDetector, TransientShortensTheWindowWhichThenWidens) {
  PeakHistory h;
  peakHistorySetup(h, 48000, 32, 15);  // L = 50
  ASSERT_EQ(h.length, 50);
  qor::test::ChannelBuffers ch(1, 32);
  ch.fill(0.1f);
  // A steady signal: once the history is full the window spans all of it.
  for (int i = 0; i < 200; ++i) EXPECT_FLOAT_EQ(peakHistoryUpdate(h, ch.data(), 0, 32, 1), 0.1f);
  EXPECT_EQ(h.window, 0);
  // A sharp transient: crest L*M = 50 > 3 * S = 3 * (49 * 0.1 + 1).
  ch.fill(1.0f);
  EXPECT_FLOAT_EQ(peakHistoryUpdate(h, ch.data(), 0, 32, 1), 1.0f);
  EXPECT_EQ(h.window, 3);
  // Quiet again: the short window lets go of the transient after two calls,
  // although it is still in the history.
  ch.fill(0.1f);
  EXPECT_FLOAT_EQ(peakHistoryUpdate(h, ch.data(), 0, 32, 1), 1.0f);
  EXPECT_FLOAT_EQ(peakHistoryUpdate(h, ch.data(), 0, 32, 1), 0.1f);
  EXPECT_EQ(peakHistoryRecentMax(h, 50), 1.0f);
  EXPECT_EQ(peakHistoryRecentMax(h, 2), 0.1f);
  // Once the transient has left the history the window widens to all of it.
  int calls = 0;
  while (h.window != 0 && calls < 200) {
    EXPECT_FLOAT_EQ(peakHistoryUpdate(h, ch.data(), 0, 32, 1), 0.1f);
    ++calls;
  }
  EXPECT_GT(calls, 48);
  EXPECT_LT(calls, 200);
}

TEST(Primes, NearestWithEarlierOnTies) {
  EXPECT_EQ(nearestPrime(1), 2);
  EXPECT_EQ(nearestPrime(7920), 7919);
  EXPECT_EQ(nearestPrime(100000), 7919);
  EXPECT_EQ(nearestPrime(9), 7);
  EXPECT_EQ(nearestPrime(10), 11);
  EXPECT_EQ(nearestPrime(1000), 997);
  EXPECT_EQ(nearestPrime(1024), 1021);
  EXPECT_EQ(primeAt(0), 2);
  EXPECT_EQ(primeAt(999), 7919);
}

TEST(Window, HannIsSymmetricAndZeroAtTheEnds) {
  std::vector<float> w(9);
  hannWindow(w.data(), 9);
  EXPECT_NEAR(w[0], 0.0f, 1e-7);
  EXPECT_NEAR(w[8], 0.0f, 1e-7);
  EXPECT_NEAR(w[4], 1.0f, 1e-7);
  EXPECT_NEAR(w[2], 0.5f, 1e-7);
  for (int i = 0; i < 9; ++i) EXPECT_NEAR(w[i], w[8 - i], 1e-7);
}

TEST(PhaseWrap, IntoHalfOpenInterval) {
  const double pi = std::numbers::pi;
  EXPECT_NEAR(wrapPhase(3.0 * pi / 2.0), -pi / 2.0, 1e-12);
  EXPECT_NEAR(wrapPhase(-3.0 * pi / 2.0), pi / 2.0, 1e-12);
  EXPECT_NEAR(wrapPhase(pi), -pi, 1e-12);
  EXPECT_NEAR(wrapPhase(-pi), -pi, 1e-12);
  EXPECT_NEAR(wrapPhase(0.25 + 20.0 * pi), 0.25, 1e-9);
  for (float a = -40.0f; a < 40.0f; a += 0.37f) {
    const float w = wrapPhase(a);
    EXPECT_GE(w, -std::numbers::pi_v<float>);
    EXPECT_LT(w, std::numbers::pi_v<float>);
    EXPECT_NEAR(std::remainder(a - w, 2.0 * std::numbers::pi), 0.0, 1e-4);
  }
}

// ---- filters: design against analytic responses, measured with sines ----

// H(z) = (b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2) at frequency f.
std::complex<double> sectionResponse(double b0, double b1, double b2, double a1, double a2,
                                     double f, double rate) {
  const std::complex<double> z1 = std::polar(1.0, -2.0 * std::numbers::pi * f / rate);
  return (b0 + b1 * z1 + b2 * z1 * z1) / (1.0 + a1 * z1 + a2 * z1 * z1);
}

std::complex<double> cascadeResponse(const std::vector<float>& c, uint32_t sections, double f,
                                     double rate) {
  std::complex<double> h = 1.0;
  for (uint32_t k = 0; k < sections; ++k) {
    const float* s = &c[5 * k];
    h *= sectionResponse(s[0], s[1], s[2], -s[3], -s[4], f, rate);
  }
  return h * static_cast<double>(c[5 * sections]);
}

double measuredCascadeGain(const std::vector<float>& c, uint32_t sections, double f) {
  const size_t n = 48000;
  std::vector<float> x = qor::test::sine(f, kRate, n);
  std::vector<float> state(2 * sections, 0.0f);
  for (size_t i = 0; i < n; i += 480) processBiquadCascade(&x[i], 480, c.data(), state.data(), sections);
  return toneAmplitude(x, f, kRate, n / 2);
}

struct ButterworthCase {
  uint32_t order;
  int32_t type;
  float cutoff;
};

class ButterworthResponse : public ::testing::TestWithParam<ButterworthCase> {};

TEST_P(ButterworthResponse, MeasuredGainMatchesAnalyticMagnitude) {
  const auto [order, type, fc] = GetParam();
  const uint32_t sections = butterworthSections(order);
  std::vector<float> c(5 * sections + 1);
  ASSERT_EQ(designButterworth(fc, order, 48000, type, c.data()), 0);
  for (double f : {50.0, 200.0, static_cast<double>(fc), 1000.0, 5000.0, 15000.0}) {
    // Analytic Butterworth magnitude through the bilinear warp.
    const double wa = std::tan(std::numbers::pi * f / kRate) / std::tan(std::numbers::pi * fc / kRate);
    const double r = std::pow(wa, 2.0 * order);
    const double expected = type == kButterworthLowPass ? 1.0 / std::sqrt(1.0 + r)
                                                        : std::sqrt(r / (1.0 + r));
    EXPECT_NEAR(std::abs(cascadeResponse(c, sections, f, kRate)), expected, 1e-4) << "f=" << f;
    if (expected > 0.01) {
      EXPECT_NEAR(measuredCascadeGain(c, sections, f) / expected, 1.0, 0.01) << "f=" << f;
    }
  }
  // Cutoff is the -3 dB point.
  EXPECT_NEAR(std::abs(cascadeResponse(c, sections, fc, kRate)), std::sqrt(0.5), 1e-4);
  // High-pass: 1 at Nyquist, 0 at DC; low-pass: the reverse.
  const double dc = std::abs(cascadeResponse(c, sections, 0.0, kRate));
  const double nyq = std::abs(cascadeResponse(c, sections, kRate / 2, kRate));
  EXPECT_NEAR(dc, type == kButterworthLowPass ? 1.0 : 0.0, 1e-5);
  EXPECT_NEAR(nyq, type == kButterworthLowPass ? 0.0 : 1.0, 1e-5);
}

INSTANTIATE_TEST_SUITE_P(Orders, ButterworthResponse,
                         ::testing::Values(ButterworthCase{1, kButterworthHighPass, 100.0f},
                                           ButterworthCase{2, kButterworthHighPass, 100.0f},
                                           ButterworthCase{1, kButterworthLowPass, 3000.0f},
                                           ButterworthCase{2, kButterworthLowPass, 3000.0f},
                                           ButterworthCase{3, kButterworthHighPass, 400.0f},
                                           ButterworthCase{4, kButterworthLowPass, 2000.0f},
                                           ButterworthCase{5, kButterworthHighPass, 1000.0f}));

TEST(Butterworth, RefusesCutoffAtNyquistAndUnknownType) {
  std::vector<float> c(11, 42.0f);
  EXPECT_EQ(designButterworth(24000.0f, 2, 48000, kButterworthLowPass, c.data()), -1000);
  EXPECT_EQ(designButterworth(1000.0f, 2, 48000, 2, c.data()), -1000);
  EXPECT_EQ(c[0], 42.0f) << "a refused design writes nothing";
  EXPECT_EQ(designButterworth(23999.0f, 2, 48000, kButterworthLowPass, c.data()), 0);
  // Integer half of an odd rate.
  EXPECT_EQ(designButterworth(22050.0f, 2, 44101, kButterworthLowPass, c.data()), -1000);
}

TEST(BiquadCascade, SplitBlocksEqualOneBlockAndGainApplies) {
  std::vector<float> c(11);
  ASSERT_EQ(designButterworth(500.0f, 4, 48000, kButterworthLowPass, c.data()), 0);
  c[10] = 0.5f;
  std::vector<float> x = qor::test::whiteNoise(1000, 7);
  std::vector<float> whole = x, parts = x;
  std::vector<float> s1(4, 0.0f), s2(4, 0.0f);
  processBiquadCascade(whole.data(), 1000, c.data(), s1.data(), 2);
  processBiquadCascade(parts.data(), 333, c.data(), s2.data(), 2);
  processBiquadCascade(parts.data() + 333, 667, c.data(), s2.data(), 2);
  for (size_t i = 0; i < 1000; ++i) ASSERT_EQ(whole[i], parts[i]) << i;
  // Zero sections: only the gain.
  std::vector<float> g = {1.0f, -2.0f};
  const float gainOnly[] = {0.25f};
  processBiquadCascade(g.data(), 2, gainOnly, nullptr, 0);
  EXPECT_EQ(g[0], 0.25f);
  EXPECT_EQ(g[1], -0.5f);
}

TEST(BiquadCascade, DenormalGuardZeroesDecayedState) {
  std::vector<float> c(6);
  ASSERT_EQ(designButterworth(100.0f, 2, 48000, kButterworthHighPass, c.data()), 0);
  std::vector<float> x(256, 0.0f);
  x[0] = 1.0f;
  std::vector<float> s(2, 0.0f);
  processBiquadCascade(x.data(), 256, c.data(), s.data(), 1);
  for (int i = 0; i < 2000; ++i) {
    std::fill(x.begin(), x.end(), 0.0f);
    processBiquadCascade(x.data(), 256, c.data(), s.data(), 1);
  }
  EXPECT_EQ(s[0], 0.0f);
  EXPECT_EQ(s[1], 0.0f);
}

struct CookbookCase {
  int32_t type;
  double f0, q, gainDb;
};

class CookbookResponse : public ::testing::TestWithParam<CookbookCase> {};

TEST_P(CookbookResponse, MeasuredGainMatchesTheDesignedTransferFunction) {
  const CookbookCase p = GetParam();
  const double outDb = -3.0;
  const CookbookCoefficients c = designCookbook(p.type, p.f0, kRate, p.q, p.gainDb, outDb);
  for (double f : {60.0, p.f0 * 0.5, p.f0, p.f0 * 2.0, 9000.0}) {
    const double analytic = std::abs(sectionResponse(c.b0, c.b1, c.b2, c.a1, c.a2, f, kRate)) * c.gain;
    CookbookBiquad bq{};
    bq.set(c, 0);
    std::vector<float> x = qor::test::sine(f, kRate, 24000);
    bq.process(x.data(), 24000);
    if (analytic > 0.01) {
      EXPECT_NEAR(toneAmplitude(x, f, kRate, 12000) / analytic, 1.0, 0.01) << "f=" << f;
    }
  }
  // Characteristic points of each type at f0 (the output gain aside).
  const double at = std::abs(sectionResponse(c.b0, c.b1, c.b2, c.a1, c.a2, p.f0, kRate));
  switch (p.type) {
    case kCookbookHighPass:
    case kCookbookLowPass:
      EXPECT_NEAR(at, p.q, 1e-3);  // gain Q at f0
      break;
    case kCookbookBandPass:
      EXPECT_NEAR(at, 1.0, 1e-3);
      break;
    case kCookbookNotch:
      EXPECT_LT(at, 1e-3);
      break;
    case kCookbookPeaking:
      EXPECT_NEAR(20.0 * std::log10(at), p.gainDb, 1e-2);
      break;
    case kCookbookAllPass:
      EXPECT_NEAR(at, 1.0, 1e-4);
      break;
    case kCookbookLowShelf:
    case kCookbookHighShelf:
      EXPECT_NEAR(20.0 * std::log10(at), p.gainDb / 2.0, 0.05);  // midpoint of the shelf
      break;
  }
  EXPECT_NEAR(c.gain, std::pow(10.0, outDb / 20.0), 1e-6);
}

INSTANTIATE_TEST_SUITE_P(AllTypes, CookbookResponse,
                         ::testing::Values(CookbookCase{kCookbookHighPass, 200.0, kButterworthQ, 0.0},
                                           CookbookCase{kCookbookLowPass, 2000.0, 2.0, 0.0},
                                           CookbookCase{kCookbookBandPass, 1000.0, 1.0, 0.0},
                                           CookbookCase{kCookbookNotch, 1000.0, 4.0, 0.0},
                                           CookbookCase{kCookbookLowShelf, 300.0, kButterworthQ, 9.0},
                                           CookbookCase{kCookbookHighShelf, 3000.0, kButterworthQ, -9.0},
                                           CookbookCase{kCookbookPeaking, 1000.0, 2.0, 12.0},
                                           CookbookCase{kCookbookAllPass, 800.0, 0.25, 0.0}));

TEST(CookbookBiquad, CoefficientRampIsLinearAndLandsOnTheTarget) {
  CookbookBiquad bq{};
  const CookbookCoefficients a = designCookbook(kCookbookLowPass, 500.0, kRate, kButterworthQ, 0.0, 0.0);
  const CookbookCoefficients b = designCookbook(kCookbookLowPass, 5000.0, kRate, kButterworthQ, 0.0, 6.0);
  bq.set(a, 0);
  bq.set(b, 64);
  std::vector<float> x(32, 0.0f);
  bq.process(x.data(), 32);
  EXPECT_NEAR(bq.current.b0, a.b0 + (b.b0 - a.b0) * 0.5f, 1e-5);
  EXPECT_NEAR(bq.current.gain, a.gain + (b.gain - a.gain) * 0.5f, 1e-5);
  bq.process(x.data(), 32);
  EXPECT_EQ(bq.current.b0, b.b0);
  EXPECT_EQ(bq.current.a2, b.a2);
  EXPECT_EQ(bq.current.gain, b.gain);
  EXPECT_EQ(bq.rampLeft, 0);
}

TEST(CookbookBiquad, TickAndBlockProcessingAgree) {
  CookbookBiquad one{}, two{};
  const CookbookCoefficients c = designCookbook(kCookbookPeaking, 700.0, kRate, 1.5, 6.0, -1.0);
  one.set(c, 0);
  two.set(c, 0);
  std::vector<float> x = qor::test::whiteNoise(500, 3);
  std::vector<float> y = x;
  two.process(y.data(), 500);
  for (size_t i = 0; i < 500; ++i) ASSERT_EQ(one.tick(x[i]), y[i]) << i;
}

}  // namespace

namespace {

// The vector path must give exactly what the plain definition gives, tails,
// offsets and NaN samples included.
TEST(PeakDetector, BlockPeakEqualsThePlainMaximumEverywhere) {
  std::vector<float> x = qor::test::whiteNoise(301, 17, 2.0);
  x[7] = std::nanf("");
  x[200] = -3.5f;
  for (uint32_t start : {0u, 1u, 5u}) {
    for (uint32_t n : {0u, 3u, 15u, 16u, 17u, 64u, 250u, 296u}) {
      const float* ch[] = {x.data()};
      float plain = 0.0f;
      for (uint32_t i = start; i < start + n; ++i) plain = std::max(plain, std::fabs(x[i]));
      ASSERT_EQ(qor::blockPeak(ch, start, n, 1), plain) << start << " " << n;
    }
  }
}

}  // namespace
