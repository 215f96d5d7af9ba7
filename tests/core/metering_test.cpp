// The level meter family measured on signals, and its calling conventions.
#include <gtest/gtest.h>

#include <cmath>

#include "dsp/core/metering.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"

namespace {

using namespace QorMetering_API_V1;
using R = QorMeteringResult;

constexpr float kFloor = -758.6f;

class MeterTest : public ::testing::Test {
 protected:
  void make(uint32_t channels = 2, uint32_t rate = 48000, uint32_t block = 256) {
    config = QorMeteringConfig{rate, block, channels, rate, block, channels, {}};
    ASSERT_EQ(qorMeteringGetDefaultParameters(&config.parameters), R::Success);
    size_t size = 0;
    ASSERT_EQ(qorMeteringGetInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<qor::test::InstanceMemory>(size);
    inst = memory->as<QorMeteringInst>();
    ASSERT_EQ(qorMeteringInit(inst, &config), R::Success);
    ASSERT_EQ(qorMeteringGetMeteringPoint(inst, &point), R::Success);
    audio = std::make_unique<qor::test::ChannelBuffers>(channels, block);
  }
  void run(float value, int blocks = 1) {
    audio->fill(value);
    for (int i = 0; i < blocks; ++i) EXPECT_NO_ALLOCATION(ASSERT_EQ(qorMeteringProcess(inst, audio->data()), R::Success));
  }
  float peak(uint32_t c = 0) const { return point->data[3 * c]; }
  float level(uint32_t c = 0) const { return point->data[3 * c + 1]; }
  float hold(uint32_t c = 0) const { return point->data[3 * c + 2]; }

  QorMeteringConfig config{};
  std::unique_ptr<qor::test::InstanceMemory> memory;
  QorMeteringInst* inst = nullptr;
  const QorMeteringPoint* point = nullptr;
  std::unique_ptr<qor::test::ChannelBuffers> audio;
};

TEST_F(MeterTest, StartsAtTheFloorWithOneTriplePerChannel) {
  make(3);
  EXPECT_EQ(point->count, 3u);
  for (uint32_t c = 0; c < 3; ++c) {
    EXPECT_NEAR(peak(c), kFloor, 0.05);
    EXPECT_NEAR(level(c), kFloor, 0.05);
    EXPECT_EQ(hold(c), 0.0f);
  }
}

TEST_F(MeterTest, PeakJumpsAndLevelFollowsWithABlockRateTimeConstant) {
  make();
  run(1.0f);
  EXPECT_EQ(peak(), 0.0f);
  // Level: one step of a one-pole with tc(187 blocks/s, 250 ms).
  const double c = 1.0 - std::exp(-1.0 / (187.0 * 0.25));
  EXPECT_NEAR(level(), (1.0 - c) * -758.6, 0.05);
  // After 250 ms worth of blocks it has closed 1 - 1/e of the distance.
  const int blocks = static_cast<int>(std::lround(187.0 * 0.25));
  run(1.0f, blocks - 1);
  EXPECT_NEAR(level() / -758.6, std::pow(1.0 - c, blocks), 1e-3);
  EXPECT_NEAR(level() / -758.6, std::exp(-1.0), 0.02);
}

TEST_F(MeterTest, HoldsTwoSecondsThenDropsToTheCurrentBlock) {
  make();
  run(1.0f);
  const int holdBlocks = static_cast<int>(2.0f * 48000.0f / 256.0f);  // 375
  for (int i = 1; i <= holdBlocks; ++i) {
    run(0.0f);
    ASSERT_EQ(peak(), 0.0f) << "block " << i;
    ASSERT_EQ(hold(), static_cast<float>(i));
  }
  run(0.0f);
  EXPECT_NEAR(peak(), kFloor, 0.05) << "drops straight to the silent block's level";

  // With signal, it drops to the block peak lowered by one block's 10 dB/s decay.
  make();
  run(1.0f);
  run(0.25f, holdBlocks);
  run(0.25f);
  EXPECT_NEAR(peak(), 20.0 * std::log10(0.25) - 10.0 / 187.5, 1e-3);
  // The next block is louder than that, so the peak rises and the hold restarts.
  run(0.25f);
  EXPECT_NEAR(peak(), 20.0 * std::log10(0.25), 1e-4);
  EXPECT_EQ(hold(), 0.0f);
}

TEST_F(MeterTest, ChannelsAreMeasuredSeparately) {
  make(2);
  audio->fill(0.0f);
  audio->data()[1][100] = -0.5f;
  ASSERT_EQ(qorMeteringProcess(inst, audio->data()), R::Success);
  EXPECT_NEAR(peak(0), kFloor, 0.05);
  EXPECT_NEAR(peak(1), -6.0206f, 1e-3);
}

TEST_F(MeterTest, DisabledResetsEveryBlockOnlyLowByteCounts) {
  make();
  run(1.0f, 3);
  QorMeteringParameters p{};
  ASSERT_EQ(qorMeteringGetParameters(inst, &p), R::Success);
  p.enable = 0x100;  // low byte 0: off
  ASSERT_EQ(qorMeteringUpdateParameters(inst, &p), R::Success);
  run(1.0f);
  EXPECT_NEAR(peak(), kFloor, 0.05);
  EXPECT_NEAR(level(), kFloor, 0.05);
  EXPECT_EQ(hold(), 0.0f);
  p.enable = 0x101;
  ASSERT_EQ(qorMeteringUpdateParameters(inst, &p), R::Success);
  run(1.0f);
  EXPECT_EQ(peak(), 0.0f);
}

TEST_F(MeterTest, ParameterChecksAndLatency) {
  make();
  QorMeteringParameters p{};
  ASSERT_EQ(qorMeteringGetParameters(inst, &p), R::Success);
  QorMeteringParameters bad = p;
  bad.crossfadeTime = 100.5f;
  EXPECT_EQ(qorMeteringUpdateParameters(inst, &bad), R::ErrorOutOfRange);
  bad.crossfadeTime = -0.1f;
  EXPECT_EQ(qorMeteringUpdateParameters(inst, &bad), R::ErrorOutOfRange);
  QorMeteringParameters now{};
  ASSERT_EQ(qorMeteringGetParameters(inst, &now), R::Success);
  EXPECT_EQ(now.crossfadeTime, p.crossfadeTime) << "a refused update changes nothing";
  bad.crossfadeTime = std::nanf("");
  EXPECT_EQ(qorMeteringUpdateParameters(inst, &bad), R::Success) << "NaN passes range checks";
  bad.crossfadeTime = 100.0f;
  EXPECT_EQ(qorMeteringUpdateParameters(inst, &bad), R::Success);

  int latency = -1;
  EXPECT_EQ(qorMeteringGetCurrentLatency(inst, &latency), R::Success);
  EXPECT_EQ(latency, 0);

  QorMeteringConfig c = config;
  c.parameters.crossfadeTime = 101.0f;
  size_t size = 0;
  EXPECT_EQ(qorMeteringGetInstanceSize(&c, &size), R::ErrorOutOfRange);
  // Rate and block size are not refused.
  c = config;
  c.inputSampleRate = 0;
  c.inputBlockSize = 0;
  EXPECT_EQ(qorMeteringGetInstanceSize(&c, &size), R::Success);
}

TEST_F(MeterTest, CallingConventions) {
  make();
  // Null pointers.
  size_t size = 0;
  EXPECT_EQ(qorMeteringGetInstanceSize(nullptr, &size), R::ErrorNullPointer);
  EXPECT_EQ(qorMeteringGetInstanceSize(&config, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorMeteringInit(nullptr, &config), R::ErrorNullPointer);
  EXPECT_EQ(qorMeteringGetDefaultParameters(nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorMeteringProcess(inst, nullptr), R::ErrorNullPointer);
  EXPECT_EQ(qorMeteringGetMeteringPoint(nullptr, &point), R::ErrorNullPointer);
  int latency = 0;
  EXPECT_EQ(qorMeteringGetCurrentLatency(inst, nullptr), R::ErrorNullPointer);

  // Second Init is refused and changes nothing.
  run(1.0f);
  EXPECT_EQ(qorMeteringInit(inst, &config), R::ErrorAlreadyInitialised);
  EXPECT_EQ(peak(), 0.0f);

  // Misaligned channel: refused, samples untouched.
  qor::test::ChannelBuffers wide(2, 260);
  float* shifted[2] = {wide[0] + 4, wide[1]};
  EXPECT_EQ(qorMeteringProcess(inst, shifted), R::ErrorMisaligned);
  float* second[2] = {wide[0], wide[1] + 4};
  EXPECT_EQ(qorMeteringProcess(inst, second), R::ErrorMisaligned);

  // Misaligned instance.
  qor::test::InstanceMemory other(memory->size() + 32);
  auto* odd = reinterpret_cast<QorMeteringInst*>(other.bytes() + 16);
  EXPECT_EQ(qorMeteringInit(odd, &config), R::ErrorMisaligned);
  EXPECT_EQ(qorMeteringGetMeteringPoint(odd, &point), R::ErrorMisaligned);

  // Released: not initialised for everything but the point.
  ASSERT_EQ(qorMeteringRelease(inst), R::Success);
  EXPECT_EQ(qorMeteringProcess(inst, audio->data()), R::ErrorNotInitialised);
  EXPECT_EQ(qorMeteringGetCurrentLatency(inst, &latency), R::ErrorNotInitialised);
  EXPECT_EQ(qorMeteringRelease(inst), R::ErrorNotInitialised);
  EXPECT_EQ(qorMeteringGetMeteringPoint(inst, &point), R::Success);
  // And can be initialised again.
  EXPECT_EQ(qorMeteringInit(inst, &config), R::Success);
}

TEST_F(MeterTest, InstanceSizeCoversTheTriplesExactly) {
  make(1);
  size_t one = 0, nine = 0;
  QorMeteringConfig c = config;
  ASSERT_EQ(qorMeteringGetInstanceSize(&c, &one), R::Success);
  c.inputChannels = 9;
  ASSERT_EQ(qorMeteringGetInstanceSize(&c, &nine), R::Success);
  EXPECT_EQ(one % 32, 0u);
  EXPECT_EQ(nine - one, 96u);  // 9 triples: 108 bytes -> 128; 1 triple: 12 -> 32
}

}  // namespace
