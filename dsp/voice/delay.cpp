#include "dsp/voice/delay.h"

#include <algorithm>
#include <cmath>

#include "dsp/core/bypass.h"
#include "dsp/core/cookbook_biquad.h"
#include "dsp/core/delay_line.h"
#include "dsp/core/instance.h"

namespace QorDelay_API_V1 {

namespace {

using Result = QorDelayResult;

constexpr float kMaxDelayMs = 2000.0f;

struct CoreSettings {
  float sampleRate;
  float mix;
  float feedback;
  float upperEdge;  // Hz, low-pass
  float lowerEdge;  // Hz, high-pass
  int32_t routing;
  int32_t pingPong;  // 1: cross feedback
  float tempo;       // beats per minute
  int32_t note[2];
  uint32_t modifier[2];
  float timeMs[2];   // <= 0: take the note duration at the tempo
};

constexpr CoreSettings kCoreDefaults{48000.0f, 0.4f, 0.2f, 1000.0f, 200.0f, 0, 0, 120.0f,
                                     {2, 2},   {0, 0}, {0.0f, 0.0f}};

// Adding and removing a tiny offset flushes denormals to zero without
// touching any audible value.
inline double flushed(double x) { return (x + 1e-18) - 1e-18; }

// The feedback band limit runs in double precision: the 60 Hz high-pass
// sits close to the unit circle and recirculates for seconds.
struct DoubleBiquad {
  double b0, b1, b2, a1, a2;
  double x1, x2, y1, y2;

  void design(int32_t type, double frequency, double rate) {
    const qor::CookbookCoefficients c =
        qor::designCookbook(type, frequency, rate, 1.0 / std::sqrt(2.0), 0.0, 0.0);
    b0 = c.b0;
    b1 = c.b1;
    b2 = c.b2;
    a1 = c.a1;
    a2 = c.a2;
    reset();
  }
  void reset() { x1 = x2 = y1 = y2 = 0.0; }
  double tick(double x) {
    const double y = flushed(b0 * x + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2);
    x2 = x1;
    x1 = x;
    y2 = y1;
    y1 = y;
    return y;
  }
};

struct Core {
  CoreSettings settings;
  float wet;
  float dry;
  float feedback;
  uint32_t selfFeedback;
  DoubleBiquad highPass[2];
  DoubleBiquad lowPass[2];
  qor::DelayLine lines[2];  // A feeds the left output, B the right
  uint32_t tempoDriven[2];
  float maxDelayMs;
  uint32_t active;
};

struct State {
  qor::ConfigHeader header;
  QorDelayParameters parameters;
  uint64_t marker;
  qor::BypassFade fade;
  float* dry[2];
  Core core;
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkConfig(const QorDelayConfig& c) {
  if (c.inputSampleRate != 44100 && c.inputSampleRate != 48000) return qor::ErrorSampleRate;
  if (c.inputBlockSize < 128 || c.inputBlockSize > 4096) return qor::ErrorBlockSize;
  if (c.inputChannels != 2) return qor::ErrorInputChannels;
  if (c.outputChannels != 2 || c.outputChannels != c.inputChannels) return qor::ErrorOutputChannels;
  return qor::Success;
}

int32_t checkParameters(const QorDelayParameters& p) {
  if (qor::outOfRange(p.delayTimeLeftMs, 10.0f, 2000.0f)) return qor::parameterError(3);
  if (qor::outOfRange(p.delayTimeRightMs, 10.0f, 2000.0f)) return qor::parameterError(4);
  if (qor::outOfRange(p.feedback, 0.0f, 0.6f)) return qor::parameterError(5);
  if (qor::outOfRange(p.mix, 0.0f, 1.0f)) return qor::parameterError(6);
  if (qor::outOfRange(p.crossfadeTime, 0.0f, 100.0f)) return qor::parameterError(7);
  return qor::Success;
}

// Two seconds of samples per line.
uint32_t lineCapacity(uint32_t rate) {
  return static_cast<uint32_t>(std::ceil(static_cast<double>(rate) * kMaxDelayMs / 1000.0));
}

size_t layOut(void* base, const QorDelayConfig& config, State** out) {
  const uint32_t block = config.inputBlockSize;
  const uint32_t capacity = lineCapacity(config.inputSampleRate);
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  float* dry = lay.take<float>(static_cast<size_t>(block) * 2);
  float* lineA = lay.take<float>(capacity);
  float* lineB = lay.take<float>(capacity);
  // The published size: dry buffers, 128 bytes, then the core and both lines.
  const size_t published = qor::roundUp32(static_cast<size_t>(block) * 2 * sizeof(float)) + 128 +
                           ((8 * static_cast<size_t>(capacity) + 1823) & ~static_cast<size_t>(31));
  if (lay.size() < published) lay.takeBytes(published - lay.size());
  if (s != nullptr) {
    s->dry[0] = dry;
    s->dry[1] = dry + block;
    s->core.lines[0].attach(capacity, lineA);
    s->core.lines[1].attach(capacity, lineB);
    *out = s;
  }
  return lay.size();
}

float noteDurationMs(float tempo, int32_t note, uint32_t modifier) {
  float ms = 60000.0f / tempo;
  // Each step away from the quarter note doubles or halves exactly.
  ms = std::ldexp(ms, std::clamp(2 - note, -400, 400));
  switch (modifier) {
    case QorDelayNoteTriplet: ms *= 0.6666667f; break;
    case QorDelayNoteDotted: ms *= 1.5f; break;
    case QorDelayNoteDoubleDotted: ms *= 1.75f; break;
    default: break;
  }
  return ms;
}

void clearSignal(Core& core) {
  for (int k = 0; k < 2; ++k) {
    core.lines[k].clear();
    core.highPass[k].reset();
    core.lowPass[k].reset();
  }
}

// Takes new settings, redesigning only what changed. A changed delay time
// re-sizes that line and, with `resetLines`, wipes its echoes.
void applySettings(Core& core, CoreSettings next, bool resetLines) {
  if (!(next.sampleRate > 0.0f)) return;
  const CoreSettings& old = core.settings;
  const double rate = next.sampleRate;
  if (next.sampleRate != old.sampleRate || next.upperEdge != old.upperEdge ||
      next.lowerEdge != old.lowerEdge) {
    for (int k = 0; k < 2; ++k) {
      core.highPass[k].design(qor::kCookbookHighPass, next.lowerEdge, rate);
      core.lowPass[k].design(qor::kCookbookLowPass, next.upperEdge, rate);
    }
  }
  for (int k = 0; k < 2; ++k) {
    if (next.sampleRate == old.sampleRate && next.tempo == old.tempo &&
        next.note[k] == old.note[k] && next.modifier[k] == old.modifier[k] &&
        next.timeMs[k] == old.timeMs[k]) {
      continue;
    }
    core.tempoDriven[k] = next.timeMs[k] <= 0.0f ? 1u : 0u;
    if (core.tempoDriven[k] != 0) next.timeMs[k] = noteDurationMs(next.tempo, next.note[k], next.modifier[k]);
    qor::DelayLine& line = core.lines[k];
    if (next.timeMs[k] != line.lengthMs(next.sampleRate)) {
      const double samples = std::floor(static_cast<double>(next.timeMs[k]) * rate / 1000.0 + 0.5);
      const double limited = std::clamp(samples, 1.0, static_cast<double>(line.capacity));
      line.setLength(static_cast<uint32_t>(limited));
      if (resetLines) line.clear();
    }
  }
  core.settings = next;
  core.wet = std::sqrt(std::clamp(next.mix, 0.0f, 1.0f));
  core.dry = std::sqrt(1.0f - core.wet * core.wet);
  core.feedback = std::clamp(next.feedback, -0.99f, 0.99f);
  core.selfFeedback = next.pingPong != 1 ? 1u : 0u;
  core.active = 1;
}

CoreSettings settingsFor(const QorDelayParameters& p, uint32_t rate) {
  CoreSettings s = kCoreDefaults;
  s.sampleRate = static_cast<float>(rate);
  s.mix = p.mix;
  s.feedback = p.feedback;
  s.routing = p.routing >= 0 && p.routing <= 3 ? p.routing : 0;
  s.pingPong = p.pingPong == 1 ? 1 : 0;
  switch (p.filterPreset) {
    case QorDelayFilterLow: s.upperEdge = 800.0f; s.lowerEdge = 80.0f; break;
    case QorDelayFilterMiddle: s.upperEdge = 10000.0f; s.lowerEdge = 1000.0f; break;
    default: s.upperEdge = 18000.0f; s.lowerEdge = 60.0f; break;
  }
  s.timeMs[0] = p.delayTimeLeftMs;
  s.timeMs[1] = p.delayTimeRightMs;
  return s;
}

void processCore(Core& core, float* left, float* right, uint32_t n) {
  const float wet = core.wet;
  const float dry = core.dry;
  const double g = core.feedback;
  // Routing as input weights: line A takes aL*L + aR*R, line B bL*L + bR*R.
  static constexpr float kWeights[4][4] = {
      {1, 0, 0, 1}, {0, 1, 1, 0}, {1, 1, 0, 0}, {0, 0, 1, 1}};
  const float* w = kWeights[core.settings.routing & 3];
  const bool self = core.selfFeedback != 0;
  qor::DelayLine& lineA = core.lines[0];
  qor::DelayLine& lineB = core.lines[1];
  for (uint32_t t = 0; t < n; ++t) {
    const float l = left[t];
    const float r = right[t];
    const float a = lineA.readCurrent();
    const float b = lineB.readCurrent();
    const double fa = self ? a : b;
    const double fb = self ? b : a;
    const double inA = flushed(static_cast<double>(l) * w[0] + static_cast<double>(r) * w[1]) * wet;
    const double inB = flushed(static_cast<double>(l) * w[2] + static_cast<double>(r) * w[3]) * wet;
    const double toA = core.lowPass[0].tick(core.highPass[0].tick(flushed(inA + g * fa)));
    const double toB = core.lowPass[1].tick(core.highPass[1].tick(flushed(inB + g * fb)));
    lineA.writeSample(static_cast<float>(toA));
    lineB.writeSample(static_cast<float>(toB));
    left[t] = static_cast<float>(flushed(static_cast<double>(l) * dry + a));
    right[t] = static_cast<float>(flushed(static_cast<double>(r) * dry + b));
  }
}

}  // namespace

Result qorDelayGetInstanceSize(const QorDelayConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorDelayInit(QorDelayInst* inst, const QorDelayConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  Core& core = s->core;
  core.settings = CoreSettings{};
  applySettings(core, kCoreDefaults, true);
  core.maxDelayMs = kMaxDelayMs;
  core.settings.sampleRate = static_cast<float>(config->inputSampleRate);
  applySettings(core, core.settings, true);
  s->marker = qor::kInitMarker;
  QorDelayParameters initial = config->parameters;
  if (const Result rc = qorDelayUpdateParameters(inst, &initial); rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  s->fade.init(s->parameters.enable != 0, s->parameters.crossfadeTime,
               static_cast<float>(config->inputSampleRate));
  return Result::Success;
}

Result qorDelayGetDefaultParameters(QorDelayParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {QorDelayRoutingStraight, 0, QorDelayFilterWide, 400.0f, 400.0f, 0.2f, 0.5f, 50.0f, 1};
  return Result::Success;
}

Result qorDelayGetParameters(QorDelayInst* inst, QorDelayParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorDelayUpdateParameters(QorDelayInst* inst, QorDelayParameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  s->parameters = *parameters;
  applySettings(s->core, settingsFor(s->parameters, s->header.inputSampleRate), true);
  s->fade.setTime(s->parameters.crossfadeTime, static_cast<float>(s->header.inputSampleRate));
  return Result::Success;
}

Result qorDelayProcess(QorDelayInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkProcess(s, channels, 2); rc != 0) return result(rc);
  const bool enabled = s->parameters.enable != 0;
  if (!s->fade.active(enabled)) return Result::Success;
  const uint32_t n = s->header.inputBlockSize;
  if (s->fade.transition(enabled)) qor::BypassFade::keepDry(channels, s->dry, 2, n);
  processCore(s->core, channels[0], channels[1], n);
  if (s->fade.finish(enabled, channels, s->dry, 2, n)) {
    clearSignal(s->core);
    s->core.active = 0;
  }
  return Result::Success;
}

// Clears the echoes and filter memories. The lines are wiped whether or not
// the core counts as active, so no echo ever survives a Flush.
Result qorDelayFlush(QorDelayInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  clearSignal(s->core);
  s->core.active = 0;
  applySettings(s->core, s->core.settings, true);
  return Result::Success;
}

Result qorDelayRelease(QorDelayInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  if (s->core.active != 0) {
    clearSignal(s->core);
    s->core.active = 0;
  }
  s->core.lines[0].detach();
  s->core.lines[1].detach();
  s->marker = 0;
  return Result::Success;
}

Result qorDelayGetCurrentLatency(QorDelayInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  *latency = 0;
  return Result::Success;
}

Result qorDelayGetNoteDurationInHertz(QorDelayInst* inst, float tempoBpm,
                                      QorDelayNoteDurations note,
                                      QorDelayNoteDurationMod modifier, float* hertz) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, hertz); rc != 0) return result(rc);
  *hertz = 1000.0f / noteDurationMs(tempoBpm, note, modifier);
  return Result::Success;
}

}  // namespace QorDelay_API_V1
