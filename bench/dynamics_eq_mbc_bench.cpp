// Multi-band equaliser and multi-band compressor at 48 kHz stereo, 256-sample
// blocks, with every section in use.
#include <benchmark/benchmark.h>

#include "bench_util.h"
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

}  // namespace
