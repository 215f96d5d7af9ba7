// RealFft against FFTW (forward + inverse, same sizes, same run) and the
// noise reduction at 48 kHz stereo, 256-sample blocks.
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <time.h>

#include <random>
#include <vector>

#include "bench_util.h"
#include "dsp/noise/noise_reduction.h"
#include "dsp/noise/real_fft.h"

namespace {

std::vector<float> noise(uint32_t n) {
  std::mt19937 gen(5);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> x(n);
  for (auto& v : x) v = dist(gen);
  return x;
}

void BM_RealFftForwardInverse(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  qor::bench::Block setupMemory = qor::bench::alignedZeroed(qor::fftSetupSize(n));
  qor::bench::Block scratch = qor::bench::alignedZeroed(qor::fftScratchSize(n));
  auto* setup = reinterpret_cast<qor::RealFftSetup*>(setupMemory.get());
  qor::fftInit(setup, n);
  const std::vector<float> x = noise(n);
  qor::bench::Block buffers = qor::bench::alignedZeroed(sizeof(float) * (3 * n + 64));
  float* y = reinterpret_cast<float*>(buffers.get());
  float* re = y + n;
  float* im = re + n;
  for (auto _ : state) {
    qor::fftForward(setup, x.data(), re, im, scratch.get());
    qor::fftInverse(setup, re, im, y, scratch.get());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RealFftForwardInverse)->Arg(1024)->Arg(2048)->Arg(4096);

void BM_FftwForwardInverse(benchmark::State& state) {
  const auto n = static_cast<int>(state.range(0));
  float* in = fftwf_alloc_real(static_cast<size_t>(n));
  float* out = fftwf_alloc_real(static_cast<size_t>(n));
  fftwf_complex* spectrum = fftwf_alloc_complex(static_cast<size_t>(n / 2 + 1));
  fftwf_plan forward = fftwf_plan_dft_r2c_1d(n, in, spectrum, FFTW_MEASURE);
  fftwf_plan inverse = fftwf_plan_dft_c2r_1d(n, spectrum, out, FFTW_MEASURE);
  const std::vector<float> x = noise(static_cast<uint32_t>(n));
  std::copy(x.begin(), x.end(), in);
  for (auto _ : state) {
    fftwf_execute(forward);
    fftwf_execute(inverse);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
  fftwf_destroy_plan(forward);
  fftwf_destroy_plan(inverse);
  fftwf_free(in);
  fftwf_free(out);
  fftwf_free(spectrum);
}
BENCHMARK(BM_FftwForwardInverse)->Arg(1024)->Arg(2048)->Arg(4096);

// Thread CPU time in ns: other processes on the machine do not count.
double cpuNanoseconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// Both transforms in the same iteration, alternating, so that load on the
// machine hits them alike. Counters: CPU ns per forward + inverse pair of
// each, and ours / FFTW. `fourLanes` pins our fallback kernel.
void ratioToFftw(benchmark::State& state, bool fourLanes) {
  const auto n = static_cast<uint32_t>(state.range(0));
  qor::bench::Block setupMemory = qor::bench::alignedZeroed(qor::fftSetupSize(n));
  qor::bench::Block scratch = qor::bench::alignedZeroed(qor::fftScratchSize(n));
  auto* setup = reinterpret_cast<qor::RealFftSetup*>(setupMemory.get());
  qor::fftInit(setup, n);
  if (fourLanes) qor::fftUseKernel(setup, qor::kFftKernel4);
  qor::bench::Block buffers = qor::bench::alignedZeroed(sizeof(float) * (4 * n + 64));
  float* x = reinterpret_cast<float*>(buffers.get());
  float* y = x + n;
  float* re = y + n;
  float* im = re + n;
  const std::vector<float> source = noise(n);
  std::copy(source.begin(), source.end(), x);

  float* in = fftwf_alloc_real(n);
  float* out = fftwf_alloc_real(n);
  fftwf_complex* spectrum = fftwf_alloc_complex(n / 2 + 1);
  fftwf_plan forward = fftwf_plan_dft_r2c_1d(static_cast<int>(n), in, spectrum, FFTW_MEASURE);
  fftwf_plan inverse = fftwf_plan_dft_c2r_1d(static_cast<int>(n), spectrum, out, FFTW_MEASURE);
  std::copy(source.begin(), source.end(), in);

  constexpr int kRounds = 32;
  double ours = 0.0, theirs = 0.0;
  for (auto _ : state) {
    const double t0 = cpuNanoseconds();
    for (int r = 0; r < kRounds; ++r) {
      qor::fftForward(setup, x, re, im, scratch.get());
      qor::fftInverse(setup, re, im, y, scratch.get());
      benchmark::ClobberMemory();
    }
    const double t1 = cpuNanoseconds();
    for (int r = 0; r < kRounds; ++r) {
      fftwf_execute(forward);
      fftwf_execute(inverse);
      benchmark::ClobberMemory();
    }
    const double t2 = cpuNanoseconds();
    ours += t1 - t0;
    theirs += t2 - t1;
  }
  const double pairs = static_cast<double>(state.iterations()) * kRounds;
  state.counters["ours_ns"] = ours / pairs;
  state.counters["fftw_ns"] = theirs / pairs;
  state.counters["ratio"] = ours / theirs;
  fftwf_destroy_plan(forward);
  fftwf_destroy_plan(inverse);
  fftwf_free(in);
  fftwf_free(out);
  fftwf_free(spectrum);
}
void BM_RealFftRatioToFftw(benchmark::State& state) { ratioToFftw(state, false); }
BENCHMARK(BM_RealFftRatioToFftw)->Arg(1024)->Arg(2048)->Arg(4096);
void BM_RealFftFourLanesRatioToFftw(benchmark::State& state) { ratioToFftw(state, true); }
BENCHMARK(BM_RealFftFourLanesRatioToFftw)->Arg(1024)->Arg(2048)->Arg(4096);

void BM_NoiseReduction(benchmark::State& state) {
  using namespace QorNoiseReduction_API_V1;
  constexpr uint32_t kBlock = 256, kChannels = 2;
  QorNoiseReductionConfig config{48000, kBlock, kChannels, 48000, kBlock, kChannels, {}, 1};
  qorNoiseReductionGetDefaultParameters(&config.parameters);
  size_t size = 0;
  qorNoiseReductionGetInstanceSize(&config, &size);
  qor::bench::Block block = qor::bench::alignedZeroed(size);
  auto* inst = reinterpret_cast<QorNoiseReductionInst*>(block.get());
  qorNoiseReductionInit(inst, &config);
  qor::bench::Audio audio(kChannels, kBlock);
  for (auto _ : state) {
    qorNoiseReductionProcess(inst, audio.data());
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, kBlock, 48000.0);
}
BENCHMARK(BM_NoiseReduction);

}  // namespace
