// Sample-rate converter, stereo, in the block sizes the voice chain uses:
// host blocks (441 or 256 samples at 44.1 kHz) into 48 kHz, and 256-sample
// frames back out. libsamplerate's fastest sinc converter runs on the same
// data in the same program; after the run a table gives our CPU time over
// libsamplerate's for each case (below 1.0 means we are faster).
#include <benchmark/benchmark.h>
#include <samplerate.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench_util.h"
#include "dsp/voice/interpolation_taps.h"
#include "dsp/voice/sample_rate_converter.h"

namespace {

using namespace QorSampleRateConverter_API_V1;

constexpr uint32_t kChannels = 2;

struct Case {
  const char* name;
  uint32_t inRate;
  uint32_t inBlock;
  uint32_t outRate;
};

constexpr Case kCases[] = {
    {"44100to48000/441", 44100, 441, 48000},
    {"44100to48000/256", 44100, 256, 48000},
    {"48000to44100/256", 48000, 256, 44100},
};

// The converter on the tap kernel Init picks (AVX where the processor has
// it), or pinned to the SSE2 one.
void runQor(benchmark::State& state, Case c, bool sse2) {
  QorSampleRateConverterConfig config{c.inRate, c.inBlock, kChannels, c.outRate, 0, kChannels, {}};
  qorSampleRateConverterGetDefaultParameters(&config.parameters);
  qorSampleRateConverterComputeOutputBlockSize(c.inRate, c.inBlock, c.outRate, &config.outputBlockSize);
  size_t size = 0;
  if (qorSampleRateConverterGetInstanceSize(&config, &size) != QorSampleRateConverterResult::Success) {
    state.SkipWithError("configuration refused");
    return;
  }
  qor::bench::Block block = qor::bench::alignedZeroed(size);
  auto* inst = reinterpret_cast<QorSampleRateConverterInst*>(block.get());
  qorSampleRateConverterInit(inst, &config);
  if (sse2 && !qor::sampleRateConverterUseTaps(inst, qor::TapKernel::Sse2)) {
    state.SkipWithError("no SSE2 kernel in this build");
    return;
  }
  qor::bench::Audio input(kChannels, c.inBlock);
  qor::bench::Audio output(kChannels, config.outputBlockSize);
  uint32_t produced = 0;
  for (auto _ : state) {
    qorSampleRateConverterProcess(inst, input.data(), output.data(), &produced);
    benchmark::DoNotOptimize(produced);
    benchmark::ClobberMemory();
  }
  qor::bench::reportRealTimeFactor(state, c.inBlock, c.inRate);
}

void BM_Qor(benchmark::State& state, Case c) { runQor(state, c, false); }
void BM_QorSse2(benchmark::State& state, Case c) { runQor(state, c, true); }

// The same blocks, interleaved beforehand as libsamplerate wants them, so
// only its conversion is timed.
void BM_Libsamplerate(benchmark::State& state, Case c) {
  int error = 0;
  SRC_STATE* src = src_new(SRC_SINC_FASTEST, kChannels, &error);
  if (src == nullptr) {
    state.SkipWithError(src_strerror(error));
    return;
  }
  qor::bench::Audio input(kChannels, c.inBlock);
  std::vector<float> interleaved(kChannels * c.inBlock);
  for (uint32_t i = 0; i < c.inBlock; ++i) {
    for (uint32_t ch = 0; ch < kChannels; ++ch) interleaved[kChannels * i + ch] = input.data()[ch][i];
  }
  const double ratio = static_cast<double>(c.outRate) / c.inRate;
  std::vector<float> out(kChannels * (static_cast<size_t>(c.inBlock * ratio) + 64));
  SRC_DATA data{};
  data.data_in = interleaved.data();
  data.data_out = out.data();
  data.input_frames = c.inBlock;
  data.output_frames = static_cast<long>(out.size() / kChannels);
  data.src_ratio = ratio;
  for (auto _ : state) {
    src_process(src, &data);
    benchmark::DoNotOptimize(data.output_frames_gen);
    benchmark::ClobberMemory();
  }
  src_delete(src);
  qor::bench::reportRealTimeFactor(state, c.inBlock, c.inRate);
}

// Keeps the CPU time per iteration of every run (the median when the runs
// are repeated) to print the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const std::string name = run.run_name.str();
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        cpu_[name] = run.GetAdjustedCPUTime();
        medians_ = true;
      } else if (run.run_type == Run::RT_Iteration && !medians_) {
        cpu_[name] = run.GetAdjustedCPUTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void printRatios() const {
    std::printf("\nour CPU time / libsamplerate SRC_SINC_FASTEST CPU time (stereo; SSE2 kernel alone):\n");
    for (const Case& c : kCases) {
      const auto ours = cpu_.find(std::string("BM_Qor/") + c.name);
      const auto sse2 = cpu_.find(std::string("BM_QorSse2/") + c.name);
      const auto theirs = cpu_.find(std::string("BM_Libsamplerate/") + c.name);
      if (ours == cpu_.end() || theirs == cpu_.end() || theirs->second <= 0.0) continue;
      std::printf("  %-18s %.3f", c.name, ours->second / theirs->second);
      if (sse2 != cpu_.end()) std::printf("  (%.3f)", sse2->second / theirs->second);
      std::printf("\n");
    }
  }

 private:
  std::map<std::string, double> cpu_;
  bool medians_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  for (const Case& c : kCases) {
    benchmark::RegisterBenchmark((std::string("BM_Qor/") + c.name).c_str(), BM_Qor, c);
    benchmark::RegisterBenchmark((std::string("BM_QorSse2/") + c.name).c_str(), BM_QorSse2, c);
    benchmark::RegisterBenchmark((std::string("BM_Libsamplerate/") + c.name).c_str(), BM_Libsamplerate, c);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
  benchmark::Shutdown();
  return 0;
}
