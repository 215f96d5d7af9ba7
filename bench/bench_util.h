// Shared benchmark helpers: aligned audio, instances, real-time factor.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace qor::bench {

struct Free {
  void operator()(void* p) const { std::free(p); }
};
using Block = std::unique_ptr<unsigned char, Free>;

inline Block alignedZeroed(size_t bytes) {
  const size_t rounded = (bytes + 31) / 32 * 32;
  void* p = std::aligned_alloc(32, rounded == 0 ? 32 : rounded);
  std::memset(p, 0, rounded == 0 ? 32 : rounded);
  return Block(static_cast<unsigned char*>(p));
}

// Channels of noise-like speech-level audio, 32-byte aligned.
class Audio {
 public:
  Audio(uint32_t channels, uint32_t frames, uint32_t seed = 1)
      : block_(alignedZeroed(sizeof(float) * stride(frames) * channels)) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(-0.25f, 0.25f);
    for (uint32_t c = 0; c < channels; ++c) {
      float* p = reinterpret_cast<float*>(block_.get()) + c * stride(frames);
      for (uint32_t i = 0; i < frames; ++i) p[i] = dist(gen);
      pointers_.push_back(p);
    }
  }
  float** data() { return pointers_.data(); }

 private:
  static size_t stride(uint32_t frames) { return (frames + 7) / 8 * 8; }
  Block block_;
  std::vector<float*> pointers_;
};

// Seconds of audio processed per second of CPU time, as a counter "rtf".
inline void reportRealTimeFactor(benchmark::State& state, double framesPerIteration, double rate) {
  state.counters["rtf"] =
      benchmark::Counter(framesPerIteration / rate * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
}

}  // namespace qor::bench
