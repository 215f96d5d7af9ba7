// The shared conventions: instance layout, argument checks, bypass crossfade.
#include <gtest/gtest.h>

#include <cmath>

#include "dsp/core/bypass.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"
#include "support/audio_buffers.h"

namespace {

struct FakeState {
  uint64_t marker;
  float* a;
  double* b;
};

// A layout routine in the house style: counts with a null base, places otherwise.
size_t layOut(void* base, uint32_t n, FakeState** out) {
  qor::InstanceLayout lay(base);
  FakeState* s = lay.take<FakeState>();
  float* a = lay.take<float>(n);
  double* b = lay.take<double>(3);
  if (s != nullptr) {
    s->a = a;
    s->b = b;
    *out = s;
  }
  return lay.size();
}

TEST(InstanceLayout, CountingAndPlacingAgreeAndEveryPieceIsAligned) {
  for (uint32_t n : {0u, 1u, 7u, 8u, 9u, 1000u}) {
    const size_t size = layOut(nullptr, n, nullptr);
    qor::test::InstanceMemory mem(size);
    FakeState* s = nullptr;
    EXPECT_EQ(layOut(mem.bytes(), n, &s), size);
    ASSERT_NE(s, nullptr);
    EXPECT_TRUE(qor::isAligned32(s->b));
    if (n > 0) {
      EXPECT_TRUE(qor::isAligned32(s->a));
      EXPECT_GE(reinterpret_cast<char*>(s->b) - reinterpret_cast<char*>(s->a), static_cast<ptrdiff_t>(4 * n));
    }
    EXPECT_LE(reinterpret_cast<unsigned char*>(s->b + 3), mem.bytes() + size);
  }
}

TEST(Checks, ArgumentChecksInTheirOrder) {
  qor::test::InstanceMemory mem(64);
  auto* s = reinterpret_cast<FakeState*>(mem.bytes());
  auto* odd = reinterpret_cast<FakeState*>(mem.bytes() + 16);
  int config = 0;
  qor::test::ChannelBuffers ch(2, 64);
  float* good[2] = {ch[0], ch[1]};
  float* bad[2] = {ch[0], ch[1] + 1};
  // {marker set, result, expected}: null before alignment before the marker.
  const struct { bool ready; int32_t got, expected; } cases[] = {
      {false, qor::checkInit<FakeState>(nullptr, &config), qor::ErrorNullPointer},
      {false, qor::checkInit(s, nullptr), qor::ErrorNullPointer},
      {false, qor::checkInit(odd, &config), qor::ErrorMisaligned},
      {false, qor::checkInit(s, &config), qor::Success},
      {false, qor::checkReady(s, s), qor::ErrorNotInitialised},
      {false, qor::checkProcess(s, bad, 2), qor::ErrorMisaligned},
      {false, qor::checkProcess(s, good, 2), qor::ErrorNotInitialised},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, c.expected) << &c - cases;
  s->marker = qor::kInitMarker;
  const int32_t ready[][2] = {
      {qor::checkInit(s, &config), qor::ErrorAlreadyInitialised},
      {qor::checkReady(s, s), qor::Success},
      {qor::checkReady(s, nullptr), qor::ErrorNullPointer},
      {qor::checkProcess(s, good, 2), qor::Success},
      {qor::checkProcess(s, bad, 2), qor::ErrorMisaligned},
      {qor::checkProcess(s, bad, 1), qor::Success},  // only the configured channels count
      {qor::checkProcess(s, nullptr, 2), qor::ErrorNullPointer},
  };
  for (const auto& c : ready) EXPECT_EQ(c[0], c[1]) << &c - ready;
}

TEST(Checks, RangeTestsLetNanPassAndParameterErrorsAreNumbered) {
  EXPECT_FALSE(qor::outOfRange(std::nanf(""), 0.0f, 1.0f));
  EXPECT_FALSE(qor::outOfRange(0.0f, 0.0f, 1.0f));
  EXPECT_FALSE(qor::outOfRange(1.0f, 0.0f, 1.0f));
  EXPECT_TRUE(qor::outOfRange(1.0001f, 0.0f, 1.0f));
  EXPECT_TRUE(qor::outOfRange(-1, 0, 3));
  EXPECT_EQ(qor::parameterError(0), -1005000);
  EXPECT_EQ(qor::parameterError(11), -1005011);
}

class BypassTest : public ::testing::Test {
 protected:
  static constexpr uint32_t kN = 256;
  // One block: wet is +1, dry is -1; returns the reset flag.
  bool block(bool enabled) {
    wet.fill(1.0f);
    dry.fill(-1.0f);
    return fade.finish(enabled, wet.data(), dry.data(), 2, kN);
  }
  qor::BypassFade fade{};
  qor::test::ChannelBuffers wet{2, kN}, dry{2, kN};
};

TEST_F(BypassTest, SwitchOffFadesToDrySnapsAndAsksForAReset) {
  fade.init(true, 10.0f, 48000.0f);
  EXPECT_FALSE(fade.transition(true));
  EXPECT_FALSE(block(true));
  EXPECT_EQ(wet[0][0], 1.0f) << "no transition: the processed block is untouched";
  int blocks = 0;
  for (bool reset = false; !reset && blocks < 100; ++blocks) {
    ASSERT_TRUE(fade.active(false));
    reset = block(false);
    ASSERT_EQ(wet[0][0], wet[1][0]) << "both channels follow the same mix";
    ASSERT_EQ(wet[0][kN - 1], wet[1][kN - 1]);
  }
  EXPECT_EQ(fade.mix, 0.0f);
  EXPECT_FALSE(fade.active(false));
  EXPECT_EQ(blocks, 2) << "10 ms at 48 kHz is 480 samples to -100 dB";
}

TEST_F(BypassTest, SwitchOnFadesToProcessedWithoutResetAndKeepDryCopies) {
  fade.init(false, 50.0f, 48000.0f);
  EXPECT_FALSE(fade.active(false));
  EXPECT_TRUE(fade.active(true));
  float previous = -2.0f;
  int blocks = 0;
  for (; fade.transition(true) && blocks < 100; ++blocks, previous = wet[0][kN - 1]) {
    EXPECT_FALSE(block(true));
    EXPECT_GT(wet[0][kN - 1], previous);
  }
  EXPECT_EQ(fade.mix, 1.0f);
  EXPECT_NEAR(blocks * kN, 2400, kN) << "50 ms";
  qor::test::ChannelBuffers in(2, kN);
  in.fill(0.25f);
  qor::BypassFade::keepDry(in.data(), dry.data(), 2, kN);
  EXPECT_EQ(dry[1][kN - 1], 0.25f);
}

}  // namespace
