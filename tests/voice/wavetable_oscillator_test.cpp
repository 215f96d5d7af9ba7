// The shared wavetable oscillator and the stored carriers: tables against
// their defining formulas, and the phase arithmetic measured on the output.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include "dsp/voice/carriers.h"
#include "dsp/voice/wavetable_oscillator.h"
#include "support/signals.h"

namespace {

using qor::WavetableOscillator;
constexpr double kPi = std::numbers::pi;

// Each shape written out again, independently of the oscillator's builder.
double reference(int32_t shape, int i) {
  const double x = i, w = 2.0 * kPi * x / 256.0;
  const double t = std::fmod(x, 256.0) / 64.0;
  switch (shape) {
    case 0: return t < 1 ? t : t < 3 ? 2.0 - t : t - 4.0;
    case 1: return std::sin(w);
    case 2: return std::pow(std::sin(w), 2);
    case 3: return std::cos(w);
    case 4: return std::pow(std::cos(w), 2);
    case 5: return std::max(std::cos(w), 0.0);
    case 6: return i == 256 ? -1.0 : -1.0 + x * 2.0 / 255.0;
    case 7: return i == 256 ? 0.0 : x / 255.0;
    case 8: return i == 256 ? 1.0 : (255.0 - x) / 255.0;
    case 9: return i <= 128 ? x / 128.0 : (256.0 - x) / 128.0;
    case 10: return (i < 128 || i == 256) ? 1.0 : -1.0;
    case 11: return i == 256 ? -1.0 : -1.0 + 2.0 * std::expm1((i < 128 ? x : 256.0 - x) / 128.0) / std::expm1(1.0);
    default: return 0.0;
  }
}

std::unique_ptr<WavetableOscillator> makeOscillator(int32_t shape, float rate, float hz) {
  auto osc = std::make_unique<WavetableOscillator>();
  osc->init();
  osc->setShape(shape);
  osc->setSampleRate(rate);
  osc->setFrequency(hz);
  return osc;
}

class WavetableShapes : public ::testing::TestWithParam<int32_t> {};

TEST_P(WavetableShapes, TablesFollowTheFormulaAndMirrorIntoTheReversedTable) {
  auto osc = makeOscillator(GetParam(), 48000.0f, 1.0f);
  EXPECT_EQ(osc->shape, GetParam());
  for (int i = 0; i <= 256; ++i) EXPECT_NEAR(osc->table[i], reference(GetParam(), i), 2e-7) << i;
  for (int k = 0; k < 256; ++k) ASSERT_EQ(osc->reversedTable[k], osc->table[255 - k]) << k;
  EXPECT_EQ(osc->reversedTable[256], osc->reversedTable[0]);
}

INSTANTIATE_TEST_SUITE_P(AllTwelve, WavetableShapes, ::testing::Range(0, 12));

TEST(WavetableOscillator, IgnoresUnknownShapesAndSetsTheStartPhase) {
  auto osc = makeOscillator(0, -5.0f, 1.0f);
  osc->setShape(12);
  osc->setShape(-1);
  EXPECT_EQ(osc->shape, 0);
  EXPECT_EQ(osc->increment, static_cast<uint32_t>(256.0f / 48000.0f * 16777216.0f)) << "a non-positive rate is 48 kHz";
  osc->setFrequency(std::nanf(""));
  EXPECT_EQ(osc->increment, 0u);
  // The start phase is measured backwards from the table end.
  auto sine = makeOscillator(1, 48000.0f, 100.0f);
  for (const auto& [degrees, index] : {std::pair{90.0f, 192u}, std::pair{-90.0f, 64u}, std::pair{450.0f, 192u},
                                       std::pair{360.0f, 0u}, std::pair{45.0f, 224u}}) {
    sine->setStartPhase(degrees);
    EXPECT_EQ(sine->phase, index << 24) << degrees;
  }
  sine->setStartPhase(-90.0f);
  EXPECT_NEAR(sine->next(), 1.0f, 1e-6) << "entry 64 of the sine";
  for (int i = 0; i < 1000; ++i) sine->next();
  sine->reset();
  EXPECT_EQ(sine->phase, 64u << 24);
}

TEST(WavetableOscillator, SineRunsAtTheTruncatedFixedPointIncrement) {
  for (float hz : {1.0f, 440.0f, 2000.0f}) {
    auto osc = makeOscillator(1, 44100.0f, hz);
    const double exact = static_cast<double>(hz) * 256.0 / 44100.0 * 16777216.0;
    EXPECT_LE(osc->increment, exact * (1 + 1e-6));
    EXPECT_GT(osc->increment + 1.0, exact * (1 - 1e-6));
    std::vector<float> out(44100);
    osc->render(out.data(), 44100);
    const double cyclesPerStep = osc->increment / 4294967296.0;
    for (size_t n = 0; n < out.size(); n += 37) {
      // Linear interpolation over 256 points errs by at most (2 pi / 256)^2 / 8.
      ASSERT_NEAR(out[n], std::sin(2 * kPi * cyclesPerStep * n), 8e-5) << hz << " " << n;
    }
    EXPECT_NEAR(qor::test::toneAmplitude(out, hz, 44100.0), 1.0, 2e-3) << hz;
  }
}

TEST(WavetableOscillator, NegativeFrequencyRetracesTheCurve) {
  for (int32_t shape : {1, 6, 11}) {
    auto osc = makeOscillator(shape, 48000.0f, 333.0f);
    std::vector<float> forward(2001);
    for (float& v : forward) v = osc->next();
    osc->setFrequency(-333.0f);
    osc->next();  // the turning point itself
    for (int k = 2000; k >= 1000; --k) ASSERT_NEAR(osc->next(), forward[k], 2e-5) << shape << " " << k;
    osc->setFrequency(333.0f);
    osc->next();
    for (int k = 1000; k < 1500; ++k) ASSERT_NEAR(osc->next(), forward[k], 2e-5) << shape << " " << k;
  }
}

// Stored carriers: full scale, some substance, and a loop without a jump at the seam.
TEST(Carriers, HaveTheirLengthFullScaleAndASmoothSeam) {
  const std::pair<const qor::CarrierData*, uint32_t> carriers[] = {
      {&qor::CarrierTone, 44100}, {&qor::Carrier7, 52673},  {&qor::Carrier8, 473047}, {&qor::Carrier9, 326170},
      {&qor::Carrier10, 465571},  {&qor::Carrier11, 459755}, {&qor::Carrier12, 327149}};
  for (const auto& [data, length] : carriers) {
    ASSERT_EQ(data->length, length);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(data->samples) % 32, 0u);
    const float* x = data->samples;
    float peak = 0.0f, largestStep = 0.0f;
    for (uint32_t i = 0; i < length; ++i) {
      ASSERT_TRUE(std::isfinite(x[i])) << length << " " << i;
      peak = std::max(peak, std::fabs(x[i]));
      if (i > 0) largestStep = std::max(largestStep, std::fabs(x[i] - x[i - 1]));
    }
    EXPECT_EQ(peak, 1.0f) << length;
    EXPECT_GT(qor::test::rms(x, length), 0.05) << length;
    EXPECT_LE(std::fabs(x[0] - x[length - 1]), largestStep) << length;
  }
}

TEST(Carriers, ToneIsPeriodicWithSixtyFiveCyclesOverTheArray) {
  const float* x = qor::CarrierTone.samples;
  const size_t n = qor::CarrierTone.length;
  // With the array length as "rate", frequency k is k cycles over the array.
  const double rate = static_cast<double>(n), fundamental = qor::test::toneAmplitude(x, n, 65.0, rate);
  EXPECT_GT(fundamental, 0.2);
  // The Hann window of the measurement spreads a line over one neighbour
  // each side, so the gaps are checked two bins away.
  for (double k : {1.0, 32.0, 63.0, 67.0, 97.0, 128.0, 132.0}) {
    EXPECT_LT(qor::test::toneAmplitude(x, n, k, rate), 1e-3 * fundamental) << k;
  }
  EXPECT_GT(qor::test::toneAmplitude(x, n, 130.0, rate), 0.1 * fundamental);  // rich in harmonics
}

}  // namespace
