#include "dsp/dynamics/gating_compressor.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "dsp/core/bypass.h"
#include "dsp/core/follower.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"
#include "dsp/core/peak_detector.h"
#include "dsp/dynamics/look_ahead.h"

namespace QorGatingCompressor_API_V1 {

namespace {

using Result = QorGatingCompressorResult;
using Parameters = QorGatingCompressorParameters;

constexpr uint32_t kMinBlock = 128;
constexpr uint32_t kMaxBlock = 4096;
constexpr uint32_t kDetectorDivider = 20;
constexpr float kGateRatio = 20.0f;
constexpr float kGateLevelFloorDb = -120.0f;
constexpr float kCompressorCeilingDb = 24.0f;
constexpr float kCompressorGainFloorDb = -100.0f;

// What the gate and the compressor each keep between sub-blocks.
struct Section {
  qor::PeakHistory detector;
  qor::LookAheadStore delay;
  float y1;       // fast follower
  float y2;       // slow follower
  float applied;  // gain reached at the end of the last sub-block
  qor::BypassFade fade;
};

struct State {
  qor::ConfigHeader header;
  Parameters parameters;
  uint8_t meteringEnabled;

  // Derived from the rate and the parameters.
  uint32_t subBlock;
  float subBlockRate;
  uint32_t holdCount;
  qor::Follower gateFollower1, gateFollower2;
  qor::Follower compressorFollowerA, compressorFollowerB;
  float slope;

  Section gate;
  float heldGain;
  uint32_t holdCounter;
  Section compressor;

  float gateReading[3];
  float compressorReading[3];
  QorMeteringPoint gatePoint;
  QorMeteringPoint compressorPoint;
  QorGatingCompressorMeteringPoints points;

  uint64_t marker;
  float** dry;  // per channel one block
  float* gateSlots;
  float* compressorSlots;
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkParameters(const Parameters& p) {
  const struct {
    float value, lo, hi;
  } ranges[] = {
      {p.gateThreshold, -80.0f, -6.0f},        {p.gateFloor, -60.0f, 0.0f},
      {p.gateAttack, 0.0f, 200.0f},            {p.gateRelease, 50.0f, 1000.0f},
      {p.gateHold, 0.0f, 200.0f},              {p.compressorThreshold, -40.0f, 0.0f},
      {p.compressorRatio, 1.0f, 20.0f},        {p.compressorInputGain, -12.0f, 12.0f},
      {p.compressorMakeupGain, -12.0f, 12.0f}, {p.compressorAttack, 0.0f, 200.0f},
      {p.compressorRelease, 50.0f, 1000.0f},   {p.crossfadeTime, 0.0f, 250.0f},
  };
  for (int32_t i = 0; i < static_cast<int32_t>(std::size(ranges)); ++i) {
    if (qor::outOfRange(ranges[i].value, ranges[i].lo, ranges[i].hi)) return qor::parameterError(i);
  }
  return qor::Success;
}

bool supportedRate(uint32_t rate) {
  return rate == 44100 || rate == 48000 || rate == 88200 || rate == 96000 || rate == 176400 ||
         rate == 192000;
}

int32_t checkConfig(const QorGatingCompressorConfig& c) {
  if (!supportedRate(c.inputSampleRate)) return qor::ErrorSampleRate;
  if (c.outputSampleRate != c.inputSampleRate) return qor::ErrorSampleRate;
  if (c.inputBlockSize < kMinBlock || c.inputBlockSize > kMaxBlock) return qor::ErrorBlockSize;
  if (c.outputBlockSize < kMinBlock || c.outputBlockSize > kMaxBlock ||
      c.outputBlockSize != c.inputBlockSize) {
    return qor::ErrorBlockSize;
  }
  if (c.outputChannels != c.inputChannels) return qor::ErrorOutputChannels;
  return checkParameters(c.parameters);
}

size_t layOut(void* base, const QorGatingCompressorConfig& config, State** out) {
  qor::InstanceLayout lay(base);
  const uint32_t channels = config.inputChannels;
  const uint32_t subBlock = qor::dynamicsSubBlock(config.inputSampleRate);
  State* s = lay.take<State>();
  float** dry = lay.take<float*>(channels);
  for (uint32_t c = 0; c < channels; ++c) {
    float* d = lay.take<float>(config.inputBlockSize);
    if (dry != nullptr) dry[c] = d;
  }
  float* gateSlots = lay.take<float>(qor::LookAheadStore::floatsFor(channels, subBlock));
  float* compressorSlots = lay.take<float>(qor::LookAheadStore::floatsFor(channels, subBlock));
  if (s != nullptr) {
    s->dry = dry;
    s->gateSlots = gateSlots;
    s->compressorSlots = compressorSlots;
    *out = s;
  }
  return lay.size();
}

void deriveFromParameters(State& s) {
  const Parameters& p = s.parameters;
  const float rs = s.subBlockRate;
  const double rate = s.header.inputSampleRate;
  s.holdCount = static_cast<uint32_t>(p.gateHold * 0.001 * rate / s.subBlock);
  qor::followerSetup(s.gateFollower1, rs, 0.0f, p.gateAttack, std::max(p.gateRelease * 0.05f, 5.0f));
  qor::followerSetup(s.gateFollower2, rs, 0.0f, std::max(p.gateAttack * 20.0f, 5.0f), p.gateRelease);
  s.slope = 1.0f - 1.0f / p.compressorRatio;
  qor::followerSetup(s.compressorFollowerA, rs, 0.0f, p.compressorAttack,
                     std::max(p.compressorRelease * 0.2f, 5.0f));
  qor::followerSetup(s.compressorFollowerB, rs, 0.0f, std::max(p.compressorAttack * 5.0f, 5.0f),
                     p.compressorRelease);
  const float rateF = static_cast<float>(s.header.inputSampleRate);
  s.gate.fade.setTime(p.crossfadeTime, rateF);
  s.compressor.fade.setTime(p.crossfadeTime, rateF);
}

// Back to unity gain with empty look-ahead and level history.
void resetSection(State& s, Section& section) {
  section.delay.clear();
  qor::peakHistorySetup(section.detector, s.header.inputSampleRate, s.subBlock, kDetectorDivider);
  section.y1 = 1.0f;
  section.y2 = 1.0f;
  section.applied = 1.0f;
}

void resetGate(State& s) {
  resetSection(s, s.gate);
  s.heldGain = 1.0f;
  s.holdCounter = 0;
}

// Ramps from the last applied gain to `target` across the oldest stored
// sub-block, which leaves the look-ahead as the new one goes in.
void applyGain(Section& section, float* const* channels, uint32_t start, float target) {
  const float step = (target - section.applied) / static_cast<float>(section.delay.subBlock);
  section.delay.apply(channels, start, section.applied, step);
  section.applied = target;
}

void runGate(State& s, float* const* channels, uint32_t n) {
  const uint32_t sub = s.subBlock;
  if (n % sub != 0) return;
  const auto count = static_cast<int32_t>(s.header.inputChannels);
  const Parameters& p = s.parameters;
  Section& gate = s.gate;
  for (uint32_t start = 0; start < n; start += sub) {
    const float peak = qor::peakHistoryUpdate(gate.detector, channels, start, sub, count);
    const float level = std::max(qor::linearToDb(peak), kGateLevelFloorDb);
    float gainDb = 0.0f;
    if (level < p.gateThreshold) {
      gainDb = std::max((kGateRatio - 1.0f) * (level - p.gateThreshold), p.gateFloor);
    }
    float gain = qor::dbToLinear(gainDb);
    // Opening is immediate; closing waits out the hold.
    if (gain > s.heldGain) {
      s.heldGain = gain;
      s.holdCounter = 0;
    } else if (s.holdCounter < s.holdCount) {
      gain = s.heldGain;
      ++s.holdCounter;
    } else {
      s.heldGain = gain;
      s.holdCounter = 0;
    }
    qor::followRisingFirst(s.gateFollower1, &gain, &gate.y1, 1);
    qor::followRisingFirst(s.gateFollower2, &gain, &gate.y2, 1);
    applyGain(gate, channels, start, std::max(gate.y1, gate.y2));
  }
}

void runCompressor(State& s, float* const* channels, uint32_t n) {
  const uint32_t sub = s.subBlock;
  if (n % sub != 0) return;
  const auto count = static_cast<int32_t>(s.header.inputChannels);
  const Parameters& p = s.parameters;
  Section& comp = s.compressor;
  for (uint32_t start = 0; start < n; start += sub) {
    const float peak = qor::peakHistoryUpdate(comp.detector, channels, start, sub, count);
    const float level = qor::linearToDb(peak) + p.compressorInputGain;
    float gainDb = std::min(p.compressorThreshold - level, 0.0f) * s.slope + p.compressorInputGain +
                   p.compressorMakeupGain;
    gainDb -= std::max(gainDb + level - kCompressorCeilingDb, 0.0f);
    gainDb = std::max(gainDb, kCompressorGainFloorDb);
    const float gain = qor::dbToLinear(gainDb);
    qor::followFallingFirst(s.compressorFollowerA, &gain, &comp.y1, 1);
    qor::followFallingFirst(s.compressorFollowerB, &comp.y1, &comp.y2, 1);
    applyGain(comp, channels, start, std::min(comp.y1, comp.y2));
  }
}

void updateReadings(State& s) {
  const Parameters& p = s.parameters;
  const float floor = qor::linearToDb(0.0f);
  if (p.enable != 0) {
    s.gateReading[0] = qor::linearToDb(s.gate.applied);
    s.gateReading[1] = qor::linearToDb(s.gate.y2);
  } else {
    s.gateReading[0] = floor;
    s.gateReading[1] = floor;
  }
  s.gateReading[2] = 0.0f;
  if (p.enable != 0 && p.compressorEnable != 0) {
    // Gain reduction only: input and make-up gain are taken out.
    const float offset = p.compressorInputGain + p.compressorMakeupGain;
    s.compressorReading[0] = qor::linearToDb(s.compressor.applied) - offset;
    s.compressorReading[1] = qor::linearToDb(s.compressor.y2) - offset;
  } else {
    s.compressorReading[0] = floor;
    s.compressorReading[1] = floor;
  }
  s.compressorReading[2] = 0.0f;
}

}  // namespace

Result qorGatingCompressorGetInstanceSize(const QorGatingCompressorConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorGatingCompressorInit(QorGatingCompressorInst* inst, const QorGatingCompressorConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->meteringEnabled = config->meteringEnabled;
  s->subBlock = qor::dynamicsSubBlock(s->header.inputSampleRate);
  s->subBlockRate = qor::dynamicsSubBlockRate(s->header.inputSampleRate, s->subBlock);
  s->gate.delay.attach(s->gateSlots, s->header.inputChannels, s->subBlock);
  s->compressor.delay.attach(s->compressorSlots, s->header.inputChannels, s->subBlock);
  s->gatePoint = {s->gateReading, 1};
  s->compressorPoint = {s->compressorReading, 1};
  s->points.points[0] = &s->gatePoint;
  s->points.points[1] = &s->compressorPoint;

  resetGate(*s);
  resetSection(*s, s->compressor);
  const Parameters& p = s->parameters;
  s->compressor.fade.mix = p.enable != 0 && p.compressorEnable != 0 ? 1.0f : 0.0f;
  s->gate.fade.mix = p.enable != 0 && p.gateEnable != 0 ? 1.0f : 0.0f;
  s->marker = qor::kInitMarker;
  Parameters initial = config->parameters;
  if (const Result rc = qorGatingCompressorUpdateParameters(inst, &initial); rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  updateReadings(*s);
  return Result::Success;
}

Result qorGatingCompressorGetDefaultParameters(Parameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = Parameters{-48.0f, -48.0f, 5.0f, 250.0f, 5.0f, 0.0f, 4.0f, 0.0f,
                           0.0f,   5.0f,   250.0f, 1, 1, 1, 50.0f};
  return Result::Success;
}

Result qorGatingCompressorGetParameters(QorGatingCompressorInst* inst, Parameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorGatingCompressorUpdateParameters(QorGatingCompressorInst* inst, Parameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  s->parameters = *parameters;
  deriveFromParameters(*s);
  return Result::Success;
}

Result qorGatingCompressorProcess(QorGatingCompressorInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  const uint32_t count = s != nullptr ? s->header.inputChannels : 0;
  if (const int32_t rc = qor::checkProcess(s, channels, count); rc != 0) return result(rc);

  const Parameters& p = s->parameters;
  const uint32_t n = s->header.inputBlockSize;
  const bool gateOn = p.enable != 0 && p.gateEnable != 0;
  const bool compressorOn = p.enable != 0 && p.compressorEnable != 0;
  const float* const* dry = s->dry;

  if (s->gate.fade.active(gateOn)) {
    const bool transition = s->gate.fade.transition(gateOn);
    if (transition) qor::BypassFade::keepDry(channels, s->dry, count, n);
    runGate(*s, channels, n);
    if (s->gate.fade.finish(gateOn, channels, dry, count, n)) resetGate(*s);
  }
  if (s->compressor.fade.active(compressorOn)) {
    const bool transition = s->compressor.fade.transition(compressorOn);
    if (transition) qor::BypassFade::keepDry(channels, s->dry, count, n);
    runCompressor(*s, channels, n);
    if (s->compressor.fade.finish(compressorOn, channels, dry, count, n)) {
      resetSection(*s, s->compressor);
    }
  }
  if (s->meteringEnabled != 0) updateReadings(*s);
  return Result::Success;
}

Result qorGatingCompressorFlush(QorGatingCompressorInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetGate(*s);
  resetSection(*s, s->compressor);
  deriveFromParameters(*s);
  return Result::Success;
}

Result qorGatingCompressorRelease(QorGatingCompressorInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->marker = 0;
  return Result::Success;
}

Result qorGatingCompressorGetCurrentLatency(QorGatingCompressorInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  // A fixed figure (two sections of four 32-sample sub-blocks), whatever the
  // rate and whichever section is running.
  *latency = s->gate.fade.mix != 0.0f || s->compressor.fade.mix != 0.0f ? 256 : 0;
  return Result::Success;
}

Result qorGatingCompressorGetMeteringPoints(const QorGatingCompressorInst* const inst,
                                            const QorGatingCompressorMeteringPoints** points) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, points); rc != 0) return result(rc);
  if (s->meteringEnabled == 0) return Result::ErrorMeteringDisabled;
  *points = &s->points;
  return Result::Success;
}

}  // namespace QorGatingCompressor_API_V1
