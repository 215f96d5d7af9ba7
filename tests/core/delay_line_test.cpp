// The delay line against a plain array model written here. Covers the calls
// the effects make: attach, setLength, clear, push, writeSample, readCurrent,
// readDelayed, detach.
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

}  // namespace
