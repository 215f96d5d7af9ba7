// The delay line against a plain array model written here: first the calls
// the effects make, then the rest of the line's reads.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "dsp/core/delay_line.h"
#include "support/signals.h"

namespace {

TEST(DelayLine, PushWriteAndReadsMatchAnArrayModelClearAndDetach) {
  std::vector<float> storage(65, 0.0f), model(37, 0.0f);
  storage[64] = 99.0f;  // guard after the capacity
  qor::DelayLine line{};
  line.attach(64, storage.data());
  line.setLength(37);
  line.clear();
  int64_t w = 0;  // the model's write index; reads count back from it
  const auto behind = [&](int64_t d) { return model[static_cast<size_t>(((w - d) % 37 + 37) % 37)]; };
  const std::vector<float> x = qor::test::whiteNoise(300, 5);
  for (size_t i = 0; i < x.size(); ++i) {
    // Push returns the sample written exactly 37 pushes ago; writeSample only stores.
    if (i % 3 == 0) {
      line.writeSample(x[i]);
    } else {
      ASSERT_EQ(line.push(x[i]), behind(0)) << i;
    }
    model[static_cast<size_t>(w)] = x[i];
    w = (w + 1) % 37;
    ASSERT_EQ(line.readCurrent(), behind(0)) << i;
    for (float d : {0.5f, 1.0f, 17.25f, 36.9f}) {
      const float a = d - std::floor(d);
      const auto k = static_cast<int64_t>(d);
      ASSERT_FLOAT_EQ(line.readDelayed(d), (1 - a) * behind(k) + a * behind(k + 1)) << i << " " << d;
    }
    // Out of range: the current sample.
    ASSERT_TRUE(line.readDelayed(37.0f) == behind(0) && line.readDelayed(-2.0f) == behind(0)) << i;
  }
  EXPECT_EQ(storage[64], 99.0f) << "wrote past the capacity";
  // Clear zeroes only the length and restarts at the front; detach leaves the memory alone.
  storage[40] = 7.0f;
  line.clear();
  for (int i = 0; i < 37; ++i) EXPECT_EQ(storage[i], 0.0f);
  EXPECT_EQ(line.push(1.0f), 0.0f);
  line.detach();
  EXPECT_EQ(line.buffer, nullptr);
  EXPECT_TRUE(storage[40] == 7.0f && storage[0] == 1.0f);
}

TEST(DelayLine, RoundedFractionalAndDrainingReads) {
  std::vector<float> storage(37, 0.0f);
  qor::DelayLine line{};
  line.attach(37, storage.data());
  line.initialFill = 5;
  line.clear();
  for (int i = 0; i < 37; ++i) line.writeSample(static_cast<float>(i));
  // w is back at 0, so the sample d behind it is (37 - d) % 37.
  const auto behind = [](int64_t d) { return static_cast<float>((37 - d % 37) % 37); };
  for (float f : {0.0f, 0.1f, 0.5f, 0.99f, 1.0f}) {
    const auto d = static_cast<int64_t>(std::floor(37.0f * f + 0.5f));
    EXPECT_TRUE(line.readRounded(f, false) == behind(d) && line.readRounded(f, true) == behind(d + 1)) << f;
  }
  EXPECT_EQ(line.readRounded(1.5f, true), behind(0));
  for (float f : {0.01f, 0.333f, 0.97f}) {
    const float x = 37.0f * f, a = x - std::floor(x);
    const auto k = static_cast<int64_t>(x);
    EXPECT_FLOAT_EQ(line.readFraction(f), (1 - a) * behind(k) + a * behind(k + 1)) << f;
  }
  EXPECT_TRUE(line.readFraction(1.0f) == behind(0) && line.readFractionOr(0.0f, 5.0f) == 5.0f);
  EXPECT_TRUE(line.readDelayedOr(0.0f, 3.0f) == 3.0f && line.readDelayedOr(2.0f, 3.0f) == behind(2));
  line.addAt(40, 0.5f);  // wraps to w + 3
  EXPECT_EQ(storage[3], 3.5f);
  // Draining starts at the initial fill and stops being non-empty at w.
  for (int i = 5; i < 37; ++i) {
    EXPECT_EQ(line.empty, 0);
    EXPECT_EQ(line.readAndClear(), static_cast<float>(i));
    EXPECT_EQ(storage[static_cast<size_t>(i)], 0.0f);
  }
  EXPECT_EQ(line.empty, 1);
}

}  // namespace
