#include "dsp/voice/voice_spectral_processor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "support/signals.h"
#include "voice_processor_harness.h"

namespace qor::test {
namespace {

constexpr double kRate = 48000.0;
using Warp = HeldProcessor<VoiceSpectralProcessor>;

// Harmonics of f0 whose amplitudes follow a Gaussian formant at `formant` Hz
// over a floor 26 dB down (a warp can only rescale harmonics that exist).
std::vector<float> formantVoice(size_t n, double f0, double formant, double width) {
  std::vector<float> x(n, 0.0f);
  for (int h = 1; f0 * h < 6000.0; ++h) {
    const double f = f0 * h;
    const double a = 0.1 * 0.05 + 0.1 * std::exp(-(f - formant) * (f - formant) / (2.0 * width * width));
    const std::vector<float> p = sine(f, kRate, n, a, 0.37 * h * h);
    for (size_t i = 0; i < n; ++i) x[i] += p[i];
  }
  return x;
}

TEST(VoiceSpectralProcessor, LaysOutAndPicksTheLifterFromTheReferenceFrequency) {
  Warp w(2);
  EXPECT_EQ(w.initResult(), 0);
  EXPECT_EQ(w.placedBytes(), w.reservedBytes());
  EXPECT_LT(VoiceSpectralProcessor::bytes(1), VoiceSpectralProcessor::bytes(2));
  EXPECT_EQ(w->latency(), 4096);
  EXPECT_EQ(w->lifter(), 100) << "starts with the 480 Hz reference";
  EXPECT_EQ(w->currentRatio(), 1.0f);
  EXPECT_EQ(VoiceSpectralProcessor::lifterFor(48000.0f, 46.875f), 1024);
  EXPECT_EQ(VoiceSpectralProcessor::lifterFor(44100.0f, 480.0f), 92);
  EXPECT_EQ(VoiceSpectralProcessor::lifterFor(44100.0f, 46.875f), 941);
  EXPECT_EQ(VoiceSpectralProcessor::lifterFor(48000.0f, 10.0f), 2048) << "capped";
}

// With q = 1 every bin below Nyquist keeps its gain: the output is the input
// one frame late, times 0.1 and the sum of the 16 overlapping squared windows.
TEST(VoiceSpectralProcessor, UnitRatioReproducesInputDelayed) {
  Warp w(2);
  w->setWarp(1.0f, 46.875f);
  // A formant voice, and noise for an unambiguous cross-correlation.
  const Signals in{formantVoice(20480, 125.0, 900.0, 400.0), whiteNoise(20480, 71, 0.3)};
  const Signals out = w.run(in);
  EXPECT_EQ(w->lifter(), 1024);
  EXPECT_EQ(delayByCrossCorrelation(in[1], out[1], 6000), 4096);
  for (size_t c = 0; c < 2; ++c) {
    // Noise has energy in the Nyquist bin, whose gain is not 1 (it compares
    // the raw Nyquist log magnitude with the halved smoothed one).
    EXPECT_LT(relativeError(out[c], overlapAddReference(in[c], 4096, 0.1), 4096), c == 0 ? 0.003 : 0.2) << c;
    EXPECT_NEAR(rms(out[c], 4096) / rms(in[c], 0, in[c].size() - 4096), 0.6, 0.01) << c;
  }
}

struct WarpCase {
  float q;
  double formantIn;
  double formantOut;
};

class VoiceSpectralWarp : public ::testing::TestWithParam<WarpCase> {};

// The formant moves by q; the harmonics (the pitch) stay where they were.
TEST_P(VoiceSpectralWarp, MovesTheFormantAndKeepsTheHarmonics) {
  const WarpCase wc = GetParam();
  Warp w(1);
  w->setWarp(wc.q, 480.0f);
  EXPECT_EQ(w->currentRatio(), 1.0f) << "waits for the next block";
  const double f0 = 100.0;  // every formant position of the cases is a harmonic
  const std::vector<float> in = formantVoice(32768, f0, wc.formantIn, 300.0);
  const std::vector<float> out = w.runMono(in);
  const size_t from = 8192;
  const double inAtOld = toneAmplitude(in, wc.formantIn, kRate, from);
  const double inAtNew = toneAmplitude(in, wc.formantOut, kRate, from);
  const double outAtOld = toneAmplitude(out, wc.formantIn, kRate, from);
  const double outAtNew = toneAmplitude(out, wc.formantOut, kRate, from);
  EXPECT_LT(inAtNew, 0.1 * inAtOld);
  EXPECT_GT(outAtNew, 1.5 * outAtOld) << "q " << wc.q;
  const double between = toneAmplitude(out, wc.formantOut + f0 / 2.0, kRate, from);
  EXPECT_LT(between, 0.05 * outAtNew) << "energy stays on the harmonics";
  for (float v : out) ASSERT_TRUE(std::isfinite(v));
  EXPECT_EQ(w->currentRatio(), wc.q);
}

INSTANTIATE_TEST_SUITE_P(Ratios, VoiceSpectralWarp,
                         ::testing::Values(WarpCase{2.0f, 1000.0, 2000.0},
                                           WarpCase{0.5f, 2000.0, 1000.0},
                                           WarpCase{4.0f, 600.0, 2400.0},
                                           WarpCase{0.25f, 3200.0, 800.0}));

TEST(VoiceSpectralProcessor, ResetClearsTheRings) {
  Warp used(2), fresh(2);
  used->setWarp(1.25f, 480.0f);
  fresh->setWarp(1.25f, 480.0f);
  used.run(Signals{whiteNoise(9000, 61, 0.3), whiteNoise(9000, 62, 0.3)});
  fresh.run(Signals(2, std::vector<float>(256, 0.0f)));
  used->reset();
  fresh->reset();
  const Signals in{formantVoice(8192, 140.0, 1200.0, 300.0), formantVoice(8192, 90.0, 700.0, 300.0)};
  EXPECT_EQ(used.run(in), fresh.run(in));
}

}  // namespace
}  // namespace qor::test
