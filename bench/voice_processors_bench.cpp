// The vocal changer's three voice processors at 48 kHz stereo, 256-sample
// blocks. Each iteration refills the block from fresh noise, since the
// processors work in place and some of them have large gains.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "bench_util.h"
#include "dsp/core/instance.h"
#include "dsp/voice/voice_carrier_processor.h"
#include "dsp/voice/voice_pitch_shifter.h"
#include "dsp/voice/voice_spectral_processor.h"

namespace {

constexpr uint32_t kBlock = 256;
constexpr uint32_t kChannels = 2;
constexpr double kRate = 48000.0;

// Processor record plus its buffers in one zeroed, aligned block.
template <class Processor>
struct Placed {
  qor::bench::Block block;
  Processor* p = nullptr;
  Placed() {
    qor::InstanceLayout counter(nullptr);
    counter.take<Processor>();
    Processor::layOut(counter, nullptr, kChannels);
    block = qor::bench::alignedZeroed(counter.size());
    qor::InstanceLayout layout(block.get());
    p = layout.take<Processor>();
    Processor::layOut(layout, p, kChannels);
    p->init(static_cast<float>(kRate));
  }
};

template <class Processor>
void run(benchmark::State& state, Processor& p) {
  qor::bench::Audio source(kChannels, kBlock, 7), work(kChannels, kBlock, 8);
  for (auto _ : state) {
    for (uint32_t c = 0; c < kChannels; ++c) {
      std::memcpy(work.data()[c], source.data()[c], sizeof(float) * kBlock);
    }
    p.process(work.data(), kBlock, kChannels);
    benchmark::DoNotOptimize(work.data()[0][0]);
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}

void BM_VoicePitchShifter(benchmark::State& state) {
  Placed<qor::VoicePitchShifter> s;
  s.p->setRatio(static_cast<float>(std::pow(2.0, static_cast<double>(state.range(1)) / 12.0)));
  s.p->setMode(static_cast<int32_t>(state.range(0)));
  run(state, *s.p);
}
// Mode, semitones: ratio 1 (k = 256), an octave up (k = 128, twice the
// frames) and an octave down (k = 512).
BENCHMARK(BM_VoicePitchShifter)
    ->ArgNames({"mode", "semitones"})
    ->Args({0, 0})
    ->Args({0, 12})
    ->Args({0, -12})
    ->Args({0, 24})
    ->Args({1, 12})
    ->Args({2, 12});

void BM_VoiceSpectralProcessor(benchmark::State& state) {
  Placed<qor::VoiceSpectralProcessor> s;
  s.p->setWarp(1.5f, 46.875f);
  run(state, *s.p);
}
BENCHMARK(BM_VoiceSpectralProcessor);

void BM_VoiceCarrierProcessor(benchmark::State& state) {
  Placed<qor::VoiceCarrierProcessor> s;
  static std::vector<float> tone(44100);
  for (size_t i = 0; i < tone.size(); ++i) {
    tone[i] = static_cast<float>(std::sin(2.0 * 3.14159265358979 * 65.0 * i / 44100.0));
  }
  if (state.range(0) != 0) s.p->setSettings({400.0f, 4800.0f, 0.95f, tone.data(), 44100, 0.0f});
  s.p->setPitchFrequency(440.0f);
  run(state, *s.p);
}
// 0: white-noise carrier (both channels share one analysis); 1: tone carrier
// mixed with the voice (each channel analysed).
BENCHMARK(BM_VoiceCarrierProcessor)->ArgName("tone")->Arg(0)->Arg(1);

}  // namespace
