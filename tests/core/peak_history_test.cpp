// The windowed peak history against a plain in-order model, with spikes
// placed right at the crest thresholds where rounding of the sum decides.
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
  int32_t writeIndex = 0;
  int32_t window = 0;

  explicit ModelHistory(int32_t length) : history(static_cast<size_t>(length), 0.0f) {}

  float push(float p) {
    const auto len = static_cast<int32_t>(history.size());
    history[static_cast<size_t>(writeIndex)] = p;
    writeIndex = (writeIndex + 1) % len;
    float m = p;
    float s = 0.0f;
    for (float v : history) {
      m = std::max(m, v);
      s += v;
    }
    const double lm = static_cast<double>(len) * m;
    const double sum = s;
    if (lm > 3.0 * sum) {
      window = 2;
    } else if (lm > 2.75 * sum) {
      window = 4;
    } else if (lm > 2.5 * sum) {
      window = 8;
    }
    if (window < 1) return m;
    const int32_t w = std::min(window, len);
    float r = 0.0f;
    int32_t idx = writeIndex;
    for (int32_t i = 0; i < w; ++i) {
      idx = idx == 0 ? len - 1 : idx - 1;
      r = std::max(r, history[static_cast<size_t>(idx)]);
    }
    window = w + 1 < len ? w + 1 : 0;
    return r;
  }
};

class PeakHistoryModel : public ::testing::TestWithParam<uint32_t> {};

TEST_P(PeakHistoryModel, MatchesInOrderModelIncludingThresholdTies) {
  qor::PeakHistory h;
  qor::peakHistorySetup(h, 48000, 32, GetParam());
  ModelHistory model(h.length);
  std::mt19937 rng(4242 + GetParam());
  std::uniform_real_distribution<float> level(0.0f, 1.0f);
  std::uniform_int_distribution<int> kind(0, 9);
  std::uniform_int_distribution<int> nudge(-3, 3);
  const double ratios[] = {3.0, 2.75, 2.5};
  int crafted = 0;
  for (int call = 0; call < 6000; ++call) {
    float p = level(rng) * level(rng);
    const int k = kind(rng);
    if (k == 0) p = 0.0f;
    if (k >= 7 && h.length > 3) {
      // A spike p with L * p = c * (others + p), give or take a few ulps.
      const int32_t len = h.length;
      const double c = ratios[k - 7];
      double others = 0.0;
      for (int32_t i = 0; i < len; ++i) {
        if (i != model.writeIndex) others += model.history[static_cast<size_t>(i)];
      }
      if (others > 0.0 && len > c) {
        p = static_cast<float>(c * others / (len - c));
        for (int n = nudge(rng); n != 0; n += n > 0 ? -1 : 1) {
          p = std::nextafter(p, n > 0 ? 2.0f * p + 1.0f : 0.0f);
        }
        ++crafted;
      }
    }
    float x = call % 2 == 0 ? p : -p;
    const float* channels[] = {&x};
    const float got = qor::peakHistoryUpdate(h, channels, 0, 1, 1);
    ASSERT_EQ(got, model.push(p)) << "call " << call;
    ASSERT_EQ(h.window, model.window) << "call " << call;
  }
  if (h.length > 3) {
    EXPECT_GT(crafted, 500);
  }
}

// History lengths 150, 75, 50, 37, 18 and 1 at 48 kHz.
INSTANTIATE_TEST_SUITE_P(Lengths, PeakHistoryModel, ::testing::Values(1u, 5u, 15u, 20u, 40u, 1000u));

TEST(PeakHistoryPush, SameAsUpdateWithTheBlockPeak) {
  qor::PeakHistory a;
  qor::PeakHistory b;
  qor::peakHistorySetup(a, 48000, 32, 20);
  qor::peakHistorySetup(b, 48000, 32, 20);
  std::mt19937 rng(77);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<float> left(32), right(32);
  for (int call = 0; call < 500; ++call) {
    const float scale = call % 50 == 0 ? 20.0f : 1.0f;
    for (size_t i = 0; i < 32; ++i) {
      left[i] = scale * noise(rng);
      right[i] = noise(rng);
    }
    const float* channels[] = {left.data(), right.data()};
    const float viaUpdate = qor::peakHistoryUpdate(a, channels, 0, 32, 2);
    const float viaPush = qor::peakHistoryPush(b, qor::blockPeak(channels, 0, 32, 2));
    ASSERT_EQ(viaUpdate, viaPush);
    ASSERT_EQ(a.window, b.window);
  }
}

}  // namespace

namespace {

// Several channels, any span, NaN samples included: the plain loop's answer.
TEST(BlockPeakChannels, EqualsThePlainMaximum) {
  std::mt19937 rng(99);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<std::vector<float>> data(3, std::vector<float>(80));
  for (int trial = 0; trial < 200; ++trial) {
    for (auto& channel : data) {
      for (float& v : channel) v = noise(rng);
    }
    if (trial % 3 == 0) data[trial % 2][static_cast<size_t>(trial % 80)] = std::nanf("");
    if (trial % 5 == 0) data[1][static_cast<size_t>((trial * 7) % 80)] = -40.0f;
    const float* channels[] = {data[0].data(), data[1].data(), data[2].data()};
    const auto start = static_cast<uint32_t>(trial % 7);
    const auto n = static_cast<uint32_t>((trial * 13) % 74);
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
