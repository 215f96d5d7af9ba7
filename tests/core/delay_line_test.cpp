// The delay line against a plain array model written here.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "dsp/core/delay_line.h"
#include "support/signals.h"

namespace {

// The obvious model: a vector and a write index, reads by explicit modulo.
struct Model {
  std::vector<float> buf = std::vector<float>(37, 0.0f);
  int64_t w = 0;
  size_t index(int64_t offset) const { return static_cast<size_t>(((w + offset) % 37 + 37) % 37); }
  float at(int64_t behind) const { return buf[index(-behind)]; }
  // Linear interpolation x samples behind the write index.
  float lerp(float x) const {
    const float a = x - std::floor(x);
    const auto i = static_cast<int64_t>(std::floor(x));
    return (1 - a) * at(i) + a * at(i + 1);
  }
};

class DelayLineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    storage.assign(65, 0.0f);
    storage[64] = 99.0f;  // guard after the capacity
    line.attach(64, storage.data());
    line.setLength(37);
    line.clear();
  }
  // Pushes noise: each push returns the sample written exactly 37 pushes ago.
  void feed(size_t count, uint32_t seed) {
    for (float v : qor::test::whiteNoise(count, seed)) {
      ASSERT_EQ(line.push(v), m.buf[m.index(0)]);
      m.buf[m.index(0)] = v;
      m.w = (m.w + 1) % 37;
    }
  }
  std::vector<float> storage;
  qor::DelayLine line{};
  Model m;
};

TEST_F(DelayLineTest, PushAndEveryReadMatchTheArrayModel) {
  feed(200, 5);
  EXPECT_EQ(storage[64], 99.0f) << "wrote past the capacity";
  EXPECT_EQ(line.readCurrent(), m.at(0));
  for (float f : {0.0f, 0.1f, 0.5f, 0.99f, 1.0f}) {
    const auto d = static_cast<int64_t>(std::floor(37.0f * f + 0.5f));
    EXPECT_EQ(line.readRounded(f, false), m.at(d)) << f;
    EXPECT_EQ(line.readRounded(f, true), m.at(d + 1)) << f;
  }
  for (float f : {0.01f, 0.25f, 0.333f, 0.97f}) {
    EXPECT_FLOAT_EQ(line.readFraction(f), m.lerp(37.0f * f)) << f;
    EXPECT_FLOAT_EQ(line.readFractionOr(f, 5.0f), m.lerp(37.0f * f)) << f;
  }
  for (float x : {0.5f, 1.0f, 17.25f, 36.9f}) EXPECT_FLOAT_EQ(line.readDelayed(x), m.lerp(x)) << x;
  EXPECT_FLOAT_EQ(line.readDelayedOr(2.5f, 3.0f), m.lerp(2.5f));
  // Out of range: the current sample, or the fallback at and below zero.
  const float current[] = {line.readRounded(-0.1f, false), line.readRounded(1.5f, true), line.readFraction(0.0f),
                           line.readFraction(1.0f), line.readFractionOr(1.0f, 5.0f), line.readDelayed(37.0f),
                           line.readDelayed(-2.0f)};
  for (float v : current) EXPECT_EQ(v, m.at(0));
  EXPECT_EQ(line.readFractionOr(0.0f, 5.0f), 5.0f);
  EXPECT_EQ(line.readDelayedOr(-2.0f, 3.0f), 3.0f);
  EXPECT_EQ(line.readDelayedOr(0.0f, 3.0f), 3.0f);
}

TEST_F(DelayLineTest, WriteAndAddAtWrapInTheLength) {
  feed(50, 9);
  line.writeSample(0.75f);
  m.buf[m.index(0)] = 0.75f;
  m.w = (m.w + 1) % 37;
  EXPECT_EQ(line.readDelayed(1.0f), 0.75f);
  line.addAt(3, 0.5f);
  line.addAt(40, 1.0f);
  m.buf[m.index(3)] += 1.5f;  // 40 wraps onto 3
  for (int64_t d = 0; d < 37; ++d) EXPECT_EQ(line.readRounded(d / 37.0f, false), m.at(d)) << d;
}

TEST_F(DelayLineTest, ReadAndClearDrainsFromTheInitialFill) {
  line.initialFill = 5;
  line.clear();
  for (int i = 0; i < 37; ++i) line.writeSample(static_cast<float>(i));
  // The write index is back at 0; reading starts at 5 and meets it after 32 reads.
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(line.empty, 0);
    EXPECT_EQ(line.readAndClear(), static_cast<float>(5 + i));
    EXPECT_EQ(storage[5 + i], 0.0f);
  }
  EXPECT_EQ(line.empty, 1);
}

TEST_F(DelayLineTest, ClearZeroesOnlyTheLengthAndDetachLeavesTheMemory) {
  feed(100, 11);
  storage[40] = 7.0f;
  line.clear();
  for (int i = 0; i < 37; ++i) EXPECT_EQ(storage[i], 0.0f);
  EXPECT_EQ(line.push(1.0f), 0.0f);
  line.detach();
  EXPECT_EQ(line.buffer, nullptr);
  EXPECT_EQ(storage[40], 7.0f);
  EXPECT_EQ(storage[0], 1.0f);
}

}  // namespace
