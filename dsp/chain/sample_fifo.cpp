#include "dsp/chain/sample_fifo.h"

#include <algorithm>
#include <cstring>

namespace qor {

bool SampleFifo::setUp(float* const* storage, uint32_t sets, uint32_t capacity, uint32_t channelCount) {
  if (inUse != 0) return false;
  buffers = storage;
  setCount = sets;
  capacityPerSet = capacity;
  channels = channelCount;
  totalCapacity = sets * capacity;
  readPosition = readSet = writePosition = writeSet = fillCount = 0;
  inUse = 1;
  return true;
}

void SampleFifo::tearDown() { *this = SampleFifo{}; }

void SampleFifo::clear() {
  for (uint32_t i = 0; i < setCount * channels; ++i) {
    std::memset(buffers[i], 0, sizeof(float) * capacityPerSet);
  }
  readPosition = readSet = writePosition = writeSet = fillCount = 0;
}

void SampleFifo::write(const float* const* source, uint32_t n) {
  uint32_t done = 0;
  while (done < n) {
    const uint32_t run = std::min(n - done, capacityPerSet - writePosition);
    for (uint32_t c = 0; c < channels; ++c) {
      float* dst = buffers[writeSet * channels + c] + writePosition;
      if (source != nullptr) {
        std::memcpy(dst, source[c] + done, sizeof(float) * run);
      } else {
        std::memset(dst, 0, sizeof(float) * run);
      }
    }
    done += run;
    writePosition += run;
    if (writePosition == capacityPerSet) {
      writePosition = 0;
      writeSet = writeSet + 1 == setCount ? 0 : writeSet + 1;
    }
  }
  fillCount += n;
}

void SampleFifo::read(float* const* destination, uint32_t n) {
  uint32_t done = 0;
  while (done < n) {
    const uint32_t run = std::min(n - done, capacityPerSet - readPosition);
    for (uint32_t c = 0; c < channels; ++c) {
      std::memcpy(destination[c] + done, buffers[readSet * channels + c] + readPosition,
                  sizeof(float) * run);
    }
    done += run;
    readPosition += run;
    if (readPosition == capacityPerSet) {
      readPosition = 0;
      readSet = readSet + 1 == setCount ? 0 : readSet + 1;
    }
  }
  fillCount -= n;
}

}  // namespace qor
