// The high-pass filter measured with sines, impulses and noise through Process.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "block_runner.h"
#include "dsp/dynamics/high_pass_filter.h"

namespace {

using namespace QorHighPassFilter_API_V1;
using R = QorHighPassFilterResult;
using namespace qor::test;

struct Calls {
  QOR_FAMILY_CALLS(HighPassFilter)
};
using Filter = Instance<Calls>;  // parameters: {order, cutoff, enable, crossfade ms}
std::vector<float> slice(const std::vector<float>& x, size_t from, size_t blocks) {
  return {x.begin() + from, x.begin() + from + blocks * 256};
}

// Transposed direct form II with double-precision coefficients of the
// prewarped bilinear Butterworth high-pass.
struct ReferenceSection {
  double b0, b1, b2, a1, a2, s1 = 0, s2 = 0;
  static ReferenceSection highPass(int order, double fc) {
    const double t = std::tan(kPi * fc / 48000.0), d = 1 + std::sqrt(2.0) * t + t * t;
    if (order == 1) return {1 / (1 + t), -1 / (1 + t), 0, (t - 1) / (t + 1), 0};
    return {1 / d, -2 / d, 1 / d, (2 * t * t - 2) / d, (1 - std::sqrt(2.0) * t + t * t) / d};
  }
  float step(float x) {
    const double y = b0 * x + s1;
    s1 = b1 * x + s2 - a1 * y;
    s2 = b2 * x - a2 * y;
    return static_cast<float>(y);
  }
};

// Tone gain over the last half second of two seconds, on both channels,
// against the closed-form |H|^2 = 1 / (1 + (tan(pi fc/fs) / tan(pi f/fs))^2N).
TEST(HighPassFilterResponse, MatchesTheButterworthMagnitudeAroundTheCutoffAndPassesTheVoiceBand) {
  for (auto [rate, order, fc] : {std::tuple{48000u, 1u, 60.0f}, std::tuple{48000u, 2u, 60.0f},
                                 std::tuple{44100u, 1u, 150.0f}, std::tuple{44100u, 2u, 400.0f},
                                 std::tuple{48000u, 2u, 20.0f}}) {
    for (const double f : {fc / 4.0, fc / 2.0, 1.0 * fc, fc * 2.0, fc * 4.0, 3000.0}) {
      const std::vector<float> x = sine(f, rate, 2 * rate, 0.5);
      const Signal y = Filter({order, fc, 1, 50.0f}, rate, 256, 2).run(onChannels(x, 2));
      const double gain = toneGainDb(x, y[0], f, rate * 3 / 2, 0, rate);
      EXPECT_NEAR(toneGainDb(x, y[1], f, rate * 3 / 2, 0, rate), gain, 1e-5) << "both channels alike";
      const double ratio = std::tan(kPi * fc / rate) / std::tan(kPi * f / rate);
      EXPECT_NEAR(gain, -10.0 * std::log10(1.0 + std::pow(ratio, 2.0 * order)), 0.05) << rate << ", " << f << " Hz";
    }
  }
}

// After `blocks` Process calls following a cutoff change, one impulse block
// reveals the first-order section in use: h[0] = b0 = 1 / (1 + tan(pi fc / fs)).
float cutoffInUseAfter(int blocks, float from, float to) {
  Filter filter({1, from, 1, 50.0f});
  filter.update({1, to, 1, 50.0f});
  std::vector<float> x(256 * static_cast<size_t>(blocks), 0.0f);
  x[x.size() - 256] = 1.0f;
  return static_cast<float>(std::atan(1.0 / filter.run(x)[x.size() - 256] - 1.0) * 48000.0 / kPi);
}

TEST(HighPassFilterGlide, CutoffMovesTenPercentPerBlockAndSnapsWithinOneHertz) {
  // Reference trajectory: c := 0.9 c + 0.1 target, snapping when within 1 Hz.
  std::vector<float> expected{60.0f};
  while (expected.back() != 400.0f) {
    const float c = 0.9f * expected.back() + 0.1f * 400.0f;
    expected.push_back(std::fabs(400.0f - c) < 1.0f ? 400.0f : c);
  }
  ASSERT_EQ(expected.size(), 57u) << "the 56th update snaps";
  for (int k : {1, 2, 3, 10, 30, 55, 56, 70}) {
    const float want = expected[std::min<size_t>(k, expected.size() - 1)];
    EXPECT_NEAR(cutoffInUseAfter(k, 60.0f, 400.0f), want, 0.02f * want / 60.0f + 0.01f) << k << " blocks";
  }
  EXPECT_LT(cutoffInUseAfter(55, 60.0f, 400.0f), 399.5f);
  EXPECT_NEAR(cutoffInUseAfter(20, 400.0f, 20.0f), 20.0f + 380.0f * std::pow(0.9f, 20.0f), 0.05f) << "downwards";
}

TEST(HighPassFilterState, OrderChangeRedesignsAtOnceKeepingTheStateAndBlockSizeDoesNotMatter) {
  Filter filter({1, 100.0f, 1, 50.0f});
  const std::vector<float> x = whiteNoise(512, 7, 0.5);
  ReferenceSection ref = ReferenceSection::highPass(1, 100.0), fresh = ReferenceSection::highPass(2, 100.0);
  const std::vector<float> y1 = filter.run(slice(x, 0, 1));
  for (size_t i = 0; i < 256; ++i) ASSERT_NEAR(y1[i], ref.step(x[i]), 1e-5) << i;
  filter.update({2, 100.0f, 1, 50.0f});
  const std::vector<float> y2 = filter.run(slice(x, 256, 1));
  ReferenceSection kept = fresh;
  kept.s1 = ref.s1, kept.s2 = ref.s2;
  double fromReset = 0;
  for (size_t i = 0; i < 256; ++i) {
    ASSERT_NEAR(y2[i], kept.step(x[256 + i]), 4e-4) << i;
    if (i < 8) fromReset = std::max<double>(fromReset, std::fabs(y2[i] - fresh.step(x[256 + i])));
  }
  EXPECT_GT(fromReset, 1e-2) << "a cleared state would have looked different";

  const Signal n = {whiteNoise(4096, 11, 0.5), whiteNoise(4096, 12, 0.5)};
  const Signal a = Filter({2, 120.0f, 1, 50.0f}, 48000, 64, 2).run(n);
  const Signal b = Filter({2, 120.0f, 1, 50.0f}, 48000, 1024, 2).run(n);
  for (int c = 0; c < 2; ++c) {
    for (size_t i = 0; i < 4096; ++i) ASSERT_NEAR(a[c][i], b[c][i], 1e-6) << c << ":" << i;
  }
  // Out of a fade the channels run as a pair; each comes out as if alone.
  const Signal pair = Filter({2, 120.0f, 1, 50.0f}, 48000, 256, 2).run(n);
  for (int c = 0; c < 2; ++c) EXPECT_EQ(Filter({2, 120.0f, 1, 50.0f}).run(n[c]), pair[c]) << c;
}

TEST(HighPassFilterBypass, NewCrossfadeTimeWaitsForTheNextInit) {
  // A low tone the filter removes almost entirely, so dry and filtered differ.
  const std::vector<float> x = sine(30.0, 48000.0, 512, 0.5), block = slice(x, 256, 1);
  Filter slow({2, 200.0f, 1, 50.0f}), instant({2, 200.0f, 1, 0.0f});
  slow.update({2, 200.0f, 0, 0.0f});
  instant.update({2, 200.0f, 0, 0.0f});
  EXPECT_GT(std::fabs(slow.run(block)[255] - block[255]), 0.01) << "still mostly filtered";
  const std::vector<float> z = instant.run(block);
  for (size_t i = 1; i < 256; ++i) ASSERT_EQ(z[i], block[i]) << "dry from the second sample";
  EXPECT_NE(z[0], block[0]) << "the first sample still uses the incoming mix";
}

TEST(HighPassFilterCalls, OnlyTheFirstTwoChannelPointersAreChecked) {
  Filter mono({2, 100.0f, 1, 50.0f}), stereo({2, 100.0f, 1, 50.0f}, 48000, 256, 2);
  ChannelBuffers audio(2, 256);
  float* withNull[2] = {audio[0], nullptr};
  float* withOdd[2] = {audio[0], audio[1] + 4};
  float* third[3] = {audio[0], audio[1], audio[1] + 4};
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorHighPassFilterProcess(mono.inst(), withNull), R::Success));
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorHighPassFilterProcess(mono.inst(), withOdd), R::ErrorMisaligned));
  EXPECT_NO_ALLOCATION(EXPECT_EQ(qorHighPassFilterProcess(stereo.inst(), third), R::Success));
}

}  // namespace
