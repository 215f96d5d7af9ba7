// Sub-block machinery shared by the dynamics families: the sub-block length
// and rate for a sample rate, and the four-slot look-ahead store that delays
// the signal while a gain ramp computed from the newest sub-block is applied
// to the oldest one.
#pragma once

#include <cstdint>

namespace qor {

constexpr uint32_t kLookAheadSlots = 4;

// 32 samples at 44.1/48 kHz, scaled with the rate like every dynamics length.
uint32_t dynamicsSubBlock(uint32_t rate);
// Sub-blocks per second, truncated: the rate the followers run at.
float dynamicsSubBlockRate(uint32_t rate, uint32_t subBlock);

// Multiplies the stored sub-block by gain + i * step and swaps it with the
// incoming one: x receives the delayed, scaled samples, slot keeps x.
void exchangeWithRamp(float* x, float* slot, uint32_t n, float gain, float step);

// Per channel kLookAheadSlots sub-blocks, laid out channel after channel.
struct LookAheadStore {
  float* samples;  // channels * kLookAheadSlots * subBlock floats, instance-owned
  uint32_t subBlock;
  uint32_t channels;
  uint32_t slotIndex;

  static uint32_t floatsFor(uint32_t channels, uint32_t subBlock) {
    return channels * kLookAheadSlots * subBlock;
  }
  void attach(float* storage, uint32_t channelCount, uint32_t subBlockLength);
  void clear();
  // Applies the ramp to the sub-block at `start` of every channel, then moves
  // to the next slot.
  void apply(float* const* audio, uint32_t start, float gain, float step);
};

}  // namespace qor
