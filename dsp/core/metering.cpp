#include "dsp/core/metering.h"

#include <cmath>

#include "dsp/core/follower.h"
#include "dsp/core/instance.h"
#include "dsp/core/levels.h"
#include "dsp/core/peak_detector.h"

namespace QorMetering_API_V1 {

namespace {

using Result = QorMeteringResult;

struct State {
  qor::ConfigHeader header;
  QorMeteringParameters parameters;
  QorMeteringPoint point;
  float holdLimit;  // H: two seconds of blocks
  float decay;      // D: 10 dB per second, per block
  qor::Follower follower;
  uint64_t marker;
  float* triples;   // peak dB, level dB, hold per channel
};

constexpr int32_t kPeak = 0, kLevel = 1, kHold = 2;

Result result(int32_t code) { return static_cast<Result>(code); }

bool badParameters(const QorMeteringParameters& p) {
  return qor::outOfRange(p.crossfadeTime, 0.0f, 100.0f);
}

size_t layOut(void* base, const QorMeteringConfig& config, State** out) {
  qor::InstanceLayout lay(base);
  State* s = lay.take<State>();
  float* triples = lay.take<float>(3 * static_cast<size_t>(config.inputChannels));
  if (s != nullptr) {
    s->triples = triples;
    *out = s;
  }
  return lay.size();
}

void resetTriples(State& s) {
  const float floor = qor::linearToDb(0.0f);
  for (uint32_t c = 0; c < s.header.inputChannels; ++c) {
    s.triples[3 * c + kPeak] = floor;
    s.triples[3 * c + kLevel] = floor;
    s.triples[3 * c + kHold] = 0.0f;
  }
}

}  // namespace

Result qorMeteringGetInstanceSize(const QorMeteringConfig* config, size_t* size) {
  if (config == nullptr || size == nullptr) return Result::ErrorNullPointer;
  if (badParameters(config->parameters)) return Result::ErrorOutOfRange;
  *size = layOut(nullptr, *config, nullptr);
  return Result::Success;
}

Result qorMeteringInit(QorMeteringInst* inst, const QorMeteringConfig* config) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkInit(s, config); rc != 0) return result(rc);
  s->marker = 0;
  if (badParameters(config->parameters)) return Result::ErrorOutOfRange;

  layOut(inst, *config, &s);
  s->header = qor::headerOf(*config);
  s->parameters = config->parameters;
  s->point = {s->triples, config->inputChannels};
  resetTriples(*s);

  // A zero block size would make the block rate infinite; treat it as no rate.
  const float blocksPerSecond =
      config->inputBlockSize == 0
          ? 0.0f
          : static_cast<float>(config->inputSampleRate) / static_cast<float>(config->inputBlockSize);
  s->holdLimit = 2.0f * blocksPerSecond;
  s->decay = blocksPerSecond > 0.0f ? qor::dbToLinear(-10.0f / blocksPerSecond) : 0.0f;
  const float blockRate = std::trunc(blocksPerSecond);
  qor::followerSetup(s->follower, blockRate, 0.0f, 250.0f, 250.0f);

  s->marker = qor::kInitMarker;
  if (badParameters(s->parameters)) {
    s->marker = 0;
    return Result::ErrorOutOfRange;
  }
  return Result::Success;
}

Result qorMeteringGetDefaultParameters(QorMeteringParameters* parameters) {
  if (parameters == nullptr) return Result::ErrorNullPointer;
  *parameters = {50.0f, 1};
  return Result::Success;
}

Result qorMeteringGetParameters(QorMeteringInst* inst, QorMeteringParameters* parameters) {
  return result(qor::copyParameters<State>(inst, parameters));
}

Result qorMeteringUpdateParameters(QorMeteringInst* inst, QorMeteringParameters* parameters) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, parameters); rc != 0) return result(rc);
  if (badParameters(*parameters)) return Result::ErrorOutOfRange;
  s->parameters = *parameters;
  return Result::Success;
}

Result qorMeteringProcess(QorMeteringInst* inst, float** channels) {
  State* s = qor::stateOf<State>(inst);
  const uint32_t channelCount = s != nullptr ? s->header.inputChannels : 0;
  if (const int32_t rc = qor::checkProcess(s, channels, channelCount); rc != 0) return result(rc);

  if ((s->parameters.enable & 0xFFu) == 0) {
    resetTriples(*s);
    return Result::Success;
  }
  const uint32_t n = s->header.inputBlockSize;
  for (uint32_t c = 0; c < channelCount; ++c) {
    float* t = s->triples + 3 * c;
    const float x = qor::blockPeak(channels + c, 0, n, 1);
    const float level = qor::linearToDb(x);
    if (level > t[kPeak]) {
      t[kPeak] = level;
      t[kHold] = 0.0f;
    } else if (t[kHold] >= s->holdLimit) {
      // After the hold the reading drops to the current block peak lowered
      // by one block's decay, not from the held value.
      t[kPeak] = qor::linearToDb(x * s->decay);
    } else {
      t[kHold] += 1.0f;
    }
    qor::followFallingFirst(s->follower, &level, &t[kLevel], 1);
  }
  return Result::Success;
}

Result qorMeteringRelease(QorMeteringInst* inst) {
  State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, s); rc != 0) return result(rc);
  s->marker = 0;
  return Result::Success;
}

Result qorMeteringGetCurrentLatency(QorMeteringInst* inst, int* latency) {
  const State* s = qor::stateOf<State>(inst);
  if (const int32_t rc = qor::checkReady(s, latency); rc != 0) return result(rc);
  *latency = 0;
  return Result::Success;
}

Result qorMeteringGetMeteringPoint(const QorMeteringInst* const inst, const QorMeteringPoint** point) {
  if (inst == nullptr || point == nullptr) return Result::ErrorNullPointer;
  if (!qor::isAligned32(inst)) return Result::ErrorMisaligned;
  *point = &qor::stateOf<State>(inst)->point;
  return Result::Success;
}

}  // namespace QorMetering_API_V1
