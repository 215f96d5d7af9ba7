// Shared pieces of the dynamics tests: test tones and instance helpers.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numbers>
#include <utility>
#include <memory>
#include <vector>

#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/block_runner.h"

namespace qor::test {

using Signal = Signals;

// A 750 Hz cosine at 48 kHz in segments of {amplitude, whole 32-sample
// sub-blocks} (even counts keep it smooth): every sub-block starts on a crest
// or a trough, so its peak is the amplitude and the gain applied at its first
// sample can be read off as |out| / |in|.
inline std::vector<float> crestTone(const std::vector<std::pair<double, int>>& segments) {
  std::vector<float> x;
  for (auto [amplitude, subBlocks] : segments) {
    for (int i = 0; i < 32 * subBlocks; ++i) {
      x.push_back(static_cast<float>(amplitude * std::cos(2.0 * std::numbers::pi * x.size() / 64.0)));
    }
  }
  return x;
}

template <class C>
typename C::Params defaultParameters() {
  typename C::Params p{};
  EXPECT_EQ(static_cast<int32_t>(C::defaults(&p)), 0);
  return p;
}

// The calls of family N as static members, for the helpers below.
#define QOR_FAMILY_CALLS(N)                                      \
  using Config = Qor##N##Config;                                 \
  using Params = Qor##N##Parameters;                             \
  using Inst = Qor##N##Inst;                                     \
  static constexpr auto size = qor##N##GetInstanceSize;          \
  static constexpr auto init = qor##N##Init;                     \
  static constexpr auto defaults = qor##N##GetDefaultParameters; \
  static constexpr auto get = qor##N##GetParameters;             \
  static constexpr auto update = qor##N##UpdateParameters;       \
  static constexpr auto process = qor##N##Process;               \
  static constexpr auto flush = qor##N##Flush;                   \
  static constexpr auto release = qor##N##Release;               \
  static constexpr auto latency = qor##N##GetCurrentLatency;

// An initialised instance of family C in its own aligned memory.
template <class C>
struct Instance {
  explicit Instance(const typename C::Config& c) : config(c) {
    size_t size = 0;
    EXPECT_EQ(static_cast<int32_t>(C::size(&config, &size)), 0);
    memory = std::make_unique<InstanceMemory>(size);
    EXPECT_EQ(static_cast<int32_t>(C::init(inst(), &config)), 0);
  }
  typename C::Inst* inst() { return memory->template as<typename C::Inst>(); }
  Signal run(const Signal& in) {
    return runBlocks([&](float** ch) { return C::process(inst(), ch); }, in, config.inputBlockSize);
  }
  std::vector<float> run(const std::vector<float>& in) { return run(Signal{in})[0]; }
  void update(typename C::Params p) { ASSERT_EQ(static_cast<int32_t>(C::update(inst(), &p)), 0); }
  int latency() {
    int l = -1;
    EXPECT_EQ(static_cast<int32_t>(C::latency(inst(), &l)), 0);
    return l;
  }
  typename C::Config config;
  std::unique_ptr<InstanceMemory> memory;
};

}  // namespace qor::test
