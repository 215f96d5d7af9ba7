// The level meter family measured on signals, and its calling conventions.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "dsp/core/metering.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"

namespace {

using namespace QorMetering_API_V1;
using R = QorMeteringResult;

const double kFloor = 20.0 * std::log10(static_cast<double>(FLT_MIN));  // silence, in dB
constexpr double kBlocksPerSecond = 48000.0 / 256.0;

class MeterTest : public ::testing::Test {
 protected:
  void make(uint32_t channels = 2) {
    config = QorMeteringConfig{48000, 256, channels, 48000, 256, channels, {}};
    size_t size = 0;
    ASSERT_EQ(qorMeteringGetDefaultParameters(&config.parameters), R::Success);
    ASSERT_EQ(qorMeteringGetInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<qor::test::InstanceMemory>(size);
    inst = memory->as<QorMeteringInst>();
    ASSERT_EQ(qorMeteringInit(inst, &config), R::Success);
    ASSERT_EQ(qorMeteringGetMeteringPoint(inst, &point), R::Success);
    audio = std::make_unique<qor::test::ChannelBuffers>(channels, 256);
  }
  void run(float value, int blocks = 1) {
    audio->fill(value);
    for (int i = 0; i < blocks; ++i) EXPECT_NO_ALLOCATION(ASSERT_EQ(qorMeteringProcess(inst, audio->data()), R::Success));
  }
  // The point holds a (peak dB, level dB, hold blocks) triple per channel.
  float peak(uint32_t c = 0) const { return point->data[3 * c]; }
  float level(uint32_t c = 0) const { return point->data[3 * c + 1]; }
  float hold(uint32_t c = 0) const { return point->data[3 * c + 2]; }

  QorMeteringConfig config{};
  std::unique_ptr<qor::test::InstanceMemory> memory;
  QorMeteringInst* inst = nullptr;
  const QorMeteringPoint* point = nullptr;
  std::unique_ptr<qor::test::ChannelBuffers> audio;
};

TEST_F(MeterTest, StartsAtTheFloorMeasuresChannelsSeparatelyAndLevelFollows) {
  make(3);
  ASSERT_EQ(point->count, 3u);
  for (uint32_t c = 0; c < 9; ++c) EXPECT_NEAR(point->data[c], c % 3 == 2 ? 0.0f : kFloor, 0.05) << c;
  audio->fill(0.0f);
  audio->data()[1][100] = -0.5f;
  ASSERT_EQ(qorMeteringProcess(inst, audio->data()), R::Success);
  for (uint32_t c = 0; c < 3; ++c) EXPECT_NEAR(peak(c), c == 1 ? 20.0 * std::log10(0.5) : kFloor, 1e-3) << c;
  // The level is a one-pole at block rate with a 250 ms time constant.
  make();
  run(1.0f);
  EXPECT_EQ(peak(), 0.0f);
  const double keep = std::exp(-1.0 / (187.0 * 0.25));
  EXPECT_NEAR(level(), keep * kFloor, 0.05);
  const int blocks = static_cast<int>(std::lround(187.0 * 0.25));
  run(1.0f, blocks - 1);
  EXPECT_NEAR(level() / kFloor, std::pow(keep, blocks), 1e-3);
  EXPECT_NEAR(level() / kFloor, std::exp(-1.0), 0.02) << "1 - 1/e of the way after 250 ms";
}

TEST_F(MeterTest, HoldsTwoSecondsThenDropsToTheCurrentBlock) {
  make();
  run(1.0f);
  const int holdBlocks = static_cast<int>(2.0 * kBlocksPerSecond);
  for (int i = 1; i <= holdBlocks; ++i) {
    run(0.0f);
    ASSERT_TRUE(peak() == 0.0f && hold() == static_cast<float>(i)) << "block " << i;
  }
  run(0.0f);
  EXPECT_NEAR(peak(), kFloor, 0.05) << "drops straight to the silent block's level";
  // With signal, it drops to the block peak lowered by one block's 10 dB/s decay.
  make();
  run(1.0f);
  run(0.25f, holdBlocks + 1);
  EXPECT_NEAR(peak(), 20.0 * std::log10(0.25) - 10.0 / kBlocksPerSecond, 1e-3);
  // The next block is louder than that, so the peak rises and the hold restarts.
  run(0.25f);
  EXPECT_NEAR(peak(), 20.0 * std::log10(0.25), 1e-4);
  EXPECT_EQ(hold(), 0.0f);
}

TEST_F(MeterTest, DisabledResetsEveryBlockAndOnlyTheLowByteCounts) {
  make();
  run(1.0f, 3);
  QorMeteringParameters p{};
  ASSERT_EQ(qorMeteringGetParameters(inst, &p), R::Success);
  p.enable = 0x100;  // low byte 0: off
  ASSERT_EQ(qorMeteringUpdateParameters(inst, &p), R::Success);
  run(1.0f);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_NEAR(point->data[i], i == 2 ? 0.0f : kFloor, 0.05) << i;
  p.enable = 0x101;
  ASSERT_EQ(qorMeteringUpdateParameters(inst, &p), R::Success);
  run(1.0f);
  EXPECT_EQ(peak(), 0.0f);
}

TEST_F(MeterTest, ParameterRangeARefusedUpdateChangesNothingAndCallsInCheckingOrder) {
  make();
  run(1.0f);
  QorMeteringParameters now{};
  size_t size = 0;
  int latency = -1;
  const std::pair<float, R> cases[] = {{100.5f, R::ErrorOutOfRange}, {-0.1f, R::ErrorOutOfRange},
                                       {std::nanf(""), R::Success}, {100.0f, R::Success}};
  for (const auto& [time, expected] : cases) {  // the crossfade time, in ms
    QorMeteringConfig c = config;
    c.parameters.crossfadeTime = time;
    EXPECT_EQ(qorMeteringGetInstanceSize(&c, &size), expected) << time;
    EXPECT_EQ(qorMeteringUpdateParameters(inst, &c.parameters), expected) << time;
    ASSERT_EQ(qorMeteringGetParameters(inst, &now), R::Success);
    EXPECT_TRUE(expected == R::Success || now.crossfadeTime == config.parameters.crossfadeTime) << time;
  }
  qor::test::ChannelBuffers wide(2, 260);
  float* shifted[2] = {wide[0], wide[1] + 4};  // the second channel off by 16 bytes
  qor::test::InstanceMemory other(memory->size() + 32);
  auto* odd = reinterpret_cast<QorMeteringInst*>(other.bytes() + 16);
  // Evaluated in order; a refused Init keeps the measured state.
  const std::pair<R, R> live[] = {
      {qorMeteringGetInstanceSize(nullptr, &size), R::ErrorNullPointer}, {qorMeteringInit(nullptr, &config), R::ErrorNullPointer},
      {qorMeteringGetDefaultParameters(nullptr), R::ErrorNullPointer}, {qorMeteringProcess(inst, nullptr), R::ErrorNullPointer},
      {qorMeteringGetMeteringPoint(nullptr, &point), R::ErrorNullPointer}, {qorMeteringGetCurrentLatency(inst, nullptr), R::ErrorNullPointer},
      {qorMeteringGetCurrentLatency(inst, &latency), R::Success}, {qorMeteringInit(inst, &config), R::ErrorAlreadyInitialised},
      {qorMeteringProcess(inst, shifted), R::ErrorMisaligned}, {qorMeteringInit(odd, &config), R::ErrorMisaligned},
      {qorMeteringGetMeteringPoint(odd, &point), R::ErrorMisaligned}, {qorMeteringRelease(inst), R::Success},
      // Released: not initialised for everything but the point.
      {qorMeteringProcess(inst, audio->data()), R::ErrorNotInitialised}, {qorMeteringRelease(inst), R::ErrorNotInitialised},
      {qorMeteringGetCurrentLatency(inst, &latency), R::ErrorNotInitialised}, {qorMeteringGetMeteringPoint(inst, &point), R::Success}};
  for (size_t i = 0; i < std::size(live); ++i) EXPECT_EQ(live[i].first, live[i].second) << i;
  EXPECT_EQ(peak(), 0.0f);
  EXPECT_EQ(latency, 0) << "no latency";
  EXPECT_EQ(qorMeteringInit(inst, &config), R::Success);
}

}  // namespace
