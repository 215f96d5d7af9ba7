// Test holders for the voice folder. `HeldProcessor` places one voice
// processor in a zeroed, aligned block the way its owner does (record first,
// then its buffers) and streams signals through it. The effect families share
// one calling convention; `Family<Api>` holds one initialised instance of a
// family (rate and block equal on input and output) and runs whole signals
// through it. Both put the allocation guard around every process call.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "dsp/core/instance.h"
#include "dsp/voice/delay.h"
#include "dsp/voice/flanger_phaser.h"
#include "dsp/voice/reverb.h"
#include "dsp/voice/ring_modulator.h"
#include "dsp/voice/vocal_changer.h"
#include "support/alloc_guard.h"
#include "support/audio_buffers.h"
#include "support/block_runner.h"

namespace qor::test {



template <class Processor>
class HeldProcessor {
 public:
  explicit HeldProcessor(uint32_t channels = 2, float rate = 48000.0f) {
    InstanceLayout counter(nullptr);
    counter.take<Processor>();
    Processor::layOut(counter, nullptr, channels);
    memory_ = std::make_unique<InstanceMemory>(counter.size());
    InstanceLayout layout(memory_->bytes());
    processor_ = layout.take<Processor>();
    Processor::layOut(layout, processor_, channels);
    EXPECT_EQ(layout.size(), memory_->size()) << "placing takes what counting reserved";
    EXPECT_EQ(processor_->init(rate), 0);
  }

  Processor* operator->() { return processor_; }
  size_t reservedBytes() const { return memory_->size(); }

  // Streams the signals (one per channel, equal lengths) through in blocks,
  // with the allocation guard around every call.
  Signals run(const Signals& input, uint32_t block = 256) {
    const uint32_t channels = static_cast<uint32_t>(input.size());
    ChannelBuffers buffers(channels, block);
    Signals output(channels);
    for (size_t at = 0; at < input[0].size(); at += block) {
      buffers.load(input, at);
      EXPECT_NO_ALLOCATION(processor_->process(buffers.data(), block, channels));
      buffers.appendTo(output);
    }
    for (auto& o : output) o.resize(input[0].size());
    return output;
  }
  std::vector<float> runMono(const std::vector<float>& input, uint32_t block = 256) {
    return run(Signals{input}, block)[0];
  }

 private:
  std::unique_ptr<InstanceMemory> memory_;
  Processor* processor_ = nullptr;
};

// RMS of out - expected over [from, end), relative to the RMS of expected.
template <class T>
double relativeError(const std::vector<float>& out, const std::vector<T>& expected, size_t from = 0) {
  double error = 0.0, energy = 0.0;
  for (size_t t = from; t < out.size(); ++t) {
    error += (out[t] - expected[t]) * (out[t] - expected[t]);
    energy += static_cast<double>(expected[t]) * expected[t];
  }
  EXPECT_GT(energy, 0.0);
  return std::sqrt(error / energy);
}

// An overlap-add (hop 256, Hann analysis and synthesis) that passes every
// frame unchanged: the input `frame` samples late, scaled by gain times the
// sum of the squared windows over the frames covering each instant.
inline std::vector<double> overlapAddReference(const std::vector<float>& in, uint32_t frame, double gain) {
  std::vector<double> y(in.size(), 0.0);
  for (size_t t = frame; t < in.size(); ++t) {
    const int64_t at = static_cast<int64_t>(t) - frame;
    double s = 0.0;
    for (int64_t begin = (at / 256) * 256; begin > at - frame; begin -= 256) {
      const double w = 0.5 - 0.5 * std::cos(2.0 * 3.14159265358979323846 * (at - begin) / (frame - 1));
      s += w * w;
    }
    y[t] = gain * s * in[t - frame];
  }
  return y;
}

// Normalised correlation of a[t] with b[t - lag] over t from `from` on.
inline double correlation(const std::vector<float>& a, const std::vector<float>& b, size_t lag, size_t from) {
  double ab = 0.0, aa = 0.0, bb = 0.0;
  for (size_t t = from; t < a.size() && t >= lag && t - lag < b.size(); ++t) {
    ab += static_cast<double>(a[t]) * b[t - lag];
    aa += static_cast<double>(a[t]) * a[t];
    bb += static_cast<double>(b[t - lag]) * b[t - lag];
  }
  return ab / std::sqrt(aa * bb);
}


#define QOR_VOICE_FAMILY_API(Name)                                                                   \
  struct Name##Api {                                                                                 \
    using R = Qor##Name##_API_V1::Qor##Name##Result;                                                 \
    using P = Qor##Name##_API_V1::Qor##Name##Parameters;                                             \
    using Config = Qor##Name##_API_V1::Qor##Name##Config;                                            \
    using Inst = Qor##Name##_API_V1::Qor##Name##Inst;                                                \
    static constexpr auto getInstanceSize = Qor##Name##_API_V1::qor##Name##GetInstanceSize;          \
    static constexpr auto init = Qor##Name##_API_V1::qor##Name##Init;                                \
    static constexpr auto defaults = Qor##Name##_API_V1::qor##Name##GetDefaultParameters;            \
    static constexpr auto get = Qor##Name##_API_V1::qor##Name##GetParameters;                        \
    static constexpr auto update = Qor##Name##_API_V1::qor##Name##UpdateParameters;                  \
    static constexpr auto process = Qor##Name##_API_V1::qor##Name##Process;                          \
    static constexpr auto flush = Qor##Name##_API_V1::qor##Name##Flush;                              \
    static constexpr auto release = Qor##Name##_API_V1::qor##Name##Release;                          \
    static constexpr auto latency = Qor##Name##_API_V1::qor##Name##GetCurrentLatency;                \
  }
QOR_VOICE_FAMILY_API(Delay);
QOR_VOICE_FAMILY_API(FlangerPhaser);
QOR_VOICE_FAMILY_API(RingModulator);
QOR_VOICE_FAMILY_API(Reverb);
QOR_VOICE_FAMILY_API(VocalChanger);
#undef QOR_VOICE_FAMILY_API

template <class Api>
typename Api::P defaultsOf() {
  typename Api::P p{};
  EXPECT_EQ(Api::defaults(&p), Api::R::Success);
  return p;
}

template <class Api>
class Family {
 public:
  using R = typename Api::R;
  explicit Family(const typename Api::P& p, uint32_t channels = 2, uint32_t rate = 48000, uint32_t block = 256)
      : config{rate, block, channels, rate, block, channels, p} {
    size_t size = 0;
    EXPECT_EQ(Api::getInstanceSize(&config, &size), R::Success);
    memory = std::make_unique<InstanceMemory>(size);
    inst = memory->as<typename Api::Inst>();
    EXPECT_EQ(Api::init(inst, &config), R::Success);
  }
  Signals run(const Signals& in) {
    return runBlocks(in, config.inputBlockSize, [&](float** ch) { return Api::process(inst, ch); });
  }
  std::vector<float> run(const std::vector<float>& in) { return run(Signals{in})[0]; }
  R update(typename Api::P p) { return Api::update(inst, &p); }
  R flush() { return Api::flush(inst); }
  typename Api::P parameters() {
    typename Api::P p{};
    EXPECT_EQ(Api::get(inst, &p), R::Success);
    return p;
  }
  int latency() {
    int l = -1;
    EXPECT_EQ(Api::latency(inst, &l), R::Success);
    return l;
  }

  typename Api::Config config;
  std::unique_ptr<InstanceMemory> memory;
  typename Api::Inst* inst = nullptr;
};

}  // namespace qor::test
