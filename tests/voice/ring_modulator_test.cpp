// Ring modulator: carrier spectra and gain sequences measured on signals,
// and the bypass fade. The calling conventions are in the shared family suite.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

#include "support/signals.h"
#include "voice_harness.h"

namespace {

using namespace QorRingModulator_API_V1;
using R = QorRingModulatorResult;
using qor::test::Signals;
constexpr double kPi = std::numbers::pi;

double shaped(double mix) {
  return mix > 0.00001 && mix < 0.99999 ? 1.0 / (std::pow(10.0, -5.0 * (mix - 0.5)) + 1.0) : mix;
}
// Carrier position after n steps from phase 0, in cycles.
double cycles(double hz, size_t n) {
  const double inc = std::trunc(static_cast<float>(hz) * 256.0f / 48000.0f * 16777216.0f);
  return std::fmod(inc * static_cast<double>(n) / 4294967296.0, 1.0);
}
QorRingModulatorParameters params(float mix, int32_t waveform, float hz, float fadeMs = 50.0f,
                                  uint8_t enable = 1) {
  return {mix, waveform, hz, fadeMs, enable};
}

using Ring = qor::test::Family<qor::test::RingModulatorApi>;

class RingModulatorTest : public ::testing::Test {
 protected:
  void make(QorRingModulatorParameters p, uint32_t channels = 2) { fx = std::make_unique<Ring>(p, channels); }
  Signals run(const Signals& in) { return fx->run(in); }
  void update(QorRingModulatorParameters p) { ASSERT_EQ(fx->update(p), R::Success); }

  std::unique_ptr<Ring> fx;
};

TEST_F(RingModulatorTest, SineCarrierMovesTheVoiceToTheSidebandsAndMixEndsAreExact) {
  for (float mix : {1.0f, 0.7f}) {
    make(params(mix, QorRingModulatorSine, 400.0f));
    const auto voice = qor::test::sine(1000.0, 48000.0, 48000);
    const Signals out = run({voice, voice});
    const double m = shaped(mix);
    for (const auto& ch : out) {  // one carrier step per frame on every channel
      EXPECT_NEAR(qor::test::toneAmplitude(ch, 600.0, 48000.0), m / 2, 2e-3) << mix;
      EXPECT_NEAR(qor::test::toneAmplitude(ch, 1400.0, 48000.0), m / 2, 2e-3) << mix;
      EXPECT_NEAR(qor::test::toneAmplitude(ch, 1000.0, 48000.0), 1 - m, 2e-3) << mix;
      EXPECT_LT(qor::test::toneAmplitude(ch, 400.0, 48000.0), 1e-3) << "no carrier leak";
    }
  }
  // The mix ends: exactly the product, and the untouched voice.
  const auto voice = qor::test::whiteNoise(24000, 7);
  make(params(1.0f, QorRingModulatorSine, 777.0f), 1);
  const Signals product = run({voice});
  for (size_t n = 0; n < voice.size(); ++n) {
    ASSERT_NEAR(product[0][n], voice[n] * std::sin(2 * kPi * cycles(777.0, n)), 1e-4) << n;
  }
  make(params(0.0f, QorRingModulatorSquare, 100.0f), 3);
  const Signals three{voice, qor::test::whiteNoise(24000, 8), qor::test::whiteNoise(24000, 9)};
  EXPECT_EQ(run(three), three);
}

class RingModulatorSquare : public RingModulatorTest, public ::testing::WithParamInterface<float> {};

// A 1 Hz square carrier: the gain sits on +1, then on 1 - 2m' for half a second.
TEST_P(RingModulatorSquare, GainAlternatesEveryHalfSecond) {
  make(params(GetParam(), QorRingModulatorSquare, 1.0f), 2);
  const Signals out = run({std::vector<float>(96000, 1.0f), std::vector<float>(96000, -0.5f)});
  const double low = 1.0 - 2.0 * shaped(GetParam());
  for (size_t n = 0; n < 96000; n += 100) {
    const double t = cycles(1.0, n) * 256.0;  // away from the interpolated edges
    if (t > 127.0 && t < 128.0) continue;
    if (t > 255.0) continue;
    const double expected = t <= 127.0 ? 1.0 : low;
    ASSERT_NEAR(out[0][n], expected, 1e-5) << n;
    ASSERT_NEAR(out[1][n], -0.5 * expected, 1e-5) << n;
  }
}

INSTANTIATE_TEST_SUITE_P(Mixes, RingModulatorSquare, ::testing::Values(1.0f, 0.7f, 0.00002f));

TEST_F(RingModulatorTest, WaveformChangeKeepsTheCarrierPhase) {
  make(params(1.0f, QorRingModulatorSine, 60.0f), 1);
  run({std::vector<float>(1024, 1.0f)});
  update(params(1.0f, QorRingModulatorTriangle, 60.0f));
  Signals out = run({std::vector<float>(2560, 1.0f)});
  auto triangle = [](double c) { return c < 0.25 ? 4 * c : c < 0.75 ? 2 - 4 * c : 4 * c - 4; };
  for (size_t n = 0; n < 2560; n += 11) ASSERT_NEAR(out[0][n], triangle(cycles(60.0, 1024 + n)), 2e-3) << n;
  update(params(1.0f, 17, 60.0f));  // unknown waveforms play the sine
  out = run({std::vector<float>(2560, 1.0f)});
  for (size_t n = 0; n < 2560; n += 11) ASSERT_NEAR(out[0][n], std::sin(2 * kPi * cycles(60.0, 3584 + n)), 2e-4) << n;
}

TEST_F(RingModulatorTest, FlushAndFadeOutRewindTheCarrier) {
  make(params(1.0f, QorRingModulatorSine, 440.0f, 20.0f), 1);
  const Signals in{qor::test::whiteNoise(4800, 11)};
  const Signals first = run(in);
  run(in);
  ASSERT_EQ(fx->flush(), R::Success);
  EXPECT_EQ(run(in), first);

  // Switching off fades as (1 - m) dry + m wet, m falling to 1e-5 in 20 ms.
  update(params(1.0f, QorRingModulatorSine, 440.0f, 20.0f, 0));
  const Signals off = run(in);
  const double c = 1.0 - std::pow(1e-5, 1.0 / (0.020 * 48000.0));
  double m = 1.0;
  for (size_t n = 0; n < 960; ++n, m *= 1.0 - c) {
    const double wet = in[0][n] * std::sin(2 * kPi * cycles(440.0, 4864 + n));
    ASSERT_NEAR(off[0][n], (1 - m) * in[0][n] + m * wet, 1e-4) << n;
  }
  for (size_t n = 1024; n < 4800; ++n) ASSERT_EQ(off[0][n], in[0][n]) << n;
  update(params(1.0f, QorRingModulatorSine, 440.0f, 0.0f, 1));
  const Signals on = run(in);
  EXPECT_EQ(on[0][0], in[0][0]) << "the first sample still uses mix 0";
  for (size_t n = 1; n < 4800; ++n) ASSERT_EQ(on[0][n], first[0][n]) << "carrier restarted, " << n;
}

}  // namespace
