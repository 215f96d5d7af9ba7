#include "dsp/voice/sample_rate_converter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "dsp/core/instance.h"
#include "dsp/voice/interpolation_taps.h"

namespace QorSampleRateConverter_API_V1 {

namespace {

using Result = QorSampleRateConverterResult;

constexpr uint32_t kMinRate = 1000, kMaxRate = 192000;
constexpr uint32_t kMinBlock = 32, kMaxBlock = 4096;
constexpr size_t kHeaderBytes = 192;
// Drift is judged over this many calls.
constexpr int32_t kDriftCalls = 200;

using Ring = qor::ConverterRing;
static_assert(sizeof(Ring) == 24);

struct State {
  qor::ConfigHeader header;
  QorSampleRateConverterParameters parameters;
  uint64_t marker;
  float* window;
  float* table;
  float* delta;
  float* accumulators;
  // Per-channel tap regions. The taps are read from the ring in place and
  // the weights are shared by all channels, so only the first channel's
  // slice of tapOffsets is used, for the current output's weights.
  float* tapSamples;
  float* tapOffsets;
  Ring* rings;
  uint32_t tableLength;  // T, always odd
  float ratio;           // outputRate / inputRate
  uint32_t halfWidth;    // H
  uint32_t taps;         // 2H + 1
  qor::TapKernel kernel;
  // Drift correction.
  int32_t calls;
  int32_t inputTotal;
  int32_t outputTotal;
  int32_t correction;
  double carry;
};
static_assert(sizeof(State) <= kHeaderBytes);

Result result(int32_t code) { return static_cast<Result>(code); }

bool rateOutside(uint32_t rate) { return rate < kMinRate || rate > kMaxRate; }
bool blockOutside(uint32_t block) { return block < kMinBlock || block > kMaxBlock; }

uint32_t outputBlockFor(uint32_t inRate, uint32_t inBlock, uint32_t outRate) {
  const float product = static_cast<float>(outRate) / static_cast<float>(inRate) * static_cast<float>(inBlock);
  return static_cast<uint32_t>(std::ceil(static_cast<double>(product)));
}

int32_t validate(const QorSampleRateConverterConfig& c) {
  if (rateOutside(c.inputSampleRate) || rateOutside(c.outputSampleRate)) return qor::ErrorSampleRate;
  if (blockOutside(c.inputBlockSize) || blockOutside(c.outputBlockSize)) return qor::ErrorBlockSize;
  if (c.outputBlockSize != outputBlockFor(c.inputSampleRate, c.inputBlockSize, c.outputSampleRate)) {
    return static_cast<int32_t>(Result::ErrorOutputBlockSize);
  }
  if (c.inputChannels == 0) return qor::ErrorInputChannels;
  if (c.outputChannels != c.inputChannels) return qor::ErrorOutputChannels;
  const QorSampleRateConverterParameters& p = c.parameters;
  if (p.numZeroCrossings < 2 || p.numZeroCrossings > 100) {
    return static_cast<int32_t>(Result::ErrorNumZeroCrossings);
  }
  if (p.samplesPerZeroCrossing < 32 || p.samplesPerZeroCrossing > 2048) {
    return static_cast<int32_t>(Result::ErrorSamplesPerZeroCrossing);
  }
  if (qor::outOfRange(p.kaiserBeta, 1.0f, 25.0f)) return static_cast<int32_t>(Result::ErrorKaiserBeta);
  return qor::Success;
}

struct Shape {
  uint32_t tableLength;
  uint32_t halfWidth;
};

Shape shapeOf(const QorSampleRateConverterConfig& c) {
  const uint32_t nz = c.parameters.numZeroCrossings;
  uint32_t t = nz * c.parameters.samplesPerZeroCrossing;
  if (t % 2 == 0) t += 1;
  uint32_t h = 0;
  if (c.inputSampleRate < c.outputSampleRate) {
    h = nz;
  } else if (c.inputSampleRate > c.outputSampleRate) {
    // The kernel stretches by the rate ratio so its cut-off follows the output rate.
    const float span = static_cast<float>(c.inputSampleRate) * static_cast<float>(nz) /
                       static_cast<float>(c.outputSampleRate);
    h = static_cast<uint32_t>(std::ceil(span));
  }
  return {t, h};
}

size_t layOut(void* base, const QorSampleRateConverterConfig& config, State** out) {
  const Shape shape = shapeOf(config);
  const size_t channels = config.inputChannels;
  const size_t taps = 2 * static_cast<size_t>(shape.halfWidth) + 1;
  const size_t ringLength = 8 * static_cast<size_t>(shape.halfWidth);

  qor::InstanceLayout lay(base);
  auto* s = static_cast<State*>(lay.takeBytes(kHeaderBytes));
  float* window = lay.take<float>(shape.tableLength);
  float* table = lay.take<float>(shape.tableLength);
  float* delta = lay.take<float>(shape.tableLength);
  float* accumulators = lay.take<float>(channels);
  float* tapSamples = lay.take<float>(channels * taps);
  float* tapOffsets = lay.take<float>(channels * taps);
  Ring* rings = lay.take<Ring>(channels);
  for (size_t c = 0; c < channels; ++c) {
    float* storage = lay.take<float>(ringLength);
    if (rings != nullptr) rings[c].data = storage;
  }
  if (s != nullptr) {
    s->window = window;
    s->table = table;
    s->delta = delta;
    s->accumulators = accumulators;
    s->tapSamples = tapSamples;
    s->tapOffsets = tapOffsets;
    s->rings = rings;
    s->tableLength = shape.tableLength;
    s->halfWidth = shape.halfWidth;
    s->taps = static_cast<uint32_t>(taps);
    *out = s;
  }
  return lay.size();
}

// Zeroth-order modified Bessel function of the first kind, by the classic
// polynomial fits (accurate to about 2e-7 relative).
double besselI0(double x) {
  const double ax = std::fabs(x);
  if (ax < 3.75) {
    const double y = (x / 3.75) * (x / 3.75);
    return 1.0 + y * (3.5156229 + y * (3.0899424 + y * (1.2067492 + y * (0.2659732 +
           y * (0.0360768 + y * 0.0045813)))));
  }
  const double y = 3.75 / ax;
  return (std::exp(ax) / std::sqrt(ax)) *
         (0.39894228 + y * (0.01328592 + y * (0.00225319 + y * (-0.00157565 + y * (0.00916281 +
          y * (-0.02057706 + y * (0.02635537 + y * (-0.01647633 + y * 0.00392377))))))));
}

// Up-sampling keeps the table and its deltas phase by phase (see
// qor::phaseIndex); down-sampling reads them in natural order.
bool phased(const State& s) { return s.header.inputSampleRate < s.header.outputSampleRate; }

void buildKernel(State& s) {
  const uint32_t t = s.tableLength;
  const uint32_t nz = s.parameters.numZeroCrossings, np = s.parameters.samplesPerZeroCrossing;
  const bool reorder = phased(s);
  const auto at = [&](uint32_t i) { return reorder ? qor::phaseIndex(i, nz, np) : i; };
  const double beta = s.parameters.kaiserBeta;
  const double norm = besselI0(beta);
  for (uint32_t i = 0; i < t; ++i) {
    // Right half of a window of 2T - 1 points: x runs from 0 at the centre to 1.
    const double n = static_cast<double>(i) + static_cast<double>(t) - 1.0;
    const double x = t > 1 ? 2.0 * n / (2.0 * static_cast<double>(t) - 2.0) - 1.0 : 0.0;
    const double arg = std::max(0.0, 1.0 - x * x);
    s.window[i] = static_cast<float>(besselI0(beta * std::sqrt(arg)) / norm);
  }
  const float step = 3.1415927f / static_cast<float>(np);
  s.table[at(0)] = 1.0f;
  for (uint32_t i = 1; i < t; ++i) {
    const float u = static_cast<float>(i) * step;
    s.table[at(i)] = static_cast<float>(std::sin(static_cast<double>(u)) / static_cast<double>(u) *
                                        static_cast<double>(s.window[i]));
  }
  // T is odd, so the table's 32-byte region has room for a zero after the
  // last entry, which the down-sampling kernels read as the last entry's
  // neighbour; the last delta is then also a neighbour difference.
  s.table[t] = 0.0f;
  for (uint32_t i = 0; i < t; ++i) s.delta[at(i)] = (i + 1 < t ? s.table[at(i + 1)] : 0.0f) - s.table[at(i)];
}

// Taps are read in whole groups; the slots in front of the oldest tap that
// round them up carry zero weight.
uint32_t padOf(uint32_t taps) { return (qor::kTapGroup - taps % qor::kTapGroup) % qor::kTapGroup; }

// The rings are read as straight runs: when the write position reaches the
// end, the newest samples an output can still reach are moved back to the
// start, so a window never wraps. An output lies at most 2H + 1 samples
// behind the newest input (right after Init or Flush), so it reaches back
// 3H + 1 samples, plus the padding.
uint32_t keptOf(uint32_t halfWidth, uint32_t taps) { return 3 * halfWidth + 1 + padOf(taps); }

// Puts every channel into the just-initialised audio state: a zeroed ring
// primed with 2H + 1 zeros, so the first output can be computed at once. The
// zeros are pushed ending at the kept length, where the write position stands
// after a slide.
void resetChannels(State& s) {
  const uint32_t channels = s.header.inputChannels;
  const float period = 1.0f / static_cast<float>(s.header.inputSampleRate);
  const uint32_t ringLength = 8 * s.halfWidth;
  std::memset(s.tapSamples, 0, sizeof(float) * channels * s.taps);
  std::memset(s.tapOffsets, 0, sizeof(float) * channels * s.taps);
  for (uint32_t c = 0; c < channels; ++c) {
    Ring& ring = s.rings[c];
    if (ringLength > 0) std::memset(ring.data, 0, sizeof(float) * ringLength);
    ring.length = ringLength;
    ring.samplePeriod = period;
    ring.writePosition = 0;
    s.accumulators[c] = 0.0f;
    // Equal rates keep no ring.
    if (ringLength == 0) continue;
    ring.writePosition = keptOf(s.halfWidth, s.taps) - s.taps;
    for (uint32_t k = 0; k < s.taps; ++k) {
      s.accumulators[c] += period;
      ring.writePosition += 1;
    }
  }
}

// The loop's view of the state for one call.
qor::ConversionBlock blockOf(State& s) {
  qor::ConversionBlock b{};
  b.rings = s.rings;
  b.channels = s.header.inputChannels;
  b.inCount = s.header.inputBlockSize;
  b.outCount = s.header.outputBlockSize;
  b.accumulator = s.accumulators[0];
  b.writePosition = static_cast<int32_t>(s.rings[0].writePosition);
  b.period = s.rings[0].samplePeriod;
  b.outputPeriod = 1.0f / static_cast<float>(s.header.outputSampleRate);
  b.half = static_cast<int32_t>(s.halfWidth);
  b.kept = static_cast<int32_t>(keptOf(s.halfWidth, s.taps));
  b.phased = phased(s);
  const auto pad = static_cast<int32_t>(padOf(s.taps));
  const auto groups = static_cast<int32_t>((s.taps + padOf(s.taps)) / qor::kTapGroup);
  // Up-sampling measures the kernel in input samples; down-sampling in
  // output samples, which stretches it to the lower cut-off.
  const uint32_t lower = std::min(s.header.inputSampleRate, s.header.outputSampleRate);
  const float scale = static_cast<float>(lower) * b.period * static_cast<float>(s.parameters.samplesPerZeroCrossing);
  const float gain = s.header.outputSampleRate > s.header.inputSampleRate ? 1.0f : s.ratio;
  b.window = {s.table, s.tapOffsets, 0.0f, scale, static_cast<float>(s.tableLength), gain, b.half + pad, pad, groups};
  b.phase = {s.table, s.delta, s.tapOffsets, s.parameters.numZeroCrossings, s.parameters.samplesPerZeroCrossing,
             pad, groups};
  return b;
}

// Keeps the long-run output count at the exact count by adding or dropping
// one sample when it strays by more than one.
uint32_t correctDrift(State& s, float** output, uint32_t o) {
  s.calls += 1;
  // Totals wrap rather than overflow when no correction resets them for hours.
  s.inputTotal = static_cast<int32_t>(static_cast<uint32_t>(s.inputTotal) + s.header.inputBlockSize);
  s.outputTotal = static_cast<int32_t>(static_cast<uint32_t>(s.outputTotal) + o);
  if (s.calls >= kDriftCalls) {
    const double expected = static_cast<double>(s.header.outputSampleRate) /
                                static_cast<double>(s.header.inputSampleRate) * s.inputTotal +
                            s.carry;
    const double whole = std::floor(expected);
    if (whole > static_cast<double>(s.outputTotal) + 1.0) {
      s.correction -= 1;
      s.outputTotal = -1;
      s.inputTotal = 0;
      s.carry = expected - whole;
    } else if (static_cast<double>(s.outputTotal) - 1.0 > std::ceil(expected)) {
      s.correction += 1;
      s.outputTotal = 1;
      s.inputTotal = 0;
      s.carry = expected - whole;
    }
    s.calls = 0;
  }
  if (s.correction < 0 && o > 0 && o < s.header.outputBlockSize) {
    for (uint32_t c = 0; c < s.header.inputChannels; ++c) output[c][o] = output[c][o - 1];
    o += 1;
    s.correction += 1;
  }
  if (s.correction > 0 && o > 0) {
    o -= 1;
    s.correction -= 1;
  }
  return o;
}

int32_t checkChannels(float* const* channels, uint32_t count) {
  for (uint32_t c = 0; c < count; ++c) {
    if (channels[c] == nullptr) return qor::ErrorNullPointer;
    if (!qor::isAligned32(channels[c])) return qor::ErrorMisaligned;
  }
  return qor::Success;
}

}  // namespace

Result qorSampleRateConverterComputeOutputBlockSize(uint32_t inputSampleRate, uint32_t inputBlockSize,
                                                    uint32_t outputSampleRate, uint32_t* outputBlockSize) {
  if (rateOutside(inputSampleRate) || rateOutside(outputSampleRate)) return Result::ErrorSampleRate;
  if (blockOutside(inputBlockSize)) return Result::ErrorBlockSize;
  *outputBlockSize = outputBlockFor(inputSampleRate, inputBlockSize, outputSampleRate);
  return Result::Success;
}

Result qorSampleRateConverterGetDefaultParameters(QorSampleRateConverterParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {10, 512, 5.0f};
  return Result::Success;
}

Result qorSampleRateConverterGetInstanceSize(const QorSampleRateConverterConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = validate(*config); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorSampleRateConverterInit(QorSampleRateConverterInst* inst, const QorSampleRateConverterConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = validate(*config); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->ratio = static_cast<float>(config->outputSampleRate) / static_cast<float>(config->inputSampleRate);
  buildKernel(*s);
  s->kernel = qor::bestTapKernel();
  resetChannels(*s);
  s->calls = 0;
  s->inputTotal = 0;
  s->outputTotal = 0;
  s->correction = 0;
  s->carry = 0.0;
  s->marker = qor::kInitMarker;
  return Result::Success;
}

Result qorSampleRateConverterProcess(QorSampleRateConverterInst* inst, float** input, float** output,
                                     uint32_t* outputCount) {
  State* s = qor::stateOf<State>(inst);
  if (s == nullptr || input == nullptr || output == nullptr || outputCount == nullptr) {
    return Result::ErrorNullPointer;
  }
  if (!qor::isAligned32(s)) return Result::ErrorMisaligned;
  const uint32_t channels = s->header.inputChannels;
  if (const int32_t rc = checkChannels(input, channels); rc != 0) return result(rc);
  if (const int32_t rc = checkChannels(output, channels); rc != 0) return result(rc);
  if (s->marker != qor::kInitMarker) return Result::ErrorNotInitialised;

  const uint32_t inCount = s->header.inputBlockSize;
  if (s->halfWidth == 0) {
    for (uint32_t c = 0; c < channels; ++c) {
      if (output[c] != input[c]) std::memcpy(output[c], input[c], sizeof(float) * inCount);
    }
    *outputCount = inCount;
    return Result::Success;
  }

  qor::ConversionBlock block = blockOf(*s);
  const uint32_t produced = qor::convertBlock(s->kernel, block, input, output);
  for (uint32_t c = 0; c < channels; ++c) {
    s->accumulators[c] = block.accumulator;
    s->rings[c].writePosition = static_cast<uint32_t>(block.writePosition);
  }
  *outputCount = correctDrift(*s, output, produced);
  return Result::Success;
}

Result qorSampleRateConverterFlush(QorSampleRateConverterInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetChannels(*s);
  return Result::Success;
}

Result qorSampleRateConverterGetParameters(QorSampleRateConverterInst* inst,
                                           QorSampleRateConverterParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorSampleRateConverterGetCurrentLatency(QorSampleRateConverterInst* inst, int32_t* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  const uint32_t inRate = s->header.inputSampleRate, outRate = s->header.outputSampleRate;
  const auto nz = static_cast<int32_t>(s->parameters.numZeroCrossings);
  if (inRate == outRate) {
    *latency = 0;
  } else if (inRate > outRate) {
    *latency = 2 * nz + 1;
  } else {
    const float span = static_cast<float>(outRate) / static_cast<float>(inRate) * static_cast<float>(nz);
    *latency = static_cast<int32_t>(2.0f * span + 2.0f);
  }
  return Result::Success;
}

Result qorSampleRateConverterRelease(QorSampleRateConverterInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->marker = 0;
  return Result::Success;
}

}  // namespace QorSampleRateConverter_API_V1

namespace qor {

bool sampleRateConverterUseTaps(QorSampleRateConverter_API_V1::QorSampleRateConverterInst* inst, TapKernel kernel) {
  using namespace QorSampleRateConverter_API_V1;
  State* s = stateOf<State>(inst);
  if (checkReady(s, s) != 0 || !tapKernelAvailable(kernel)) return false;
  s->kernel = kernel;
  return true;
}

}  // namespace qor
