// How the voice chain fits host blocks to its 256-sample, 48 kHz frames:
// converter block sizes, FIFO capacities and the zeros it primes them with.
// A pure function of the host rate and block, so it can be checked on its own.
#pragma once

#include <cstdint>

namespace qor {

constexpr uint32_t kChainRate = 48000;
constexpr uint32_t kChainFrame = 256;

struct FrameGeometry {
  bool converting;              // host rate is not 48000
  uint32_t internalInputBlock;  // B_in: 48 kHz samples per host block
  uint32_t internalOutputBlock; // B_out: host samples per frame
  uint32_t inputFifoCapacity;
  uint32_t outputFifoCapacity;
  // One prefill (at Init and after every Flush).
  uint32_t inputPrefill;   // zeros into the input FIFO
  uint32_t outputPrefill;  // zeros into the output FIFO
  int32_t prefillLatency;  // host samples the prefill adds
};

// 0, or the sample-rate converter's code for a host block it cannot take.
int32_t computeFrameGeometry(uint32_t hostRate, uint32_t hostBlock, FrameGeometry& g);

}  // namespace qor
