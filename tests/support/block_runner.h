// Runs whole signals through a family's Process block by block, the way a
// host does, checking every call for success and for heap allocations.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>
#include <vector>

#include "support/alloc_guard.h"
#include "support/audio_buffers.h"

namespace qor::test {

using Signals = std::vector<std::vector<float>>;  // [channel][sample]

// Calls `process(float**)` (which returns the family's result) once per block
// of `block` frames over the whole of `in`; a last partial block is padded with
// zeros and the output trimmed to the input's length. The pointer array has
// spare null entries, so families that look past the configured channels
// stay in bounds.
template <class Process>
Signals runBlocks(const Signals& in, uint32_t block, Process&& process) {
  const uint32_t channels = static_cast<uint32_t>(in.size());
  const size_t frames = in.empty() ? 0 : in[0].size();
  ChannelBuffers buffers(channels, block);
  std::vector<float*> pointers(channels + 2, nullptr);
  for (uint32_t c = 0; c < channels; ++c) pointers[c] = buffers[c];
  Signals out(channels);
  for (size_t offset = 0; offset < frames; offset += block) {
    buffers.load(in, offset);
    int32_t rc = -1;
    {
      NoAllocationScope guard;
      rc = static_cast<int32_t>(process(pointers.data()));
    }
    EXPECT_EQ(rc, 0) << "block at " << offset;
    buffers.appendTo(out);
  }
  for (auto& ch : out) ch.resize(frames);
  return out;
}

// The same with the process first, as the dynamics tests write it.
template <class Process, class = std::enable_if_t<!std::is_convertible_v<Process, const Signals&>>>
Signals runBlocks(Process&& process, const Signals& in, uint32_t block) {
  return runBlocks(in, block, process);
}

// The same signal on every channel.
inline Signals onChannels(const std::vector<float>& x, uint32_t channels) { return Signals(channels, x); }

}  // namespace qor::test
