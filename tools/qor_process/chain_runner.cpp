#include "qor_process/chain_runner.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "qor_process/parameter_fields.h"

namespace qor::tools {

using namespace QorCalvera2_API_V1;

const char* const kMeteringPointNames[kCalvera2MeteringPointCount] = {
    "input_metering",
    "high_pass_filter_input_metering",
    "high_pass_filter_output_metering",
    "noise_reduction_input_metering",
    "noise_reduction_gain_metering",
    "noise_reduction_output_metering",
    "gating_compressor_input_metering",
    "gating_compressor_gate_gain_metering",
    "gating_compressor_compressor_gain_metering",
    "gating_compressor_output_metering",
    "multi_band_eq_input_metering",
    "multi_band_eq_output_metering",
    "multi_band_compressor_input_metering",
    "multi_band_compressor_low_band_gain_metering",
    "multi_band_compressor_high_band_gain_metering",
    "multi_band_compressor_frequency_response_metering",
    "multi_band_compressor_output_metering",
    "vocal_changer_input_metering",
    "vocal_changer_output_metering",
    "flanger_phaser_input_metering",
    "flanger_phaser_output_metering",
    "ring_modulator_input_metering",
    "ring_modulator_output_metering",
    "delay_input_metering",
    "delay_output_metering",
    "reverb_input_metering",
    "reverb_output_metering",
    "hard_limiter_input_metering",
    "hard_limiter_gain_metering",
    "hard_limiter_output_metering",
    "output_metering",
};

namespace {

constexpr uint32_t kFrequencyResponseSlot = 15;

struct AlignedFree {
  void operator()(void* p) const { std::free(p); }
};
using Block = std::unique_ptr<unsigned char, AlignedFree>;

Block alignedZeroed(size_t bytes) {
  const size_t rounded = std::max<size_t>((bytes + 31) / 32 * 32, 32);
  Block b(static_cast<unsigned char*>(std::aligned_alloc(32, rounded)));
  std::memset(b.get(), 0, rounded);
  return b;
}

}  // namespace

bool runChain(const QorCalvera2Parameters& parameters, const AudioData& input, const RunSettings& settings,
              RunResult& result, std::string& error) {
  const uint32_t inChannels = static_cast<uint32_t>(input.channels.size());
  const uint32_t block = settings.blockFrames != 0 ? settings.blockFrames : std::max<uint32_t>(input.rate / 100, 1);
  QorCalvera2Config config{input.rate, block, inChannels, input.rate, block, 2, parameters, 1};

  size_t size = 0;
  if (const auto rc = qorCalvera2GetInstanceSize(&config, &size); rc != QorCalvera2Result::Success) {
    error = "the voice chain refused " + std::to_string(input.rate) + " Hz, " + std::to_string(block) +
            "-frame blocks, " + std::to_string(inChannels) + " channel(s): " +
            describeChainResult(static_cast<int32_t>(rc));
    return false;
  }
  Block memory = alignedZeroed(size);
  auto* chain = reinterpret_cast<QorCalvera2Inst*>(memory.get());
  if (const auto rc = qorCalvera2Init(chain, &config); rc != QorCalvera2Result::Success) {
    error = "the voice chain did not start: " + describeChainResult(static_cast<int32_t>(rc));
    return false;
  }
  int latency = 0;
  qorCalvera2GetCurrentLatency(chain, &latency);
  result.latency = latency;

  const size_t frames = input.frames();
  const size_t skip = settings.compensateLatency ? static_cast<size_t>(latency) : 0;
  const size_t total = frames + skip;
  const size_t blocks = (total + block - 1) / block;

  const size_t stride = (block + 7) / 8 * 8;
  Block audio = alignedZeroed(sizeof(float) * stride * 2);
  float* channels[2] = {reinterpret_cast<float*>(audio.get()), reinterpret_cast<float*>(audio.get()) + stride};

  result.output.rate = input.rate;
  result.output.format = input.format;
  result.output.channels.assign(2, std::vector<float>());
  for (auto& ch : result.output.channels) ch.reserve(blocks * block);

  for (size_t b = 0; b < blocks; ++b) {
    const size_t start = b * block;
    for (uint32_t c = 0; c < 2; ++c) {
      const std::vector<float>* src = c < inChannels ? &input.channels[c] : nullptr;
      for (uint32_t i = 0; i < block; ++i) {
        const size_t at = start + i;
        channels[c][i] = src != nullptr && at < frames ? (*src)[at] : 0.0f;
      }
    }
    if (const auto rc = qorCalvera2Process(chain, channels); rc != QorCalvera2Result::Success) {
      qorCalvera2Release(chain);
      error = "the voice chain failed while processing: " + describeChainResult(static_cast<int32_t>(rc));
      return false;
    }
    for (uint32_t c = 0; c < 2; ++c) {
      result.output.channels[c].insert(result.output.channels[c].end(), channels[c], channels[c] + block);
    }
    if (settings.progress) settings.progress(static_cast<double>(b + 1) / static_cast<double>(blocks));
  }
  for (auto& ch : result.output.channels) {
    ch.erase(ch.begin(), ch.begin() + static_cast<std::ptrdiff_t>(std::min(skip, ch.size())));
    ch.resize(frames);
  }

  const QorCalvera2MeteringPoints* points = nullptr;
  result.meters.clear();
  if (qorCalvera2GetMeteringPoints(chain, &points) == QorCalvera2Result::Success) {
    for (uint32_t i = 0; i < kCalvera2MeteringPointCount; ++i) {
      const QorMeteringPoint* p = points->points[i];
      MeterSnapshot m{kMeteringPointNames[i], 0, i == kFrequencyResponseSlot ? 2048u : 3u, {}};
      if (p != nullptr && p->data != nullptr) {
        m.count = p->count;
        m.values.assign(p->data, p->data + static_cast<size_t>(p->count) * m.stride);
      }
      result.meters.push_back(std::move(m));
    }
  }
  qorCalvera2Release(chain);
  return true;
}

}  // namespace qor::tools
