// Delay: echo positions and gains in impulse responses against a plain
// model of two band-limited feedback lines, Flush and the fade, and the
// tempo helper. The calling conventions are in the shared family suite.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <memory>
#include <numbers>

#include "support/signals.h"
#include "voice_harness.h"

namespace {

using namespace QorDelay_API_V1;
using R = QorDelayResult;
using qor::test::Signals;
constexpr double kPi = std::numbers::pi;

// Second-order Butterworth-Q high- or low-pass by the bilinear transform.
struct RefBiquad {
  double b0, b1, b2, a1, a2, x1 = 0, x2 = 0, y1 = 0, y2 = 0;
  RefBiquad(bool highPass, double f, double rate) {
    const double w = 2 * kPi * f / rate, alpha = std::sin(w) / std::sqrt(2.0), c = std::cos(w);
    const double g = (highPass ? 1 + c : 1 - c) / 2 / (1 + alpha);
    b0 = b2 = g, b1 = highPass ? -2 * g : 2 * g;
    a1 = -2 * c / (1 + alpha), a2 = (1 - alpha) / (1 + alpha);
  }
  double operator()(double x) {
    const double y = b0 * x + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
    x2 = x1, x1 = x, y2 = y1, y1 = y;
    return y;
  }
  double gain(double f, double rate) const {
    const std::complex<double> z = std::polar(1.0, -2 * kPi * f / rate);
    return std::abs((b0 + b1 * z + b2 * z * z) / (1.0 + a1 * z + a2 * z * z));
  }
};

std::pair<double, double> bandOf(int32_t preset) {
  return preset == 1 ? std::pair{80.0, 800.0} : preset == 2 ? std::pair{1000.0, 10000.0} : std::pair{60.0, 18000.0};
}

// Two circular lines read at their oldest sample, fed through the filters.
Signals referenceDelay(const Signals& in, const QorDelayParameters& p, double rate) {
  const auto [low, high] = bandOf(p.filterPreset);
  RefBiquad hp[2] = {{true, low, rate}, {true, low, rate}}, lp[2] = {{false, high, rate}, {false, high, rate}};
  const size_t len[2] = {static_cast<size_t>(std::floor(p.delayTimeLeftMs * rate / 1000 + 0.5)),
                         static_cast<size_t>(std::floor(p.delayTimeRightMs * rate / 1000 + 0.5))};
  std::vector<double> line[2] = {std::vector<double>(len[0]), std::vector<double>(len[1])};
  const double wet = std::sqrt(p.mix), dry = std::sqrt(1 - p.mix);
  const bool cross = p.pingPong == 1;
  Signals out = in;
  for (size_t t = 0; t < in[0].size(); ++t) {
    const double l = in[0][t], r = in[1][t], a = line[0][t % len[0]], b = line[1][t % len[1]];
    const double inA[4] = {l, r, l + r, 0}, inB[4] = {r, l, 0, l + r};
    line[0][t % len[0]] = lp[0](hp[0](inA[p.routing] * wet + p.feedback * (cross ? b : a)));
    line[1][t % len[1]] = lp[1](hp[1](inB[p.routing] * wet + p.feedback * (cross ? a : b)));
    out[0][t] = static_cast<float>(l * dry + a);
    out[1][t] = static_cast<float>(r * dry + b);
  }
  return out;
}

double energy(const std::vector<float>& x, size_t from, size_t to) {
  double e = 0;
  for (size_t n = from; n < to && n < x.size(); ++n) e += static_cast<double>(x[n]) * x[n];
  return e;
}

QorDelayParameters defaults() { return qor::test::defaultsOf<qor::test::DelayApi>(); }

class DelayTest : public ::testing::Test {
 protected:
  void make(QorDelayParameters p, uint32_t rate = 48000) { delay = std::make_unique<qor::test::Family<qor::test::DelayApi>>(p, 2, rate); }
  Signals run(const Signals& in) { return delay->run(in); }
  void update(QorDelayParameters p) { ASSERT_EQ(delay->update(p), R::Success); }
  static Signals impulses(size_t n, float left, float right) {
    return {qor::test::impulse(n, 0, left), qor::test::impulse(n, 0, right)};
  }

  std::unique_ptr<qor::test::Family<qor::test::DelayApi>> delay;
};

TEST_F(DelayTest, ImpulseResponseMatchesAPlainModelForEveryRouting) {
  QorDelayParameters p = defaults();
  p.delayTimeLeftMs = 250.0f, p.delayTimeRightMs = 130.0f, p.feedback = 0.6f, p.mix = 0.8f;
  for (int32_t routing : {0, 1, 2, 3}) {
    for (int32_t pingPong : {0, 1}) {
      p.routing = routing, p.pingPong = pingPong;
      make(p);
      const Signals in = {qor::test::whiteNoise(40000, 5, 0.5), qor::test::impulse(40000, 100, 0.7f)};
      const Signals out = run(in), ref = referenceDelay(in, p, 48000.0);
      for (int c = 0; c < 2; ++c) {
        for (size_t n = 0; n < out[c].size(); ++n) {
          ASSERT_NEAR(out[c][n], ref[c][n], 2e-5) << routing << "/" << pingPong << " ch " << c << " n " << n;
        }
      }
    }
  }
}

TEST_F(DelayTest, EchoesArriveAfterExactlyTheLineLength) {
  struct Case { uint32_t rate; float ms; size_t samples; };
  for (const Case c : {Case{48000, 400.0f, 19200}, Case{48000, 2000.0f, 96000},
                       Case{44100, 10.0f, 441}, Case{44100, 1234.5f, 54441},
                       // 500 ms at 44.1 kHz keeps the 24000 samples Init set up at
                       // 48 kHz: the settings compare equal, so nothing is redone.
                       Case{44100, 500.0f, 24000}}) {
    QorDelayParameters p = defaults();
    p.delayTimeLeftMs = c.ms;
    make(p, c.rate);
    const Signals out = run(impulses(c.samples + 200, 1.0f, 0.0f));
    EXPECT_NEAR(out[0][0], std::sqrt(0.5), 1e-6) << "equal-power dry share";
    EXPECT_EQ(energy(out[0], 1, c.samples), 0.0) << c.rate << " " << c.ms;
    EXPECT_NE(out[0][c.samples], 0.0f) << c.rate << " " << c.ms;
    EXPECT_EQ(energy(out[1], 0, c.samples + 200), 0.0) << "nothing crosses without ping-pong";
  }
}

class DelayBand : public DelayTest, public ::testing::WithParamInterface<int32_t> {};

// Echo k is the input filtered k times by the band limit, scaled by
// wet * feedback^(k-1); measured per echo below, inside and above the band.
TEST_P(DelayBand, EachRepeatIsFilteredOnceMore) {
  QorDelayParameters p = defaults();
  p.filterPreset = GetParam(), p.feedback = 0.6f, p.mix = 1.0f;
  make(p);
  const Signals out = run(impulses(19200 * 4, 1.0f, 0.0f));
  const auto [low, high] = bandOf(GetParam());
  const RefBiquad hp(true, low, 48000), lp(false, high, 48000);
  for (double f : {low * 0.5, std::sqrt(low * high), std::min(high * 2, 22000.0)}) {
    const double h = hp.gain(f, 48000) * lp.gain(f, 48000);
    for (int k = 1; k <= 3; ++k) {
      std::complex<double> bin = 0;
      for (size_t n = 0; n < 19200; ++n) bin += static_cast<double>(out[0][19200 * k + n]) * std::polar(1.0, -2 * kPi * f * n / 48000);
      const double expected = std::pow(0.6, k - 1) * std::pow(h, k);
      EXPECT_NEAR(std::abs(bin), expected, 0.01 * expected + 1e-6) << "f " << f << " echo " << k;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Presets, DelayBand, ::testing::Values(0, 1, 2));

TEST_F(DelayTest, OnlyAChangedTimeClearsItsLine) {
  QorDelayParameters p = defaults();
  constexpr size_t kFirst = 256 * 38, kEcho = 19200 - kFirst;  // whole blocks before the update
  for (bool changeTime : {false, true}) {
    make(p);
    run(impulses(kFirst, 1.0f, 1.0f));
    QorDelayParameters q = p;
    q.mix = 0.7f;
    if (changeTime) q.delayTimeRightMs = 300.0f;
    update(q);
    const Signals out = run(impulses(12000, 0.0f, 0.0f));
    EXPECT_GT(energy(out[0], kEcho, kEcho + 10), 0.1) << "line A kept";
    EXPECT_EQ(energy(out[1], kEcho, kEcho + 10) > 0.1, !changeTime) << "line B wiped on a new time";
  }
}

TEST_F(DelayTest, FlushAndFadeOutClearTheEchoes) {
  QorDelayParameters p = defaults();
  p.crossfadeTime = 5.0f;
  make(p);
  for (int round = 0; round < 2; ++round) {  // also after the core went inactive
    run(impulses(9600, 1.0f, 1.0f));
    ASSERT_EQ(delay->flush(), R::Success);
    const Signals out = run(impulses(40000, 0.0f, 0.0f));
    EXPECT_EQ(energy(out[0], 0, 40000) + energy(out[1], 0, 40000), 0.0) << round;
  }
  run(impulses(9600, 1.0f, 1.0f));
  p.enable = 0;
  update(p);
  const auto noise = qor::test::whiteNoise(4800, 9);
  EXPECT_EQ(run({noise, noise})[0][4799], noise[4799]) << "faded out to dry";
  p.enable = 1;
  update(p);
  EXPECT_EQ(energy(run(impulses(40000, 0.0f, 0.0f))[0], 0, 40000), 0.0) << "the fade-out wiped the lines";
}

TEST_F(DelayTest, NoteDurationsInHertz) {
  make(defaults());
  const double mods[] = {1.0, 2.0 / 3.0, 1.5, 1.75, 1.0};
  float out = -1.0f;
  for (float tempo : {60.0f, 97.0f, 120.0f}) {
    for (int32_t note = -3; note <= 7; ++note) {
      for (uint32_t mod = 0; mod <= 4; ++mod) {
        ASSERT_EQ(qorDelayGetNoteDurationInHertz(delay->inst, tempo, static_cast<QorDelayNoteDurations>(note),
                                                 static_cast<QorDelayNoteDurationMod>(mod), &out), R::Success);
        const double expected = 1000.0 / (60000.0 / tempo * std::pow(2.0, 2 - note) * mods[mod]);
        EXPECT_NEAR(out, expected, 1e-5 * expected) << tempo << " " << note << " " << mod;
      }
    }
  }
  EXPECT_EQ(qorDelayGetNoteDurationInHertz(delay->inst, 120, QorDelayNoteQuarter, QorDelayNotePlain, nullptr), R::ErrorNullPointer);
  ASSERT_EQ(qorDelayRelease(delay->inst), R::Success);
  EXPECT_EQ(qorDelayGetNoteDurationInHertz(delay->inst, 120, QorDelayNoteQuarter, QorDelayNotePlain, &out), R::ErrorNotInitialised);
}

}  // namespace
