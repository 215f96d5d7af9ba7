// Core primitives and the level meter at 48 kHz stereo, 256-sample blocks.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench_util.h"
#include "dsp/core/biquad_cascade.h"
#include "dsp/core/butterworth.h"
#include "dsp/core/crossfade.h"
#include "dsp/core/metering.h"
#include "dsp/core/peak_detector.h"

namespace {

constexpr uint32_t kBlock = 256;
constexpr uint32_t kChannels = 2;
constexpr double kRate = 48000.0;

void BM_BiquadCascade4thOrder(benchmark::State& state) {
  qor::bench::Audio audio(kChannels, kBlock);
  std::vector<float> c(11);
  qor::designButterworth(120.0f, 4, 48000, qor::kButterworthHighPass, c.data());
  std::vector<float> s(4 * kChannels, 0.0f);
  for (auto _ : state) {
    for (uint32_t ch = 0; ch < kChannels; ++ch) {
      qor::processBiquadCascade(audio.data()[ch], kBlock, c.data(), &s[4 * ch], 2);
    }
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_BiquadCascade4thOrder);

void BM_Crossfade(benchmark::State& state) {
  qor::bench::Audio wet(kChannels, kBlock, 1), dry(kChannels, kBlock, 2);
  float mix = 0.0f;
  float target = 1.0f;
  for (auto _ : state) {
    for (uint32_t ch = 0; ch < kChannels; ++ch) {
      float m = mix;
      qor::crossfade(wet.data()[ch], dry.data()[ch], wet.data()[ch], m, target, 0.0047856f, kBlock);
      if (ch + 1 == kChannels) mix = m;
    }
    if (mix > 0.99f) target = 0.0f;
    if (mix < 0.01f) target = 1.0f;
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_Crossfade);

void BM_BlockPeak(benchmark::State& state) {
  qor::bench::Audio audio(kChannels, kBlock);
  for (auto _ : state) {
    benchmark::DoNotOptimize(qor::blockPeak(audio.data(), 0, kBlock, kChannels));
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_BlockPeak);

void BM_LevelMeter(benchmark::State& state) {
  using namespace QorMetering_API_V1;
  QorMeteringConfig config{48000, kBlock, kChannels, 48000, kBlock, kChannels, {}};
  qorMeteringGetDefaultParameters(&config.parameters);
  size_t size = 0;
  qorMeteringGetInstanceSize(&config, &size);
  qor::bench::Block block = qor::bench::alignedZeroed(size);
  auto* inst = reinterpret_cast<QorMeteringInst*>(block.get());
  qorMeteringInit(inst, &config);
  qor::bench::Audio audio(kChannels, kBlock);
  for (auto _ : state) {
    qorMeteringProcess(inst, audio.data());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_LevelMeter);

}  // namespace
