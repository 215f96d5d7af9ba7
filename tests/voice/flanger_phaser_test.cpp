// Flanger/phaser: impulse and frequency responses against plain models of
// the swept combs and the all-pass chain, pending settings and the abrupt
// switch-off. The calling conventions are in the shared family suite.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <memory>
#include <numbers>

#include "support/signals.h"
#include "voice_harness.h"

namespace {

using namespace QorFlangerPhaser_API_V1;
using R = QorFlangerPhaserResult;
using qor::test::Signals;
constexpr double kPi = std::numbers::pi;

QorFlangerPhaserParameters params(int32_t mode, float depth, float rate, float fadeMs = 50.0f,
                                  uint8_t enable = 1) {
  return {mode, depth, rate, fadeMs, enable};
}

using Flanger = qor::test::Family<qor::test::FlangerPhaserApi>;

class FlangerPhaserTest : public ::testing::Test {
 protected:
  void make(QorFlangerPhaserParameters p, uint32_t channels = 2) { fx = std::make_unique<Flanger>(p, channels); }
  Signals run(const Signals& in) { return fx->run(in); }
  void update(QorFlangerPhaserParameters p) { ASSERT_EQ(fx->update(p), R::Success); }

  std::unique_ptr<Flanger> fx;
};

// Comb gains of a depth.
struct Comb { double g, wet, dry; };
Comb combFor(double depth) {
  const double g = 0.64 + 0.36 * (1 - depth * depth);
  return {g, (1 - g * g) * depth, -g};
}

// The three-tap comb written out with closed-form curves, in double.
std::vector<float> referenceFlanger(const std::vector<float>& x, double depth, double tapHz,
                                    double rate) {
  const Comb k = combFor(depth);
  const size_t len = static_cast<size_t>(std::floor(5.0 * rate / 1000 + 0.5));
  std::vector<double> v(x.size());
  auto at = [&](size_t n, double d) {  // v delayed by d samples, linear
    const double i = std::floor(d), a = d - i;
    auto get = [&](double j) { return n >= j ? v[n - static_cast<size_t>(j)] : 0.0; };
    return (1 - a) * get(i) + a * get(i + 1);
  };
  auto curve = [](int j, double p, bool gain) {
    auto point = [&](double m) {
      if (gain) {
        const double off[3] = {-kPi / 2, kPi / 6, 5 * kPi / 6};
        return std::sin(2 * kPi * m / 8192 + off[j]);
      }
      const double d = m / 8191 + j / 3.0;
      return d > 1 ? d - 1 : d;
    };
    const double i = std::floor(p), a = p - i;
    return (1 - a) * point(i) + a * point(std::fmod(i + 1, 8192));
  };
  std::vector<float> out(x.size());
  float phase = 0.0f;
  const float inc = static_cast<float>(tapHz) * 8192.0f / static_cast<float>(rate);
  for (size_t n = 0; n < x.size(); ++n) {
    phase += inc;
    if (phase >= 8192.0f) phase -= 8192.0f;
    if (phase < 0.0f) phase += 8192.0f;
    v[n] = x[n] + k.g * at(n, len / 2.0);
    double y = 0;
    for (int j = 0; j < 3; ++j) {
      y += at(n, static_cast<float>(curve(j, phase, false)) * static_cast<double>(len)) *
           (static_cast<float>(curve(j, phase, true)) + 1.0);
    }
    out[n] = static_cast<float>(y * k.wet + x[n] * k.dry);
  }
  return out;
}

TEST_F(FlangerPhaserTest, FrozenSineTapIsAnAllPassComb) {
  for (float depth : {1.0f, 0.5f, 0.0f}) {
    // Rate 0 holds the tap at mid-line (120 samples), right on the feedback
    // tap: (dry + (wet - dry g) z^-D) / (1 - g z^-D); depth 0 inverts.
    make(params(QorFlangerPhaserFlangerSine, depth, 0.0f));
    const Signals out = run({qor::test::impulse(1200), qor::test::impulse(1200, 0, 0.5f)});
    const Comb k = combFor(depth);
    for (size_t n = 0; n < 1200; ++n) {
      double expected = n == 0 ? k.dry : 0.0;
      if (n > 0 && n % 120 == 0) expected = k.wet * std::pow(k.g, n / 120 - 1);
      ASSERT_NEAR(out[0][n], expected, 1e-6) << depth << " " << n;
      ASSERT_NEAR(out[1][n], 0.5 * expected, 1e-6) << depth << " " << n;
    }
  }
}

TEST_F(FlangerPhaserTest, ThreeTapCombsFollowTheirSweepDirection) {
  // Mode 1 sweeps the taps forwards at rate/3, mode 0 backwards; both wrap.
  const auto x = qor::test::whiteNoise(48000, 5, 0.5);
  for (const auto& [mode, sign] : {std::pair{1, 1.0}, std::pair{0, -1.0}}) {
    for (float rate : {0.0f, 5.0f}) {
      make(params(mode, 0.8f, rate), 1);
      const Signals out = run({x});
      const auto ref = referenceFlanger(x, 0.8, sign * rate / 3.0, 48000.0);
      for (size_t n = 0; n < x.size(); ++n) {
        ASSERT_NEAR(out[0][n], ref[n], 1e-4) << "mode " << mode << " rate " << rate << " n " << n;
      }
    }
  }
}

// Phaser: dry + wet A / (1 - fb z^-1 A), A the chain of swept all-passes.
struct PhaserModel {
  int stages;
  double feedback;
  double rate;
  std::complex<double> response(double f, double index, double depth) const {
    const double logLow = std::log10(200.0);
    const double step = (std::log10(1600.0) - logLow) / (stages - 1);
    const std::complex<double> z1 = std::polar(1.0, -2 * kPi * f / rate);
    std::complex<double> a = 1.0;
    for (int s = 0; s < stages; ++s) {
      auto design = [&](double fc) {
        const double w = 2 * kPi * fc / rate, alpha = std::sin(w) / (2 * 0.25);
        const double a0 = 1 + alpha;
        return std::array<double, 2>{(1 - alpha) / a0, -2 * std::cos(w) / a0};  // b0 = a2, b1 = a1
      };
      const auto c0 = design(std::pow(10.0, logLow + s * step));
      const auto c1 = design(std::pow(10.0, logLow + (s + 1) * step));
      const double t = index / 511.0;
      const double p = c0[0] + (c1[0] - c0[0]) * t, q = c0[1] + (c1[1] - c0[1]) * t;
      a *= (p + q * z1 + z1 * z1) / (1.0 + q * z1 + p * z1 * z1);
    }
    const double wet = depth / 2, dry = 1 - depth / 2, fb = std::sqrt(depth) * feedback;
    return dry + wet * a / (1.0 - fb * z1 * a);
  }
};

class PhaserModes : public FlangerPhaserTest, public ::testing::WithParamInterface<int32_t> {
 protected:
  PhaserModel model() const {
    const int32_t k = GetParam() - 3;
    return {std::array{4, 6, 10}[k], std::array{0.7, 0.8, 0.9}[k], 48000.0};
  }
};

TEST_P(PhaserModes, NotchesMoveWithTheSweep) {
  // The tone the model says a notch sweeps over most widely, away from the
  // sharp feedback resonances.
  double tone = 0, swing = 0;
  for (double f = 200; f <= 2000; f += 50) {
    double lo = 10, hi = 0;
    for (int index = 0; index < 512; index += 8) {
      const double g = std::abs(model().response(f, index, 1.0));
      lo = std::min(lo, g), hi = std::max(hi, g);
    }
    if (hi < 1.5 && hi - lo > swing) swing = hi - lo, tone = f;
  }
  ASSERT_GT(swing, 0.5);
  // A steady tone through one slow sweep cycle: its level follows the
  // response at the sweep's current table entry.
  constexpr float kRate = 0.25f;
  make(params(GetParam(), 1.0f, kRate), 1);
  const Signals out = run({qor::test::sine(tone, 48000.0, 192000)});
  const double inc = std::trunc(kRate * 256.0f / 48000.0f * 16777216.0f) / 4294967296.0;
  double lowest = 10, highest = 0;
  for (size_t w = 10; w < 400; ++w) {  // 10 ms windows after the first 100 ms
    const size_t from = w * 480;
    const double measured = qor::test::toneAmplitude(out[0], tone, 48000.0, from, from + 480);
    const double lfo = std::sin(2 * kPi * inc * (from + 240));
    const double index = std::floor((lfo + 1) * 0.5 * 511 + 0.5);
    const double expected = std::abs(model().response(tone, index, 1.0));
    // Quasi-static: the sweep moves while the resonances ring.
    EXPECT_NEAR(measured, expected, 0.05 * expected + 0.03) << tone << " Hz, window " << w;
    lowest = std::min(lowest, measured);
    highest = std::max(highest, measured);
  }
  EXPECT_GT(highest - lowest, 0.5 * swing) << "a notch sweeps across " << tone << " Hz";
}

INSTANTIATE_TEST_SUITE_P(Phasers, PhaserModes, ::testing::Values(3, 4, 5));

TEST_F(FlangerPhaserTest, ModeChangeResetsButDepthChangeKeepsTheLine) {
  make(params(QorFlangerPhaserFlangerForward, 1.0f, 1.0f), 1);
  const Signals noise{qor::test::whiteNoise(2560, 8)};
  const Signals silence{std::vector<float>(2560, 0.0f)};
  run(noise);
  update(params(QorFlangerPhaserFlangerForward, 0.5f, 1.0f));
  EXPECT_GT(qor::test::rms(run(silence)[0]), 1e-3) << "same mode: the comb rings on";

  run(noise);
  update(params(QorFlangerPhaserFlangerSine, 0.5f, 1.0f));
  EXPECT_EQ(qor::test::rms(run(silence)[0]), 0.0) << "new mode: cleared lines";

  update(params(QorFlangerPhaserPhaser10, 1.0f, 1.0f));
  run(noise);
  update(params(QorFlangerPhaserPhaser6, 1.0f, 1.0f));
  EXPECT_EQ(qor::test::rms(run(silence)[0]), 0.0) << "new phaser mode: cleared stages";
}

TEST_F(FlangerPhaserTest, SwitchOffIsAbruptAndRestartsClean) {
  make(params(QorFlangerPhaserPhaser4, 1.0f, 2.0f, 100.0f), 2);
  const Signals in{qor::test::whiteNoise(4096, 31), qor::test::whiteNoise(4096, 32)};
  const Signals first = run(in);
  run(in);
  ASSERT_EQ(fx->flush(), R::Success);
  EXPECT_EQ(run(in), first) << "Flush returns to the initial state";
  update(params(QorFlangerPhaserPhaser4, 1.0f, 2.0f, 100.0f, 0));
  // No audible fade: the running crossfade blends the dry signal with itself.
  const Signals off = run(in);
  for (int c = 0; c < 2; ++c) {
    for (size_t n = 0; n < in[c].size(); ++n) ASSERT_NEAR(off[c][n], in[c][n], 1e-6) << c << " " << n;
  }
  run(in);  // the 100 ms fade completes
  update(params(QorFlangerPhaserPhaser4, 1.0f, 2.0f, 0.0f, 1));
  const Signals again = run(in);
  EXPECT_EQ(again[0][0], in[0][0]) << "the fade's first sample still uses mix 0";
  for (int c = 0; c < 2; ++c) {
    for (size_t n = 1; n < in[c].size(); ++n) ASSERT_EQ(again[c][n], first[c][n]) << c << " " << n;
  }
}

// An unknown mode is stored but the old mode plays on (Init, running the
// same update, refuses it); a range failure refuses before copying anything.
TEST_F(FlangerPhaserTest, RefusedModeIsStoredButNotPlayed) {
  make(params(QorFlangerPhaserPhaser6, 0.9f, 0.5f), 1);
  const Signals in{qor::test::whiteNoise(5000, 51)};
  const QorFlangerPhaserParameters initial = fx->config.parameters, bad = params(6, 0.2f, 3.0f);
  EXPECT_EQ(fx->update(bad), R::ErrorMode);
  EXPECT_EQ(fx->update(params(1, 1.5f, 1.0f)), R::ErrorDepth);
  const QorFlangerPhaserParameters now = fx->parameters();
  EXPECT_TRUE(now.mode == 6 && now.depth == 0.2f);
  const Signals out = run(in);
  make(initial, 1);
  EXPECT_EQ(out, run(in)) << "still the 6-stage phaser at the old depth and rate";
  const QorFlangerPhaserConfig sixth{48000, 256, 1, 48000, 256, 1, bad};
  size_t size = 0;
  ASSERT_EQ(qorFlangerPhaserGetInstanceSize(&sixth, &size), R::Success);
  qor::test::InstanceMemory memory(size);
  EXPECT_EQ(qorFlangerPhaserInit(memory.as<QorFlangerPhaserInst>(), &sixth), R::ErrorMode);
}

}  // namespace
