// Delay: echo positions and gains in impulse responses against a plain
// model of two band-limited feedback lines, routing and ping-pong, the tempo
// helper, and the calling conventions.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <numbers>

#include "block_runner.h"
#include "dsp/core/instance.h"
#include "dsp/voice/delay.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace QorDelay_API_V1;
using R = QorDelayResult;
using qor::test::Signals;
constexpr double kPi = std::numbers::pi;

// Second-order Butterworth-Q high- or low-pass by the bilinear transform.
struct RefBiquad {
  double b[3]{}, a[3]{};
  double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
  RefBiquad(bool highPass, double f, double rate) {
    const double w = 2 * kPi * f / rate, alpha = std::sin(w) / std::sqrt(2.0), c = std::cos(w);
    const double a0 = 1 + alpha;
    const double g = highPass ? (1 + c) / 2 : (1 - c) / 2;
    b[0] = g / a0;
    b[1] = (highPass ? -2 * g : 2 * g) / a0;
    b[2] = g / a0;
    a[1] = -2 * c / a0;
    a[2] = (1 - alpha) / a0;
  }
  double operator()(double x) {
    const double y = b[0] * x + b[1] * x1 + b[2] * x2 - a[1] * y1 - a[2] * y2;
    x2 = x1, x1 = x, y2 = y1, y1 = y;
    return y;
  }
  std::complex<double> response(double f, double rate) const {
    const std::complex<double> z1 = std::polar(1.0, -2 * kPi * f / rate);
    return (b[0] + b[1] * z1 + b[2] * z1 * z1) / (1.0 + a[1] * z1 + a[2] * z1 * z1);
  }
};

struct Band { double low, high; };
Band bandOf(int32_t preset) {
  if (preset == 1) return {80, 800};
  if (preset == 2) return {1000, 10000};
  return {60, 18000};
}

// Two circular lines read at their oldest sample, fed through the filters.
Signals referenceDelay(const Signals& in, const QorDelayParameters& p, double rate) {
  const Band band = bandOf(p.filterPreset);
  RefBiquad hp[2] = {{true, band.low, rate}, {true, band.low, rate}};
  RefBiquad lp[2] = {{false, band.high, rate}, {false, band.high, rate}};
  const size_t len[2] = {static_cast<size_t>(std::floor(p.delayTimeLeftMs * rate / 1000 + 0.5)),
                         static_cast<size_t>(std::floor(p.delayTimeRightMs * rate / 1000 + 0.5))};
  std::vector<double> line[2] = {std::vector<double>(len[0]), std::vector<double>(len[1])};
  const double wet = std::sqrt(p.mix), dry = std::sqrt(1 - p.mix);
  Signals out = in;
  for (size_t t = 0; t < in[0].size(); ++t) {
    const double l = in[0][t], r = in[1][t];
    const double a = line[0][t % len[0]], b = line[1][t % len[1]];
    double inA = 0, inB = 0;
    switch (p.routing) {
      case 1: inA = r, inB = l; break;
      case 2: inA = l + r; break;
      case 3: inB = l + r; break;
      default: inA = l, inB = r; break;
    }
    const bool cross = p.pingPong == 1;
    line[0][t % len[0]] = lp[0](hp[0](inA * wet + p.feedback * (cross ? b : a)));
    line[1][t % len[1]] = lp[1](hp[1](inB * wet + p.feedback * (cross ? a : b)));
    out[0][t] = static_cast<float>(l * dry + a);
    out[1][t] = static_cast<float>(r * dry + b);
  }
  return out;
}

// |sum x[n] e^{-jwn}| over [from, to).
double bin(const std::vector<float>& x, size_t from, size_t to, double f, double rate) {
  std::complex<double> s = 0;
  for (size_t n = from; n < to; ++n) s += static_cast<double>(x[n]) * std::polar(1.0, -2 * kPi * f * (n - from) / rate);
  return std::abs(s);
}

double energy(const std::vector<float>& x, size_t from, size_t to) {
  double e = 0;
  for (size_t n = from; n < to && n < x.size(); ++n) e += static_cast<double>(x[n]) * x[n];
  return e;
}

QorDelayParameters defaults() {
  QorDelayParameters p{};
  qorDelayGetDefaultParameters(&p);
  return p;
}

class DelayTest : public ::testing::Test {
 protected:
  void make(QorDelayParameters p, uint32_t rate = 48000, uint32_t block = 256) {
    config = QorDelayConfig{rate, block, 2, rate, block, 2, p};
    size_t size = 0;
    ASSERT_EQ(qorDelayGetInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<qor::test::InstanceMemory>(size);
    inst = memory->as<QorDelayInst>();
    ASSERT_EQ(qorDelayInit(inst, &config), R::Success);
  }
  Signals run(const Signals& in) {
    return qor::test::runBlocks(in, config.inputBlockSize,
                                [&](float** ch) { return qorDelayProcess(inst, ch); });
  }
  void update(QorDelayParameters p) { ASSERT_EQ(qorDelayUpdateParameters(inst, &p), R::Success); }
  static Signals impulses(size_t n, float left, float right) {
    return {qor::test::impulse(n, 0, left), qor::test::impulse(n, 0, right)};
  }

  QorDelayConfig config{};
  std::unique_ptr<qor::test::InstanceMemory> memory;
  QorDelayInst* inst = nullptr;
};

TEST_F(DelayTest, DefaultsAreA400MsEchoAtHalfMix) {
  const QorDelayParameters p = defaults();
  EXPECT_EQ(p.routing, 0);
  EXPECT_EQ(p.pingPong, 0);
  EXPECT_EQ(p.filterPreset, 0);
  EXPECT_FLOAT_EQ(p.delayTimeLeftMs, 400.0f);
  EXPECT_FLOAT_EQ(p.delayTimeRightMs, 400.0f);
  EXPECT_FLOAT_EQ(p.feedback, 0.2f);
  EXPECT_FLOAT_EQ(p.mix, 0.5f);
  EXPECT_FLOAT_EQ(p.crossfadeTime, 50.0f);
  EXPECT_EQ(p.enable, 1);
}

TEST_F(DelayTest, FirstEchoArrivesAfterExactlyTheLineLength) {
  make(defaults());
  const Signals out = run(impulses(48000, 1.0f, 0.0f));
  EXPECT_NEAR(out[0][0], std::sqrt(0.5), 1e-6) << "dry share";
  for (size_t n = 1; n < 19200; ++n) ASSERT_EQ(out[0][n], 0.0f) << n;
  EXPECT_NE(out[0][19200], 0.0f) << "400 ms at 48 kHz is 19200 samples";
  EXPECT_EQ(energy(out[1], 0, 48000), 0.0) << "nothing crosses without ping-pong";
}

TEST_F(DelayTest, ImpulseResponseMatchesAPlainModel) {
  QorDelayParameters p = defaults();
  p.delayTimeLeftMs = 250.0f;
  p.delayTimeRightMs = 130.0f;
  p.feedback = 0.6f;
  p.mix = 0.8f;
  for (int32_t routing : {0, 1, 2, 3}) {
    for (int32_t pingPong : {0, 1}) {
      p.routing = routing;
      p.pingPong = pingPong;
      make(p);
      const Signals in = {qor::test::whiteNoise(40000, 5, 0.5), qor::test::impulse(40000, 100, 0.7f)};
      const Signals out = run(in);
      const Signals ref = referenceDelay(in, p, 48000.0);
      for (int c = 0; c < 2; ++c) {
        for (size_t n = 0; n < out[c].size(); ++n) {
          ASSERT_NEAR(out[c][n], ref[c][n], 2e-5) << "routing " << routing << " ping-pong "
                                                   << pingPong << " ch " << c << " n " << n;
        }
      }
    }
  }
}

class DelayBand : public DelayTest, public ::testing::WithParamInterface<int32_t> {};

// Echo k is the input filtered k times by the band limit, scaled by
// wet * feedback^(k-1); measured per echo at a pass and a stop frequency.
TEST_P(DelayBand, EachRepeatIsFilteredOnceMore) {
  QorDelayParameters p = defaults();
  p.filterPreset = GetParam();
  p.feedback = 0.6f;
  p.mix = 1.0f;
  make(p);
  const Signals out = run(impulses(19200 * 4, 1.0f, 0.0f));
  const Band band = bandOf(GetParam());
  const RefBiquad hp(true, band.low, 48000), lp(false, band.high, 48000);
  for (double f : {band.low * 0.5, std::sqrt(band.low * band.high), std::min(band.high * 2, 22000.0)}) {
    const double h = std::abs(hp.response(f, 48000) * lp.response(f, 48000));
    for (int k = 1; k <= 3; ++k) {
      const double measured = bin(out[0], 19200 * k, 19200 * (k + 1), f, 48000);
      const double expected = std::pow(0.6, k - 1) * std::pow(h, k);
      EXPECT_NEAR(measured, expected, 0.01 * expected + 1e-6)
          << "preset " << GetParam() << " f " << f << " echo " << k;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Presets, DelayBand, ::testing::Values(0, 1, 2));

TEST_F(DelayTest, UnknownPresetActsAsTheWideBand) {
  QorDelayParameters p = defaults();
  p.filterPreset = 7;
  make(p);
  const Signals a = run(impulses(40000, 1.0f, 0.3f));
  p.filterPreset = 0;
  make(p);
  EXPECT_EQ(run(impulses(40000, 1.0f, 0.3f)), a);
}

TEST_F(DelayTest, PingPongAlternatesBetweenTheSides) {
  QorDelayParameters p = defaults();
  p.routing = 2;
  p.pingPong = 1;
  p.feedback = 0.5f;
  make(p);
  const Signals out = run(impulses(19200 * 5, 1.0f, 0.0f));
  for (size_t k = 1; k <= 4; ++k) {
    const size_t from = 19200 * k, to = from + 19200;
    const bool onLeft = k % 2 == 1;
    EXPECT_GT(energy(out[onLeft ? 0 : 1], from, to), 1e-3) << "echo " << k;
    // Only the far tail of the band filters' ringing may leak across.
    EXPECT_LT(energy(out[onLeft ? 1 : 0], from, to), 1e-20) << "echo " << k;
  }
}

TEST_F(DelayTest, RoutingChoosesTheLineAndEachLineItsOwnTime) {
  QorDelayParameters p = defaults();
  p.delayTimeLeftMs = 300.0f;
  p.delayTimeRightMs = 500.0f;
  p.feedback = 0.0f;
  struct Case { int32_t routing; size_t left, right; };  // echo sample, 0 = none
  for (const Case c : {Case{0, 14400, 0}, Case{1, 0, 24000}, Case{2, 14400, 0}, Case{3, 0, 24000}}) {
    p.routing = c.routing;
    make(p);
    const Signals out = run(impulses(30000, 1.0f, 0.0f));
    for (int ch = 0; ch < 2; ++ch) {
      const size_t at = ch == 0 ? c.left : c.right;
      const double e = energy(out[ch], 1, 30000);
      if (at == 0) {
        EXPECT_EQ(e, 0.0) << "routing " << c.routing << " ch " << ch;
      } else {
        EXPECT_EQ(energy(out[ch], 1, at), 0.0) << "routing " << c.routing << " ch " << ch;
        EXPECT_GT(energy(out[ch], at, at + 10), 0.1 * e) << "routing " << c.routing << " ch " << ch;
      }
    }
  }
}

TEST_F(DelayTest, LineLengthsFollowTheRate) {
  struct Case { uint32_t rate; float ms; size_t samples; };
  for (const Case c : {Case{48000, 2000.0f, 96000}, Case{44100, 10.0f, 441}, Case{48000, 10.0f, 480},
                       Case{44100, 1234.5f, 54441}}) {
    QorDelayParameters p = defaults();
    p.delayTimeLeftMs = c.ms;
    p.feedback = 0.0f;
    make(p, c.rate);
    const Signals out = run(impulses(c.samples + 200, 1.0f, 0.0f));
    EXPECT_EQ(energy(out[0], 1, c.samples), 0.0) << c.rate << " " << c.ms;
    EXPECT_NE(out[0][c.samples], 0.0f) << c.rate << " " << c.ms;
  }
}

TEST_F(DelayTest, At44100AnInitialHalfSecondKeepsTheLengthSetAt48k) {
  QorDelayParameters p = defaults();
  p.delayTimeLeftMs = 500.0f;
  p.feedback = 0.0f;
  make(p, 44100);
  const Signals out = run(impulses(26000, 1.0f, 0.0f));
  EXPECT_EQ(energy(out[0], 1, 24000), 0.0);
  EXPECT_NE(out[0][24000], 0.0f) << "24000 samples, not 22050";
  // A changed time takes effect at the real rate.
  p.delayTimeLeftMs = 400.0f;
  update(p);
  const Signals again = run(impulses(18000, 1.0f, 0.0f));
  EXPECT_NE(again[0][17640], 0.0f);
}

TEST_F(DelayTest, EqualPowerMix) {
  for (float mix : {0.0f, 0.25f, 0.5f, 1.0f}) {
    QorDelayParameters p = defaults();
    p.mix = mix;
    p.filterPreset = 0;
    make(p);
    const auto tone = qor::test::sine(1000.0, 48000.0, 96000, 0.5);
    const Signals in{tone, tone};
    const Signals out = run(in);
    // Before the first echo only the dry share is heard.
    EXPECT_NEAR(qor::test::toneAmplitude(out[0], 1000.0, 48000.0, 0, 19200), 0.5 * std::sqrt(1 - mix),
                2e-3) << mix;
    if (mix == 0.0f) {
      EXPECT_EQ(out, in) << "dry only";
    }
  }
}

TEST_F(DelayTest, OnlyAChangedTimeClearsItsLine) {
  QorDelayParameters p = defaults();
  p.feedback = 0.0f;
  constexpr size_t kFirst = 256 * 38;       // whole blocks before the update
  constexpr size_t kEcho = 19200 - kFirst;  // where the echo falls afterwards
  make(p);
  run(impulses(kFirst, 1.0f, 1.0f));
  p.mix = 0.7f;  // echoes already in the lines stay
  update(p);
  Signals out = run(impulses(12000, 0.0f, 0.0f));
  EXPECT_EQ(energy(out[0], 0, kEcho), 0.0);
  EXPECT_GT(energy(out[0], kEcho, kEcho + 10), 0.1);
  EXPECT_GT(energy(out[1], kEcho, kEcho + 10), 0.1);

  make(p);
  run(impulses(kFirst, 1.0f, 1.0f));
  p.delayTimeRightMs = 300.0f;
  update(p);
  out = run(impulses(12000, 0.0f, 0.0f));
  EXPECT_GT(energy(out[0], kEcho, kEcho + 10), 0.1) << "line A kept";
  EXPECT_EQ(energy(out[1], 0, 12000), 0.0) << "line B wiped";
}

TEST_F(DelayTest, FlushAndFadeOutClearTheEchoes) {
  QorDelayParameters p = defaults();
  p.crossfadeTime = 5.0f;
  make(p);
  run(impulses(9600, 1.0f, 1.0f));
  ASSERT_EQ(qorDelayFlush(inst), R::Success);
  Signals out = run(impulses(40000, 0.0f, 0.0f));
  EXPECT_EQ(energy(out[0], 0, 40000) + energy(out[1], 0, 40000), 0.0);
  // Flush twice in a row with audio between: still clears.
  run(impulses(9600, 1.0f, 1.0f));
  ASSERT_EQ(qorDelayFlush(inst), R::Success);
  out = run(impulses(40000, 0.0f, 0.0f));
  EXPECT_EQ(energy(out[0], 0, 40000), 0.0);

  run(impulses(9600, 1.0f, 1.0f));
  p.enable = 0;
  update(p);
  const auto tone = qor::test::whiteNoise(4800, 9);
  out = run({tone, tone});
  EXPECT_EQ(out[0][4799], tone[4799]) << "faded out to dry";
  p.enable = 1;
  update(p);
  out = run(impulses(40000, 0.0f, 0.0f));
  EXPECT_EQ(energy(out[0], 0, 40000), 0.0) << "the fade-out wiped the lines";
}

TEST_F(DelayTest, DisabledDelayPassesUntouched) {
  QorDelayParameters p = defaults();
  p.enable = 0;
  make(p);
  const Signals in{qor::test::whiteNoise(30000, 3), qor::test::whiteNoise(30000, 4)};
  EXPECT_EQ(run(in), in);
}

TEST_F(DelayTest, NoteDurationsInHertz) {
  make(defaults());
  auto hz = [&](float tempo, int32_t note, uint32_t mod) {
    float out = -1.0f;
    EXPECT_EQ(qorDelayGetNoteDurationInHertz(inst, tempo, static_cast<QorDelayNoteDurations>(note),
                                             static_cast<QorDelayNoteDurationMod>(mod), &out),
              R::Success);
    return out;
  };
  EXPECT_NEAR(hz(120, 2, 0), 2.0, 1e-6);
  EXPECT_NEAR(hz(120, 3, 2), 1000.0 / 375.0, 1e-5);
  EXPECT_NEAR(hz(120, 2, 1), 3.0, 1e-5);
  const double mods[] = {1.0, 2.0 / 3.0, 1.5, 1.75, 1.0};
  for (float tempo : {60.0f, 97.0f, 174.0f}) {
    for (int32_t note = -3; note <= 7; ++note) {
      for (uint32_t mod = 0; mod <= 4; ++mod) {
        const double ms = 60000.0 / tempo * std::pow(2.0, 2 - note) * mods[mod];
        EXPECT_NEAR(hz(tempo, note, mod), 1000.0 / ms, 1e-5 * 1000.0 / ms)
            << tempo << " " << note << " " << mod;
      }
    }
  }
  float out = 0;
  EXPECT_EQ(qorDelayGetNoteDurationInHertz(inst, 120, QorDelayNoteQuarter, QorDelayNotePlain, nullptr),
            R::ErrorNullPointer);
  ASSERT_EQ(qorDelayRelease(inst), R::Success);
  EXPECT_EQ(qorDelayGetNoteDurationInHertz(inst, 120, QorDelayNoteQuarter, QorDelayNotePlain, &out),
            R::ErrorNotInitialised);
}

TEST(DelaySize, IsTheDryBuffersPlusCoreAndTwoSecondLines) {
  for (uint32_t rate : {44100u, 48000u}) {
    for (uint32_t block : {128u, 130u, 256u, 4096u}) {
      QorDelayConfig c{rate, block, 2, rate, block, 2, defaults()};
      size_t size = 0;
      ASSERT_EQ(qorDelayGetInstanceSize(&c, &size), R::Success);
      const size_t cap = rate * 2;
      EXPECT_EQ(size, qor::roundUp32(block * 2 * 4) + 128 + ((8 * cap + 1823) / 32 * 32))
          << rate << " " << block;
    }
  }
}

TEST(DelayChecks, ConfigurationAndParameterCodes) {
  const QorDelayConfig good{48000, 256, 2, 48000, 256, 2, defaults()};
  size_t size = 0;
  auto with = [&](auto change) {
    QorDelayConfig c = good;
    change(c);
    return qorDelayGetInstanceSize(&c, &size);
  };
  EXPECT_EQ(with([](auto&) {}), R::Success);
  EXPECT_EQ(with([](auto& c) { c.inputSampleRate = 96000; }), R::ErrorSampleRate);
  EXPECT_EQ(with([](auto& c) { c.inputSampleRate = 44100; }), R::Success);
  EXPECT_EQ(with([](auto& c) { c.outputSampleRate = 8000; c.outputBlockSize = 7; }), R::Success)
      << "output rate and block are not checked";
  EXPECT_EQ(with([](auto& c) { c.inputBlockSize = 127; }), R::ErrorBlockSize);
  EXPECT_EQ(with([](auto& c) { c.inputBlockSize = 4097; }), R::ErrorBlockSize);
  EXPECT_EQ(with([](auto& c) { c.inputChannels = 1; }), R::ErrorInputChannels);
  EXPECT_EQ(with([](auto& c) { c.outputChannels = 1; }), R::ErrorOutputChannels);
  EXPECT_EQ(with([](auto& c) { c.inputBlockSize = 1; c.inputChannels = 1; }), R::ErrorBlockSize);
  EXPECT_EQ(with([](auto& c) { c.parameters.delayTimeLeftMs = 9.9f; }), R::ErrorDelayTimeLeft);
  EXPECT_EQ(with([](auto& c) { c.parameters.delayTimeRightMs = 2001.0f; }), R::ErrorDelayTimeRight);
  EXPECT_EQ(with([](auto& c) { c.parameters.feedback = 0.61f; }), R::ErrorFeedback);
  EXPECT_EQ(with([](auto& c) { c.parameters.mix = -0.1f; }), R::ErrorMix);
  EXPECT_EQ(with([](auto& c) { c.parameters.crossfadeTime = 101.0f; }), R::ErrorCrossfadeTime);
  EXPECT_EQ(with([](auto& c) { c.parameters.routing = 9; c.parameters.filterPreset = -4; }), R::Success);
  EXPECT_EQ(with([](auto& c) { c.parameters.feedback = std::nanf(""); }), R::Success);
  EXPECT_EQ(with([](auto& c) {
              c.parameters.delayTimeRightMs = 0.0f;
              c.parameters.delayTimeLeftMs = 0.0f;
            }),
            R::ErrorDelayTimeLeft) << "checks run in order";
  EXPECT_EQ(static_cast<int32_t>(R::ErrorDelayTimeLeft), -1005003);
  EXPECT_EQ(static_cast<int32_t>(R::ErrorCrossfadeTime), -1005007);
}

TEST_F(DelayTest, RefusedUpdateAndLifecycle) {
  make(defaults());
  QorDelayParameters bad = defaults();
  bad.mix = 0.3f;
  bad.feedback = 0.9f;
  EXPECT_EQ(qorDelayUpdateParameters(inst, &bad), R::ErrorFeedback);
  QorDelayParameters now{};
  ASSERT_EQ(qorDelayGetParameters(inst, &now), R::Success);
  EXPECT_EQ(now.mix, 0.5f);
  EXPECT_EQ(now.feedback, 0.2f);
  EXPECT_EQ(qorDelayInit(inst, &config), R::ErrorAlreadyInitialised);
  int latency = -1;
  EXPECT_EQ(qorDelayGetCurrentLatency(inst, &latency), R::Success);
  EXPECT_EQ(latency, 0);

  qor::test::ChannelBuffers buffers(2, 260);
  buffers.fill(0.5f);
  float* skewed[2] = {buffers[0] + 4, buffers[1]};
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorDelayProcess(inst, skewed), R::ErrorMisaligned));
  EXPECT_EQ(skewed[0][0], 0.5f);
  float* missing[2] = {buffers[0], nullptr};
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorDelayProcess(inst, missing), R::ErrorNullPointer));

  ASSERT_EQ(qorDelayRelease(inst), R::Success);
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorDelayProcess(inst, buffers.data()), R::ErrorNotInitialised));
  EXPECT_EQ(qorDelayFlush(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorDelayGetParameters(inst, &now), R::ErrorNotInitialised);
  memory->zero();
  QorDelayConfig badConfig = config;
  badConfig.parameters.mix = 2.0f;
  EXPECT_EQ(qorDelayInit(inst, &badConfig), R::ErrorMix);
  EXPECT_EQ(qorDelayGetParameters(inst, &now), R::ErrorNotInitialised);
  EXPECT_EQ(qorDelayInit(inst, &config), R::Success);
}

}  // namespace
