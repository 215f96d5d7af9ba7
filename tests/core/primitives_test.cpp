// DSP primitives against closed forms and straightforward models.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>
#include <vector>

#include "dsp/core/biquad_cascade.h"
#include "dsp/core/butterworth.h"
#include "dsp/core/cookbook_biquad.h"
#include "dsp/core/crossfade.h"
#include "dsp/core/follower.h"
#include "dsp/core/hann_window.h"
#include "dsp/core/levels.h"
#include "dsp/core/phase_wrap.h"
#include "dsp/core/primes.h"
#include "support/signals.h"

namespace {

using namespace qor;

constexpr double kRate = 48000.0, kPi = std::numbers::pi;
constexpr double kButterworthQ = 0.70710678118654752;

TEST(Levels, ConversionsAndOnePoleCoefficientsMatchTheirDefinitions) {
  for (float db : {-60.0f, -6.0f, 0.0f, 6.0f}) {
    float lin = 0.0f;
    dbToLinearArray(&db, &lin, 1);
    EXPECT_NEAR(lin / std::pow(10.0, db / 20.0), 1.0, 1e-6) << db;
    EXPECT_FLOAT_EQ(dbToLinear(db), lin);
    EXPECT_NEAR(linearToDb(lin), db, 1e-4);
    EXPECT_NEAR(powerToDb(lin * lin), db, 1e-4);
    EXPECT_NEAR(centsToRatio(100.0f * db), std::pow(2.0, db / 12.0), 1e-6);
  }
  // Silence and negative input give the finite floor, not -inf.
  EXPECT_NEAR(linearToDb(0.0f), 20.0 * std::log10(kLevelFloor), 0.05);
  EXPECT_NEAR(powerToDb(0.0f), 10.0 * std::log10(kLevelFloor), 0.05);
  EXPECT_EQ(linearToDb(-1.0f), linearToDb(0.0f));
  // Settle rule: a one-pole driven by a step is within -100 dB of it after 50 ms.
  const float c = settleCoefficient(48000.0f, 50.0f, -100.0f);
  double y = 0.0;
  for (int i = 0; i < 2400; ++i) y += c * (1.0 - y);
  EXPECT_NEAR(1.0 - y, 1e-5, 1e-6);
  EXPECT_NEAR(timeConstantCoefficient(48000.0f, 10.0f), 1.0 - std::exp(-1.0 / 480.0), 1e-7);
  // Zero, negative or NaN times (or no rate) mean "jump at once".
  EXPECT_TRUE(settleCoefficient(48000.0f, 0.0f, -100.0f) == 1.0f && settleCoefficient(0.0f, 50.0f, -100.0f) == 1.0f);
  for (float ms : {0.0f, -3.0f, std::nanf("")}) EXPECT_EQ(timeConstantCoefficient(48000.0f, ms), 1.0f);
}

TEST(Crossfade, FollowsTheOnePoleFromTheIncomingMixAlsoInPlace) {
  std::vector<float> wet(100, 1.0f), dry(100, -1.0f), out(100);
  float m = 0.0f;
  crossfade(wet.data(), dry.data(), out.data(), m, 1.0f, 0.1f, 100);
  double model = 0.0;  // the first sample uses the incoming mix
  for (int i = 0; i < 100; ++i, model += 0.1 * (1.0 - model)) EXPECT_NEAR(out[i], 2.0 * model - 1.0, 1e-5);
  EXPECT_NEAR(m, model, 1e-5);
  m = 1.0f;
  crossfade(wet.data(), dry.data(), wet.data(), m, 0.0f, 1.0f, 100);
  EXPECT_TRUE(wet[0] == 1.0f && wet[1] == -1.0f && m == 0.0f);
}

TEST(Follower, RulesPickTheirCoefficientAndCarryAcrossCalls) {
  Follower f;
  followerSetup(f, 1000.0f, 6.0f, 10.0f, 100.0f);
  const double k = std::pow(10.0, -0.3), cA = 1.0 - std::exp(-0.1), cB = 1.0 - std::exp(-0.01);
  // A step down (falling-first) then up (rising-first), each call continuing
  // from the y[n - 1] it is given. Falling-first uses A while y * k > x,
  // rising-first while x * k > y (about half of the rise here); B otherwise.
  std::vector<float> y(48, 0.0f), x(48, 1.0f);
  std::fill_n(x.begin(), 8, 0.0f);
  y[7] = 1.0f;
  followFallingFirst(f, x.data(), y.data(), 8);
  y[47] = y[7];
  followRisingFirst(f, x.data() + 8, y.data() + 8, 40);
  double model = 1.0;
  for (int i = 0; i < 48; ++i) {
    const bool a = i < 8 ? model * k > x[i] : x[i] * k > model;
    model += (a ? cA : cB) * (x[i] - model);
    EXPECT_NEAR(y[i], model, 1e-6) << i;
  }
}

TEST(Primes, NearestTablePrimeWithTheSmallerOnTies) {
  std::vector<int32_t> primes;  // by trial division
  for (int32_t n = 2; primes.size() < static_cast<size_t>(kPrimeCount); ++n) {
    if (std::none_of(primes.begin(), primes.end(), [n](int32_t p) { return n % p == 0; })) primes.push_back(n);
  }
  for (int32_t i = 0; i < kPrimeCount; ++i) ASSERT_EQ(primeAt(i), primes[i]);
  for (int32_t n : {1, 9, 10, 1000, 1024, 7920, 100000}) {  // 9: between 7 and 11
    int32_t best = primes[0];
    for (int32_t p : primes) best = std::abs(p - n) < std::abs(best - n) ? p : best;
    EXPECT_EQ(nearestPrime(n), best) << n;
  }
}

TEST(Window, HannMatchesTheCosineDefinition) {
  for (uint32_t n : {2u, 9u, 512u}) {
    std::vector<float> w(n);
    hannWindow(w.data(), n);
    for (uint32_t i = 0; i < n; ++i) ASSERT_NEAR(w[i], 0.5 - 0.5 * std::cos(2 * kPi * i / (n - 1)), 1e-7) << n;
  }
}

TEST(PhaseWrap, IntoHalfOpenIntervalByWholeTurns) {
  for (double a : {kPi, -kPi, 0.25 + 20.0 * kPi}) EXPECT_NEAR(wrapPhase(a), a == kPi ? -kPi : std::remainder(a, 2 * kPi), 1e-9) << a;
  for (float a = -40.0f; a < 40.0f; a += 0.37f) {
    const float w = wrapPhase(a);
    EXPECT_TRUE(w >= -std::numbers::pi_v<float> && w < std::numbers::pi_v<float>) << a;
    EXPECT_NEAR(std::remainder(a - w, 2.0 * kPi), 0.0, 1e-4);
  }
}

// H(z) = (b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2) at frequency f.
double sectionGain(double b0, double b1, double b2, double a1, double a2, double f) {
  const std::complex<double> z1 = std::polar(1.0, -2.0 * kPi * f / kRate);
  return std::abs((b0 + b1 * z1 + b2 * z1 * z1) / (1.0 + a1 * z1 + a2 * z1 * z1));
}

// Gain of `process` on a unit sine at f, run in 480-sample blocks, once settled.
template <class Process>
double measuredGain(double f, Process process) {
  std::vector<float> x = qor::test::sine(f, kRate, 24000);
  for (size_t i = 0; i < x.size(); i += 480) process(&x[i], 480u);
  return qor::test::toneAmplitude(x, f, kRate, 12000);
}

struct ButterworthCase { uint32_t order; int32_t type; float cutoff; };

class ButterworthResponse : public ::testing::TestWithParam<ButterworthCase> {};

TEST_P(ButterworthResponse, DesignedAndMeasuredGainsMatchTheAnalyticMagnitude) {
  const auto [order, type, fc] = GetParam();
  const bool low = type == kButterworthLowPass;
  const uint32_t sections = butterworthSections(order);
  std::vector<float> c(5 * sections + 1);
  ASSERT_EQ(designButterworth(fc, order, 48000, type, c.data()), 0);
  for (double f : {0.0, 50.0, 200.0, static_cast<double>(fc), 1000.0, 5000.0, 15000.0, kRate / 2}) {
    // Through the bilinear warp; -3 dB at fc, exactly 0 or 1 at DC and Nyquist.
    const double r = std::pow(std::tan(kPi * f / kRate) / std::tan(kPi * fc / kRate), 2.0 * order);
    const double expected = f == kRate / 2 ? !low : low ? 1.0 / std::sqrt(1.0 + r) : std::sqrt(r / (1.0 + r));
    const bool edge = f == 0.0 || f == kRate / 2;
    double designed = c[5 * sections];
    for (uint32_t k = 0; k < 5 * sections; k += 5) designed *= sectionGain(c[k], c[k + 1], c[k + 2], -c[k + 3], -c[k + 4], f);
    EXPECT_NEAR(designed, expected, edge ? 1e-5 : 1e-4) << "f=" << f;
    if (expected <= 0.01 || edge) continue;
    std::vector<float> state(2 * sections, 0.0f);
    const double got = measuredGain(f, [&](float* x, uint32_t n) { processBiquadCascade(x, n, c.data(), state.data(), sections); });
    EXPECT_NEAR(got / expected, 1.0, 0.01) << "f=" << f;
  }
}

constexpr int32_t kHigh = kButterworthHighPass, kLow = kButterworthLowPass;
INSTANTIATE_TEST_SUITE_P(Orders, ButterworthResponse,
                         ::testing::Values(ButterworthCase{1, kHigh, 100}, ButterworthCase{2, kHigh, 100},
                                           ButterworthCase{1, kLow, 3000}, ButterworthCase{2, kLow, 3000},
                                           ButterworthCase{3, kHigh, 400}, ButterworthCase{4, kLow, 2000},
                                           ButterworthCase{5, kHigh, 1000}));

TEST(Butterworth, RefusesCutoffAtNyquistAndUnknownTypeWritingNothing) {
  std::vector<float> c(11, 42.0f);  // 22050 Hz is the integer half of 44101 Hz
  const int32_t results[] = {designButterworth(24000.0f, 2, 48000, kLow, c.data()),
                             designButterworth(22050.0f, 2, 44101, kLow, c.data()), designButterworth(1000.0f, 2, 48000, 2, c.data())};
  EXPECT_TRUE(c[0] == 42.0f && results[0] == -1000 && results[1] == -1000 && results[2] == -1000);
  EXPECT_EQ(designButterworth(23999.0f, 2, 48000, kLow, c.data()), 0);
}

TEST(BiquadCascade, SplitBlocksEqualOneBlockGainAppliesDenormalsFlushed) {
  std::vector<float> c(11);
  ASSERT_EQ(designButterworth(500.0f, 4, 48000, kLow, c.data()), 0);
  c[10] = 0.5f;
  std::vector<float> whole = qor::test::whiteNoise(1000, 7), parts = whole, s1(4, 0.0f), s2(4, 0.0f);
  processBiquadCascade(whole.data(), 1000, c.data(), s1.data(), 2);
  processBiquadCascade(parts.data(), 333, c.data(), s2.data(), 2);
  processBiquadCascade(parts.data() + 333, 667, c.data(), s2.data(), 2);
  EXPECT_EQ(whole, parts);
  std::vector<float> g = {1.0f, -2.0f};  // zero sections: only the gain
  processBiquadCascade(g.data(), 2, &c[10], nullptr, 0);
  EXPECT_EQ(g, (std::vector<float>{0.5f, -1.0f}));
  // A decayed impulse response leaves exact zeros in the state, not denormals.
  ASSERT_EQ(designButterworth(100.0f, 2, 48000, kHigh, c.data()), 0);
  std::vector<float> x = qor::test::impulse(256), s(2, 0.0f);
  for (int i = 0; i < 2000; ++i, std::fill(x.begin(), x.end(), 0.0f)) processBiquadCascade(x.data(), 256, c.data(), s.data(), 1);
  EXPECT_EQ(s, (std::vector<float>{0.0f, 0.0f}));
}

// A cookbook design and its gain at f0 (output gain aside) as the formulas give it.
struct CookbookCase { int32_t type; double f0, q, gainDb, atF0Db, toleranceDb; };

class CookbookResponse : public ::testing::TestWithParam<CookbookCase> {};

TEST_P(CookbookResponse, CharacteristicGainAndMeasuredResponse) {
  const CookbookCase p = GetParam();
  const CookbookCoefficients c = designCookbook(p.type, p.f0, kRate, p.q, p.gainDb, -3.0);
  EXPECT_NEAR(c.gain, std::pow(10.0, -3.0 / 20.0), 1e-6);
  const double atF0Db = 20.0 * std::log10(sectionGain(c.b0, c.b1, c.b2, c.a1, c.a2, p.f0));
  EXPECT_NEAR(std::max(atF0Db, -60.0), p.atF0Db, p.toleranceDb);
  for (double f : {60.0, p.f0 * 0.5, p.f0, p.f0 * 2.0, 9000.0}) {
    const double analytic = sectionGain(c.b0, c.b1, c.b2, c.a1, c.a2, f) * c.gain;
    if (analytic <= 0.01) continue;
    CookbookBiquad bq{};
    bq.set(c, 0);
    EXPECT_NEAR(measuredGain(f, [&](float* x, uint32_t n) { bq.process(x, n); }) / analytic, 1.0, 0.01) << "f=" << f;
  }
}

// High- and low-pass peak to Q at f0, band-pass and all-pass pass it at 0 dB,
// the notch removes it (shown as -60), shelves sit half-way.
INSTANTIATE_TEST_SUITE_P(
    AllTypes, CookbookResponse,
    ::testing::Values(CookbookCase{kCookbookHighPass, 200, kButterworthQ, 0, -3.0103, 0.01},
                      CookbookCase{kCookbookLowPass, 2000, 2, 0, 6.0206, 0.005}, CookbookCase{kCookbookPeaking, 1000, 2, 12, 12, 0.01},
                      CookbookCase{kCookbookBandPass, 1000, 1, 0, 0, 0.008}, CookbookCase{kCookbookNotch, 1000, 4, 0, -60, 0},
                      CookbookCase{kCookbookLowShelf, 300, kButterworthQ, 9, 4.5, 0.05},
                      CookbookCase{kCookbookHighShelf, 3000, kButterworthQ, -9, -4.5, 0.05},
                      CookbookCase{kCookbookAllPass, 800, 0.25, 0, 0, 0.0008}));

TEST(CookbookBiquad, RampIsLinearLandsOnTheTargetAndTickEqualsBlock) {
  const CookbookCoefficients a = designCookbook(kCookbookLowPass, 500.0, kRate, kButterworthQ, 0.0, 0.0);
  const CookbookCoefficients b = designCookbook(kCookbookPeaking, 5000.0, kRate, 1.5, 6.0, 6.0);
  CookbookBiquad ticked{}, blocked{};
  for (CookbookBiquad* bq : {&ticked, &blocked}) bq->set(a, 0), bq->set(b, 64);  // 64-sample ramp
  std::vector<float> x = qor::test::whiteNoise(500, 3), y = x;
  blocked.process(y.data(), 32);
  EXPECT_NEAR(blocked.current.b0, (a.b0 + b.b0) / 2, 1e-5);
  EXPECT_NEAR(blocked.current.gain, (a.gain + b.gain) / 2, 1e-5);
  blocked.process(y.data() + 32, 468);
  for (size_t i = 0; i < 500; ++i) ASSERT_EQ(ticked.tick(x[i]), y[i]) << i;
  for (const CookbookBiquad* bq : {&ticked, &blocked}) EXPECT_EQ(std::memcmp(&bq->current, &b, sizeof b), 0);
}

}  // namespace
