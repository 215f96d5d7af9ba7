// Runs whole signals through a family's Process block by block, checking
// every call for success and for heap allocations.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace qor::test {

using Signals = std::vector<std::vector<float>>;

// `process(float**)` returns the family's result; signals shorter than a
// whole number of blocks are padded with zeros (and the output trimmed).
template <class Process>
Signals runBlocks(const Signals& in, uint32_t block, Process process) {
  const uint32_t channels = static_cast<uint32_t>(in.size());
  const size_t frames = in.empty() ? 0 : in[0].size();
  Signals padded = in;
  const size_t blocks = (frames + block - 1) / block;
  for (auto& ch : padded) ch.resize(blocks * block, 0.0f);
  ChannelBuffers buffers(channels, block);
  Signals out(channels);
  for (size_t b = 0; b < blocks; ++b) {
    buffers.load(padded, b * block);
    int32_t rc = -1;
    {
      NoAllocationScope guard;
      rc = static_cast<int32_t>(process(buffers.data()));
    }
    EXPECT_EQ(rc, 0) << "block " << b;
    buffers.appendTo(out);
  }
  for (auto& ch : out) ch.resize(frames);
  return out;
}

}  // namespace qor::test
