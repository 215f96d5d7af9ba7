// The shared wavetable oscillator: its tables against their defining
// formulas, and the phase arithmetic measured on its output.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include "dsp/voice/wavetable_oscillator.h"
#include "support/signals.h"

namespace {

using qor::WavetableOscillator;
constexpr double kPi = std::numbers::pi;

// Each shape written out again, independently of the oscillator's builder.
double reference(int32_t shape, int i) {
  const double x = i;
  const double phase = 2.0 * kPi * x / 256.0;
  switch (shape) {
    case 0: {  // triangle 0 -> 1 -> 0 -> -1 -> 0
      const double t = std::fmod(x, 256.0) / 64.0;  // 0..4
      if (t < 1) return t;
      if (t < 3) return 2.0 - t;
      return t - 4.0;
    }
    case 1: return std::sin(phase);
    case 2: return std::pow(std::sin(phase), 2);
    case 3: return std::cos(phase);
    case 4: return std::pow(std::cos(phase), 2);
    case 5: return std::cos(phase) > 0 ? std::cos(phase) : 0.0;
    case 6: return i == 256 ? -1.0 : -1.0 + x * 2.0 / 255.0;
    case 7: return i == 256 ? 0.0 : x / 255.0;
    case 8: return i == 256 ? 1.0 : (255.0 - x) / 255.0;
    case 9: return i <= 128 ? x / 128.0 : (256.0 - x) / 128.0;
    case 10: return (i < 128 || i == 256) ? 1.0 : -1.0;
    case 11: {
      if (i == 256) return -1.0;
      const double k = i < 128 ? x : 256.0 - x;
      return -1.0 + 2.0 * std::expm1(k / 128.0) / std::expm1(1.0);
    }
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

TEST_P(WavetableShapes, TableAndGuardFollowTheShapeFormula) {
  auto osc = makeOscillator(GetParam(), 48000.0f, 1.0f);
  EXPECT_EQ(osc->shape, GetParam());
  for (int i = 0; i <= 256; ++i) {
    EXPECT_NEAR(osc->table[i], reference(GetParam(), i), 2e-7) << "entry " << i;
  }
}

TEST_P(WavetableShapes, ReversedTableMirrorsTheForwardTable) {
  auto osc = makeOscillator(GetParam(), 48000.0f, 1.0f);
  for (int k = 0; k < 256; ++k) ASSERT_EQ(osc->reversedTable[k], osc->table[255 - k]) << k;
  EXPECT_EQ(osc->reversedTable[256], osc->reversedTable[0]);
}

TEST_P(WavetableShapes, OutputInterpolatesLinearlyBetweenEntries) {
  auto osc = makeOscillator(GetParam(), 48000.0f, 0.0f);
  for (uint32_t index : {0u, 17u, 128u, 255u}) {
    for (uint32_t fraction : {0u, 0x400000u, 0x800000u, 0xC00000u}) {
      osc->phase = (index << 24) | fraction;
      const double f = fraction / 16777216.0;
      const double expected = (1 - f) * osc->table[index] + f * osc->table[index + 1];
      EXPECT_NEAR(osc->next(), expected, 1e-6) << index << " + " << f;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllTwelve, WavetableShapes, ::testing::Range(0, 12));

TEST(WavetableOscillator, StartsAsATriangleAtOneHertzAndIgnoresUnknownShapes) {
  WavetableOscillator osc{};
  osc.init();
  EXPECT_EQ(osc.shape, 0);
  EXPECT_EQ(osc.sampleRate, 48000.0f);
  EXPECT_EQ(osc.phase, 0u);
  EXPECT_EQ(osc.increment, static_cast<uint32_t>(256.0f / 48000.0f * 16777216.0f));
  osc.setShape(12);
  osc.setShape(-1);
  EXPECT_EQ(osc.shape, 0);
  EXPECT_NEAR(osc.table[64], 1.0f, 0.0f);
}

TEST(WavetableOscillator, IncrementIsTheTruncatedFixedPointStep) {
  for (float hz : {1.0f, 50.0f, 400.0f, 1234.5f, 2000.0f}) {
    for (float rate : {44100.0f, 48000.0f}) {
      auto osc = makeOscillator(1, rate, hz);
      const double exact = static_cast<double>(hz) * 256.0 / rate * 16777216.0;
      EXPECT_LE(osc->increment, exact + exact * 1e-6);
      EXPECT_GT(osc->increment + 1.0, exact - exact * 1e-6);
    }
  }
  auto osc = makeOscillator(1, -5.0f, 400.0f);
  EXPECT_EQ(osc->sampleRate, 48000.0f) << "a non-positive rate stands for 48 kHz";
  osc->setFrequency(std::nanf(""));
  EXPECT_EQ(osc->increment, 0u);
}

TEST(WavetableOscillator, SineOutputMatchesTheContinuousSine) {
  constexpr double kRate = 48000.0, kHz = 440.0;
  auto osc = makeOscillator(1, kRate, kHz);
  const double cyclesPerStep = osc->increment / 4294967296.0;
  std::vector<float> out(48000);
  osc->render(out.data(), static_cast<uint32_t>(out.size()));
  for (size_t n = 0; n < out.size(); n += 37) {
    // Linear interpolation over 256 points errs by at most (2 pi / 256)^2 / 8.
    ASSERT_NEAR(out[n], std::sin(2 * kPi * cyclesPerStep * n), 8e-5) << n;
  }
  EXPECT_NEAR(qor::test::toneAmplitude(out, kHz, kRate), 1.0, 1e-3);
  EXPECT_LT(qor::test::toneAmplitude(out, 2 * kHz, kRate), 1e-3);
}

TEST(WavetableOscillator, PhaseWrapsOncePerCycle) {
  // A 1 Hz square at 48 kHz: the interpolation crosses zero half an entry
  // after the sign change in the table (entries 127.5 and 255.5 of 256).
  auto osc = makeOscillator(10, 48000.0f, 1.0f);
  std::vector<float> out(96000);
  osc->render(out.data(), 96000);
  std::vector<size_t> flips;
  for (size_t n = 1; n < out.size(); ++n) {
    if ((out[n] < 0) != (out[n - 1] < 0)) flips.push_back(n);
  }
  ASSERT_EQ(flips.size(), 4u) << "two cycles in two seconds";
  for (size_t k = 0; k < 4; ++k) {
    const double expected = (127.5 + 128.0 * static_cast<double>(k)) / 256.0 * 48000.0;
    EXPECT_NEAR(static_cast<double>(flips[k]), expected, 1.5) << k;
  }
}

TEST(WavetableOscillator, StartPhaseIsMeasuredBackwardsFromTheTableEnd) {
  auto osc = makeOscillator(1, 48000.0f, 100.0f);
  struct Case { float degrees; uint32_t phase; };
  for (const Case c : {Case{90.0f, 192u << 24}, Case{-90.0f, 64u << 24}, Case{450.0f, 192u << 24},
                       Case{0.0f, 0u}, Case{360.0f, 0u}, Case{180.0f, 128u << 24},
                       Case{45.0f, 224u << 24}}) {
    osc->setStartPhase(c.degrees);
    EXPECT_EQ(osc->startPhase, c.phase) << c.degrees;
    EXPECT_EQ(osc->phase, c.phase) << c.degrees;
  }
  osc->setStartPhase(-90.0f);
  EXPECT_NEAR(osc->next(), 1.0f, 1e-6) << "index 64 of the sine table";
  for (int i = 0; i < 1000; ++i) osc->next();
  osc->reset();
  EXPECT_EQ(osc->phase, 64u << 24);
}

TEST(WavetableOscillator, NegativeFrequencyRetracesTheCurve) {
  for (int32_t shape : {1, 6, 11}) {
    auto osc = makeOscillator(shape, 48000.0f, 333.0f);
    std::vector<float> forward(2001);
    for (float& v : forward) v = osc->next();
    // The next value would be forward[2001]; going back, the curve is read
    // from the current position downwards.
    osc->setFrequency(-333.0f);
    EXPECT_EQ(osc->reversed, 1u);
    osc->next();  // the turning point itself
    for (int k = 2000; k >= 1000; --k) {
      ASSERT_NEAR(osc->next(), forward[k], 2e-5) << "shape " << shape << " step " << k;
    }
    // And forwards again from there.
    osc->setFrequency(333.0f);
    EXPECT_EQ(osc->reversed, 0u);
    osc->next();
    for (int k = 1000; k < 1500; ++k) ASSERT_NEAR(osc->next(), forward[k], 2e-5) << k;
  }
}

TEST(WavetableOscillator, ShapeChangeKeepsThePhase) {
  auto osc = makeOscillator(1, 48000.0f, 400.0f);
  for (int i = 0; i < 777; ++i) osc->next();
  const uint32_t before = osc->phase;
  osc->setShape(3);
  EXPECT_EQ(osc->phase, before);
  const double cycles = before / 4294967296.0;
  EXPECT_NEAR(osc->next(), std::cos(2 * kPi * cycles), 1e-4);
}

TEST(WavetableOscillator, BuilderRefusesUnknownShapes) {
  float table[257];
  EXPECT_FALSE(qor::buildWavetable(12, table));
  EXPECT_FALSE(qor::buildWavetable(-3, table));
  EXPECT_TRUE(qor::buildWavetable(11, table));
  EXPECT_NEAR(table[128], 1.0f, 1e-7);
}

}  // namespace
