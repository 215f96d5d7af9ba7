// Runs whole signals through a family block by block, the way a host does.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "support/alloc_guard.h"
#include "support/audio_buffers.h"

namespace qor::test {

using Signal = std::vector<std::vector<float>>;  // [channel][sample]

// Calls `process(float**)` once per block of `block` frames over the whole of
// `input` (the tail is zero-padded) and returns what came out. Every call must
// succeed without allocating. The pointer array always has spare null
// entries, so families that look past the configured channels stay in bounds.
template <class Process>
Signal runBlocks(Process&& process, const Signal& input, uint32_t block) {
  const uint32_t channels = static_cast<uint32_t>(input.size());
  ChannelBuffers buffers(channels, block);
  std::vector<float*> pointers(channels + 2, nullptr);
  for (uint32_t c = 0; c < channels; ++c) pointers[c] = buffers[c];
  Signal output(channels);
  for (size_t offset = 0; offset < input[0].size(); offset += block) {
    buffers.load(input, offset);
    {
      NoAllocationScope guard;
      const auto rc = process(pointers.data());
      EXPECT_EQ(static_cast<int32_t>(rc), 0) << "block at " << offset;
    }
    buffers.appendTo(output);
  }
  return output;
}

// The same signal on every channel.
inline Signal onChannels(const std::vector<float>& x, uint32_t channels) {
  return Signal(channels, x);
}

}  // namespace qor::test
