// Reverb at 48 kHz stereo, 256-sample blocks.
#include <benchmark/benchmark.h>

#include "bench_util.h"
#include "dsp/voice/reverb.h"

namespace {

using namespace QorReverb_API_V1;

constexpr uint32_t kBlock = 256;
constexpr uint32_t kChannels = 2;
constexpr double kRate = 48000.0;

// Arguments: room type, high decay in ms (which sizes the network).
void BM_Reverb(benchmark::State& state) {
  QorReverbConfig config{48000, kBlock, kChannels, 48000, kBlock, kChannels, {}};
  qorReverbGetDefaultParameters(&config.parameters);
  config.parameters.roomType = static_cast<int32_t>(state.range(0));
  config.parameters.highDecayMs = static_cast<float>(state.range(1));
  size_t size = 0;
  qorReverbGetInstanceSize(&config, &size);
  qor::bench::Block block = qor::bench::alignedZeroed(size);
  auto* inst = reinterpret_cast<QorReverbInst*>(block.get());
  qorReverbInit(inst, &config);
  qor::bench::Audio audio(kChannels, kBlock);
  for (auto _ : state) {
    qorReverbProcess(inst, audio.data());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_Reverb)->Args({1, 750})->Args({3, 750})->Args({9, 6000});

}  // namespace
