// The effect families share one calling convention; `Family<Api>` holds one
// initialised instance of a family (stereo or mono, rate and block equal on
// input and output) and runs whole signals through it with the allocation
// guard around every Process call.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "dsp/voice/delay.h"
#include "dsp/voice/flanger_phaser.h"
#include "dsp/voice/reverb.h"
#include "dsp/voice/ring_modulator.h"
#include "dsp/voice/vocal_changer.h"
#include "support/audio_buffers.h"
#include "support/block_runner.h"

namespace qor::test {

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
