#include "dsp/voice/ring_modulator.h"

#include <cmath>

#include "dsp/core/block_ops.h"
#include "dsp/core/crossfade.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"
#include "dsp/voice/wavetable_oscillator.h"

namespace QorRingModulator_API_V1 {

namespace {

using Result = QorRingModulatorResult;

struct Core {
  float sampleRate;
  int32_t shape;
  float frequency;
  float mix;  // shaped mix m'
  qor::WavetableOscillator oscillator;
  uint32_t initialised;
};

struct State {
  qor::ConfigHeader header;
  QorRingModulatorParameters parameters;
  uint64_t marker;
  Core core;
  float fadeCoefficient;
  float fadeMix;
  float* dry;  // inputChannels x inputBlockSize, channel after channel
};

// Everything except the dry buffer occupies this many bytes.
constexpr size_t kStateBytes = 2176;
static_assert(qor::roundUp32(sizeof(State)) <= kStateBytes);

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkConfig(const QorRingModulatorConfig& c) {
  if (c.inputSampleRate != c.outputSampleRate) return qor::ErrorSampleRate;
  if (c.inputBlockSize != c.outputBlockSize) return qor::ErrorBlockSize;
  if (c.inputChannels != c.outputChannels) return qor::ErrorOutputChannels;
  return qor::Success;
}

int32_t checkParameters(const QorRingModulatorParameters& p) {
  if (qor::outOfRange(p.mix, 0.0f, 1.0f)) return qor::parameterError(0);
  if (qor::outOfRange(p.frequency, 1.0f, 2000.0f)) return qor::parameterError(2);
  if (qor::outOfRange(p.crossfadeTime, 0.0f, 250.0f)) return qor::parameterError(3);
  return qor::Success;
}

size_t layOut(void* base, const QorRingModulatorConfig& config, State** out) {
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  lay.takeBytes(kStateBytes - qor::roundUp32(sizeof(State)));
  float* dry = lay.take<float>(static_cast<size_t>(config.inputBlockSize) * config.inputChannels);
  if (s != nullptr) {
    s->dry = dry;
    *out = s;
  }
  return lay.size();
}

int32_t shapeFor(int32_t waveform) {
  switch (waveform) {
    case QorRingModulatorTriangle: return qor::kShapeTriangle;
    case QorRingModulatorRisingRamp: return qor::kShapeRampBipolar;
    case QorRingModulatorSquare: return qor::kShapeSquare;
    case QorRingModulatorRectifiedCosine: return qor::kShapeRectifiedCosine;
    default: return qor::kShapeSine;
  }
}

// S-curve: gentle around the middle, exactly 0 and 1 at the very ends.
float shapedMix(float mix) {
  if (mix > 0.00001f && mix < 0.99999f) {
    return 1.0f / (std::pow(10.0f, -5.0f * (mix - 0.5f)) + 1.0f);
  }
  return mix;
}

void coreInit(Core& core, float rate, float frequency, float mix) {
  core.oscillator.init();
  core.sampleRate = rate;
  core.shape = core.oscillator.shape;
  core.frequency = frequency;
  core.mix = mix;
  core.oscillator.setSampleRate(rate);
  core.oscillator.setFrequency(frequency);
  core.initialised = 1;
}

// Touches the oscillator only for what changed, so its phase runs on.
void coreApply(Core& core, float rate, int32_t shape, float frequency, float mix) {
  if (rate != core.sampleRate) {
    core.oscillator.setSampleRate(rate);
    core.sampleRate = core.oscillator.sampleRate;
  }
  if (shape != core.shape && shape >= 0 && shape < qor::kShapeCount) {
    core.oscillator.setShape(shape);
    core.shape = shape;
  }
  if (frequency != core.frequency) {
    core.oscillator.setFrequency(frequency);
    core.frequency = frequency;
  }
  core.mix = mix;
}

void applyParameters(State& s) {
  const QorRingModulatorParameters& p = s.parameters;
  const float rate = static_cast<float>(s.header.inputSampleRate);
  coreApply(s.core, rate, shapeFor(p.waveform), p.frequency, shapedMix(p.mix));
  s.fadeCoefficient = qor::settleCoefficient(rate, p.crossfadeTime, -100.0f);
}

// Gain per frame, g = v m' + (1 - m'), applied to every channel.
void modulate(State& s, float* const* channels) {
  constexpr uint32_t kChunk = 64;
  const uint32_t n = s.header.inputBlockSize;
  const uint32_t channelCount = s.header.inputChannels;
  const float m = s.core.mix;
  const float rest = 1.0f - m;
  qor::WavetableOscillator& osc = s.core.oscillator;
  float gain[kChunk];
  for (uint32_t start = 0; start < n; start += kChunk) {
    const uint32_t count = n - start < kChunk ? n - start : kChunk;
    for (uint32_t i = 0; i < count; ++i) gain[i] = osc.next() * m + rest;
    for (uint32_t c = 0; c < channelCount; ++c) {
      float* x = channels[c] + start;
      for (uint32_t i = 0; i < count; ++i) x[i] *= gain[i];
    }
  }
}

}  // namespace

Result qorRingModulatorGetInstanceSize(const QorRingModulatorConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorRingModulatorInit(QorRingModulatorInst* inst, const QorRingModulatorConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->marker = qor::kInitMarker;
  coreInit(s->core, 48000.0f, 50.0f, 0.5f);
  // Neutral setting first (rate 0 stands for 48 kHz), then the real one.
  coreApply(s->core, 0.0f, s->core.shape, 0.0f, 0.0f);
  QorRingModulatorParameters initial = config->parameters;
  if (const Result rc = qorRingModulatorUpdateParameters(inst, &initial); rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  s->fadeMix = s->parameters.enable != 0 ? 1.0f : 0.0f;
  return Result::Success;
}

Result qorRingModulatorGetDefaultParameters(QorRingModulatorParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {0.7f, QorRingModulatorSine, 400.0f, 50.0f, 1};
  return Result::Success;
}

Result qorRingModulatorGetParameters(QorRingModulatorInst* inst,
                                     QorRingModulatorParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorRingModulatorUpdateParameters(QorRingModulatorInst* inst,
                                        QorRingModulatorParameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  s->parameters = *parameters;
  applyParameters(*s);
  return Result::Success;
}

Result qorRingModulatorProcess(QorRingModulatorInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  const uint32_t channelCount = s != nullptr ? s->header.inputChannels : 0;
  if (const int32_t rc = qor::checkProcess(s, channels, channelCount); rc != 0) return result(rc);

  const bool enabled = s->parameters.enable != 0;
  if (!enabled && !(s->fadeMix > 0.00001f)) return Result::Success;

  const uint32_t n = s->header.inputBlockSize;
  const float target = enabled ? 1.0f : 0.0f;
  const bool transition = s->fadeMix != target;
  if (transition) {
    for (uint32_t c = 0; c < channelCount; ++c) qor::copyBlock(channels[c], s->dry + c * n, n);
  }
  modulate(*s, channels);
  if (!transition) return Result::Success;

  // Every channel fades along the same curve from the block-start mix.
  float reached = s->fadeMix;
  for (uint32_t c = 0; c < channelCount; ++c) {
    reached = s->fadeMix;
    qor::crossfade(channels[c], s->dry + c * n, channels[c], reached, target, s->fadeCoefficient, n);
  }
  if (channelCount > 0) s->fadeMix = reached;
  if (std::fabs(s->fadeMix - target) < 0.00001f) {
    s->fadeMix = target;
    if (target == 0.0f) s->core.oscillator.reset();
  }
  return Result::Success;
}

Result qorRingModulatorFlush(QorRingModulatorInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->core.oscillator.reset();
  return Result::Success;
}

Result qorRingModulatorRelease(QorRingModulatorInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->marker = 0;
  return Result::Success;
}

Result qorRingModulatorGetCurrentLatency(QorRingModulatorInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  *latency = 0;
  return Result::Success;
}

}  // namespace QorRingModulator_API_V1
