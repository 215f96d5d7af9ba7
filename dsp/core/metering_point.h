// The shape in which every family publishes a reading.
#pragma once

#include <cstdint>

namespace QorMetering_API_V1 {

// `count` triples of floats at `data`: peak dB, level dB, hold counter.
// Dynamics families publish their gains in the same shape (count 1: two gain
// readings in dB and 0); the multi-band compressor's frequency-response point
// holds `count` responses of 2048 floats instead.
struct QorMeteringPoint {
  float* data;
  uint32_t count;
};

}  // namespace QorMetering_API_V1
