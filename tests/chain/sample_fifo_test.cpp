// The chain's sample FIFO against a plain deque model.
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <vector>

#include "dsp/chain/sample_fifo.h"
#include "support/audio_buffers.h"

namespace {

class SampleFifoTest : public ::testing::TestWithParam<uint32_t> {
 protected:
  static constexpr uint32_t kChannels = 2;
  static constexpr uint32_t kCapacity = 100;

  void SetUp() override {
    sets = GetParam();
    storage = std::make_unique<qor::test::ChannelBuffers>(sets * kChannels, kCapacity);
    ASSERT_TRUE(fifo.setUp(storage->data(), sets, kCapacity, kChannels));
  }

  uint32_t sets = 1;
  std::unique_ptr<qor::test::ChannelBuffers> storage;
  qor::SampleFifo fifo{};
};

TEST_P(SampleFifoTest, RandomWritesAndReadsMatchADeque) {
  std::mt19937 gen(1234 + sets);
  std::deque<float> model[kChannels];
  qor::test::ChannelBuffers io(kChannels, kCapacity);
  float next = 1.0f;
  for (int step = 0; step < 2000; ++step) {
    ASSERT_EQ(fifo.fill(), model[0].size());
    ASSERT_EQ(fifo.space(), sets * kCapacity - model[0].size());
    if (gen() % 2 == 0) {
      const uint32_t n = gen() % (fifo.space() + 1);
      const bool zeros = gen() % 5 == 0;
      for (uint32_t i = 0; i < n; ++i) {
        for (uint32_t c = 0; c < kChannels; ++c) {
          const float v = zeros ? 0.0f : next + 1000.0f * c;
          model[c].push_back(v);
        }
        next += 1.0f;
      }
      // Writes come from buffers of at most kCapacity samples.
      uint32_t done = 0;
      while (done < n) {
        const uint32_t run = std::min(n - done, kCapacity);
        if (!zeros) {
          for (uint32_t c = 0; c < kChannels; ++c) {
            for (uint32_t i = 0; i < run; ++i) io[c][i] = model[c][model[c].size() - n + done + i];
          }
        }
        const float* src[kChannels] = {io[0], io[1]};
        fifo.write(zeros ? nullptr : src, run);
        done += run;
      }
    } else {
      const uint32_t n = gen() % (std::min(fifo.fill(), kCapacity) + 1);
      fifo.read(io.data(), n);
      for (uint32_t c = 0; c < kChannels; ++c) {
        for (uint32_t i = 0; i < n; ++i) {
          ASSERT_EQ(io[c][i], model[c].front()) << "step " << step;
          model[c].pop_front();
        }
      }
    }
  }
}

TEST_P(SampleFifoTest, ClearEmptiesAndZeroesAndSetUpIsRefusedTwice) {
  qor::test::ChannelBuffers io(kChannels, 60);
  io.fill(0.5f);
  fifo.write(io.data(), 60);
  fifo.clear();
  EXPECT_EQ(fifo.fill(), 0u);
  for (uint32_t b = 0; b < sets * kChannels; ++b) {
    for (uint32_t i = 0; i < kCapacity; ++i) ASSERT_EQ((*storage)[b][i], 0.0f);
  }
  EXPECT_FALSE(fifo.setUp(storage->data(), sets, 10, kChannels));
  EXPECT_EQ(fifo.totalCapacity, sets * kCapacity);
  fifo.tearDown();
  EXPECT_EQ(fifo.inUse, 0);
  EXPECT_TRUE(fifo.setUp(storage->data(), sets, kCapacity, kChannels));
}

INSTANTIATE_TEST_SUITE_P(Sets, SampleFifoTest, ::testing::Values(1u, 3u));

}  // namespace
