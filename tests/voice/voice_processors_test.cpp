// The spectral voice processors the vocal changer is built from: the pitch
// shifter, the formant warp and the carrier cross-synthesis, each against a
// plain overlap-add or direct model where one exists, and measured on tones;
// and the fast math they use, against the standard library.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <utility>
#include <vector>

#include "dsp/voice/voice_carrier_processor.h"
#include "dsp/voice/voice_math.h"
#include "dsp/voice/voice_pitch_shifter.h"
#include "dsp/voice/voice_spectral_processor.h"
#include "support/signals.h"
#include "voice_harness.h"

namespace qor::test {
namespace {

constexpr double kRate = 48000.0;
using Shifter = HeldProcessor<VoicePitchShifter>;
using Warp = HeldProcessor<VoiceSpectralProcessor>;
using Carrier = HeldProcessor<VoiceCarrierProcessor>;

// Harmonics of f0 up to 6 kHz under a Gaussian formant, over a relative floor.
std::vector<float> harmonics(size_t n, double f0, double formant, double width, double amplitude, double floor) {
  std::vector<float> x(n, 0.0f);
  for (int h = 1; f0 * h < 6000.0; ++h) {
    const double f = f0 * h;
    const double a = amplitude * (floor + std::exp(-(f - formant) * (f - formant) / (2.0 * width * width)));
    const std::vector<float> p = sine(f, kRate, n, a, 0.37 * h * h);
    for (size_t i = 0; i < n; ++i) x[i] += p[i];
  }
  return x;
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

// Power in [lo, hi] Hz summed over 10 Hz steps, from sample `from` on.
double bandPower(const std::vector<float>& x, double lo, double hi, size_t from) {
  double p = 0.0;
  for (double f = lo; f <= hi; f += 10.0) p += std::pow(toneAmplitude(x, f, kRate, from), 2);
  return p;
}

// A used and a fresh processor, both reset, give the same bits afterwards.
template <class Held, class Setup>
void expectResetLikeFresh(Setup setup, const Signals& history, const Signals& in) {
  Held used(2), fresh(2);
  setup(used), setup(fresh);
  used.run(history);
  fresh.run(Signals(2, std::vector<float>(256, 0.0f)));  // takes the settings over
  used->reset();
  fresh->reset();
  EXPECT_EQ(used.run(in), fresh.run(in)) << "a reset instance behaves like a fresh one";
}

// ---------------------------------------------------------------- pitch shifter

constexpr double kNaturalGain = 0.3548134;
constexpr double kPhaseFreeGain = 1.9952623;

// At ratio 1 the natural mode tracks every phase exactly, so the output is the
// input two frames late, shaped only by the sum of squared windows (about 3).
TEST(VoicePitchShifter, AtRatioOneReproducesInputDelayed) {
  Shifter s(2);
  EXPECT_EQ(VoicePitchShifter::bytes(2) + roundUp32(sizeof(VoicePitchShifter)), s.reservedBytes());
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
  const std::pair<float, int32_t> cases[] = {{1.0f, 256}, {2.0f, 128}, {0.5f, 512}, {1.5f, 171}, {5.0f, 64}, {0.2f, 1024}};
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
    EXPECT_NEAR(rms(out[c], 4096) / rms(in[c]), std::sqrt(9.0 / 8.0), 0.08) << "channel " << c;
    EXPECT_LT(std::fabs(correlation(out[c], in[c], 2048, 4096)), 0.2) << "random phases scramble the waveform";
  }
}

// The vocal changer may hand over a new pitch on any block: jumping between
// the extreme hops keeps the rings consistent and the output bounded, and
// frames falling mid-block do not change the stream.
TEST(VoicePitchShifter, RatioJumpsStayBoundedAndBlockSplitDoesNotMatter) {
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
  EXPECT_LT(peak, 8.0 * 0.5) << "eight overlapping frames of at most the input's windowed energy each";
  Shifter a(1), b(1);
  a->setRatio(0.8f), b->setRatio(0.8f);
  const std::vector<float> in = whiteNoise(12000, 51, 0.5);
  EXPECT_EQ(a.runMono(in, 256), b.runMono(in, 100));
}

TEST(VoicePitchShifter, ResetClearsRingsAndPhaseHistory) {
  expectResetLikeFresh<Shifter>([](Shifter& s) { s->setRatio(1.5f); },
                                Signals{whiteNoise(10000, 41), whiteNoise(10000, 42)},
                                Signals{sine(440.0, kRate, 8192, 0.5), sine(660.0, kRate, 8192, 0.5)});
}

// ---------------------------------------------------------------- formant warp

TEST(VoiceSpectralProcessor, PicksTheLifterFromTheReferenceFrequency) {
  Warp w(2);
  EXPECT_EQ(w->latency(), 4096);
  EXPECT_EQ(w->lifter(), 100) << "starts with the 480 Hz reference";
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
  const Signals in{harmonics(20480, 125.0, 900.0, 400.0, 0.1, 0.05), whiteNoise(20480, 71, 0.3)};
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
  double formantIn, formantOut;
};

class VoiceSpectralWarp : public ::testing::TestWithParam<WarpCase> {};

// The formant moves by q; the harmonics (the pitch) stay where they were.
TEST_P(VoiceSpectralWarp, MovesTheFormantAndKeepsTheHarmonics) {
  const WarpCase wc = GetParam();
  Warp w(1);
  w->setWarp(wc.q, 480.0f);
  EXPECT_EQ(w->currentRatio(), 1.0f) << "waits for the next block";
  const double f0 = 100.0;  // every formant position of the cases is a harmonic
  const std::vector<float> in = harmonics(32768, f0, wc.formantIn, 300.0, 0.1, 0.05);
  const std::vector<float> out = w.runMono(in);
  const size_t from = 8192;
  const double outAtNew = toneAmplitude(out, wc.formantOut, kRate, from);
  EXPECT_LT(toneAmplitude(in, wc.formantOut, kRate, from), 0.1 * toneAmplitude(in, wc.formantIn, kRate, from));
  EXPECT_GT(outAtNew, 1.5 * toneAmplitude(out, wc.formantIn, kRate, from)) << "q " << wc.q;
  EXPECT_LT(toneAmplitude(out, wc.formantOut + f0 / 2.0, kRate, from), 0.05 * outAtNew) << "energy stays on the harmonics";
  for (float v : out) ASSERT_TRUE(std::isfinite(v));
  EXPECT_EQ(w->currentRatio(), wc.q);
}

INSTANTIATE_TEST_SUITE_P(Ratios, VoiceSpectralWarp,
                         ::testing::Values(WarpCase{2.0f, 1000.0, 2000.0}, WarpCase{0.5f, 2000.0, 1000.0},
                                           WarpCase{4.0f, 600.0, 2400.0}, WarpCase{0.25f, 3200.0, 800.0}));

TEST(VoiceSpectralProcessor, ResetClearsTheRings) {
  expectResetLikeFresh<Warp>([](Warp& w) { w->setWarp(1.25f, 480.0f); },
                             Signals{whiteNoise(9000, 61, 0.3), whiteNoise(9000, 62, 0.3)},
                             Signals{harmonics(8192, 140.0, 1200.0, 300.0, 0.1, 0.05),
                                     harmonics(8192, 90.0, 700.0, 300.0, 0.1, 0.05)});
}

// ---------------------------------------------------------------- carrier cross-synthesis

// Harmonics of 120 Hz under a Gaussian formant: a steady vowel-like voice.
std::vector<float> vowel(size_t n, double formant) { return harmonics(n, 120.0, formant, 250.0, 0.05, 0.0); }

TEST(VoiceCarrierProcessor, TakesSettingsAtTheNextBlockWithTheRoundedLifter) {
  Carrier c(1);
  EXPECT_EQ(c->latency(), 2048);
  const std::vector<float> tone = sine(1000.0, kRate, 480, 1.0);
  c->setSettings({400.0f, 4800.0f, 1.0f, tone.data(), 480, 6.0f});
  // Still the white-noise voice it starts as.
  EXPECT_EQ(c->carrierLifter(), 30);
  EXPECT_EQ(c->voiceLifter(), 60);
  EXPECT_FLOAT_EQ(c->outputGain(), std::pow(10.0f, -6.0f / 20.0f) * 721.50604f);
  c.runMono(std::vector<float>(256, 0.0f));
  EXPECT_EQ(c->carrierLifter(), 120);
  EXPECT_EQ(c->voiceLifter(), 10);
  EXPECT_FLOAT_EQ(c->outputGain(), std::pow(10.0f, 6.0f / 20.0f) * 721.50604f);
  // The lifter period is the rounded number of samples per cycle, at most 1024.
  EXPECT_EQ(VoiceCarrierProcessor::lifterFor(48000.0f, 384.0f), 125);
  EXPECT_EQ(VoiceCarrierProcessor::lifterFor(48000.0f, 20.0f), 1024);
}

// Cross-synthesis keeps the carrier's fine structure under the voice's
// envelope: output level follows the voice level one to one, and a silent
// voice leaves only the noise carrier scaled by bin gains of about
// exp(ln(1e-6) - ln|carrier|): small, but not zero.
TEST(VoiceCarrierProcessor, OutputLevelFollowsTheVoiceLevel) {
  std::vector<float> voice = vowel(144000, 700.0);
  for (size_t i = 48000; i < 96000; ++i) voice[i] *= 0.1f;  // -20 dB a third of the way
  std::fill(voice.begin() + 96000, voice.end(), 0.0f);        // then silence
  Carrier c(1);
  const std::vector<float> out = c.runMono(voice);
  // Leave the frames that straddle the steps (and the latency) out.
  const double loud = rms(out, 8192, 48000);
  EXPECT_NEAR(toDb(rms(out, 48000 + 6144, 96000) / loud), -20.0, 1.5);
  EXPECT_GT(rms(out, 96000 + 6144), 0.0);
  EXPECT_LT(rms(out, 96000 + 6144), 0.006 * loud) << "0.01 of a voice at 0.03";
}

TEST(VoiceCarrierProcessor, OutputSpectrumFollowsTheVoiceFormant) {
  auto lowShare = [](double formant) {
    Carrier c(1);
    const std::vector<float> out = c.runMono(vowel(48000, formant));
    return bandPower(out, 500.0, 900.0, 8192) / bandPower(out, 1800.0, 2200.0, 8192);
  };
  EXPECT_GT(lowShare(700.0), 10.0);
  EXPECT_LT(lowShare(2000.0), 0.1);
}

TEST(VoiceCarrierProcessor, ToneCarrierGivesItsPitchToTheVoice) {
  // Ten cycles of 1 kHz in 480 samples: the array repeats seamlessly.
  const std::vector<float> tone = sine(1000.0, kRate, 480, 1.0);
  Carrier c(1);
  c->setSettings({400.0f, 4800.0f, 1.0f, tone.data(), 480, 0.0f});
  const std::vector<float> out = c.runMono(whiteNoise(48000, 81, 0.1));
  const double at1k = toneAmplitude(out, 1000.0, kRate, 8192);
  EXPECT_GT(at1k, 10.0 * toneAmplitude(out, 1300.0, kRate, 8192));
  EXPECT_GT(at1k, 10.0 * toneAmplitude(out, 700.0, kRate, 8192));
}

// The pre-filter's narrow +20 dB peak is finer than the carrier's lifter can
// follow, so it survives the whitening and colours the output.
TEST(VoiceCarrierProcessor, PitchFrequencyRaisesThePreFilterPeak) {
  auto peakShare = [](bool pitched) {
    Carrier c(1);
    if (pitched) c->setPitchFrequency(440.0f);
    const std::vector<float> out = c.runMono(whiteNoise(48000, 91, 0.1));
    return bandPower(out, 400.0, 480.0, 8192) / bandPower(out, 1400.0, 1480.0, 8192);
  };
  EXPECT_GT(peakShare(true), 4.0 * peakShare(false));
}

// With a pure carrier both channels analyse the same carrier signal; each
// still takes its envelope from its own voice.
TEST(VoiceCarrierProcessor, StereoChannelsFollowTheirOwnVoices) {
  Carrier c(2), d(2);
  const std::vector<float> voice = vowel(24000, 900.0);
  const Signals out = c.run(Signals{voice, voice});
  EXPECT_EQ(out[0], out[1]);
  EXPECT_GT(rms(out[0], 4096), 0.0);
  const Signals other = d.run(Signals{voice, vowel(24000, 2000.0)});
  EXPECT_EQ(other[0], out[0]) << "channel 0 does not depend on channel 1";
  EXPECT_NE(other[1], out[1]);
}

TEST(VoiceCarrierProcessor, ResetRestartsCarrierRingsAndFilters) {
  static const std::vector<float> tone = sine(700.0, kRate, 4800, 1.0);
  expectResetLikeFresh<Carrier>(
      [](Carrier& c) {
        c->setSettings({800.0f, 384.0f, 1.0f, tone.data(), 4800, 0.0f});
        c->setPitchFrequency(300.0f);
      },
      Signals{whiteNoise(7000, 101, 0.2), whiteNoise(7000, 102, 0.2)},
      Signals{vowel(12000, 800.0), vowel(12000, 1500.0)});
}

// ---------------------------------------------------------------- fast math

constexpr double kPi = std::numbers::pi;

// Angle difference folded into [-pi, pi], so +pi and -pi compare equal.
double angleError(double a, double b) { return std::fabs(std::remainder(a - b, 2.0 * kPi)); }

TEST(VoiceMath, AnglesMatchTheLibrary) {
  std::mt19937 gen(5);
  std::uniform_real_distribution<float> d(-1000.0f, 1000.0f);
  double worst = 0.0;
  for (int i = 0; i < 200000; ++i) {
    const float y = d(gen), x = d(gen);
    worst = std::max(worst, angleError(voiceAtan2(y, x), std::atan2(static_cast<double>(y), x)));
  }
  EXPECT_LT(worst, 2e-5);
  // Axes, the origin, and tiny bins that keep their angle.
  EXPECT_NEAR(voiceAtan2(1.0f, 0.0f), kPi / 2, 1e-5);
  EXPECT_NEAR(voiceAtan2(-1.0f, 0.0f), -kPi / 2, 1e-5);
  EXPECT_NEAR(std::fabs(voiceAtan2(0.0f, -1.0f)), kPi, 1e-5);
  EXPECT_EQ(voiceAtan2(0.0f, 0.0f), 0.0f);
  EXPECT_NEAR(voiceAtan2(1e-30f, 1e-30f), kPi / 4, 1e-5);

  worst = 0.0;
  for (double x = -2000.0; x <= 2000.0; x += 0.0137) {
    float s, c;
    voiceSinCos(static_cast<float>(x), &s, &c);
    const double xf = static_cast<float>(x);
    worst = std::max({worst, std::fabs(s - std::sin(xf)), std::fabs(c - std::cos(xf))});
  }
  EXPECT_LT(worst, 5e-6);
  for (double x = -3000.0; x <= 3000.0; x += 0.731) {
    const float w = voiceWrap(static_cast<float>(x));
    EXPECT_LE(std::fabs(w), kPi + 1e-5);
    EXPECT_LT(angleError(w, static_cast<float>(x)), 1e-3) << x;  // float turns of 3000 rad
  }
  EXPECT_EQ(voiceRound(2.5f), 2.0f) << "ties to even";
  EXPECT_EQ(voiceRound(-3.7f), -4.0f);
}

TEST(VoiceMath, LogAndExpMatchTheLibraryOverTheWholeRange) {
  double worst = 0.0;
  for (double x = 1.2e-38; x < 3e38; x *= 1.00731) {
    const double ref = std::log(static_cast<double>(static_cast<float>(x)));
    worst = std::max(worst, std::fabs(voiceLog(static_cast<float>(x)) - ref) / std::max(1.0, std::fabs(ref)));
  }
  EXPECT_LT(worst, 3e-7);
  EXPECT_EQ(voiceLog(1.0f), 0.0f);
  worst = 0.0;
  for (double x = -87.0; x <= 88.0; x += 0.00917) {
    const double ref = std::exp(static_cast<double>(static_cast<float>(x)));
    worst = std::max(worst, std::fabs(voiceExp(static_cast<float>(x)) - ref) / ref);
  }
  EXPECT_LT(worst, 5e-7);
  EXPECT_EQ(voiceExp(0.0f), 1.0f);
  EXPECT_LT(voiceExp(-1000.0f), 1e-37f);  // saturates at both ends
  EXPECT_GE(voiceExp(-1000.0f), 0.0f);
  EXPECT_GT(voiceExp(1000.0f), 1e38f);
}

}  // namespace
}  // namespace qor::test
