// High-pass filter, gating compressor and hard limiter at 48 kHz stereo,
// 256-sample blocks, each with its default parameters (all sections on).
#include <benchmark/benchmark.h>

#include "bench_util.h"
#include "dsp/dynamics/gating_compressor.h"
#include "dsp/dynamics/hard_limiter.h"
#include "dsp/dynamics/high_pass_filter.h"

namespace {

constexpr uint32_t kBlock = 256;
constexpr uint32_t kChannels = 2;
constexpr uint32_t kRate = 48000;

// Sizes, allocates and initialises one family instance from its config.
template <class Inst, class Config, class SizeFn, class InitFn>
Inst* makeInstance(qor::bench::Block& block, const Config& config, SizeFn size, InitFn init) {
  size_t bytes = 0;
  size(&config, &bytes);
  block = qor::bench::alignedZeroed(bytes);
  auto* inst = reinterpret_cast<Inst*>(block.get());
  init(inst, &config);
  return inst;
}

void BM_HighPassFilter(benchmark::State& state) {
  using namespace QorHighPassFilter_API_V1;
  QorHighPassFilterConfig config{kRate, kBlock, kChannels, kRate, kBlock, kChannels, {}};
  qorHighPassFilterGetDefaultParameters(&config.parameters);
  config.parameters.order = static_cast<uint32_t>(state.range(0));
  qor::bench::Block block;
  auto* inst = makeInstance<QorHighPassFilterInst>(block, config, qorHighPassFilterGetInstanceSize,
                                                   qorHighPassFilterInit);
  qor::bench::Audio audio(kChannels, kBlock);
  for (auto _ : state) {
    qorHighPassFilterProcess(inst, audio.data());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_HighPassFilter)->Arg(1)->Arg(2);

void BM_GatingCompressor(benchmark::State& state) {
  using namespace QorGatingCompressor_API_V1;
  QorGatingCompressorConfig config{kRate, kBlock, kChannels, kRate, kBlock, kChannels, {}, 1};
  qorGatingCompressorGetDefaultParameters(&config.parameters);
  config.parameters.compressorThreshold = -20.0f;  // the compressor works on the test audio
  qor::bench::Block block;
  auto* inst = makeInstance<QorGatingCompressorInst>(block, config, qorGatingCompressorGetInstanceSize,
                                                     qorGatingCompressorInit);
  qor::bench::Audio audio(kChannels, kBlock);
  for (auto _ : state) {
    qorGatingCompressorProcess(inst, audio.data());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_GatingCompressor);

void BM_HardLimiter(benchmark::State& state) {
  using namespace QorHardLimiter_API_V1;
  QorHardLimiterConfig config{kRate, kBlock, kChannels, kRate, kBlock, kChannels, {}, 1};
  qorHardLimiterGetDefaultParameters(&config.parameters);
  config.parameters.inputGain = 12.0f;  // pushes the test audio over the ceiling
  qor::bench::Block block;
  auto* inst = makeInstance<QorHardLimiterInst>(block, config, qorHardLimiterGetInstanceSize,
                                                qorHardLimiterInit);
  qor::bench::Audio audio(kChannels, kBlock);
  for (auto _ : state) {
    qorHardLimiterProcess(inst, audio.data());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_HardLimiter);

}  // namespace
