#include "dsp/voice/voice_pitch_shifter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

#include "support/signals.h"
#include "voice_processor_harness.h"

namespace qor::test {
namespace {

constexpr double kRate = 48000.0;
constexpr double kNaturalGain = 0.3548134;
constexpr double kPhaseFreeGain = 1.9952623;

using Shifter = HeldProcessor<VoicePitchShifter>;

// Shifter with settings taken over by one (silent) block, as the vocal changer does.
void configure(Shifter& s, float ratio, int32_t mode) {
  s->setRatio(ratio);
  s->setMode(mode);
  s.runMono(std::vector<float>(256, 0.0f));
  s->reset();
}

TEST(VoicePitchShifter, LaysOutExactlyWhatItCounts) {
  Shifter s(2);
  EXPECT_EQ(s.initResult(), 0);
  EXPECT_EQ(s.placedBytes(), s.reservedBytes());
  EXPECT_EQ(VoicePitchShifter::bytes(2) + roundUp32(sizeof(VoicePitchShifter)), s.reservedBytes());
  EXPECT_LT(VoicePitchShifter::bytes(1), VoicePitchShifter::bytes(2));
  EXPECT_EQ(s->latency(), 2048);
}

// Several partials well inside the band: windowed frames then carry almost
// nothing at DC or Nyquist, the two bins resynthesised without their sign.
std::vector<float> partials(size_t n, double base) {
  std::vector<float> x(n, 0.0f);
  const double amplitudes[] = {0.3, 0.2, 0.15, 0.1};
  for (int h = 0; h < 4; ++h) {
    const std::vector<float> p = sine(base * (h + 1) * 1.37, kRate, n, amplitudes[h], 0.7 * h);
    for (size_t i = 0; i < n; ++i) x[i] += p[i];
  }
  return x;
}

// At ratio 1 the natural mode tracks every phase exactly, so the output is the
// input two frames late, shaped only by the sum of squared windows (about 3).
TEST(VoicePitchShifter, RatioOneReproducesInputDelayed) {
  Shifter s(2);
  const Signals in{partials(16384, 210.0), partials(16384, 330.0)};
  const Signals out = s.run(in);
  for (size_t c = 0; c < 2; ++c) {
    EXPECT_EQ(delayByCrossCorrelation(in[c], out[c], 4000), 2048);
    EXPECT_LT(peakAbs(out[c], 0, 2048), 1e-3 * peakAbs(out[c])) << "nothing before the latency";
    double error = 0.0, energy = 0.0, gainSum = 0.0;
    for (size_t t = 2048; t < out[c].size(); ++t) {
      const double windows = squaredWindowSum(static_cast<int64_t>(t) - 2048, 2048, 256, 0);
      const double expected = kNaturalGain * windows * in[c][t - 2048];
      error += (out[c][t] - expected) * (out[c][t] - expected);
      energy += expected * expected;
      gainSum += windows;
    }
    EXPECT_LT(std::sqrt(error / energy), 0.003) << "channel " << c;
    EXPECT_NEAR(kNaturalGain * gainSum / static_cast<double>(out[c].size() - 2048), 1.064, 0.005);
  }
}

struct RatioCase {
  float ratio;
  int32_t hop;
};

class VoicePitchShifterRatio : public ::testing::TestWithParam<RatioCase> {};

// The hop in effect, and a tone moved by exactly 256 / k.
TEST_P(VoicePitchShifterRatio, ClampsQuantisesAndMovesATone) {
  const RatioCase rc = GetParam();
  EXPECT_EQ(VoicePitchShifter::hopForRatio(rc.ratio), rc.hop);
  Shifter s(1);
  s->setRatio(rc.ratio);
  EXPECT_EQ(s->hop(), 256) << "waits for the next block";
  const double f = 300.0;
  const std::vector<float> out = s.runMono(sine(f, kRate, 24576, 0.5));
  EXPECT_EQ(s->hop(), rc.hop);
  const double moved = f * 256.0 / rc.hop;
  const double atMoved = toneAmplitude(out, moved, kRate, 8192);
  EXPECT_GT(atMoved, 0.05) << "ratio " << rc.ratio;
  for (double other : {0.5, 0.75, 1.25, 2.0}) {
    const double g = other * 256.0 / rc.hop;
    if (std::fabs(g - 1.0) < 0.01) continue;
    EXPECT_LT(toneAmplitude(out, f * g, kRate, 8192), 0.1 * atMoved)
        << "ratio " << rc.ratio << ", at " << f * g << " Hz";
  }
}

INSTANTIATE_TEST_SUITE_P(Ratios, VoicePitchShifterRatio,
                         ::testing::Values(RatioCase{1.0f, 256}, RatioCase{2.0f, 128},
                                           RatioCase{0.5f, 512}, RatioCase{1.5f, 171},
                                           RatioCase{5.0f, 64}, RatioCase{4.0f, 64},
                                           RatioCase{0.2f, 1024}, RatioCase{0.25f, 1024}));

// Scans 50 Hz .. 2 kHz for the strongest component of the output.
double strongestFrequency(const std::vector<float>& x, size_t from) {
  double best = 0.0, bestLevel = -1.0;
  for (double f = 50.0; f <= 2000.0; f += 5.0) {
    const double level = toneAmplitude(x, f, kRate, from);
    if (level > bestLevel) {
      bestLevel = level;
      best = f;
    }
  }
  return best;
}

TEST(VoicePitchShifter, OctaveUpMovesAToneToTwiceItsFrequency) {
  for (double f : {150.0, 220.0, 345.0}) {
    Shifter s(1);
    s->setRatio(2.0f);
    const std::vector<float> out = s.runMono(sine(f, kRate, 24576, 0.5));
    EXPECT_NEAR(strongestFrequency(out, 8192), 2.0 * f, 5.0) << f << " Hz";
    EXPECT_LT(toneAmplitude(out, f, kRate, 8192), 0.02 * toneAmplitude(out, 2.0 * f, kRate, 8192));
  }
  Shifter down(1);
  down->setRatio(0.5f);
  const std::vector<float> out = down.runMono(sine(600.0, kRate, 24576, 0.5));
  EXPECT_NEAR(strongestFrequency(out, 8192), 300.0, 5.0) << "and an octave down halves it";
}

// Straightforward model of the phase-free mode: each frame's magnitudes
// resynthesised with phase 0 by a direct cosine sum, windowed, overlap-added.
std::vector<double> phaseFreeModel(const std::vector<float>& x, size_t frames) {
  constexpr int n = 2048, hop = 256;
  std::vector<double> w(n), cosTable(n), sinTable(n);
  for (int i = 0; i < n; ++i) {
    w[i] = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / (n - 1));
    cosTable[i] = std::cos(2.0 * std::numbers::pi * i / n);
    sinTable[i] = std::sin(2.0 * std::numbers::pi * i / n);
  }
  std::vector<double> y(static_cast<size_t>(frames) * hop + 2 * n, 0.0);
  std::vector<double> frame(n), mag(n / 2 + 1);
  for (size_t j = 0; j < frames; ++j) {
    const int64_t start = static_cast<int64_t>(j) * hop - (n - hop);
    for (int i = 0; i < n; ++i) {
      const int64_t t = start + i;
      frame[i] = (t >= 0 && t < static_cast<int64_t>(x.size()) ? x[t] : 0.0) * w[i];
    }
    for (int k = 0; k <= n / 2; ++k) {
      double re = 0.0, im = 0.0;
      for (int i = 0; i < n; ++i) {
        re += frame[i] * cosTable[(static_cast<int64_t>(k) * i) % n];
        im -= frame[i] * sinTable[(static_cast<int64_t>(k) * i) % n];
      }
      mag[k] = std::sqrt(re * re + im * im);
    }
    for (int i = 0; i < n; ++i) {
      double s = mag[0] + mag[n / 2] * ((i & 1) != 0 ? -1.0 : 1.0);
      for (int k = 1; k < n / 2; ++k) s += 2.0 * mag[k] * cosTable[(static_cast<int64_t>(k) * i) % n];
      // Heard one frame after the frame's first sample.
      y[static_cast<size_t>(start + n + i)] += s / n * w[i] * kPhaseFreeGain;
    }
  }
  return y;
}

TEST(VoicePitchShifter, PhaseFreeModeMatchesADirectModel) {
  Shifter s(1);
  s->setMode(kVoicePitchPhaseFree);
  const std::vector<float> in = whiteNoise(2048, 21, 0.5);
  std::vector<float> padded(4096, 0.0f);
  std::copy(in.begin(), in.end(), padded.begin());
  const std::vector<float> out = s.runMono(padded);
  EXPECT_EQ(s->currentMode(), kVoicePitchPhaseFree);
  // Frames 0 .. 14 are all that is heard before sample 4096.
  const std::vector<double> model = phaseFreeModel(padded, 15);
  double error = 0.0, energy = 0.0;
  for (size_t t = 0; t < out.size(); ++t) {
    const double m = model[t];
    error += (out[t] - m) * (out[t] - m);
    energy += m * m;
  }
  ASSERT_GT(energy, 0.0);
  EXPECT_LT(std::sqrt(error / energy), 1e-3);
}

// Random phases make frames uncorrelated: the output power is the input
// power times 3/8 (mean squared window) times 3 (squared windows overlapping).
TEST(VoicePitchShifter, RandomPhaseModeKeepsUnityGain) {
  Shifter s(2);
  s->setMode(kVoicePitchRandomPhase);
  const Signals in{whiteNoise(48000, 31, 0.5), whiteNoise(48000, 32, 0.5)};
  const Signals out = s.run(in);
  for (size_t c = 0; c < 2; ++c) {
    const double ratio = rms(out[c], 4096) / rms(in[c]);
    EXPECT_NEAR(ratio, std::sqrt(9.0 / 8.0), 0.08) << "channel " << c;
    double xy = 0.0, xx = 0.0, yy = 0.0;
    for (size_t t = 4096; t < out[c].size(); ++t) {
      xy += static_cast<double>(in[c][t - 2048]) * out[c][t];
      xx += static_cast<double>(in[c][t - 2048]) * in[c][t - 2048];
      yy += static_cast<double>(out[c][t]) * out[c][t];
    }
    EXPECT_LT(std::fabs(xy) / std::sqrt(xx * yy), 0.2) << "random phases scramble the waveform";
  }
}

TEST(VoicePitchShifter, SettingsWaitForTheNextBlock) {
  Shifter a(1), b(1);
  const std::vector<float> in = sine(500.0, kRate, 8192, 0.5);
  ChannelBuffers bufA(1, 256), bufB(1, 256);
  for (size_t at = 0; at < in.size(); at += 256) {
    if (at == 4096) {
      a->setRatio(2.0f);
      a->setMode(kVoicePitchPhaseFree);
      EXPECT_EQ(a->hop(), 256);
      EXPECT_EQ(a->currentMode(), kVoicePitchNatural);
    }
    bufA.load(Signals{in}, at);
    bufB.load(Signals{in}, at);
    EXPECT_NO_ALLOCATION(a->process(bufA.data(), 256, 1));
    EXPECT_NO_ALLOCATION(b->process(bufB.data(), 256, 1));
    double diff = 0.0;
    for (int i = 0; i < 256; ++i) diff += std::fabs(bufA[0][i] - bufB[0][i]);
    if (at < 4096) {
      EXPECT_EQ(diff, 0.0) << "block at " << at;
    } else if (at >= 4096 + 256) {
      EXPECT_GT(diff, 0.0) << "block at " << at;
    }
  }
  EXPECT_EQ(a->hop(), 128);
  EXPECT_EQ(a->currentMode(), kVoicePitchPhaseFree);
}

TEST(VoicePitchShifter, ResetClearsRingsAndPhaseHistory) {
  Shifter used(2), fresh(2);
  configure(used, 1.5f, kVoicePitchNatural);
  configure(fresh, 1.5f, kVoicePitchNatural);
  used.run(Signals{whiteNoise(10000, 41), whiteNoise(10000, 42)});
  used->reset();
  const Signals in{sine(440.0, kRate, 8192, 0.5), sine(660.0, kRate, 8192, 0.5)};
  const Signals a = used.run(in);
  const Signals b = fresh.run(in);
  EXPECT_EQ(a, b) << "a reset instance behaves like a fresh one";

  used->reset();
  const Signals silence = used.run(Signals(2, std::vector<float>(4096, 0.0f)));
  EXPECT_EQ(peakAbs(silence[0]), 0.0);
  EXPECT_EQ(peakAbs(silence[1]), 0.0);
}

// The vocal changer may hand over a new pitch on any block: jumping between
// the extreme hops must keep the rings consistent and the output bounded.
TEST(VoicePitchShifter, RatioJumpsEveryBlockStayBounded) {
  Shifter s(2);
  const float ratios[] = {4.0f, 0.25f, 1.0f, 3.3f, 0.3f, 4.0f, 4.0f, 0.25f, 0.25f, 1.7f};
  ChannelBuffers buf(2, 256);
  double peak = 0.0;
  for (int b = 0; b < 400; ++b) {
    s->setRatio(ratios[b % 10]);
    s->setMode(b % 7 == 0 ? kVoicePitchRandomPhase : kVoicePitchNatural);
    buf.load(Signals{sine(300.0, kRate, 256, 0.5, b * 256 * 2 * std::numbers::pi * 300.0 / kRate)}, 0);
    EXPECT_NO_ALLOCATION(s->process(buf.data(), 256, 2));
    for (uint32_t c = 0; c < 2; ++c) {
      for (int i = 0; i < 256; ++i) {
        ASSERT_TRUE(std::isfinite(buf[c][i]));
        peak = std::max(peak, static_cast<double>(std::fabs(buf[c][i])));
      }
    }
  }
  EXPECT_GT(peak, 0.05);
  // Eight overlapping frames of at most the input's windowed energy each.
  EXPECT_LT(peak, 8.0 * 0.5);
}

TEST(VoicePitchShifter, OddBlockSizesGiveTheSameStream) {
  Shifter a(1), b(1);
  a->setRatio(0.8f);
  b->setRatio(0.8f);
  const std::vector<float> in = whiteNoise(12000, 51, 0.5);
  // 256-sample blocks against 100-sample blocks: frames fall mid-block.
  const std::vector<float> x = a.runMono(in, 256);
  const std::vector<float> y = b.runMono(in, 100);
  ASSERT_EQ(x.size(), y.size());
  for (size_t i = 0; i < x.size(); ++i) ASSERT_EQ(x[i], y[i]) << "sample " << i;
}

}  // namespace
}  // namespace qor::test
