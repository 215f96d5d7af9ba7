// Input and overlap-add rings of one channel of a frame-based voice processor.
//
// Samples go in one at a time (in chunks); whenever the owner has gathered a
// frame it takes the latest `frameSize` samples, transforms them and adds the
// result back into the output ring, whose write mark then advances by the
// hop. The output write mark is always one frame-gap ahead of the read mark,
// so a frame covering input [t, t + N) is heard at [t + N, ...): the
// processor's latency is exactly its frame length.
#pragma once

#include <cstdint>

#include "dsp/core/instance.h"

namespace qor {

struct VoiceFrameRing {
  float* input;
  float* output;
  uint32_t inputSize;
  uint32_t outputSize;
  uint32_t inputWrite;
  uint32_t outputRead;
  uint32_t outputWrite;

  // Reserves both rings; `self` is null while only counting.
  static void layOut(InstanceLayout& layout, VoiceFrameRing* self, uint32_t inputSize,
                     uint32_t outputSize);

  // Clears both rings. The first frame will be taken after `firstHop` more
  // samples and land where the read mark is by then.
  void reset(uint32_t firstHop);

  void push(const float* x, uint32_t n);
  // Copies the newest `frameSize` input samples, oldest first.
  void latest(float* frame, uint32_t frameSize) const;
  // y[i] = next output sample * gain; the slots read are cleared for reuse.
  void pull(float* y, uint32_t n, float gain);
  // Adds `n` samples at the write mark, then advances the mark by `hop`.
  void overlapAdd(const float* frame, uint32_t n, uint32_t hop);
};

}  // namespace qor
