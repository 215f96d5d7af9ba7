#include "dsp/voice/voice_math.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

namespace qor::test {
namespace {

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
