#include "dsp/voice/voice_carrier_processor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "support/signals.h"
#include "voice_processor_harness.h"

namespace qor::test {
namespace {

constexpr double kRate = 48000.0;
using Carrier = HeldProcessor<VoiceCarrierProcessor>;

// Harmonics of 120 Hz under a Gaussian formant: a steady vowel-like voice.
std::vector<float> vowel(size_t n, double formant, double amplitude) {
  std::vector<float> x(n, 0.0f);
  for (int h = 1; 120.0 * h < 6000.0; ++h) {
    const double f = 120.0 * h;
    const double a = amplitude * std::exp(-(f - formant) * (f - formant) / (2.0 * 250.0 * 250.0));
    const std::vector<float> p = sine(f, kRate, n, a, 0.5 * h * h);
    for (size_t i = 0; i < n; ++i) x[i] += p[i];
  }
  return x;
}

// Power in [lo, hi] Hz summed over 10 Hz steps, from sample `from` on.
double bandPower(const std::vector<float>& x, double lo, double hi, size_t from) {
  double p = 0.0;
  for (double f = lo; f <= hi; f += 10.0) {
    const double a = toneAmplitude(x, f, kRate, from);
    p += a * a;
  }
  return p;
}

TEST(VoiceCarrierProcessor, LaysOutAndTakesSettingsAtTheNextBlock) {
  Carrier c(1);
  EXPECT_EQ(c.initResult(), 0);
  EXPECT_EQ(c.placedBytes(), c.reservedBytes());
  EXPECT_LT(VoiceCarrierProcessor::bytes(1), VoiceCarrierProcessor::bytes(2));
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
}

TEST(VoiceCarrierProcessor, LifterPeriodIsTheRoundedSamplesPerCycle) {
  const std::pair<float, int32_t> cases[] = {{1600.0f, 30}, {800.0f, 60},  {480.0f, 100}, {400.0f, 120},
                                             {320.0f, 150}, {960.0f, 50},  {240.0f, 200}, {384.0f, 125},
                                             {4800.0f, 10}, {20.0f, 1024}};
  for (const auto& [hz, period] : cases) EXPECT_EQ(VoiceCarrierProcessor::lifterFor(48000.0f, hz), period) << hz;
}

// Cross-synthesis keeps the carrier's fine structure under the voice's
// envelope: output level follows the voice level one to one, and a silent
// voice leaves only the noise carrier scaled by bin gains of about
// exp(ln(1e-6) - ln|carrier|): small, but not zero.
TEST(VoiceCarrierProcessor, OutputLevelFollowsTheVoiceLevel) {
  std::vector<float> voice = vowel(144000, 700.0, 0.05);
  for (size_t i = 48000; i < 96000; ++i) voice[i] *= 0.1f;  // -20 dB a third of the way
  std::fill(voice.begin() + 96000, voice.end(), 0.0f);        // then silence
  Carrier c(1);
  const std::vector<float> out = c.runMono(voice);
  // Leave the frames that straddle the steps (and the latency) out.
  const double loud = rms(out, 8192, 48000);
  const double soft = rms(out, 48000 + 6144, 96000);
  EXPECT_NEAR(toDb(soft / loud), -20.0, 1.5);
  EXPECT_GT(rms(out, 96000 + 6144), 0.0);
  EXPECT_LT(rms(out, 96000 + 6144), 0.006 * loud) << "0.01 of a voice at 0.03";
}

TEST(VoiceCarrierProcessor, OutputSpectrumFollowsTheVoiceFormant) {
  auto lowShare = [](double formant) {
    Carrier c(1);
    const std::vector<float> out = c.runMono(vowel(48000, formant, 0.05));
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
  Carrier c(2);
  const std::vector<float> voice = vowel(24000, 900.0, 0.05);
  const Signals out = c.run(Signals{voice, voice});
  EXPECT_EQ(out[0], out[1]);
  EXPECT_GT(rms(out[0], 4096), 0.0);
  Carrier d(2);
  const Signals other = d.run(Signals{voice, vowel(24000, 2000.0, 0.05)});
  EXPECT_EQ(other[0], out[0]) << "channel 0 does not depend on channel 1";
  EXPECT_NE(other[1], out[1]);
}

TEST(VoiceCarrierProcessor, ResetRestartsCarrierRingsAndFilters) {
  const std::vector<float> tone = sine(700.0, kRate, 4800, 1.0);
  const VoiceCarrierSettings settings{800.0f, 384.0f, 1.0f, tone.data(), 4800, 0.0f};
  Carrier used(2), fresh(2);
  used->setSettings(settings);
  used->setPitchFrequency(300.0f);
  fresh->setSettings(settings);
  fresh->setPitchFrequency(300.0f);
  used.run(Signals{whiteNoise(7000, 101, 0.2), whiteNoise(7000, 102, 0.2)});
  fresh.run(Signals(2, std::vector<float>(256, 0.0f)));
  used->reset();
  fresh->reset();
  const Signals in{vowel(12000, 800.0, 0.05), vowel(12000, 1500.0, 0.05)};
  EXPECT_EQ(used.run(in), fresh.run(in));
}

}  // namespace
}  // namespace qor::test
