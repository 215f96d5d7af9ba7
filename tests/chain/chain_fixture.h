// A voice chain in test memory, fed host blocks from whole signals.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "dsp/chain/calvera2.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"

namespace qor::test {

using namespace QorCalvera2_API_V1;

inline QorCalvera2Parameters chainDefaults() {
  QorCalvera2Parameters p{};
  EXPECT_EQ(qorCalvera2GetDefaultParameters(&p), QorCalvera2Result::Success);
  return p;
}

// Every stage's enable off: the chain then only delays by its frame mechanics.
inline QorCalvera2Parameters allStagesOff() {
  QorCalvera2Parameters p = chainDefaults();
  p.highPassFilter.enable = 0;
  p.noiseReduction.enable = 0;
  p.gatingCompressor.enable = 0;
  p.multiBandEqualiser.enable = 0;
  p.multiBandCompressor.enable = 0;
  p.hardLimiter.enable = 0;
  return p;
}

class Chain {
 public:
  Chain(uint32_t rate, uint32_t block, uint32_t channels, const QorCalvera2Parameters& p, bool metering = true)
      : config_{rate, block, channels, rate, block, 2, p, static_cast<uint8_t>(metering ? 1 : 0)} {
    size_t size = 0;
    status_ = qorCalvera2GetInstanceSize(&config_, &size);
    if (status_ != QorCalvera2Result::Success) return;
    memory_ = std::make_unique<InstanceMemory>(size);
    status_ = qorCalvera2Init(inst(), &config_);
    io_ = std::make_unique<ChannelBuffers>(2, block);
  }
  ~Chain() {
    if (status_ == QorCalvera2Result::Success) qorCalvera2Release(inst());
  }

  QorCalvera2Result status() const { return status_; }
  QorCalvera2Inst* inst() { return memory_->as<QorCalvera2Inst>(); }
  const QorCalvera2Config& config() const { return config_; }
  uint32_t block() const { return config_.inputBlockSize; }
  ChannelBuffers& io() { return *io_; }

  int latency() {
    int l = -1;
    EXPECT_EQ(qorCalvera2GetCurrentLatency(inst(), &l), QorCalvera2Result::Success);
    return l;
  }

  // Runs whole blocks of `input` (channels as given; a mono input leaves the
  // second host channel at `second`) and returns both output channels.
  std::vector<std::vector<float>> run(const std::vector<std::vector<float>>& input, float second = 0.0f) {
    std::vector<std::vector<float>> out(2);
    const size_t frames = input[0].size();
    for (size_t start = 0; start + block() <= frames; start += block()) {
      for (uint32_t c = 0; c < 2; ++c) {
        for (uint32_t i = 0; i < block(); ++i) {
          io_->data()[c][i] = c < input.size() ? input[c][start + i] : second;
        }
      }
      QorCalvera2Result rc;
      EXPECT_NO_ALLOCATION(rc = qorCalvera2Process(inst(), io_->data()));
      EXPECT_EQ(rc, QorCalvera2Result::Success);
      for (uint32_t c = 0; c < 2; ++c) out[c].insert(out[c].end(), io_->data()[c], io_->data()[c] + block());
    }
    return out;
  }

 private:
  QorCalvera2Config config_;
  QorCalvera2Result status_ = QorCalvera2Result::ErrorProcessing;
  std::unique_ptr<InstanceMemory> memory_;
  std::unique_ptr<ChannelBuffers> io_;
};

}  // namespace qor::test
