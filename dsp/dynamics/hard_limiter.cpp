#include "dsp/dynamics/hard_limiter.h"

#include <algorithm>
#include <cmath>

#include "dsp/core/bypass.h"
#include "dsp/core/follower.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"
#include "dsp/core/peak_detector.h"
#include "dsp/dynamics/look_ahead.h"

namespace QorHardLimiter_API_V1 {

namespace {

using Result = QorHardLimiterResult;
using Parameters = QorHardLimiterParameters;

constexpr uint32_t kMinRate = 44100;
constexpr uint32_t kMaxRate = 192000;
constexpr uint32_t kMinBlock = 128;
constexpr uint32_t kMaxBlock = 4096;
constexpr uint32_t kDetectorDivider = 20;
constexpr float kCeiling = 0.8f;
constexpr float kSecondPathFactor = 1.0f;
constexpr float kLevelFloor = 3.051851e-5f;  // 1/32767
constexpr float kInputGainKeep = 0.9672161f;
constexpr float kInputGainPull = 0.0327839f;
constexpr int32_t kClipGuardHistory = 5;

struct State {
  qor::ConfigHeader header;
  Parameters parameters;
  uint8_t meteringEnabled;

  uint32_t subBlock;
  float subBlockRate;
  float targetInputGain;
  qor::Follower follower1;  // fast path
  qor::Follower follower2;  // slow path with 1 dB hysteresis
  qor::Follower clipGuard;

  qor::PeakHistory detector;
  qor::LookAheadStore delay;
  float y1, y2, y3;
  float previousGain;       // limiter gain reached after the last sub-block
  float previousInputGain;  // smoothed input gain after the last sub-block
  qor::BypassFade fade;

  float reading[3];
  QorMeteringPoint point;
  QorHardLimiterMeteringPoints points;

  uint64_t marker;
  float** dry;
  float* slots;
};

Result result(int32_t code) { return static_cast<Result>(code); }

int32_t checkParameters(const Parameters& p) {
  if (qor::outOfRange(p.attack, 0.0f, 10.0f)) return qor::parameterError(0);
  if (qor::outOfRange(p.release, 10.0f, 500.0f)) return qor::parameterError(1);
  if (qor::outOfRange(p.inputGain, -20.0f, 20.0f)) return qor::parameterError(2);
  if (qor::outOfRange(p.crossfadeTime, 0.0f, 250.0f)) return qor::parameterError(3);
  return qor::Success;
}

int32_t checkConfig(const QorHardLimiterConfig& c) {
  if (c.inputSampleRate < kMinRate || c.inputSampleRate > kMaxRate) return qor::ErrorSampleRate;
  if (c.outputSampleRate < kMinRate || c.outputSampleRate > kMaxRate ||
      c.outputSampleRate != c.inputSampleRate) {
    return qor::ErrorSampleRate;
  }
  if (c.inputBlockSize < kMinBlock || c.inputBlockSize > kMaxBlock) return qor::ErrorBlockSize;
  if (c.outputBlockSize < kMinBlock || c.outputBlockSize > kMaxBlock ||
      c.outputBlockSize != c.inputBlockSize) {
    return qor::ErrorBlockSize;
  }
  if (c.outputChannels != c.inputChannels) return qor::ErrorOutputChannels;
  return checkParameters(c.parameters);
}

size_t layOut(void* base, const QorHardLimiterConfig& config, State** out) {
  qor::InstanceLayout lay(base);
  const uint32_t channels = config.inputChannels;
  const uint32_t subBlock = qor::dynamicsSubBlock(config.inputSampleRate);
  State* s = lay.take<State>();
  float** dry = lay.take<float*>(channels);
  for (uint32_t c = 0; c < channels; ++c) {
    float* d = lay.take<float>(config.inputBlockSize);
    if (dry != nullptr) dry[c] = d;
  }
  float* slots = lay.take<float>(qor::LookAheadStore::floatsFor(channels, subBlock));
  if (s != nullptr) {
    s->dry = dry;
    s->slots = slots;
    *out = s;
  }
  return lay.size();
}

// Gains back to unity (the input gain glides in again from 1.0) and an empty
// look-ahead. The detector only restarts its write position.
void resetCore(State& s) {
  s.y1 = s.y2 = s.y3 = 1.0f;
  s.previousGain = 1.0f;
  s.previousInputGain = 1.0f;
  // A flush forgets the signal: the detector's stored peaks go too, not just
  // its write position, or the gain after a flush would still follow them.
  s.detector.writeIndex = 0;
  s.detector.window = 0;
  for (float& peak : s.detector.history) peak = 0.0f;
  s.delay.clear();
}

void deriveFromParameters(State& s) {
  const Parameters& p = s.parameters;
  s.targetInputGain = std::pow(10.0f, p.inputGain / 20.0f);
  qor::followerSetup(s.follower1, s.subBlockRate, 0.0f, p.attack, p.release * 0.2f);
  qor::followerSetup(s.follower2, s.subBlockRate, 1.0f, p.attack * 5.0f, p.release);
  s.fade.setTime(p.crossfadeTime, static_cast<float>(s.header.inputSampleRate));
}

void hardClip(float* x, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) x[i] = std::min(std::max(x[i], -1.0f), 1.0f);
}

void runCore(State& s, float* const* channels, uint32_t n) {
  const uint32_t sub = s.subBlock;
  if (n % sub != 0) return;
  const uint32_t count = s.header.inputChannels;
  const float perSample = 1.0f / static_cast<float>(sub);
  for (uint32_t start = 0; start < n; start += sub) {
    const float g = kInputGainKeep * s.previousInputGain + kInputGainPull * s.targetInputGain;
    const float peak = qor::peakHistoryUpdate(s.detector, channels, start, sub,
                                              static_cast<int32_t>(count));
    const float level = std::max(peak * g, kLevelFloor);
    const float r1 = std::min(kCeiling / level, 1.0f);
    const float r2 = std::min(r1 * kSecondPathFactor, 1.0f);
    qor::followFallingFirst(s.follower1, &r1, &s.y1, 1);
    qor::followFallingFirst(s.follower2, &r2, &s.y2, 1);
    // Pulls the gain down when even the short recent history would clip.
    const float q =
        1.0f / std::max(qor::peakHistoryRecentMax(s.detector, kClipGuardHistory) * g, 1.0f);
    qor::followFallingFirst(s.clipGuard, &q, &s.y3, 1);
    const float target = std::min(s.y3, std::min(s.y1, s.y2));

    const float startGain = s.previousGain * g;
    const float step = (target * g - s.previousGain * s.previousInputGain) * perSample;
    s.delay.apply(channels, start, startGain, step);
    s.previousGain = target;
    s.previousInputGain = g;
  }
  for (uint32_t c = 0; c < count; ++c) hardClip(channels[c], n);
}

void updateReading(State& s) {
  if (s.parameters.enable != 0) {
    s.reading[0] = qor::linearToDb(s.previousGain);
    s.reading[1] = qor::linearToDb(s.y2);
  } else {
    s.reading[0] = s.reading[1] = qor::linearToDb(0.0f);
  }
  s.reading[2] = 0.0f;
}

}  // namespace

Result qorHardLimiterGetInstanceSize(const QorHardLimiterConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorHardLimiterInit(QorHardLimiterInst* inst, const QorHardLimiterConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (const int32_t rc = checkConfig(*config); rc != 0) return result(rc);

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->meteringEnabled = config->meteringEnabled;

  const uint32_t rate = s->header.inputSampleRate;
  s->subBlock = qor::dynamicsSubBlock(rate);
  s->subBlockRate = qor::dynamicsSubBlockRate(rate, s->subBlock);
  qor::peakHistorySetup(s->detector, rate, s->subBlock, kDetectorDivider);
  qor::followerSetup(s->clipGuard, s->subBlockRate, 0.0f, 16.0f / s->subBlockRate * 355.0f, 0.5f);
  s->delay.attach(s->slots, s->header.inputChannels, s->subBlock);
  resetCore(*s);
  s->point = {s->reading, 1};
  s->points.points[0] = &s->point;
  s->fade.mix = s->parameters.enable != 0 ? 1.0f : 0.0f;

  s->marker = qor::kInitMarker;
  Parameters initial = config->parameters;
  if (const Result rc = qorHardLimiterUpdateParameters(inst, &initial); rc != Result::Success) {
    s->marker = 0;
    return rc;
  }
  updateReading(*s);
  return Result::Success;
}

Result qorHardLimiterGetDefaultParameters(Parameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  // 50.5 ms, not 50: the shipped default.
  *parameters = Parameters{5.0f, 250.0f, 0.0f, 50.5f, 1};
  return Result::Success;
}

Result qorHardLimiterGetParameters(QorHardLimiterInst* inst, Parameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorHardLimiterUpdateParameters(QorHardLimiterInst* inst, Parameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (const int32_t rc = checkParameters(*parameters); rc != 0) return result(rc);
  s->parameters = *parameters;
  deriveFromParameters(*s);
  return Result::Success;
}

Result qorHardLimiterProcess(QorHardLimiterInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  const uint32_t count = s != nullptr ? s->header.inputChannels : 0;
  if (const int32_t rc = qor::checkProcess(s, channels, count); rc != 0) return result(rc);

  const bool enabled = s->parameters.enable != 0;
  if (s->fade.active(enabled)) {
    const uint32_t n = s->header.inputBlockSize;
    if (s->fade.transition(enabled)) qor::BypassFade::keepDry(channels, s->dry, count, n);
    runCore(*s, channels, n);
    const float* const* dry = s->dry;
    if (s->fade.finish(enabled, channels, dry, count, n)) resetCore(*s);
  }
  if (s->meteringEnabled != 0) updateReading(*s);
  return Result::Success;
}

Result qorHardLimiterFlush(QorHardLimiterInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetCore(*s);
  return Result::Success;
}

Result qorHardLimiterRelease(QorHardLimiterInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  resetCore(*s);
  s->marker = 0;
  return Result::Success;
}

Result qorHardLimiterGetCurrentLatency(QorHardLimiterInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  // Four 32-sample sub-blocks, reported as such whatever the rate.
  *latency = s->fade.mix != 0.0f ? 128 : 0;
  return Result::Success;
}

Result qorHardLimiterGetMeteringPoints(const QorHardLimiterInst* const inst,
                                       const QorHardLimiterMeteringPoints** points) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, points); rc != 0) return result(rc);
  if (s->meteringEnabled == 0) return Result::ErrorMeteringDisabled;
  *points = &s->points;
  return Result::Success;
}

}  // namespace QorHardLimiter_API_V1
