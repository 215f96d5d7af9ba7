// Block peak and the windowed peak history against plain in-order models,
// with spikes placed right at the crest thresholds where rounding decides.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "dsp/core/peak_detector.h"

namespace {

// The detector written the obvious way: one pass for max and in-order sum.
struct ModelHistory {
  std::vector<float> history;
  int32_t writeIndex = 0, window = 0;
  int32_t len() const { return static_cast<int32_t>(history.size()); }
  float recentMax(int32_t count) const {
    float r = 0.0f;
    for (int32_t i = 1; i <= count; ++i) r = std::max(r, history[static_cast<size_t>((writeIndex - i + len()) % len())]);
    return r;
  }
  float push(float p) {
    history[static_cast<size_t>(writeIndex)] = p;
    writeIndex = (writeIndex + 1) % len();
    float m = p, s = 0.0f;
    for (float v : history) m = std::max(m, v), s += v;
    const double lm = static_cast<double>(len()) * m, sum = s;
    window = lm > 3.0 * sum ? 2 : lm > 2.75 * sum ? 4 : lm > 2.5 * sum ? 8 : window;
    if (window < 1) return m;
    const int32_t w = std::min(window, len());
    window = w + 1 < len() ? w + 1 : 0;
    return recentMax(w);
  }
};

class PeakHistoryModel : public ::testing::TestWithParam<std::pair<uint32_t, int32_t>> {};

TEST_P(PeakHistoryModel, MatchesInOrderModelIncludingThresholdTies) {
  const auto [divider, length] = GetParam();
  qor::PeakHistory h;
  qor::peakHistorySetup(h, 48000, 32, divider);
  ASSERT_EQ(h.length, length) << "48000 / 32 / 2 / divider, within 1..150";
  ModelHistory model{std::vector<float>(static_cast<size_t>(length), 0.0f)};
  std::mt19937 rng(4242 + divider);
  std::uniform_real_distribution<float> level(0.0f, 1.0f);
  std::uniform_int_distribution<int> kind(0, 9), nudge(-3, 3);
  constexpr double kRatios[] = {3.0, 2.75, 2.5};
  int crafted = 0;
  for (int call = 0; call < 6000; ++call) {
    float p = level(rng) * level(rng);
    const int k = kind(rng);
    if (k == 0) p = 0.0f;
    double others = -model.history[static_cast<size_t>(model.writeIndex)];  // about to be overwritten
    for (float v : model.history) others += v;
    const double c = k >= 7 ? kRatios[k - 7] : 0.0;
    if (c > 0.0 && others > 0.0 && length > c) {
      // A spike p with L * p = c * (others + p), give or take a few ulps.
      p = static_cast<float>(c * others / (length - c));
      for (int n = nudge(rng); n != 0; n += n > 0 ? -1 : 1) p = std::nextafter(p, n > 0 ? 2.0f * p + 1.0f : 0.0f);
      ++crafted;
    }
    const float x = call % 2 == 0 ? p : -p;
    const float* channels[] = {&x};
    ASSERT_EQ(qor::peakHistoryUpdate(h, channels, 0, 1, 1), model.push(p)) << "call " << call;
    ASSERT_EQ(h.window, model.window) << "call " << call;
    const int32_t recent = 1 + call % length;
    ASSERT_EQ(qor::peakHistoryRecentMax(h, recent), model.recentMax(recent)) << "call " << call;
  }
  if (length > 3) {
    EXPECT_GT(crafted, 500);
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, PeakHistoryModel,
                         ::testing::Values(std::pair{1u, 150}, std::pair{10u, 75}, std::pair{15u, 50},
                                           std::pair{20u, 37}, std::pair{40u, 18}, std::pair{1000u, 1}));

TEST(PeakHistoryPush, SameAsUpdateWithTheBlockPeak) {
  qor::PeakHistory a, b;
  qor::peakHistorySetup(a, 48000, 32, 20);
  qor::peakHistorySetup(b, 48000, 32, 20);
  std::mt19937 rng(77);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<float> left(32), right(32);
  for (int call = 0; call < 500; ++call) {
    for (size_t i = 0; i < 32; ++i) left[i] = (call % 50 == 0 ? 20.0f : 1.0f) * noise(rng), right[i] = noise(rng);
    const float* channels[] = {left.data(), right.data()};
    ASSERT_EQ(qor::peakHistoryUpdate(a, channels, 0, 32, 2), qor::peakHistoryPush(b, qor::blockPeak(channels, 0, 32, 2)));
    ASSERT_EQ(a.window, b.window);
  }
}

// The vector path gives the plain loop's answer over any channels and span,
// with NaN samples skipped.
TEST(BlockPeak, EqualsThePlainMaximum) {
  std::mt19937 rng(99);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<std::vector<float>> data(3, std::vector<float>(300));
  for (int trial = 0; trial < 200; ++trial) {
    for (auto& channel : data) std::generate(channel.begin(), channel.end(), [&] { return noise(rng); });
    if (trial % 3 == 0) data[trial % 2][static_cast<size_t>(trial % 80)] = std::nanf("");
    if (trial % 5 == 0) data[1][static_cast<size_t>((trial * 7) % 80)] = -40.0f;
    const float* channels[] = {data[0].data(), data[1].data(), data[2].data()};
    const auto start = static_cast<uint32_t>(trial % 7);
    const auto n = static_cast<uint32_t>((trial * 13) % 74 + (trial % 4 == 0 ? 220 : 0));
    for (int32_t count = 0; count <= 3; ++count) {
      float plain = 0.0f;
      for (int32_t c = 0; c < count; ++c) {
        for (uint32_t i = start; i < start + n; ++i) plain = std::max(plain, std::fabs(channels[c][i]));
      }
      ASSERT_EQ(qor::blockPeak(channels, start, n, count), plain) << trial << " " << count;
    }
  }
}

}  // namespace
