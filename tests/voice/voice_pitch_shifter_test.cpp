#include "dsp/voice/voice_pitch_shifter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <utility>
#include <vector>

#include "support/signals.h"
#include "voice_processor_harness.h"

namespace qor::test {
namespace {

constexpr double kRate = 48000.0;
constexpr double kNaturalGain = 0.3548134;
constexpr double kPhaseFreeGain = 1.9952623;

using Shifter = HeldProcessor<VoicePitchShifter>;

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
TEST(VoicePitchShifter, LaysOutAndAtRatioOneReproducesInputDelayed) {
  Shifter s(2);
  EXPECT_EQ(s.initResult(), 0);
  EXPECT_EQ(s.placedBytes(), s.reservedBytes());
  EXPECT_EQ(VoicePitchShifter::bytes(2) + roundUp32(sizeof(VoicePitchShifter)), s.reservedBytes());
  EXPECT_LT(VoicePitchShifter::bytes(1), VoicePitchShifter::bytes(2));
  EXPECT_EQ(s->latency(), 2048);
  const Signals in{partials(16384, 210.0), partials(16384, 330.0)};
  const Signals out = s.run(in);
  for (size_t c = 0; c < 2; ++c) {
    EXPECT_EQ(delayByCrossCorrelation(in[c], out[c], 4000), 2048);
    EXPECT_LT(peakAbs(out[c], 0, 2048), 1e-3 * peakAbs(out[c])) << "nothing before the latency";
    EXPECT_LT(relativeError(out[c], overlapAddReference(in[c], 2048, kNaturalGain), 2048), 0.003) << c;
    EXPECT_NEAR(rms(out[c], 2048) / rms(in[c], 0, in[c].size() - 2048), 1.064, 0.01) << "about unity gain";
  }
}

// The hop in effect (clamped to 64 .. 1024), and a tone moved by exactly 256 / hop.
TEST(VoicePitchShifter, ClampsQuantisesAndMovesATone) {
  EXPECT_EQ(VoicePitchShifter::hopForRatio(4.0f), 64);
  EXPECT_EQ(VoicePitchShifter::hopForRatio(0.25f), 1024);
  const std::pair<float, int32_t> cases[] = {{1.0f, 256}, {2.0f, 128}, {0.5f, 512},
                                             {1.5f, 171}, {5.0f, 64},  {0.2f, 1024}};
  for (const auto& [ratio, hop] : cases) {
    EXPECT_EQ(VoicePitchShifter::hopForRatio(ratio), hop);
    Shifter s(1);
    s->setRatio(ratio);
    EXPECT_EQ(s->hop(), 256) << "waits for the next block";
    const std::vector<float> out = s.runMono(sine(300.0, kRate, 24576, 0.5));
    EXPECT_EQ(s->hop(), hop);
    const double atMoved = toneAmplitude(out, 300.0 * 256.0 / hop, kRate, 8192);
    EXPECT_GT(atMoved, 0.05) << "ratio " << ratio;
    for (double other : {0.5, 0.75, 1.25, 2.0}) {
      const double g = other * 256.0 / hop;
      if (std::fabs(g - 1.0) < 0.01) continue;
      EXPECT_LT(toneAmplitude(out, 300.0 * g, kRate, 8192), 0.1 * atMoved) << "ratio " << ratio << " x" << g;
    }
  }
}

// Straightforward model of the phase-free mode: each frame's magnitudes
// resynthesised with phase 0 by a direct cosine sum, windowed, overlap-added.
std::vector<double> phaseFreeModel(const std::vector<float>& x, size_t frames) {
  constexpr int n = 2048, hop = 256;
  std::vector<double> w(n), frame(n), mag(n / 2 + 1);
  std::vector<std::complex<double>> turn(n);
  for (int i = 0; i < n; ++i) {
    w[i] = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / (n - 1));
    turn[i] = std::polar(1.0, -2.0 * std::numbers::pi * i / n);
  }
  std::vector<double> y(frames * hop + 2 * n, 0.0);
  for (size_t j = 0; j < frames; ++j) {
    const int64_t start = static_cast<int64_t>(j) * hop - (n - hop);
    for (int i = 0; i < n; ++i) {
      const int64_t t = start + i;
      frame[i] = (t >= 0 && t < static_cast<int64_t>(x.size()) ? x[t] : 0.0) * w[i];
    }
    for (int k = 0; k <= n / 2; ++k) {
      std::complex<double> bin = 0.0;
      for (int i = 0; i < n; ++i) bin += frame[i] * turn[(static_cast<int64_t>(k) * i) % n];
      mag[k] = std::abs(bin);
    }
    for (int i = 0; i < n; ++i) {
      double s = mag[0] + mag[n / 2] * ((i & 1) != 0 ? -1.0 : 1.0);
      for (int k = 1; k < n / 2; ++k) s += 2.0 * mag[k] * turn[(static_cast<int64_t>(k) * i) % n].real();
      // Heard one frame after the frame's first sample.
      y[static_cast<size_t>(start + n + i)] += s / n * w[i] * kPhaseFreeGain;
    }
  }
  return y;
}

TEST(VoicePitchShifter, PhaseFreeModeMatchesADirectModel) {
  Shifter s(1);
  s->setMode(kVoicePitchPhaseFree);
  EXPECT_EQ(s->currentMode(), kVoicePitchNatural) << "waits for the next block";
  std::vector<float> in = whiteNoise(2048, 21, 0.5);
  in.resize(4096, 0.0f);
  const std::vector<float> out = s.runMono(in);
  EXPECT_EQ(s->currentMode(), kVoicePitchPhaseFree);
  // Frames 0 .. 14 are all that is heard before sample 4096.
  EXPECT_LT(relativeError(out, phaseFreeModel(in, 15)), 1e-3);
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
    EXPECT_LT(std::fabs(correlation(out[c], in[c], 2048, 4096)), 0.2) << "random phases scramble the waveform";
  }
}

TEST(VoicePitchShifter, ResetClearsRingsAndPhaseHistory) {
  Shifter used(2), fresh(2);
  used->setRatio(1.5f);
  fresh->setRatio(1.5f);
  used.run(Signals{whiteNoise(10000, 41), whiteNoise(10000, 42)});
  fresh.run(Signals(2, std::vector<float>(256, 0.0f)));  // takes the ratio over
  used->reset();
  fresh->reset();
  const Signals in{sine(440.0, kRate, 8192, 0.5), sine(660.0, kRate, 8192, 0.5)};
  EXPECT_EQ(used.run(in), fresh.run(in)) << "a reset instance behaves like a fresh one";
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
  EXPECT_EQ(a.runMono(in, 256), b.runMono(in, 100));
}

}  // namespace
}  // namespace qor::test
