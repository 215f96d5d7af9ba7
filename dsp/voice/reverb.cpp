#include "dsp/voice/reverb.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "dsp/core/biquad_cascade.h"
#include "dsp/core/block_ops.h"
#include "dsp/core/butterworth.h"
#include "dsp/core/bypass.h"
#include "dsp/core/cookbook_biquad.h"
#include "dsp/core/delay_line.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"
#include "dsp/voice/reverb_network.h"
#include "dsp/voice/reverb_reflections.h"
#include "dsp/voice/reverb_rooms.h"

namespace QorReverb_API_V1 {

namespace {

using Result = QorReverbResult;

constexpr int32_t kTapRamp = 128;
constexpr float kMidDecayMs = 500.0f;
constexpr float kLateGainDb = 12.0f;
constexpr float kAutomaticScale = -1.0f;
constexpr float kSideHighPassHz = 450.0f;

// Derived settings, staged by UpdateParameters and taken over by the next
// processed block.
struct ReverbSettings {
  float wet;        // w
  float reserved1;  // 1.0
  float balance;    // b: reflections/late share
  float preDelayMs;
  float sizeScale;  // -1: from the decay times
  float lowDecayMs;
  float crossoverLow;  // f1
  float midDecayMs;
  float crossoverHigh;  // f2
  float highDecayMs;
  float lateGainDb;
  float reflectionsCutoffHz;
  float reserved[4];
};
static_assert(sizeof(ReverbSettings) == 16 * sizeof(float));

struct State {
  qor::ConfigHeader header;
  QorReverbParameters parameters;
  ReverbSettings pending;
  int32_t pendingRamp;
  uint8_t hasPending;
  uint8_t immediate;  // the next update retunes without ramps
  uint8_t laidOut;    // the network has had its first layout
  float rate;
  float wet, dry, reflectionInput, lateGain;
  uint32_t preDelayLength;
  float side[6];       // Butterworth high-pass section and gain
  float sideState[2];
  qor::BypassFade fade;
  uint64_t marker;
  qor::ReverbReflections reflections;
  qor::ReverbNetwork network;
  qor::DelayLine preDelay[2];
  qor::CookbookBiquad preDelayFilter[2];
  float* work[2];
  float* dryCopy[2];
  float* scratch[4];
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkConfig(const QorReverbConfig& c) {
  auto rateOk = [](uint32_t r) { return r == 44100 || r == 48000; };
  if (!rateOk(c.inputSampleRate) || !rateOk(c.outputSampleRate) ||
      c.inputSampleRate != c.outputSampleRate) {
    return qor::ErrorSampleRate;
  }
  auto blockOk = [](uint32_t b) { return b >= 128 && b <= 4096; };
  if (!blockOk(c.inputBlockSize) || !blockOk(c.outputBlockSize) ||
      c.inputBlockSize != c.outputBlockSize) {
    return qor::ErrorBlockSize;
  }
  if (c.inputChannels != 2) return qor::ErrorInputChannels;
  if (c.outputChannels != 2) return qor::ErrorOutputChannels;
  return qor::Success;
}

int32_t checkParameters(const QorReverbParameters& p) {
  using qor::outOfRange;
  using qor::parameterError;
  if (outOfRange(p.earlyLateBalance, 0.0f, 1.0f)) return parameterError(0);
  if (outOfRange(p.reflectionsCutoffHz, 10.0f, 10000.0f)) return parameterError(2);
  if (outOfRange(p.roomSize, 0.01f, 1.0f)) return parameterError(3);
  if (outOfRange(p.lowDecayMs, 100.0f, 6000.0f)) return parameterError(4);
  if (outOfRange(p.crossoverHz, 100.0f, 10000.0f)) return parameterError(5);
  if (outOfRange(p.highDecayMs, 100.0f, 6000.0f)) return parameterError(6);
  if (outOfRange(p.mix, 0.0f, 1.0f)) return parameterError(7);
  if (outOfRange(p.crossfadeTime, 0.0f, 250.0f)) return parameterError(8);
  return qor::Success;
}

size_t layOut(void* base, const QorReverbConfig& config, State** out) {
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  const uint32_t rate = config.inputSampleRate;
  const uint32_t n = config.inputBlockSize;
  qor::ReverbReflections::layOut(lay, rate, n, s != nullptr ? &s->reflections : nullptr);
  qor::ReverbNetwork::layOut(lay, s != nullptr ? &s->network : nullptr);
  const uint32_t preDelayCapacity = qor::ReverbReflections::ringLengthFor(rate);
  for (int k = 0; k < 2; ++k) {
    float* buffer = lay.take<float>(preDelayCapacity);
    if (s != nullptr) s->preDelay[k].attach(preDelayCapacity, buffer);
  }
  for (int k = 0; k < 2; ++k) {
    float* w = lay.take<float>(n);
    float* d = lay.take<float>(n);
    if (s != nullptr) {
      s->work[k] = w;
      s->dryCopy[k] = d;
    }
  }
  for (int k = 0; k < 4; ++k) {
    float* p = lay.take<float>(n);
    if (s != nullptr) s->scratch[k] = p;
  }
  if (s != nullptr) *out = s;
  return lay.size();
}

qor::ReverbDecayTimes decayTimes(const ReverbSettings& p) {
  return {p.lowDecayMs, p.midDecayMs, p.highDecayMs, p.crossoverLow, p.crossoverHigh, true};
}

// Silences every ring, line and filter; running ramps jump to their ends.
void resetSignal(State& s) {
  s.reflections.clear();
  s.network.clear();
  for (int k = 0; k < 2; ++k) {
    qor::DelayLine& line = s.preDelay[k];
    const uint32_t length = line.length;
    line.setLength(line.capacity);
    line.clear();
    line.setLength(length);
    s.preDelayFilter[k].set(s.preDelayFilter[k].target, 0);
    s.preDelayFilter[k].reset();
  }
  s.sideState[0] = s.sideState[1] = 0.0f;
}

// Takes over the staged settings at the start of a block.
void applySettings(State& s) {
  const ReverbSettings& p = s.pending;
  const int32_t ramp = s.pendingRamp;
  s.hasPending = 0;
  const double rate = s.rate;

  float scale = p.sizeScale;
  if (scale == kAutomaticScale) {
    // The low band deliberately does not size the network.
    const double sumMs = qor::ReverbNetwork::baseLengthSum() * 1000.0 / rate;
    const double wanted = 0.25 * std::fmax(p.highDecayMs, p.midDecayMs) / sumMs;
    scale = static_cast<float>(std::fmin(std::fmax(wanted, 0.01), 2.0));
  }

  s.wet = p.wet;
  s.dry = 1.0f - p.wet;
  s.reflectionInput = 1.0f - p.balance;
  s.lateGain = qor::dbToLinear(p.lateGainDb) * p.balance;

  const qor::ReverbDecayTimes times = decayTimes(p);
  const qor::ReverbDecayTimes& old = s.network.times;
  const bool changed = !s.laidOut || scale != s.network.scale || times.lowMs != old.lowMs ||
                       times.midMs != old.midMs || times.highMs != old.highMs ||
                       times.f1 != old.f1 || times.f2 != old.f2;
  if (changed && s.network.retune(scale, times, rate, ramp)) s.laidOut = 1;

  // The network's first line already delays the tail; the pre-delay adds the rest.
  const double wantedDelay = std::floor(static_cast<double>(p.preDelayMs) * rate / 1000.0 + 0.5) -
                             static_cast<double>(s.network.lineLength(0));
  const uint32_t capacity = s.preDelay[0].capacity;
  s.preDelayLength = !(wantedDelay > 0.0)          ? 0
                     : wantedDelay >= capacity      ? capacity
                                                    : static_cast<uint32_t>(wantedDelay);
  for (int k = 0; k < 2; ++k) {
    if (s.preDelayLength > 0) s.preDelay[k].setLength(s.preDelayLength);
    const qor::ReverbSection f = qor::designReverbDecayFilter(s.preDelayLength, rate, times);
    s.preDelayFilter[k].set({f.b0, f.b1, f.b2, f.a1, f.a2, 1.0f}, ramp);
  }

  const double meanDecayMs =
      (static_cast<double>(p.lowDecayMs) + p.midDecayMs + p.highDecayMs) / 3.0;
  s.reflections.setTone(p.reflectionsCutoffHz, meanDecayMs, rate);
}

// Copies a validated record in, retunes the taps and stages the settings.
void apply(State& s, const QorReverbParameters& p) {
  s.parameters = p;
  const int32_t ramp = s.immediate ? 0 : kTapRamp;
  s.reflections.retune(p.roomType, p.roomSize, s.rate, ramp);

  ReverbSettings& r = s.pending;
  r = ReverbSettings{};
  r.wet = p.mix;
  r.reserved1 = 1.0f;
  r.balance = p.earlyLateBalance;
  r.preDelayMs = qor::reverbRoom(p.roomType).lateOffsetMs * p.roomSize;
  r.sizeScale = kAutomaticScale;
  r.lowDecayMs = p.lowDecayMs;
  r.crossoverLow = 0.9f * p.crossoverHz;
  r.midDecayMs = kMidDecayMs;
  r.crossoverHigh = 1.1f * p.crossoverHz;
  r.highDecayMs = p.highDecayMs;
  r.lateGainDb = kLateGainDb;
  r.reflectionsCutoffHz = p.reflectionsCutoffHz;
  s.pendingRamp = ramp;
  s.hasPending = 1;

  s.fade.setTime(p.crossfadeTime, s.rate);
  s.immediate = 0;
}

void processBlock(State& s, float* const* channels) {
  const uint32_t n = s.header.inputBlockSize;
  float* workL = s.work[0];
  float* workR = s.work[1];
  qor::copyBlock(channels[0], workL, n);
  qor::copyBlock(channels[1], workR, n);

  // Reflections: e replaces the scaled inputs in scratch 0 and 1.
  float* eL = s.scratch[0];
  float* eR = s.scratch[1];
  qor::scaleBlock(workL, eL, s.reflectionInput, n);
  qor::scaleBlock(workR, eR, s.reflectionInput, n);
  s.reflections.process(eL, eR, eL, eR, s.scratch[2], s.scratch[3], n);

  const float wet = s.wet;
  const float dry = s.dry;
  float* e[2] = {eL, eR};
  for (int k = 0; k < 2; ++k) {
    float* __restrict out = channels[k];
    float* __restrict work = s.work[k];
    const float* __restrict ek = e[k];
    for (uint32_t i = 0; i < n; ++i) {
      work[i] += ek[i];
      out[i] = wet * ek[i] + dry * out[i];
    }
  }

  s.network.process(workL, workR, workL, workR, n);

  // Keep the tail's low end mono: high-pass only the side signal.
  float* __restrict side = s.scratch[2];
  for (uint32_t i = 0; i < n; ++i) side[i] = workL[i] - workR[i];
  qor::processBiquadCascade(side, n, s.side, s.sideState, 1);
  for (uint32_t i = 0; i < n; ++i) {
    const float mid = workL[i] + workR[i];
    workL[i] = (mid + side[i]) * 0.5f;
    workR[i] = (mid - side[i]) * 0.5f;
  }

  const float late = s.lateGain * wet;
  float* __restrict tail = s.scratch[3];
  for (int k = 0; k < 2; ++k) {
    qor::scaleBlock(s.work[k], tail, late, n);
    if (s.preDelayLength > 0) {
      qor::DelayLine& line = s.preDelay[k];
      for (uint32_t i = 0; i < n; ++i) tail[i] = line.push(tail[i]);
    }
    qor::CookbookBiquad& f = s.preDelayFilter[k];
    f.process(tail, n);
    // Denormal guard for a silent input.
    if (std::fabs(f.y1) < 1e-15f && std::fabs(f.y2) < 1e-15f) f.y1 = f.y2 = 0.0f;
    float* __restrict out = channels[k];
    for (uint32_t i = 0; i < n; ++i) out[i] += tail[i];
  }
}

}  // namespace

Result qorReverbGetInstanceSize(const QorReverbConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorReverbInit(QorReverbInst* inst, const QorReverbConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->rate = static_cast<float>(config->inputSampleRate);
  s->network.scale = 0.0f;
  s->network.times = {};
  s->laidOut = 0;
  s->preDelayLength = 0;
  s->hasPending = 0;
  qor::designButterworth(kSideHighPassHz, 2, config->inputSampleRate, qor::kButterworthHighPass,
                         s->side);
  for (auto& f : s->preDelayFilter) f.set({1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 1.0f}, 0);
  resetSignal(*s);

  s->immediate = 1;
  s->marker = qor::kInitMarker;
  apply(*s, config->parameters);
  s->fade.init(config->parameters.enable != 0, config->parameters.crossfadeTime, s->rate);
  return Result::Success;
}

Result qorReverbGetDefaultParameters(QorReverbParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {0.5f, 1, 450.0f, 0.45f, 4000.0f, 450.0f, 750.0f, 0.5f, 50.0f, 1};
  return Result::Success;
}

Result qorReverbGetParameters(QorReverbInst* inst, QorReverbParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorReverbUpdateParameters(QorReverbInst* inst, QorReverbParameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  apply(*s, *parameters);
  return Result::Success;
}

Result qorReverbProcess(QorReverbInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkProcess(s, channels, 2); rc != 0) return result(rc);
  if (s->hasPending) applySettings(*s);

  const bool enabled = s->parameters.enable != 0;
  if (!s->fade.active(enabled)) return Result::Success;
  const uint32_t n = s->header.inputBlockSize;
  if (s->fade.transition(enabled)) qor::BypassFade::keepDry(channels, s->dryCopy, 2, n);
  processBlock(*s, channels);
  if (s->fade.finish(enabled, channels, s->dryCopy, 2, n)) {
    resetSignal(*s);
    s->immediate = 1;
  }
  return Result::Success;
}

Result qorReverbFlush(QorReverbInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetSignal(*s);
  s->immediate = 1;
  apply(*s, s->parameters);
  return Result::Success;
}

Result qorReverbRelease(QorReverbInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->marker = 0;
  return Result::Success;
}

Result qorReverbGetCurrentLatency(QorReverbInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  *latency = 0;
  return Result::Success;
}

}  // namespace QorReverb_API_V1
