#include "dsp/voice/voice_math.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

namespace qor::test {
namespace {

constexpr double kPi = std::numbers::pi;

// Angle difference folded into [-pi, pi], so +pi and -pi compare equal.
double angleError(double a, double b) {
  return std::fabs(std::remainder(a - b, 2.0 * kPi));
}

TEST(VoiceMath, ArcTangentMatchesTheLibraryInEveryOctant) {
  std::mt19937 gen(5);
  std::uniform_real_distribution<float> d(-1000.0f, 1000.0f);
  double worst = 0.0;
  for (int i = 0; i < 200000; ++i) {
    const float y = d(gen), x = d(gen);
    worst = std::max(worst, angleError(voiceAtan2(y, x), std::atan2(static_cast<double>(y), x)));
  }
  EXPECT_LT(worst, 2e-5);
  // Axes and the origin.
  EXPECT_NEAR(voiceAtan2(0.0f, 1.0f), 0.0, 1e-6);
  EXPECT_NEAR(voiceAtan2(1.0f, 0.0f), kPi / 2, 1e-5);
  EXPECT_NEAR(voiceAtan2(-1.0f, 0.0f), -kPi / 2, 1e-5);
  EXPECT_NEAR(std::fabs(voiceAtan2(0.0f, -1.0f)), kPi, 1e-5);
  EXPECT_EQ(voiceAtan2(0.0f, 0.0f), 0.0f);
  EXPECT_NEAR(voiceAtan2(1e-30f, 1e-30f), kPi / 4, 1e-5) << "tiny bins keep their angle";
}

TEST(VoiceMath, SineAndCosineMatchTheLibraryOverManyTurns) {
  double worst = 0.0;
  for (double x = -2000.0; x <= 2000.0; x += 0.0137) {
    float s, c;
    voiceSinCos(static_cast<float>(x), &s, &c);
    const double xf = static_cast<float>(x);
    worst = std::max({worst, std::fabs(s - std::sin(xf)), std::fabs(c - std::cos(xf))});
  }
  EXPECT_LT(worst, 5e-6);
}

TEST(VoiceMath, WrapFoldsByWholeTurns) {
  for (double x = -3000.0; x <= 3000.0; x += 0.731) {
    const float w = voiceWrap(static_cast<float>(x));
    EXPECT_LE(std::fabs(w), kPi + 1e-5);
    EXPECT_LT(angleError(w, static_cast<float>(x)), 1e-3) << x;  // float turns of 3000 rad
  }
  EXPECT_EQ(voiceWrap(0.5f), 0.5f);
  EXPECT_EQ(voiceRound(2.5f), 2.0f) << "ties to even";
  EXPECT_EQ(voiceRound(-3.7f), -4.0f);
}

TEST(VoiceMath, LogarithmMatchesTheLibraryOverTheWholeRange) {
  double worst = 0.0;
  for (double x = 1.2e-38; x < 3e38; x *= 1.00731) {
    const float xf = static_cast<float>(x);
    const double ref = std::log(static_cast<double>(xf));
    worst = std::max(worst, std::fabs(voiceLog(xf) - ref) / std::max(1.0, std::fabs(ref)));
  }
  EXPECT_LT(worst, 3e-7);
  EXPECT_EQ(voiceLog(1.0f), 0.0f);
  EXPECT_NEAR(voiceLog(0.000001f), std::log(1e-6), 1e-5) << "the floor of silent bins";
}

TEST(VoiceMath, ExponentialMatchesTheLibraryAndSaturates) {
  double worst = 0.0;
  for (double x = -87.0; x <= 88.0; x += 0.00917) {
    const float xf = static_cast<float>(x);
    const double ref = std::exp(static_cast<double>(xf));
    worst = std::max(worst, std::fabs(voiceExp(xf) - ref) / ref);
  }
  EXPECT_LT(worst, 5e-7);
  EXPECT_EQ(voiceExp(0.0f), 1.0f);
  EXPECT_LT(voiceExp(-1000.0f), 1e-37f);
  EXPECT_GE(voiceExp(-1000.0f), 0.0f);
  EXPECT_GT(voiceExp(1000.0f), 1e38f);
}

}  // namespace
}  // namespace qor::test
