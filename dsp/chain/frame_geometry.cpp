#include "dsp/chain/frame_geometry.h"

#include <algorithm>

#include "dsp/voice/sample_rate_converter.h"

namespace qor {

namespace {

// Zeros primed into the output FIFO when converting, for the converter's
// variable output count.
constexpr uint32_t kConverterPad = 16;

}  // namespace

int32_t computeFrameGeometry(uint32_t hostRate, uint32_t hostBlock, FrameGeometry& g) {
  namespace Src = QorSampleRateConverter_API_V1;
  g = FrameGeometry{};
  g.converting = hostRate != kChainRate;
  if (!g.converting) {
    g.internalInputBlock = hostBlock;
    g.internalOutputBlock = kChainFrame;
  } else {
    auto rc = Src::qorSampleRateConverterComputeOutputBlockSize(hostRate, hostBlock, kChainRate,
                                                                &g.internalInputBlock);
    if (rc != Src::QorSampleRateConverterResult::Success) return static_cast<int32_t>(rc);
    rc = Src::qorSampleRateConverterComputeOutputBlockSize(kChainRate, kChainFrame, hostRate,
                                                           &g.internalOutputBlock);
    if (rc != Src::QorSampleRateConverterResult::Success) return static_cast<int32_t>(rc);
  }
  const uint32_t bIn = g.internalInputBlock;
  const uint32_t bOut = g.internalOutputBlock;
  g.inputFifoCapacity = bIn % kChainFrame != 0 ? bIn + kChainFrame : std::max(bIn, kChainFrame);
  g.outputFifoCapacity = (bOut % hostBlock != 0 ? bOut + hostBlock : std::max(bOut, hostBlock)) +
                         (g.converting ? 32 : 0);

  if (bIn < kChainFrame) {
    g.inputPrefill = kChainFrame;
    g.prefillLatency += static_cast<int32_t>(static_cast<float>(hostRate) / static_cast<float>(kChainRate) *
                                             static_cast<float>(kChainFrame));
  }
  if (hostBlock > bOut) {
    g.outputPrefill = bOut;
    g.prefillLatency += static_cast<int32_t>(bOut);
  }
  if (g.converting) {
    g.outputPrefill += kConverterPad;
    g.prefillLatency += static_cast<int32_t>(kConverterPad);
  }
  return 0;
}

}  // namespace qor
