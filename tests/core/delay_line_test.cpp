// The delay line against a plain array model written here.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "dsp/core/delay_line.h"
#include "support/signals.h"

namespace {

// The obvious model: a vector and a write index, reads by explicit modulo.
struct Model {
  std::vector<float> buf;
  int64_t w = 0;
  explicit Model(size_t len) : buf(len, 0.0f) {}
  int64_t len() const { return static_cast<int64_t>(buf.size()); }
  float at(int64_t behind) const { return buf[static_cast<size_t>(((w - behind) % len() + len()) % len())]; }
  float push(float x) {
    const float out = buf[w];
    buf[w] = x;
    w = (w + 1) % len();
    return out;
  }
};

class DelayLineTest : public ::testing::Test {
 protected:
  static constexpr uint32_t kCapacity = 64;
  void SetUp() override {
    storage.assign(kCapacity + 1, 0.0f);
    storage[kCapacity] = 99.0f;  // guard after the buffer
    line.attach(kCapacity, storage.data());
    line.setLength(37);
    line.clear();
  }
  void feed(Model& m, size_t count, uint32_t seed) {
    const std::vector<float> x = qor::test::whiteNoise(count, seed);
    for (float v : x) ASSERT_EQ(line.push(v), m.push(v));
  }
  std::vector<float> storage;
  qor::DelayLine line{};
};

TEST_F(DelayLineTest, PushDelaysByExactlyTheLength) {
  std::vector<float> out;
  for (int i = 0; i < 100; ++i) out.push_back(line.push(static_cast<float>(i + 1)));
  for (int i = 0; i < 37; ++i) EXPECT_EQ(out[i], 0.0f);
  for (int i = 37; i < 100; ++i) EXPECT_EQ(out[i], static_cast<float>(i - 36));
  EXPECT_EQ(storage[kCapacity], 99.0f) << "wrote past the capacity";
}

TEST_F(DelayLineTest, ReadsMatchTheArrayModel) {
  Model m(37);
  feed(m, 200, 5);
  EXPECT_EQ(line.readCurrent(), m.at(0));
  for (float f : {0.0f, 0.1f, 0.5f, 0.99f, 1.0f}) {
    const int64_t d = static_cast<int64_t>(std::floor(37.0f * f + 0.5f));
    EXPECT_EQ(line.readRounded(f, false), m.at(d)) << f;
    EXPECT_EQ(line.readRounded(f, true), m.at(d + 1)) << f;
  }
  EXPECT_EQ(line.readRounded(-0.1f, false), m.at(0));
  EXPECT_EQ(line.readRounded(1.5f, true), m.at(0));
  for (float f : {0.01f, 0.25f, 0.333f, 0.97f}) {
    const float x = 37.0f * f;
    const int64_t i = static_cast<int64_t>(std::floor(x));
    const float a = x - std::floor(x);
    EXPECT_FLOAT_EQ(line.readFraction(f), (1 - a) * m.at(i) + a * m.at(i + 1)) << f;
    EXPECT_FLOAT_EQ(line.readFractionOr(f, 5.0f), line.readFraction(f));
  }
  EXPECT_EQ(line.readFraction(0.0f), m.at(0));
  EXPECT_EQ(line.readFraction(1.0f), m.at(0));
  EXPECT_EQ(line.readFractionOr(0.0f, 5.0f), 5.0f);
  EXPECT_EQ(line.readFractionOr(1.0f, 5.0f), m.at(0));
  for (float x : {0.5f, 1.0f, 17.25f, 36.9f}) {
    const int64_t i = static_cast<int64_t>(std::floor(x));
    const float a = x - std::floor(x);
    EXPECT_FLOAT_EQ(line.readDelayed(x), (1 - a) * m.at(i) + a * m.at(i + 1)) << x;
  }
  EXPECT_EQ(line.readDelayed(37.0f), m.at(0));
  EXPECT_EQ(line.readDelayed(-2.0f), m.at(0));
  EXPECT_EQ(line.readDelayedOr(-2.0f, 3.0f), 3.0f);
  EXPECT_EQ(line.readDelayedOr(0.0f, 3.0f), 3.0f);
  EXPECT_FLOAT_EQ(line.readDelayedOr(2.5f, 3.0f), line.readDelayed(2.5f));
}

TEST_F(DelayLineTest, WriteAndAddAt) {
  Model m(37);
  feed(m, 50, 9);
  line.writeSample(0.75f);
  m.push(0.75f);
  EXPECT_EQ(line.readDelayed(1.0f), 0.75f);
  line.addAt(3, 0.5f);
  m.buf[static_cast<size_t>((m.w + 3) % 37)] += 0.5f;
  for (int64_t d = 0; d < 37; ++d) EXPECT_EQ(line.readRounded(d / 37.0f, false), m.at(d));
  line.addAt(40, 1.0f);  // wraps
  EXPECT_EQ(storage[(line.write + 40) % 37], m.buf[static_cast<size_t>((m.w + 40) % 37)] + 1.0f);
}

TEST_F(DelayLineTest, ReadAndClearDrainsFromTheInitialFill) {
  line.initialFill = 5;
  line.clear();
  EXPECT_EQ(line.read, 5u);
  EXPECT_EQ(line.fillCount, 5u);
  for (int i = 0; i < 37; ++i) line.writeSample(static_cast<float>(i));
  // w is back at 0; read starts at 5 and meets w after 32 reads.
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(line.empty, 0);
    EXPECT_EQ(line.readAndClear(), static_cast<float>(5 + i));
    EXPECT_EQ(storage[5 + i], 0.0f);
  }
  EXPECT_EQ(line.empty, 1);
}

TEST_F(DelayLineTest, ClearZeroesOnlyTheLengthAndDetachForgets) {
  Model m(37);
  feed(m, 100, 11);
  storage[40] = 7.0f;
  line.clear();
  for (int i = 0; i < 37; ++i) EXPECT_EQ(storage[i], 0.0f);
  EXPECT_EQ(storage[40], 7.0f);
  EXPECT_EQ(line.write, 0u);
  EXPECT_NEAR(line.lengthMs(48000.0f), 37000.0f / 48000.0f, 1e-6);
  line.detach();
  EXPECT_EQ(line.buffer, nullptr);
  EXPECT_EQ(line.capacity, 0u);
  EXPECT_EQ(storage[40], 7.0f) << "detach must not touch the caller's memory";
}

}  // namespace
