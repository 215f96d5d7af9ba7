// Modulation effects at 48 kHz stereo, 256-sample blocks: ring modulator,
// delay, and the flanger/phaser in each of its six modes.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bench_util.h"
#include "dsp/voice/delay.h"
#include "dsp/voice/flanger_phaser.h"
#include "dsp/voice/ring_modulator.h"
#include "dsp/voice/wavetable_oscillator.h"

namespace {

constexpr uint32_t kBlock = 256;
constexpr uint32_t kChannels = 2;
constexpr double kRate = 48000.0;

// Fresh input every block: processing the same buffer in place over and
// over would decay it into denormals and measure those instead.
class Input {
 public:
  Input() : source_(kChannels, kBlock, 1), work_(kChannels, kBlock, 2) {}
  float** next() {
    for (uint32_t c = 0; c < kChannels; ++c) {
      std::memcpy(work_.data()[c], source_.data()[c], sizeof(float) * kBlock);
    }
    return work_.data();
  }

 private:
  qor::bench::Audio source_, work_;
};

// Instance of any family: size, zeroed aligned block, Init.
template <class Inst, class Config, class SizeFn, class InitFn>
qor::bench::Block makeInstance(const Config& config, SizeFn size, InitFn init, Inst** inst) {
  size_t bytes = 0;
  size(&config, &bytes);
  qor::bench::Block block = qor::bench::alignedZeroed(bytes);
  *inst = reinterpret_cast<Inst*>(block.get());
  init(*inst, &config);
  return block;
}

void BM_WavetableOscillator(benchmark::State& state) {
  qor::WavetableOscillator osc{};
  osc.init();
  osc.setShape(qor::kShapeSine);
  osc.setFrequency(440.0f);
  alignas(32) float out[kBlock];
  for (auto _ : state) {
    osc.render(out, kBlock);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_WavetableOscillator);

void BM_RingModulator(benchmark::State& state) {
  using namespace QorRingModulator_API_V1;
  QorRingModulatorConfig config{48000, kBlock, kChannels, 48000, kBlock, kChannels, {}};
  qorRingModulatorGetDefaultParameters(&config.parameters);
  QorRingModulatorInst* inst = nullptr;
  auto block = makeInstance(config, qorRingModulatorGetInstanceSize, qorRingModulatorInit, &inst);
  Input input;
  for (auto _ : state) {
    qorRingModulatorProcess(inst, input.next());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_RingModulator);

void BM_Delay(benchmark::State& state) {
  using namespace QorDelay_API_V1;
  QorDelayConfig config{48000, kBlock, kChannels, 48000, kBlock, kChannels, {}};
  qorDelayGetDefaultParameters(&config.parameters);
  config.parameters.pingPong = static_cast<int32_t>(state.range(0));
  config.parameters.feedback = 0.5f;
  QorDelayInst* inst = nullptr;
  auto block = makeInstance(config, qorDelayGetInstanceSize, qorDelayInit, &inst);
  Input input;
  for (auto _ : state) {
    qorDelayProcess(inst, input.next());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_Delay)->ArgName("pingPong")->Arg(0)->Arg(1);

void BM_FlangerPhaser(benchmark::State& state) {
  using namespace QorFlangerPhaser_API_V1;
  QorFlangerPhaserConfig config{48000, kBlock, kChannels, 48000, kBlock, kChannels, {}};
  qorFlangerPhaserGetDefaultParameters(&config.parameters);
  config.parameters.mode = static_cast<int32_t>(state.range(0));
  QorFlangerPhaserInst* inst = nullptr;
  auto block = makeInstance(config, qorFlangerPhaserGetInstanceSize, qorFlangerPhaserInit, &inst);
  Input input;
  for (auto _ : state) {
    qorFlangerPhaserProcess(inst, input.next());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
}
BENCHMARK(BM_FlangerPhaser)->ArgName("mode")->DenseRange(0, 5);

}  // namespace
