// Block peak and the windowed peak history against plain in-order models,
// with spikes placed right at the crest thresholds where rounding decides.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "dsp/core/peak_detector.h"
#include "support/signals.h"

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

// Update (from samples) and Push (from a peak) both follow the model.
TEST_P(PeakHistoryModel, UpdateAndPushMatchTheInOrderModelIncludingThresholdTies) {
  const auto [divider, length] = GetParam();
  qor::PeakHistory h, pushed;
  for (qor::PeakHistory* x : {&h, &pushed}) qor::peakHistorySetup(*x, 48000, 32, divider);
  ASSERT_EQ(h.length, length) << "48000 / 32 / 2 / divider, within 1..150";
  ModelHistory model{std::vector<float>(static_cast<size_t>(length), 0.0f)};
  std::mt19937 rng(4242 + divider);
  std::uniform_real_distribution<float> level(0.0f, 1.0f);
  std::uniform_int_distribution<int> kind(0, 9), nudge(-3, 3);
  constexpr double kRatios[] = {3.0, 2.75, 2.5};
  int crafted = 0;
  for (int call = 0; call < 6000; ++call) {
    const int k = kind(rng);
    float p = k == 0 ? 0.0f : level(rng) * level(rng);
    double others = -model.history[static_cast<size_t>(model.writeIndex)];  // about to be overwritten
    for (float v : model.history) others += v;
    if (k >= 7 && others > 0.0 && length > kRatios[k - 7]) {
      // A spike p with L * p = c * (others + p), give or take a few ulps.
      p = static_cast<float>(kRatios[k - 7] * others / (length - kRatios[k - 7]));
      for (int n = nudge(rng); n != 0; n += n > 0 ? -1 : 1) p = std::nextafter(p, n > 0 ? 2.0f * p + 1.0f : 0.0f);
      ++crafted;
    }
    const float x = call % 2 == 0 ? p : -p, *channels[] = {&x};
    const float expected = model.push(p);
    ASSERT_EQ(qor::peakHistoryUpdate(h, channels, 0, 1, 1), expected) << "call " << call;
    ASSERT_EQ(qor::peakHistoryPush(pushed, p), expected) << "call " << call;
    ASSERT_TRUE(h.window == model.window && pushed.window == model.window) << "call " << call;
    const int32_t recent = 1 + call % length;
    ASSERT_EQ(qor::peakHistoryRecentMax(h, recent), model.recentMax(recent)) << "call " << call;
  }
  EXPECT_GE(crafted, length > 3 ? 500 : 0);
}

INSTANTIATE_TEST_SUITE_P(Lengths, PeakHistoryModel,
                         ::testing::Values(std::pair{1u, 150}, std::pair{10u, 75}, std::pair{15u, 50},
                                           std::pair{20u, 37}, std::pair{40u, 18}, std::pair{1000u, 1}));

// The vector path gives the plain loop's answer over any channels and span,
// with NaN samples skipped.
TEST(BlockPeak, EqualsThePlainMaximum) {
  std::vector<std::vector<float>> data;
  for (uint32_t seed = 0; seed < 3; ++seed) data.push_back(qor::test::whiteNoise(300, seed, 2.0));
  data[0][7] = data[2][150] = std::nanf("");
  data[1][200] = -40.0f;
  const float* channels[] = {data[0].data(), data[1].data(), data[2].data()};
  for (uint32_t start : {0u, 1u, 5u}) {
    for (uint32_t n : {0u, 3u, 15u, 16u, 17u, 64u, 250u, 294u}) {
      float plain = 0.0f;  // grows by one channel at a time
      for (int32_t count = 0; count <= 3; ++count) {
        ASSERT_EQ(qor::blockPeak(channels, start, n, count), plain) << start << " " << n << " " << count;
        for (uint32_t i = start; count < 3 && i < start + n; ++i) plain = std::max(plain, std::fabs(channels[count][i]));
      }
    }
  }
}

}  // namespace
