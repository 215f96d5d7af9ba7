// Vocal changer at 48 kHz stereo in 256-sample blocks: voice 1 alone for
// each processing type, and the heaviest setting (both voices on the
// warp-then-shift type with the detune stage running).
#include <cstring>

#include "bench_util.h"
#include "dsp/voice/vocal_changer.h"

namespace {

using namespace QorVocalChanger_API_V1;

constexpr uint32_t kRate = 48000;
constexpr uint32_t kBlock = 256;
constexpr uint32_t kChannels = 2;
constexpr uint32_t kBlocks = 64;  // a varied stretch of input per iteration

void run(benchmark::State& state, const QorVocalChangerParameters& p) {
  const QorVocalChangerConfig config{kRate, kBlock, kChannels, kRate, kBlock, kChannels, p};
  size_t size = 0;
  if (qorVocalChangerGetInstanceSize(&config, &size) != QorVocalChangerResult::Success) {
    state.SkipWithError("configuration refused");
    return;
  }
  auto memory = qor::bench::alignedZeroed(size);
  auto* inst = reinterpret_cast<QorVocalChangerInst*>(memory.get());
  if (qorVocalChangerInit(inst, &config) != QorVocalChangerResult::Success) {
    state.SkipWithError("init failed");
    return;
  }
  qor::bench::Audio source(kChannels, kBlock * kBlocks);
  qor::bench::Audio work(kChannels, kBlock);
  uint32_t at = 0;
  for (auto _ : state) {
    for (uint32_t c = 0; c < kChannels; ++c) {
      std::memcpy(work.data()[c], source.data()[c] + at * kBlock, sizeof(float) * kBlock);
    }
    qorVocalChangerProcess(inst, work.data());
    benchmark::DoNotOptimize(work.data()[0][0]);
    at = (at + 1) % kBlocks;
  }
  qor::bench::reportRealTimeFactor(state, kBlock, kRate);
  qorVocalChangerRelease(inst);
}

QorVocalChangerParameters voice1(int32_t type, float cents) {
  QorVocalChangerParameters p;
  qorVocalChangerGetDefaultParameters(&p);
  p.voice1Type = type;
  p.voice1PitchCents = cents;
  return p;
}

void BM_VocalChangerVoice1(benchmark::State& state) {
  run(state, voice1(static_cast<int32_t>(state.range(0)), 300.0f));
}
BENCHMARK(BM_VocalChangerVoice1)->ArgName("type")->DenseRange(1, 3)->DenseRange(6, 14);

void BM_VocalChangerWorstCase(benchmark::State& state) {
  QorVocalChangerParameters p = voice1(3, 500.0f);
  p.voice2Type = 3;
  p.voice2PitchCents = -400.0f;
  p.detuneEnable = 1;
  p.detuneDelayMs = 20.0f;
  p.detuneDepthPercent = 50.0f;
  p.detuneRateHz = 1.0f;
  p.detuneCents = 25.0f;
  p.detunePitchRateHz = 0.5f;
  run(state, p);
}
BENCHMARK(BM_VocalChangerWorstCase);

}  // namespace
