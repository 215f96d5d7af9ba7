#include "dsp/chain/result_translation.h"

#include "dsp/core/result.h"

namespace qor {

namespace {

struct StageCodes {
  int32_t base;
  bool meteringCode;        // the stage has -1003005 (metering points)
  int32_t parameterChecks;  // -1005000 .. -1005000 - (n - 1)
};

// Consecutive codes from the base: [-1003005], -1004000..-1004002, then the
// parameter checks in their order.
StageCodes codesOf(ChainStage stage) {
  switch (stage) {
    case ChainStage::FlangerPhaser: return {-1006000, false, 4};
    case ChainStage::GatingCompressor: return {-1007000, true, 12};
    case ChainStage::HardLimiter: return {-1008000, true, 4};
    case ChainStage::HighPassFilter: return {-1009000, false, 3};
    case ChainStage::MultiBandCompressor: return {-1010000, true, 14};
    case ChainStage::MultiBandEqualiser: return {-1011000, false, 14};
    case ChainStage::NoiseReduction: return {-1012000, true, 6};
    case ChainStage::Reverb: return {-1013000, false, 9};
    case ChainStage::RingModulator: return {-1014000, false, 4};
    case ChainStage::VocalChanger: return {-1015000, false, 12};
    default: return {0, false, 0};
  }
}

bool passesThrough(int32_t code) {
  switch (code) {
    case Success:
    case ErrorMisaligned:
    case ErrorMisalignedReserved1:
    case ErrorMisalignedReserved2:
    case ErrorNotInitialised:
    case ErrorAlreadyInitialised:
    case ErrorReserved:
    case ErrorNullPointer:
    case ErrorSampleRate:
    case ErrorBlockSize:
    case ErrorInputChannels:
    case ErrorOutputChannels:
      return true;
    default:
      return false;
  }
}

bool isFamilyCode(int32_t code) { return code <= ErrorFamily0 && code >= ErrorFamily2; }

int32_t parameterIndex(int32_t code) { return ErrorParameter - code; }

int32_t translateDelay(int32_t code) {
  // The delay's last parameter check (-1005007) is deliberately placed first.
  constexpr int32_t base = -1005000;
  if (isFamilyCode(code)) return base - (ErrorFamily0 - code);
  if (code == parameterError(7)) return base - 3;
  const int32_t i = parameterIndex(code);
  if (i >= 0 && i <= 6) return base - 4 - i;
  return ErrorProcessing;
}

int32_t translateConverter(int32_t code) {
  if (code == ErrorMeteringDisabled) return ErrorBlockSize;
  if (code <= -1003006 && code >= -1003008) return -1016000 - (-1003006 - code);
  return ErrorProcessing;
}

}  // namespace

int32_t translateStageResult(ChainStage stage, int32_t code) {
  if (passesThrough(code)) return code;
  switch (stage) {
    case ChainStage::Delay: return translateDelay(code);
    case ChainStage::SampleRateConverter: return translateConverter(code);
    case ChainStage::Metering: return code == ErrorOutOfRange ? -1017000 : ErrorProcessing;
    default: break;
  }
  const StageCodes s = codesOf(stage);
  int32_t offset = 0;
  if (s.meteringCode) {
    if (code == ErrorMeteringDisabled) return s.base;
    offset = 1;
  }
  if (isFamilyCode(code)) return s.base - offset - (ErrorFamily0 - code);
  const int32_t i = parameterIndex(code);
  if (i >= 0 && i < s.parameterChecks) return s.base - offset - 3 - i;
  return ErrorProcessing;
}

}  // namespace qor
