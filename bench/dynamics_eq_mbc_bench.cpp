// Multi-band equaliser and multi-band compressor at 48 kHz stereo, 256-sample
// blocks, with every section in use.
#include <benchmark/benchmark.h>

#include <algorithm>

#include "bench_util.h"
#include "dsp/dynamics/multi_band_compressor.h"
#include "dsp/dynamics/multi_band_equaliser.h"

namespace {

constexpr uint32_t kBlock = 256;
constexpr uint32_t kChannels = 2;
constexpr uint32_t kRate = 48000;

void BM_MultiBandEqualiser(benchmark::State& state) {
  QorMultiBandEqualiserConfig config{kRate, kBlock, kChannels, kRate, kBlock, kChannels, {}};
  qorMultiBandEqualiserGetDefaultParameters(&config.parameters);
  config.parameters.band1Gain = 6.0f;
  config.parameters.band2Gain = -4.0f;
  config.parameters.band3Gain = 3.0f;
  config.parameters.highPassOrder = 2;
  config.parameters.lowPassOrder = 2;
  size_t size = 0;
  qorMultiBandEqualiserGetInstanceSize(&config, &size);
  qor::bench::Block block = qor::bench::alignedZeroed(size);
  auto* inst = reinterpret_cast<QorMultiBandEqualiserInst*>(block.get());
  if (qorMultiBandEqualiserInit(inst, &config) != QorMultiBandEqualiserResult::Success) {
    state.SkipWithError("Init failed");
    return;
  }
  qor::bench::Audio audio(kChannels, kBlock);
  for (auto _ : state) {
    qorMultiBandEqualiserProcess(inst, audio.data());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_MultiBandEqualiser);

// Both bands compressing (thresholds below the test signal), metering on.
void BM_MultiBandCompressor(benchmark::State& state) {
  using namespace QorMultiBandCompressor_API_V1;
  QorMultiBandCompressorConfig config{kRate, kBlock, kChannels, kRate, kBlock, kChannels, {}, 1};
  qorMultiBandCompressorGetDefaultParameters(&config.parameters);
  config.parameters.lowThreshold = -40.0f;
  config.parameters.highThreshold = -40.0f;
  size_t size = 0;
  qorMultiBandCompressorGetInstanceSize(&config, &size);
  qor::bench::Block block = qor::bench::alignedZeroed(size);
  auto* inst = reinterpret_cast<QorMultiBandCompressorInst*>(block.get());
  if (qorMultiBandCompressorInit(inst, &config) != QorMultiBandCompressorResult::Success) {
    state.SkipWithError("Init failed");
    return;
  }
  qor::bench::Audio source(kChannels, kBlock), audio(kChannels, kBlock);
  for (auto _ : state) {
    // Fresh input each block, so the level stays put while gains apply.
    for (uint32_t c = 0; c < kChannels; ++c) {
      std::copy(source.data()[c], source.data()[c] + kBlock, audio.data()[c]);
    }
    qorMultiBandCompressorProcess(inst, audio.data());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_MultiBandCompressor);

}  // namespace
