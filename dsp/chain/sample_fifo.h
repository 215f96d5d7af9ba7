// All-or-nothing sample FIFO of non-interleaved channels, used by the voice
// chain between host blocks and its fixed 256-sample frames.
//
// Storage belongs to the caller's instance block: `setCount` sets of
// `channels` buffers of `capacityPerSet` floats each, read and written as one
// ring that runs through the sets in order. Reads and writes do not check
// for underflow or overflow; the owner checks fill() and space() first.
#pragma once

#include <cstdint>

namespace qor {

struct SampleFifo {
  float* const* buffers;  // buffers[set * channels + channel]
  uint32_t setCount;
  uint32_t capacityPerSet;
  uint32_t channels;
  uint32_t readPosition;
  uint32_t readSet;
  uint32_t writePosition;
  uint32_t writeSet;
  uint32_t fillCount;
  uint32_t totalCapacity;
  uint8_t inUse;

  // Returns false (and changes nothing) when already set up.
  bool setUp(float* const* storage, uint32_t sets, uint32_t capacity, uint32_t channelCount);
  void tearDown();
  // Zeroes the stored samples and empties the FIFO.
  void clear();
  // Appends n samples per channel from `source`, or n zeros when it is null.
  void write(const float* const* source, uint32_t n);
  // Removes n samples per channel into `destination`.
  void read(float* const* destination, uint32_t n);

  uint32_t fill() const { return fillCount; }
  uint32_t space() const { return totalCapacity - fillCount; }
};

}  // namespace qor
