#include "dsp/dynamics/look_ahead.h"

#include "dsp/core/block_ops.h"
#include "dsp/core/levels.h"

namespace qor {

uint32_t dynamicsSubBlock(uint32_t rate) { return scaleForRate(32, rate); }

float dynamicsSubBlockRate(uint32_t rate, uint32_t subBlock) {
  return subBlock == 0 ? 0.0f : static_cast<float>(rate / subBlock);
}

void exchangeWithRamp(float* x, float* slot, uint32_t n, float gain, float step) {
  // The gain is formed from the index rather than accumulated so that the
  // loop has no carried dependency and vectorises.
  for (uint32_t i = 0; i < n; ++i) {
    const float delayed = slot[i];
    slot[i] = x[i];
    x[i] = delayed * (gain + step * static_cast<float>(i));
  }
}

void LookAheadStore::attach(float* storage, uint32_t channelCount, uint32_t subBlockLength) {
  samples = storage;
  channels = channelCount;
  subBlock = subBlockLength;
  slotIndex = 0;
}

void LookAheadStore::clear() {
  zeroBlock(samples, floatsFor(channels, subBlock));
  slotIndex = 0;
}

void LookAheadStore::apply(float* const* audio, uint32_t start, float gain, float step) {
  for (uint32_t c = 0; c < channels; ++c) {
    float* slot = samples + (c * kLookAheadSlots + slotIndex) * subBlock;
    exchangeWithRamp(audio[c] + start, slot, subBlock, gain, step);
  }
  slotIndex = (slotIndex + 1) % kLookAheadSlots;
}

}  // namespace qor
