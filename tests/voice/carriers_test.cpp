#include "dsp/voice/carriers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "support/signals.h"

namespace {

struct CarrierCase {
  const char* name;
  const qor::CarrierData* data;
  uint32_t length;
};

class Carriers : public ::testing::TestWithParam<CarrierCase> {};

// Full scale, some substance, and a loop without a jump at the seam.
TEST_P(Carriers, HaveTheirLengthFullScaleAndASmoothSeam) {
  const CarrierCase c = GetParam();
  ASSERT_NE(c.data->samples, nullptr);
  EXPECT_EQ(c.data->length, c.length);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(c.data->samples) % 32, 0u);
  float peak = 0.0f;
  for (uint32_t i = 0; i < c.length; ++i) {
    ASSERT_TRUE(std::isfinite(c.data->samples[i])) << i;
    peak = std::max(peak, std::fabs(c.data->samples[i]));
  }
  EXPECT_EQ(peak, 1.0f);
  EXPECT_GT(qor::test::rms(c.data->samples, c.length), 0.05);
  const float* x = c.data->samples;
  float largestStep = 0.0f;
  for (uint32_t i = 1; i < c.length; ++i) largestStep = std::max(largestStep, std::fabs(x[i] - x[i - 1]));
  EXPECT_LE(std::fabs(x[0] - x[c.length - 1]), largestStep);
}

INSTANTIATE_TEST_SUITE_P(
    All, Carriers,
    ::testing::Values(CarrierCase{"Tone", &qor::CarrierTone, 44100}, CarrierCase{"C7", &qor::Carrier7, 52673},
                      CarrierCase{"C8", &qor::Carrier8, 473047}, CarrierCase{"C9", &qor::Carrier9, 326170},
                      CarrierCase{"C10", &qor::Carrier10, 465571}, CarrierCase{"C11", &qor::Carrier11, 459755},
                      CarrierCase{"C12", &qor::Carrier12, 327149}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(CarrierTone, IsPeriodicWithSixtyFiveCyclesOverTheArray) {
  const float* x = qor::CarrierTone.samples;
  const size_t n = qor::CarrierTone.length;
  // With the array length as "rate", frequency k is k cycles over the array.
  const double rate = static_cast<double>(n);
  const double fundamental = qor::test::toneAmplitude(x, n, 65.0, rate);
  EXPECT_GT(fundamental, 0.2);
  // The Hann window of the measurement spreads a line over one neighbour
  // each side, so the gaps are checked two bins away.
  for (double k : {1.0, 32.0, 63.0, 67.0, 97.0, 128.0, 132.0}) {
    EXPECT_LT(qor::test::toneAmplitude(x, n, k, rate), 1e-3 * fundamental) << k;
  }
  EXPECT_GT(qor::test::toneAmplitude(x, n, 130.0, rate), 0.1 * fundamental);  // rich in harmonics
}

}  // namespace
