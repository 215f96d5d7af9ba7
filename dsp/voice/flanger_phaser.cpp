#include "dsp/voice/flanger_phaser.h"

#include <algorithm>
#include <cmath>

#include "dsp/core/bypass.h"
#include "dsp/core/cookbook_biquad.h"
#include "dsp/core/instance.h"
#include "dsp/voice/tap_sweep.h"
#include "dsp/voice/wavetable_oscillator.h"

namespace QorFlangerPhaser_API_V1 {

namespace {

using Result = QorFlangerPhaserResult;

constexpr uint32_t kMaxChannels = 2;
constexpr int32_t kMaxStages = 10;
constexpr uint32_t kTableEntries = 512;
constexpr float kMaxDelayMs = 5.0f;
constexpr float kLowestHz = 200.0f;
constexpr float kHighestHz = 1600.0f;

struct Flanger {
  float sampleRate;
  float maxDelayMs;
  float rate;
  float depth;
  int32_t variant;   // 0: taps forwards, 1: one sine-swept tap, 2: taps backwards
  float feedback;    // g
  float wetGain;
  float dryGain;
  uint32_t length;   // samples of the maximum delay
  uint32_t slots;    // length + 1: the newest sample is kept beside the oldest
  uint32_t capacity; // slots available per channel
  uint32_t write;
  float* lines[kMaxChannels];
  qor::TapSweep* taps;
  qor::WavetableOscillator oscillator;
};

struct StageCoefficients {
  float b0, b1, b2, a1, a2;
};

struct Phaser {
  float sampleRate;
  float lowest;
  float highest;
  float rate;
  float depth;
  float feedback;
  int32_t stages;
  float wetGain;       // depth / 2
  float dryGain;       // 1 - depth / 2
  float feedbackGain;  // sqrt(depth) * feedback
  float feedbackSample[kMaxChannels];
  StageCoefficients* tables;  // kMaxStages x kTableEntries
  float* stageState;          // per channel, per stage: s1, s2
  qor::WavetableOscillator oscillator;
};

// Settings handed over by UpdateParameters and taken at the next block.
struct Pending {
  int32_t mode;
  float depth;
  float rate;
};

struct State {
  qor::ConfigHeader header;
  QorFlangerPhaserParameters parameters;
  uint64_t marker;
  qor::BypassFade fade;
  float* dry[kMaxChannels];
  Pending pending;
  uint32_t pendingSerial;
  uint32_t appliedSerial;
  int32_t mode;                // -1 until the first settings arrive
  uint32_t processorsEnabled;  // cleared: pass through, reset once
  uint32_t processorsIdle;
  Flanger flanger;
  Phaser phaser;
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkConfig(const QorFlangerPhaserConfig& c) {
  auto rateOk = [](uint32_t r) { return r == 44100 || r == 48000; };
  auto blockOk = [](uint32_t b) { return b >= 128 && b <= 4096; };
  if (!rateOk(c.inputSampleRate) || !rateOk(c.outputSampleRate) ||
      c.inputSampleRate != c.outputSampleRate) {
    return qor::ErrorSampleRate;
  }
  if (!blockOk(c.inputBlockSize) || !blockOk(c.outputBlockSize) ||
      c.inputBlockSize != c.outputBlockSize) {
    return qor::ErrorBlockSize;
  }
  if (c.inputChannels < 1 || c.inputChannels > 2) return qor::ErrorInputChannels;
  if (c.outputChannels < 1 || c.outputChannels > 2) return qor::ErrorOutputChannels;
  return qor::Success;
}

// The mode is left to UpdateParameters.
int32_t checkParameters(const QorFlangerPhaserParameters& p) {
  if (qor::outOfRange(p.depth, 0.0f, 1.0f)) return qor::parameterError(1);
  if (qor::outOfRange(p.rate, 0.0f, 5.0f)) return qor::parameterError(2);
  if (qor::outOfRange(p.crossfadeTime, 0.0f, 100.0f)) return qor::parameterError(3);
  return qor::Success;
}

uint32_t delaySamples(float ms, float rate) {
  const double n = std::floor(static_cast<double>(ms) * rate / 1000.0 + 0.5);
  return n < 1.0 ? 1u : static_cast<uint32_t>(n);
}

size_t layOut(void* base, const QorFlangerPhaserConfig& config, State** out) {
  const uint32_t channels = config.inputChannels;
  const uint32_t block = config.inputBlockSize;
  const uint32_t slots = delaySamples(kMaxDelayMs, static_cast<float>(config.inputSampleRate)) + 1;
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  float* dry = lay.take<float>(static_cast<size_t>(block) * channels);
  float* lines = lay.take<float>(static_cast<size_t>(slots) * channels);
  qor::TapSweep* taps = lay.take<qor::TapSweep>();
  StageCoefficients* tables = lay.take<StageCoefficients>(kMaxStages * kTableEntries);
  float* stageState = lay.take<float>(static_cast<size_t>(channels) * kMaxStages * 2);
  if (s != nullptr) {
    for (uint32_t c = 0; c < kMaxChannels; ++c) {
      const uint32_t k = c < channels ? c : 0;
      s->dry[c] = dry + static_cast<size_t>(k) * block;
      s->flanger.lines[c] = lines + static_cast<size_t>(k) * slots;
    }
    s->flanger.capacity = slots;
    s->flanger.taps = taps;
    s->phaser.tables = tables;
    s->phaser.stageState = stageState;
    *out = s;
  }
  return lay.size();
}

// ---- flanger --------------------------------------------------------------

void resetFlanger(Flanger& f, uint32_t channels) {
  for (uint32_t c = 0; c < channels; ++c) std::fill(f.lines[c], f.lines[c] + f.capacity, 0.0f);
  f.write = 0;
  f.oscillator.reset();
  f.taps->reset();
}

void configureFlanger(Flanger& f, uint32_t channels, float rate, float maxDelayMs, float sweepRate,
                      float depth, int32_t variant) {
  if (rate != f.sampleRate || maxDelayMs != f.maxDelayMs) {
    f.sampleRate = rate;
    f.maxDelayMs = maxDelayMs;
    f.oscillator.setSampleRate(rate);
    f.length = std::min(delaySamples(std::max(maxDelayMs, 0.1f), rate), f.capacity - 1);
    f.slots = f.length + 1;
    resetFlanger(f, channels);
  }
  f.rate = sweepRate;
  f.depth = depth;
  f.variant = variant;
  const float d = std::clamp(depth, -1.0f, 1.0f);
  f.feedback = 0.64f + 0.36f * (1.0f - d * d);
  f.wetGain = (1.0f - f.feedback * f.feedback) * d;
  f.dryGain = -f.feedback;
  f.oscillator.setFrequency(sweepRate);
  f.taps->setRate(variant == 0 ? sweepRate / 3.0f : -sweepRate / 3.0f, f.sampleRate);
}

// The sample `fraction` of the line length behind the newest one (which is
// at `write`), interpolated; 0 is the newest, 1 the oldest.
inline float readLine(const float* line, uint32_t write, uint32_t length, uint32_t slots,
                      float fraction) {
  const float d = std::clamp(fraction * static_cast<float>(length), 0.0f, static_cast<float>(length));
  uint32_t i = static_cast<uint32_t>(d);
  if (i >= length) i = length - 1;
  const float a = d - static_cast<float>(i);
  const uint32_t near = write >= i ? write - i : write + slots - i;
  const uint32_t far = near > 0 ? near - 1 : slots - 1;
  return (1.0f - a) * line[near] + a * line[far];
}

// Denormal-free: values below ~1e-25 drop to zero, audible ones are exact.
inline float flushed(float x) { return (x + 1e-18f) - 1e-18f; }

void processFlanger(Flanger& f, float* const* channels, uint32_t channelCount, uint32_t n) {
  const uint32_t length = f.length;
  const uint32_t slots = f.slots;
  const float g = f.feedback;
  const float wet = f.wetGain;
  const float dry = f.dryGain;
  uint32_t w = f.write;
  float delay[3], gain[3];
  for (uint32_t t = 0; t < n; ++t) {
    float position = 0.0f;
    if (f.variant == 1) {
      position = (f.oscillator.next() + 1.0f) * 0.49f + 0.01f;
    } else {
      f.taps->next(delay, gain);
    }
    for (uint32_t c = 0; c < channelCount; ++c) {
      float* line = f.lines[c];
      const float x = channels[c][t];
      // Half the line behind the slot about to be written; never the slot
      // itself, so it can be read before v lands there.
      const float fb = readLine(line, w, length, slots, 0.5f);
      const float v = flushed(fb * g + x);
      line[w] = v;
      float y;
      if (f.variant == 1) {
        y = readLine(line, w, length, slots, position);
      } else {
        y = readLine(line, w, length, slots, delay[0]) * (gain[0] + 1.0f) +
            readLine(line, w, length, slots, delay[1]) * (gain[1] + 1.0f) +
            readLine(line, w, length, slots, delay[2]) * (gain[2] + 1.0f);
      }
      channels[c][t] = y * wet + x * dry;
    }
    w = w + 1 == slots ? 0 : w + 1;
  }
  f.write = w;
}

// ---- phaser ---------------------------------------------------------------

void resetPhaser(Phaser& p, uint32_t channels) {
  std::fill(p.stageState, p.stageState + static_cast<size_t>(channels) * kMaxStages * 2, 0.0f);
  for (float& v : p.feedbackSample) v = 0.0f;
  p.oscillator.reset();
}

// Each stage sweeps its all-pass between two neighbouring points of a
// logarithmic grid from the lowest frequency upwards.
void buildPhaserTables(Phaser& p) {
  const double logLow = std::log10(static_cast<double>(p.lowest));
  const double step =
      p.stages > 1 ? (std::log10(static_cast<double>(p.highest)) - logLow) / (p.stages - 1) : 0.0;
  for (int32_t s = 0; s < p.stages; ++s) {
    const qor::CookbookCoefficients c0 = qor::designCookbook(
        qor::kCookbookAllPass, std::pow(10.0, logLow + s * step), p.sampleRate, 0.25, 0.0, 0.0);
    const qor::CookbookCoefficients c1 = qor::designCookbook(
        qor::kCookbookAllPass, std::pow(10.0, logLow + (s + 1) * step), p.sampleRate, 0.25, 0.0, 0.0);
    StageCoefficients* table = p.tables + static_cast<size_t>(s) * kTableEntries;
    for (uint32_t k = 0; k < kTableEntries; ++k) {
      const double t = static_cast<double>(k) / (kTableEntries - 1);
      auto lerp = [t](float a, float b) {
        return static_cast<float>(a + (static_cast<double>(b) - a) * t);
      };
      table[k] = {lerp(c0.b0, c1.b0), lerp(c0.b1, c1.b1), lerp(c0.b2, c1.b2), lerp(c0.a1, c1.a1),
                  lerp(c0.a2, c1.a2)};
    }
  }
}

void configurePhaser(Phaser& p, float rate, float lowest, float highest, float sweepRate,
                     float depth, float feedback, int32_t stages) {
  const bool rebuild = rate != p.sampleRate || lowest != p.lowest || stages != p.stages;
  if (rate != p.sampleRate) p.oscillator.setSampleRate(rate);
  p.sampleRate = rate;
  p.lowest = lowest;
  p.highest = highest;
  p.stages = std::clamp(stages, 1, kMaxStages);
  if (rebuild) buildPhaserTables(p);
  p.rate = sweepRate;
  p.depth = depth;
  p.feedback = feedback;
  p.oscillator.setFrequency(sweepRate);
  p.wetGain = depth / 2.0f;
  p.dryGain = 1.0f - depth / 2.0f;
  p.feedbackGain = std::sqrt(depth) * feedback;
}

template <uint32_t kChannels>
void processPhaserChannels(Phaser& p, float* const* channels, uint32_t n) {
  const int32_t stages = p.stages;
  const float wet = p.wetGain;
  const float dry = p.dryGain;
  const float fbGain = p.feedbackGain;
  float* state = p.stageState;
  float fb[kChannels];
  for (uint32_t c = 0; c < kChannels; ++c) fb[c] = p.feedbackSample[c];
  for (uint32_t t = 0; t < n; ++t) {
    const float lfo = p.oscillator.next();
    int32_t index = static_cast<int32_t>(std::floor((lfo + 1.0f) * 0.5f * 511.0f + 0.5f));
    index = std::clamp(index, 0, static_cast<int32_t>(kTableEntries - 1));
    float x[kChannels], v[kChannels];
    for (uint32_t c = 0; c < kChannels; ++c) {
      x[c] = channels[c][t];
      v[c] = fb[c] * fbGain + x[c];
    }
    const StageCoefficients* coefficients = p.tables + index;
    for (int32_t s = 0; s < stages; ++s) {
      const StageCoefficients k = coefficients[static_cast<size_t>(s) * kTableEntries];
      for (uint32_t c = 0; c < kChannels; ++c) {
        float* st = state + (static_cast<size_t>(c) * kMaxStages + s) * 2;
        const float y = k.b0 * v[c] + st[0];
        st[0] = k.b1 * v[c] - k.a1 * y + st[1];
        st[1] = k.b2 * v[c] - k.a2 * y;
        v[c] = y;
      }
    }
    for (uint32_t c = 0; c < kChannels; ++c) {
      fb[c] = v[c];
      channels[c][t] = v[c] * wet + x[c] * dry;
    }
  }
  // Denormal guard: a decaying tail is cut once it is far below hearing.
  for (uint32_t c = 0; c < kChannels; ++c) {
    p.feedbackSample[c] = std::fabs(fb[c]) < 1e-15f ? 0.0f : fb[c];
    for (int32_t s = 0; s < 2 * stages; ++s) {
      float& st = state[static_cast<size_t>(c) * kMaxStages * 2 + s];
      if (std::fabs(st) < 1e-15f) st = 0.0f;
    }
  }
}

void processPhaser(Phaser& p, float* const* channels, uint32_t channelCount, uint32_t n) {
  if (channelCount == 2) {
    processPhaserChannels<2>(p, channels, n);
  } else {
    processPhaserChannels<1>(p, channels, n);
  }
}

// ---- family ---------------------------------------------------------------

void resetProcessors(State& s) {
  resetFlanger(s.flanger, s.header.inputChannels);
  resetPhaser(s.phaser, s.header.inputChannels);
}

bool isPhaserMode(int32_t mode) { return mode >= QorFlangerPhaserPhaser4; }

void configureFor(State& s, int32_t mode, float depth, float rate) {
  const float fs = static_cast<float>(s.header.inputSampleRate);
  if (isPhaserMode(mode)) {
    static constexpr float kFeedback[3] = {0.7f, 0.8f, 0.9f};
    static constexpr int32_t kStages[3] = {4, 6, 10};
    const int32_t k = mode - QorFlangerPhaserPhaser4;
    configurePhaser(s.phaser, fs, kLowestHz, kHighestHz, rate, depth, kFeedback[k], kStages[k]);
  } else {
    static constexpr int32_t kVariant[3] = {2, 0, 1};
    configureFlanger(s.flanger, s.header.inputChannels, fs, kMaxDelayMs, rate, depth, kVariant[mode]);
  }
}

void applyPending(State& s) {
  if (s.appliedSerial == s.pendingSerial) return;
  s.appliedSerial = s.pendingSerial;
  const Pending p = s.pending;
  if (p.mode != s.mode) {
    resetProcessors(s);
    s.mode = p.mode;
  }
  configureFor(s, p.mode, p.depth, p.rate);
}

}  // namespace

Result qorFlangerPhaserGetInstanceSize(const QorFlangerPhaserConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorFlangerPhaserInit(QorFlangerPhaserInst* inst, const QorFlangerPhaserConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(config->parameters); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->mode = -1;
  s->pendingSerial = 0;
  s->appliedSerial = 0;
  s->processorsEnabled = 1;
  s->processorsIdle = 0;

  // Both processors exist whatever the mode, so a mode change never builds
  // more than the phaser's tables.
  Flanger& f = s->flanger;
  f.sampleRate = 0.0f;
  f.maxDelayMs = 0.0f;
  f.taps->buildCurves();
  f.taps->reset();
  f.oscillator.init();
  f.oscillator.setShape(qor::kShapeSine);
  Phaser& p = s->phaser;
  p.sampleRate = 0.0f;
  p.stages = 0;
  p.oscillator.init();
  p.oscillator.setShape(qor::kShapeSine);
  const float depth = config->parameters.depth;
  const float rate = config->parameters.rate;
  configureFor(*s, QorFlangerPhaserFlangerBackward, depth, rate);
  configureFor(*s, QorFlangerPhaserPhaser4, depth, rate);
  resetProcessors(*s);

  s->marker = qor::kInitMarker;
  QorFlangerPhaserParameters initial = config->parameters;
  if (const Result rc = qorFlangerPhaserUpdateParameters(inst, &initial); rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  applyPending(*s);  // ready before the first block
  s->fade.init(s->parameters.enable != 0, s->parameters.crossfadeTime,
               static_cast<float>(config->inputSampleRate));
  return Result::Success;
}

Result qorFlangerPhaserGetDefaultParameters(QorFlangerPhaserParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {QorFlangerPhaserFlangerBackward, 1.0f, 1.0f, 50.0f, 1};
  return Result::Success;
}

Result qorFlangerPhaserGetParameters(QorFlangerPhaserInst* inst,
                                     QorFlangerPhaserParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorFlangerPhaserUpdateParameters(QorFlangerPhaserInst* inst,
                                        QorFlangerPhaserParameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  // The record is taken before the mode is judged: a refused mode still
  // reads back, while the processors keep the previous one.
  s->parameters = *parameters;
  if (s->parameters.mode < 0 || s->parameters.mode > 5) return Result::ErrorMode;
  s->pending = {s->parameters.mode, s->parameters.depth, s->parameters.rate};
  ++s->pendingSerial;
  s->processorsEnabled = s->parameters.enable != 0 ? 1u : 0u;
  s->fade.setTime(s->parameters.crossfadeTime, static_cast<float>(s->header.inputSampleRate));
  return Result::Success;
}

Result qorFlangerPhaserProcess(QorFlangerPhaserInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  const uint32_t channelCount = s != nullptr ? s->header.inputChannels : 0;
  if (const int32_t rc = qor::checkProcess(s, channels, channelCount); rc != 0) return result(rc);
  const bool enabled = s->parameters.enable != 0;
  if (!s->fade.active(enabled)) return Result::Success;
  applyPending(*s);
  const uint32_t n = s->header.inputBlockSize;
  if (s->fade.transition(enabled)) qor::BypassFade::keepDry(channels, s->dry, channelCount, n);
  if (s->processorsEnabled != 0) {
    s->processorsIdle = 0;
    if (isPhaserMode(s->mode)) {
      processPhaser(s->phaser, channels, channelCount, n);
    } else {
      processFlanger(s->flanger, channels, channelCount, n);
    }
  } else if (s->processorsIdle == 0) {
    // Switched off: the effect stops at once (the fade then blends two
    // identical dry signals) and starts clean when switched on again.
    resetProcessors(*s);
    s->processorsIdle = 1;
  }
  if (s->fade.finish(enabled, channels, s->dry, channelCount, n)) resetProcessors(*s);
  return Result::Success;
}

Result qorFlangerPhaserFlush(QorFlangerPhaserInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetProcessors(*s);
  return Result::Success;
}

Result qorFlangerPhaserRelease(QorFlangerPhaserInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetProcessors(*s);
  s->marker = 0;
  return Result::Success;
}

Result qorFlangerPhaserGetCurrentLatency(QorFlangerPhaserInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  *latency = 0;
  return Result::Success;
}

}  // namespace QorFlangerPhaser_API_V1
