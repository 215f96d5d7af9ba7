// How host blocks map onto the chain's frames, for the rates the host uses.
#include <gtest/gtest.h>

#include <cmath>

#include "dsp/chain/frame_geometry.h"

namespace {

TEST(FrameGeometry, At48kHzWith480FrameBlocks) {
  qor::FrameGeometry g{};
  ASSERT_EQ(qor::computeFrameGeometry(48000, 480, g), 0);
  EXPECT_FALSE(g.converting);
  EXPECT_EQ(g.internalInputBlock, 480u);
  EXPECT_EQ(g.internalOutputBlock, 256u);
  EXPECT_EQ(g.inputFifoCapacity, 736u);
  EXPECT_EQ(g.outputFifoCapacity, 736u);
  EXPECT_EQ(g.inputPrefill, 0u);
  EXPECT_EQ(g.outputPrefill, 256u);
  EXPECT_EQ(g.prefillLatency, 256);
}

TEST(FrameGeometry, At48kHzWithBlocksSmallerThanAFrame) {
  qor::FrameGeometry g{};
  ASSERT_EQ(qor::computeFrameGeometry(48000, 128, g), 0);
  EXPECT_EQ(g.internalInputBlock, 128u);
  EXPECT_EQ(g.inputFifoCapacity, 384u);
  EXPECT_EQ(g.outputFifoCapacity, 256u);
  EXPECT_EQ(g.inputPrefill, 256u);
  EXPECT_EQ(g.outputPrefill, 0u);
  EXPECT_EQ(g.prefillLatency, 256);
  // Host blocks of whole frames: a frame is not a whole host block, so the
  // output FIFO holds one of each.
  ASSERT_EQ(qor::computeFrameGeometry(48000, 512, g), 0);
  EXPECT_EQ(g.inputFifoCapacity, 512u);
  EXPECT_EQ(g.outputFifoCapacity, 768u);
  ASSERT_EQ(qor::computeFrameGeometry(48000, 256, g), 0);
  EXPECT_EQ(g.inputFifoCapacity, 256u);
  EXPECT_EQ(g.outputFifoCapacity, 256u);
  EXPECT_EQ(g.prefillLatency, 0);
}

TEST(FrameGeometry, At44100HzWithTenMillisecondBlocks) {
  qor::FrameGeometry g{};
  ASSERT_EQ(qor::computeFrameGeometry(44100, 441, g), 0);
  EXPECT_TRUE(g.converting);
  EXPECT_NEAR(g.internalInputBlock, 480u, 1u);
  EXPECT_EQ(g.internalOutputBlock, 236u);  // ceil(256 * 44100 / 48000)
  EXPECT_EQ(g.inputFifoCapacity, g.internalInputBlock + 256u);
  EXPECT_EQ(g.outputFifoCapacity, 236u + 441u + 32u);
  EXPECT_EQ(g.inputPrefill, 0u);
  EXPECT_EQ(g.outputPrefill, 236u + 16u);
  EXPECT_EQ(g.prefillLatency, 252);
}

TEST(FrameGeometry, SmallBlocksAtOtherRatesPrimeTheInputInHostSamples) {
  qor::FrameGeometry g{};
  ASSERT_EQ(qor::computeFrameGeometry(22050, 64, g), 0);
  EXPECT_LT(g.internalInputBlock, 256u);
  EXPECT_EQ(g.inputPrefill, 256u);
  // trunc(22050 / 48000 * 256) = 117 host samples, plus the converter pad.
  EXPECT_EQ(g.prefillLatency, 117 + 16);
}

TEST(FrameGeometry, TheConverterLimitsHostBlocksAtOtherRates) {
  qor::FrameGeometry g{};
  EXPECT_EQ(qor::computeFrameGeometry(44100, 8000, g), -1003002);
  EXPECT_EQ(qor::computeFrameGeometry(48000, 8000, g), 0);
}

}  // namespace
