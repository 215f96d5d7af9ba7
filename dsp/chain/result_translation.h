// Maps the result codes of the chain's stages and meters into the chain's
// own code space, so a caller can tell which stage refused what.
#pragma once

#include <cstdint>

namespace qor {

enum class ChainStage : int32_t {
  Delay,
  FlangerPhaser,
  GatingCompressor,
  HardLimiter,
  HighPassFilter,
  MultiBandCompressor,
  MultiBandEqualiser,
  NoiseReduction,
  Reverb,
  RingModulator,
  VocalChanger,
  SampleRateConverter,
  Metering,
};

// The chain's own parameter codes.
constexpr int32_t kChainOutputGainRange = -1016010;
constexpr int32_t kChainCrossfadeTimeRange = -1016011;

// Codes every translator passes through unchanged: success, alignment,
// initialisation, null pointer and configuration codes. Each stage's own
// codes move into its block of the chain's space; anything else becomes
// -1002002.
int32_t translateStageResult(ChainStage stage, int32_t code);

}  // namespace qor
