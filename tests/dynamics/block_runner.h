// Shared pieces of the dynamics tests: test tones, instance helpers and the
// closed-form pieces several families are checked against.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <numbers>
#include <utility>
#include <vector>

#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/block_runner.h"
#include "support/signals.h"

namespace qor::test {

using Signal = Signals;
constexpr double kPi = std::numbers::pi;

// A 750 Hz cosine at 48 kHz in segments of {amplitude, whole 32-sample
// sub-blocks} (even counts keep it smooth): every sub-block starts on a crest
// or a trough, so its peak is the amplitude and the gain applied at its first
// sample can be read off as |out| / |in|.
inline std::vector<float> crestTone(const std::vector<std::pair<double, int>>& segments) {
  std::vector<float> x;
  for (auto [amplitude, subBlocks] : segments) {
    for (int i = 0; i < 32 * subBlocks; ++i) {
      x.push_back(static_cast<float>(amplitude * std::cos(2.0 * kPi * x.size() / 64.0)));
    }
  }
  return x;
}

// Gain in dB of the tone at f from sample `from` on (the input read `delay` earlier).
inline double toneGainDb(const std::vector<float>& x, const std::vector<float>& y, double f, size_t from,
                         size_t delay = 0, double rate = 48000.0) {
  return toDb(toneAmplitude(y, f, rate, from) / toneAmplitude(x, f, rate, from - delay, y.size() - delay));
}

// Per-sample factor of a crossfade that settles by -100 dB over `ms`.
inline double fadeKeep(double ms, double rate = 48000.0) { return std::pow(1e-5, 1.0 / (ms * 0.001 * rate)); }

// The calls of family N as static members, for the helpers below.
#define QOR_FAMILY_CALLS(N)                                                                            \
  using Config = Qor##N##Config;                                                                       \
  using Params = Qor##N##Parameters;                                                                   \
  using Inst = Qor##N##Inst;                                                                           \
  static constexpr auto size = qor##N##GetInstanceSize, init = qor##N##Init;                           \
  static constexpr auto defaults = qor##N##GetDefaultParameters, get = qor##N##GetParameters;          \
  static constexpr auto update = qor##N##UpdateParameters, process = qor##N##Process;                  \
  static constexpr auto flush = qor##N##Flush, release = qor##N##Release;                              \
  static constexpr auto latency = qor##N##GetCurrentLatency;
#define QOR_METERED_CALLS(N) \
  QOR_FAMILY_CALLS(N)        \
  using Points = Qor##N##MeteringPoints; \
  static constexpr auto points = qor##N##GetMeteringPoints;

inline int32_t code(auto rc) { return static_cast<int32_t>(rc); }

template <class C>
typename C::Params defaultParameters() {
  typename C::Params p{};
  EXPECT_EQ(code(C::defaults(&p)), 0);
  return p;
}

// An initialised instance of family C in its own aligned memory.
template <class C>
struct Instance {
  using Params = typename C::Params;
  explicit Instance(Params p = defaultParameters<C>(), uint32_t rate = 48000, uint32_t block = 256,
                    uint32_t channels = 1, uint8_t metering = 1) {
    config.inputSampleRate = config.outputSampleRate = rate, config.parameters = p;
    config.inputBlockSize = config.outputBlockSize = block, config.inputChannels = config.outputChannels = channels;
    if constexpr (requires { config.meteringEnabled; }) config.meteringEnabled = metering;
    size_t size = 0;
    EXPECT_EQ(code(C::size(&config, &size)), 0);
    memory = std::make_unique<InstanceMemory>(size);
    EXPECT_EQ(code(C::init(inst(), &config)), 0);
  }
  typename C::Inst* inst() { return memory->template as<typename C::Inst>(); }
  Signal run(const Signal& in) {
    return runBlocks([&](float** ch) { return C::process(inst(), ch); }, in, config.inputBlockSize);
  }
  std::vector<float> run(const std::vector<float>& in) { return run(Signal{in})[0]; }
  void update(Params p) { ASSERT_EQ(code(C::update(inst(), &p)), 0); }
  int latency() {
    int l = -1;
    EXPECT_EQ(code(C::latency(inst(), &l)), 0);
    return l;
  }
  const float* reading(int point = 0) {
    const typename C::Points* points = nullptr;
    EXPECT_EQ(code(C::points(inst(), &points)), 0);
    return points->points[point]->data;
  }
  typename C::Config config{};
  std::unique_ptr<InstanceMemory> memory;
};

}  // namespace qor::test
