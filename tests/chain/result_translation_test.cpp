// The chain's translation of stage codes into per-stage blocks.
#include <gtest/gtest.h>

#include "dsp/chain/result_translation.h"

namespace {

using qor::ChainStage;
using qor::translateStageResult;

TEST(ResultTranslation, CommonCodesPassThroughForEveryStage) {
  for (int32_t s = 0; s <= static_cast<int32_t>(ChainStage::Metering); ++s) {
    const auto stage = static_cast<ChainStage>(s);
    for (int32_t code : {0, -1001000, -1001001, -1001002, -1002000, -1002001, -1002003, -1003000,
                         -1003001, -1003002, -1003003, -1003004}) {
      EXPECT_EQ(translateStageResult(stage, code), code) << s;
    }
    // Unknown and processing codes become -1002002.
    EXPECT_EQ(translateStageResult(stage, -1002002), -1002002) << s;
    EXPECT_EQ(translateStageResult(stage, -1001003), -1002002) << s;
    EXPECT_EQ(translateStageResult(stage, -1005099), -1002002) << s;
    EXPECT_EQ(translateStageResult(stage, 17), -1002002) << s;
  }
}

struct Block {
  ChainStage stage;
  int32_t base;
  bool metering;
  int32_t checks;
};

class StageBlocks : public ::testing::TestWithParam<Block> {};

TEST_P(StageBlocks, CodesMapToConsecutiveValuesFromTheBase) {
  const Block b = GetParam();
  int32_t expected = b.base;
  if (b.metering) {
    EXPECT_EQ(translateStageResult(b.stage, -1003005), expected--);
  } else {
    EXPECT_EQ(translateStageResult(b.stage, -1003005), -1002002);
  }
  for (int32_t code = -1004000; code >= -1004002; --code) {
    EXPECT_EQ(translateStageResult(b.stage, code), expected--);
  }
  for (int32_t i = 0; i < b.checks; ++i) {
    EXPECT_EQ(translateStageResult(b.stage, -1005000 - i), expected--) << "check " << i;
  }
  EXPECT_EQ(translateStageResult(b.stage, -1005000 - b.checks), -1002002) << "one past the last check";
}

INSTANTIATE_TEST_SUITE_P(
    Chain, StageBlocks,
    ::testing::Values(Block{ChainStage::FlangerPhaser, -1006000, false, 4},
                      Block{ChainStage::GatingCompressor, -1007000, true, 12},
                      Block{ChainStage::HardLimiter, -1008000, true, 4},
                      Block{ChainStage::HighPassFilter, -1009000, false, 3},
                      Block{ChainStage::MultiBandCompressor, -1010000, true, 14},
                      Block{ChainStage::MultiBandEqualiser, -1011000, false, 14},
                      Block{ChainStage::NoiseReduction, -1012000, true, 6},
                      Block{ChainStage::Reverb, -1013000, false, 9},
                      Block{ChainStage::RingModulator, -1014000, false, 4},
                      Block{ChainStage::VocalChanger, -1015000, false, 12}));

TEST(ResultTranslation, DelayPutsItsLastParameterCodeFirst) {
  EXPECT_EQ(translateStageResult(ChainStage::Delay, -1004000), -1005000);
  EXPECT_EQ(translateStageResult(ChainStage::Delay, -1004002), -1005002);
  EXPECT_EQ(translateStageResult(ChainStage::Delay, -1005007), -1005003);
  for (int32_t i = 0; i <= 6; ++i) {
    EXPECT_EQ(translateStageResult(ChainStage::Delay, -1005000 - i), -1005004 - i);
  }
  EXPECT_EQ(translateStageResult(ChainStage::Delay, -1005008), -1002002);
  EXPECT_EQ(translateStageResult(ChainStage::Delay, -1003005), -1002002);
}

TEST(ResultTranslation, ConverterAndMeter) {
  EXPECT_EQ(translateStageResult(ChainStage::SampleRateConverter, -1003006), -1016000);
  EXPECT_EQ(translateStageResult(ChainStage::SampleRateConverter, -1003007), -1016001);
  EXPECT_EQ(translateStageResult(ChainStage::SampleRateConverter, -1003008), -1016002);
  EXPECT_EQ(translateStageResult(ChainStage::SampleRateConverter, -1003005), -1003002);
  EXPECT_EQ(translateStageResult(ChainStage::SampleRateConverter, -1005000), -1002002);
  EXPECT_EQ(translateStageResult(ChainStage::Metering, -1003006), -1017000);
  EXPECT_EQ(translateStageResult(ChainStage::Metering, -1005000), -1002002);
}

}  // namespace
