// The level meter family measured on signals, and its calling conventions.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "dsp/core/metering.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"

namespace {

using namespace QorMetering_API_V1;
using R = QorMeteringResult;

constexpr float kFloor = -758.6f;      // 20 log10 of the smallest normal float
constexpr double kBlocksPerSecond = 48000.0 / 256.0;

class MeterTest : public ::testing::Test {
 protected:
  void make(uint32_t channels = 2) {
    config = QorMeteringConfig{48000, 256, channels, 48000, 256, channels, {}};
    ASSERT_EQ(qorMeteringGetDefaultParameters(&config.parameters), R::Success);
    size_t size = 0;
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
  void setEnable(uint32_t enable) {
    QorMeteringParameters p{};
    ASSERT_EQ(qorMeteringGetParameters(inst, &p), R::Success);
    p.enable = enable;
    ASSERT_EQ(qorMeteringUpdateParameters(inst, &p), R::Success);
  }
  // The point holds a (peak dB, level dB, hold blocks) triple per channel.
  float peak(uint32_t c = 0) const { return point->data[3 * c]; }
  float level(uint32_t c = 0) const { return point->data[3 * c + 1]; }
  float hold(uint32_t c = 0) const { return point->data[3 * c + 2]; }
  void expectFloor(uint32_t c = 0) const {
    EXPECT_NEAR(peak(c), kFloor, 0.05);
    EXPECT_NEAR(level(c), kFloor, 0.05);
    EXPECT_EQ(hold(c), 0.0f);
  }

  QorMeteringConfig config{};
  std::unique_ptr<qor::test::InstanceMemory> memory;
  QorMeteringInst* inst = nullptr;
  const QorMeteringPoint* point = nullptr;
  std::unique_ptr<qor::test::ChannelBuffers> audio;
};

TEST_F(MeterTest, StartsAtTheFloorAndMeasuresChannelsSeparately) {
  make(3);
  ASSERT_EQ(point->count, 3u);
  for (uint32_t c = 0; c < 3; ++c) expectFloor(c);
  audio->fill(0.0f);
  audio->data()[1][100] = -0.5f;
  ASSERT_EQ(qorMeteringProcess(inst, audio->data()), R::Success);
  EXPECT_NEAR(peak(0), kFloor, 0.05);
  EXPECT_NEAR(peak(1), 20.0 * std::log10(0.5), 1e-3);
  EXPECT_NEAR(peak(2), kFloor, 0.05);
}

TEST_F(MeterTest, PeakJumpsAndLevelFollowsWithABlockRateTimeConstant) {
  make();
  run(1.0f);
  EXPECT_EQ(peak(), 0.0f);
  // A one-pole at block rate with a 250 ms time constant, from the floor to 0 dB.
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
    ASSERT_EQ(peak(), 0.0f) << "block " << i;
    ASSERT_EQ(hold(), static_cast<float>(i));
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
  setEnable(0x100);
  run(1.0f);
  expectFloor();
  setEnable(0x101);
  run(1.0f);
  EXPECT_EQ(peak(), 0.0f);
}

TEST_F(MeterTest, ParameterRangeAndARefusedUpdateChangesNothing) {
  make();
  QorMeteringParameters p{}, now{};
  ASSERT_EQ(qorMeteringGetParameters(inst, &p), R::Success);
  const std::pair<float, R> cases[] = {{100.5f, R::ErrorOutOfRange}, {-0.1f, R::ErrorOutOfRange},
                                       {std::nanf(""), R::Success}, {100.0f, R::Success}, {0.0f, R::Success}};
  for (const auto& [time, expected] : cases) {
    QorMeteringParameters q = p;
    q.crossfadeTime = time;
    EXPECT_EQ(qorMeteringUpdateParameters(inst, &q), expected) << time;
    ASSERT_EQ(qorMeteringGetParameters(inst, &now), R::Success);
    if (expected != R::Success) {
      EXPECT_EQ(now.crossfadeTime, p.crossfadeTime) << time;
    }
    QorMeteringConfig c = config;
    c.parameters.crossfadeTime = time;
    size_t size = 0;
    EXPECT_EQ(qorMeteringGetInstanceSize(&c, &size), expected) << time;
  }
  QorMeteringConfig c = config;  // rate and block size are not refused
  c.inputSampleRate = c.inputBlockSize = 0;
  size_t size = 0;
  EXPECT_EQ(qorMeteringGetInstanceSize(&c, &size), R::Success);
  int latency = -1;
  EXPECT_EQ(qorMeteringGetCurrentLatency(inst, &latency), R::Success);
  EXPECT_EQ(latency, 0);
}

TEST_F(MeterTest, CallingConventionsInCheckingOrder) {
  make();
  run(1.0f);
  size_t size = 0;
  int latency = 0;
  qor::test::ChannelBuffers wide(2, 260);
  float* shifted0[2] = {wide[0] + 4, wide[1]};
  float* shifted1[2] = {wide[0], wide[1] + 4};
  qor::test::InstanceMemory other(memory->size() + 32);
  auto* odd = reinterpret_cast<QorMeteringInst*>(other.bytes() + 16);
  const std::pair<std::function<R()>, R> cases[] = {
      {[&] { return qorMeteringGetInstanceSize(nullptr, &size); }, R::ErrorNullPointer},
      {[&] { return qorMeteringGetInstanceSize(&config, nullptr); }, R::ErrorNullPointer},
      {[&] { return qorMeteringInit(nullptr, &config); }, R::ErrorNullPointer},
      {[&] { return qorMeteringGetDefaultParameters(nullptr); }, R::ErrorNullPointer},
      {[&] { return qorMeteringProcess(inst, nullptr); }, R::ErrorNullPointer},
      {[&] { return qorMeteringGetMeteringPoint(nullptr, &point); }, R::ErrorNullPointer},
      {[&] { return qorMeteringGetCurrentLatency(inst, nullptr); }, R::ErrorNullPointer},
      {[&] { return qorMeteringInit(inst, &config); }, R::ErrorAlreadyInitialised},
      {[&] { return qorMeteringProcess(inst, shifted0); }, R::ErrorMisaligned},
      {[&] { return qorMeteringProcess(inst, shifted1); }, R::ErrorMisaligned},
      {[&] { return qorMeteringInit(odd, &config); }, R::ErrorMisaligned},
      {[&] { return qorMeteringGetMeteringPoint(odd, &point); }, R::ErrorMisaligned},
      {[&] { return qorMeteringRelease(inst); }, R::Success},
      // Released: not initialised for everything but the point.
      {[&] { return qorMeteringProcess(inst, audio->data()); }, R::ErrorNotInitialised},
      {[&] { return qorMeteringGetCurrentLatency(inst, &latency); }, R::ErrorNotInitialised},
      {[&] { return qorMeteringRelease(inst); }, R::ErrorNotInitialised},
      {[&] { return qorMeteringGetMeteringPoint(inst, &point); }, R::Success},
      {[&] { return qorMeteringInit(inst, &config); }, R::Success},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(cases[i].first(), cases[i].second) << "case " << i;
    if (i == 7) {
      EXPECT_EQ(peak(), 0.0f) << "a refused Init changes nothing";
    }
  }
}

}  // namespace
